"""A real Prometheus reads the correct totals, also when flows are added and removed and children end."""

from __future__ import annotations

import os
import signal
from typing import Callable, Dict

from framework.bench import CONTROL_LABEL, Bench
from framework.flow import four_keys
from framework.statistics import wait_for_report
from framework.udp import UdpEnd
from framework.vesk_process import VeskProcess

from page import fetch, samples
from probe import Probe
from prometheus_process import PrometheusProcess

StartProbe = Callable[..., Probe]
StartPrometheus = Callable[[int], PrometheusProcess]


def exchange(bench: Bench, good: int, bad: int, answered: int) -> None:
    """Sends valid and forged requests, and replies to some of the valid ones; waits until all are counted."""
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    before = wait_for_report(bench.vesk, lambda now: now.downstream is not None)
    for number in range(good):
        sender = bench.ask(flow).sender
        if number < answered:
            bench.answer(flow, sender)
    for _ in range(bad):
        bench.send(flow.request(b"x")[:-1] + b"y")
    wait_for_report(bench.vesk, lambda now: now.upstream[5]["DnTxDg"] == answered
                    and now.upstream[5]["TxDg"] == good
                    and now.downstream["RxDg"] - before.downstream["RxDg"] == good + bad
                    and now.downstream["RxDgError"] - before.downstream["RxDgError"] == bad)


def test_the_totals_equal_what_was_sent(bench: Bench, start_probe: StartProbe,
                                        start_prometheus: StartPrometheus) -> None:
    probe = start_probe("total")
    prometheus = start_prometheus(probe.port)
    probe.act("up")
    exchange(bench, good=50, bad=7, answered=30)
    probe.follow(bench.vesk)
    prometheus.wait_for({
        "up": 1, "vesk_up": 1, "vesk_flow_sockets": 1,
        "vesk_downstream_received_datagrams_total": 57,
        "vesk_downstream_receive_errors_total": 7,
        "vesk_upstream_sent_datagrams_total": 50,
        "vesk_upstream_received_datagrams_total": 30,
        "vesk_upstream_sent_replies_total": 30,
        "sum(vesk_worker_received_datagrams_total)": 30})


def test_flows_are_added_and_removed(bench: Bench, start_probe: StartProbe,
                                     start_prometheus: StartPrometheus) -> None:
    """Each `set` gives the flow a new socket, whose counters begin at 0."""
    probe = start_probe("per-flow", "5=alice")
    prometheus = start_prometheus(probe.port)
    probe.act("up")
    for round_number in range(1, 4):
        exchange(bench, good=4, bad=0, answered=3)
        probe.follow(bench.vesk)
        prometheus.wait_for({
            "vesk_upstream_sent_datagrams_total": 4 * round_number,
            'vesk_flow_sent_datagrams_total{flow="alice",label="0x5"}': 4 * round_number,
            'vesk_flow_sent_replies_total{flow="alice"}': 3 * round_number})
    bench.vesk.lines_after("del label 5")
    wait_for_report(bench.vesk, lambda now: now.totals["EptNr"] == 0)
    probe.follow(bench.vesk)
    prometheus.wait_for({"vesk_flow_sockets": 0, "vesk_upstream_sent_datagrams_total": 12,
                         'vesk_flow_sent_datagrams_total{flow="alice"}': 12})


def test_an_undeclared_flow_is_shown_only_with_a_socket(bench: Bench, start_probe: StartProbe) -> None:
    probe = start_probe("per-flow", "5=alice")
    bench.nothing_went_upstream()  # uses the control flow, which has no name
    wait_for_report(bench.vesk, lambda now: now.upstream_sum("TxDg") == 1)
    probe.follow(bench.vesk)
    series = f'vesk_flow_sent_datagrams_total{{flow="",label="{CONTROL_LABEL:#x}"}}'
    assert samples(probe.port)[series] == 1
    bench.vesk.lines_after(f"del label {CONTROL_LABEL}")
    wait_for_report(bench.vesk, lambda now: not now.upstream)
    probe.follow(bench.vesk)
    assert series not in samples(probe.port)
    assert samples(probe.port)["vesk_upstream_sent_datagrams_total"] == 1


def test_the_totals_include_a_child_that_ended(start_vesk: Callable[..., VeskProcess], peer: UdpEnd,
                                               upstream: UdpEnd, start_probe: StartProbe,
                                               start_prometheus: StartPrometheus) -> None:
    probe = start_probe("total")
    prometheus = start_prometheus(probe.port)
    assert fetch(probe.port, "/healthz")[0] == 503
    first = Bench(start_vesk().ready(), peer, upstream)
    probe.act("up")
    assert fetch(probe.port, "/healthz") == (200, "ok\n")
    exchange(first, good=5, bad=2, answered=5)
    probe.follow(first.vesk)
    os.kill(first.vesk.pid, signal.SIGKILL)
    first.vesk.wait_exit(status=-signal.SIGKILL)
    second = Bench(start_vesk().ready(), peer, upstream)
    # More than the first child had, so that the figures do not show that they restarted.
    exchange(second, good=9, bad=3, answered=9)
    probe.follow_new_child(second.vesk)
    expected: Dict[str, float] = {
        "vesk_up": 1, "vesk_restarts_total": 1,
        "vesk_downstream_received_datagrams_total": 19,
        "vesk_downstream_receive_errors_total": 5,
        "vesk_upstream_sent_datagrams_total": 14,
        "vesk_upstream_sent_replies_total": 14}
    prometheus.wait_for(expected)
    probe.act("down")
    prometheus.wait_for({**expected, "vesk_up": 0, "vesk_flow_sockets": 0})


def test_reports_stay_out_of_the_log(bench: Bench, start_probe: StartProbe) -> None:
    """All other lines are passed on unchanged and in order, even between the lines of a report."""
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    probe = start_probe("total")
    probe.follow(bench.vesk)
    since = probe.followed
    for number in range(40):
        bench.send(flow.request(b"x")[:-1] + b"y")
        bench.vesk.command("stats")
        if number % 4 == 0:
            bench.vesk.command(f"nonsense-{number}")
    wait_for_report(bench.vesk, lambda now: now.downstream["RxDgError"] == 40)
    said = probe.follow(bench.vesk)
    text = bench.vesk.output()[since:].decode()
    ordinary = [line[len("line "):] for line in said if line.startswith("line ")]
    assert ordinary.count("downstreamPacketReceivedFailed HMAC Check!") == 40
    assert [line for line in ordinary if "nonsense" in line] == [
        f"error Unrecognised command 'nonsense-{number}'" for number in range(0, 40, 4)]
    assert ordinary.count("") == sum("Unrecognised" in line for line in ordinary)
    reports = said.count("report")
    assert reports == text.count("info Lateral Stats:") >= 41
    # A report without a lateral socket has 17 lines, and one more for each flow that has a socket at
    # that moment: for a forged datagram one is opened and closed again.
    assert text.count("\n") - len(ordinary) == 17 * reports + text.count("\nLabel:")
