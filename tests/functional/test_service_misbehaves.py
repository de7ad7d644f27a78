"""A controlling service that does not read, does not finish its lines, or ends.

VESK_UNREAD_SECONDS is the time for which the log is not read.
"""

from __future__ import annotations

import array
import fcntl
import os
import random
import re
import subprocess
import termios
import threading
import time
from contextlib import ExitStack
from typing import Iterator, List

import pytest

from framework.fixtures import StartVesk
from framework.bench import Bench
from framework.flood import Drain, Flood
from framework.flow import Flow, four_keys
from framework.timing import count_from_environment, scaled, wait_until
from framework.udp import Address, UdpEnd, UpstreamService
from framework.vesk_process import VeskProcess
from test_logging import ask_until_answered, listen_unseen, read_until

UNREAD_SECONDS = count_from_environment("VESK_UNREAD_SECONDS", 10)
MEBIBYTE = 1 << 20

# Every line that the forwarder may write under this load.
LINES_UNDER_LOAD = re.compile(
    r"info Created upstream endpoint: label 0x[0-9a-f]+/\d+ sockfds \d+ \d+"
    r"|downstreamPacketReceivedFailed HMAC Check!"
    r"|info Task \[FlowCleanUpTask\] .*"
    r"|warn SO_(RCV|SND)BUF sized to \d+ wanted \d+"
    r"|error Unrecognised command 'after'"
    r"|info cltMessageLoop: Got EOF, exiting\.\.\.|info Forwarder listener stopped"
    r"|info (Making|Endpoint socket bound:|Created (downstream|periodic)|Vesk started on) .*|")


class OwnLog:
    """A forwarder whose log only the test reads, with a load that fills the log."""

    def __init__(self, start_vesk: StartVesk, keep: ExitStack) -> None:
        self.reading, writing = os.pipe()
        keep.callback(self.close)
        with os.fdopen(writing, "wb") as output:
            self.vesk: VeskProcess = start_vesk(standard_output=output)
        read_until(self.reading, b"Created pollLoop thread")
        self.peer = keep.enter_context(UdpEnd())
        self.good = Flow(label=1, **four_keys())
        service = keep.enter_context(UpstreamService(self.good.echo))
        self.good.upstream = service.address
        self.idle = [Flow(label, service.address, **four_keys()) for label in range(100, 120)]
        for flow in (self.good, *self.idle):
            self.vesk.command(flow.set_command())
        self.listener: Address = ("127.0.0.1", listen_unseen(self.vesk))
        # An answer shows that the listener is ready, without reading the log.
        self.is_served(b"first")

    def is_served(self, payload: bytes) -> None:
        answer = ask_until_answered(self.peer, self.good.request(payload), self.listener)
        assert self.good.open_reply(answer).payload
        while self.peer.waiting() is not None:
            pass

    def load(self, keep: ExitStack) -> None:
        """Sends good datagrams and bad ones; each bad one writes two lines."""
        sender = keep.enter_context(UdpEnd())
        keep.enter_context(Drain(sender))
        datagrams = [(self.good.request(b"load"), self.listener)]
        datagrams += [(flow.framing.build(flow.label, b"unsigned"), self.listener)
                      for flow in self.idle]
        keep.enter_context(Flood(sender, datagrams, pause_seconds=0.001))

    def unread_bytes(self) -> int:
        waiting = array.array("i", [0])
        fcntl.ioctl(self.reading, termios.FIONREAD, waiting)
        return waiting[0]

    def wait_until_full(self) -> None:
        """Waits until the pipe is full. Under this load its fill level is constant only then."""
        wait_until(lambda: self._stands_still(scaled(0.1)), "the log is full", 20)

    def _stands_still(self, seconds: float) -> bool:
        before = self.unread_bytes()
        time.sleep(seconds)
        return self.unread_bytes() == before > 0

    def read_all(self) -> threading.Thread:
        """Starts to read the log to its end."""
        self.log = bytearray()
        reader = threading.Thread(target=self._read_all, daemon=True)
        reader.start()
        return reader

    def _read_all(self) -> None:
        while True:
            piece = os.read(self.reading, 1 << 16)
            if not piece:
                return
            self.log += piece

    def torn_lines(self) -> List[str]:
        assert self.log.endswith(b"\n")
        return [line for line in bytes(self.log).decode().split("\n")
                if not LINES_UNDER_LOAD.fullmatch(line)]

    def close(self) -> None:
        if self.reading >= 0:
            os.close(self.reading)
            self.reading = -1


@pytest.fixture
def own_log(start_vesk: StartVesk) -> Iterator[OwnLog]:
    with ExitStack() as keep:
        yield OwnLog(start_vesk, keep)


# The log is not read --------------------------------------------------------------------

@pytest.mark.limit_seconds(60 + UNREAD_SECONDS)
def test_an_unread_log_blocks_the_forwarder_until_it_is_read(own_log: OwnLog) -> None:
    """Afterwards the forwarder continues, and no line of the log is missing."""
    with ExitStack() as keep:
        own_log.load(keep)
        own_log.wait_until_full()
        own_log.vesk.command("after")
        ended = threading.Event()
        assert not ended.wait(UNREAD_SECONDS) and own_log.vesk.running()
        reader = own_log.read_all()
        own_log.is_served(b"again")
        wait_until(lambda: b"'after'" in own_log.log, "commands are executed again")
    own_log.is_served(b"and again")
    own_log.vesk.finish()
    reader.join()
    assert own_log.torn_lines() == []
    lines = own_log.log.split(b"\n")
    refused = lines.count(b"downstreamPacketReceivedFailed HMAC Check!")
    opened = sum(line.startswith(b"info Created upstream endpoint") for line in lines)
    # Each refused datagram opened its own socket, and the good flow has one.
    assert opened == refused + 1 and refused > 100


def test_the_end_waits_for_the_reader_of_a_full_log(own_log: OwnLog) -> None:
    with ExitStack() as keep:
        own_log.load(keep)
        own_log.wait_until_full()
        own_log.vesk.close_input()
        # The last lines do not fit, so the forwarder waits for its reader.
        assert not threading.Event().wait(1) and own_log.vesk.running()
        reader = own_log.read_all()
        own_log.vesk.wait_exit(0, seconds=2)
    reader.join()
    assert own_log.torn_lines() == []
    assert b"info cltMessageLoop: Got EOF, exiting...\n\n" in own_log.log


# The reader of the log ends -------------------------------------------------------------

@pytest.mark.parametrize("full", [False, True], ids=["running", "blocked"])
def test_forwarding_continues_when_the_reader_of_the_log_ends(own_log: OwnLog, full: bool) -> None:
    """Every thread continues, and the end of input still ends the process normally."""
    with ExitStack() as keep:
        own_log.load(keep)
        if full:
            own_log.wait_until_full()
        own_log.close()
        own_log.is_served(b"without a log")
        own_log.vesk.command(f"set label 1 down_label {own_log.good.down_label + 1}")
        own_log.good.down_label += 1
        wait_until(lambda: _is_answered_by(own_log, own_log.good.down_label),
                   "commands are executed")
        own_log.vesk.close_input()
        own_log.vesk.wait_exit(0, seconds=2)


def _is_answered_by(own_log: OwnLog, down_label: int) -> bool:
    answer = ask_until_answered(own_log.peer, own_log.good.request(b"x"), own_log.listener)
    return own_log.good.framing.parse(answer).label == down_label


@pytest.mark.parametrize("full", [False, True], ids=["running", "blocked"])
def test_the_forwarder_ends_when_its_service_dies_under_load(own_log: OwnLog, full: bool) -> None:
    """Both pipes are closed at once."""
    with ExitStack() as keep:
        own_log.load(keep)
        if full:
            own_log.wait_until_full()
        own_log.close()
        own_log.vesk.close_input()
        own_log.vesk.wait_exit(0, seconds=2)


# Lines ----------------------------------------------------------------------------------

def test_a_line_is_executed_only_when_complete(bench: Bench) -> None:
    flow = bench.flow(**four_keys())
    for piece in re.findall(r".{1,7}", flow.set_command()):
        bench.vesk.write_input(piece.encode())
        bench.nothing_went_upstream()
    since = len(bench.vesk.log_lines())
    bench.send(flow.request(b"undeclared so far"))
    bench.nothing_went_upstream()
    bench.vesk.write_input(b"\n")
    bench.vesk.settle()
    assert [line for line in bench.vesk.remarks(since) if line.startswith("error")] == []
    bench.exchange(flow)


def test_lines_of_a_mebibyte_do_not_delay_the_flows(bench: Bench) -> None:
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    sender = bench.exchange(flow)
    choose = random.Random(3)
    words = [bytes([byte]) * MEBIBYTE for byte in (0, 0xff, ord("x"))]
    words += [bytes(choose.choices([0, 0xff, 9, 13, 32, 11, 65], k=MEBIBYTE)),
              b"set label 5 down_in_key " + b"ab" * (MEBIBYTE // 2),
              b"del label " + b"9" * MEBIBYTE, b"stop " * (MEBIBYTE // 5) + b"\xff"]
    for number, line in enumerate(words[:-1]):
        bench.vesk.write_input(line + b"\n")
        bench.answer(flow, sender, f"answer {number}".encode())
    bench.vesk.settle()
    complaints = [line for line in bench.vesk.log_lines() if line.startswith("error validate")
                  or line.startswith("error Vesk_validate")]
    assert [line[:60] for line in complaints] == [
        "error Vesk_validateHmacKeyString: bad key, too long",
        "error validateLabelLikeString: bad label-like value, 'label'"]
    assert bench.exchange(flow) == sender
    # The first word is the command, whatever follows.
    bench.vesk.write_input(words[-1] + b"\n")
    bench.vesk.wait_for_log("info Forwarder listener stopped")


def test_random_bytes_on_the_channel_have_no_effect(bench: Bench) -> None:
    """None of the lines is a command."""
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    choose = random.Random(4)
    for _ in range(300):
        bench.vesk.write_input(choose.randbytes(choose.randrange(200)) + b"\n")
    bench.vesk.settle()
    bench.exchange(flow)


def test_lines_may_end_in_a_carriage_return(vesk: VeskProcess, peer: UdpEnd,
                                            upstream: UdpEnd) -> None:
    flow = Flow(5, upstream.address, **four_keys())
    port = vesk.listen()
    for line in ("stop", f"start addr 127.0.0.1 port {port}", flow.set_command(),
                 "log priority info", ""):
        vesk.write_input(line.encode() + b"\r\n")
    vesk.settle()
    peer.send(flow.request(b"question"), ("127.0.0.1", port))
    arrived = upstream.receive()
    upstream.send(flow.reply(b"answer"), arrived.sender)
    assert flow.open_reply(peer.receive().data).payload == b"answer"


@pytest.mark.parametrize("cut", [1, 3, 8, 9, 11, 20, 60])
def test_an_incomplete_last_line_is_executed_before_the_end(bench: Bench, cut: int) -> None:
    """The forwarder executes the part of the line it has and then ends."""
    flow = bench.flow(**four_keys())
    with Drain(bench.upstream), \
            Flood(bench.peer, [(bench.control.request(b"load"), bench.to)], pause_seconds=0.001):
        bench.vesk.write_input(flow.set_command().encode()[:cut])
        bench.vesk.close_input()
        bench.vesk.wait_exit(0, seconds=2)
    assert "info cltMessageLoop: Got EOF, exiting..." in bench.vesk.log_lines()


def test_the_forwarder_ends_without_input_and_output(start_vesk: StartVesk) -> None:
    """Standard input and standard output are /dev/null."""
    vesk = start_vesk(standard_input=subprocess.DEVNULL, standard_output=subprocess.DEVNULL)
    vesk.wait_exit(0, seconds=2)
