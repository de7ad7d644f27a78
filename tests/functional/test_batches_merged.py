"""Merged datagrams: split exactly on arrival, sent as one message, and counted one by one."""

from __future__ import annotations

import re
from pathlib import Path
from typing import Callable, List, Tuple

import pytest

from framework.batches import cut_sends, receive_all, stopped, wait_until_idle
from framework.bench import Bench
from framework.faults import recording_start
from framework.fixtures import StartVesk
from framework.flow import Flow, four_keys
from framework.framing import UDPV2
from framework.statistics import report
from framework.timing import wait_until
from framework.udp import UdpEnd

NewEnd = Callable[..., UdpEnd]

SIZES = [(1, 0), (2, 1), (7, 20), (50, 100), (40, 1400)]


def payloads(count: int, length: int) -> List[bytes]:
    """Different payloads of one length, and a shorter one at the end."""
    longest = [number.to_bytes(4, "big") + bytes(length) for number in range(count)]
    return [*longest, b"end"]


@pytest.mark.parametrize("count, length", SIZES)
def test_merged_requests_are_split_exactly(either_bench: Bench, count: int, length: int) -> None:
    flow = either_bench.flow(**four_keys())
    either_bench.declare(flow)
    sent = payloads(count, length)
    either_bench.peer.send_merged([flow.request(payload) for payload in sent], either_bench.to)
    arrived = receive_all(either_bench.upstream, len(sent))
    assert [flow.open_request(datagram).payload for datagram in arrived] == sent
    either_bench.nothing_went_upstream()
    wait_until_idle(either_bench.vesk)
    seen = report(either_bench.vesk)
    assert seen.downstream is not None
    assert seen.downstream["RxDg"] == len(sent) + 1 and seen.downstream["RxDgError"] == 0
    assert seen.upstream[flow.label]["TxDg"] == len(sent)


@pytest.mark.parametrize("count, length", SIZES)
def test_merged_replies_are_split_exactly(either_bench: Bench, count: int, length: int) -> None:
    flow = either_bench.flow(**four_keys())
    either_bench.declare(flow)
    sender = either_bench.ask(flow).sender
    sent = payloads(count, length)
    either_bench.upstream.send_merged([flow.reply(payload) for payload in sent], sender)
    arrived = receive_all(either_bench.peer, len(sent))
    assert [flow.open_reply(datagram).payload for datagram in arrived] == sent
    either_bench.nothing_came_back(flow, sender)
    everything = len(sent) + 1
    wait_until_idle(either_bench.vesk)
    seen = report(either_bench.vesk)
    assert seen.totals["RxDg"] == everything
    assert seen.upstream[flow.label] == {"RxDg": everything, "TxDg": 1, "RxDgError": 0,
                                         "TxDgDropped": 0, "DnTxDg": everything,
                                         "DnTxDgDropped": 0}


def test_the_largest_merged_messages_are_split(bench: Bench) -> None:
    """Several in one batch. The kernel takes at most 64 KiB at once."""
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    sender = bench.exchange(flow)
    requests = [flow.request(number.to_bytes(4, "big") + bytes(1004)) for number in range(126)]
    replies = [flow.reply(number.to_bytes(4, "big") + bytes(1004)) for number in range(126)]
    with stopped(bench.vesk):
        for first in (0, 63):
            bench.peer.send_merged(requests[first:first + 63], bench.to)
            bench.upstream.send_merged(replies[first:first + 63], sender)
    for end, opened in ((bench.upstream, flow.open_request), (bench.peer, flow.open_reply)):
        numbers = [opened(datagram).payload[:4] for datagram in receive_all(end, 126)]
        assert numbers == [number.to_bytes(4, "big") for number in range(126)]


@pytest.mark.parametrize("last", [0, 2047 - 20, 2500])
def test_merged_datagrams_that_are_too_long_are_each_cut(bench: Bench, last: int) -> None:
    """The bytes that are cut off are not taken for the next datagram."""
    flow = bench.flow()
    bench.declare(flow)
    sender = bench.exchange(flow)
    parts = [bytes([number]) * 3000 for number in range(1, 5)] + [b"e" * last]
    expected = [part[:2048 - UDPV2.header_size] for part in parts]
    bench.peer.send_merged([flow.request(part) for part in parts], bench.to)
    arrived = receive_all(bench.upstream, len(parts))
    assert [flow.open_request(datagram).payload for datagram in arrived] == expected
    bench.upstream.send_merged([flow.reply(part) for part in parts], sender)
    arrived = receive_all(bench.peer, len(parts))
    assert [flow.open_reply(datagram).payload for datagram in arrived] == expected
    wait_until_idle(bench.vesk)
    seen = report(bench.vesk)
    assert seen.totals["RxDg"] == len(parts) + 1
    assert seen.downstream["RxDg"] == len(parts) + 1
    assert seen.upstream[flow.label] == {
        "RxDg": len(parts) + 1, "TxDg": len(parts) + 1, "RxDgError": 0, "TxDgDropped": 0,
        "DnTxDg": len(parts) + 1, "DnTxDgDropped": 0}


def test_each_part_of_a_merged_message_is_judged_alone(bench: Bench) -> None:
    """Parts of one length for several flows, some forged or unknown."""
    first, second = bench.flow(5, **four_keys()), bench.flow(6, **four_keys("sha1"))
    bench.declare(first, second)
    good = [flow.request(b"good") for flow in (first, second)]
    bad = [UDPV2.build(5, b"evil"), UDPV2.build(99, b"what"), bytes(len(good[0]))]
    bench.peer.send_merged([good[0], bad[0], good[1], bad[1], good[1], bad[2], good[0], b"short"],
                           bench.to)
    labels = [UDPV2.parse(datagram).label for datagram in receive_all(bench.upstream, 4)]
    assert labels == [flow.up_label for flow in (first, second, second, first)]
    bench.nothing_went_upstream()
    wait_until_idle(bench.vesk)
    seen = report(bench.vesk)
    assert seen.downstream["RxDg"] == 9 and seen.downstream["RxDgError"] == 4


@pytest.mark.parametrize("listen, asked", [("127.0.0.1", "127.0.0.1"), ("::1", "::1"),
                                           ("::", "127.0.0.9"), ("::", "::1")])
def test_a_merged_message_has_the_addresses_of_its_datagrams(start_vesk: StartVesk, listen: str,
                                                             asked: str, new_end: NewEnd) -> None:
    """Replies go to its sender, from the address to which it was sent, with the flow's DSCP."""
    vesk = start_vesk(environment={"VESK_IPV4_SOURCE": "arrival"}).ready()
    port = vesk.listen(listen)
    peer, upstream = new_end(asked), new_end()
    flow = Flow(5, upstream.address, **four_keys(), options={
        "up_out_dscp_v4": 10, "down_out_dscp_v4": 12, "down_out_dscp_v6": 12})
    vesk.lines_after(flow.set_command())
    sent = payloads(10, 100)
    peer.send_merged([flow.request(payload) for payload in sent], (asked, port))
    requests = [upstream.receive() for _ in sent]
    assert {(arrived.sender, arrived.dscp) for arrived in requests} == {(requests[0].sender, 10)}
    upstream.send_merged([flow.reply(payload) for payload in sent], requests[0].sender)
    replies = [peer.receive() for _ in sent]
    assert [flow.open_reply(reply.data).payload for reply in replies] == sent
    assert {(reply.sender, reply.dscp) for reply in replies} == {((asked, port), 12)}


@pytest.fixture
def traced(start_vesk: StartVesk, tmp_path: Path, peer: UdpEnd,
           upstream: UdpEnd) -> Tuple[Bench, Path]:
    """A bench, and a trace of the send calls of its forwarder."""
    trace = tmp_path / "trace"
    vesk = start_vesk(prefix=recording_start(trace, "sendmsg,sendmmsg")).ready()
    return Bench(vesk, peer, upstream), trace


def test_datagrams_of_one_length_leave_as_one_message(traced: Tuple[Bench, Path]) -> None:
    """In both directions, whether they arrived merged or one by one."""
    bench, trace = traced
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    sender = bench.exchange(flow)
    for number in range(1, 4):
        with stopped(bench.vesk):
            if number == 1:
                bench.peer.send_merged([flow.request(b"same")] * 20, bench.to)
                bench.upstream.send_merged([flow.reply(b"same")] * 20, sender)
            else:
                for _ in range(20):
                    bench.send(flow.request(b"same"))
                    bench.upstream.send(flow.reply(b"same"), sender)
        receive_all(bench.upstream, 20)
        receive_all(bench.peer, 20)
        wait_until(lambda number=number: len(cut_sends(trace)) == 2 * number,
                   "each side has sent one message")
    assert all("msg_iovlen=20," in call for call in cut_sends(trace))


def test_different_lengths_leave_with_one_call(traced: Tuple[Bench, Path]) -> None:
    bench, trace = traced
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    sender = bench.exchange(flow)
    lengths = list(range(1, 21))
    with stopped(bench.vesk):
        for length in lengths:
            bench.send(flow.request(bytes(length)))
            bench.upstream.send(flow.reply(bytes(length)), sender)
    for end in (bench.upstream, bench.peer):
        assert [len(datagram) - UDPV2.header_size
                for datagram in receive_all(end, len(lengths))] == lengths
    wait_until(lambda: len(re.findall(r"sendmmsg.* = 20\n", trace.read_text())) == 2,
               "both calls have sent all datagrams")
