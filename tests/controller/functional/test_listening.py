"""A forwarder that cannot listen is not ready, and the controller tries again until it can."""

from __future__ import annotations

import os
import re
import signal

from configuration_file import ConfigurationFile
from controller_fixtures import StartController, StartWith
from conversation import ask_until_answered
from framework.flow import Flow
from framework.lateral import LOOPBACK
from framework.udp import UdpEnd, free_port
from service_manager import ServiceManager


def test_it_is_ready_once_the_port_is_free(
        configuration: ConfigurationFile, start_controller: StartController, peer: UdpEnd,
        alice: Flow) -> None:
    configuration.write()
    host, port = configuration.listen
    with ServiceManager(configuration.folder) as manager:
        with UdpEnd(*configuration.listen):
            controller = start_controller(environment=manager.environment)
            assert manager.told() == ["STATUS=1 flow, not listening"]
            controller.wait_for(
                f"error controller: cannot listen on {host}, port {port}: the port is in use; "
                'stop the process that "ss -lunp" shows, or change the file')
            for pause in (100, 200, 400):
                controller.wait_for(f"warn controller: tries to listen again in {pause} ms")
        assert set(manager.told_until("READY=1")) <= {"STATUS=1 flow, not listening"}
    controller.wait_for("info controller: the forwarder listens: 1 flow")
    ask_until_answered(peer, alice, configuration.listen)
    # There are no further attempts once it listens.
    assert controller.reload() == "info controller: reloaded: 1 flow"
    assert controller.lines[-2] == "info controller: reload: 0 commands to send"
    assert controller.finish() == 0


def test_it_is_ready_once_the_lateral_stream_also_listens(
        configuration: ConfigurationFile, start_controller: StartController, peer: UdpEnd,
        alice: Flow) -> None:
    port = free_port()
    configuration.join(port)
    configuration.write()
    with ServiceManager(configuration.folder) as manager:
        with UdpEnd(LOOPBACK[0], port):
            controller = start_controller(environment=manager.environment)
            assert manager.told() == ["STATUS=1 flow, without lateral stream"]
            ask_until_answered(peer, alice, configuration.listen)
            controller.wait_for(re.compile(
                f"error controller: cannot listen on {LOOPBACK[0]}, port {port}: the port is in use.*"))
        assert set(manager.told_until("READY=1")) <= {"STATUS=1 flow, without lateral stream"}
    # The listener for peers was not restarted.
    assert controller.lines.count("info Forwarder listener stopped") == 0


def test_a_new_forwarder_also_tries_again(
        configuration: ConfigurationFile, start_with: StartWith, peer: UdpEnd, alice: Flow) -> None:
    with ServiceManager(configuration.folder) as manager:
        controller = start_with("restart_pause_ms = 500", environment=manager.environment)
        assert manager.told()[0] == "READY=1"
        os.kill(controller.forwarder(), signal.SIGKILL)
        controller.wait_for("warn controller: starts the forwarder again in 500 ms")
        with UdpEnd(*configuration.listen):
            controller.wait_for("info controller: the forwarder is set up: 1 flow, not listening")
        lines = manager.told_until("READY=1")
    assert "STATUS=1 flow, not listening" in lines
    ask_until_answered(peer, alice, configuration.listen)


def test_it_ends_while_it_does_not_listen(
        configuration: ConfigurationFile, start_with: StartWith) -> None:
    with UdpEnd(*configuration.listen):
        controller = start_with("drain_seconds = 0").ready()
        controller.wait_for("warn controller: tries to listen again in 200 ms")
        assert controller.finish() == 0
