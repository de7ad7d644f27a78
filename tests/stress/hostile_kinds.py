"""Kinds of hostile datagrams, and the sockets from which they are sent."""

from __future__ import annotations

import random
import socket
import struct
from dataclasses import dataclass
from typing import Callable, Dict, List, Sequence

from framework.flow import Flow
from framework.framing import (FORWARDED, LATERAL_HMAC_LENGTH, MAX_DATAGRAM, RETURNED, Framing, Key,
                               build_lateral, socket_address_bytes)
from framework.udp import Address

LARGEST_UDP_PAYLOAD = 65507
SMALLEST_LATERAL = 34
VARIANTS = 16

DOWNSTREAM = "downstream"
PORT_ZERO = "port zero"
LATERAL = "lateral"
UPSTREAM = "upstream"


@dataclass(frozen=True)
class Kind:
    """Similar datagrams, and the forwarder's socket to which they are sent."""

    name: str
    way: str
    datagrams: Sequence[bytes]


@dataclass(frozen=True)
class Surroundings:
    """What an attacker knows: labels, recorded datagrams and one recorded lateral header."""

    framing: Framing
    good_labels: Sequence[int]
    idle_flows: Sequence[Flow]
    victim: Flow
    unknown_label: int
    foreign_label: int
    peerless_label: int
    seen_address: bytes
    seen_code: bytes


class KindMaker:
    """Makes the kinds. The same seed gives the same datagrams."""

    def __init__(self, around: Surroundings, seed: int = 1) -> None:
        self._around = around
        self._framing = around.framing
        self._random = random.Random(seed)

    def all(self, raw_allowed: bool) -> List[Kind]:
        kinds = [Kind(name, DOWNSTREAM, self._variants(make))
                 for name, make in self._downstream().items()]
        kinds += [Kind(name, LATERAL, self._variants(make))
                  for name, make in self._lateral().items()]
        kinds.append(Kind("every lateral type", LATERAL, self._every_lateral_type()))
        kinds += [Kind(f"{name}, to a flow's own socket", UPSTREAM, self._variants(make))
                  for name, make in self._upstream().items()]
        if raw_allowed:
            kinds += [Kind(f"{name}, from port 0", PORT_ZERO, self._variants(make))
                      for name, make in self._from_port_zero().items()]
        return kinds

    def _variants(self, make: Callable[[], bytes]) -> List[bytes]:
        return [make() for _ in range(VARIANTS)]

    def _bytes(self, length: int) -> bytes:
        return self._random.randbytes(length)

    def _some_label(self) -> int:
        return self._random.choice(self._around.good_labels)

    def _wrong_tag(self, length: int, label: int = 0) -> bytes:
        """A datagram of this length whose header is valid except for the HMAC."""
        framing = self._framing
        sound = framing.build(label or self._some_label(),
                              bytes(max(0, length - framing.header_size)))
        return (self._bytes(framing.hmac_length) + sound[framing.hmac_length:])[:length]

    def _relabelled(self) -> bytes:
        """Signed correctly for another flow."""
        request = bytearray(self._around.victim.request(b"x" * 30))
        struct.pack_into("!I", request, self._framing.header_size - 4, self._some_label())
        return bytes(request)

    def _idle_flow_forged(self) -> bytes:
        flow = self._random.choice(self._around.idle_flows)
        return self._framing.build(flow.label, b"unsigned")

    def _lying_header_length(self) -> bytes:
        """If the framing has no such field, datagrams that look like the other framing."""
        if not self._framing.has_header_length:
            return self._framing.build(self._some_label(), bytes(18))
        length = self._random.choice([0, 1, 37, 78, 79, 2048, 65535])
        return self._framing.build(self._some_label(), bytes(40), header_length=length)

    def _downstream(self) -> Dict[str, Callable[[], bytes]]:
        around, framing = self._around, self._framing
        least = framing.header_size
        return {
            "empty": lambda: b"",
            "one byte": lambda: self._bytes(1),
            "one short of a header": lambda: self._bytes(least - 1),
            "a header alone": lambda: self._wrong_tag(least),
            "one byte of payload": lambda: self._wrong_tag(least + 1),
            "2,047 bytes": lambda: self._wrong_tag(MAX_DATAGRAM - 1),
            "2,048 bytes": lambda: self._wrong_tag(MAX_DATAGRAM),
            "2,049 bytes": lambda: self._wrong_tag(MAX_DATAGRAM + 1),
            "65,507 bytes": lambda: self._wrong_tag(LARGEST_UDP_PAYLOAD),
            "a wrong tag": lambda: self._wrong_tag(100),
            "no tag": lambda: framing.build(self._some_label(), b"unsigned"),
            "another flow's tag": self._relabelled,
            "a wrong tag to an idle flow": self._idle_flow_forged,
            "an unknown label": lambda: framing.build(around.unknown_label, b"x"),
            "label 0": lambda: framing.build(0, b"x"),
            "a replay": lambda: around.victim.request(b"recorded"),
            "a lying header length": self._lying_header_length,
            "another instance's label": lambda: framing.build(around.foreign_label, b"x"),
            "another instance's label, no room for a header":
                lambda: framing.build(around.foreign_label, bytes(MAX_DATAGRAM - 40)),
            "an absent instance's label": lambda: framing.build(around.peerless_label, b"x"),
            "a lateral header": lambda: self._handed(around.victim.request(b"x")),
            "noise": lambda: self._bytes(self._random.randrange(1, 1500)),
        }

    def _handed(self, framed: bytes, kind: int = FORWARDED,
                length_byte: int | None = None) -> bytes:
        address = self._random.choice([socket_address_bytes("192.0.2.1", 7),
                                       socket_address_bytes("2001:db8::1", 7),
                                       self._bytes(16), bytes(28)])
        return build_lateral(kind, address, self._bytes(LATERAL_HMAC_LENGTH), framed, length_byte)

    def _returned(self, code: bytes) -> bytes:
        return build_lateral(RETURNED, self._around.seen_address, code, b"returned")

    def _another_instances_code(self) -> bytes:
        own_key = Key(b"another instance", "sha256")
        address = self._around.seen_address
        return own_key.digest(bytes([len(address) + LATERAL_HMAC_LENGTH]) + address)[:16]

    def _lateral(self) -> Dict[str, Callable[[], bytes]]:
        around, framing = self._around, self._framing
        lies = [0, 1, 31, 33, 43, 45, 255]
        good_request = around.victim.request
        return {
            "empty, lateral": lambda: b"",
            "one byte, lateral": lambda: self._bytes(1),
            "one short of a lateral header": lambda: bytes([1, 32]) + bytes(SMALLEST_LATERAL - 3),
            "a lateral header alone":
                lambda: build_lateral(FORWARDED, bytes(16), bytes(16), b""),
            "a lateral header cut short":
                lambda: bytes([2, 44]) + self._bytes(SMALLEST_LATERAL - 2),
            "a lying lateral length": lambda: self._handed(
                good_request(b"x"), length_byte=self._random.choice(lies)),
            "handed over, a wrong tag": lambda: self._handed(self._wrong_tag(100)),
            "handed over, short": lambda: self._handed(self._bytes(framing.header_size - 1)),
            "handed over, unknown": lambda: self._handed(framing.build(around.unknown_label, b"x")),
            "handed over, a replay": lambda: self._handed(good_request(b"recorded")),
            "handed over twice": lambda: self._handed(framing.build(around.foreign_label, b"x")),
            "handed over, 2,048 bytes": lambda: self._handed(self._wrong_tag(MAX_DATAGRAM))[:2048],
            "handed over, 65,507 bytes": lambda: self._handed(bytes(LARGEST_UDP_PAYLOAD))[:65507],
            "returned, forged": lambda: self._returned(self._bytes(LATERAL_HMAC_LENGTH)),
            "returned, another instance's": lambda: self._returned(self._another_instances_code()),
            "returned, to a forged address": lambda: build_lateral(
                RETURNED, self._bytes(16), around.seen_code, b"x"),
            "returned again": lambda: self._returned(around.seen_code),
        }

    def _every_lateral_type(self) -> List[bytes]:
        framed = self._framing.build(self._around.unknown_label, b"x")
        return [self._handed(framed, kind) for kind in range(256)]

    def _upstream(self) -> Dict[str, Callable[[], bytes]]:
        """All of them with the flow's own label, since another label would be counted twice."""
        label = self._around.victim.label
        return {
            "empty": lambda: b"",
            "one byte": lambda: self._bytes(1),
            "one short of a header": lambda: self._bytes(self._framing.header_size - 1),
            "a wrong tag": lambda: self._framing.build(label, b"unsigned"),
            "65,507 bytes": lambda: self._wrong_tag(LARGEST_UDP_PAYLOAD, label),
        }

    def _from_port_zero(self) -> Dict[str, Callable[[], bytes]]:
        return {
            "a wrong tag": lambda: self._wrong_tag(100),
            "a replay": lambda: self._around.victim.request(b"recorded"),
        }


class PortZeroSender:
    """Sends UDP datagrams with source port 0, which only a raw socket can do."""

    def __init__(self) -> None:
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_UDP)

    def send(self, data: bytes, to: Address) -> None:
        header = struct.pack("!HHHH", 0, to[1], 8 + len(data), 0)
        self._socket.sendto(header + data, (to[0], 0))

    def close(self) -> None:
        self._socket.close()


def raw_sockets_allowed() -> bool:
    try:
        PortZeroSender().close()
    except PermissionError:
        return False
    return True
