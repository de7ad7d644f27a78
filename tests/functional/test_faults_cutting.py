"""Kernels and devices that do not cut messages into datagrams, or do not merge datagrams."""

from __future__ import annotations

import re
from pathlib import Path
from typing import Callable, Tuple

import pytest

from framework.batches import cut_sends, stopped
from framework.batch_ways import COUNT, DIFFERENT, SAME, TO_PEER, TO_UPSTREAM, Way, both_ways
from framework.bench import Bench
from framework.faults import failing_calls, failing_listener
from framework.flow import Flow, four_keys
from framework.statistics import report, wait_for_report
from framework.timing import wait_until
from framework.udp import UdpEnd
from framework.vesk_process import VeskProcess


@both_ways
def test_a_device_that_cannot_cut_is_remembered(bench: Bench, flow: Flow, way: Way) -> None:
    """After EIO no message of that socket is to be cut again, whatever its length."""
    endpoint = bench.exchange(flow)
    since = bench.vesk.mark()
    with way.failing(bench.vesk, "sendmsg:error=EIO:when=1") as trace:
        for payloads in (SAME, SAME, [b"short"] * 3, [bytes(1000)] * 5):
            way.send(bench, flow, endpoint, payloads)
            assert way.arrived(bench, flow, len(payloads)) == payloads
        assert len(cut_sends(trace)) == 1
    sent = 1 + 2 * COUNT + 3 + 5
    seen = wait_for_report(bench.vesk, lambda now: now.upstream[5][way.sent] == sent)
    assert seen.upstream[5][way.dropped] == 0
    assert not [line for line in bench.vesk.remarks(since) if "network error" in line]


@both_ways
@pytest.mark.parametrize("name", ["EINVAL", "EMSGSIZE"])
def test_a_length_that_cannot_be_cut_is_remembered(bench: Bench, flow: Flow, way: Way,
                                                   name: str) -> None:
    """Shorter datagrams are still sent as one message."""
    endpoint = bench.exchange(flow)
    since = bench.vesk.mark()
    shorter = [payload[:-1] for payload in SAME]
    longer = [payload + b"x" for payload in SAME]
    with way.failing(bench.vesk, f"sendmsg:error={name}:when=1") as trace:
        for payloads, cut in ((SAME, 1), (SAME, 1), (longer, 1), (shorter, 2)):
            way.send(bench, flow, endpoint, payloads)
            assert way.arrived(bench, flow, COUNT) == payloads
            wait_until(lambda cut=cut: len(cut_sends(trace)) == cut, "the message was cut or not")
    seen = wait_for_report(bench.vesk, lambda now: now.upstream[5][way.sent] == 1 + 4 * COUNT)
    assert seen.upstream[5][way.dropped] == 0
    assert not [line for line in bench.vesk.remarks(since) if "network error" in line]


def test_what_is_remembered_belongs_to_one_flow(bench: Bench, flow: Flow) -> None:
    other = bench.flow(6, **four_keys())
    bench.declare(other)
    endpoint = bench.exchange(flow)
    bench.exchange(other)
    with failing_listener(bench.vesk, "sendmsg:error=EIO:when=1") as trace:
        TO_UPSTREAM.send(bench, flow, endpoint, SAME)
        TO_UPSTREAM.arrived(bench, flow, COUNT)
        TO_UPSTREAM.send(bench, other, endpoint, SAME)
        assert TO_UPSTREAM.arrived(bench, other, COUNT) == SAME
        wait_until(lambda: len(cut_sends(trace)) == 2, "the other flow's message was cut")


def refuse(bench_of: Callable[[], Bench], vesk: VeskProcess, injection: str) -> Tuple[Bench, Path]:
    """A bench whose listener was opened while one of its socket options failed."""
    with failing_calls(vesk, [vesk.pid], injection) as trace:
        bench = bench_of()
    return bench, trace


@pytest.mark.parametrize("way", [TO_UPSTREAM, TO_PEER], ids=lambda way: way.name)
def test_a_kernel_that_cannot_cut_is_never_asked_to(vesk: VeskProcess, peer: UdpEnd,
                                                    upstream: UdpEnd, way: Way) -> None:
    """The third option that is read from a new socket tells whether the kernel can cut."""
    refusal = "getsockopt:error=ENOPROTOOPT:when=3"
    since = vesk.mark()
    bench, trace = refuse(lambda: Bench(vesk, peer, upstream), vesk, refusal)
    assert re.search(r"SOL_UDP, UDP_SEGMENT, .*ENOPROTOOPT", trace.read_text())
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    # getsockopt of an upstream socket: SO_RCVBUF, SO_SNDBUF, UDP_SEGMENT.
    with failing_listener(vesk, refusal) as trace:
        endpoint = bench.exchange(flow)
    assert re.search(r"SOL_UDP, UDP_SEGMENT, .*ENOPROTOOPT", trace.read_text())
    with way.failing(vesk, "sendmsg:delay_enter=1", "sendmmsg:delay_enter=1") as trace:
        for payloads in (SAME, DIFFERENT):
            way.send(bench, flow, endpoint, payloads)
            assert way.arrived(bench, flow, COUNT) == payloads
        assert "sendmmsg(" in trace.read_text()
        assert cut_sends(trace) == []
    assert not [line for line in vesk.remarks(since) if line.startswith(("warn", "error"))]


def test_a_kernel_that_does_not_merge_changes_nothing(vesk: VeskProcess, peer: UdpEnd,
                                                      upstream: UdpEnd) -> None:
    """It refuses the last option set on each socket. Nothing is logged."""
    since = vesk.mark()
    bench, trace = refuse(lambda: Bench(vesk, peer, upstream), vesk,
                          "setsockopt:error=ENOPROTOOPT:when=4")
    assert re.search(r"SOL_UDP, UDP_GRO, .*ENOPROTOOPT", trace.read_text())
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    with failing_listener(vesk, "setsockopt:error=ENOPROTOOPT:when=4") as trace:
        endpoint = bench.exchange(flow)
    assert re.search(r"SOL_UDP, UDP_GRO, .*ENOPROTOOPT", trace.read_text())
    for _ in range(2):
        with stopped(vesk):
            bench.peer.send_merged([flow.request(payload) for payload in SAME], bench.to)
            bench.upstream.send_merged([flow.reply(payload) for payload in SAME], endpoint)
        for way in (TO_UPSTREAM, TO_PEER):
            assert way.arrived(bench, flow, COUNT) == SAME
    seen = wait_for_report(vesk, lambda now: now.upstream[5]["DnTxDg"] == 1 + 2 * COUNT)
    assert seen.upstream[5]["TxDg"] == seen.upstream[5]["RxDg"] == 1 + 2 * COUNT
    assert report(vesk).downstream["RxDg"] == 1 + 2 * COUNT
    assert not [line for line in vesk.remarks(since) if line.startswith(("warn", "error"))]
