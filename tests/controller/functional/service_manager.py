"""Plays the service manager at the notification socket."""

from __future__ import annotations

import select
import socket
from pathlib import Path
from typing import Dict, List

from framework.timing import scaled


class ServiceManager:
    """Receives the messages of a controller with `environment`."""

    def __init__(self, folder: Path) -> None:
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(str(folder / "notify"))
        self._socket.settimeout(scaled(15))
        self.environment: Dict[str, str] = {"NOTIFY_SOCKET": str(folder / "notify")}

    def told(self) -> List[str]:
        """The next message, line by line."""
        return self._socket.recv(1000).decode("utf-8").splitlines()

    def has_message(self) -> bool:
        """Whether `told` would return a message at once."""
        readable, _, _ = select.select([self._socket], [], [], 0)
        return bool(readable)

    def told_until(self, expected: str) -> List[str]:
        """The lines of all messages before the one that contains this line."""
        lines: List[str] = []
        while expected not in (message := self.told()):
            lines += message
        return lines

    def __enter__(self) -> "ServiceManager":
        return self

    def __exit__(self, *_: object) -> None:
        self._socket.close()
