"""A second implementation of the two datagram framings and the lateral header.

udpv1:  HMAC (32) | header length (2) | label (4) | further header bytes | payload
udpv2:  HMAC (16) | label (4) | payload

All numbers are big-endian. The HMAC covers everything after its field, but udpv1 hashes
the payload first and then the header bytes.
"""

from __future__ import annotations

import hashlib
import hmac
import ipaddress
import socket
import struct
from dataclasses import dataclass
from typing import Optional

MAX_DATAGRAM = 2048

FORWARDED = 1
RETURNED = 2
LATERAL_HMAC_LENGTH = 16

_DIGESTS = {"sha1": hashlib.sha1, "sha256": hashlib.sha256}


@dataclass(frozen=True)
class Key:
    """A shared secret and its algorithm."""

    secret: bytes
    algorithm: str = "sha256"

    def digest(self, *pieces: bytes) -> bytes:
        code = hmac.new(self.secret, digestmod=_DIGESTS[self.algorithm])
        for piece in pieces:
            code.update(piece)
        return code.digest()


@dataclass(frozen=True)
class Datagram:
    """The fields of a framed datagram."""

    authentication: bytes
    label: int
    extra: bytes
    payload: bytes


@dataclass(frozen=True)
class Framing:
    """The offsets of the fields in one framing version."""

    version: int
    hmac_length: int
    has_header_length: bool

    @property
    def name(self) -> str:
        return f"udpv{self.version}"

    @property
    def header_size(self) -> int:
        return self.hmac_length + (2 if self.has_header_length else 0) + 4

    def build(self, label: int, payload: bytes, key: Optional[Key] = None,
              extra: bytes = b"", header_length: Optional[int] = None) -> bytes:
        """A signed datagram. `header_length` overrides the true one, for bad datagrams."""
        fields = struct.pack("!I", label)
        if self.has_header_length:
            if header_length is None:
                header_length = self.header_size + len(extra)
            fields = struct.pack("!H", header_length) + fields + extra
        elif extra:
            raise ValueError(f"{self.name} has no room for further header bytes")
        return self.authentication(fields, payload, key) + fields + payload

    def authentication(self, fields: bytes, payload: bytes, key: Optional[Key]) -> bytes:
        if key is None:
            return bytes(self.hmac_length)
        if self.has_header_length:
            digest = key.digest(payload, fields)
        else:
            digest = key.digest(fields, payload)
        return digest[:self.hmac_length].ljust(self.hmac_length, b"\0")

    def parse(self, datagram: bytes) -> Datagram:
        if len(datagram) < self.header_size:
            raise ValueError(f"{len(datagram)} bytes are too short for {self.name}")
        position = self.hmac_length
        payload_at = self.header_size
        if self.has_header_length:
            (payload_at,) = struct.unpack_from("!H", datagram, position)
            position += 2
        (label,) = struct.unpack_from("!I", datagram, position)
        position += 4
        if self.has_header_length and not position <= payload_at < len(datagram):
            raise ValueError(f"header length {payload_at} of {len(datagram)} bytes")
        return Datagram(datagram[:self.hmac_length], label,
                        datagram[position:payload_at], datagram[payload_at:])

    def open(self, datagram: bytes, key: Optional[Key]) -> Datagram:
        """Parses a datagram and checks its HMAC."""
        parsed = self.parse(datagram)
        fields = datagram[self.hmac_length:len(datagram) - len(parsed.payload)]
        expected = self.authentication(fields, parsed.payload, key)
        if parsed.authentication != expected:
            raise AssertionError(
                f"HMAC is {parsed.authentication.hex()}, expected {expected.hex()} "
                f"on label {parsed.label} with {len(parsed.payload)} bytes of payload")
        return parsed


UDPV1 = Framing(version=1, hmac_length=32, has_header_length=True)
UDPV2 = Framing(version=2, hmac_length=16, has_header_length=False)


def socket_address_bytes(host: str, port: int) -> bytes:
    """A socket address in this host's layout, as the lateral header contains it."""
    address = ipaddress.ip_address(host)
    if address.version == 4:
        return (struct.pack("=H", socket.AF_INET) + struct.pack("!H", port) + address.packed
                + bytes(8))
    return (struct.pack("=H", socket.AF_INET6) + struct.pack("!HI", port, 0)
            + address.packed + struct.pack("=I", 0))


@dataclass(frozen=True)
class LateralDatagram:
    """The fields of a lateral datagram."""

    kind: int
    address: bytes
    authentication: bytes
    framed: bytes


def build_lateral(kind: int, address: bytes, authentication: bytes, framed: bytes,
                  length_byte: Optional[int] = None) -> bytes:
    """`length_byte` overrides the true one, for bad headers."""
    if length_byte is None:
        length_byte = len(address) + LATERAL_HMAC_LENGTH
    return bytes([kind, length_byte]) + address + authentication + framed


def parse_lateral(datagram: bytes) -> LateralDatagram:
    kind, length_byte = datagram[0], datagram[1]
    header_length = 2 + length_byte
    if len(datagram) < header_length or length_byte < LATERAL_HMAC_LENGTH:
        raise ValueError(f"lateral header of {length_byte} bytes in {len(datagram)}")
    hmac_at = header_length - LATERAL_HMAC_LENGTH
    return LateralDatagram(kind, datagram[2:hmac_at], datagram[hmac_at:header_length],
                           datagram[header_length:])
