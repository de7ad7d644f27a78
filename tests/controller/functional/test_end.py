"""SIGTERM and SIGINT: the traffic drains, the forwarder ends, and the controller logs how."""

from __future__ import annotations

import re
import signal
import time

import pytest

from configuration_file import ConfigurationFile
from controller_fixtures import StartController, StartWith
from controller_process import is_alive
from conversation import Conversation, ask_until_answered
from framework.flow import Flow
from framework.timing import scaled
from framework.udp import UdpEnd
from programs import ANSWERING, SILENT, script
from service_manager import ServiceManager


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
@pytest.mark.parametrize("level", ["info", "warn"])
def test_forwards_until_the_traffic_stops(
        configuration: ConfigurationFile, start_with: StartWith, alice: Flow, number: int,
        level: str) -> None:
    configuration.tables["forwarder"] = f'log_level = "{level}"'
    controller = start_with("drain_seconds = 60").ready()
    forwarder = controller.forwarder()
    with Conversation(alice, configuration.listen) as conversation:
        conversation.wait_for_answers(10)
        controller.signal(number)
        controller.wait_for(re.compile("info controller: draining: .*"))
        conversation.wait_for_answers(50)
    assert conversation.lost == 0
    rest = time.monotonic()
    assert controller.wait_exit(30) == 0
    # The counters last changed with the last datagram, and must not change for a second.
    assert time.monotonic() - rest > 0.9
    controller.wait_for("info controller: the forwarder ended with status 0")
    assert not is_alive(forwarder)


def test_drain_time_is_limited(configuration: ConfigurationFile, start_with: StartWith,
                               alice: Flow) -> None:
    controller = start_with("drain_seconds = 2").ready()
    with Conversation(alice, configuration.listen) as conversation:
        conversation.wait_for_answers(10)
        began = time.monotonic()
        assert controller.finish() == 0
        took = time.monotonic() - began
    assert 2 <= took < scaled(6)
    controller.wait_for("warn controller: the drain time is over, but there is still traffic")


def test_drain_without_reports_is_logged_as_such(start_with: StartWith) -> None:
    controller = start_with("drain_seconds = 1", SILENT)
    controller.wait_for(re.compile("info controller: started .*"))
    assert controller.finish() == 0
    controller.wait_for("warn controller: the drain time is over, and no report has arrived")


def test_a_forwarder_that_does_not_end_is_killed(start_with: StartWith) -> None:
    stubborn = f"trap '' TERM\n{ANSWERING}\nwhile :; do sleep 0.1; done"
    controller = start_with("drain_seconds = 0", stubborn).ready()
    controller.signal(signal.SIGTERM)
    assert controller.wait_exit(20) == 3
    controller.wait_for("error controller: the forwarder does not end: sending SIGTERM")
    controller.wait_for("error controller: the forwarder was ended by signal 9 (Killed)")


def test_the_service_manager_is_notified(configuration: ConfigurationFile,
                                         start_controller: StartController, alice: Flow) -> None:
    configuration.write()
    with ServiceManager(configuration.folder) as manager:
        controller = start_controller(environment=manager.environment)
        assert manager.told() == ["READY=1", "STATUS=1 flow"]
        controller.wait_for("info controller: the forwarder is set up: 1 flow")
        controller.signal(signal.SIGHUP)
        reloading = manager.told()
        assert reloading[0] == "RELOADING=1"
        assert re.fullmatch(r"MONOTONIC_USEC=\d+", reloading[1])
        assert manager.told() == ["READY=1", "STATUS=1 flow"]
        controller.signal(signal.SIGTERM)
        assert manager.told() == ["STOPPING=1", "STATUS=Draining"]
    assert controller.wait_exit() == 0


def test_a_reload_before_readiness_does_not_send_ready(configuration: ConfigurationFile,
                                                       start_controller: StartController) -> None:
    configuration.write()
    silent = script(configuration.folder, SILENT)
    with ServiceManager(configuration.folder) as manager:
        controller = start_controller("--program", silent, environment=manager.environment)
        controller.wait_for(re.compile("info controller: started .*"))
        configuration.write_text("[downstream\n")
        controller.signal(signal.SIGHUP)
        assert manager.told()[0].startswith("STATUS=The last reload failed")
        configuration.write()
        controller.signal(signal.SIGHUP)
        controller.wait_for("info controller: reload: 0 commands to send")
        controller.signal(signal.SIGTERM)
        assert manager.told()[0] == "STOPPING=1"


def test_ready_is_not_sent_while_stopping(configuration: ConfigurationFile,
                                          start_with: StartWith) -> None:
    # It answers only once a certain file exists, which is created after the signal.
    hesitant = f"while [ ! -e go ]; do sleep 0.01; done\n{ANSWERING}"
    with ServiceManager(configuration.folder) as manager:
        controller = start_with("drain_seconds = 3", hesitant, environment=manager.environment)
        controller.wait_for(re.compile("info controller: started .*"))
        controller.signal(signal.SIGTERM)
        assert manager.told()[0] == "STOPPING=1"
        (configuration.folder / "go").touch()
        controller.wait_for("info controller: the forwarder is set up: 0 flows")
        assert controller.wait_exit() == 0
        assert not manager.has_message()


def test_the_journal_gets_its_priorities(configuration: ConfigurationFile,
                                         start_controller: StartController, peer: UdpEnd,
                                         alice: Flow) -> None:
    configuration.write()
    # The shell finds out the file of its standard error, which the controller inherits.
    controller = start_controller(prefix=[
        "sh", "-c", 'JOURNAL_STREAM=$(stat -L -c %d:%i /proc/self/fd/2) exec "$@"', "sh"])
    controller.wait_for("<6>controller: the forwarder is set up: 1 flow")
    ask_until_answered(peer, alice, configuration.listen)
    controller.wait_for(re.compile("<6>Created upstream endpoint: .*"))
    assert controller.finish() == 0
