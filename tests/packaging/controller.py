"""Runs a controller as systemd does: with a notification socket, and stopped by a signal."""

from __future__ import annotations

import os
import signal
import socket
import subprocess
from pathlib import Path
from typing import List

_SECONDS = 20.0


class Controller:
    """One controller with its forwarder, and its notifications to the service manager."""

    def __init__(self, program: Path, file: Path, folder: Path) -> None:
        self._log = folder / "controller.log"
        self._notifications: List[str] = []
        # An abstract address, since the path of a test's folder may be too long for a socket.
        address = f"\0vesk-test-{os.getpid()}-{id(self)}"
        self._manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._manager.bind(address)
        self._manager.settimeout(_SECONDS)
        with self._log.open("wb") as log:
            self._process = subprocess.Popen(
                [str(program), str(file)], cwd=folder, stdin=subprocess.DEVNULL, stdout=log,
                stderr=log, env={**os.environ, "NOTIFY_SOCKET": address.replace("\0", "@")})

    def wait_for(self, wanted: str) -> None:
        """Waits for the next notification with this text."""
        while True:
            try:
                lines = self._manager.recv(4096).decode().splitlines()
            except TimeoutError:
                raise AssertionError(f"no {wanted} in {_SECONDS} s\n{self.said()}") from None
            self._notifications += lines
            if wanted in lines:
                return

    def reload(self) -> None:
        self._process.send_signal(signal.SIGHUP)

    def close(self) -> None:
        """Called after the last request to it; it has ended."""
        self._manager.close()

    def finish(self) -> int:
        """Stops it as the unit does and returns its exit status. Can be called again."""
        if self._process.poll() is None:
            self._process.send_signal(signal.SIGTERM)
            try:
                self._process.wait(_SECONDS)
            except subprocess.TimeoutExpired:
                self._process.kill()
                self._process.wait()
                raise AssertionError(f"still running after {_SECONDS} s\n{self.said()}") from None
        return self._process.returncode

    def notifications(self) -> List[str]:
        """All notifications, including those that no test waited for."""
        self._manager.setblocking(False)
        try:
            while True:
                self._notifications += self._manager.recv(4096).decode().splitlines()
        except BlockingIOError:
            return self._notifications

    def said(self) -> str:
        return self._log.read_text(errors="replace")
