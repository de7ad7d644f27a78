"""Runs the forwarder as its controlling service does and reads everything it writes."""

from __future__ import annotations

import os
import platform
import re
import resource
import select
import signal
import subprocess
import threading
import time
from pathlib import Path
from typing import Dict, IO, List, Optional, Sequence, Tuple, Union

from .timing import SANITIZER, scaled, wait_until
from .udp import free_port

Expected = Union[str, "re.Pattern[str]"]

# Numbers of the system calls in which the threads of an idle forwarder wait. A thread that was
# stopped while it slept goes on in restart_syscall. An emulator of another architecture receives with recvmsg,
# and the kernel shows the calls of the host.
_WAITING_CALLS: Dict[str, Dict[str, Tuple[int, ...]]] = {
    "x86_64": {"epoll_wait": (232, 281), "recvmmsg": (299, 47), "futex": (202,),
               "clock_nanosleep": (230, 35, 219), "read": (0,)},
    "aarch64": {"epoll_wait": (22,), "recvmmsg": (243,), "futex": (98,),
                "clock_nanosleep": (115, 101, 128), "read": (63,)},
}


def binary() -> str:
    path = os.environ.get("VESK_BINARY", "")
    if not os.access(path, os.X_OK):
        raise RuntimeError(f"VESK_BINARY must name the executable under test, not {path!r}")
    return os.path.abspath(path)


class VeskProcess:
    """One forwarder in its own folder.

    Text on standard error, an unexpected exit status and a core file are failures unless
    the test expects them.
    """

    def __init__(self, folder: Path, *arguments: str,
                 environment: Optional[Dict[str, str]] = None,
                 prefix: Sequence[str] = (),
                 standard_input: Union[int, IO[bytes]] = subprocess.PIPE,
                 standard_output: Union[int, IO[bytes]] = subprocess.PIPE) -> None:
        self.folder = folder
        self._output = bytearray()
        self._errors = bytearray()
        self._lines: List[str] = []
        self._changed = threading.Condition()
        self._fences = 0
        self.finished = False
        self._process = subprocess.Popen(
            [*prefix, binary(), *arguments], cwd=folder, bufsize=0,
            env=_environment(environment or {}, traced="strace" in prefix),
            stdin=standard_input, stdout=standard_output, stderr=subprocess.PIPE)
        self._readers = [threading.Thread(target=self._read_errors, daemon=True)]
        if self._process.stdout is not None:
            self._readers.append(threading.Thread(target=self._read_output, daemon=True))
        if self._process.stdin is not None:
            os.set_blocking(self._process.stdin.fileno(), False)
        for reader in self._readers:
            reader.start()

    # Output -----------------------------------------------------------------------------

    def _read_output(self) -> None:
        assert self._process.stdout is not None
        unfinished = b""
        while True:
            piece = os.read(self._process.stdout.fileno(), 1 << 16)
            if not piece:
                return
            *lines, unfinished = (unfinished + piece).split(b"\n")
            with self._changed:
                self._output += piece
                self._lines += [line.decode("utf-8", "surrogateescape") for line in lines]
                self._changed.notify_all()

    def _read_errors(self) -> None:
        assert self._process.stderr is not None
        while True:
            piece = os.read(self._process.stderr.fileno(), 1 << 16)
            if not piece:
                return
            with self._changed:
                self._errors += piece
                self._changed.notify_all()

    def output(self) -> bytes:
        """Everything written to standard output so far, byte for byte."""
        with self._changed:
            return bytes(self._output)

    def errors(self) -> bytes:
        with self._changed:
            return bytes(self._errors)

    def log_lines(self, since: int = 0) -> List[str]:
        with self._changed:
            return self._lines[since:]

    def mark(self) -> int:
        """The place in the log after everything written so far, including lines not yet read."""
        return self.settle() + 2

    def wait_for_log(self, expected: Expected, since: int = 0, seconds: float = 5.0,
                     count: int = 1) -> str:
        """Waits until `count` whole lines match and returns the last of them."""
        deadline = time.monotonic() + scaled(seconds)
        seen = since
        found: List[str] = []
        with self._changed:
            while True:
                found += [line for line in self._lines[seen:] if _matches(expected, line)]
                seen = max(seen, len(self._lines))
                if len(found) >= count:
                    return found[count - 1]
                self._fail_if_ended(f"before it logged {expected!r}")
                remaining = deadline - time.monotonic()
                if remaining <= 0:
                    raise AssertionError(f"{expected!r} was logged {len(found)} times of "
                                         f"{count} in {scaled(seconds):g} s\n{self._tail()}")
                self._changed.wait(min(remaining, 0.1))

    def _fail_if_ended(self, when: str) -> None:
        if self._process.poll() is None or any(reader.is_alive() for reader in self._readers):
            return
        raise AssertionError(f"the forwarder ended with status {self._process.returncode} "
                             f"{when}\n{self._tail()}")

    def _tail(self) -> str:
        lines = [line[:400] for line in self._lines[-40:]]
        errors = self._errors[-6000:].decode("utf-8", "replace")
        return "\n".join(["--- log", *lines, "--- standard error", errors])

    def describe(self) -> str:
        with self._changed:
            return self._tail()

    # Input ------------------------------------------------------------------------------

    def command(self, line: str) -> None:
        self.write_input(line.encode("utf-8", "surrogateescape") + b"\n")

    def write_input(self, data: bytes) -> None:
        assert self._process.stdin is not None
        deadline = time.monotonic() + scaled(10)
        descriptor = self._process.stdin.fileno()
        while data:
            remaining = max(0.0, deadline - time.monotonic())
            _, writable, _ = select.select([], [descriptor], [], remaining)
            if not writable:
                raise AssertionError(f"the forwarder stopped reading commands\n{self.describe()}")
            data = data[os.write(descriptor, data):]

    def ready(self) -> "VeskProcess":
        """Waits until start-up is complete and every thread runs."""
        self.settle()
        self.wait_for_log(re.compile(r"info Task \[FlowCleanUpTask\] will execute in \[\d+s\]"))
        wait_until(lambda: "anon_inode:[eventpoll]" in self.descriptors().values(),
                   "the poll thread watches its channel")
        return self

    def settle(self) -> int:
        """Waits until every command sent so far has been executed.

        Commands are executed in order, and an unknown command is answered by an error
        line at every log level. Returns the place of that line in the log.
        """
        self._fences += 1
        word = f"fence-{self._fences}"
        with self._changed:
            since = len(self._lines)
        self.command(word)
        line = f"error Unrecognised command '{word}'"
        self.wait_for_log(line, since)
        with self._changed:
            place = self._lines.index(line, since)
            # An empty line follows the message; skip it, so that later reads do not include it.
            while len(self._lines) < place + 2:
                if not self._changed.wait(scaled(5)):
                    raise AssertionError("no empty line after an unknown command")
            assert self._lines[place + 1] == ""
            return place

    def lines_after(self, *commands: str) -> List[str]:
        """Executes commands and returns the lines logged meanwhile."""
        since = self.mark()
        for line in commands:
            self.command(line)
        place = self.settle()
        return [line for line in self.log_lines()[since:place] if not _is_background(line)]

    def remarks(self, since: int = 0) -> List[str]:
        """The logged lines without empty lines and without the sizes of socket buffers,
        which are logged on some machines only."""
        return [line for line in self.log_lines(since)
                if line and not _is_background(line) and " sized to " not in line]

    def listen(self, address: str = "127.0.0.1") -> int:
        """Starts the listener on a free port and returns the port."""
        for _ in range(10):
            port = free_port(address)
            lines = self.lines_after(f"start addr {address} port {port}")
            if any(line.startswith(f"info Endpoint socket bound: {address}|{port} ")
                   for line in lines):
                return port
            assert any("Address already in use" in line for line in lines), lines
        raise AssertionError("ten ports in a row were taken by other sockets")

    # State ------------------------------------------------------------------------------

    @property
    def pid(self) -> int:
        return self._process.pid

    def descriptors(self) -> Dict[int, str]:
        """Open descriptors and their targets."""
        found = {}
        for entry in Path(f"/proc/{self.pid}/fd").iterdir():
            try:
                found[int(entry.name)] = os.readlink(entry)
            except FileNotFoundError:
                pass
        return found

    def descriptor_count(self) -> int:
        return len(list(Path(f"/proc/{self.pid}/fd").iterdir()))

    def wait_for_descriptor_count(self, count: int, seconds: float = 5.0) -> None:
        try:
            wait_until(lambda: self.descriptor_count() == count, "", seconds)
        except AssertionError:
            raise AssertionError(f"{self.descriptor_count()} descriptors are open instead of "
                                 f"{count}: {self.descriptors()}") from None

    def limit_descriptors(self, spare: int) -> None:
        """Lets the forwarder open only `spare` more descriptors than it has now."""
        taken = set(self.descriptors())
        limit = 0
        while spare or limit in taken:
            spare -= limit not in taken
            limit += 1
        # The limit is the first refused number: exactly `spare` free numbers are below it.
        _, hard = resource.prlimit(self.pid, resource.RLIMIT_NOFILE)
        resource.prlimit(self.pid, resource.RLIMIT_NOFILE, (limit, hard))

    def unlimit_descriptors(self) -> None:
        _, hard = resource.prlimit(self.pid, resource.RLIMIT_NOFILE)
        resource.prlimit(self.pid, resource.RLIMIT_NOFILE, (hard, hard))

    def threads(self) -> List[int]:
        return sorted(int(entry.name) for entry in Path(f"/proc/{self.pid}/task").iterdir())

    def threads_in(self, system_call: str) -> List[int]:
        """Threads that are waiting in a system call."""
        numbers = _WAITING_CALLS[platform.machine()][system_call]
        found = []
        for thread in self.threads():
            try:
                text = Path(f"/proc/{self.pid}/task/{thread}/syscall").read_text().split()[0]
            except OSError:
                continue
            if text.isdigit() and int(text) in numbers:
                found.append(thread)
        return found

    # End --------------------------------------------------------------------------------

    def running(self) -> bool:
        return self._process.poll() is None

    def close_input(self) -> None:
        if self._process.stdin is not None and not self._process.stdin.closed:
            self._process.stdin.close()

    def wait_exit(self, status: Union[int, Sequence[int]] = 0, seconds: float = 5.0,
                  errors: Expected = "", core_allowed: bool = False) -> float:
        """Waits for the end of the process, checks it, and returns how long it took.

        `status` is the expected exit status or a sequence of possible ones.
        """
        began = time.monotonic()
        try:
            actual = self._process.wait(scaled(seconds))
        except subprocess.TimeoutExpired:
            description = self.describe()
            self.abandon()
            raise AssertionError(
                f"still running after {scaled(seconds):g} s\n{description}") from None
        took = time.monotonic() - began
        self._release()
        said = self.errors().decode("utf-8", "replace")
        problems = []
        if actual not in ([status] if isinstance(status, int) else status):
            problems.append(f"exit status {actual} instead of {status}")
        if not _matches(errors, said):
            problems.append(f"unexpected text on standard error:\n{said[-8000:]}")
        if not core_allowed and self.core_files():
            problems.append(f"core files: {self.core_files()}")
        if problems:
            raise AssertionError("\n".join(problems + [self.describe()]))
        return took

    def core_files(self) -> List[Path]:
        return sorted(self.folder.glob("core*"))

    def finish(self) -> float:
        """Ends the forwarder as its controlling service does, by closing its input."""
        self.close_input()
        return self.wait_exit()

    def abandon(self) -> None:
        """Kills the forwarder without checks, for a test that has failed already."""
        if self.running():
            os.kill(self.pid, signal.SIGKILL)
            self._process.wait()
        self._release()

    def _release(self) -> None:
        self.finished = True
        for reader in self._readers:
            reader.join(scaled(5))
        self.close_input()
        for stream in (self._process.stdout, self._process.stderr):
            if stream is not None:
                stream.close()


def _is_background(line: str) -> bool:
    """Whether a line comes from the periodic task or from the commands of this class."""
    return (line.startswith(("info Task [", "debug Got message: fence-"))
            or "'fence-" in line)


def _matches(expected: Expected, text: str) -> bool:
    if isinstance(expected, str):
        return text == expected
    return expected.fullmatch(text) is not None


def _environment(changes: Dict[str, str], traced: bool) -> Dict[str, str]:
    environment = dict(os.environ)
    environment.setdefault("ASAN_OPTIONS", "")
    if traced and SANITIZER == "asan":
        # The leak check stops threads with the same system call that a tracer uses.
        environment["ASAN_OPTIONS"] += ":detect_leaks=0"
    environment.update(changes)
    return environment
