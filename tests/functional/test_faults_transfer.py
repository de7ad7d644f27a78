"""Failures of receive and send calls: what is logged, and whether the flow keeps its endpoint."""

from __future__ import annotations

import re
from pathlib import Path
from typing import Callable, ContextManager, NamedTuple, Tuple

import pytest

from framework.bench import Bench
from framework.faults import failing_listener, failing_workers
from framework.flow import Flow
from framework.timing import wait_until
from framework.udp import Address
from framework.vesk_process import VeskProcess

FORMS = "label 0x5/5"
KEPT = [("ENOMEM", 12, "Cannot allocate memory"), ("EMSGSIZE", 90, "Message too long"),
        ("ENOBUFS", 105, "No buffer space available"), ("EHOSTUNREACH", 113, "No route to host")]
LOST = [("EPERM", 1, "Operation not permitted"), ("EIO", 5, "Input/output error"),
        ("ENETUNREACH", 101, "Network is unreachable"), ("EINVAL", 22, "Invalid argument")]


class Step(NamedTuple):
    """A call on an upstream endpoint's socket, or with what arrived there, that a test makes fail."""

    #: As the log names it.
    name: str
    call: str
    failing: Callable[..., ContextManager[Path]]
    #: Sends what makes the forwarder reach the step, given the endpoint's own address.
    reach: Callable[[Bench, Flow, Address], None]

    def fail(self, vesk: VeskProcess, error: str) -> ContextManager[Path]:
        return self.failing(vesk, f"{self.call}:error={error}:when=1")

    def complaint(self, number: int, text: str) -> str:
        return f"{self.name}: network error on upstream endpoint of {FORMS}, errno {number} ({text})."


def request(bench: Bench, flow: Flow, _: Address) -> None:
    bench.send(flow.request(b"lost"))


def reply(bench: Bench, flow: Flow, endpoint: Address) -> None:
    bench.upstream.send(flow.reply(b"lost"), endpoint)


SEND_UPSTREAM = Step("DOWN_TO_UP_SEND", "sendmsg", failing_listener, request)
RECEIVE_FROM_UPSTREAM = Step("UP_RECEIVE", "recvmmsg", failing_workers, reply)
SEND_DOWNSTREAM = Step("UP_TO_DOWN_SEND", "sendmsg", failing_workers, reply)
STEPS = [SEND_UPSTREAM, RECEIVE_FROM_UPSTREAM, SEND_DOWNSTREAM]


def each(*steps: Step) -> pytest.MarkDecorator:
    return pytest.mark.parametrize("step", steps, ids=[step.name for step in steps])


# Receiving downstream -------------------------------------------------------------------

def test_a_receive_error_is_reported(bench: Bench) -> None:
    with failing_listener(bench.vesk, "recvmmsg:error=ENOBUFS:when=1"):
        bench.send(b"lost")
        bench.vesk.wait_for_log("error Forwarder downstream endpoint got error while receiving: "
                                "errno = 105 (No buffer space available).")
    bench.nothing_went_upstream()


def test_a_refused_connection_is_not_reported(bench: Bench) -> None:
    since = bench.vesk.mark()
    with failing_listener(bench.vesk, "recvmmsg:error=ECONNREFUSED:when=1..3"):
        bench.nothing_went_upstream()
    assert not [line for line in bench.vesk.remarks(since) if "Created" not in line]


# Receiving from upstream, and sending either way --------------------------------------------

@each(*STEPS)
@pytest.mark.parametrize("error", KEPT, ids=lambda error: error[0])
def test_passing_errors_keep_the_endpoint(bench: Bench, flow: Flow, step: Step,
                                          error: Tuple[str, int, str]) -> None:
    endpoint = bench.exchange(flow)
    with step.fail(bench.vesk, error[0]):
        step.reach(bench, flow, endpoint)
        bench.vesk.wait_for_log(f"warn {step.complaint(*error[1:])}")
    if step is RECEIVE_FROM_UPSTREAM:
        # The socket is read until it is drained, so no datagram is left unread.
        assert flow.open_reply(bench.peer.receive().data).payload == b"lost"
    assert bench.exchange(flow) == endpoint


@each(*STEPS)
@pytest.mark.parametrize("error", LOST, ids=lambda error: error[0])
def test_fatal_errors_delete_the_endpoint(bench: Bench, flow: Flow, step: Step,
                                          error: Tuple[str, int, str]) -> None:
    """The flow stays declared: its next datagram opens a new endpoint."""
    descriptors = bench.vesk.descriptor_count()
    endpoint = bench.exchange(flow)
    with step.fail(bench.vesk, error[0]):
        step.reach(bench, flow, endpoint)
        bench.vesk.wait_for_log(f"error {step.complaint(*error[1:])} Endpoint Deleted")
    bench.vesk.wait_for_descriptor_count(descriptors)
    assert bench.exchange(flow) != endpoint


@each(SEND_UPSTREAM, SEND_DOWNSTREAM)
@pytest.mark.parametrize("name", ["EAGAIN", "ECONNREFUSED"])
def test_some_send_errors_are_not_logged(bench: Bench, flow: Flow, step: Step, name: str) -> None:
    endpoint = bench.exchange(flow)
    since = bench.vesk.mark()
    with step.fail(bench.vesk, name) as trace:
        step.reach(bench, flow, endpoint)
        wait_until(lambda: name in trace.read_text(), "the datagram was refused")
    assert bench.exchange(flow) == endpoint
    assert bench.vesk.remarks(since) == []


def test_a_destination_without_permission_deletes_the_endpoint(bench: Bench) -> None:
    """A broadcast address needs an option that the socket does not set."""
    flow = bench.flow(0x1F, upstream=("127.255.255.255", bench.upstream.port))
    bench.declare(flow)
    descriptors = bench.vesk.descriptor_count()
    bench.send(flow.request(b"x"))
    bench.vesk.wait_for_log("error DOWN_TO_UP_SEND: network error on upstream endpoint of "
                            "label 0x1f/31, errno 13 (Permission denied). Endpoint Deleted")
    bench.vesk.wait_for_descriptor_count(descriptors)


def test_a_short_send_counts_as_an_error(bench: Bench, flow: Flow) -> None:
    bench.exchange(flow)
    with failing_listener(bench.vesk, "sendmsg:retval=3:when=1"):
        bench.send(flow.request(b"lost"))
        bench.vesk.wait_for_log(re.compile(
            r"(warn|error) DOWN_TO_UP_SEND: network error on upstream endpoint of label 0x5/5, "
            r"errno \d+ \(.*\)\.( Endpoint Deleted)?"))
