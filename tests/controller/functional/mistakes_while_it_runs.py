"""Mistakes while two flows have traffic."""

from __future__ import annotations

import os
import signal
from pathlib import Path
from typing import Callable

from framework.framing import Key
from mistake import TAKEN_BY_ANOTHER, UNUSABLE, Mistake, Section, Traffic
from trial import Trial

Make = Callable[[Trial], None]

_STAYS = "The forwarder continues to listen on 127.0.0.1, port PORT"


def _reloaded(change: Callable[[Trial], object]) -> Make:
    def make(trial: Trial) -> None:
        change(trial)
        trial.reload()
    return make


def _written(change: Callable[[Trial], object]) -> Make:
    """A reload of a correct file."""
    def make(trial: Trial) -> None:
        change(trial)
        trial.configuration.write()
        trial.reload()
    return make


def _file(trial: Trial) -> Path:
    return trial.configuration.path


def _become_directory(trial: Trial) -> None:
    _file(trial).unlink()
    _file(trial).mkdir()


def _good_and_bad_flow(trial: Trial) -> None:
    trial.append('[flows.carol]\nlabel = 3\nupstream = "127.0.0.1:5000"\n'
                 '[flows.dave]\nlabel = 2\nupstream = "127.0.0.1:5000"')


def _taken_port(trial: Trial) -> None:
    trial.configuration.listen = trial.new_end().address
    trial.names["TAKEN"] = str(trial.configuration.listen[1])


def _foreign_address(trial: Trial) -> None:
    trial.configuration.listen = ("192.0.2.1", trial.configuration.listen[1])


def _other_key(trial: Trial) -> None:
    """Bob's peer keeps the old key."""
    old, trial.bob.down_in = trial.bob.down_in, Key(b"the new key of bob")
    trial.configuration.write()
    trial.bob.down_in = old
    trial.reload()


def _without_bob(trial: Trial) -> None:
    del trial.configuration.flows["bob"]


def _second_controller(trial: Trial) -> None:
    trial.start()


def _signal(number: int, times: int = 1) -> Make:
    def make(trial: Trial) -> None:
        for _ in range(times):
            trial.controller.signal(number)
    return make


def _forwarder(number: int) -> Make:
    return lambda trial: os.kill(trial.controller.forwarder(), number)


def _stop_forwarder(trial: Trial) -> None:
    trial.configuration.tables["controller"] += "\nanswer_seconds = 1"
    trial.configuration.write()
    trial.controller.reload()
    _forwarder(signal.SIGSTOP)(trial)


def _forwarder_without_program(trial: Trial) -> None:
    program = Path(trial.names["PROGRAM"])
    target = program.readlink()
    program.unlink()
    _forwarder(signal.SIGKILL)(trial)
    trial.remedy = lambda: program.symlink_to(target)


def _stop_controller(trial: Trial) -> None:
    trial.controller.signal(signal.SIGSTOP)
    trial.remedy = lambda: trial.controller.signal(signal.SIGCONT)


def _drain(trial: Trial) -> None:
    trial.configuration.tables["controller"] = "drain_seconds = 1000"
    trial.configuration.write()
    trial.controller.reload()
    trial.controller.signal(signal.SIGTERM)
    trial.controller.wait_for("info controller: draining: ends after a second without traffic, or "
                              "in 1000 s at the latest")


def _terminate_twice(trial: Trial) -> None:
    _drain(trial)
    trial.controller.signal(signal.SIGTERM)


def _reload_while_it_drains(trial: Trial) -> None:
    _drain(trial)
    trial.reload()


RELOADS = Section("Reloads", True, [
    Mistake("the file is not readable", _reloaded(lambda trial: _file(trial).chmod(0)),
            ("error controller: FILE: cannot be read: Permission denied", UNUSABLE),
            Traffic.UNAFFECTED),
    Mistake("the file is empty", _reloaded(lambda trial: _file(trial).write_text("")),
            ("error controller: FILE:1: downstream is missing", UNUSABLE), Traffic.UNAFFECTED),
    Mistake("the file does not exist", _reloaded(lambda trial: _file(trial).unlink()),
            ("error controller: FILE: cannot be read: No such file or directory", UNUSABLE),
            Traffic.UNAFFECTED),
    Mistake("the file was replaced by a directory", _reloaded(_become_directory),
            ("error controller: FILE: is not a regular file", UNUSABLE), Traffic.UNAFFECTED),
    Mistake("a correct and a wrong flow are added", _reloaded(_good_and_bad_flow),
            ("error controller: FILE:...: flows.dave.label is already used by flows.bob", UNUSABLE),
            Traffic.UNAFFECTED),
    Mistake("another program uses the new port", _written(_taken_port),
            ("error controller: FILE:...: cannot listen on 127.0.0.1, port TAKEN: "
             f"{TAKEN_BY_ANOTHER}. {_STAYS}",
             "info controller: reloaded: 2 flows"), Traffic.UNAFFECTED),
    Mistake("the host does not have the new address", _written(_foreign_address),
            ("error controller: FILE:...: cannot listen on 192.0.2.1, port PORT: this host does not "
             'have the address; add it, or use one that "ip address" lists. ' + _STAYS,),
            Traffic.UNAFFECTED),
    Mistake("a flow with traffic is removed", _written(_without_bob),
            ("info controller: reload: 1 command to send: flow bob",
             "info controller: reloaded: 1 flow"), Traffic.OTHERS_UNAFFECTED),
    Mistake("a flow's key is changed, but its peer keeps the old one", _other_key,
            ("info controller: reload: 1 command to send: flow bob",
             "downstreamPacketReceivedFailed HMAC Check!"), Traffic.OTHERS_UNAFFECTED),
])

PROCESSES = Section("Signals and processes", True, [
    Mistake("SIGHUP 100 times at once", _signal(signal.SIGHUP, 100),
            ("info controller: reload: 0 commands to send", "info controller: reloaded: 2 flows"),
            Traffic.UNAFFECTED),
    Mistake("SIGUSR1", _signal(signal.SIGUSR1),
            ("warn controller: SIGUSR1 is ignored: SIGHUP reloads the file, SIGTERM ends the "
             "controller",),
            Traffic.UNAFFECTED),
    Mistake("SIGUSR2", _signal(signal.SIGUSR2),
            ("warn controller: SIGUSR2 is ignored: a replacement needs downstream.instance_ports",),
            Traffic.UNAFFECTED),
    Mistake("SIGTERM twice", _terminate_twice,
            ("info controller: draining: ...", "info controller: the forwarder ended with status 0"),
            Traffic.ENDED, 0),
    Mistake("SIGHUP after SIGTERM", _reload_while_it_drains,
            ("warn controller: SIGHUP is ignored: the controller is ending",),
            Traffic.UNAFFECTED),
    Mistake("SIGSTOP", _stop_controller, (), Traffic.UNAFFECTED),
    Mistake("SIGKILL", _signal(signal.SIGKILL), (), Traffic.ENDED, -signal.SIGKILL),
    Mistake("a second controller with the same file", _second_controller,
            (f"error controller: cannot listen on 127.0.0.1, port PORT: {TAKEN_BY_ANOTHER}",),
            Traffic.UNAFFECTED),
    Mistake("SIGKILL to the forwarder", _forwarder(signal.SIGKILL),
            ("error controller: the forwarder was ended by signal 9 (Killed)",
             "warn controller: starts the forwarder again in ... ms"), Traffic.INTERRUPTED),
    Mistake("SIGKILL to the forwarder, whose program was removed", _forwarder_without_program,
            ("error controller: cannot run PROGRAM: No such file or directory",
             "warn controller: starts the forwarder again in 200 ms"), Traffic.INTERRUPTED),
    Mistake("SIGSTOP to the forwarder", _stop_forwarder,
            ("error controller: no output from the forwarder for 1 s while handling the command for "
             "...: killing it",
             "warn controller: starts the forwarder again in ... ms"), Traffic.INTERRUPTED),
])

SECTIONS = (RELOADS, PROCESSES)
