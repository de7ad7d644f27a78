"""Runs the controller and reads its log."""

from __future__ import annotations

import contextlib
import os
import re
import signal
import subprocess
import threading
import time
from pathlib import Path
from typing import Dict, List, Optional, Sequence, Union

from configuration_file import ConfigurationFile
from framework.timing import scaled, wait_until

Expected = Union[str, "re.Pattern[str]"]


def binary() -> str:
    path = os.environ.get("VESK_CONTROLLER", "")
    if not os.access(path, os.X_OK):
        raise RuntimeError(f"VESK_CONTROLLER must name the executable under test, not {path!r}")
    return os.path.abspath(path)


def command(configuration: ConfigurationFile, *arguments: str) -> List[str]:
    program = [] if "--program" in arguments else ["--program", os.environ["VESK_BINARY"]]
    return [binary(), *program, *arguments, str(configuration.path)]


def run_once(configuration: ConfigurationFile,
             *arguments: str) -> "subprocess.CompletedProcess[str]":
    """Runs a controller that ends by itself."""
    result = subprocess.run(command(configuration, *arguments), cwd=configuration.folder,
                            capture_output=True, text=True, timeout=scaled(20), check=False)
    check_secrecy(configuration, result.stdout + result.stderr)
    return result


def check_secrecy(configuration: ConfigurationFile, said: str) -> None:
    for secret in configuration.secrets:
        assert secret not in said.lower(), "a key was printed"


def process_children(pid: int) -> List[int]:
    children: List[int] = []
    for task in Path(f"/proc/{pid}/task").iterdir():
        # A thread may end meanwhile; its children are then listed under another thread.
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            children += map(int, (task / "children").read_text(encoding="ascii").split())
    return children


def is_alive(pid: int) -> bool:
    try:
        return Path(f"/proc/{pid}/stat").read_text(encoding="ascii").split()[2] != "Z"
    except (FileNotFoundError, ProcessLookupError):
        return False


class ControllerProcess:
    """One controller with its forwarder. `instead` replaces the command that VESK_CONTROLLER names."""

    def __init__(self, configuration: ConfigurationFile, *arguments: str,
                 environment: Optional[Dict[str, str]] = None, read: bool = True,
                 prefix: Sequence[str] = (), instead: Sequence[str] = (),
                 descriptors: Sequence[int] = ()) -> None:
        self.configuration = configuration
        self.lines: List[str] = []
        self._changed = threading.Condition()
        self._ended = False
        self._process = subprocess.Popen(
            [*prefix, *(instead or command(configuration, *arguments))], cwd=configuration.folder,
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
            env={**os.environ, **(environment or {})}, pass_fds=descriptors)
        self._reader = threading.Thread(target=self._read, daemon=True)
        if read:
            self.start_reading()

    def start_reading(self) -> None:
        self._reader.start()

    def _read(self) -> None:
        assert self._process.stderr is not None
        for line in self._process.stderr:
            with self._changed:
                self.lines.append(line.decode("utf-8", "replace").rstrip("\n"))
                self._changed.notify_all()
        with self._changed:
            self._ended = True
            self._changed.notify_all()

    # Its log ----------------------------------------------------------------------------

    def mark(self) -> int:
        with self._changed:
            return len(self.lines)

    def wait_for(self, expected: Expected, since: int = 0, seconds: float = 10.0) -> str:
        """Returns the first line that equals the text or fully matches the pattern."""
        deadline = time.monotonic() + scaled(seconds)
        with self._changed:
            while True:
                for line in self.lines[since:]:
                    if line == expected if isinstance(expected, str) else expected.fullmatch(line):
                        return line
                left = deadline - time.monotonic()
                if self._ended or left <= 0:
                    raise AssertionError(f"{expected!r} was not logged\n" + "\n".join(self.lines))
                self._changed.wait(left)

    def ready(self, seconds: float = 10.0) -> "ControllerProcess":
        self.wait_for(re.compile(r"info controller: the forwarder is set up: .*"), 0, seconds)
        return self

    def check_secrecy(self) -> None:
        check_secrecy(self.configuration, "\n".join(self.lines))

    # Signals ----------------------------------------------------------------------------

    def reload(self) -> str:
        """Sends SIGHUP; returns the line that it logs at the end of the reload."""
        since = self.mark()
        self.signal(signal.SIGHUP)
        return self.wait_for(re.compile(r"(info controller: reloaded: |"
                                        r"error controller: .* is not usable).*"), since)

    def signal(self, number: int) -> None:
        os.kill(self.pid, number)

    # Processes --------------------------------------------------------------------------

    @property
    def pid(self) -> int:
        return self._process.pid

    def forwarder(self) -> int:
        """Returns the process id of the forwarder."""
        wait_until(lambda: len(process_children(self.pid)) == 1, "there is one forwarder")
        return process_children(self.pid)[0]

    # End --------------------------------------------------------------------------------

    def wait_exit(self, seconds: float = 15.0) -> int:
        status = self._process.wait(scaled(seconds))
        if self._reader.ident is not None:
            self._reader.join(scaled(5))
        return status

    def finish(self) -> int:
        """Ends it with SIGTERM; returns the exit status."""
        self.signal(signal.SIGTERM)
        return self.wait_exit()

    def kill(self) -> None:
        """Does not wait for the end of its log, which its forwarders can have open, too."""
        self._process.kill()
        self._process.wait(scaled(5))

    def abandon(self) -> None:
        if self._process.poll() is None:
            self._process.kill()
            self._process.wait()
        if self._reader.ident is None:
            self.start_reading()
        self._reader.join(scaled(10))
        assert self._process.stderr is not None
        self._process.stderr.close()
