"""What the forwarder refuses is logged with its name in the file."""

from __future__ import annotations

from configuration_file import ConfigurationFile
from controller_fixtures import Answer, StartController
from conversation import ask_until_answered
from framework.flow import Flow, four_keys
from framework.udp import UdpEnd
from programs import spoiling_program


def test_a_refused_flow_is_named(configuration: ConfigurationFile,
                                 start_controller: StartController, peer: UdpEnd,
                                 answer: Answer) -> None:
    flows = {name: Flow(label=number, **four_keys())
             for number, name in enumerate(("alice", "bob", "carol"), start=1)}
    for flow in flows.values():
        answer(flow)
    configuration.flows = flows
    configuration.write()
    program = spoiling_program(configuration.folder,
                               "s/label 0x2 up_ip/label 0x2 is_multiplex no up_ip/")
    controller = start_controller("--program", program).ready()
    controller.wait_for(
        "error controller: flow bob (label 0x2/2) was refused: Vesk_validateIsMultiplexString: ' Bad "
        "isMultiplex value: no; setLabelAttrs: bad command for label 0")
    controller.wait_for("info controller: the forwarder is set up: 2 flows, 1 refused")
    for name in ("alice", "carol"):
        ask_until_answered(peer, flows[name], configuration.listen)
    # Each reload tries it again.
    assert controller.reload() == "info controller: reloaded: 2 flows, 1 refused"


def test_a_port_in_use_is_logged_and_tried_again(
        configuration: ConfigurationFile, start_controller: StartController, peer: UdpEnd,
        alice: Flow) -> None:
    configuration.write()
    with UdpEnd(*configuration.listen):
        controller = start_controller().ready()
        controller.wait_for("error controller: the downstream address was refused: Failed bind "
                            "syscall for endpoint socket: Address already in use")
        controller.wait_for("info controller: the forwarder is set up: 1 flow, not listening")
    assert controller.reload() == "info controller: reloaded: 1 flow"
    ask_until_answered(peer, alice, configuration.listen)
