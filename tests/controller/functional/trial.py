"""Carries out the mistakes: a controller with two flows, alice and bob, and live traffic."""

from __future__ import annotations

import contextlib
import os
import signal
import socket
import subprocess
from typing import TYPE_CHECKING, Callable, Dict, List, Optional, Tuple

from configuration_file import ConfigurationFile
from controller_process import ControllerProcess, binary, check_secrecy, command
from conversation import Conversation, ask_until_answered
from framework.flow import Flow, four_keys
from framework.timing import scaled
from framework.udp import Address, UdpEnd, UpstreamService
from mistake import FileMistake, Mistake, Traffic, pattern

if TYPE_CHECKING:
    from controller_fixtures import StartController

NewEnd = Callable[..., UdpEnd]


def obeying_permissions() -> List[str]:
    """The prefix of a command that makes file permissions apply even to root."""
    if os.geteuid() != 0:
        return []
    return ["setpriv", "--bounding-set", "-dac_override,-dac_read_search"]


class Trial:
    """What a row can change before the controller starts, or do while it runs."""

    def __init__(self, configuration: ConfigurationFile, start: "StartController",
                 answer: Callable[[Flow], UpstreamService], new_end: NewEnd) -> None:
        self.configuration = configuration
        self.new_end = new_end
        self.environment: Dict[str, str] = {}
        self.prefix: List[str] = []
        self.arguments: List[str] = []
        self.usage: Optional[List[str]] = None  # the whole command line, if that is the mistake
        self.remedy: Callable[[], None] = lambda: None
        self.names: Dict[str, str] = {"FILE": str(configuration.path),
                                      "PORT": str(configuration.listen[1]),
                                      "PROGRAM": os.environ["VESK_BINARY"],
                                      "FOLDER": str(configuration.folder)}
        self.alice = self._flow(answer, "alice", 1)
        self.bob = self._flow(answer, "bob", 2)
        configuration.tables["controller"] = "drain_seconds = 0"
        configuration.write()
        self._taken: Optional[socket.socket] = None
        self.controller: ControllerProcess
        self._start = start

    def _flow(self, answer: Callable[[Flow], UpstreamService], name: str, label: int) -> Flow:
        flow = Flow(label=label, **four_keys())
        answer(flow)
        self.configuration.flows[name] = flow
        return flow

    @property
    def peers_send_to(self) -> Address:
        return "127.0.0.1", int(self.names["PORT"])

    # Actions of rows --------------------------------------------------------------------

    def start(self, **details: object) -> ControllerProcess:
        self.controller = self._start(*self.arguments, environment=self.environment,
                                      prefix=self.prefix, **details)
        return self.controller

    def run_to_its_end(self) -> Tuple[int, List[str]]:
        words = command(self.configuration, *self.arguments)
        if self.usage is not None:
            words = [binary(), *(self.names.get(word, word) for word in self.usage)]
        done = subprocess.run([*self.prefix, *words], cwd=self.configuration.folder, text=True,
                              env={**os.environ, **self.environment}, stdin=subprocess.DEVNULL,
                              capture_output=True, timeout=scaled(20), check=False)
        check_secrecy(self.configuration, done.stdout + done.stderr)
        return done.returncode, done.stderr.splitlines()

    def reload(self) -> None:
        self.controller.signal(signal.SIGHUP)

    def take_tcp_port(self) -> None:
        """Keeps a listening TCP socket until the end of the test; its port is `METRICS`."""
        self._taken = socket.create_server(("127.0.0.1", 0))
        self.names["METRICS"] = str(self._taken.getsockname()[1])

    def close(self) -> None:
        if self._taken is not None:
            self._taken.close()

    def append(self, lines: str) -> None:
        with self.configuration.path.open("a", encoding="utf-8") as file:
            file.write(lines + "\n")

    def make_in_file(self, row: FileMistake) -> None:
        """Makes the mistake in the file; `LINE` is the number of the line that the message names."""
        path = self.configuration.path
        text = path.read_text(encoding="utf-8")
        lines = row.lines.replace("PORT", self.names["PORT"])
        made = text + lines + "\n"
        if row.instead_of:
            old = row.instead_of.replace("PORT", self.names["PORT"])
            assert text.count(old) == 1
            made = text.replace(old, lines)
        path.write_text(made, encoding="utf-8")
        readable = self.configuration.folder / "readable.key"
        readable.write_text("00112233", encoding="ascii")
        readable.chmod(0o644)
        before = made[:made.rindex(lines)].count("\n")
        self.names["LINE"] = str(before + 1 + range(len(lines.splitlines()))[row.wrong])

    # Checks of rows ---------------------------------------------------------------------

    def check_at_start(self, row: Mistake) -> None:
        row.make(self)
        if row.status is None:
            self._check_that_continues(row)
            return
        with Conversation(self.alice, self.peers_send_to, 0.02) as conversation:
            conversation.wait_for_losses(1)
            status, lines = self.run_to_its_end()
        assert (status, conversation.answered) == (row.status, 0)
        assert row.traffic is Traffic.NOTHING
        assert not [line for line in lines if line.startswith("info controller: started ")]
        for message in row.says:
            expected = pattern(message, self.names)
            assert [line for line in lines if expected.fullmatch(line)], (message, lines)

    def _check_that_continues(self, row: Mistake) -> None:
        self.start()
        for message in row.says:
            self.controller.wait_for(pattern(message, self.names))
        if row.traffic in (Traffic.UNHEARD, Traffic.REMEDIED):
            with Conversation(self.alice, self.peers_send_to, 0.02) as conversation:
                conversation.wait_for_losses(3)
            assert conversation.answered == 0
            self.remedy()
        if row.traffic in (Traffic.FORWARDED, Traffic.REMEDIED):
            with self.new_end() as peer:
                ask_until_answered(peer, self.alice, self.peers_send_to)
        # It still handles signals; the status may be 3 if the forwarder's program is wrong.
        assert self.controller.finish() in ((0, 3) if row.traffic is Traffic.UNHEARD else (0,))

    def check_while_it_runs(self, row: Mistake) -> None:
        self.prefix = self.prefix or obeying_permissions()
        program = self.configuration.folder / "vesk"
        program.symlink_to(os.path.abspath(self.names["PROGRAM"]))
        self.names["PROGRAM"] = str(program)
        self.arguments = ["--program", str(program)]
        row.prepare(self)
        self.start().ready()
        with contextlib.ExitStack() as stack:
            alice, bob = (stack.enter_context(Conversation(flow, self.peers_send_to))
                          for flow in (self.alice, self.bob))
            for conversation in (alice, bob):
                # Both are stopped before either is joined.
                stack.callback(conversation.ask_no_more)
                conversation.wait_for_answers(5)
            first, since = self.controller, self.controller.mark()
            row.make(self)
            since = since if self.controller is first else 0
            for message in row.says:
                self.controller.wait_for(pattern(message, self.names), since)
            if row.status is not None:
                assert self.controller.wait_exit() == row.status
                assert row.traffic is Traffic.ENDED
                return
            if row.traffic is Traffic.INTERRUPTED:
                self.remedy()
            alice.wait_for_answers(5)
            if row.traffic is Traffic.OTHERS_UNAFFECTED:
                bob.wait_for_losses(1)
            else:
                bob.wait_for_answers(5)
        if row.traffic is Traffic.INTERRUPTED:
            # One question at a time, so each pause loses only a few.
            assert 1 <= min(alice.lost, bob.lost) and max(alice.lost, bob.lost) <= 3
        else:
            self.remedy()
            assert row.traffic in (Traffic.UNAFFECTED, Traffic.OTHERS_UNAFFECTED)
            assert alice.lost == 0
            assert bob.lost == 0 or row.traffic is Traffic.OTHERS_UNAFFECTED
        assert self.controller.finish() == 0

