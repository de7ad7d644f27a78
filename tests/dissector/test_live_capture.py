"""Captures the forwarder's traffic on the loopback device and dissects it."""

from __future__ import annotations

import select
import shutil
import subprocess
import time
from contextlib import contextmanager
from pathlib import Path
from typing import Callable, Iterator

import pytest

from framework.fixtures import StartVesk
from framework.bench import Bench
from framework.flow import four_keys
from framework.framing import UDPV1, UDPV2, Framing
from framework.timing import scaled
from framework.udp import UdpEnd, free_port
from tshark import INFO, Tshark, key_lines

DATAGRAMS = 4


@contextmanager
def capturing(capture: Path, capture_filter: str, count: int) -> Iterator[None]:
    """Captures a number of packets on the loopback device; skips the test if that is not allowed."""
    if shutil.which("dumpcap") is None:
        pytest.skip("dumpcap is not installed")
    program = subprocess.Popen(["dumpcap", "-q", "-i", "lo", "-f", capture_filter, "-c", str(count),
                                "-a", f"duration:{scaled(20):g}", "-w", str(capture)],
                               stderr=subprocess.PIPE)
    try:
        wait_until_capturing(program)
        yield
        program.wait(scaled(20))
    finally:
        if program.poll() is None:
            program.kill()
            program.wait()
        assert program.stderr is not None
        program.stderr.close()


def wait_until_capturing(program: "subprocess.Popen[bytes]") -> None:
    """Waits for the name of the file, printed once the device is open and the filter is set."""
    assert program.stderr is not None
    deadline, said = time.monotonic() + scaled(10), b""
    while b"File: " not in said:
        remaining = max(0.0, deadline - time.monotonic())
        readable, _, _ = select.select([program.stderr], [], [], remaining)
        assert readable, f"not capturing yet: {said!r}"
        piece = program.stderr.read1(4096)  # type: ignore[attr-defined]
        if not piece:
            pytest.skip(f"capturing is not allowed here: {said.decode(errors='replace').strip()}")
        said += piece


@pytest.mark.parametrize("framing", [UDPV1, UDPV2], ids=lambda framing: framing.name)
def test_captured_live_traffic_is_dissected(start_vesk: StartVesk, new_end: Callable[..., UdpEnd],
                                            peer: UdpEnd, tshark: Tshark, framing: Framing) -> None:
    # Wireshark looks up the lower port first. The kernel assigns ports above this one and the
    # forwarder's, and these may be known to other dissectors.
    upstream = new_end(port=free_port())
    bench = Bench(start_vesk(framing.name).ready(), peer, upstream, framing)
    flow = bench.flow(label=0x10001, **four_keys("sha256"))
    bench.declare(flow)
    capture = tshark.folder / "live.pcapng"
    ports = (bench.to[1], upstream.port)
    with capturing(capture, " or ".join(f"udp port {port}" for port in ports), DATAGRAMS):
        bench.exchange(flow)
    rows = tshark.fields(capture, [INFO, "vesk.direction"], f"downstream_ports:{ports[0]}",
                         f"upstream_ports:{ports[1]}", tshark.key_file(*key_lines(flow)))
    assert [list(row.values()) for row in rows] == [
        [f"label {label:#x}, HMAC good, {size} bytes", direction]
        for label, direction, size in [
            (flow.label, "from_peer", len(b"question")),
            (flow.up_label, "to_upstream", len(b"question")),
            (flow.label, "from_upstream", len(b"answer")),
            (flow.down_label, "to_peer", len(b"answer"))]]
