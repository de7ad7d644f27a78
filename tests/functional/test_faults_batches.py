"""Failed sends inside a batch: each datagram has the outcome that it would have alone."""

from __future__ import annotations

import subprocess
from typing import Callable, Iterator

import pytest

from framework.batches import cut_sends, receive_all, stopped, wait_until_idle
from framework.batch_ways import COUNT, DIFFERENT, SAME, TO_PEER, TO_UPSTREAM, Way, both_ways
from framework.bench import Bench
from framework.flow import Flow, four_keys
from framework.statistics import wait_for_report
from framework.timing import wait_until
from framework.udp import UdpEnd


@both_ways
def test_a_failed_call_loses_one_datagram(bench: Bench, flow: Flow, way: Way) -> None:
    """The first one of the call; the others leave with the next call."""
    endpoint = bench.exchange(flow)
    with way.failing(bench.vesk, "sendmmsg:error=ENOBUFS:when=1"):
        way.send(bench, flow, endpoint, DIFFERENT)
        bench.vesk.wait_for_log(way.complaint("warn", 105))
        assert way.arrived(bench, flow, COUNT - 1) == DIFFERENT[1:]
    seen = wait_for_report(bench.vesk, lambda now: now.upstream[5][way.sent] == COUNT)
    assert seen.upstream[5][way.dropped] == 1
    assert bench.exchange(flow) == endpoint


@both_ways
@pytest.mark.parametrize("name, dropped", [("EAGAIN", 1), ("ECONNREFUSED", 0)])
def test_some_failures_of_a_call_are_not_logged(bench: Bench, flow: Flow, way: Way, name: str,
                                                dropped: int) -> None:
    endpoint = bench.exchange(flow)
    since = bench.vesk.mark()
    with way.failing(bench.vesk, f"sendmmsg:error={name}:when=1"):
        way.send(bench, flow, endpoint, DIFFERENT)
        assert way.arrived(bench, flow, COUNT - 1) == DIFFERENT[1:]
    seen = wait_for_report(bench.vesk, lambda now: now.upstream[5][way.sent] == COUNT)
    assert seen.upstream[5][way.dropped] == dropped
    assert not [line for line in bench.vesk.remarks(since) if "network error" in line]


@both_ways
@pytest.mark.parametrize("name, number", [("ENOBUFS", 105), ("EAGAIN", 11), ("ENOMEM", 12)])
def test_datagrams_of_a_refused_message_are_sent_one_by_one(bench: Bench, flow: Flow, way: Way,
                                                            name: str, number: int) -> None:
    """Errors that do not concern the cutting: the next batch is cut again."""
    endpoint = bench.exchange(flow)
    since = bench.vesk.mark()
    with way.failing(bench.vesk, f"sendmsg:error={name}:when=1") as trace:
        for _ in range(2):
            way.send(bench, flow, endpoint, SAME)
            assert way.arrived(bench, flow, COUNT) == SAME
        wait_until(lambda: len(cut_sends(trace)) == 2, "the second batch was cut")
    seen = wait_for_report(bench.vesk, lambda now: now.upstream[5][way.sent] == 1 + 2 * COUNT)
    assert seen.upstream[5][way.dropped] == 0
    assert not [line for line in bench.vesk.remarks(since) if f"errno {number}" in line]


@both_ways
def test_each_datagram_of_a_refused_message_has_its_own_outcome(bench: Bench, flow: Flow,
                                                                way: Way) -> None:
    """The message is refused, then every third of its datagrams alone."""
    endpoint = bench.exchange(flow)
    with way.failing(bench.vesk, "sendmsg:error=ENOBUFS:when=1+3"):
        way.send(bench, flow, endpoint, SAME)
        expected = [payload for number, payload in enumerate(SAME) if number % 3 != 2]
        assert way.arrived(bench, flow, len(expected)) == expected
        bench.vesk.wait_for_log(way.complaint("warn", 105), count=COUNT // 3)
    seen = wait_for_report(bench.vesk, lambda now: (
        now.upstream[5][way.sent] == 1 + len(expected)))
    assert seen.upstream[5][way.dropped] == COUNT // 3


@both_ways
def test_a_short_send_of_a_message_is_settled_for_each_datagram(bench: Bench, flow: Flow,
                                                                way: Way) -> None:
    """As if the kernel had taken three datagrams and the first byte of the fourth. Each datagram
    that was not sent is reported."""
    endpoint = bench.exchange(flow)
    length = len(flow.request(SAME[0]))
    with way.failing(bench.vesk, f"sendmsg:retval={3 * length + 1}:when=1"):
        way.send(bench, flow, endpoint, SAME)
        # One byte is enough for a reply, but not for a request.
        sent = 3 if way is TO_UPSTREAM else 4
        # What an earlier call left in errno decides whether the endpoint is kept.
        bench.vesk.wait_for_log(way.complaint("(warn|error)", r"\d+"), count=COUNT - sent)
    wait_until_idle(bench.vesk)
    assert len([line for line in bench.vesk.log_lines()
                if way.complaint("(warn|error)", r"\d+").fullmatch(line)]) == COUNT - sent
    bench.exchange(flow)


@pytest.fixture
def unreachable() -> Iterator[str]:
    """An address of this host that the kernel refuses as a destination until the test is over."""
    address = "127.0.0.77"
    yield address
    subprocess.run(["ip", "route", "flush", "table", "local", "exact", address], check=False,
                   capture_output=True)


@pytest.mark.parametrize("kind, level, number", [("unreachable", "warn", 113),
                                                 ("blackhole", "error", 22)])
def test_a_batch_goes_on_after_replies_to_an_unreachable_peer(
        bench: Bench, unreachable: str, new_end: Callable[..., UdpEnd], kind: str, level: str,
        number: int) -> None:
    """The kernel itself refuses the replies to one of three peers, whose flows share a socket."""
    peers = [new_end(), new_end(unreachable), new_end()]
    ports = {"is_multiplex": "true", "up_src_ip": "127.0.0.1", "up_src_port": 4711}
    flows = [bench.flow(label, options=ports, **four_keys()) for label in (4, 5, 6)]
    bench.declare(*flows)
    for peer, flow in zip(peers, flows):
        peer.send(flow.request(b"question"), bench.to)
        flow.open_request(bench.upstream.receive().data)
    subprocess.run(["ip", "route", "add", kind, unreachable, "table", "local"], check=True)
    with stopped(bench.vesk):
        for count in range(9):
            for flow in flows:
                bench.upstream.send(flow.reply(b"%d" % count), ("127.0.0.1", 4711))
    for peer, flow in ((peers[0], flows[0]), (peers[2], flows[2])):
        arrived = [flow.open_reply(data).payload for data in receive_all(peer, 9)]
        assert arrived == [b"%d" % count for count in range(9)]
    bench.vesk.wait_for_log(TO_PEER.complaint(level, number), count=9 if level == "warn" else 1)
    seen = wait_for_report(bench.vesk, lambda now: (
        now.upstream[4]["DnTxDg"] == now.upstream[6]["DnTxDg"] == 9))
    assert (5 in seen.upstream) == (level == "warn")
    if level == "warn":
        assert seen.upstream[5]["DnTxDg"] == 0 and seen.upstream[5]["DnTxDgDropped"] == 9
