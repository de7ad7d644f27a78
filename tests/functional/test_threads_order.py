"""Order within a flow under four upstream receive workers, whatever the number of processors."""

from __future__ import annotations

import re
from collections import defaultdict
from pathlib import Path
from typing import Callable, Dict, List, Tuple

import pytest

from framework.batches import receive_all, stopped
from framework.bench import Bench
from framework.bind_mount import with_file_at
from framework.fixtures import StartVesk
from framework.flow import Flow, four_keys
from framework.statistics import report, wait_for_report
from framework.timing import count_from_environment
from framework.udp import Address, UdpEnd
from framework.vesk_process import VeskProcess

# The file from which the C library reads the number of processors.
_ONLINE = "/sys/devices/system/cpu/online"
WORKERS = 4
FLOWS = 24
ROUNDS = count_from_environment("VESK_ORDER_ROUNDS", 400)
#: The replies of a flow in a round. Those on the way at any time fit into every receive buffer.
REPLIES = 12


def with_processors(count: int, folder: Path) -> List[str]:
    """The command prefix under which a process finds this number of processors."""
    online = folder / "online"
    online.write_text(f"0-{count - 1}\n", encoding="ascii")
    return with_file_at(_ONLINE, online)


@pytest.fixture
def bench(start_vesk: StartVesk, tmp_path: Path, peer: UdpEnd, upstream: UdpEnd) -> Bench:
    vesk: VeskProcess = start_vesk(prefix=with_processors(WORKERS, tmp_path)).ready()
    created = [line for line in vesk.log_lines()
               if re.match("info created upstream recvThread", line)]
    assert len(created) == WORKERS
    return Bench(vesk, peer, upstream)


def open_flows(bench: Bench, count: int) -> Tuple[List[Flow], List[Address]]:
    """The flows, and the addresses of their endpoints."""
    flows = [bench.flow(label, **four_keys()) for label in range(1, count + 1)]
    bench.declare(*flows)
    return flows, [bench.exchange(flow) for flow in flows]


Send = Callable[[UdpEnd, List[bytes], Address], None]


def singly(end: UdpEnd, datagrams: List[bytes], to: Address) -> None:
    for datagram in datagrams:
        end.send(datagram, to)


def merged(end: UdpEnd, datagrams: List[bytes], to: Address) -> None:
    end.send_merged(datagrams, to)


@pytest.mark.limit_seconds(60 + ROUNDS)
@pytest.mark.parametrize("send", [singly, merged])
def test_replies_of_each_flow_keep_their_order(bench: Bench, send: Send) -> None:
    """The replies of the flows take turns, so that each worker serves each socket again and again."""
    flows, endpoints = open_flows(bench, FLOWS)
    arrived: Dict[int, List[int]] = defaultdict(list)
    for first in range(0, ROUNDS * REPLIES, REPLIES):
        for turn in range(2):
            half = range(first + turn * REPLIES // 2, first + (turn + 1) * REPLIES // 2)
            for flow, endpoint in zip(flows, endpoints):
                send(bench.upstream, [flow.reply(b"%08d" % number) for number in half], endpoint)
        for datagram in receive_all(bench.peer, FLOWS * REPLIES):
            parsed = bench.framing.parse(datagram)
            arrived[parsed.label].append(int(parsed.payload))
    for flow in flows:
        assert arrived[flow.down_label] == list(range(ROUNDS * REPLIES)), flow.label
    everything = 1 + ROUNDS * REPLIES
    seen = wait_for_report(bench.vesk, lambda now: now.totals["RxDg"] == FLOWS * everything)
    assert {counters["DnTxDg"] for counters in seen.upstream.values()} == {everything}
    # Every worker took part.
    assert min(worker["DgNr"] for worker in report(bench.vesk).receivers) > ROUNDS


@pytest.mark.limit_seconds(120)
def test_replies_that_wait_in_full_queues_keep_their_order(bench: Bench) -> None:
    """More of one flow than a receive call takes: its socket is served several times in a pass."""
    flows, endpoints = open_flows(bench, 8)
    count = 150
    for _ in range(5):
        with stopped(bench.vesk):
            for number in range(count):
                # Different lengths of neighbours, so that messages of all kinds are sent.
                payload = b"%08d" % number + bytes(number // 7 % 3)
                for flow, endpoint in zip(flows, endpoints):
                    bench.upstream.send(flow.reply(payload), endpoint)
        arrived: Dict[int, List[int]] = defaultdict(list)
        for datagram in receive_all(bench.peer, len(flows) * count):
            parsed = bench.framing.parse(datagram)
            arrived[parsed.label].append(int(parsed.payload[:8]))
        assert arrived == {flow.down_label: list(range(count)) for flow in flows}
