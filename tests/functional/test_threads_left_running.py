"""Threads that cannot be cancelled.

In a process that may queue no signals, pthread_cancel fails with EAGAIN for a thread that waits.
VESK_REPEAT_ENDINGS is the number of repetitions of each test under load.
"""

from __future__ import annotations

import errno
import resource
from pathlib import Path
from typing import Dict, List

import pytest

from framework.bench import Bench
from framework.faults import recording_start
from framework.fixtures import StartVesk
from framework.flood import Drain, Flood
from framework.flow import Flow
from framework.framing import UDPV2
from framework.lateral import LOOPBACK, join, owned_label, shared_free_port
from framework.timing import SANITIZER, count_from_environment, wait_until
from framework.udp import UdpEnd, UpstreamService
from framework.vesk_process import VeskProcess

STOPPED = "info Forwarder listener stopped"
NOT_CANCELLED = "error Failed pthread_cancel: error Resource temporarily unavailable"
PROMPT_SECONDS = 2
REPETITIONS = count_from_environment("VESK_REPEAT_ENDINGS", 5)


def forbid_cancelling(vesk: VeskProcess) -> None:
    _, hard = resource.prlimit(vesk.pid, resource.RLIMIT_SIGPENDING)
    resource.prlimit(vesk.pid, resource.RLIMIT_SIGPENDING, (0, hard))


def end_with_threads_left(vesk: VeskProcess, threads: int) -> None:
    """The result of stopping the poll thread is the exit status."""
    since = vesk.mark()
    vesk.close_input()
    vesk.wait_exit(errno.EAGAIN, seconds=PROMPT_SECONDS)
    assert vesk.log_lines(since).count(NOT_CANCELLED) == threads


def wait_until_asleep(vesk: VeskProcess) -> None:
    def states() -> List[str]:
        return [Path(f"/proc/{vesk.pid}/task/{thread}/stat").read_text().rsplit(") ", 1)[1][0]
                for thread in vesk.threads()]
    wait_until(lambda: set(states()) == {"S"}, "every thread is asleep")


def own_threads(vesk: VeskProcess) -> int:
    """The number of threads that the forwarder has started; the thread sanitizer adds one."""
    return len(vesk.threads()) - (2 if SANITIZER == "tsan" else 1)


def test_stop_leaves_a_thread_that_cannot_be_cancelled_running(vesk: VeskProcess,
                                                               bench: Bench) -> None:
    """The error is logged, later commands are executed, and no processor time is used."""
    flow = bench.flow(5)
    bench.declare(flow)
    bench.exchange(flow)
    wait_until_asleep(vesk)
    forbid_cancelling(vesk)
    assert vesk.lines_after("stop") == [NOT_CANCELLED, STOPPED]
    wait_until_asleep(vesk)
    assert vesk.lines_after("stop") == []
    host, port = bench.to
    # The thread keeps its socket and therefore the port.
    assert ("error Failed bind syscall for endpoint socket: Address already in use"
            in vesk.lines_after(f"start addr {host} port {port}"))
    bench.send(flow.request(b"to the thread that was left running"))
    with UdpEnd() as peer, UdpEnd() as upstream:
        other = Bench(vesk, peer, upstream)
        other_flow = other.flow(6)
        other.declare(other_flow)
        other.exchange(other_flow)
        wait_until_asleep(vesk)
        assert vesk.lines_after("stop") == [NOT_CANCELLED, STOPPED]
        other.send(other_flow.request(b"to the second one"))
        wait_until_asleep(vesk)
    # The two receive threads are not cancelled a second time.
    end_with_threads_left(vesk, own_threads(vesk) - 2)


@pytest.mark.parametrize("traffic", [False, True], ids=["unused", "used"])
def test_end_of_input_ends_the_process_when_no_thread_can_be_cancelled(vesk: VeskProcess,
                                                                       bench: Bench,
                                                                       traffic: bool) -> None:
    if traffic:
        flow = bench.flow(5)
        bench.declare(flow)
        bench.exchange(flow)
    wait_until_asleep(vesk)
    forbid_cancelling(vesk)
    end_with_threads_left(vesk, own_threads(vesk))


@pytest.mark.parametrize("stopped_before", [False, True], ids=["running", "stopped"])
def test_end_of_input_ends_the_process_with_the_lateral_thread_running(
        vesk: VeskProcess, bench: Bench, stopped_before: bool) -> None:
    hosts = {0: LOOPBACK[0], 1: LOOPBACK[1]}
    port = shared_free_port(list(hosts.values()))
    join(vesk, 0, hosts, port, 2)
    flow = bench.flow(owned_label(0))
    bench.declare(flow)
    bench.exchange(flow)
    wait_until_asleep(vesk)
    forbid_cancelling(vesk)
    running = own_threads(vesk)
    if stopped_before:
        assert vesk.lines_after("stop") == [NOT_CANCELLED, STOPPED]
        running -= 1
        with UdpEnd(hosts[1], port) as instance:
            instance.send(b"to a thread that uses no downstream endpoint", (hosts[0], port))
            wait_until_asleep(vesk)
    end_with_threads_left(vesk, running)


@pytest.mark.limit_seconds(60 + 10 * REPETITIONS)
@pytest.mark.parametrize("stopped_before", [False, True], ids=["running", "stopped"])
def test_end_of_input_under_load_does_not_wait_for_threads_left_running(
        start_vesk: StartVesk, stopped_before: bool) -> None:
    """A busy thread can be cancelled at its next wait. Shutdown does not wait for the others."""
    by_up_label: Dict[int, Flow] = {}

    def echo(data: bytes) -> bytes:
        return by_up_label[UDPV2.parse(data).label].echo(data)

    for _ in range(REPETITIONS):
        with UdpEnd() as peer, UpstreamService(echo) as service:
            vesk = start_vesk("udpv2", "1").ready()
            bench = Bench(vesk, peer, service.end)
            flows = [bench.flow(label) for label in range(1, 101)]
            by_up_label.update({flow.up_label: flow for flow in flows})
            bench.declare(*flows)
            with Drain(peer) as returned, \
                    Flood(peer, [(flow.request(b"x"), bench.to) for flow in flows]):
                wait_until(lambda: returned.count > 500, "traffic flows both ways", seconds=20)
                forbid_cancelling(vesk)
                if stopped_before:
                    assert STOPPED in vesk.lines_after("stop")
                vesk.close_input()
                vesk.wait_exit([0, errno.EAGAIN], seconds=PROMPT_SECONDS)


def test_the_end_closes_no_descriptor_that_a_thread_may_use(start_vesk: StartVesk,
                                                            tmp_path: Path) -> None:
    trace = tmp_path / "trace"
    vesk = start_vesk(prefix=recording_start(trace, "write,close,exit_group")).ready()
    vesk.listen()
    wait_until_asleep(vesk)
    forbid_cancelling(vesk)
    vesk.close_input()
    vesk.wait_exit(errno.EAGAIN)
    after_the_first = trace.read_text().split("Failed pthread_cancel", 1)[1]
    assert "close(" not in after_the_first
    assert f"exit_group({errno.EAGAIN})" in after_the_first
