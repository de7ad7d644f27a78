"""A reload with an address that cannot be used keeps the old address."""

from __future__ import annotations

import os
import re
import signal

from configuration_file import ConfigurationFile
from controller_fixtures import StartController, StartWith
from controller_process import ControllerProcess
from conversation import Conversation, ask_until_answered
from framework.flow import Flow
from framework.udp import Address, UdpEnd, free_port
from programs import Gate, spoiling_program, unusable


def line_of(configuration: ConfigurationFile, key: str) -> int:
    lines = configuration.path.read_text(encoding="utf-8").splitlines()
    return [line.split()[:1] for line in lines].index([key]) + 1


def said_refusal(controller: ControllerProcess, configuration: ConfigurationFile, key: str,
                 old: Address) -> str:
    """Waits for the error with the line of the file, the new address and the old one."""
    host, port = configuration.listen
    return controller.wait_for(re.compile(
        rf"error controller: {configuration.path}:{line_of(configuration, key)}: cannot listen on "
        rf"{host}, port {port}: .*\. The forwarder continues to listen on {old[0]}, port {old[1]}"))


def test_a_port_in_use_keeps_the_old_address(
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
    # The next reload tries the new address again.
    controller.reload()
    ask_until_answered(peer, alice, configuration.listen)
    assert controller.finish() == 0


def test_an_address_of_another_host_keeps_the_old_address(
        configuration: ConfigurationFile, start_controller: StartController, peer: UdpEnd,
        alice: Flow) -> None:
    configuration.write()
    old = configuration.listen
    controller = start_controller().ready()
    configuration.listen = ("192.0.2.1", old[1])
    configuration.write()
    controller.reload()
    assert "this host does not have the address" in said_refusal(controller, configuration, "address", old)
    # A new forwarder gets the address in use.
    since = controller.mark()
    os.kill(controller.forwarder(), signal.SIGKILL)
    controller.wait_for("info controller: the forwarder is set up: 1 flow", since)
    ask_until_answered(peer, alice, old)


def test_moves_between_the_wildcard_and_one_address(
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


def test_a_move_that_fails_in_the_forwarder_is_reverted(
        configuration: ConfigurationFile, start_controller: StartController, peer: UdpEnd,
        alice: Flow, bob: Flow) -> None:
    configuration.write()
    old = configuration.listen
    new = ("127.0.0.1", free_port())
    # The controller can listen on the new port; the forwarder gets an address on which it cannot.
    program = spoiling_program(configuration.folder, unusable(new[1]))
    controller = start_controller("--program", program).ready()
    configuration.listen = new
    configuration.flows["bob"] = bob
    configuration.write()
    assert controller.reload() == "info controller: reloaded: 2 flows"
    said_refusal(controller, configuration, "port", old)
    for flow in (alice, bob):
        ask_until_answered(peer, flow, old)


def test_a_reload_while_a_failed_move_is_reverted_also_returns_to_the_old_address(
        configuration: ConfigurationFile, start_controller: StartController, peer: UdpEnd,
        alice: Flow) -> None:
    configuration.write()
    old = configuration.listen
    ports = free_port(), free_port()
    # The first "stop" is that of the move; the second is that of the return.
    with Gate(configuration.folder, stop=2) as gate:
        program = spoiling_program(configuration.folder, unusable(*ports), gate.program)
        controller = start_controller("--program", program).ready()
        for port in ports:
            since = controller.mark()
            configuration.listen = ("127.0.0.1", port)
            configuration.write()
            controller.signal(signal.SIGHUP)
            controller.wait_for(re.compile("info controller: reload: 2 commands to send.*"), since)
            if port == ports[0]:
                said_refusal(controller, configuration, "port", old)
        gate.open()
        said_refusal(controller, configuration, "port", old)
        controller.wait_for("info controller: reloaded: 1 flow")
        ask_until_answered(peer, alice, old)
        assert controller.finish() == 0


def test_a_reload_may_take_back_a_move_that_has_not_begun(
        configuration: ConfigurationFile, start_controller: StartController, peer: UdpEnd,
        alice: Flow) -> None:
    configuration.write()
    old = configuration.listen
    with Gate(configuration.folder, stop=1) as gate:
        controller = start_controller(
            "--program", spoiling_program(configuration.folder, "", gate.program)).ready()
        for listen in (("127.0.0.1", free_port()), old):
            since = controller.mark()
            configuration.listen = listen
            configuration.write()
            controller.signal(signal.SIGHUP)
            controller.wait_for(re.compile("info controller: reload: .* to send.*"), since)
        gate.open()
        controller.wait_for("info controller: reloaded: 1 flow")
        assert not [line for line in controller.lines if "cannot listen" in line]
        ask_until_answered(peer, alice, old)
        assert controller.finish() == 0


def test_a_reload_during_the_pause_with_a_port_in_use_keeps_the_old_address(
        configuration: ConfigurationFile, start_with: StartWith, peer: UdpEnd, alice: Flow) -> None:
    old = configuration.listen
    controller = start_with("restart_pause_ms = 1000").ready()
    with UdpEnd() as taken:
        configuration.listen = taken.address
        configuration.write()
        os.kill(controller.forwarder(), signal.SIGKILL)
        controller.wait_for("warn controller: starts the forwarder again in 1000 ms")
        controller.signal(signal.SIGHUP)
        said_refusal(controller, configuration, "port", old)
        ask_until_answered(peer, alice, old)
