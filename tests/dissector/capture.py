"""Writes capture files byte by byte from the datagrams that a test has sent and received."""

from __future__ import annotations

import ipaddress
import struct
from dataclasses import dataclass
from pathlib import Path
from typing import Iterable, List, Optional, Tuple

from framework.udp import Address

UDP_PROTOCOL = 17
IPV4_HEADER, UDP_HEADER = 20, 8
MORE_FRAGMENTS = 0x2000
_LINK_TYPE_RAW_IP = 101
_SNAP_LENGTH = 65535


@dataclass(frozen=True)
class Packet:
    """One captured datagram; `kept` is the number of captured bytes, all by default."""

    source: Address
    destination: Address
    datagram: bytes
    kept: Optional[int] = None

    def record(self) -> Tuple[bytes, int]:
        """The captured bytes and the original length."""
        udp = udp_packet(self)
        if ipaddress.ip_address(self.source[0]).version == 4:
            packet = ipv4_packet(self, udp)
        else:
            packet = struct.pack("!IHBB", 6 << 28, len(udp), UDP_PROTOCOL, 64)
            packet += _packed(self.source) + _packed(self.destination) + udp
        lost = 0 if self.kept is None else len(self.datagram) - self.kept
        return packet[:len(packet) - lost], len(packet)


def udp_packet(packet: Packet) -> bytes:
    # A checksum of zero means that there is none.
    return struct.pack("!HHHH", packet.source[1], packet.destination[1],
                       UDP_HEADER + len(packet.datagram), 0) + packet.datagram


def ipv4_packet(packet: Packet, content: bytes, fragment: int = 0, number: int = 1) -> bytes:
    """`fragment` is the header's field of flags and offset; fragments of one packet share a number."""
    return struct.pack("!BBHHHBBH", 0x45, 0, IPV4_HEADER + len(content), number, fragment, 64,
                       UDP_PROTOCOL, 0) + _packed(packet.source) + _packed(packet.destination) + content


def fragments(packet: Packet, size: int) -> List[Tuple[bytes, int]]:
    """The records of a packet that was sent in fragments; `size` is a multiple of 8."""
    udp = udp_packet(packet)
    records = []
    for offset in range(0, len(udp), size):
        more = MORE_FRAGMENTS if offset + size < len(udp) else 0
        piece = ipv4_packet(packet, udp[offset:offset + size], more | offset // 8)
        records.append((piece, len(piece)))
    return records


def write_records(path: Path, records: Iterable[Tuple[bytes, int]]) -> Path:
    header = struct.pack("=IHHiIII", 0xa1b2c3d4, 2, 4, 0, 0, _SNAP_LENGTH, _LINK_TYPE_RAW_IP)
    pieces = [header]
    for number, (captured, length) in enumerate(records):
        pieces += [struct.pack("=IIII", number, 0, len(captured), length), captured]
    path.write_bytes(b"".join(pieces))
    return path


def write(path: Path, packets: Iterable[Packet]) -> Path:
    return write_records(path, [packet.record() for packet in packets])


def _packed(address: Address) -> bytes:
    return ipaddress.ip_address(address[0]).packed
