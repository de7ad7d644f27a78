"""One forwarder as its controlling service runs it, for the demonstration: commands in, log lines out."""

from __future__ import annotations

import os
import random
import select
import socket
import subprocess
import time
from contextlib import ExitStack
from pathlib import Path
from typing import List, Sequence, Tuple

Address = Tuple[str, int]

ANSWER_SECONDS = 10
# Below it are the ports of well-known services.
_FIRST_FREE_PORT = 10_000


def free_port(hosts: Sequence[str] = ("127.0.0.1",)) -> int:
    """A port that is free on each of these addresses, and that the kernel gives to nobody by itself."""
    ports = Path("/proc/sys/net/ipv4/ip_local_port_range").read_text(encoding="ascii")
    while True:
        port = random.randrange(_FIRST_FREE_PORT, int(ports.split()[0]))
        with ExitStack() as probes:
            try:
                for host in hosts:
                    probe = probes.enter_context(socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
                    probe.bind((host, port))
            except OSError:
                continue
            return port


class Forwarder:
    """The log is read while an answer is awaited, and whole after `finish`."""

    def __init__(self, binary: str, *arguments: str) -> None:
        self.log: List[str] = []
        self._rest = b""
        self._fences = 0
        self._process = subprocess.Popen([binary, *arguments], stdin=subprocess.PIPE,
                                         stdout=subprocess.PIPE, bufsize=0)

    def command(self, line: str) -> None:
        assert self._process.stdin is not None
        self._process.stdin.write(f"{line}\n".encode())

    def settle(self) -> None:
        """Reads the log until every command is carried out.

        A word that is no command is answered by an error line, and commands are carried out one after
        the other. Neither the word's answer nor the empty line behind it is kept in the log.
        """
        self._fences += 1
        fence = f"fence-{self._fences}"
        answer = f"error Unrecognised command '{fence}'"
        self.command(fence)
        began = len(self.log)
        while answer not in self.log[began:] or self.log[-1] == answer:
            self._read_on()
        place = self.log.index(answer, began)
        del self.log[place:place + 2]

    def finish(self) -> float:
        """Closes the channel, reads the rest of the log and returns the seconds until the end."""
        assert self._process.stdin is not None
        began = time.monotonic()
        self._process.stdin.close()
        while self._read_on():
            pass
        status = self._process.wait(ANSWER_SECONDS)
        if status != 0:
            raise RuntimeError(f"the forwarder ended with status {status}")
        return time.monotonic() - began

    def end(self) -> None:
        """Ends a forwarder that was not finished; does nothing for any other."""
        self._process.kill()
        self._process.wait()

    def _read_on(self) -> bool:
        """Reads what comes next; false at the end of the log."""
        assert self._process.stdout is not None
        readable, _, _ = select.select([self._process.stdout], [], [], ANSWER_SECONDS)
        if not readable:
            raise RuntimeError(f"the forwarder has not answered for {ANSWER_SECONDS} seconds")
        piece = os.read(self._process.stdout.fileno(), 1 << 16)
        *lines, self._rest = (self._rest + piece).split(b"\n")
        self.log += [line.decode() for line in lines]
        if not piece and self._process.stdin is not None and not self._process.stdin.closed:
            raise RuntimeError("the forwarder has ended by itself")
        return bool(piece)
