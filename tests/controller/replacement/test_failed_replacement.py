"""A replacement that fails changes nothing; the controller is reloaded, killed or ended during one."""

from __future__ import annotations

import os
import signal
from typing import Type

from configuration_file import ConfigurationFile
from controller_fixtures import StartController
from controller_process import ControllerProcess, is_alive
from framework.timing import wait_until
from generator import Generator
from instances import (DONE, FLOWS, INSTANCES, METRICS, RATE, READY, children, forwarders,
                       port_of_instances, replace, tables, write_for_generator)
from page import samples
from programs import SILENT, script

_TAKEN_OVER = ("info controller: instance 0: the new forwarder has taken over on port 4503; "
               "the old one drains")

_BROKEN = {
    "exit 1": "it ended",
    SILENT: "it ended",
    "exec cat": "it ended",
    "while sleep 0.1; do echo info busy; done": "it is not ready after 3 s",
}


def _forwarder() -> str:
    return f"exec '{os.path.abspath(os.environ['VESK_BINARY'])}' \"$@\""


def _fail(controller: ControllerProcess, reason: str) -> None:
    before = forwarders(controller, INSTANCES), port_of_instances()
    controller.wait_for(
        f"error controller: instance 0 was not replaced: the new forwarder did not come up: "
        f"{reason}; the old one continues", replace(controller))
    assert (forwarders(controller, INSTANCES), port_of_instances()) == before


def test_a_broken_program_changes_nothing(configuration: ConfigurationFile,
                                          start_controller: StartController,
                                          start_generator: Type[Generator]) -> None:
    program = script(configuration.folder, _forwarder())
    write_for_generator(configuration, "answer_seconds = 1")
    controller = start_controller("--program", program)
    controller.wait_for(READY)
    generator = start_generator(controller.pid, FLOWS, RATE)
    for text, reason in _BROKEN.items():
        script(configuration.folder, text)
        _fail(controller, reason)
    os.chmod(program, 0o600)
    _fail(controller, "its program cannot be run")
    assert samples(METRICS)['vesk_replacements_total{outcome="failed"}'] == len(_BROKEN) + 1

    # A program that works takes over afterwards.
    script(configuration.folder, _forwarder())
    controller.wait_for(DONE, replace(controller))
    generator.check_nothing_lost()
    assert controller.finish() == 0


def _kill_in_the_middle(controller: ControllerProcess) -> None:
    """Both the old and the new forwarder of an instance run then."""
    controller.wait_for(_TAKEN_OVER, replace(controller))
    running = children(controller.pid)
    assert len(running) == INSTANCES + 1
    controller.signal(signal.SIGKILL)
    controller.wait_exit()
    wait_until(lambda: not any(map(is_alive, running)), "the forwarders ended with the controller")


def test_a_controller_killed_in_the_middle_can_be_started_again(
        configuration: ConfigurationFile, start_controller: StartController,
        start_generator: Type[Generator]) -> None:
    write_for_generator(configuration)
    killed = start_controller()
    killed.wait_for(READY)
    _kill_in_the_middle(killed)
    assert tables() == ["table inet vesk_4500"]

    controller = start_controller()
    controller.wait_for(READY)
    assert tables() == ["table inet vesk_4500"]
    assert port_of_instances() == {0: 4501, 1: 4502}
    generator = start_generator(controller.pid, FLOWS, RATE)
    controller.wait_for(DONE, replace(controller))
    generator.check_nothing_lost()
    assert controller.finish() == 0
    assert not tables()


def test_a_reload_waits_for_the_replacement(configuration: ConfigurationFile,
                                            start_controller: StartController) -> None:
    write_for_generator(configuration)
    controller = start_controller()
    controller.wait_for(READY)
    since = replace(controller)
    # Of signals that arrive together, SIGHUP is handled first.
    controller.wait_for(f"info controller: replaces {INSTANCES} instances", since)
    controller.signal(signal.SIGHUP)
    controller.wait_for("info controller: reloads the file after the replacement", since)
    controller.wait_for(DONE, since)
    controller.wait_for(f"info controller: reloaded: {FLOWS} flows, {INSTANCES} instances", since)
    assert controller.finish() == 0


def test_the_controller_ends_in_the_middle_of_a_replacement(
        configuration: ConfigurationFile, start_controller: StartController) -> None:
    write_for_generator(configuration)
    controller = start_controller()
    controller.wait_for(READY)
    controller.wait_for(_TAKEN_OVER, replace(controller))
    running = children(controller.pid)
    assert controller.finish() == 0
    assert not any(map(is_alive, running))
    assert not tables()
