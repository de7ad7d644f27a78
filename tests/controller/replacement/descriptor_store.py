"""Plays a service manager with a store of descriptors."""

from __future__ import annotations

import os
import select
import socket
import sys
import threading
from pathlib import Path
from typing import Dict, List, Tuple

from framework.timing import wait_until

# Becomes the controller, with the descriptors from 3 on.
_LAUNCHER = """
import fcntl, os, sys
names, numbers, *command = sys.argv[1:]
kept = [fcntl.fcntl(int(number), fcntl.F_DUPFD, 500) for number in numbers.split()]
for place, descriptor in enumerate(kept, 3):
    os.dup2(descriptor, place)
os.closerange(3 + len(kept), 1000)
os.environ.update(LISTEN_PID=str(os.getpid()), LISTEN_FDS=str(len(kept)), LISTEN_FDNAMES=names)
os.execvp(command[0], command)
"""


class DescriptorStore:
    """Keeps what controllers with `environment` send, until its other end is closed or it is to be removed."""

    def __init__(self, folder: Path) -> None:
        path = str(folder / "store")
        self.environment: Dict[str, str] = {"NOTIFY_SOCKET": path}
        self.kept: List[Tuple[str, int]] = []
        self.told: List[str] = []
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(path)
        self._ending = threading.Event()
        self._lock = threading.Lock()
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def _serve(self) -> None:
        while not self._ending.is_set():
            watched = select.poll()
            watched.register(self._socket, select.POLLIN)
            with self._lock:
                for _, descriptor in self.kept:
                    watched.register(descriptor, 0)
            for descriptor, events in watched.poll(100):
                with self._lock:
                    if descriptor == self._socket.fileno():
                        self._take()
                    elif events & (select.POLLHUP | select.POLLERR):
                        self._drop([entry for entry in self.kept if entry[1] == descriptor])

    def _take(self) -> None:
        text, descriptors, _, _ = socket.recv_fds(self._socket, 1000, 1)
        fields = dict(line.split("=", 1) for line in text.decode("utf-8").splitlines())
        self.told += text.decode("utf-8").splitlines()
        if "FDSTOREREMOVE" in fields:
            self._drop([entry for entry in self.kept if entry[0] == fields["FDNAME"]])
        elif "FDSTORE" in fields:
            self.kept.append((fields["FDNAME"], *descriptors))
        else:
            assert not descriptors

    def _drop(self, entries: List[Tuple[str, int]]) -> None:
        for entry in entries:
            self.kept.remove(entry)
            os.close(entry[1])

    def names(self) -> List[str]:
        return sorted(name for name, _ in self.kept)

    def wait_for(self, *names: str) -> None:
        wait_until(lambda: self.names() == sorted(names), f"{names} are kept, not {self.names()}")

    def remove(self, name: str) -> None:
        with self._lock:
            found = [entry for entry in self.kept if entry[0] == name]
            assert found
            self._drop(found)

    def rename(self, old: str, new: str) -> None:
        with self._lock:
            assert old in self.names()
            self.kept = [(new if name == old else name, fd) for name, fd in self.kept]

    def passed(self) -> Dict[str, object]:
        """The arguments for a controller that gets the descriptors, the latest first."""
        descriptors = [descriptor for _, descriptor in reversed(self.kept)]
        names = ":".join(name for name, _ in reversed(self.kept))
        return {"environment": self.environment, "descriptors": descriptors,
                "prefix": [sys.executable, "-c", _LAUNCHER, names, " ".join(map(str, descriptors))]}

    def close(self) -> None:
        self._ending.set()
        self._thread.join()
        self._drop(list(self.kept))
        self._socket.close()
