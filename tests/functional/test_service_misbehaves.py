"""A controlling service that does not read, does not finish its lines, or goes away.

VESK_UNREAD_SECONDS says how long the log is left unread.
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

# What the forwarder writes while it is flooded, from the first byte to the last.
LINES_UNDER_LOAD = re.compile(
    r"info Created upstream endpoint: label 0x[0-9a-f]+/\d+ sockfds \d+ \d+"
    r"|downstreamPacketReceivedFailed HMAC Check!"
    r"|info Task \[FlowCleanUpTask\] .*"
    r"|warn SO_(RCV|SND)BUF sized to \d+ wanted \d+"
    r"|error Unrecognised command 'after'"
    r"|info cltMessageLoop: Got EOF, exiting\.\.\.|info Forwarder listener stopped"
    r"|info (Making|Endpoint socket bound:|Created (downstream|periodic)|Vesk started on) .*|")


class OwnLog:
    """A forwarder whose log the test reads when it likes, under a load that fills the log."""

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
        # Also tells that the listener is there; its messages stay in the pipe.
        self.is_served(b"first")

    def is_served(self, payload: bytes) -> None:
        answer = ask_until_answered(self.peer, self.good.request(payload), self.listener)
        assert self.good.open_reply(answer).payload
        while self.peer.waiting() is not None:
            pass

    def load(self, keep: ExitStack) -> None:
        """Good datagrams and bad ones; each of the bad writes two lines."""
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
        """Under this load only a pipe that takes no more stands still for so long."""
        wait_until(lambda: self._stands_still(scaled(0.1)), "nobody takes more of the log", 20)

    def _stands_still(self, seconds: float) -> bool:
        before = self.unread_bytes()
        time.sleep(seconds)
        return self.unread_bytes() == before > 0

    def read_all(self) -> threading.Thread:
        """Reads on from now, to the end of the log."""
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
def test_a_log_that_is_not_read_for_a_while(own_log: OwnLog) -> None:
    """Everything stands still and goes on where it stopped: nothing of the log is missing."""
    with ExitStack() as keep:
        own_log.load(keep)
        own_log.wait_until_full()
        own_log.vesk.command("after")
        ended = threading.Event()
        assert not ended.wait(UNREAD_SECONDS) and own_log.vesk.running()
        reader = own_log.read_all()
        own_log.is_served(b"again")
        wait_until(lambda: b"'after'" in own_log.log, "commands are carried out again")
    own_log.is_served(b"and again")
    own_log.vesk.finish()
    reader.join()
    assert own_log.torn_lines() == []
    lines = own_log.log.split(b"\n")
    refused = lines.count(b"downstreamPacketReceivedFailed HMAC Check!")
    opened = sum(line.startswith(b"info Created upstream endpoint") for line in lines)
    # Each refused datagram opened a socket for itself, and the good flow has one.
    assert opened == refused + 1 and refused > 100


def test_the_end_of_input_with_a_full_log(own_log: OwnLog) -> None:
    with ExitStack() as keep:
        own_log.load(keep)
        own_log.wait_until_full()
        own_log.vesk.close_input()
        # The last words do not fit: it waits for its reader, with everything in place.
        assert not threading.Event().wait(1) and own_log.vesk.running()
        reader = own_log.read_all()
        own_log.vesk.wait_exit(0, seconds=2)
    reader.join()
    assert own_log.torn_lines() == []
    assert b"info cltMessageLoop: Got EOF, exiting...\n\n" in own_log.log


# The log's reader goes away -------------------------------------------------------------

@pytest.mark.parametrize("full", [False, True], ids=["at work", "with everybody waiting"])
def test_a_reader_that_goes_away_under_load(own_log: OwnLog, full: bool) -> None:
    """Forwarding goes on, in every thread, and the end of input still ends it in order."""
    with ExitStack() as keep:
        own_log.load(keep)
        if full:
            own_log.wait_until_full()
        own_log.close()
        own_log.is_served(b"without a log")
        own_log.vesk.command(f"set label 1 down_label {own_log.good.down_label + 1}")
        own_log.good.down_label += 1
        wait_until(lambda: _is_answered_by(own_log, own_log.good.down_label),
                   "commands are carried out")
        own_log.vesk.close_input()
        own_log.vesk.wait_exit(0, seconds=2)


def _is_answered_by(own_log: OwnLog, down_label: int) -> bool:
    answer = ask_until_answered(own_log.peer, own_log.good.request(b"x"), own_log.listener)
    return own_log.good.framing.parse(answer).label == down_label


@pytest.mark.parametrize("full", [False, True], ids=["at work", "with everybody waiting"])
def test_a_service_that_dies_under_load(own_log: OwnLog, full: bool) -> None:
    """Both pipes break at once; nothing of the forwarder is left behind."""
    with ExitStack() as keep:
        own_log.load(keep)
        if full:
            own_log.wait_until_full()
        own_log.close()
        own_log.vesk.close_input()
        own_log.vesk.wait_exit(0, seconds=2)


# Lines ----------------------------------------------------------------------------------

def test_half_lines_wait_for_their_other_half(bench: Bench) -> None:
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


def test_lines_of_a_mebibyte_do_not_hold_up_the_flows(bench: Bench) -> None:
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
    # The first word counts, however many follow.
    bench.vesk.write_input(words[-1] + b"\n")
    bench.vesk.wait_for_log("info Forwarder listener stopped")


def test_bytes_of_every_value_on_the_channel(bench: Bench) -> None:
    """Nothing of it is a command, and nothing of it does harm."""
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    choose = random.Random(4)
    for _ in range(300):
        bench.vesk.write_input(choose.randbytes(choose.randrange(200)) + b"\n")
    bench.vesk.settle()
    bench.exchange(flow)


def test_a_session_with_carriage_returns(vesk: VeskProcess, peer: UdpEnd,
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
def test_the_end_of_input_in_the_middle_of_a_line(bench: Bench, cut: int) -> None:
    """What there is of the line is carried out, for better or worse; then comes the end."""
    flow = bench.flow(**four_keys())
    with Drain(bench.upstream), \
            Flood(bench.peer, [(bench.control.request(b"load"), bench.to)], pause_seconds=0.001):
        bench.vesk.write_input(flow.set_command().encode()[:cut])
        bench.vesk.close_input()
        bench.vesk.wait_exit(0, seconds=2)
    assert "info cltMessageLoop: Got EOF, exiting..." in bench.vesk.log_lines()


def test_a_service_that_sends_no_command(start_vesk: StartVesk) -> None:
    """Neither does the forwarder mind that nobody hears it."""
    vesk = start_vesk(standard_input=subprocess.DEVNULL, standard_output=subprocess.DEVNULL)
    vesk.wait_exit(0, seconds=2)
