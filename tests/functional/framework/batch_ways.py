"""The two directions in which the forwarder sends batches."""

from __future__ import annotations

import re
from pathlib import Path
from typing import Callable, ContextManager, List, NamedTuple

import pytest

from .batches import receive_all, stopped
from .bench import Bench
from .faults import failing_listener, failing_workers
from .flow import Flow
from .udp import Address

COUNT = 12
#: All of one length, so that they leave as one message, or of different lengths.
SAME = [b"payload %02d" % number for number in range(COUNT)]
DIFFERENT = [payload + bytes(number) for number, payload in enumerate(SAME)]


class Way(NamedTuple):
    """One direction in which a batch is sent."""

    name: str
    operation: str
    failing: Callable[..., ContextManager[Path]]
    sent: str
    dropped: str

    def send(self, bench: Bench, flow: Flow, endpoint: Address, payloads: List[bytes]) -> None:
        """Lets the forwarder receive the datagrams at once."""
        with stopped(bench.vesk):
            for payload in payloads:
                if self is TO_UPSTREAM:
                    bench.send(flow.request(payload))
                else:
                    bench.upstream.send(flow.reply(payload), endpoint)

    def arrived(self, bench: Bench, flow: Flow, count: int) -> List[bytes]:
        if self is TO_UPSTREAM:
            return [flow.open_request(data).payload
                    for data in receive_all(bench.upstream, count)]
        return [flow.open_reply(data).payload for data in receive_all(bench.peer, count)]

    def complaint(self, level: str, number: object) -> "re.Pattern[str]":
        return re.compile(rf"{level} {self.operation}: network error on upstream endpoint of "
                          rf"label 0x5/5, errno {number} \(.*\)\.( Endpoint Deleted)?")


TO_UPSTREAM = Way("requests", "DOWN_TO_UP_SEND", failing_listener, "TxDg", "TxDgDropped")
TO_PEER = Way("replies", "UP_TO_DOWN_SEND", failing_workers, "DnTxDg", "DnTxDgDropped")

both_ways = pytest.mark.parametrize("way", [TO_UPSTREAM, TO_PEER], ids=lambda way: way.name)
