"""Log levels, whole lines, warnings with a time stamp, and a log without a reader."""

from __future__ import annotations

import os
import re
import time
from datetime import datetime, timezone
from pathlib import Path

import pytest

from framework.fixtures import StartVesk
from framework.bench import Bench
from framework.faults import failing_calls, failing_listener, recording_start
from framework.flow import Flow, four_keys
from framework.timing import scaled
from framework.udp import UdpEnd, UpstreamService
from framework.vesk_process import VeskProcess


def test_the_default_level_is_info(start_vesk: StartVesk) -> None:
    vesk = start_vesk()
    vesk.settle()
    lines = vesk.lines_after("log", "set label 5 up_out_dscp_v4 64")
    kinds = {line.split()[0] for line in vesk.log_lines() if line}
    assert kinds <= {"info", "warn", "error"} and "info" in kinds
    assert [line.split()[0] for line in lines] == ["error", "warn"]


# The kinds of line that each level writes.
@pytest.mark.parametrize("level, shown", [
    ("error", {"error"}),
    ("warn", {"error", "warn"}),
    ("info", {"error", "warn", "info"}),
    ("debug", {"error", "warn", "info", "debug"}),
    ("trace", {"error", "warn", "info", "debug", "trace"}),
])
def test_a_level_includes_all_more_severe_levels(vesk: VeskProcess, peer: UdpEnd,
                                                 upstream: UdpEnd, level: str,
                                                 shown: set) -> None:
    port = vesk.listen()
    flow = Flow(label=5, upstream=upstream.address)
    vesk.lines_after(flow.set_command(), f"log priority {level}")
    since = vesk.mark()
    # Every command logs a debug line; these cause the other lines:
    vesk.lines_after("log", "set label 6 up_out_dscp_v4 64", "stop",
                     f"start addr 127.0.0.1 port {port}")
    # An unsigned datagram whose first payload bytes are zero causes a trace line.
    peer.send(flow.request(bytes(12)), ("127.0.0.1", port))
    upstream.receive()
    vesk.settle()
    assert {line.split()[0] for line in vesk.log_lines(since) if line} == shown


def test_an_unknown_level_changes_nothing_and_is_not_logged(vesk: VeskProcess) -> None:
    vesk.command("log priority debug")
    for name in ("verbose", "DEBUG", "Error", "3", "warning", "infos", "inf"):
        line = f"log priority {name}"
        assert vesk.lines_after(line) == [f"debug Got message: {line}"]


def test_the_first_of_two_levels_is_used(vesk: VeskProcess) -> None:
    vesk.lines_after("log priority debug priority error")
    assert vesk.lines_after("") == ["debug Got message: "]


def test_words_after_the_level_are_ignored(vesk: VeskProcess) -> None:
    vesk.lines_after("log colour red priority debug trailing")
    assert vesk.lines_after("") == ["debug Got message: "]


def test_every_line_is_written_whole(start_vesk: StartVesk, tmp_path: Path, new_end) -> None:
    """One write per line: lines of different threads never mix."""
    trace = tmp_path / "writes"
    vesk = start_vesk(prefix=recording_start(trace, "write,writev"))
    port = vesk.listen()
    vesk.lines_after("log priority trace")
    with UpstreamService(lambda data: data) as service:
        peer = new_end()
        for label in range(1, 40):
            flow = Flow(label=label, upstream=service.address)
            vesk.command(flow.set_command())
        vesk.settle()
        for label in range(1, 40):
            peer.send(Flow(label=label).request(bytes(12)), ("127.0.0.1", port))
        for _ in range(1, 40):
            peer.receive()
        vesk.finish()
    # A message that ends in a newline is followed by an empty line.
    writes = re.findall(r'write\(1, "(.*)", \d+\)', trace.read_text())
    assert len(writes) > 100
    for text in writes:
        assert re.fullmatch(r"(error|warn|info|debug|trace) .*?(\\n){1,2}", text), text


# Warnings of the socket routines --------------------------------------------------------

def test_a_warning_of_the_socket_routines_contains_the_time(start_vesk: StartVesk) -> None:
    """Two blanks, the time in UTC, and an empty line after it."""
    vesk = start_vesk(environment={"TZ": "Asia/Tokyo"})
    vesk.settle()
    thread = vesk.pid
    before = time.time()
    since = vesk.mark()
    # Two requests for the buffer size come first.
    with failing_calls(vesk, [thread], "setsockopt:error=ENOMEM:when=3"):
        vesk.listen()
    line = vesk.wait_for_log(re.compile(
        r"warn  \[\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}\] Vesk_requestLocalDestAddr: "
        r"IP_PKTINFO failed on socket \d+, errno=12"), since)
    stamp = datetime.strptime(line[7:30], "%Y-%m-%dT%H:%M:%S.%f").replace(tzinfo=timezone.utc)
    assert before - 1 <= stamp.timestamp() <= time.time() + 1
    assert vesk.log_lines()[vesk.log_lines().index(line) + 1] == ""


def test_the_warning_for_ipv6_contains_the_time(vesk: VeskProcess) -> None:
    since = vesk.mark()
    with failing_calls(vesk, [vesk.pid], "setsockopt:error=ENOMEM:when=3"):
        vesk.listen("::1")
    vesk.wait_for_log(re.compile(
        r"warn  \[[-0-9T:.]{23}\] Vesk_requestLocalDestAddr: "
        r"IPV6_RECVPKTINFO failed on socket \d+, errno=12"), since)


def test_the_first_warning_opens_no_file(bench: Bench) -> None:
    """The thread that closes a listening socket relies on this: no other may make descriptors."""
    bench.declare(bench.flow())
    bench.nothing_went_upstream()
    since = bench.vesk.mark()
    # Two requests for buffer sizes come first.
    with failing_listener(bench.vesk, "setsockopt:error=ENOMEM:when=3", "open:delay_enter=1",
                          "openat:delay_enter=1") as trace:
        bench.ask(bench.flow())
        bench.vesk.wait_for_log(re.compile(r"warn  .* IP_PKTINFO failed on socket .*"), since)
    assert "setsockopt(" in trace.read_text()
    assert "open" not in trace.read_text()


def test_warnings_of_the_socket_routines_depend_on_the_level(vesk: VeskProcess) -> None:
    vesk.lines_after("log priority error")
    since = vesk.mark()
    with failing_calls(vesk, [vesk.pid], "setsockopt:error=ENOMEM:when=3"):
        vesk.command("start addr 127.0.0.1 port 0")
        vesk.settle()
    assert not [line for line in vesk.log_lines(since) if line.startswith("warn")]


# No reader ------------------------------------------------------------------------------

def test_forwarding_continues_when_the_log_reader_has_gone(
        start_vesk: StartVesk, peer: UdpEnd) -> None:
    reading, writing = os.pipe()
    with os.fdopen(writing, "wb") as output:
        vesk = start_vesk(standard_output=output)
    read_until(reading, b"Created pollLoop thread")
    flow_is_served_without_a_log(vesk, peer, lambda: os.close(reading))


def test_forwarding_continues_when_writes_to_the_log_fail(start_vesk: StartVesk,
                                                          peer: UdpEnd) -> None:
    with open("/dev/full", "wb") as output:
        vesk = start_vesk(standard_output=output)
    flow_is_served_without_a_log(vesk, peer, lambda: None)


def flow_is_served_without_a_log(vesk: VeskProcess, peer: UdpEnd, prepare) -> None:
    prepare()
    flow = Flow(label=5, **four_keys())
    with UpstreamService(flow.echo) as service:
        flow.upstream = service.address
        vesk.command("log priority trace")
        vesk.command("nonsense")
        vesk.command(flow.set_command())
        port = listen_unseen(vesk)
        # The log cannot show when the listener is ready, so the peer asks until it gets an answer.
        answer = ask_until_answered(peer, flow.request(b"x"), ("127.0.0.1", port))
        assert flow.open_reply(answer).payload == b"x"
        # Every datagram that fails its check writes a line directly to standard output.
        for _ in range(100):
            peer.send(flow.framing.build(5, b"unsigned"), ("127.0.0.1", port))
        peer.send(flow.request(b"y"), ("127.0.0.1", port))
        while flow.open_reply(peer.receive().data).payload != b"y":
            pass
    vesk.finish()


def read_until(descriptor: int, text: bytes) -> None:
    seen = b""
    while text not in seen:
        piece = os.read(descriptor, 4096)
        assert piece, f"the log ended: {seen!r}"
        seen += piece


def listen_unseen(vesk: VeskProcess) -> int:
    with UdpEnd() as probe:
        port = probe.port
    vesk.command(f"start addr 127.0.0.1 port {port}")
    return port


def ask_until_answered(peer: UdpEnd, request: bytes, to) -> bytes:
    deadline = time.monotonic() + scaled(5)
    peer.socket.settimeout(0.05)
    while time.monotonic() < deadline:
        peer.send(request, to)
        try:
            return peer.socket.recv(65536)
        except TimeoutError:
            continue
    raise AssertionError("no answer")


def test_no_signal_is_raised_by_a_broken_pipe(start_vesk: StartVesk) -> None:
    """Not even by the last lines, which are written while the threads are stopped.

    If the signal ended the process, the exit status would be -13.
    """
    reading, writing = os.pipe()
    with os.fdopen(writing, "wb") as output:
        vesk = start_vesk(standard_output=output)
    read_until(reading, b"Created pollLoop thread")
    os.close(reading)
    vesk.close_input()
    vesk.wait_exit(0)
