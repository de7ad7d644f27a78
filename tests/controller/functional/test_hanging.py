"""A forwarder that runs but does not answer is replaced; one that is only slow is not."""

from __future__ import annotations

import os
import re
import signal

from configuration_file import ConfigurationFile
from controller_fixtures import StartWith
from controller_process import is_alive
from conversation import ask_until_answered
from framework.flow import Flow
from framework.timing import wait_until
from framework.udp import UdpEnd
from programs import ANSWERING, SILENT
from service_manager import ServiceManager


def test_a_stopped_forwarder_is_replaced(
        configuration: ConfigurationFile, start_with: StartWith, peer: UdpEnd, alice: Flow) -> None:
    # Detected without a report.
    controller = start_with("answer_seconds = 1\nstats_seconds = 1000").ready()
    stopped = controller.forwarder()
    os.kill(stopped, signal.SIGSTOP)
    # It handles the first report if that had not been answered before the signal.
    controller.wait_for(re.compile("error controller: no output from the forwarder for 1 s while handling "
                                   "the command for (a liveness check|the report): killing it"))
    controller.wait_for(re.compile("error controller: the forwarder was ended by signal 9 .*"))
    wait_until(lambda: not is_alive(stopped), "the stopped forwarder ended")
    ask_until_answered(peer, alice, configuration.listen)
    assert controller.finish() == 0


def test_a_slow_forwarder_is_not_killed(start_with: StartWith) -> None:
    slow = f"for i in $(seq 25); do echo info busy; sleep 0.2; done\n{ANSWERING}"
    controller = start_with("answer_seconds = 2\ndrain_seconds = 0", slow).ready()
    assert not [line for line in controller.lines if "no output from the forwarder" in line]
    assert controller.finish() == 0


def test_a_forwarder_that_never_answers_is_started_with_growing_pauses(start_with: StartWith) -> None:
    controller = start_with("answer_seconds = 1", SILENT)
    controller.wait_for("error controller: no output from the forwarder for 1 s while handling "
                        "the command for the log level: killing it")
    for pause in (100, 200):
        controller.wait_for(f"warn controller: starts the forwarder again in {pause} ms")


def test_the_watchdog_is_also_answered_during_pauses(
        configuration: ConfigurationFile, start_with: StartWith) -> None:
    with ServiceManager(configuration.folder) as manager:
        controller = start_with("restart_pause_ms = 1000",
                                environment={**manager.environment, "WATCHDOG_USEC": "200000"})
        manager.told_until("READY=1")
        os.kill(controller.forwarder(), signal.SIGKILL)
        status = "STATUS=The forwarder ended and will be started again"
        manager.told_until(status)
        lines = manager.told_until("READY=1")
    controller.wait_for(re.compile("warn controller: starts the forwarder again in 1000 ms"))
    # One every 100 ms; fewer on a busy machine.
    assert lines.count("WATCHDOG=1") >= 3
