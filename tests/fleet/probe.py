"""Requests on one flow at a short interval, and when each of them arrived."""

from __future__ import annotations

import threading
import time
from typing import Dict, Optional

from balancer import VIRTUAL
from framework.flow import Flow, four_keys
from framework.timing import wait_until
from framework.udp import UdpEnd, UpstreamService
from generator import PORT
from peers import OWN, Peers

_INTERVAL = 0.005


class Probe:
    """Sends a request every 5 ms from the peers' namespace until it is closed."""

    def __init__(self, peers: Peers, label: int) -> None:
        #: When each request was sent and arrived, by its number.
        self.sent: Dict[int, float] = {}
        self.arrived: Dict[int, float] = {}
        self.flow = Flow(label=label, **four_keys())
        with peers.inside():
            self._service = UpstreamService(self._note, OWN)
            self._peer = UdpEnd(OWN)
        self.flow.upstream = self._service.address
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._send, name="probe", daemon=True)

    def start(self) -> None:
        self._thread.start()

    def wait_for_arrivals(self, count: int) -> None:
        """Waits until `count` requests in a row that are sent from now on have arrived."""
        def run() -> bool:
            return all(number in self.arrived for number in range(first, first + count))
        first = len(self.sent) + 1
        wait_until(run, f"{count} requests from number {first} on have arrived")

    def first_after(self, moment: float) -> float:
        """When the first request arrived that was sent after this moment."""
        return min(self.arrived[number] for number in self.arrived if self.sent[number] > moment)

    def last_lost(self) -> Optional[float]:
        """When the last request was sent that did not arrive; the requests that may still be on their way do not
        count."""
        newest = max(self.arrived)
        lost = [self.sent[number] for number in self.sent if number < newest and number not in self.arrived]
        return max(lost, default=None)

    def close(self) -> None:
        self._stop.set()
        if self._thread.ident is not None:
            self._thread.join()
        self._peer.close()
        self._service.close()

    def _note(self, data: bytes) -> None:
        moment = time.monotonic()
        self.arrived[int(self.flow.open_request(data).payload)] = moment

    def _send(self) -> None:
        while not self._stop.wait(_INTERVAL):
            number = len(self.sent)
            self.sent[number] = time.monotonic()
            self._peer.send(self.flow.request(str(number).encode()), (VIRTUAL, PORT))
