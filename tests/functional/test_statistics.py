"""The exact text of the "stats" report, and the counter that each kind of event increments."""

from __future__ import annotations

import os
from typing import Callable, Dict

import pytest

from framework.fixtures import StartVesk
from framework.bench import Bench
from framework.faults import failing_listener, failing_workers
from framework.flow import four_keys
from framework.framing import UDPV1, Key
from framework.statistics import Counters, Report, report, report_text, wait_for_report
from framework.timing import wait_until
from framework.udp import UdpEnd, free_port
from framework.vesk_process import VeskProcess

WORKERS = max(1, os.cpu_count() or 1)
NO_LATERAL = "info Lateral Stats:\n\n"
NO_DOWNSTREAM = "info Downstream Stats:\n\n"
IDLE_DOWNSTREAM = "info Downstream Stats:\nRxDg:0,TxDg:0,RxDgError:0,TxDgDropped:0\n\n"
IDLE_LATERAL = ("info Lateral Stats:\n"
                "RxDg:0,TxDg:0,RxDgError:0,TxDgDropped:0,DnTxDg:0,DnTxDgDropped:0\n\n")


def idle_report(downstream: str, lateral: str) -> str:
    return ("info \nPoll stats:\nActiveEvtNr:0 RdReadyNr:0 WrReadyNr:0 ErrorNr:0\n\n"
            "info Upstream Stats:\n\n"
            "info RcvThrStats: " + "WakeNr:0,ReadyFdNr:0,DgNr:0 " * WORKERS + "\n\n"
            "info SndThrStats \n\n"
            "info EptNr:0,RxDg:0,TxDg:0\n\n"
            + downstream + lateral)


# Form -----------------------------------------------------------------------------------

def test_the_report_without_listener_and_flows(vesk: VeskProcess) -> None:
    assert report_text(vesk) == idle_report(NO_DOWNSTREAM, NO_LATERAL)


def test_the_report_of_an_idle_listener(vesk: VeskProcess) -> None:
    vesk.listen()
    assert report_text(vesk) == idle_report(IDLE_DOWNSTREAM, NO_LATERAL)
    vesk.lines_after("stop")
    assert report_text(vesk) == idle_report(NO_DOWNSTREAM, NO_LATERAL)


def test_the_report_of_an_idle_lateral_stream(vesk: VeskProcess) -> None:
    vesk.lines_after("add_lateral_peer idx 1 addr 127.0.0.2",
                     f"start_lateral addr 127.0.0.1 port {free_port()} idx 0 max_qels 2")
    assert report_text(vesk) == idle_report(NO_DOWNSTREAM, IDLE_LATERAL)
    vesk.listen()
    assert report_text(vesk) == idle_report(IDLE_DOWNSTREAM, IDLE_LATERAL)


def test_the_report_of_two_flows(bench: Bench) -> None:
    """Labels are in ascending order; two colons are missing in their lines."""
    flows = [bench.flow(label, up_label=1, down_label=2, **four_keys())
             for label in (0xFFFFFFFF, 5)]
    bench.declare(*flows)
    for flow in flows:
        bench.exchange(flow)
        bench.exchange(flow)
    seen = wait_for_report(bench.vesk, lambda now: now.poll["ActiveEvtNr"] == 2
                           and now.upstream_sum("TxDg") == 4 and now.totals["RxDg"] == 4
                           and now.upstream_sum("DnTxDg") == 4)
    text = report_text(bench.vesk)
    workers = "".join(f"WakeNr:{worker['WakeNr']},ReadyFdNr:{worker['ReadyFdNr']},"
                      f"DgNr:{worker['DgNr']} " for worker in seen.receivers)
    assert text == (
        "info \nPoll stats:\n"
        f"ActiveEvtNr:2 RdReadyNr:{seen.poll['RdReadyNr']} WrReadyNr:0 ErrorNr:0\n\n"
        "info Upstream Stats:\n"
        "Label:5,RxDg:2,TxDg:2,RxDgError0,TxDgDropped0,DnTxDg:2,DnTxDgDropped:0\n"
        "Label:4294967295,RxDg:2,TxDg:2,RxDgError0,TxDgDropped0,DnTxDg:2,DnTxDgDropped:0\n\n"
        f"info RcvThrStats: {workers}\n\n"
        "info SndThrStats \n\n"
        "info EptNr:2,RxDg:4,TxDg:0\n\n"
        "info Downstream Stats:\nRxDg:4,TxDg:0,RxDgError:0,TxDgDropped:0\n\n"
        "info Lateral Stats:\n\n")


@pytest.mark.parametrize("level", ["error", "warn"])
def test_the_report_is_not_written_below_info(vesk: VeskProcess, level: str) -> None:
    vesk.lines_after(f"log priority {level}")
    assert vesk.lines_after("stats") == []


def test_words_after_the_command_are_ignored(vesk: VeskProcess) -> None:
    assert vesk.lines_after("stats now please") == vesk.lines_after("stats")


def test_a_report_resets_no_counter(bench: Bench) -> None:
    flow = bench.flow()
    bench.declare(flow)
    bench.exchange(flow)
    wait_for_report(bench.vesk, lambda now: now.poll["ActiveEvtNr"] == 1
                    and now.totals["RxDg"] == 1 and now.upstream_sum("DnTxDg") == 1)
    assert report_text(bench.vesk) == report_text(bench.vesk)


def test_a_new_endpoint_starts_with_counters_at_zero(bench: Bench) -> None:
    flow = bench.flow()
    bench.declare(flow)
    bench.exchange(flow)
    bench.declare(flow)
    assert 5 not in report(bench.vesk).upstream
    bench.ask(flow)
    assert wait_for_report(bench.vesk, lambda now: now.upstream[5]["TxDg"] == 1).upstream[5][
        "RxDg"] == 0


def test_a_new_listener_starts_with_counters_at_zero(bench: Bench) -> None:
    bench.nothing_went_upstream()
    assert report(bench.vesk).downstream["RxDg"] == 1
    bench.vesk.lines_after("stop", f"start addr 127.0.0.1 port {bench.to[1]}")
    assert report(bench.vesk).downstream == {"RxDg": 0, "TxDg": 0, "RxDgError": 0,
                                             "TxDgDropped": 0}


# From downstream ------------------------------------------------------------------------

def change(before: Counters, after: Counters) -> Counters:
    return {name: after[name] - before[name] for name in after if after[name] != before[name]}


def downstream_change(bench: Bench, datagram: bytes) -> Dict[str, int]:
    """The increments of the downstream counters for one datagram."""
    before = report(bench.vesk).downstream
    bench.send(datagram)
    # A good datagram follows, so that the first is known to have been handled.
    bench.nothing_went_upstream()
    after = report(bench.vesk).downstream
    after["RxDg"] -= 1
    return change(before, after)


REJECTED = {"RxDg": 1, "RxDgError": 1}


def test_a_good_datagram_is_counted(bench: Bench) -> None:
    flow = bench.flow()
    bench.declare(flow)
    bench.ask(flow)
    seen = wait_for_report(bench.vesk, lambda now: now.upstream_sum("TxDg") == 1)
    assert seen.upstream == {5: {"RxDg": 0, "TxDg": 1, "RxDgError": 0, "TxDgDropped": 0,
                                 "DnTxDg": 0, "DnTxDgDropped": 0}}
    assert seen.downstream == {"RxDg": 1, "TxDg": 0, "RxDgError": 0, "TxDgDropped": 0}


@pytest.mark.parametrize("datagram", [
    pytest.param(b"short", id="short"),
    pytest.param(bytes(16) + (77).to_bytes(4, "big"), id="unknown label"),
    pytest.param(bytes(15) + b"x" + (5).to_bytes(4, "big"), id="bad HMAC"),
    pytest.param(bytes(16) + (6).to_bytes(4, "big"), id="no upstream address"),
])
def test_rejected_datagrams_are_counted(bench: Bench, datagram: bytes) -> None:
    bench.declare(bench.flow(5), bench.flow(6, upstream=None))
    assert downstream_change(bench, datagram) == REJECTED


def test_a_bad_header_length_is_counted(start_vesk: StartVesk, peer: UdpEnd,
                                        upstream: UdpEnd) -> None:
    bench = Bench(start_vesk("udpv1").ready(), peer, upstream, UDPV1)
    bench.declare(bench.flow())
    assert downstream_change(bench, UDPV1.build(5, b"x", header_length=37)) == REJECTED


def test_an_endpoint_that_cannot_be_bound_is_counted(bench: Bench,
                                                     new_end: Callable[..., UdpEnd]) -> None:
    taken = new_end()
    flow = bench.flow(options={"up_src_ip": taken.host, "up_src_port": taken.port})
    bench.declare(flow)
    assert downstream_change(bench, flow.request(b"x")) == REJECTED
    assert 5 not in report(bench.vesk).upstream


def test_a_truncated_datagram_is_counted_as_received(bench: Bench) -> None:
    """Truncated, it is a good datagram of a flow without a key."""
    flow = bench.flow()
    bench.declare(flow)
    before = report(bench.vesk).downstream
    bench.send(flow.request(b"p" * 4000))
    bench.upstream.receive()
    assert change(before, report(bench.vesk).downstream) == {"RxDg": 1}


def test_an_empty_datagram_is_not_counted(bench: Bench) -> None:
    before = report(bench.vesk).downstream
    bench.send(b"")
    bench.nothing_went_upstream()
    assert change(before, report(bench.vesk).downstream) == {"RxDg": 1}


# Upstream -------------------------------------------------------------------------------

# The counters after a datagram that could not be sent upstream.
@pytest.mark.parametrize("error, counted", [
    ("EAGAIN", {"TxDgDropped": 1}), ("ENOBUFS", {"TxDgDropped": 1}), ("ECONNREFUSED", {})])
def test_a_failed_send_upstream_is_counted(bench: Bench, error: str,
                                           counted: Dict[str, int]) -> None:
    flow = bench.flow()
    bench.declare(flow)
    bench.ask(flow)
    before = wait_for_report(bench.vesk, lambda now: now.upstream[5]["TxDg"] == 1).upstream[5]
    with failing_listener(bench.vesk, f"sendmsg:error={error}:when=1"):
        bench.send(flow.request(b"lost"))
        bench.nothing_went_upstream()
    assert change(before, report(bench.vesk).upstream[5]) == counted


def upstream_change(bench: Bench, label: int, settled: Callable[[Dict[str, int]], bool],
                    act: Callable[[], None]) -> Dict[str, int]:
    # A datagram is counted after it was sent, and thus possibly after it has arrived.
    before = wait_for_report(bench.vesk,
                             lambda now: now.upstream[label]["TxDg"] > 0).upstream[label]
    act()
    after = wait_for_report(
        bench.vesk, lambda now: settled(change(before, now.upstream[label]))).upstream[label]
    return change(before, after)


def test_a_good_reply_is_counted(bench: Bench) -> None:
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    sender = bench.ask(flow).sender
    assert upstream_change(bench, 5, lambda now: "DnTxDg" in now,
                           lambda: bench.upstream.send(flow.reply(b"x"), sender)) == {
        "RxDg": 1, "DnTxDg": 1}


@pytest.mark.parametrize("reply", [pytest.param(b"short", id="short"),
                                   pytest.param(bytes(16) + b"\0\0\0\5x", id="bad HMAC")])
def test_rejected_replies_are_counted(bench: Bench, reply: bytes) -> None:
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    sender = bench.ask(flow).sender
    assert upstream_change(bench, 5, lambda now: "RxDgError" in now,
                           lambda: bench.upstream.send(reply, sender)) == {
        "RxDg": 1, "RxDgError": 1}


@pytest.mark.parametrize("label, counted", [
    (0, {"RxDg": 1, "DnTxDg": 1}), (6, {"RxDg": 1, "RxDgError": 1, "DnTxDg": 1})])
def test_a_reply_with_another_label_is_counted_and_sent(bench: Bench, label: int,
                                                        counted: Dict[str, int]) -> None:
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    sender = bench.ask(flow).sender
    assert upstream_change(
        bench, 5, lambda now: "DnTxDg" in now,
        lambda: bench.upstream.send(flow.reply(b"x", label=label), sender)) == counted


def test_an_empty_reply_is_not_counted(bench: Bench) -> None:
    flow = bench.flow()
    bench.declare(flow)
    sender = bench.ask(flow).sender

    def empty_then_good() -> None:
        bench.upstream.send(b"", sender)
        bench.answer(flow, sender)

    assert upstream_change(bench, 5, lambda now: "DnTxDg" in now, empty_then_good) == {
        "RxDg": 1, "DnTxDg": 1}


def test_a_reply_without_a_listener_is_dropped(bench: Bench) -> None:
    flow = bench.flow()
    bench.declare(flow)
    sender = bench.ask(flow).sender
    bench.vesk.lines_after("stop")
    assert upstream_change(bench, 5, lambda now: "DnTxDgDropped" in now,
                           lambda: bench.upstream.send(flow.reply(b"x"), sender)) == {
        "RxDg": 1, "DnTxDgDropped": 1}


@pytest.mark.parametrize("error, counted", [
    ("EAGAIN", {"RxDg": 1, "DnTxDgDropped": 1}), ("ENOBUFS", {"RxDg": 1, "DnTxDgDropped": 1}),
    ("ECONNREFUSED", {"RxDg": 1})])
def test_a_failed_send_to_the_peer_is_counted(bench: Bench, error: str,
                                              counted: Dict[str, int]) -> None:
    flow = bench.flow()
    bench.declare(flow)
    sender = bench.ask(flow).sender
    with failing_workers(bench.vesk, f"sendmsg:error={error}:when=1") as trace:

        def send_and_be_refused() -> None:
            bench.upstream.send(flow.reply(b"lost"), sender)
            wait_until(lambda: error in trace.read_text(), "the reply was refused")

        assert upstream_change(bench, 5, lambda now: now == counted,
                               send_and_be_refused) == counted


@pytest.mark.parametrize("error, counted", [
    ("ENOBUFS", {"RxDg": 1, "RxDgError": 1, "DnTxDg": 1}),
    # The socket is drained afterwards.
    ("ECONNREFUSED", {"RxDg": 1, "DnTxDg": 1})])
def test_a_failed_receive_from_upstream_is_counted(bench: Bench, error: str,
                                                   counted: Dict[str, int]) -> None:
    flow = bench.flow()
    bench.declare(flow)
    sender = bench.ask(flow).sender
    with failing_workers(bench.vesk, f"recvmmsg:error={error}:when=1") as trace:

        def send_and_fail() -> None:
            bench.upstream.send(flow.reply(b"x"), sender)
            wait_until(lambda: error in trace.read_text(), "the receive call failed")

        assert upstream_change(bench, 5, lambda now: now == counted, send_and_fail) == counted


def test_a_multiplexed_reply_counts_on_socket_and_flow(bench: Bench) -> None:
    """It is received on the endpoint of its socket and sent on the flow of its label."""
    port = free_port()
    flows = [bench.flow(label, options={"is_multiplex": "true", "up_src_ip": "127.0.0.1",
                                        "up_src_port": port}) for label in (5, 6)]
    bench.declare(*flows)
    shared = {bench.ask(flow).sender for flow in flows}.pop()
    bench.answer(flows[0], shared)
    bench.answer(flows[0], shared)
    seen = wait_for_report(bench.vesk, lambda now: now.upstream[5]["DnTxDg"] == 2)
    assert seen.upstream_sum("RxDg") == 2 and seen.upstream[6]["DnTxDg"] == 0


@pytest.mark.parametrize("label", [0, 99])
def test_a_multiplexed_reply_with_an_unknown_label_counts_on_its_socket(bench: Bench,
                                                                        label: int) -> None:
    flow = bench.flow(options={"is_multiplex": "true", "up_src_ip": "127.0.0.1",
                               "up_src_port": free_port()})
    bench.declare(flow)
    sender = bench.ask(flow).sender
    assert upstream_change(bench, 5, lambda now: "RxDgError" in now,
                           lambda: bench.upstream.send(flow.reply(b"x", label=label), sender)) == {
        "RxDg": 1, "RxDgError": 1}


# Poll thread and workers ----------------------------------------------------------------

def test_sockets_are_armed_again_after_each_reply(bench: Bench) -> None:
    flow = bench.flow()
    bench.declare(flow)
    sender = bench.ask(flow).sender
    armed = wait_for_report(bench.vesk, lambda now: now.poll["ActiveEvtNr"] == 1)
    assert armed.poll["RdReadyNr"] == 0
    for number in range(1, 6):
        bench.answer(flow, sender)
        seen = wait_for_report(bench.vesk, lambda now: now.poll["ActiveEvtNr"] == 1
                               and now.totals["RxDg"] == number)
        assert 1 <= seen.poll["RdReadyNr"] <= number
        assert seen.poll["WrReadyNr"] == 0 and seen.poll["ErrorNr"] == 0
    bench.vesk.lines_after("del label 5")
    wait_for_report(bench.vesk, lambda now: now.poll["ActiveEvtNr"] == 0)


def test_ready_sockets_are_distributed_to_the_workers_in_turn(bench: Bench) -> None:
    """Each ready socket is queued for the next worker."""
    flow = bench.flow()
    bench.declare(flow)
    sender = bench.ask(flow).sender
    rounds = 2 * WORKERS
    for number in range(1, rounds + 1):
        bench.answer(flow, sender)
        seen = wait_for_report(bench.vesk, lambda now: now.totals["RxDg"] == number
                               and now.poll["ActiveEvtNr"] == 1)
    assert seen.poll["RdReadyNr"] == rounds
    for worker in seen.receivers:
        assert worker["DgNr"] == 2
        # A worker that is not waiting yet serves a socket without a wake-up.
        assert 1 <= worker["ReadyFdNr"] <= 2 and worker["WakeNr"] >= worker["ReadyFdNr"]


def test_the_totals_are_the_sums_of_the_workers(bench: Bench) -> None:
    flows = [bench.flow(label, down_in=Key(b"k")) for label in range(1, 21)]
    bench.declare(*flows)
    for flow in flows:
        for _ in range(5):
            bench.exchange(flow)
    seen: Report = wait_for_report(bench.vesk, lambda now: now.totals["RxDg"] == 100
                                   and now.upstream_sum("TxDg") == 100
                                   and now.upstream_sum("DnTxDg") == 100)
    assert seen.totals == {"EptNr": 20, "RxDg": 100, "TxDg": 0}
    assert sum(worker["DgNr"] for worker in seen.receivers) == 100
    assert seen.senders == []
    assert seen.upstream_sum("RxDg") == 100


def test_a_report_is_whole_under_traffic(bench: Bench) -> None:
    flows = [bench.flow(label) for label in range(1, 51)]
    bench.declare(*flows)
    for number in range(200):
        bench.send(flows[number % 50].request(b"x"))
        report(bench.vesk)
