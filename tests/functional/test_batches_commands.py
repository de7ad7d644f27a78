""""set", "stop" and the end of input while batches wait in the receive queues.

The process is stopped, its queues are filled, the command is written, and the process continues.
The command and the batches then meet in any order.
"""

from __future__ import annotations

import pytest

from framework.batches import receive_all, stopped, wait_until_idle
from framework.batch_flows import (COUNT, REPETITIONS, TwoFlows, each_order, numbered,
                                   single_or_merged, waiting)
from framework.fixtures import StartVesk
from framework.flow import four_keys
from framework.framing import Key
from framework.lateral import NewEnd
from framework.statistics import report

PROMPT_SECONDS = 2


@single_or_merged
@each_order
def test_set_takes_effect_between_two_requests_of_a_batch(site: TwoFlows) -> None:
    """Each datagram is signed with the old or the new key, and none with the old one after that."""
    keys = [four_keys()["up_out"], Key(b"another key", "sha1")]
    for turn in range(REPETITIONS):
        site.open_both()
        old, new = keys[turn % 2], keys[1 - turn % 2]
        with stopped(site.vesk):
            site.fill_requests()
            site.vesk.command(f"set label {site.changed.label} up_out_key {new.secret.hex()} "
                              f"up_out_algo {new.algorithm}")
        site.vesk.settle()
        arrived = receive_all(site.bench.upstream, 2 * COUNT)
        site.changed.up_out = new
        assert site.requests_of(arrived) == (numbered(), numbered())
        signed = [datagram for datagram in arrived
                  if site.bench.framing.parse(datagram).label == site.changed.up_label]
        by_new = [datagram == site.bench.framing.build(site.changed.up_label, payload, new)
                  for payload, datagram in zip(numbered(), signed)]
        assert by_new == sorted(by_new)
        for datagram in signed[:by_new.count(False)]:
            site.bench.framing.open(datagram, old)


@single_or_merged
@each_order
def test_stop_and_start_between_batches(site: TwoFlows) -> None:
    """Nothing is lost but what is in the queue of the closed socket."""
    for _ in range(REPETITIONS):
        endpoints = site.open_both()
        before = report(site.vesk)
        with stopped(site.vesk):
            site.fill_requests()
            site.fill_replies(endpoints)
            site.vesk.command("stop")
        site.vesk.settle()
        wait_until_idle(site.vesk)
        now = report(site.vesk)
        assert now.downstream is None
        requests = site.requests_of(waiting(site.bench.upstream))
        replies = site.replies_of(waiting(site.bench.peer))
        for flow, forwarded, returned in zip((site.changed, site.kept), requests, replies):
            assert forwarded == numbered(len(forwarded))
            assert returned == numbered(len(returned))
            counted = {name: value - before.upstream[flow.label][name]
                       for name, value in now.upstream[flow.label].items()}
            assert counted == {"RxDg": COUNT, "TxDg": len(forwarded), "RxDgError": 0,
                               "TxDgDropped": 0, "DnTxDg": len(returned),
                               "DnTxDgDropped": COUNT - len(returned)}
        site.vesk.lines_after(f"start addr {site.bench.to[0]} port {site.bench.to[1]}")


@single_or_merged
@each_order
@pytest.mark.parametrize("command", ["", "del label 5", "stop"])
def test_the_input_ends_between_batches(start_vesk: StartVesk, new_end: NewEnd, chunk: int,
                                        merge: bool, command: str) -> None:
    for _ in range(max(1, REPETITIONS // 5)):
        vesk = start_vesk().ready()
        site = TwoFlows(vesk, new_end, chunk, merge)
        endpoints = site.open_both()
        with stopped(vesk):
            site.fill_requests()
            site.fill_replies(endpoints)
            vesk.command(command)
            vesk.close_input()
        vesk.wait_exit(0, seconds=PROMPT_SECONDS)
        for payloads in (*site.requests_of(waiting(site.bench.upstream)),
                         *site.replies_of(waiting(site.bench.peer))):
            assert payloads == numbered(len(payloads))
