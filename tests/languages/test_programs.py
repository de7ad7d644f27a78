"""The programs of each language count what is wrong. The test itself is at their other end and sends it."""

from __future__ import annotations

import subprocess
from pathlib import Path
from typing import List

import pytest

from framework.framing import UDPV1, UDPV2, Framing, Key
from framework.udp import UdpEnd
from languages import Commands
from programs import Counts, Echo, Ends, Peer

_SIGNING, _CHECKING, _OLD = Key(b"signing", "sha1"), Key(b"checking"), Key(b"old", "sha1")
_EITHER = pytest.mark.parametrize("framing", [UDPV1, UDPV2], ids=["udpv1", "udpv2"])
# UDPv1 carries them to the other end and back.
_FURTHER = {UDPV1: b"\xaa\xbb", UDPV2: b""}
_LARGEST = {UDPV1: 1500 - 28 - 38 - 2, UDPV2: 1500 - 28 - 20}


def ends(framing: Framing) -> Ends:
    return Ends(framing, out_label=0x20001, in_label=0x10001, out_key=_SIGNING, in_key=_CHECKING, old_in_key=_OLD)


def flipped(datagram: bytes, place: int) -> bytes:
    return datagram[:place] + bytes([datagram[place] ^ 1]) + datagram[place + 1:]


@_EITHER
def test_echo_service_answers_correct_datagrams_only(commands: Commands, tmp_path: Path, framing: Framing) -> None:
    further = _FURTHER[framing]
    good = framing.build(0x10001, b"payload", _CHECKING, further)
    with Echo(commands, ends(framing), tmp_path) as echo, UdpEnd() as end:
        for datagram in (framing.build(0x10002, b"payload", _CHECKING, further),
                         framing.build(0x10001, b"payload", _SIGNING, further),
                         framing.build(0x10001, b"payload", None, further),
                         flipped(good, 0), flipped(good, len(good) - 1), good[:framing.header_size - 1], b"",
                         good, framing.build(0x10001, b"old", _OLD, further)):
            end.send(datagram, ("127.0.0.1", echo.port))
        # The replies are those of the two good datagrams, which come last.
        replies = [framing.open(end.receive().data, _SIGNING) for _ in range(2)]
        assert [(reply.label, reply.payload, reply.extra) for reply in replies] == [
            (0x20001, b"payload", further), (0x20001, b"old", further)]
        counts = echo.end()
        assert end.waiting() is None
    expected = {"sent": 2, "received": 2, "refused": 6, "wrong": 1, "key": 1, "old_key": 1}
    assert {name: counts[name] for name in expected} == expected


def expected_payload(framing: Framing, number: int) -> bytes:
    length = number * 37 % (_LARGEST[framing] - 7)
    return number.to_bytes(8, "big") + bytes((number + place) % 256 for place in range(length))


@_EITHER
def test_peer_counts_what_it_receives(commands: Commands, tmp_path: Path, framing: Framing) -> None:
    further = _FURTHER[framing]
    options = ["--further", further.hex()] if further else []
    with UdpEnd() as end, Peer(commands, ends(framing), tmp_path, end.port, 5, "--window", "4", "--timeout", "1",
                               *options) as peer:
        first = [end.receive() for _ in range(4)]
        requests = [framing.open(received.data, _SIGNING) for received in first]
        assert [(request.label, request.extra) for request in requests] == [(0x20001, further)] * 4
        payloads = [request.payload for request in requests]
        assert payloads == [expected_payload(framing, number) for number in range(4)]
        good = [framing.build(0x10001, payload, _CHECKING, further) for payload in payloads]
        for reply in bad_replies(framing, good[0], payloads[0], further):
            end.send(reply, first[0].sender)
        # The window is full, so the fifth datagram comes only after a correct reply.
        assert end.waiting() is None
        end.send(good[1], first[0].sender)
        fifth = framing.open(end.receive().data, _SIGNING)
        assert fifth.payload == expected_payload(framing, 4)
        # Answered once already.
        end.send(good[1], first[0].sender)
        end.send(framing.build(0x10001, fifth.payload, _OLD, further), first[0].sender)
        counts = peer.counts()
    expected: Counts = {"sent": 5, "received": 2, "lost": 3, "refused": 4, "wrong": 4 + (framing is UDPV1),
                        "key": 1, "old_key": 1}
    assert {name: counts[name] for name in expected} == expected


def bad_replies(framing: Framing, good: bytes, payload: bytes, further: bytes) -> List[bytes]:
    """Four that the library refuses, and three that are wrong; one more in UDPv1."""
    refused = [flipped(good, 0), framing.build(0x10001, payload, _SIGNING, further),
               framing.build(0x10001, payload, None, further), good[:5]]
    wrong = [framing.build(label, text, _CHECKING, further) for label, text in (
        (0x20001, payload), (0x10001, payload + b"x"), (0x10001, b"\xff" * 8))]
    if further:
        wrong.append(framing.build(0x10001, payload, _CHECKING, further + b"x"))
    return refused + wrong


@_EITHER
def test_longest_payloads_pass(commands: Commands, tmp_path: Path, framing: Framing) -> None:
    """The whole range of lengths: as many datagrams as there are lengths, with keys that are empty."""
    count = _LARGEST[framing] - 7
    without_keys = Ends(framing, out_label=1, in_label=1)
    with Echo(commands, without_keys, tmp_path) as echo, \
            Peer(commands, without_keys, tmp_path, echo.port, count) as peer:
        counts = peer.counts()
        echoed = echo.end()
    expected: Counts = {"sent": count, "received": count, "refused": 0, "wrong": 0, "key": count, "old_key": 0}
    assert {name: counts[name] for name in [*expected, "lost"]} == {**expected, "lost": 0}
    assert {name: echoed[name] for name in expected} == expected


def test_key_file_that_holds_no_key_fails(commands: Commands, tmp_path: Path) -> None:
    """A key must not be replaced by none without notice."""
    (tmp_path / "empty.key").write_text("\n")
    for command in (commands.echo, [*commands.peer, "--count", "1"]):
        done = _run(commands, [*command, "--framing", "udpv2", "--port", "0", "--out-label", "1", "--in-label", "1",
                               "--in-key", str(tmp_path / "empty.key")])
        assert done != 0


def _run(commands: Commands, command: List[str]) -> int:
    return subprocess.run(command, env=commands.environment, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                          timeout=60, check=False).returncode
