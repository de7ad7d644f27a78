"""Port numbers above 16 bits: which are truncated, and which the resolver refuses."""

from __future__ import annotations

import re
import signal
import socket
from typing import List

import pytest

from framework.bench import Bench
from framework.flow import Flow
from framework.udp import UdpEnd, free_port
from framework.vesk_process import VeskProcess

TWO_TO_32 = 1 << 32

# Truncated to 32 bits they exceed a signed number, so the resolver treats them as service names.
REFUSED = ["-1", "-65536", "2147483648", "4294967295", str(TWO_TO_32 + 2147483648),
           "18446744073709551615"]
NO_PORT = ["0", str(TWO_TO_32), str(-TWO_TO_32)]


def beyond(port: int) -> List[int]:
    """Numbers with this port in their low 16 bits that the resolver accepts."""
    return [port + 65536, port + 2147418112, port + TWO_TO_32, port - TWO_TO_32]


def ends_with_resolver_failure(vesk: VeskProcess, text: str) -> None:
    vesk.wait_exit(-signal.SIGABRT, core_allowed=True, errors=re.compile(
        r"terminate called after throwing an instance of 'std::runtime_error'\n"
        rf"  what\(\):  getaddrinfo: 127\.0\.0\.1\|{int(text) % TWO_TO_32}: "
        rf"err {socket.EAI_SERVICE} errno \d+\n(.*Sanitizer.*)?", re.DOTALL))


def remarks_after(vesk: VeskProcess, *commands: str) -> List[str]:
    return [line for line in vesk.lines_after(*commands) if " sized to " not in line]


def as_read(port: int) -> int:
    return port % (1 << 64)


# Start ----------------------------------------------------------------------------------

@pytest.mark.parametrize("case", range(4))
def test_start_listens_on_the_low_16_bits(bench: Bench, case: int) -> None:
    port = free_port()
    given = beyond(port)[case]
    lines = remarks_after(bench.vesk, f"start addr 127.0.0.1 port {given}")
    assert lines[0] == (f"info Making downstream endpoint with address 127.0.0.1 "
                        f"port {given % TWO_TO_32}")
    assert lines[-1] == f"info Vesk started on port {as_read(given)} address 127.0.0.1"
    bench.to = ("127.0.0.1", port)
    bench.nothing_went_upstream()


@pytest.mark.parametrize("text", REFUSED)
def test_start_with_a_refused_port_ends_the_process(vesk: VeskProcess, text: str) -> None:
    vesk.command(f"start addr 127.0.0.1 port {text}")
    ends_with_resolver_failure(vesk, text)


@pytest.mark.parametrize("text", NO_PORT)
def test_start_without_a_port_fails_to_bind(vesk: VeskProcess, text: str) -> None:
    lines = remarks_after(vesk, f"start addr 127.0.0.1 port {text}")
    assert lines[2:] == ["error Failed bind syscall for endpoint socket: Invalid argument",
                         f"info Vesk started on port {as_read(int(text))} address 127.0.0.1"]


def test_start_on_a_multiple_of_65536_lets_the_kernel_choose(vesk: VeskProcess, peer: UdpEnd,
                                                             upstream: UdpEnd) -> None:
    before = udp_ports(vesk)
    lines = remarks_after(vesk, "start addr 127.0.0.1 port 65536")
    assert lines[-1] == "info Vesk started on port 65536 address 127.0.0.1"
    chosen = udp_ports(vesk)
    assert before == [] and len(chosen) == 1
    flow = Flow(5, upstream.address)
    vesk.lines_after(flow.set_command())
    peer.send(flow.request(b"x"), ("127.0.0.1", chosen[0]))
    flow.open_request(upstream.receive().data)


def udp_ports(vesk: VeskProcess) -> List[int]:
    """The local ports of the forwarder's IPv4 sockets."""
    inodes = {target[8:-1] for target in vesk.descriptors().values()
              if target.startswith("socket:")}
    with open("/proc/net/udp", encoding="ascii") as table:
        rows = [line.split() for line in table][1:]
    return [int(row[1].split(":")[1], 16) for row in rows if row[9] in inodes]


# Start_lateral --------------------------------------------------------------------------

def start_lateral(vesk: VeskProcess, port: str) -> List[str]:
    vesk.lines_after("add_lateral_peer idx 1 addr 127.0.0.2")
    return remarks_after(vesk, f"start_lateral addr 127.0.0.1 port {port} idx 0 max_qels 2")


@pytest.mark.parametrize("case", range(4))
def test_start_lateral_listens_on_the_low_16_bits(vesk: VeskProcess, case: int) -> None:
    port = free_port()
    given = beyond(port)[case]
    assert start_lateral(vesk, str(given))[-1] == (
        f"info Vesk Lateral listener started on port {as_read(given)} address 127.0.0.1 "
        "index 0 maxQels 2")
    assert udp_ports(vesk) == [port]


@pytest.mark.parametrize("text", REFUSED)
def test_start_lateral_refuses_a_port_that_the_resolver_refuses(vesk: VeskProcess,
                                                                text: str) -> None:
    assert start_lateral(vesk, text) == [
        "error startLateralStream: bad command, Invalid lateral address and/or port "]


@pytest.mark.parametrize("text", NO_PORT)
def test_start_lateral_without_a_port_fails_to_bind(vesk: VeskProcess, text: str) -> None:
    assert start_lateral(vesk, text)[2:] == [
        "error Failed bind syscall for endpoint socket: Invalid argument",
        "error Vesk Lateral listener failed to start, err: -1"]


# Set and del ----------------------------------------------------------------------------

@pytest.mark.parametrize("case", range(4))
def test_set_sends_to_the_low_16_bits(bench: Bench, case: int) -> None:
    given = beyond(bench.upstream.port)[case]
    flow = bench.flow(upstream=("127.0.0.1", given))
    bench.declare(flow)
    bench.exchange(flow)


@pytest.mark.parametrize("command", ["set", "del"])
@pytest.mark.parametrize("text", REFUSED)
def test_set_and_del_with_a_refused_port_end_the_process(vesk: VeskProcess, command: str,
                                                         text: str) -> None:
    vesk.command(f"{command} label 5 up_ip 127.0.0.1 up_port {text}")
    ends_with_resolver_failure(vesk, text)


@pytest.mark.parametrize("text", ["65536", str(1 << 31), *NO_PORT])
def test_a_port_alone_whose_low_16_bits_are_0_changes_nothing(bench: Bench, text: str) -> None:
    flow = bench.flow()
    bench.declare(flow)
    assert bench.vesk.lines_after(f"set label {flow.label} up_port {text}") == []
    bench.exchange(flow)


@pytest.mark.parametrize("multiple", [1, 32768, 65535])
def test_a_port_alone_is_truncated_before_it_is_resolved(bench: Bench, new_end,
                                                         multiple: int) -> None:
    flow = bench.flow()
    bench.declare(flow)
    bench.upstream = new_end()
    assert bench.vesk.lines_after(
        f"set label {flow.label} up_port {bench.upstream.port + 65536 * multiple}") == []
    bench.exchange(flow)


def test_minus_one_alone_is_port_65535(bench: Bench, new_end) -> None:
    flow = bench.flow()
    bench.declare(flow)
    bench.upstream = new_end("127.0.0.1", 65535)
    assert bench.vesk.lines_after(f"set label {flow.label} up_port -1") == []
    bench.exchange(flow)
