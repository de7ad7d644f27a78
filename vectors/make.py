"""Writes the test vectors of the wire format, docs/wire-format.md, as JSON files beside this script.
docs/vectors.md describes the files. The same script always writes the same bytes.

This is an implementation of its own: it uses no code of the forwarder, of its tests or of the framing library.

Usage: make.py [--check]   (--check: writes nothing, and fails if a file is missing, left over or out of date)
"""

from __future__ import annotations

import hmac
import ipaddress
import json
import struct
import sys
from pathlib import Path
from typing import Any, Dict, Iterator, List, NamedTuple, Tuple

Vector = Dict[str, Any]

LARGEST = 2048
LABELS = (0, 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF)
FRAMINGS = ("udpv1", "udpv2")
DIGESTS = ("sha1", "sha256")
LATERAL_KEY = bytes(range(0xA0, 0xB0))


class Key(NamedTuple):
    """A key and the digest that it is used with. Without bytes it is no key."""

    digest: str
    secret: bytes


def counted(length: int, first: int = 0) -> bytes:
    """Bytes that differ from their neighbours, so that an omitted or moved byte is noticed."""
    return bytes((first + place) % 256 for place in range(length))


def key_of(length: int) -> bytes:
    """Keys of different lengths do not begin with the same bytes, and none ends with a zero."""
    return bytes((31 * length + 7 * place) % 255 + 1 for place in range(length))


KEYS = {digest: Key(digest, counted(16)) for digest in DIGESTS}
OTHER_KEYS = {digest: Key(digest, counted(16, 0x10)) for digest in DIGESTS}
NO_KEY = Key("sha256", b"")


def hmac_length(framing: str) -> int:
    return 32 if framing == "udpv1" else 16


def label_offset(framing: str) -> int:
    return 34 if framing == "udpv1" else 16


def smallest_header(framing: str) -> int:
    return 38 if framing == "udpv1" else 20


def hmac_field(key: Key, covered: bytes, length: int) -> bytes:
    """The digest, cut or padded with zeros to the length of the field; zeros without a key."""
    if not key.secret:
        return bytes(length)
    return hmac.new(key.secret, covered, key.digest).digest()[:length].ljust(length, b"\0")


def framed(framing: str, key: Key, label: int, payload: bytes, further: bytes = b"") -> bytes:
    if framing == "udpv2":
        covered = struct.pack(">I", label) + payload
        return hmac_field(key, covered, 16) + covered
    header = struct.pack(">HI", 38 + len(further), label) + further
    return hmac_field(key, payload + header, 32) + header + payload


def datagram_vector(name: str, framing: str, key: Key, label: int, payload: bytes, further: bytes = b"") -> Vector:
    datagram = framed(framing, key, label, payload, further)
    return {"id": name, "framing": framing, "digest": key.digest, "key": key.secret.hex(), "label": label,
            "further": further.hex(), "payload": payload.hex(), "header_length": len(datagram) - len(payload),
            "hmac": datagram[:hmac_length(framing)].hex(), "datagram": datagram.hex()}


def named_keys() -> Iterator[Tuple[str, Key]]:
    yield from KEYS.items()
    yield "no-key", NO_KEY


def plain_datagrams() -> Iterator[Vector]:
    for framing in FRAMINGS:
        for name, key in named_keys():
            yield datagram_vector(f"{framing}-{name}", framing, key, 0x10001, b"hello")
            for label in LABELS:
                yield datagram_vector(f"{framing}-{name}-label-{label:08x}", framing, key, label, b"hello")
    for name, key in named_keys():
        yield datagram_vector(f"udpv1-{name}-further-1", "udpv1", key, 0x10001, b"hello", b"\xaa")
        yield datagram_vector(f"udpv1-{name}-further-2", "udpv1", key, 0x10001, b"hello", b"\xaa\xbb")
        # A header length of 294 needs both bytes of its field.
        yield datagram_vector(f"udpv1-{name}-further-256", "udpv1", key, 0x10001, b"hello", counted(256))
        yield datagram_vector(f"udpv1-{name}-payload-1", "udpv1", key, 0x10001, b"x")
        yield datagram_vector(f"udpv2-{name}-payload-0", "udpv2", key, 0x10001, b"")
        yield datagram_vector(f"udpv2-{name}-payload-1", "udpv2", key, 0x10001, b"x")
        # Bytes 20 to 31 are zero, as in a UDPv1 datagram without a key.
        yield datagram_vector(f"udpv2-{name}-payload-zeros", "udpv2", key, 0x10001, bytes(20))


def largest_datagrams() -> Iterator[Vector]:
    key = KEYS["sha256"]
    for framing in FRAMINGS:
        yield datagram_vector(f"{framing}-sha256-largest", framing, key, 0x10001,
                              counted(LARGEST - smallest_header(framing)))
    yield datagram_vector("udpv1-sha256-largest-header", "udpv1", key, 0x10001, b"x", counted(LARGEST - 39))


def key_datagrams() -> Iterator[Vector]:
    """UDPv1, whose HMAC field holds the whole digest."""
    for digest in DIGESTS:
        for length in range(1, 129):
            yield datagram_vector(f"udpv1-{digest}-key-{length:03}", "udpv1", Key(digest, key_of(length)), 0x10001,
                                  b"hello")
    for digest in DIGESTS:
        for length in (1, 20, 32, 63, 64, 65, 127, 128):
            yield datagram_vector(f"udpv2-{digest}-key-{length:03}", "udpv2", Key(digest, key_of(length)), 0x10001,
                                  b"hello")
        # A key of one zero byte is a key.
        yield datagram_vector(f"udpv2-{digest}-key-zero", "udpv2", Key(digest, b"\0"), 0x10001, b"hello")


def relabel_vector(name: str, framing: str, before: Key, after: Key, labels: Tuple[int, int], payload: bytes,
                   further: bytes = b"") -> Vector:
    return {"id": name, "framing": framing,
            "from_digest": before.digest, "from_key": before.secret.hex(),
            "in_datagram": framed(framing, before, labels[0], payload, further).hex(),
            "to_digest": after.digest, "to_key": after.secret.hex(), "to_label": labels[1],
            "out_datagram": framed(framing, after, labels[1], payload, further).hex()}


def relabelled() -> Iterator[Vector]:
    others = {**OTHER_KEYS, "no-key": NO_KEY}
    for framing in FRAMINGS:
        for name, key in named_keys():
            for other_name, other in others.items():
                yield relabel_vector(f"{framing}-{name}-to-{other_name}", framing, key, other, (0x10001, 0x20001),
                                     b"hello")
        for label in LABELS:
            yield relabel_vector(f"{framing}-to-label-{label:08x}", framing, KEYS["sha256"], OTHER_KEYS["sha256"],
                                 (0x10001, label), b"hello")
    yield relabel_vector("udpv1-further", "udpv1", KEYS["sha256"], OTHER_KEYS["sha1"], (1, 2), b"hello", b"\xaa\xbb")
    yield relabel_vector("udpv2-payload-0", "udpv2", KEYS["sha256"], OTHER_KEYS["sha1"], (1, 2), b"")
    yield relabel_vector("udpv2-largest", "udpv2", KEYS["sha256"], OTHER_KEYS["sha256"], (1, 2),
                         counted(LARGEST - 20))


def socket_address(host: str, port: int) -> bytes:
    """As a little-endian Linux host stores it: sockaddr_in or sockaddr_in6."""
    address = ipaddress.ip_address(host)
    if address.version == 4:
        return struct.pack("<H", 2) + struct.pack(">H", port) + address.packed + bytes(8)
    return struct.pack("<H", 10) + struct.pack(">HI", port, 0) + address.packed + bytes(4)


def return_information(address: bytes, key: bytes = LATERAL_KEY) -> bytes:
    covered = bytes([len(address) + 16]) + address
    return covered + hmac_field(Key("sha256", key), covered, 16)


def lateral_vector(name: str, kind: int, host: str, port: int, inner: bytes) -> Vector:
    address = socket_address(host, port)
    kept = return_information(address)
    return {"id": name, "type": kind, "byte_order": "little", "host": host, "port": port, "address": address.hex(),
            "lateral_key": LATERAL_KEY.hex(), "hmac": kept[-16:].hex(), "return_information": kept.hex(),
            "framed": inner.hex(), "datagram": (bytes([kind]) + kept + inner).hex()}


HOSTS = {"ipv4": ("192.0.2.7", 40000, 34), "ipv6": ("2001:db8::7", 40000, 46),
         "ipv4-mapped": ("::ffff:192.0.2.7", 40000, 46)}


def lateral_datagrams() -> Iterator[Vector]:
    inner = {framing: framed(framing, KEYS["sha256"], 0x10001, b"hello") for framing in FRAMINGS}
    for name, (host, port, header) in HOSTS.items():
        for kind, way in ((1, "forwarded"), (2, "returned")):
            for framing in FRAMINGS:
                yield lateral_vector(f"{name}-{way}-{framing}", kind, host, port, inner[framing])
        yield lateral_vector(f"{name}-returned-empty", 2, host, port, b"")
        if name != "ipv4-mapped":
            yield lateral_vector(f"{name}-forwarded-largest", 1, host, port,
                                 framed("udpv2", KEYS["sha256"], 0x10001, counted(LARGEST - header - 20)))


def flipped(datagram: bytes, place: int, mask: int = 1) -> bytes:
    return datagram[:place] + bytes([datagram[place] ^ mask]) + datagram[place + 1:]


def refusal(name: str, reason: str, cause: str, framing: str, key: Key, datagram: bytes) -> Vector:
    return {"id": name, "operation": "datagram", "reason": reason, "cause": cause, "framing": framing,
            "digest": key.digest, "key": key.secret.hex(), "datagram": datagram.hex()}


def refused_lengths() -> Iterator[Vector]:
    for framing in FRAMINGS:
        for name, key in named_keys():
            whole = framed(framing, key, 0x10001, b"hello")
            for length in (0, 1, smallest_header(framing) - 1):
                yield refusal(f"{framing}-{name}-length-{length}", "too_short", "cut", framing, key, whole[:length])
        key = KEYS["sha256"]
        yield refusal(f"{framing}-sha256-length-2049", "too_long", "longer_than_2048", framing, key,
                      framed(framing, key, 0x10001, counted(LARGEST + 1 - smallest_header(framing))))


def with_header_length(datagram: bytes, length: int) -> bytes:
    return datagram[:32] + struct.pack(">H", length) + datagram[34:]


def refused_header_lengths() -> Iterator[Vector]:
    for name, key in named_keys():
        whole = framed("udpv1", key, 0x10001, b"hello")
        for length, cause in ((0, "below_38"), (37, "below_38"), (43, "equal_to_length"), (44, "above_length"),
                              (0x2600, "above_length"), (65535, "above_length")):
            yield refusal(f"udpv1-{name}-header-length-{length}", "header_length", cause, "udpv1", key,
                          with_header_length(whole, length))
        yield refusal(f"udpv1-{name}-payload-0", "header_length", "equal_to_length", "udpv1", key,
                      framed("udpv1", key, 0x10001, b""))


def bit_places(framing: str, datagram: bytes, payload_at: int) -> Iterator[Tuple[str, int]]:
    """The cause and the place of each byte in which one bit is flipped."""
    field = hmac_length(framing)
    # The last byte of a truncated and of a whole digest, and the padding behind SHA-1.
    for place in sorted({0, 15, 16, 19, 20, 31} & set(range(field))):
        yield "bit_in_hmac", place
    if framing == "udpv1":
        # The header length is then 41, which is in range.
        yield "bit_in_header_length", 33
        yield "bit_in_further_header", payload_at - 1
    for place in (label_offset(framing), label_offset(framing) + 3):
        yield "bit_in_label", place
    for place in (payload_at, len(datagram) - 1):
        yield "bit_in_payload", place


def refused_bits() -> Iterator[Vector]:
    for framing in FRAMINGS:
        further = b"\xaa\xbb" if framing == "udpv1" else b""
        for digest, key in KEYS.items():
            whole = framed(framing, key, 0x10001, b"hello", further)
            for cause, place in bit_places(framing, whole, smallest_header(framing) + len(further)):
                yield refusal(f"{framing}-{digest}-bit-at-{place}", "hmac", cause, framing, key,
                              flipped(whole, place))
        whole = framed(framing, NO_KEY, 0x10001, b"hello")
        for place in (0, hmac_length(framing) - 1):
            for mask in (0x01, 0x80):
                yield refusal(f"{framing}-no-key-hmac-{mask:02x}-at-{place}", "hmac", "hmac_without_key", framing,
                              NO_KEY, flipped(whole, place, mask))


def refused_signatures() -> Iterator[Vector]:
    for framing in FRAMINGS:
        for digest, key in KEYS.items():
            content = (0x10001, b"hello")
            signed_by = {"other_key": OTHER_KEYS[digest], "other_digest": KEYS[DIGESTS[digest == "sha1"]],
                         "no_key": NO_KEY, "key_cut": Key(digest, key.secret[:-1]),
                         "key_longer": Key(digest, key.secret + b"\x10")}
            for cause, signer in signed_by.items():
                yield refusal(f"{framing}-{digest}-{cause.replace('_', '-')}", "hmac", cause, framing, key,
                              framed(framing, signer, *content))
        yield refusal(f"{framing}-no-key-signed", "hmac", "hmac_without_key", framing, NO_KEY,
                      framed(framing, KEYS["sha256"], *content))
    yield from refused_fields()


def refused_fields() -> Iterator[Vector]:
    """HMACs that are computed correctly and written wrongly."""
    for digest, key in KEYS.items():
        whole = framed("udpv1", key, 0x10001, b"hello")
        yield refusal(f"udpv1-{digest}-header-first", "hmac", "header_before_payload", "udpv1", key,
                      hmac_field(key, whole[32:], 32) + whole[32:])
        yield refusal(f"udpv1-{digest}-cut-to-16", "hmac", "hmac_cut", "udpv1", key,
                      whole[:16] + bytes(16) + whole[32:])
    cut = framed("udpv1", KEYS["sha256"], 0x10001, b"hello")
    yield refusal("udpv1-sha256-cut-to-20", "hmac", "hmac_cut", "udpv1", KEYS["sha256"],
                  cut[:20] + bytes(12) + cut[32:])


def refused_keys() -> Iterator[Vector]:
    for digest in DIGESTS:
        for length in (0, 129):
            yield {"id": f"{digest}-key-length-{length}", "operation": "key", "reason": "key_length",
                   "cause": "no_byte" if length == 0 else "longer_than_128", "digest": digest,
                   "key": key_of(length).hex()}


def lateral_refusal(name: str, reason: str, cause: str, datagram: bytes) -> Vector:
    return {"id": name, "operation": "lateral", "reason": reason, "cause": cause, "byte_order": "little",
            "key": LATERAL_KEY.hex(), "datagram": datagram.hex()}


def refused_lateral() -> Iterator[Vector]:
    inner = framed("udpv2", KEYS["sha256"], 0x10001, b"hello")
    for name in ("ipv4", "ipv6"):
        host, port, header = HOSTS[name]
        kept = return_information(socket_address(host, port))
        whole = b"\x02" + kept + inner
        for length in (0, 1, 2, 33):
            yield lateral_refusal(f"{name}-length-{length}", "lateral_too_short", "cut", whole[:length])
        for kind in (0, 3, 255):
            yield lateral_refusal(f"{name}-type-{kind}", "lateral_type", "unknown_type", bytes([kind]) + whole[1:])
        for cause, place in (("bit_in_hmac", header - 16), ("bit_in_hmac", header - 1), ("bit_in_address", 2),
                             ("bit_in_address", 4), ("bit_in_address", header - 17)):
            yield lateral_refusal(f"{name}-bit-at-{place}", "lateral_hmac", cause, flipped(whole, place))
        yield lateral_refusal(f"{name}-other-key", "lateral_hmac", "other_key",
                              b"\x02" + return_information(socket_address(host, port), counted(16)) + inner)
        yield lateral_refusal(f"{name}-no-hmac", "lateral_hmac", "no_key", b"\x02" + kept[:-16] + bytes(16) + inner)
        if header > 34:
            yield lateral_refusal(f"{name}-length-{header - 1}", "lateral_length", "above_length", whole[:header - 1])
    yield from refused_lateral_addresses(inner)


def refused_lateral_addresses(inner: bytes) -> Iterator[Vector]:
    for length in (0, 16, 31, 45, 255):
        yield lateral_refusal(f"length-byte-{length}", "lateral_length",
                              "below_32" if length < 32 else "above_44", bytes([2, length]) + bytes(300))
    ipv4 = socket_address("192.0.2.7", 40000)
    for cause, address in (("unknown_family", b"\0\0" + ipv4[2:]), ("address_longer_than_family", ipv4 + b"\0"),
                           ("address_longer_than_family", ipv4 + bytes(12)),
                           ("address_shorter_than_family", b"\x0a" + ipv4[1:])):
        yield lateral_refusal(f"address-{len(address)}-family-{address[0]}", "lateral_address", cause,
                              b"\x02" + return_information(address) + inner)


FILES = {
    "datagrams": ("datagrams", "Datagrams that are accepted: framings, digests, labels, payloads, sizes.",
                  lambda: [*plain_datagrams(), *largest_datagrams()]),
    "keys": ("datagrams", "Datagrams that are accepted: keys of every length.", lambda: [*key_datagrams()]),
    "relabel": ("relabel", "Datagrams before and after they get another label and HMAC.", lambda: [*relabelled()]),
    "lateral": ("lateral", "Datagrams between two instances, with the lateral header.",
                lambda: [*lateral_datagrams()]),
    "refusals": ("refusals", "Keys and datagrams that are refused, with the reason.",
                 lambda: [*refused_keys(), *refused_lengths(), *refused_header_lengths(), *refused_bits(),
                          *refused_signatures(), *refused_lateral()]),
}


def texts() -> Dict[str, str]:
    """The content of each file by its name."""
    made: Dict[str, str] = {}
    for name, (kind, description, vectors) in FILES.items():
        content: Dict[str, Any] = {"description": description, "format": 1, "kind": kind, "vectors": vectors()}
        made[f"{name}.json"] = json.dumps(content, indent=1, sort_keys=True) + "\n"
    return made


def differences(folder: Path) -> List[str]:
    wanted = texts()
    found = {path.name: path.read_text(encoding="ascii") for path in folder.glob("*.json")
             if path.name != "schema.json"}
    return sorted(name for name in {*wanted, *found} if wanted.get(name) != found.get(name))


def main() -> int:
    folder = Path(__file__).resolve().parent
    if sys.argv[1:] == ["--check"]:
        wrong = differences(folder)
        for name in wrong:
            print(f"vectors/{name} is not what vectors/make.py writes")
        return 1 if wrong else 0
    if sys.argv[1:]:
        print("Usage: vectors/make.py [--check]", file=sys.stderr)
        return 2
    for name, text in texts().items():
        (folder / name).write_text(text, encoding="ascii")
    return 0


if __name__ == "__main__":
    sys.exit(main())
