"""The raw protocol session of docs/tutorial.md: commands, datagrams and log lines."""

from __future__ import annotations

import re
from pathlib import Path
from typing import Iterator, List

import pytest

from framework.batches import wait_until_idle
from framework.udp import UdpEnd
from framework.vesk_process import VeskProcess

ROOT = Path(__file__).resolve().parent.parent.parent
BLOCK = re.compile(r"^```\n(.*?)^```$", re.MULTILINE | re.DOTALL)
HOST = "127.0.0.1"


def blocks() -> List[List[str]]:
    text = (ROOT / "docs/tutorial.md").read_text(encoding="utf-8")
    return [block.splitlines() for block in BLOCK.findall(text.split("\n## The protocol by hand\n")[1])]


def datagram(line: str) -> bytes:
    """The bytes of the hex words in a line."""
    return bytes.fromhex("".join(re.findall(r"\b(?:[0-9a-f]{8,})\b", line)))


def comparable(lines: List[str]) -> List[str]:
    """The lines without details that vary; lines of two threads have no fixed order."""
    text = "\n".join(line for line in lines if line and "SO_" not in line)
    text = re.sub(r"(thread: |recvThread |sockfds |\()[0-9a-f]+( \d+|\))?", r"\1N", text)
    text = re.sub(r"info allowCoreDumps: .*|warn allowCoreDumps: .*", "core size limit", text)
    text = re.sub(r"(ActiveEvtNr|WakeNr|ReadyFdNr|RdReadyNr|DgNr):\d+", r"\1:N", text)
    text = re.sub(r"(WakeNr:N,ReadyFdNr:N,DgNr:N )+", "workers ", text)
    found = text.split("\n")
    # There is one such line for each processor, and one or more lines about core files.
    several = [line for line in found if re.match("info created upstream recvThread|core size", line)]
    return sorted(set(several)) + sorted(line for line in found if line not in several)


@pytest.fixture
def peer() -> Iterator[UdpEnd]:
    with UdpEnd() as end:
        yield end


@pytest.fixture
def upstream() -> Iterator[UdpEnd]:
    with UdpEnd() as end:
        yield end


class Session:
    """Types the lines that the page marks with "> ", with ports that are free on this host."""

    def __init__(self, vesk: VeskProcess, upstream_port: int) -> None:
        self.vesk = vesk
        self.upstream_port = upstream_port
        self.port = 0
        self.expected: List[str] = []

    def type(self, lines: List[str]) -> None:
        for line in lines:
            if not line.startswith("> "):
                self.expected.append(line)
            elif line.startswith("> start "):
                # The kernel assigns a free port.
                self.port = self.vesk.listen(HOST)
            else:
                self.vesk.command(line[2:].replace("up_port 5000", f"up_port {self.upstream_port}"))
        self.vesk.settle()

    def logged(self) -> List[str]:
        text = "\n".join(line for line in self.vesk.log_lines() if "'fence-" not in line)
        return re.sub(rf"(port |\|){self.port}\b", r"\g<1>4500", text).split("\n")


def test_session_is_as_shown(tmp_path: Path, peer: UdpEnd, upstream: UdpEnd) -> None:
    commands, request, reply, refused, answers, end = blocks()
    session = Session(VeskProcess(tmp_path, "udpv2", "60").ready(), upstream.address[1])
    session.type(commands)

    forwarder = (HOST, session.port)
    peer.send(datagram(request[0]), forwarder)
    received = upstream.receive()
    assert received.data == datagram(request[1])
    upstream.send(datagram(reply[0]), received.sender)
    assert peer.receive().data == datagram(reply[1])
    for line in refused:
        peer.send(datagram(line), forwarder)
    # The second datagram is counted before its line is logged, the reply after it has been sent.
    session.vesk.wait_for_log("downstreamPacketReceivedFailed HMAC Check!")
    wait_until_idle(session.vesk)
    session.type(answers)

    session.vesk.finish()
    assert comparable(session.logged()) == comparable(session.expected + end)
