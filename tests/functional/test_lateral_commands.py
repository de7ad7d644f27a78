"""The commands that join forwarders: "add_lateral_peer" and "start_lateral"."""

from __future__ import annotations

import re
import signal
from typing import List

import pytest

from framework.faults import failing_calls
from framework.udp import UdpEnd, free_port
from framework.vesk_process import VeskProcess

PEER = "add_lateral_peer idx 1 addr 127.0.0.2"
NOT_A_LINK = "fe80::1%nowhere"


def added(index: int, address: str) -> str:
    return f"info Added lateral stream peer: idx {index} addr {address}"


def remarks_after(vesk: VeskProcess, *commands: str) -> List[str]:
    return [line for line in vesk.lines_after(*commands) if " sized to " not in line]


# Peers ----------------------------------------------------------------------------------

@pytest.mark.parametrize("line, complaint", [
    ("", "missing or empty 'idx' attr"),
    ("addr 127.0.0.2", "missing or empty 'idx' attr"),
    ("idx", "missing or empty 'idx' attr"),
    ("idx two", "Bad lateral index valuetwo"),
    ("idx two addr 127.0.0.2", "Bad lateral index valuetwo"),
    ("idx 1x addr 127.0.0.2", "Bad lateral index value1x"),
    ("idx 4294967296 addr 127.0.0.2", "Bad lateral index value4294967296"),
    ("idx 99999999999999999999 addr 127.0.0.2", "Bad lateral index value99999999999999999999"),
    ("idx 1", "missing or empty 'addr' attr"),
    ("idx 1 addr", "missing or empty 'addr' attr"),
])
def test_bad_peers_are_refused(vesk: VeskProcess, line: str, complaint: str) -> None:
    assert vesk.lines_after(f"add_lateral_peer {line}") == [
        f"error addLateralPeer: bad command, {complaint}"]


@pytest.mark.parametrize("written, index", [("0", 0), ("1", 1), ("0x10", 16), ("010", 8),
                                            ("4294967295", 4294967295)])
@pytest.mark.parametrize("address", ["127.0.0.2", "::1"])
def test_valid_peers_are_added(vesk: VeskProcess, written: str, index: int, address: str) -> None:
    assert vesk.lines_after(f"add_lateral_peer idx {written} addr {address}") == [
        added(index, address)]


def test_a_peer_is_replaced(vesk: VeskProcess) -> None:
    assert vesk.lines_after("add_lateral_peer idx 2 addr 127.0.0.2",
                            "add_lateral_peer idx 2 addr 127.0.0.3") == [
        added(2, "127.0.0.2"), added(2, "127.0.0.3")]


def test_a_peer_that_cannot_be_resolved_ends_the_process(vesk: VeskProcess) -> None:
    vesk.command(f"add_lateral_peer idx 1 addr {NOT_A_LINK}")
    vesk.wait_exit(-signal.SIGABRT, core_allowed=True, errors=re.compile(
        r"terminate called after throwing an instance of 'std::runtime_error'\n"
        rf"  what\(\):  getaddrinfo: {re.escape(NOT_A_LINK)}\|8445: err -?\d+ errno \d+\n"
        r"(.*Sanitizer.*)?", re.DOTALL))


# Start ----------------------------------------------------------------------------------

@pytest.mark.parametrize("line, complaint", [
    ("", "missing or empty 'addr' attr"),
    ("port 1 idx 0 max_qels 2", "missing or empty 'addr' attr"),
    ("addr 127.0.0.1", "missing or empty 'port' attr"),
    ("addr 127.0.0.1 port x idx y max_qels z", " Bad lateral port valuex"),
    ("addr 127.0.0.1 port 1 max_qels z", "missing or empty 'idx' attr"),
    ("addr 127.0.0.1 port 1 idx y max_qels z", "Bad lateral index valuey"),
    ("addr 127.0.0.1 port 1 idx 4294967296 max_qels 2", "Bad lateral index value4294967296"),
    ("addr 127.0.0.1 port 1 idx 0", "missing or empty 'max_qels' attr"),
    ("addr 127.0.0.1 port 1 idx 0 max_qels z", "Bad lateral Max Qels valuez"),
    ("addr 127.0.0.1 port 1 idx 0 max_qels 4294967296", "Bad lateral Max Qels value4294967296"),
    (f"addr {NOT_A_LINK} port 1 idx 0 max_qels 2", "Invalid lateral address and/or port "),
    # The address is checked before the index.
    (f"addr {NOT_A_LINK} port 1", "Invalid lateral address and/or port "),
])
def test_a_bad_start_is_refused(vesk: VeskProcess, line: str, complaint: str) -> None:
    vesk.lines_after(PEER)
    descriptors = vesk.descriptor_count()
    assert vesk.lines_after(f"start_lateral {line}") == [
        f"error startLateralStream: bad command, {complaint}"]
    assert vesk.descriptor_count() == descriptors


@pytest.mark.parametrize("line", ["", "addr 127.0.0.1 port x", "nonsense"])
def test_without_peers_no_attribute_is_checked(vesk: VeskProcess, line: str) -> None:
    assert vesk.lines_after(f"start_lateral {line}") == [
        "error startLateralStream: bad command, no peers configured"]


def test_a_start_logs_its_steps(vesk: VeskProcess) -> None:
    port = free_port()
    lines = remarks_after(vesk, PEER,
                          f"start_lateral addr 127.0.0.1 port {port:#x} idx 0 max_qels 0x2")
    expected = [
        re.escape(added(1, "127.0.0.2")),
        f"info Making lateral stream endpoint with address 127.0.0.1 port {port}",
        f"info Making socket with family 2 address 127.0.0.1 port {port}",
        rf"info Endpoint socket bound: 127\.0\.0\.1\|{port} \(\d+\)",
        r"info Created lateral stream receive thread: [0-9a-f]+",
        f"info Vesk Lateral listener started on port {port} address 127.0.0.1 index 0 maxQels 2"]
    assert len(lines) == len(expected), lines
    for line, pattern in zip(lines, expected):
        assert re.fullmatch(pattern, line), line


def start_command(port: int) -> str:
    return f"start_lateral addr 127.0.0.1 port {port} idx 0 max_qels 2"


def test_a_second_start_is_refused(vesk: VeskProcess) -> None:
    vesk.lines_after(PEER, start_command(free_port()))
    already = ["error startLateralStream: bad command, already started"]
    assert vesk.lines_after(start_command(free_port())) == already
    assert vesk.lines_after("start_lateral nonsense") == already


def test_a_failed_bind_can_be_repeated(vesk: VeskProcess, peer: UdpEnd) -> None:
    vesk.lines_after(PEER)
    lines = remarks_after(vesk, start_command(peer.port))
    assert lines[-2:] == ["error Failed bind syscall for endpoint socket: Address already in use",
                          "error Vesk Lateral listener failed to start, err: -1"]
    lines = vesk.lines_after(start_command(free_port()))
    assert "Vesk Lateral listener started" in lines[-1]


def test_a_receive_thread_that_cannot_be_started_is_reported(vesk: VeskProcess) -> None:
    vesk.lines_after(PEER)
    since = vesk.mark()
    port = free_port()
    with failing_calls(vesk, [vesk.pid], "clone3:error=EAGAIN"):
        vesk.lines_after(start_command(port))
    assert vesk.remarks(since)[-2:] == [
        "error Failed to create lateral stream receive thread: Resource temporarily unavailable",
        "error Vesk Lateral listener failed to start, err: -11"]
    # The socket of the first attempt is closed as soon as another one replaces it.
    lines = vesk.lines_after(start_command(free_port()))
    assert "Vesk Lateral listener started" in lines[-1]


def test_the_lateral_thread_ends_with_the_process(vesk: VeskProcess) -> None:
    threads = len(vesk.threads())
    vesk.lines_after(PEER, start_command(free_port()))
    assert len(vesk.threads()) == threads + 1
    # "stop" ends the listener only; the lateral stream continues.
    assert vesk.lines_after("stop") == []
    assert len(vesk.threads()) == threads + 1
    vesk.finish()


def test_peers_may_be_added_after_the_start(vesk: VeskProcess) -> None:
    vesk.lines_after(PEER, start_command(free_port()))
    assert vesk.lines_after("add_lateral_peer idx 2 addr 127.0.0.3") == [added(2, "127.0.0.3")]
