"""What the datapath says and does when the kernel refuses."""

from __future__ import annotations

import re
from typing import Callable

import pytest

from framework.bench import Bench
from framework.faults import (failing_calls, failing_listener, failing_poll_thread,
                              failing_workers, faulty_start)
from framework.flow import Flow, four_keys
from framework.statistics import wait_for_report
from framework.timing import wait_until
from framework.udp import UdpEnd

FORMS = "label 0x5/5"


# Receiving downstream -------------------------------------------------------------------

def test_an_error_while_receiving_is_reported(bench: Bench) -> None:
    with failing_listener(bench.vesk, "recvmsg:error=ENOBUFS:when=1"):
        bench.send(b"lost")
        bench.vesk.wait_for_log("error Forwarder downstream endpoint got error while receiving: "
                                "errno = 105 (No buffer space available).")
    bench.nothing_went_upstream()


def test_a_refused_connection_while_receiving_is_not(bench: Bench) -> None:
    since = bench.vesk.mark()
    with failing_listener(bench.vesk, "recvmsg:error=ECONNREFUSED:when=1..3"):
        bench.nothing_went_upstream()
    assert not [line for line in bench.vesk.remarks(since) if "Created" not in line]


# Opening the upstream endpoint ----------------------------------------------------------

def test_no_descriptor_for_the_socket(bench: Bench) -> None:
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    bench.nothing_went_upstream()
    bench.vesk.lines_after("log priority debug")
    descriptors = bench.vesk.descriptor_count()
    bench.vesk.limit_descriptors(spare=0)
    since = bench.vesk.mark()
    bench.send(flow.request(b"x"))
    bench.vesk.wait_for_log("debug Failed to create upstream endpoint with label 5", since)
    assert [line for line in bench.vesk.log_lines(since) if line.startswith("error")] == [
        "error socket: new endpoint socket. Error: Too many open files",
        "error createEndpoint: Failed to create endpoint sockets (family 2): -24"]
    assert bench.vesk.descriptor_count() == descriptors
    bench.vesk.unlimit_descriptors()
    bench.exchange(flow)


def test_no_descriptor_for_the_second_number_of_the_socket(bench: Bench) -> None:
    flow = bench.flow()
    bench.declare(flow)
    bench.nothing_went_upstream()
    descriptors = bench.vesk.descriptor_count()
    bench.vesk.limit_descriptors(spare=1)
    since = bench.vesk.mark()
    bench.send(flow.request(b"x"))
    bench.vesk.wait_for_log(re.compile(
        r"error Failed to dup sockfd \d+ Error: Too many open files"), since)
    bench.vesk.wait_for_log(
        "error createEndpoint: Failed to create endpoint sockets (family 2): -24", since)
    bench.vesk.wait_for_descriptor_count(descriptors)
    bench.vesk.unlimit_descriptors()
    bench.exchange(flow)


def test_options_that_cannot_be_set_do_not_stop_a_flow(bench: Bench) -> None:
    flow = bench.flow(options={"is_multiplex": "true"}, **four_keys())
    bench.declare(flow)
    since = bench.vesk.mark()
    with failing_listener(bench.vesk, "setsockopt:error=ENOPROTOOPT"):
        bench.exchange(flow)
    bench.vesk.settle()
    lines = [line for line in bench.vesk.remarks(since) if "Created" not in line]
    assert lines[:4] == ["error Failed to set reuse port option on socket: Protocol not available",
                         "error Failed to set reuse port option on socket: Protocol not available",
                         "set SO_RCVBUF failed with error 92",
                         "set SO_SNDBUF failed with error 92"]
    assert re.fullmatch(r"warn  \[.{23}\] Vesk_requestLocalDestAddr: "
                        r"IP_PKTINFO failed on socket \d+, errno=92", lines[4])
    assert len(lines) == 5


def test_what_is_asked_of_an_upstream_socket(bench: Bench) -> None:
    flow = bench.flow(options={"is_multiplex": "true"})
    bench.declare(flow)
    with failing_listener(bench.vesk, "setsockopt:delay_enter=1",
                       "fcntl:delay_enter=1", "dup:delay_enter=1") as trace:
        bench.exchange(flow)
    text = trace.read_text()
    options = re.findall(r"setsockopt\((\d+), (\w+, \w+), \[(\d+)\]", text)
    reading, writing = bench.vesk.wait_for_log(re.compile(
        r"info Created multiplexed upstream endpoint: label 0x5/5 .*")).split()[-2:]
    assert options == [(reading, "SOL_SOCKET, SO_REUSEPORT", "1"),
                       (writing, "SOL_SOCKET, SO_REUSEPORT", "1"),
                       (reading, "SOL_SOCKET, SO_RCVBUF", "524288"),
                       (writing, "SOL_SOCKET, SO_SNDBUF", "262144"),
                       (reading, "SOL_IP, IP_PKTINFO", "1")]
    assert re.search(rf"fcntl\({reading}, F_SETFL, .*O_NONBLOCK\)", text)
    assert re.search(rf"dup\({reading}\) += {writing}", text)


def test_a_socket_that_cannot_be_watched_is_given_back(bench: Bench) -> None:
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


def test_a_socket_that_cannot_be_taken_back_is_closed_anyway(bench: Bench) -> None:
    """Both lines carry the same number: the write descriptor's."""
    flow = bench.flow()
    bench.declare(flow)
    descriptors = bench.vesk.descriptor_count()
    bench.exchange(flow)
    writing = bench.vesk.wait_for_log(
        re.compile(r"info Created upstream endpoint: label 0x5/5 .*")).split()[-1]
    # Until its socket is armed again a worker holds the endpoint, and would be the one to let it go.
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


@pytest.mark.parametrize("call, which", [("socket", "rdsockfd"), ("dup", "wrsockfd")])
def test_a_descriptor_that_is_filed_already_is_refused(bench: Bench, call: str,
                                                       which: str) -> None:
    """As after a number was reused behind the forwarder's back."""
    first, second = bench.flow(5), bench.flow(6)
    bench.declare(first, second)
    bench.exchange(first)
    filed = bench.vesk.wait_for_log(
        re.compile(r"info Created upstream endpoint: label 0x5/5 .*")).split()[-2]
    since = bench.vesk.mark()
    with failing_listener(bench.vesk, f"{call}:retval={filed}:when=1"):
        bench.send(second.request(b"x"))
        bench.vesk.wait_for_log(f"error Endpoint exists for {which}", since)
        bench.vesk.wait_for_log(
            "error createEndpoint: Failed to add new endpoint to collection: -1", since)
    bench.vesk.finish()


# Sending upstream -----------------------------------------------------------------------

KEPT = [("ENOMEM", 12, "Cannot allocate memory"), ("EMSGSIZE", 90, "Message too long"),
        ("ENOBUFS", 105, "No buffer space available"), ("EHOSTUNREACH", 113, "No route to host")]
LOST = [("EPERM", 1, "Operation not permitted"), ("EIO", 5, "Input/output error"),
        ("ENETUNREACH", 101, "Network is unreachable"), ("EINVAL", 22, "Invalid argument")]


@pytest.mark.parametrize("name, number, text", KEPT)
def test_send_errors_that_pass(bench: Bench, name: str, number: int, text: str) -> None:
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    before = bench.exchange(flow)
    with failing_listener(bench.vesk, f"sendmsg:error={name}:when=1"):
        bench.send(flow.request(b"lost"))
        bench.vesk.wait_for_log(f"warn DOWN_TO_UP_SEND: network error on upstream endpoint of "
                                f"{FORMS}, errno {number} ({text}).")
    assert bench.exchange(flow) == before


@pytest.mark.parametrize("name, number, text", LOST)
def test_send_errors_that_end_the_endpoint(bench: Bench, name: str, number: int,
                                           text: str) -> None:
    """The flow stays declared: its next datagram opens a new endpoint."""
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    descriptors = bench.vesk.descriptor_count()
    before = bench.exchange(flow)
    with failing_listener(bench.vesk, f"sendmsg:error={name}:when=1"):
        bench.send(flow.request(b"lost"))
        bench.vesk.wait_for_log(f"error DOWN_TO_UP_SEND: network error on upstream endpoint of "
                                f"{FORMS}, errno {number} ({text}). Endpoint Deleted")
    bench.vesk.wait_for_descriptor_count(descriptors)
    assert bench.exchange(flow) != before


def test_an_address_that_may_not_be_sent_to(bench: Bench) -> None:
    """A broadcast address needs a permission that the socket does not ask for."""
    flow = bench.flow(0x1F, upstream=("127.255.255.255", bench.upstream.port))
    bench.declare(flow)
    descriptors = bench.vesk.descriptor_count()
    bench.send(flow.request(b"x"))
    bench.vesk.wait_for_log("error DOWN_TO_UP_SEND: network error on upstream endpoint of "
                            "label 0x1f/31, errno 13 (Permission denied). Endpoint Deleted")
    bench.vesk.wait_for_descriptor_count(descriptors)


@pytest.mark.parametrize("name", ["EAGAIN", "ECONNREFUSED"])
def test_send_errors_that_are_not_worth_a_word(bench: Bench, name: str) -> None:
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    before = bench.exchange(flow)
    since = bench.vesk.mark()
    with failing_listener(bench.vesk, f"sendmsg:error={name}:when=1"):
        bench.send(flow.request(b"lost"))
        assert bench.exchange(flow) == before
    assert bench.vesk.remarks(since) == []


def test_a_short_send_counts_as_an_error(bench: Bench) -> None:
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    bench.exchange(flow)
    with failing_listener(bench.vesk, "sendmsg:retval=3:when=1"):
        bench.send(flow.request(b"lost"))
        bench.vesk.wait_for_log(re.compile(
            r"(warn|error) DOWN_TO_UP_SEND: network error on upstream endpoint of label 0x5/5, "
            r"errno \d+ \(.*\)\.( Endpoint Deleted)?"))


# Receiving from upstream ----------------------------------------------------------------

@pytest.mark.parametrize("name, number, text", KEPT)
def test_receive_errors_that_pass(bench: Bench, name: str, number: int, text: str) -> None:
    """The socket is read on until it is drained: nothing that arrived is left lying."""
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    sender = bench.exchange(flow)
    with failing_workers(bench.vesk, f"recvmsg:error={name}:when=1"):
        bench.answer(flow, sender, b"in spite of it")
        bench.vesk.wait_for_log(f"warn UP_RECEIVE: network error on upstream endpoint of "
                                f"{FORMS}, errno {number} ({text}).")
    assert bench.exchange(flow) == sender


@pytest.mark.parametrize("name, number, text", LOST)
def test_receive_errors_that_end_the_endpoint(bench: Bench, name: str, number: int,
                                              text: str) -> None:
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    descriptors = bench.vesk.descriptor_count()
    sender = bench.exchange(flow)
    with failing_workers(bench.vesk, f"recvmsg:error={name}:when=1"):
        bench.upstream.send(flow.reply(b"lost"), sender)
        bench.vesk.wait_for_log(f"error UP_RECEIVE: network error on upstream endpoint of "
                                f"{FORMS}, errno {number} ({text}). Endpoint Deleted")
    bench.vesk.wait_for_descriptor_count(descriptors)
    assert bench.exchange(flow) != sender


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


# Sending downstream ---------------------------------------------------------------------

@pytest.mark.parametrize("name, number, text", KEPT)
def test_reply_errors_that_pass(bench: Bench, name: str, number: int, text: str) -> None:
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    sender = bench.exchange(flow)
    with failing_workers(bench.vesk, f"sendmsg:error={name}:when=1"):
        bench.upstream.send(flow.reply(b"lost"), sender)
        bench.vesk.wait_for_log(f"warn UP_TO_DOWN_SEND: network error on upstream endpoint of "
                                f"{FORMS}, errno {number} ({text}).")
    assert bench.exchange(flow) == sender


@pytest.mark.parametrize("name, number, text", LOST)
def test_reply_errors_that_end_the_endpoint(bench: Bench, name: str, number: int,
                                            text: str) -> None:
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    sender = bench.exchange(flow)
    with failing_workers(bench.vesk, f"sendmsg:error={name}:when=1"):
        bench.upstream.send(flow.reply(b"lost"), sender)
        bench.vesk.wait_for_log(f"error UP_TO_DOWN_SEND: network error on upstream endpoint of "
                                f"{FORMS}, errno {number} ({text}). Endpoint Deleted")
    assert bench.exchange(flow) != sender


@pytest.mark.parametrize("name", ["EAGAIN", "ECONNREFUSED"])
def test_reply_errors_that_are_not_worth_a_word(bench: Bench, name: str) -> None:
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    sender = bench.exchange(flow)
    since = bench.vesk.mark()
    with failing_workers(bench.vesk, f"sendmsg:error={name}:when=1") as trace:
        bench.upstream.send(flow.reply(b"lost"), sender)
        wait_until(lambda: name in trace.read_text(), "the reply was refused")
    assert bench.exchange(flow) == sender
    assert bench.vesk.remarks(since) == []


# The poll thread ------------------------------------------------------------------------

# The library may wait by either call.
WAITS_INTERRUPTED = ["epoll_wait:error=EINTR:when=1..3", "epoll_pwait:error=EINTR:when=1..3"]
WAIT_FAILED = ["epoll_wait:error=EBADF:when=1", "epoll_pwait:error=EBADF:when=1"]


def test_a_watch_that_the_kernel_refuses(bench: Bench) -> None:
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


@pytest.mark.parametrize("length", [0, 12, 15])
def test_a_short_record_on_the_channel(bench: Bench, length: int) -> None:
    flow, other = bench.flow(5), bench.flow(6)
    bench.declare(flow, other)
    with failing_poll_thread(bench.vesk, f"recvfrom:retval={length}:when=1"):
        bench.ask(flow)
        bench.vesk.wait_for_log("error recv: msgchanfd: short read on a datagram socket!")
    lines = bench.vesk.log_lines()
    place = lines.index("error recv: msgchanfd: short read on a datagram socket!")
    assert lines[place + 1] == ""
    bench.exchange(other)


def test_a_record_that_cannot_be_read(bench: Bench) -> None:
    """The channel stays readable, so the record is read the next time."""
    flow = bench.flow(5)
    bench.declare(flow)
    with failing_poll_thread(bench.vesk, "recvfrom:error=ENOMEM:when=1"):
        bench.ask(flow)
        bench.vesk.wait_for_log("error recv: msgchanfd")
    bench.exchange(flow)


def test_an_interrupted_wait_is_resumed(bench: Bench) -> None:
    flow = bench.flow(5)
    bench.declare(flow)
    since = bench.vesk.mark()
    with failing_poll_thread(bench.vesk, *WAITS_INTERRUPTED):
        bench.exchange(flow)
    assert not [line for line in bench.vesk.remarks(since) if "Created" not in line]


def test_a_wait_that_fails_ends_the_poll_thread(bench: Bench) -> None:
    """Flows that have a socket then go one way only; the process still ends well."""
    threads = len(bench.vesk.threads())
    with failing_poll_thread(bench.vesk, *WAIT_FAILED):
        # Something for it to wake up for.
        bench.nothing_went_upstream()
        bench.vesk.wait_for_log("error Failed epoll_wait: Bad file descriptor")
        wait_until(lambda: len(bench.vesk.threads()) == threads - 1, "the poll thread ended")
    bench.nothing_went_upstream()
    bench.vesk.finish()


def test_hundreds_of_deletions_with_nobody_to_read_them(
        bench: Bench, new_end: Callable[..., UdpEnd]) -> None:
    """The channel holds about ten records; with the poll thread gone, the end must not hang."""
    flows = [bench.flow(label) for label in range(1, 201)]
    bench.declare(*flows)
    for flow in flows:
        bench.ask(flow)
    with failing_poll_thread(bench.vesk, *WAIT_FAILED):
        bench.vesk.command("del label 1")
        bench.vesk.wait_for_log("error Failed epoll_wait: Bad file descriptor")
    bench.vesk.close_input()
    bench.vesk.wait_exit(0, seconds=2)


def test_a_channel_that_cannot_be_watched(start_vesk, tmp_path) -> None:
    vesk = start_vesk(prefix=faulty_start(tmp_path / "trace", "epoll_ctl:error=ENOMEM:when=1"))
    vesk.wait_for_log("error Failed to add msgchanfd to epoll set: Cannot allocate memory")
    vesk.finish()
