"""Two thousand malformed datagrams cause no error in the dissector."""

from __future__ import annotations

import random
from typing import List

import pytest

from capture import Packet, write
from framework.framing import (FORWARDED, RETURNED, UDPV1, UDPV2, Key, build_lateral,
                               socket_address_bytes)
from tshark import Tshark, key_line

COUNT = 2000
KEY = Key(bytes(range(16)), "sha256")
LABEL = 0x10001
PEER = ("127.0.0.1", 50000)
FRAMED_PORT, LATERAL_PORT = 4500, 4600
FIELDS = ["frame.protocols", "vesk.hmac.status", "vesk.expert.refused"]


def a_datagram(source: random.Random) -> bytes:
    """A valid datagram of a random kind."""
    framing = source.choice([UDPV1, UDPV2])
    extra = source.randbytes(source.randrange(5)) if framing is UDPV1 else b""
    framed = framing.build(LABEL, source.randbytes(source.randrange(1, 80)),
                           source.choice([KEY, Key(b"a", "sha1"), None]), extra)
    if source.random() < 0.5:
        return framed
    address = socket_address_bytes(*source.choice([("192.0.2.7", 1), ("2001:db8::7", 2)]))
    return build_lateral(source.choice([FORWARDED, RETURNED]), address, source.randbytes(16), framed)


def damaged(source: random.Random) -> bytes:
    way = source.randrange(4)
    if way == 0:
        return source.randbytes(source.randrange(120))
    datagram = bytearray(a_datagram(source))
    if way == 1:
        return bytes(datagram[:source.randrange(len(datagram) + 1)])
    if way == 2:
        for _ in range(source.randrange(1, 4)):
            datagram[source.randrange(len(datagram))] = source.choice([0, 1, 2, 31, 32, 44, 45, 255])
        return bytes(datagram)
    return bytes(datagram) + source.randbytes(source.randrange(2100))


def packets(source: random.Random) -> List[Packet]:
    found = []
    for _ in range(COUNT):
        datagram = damaged(source)
        kept = source.randrange(len(datagram) + 1) if source.random() < 0.3 else None
        port = source.choice([FRAMED_PORT, LATERAL_PORT])
        found.append(Packet(PEER, ("127.0.0.1", port), datagram, kept))
    return found


@pytest.mark.parametrize("framing", ["automatic", "udpv1", "udpv2"])
@pytest.mark.parametrize("ports", [
    [f"downstream_ports:{FRAMED_PORT}", f"lateral_ports:{LATERAL_PORT}"], []], ids=["ports", "any port"])
def test_malformed_datagrams_cause_no_error(tshark: Tshark, framing: str, ports: List[str]) -> None:
    seed = random.randrange(1 << 32)
    sent = packets(random.Random(seed))
    capture = write(tshark.folder / "fuzz.pcap", sent)
    options = [*ports, f"framing:{framing}",
               tshark.key_file(key_line(LABEL, KEY), key_line(LABEL, Key(b"a", "sha1")))]
    shown = tshark.read(capture, *options, "-V")
    assert (shown.returncode, shown.stderr) == (0, ""), seed
    assert "Lua Error" not in shown.stdout, seed
    assert shown.stdout.count("\nUser Datagram Protocol") == COUNT, seed

    rows = tshark.fields(capture, FIELDS, *options)
    if ports:
        for packet, row in zip(sent, rows):
            if packet.datagram and packet.kept != 0:
                assert "vesk" in row["frame.protocols"], (seed, packet)
    # Not every datagram was refused.
    assert any(row["vesk.hmac.status"] == "good" for row in rows), seed
