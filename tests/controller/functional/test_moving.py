"""A reload to an address that cannot be listened on leaves the service where it is."""

from __future__ import annotations

import os
import re
import signal

from configuration_file import ConfigurationFile
from controller_fixtures import StartController
from controller_process import ControllerProcess
from conversation import Conversation, ask_until_answered
from framework.flow import Flow
from framework.udp import Address, UdpEnd, free_port
from programs import spoiling_program


def line_of(configuration: ConfigurationFile, key: str) -> int:
    lines = configuration.path.read_text(encoding="utf-8").splitlines()
    return [line.split()[:1] for line in lines].index([key]) + 1


def said_refusal(controller: ControllerProcess, configuration: ConfigurationFile, key: str,
                 old: Address) -> str:
    """The error that names the file's line, the new address and the one that is kept."""
    host, port = configuration.listen
    return controller.wait_for(re.compile(
        rf"error controller: {configuration.path}:{line_of(configuration, key)}: cannot listen on "
        rf"{host}, port {port}: .*\. The forwarder stays on {old[0]}, port {old[1]}"))


def test_a_port_that_is_taken_is_not_moved_to(
        configuration: ConfigurationFile, start_controller: StartController, peer: UdpEnd,
        alice: Flow, bob: Flow) -> None:
    configuration.write()
    old = configuration.listen
    controller = start_controller().ready()
    with UdpEnd() as taken, Conversation(alice, old) as conversation:
        conversation.wait_for_answers(10)
        configuration.listen = taken.address
        configuration.flows["bob"] = bob
        configuration.write()
        assert controller.reload() == "info controller: reloaded: 2 flows"
        said_refusal(controller, configuration, "port", old)
        ask_until_answered(peer, bob, old)
        conversation.wait_for_answers(10)
    assert conversation.lost == 0
    assert "info Forwarder listener stopped" not in controller.lines
    # The next reload tries it again.
    controller.reload()
    ask_until_answered(peer, alice, configuration.listen)
    assert controller.finish() == 0


def test_an_address_that_the_host_does_not_have_is_not_moved_to(
        configuration: ConfigurationFile, start_controller: StartController, peer: UdpEnd,
        alice: Flow) -> None:
    configuration.write()
    old = configuration.listen
    controller = start_controller().ready()
    configuration.listen = ("192.0.2.1", old[1])
    configuration.write()
    controller.reload()
    assert "this host has no such address" in said_refusal(controller, configuration, "address", old)
    # A new forwarder gets the address that is in force.
    since = controller.mark()
    os.kill(controller.forwarder(), signal.SIGKILL)
    controller.wait_for("info controller: the forwarder is set up: 1 flow", since)
    ask_until_answered(peer, alice, old)


def test_the_same_port_of_all_addresses_is_moved_to(
        configuration: ConfigurationFile, start_controller: StartController, peer: UdpEnd,
        alice: Flow) -> None:
    configuration.write()
    port = configuration.listen[1]
    controller = start_controller().ready()
    for host in ("0.0.0.0", "127.0.0.2", "::", "127.0.0.1"):
        configuration.listen = (host, port)
        configuration.write()
        assert controller.reload() == "info controller: reloaded: 1 flow"
        ask_until_answered(peer, alice,
                           (host if host.startswith("127") else "127.0.0.1", port))
    assert not [line for line in controller.lines if "cannot listen" in line]


def test_a_move_that_fails_all_the_same_is_taken_back(
        configuration: ConfigurationFile, start_controller: StartController, peer: UdpEnd,
        alice: Flow, bob: Flow) -> None:
    configuration.write()
    old = configuration.listen
    new = ("127.0.0.1", free_port())
    # The controller can listen on the new port; the forwarder is told of an address it cannot have.
    program = spoiling_program(configuration.folder,
                               f"s/^start addr {new[0]} port {new[1]}$/"
                               f"start addr 192.0.2.1 port {new[1]}/")
    controller = start_controller("--program", program).ready()
    configuration.listen = new
    configuration.flows["bob"] = bob
    configuration.write()
    assert controller.reload() == "info controller: reloaded: 2 flows"
    said_refusal(controller, configuration, "port", old)
    for flow in (alice, bob):
        ask_until_answered(peer, flow, old)


def test_a_reload_during_the_pause_moves_to_a_port_that_can_be_had(
        configuration: ConfigurationFile, start_controller: StartController, peer: UdpEnd,
        alice: Flow) -> None:
    configuration.tables["controller"] = "restart_pause_ms = 1000"
    configuration.write()
    old = configuration.listen
    controller = start_controller().ready()
    with UdpEnd() as taken:
        configuration.listen = taken.address
        configuration.write()
        os.kill(controller.forwarder(), signal.SIGKILL)
        controller.wait_for("warn controller: starts the forwarder again in 1000 ms")
        controller.signal(signal.SIGHUP)
        said_refusal(controller, configuration, "port", old)
        ask_until_answered(peer, alice, old)
