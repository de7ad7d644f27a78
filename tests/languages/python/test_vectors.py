"""The library agrees with the test vectors, and no longer with a vector of which one bit was changed.

Left out are the vectors of lateral datagrams, which only instances of the forwarder exchange.
"""

from __future__ import annotations

from typing import Callable, Dict, List

import pytest

from vector_files import FILES, Json, of_kind, refusals
from vesk_framing import Datagram, Digest, Framing, Key, Match, Reason, Refused, check, header_length, make, relabel

_FIELDS = {"datagrams": ("key", "further", "payload", "hmac", "datagram"),
           "relabel": ("from_key", "in_datagram", "to_key", "out_datagram")}


def key_of(digest: str, secret: str) -> Key:
    return Key(bytes.fromhex(secret), Digest(digest)) if secret else Key.empty()


def accepted(vector: Json) -> bool:
    """Whether the datagram gives the fields, and the fields give the datagram."""
    framing, key = Framing(vector["framing"]), key_of(vector["digest"], vector["key"])
    datagram, payload, further = (bytes.fromhex(vector[name]) for name in ("datagram", "payload", "further"))
    try:
        found = check(framing, datagram, key)
    except Refused:
        return False
    return (found == Datagram(vector["label"], payload, further, Match.KEY)
            and vector["header_length"] == header_length(framing, len(further))
            and vector["datagram"].startswith(vector["hmac"])
            and make(framing, vector["label"], payload, key, further=further) == datagram)


def relabelled(vector: Json) -> bool:
    """Whether the first datagram is accepted and gives the second one."""
    framing, datagram = Framing(vector["framing"]), bytes.fromhex(vector["in_datagram"])
    try:
        check(framing, datagram, key_of(vector["from_digest"], vector["from_key"]))
    except Refused:
        return False
    made = relabel(framing, datagram, vector["to_label"], key_of(vector["to_digest"], vector["to_key"]))
    return made.hex() == vector["out_datagram"]


_AGREES: Dict[str, Callable[[Json], bool]] = {"datagrams": accepted, "relabel": relabelled}


@pytest.mark.parametrize("kind", _AGREES)
def test_every_vector_agrees(kind: str) -> None:
    vectors = of_kind(kind)
    assert len(vectors) > {"datagrams": 300, "relabel": 10}[kind]
    assert [vector["id"] for vector in vectors if not _AGREES[kind](vector)] == []


def changed(kind: str, vector: Json) -> Dict[str, Json]:
    """The vector with one bit changed at the ends and in the middle of each field of bytes, and in its label."""
    found: Dict[str, Json] = {}
    for name in _FIELDS[kind]:
        content = bytes.fromhex(vector[name])
        for place in {0, len(content) // 2, len(content) - 1} & set(range(len(content))):
            other = content[:place] + bytes([content[place] ^ 1]) + content[place + 1:]
            found[f"{vector['id']} {name} {place}"] = {**vector, name: other.hex()}
    label = "label" if kind == "datagrams" else "to_label"
    return {**found, f"{vector['id']} {label}": {**vector, label: vector[label] ^ 1}}


@pytest.mark.parametrize("kind", _AGREES)
def test_no_changed_vector_agrees(kind: str) -> None:
    changes = {name: other for vector in of_kind(kind) for name, other in changed(kind, vector).items()}
    assert len(changes) > 4 * len(of_kind(kind))
    assert [name for name, other in changes.items() if _AGREES[kind](other)] == []


def refusal(vector: Json) -> str:
    """Why the library refuses the datagram; empty if it does not."""
    try:
        check(Framing(vector["framing"]), bytes.fromhex(vector["datagram"]), key_of(vector["digest"], vector["key"]))
    except Refused as refused:
        return refused.reason.value
    return ""


def test_every_refused_datagram_is_refused_for_its_reason() -> None:
    vectors = refusals("datagram")
    assert {vector["reason"] for vector in vectors} == {reason.value for reason in Reason}
    assert {vector["id"]: refusal(vector) for vector in vectors} == {
        vector["id"]: vector["reason"] for vector in vectors}


def test_every_refused_key_is_refused_for_its_length() -> None:
    vectors = refusals("key")
    assert [vector["reason"] for vector in vectors] == ["key_length"] * len(vectors) != []
    for vector in vectors:
        secret = bytes.fromhex(vector["key"])
        with pytest.raises(ValueError, match=f"^a key has 1 to 128 bytes, not {len(secret)}$"):
            Key(secret, Digest(vector["digest"]))


def test_only_lateral_vectors_are_left_out() -> None:
    kinds: List[str] = sorted({file["kind"] for file in FILES.values()})
    assert kinds == sorted([*_AGREES, "lateral", "refusals"])
    assert {vector["operation"] for vector in of_kind("refusals")} == {"key", "datagram", "lateral"}
