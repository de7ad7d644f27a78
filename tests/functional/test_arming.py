"""Arming of upstream sockets in the poll loop, and what happens when it fails."""

from __future__ import annotations

import re
import time
from contextlib import ExitStack
from pathlib import Path
from typing import List

from framework.bench import Bench
from framework.faults import (failing_calls, failing_poll_thread, failing_workers, recording_start,
                              require_tracing)
from framework.fixtures import StartVesk
from framework.flood import Flood
from framework.flow import Flow, four_keys
from framework.statistics import wait_for_report
from framework.timing import SANITIZER, wait_until
from framework.udp import UdpEnd, free_port

NO_ROOM = ("error pollLoop_mod_fdError writing a control message to poll socket: bytes: -1 Error: "
           "No buffer space available")


def refused(flow: Flow) -> str:
    return ("warn Re-add UpEpt recv sockfd to poll set: network error on upstream endpoint of label "
            f"{flow.label:#x}/{flow.label}, errno 105 (No buffer space available).")


def calls_in(trace: Path, call: str) -> int:
    return trace.read_text(errors="replace").count(f"{call}(")


def test_no_thread_yields_at_a_low_rate(bench: Bench) -> None:
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    bench.exchange(flow)
    with failing_calls(bench.vesk, bench.vesk.threads(), "sched_yield:delay_enter=1") as trace:
        for _ in range(200):
            bench.exchange(flow)
    assert calls_in(trace, "sched_yield") == 0


def test_arming_a_socket_is_retried_with_pauses(bench: Bench) -> None:
    flows = [bench.flow(label=label, **four_keys()) for label in (5, 6)]
    bench.declare(*flows)
    for flow in flows:
        bench.exchange(flow)
    since = bench.vesk.mark()
    with failing_workers(bench.vesk, "sendto:error=ENOBUFS") as trace:
        for flow in flows:
            bench.exchange(flow)
            bench.vesk.wait_for_log(refused(flow), since)
        # The pause grows to 100 ms, so 40 more attempts of two workers take more than a second.
        began = time.monotonic()
        before = calls_in(trace, "sendto")
        wait_until(lambda: calls_in(trace, "sendto") >= before + 40, "arming is retried")
        assert time.monotonic() - began > 0.8
        # The failure is logged once for each socket, whatever the number of attempts.
        said = [line for line in bench.vesk.remarks(since) if "Created" not in line]
        assert said == [NO_ROOM, refused(flows[0]), NO_ROOM, refused(flows[1])]
    bench.vesk.wait_for_log("info Re-add UpEpt recv sockfd to poll set: works again", since)
    for flow in flows:
        bench.exchange(flow)


def test_a_socket_that_cannot_be_armed_is_closed_with_its_flow(bench: Bench) -> None:
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    descriptors = bench.vesk.descriptor_count()
    bench.exchange(flow)
    since = bench.vesk.mark()
    with failing_workers(bench.vesk, "sendto:error=ENOBUFS"):
        bench.exchange(flow)
        bench.vesk.wait_for_log(refused(flow), since)
        bench.vesk.lines_after("del label 5")
        # The worker's request for its deletion fails too, so the worker closes the socket.
        bench.vesk.wait_for_descriptor_count(descriptors)


def test_no_flow_is_opened_after_the_poll_loop_has_ended(bench: Bench) -> None:
    flow = bench.flow(**four_keys())
    late = bench.flow(label=6, **four_keys())
    bench.declare(flow, late)
    sender = bench.exchange(flow)
    since = bench.vesk.mark()
    with failing_poll_thread(bench.vesk, "epoll_wait:error=EBADF:when=1"):
        # A reply that ends the current wait.
        bench.upstream.send(flow.reply(b"wakes it"), sender)
        bench.vesk.wait_for_log("error Failed epoll_wait: Bad file descriptor", since)
    since = bench.vesk.mark()
    bench.send(late.request(b"cannot be answered"))
    bench.vesk.wait_for_log(re.compile(
        r"error Failed to add upstream endpoint's READ sockfd \d+ to pollLoop, error: -32"), since)
    bench.vesk.wait_for_log("error pollLoop_add_fdError writing a control message to poll socket: "
                            "bytes: -1 Error: Broken pipe", since)
    wait_for_report(bench.vesk, lambda report: report.downstream["RxDgError"] == 1)


def lines_of_listener(trace: Path) -> List[str]:
    """The calls of the thread that receives from peers and registers new sockets."""
    lines = trace.read_text(errors="replace").splitlines()
    threads = {line.split()[0] for line in lines if re.search(r" recvmmsg\(", line)}
    registering = [line.split()[0] for line in lines
                   if re.search(r' sendto\(\d+, "\\1\\0\\0\\0', line)]
    assert len(set(registering)) == 1 and registering[0] in threads
    return [line for line in lines if line.split()[0] == registering[0]]


def test_nothing_is_logged_before_a_new_socket_is_watched(
        start_vesk: StartVesk, peer: UdpEnd, upstream: UdpEnd, tmp_path: Path) -> None:
    require_tracing()
    trace = tmp_path / "order.strace"
    vesk = start_vesk(prefix=recording_start(trace, "socket,write,sendto,recvmmsg"))
    bench = Bench(vesk, peer, upstream)
    flow = bench.flow(options={"up_src_ip": "127.0.0.1", "up_src_port": free_port("127.0.0.1")},
                      **four_keys())
    bench.declare(flow)
    bench.ask(flow)
    vesk.wait_for_log(re.compile("info Created upstream endpoint: label 0x5/5 .*"))
    vesk.finish()
    calls = lines_of_listener(trace)
    made = max(i for i, line in enumerate(calls) if re.search(r" socket\(", line))
    watched = next(i for i, line in enumerate(calls) if i > made and " sendto(" in line)
    assert not [line for line in calls[made:watched] if " write(" in line]
    assert [line for line in calls[watched:] if "Bound upstream endpoint" in line]


def test_set_of_a_multiplexed_flow_keeps_its_new_socket(bench: Bench) -> None:
    """Replies with the label of the flow arrive on the socket of another flow meanwhile."""
    source = {"is_multiplex": "true", "up_src_ip": "127.0.0.1",
              "up_src_port": free_port("127.0.0.1")}
    sibling = bench.flow(label=5, options=source, **four_keys())
    flow = bench.flow(label=6, options=source, **four_keys())
    bench.declare(sibling, flow)
    shared = bench.ask(sibling).sender
    since = bench.vesk.mark()
    with ExitStack() as stack:
        # The kernel distributes replies to the sockets by sender.
        for _ in range(4):
            end = stack.enter_context(UdpEnd())
            stack.enter_context(Flood(end, [(flow.reply(b"early"), shared)], 1e-5))
        for _ in range(300 if SANITIZER else 2000):
            bench.vesk.command(flow.set_command())
            bench.ask(flow)
    assert not [line for line in bench.vesk.remarks(since) if "network error" in line]
