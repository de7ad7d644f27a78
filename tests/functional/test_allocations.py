"""In the steady state no datagram causes an allocation, neither in the forwarder nor in libcrypto.

This is so without FIPS mode. In FIPS mode libcrypto copies contexts for each HMAC.
"""

from __future__ import annotations

import os
import struct
from pathlib import Path
from typing import Callable, Dict, List

import pytest

from framework.fixtures import StartVesk
from framework.bench import Bench
from framework.flow import Flow, four_keys
from framework.lateral import LOOPBACK, join, owned_label, shared_free_port
from framework.udp import UdpEnd
from framework.vesk_process import VeskProcess

COUNTER = os.environ.get("VESK_ALLOCATION_COUNTER", "")

pytestmark = pytest.mark.skipif(not COUNTER, reason="a sanitizer replaces the allocator")

WARM_UP = 300
MEASURED = 1000


class CountedVesk:
    """A forwarder whose allocations are counted in a file."""

    def __init__(self, start_vesk: StartVesk, folder: Path) -> None:
        self._count = folder / "count"
        self._count.write_bytes(bytes(8))
        environment: Dict[str, str] = {"LD_PRELOAD": COUNTER,
                                       "VESK_ALLOCATION_COUNT": str(self._count)}
        self.vesk: VeskProcess = start_vesk(environment=environment).ready()

    def allocations(self) -> int:
        return struct.unpack("Q", self._count.read_bytes())[0]


@pytest.fixture
def counted(start_vesk: StartVesk, tmp_path: Path) -> CountedVesk:
    return CountedVesk(start_vesk, tmp_path)


def in_the_steady_state(counted: CountedVesk, exchange: Callable[[int], None]) -> int:
    """The allocations of MEASURED exchanges, after a warm-up that fills every cache and buffer."""
    for number in range(WARM_UP):
        exchange(number)
    before = counted.allocations()
    for number in range(MEASURED):
        exchange(number)
    return counted.allocations() - before


def test_the_counter_counts_the_allocations_of_a_new_flow(counted: CountedVesk, peer: UdpEnd,
                                                          upstream: UdpEnd) -> None:
    bench = Bench(counted.vesk, peer, upstream)
    flow = bench.flow(**four_keys("sha256"))
    bench.declare(flow)
    before = counted.allocations()
    bench.exchange(flow)
    assert counted.allocations() > before


@pytest.mark.parametrize("algorithm", ["sha1", "sha256"])
@pytest.mark.parametrize("flows", [1, 40])
def test_forwarding_allocates_nothing(counted: CountedVesk, peer: UdpEnd, upstream: UdpEnd,
                                      flows: int, algorithm: str) -> None:
    bench = Bench(counted.vesk, peer, upstream)
    all_flows: List[Flow] = [bench.flow(label, **four_keys(algorithm))
                             for label in range(1, flows + 1)]
    bench.declare(*all_flows)

    assert in_the_steady_state(
        counted, lambda number: bench.exchange(all_flows[number % flows])) == 0


def test_a_refused_datagram_allocates_nothing(counted: CountedVesk, peer: UdpEnd,
                                              upstream: UdpEnd) -> None:
    bench = Bench(counted.vesk, peer, upstream)
    unknown = bench.flow(77, **four_keys("sha256"))

    def refuse(_: int) -> None:
        bench.send(unknown.request(b"nobody declared this label"))
        bench.send(b"short")
        bench.nothing_went_upstream()

    assert in_the_steady_state(counted, refuse) == 0


def test_forwarding_to_another_instance_allocates_nothing(
        counted: CountedVesk, start_vesk: StartVesk, peer: UdpEnd, upstream: UdpEnd) -> None:
    bench = Bench(counted.vesk, peer, upstream)
    owner = start_vesk().ready()
    hosts = {index: LOOPBACK[index] for index in (0, 1)}
    port = shared_free_port(list(hosts.values()))
    join(counted.vesk, 0, hosts, port, instances=2)
    join(owner, 1, hosts, port, instances=2)
    flow = bench.flow(owned_label(1), **four_keys("sha256"))
    owner.lines_after(flow.set_command())

    assert in_the_steady_state(counted, lambda _: bench.exchange(flow)) == 0
