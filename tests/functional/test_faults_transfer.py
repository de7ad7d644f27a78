"""Failures of receive and send calls: what is logged, and whether the flow keeps its endpoint."""

from __future__ import annotations

import re

import pytest

from framework.bench import Bench
from framework.faults import failing_listener, failing_workers
from framework.flow import four_keys
from framework.timing import wait_until

FORMS = "label 0x5/5"
KEPT = [("ENOMEM", 12, "Cannot allocate memory"), ("EMSGSIZE", 90, "Message too long"),
        ("ENOBUFS", 105, "No buffer space available"), ("EHOSTUNREACH", 113, "No route to host")]
LOST = [("EPERM", 1, "Operation not permitted"), ("EIO", 5, "Input/output error"),
        ("ENETUNREACH", 101, "Network is unreachable"), ("EINVAL", 22, "Invalid argument")]


# Receiving downstream -------------------------------------------------------------------

def test_a_receive_error_is_reported(bench: Bench) -> None:
    with failing_listener(bench.vesk, "recvmsg:error=ENOBUFS:when=1"):
        bench.send(b"lost")
        bench.vesk.wait_for_log("error Forwarder downstream endpoint got error while receiving: "
                                "errno = 105 (No buffer space available).")
    bench.nothing_went_upstream()


def test_a_refused_connection_is_not_reported(bench: Bench) -> None:
    since = bench.vesk.mark()
    with failing_listener(bench.vesk, "recvmsg:error=ECONNREFUSED:when=1..3"):
        bench.nothing_went_upstream()
    assert not [line for line in bench.vesk.remarks(since) if "Created" not in line]


# Sending upstream -----------------------------------------------------------------------

@pytest.mark.parametrize("name, number, text", KEPT)
def test_passing_send_errors_keep_the_endpoint(bench: Bench, name: str, number: int,
                                               text: str) -> None:
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    before = bench.exchange(flow)
    with failing_listener(bench.vesk, f"sendmsg:error={name}:when=1"):
        bench.send(flow.request(b"lost"))
        bench.vesk.wait_for_log(f"warn DOWN_TO_UP_SEND: network error on upstream endpoint of "
                                f"{FORMS}, errno {number} ({text}).")
    assert bench.exchange(flow) == before


@pytest.mark.parametrize("name, number, text", LOST)
def test_fatal_send_errors_delete_the_endpoint(bench: Bench, name: str, number: int,
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


def test_a_destination_without_permission_deletes_the_endpoint(bench: Bench) -> None:
    """A broadcast address needs an option that the socket does not set."""
    flow = bench.flow(0x1F, upstream=("127.255.255.255", bench.upstream.port))
    bench.declare(flow)
    descriptors = bench.vesk.descriptor_count()
    bench.send(flow.request(b"x"))
    bench.vesk.wait_for_log("error DOWN_TO_UP_SEND: network error on upstream endpoint of "
                            "label 0x1f/31, errno 13 (Permission denied). Endpoint Deleted")
    bench.vesk.wait_for_descriptor_count(descriptors)


@pytest.mark.parametrize("name", ["EAGAIN", "ECONNREFUSED"])
def test_some_send_errors_are_not_logged(bench: Bench, name: str) -> None:
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
def test_passing_receive_errors_keep_the_endpoint(bench: Bench, name: str, number: int,
                                                  text: str) -> None:
    """The socket is read until it is drained, so no datagram is left unread."""
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    sender = bench.exchange(flow)
    with failing_workers(bench.vesk, f"recvmsg:error={name}:when=1"):
        bench.answer(flow, sender, b"in spite of it")
        bench.vesk.wait_for_log(f"warn UP_RECEIVE: network error on upstream endpoint of "
                                f"{FORMS}, errno {number} ({text}).")
    assert bench.exchange(flow) == sender


@pytest.mark.parametrize("name, number, text", LOST)
def test_fatal_receive_errors_delete_the_endpoint(bench: Bench, name: str, number: int,
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


# Sending downstream ---------------------------------------------------------------------

@pytest.mark.parametrize("name, number, text", KEPT)
def test_passing_reply_errors_keep_the_endpoint(bench: Bench, name: str, number: int,
                                                text: str) -> None:
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    sender = bench.exchange(flow)
    with failing_workers(bench.vesk, f"sendmsg:error={name}:when=1"):
        bench.upstream.send(flow.reply(b"lost"), sender)
        bench.vesk.wait_for_log(f"warn UP_TO_DOWN_SEND: network error on upstream endpoint of "
                                f"{FORMS}, errno {number} ({text}).")
    assert bench.exchange(flow) == sender


@pytest.mark.parametrize("name, number, text", LOST)
def test_fatal_reply_errors_delete_the_endpoint(bench: Bench, name: str, number: int,
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
def test_some_reply_errors_are_not_logged(bench: Bench, name: str) -> None:
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    sender = bench.exchange(flow)
    since = bench.vesk.mark()
    with failing_workers(bench.vesk, f"sendmsg:error={name}:when=1") as trace:
        bench.upstream.send(flow.reply(b"lost"), sender)
        wait_until(lambda: name in trace.read_text(), "the reply was refused")
    assert bench.exchange(flow) == sender
    assert bench.vesk.remarks(since) == []
