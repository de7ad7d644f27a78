"""The two framings: making, reading, checking and relabelling datagrams."""

from __future__ import annotations

import enum
import hmac
from dataclasses import dataclass
from typing import Final

from ._key import Key

# The longest datagram, its header included.
MAX_DATAGRAM: Final = 2048

_LABEL_LENGTH: Final = 4
_UDP_HEADER: Final = 8
_LARGEST_LABEL: Final = 0xFFFFFFFF


class Framing(enum.Enum):
    """The framing of the forwarder, which its command line chooses."""

    UDPV1 = "udpv1"
    UDPV2 = "udpv2"


class IpVersion(enum.Enum):
    IPV4 = 4
    IPV6 = 6


class Reason(enum.Enum):
    """Why a datagram is refused. The first reason that applies, in this order, is given."""

    # Longer than 2,048 bytes.
    TOO_LONG = "too_long"
    # Shorter than the header: 38 bytes in UDPv1, 20 bytes in UDPv2.
    TOO_SHORT = "too_short"
    # UDPv1: the header length is below 38, or leaves no payload.
    HEADER_LENGTH = "header_length"
    # The HMAC is not that of an accepted key; with an empty key, it is not zero.
    HMAC = "hmac"


class Refused(Exception):
    """A datagram is refused. `reason` says why."""

    def __init__(self, reason: Reason) -> None:
        super().__init__(reason)
        self.reason = reason

    def __str__(self) -> str:
        return _TEXTS[self.reason]


_TEXTS: Final = {
    Reason.TOO_LONG: f"the datagram is longer than {MAX_DATAGRAM:,} bytes",
    Reason.TOO_SHORT: "the datagram is shorter than its header",
    Reason.HEADER_LENGTH: "the header length is wrong",
    Reason.HMAC: "the HMAC is wrong",
}


class Match(enum.Enum):
    """Which of two keys a datagram is signed with."""

    # The HMAC was not checked.
    NONE = 0
    KEY = 1
    OLD_KEY = 2


@dataclass(frozen=True)
class Datagram:
    """The fields of a datagram."""

    label: int
    payload: bytes
    # UDPv1: the header bytes behind the label, which forwarders pass on unchanged.
    further: bytes
    match: Match


# The length of the HMAC field, and whether a field with the header length follows it.
_FORMS: Final = {Framing.UDPV1: (32, 2), Framing.UDPV2: (16, 0)}


def header_length(framing: Framing, further_length: int = 0) -> int:
    """The offset of the payload behind this many further header bytes.

    Raises ValueError if the number is negative, and in UDPv2 if there are any.
    """
    if further_length < 0:
        raise ValueError(f"a length is not negative: {further_length}")
    if framing is Framing.UDPV2 and further_length:
        raise ValueError("UDPv2 has no further header bytes")
    hmac_length, length_field = _FORMS[framing]
    return hmac_length + length_field + _LABEL_LENGTH + further_length


def make(framing: Framing, label: int, payload: bytes, key: Key, *, further: bytes = b"") -> bytes:
    """A signed datagram.

    Raises ValueError if the label does not fit into 32 bits, if the datagram would be longer than 2,048 bytes, and in
    UDPv1 for an empty payload, in UDPv2 for further header bytes.
    """
    _require_label(label)
    if framing is Framing.UDPV1 and not payload:
        raise ValueError("a payload in UDPv1 has at least one byte")
    offset = header_length(framing, len(further))
    if offset + len(payload) > MAX_DATAGRAM:
        raise ValueError(f"a datagram has at most {MAX_DATAGRAM:,} bytes, not {offset + len(payload):,}")
    header = label.to_bytes(_LABEL_LENGTH, "big") + further
    if framing is Framing.UDPV1:
        header = offset.to_bytes(2, "big") + header
    return b"".join((_hmac(framing, header, payload, key), header, payload))


def parse(framing: Framing, datagram: bytes) -> Datagram:
    """Reads a datagram without checking its HMAC, so that the key can be chosen by the label.

    Raises Refused with a reason other than HMAC.
    """
    datagram = bytes(datagram)
    offset = _payload_offset(framing, datagram)
    label_at = sum(_FORMS[framing])
    further_at = label_at + _LABEL_LENGTH
    return Datagram(int.from_bytes(datagram[label_at:further_at], "big"), datagram[offset:],
                    datagram[further_at:offset], Match.NONE)


def check(framing: Framing, datagram: bytes, key: Key, old_key: Key | None = None) -> Datagram:
    """Reads a datagram and checks its HMAC, which is compared in constant time.

    While keys are changed, `old_key` is the second key that is accepted. Raises Refused.
    """
    datagram = bytes(datagram)
    found = parse(framing, datagram)
    if _is_signed(framing, datagram, len(found.payload), key):
        return Datagram(found.label, found.payload, found.further, Match.KEY)
    if old_key is not None and _is_signed(framing, datagram, len(found.payload), old_key):
        return Datagram(found.label, found.payload, found.further, Match.OLD_KEY)
    raise Refused(Reason.HMAC)


def relabel(framing: Framing, datagram: bytes, label: int, key: Key) -> bytes:
    """The same datagram with another label, signed with this key.

    Does not check the HMAC that it replaces: call `check` first. Raises Refused with a reason other than HMAC, and
    ValueError if the label does not fit into 32 bits.
    """
    _require_label(label)
    datagram = bytes(datagram)
    offset = _payload_offset(framing, datagram)
    hmac_length, length_field = _FORMS[framing]
    label_at = hmac_length + length_field
    header = (datagram[hmac_length:label_at] + label.to_bytes(_LABEL_LENGTH, "big")
              + datagram[label_at + _LABEL_LENGTH:offset])
    return _hmac(framing, header, datagram[offset:], key) + header + datagram[offset:]


def largest_payload(framing: Framing, mtu: int, ip: IpVersion = IpVersion.IPV4, *, further_length: int = 0) -> int:
    """The longest payload of a datagram that is not fragmented where packets have at most `mtu` bytes.

    The MTU includes the IP header, which is taken to have no options. The result is never more than fits into 2,048
    bytes. Raises ValueError if not even the shortest payload fits, and in UDPv2 for further header bytes.
    """
    ip_header = 20 if ip is IpVersion.IPV4 else 40
    found = min(mtu - ip_header - _UDP_HEADER, MAX_DATAGRAM) - header_length(framing, further_length)
    if found < (1 if framing is Framing.UDPV1 else 0):
        raise ValueError(f"an MTU of {mtu} bytes leaves no room for a payload")
    return found


def _require_label(label: int) -> None:
    if not 0 <= label <= _LARGEST_LABEL:
        raise ValueError(f"a label has 32 bits: {label}")


def _payload_offset(framing: Framing, datagram: bytes) -> int:
    """The offset of the payload. Raises Refused if the datagram has none."""
    shortest = header_length(framing)
    if len(datagram) > MAX_DATAGRAM:
        raise Refused(Reason.TOO_LONG)
    if len(datagram) < shortest:
        raise Refused(Reason.TOO_SHORT)
    hmac_length, length_field = _FORMS[framing]
    if not length_field:
        return shortest
    offset = int.from_bytes(datagram[hmac_length:hmac_length + length_field], "big")
    if not shortest <= offset < len(datagram):
        raise Refused(Reason.HEADER_LENGTH)
    return offset


def _is_signed(framing: Framing, datagram: bytes, payload_length: int, key: Key) -> bool:
    hmac_length = _FORMS[framing][0]
    offset = len(datagram) - payload_length
    expected = _hmac(framing, datagram[hmac_length:offset], datagram[offset:], key)
    return hmac.compare_digest(datagram[:hmac_length], expected)


def _hmac(framing: Framing, header: bytes, payload: bytes, key: Key) -> bytes:
    """The HMAC field. The header begins behind it."""
    length = _FORMS[framing][0]
    if framing is Framing.UDPV1:
        return key._hmac(payload, header, length)
    return key._hmac(header, payload, length)
