"""Lateral datagrams: those that the forwarder writes, and those that any other host may send."""

from __future__ import annotations

from typing import Callable, List, Optional

import pytest

from capture import Packet
from framework.fixtures import StartVesk
from framework.flow import Flow, four_keys
from framework.framing import (FORWARDED, RETURNED, UDPV1, UDPV2, Framing, Key, build_lateral,
                               parse_lateral, socket_address_bytes)
from framework.lateral import LOOPBACK, join, owned_label, shared_free_port
from framework.udp import UdpEnd
from tshark import INFO, Tshark, key_line, key_lines

MINE, OTHERS = 0, 1
LABEL = 0x10001
KEY = Key(bytes(range(16)), "sha256")
HERE, THERE = ("127.0.0.1", 4600), ("127.0.0.2", 4600)
PORT = "lateral_ports:4600"
PEER = ("192.0.2.7", 40000)
CODE = b"neighbour's code"

TYPE, REFUSED = "vesk.lateral.type", "vesk.expert.refused"
STATUS, DIRECTION = "vesk.hmac.status", "vesk.direction"


def lateral(kind: int, framed: Optional[bytes] = None, address: bytes = socket_address_bytes(*PEER),
            length_byte: Optional[int] = None) -> Packet:
    framed = UDPV2.build(LABEL, b"payload", KEY) if framed is None else framed
    return Packet(HERE, THERE, build_lateral(kind, address, CODE, framed, length_byte))


@pytest.mark.parametrize("framing", [UDPV1, UDPV2], ids=lambda framing: framing.name)
@pytest.mark.parametrize("host", ["127.0.0.1", "::1"])
def test_lateral_datagrams_of_the_forwarder_are_dissected(start_vesk: StartVesk,
                                                          new_end: Callable[..., UdpEnd],
                                                          tshark: Tshark, framing: Framing,
                                                          host: str) -> None:
    """A datagram that it forwards to its neighbour, and a reply that it returns to it."""
    vesk = start_vesk(framing.name).ready()
    peer, upstream = new_end(host), new_end()
    port = shared_free_port([LOOPBACK[MINE], LOOPBACK[OTHERS]])
    neighbour, here = new_end(LOOPBACK[OTHERS], port), (LOOPBACK[MINE], port)
    join(vesk, MINE, {0: LOOPBACK[0], 1: LOOPBACK[1]}, port, 2)
    to = (host, vesk.listen(host))
    mine = Flow(owned_label(MINE), upstream.address, framing=framing, **four_keys())
    foreign = Flow(owned_label(OTHERS), framing=framing, down_in=Key(b"the neighbour's"))
    assert vesk.lines_after(mine.set_command()) == []

    peer.send(foreign.request(b"not mine"), to)
    forwarded = neighbour.receive().data
    address = socket_address_bytes(*peer.address)
    neighbour.send(build_lateral(FORWARDED, address, CODE, mine.request(b"mine")), here)
    asked = upstream.receive()
    upstream.send(mine.reply(b"an answer"), asked.sender)
    returned = neighbour.receive().data
    assert parse_lateral(returned).kind == RETURNED

    address_field = "vesk.lateral.address6" if ":" in host else "vesk.lateral.address"
    rows = tshark.of([Packet(here, neighbour.address, data) for data in (forwarded, returned)],
                     [TYPE, address_field, "vesk.lateral.port", "vesk.lateral.hmac", STATUS,
                      DIRECTION, "vesk.label"],
                     f"lateral_ports:{port}",
                     tshark.key_file(*key_lines(mine), *key_lines(foreign)))
    assert [list(row.values()) for row in rows] == [
        [str(FORWARDED), host, str(peer.port), parse_lateral(forwarded).authentication.hex(), "good",
         "from_peer", f"0x{foreign.label:08x}"],
        [str(RETURNED), host, str(peer.port), CODE.hex(), "good", "to_peer",
         f"0x{mine.down_label:08x}"]]


def test_the_info_column_summarizes_the_header(tshark: Tshark) -> None:
    packets = [lateral(FORWARDED), lateral(RETURNED, address=socket_address_bytes("2001:db8::7", 9)),
               lateral(FORWARDED, framed=b""), lateral(3)]
    assert tshark.column(packets, INFO, PORT, tshark.key_file(key_line(LABEL, KEY))) == [
        "forwarded for 192.0.2.7:40000, label 0x10001, HMAC good, 7 bytes",
        "returned for [2001:db8::7]:9, label 0x10001, HMAC good, 7 bytes",
        "forwarded for 192.0.2.7:40000, nothing behind it",
        "not a lateral datagram: type 3"]


def test_addresses_of_either_byte_order_are_shown(tshark: Tshark) -> None:
    """The family and the scope are in the byte order of the host that wrote them."""
    ipv4, ipv6 = socket_address_bytes(*PEER)[2:], socket_address_bytes("fe80::7", 40000)[2:24]
    addresses = [b"\x02\0" + ipv4, b"\0\x02" + ipv4,
                 b"\x0a\0" + ipv6 + b"\x05\0\0\0", b"\0\x0a" + ipv6 + b"\0\0\0\x05"]
    rows = tshark.of([lateral(FORWARDED, address=address) for address in addresses],
                     ["vesk.lateral.address", "vesk.lateral.address6", "vesk.lateral.port",
                      "vesk.lateral.scope"], PORT)
    assert [list(row.values()) for row in rows] == 2 * [["192.0.2.7", "", "40000", ""]] + 2 * [
        ["", "fe80::7", "40000", "5"]]


@pytest.mark.parametrize("address", [
    b"\x02\x00" + bytes(26), b"\x0a\x00" + bytes(14), b"\x03\x00" + bytes(14), b"\x02\x02" + bytes(14),
    socket_address_bytes(*PEER) + b"\0"])
def test_an_invalid_address_is_shown_as_bytes(tshark: Tshark, address: bytes) -> None:
    """The datagram is still valid, because only the host that wrote the address reads it."""
    row = tshark.of([lateral(FORWARDED, address=address)],
                    ["vesk.lateral.sockaddr", "vesk.lateral.port", "vesk.expert.address", STATUS],
                    PORT, tshark.key_file(key_line(LABEL, KEY)))[0]
    assert (row["vesk.lateral.sockaddr"], row["vesk.lateral.port"]) == (address.hex(), "")
    assert row["vesk.expert.address"] and row[STATUS] == "good"


@pytest.mark.parametrize("packet", [
    lateral(0), lateral(3), lateral(255), lateral(FORWARDED, length_byte=31),
    lateral(FORWARDED, length_byte=45), lateral(FORWARDED, framed=b"", length_byte=33)])
def test_invalid_headers_are_refused(tshark: Tshark, packet: Packet) -> None:
    row = tshark.of([packet], [REFUSED, TYPE, "vesk.label"], PORT)[0]
    assert row[REFUSED]
    assert (row[TYPE], row["vesk.label"]) == (str(packet.datagram[0]), "")


def test_short_captures_and_short_datagrams_are_distinguished(tshark: Tshark) -> None:
    whole = lateral(FORWARDED)
    size = len(whole.datagram)
    cut = [Packet(HERE, THERE, whole.datagram, kept) for kept in range(size + 1)]
    short = [Packet(HERE, THERE, whole.datagram[:length]) for length in range(1, size + 1)]
    options = [PORT, "framing:udpv2", tshark.key_file(key_line(LABEL, KEY))]
    statuses = tshark.column(cut, STATUS, *options)
    assert statuses == expected(size, "cut short")
    assert tshark.column(short, STATUS, *options) == expected(size, "bad")[1:]


def expected(size: int, in_payload: str) -> List[str]:
    header = size - len(b"payload")
    return [""] * header + [in_payload] * (size - header) + ["good"]


def test_a_correct_hmac_is_recognised_on_any_port(tshark: Tshark) -> None:
    packets = [lateral(RETURNED), lateral(FORWARDED, framed=UDPV2.build(LABEL, b"wrong", Key(b"no")))]
    assert tshark.column(packets, STATUS, tshark.key_file(key_line(LABEL, KEY))) == ["good", "bad"]


def test_decode_as_selects_the_dissector(tshark: Tshark) -> None:
    assert tshark.column([lateral(RETURNED)], TYPE, "-d", "udp.port==4600,vesk_lateral") == ["2"]
