"""Flows that are deleted while batches of their datagrams wait.

The process is stopped, its queues are filled, the command is written, and the process continues.
The command and the batches then meet in any order.
"""

from __future__ import annotations

from functools import partial
from typing import Callable, List, Tuple

import pytest

from framework.batches import receive_all, stopped, wait_until_idle
from framework.batch_flows import (COUNT, REPETITIONS, TwoFlows, each_order, numbered,
                                   single_or_merged, unread_bytes, waiting)
from framework.faults import failing_listener, failing_workers
from framework.lateral import NewEnd
from framework.statistics import report
from framework.timing import wait_until
from framework.udp import UdpEnd
from framework.vesk_process import VeskProcess

HELD_MICROSECONDS = 500_000
#: Datagrams that have been checked and signed, but not sent, when the flow is deleted.
IN_HAND = 128


def delete_between(site: TwoFlows, fill: Callable[[], None], end: UdpEnd,
                   payloads_of: Callable[[List[bytes]], Tuple[List[bytes], List[bytes]]]) -> int:
    """Deletes the changed flow while the datagrams of both wait.

    Returns how many of its datagrams arrived at this end.
    """
    with stopped(site.vesk):
        fill()
        site.vesk.command(f"del label {site.changed.label}")
    site.vesk.settle()
    arrived = waiting(end)
    wait_until_idle(site.vesk)
    late = waiting(end)
    assert len(payloads_of(late)[0]) <= IN_HAND
    # The flow's datagrams up to some point, then no more of them.
    changed, kept = payloads_of(arrived + late)
    assert changed == numbered(len(changed))
    assert kept == numbered()
    return len(changed)


@single_or_merged
@each_order
def test_no_request_of_a_deleted_flow_is_forwarded_after_its_deletion(site: TwoFlows) -> None:
    for _ in range(REPETITIONS):
        site.open_both()
        before = report(site.vesk).downstream
        forwarded = delete_between(site, site.fill_requests, site.bench.upstream,
                                   site.requests_of)
        now = report(site.vesk).downstream
        assert before is not None and now is not None
        assert now["RxDg"] - before["RxDg"] == 2 * COUNT
        assert now["RxDgError"] - before["RxDgError"] == COUNT - forwarded
        site.bench.declare(site.changed)


@pytest.mark.parametrize("chunk", [1, 30], ids=["turns", "bursts"])
@single_or_merged
def test_a_batch_in_memory_is_not_forwarded_after_the_deletion(site: TwoFlows) -> None:
    """The batch has been received, and the flow is deleted before its first datagram is handled."""
    bench = site.bench
    site.open_both()
    with failing_listener(site.vesk, f"recvmmsg:delay_exit={HELD_MICROSECONDS}"):
        with stopped(site.vesk):
            site.fill_requests(count=30)
            site.vesk.command(f"del label {site.changed.label}")
        site.vesk.settle()
        assert waiting(bench.upstream) == []
        arrived = receive_all(bench.upstream, 30)
    assert site.requests_of(arrived) == ([], numbered(30))
    wait_until_idle(site.vesk)
    assert waiting(bench.upstream) == []
    seen = report(site.vesk).downstream
    assert seen is not None and seen["RxDg"] == 62 and seen["RxDgError"] == 30


def test_a_batch_is_left_where_its_flow_is_deleted(vesk: VeskProcess, new_end: NewEnd) -> None:
    """The flow is deleted while its first datagram is sent."""
    site = TwoFlows(vesk, new_end, chunk=1, merge=False)
    site.open_both()
    with failing_listener(vesk, f"sendmsg:delay_enter={HELD_MICROSECONDS}:when=1"):
        with stopped(vesk):
            site.fill_requests(count=30)
        wait_until(lambda: unread_bytes(site.bench.to[1]) == 0, "the listener has got the batch")
        vesk.command(f"del label {site.changed.label}")
        vesk.settle()
        assert waiting(site.bench.upstream) == []
        arrived = receive_all(site.bench.upstream, 31)
    wait_until_idle(vesk)
    assert site.requests_of(arrived + waiting(site.bench.upstream)) == (numbered(1), numbered(30))
    seen = report(vesk).downstream
    assert seen is not None and seen["RxDg"] == 62 and seen["RxDgError"] == 29


@single_or_merged
def test_replies_in_memory_are_not_forwarded_after_the_deletion(
        vesk: VeskProcess, new_end: NewEnd, merge: bool) -> None:
    site = TwoFlows(vesk, new_end, 30, merge)
    endpoint = site.open_both()[site.changed.label]
    with failing_workers(vesk, f"recvmmsg:delay_exit={HELD_MICROSECONDS}"):
        with stopped(vesk):
            site.send(site.bench.upstream, [site.changed.reply(payload) for payload in
                                            numbered(30)], endpoint)
        wait_until(lambda: unread_bytes(endpoint[1]) == 0, "a worker has received the replies")
        vesk.command(f"del label {site.changed.label}")
        vesk.settle()
        assert waiting(site.bench.peer) == []
    wait_until_idle(vesk)
    assert waiting(site.bench.peer) == []


@single_or_merged
@each_order
def test_no_reply_of_a_deleted_flow_is_forwarded_after_its_deletion(site: TwoFlows) -> None:
    for _ in range(REPETITIONS):
        endpoints = site.open_both()
        before = report(site.vesk).upstream[site.kept.label]
        delete_between(site, partial(site.fill_replies, endpoints), site.bench.peer,
                       site.replies_of)
        now = report(site.vesk).upstream
        assert site.changed.label not in now
        for name in ("RxDg", "DnTxDg"):
            assert now[site.kept.label][name] - before[name] == COUNT
        site.bench.declare(site.changed)
