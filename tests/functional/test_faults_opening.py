"""Failures of each system call that opens a socket or sets it up, and a shortage of descriptors.

The documented message is logged, no descriptor leaks, and the next good datagram is forwarded.
"""

from __future__ import annotations

import re
from typing import List

import pytest

from framework.bench import Bench
from framework.faults import failing_calls, failing_listener
from framework.fixtures import StartVesk
from framework.flow import four_keys
from framework.lateral import LOOPBACK, join, shared_free_port
from framework.udp import UdpEnd, free_port
from framework.vesk_process import VeskProcess

TIME_STAMP = r"\[[-0-9T:.]{23}\]"
CREATED = re.compile(r"info Created (multiplexed )?upstream endpoint: label 0x5/5 .*")


# A flow's socket ------------------------------------------------------------------------

NO_SOCKET = "error createEndpoint: Failed to create endpoint sockets (family 2): -{}"
NOT_RELAYED = [
    ("socket:error=ENFILE", ["error socket: new endpoint socket. Error: Too many open files in "
                             "system", NO_SOCKET.format(23)]),
    ("socket:error=ENOBUFS", ["error socket: new endpoint socket. Error: No buffer space available",
                              NO_SOCKET.format(105)]),
    ("dup:error=EMFILE", [r"error Failed to dup sockfd \d+ Error: Too many open files",
                          NO_SOCKET.format(24)]),
    ("bind:error=EADDRNOTAVAIL", ["error Failed bind syscall for upstream endpoint socket: "
                                  "Cannot assign requested address"]),
]


@pytest.mark.parametrize("injection, complaints", NOT_RELAYED)
def test_a_failed_call_loses_only_its_datagram(bench: Bench, injection: str,
                                               complaints: List[str]) -> None:
    """The next datagram opens the socket."""
    flow = bench.flow(options={"up_src_ip": "127.0.0.1", "up_src_port": free_port()})
    bench.declare(flow)
    bench.nothing_went_upstream()
    descriptors = bench.vesk.descriptor_count()
    since = bench.vesk.mark()
    with failing_listener(bench.vesk, f"{injection}:when=1"):
        bench.send(flow.request(b"lost"))
        bench.nothing_went_upstream()
    bench.vesk.settle()
    said = bench.vesk.remarks(since)
    assert len(said) == len(complaints), said
    for line, complaint in zip(said, complaints):
        assert line == complaint or re.fullmatch(complaint, line), line
    bench.vesk.wait_for_descriptor_count(descriptors)
    bench.exchange(flow)


def option_failed(name: str) -> List[str]:
    return [rf"set {name} failed with error 12"]


RELAYED = [
    ("setsockopt", 1, ["error Failed to set reuse port option on socket: Cannot allocate memory"]),
    ("setsockopt", 2, ["error Failed to set reuse port option on socket: Cannot allocate memory"]),
    ("setsockopt", 3, option_failed("SO_RCVBUF")),
    ("setsockopt", 4, option_failed("SO_SNDBUF")),
    ("setsockopt", 5, [rf"warn  {TIME_STAMP} Vesk_requestLocalDestAddr: IP_PKTINFO failed on "
                       r"socket \d+, errno=12"]),
    ("getsockopt", 1, ["error SO_RCVBUFFailed getsockopt syscall: Cannot allocate memory"]),
    ("getsockopt", 2, ["error SO_SNDBUFFailed getsockopt syscall: Cannot allocate memory"]),
    ("fcntl", 1, []),
    ("fcntl", 2, []),
]


@pytest.mark.parametrize("call, number, complaints", RELAYED)
def test_a_failed_option_loses_no_datagram(bench: Bench, call: str, number: int,
                                           complaints: List[str]) -> None:
    """The datagram that caused the failed call is forwarded, and so are later ones."""
    flow = bench.flow(options={"is_multiplex": "true"})
    bench.declare(flow)
    bench.nothing_went_upstream()
    since = bench.vesk.mark()
    with failing_listener(bench.vesk, f"{call}:error=ENOMEM:when={number}"):
        sender = bench.exchange(flow)
    bench.vesk.settle()
    said = [line for line in bench.vesk.remarks(since) if not CREATED.fullmatch(line)]
    assert len(said) == len(complaints), said
    assert all(re.fullmatch(complaint, line) for line, complaint in zip(said, complaints)), said
    for _ in range(3):
        assert bench.exchange(flow) == sender
    # No thread is blocked in a call that must not wait.
    bench.vesk.close_input()
    bench.vesk.wait_exit(0, seconds=2)


def test_upstream_sockets_have_the_documented_options(bench: Bench) -> None:
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
                       (reading, "SOL_IP, IP_PKTINFO", "1"), (reading, "SOL_UDP, UDP_GRO", "1")]
    assert re.search(rf"fcntl\({reading}, F_SETFL, .*O_NONBLOCK\)", text)
    assert re.search(rf"dup\({reading}\) += {writing}", text)


@pytest.mark.parametrize("call, which", [("socket", "rdsockfd"), ("dup", "wrsockfd")])
def test_a_descriptor_that_is_already_in_the_tables_is_refused(bench: Bench, call: str,
                                                               which: str) -> None:
    """As if the number had been reused without the forwarder's knowledge."""
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


# Listeners ------------------------------------------------------------------------------

NOT_OPENED = [
    ("socket:error=ENFILE",
     "error Failed socket syscall for endpoint: Too many open files in system"),
    ("bind:error=EACCES", "error Failed bind syscall for endpoint socket: Permission denied"),
]


@pytest.mark.parametrize("injection, complaint", NOT_OPENED)
def test_a_listener_that_cannot_be_opened_is_reported(vesk: VeskProcess, peer: UdpEnd,
                                                      upstream: UdpEnd, injection: str,
                                                      complaint: str) -> None:
    descriptors = vesk.descriptor_count()
    port = free_port()
    with failing_calls(vesk, [vesk.pid], f"{injection}:when=1"):
        lines = vesk.lines_after(f"start addr 127.0.0.1 port {port}")
    assert complaint in lines
    assert lines[-1] == f"info Vesk started on port {port} address 127.0.0.1"
    assert vesk.descriptor_count() == descriptors
    bench = Bench(vesk, peer, upstream)
    bench.exchange(bench.control)


@pytest.mark.parametrize("injection, complaint", NOT_OPENED)
def test_a_lateral_listener_that_cannot_be_opened_is_reported(vesk: VeskProcess, injection: str,
                                                              complaint: str) -> None:
    """The command can be repeated."""
    port = shared_free_port([LOOPBACK[0]])
    vesk.lines_after(f"add_lateral_peer idx 1 addr {LOOPBACK[1]}")
    descriptors = vesk.descriptor_count()
    with failing_calls(vesk, [vesk.pid], f"{injection}:when=1"):
        lines = vesk.lines_after(
            f"start_lateral addr {LOOPBACK[0]} port {port} idx 0 max_qels 2")
    assert lines[-2:] == [complaint, "error Vesk Lateral listener failed to start, err: -1"]
    assert vesk.descriptor_count() == descriptors
    join(vesk, 0, {0: LOOPBACK[0], 1: LOOPBACK[1]}, port, 2)


# No descriptors left --------------------------------------------------------------------

def test_a_shortage_of_descriptors_loses_only_the_datagram(bench: Bench) -> None:
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


LIMIT = 64


@pytest.fixture
def scarce(start_vesk: StartVesk, peer: UdpEnd, upstream: UdpEnd) -> Bench:
    """A forwarder that may hold 64 descriptors."""
    vesk = start_vesk(prefix=["prlimit", f"--nofile={LIMIT}:{LIMIT}"]).ready()
    return Bench(vesk, peer, upstream)


def test_flows_without_a_descriptor_are_reported(scarce: Bench) -> None:
    """Flows with a socket continue; the others are reported and work after a "del"."""
    flows = [scarce.flow(label) for label in range(1, LIMIT)]
    scarce.declare(*flows)
    scarce.exchange(scarce.control)
    before = scarce.vesk.descriptor_count()
    since = scarce.vesk.mark()
    for flow in flows:
        scarce.send(flow.request(b"x"))
    served = (LIMIT - before) // 2
    arrived = {scarce.framing.parse(scarce.upstream.receive().data).label
               for _ in range(served)}
    assert arrived == {flow.up_label for flow in flows[:served]}
    scarce.nothing_went_upstream()
    refused = len(flows) - served
    scarce.vesk.settle()
    said = [line for line in scarce.vesk.remarks(since) if line.startswith("error")]
    assert len(said) == 2 * refused
    assert said[1::2] == ["error createEndpoint: Failed to create endpoint sockets (family 2): "
                          "-24"] * refused
    assert all(re.fullmatch(r"error (socket: new endpoint socket\.|Failed to dup sockfd \d+) "
                            r"Error: Too many open files", line) for line in said[::2])
    assert scarce.vesk.descriptor_count() == before + 2 * served
    for flow in flows[:served]:
        scarce.exchange(flow)
    scarce.vesk.lines_after("del label 1")
    scarce.vesk.wait_for_descriptor_count(before + 2 * served - 2)
    scarce.exchange(flows[-1])
