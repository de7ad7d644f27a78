"""Two flows whose datagrams fill the receive queues of a stopped forwarder."""

from __future__ import annotations

from pathlib import Path
from typing import Callable, Dict, List, Tuple

import pytest

from .batches import wait_until_idle
from .bench import Bench
from .flow import four_keys
from .timing import SANITIZER, count_from_environment
from .udp import Address, UdpEnd
from .vesk_process import VeskProcess

#: The datagrams of each flow.
COUNT = 192
#: How often each command meets waiting batches.
REPETITIONS = count_from_environment("VESK_BATCH_COMMANDS", 20 if not SANITIZER else 5)

NewEnd = Callable[..., UdpEnd]

# What the fixture `site` needs to know: how the datagrams of both flows take turns in the queues,
# and whether they are sent merged.
each_order = pytest.mark.parametrize("chunk", [1, 16, COUNT],
                                     ids=["turns", "bursts", "one flow after the other"])
single_or_merged = pytest.mark.parametrize("merge", [False, True], ids=["single", "merged"])


def numbered(count: int = COUNT) -> List[bytes]:
    return [b"%04d" % number for number in range(count)]


def waiting(end: UdpEnd) -> List[bytes]:
    """Everything that has arrived."""
    found: List[bytes] = []
    while (arrived := end.waiting()) is not None:
        found.append(arrived.data)
    return found


class TwoFlows:
    """Two flows, whose datagrams fill the queues in bursts of `chunk`."""

    def __init__(self, vesk: VeskProcess, new_end: NewEnd, chunk: int, merge: bool) -> None:
        self.bench = Bench(vesk, new_end(), new_end())
        self.vesk = vesk
        self.changed = self.bench.flow(5, **four_keys())
        self.kept = self.bench.flow(6, **four_keys())
        self.bench.declare(self.changed, self.kept)
        self._chunk, self._merge = chunk, merge

    def open_both(self) -> Dict[int, Address]:
        endpoints = {flow.label: self.bench.exchange(flow) for flow in (self.changed, self.kept)}
        wait_until_idle(self.vesk)
        return endpoints

    def fill_requests(self, count: int = COUNT) -> None:
        for first in range(0, count, self._chunk):
            for flow in (self.changed, self.kept):
                self.send(self.bench.peer, [flow.request(payload) for payload in
                                             numbered(count)[first:first + self._chunk]],
                           self.bench.to)

    def fill_replies(self, endpoints: Dict[int, Address], count: int = COUNT) -> None:
        for first in range(0, count, self._chunk):
            for flow in (self.changed, self.kept):
                self.send(self.bench.upstream, [flow.reply(payload) for payload in
                                                 numbered(count)[first:first + self._chunk]],
                           endpoints[flow.label])

    def send(self, end: UdpEnd, datagrams: List[bytes], to: Address) -> None:
        if self._merge:
            for first in range(0, len(datagrams), 64):
                end.send_merged(datagrams[first:first + 64], to)
        else:
            for datagram in datagrams:
                end.send(datagram, to)

    def requests_of(self, arrived: List[bytes]) -> Tuple[List[bytes], List[bytes]]:
        """The payloads of the changed and of the kept flow."""
        return (self._payloads(arrived, self.changed.up_label),
                self._payloads(arrived, self.kept.up_label))

    def replies_of(self, arrived: List[bytes]) -> Tuple[List[bytes], List[bytes]]:
        return (self._payloads(arrived, self.changed.down_label),
                self._payloads(arrived, self.kept.down_label))

    def _payloads(self, arrived: List[bytes], label: int) -> List[bytes]:
        parsed = [self.bench.framing.parse(datagram) for datagram in arrived]
        return [datagram.payload for datagram in parsed if datagram.label == label]


@pytest.fixture
def site(vesk: VeskProcess, new_end: NewEnd, chunk: int, merge: bool) -> TwoFlows:
    return TwoFlows(vesk, new_end, chunk, merge)


def unread_bytes(port: int) -> int:
    """The bytes in the receive queue of the IPv4 socket on a port."""
    for line in Path("/proc/net/udp").read_text(encoding="ascii").splitlines()[1:]:
        fields = line.split()
        if int(fields[1].rpartition(":")[2], 16) == port:
            return int(fields[4].rpartition(":")[2], 16)
    raise AssertionError(f"no socket on port {port}")
