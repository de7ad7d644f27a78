"""Traffic at full speed: threads that send prepared datagrams as fast as possible."""

from __future__ import annotations

import threading
from typing import List, Sequence, Tuple

from .udp import Address, UdpEnd, send_merged


class Flood:
    """Sends (datagram, destination) pairs in a loop until it is stopped.

    With a pause after each round every datagram can be answered. Without one the traffic
    exceeds what any receiver can handle. `merge` is the number of consecutive datagrams that
    leave as one message; all of them have one length and one destination.
    """

    def __init__(self, end: UdpEnd, datagrams: Sequence[Tuple[bytes, Address]],
                 pause_seconds: float = 0, merge: int = 1) -> None:
        self._pause_seconds = pause_seconds
        self._end = end
        self._messages = [_message(datagrams[first:first + merge])
                          for first in range(0, len(datagrams), merge)]
        self._stop = threading.Event()
        self._rounds = 0
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    @property
    def rounds(self) -> int:
        return self._rounds

    def _run(self) -> None:
        end = self._end.socket
        while not self._stop.is_set():
            for datagrams, to in self._messages:
                try:
                    send_merged(end, datagrams, to)
                except (BlockingIOError, ConnectionRefusedError):
                    pass
            self._rounds += 1
            if self._pause_seconds:
                self._stop.wait(self._pause_seconds)

    def stop(self) -> None:
        self._stop.set()
        self._thread.join()

    def __enter__(self) -> "Flood":
        return self

    def __exit__(self, *_: object) -> None:
        self.stop()


def _message(pairs: Sequence[Tuple[bytes, Address]]) -> Tuple[List[bytes], Address]:
    to = pairs[0][1]
    assert all(other == to for _, other in pairs), "a message has one destination"
    return [datagram for datagram, _ in pairs], to


class Drain:
    """Reads and counts everything that arrives, and keeps some datagrams for checks."""

    def __init__(self, end: UdpEnd, keep_every: int = 64) -> None:
        self._keep_every = keep_every
        self._end = end
        self._end.socket.settimeout(0.02)
        self._stop = threading.Event()
        self.count = 0
        self.samples: List[bytes] = []
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self) -> None:
        while not self._stop.is_set():
            try:
                data = self._end.socket.recv(65536)
            except (TimeoutError, ConnectionRefusedError):
                continue
            self.count += 1
            if self.count % self._keep_every == 1:
                self.samples.append(data)

    def stop(self) -> None:
        self._stop.set()
        self._thread.join()

    def __enter__(self) -> "Drain":
        return self

    def __exit__(self, *_: object) -> None:
        self.stop()
