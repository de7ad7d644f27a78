"""Runs the echo service and the peer of a language. README.md describes their options and what they report."""

from __future__ import annotations

import json
import signal
import subprocess
from dataclasses import dataclass
from pathlib import Path
from types import TracebackType
from typing import Dict, List, Optional, Self, Type

from framework.framing import Framing, Key
from languages import Commands

# A program that hangs fails the test after this time, however many datagrams it exchanges.
_DEADLINE_SECONDS = 600

Counts = Dict[str, int]


@dataclass(frozen=True)
class Ends:
    """What one program signs and checks with."""

    framing: Framing
    out_label: int
    in_label: int
    out_key: Optional[Key] = None
    in_key: Optional[Key] = None
    old_in_key: Optional[Key] = None

    def options(self, folder: Path) -> List[str]:
        """The options of the program. The keys are written to files in the folder."""
        words = ["--framing", self.framing.name, "--out-label", str(self.out_label), "--in-label", str(self.in_label)]
        for name in ("out", "in", "old-in"):
            key: Optional[Key] = getattr(self, f"{name.replace('-', '_')}_key")
            if key is not None:
                file = folder / f"{key.algorithm}-{key.secret.hex()}.key"
                file.write_text(key.secret.hex() + "\n", encoding="ascii")
                words += [f"--{name}-key", str(file), f"--{name}-digest", key.algorithm]
        return words


class Program:
    """A program that runs until it has reported its counts."""

    def __init__(self, command: List[str], commands: Commands) -> None:
        self._command = command
        self._process = subprocess.Popen(command, env=commands.environment, text=True, stdout=subprocess.PIPE,
                                         stderr=subprocess.PIPE)

    def line(self) -> Counts:
        """The next line that it writes."""
        assert self._process.stdout is not None
        text = self._process.stdout.readline()
        if not text:
            self.counts()
        found: Counts = json.loads(text)
        return found

    def terminate(self) -> None:
        self._process.send_signal(signal.SIGTERM)

    def counts(self) -> Counts:
        """What it reports when it ends."""
        said, errors = self._process.communicate(timeout=_DEADLINE_SECONDS)
        assert (self._process.returncode, errors) == (0, ""), (
            f"{self._command} ended with {self._process.returncode}:\n{said}{errors}")
        lines = said.splitlines()
        assert len(lines) == 1, f"{self._command} wrote {lines}"
        found: Counts = json.loads(lines[0])
        return found

    def __enter__(self) -> Self:
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException],
                 place: Optional[TracebackType]) -> None:
        if self._process.poll() is None:
            self._process.kill()
        self._process.communicate()


class Echo(Program):
    """An echo service. `port` is where it receives."""

    def __init__(self, commands: Commands, ends: Ends, folder: Path) -> None:
        super().__init__([*commands.echo, "--port", "0", *ends.options(folder)], commands)
        self.port = self.line()["port"]

    def end(self) -> Counts:
        self.terminate()
        return self.counts()


class Peer(Program):
    """A peer that sends `count` datagrams."""

    def __init__(self, commands: Commands, ends: Ends, folder: Path, port: int, count: int, *options: str) -> None:
        super().__init__([*commands.peer, "--port", str(port), "--count", str(count), *ends.options(folder), *options],
                         commands)
