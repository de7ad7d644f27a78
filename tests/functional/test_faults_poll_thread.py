"""Failures of the message channel and of the poll thread: sending a record, watching, waiting."""

from __future__ import annotations

import re
from pathlib import Path
from typing import Callable, List

import pytest

from framework.bench import Bench
from framework.faults import (failing_calls, failing_listener, failing_poll_thread,
                              failing_workers, faulty_start)
from framework.fixtures import StartVesk
from framework.flow import four_keys
from framework.statistics import wait_for_report
from framework.timing import wait_until
from framework.udp import UdpEnd

FORMS = "label 0x5/5"
CREATED = re.compile(r"info Created upstream endpoint: label 0x5/5 .*")


# Sending a record -----------------------------------------------------------------------

def test_a_socket_that_cannot_be_added_to_the_poll_loop_is_closed(bench: Bench) -> None:
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    descriptors = bench.vesk.descriptor_count()
    since = bench.vesk.mark()
    with failing_listener(bench.vesk, "sendto:error=ENOBUFS:when=1"):
        bench.send(flow.request(b"lost"))
        bench.vesk.wait_for_log("error pollLoop_add_fdError writing a control message to poll "
                                "socket: bytes: -1 Error: No buffer space available", since)
        bench.vesk.wait_for_log(re.compile(
            r"error Failed to add upstream endpoint's READ sockfd \d+ to pollLoop, error: -105"),
            since)
    bench.vesk.wait_for_descriptor_count(descriptors)
    bench.exchange(flow)


def test_a_socket_whose_deletion_cannot_be_sent_is_closed(bench: Bench) -> None:
    """Both lines contain the number of the write descriptor."""
    flow = bench.flow()
    bench.declare(flow)
    descriptors = bench.vesk.descriptor_count()
    bench.exchange(flow)
    writing = bench.vesk.wait_for_log(
        re.compile(r"info Created upstream endpoint: label 0x5/5 .*")).split()[-1]
    # Until the socket is armed again, a worker holds the endpoint and would be the one to close it.
    wait_for_report(bench.vesk, lambda current: current.poll["ActiveEvtNr"] == 1)
    since = bench.vesk.mark()
    with failing_calls(bench.vesk, [bench.vesk.pid], "sendto:error=ENOBUFS:when=1..2"):
        bench.vesk.lines_after("del label 5")
    lines = bench.vesk.remarks(since)
    channel_full = ("error pollLoop_del_fdError writing a control message to poll socket: "
                    "bytes: -1 Error: No buffer space available")
    assert lines == [
        channel_full,
        f"error endpointSocketDestructor: Failed to del wrsockfd {writing} "
        "error: No buffer space available",
        channel_full,
        f"error endpointSocketDestructor: Failed to del rdsockfd {writing} "
        "error: No buffer space available"]
    bench.vesk.wait_for_descriptor_count(descriptors)


def test_a_socket_that_cannot_be_armed_again_is_reported(bench: Bench) -> None:
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    sender = bench.exchange(flow)
    since = bench.vesk.mark()
    with failing_workers(bench.vesk, "sendto:error=EIO:when=1"):
        bench.answer(flow, sender)
        bench.vesk.wait_for_log("error pollLoop_mod_fdError writing a control message to poll "
                                "socket: bytes: -1 Error: Input/output error", since)
        bench.vesk.wait_for_log("error Re-add UpEpt recv sockfd to poll set: network error on "
                                f"upstream endpoint of {FORMS}, errno 5 (Input/output error). "
                                "Endpoint Deleted", since)
    bench.exchange(flow)


# Executing a record ---------------------------------------------------------------------

def descriptor_of(bench: Bench) -> str:
    return bench.vesk.wait_for_log(CREATED).split()[-2]


def test_a_failed_epoll_addition_is_reported(bench: Bench) -> None:
    flow = bench.flow()
    bench.declare(flow)
    bench.nothing_went_upstream()
    with failing_poll_thread(bench.vesk, "epoll_ctl:error=ENOSPC:when=1"):
        bench.ask(flow)
        descriptor = bench.vesk.wait_for_log(
            re.compile(r"info Created upstream endpoint: label 0x5/5 .*")).split()[-2]
        bench.vesk.wait_for_log(f"error epoll_ctl error: msgchanfd ctl_op 1 fd {descriptor} "
                                "errno 28 (No space left on device)")
    # A new endpoint is watched again.
    bench.vesk.lines_after("del label 5")
    bench.declare(flow)
    bench.exchange(flow)


def test_a_failed_epoll_change_is_reported(bench: Bench) -> None:
    """The flow gets no replies until a new socket is opened."""
    flow, other = bench.flow(5), bench.flow(6)
    bench.declare(flow, other)
    sender = bench.exchange(flow)
    with failing_poll_thread(bench.vesk, "epoll_ctl:error=ENOMEM:when=1"):
        bench.answer(flow, sender)
        bench.vesk.wait_for_log(f"error epoll_ctl error: msgchanfd ctl_op 3 fd "
                                f"{descriptor_of(bench)} errno 12 (Cannot allocate memory)")
    bench.exchange(other)
    bench.declare(flow)
    bench.exchange(flow)


def test_a_failed_epoll_deletion_is_reported(bench: Bench) -> None:
    """The descriptor stays open, because it may still be in the set."""
    flow = bench.flow(5)
    bench.declare(flow)
    descriptors = bench.vesk.descriptor_count()
    bench.exchange(flow)
    with failing_poll_thread(bench.vesk, "epoll_ctl:error=ENOMEM:when=2"):
        bench.vesk.lines_after("del label 5")
        bench.vesk.wait_for_log(f"error epoll_ctl error: msgchanfd ctl_op 2 fd "
                                f"{descriptor_of(bench)} errno 12 (Cannot allocate memory)")
    bench.vesk.wait_for_descriptor_count(descriptors + 1)
    bench.declare(flow)
    bench.exchange(flow)


@pytest.mark.parametrize("length", [0, 12, 15])
def test_a_short_record_is_reported(bench: Bench, length: int) -> None:
    flow, other = bench.flow(5), bench.flow(6)
    bench.declare(flow, other)
    with failing_poll_thread(bench.vesk, f"recvfrom:retval={length}:when=1"):
        bench.ask(flow)
        bench.vesk.wait_for_log("error recv: msgchanfd: short read on a datagram socket!")
    lines = bench.vesk.log_lines()
    place = lines.index("error recv: msgchanfd: short read on a datagram socket!")
    assert lines[place + 1] == ""
    bench.exchange(other)


def test_a_failed_read_of_the_channel_is_reported(bench: Bench) -> None:
    """The channel remains readable, so the record is read the next time."""
    flow = bench.flow(5)
    bench.declare(flow)
    with failing_poll_thread(bench.vesk, "recvfrom:error=ENOMEM:when=1"):
        bench.ask(flow)
        bench.vesk.wait_for_log("error recv: msgchanfd")
    bench.exchange(flow)


# Waiting --------------------------------------------------------------------------------

# The C library may use either call.
WAITS_INTERRUPTED = ["epoll_wait:error=EINTR:when=1..3", "epoll_pwait:error=EINTR:when=1..3"]
WAIT_FAILED = ["epoll_wait:error=EBADF:when=1", "epoll_pwait:error=EBADF:when=1"]


def test_an_interrupted_wait_is_resumed(bench: Bench) -> None:
    flow = bench.flow(5)
    bench.declare(flow)
    since = bench.vesk.mark()
    with failing_poll_thread(bench.vesk, *WAITS_INTERRUPTED):
        bench.exchange(flow)
    assert not [line for line in bench.vesk.remarks(since) if "Created" not in line]


def test_a_failed_wait_ends_the_poll_thread(bench: Bench) -> None:
    """Flows with a socket then forward in one direction only; the process ends normally."""
    threads = len(bench.vesk.threads())
    sender = bench.ask(bench.control).sender
    with failing_poll_thread(bench.vesk, *WAIT_FAILED):
        # A reply that ends the current wait, unless the tracer has interrupted it.
        bench.upstream.send(bench.control.reply(b"not read"), sender)
        bench.vesk.wait_for_log("error Failed epoll_wait: Bad file descriptor")
        wait_until(lambda: len(bench.vesk.threads()) == threads - 1, "the poll thread has ended")
    bench.nothing_went_upstream()
    bench.vesk.finish()


def test_the_process_ends_while_hundreds_of_deletions_are_unread(
        bench: Bench, new_end: Callable[..., UdpEnd]) -> None:
    """Without the poll thread no thread reads the channel, but the process still ends."""
    flows = [bench.flow(label) for label in range(1, 201)]
    bench.declare(*flows)
    for flow in flows:
        bench.ask(flow)
    with failing_poll_thread(bench.vesk, *WAIT_FAILED):
        bench.vesk.command("del label 1")
        bench.vesk.wait_for_log("error Failed epoll_wait: Bad file descriptor")
    bench.vesk.close_input()
    bench.vesk.wait_exit(0, seconds=2)


# Starting -------------------------------------------------------------------------------

@pytest.mark.parametrize("injections, reason", [
    (["epoll_ctl:error=ENOMEM:when=1"], "Cannot allocate memory"),
    (["epoll_create:error=EMFILE", "epoll_create1:error=EMFILE"], "Too many open files"),
])
def test_a_channel_that_cannot_be_watched_is_reported(start_vesk: StartVesk, tmp_path: Path,
                                                      injections: List[str], reason: str) -> None:
    vesk = start_vesk(prefix=faulty_start(tmp_path / "trace", *injections))
    vesk.wait_for_log(f"error Failed to add msgchanfd to epoll set: {reason}")
    vesk.settle()
    vesk.finish()
