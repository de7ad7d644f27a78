"""The framing of the functional tests agrees with the test vectors."""

from __future__ import annotations

from typing import Dict, Optional

import pytest

from framework.framing import (LATERAL_HMAC_LENGTH, MAX_DATAGRAM, UDPV1, UDPV2, Key, build_lateral, parse_lateral,
                               socket_address_bytes)
from vector_files import Json, of_kind, refusals

_FRAMINGS = {framing.name: framing for framing in (UDPV1, UDPV2)}


def _key(digest: str, secret: str) -> Optional[Key]:
    return Key(bytes.fromhex(secret), digest) if secret else None


def agrees(vector: Json) -> bool:
    """Whether the datagram opens to the fields, and the fields make the datagram."""
    framing, key = _FRAMINGS[vector["framing"]], _key(vector["digest"], vector["key"])
    payload, further = bytes.fromhex(vector["payload"]), bytes.fromhex(vector["further"])
    try:
        opened = framing.open(bytes.fromhex(vector["datagram"]), key)
    except (AssertionError, ValueError):
        return False
    return ((opened.authentication.hex(), opened.label, opened.extra, opened.payload)
            == (vector["hmac"], vector["label"], further, payload)
            and framing.header_size + len(further) == vector["header_length"]
            and framing.build(vector["label"], payload, key, further).hex() == vector["datagram"])


def test_every_accepted_datagram_agrees() -> None:
    vectors = of_kind("datagrams")
    assert len(vectors) > 300
    assert [vector["id"] for vector in vectors if not agrees(vector)] == []


def changed(vector: Json) -> Dict[str, Json]:
    """The vector with one bit changed in each of its fields of bytes, the longest datagrams at their ends only."""
    found: Dict[str, Json] = {}
    for name in ("key", "further", "payload", "hmac", "datagram"):
        content = bytes.fromhex(vector[name])
        for place in {0, len(content) // 2, len(content) - 1} & set(range(len(content))):
            other = content[:place] + bytes([content[place] ^ 1]) + content[place + 1:]
            found[f"{vector['id']} {name} {place}"] = {**vector, name: other.hex()}
    return {**found, f"{vector['id']} label": {**vector, "label": vector["label"] ^ 1}}


def test_every_changed_datagram_disagrees() -> None:
    agreeing = [name for vector in of_kind("datagrams") for name, other in changed(vector).items() if agrees(other)]
    assert agreeing == []


@pytest.mark.parametrize("vector", of_kind("relabel"), ids=lambda vector: vector["id"])
def test_relabelled_datagram_agrees(vector: Json) -> None:
    framing = _FRAMINGS[vector["framing"]]
    opened = framing.open(bytes.fromhex(vector["in_datagram"]), _key(vector["from_digest"], vector["from_key"]))
    made = framing.build(vector["to_label"], opened.payload, _key(vector["to_digest"], vector["to_key"]), opened.extra)
    assert made.hex() == vector["out_datagram"]


@pytest.mark.parametrize("vector", of_kind("lateral"), ids=lambda vector: vector["id"])
def test_lateral_datagram_agrees(vector: Json) -> None:
    parsed = parse_lateral(bytes.fromhex(vector["datagram"]))
    address = socket_address_bytes(vector["host"], vector["port"])
    assert (parsed.kind, parsed.address, parsed.authentication.hex(), parsed.framed.hex()) == (
        vector["type"], address, vector["hmac"], vector["framed"])
    assert address.hex() == vector["address"]
    covered = bytes([len(address) + LATERAL_HMAC_LENGTH]) + address
    tag = Key(bytes.fromhex(vector["lateral_key"])).digest(covered)[:LATERAL_HMAC_LENGTH]
    assert (covered + tag).hex() == vector["return_information"]
    assert build_lateral(parsed.kind, address, tag, parsed.framed).hex() == vector["datagram"]


@pytest.mark.parametrize("vector", refusals("datagram"), ids=lambda vector: vector["id"])
def test_refused_datagram_is_refused_for_its_reason(vector: Json) -> None:
    framing, key = _FRAMINGS[vector["framing"]], _key(vector["digest"], vector["key"])
    # Received cut, like by the forwarder.
    datagram = bytes.fromhex(vector["datagram"])[:MAX_DATAGRAM]
    if vector["reason"] in ("too_short", "header_length"):
        with pytest.raises(ValueError, match="too short" if vector["reason"] == "too_short" else "header length"):
            framing.open(datagram, key)
    else:
        with pytest.raises(AssertionError, match="HMAC is"):
            framing.open(datagram, key)
