"""The listener: "start" and "stop"."""

from __future__ import annotations

import re
import signal
from typing import Callable, List

import pytest

from framework.fixtures import StartVesk
from framework.faults import failing_calls
from framework.flow import Flow
from framework.udp import UdpEnd, free_port
from framework.vesk_process import VeskProcess

STOPPED = "info Forwarder listener stopped"


# Attributes -----------------------------------------------------------------------------

@pytest.mark.parametrize("line, complaint", [
    ("start", "missing or empty 'addr' attr"),
    ("start port 4500", "missing or empty 'addr' attr"),
    ("start port x", "missing or empty 'addr' attr"),
    ("start addr 127.0.0.1", "missing or empty 'port' attr"),
    ("start addr 127.0.0.1 port", "missing or empty 'port' attr"),
    ("start addr 127.0.0.1 port 45x", " Bad port value45x"),
    ("start addr 127.0.0.1 port x1", " Bad port valuex1"),
    ("start addr 127.0.0.1 port 0x", " Bad port value0x"),
    ("start addr 127.0.0.1 port 09", " Bad port value09"),
    ("start addr 127.0.0.1 port 99999999999999999999", " Bad port value99999999999999999999"),
])
def test_bad_attributes_are_refused(vesk: VeskProcess, line: str, complaint: str) -> None:
    descriptors = vesk.descriptor_count()
    assert vesk.lines_after(line) == [f"error startForwarder: bad command, {complaint}"]
    assert vesk.descriptor_count() == descriptors


def test_a_start_logs_its_steps(vesk: VeskProcess) -> None:
    port = free_port()
    lines = [line for line in vesk.lines_after(f"start addr 127.0.0.1 port {port}")
             if " sized to " not in line]
    expected = [
        f"info Making downstream endpoint with address 127.0.0.1 port {port}",
        f"info Making socket with family 2 address 127.0.0.1 port {port}",
        rf"info Endpoint socket bound: 127\.0\.0\.1\|{port} \(\d+\)",
        r"info Created downstream receive thread: [0-9a-f]+",
        f"info Vesk started on port {port} address 127.0.0.1"]
    assert len(lines) == len(expected), lines
    for line, pattern in zip(lines, expected):
        assert re.fullmatch(pattern, line), line


def test_the_logged_descriptor_is_the_socket(vesk: VeskProcess) -> None:
    before = vesk.descriptors()
    port = vesk.listen()
    line = vesk.wait_for_log(re.compile(rf"info Endpoint socket bound: .*\|{port} \((\d+)\)"))
    descriptor = int(line.split("(")[1].rstrip(")"))
    new = set(vesk.descriptors()) - set(before)
    assert new == {descriptor} and vesk.descriptors()[descriptor].startswith("socket:")


def test_an_address_with_a_colon_is_ipv6(vesk: VeskProcess) -> None:
    port = vesk.listen("::1")
    assert f"info Making socket with family 10 address ::1 port {port}" in vesk.log_lines()
    assert f"info Vesk started on port {port} address ::1" in vesk.log_lines()


@pytest.mark.parametrize("form", ["{:#x}", "{:#X}", "0{:o}", "+{}", "{}"])
def test_a_port_may_be_written_in_three_bases(vesk: VeskProcess, peer: UdpEnd, upstream: UdpEnd,
                                              form: str) -> None:
    port = free_port()
    lines = vesk.lines_after(f"start addr 127.0.0.1 port {form.format(port)}")
    assert lines[-1] == f"info Vesk started on port {port} address 127.0.0.1"
    assert_serves(vesk, peer, upstream, port)


def test_a_port_above_16_bits_is_truncated(vesk: VeskProcess, peer: UdpEnd,
                                           upstream: UdpEnd) -> None:
    port = free_port()
    lines = vesk.lines_after(f"start addr 127.0.0.1 port {port + 65536}")
    assert lines[-1] == f"info Vesk started on port {port + 65536} address 127.0.0.1"
    assert_serves(vesk, peer, upstream, port)


def assert_serves(vesk: VeskProcess, peer: UdpEnd, upstream: UdpEnd, port: int,
                  host: str = "127.0.0.1") -> None:
    flow = Flow(label=5, upstream=upstream.address)
    vesk.lines_after(flow.set_command())
    peer.send(flow.request(b"ping"), (host, port))
    arrived = upstream.receive()
    assert flow.open_request(arrived.data).payload == b"ping"
    upstream.send(flow.reply(b"pong"), arrived.sender)
    answer = peer.receive()
    assert flow.open_reply(answer.data).payload == b"pong"


# Failures -------------------------------------------------------------------------------

def failed_start(vesk: VeskProcess, address: str, port: int) -> List[str]:
    lines = [line for line in vesk.lines_after(f"start addr {address} port {port}")
             if " sized to " not in line]
    assert lines[0] == f"info Making downstream endpoint with address {address} port {port}"
    # The last line is logged even though nothing was started.
    assert lines[-1] == f"info Vesk started on port {port} address {address}"
    return lines[2:-1]


def test_an_address_in_use_is_reported(vesk: VeskProcess, peer: UdpEnd, upstream: UdpEnd) -> None:
    descriptors = vesk.descriptor_count()
    assert failed_start(vesk, "127.0.0.1", peer.port) == [
        "error Failed bind syscall for endpoint socket: Address already in use"]
    assert vesk.descriptor_count() == descriptors
    assert vesk.lines_after("stop") == []
    assert_serves(vesk, peer, upstream, vesk.listen())


def test_an_address_of_another_host_is_reported(vesk: VeskProcess) -> None:
    assert failed_start(vesk, "192.0.2.1", free_port()) == [
        "error Failed bind syscall for endpoint socket: Cannot assign requested address"]


def test_port_zero_cannot_be_bound(vesk: VeskProcess) -> None:
    """An address without a port is not resolved."""
    assert failed_start(vesk, "127.0.0.1", 0) == [
        "error Failed bind syscall for endpoint socket: Invalid argument"]


def test_a_shortage_of_descriptors_is_reported(vesk: VeskProcess, peer: UdpEnd,
                                               upstream: UdpEnd) -> None:
    vesk.limit_descriptors(spare=0)
    assert failed_start(vesk, "127.0.0.1", free_port()) == [
        "error Failed socket syscall for endpoint: Too many open files"]
    vesk.unlimit_descriptors()
    assert_serves(vesk, peer, upstream, vesk.listen())


def test_a_receive_thread_that_cannot_be_started_is_reported(vesk: VeskProcess, peer: UdpEnd,
                                                             upstream: UdpEnd) -> None:
    since = vesk.mark()
    with failing_calls(vesk, [vesk.pid], "clone3:error=EAGAIN"):
        port = vesk.listen()
    lines = vesk.log_lines(since)
    assert ("error Failed to create downstream receive thread: Resource temporarily unavailable"
            in lines)
    assert f"info Vesk started on port {port} address 127.0.0.1" in lines
    # The endpoint remains. "stop" ends no thread and prints nothing, but closes the socket.
    assert vesk.lines_after("stop") == []
    lines = vesk.lines_after(f"start addr 127.0.0.1 port {port}")
    assert not [line for line in lines if line.startswith("error")]
    assert_serves(vesk, peer, upstream, port)


# The resolver refuses a name with an unknown scope without a query on the network.
UNRESOLVABLE = "fe80::1%nowhere"
RESOLVER_FAILURE = re.compile(
    r"terminate called after throwing an instance of 'std::runtime_error'\n"
    r"  what\(\):  getaddrinfo: fe80::1%nowhere\|(\d+): err -?\d+ errno \d+\n"
    r"(.*AddressSanitizer.*|.*ThreadSanitizer.*)?", re.DOTALL)


def test_an_address_that_cannot_be_resolved_ends_the_process(vesk: VeskProcess) -> None:
    vesk.command(f"start addr {UNRESOLVABLE} port 4500")
    vesk.wait_exit(-signal.SIGABRT, errors=RESOLVER_FAILURE, core_allowed=True)
    assert "|4500: " in vesk.errors().decode()


# Options of the socket ------------------------------------------------------------------

def test_the_listener_sets_the_documented_socket_options(start_vesk: StartVesk) -> None:
    """Two sizes of the receive buffer, no send buffer size, and no port sharing."""
    vesk = start_vesk()
    vesk.settle()
    with failing_calls(vesk, [vesk.pid], "setsockopt:delay_enter=1", "fcntl:delay_enter=1",
                       "getsockopt:delay_enter=1") as trace:
        vesk.listen()
    text = trace.read_text()
    options = re.findall(r"setsockopt\(\d+, (\w+, \w+), \[(\d+)\]", text)
    assert options == [("SOL_SOCKET, SO_RCVBUF", "1048576"), ("SOL_SOCKET, SO_RCVBUF", "524288"),
                       ("SOL_IP, IP_PKTINFO", "1"), ("SOL_UDP, UDP_GRO", "1")]
    assert "O_NONBLOCK" not in text


def test_a_buffer_of_another_size_than_requested_is_logged(vesk: VeskProcess) -> None:
    since = vesk.mark()
    with failing_calls(vesk, [vesk.pid], "getsockopt:poke_exit=@arg4=00000100:when=1"):
        vesk.listen()
    lines = vesk.log_lines(since)
    assert "warn SO_RCVBUF sized to 65536 wanted 1048576" in lines
    assert not [line for line in lines if "wanted 524288" in line and _is_granted(524288)]


def test_a_buffer_of_the_requested_size_is_not_logged(vesk: VeskProcess) -> None:
    if not _is_granted(1048576):
        pytest.skip("net.core.rmem_max of this machine is below the request")
    since = vesk.mark()
    vesk.listen()
    assert not [line for line in vesk.log_lines(since) if "RCVBUF" in line]


def _is_granted(size: int) -> bool:
    with open("/proc/sys/net/core/rmem_max", encoding="ascii") as limit:
        return int(limit.read()) >= size


def test_a_buffer_size_that_cannot_be_set_is_reported(vesk: VeskProcess, peer: UdpEnd,
                                                      upstream: UdpEnd) -> None:
    """The message is written directly to standard output, and the start continues."""
    vesk.lines_after("log priority error")
    since = vesk.mark()
    with failing_calls(vesk, [vesk.pid], "setsockopt:error=ENOMEM:when=1"):
        vesk.command(f"start addr 127.0.0.1 port {free_port()}")
        vesk.settle()
    assert vesk.log_lines(since)[0] == "set SO_RCVBUF failed with error 12"


def test_a_buffer_size_that_cannot_be_read_is_reported(vesk: VeskProcess, peer: UdpEnd,
                                                       upstream: UdpEnd) -> None:
    since = vesk.mark()
    with failing_calls(vesk, [vesk.pid], "getsockopt:error=ENOMEM:when=1"):
        port = vesk.listen()
    assert ("error SO_RCVBUFFailed getsockopt syscall: Cannot allocate memory"
            in vesk.log_lines(since))
    assert_serves(vesk, peer, upstream, port)


# Stop -----------------------------------------------------------------------------------

def test_stop_ends_the_listener_once(vesk: VeskProcess) -> None:
    assert vesk.lines_after("stop") == []
    descriptors = vesk.descriptor_count()
    threads = len(vesk.threads())
    vesk.listen()
    assert len(vesk.threads()) == threads + 1
    assert vesk.lines_after("stop now please") == [STOPPED]
    assert vesk.descriptor_count() == descriptors
    assert len(vesk.threads()) == threads
    assert vesk.lines_after("stop") == []


def test_stop_frees_the_port(vesk: VeskProcess, new_end: Callable[..., UdpEnd]) -> None:
    port = vesk.listen()
    vesk.lines_after("stop")
    new_end("127.0.0.1", port)


def test_start_after_stop_works(vesk: VeskProcess, peer: UdpEnd, upstream: UdpEnd) -> None:
    port = vesk.listen()
    assert_serves(vesk, peer, upstream, port)
    assert vesk.lines_after("stop") == [STOPPED]
    lines = vesk.lines_after(f"start addr 127.0.0.1 port {port}")
    assert not [line for line in lines if line.startswith("error")]
    assert_serves(vesk, peer, upstream, port)


def test_a_flow_remains_after_stop(vesk: VeskProcess, peer: UdpEnd, upstream: UdpEnd) -> None:
    """A reply that arrives without a listener is lost, but the flow remains."""
    port = vesk.listen()
    flow = Flow(label=5, upstream=upstream.address)
    vesk.lines_after(flow.set_command())
    peer.send(flow.request(b"one"), ("127.0.0.1", port))
    arrived = upstream.receive()
    vesk.lines_after("stop")
    since = vesk.mark()
    upstream.send(flow.reply(b"lost"), arrived.sender)
    port = vesk.listen()
    # The flow keeps its socket and the address of its peer.
    upstream.send(flow.reply(b"late"), arrived.sender)
    answer = peer.receive()
    while flow.open_reply(answer.data).payload != b"late":
        answer = peer.receive()
    assert answer.sender == ("127.0.0.1", port)
    assert not [line for line in vesk.log_lines(since) if "Created upstream" in line]


def test_a_second_start_without_a_stop_serves_both_ports(vesk: VeskProcess,
                                                         new_end: Callable[..., UdpEnd],
                                                         upstream: UdpEnd) -> None:
    """Replies are sent from the newer port, and the process ends normally."""
    flow = Flow(label=5, upstream=upstream.address)
    vesk.lines_after(flow.set_command())
    first, second = vesk.listen(), vesk.listen()
    for port in (first, second, first):
        peer = new_end()
        peer.send(flow.request(b"ping"), ("127.0.0.1", port))
        arrived = upstream.receive()
        assert flow.open_request(arrived.data).payload == b"ping"
        upstream.send(flow.reply(b"pong"), arrived.sender)
        answer = peer.receive()
        assert flow.open_reply(answer.data).payload == b"pong"
        assert answer.sender == ("127.0.0.1", second)
    vesk.finish()


def test_a_second_start_on_the_same_port_is_refused(vesk: VeskProcess, upstream: UdpEnd) -> None:
    port = vesk.listen()
    assert failed_start(vesk, "127.0.0.1", port) == [
        "error Failed bind syscall for endpoint socket: Address already in use"]
    vesk.finish()


def test_stop_after_two_starts_ends_both_listeners(vesk: VeskProcess) -> None:
    vesk.listen()
    vesk.listen()
    assert vesk.lines_after("stop") == [STOPPED]
    assert vesk.lines_after("stop") == []
    vesk.finish()
