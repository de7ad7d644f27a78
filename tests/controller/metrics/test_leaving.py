"""Readiness at the end: /ready fails first, forwarding continues for leave_seconds, then the drain begins."""

from __future__ import annotations

import os
import re
import signal
import time
from typing import Callable

from configuration_file import ConfigurationFile
from controller_process import ControllerProcess
from conversation import Conversation
from framework.flow import Flow
from framework.timing import scaled, wait_until
from programs import spoiling_program
from service_manager import ServiceManager

from page import fetch

StartController = Callable[..., ControllerProcess]

_LEAVING = (503, "the controller is about to end\n")
_DRAINING = re.compile("info controller: draining: .*")


def test_forwards_and_is_not_ready_before_the_drain(
        configuration: ConfigurationFile, port: int, start_controller: StartController,
        alice: Flow) -> None:
    configuration.tables["controller"] = "leave_seconds = 1"
    configuration.write()
    with ServiceManager(configuration.folder) as manager:
        controller = start_controller(environment=manager.environment).ready()
        assert fetch(port, "/ready") == (200, "ready\n")
        assert manager.told()[0] == "READY=1"
        with Conversation(alice, configuration.listen) as conversation:
            conversation.wait_for_answers(10)
            began = time.monotonic()
            controller.signal(signal.SIGTERM)
            assert manager.told() == ["STOPPING=1", "STATUS=Leaving"]
            controller.wait_for(
                "info controller: leaving: is not ready, and forwards for 1 s before the drain")
            assert fetch(port, "/ready") == _LEAVING
            assert fetch(port, "/healthz") == (200, "ok\n")
            conversation.wait_for_answers(10)
            controller.wait_for(_DRAINING)
            took = time.monotonic() - began
            assert manager.told() == ["STATUS=Draining"]
            assert fetch(port, "/ready") == _LEAVING
        assert conversation.lost == 0
        assert 1 <= took < scaled(3)
        assert controller.wait_exit() == 0


def test_a_second_signal_ends_the_wait_and_a_third_one_the_drain(
        configuration: ConfigurationFile, port: int, start_controller: StartController,
        alice: Flow) -> None:
    configuration.tables["controller"] = "leave_seconds = 60\ndrain_seconds = 60"
    configuration.write()
    controller = start_controller().ready()
    with Conversation(alice, configuration.listen) as conversation:
        conversation.wait_for_answers(10)
        controller.signal(signal.SIGTERM)
        wait_until(lambda: fetch(port, "/ready") == _LEAVING, "it is leaving")
        controller.signal(signal.SIGTERM)
        controller.wait_for("info controller: leaving: the wait is ended by a signal")
        controller.wait_for(_DRAINING)
        conversation.wait_for_answers(10)
        assert conversation.lost == 0
        controller.signal(signal.SIGTERM)
        assert controller.wait_exit(10) == 0


def test_a_forwarder_that_ends_meanwhile_is_restarted(
        configuration: ConfigurationFile, port: int, start_controller: StartController,
        alice: Flow) -> None:
    configuration.tables["controller"] = "leave_seconds = 60"
    configuration.write()
    controller = start_controller().ready()
    controller.signal(signal.SIGTERM)
    wait_until(lambda: fetch(port, "/ready") == _LEAVING, "it is leaving")
    mark = controller.mark()
    os.kill(controller.forwarder(), signal.SIGKILL)
    controller.wait_for("info controller: the forwarder is set up: 1 flow", mark)
    assert fetch(port, "/ready") == _LEAVING
    with Conversation(alice, configuration.listen) as conversation:
        conversation.wait_for_answers(1)
    controller.signal(signal.SIGTERM)
    assert controller.wait_exit() == 0


def test_a_refused_flow_makes_it_unready_if_strict(
        configuration: ConfigurationFile, port: int, start_controller: StartController,
        alice: Flow) -> None:
    assert alice.label == 1
    configuration.write()
    refuse = spoiling_program(configuration.folder, "s/label 0x1 up_ip/label 0x1 is_multiplex no up_ip/")
    controller = start_controller("--program", refuse).ready()
    controller.wait_for("info controller: the forwarder is set up: 0 flows, 1 refused")
    assert fetch(port, "/ready") == (200, "ready\n")
    configuration.tables["controller"] = "strict = true"
    configuration.write()
    controller.reload()
    wait_until(lambda: fetch(port, "/ready") == (503, "the forwarder refuses flows of the file\n"),
               "the page names the refusal")
    assert fetch(port, "/healthz")[0] == 200
