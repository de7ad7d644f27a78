"""What the vectors do not reach: two accepted keys, mistakes of the caller, and the largest payload."""

from __future__ import annotations

import hmac
import pickle
import re
import threading
from pathlib import Path
from typing import List

import pytest

import vesk_framing
from vesk_framing import (MAX_DATAGRAM, Datagram, Digest, Framing, IpVersion, Key, Match, Reason, Refused, check,
                          header_length, largest_payload, make, parse, relabel)

_PAGE = Path(__file__).resolve().parents[3] / "languages/python/README.md"
_NEW, _OLD, _OTHER = Key(b"new key"), Key(b"old key", Digest.SHA1), Key(b"other key")
_EITHER = pytest.mark.parametrize("framing", Framing)


def reason_of(framing: Framing, datagram: bytes, *keys: Key) -> Reason:
    with pytest.raises(Refused) as refused:
        check(framing, datagram, *keys)
    return refused.value.reason


@_EITHER
def test_match_tells_which_key_the_datagram_is_signed_with(framing: Framing) -> None:
    assert check(framing, make(framing, 1, b"payload", _NEW), _NEW, _OLD).match is Match.KEY
    assert check(framing, make(framing, 1, b"payload", _OLD), _NEW, _OLD) == Datagram(1, b"payload", b"",
                                                                                    Match.OLD_KEY)
    assert check(framing, make(framing, 1, b"payload", _NEW), _NEW, _NEW).match is Match.KEY
    assert reason_of(framing, make(framing, 1, b"payload", _OTHER), _NEW, _OLD) is Reason.HMAC
    assert reason_of(framing, make(framing, 1, b"payload", _OLD), _NEW) is Reason.HMAC


@_EITHER
def test_empty_key_accepts_zeros_only(framing: Framing) -> None:
    unsigned = make(framing, 1, b"payload", Key.empty())
    assert check(framing, unsigned, Key.empty()).match is Match.KEY
    assert check(framing, unsigned, _NEW, Key.empty()).match is Match.OLD_KEY
    assert reason_of(framing, unsigned, _NEW) is Reason.HMAC
    assert reason_of(framing, make(framing, 1, b"payload", _NEW), Key.empty()) is Reason.HMAC


@_EITHER
def test_parse_reads_without_checking(framing: Framing) -> None:
    further = b"more" if framing is Framing.UDPV1 else b""
    datagram = make(framing, 0xFFFFFFFF, b"payload", _NEW, further=further)
    assert parse(framing, bytes([datagram[0] ^ 1]) + datagram[1:]) == Datagram(0xFFFFFFFF, b"payload", further,
                                                                              Match.NONE)


@_EITHER
@pytest.mark.parametrize("kind", [bytearray, memoryview])
def test_other_buffers_are_read_like_bytes(framing: Framing, kind: type) -> None:
    datagram = make(framing, 1, kind(b"payload"), _NEW)
    assert check(framing, kind(datagram), _NEW) == check(framing, datagram, _NEW)
    assert relabel(framing, kind(datagram), 2, _OLD) == make(framing, 2, b"payload", _OLD)
    found = check(framing, kind(datagram), _NEW)
    assert (type(found.payload), type(found.further)) == (bytes, bytes)


@_EITHER
def test_functions_that_read_refuse_what_is_no_datagram(framing: Framing) -> None:
    for length, reason in ((header_length(framing) - 1, Reason.TOO_SHORT), (MAX_DATAGRAM + 1, Reason.TOO_LONG)):
        with pytest.raises(Refused) as parsed:
            parse(framing, bytes(length))
        with pytest.raises(Refused) as labelled:
            relabel(framing, bytes(length), 1, _NEW)
        assert parsed.value.reason is labelled.value.reason is reason


def test_text_of_a_refusal_names_the_cause() -> None:
    assert {reason: str(Refused(reason)) for reason in Reason} == {
        Reason.TOO_LONG: "the datagram is longer than 2,048 bytes",
        Reason.TOO_SHORT: "the datagram is shorter than its header",
        Reason.HEADER_LENGTH: "the header length is wrong", Reason.HMAC: "the HMAC is wrong"}


def test_refusal_can_be_passed_between_processes() -> None:
    copied = pickle.loads(pickle.dumps(Refused(Reason.HMAC)))
    assert (type(copied), copied.reason) == (Refused, Reason.HMAC)


@_EITHER
@pytest.mark.parametrize("label", [-1, 2**32])
def test_label_of_more_than_32_bits_is_a_mistake(framing: Framing, label: int) -> None:
    with pytest.raises(ValueError, match=f"^a label has 32 bits: {label}$"):
        make(framing, label, b"payload", _NEW)
    with pytest.raises(ValueError, match="a label has 32 bits"):
        relabel(framing, make(framing, 1, b"payload", _NEW), label, _NEW)


def test_what_the_framing_does_not_have_is_a_mistake() -> None:
    with pytest.raises(ValueError, match="^a payload in UDPv1 has at least one byte$"):
        make(Framing.UDPV1, 1, b"", _NEW)
    with pytest.raises(ValueError, match="^UDPv2 has no further header bytes$"):
        make(Framing.UDPV2, 1, b"", _NEW, further=b"x")
    with pytest.raises(ValueError, match="^UDPv2 has no further header bytes$"):
        header_length(Framing.UDPV2, 1)
    with pytest.raises(ValueError, match="^UDPv2 has no further header bytes$"):
        largest_payload(Framing.UDPV2, 1500, further_length=1)
    with pytest.raises(ValueError, match="^a length is not negative: -1$"):
        header_length(Framing.UDPV1, -1)
    assert make(Framing.UDPV2, 1, b"", _NEW)[16:] == bytes([0, 0, 0, 1])


@_EITHER
def test_longest_datagram_has_2048_bytes(framing: Framing) -> None:
    room = MAX_DATAGRAM - header_length(framing)
    assert len(make(framing, 1, bytes(room), _NEW)) == 2048
    with pytest.raises(ValueError, match="^a datagram has at most 2,048 bytes, not 2,049$"):
        make(framing, 1, bytes(room + 1), _NEW)


def test_largest_payload_fits_the_mtu() -> None:
    assert largest_payload(Framing.UDPV2, 1500) == 1500 - 20 - 8 - 20
    assert largest_payload(Framing.UDPV2, 1500, IpVersion.IPV6) == 1500 - 40 - 8 - 20
    assert largest_payload(Framing.UDPV1, 1500, further_length=2) == 1500 - 20 - 8 - 40
    assert largest_payload(Framing.UDPV1, 65535) == 2048 - 38
    assert largest_payload(Framing.UDPV2, 48) == 0
    assert largest_payload(Framing.UDPV1, 67) == 1


@pytest.mark.parametrize("framing, mtu", [(Framing.UDPV2, 47), (Framing.UDPV1, 66), (Framing.UDPV1, 0)])
def test_mtu_without_room_is_a_mistake(framing: Framing, mtu: int) -> None:
    with pytest.raises(ValueError, match=f"^an MTU of {mtu} bytes leaves no room for a payload$"):
        largest_payload(framing, mtu)


def test_digest_may_be_given_by_its_name_only_if_it_is_one() -> None:
    assert make(Framing.UDPV2, 1, b"", Key(b"x", Digest("sha1"))) == make(Framing.UDPV2, 1, b"", Key(b"x", Digest.SHA1))
    with pytest.raises(ValueError, match="md5"):
        Key(b"x", "md5")  # type: ignore[arg-type]


def test_key_does_not_show_its_bytes() -> None:
    assert "secret" not in repr(Key(b"secret")) and not hasattr(Key(b"secret"), "__dict__")


def test_hmacs_are_compared_in_constant_time(monkeypatch: pytest.MonkeyPatch) -> None:
    compared: List[int] = []

    def note(first: bytes, second: bytes) -> bool:
        compared.append(len(first))
        return first == second

    monkeypatch.setattr(hmac, "compare_digest", note)
    for framing in Framing:
        check(framing, make(framing, 1, b"payload", _OLD), _NEW, _OLD)
    assert compared == [32, 32, 16, 16]


def test_threads_can_share_a_key() -> None:
    expected = [make(Framing.UDPV1, number, bytes([number]) * 900, _NEW) for number in range(100)]
    wrong: List[int] = []

    def work() -> None:
        for number in range(100):
            if make(Framing.UDPV1, number, bytes([number]) * 900, _NEW) != expected[number]:
                wrong.append(number)

    threads = [threading.Thread(target=work) for _ in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert wrong == []


def test_every_public_name_exists() -> None:
    assert [name for name in vesk_framing.__all__ if not hasattr(vesk_framing, name)] == []


def test_example_and_table_of_the_page_are_right() -> None:
    page = _PAGE.read_text(encoding="utf-8")
    (code,) = re.findall(r"(?ms)^```python\n(.*?)^```$", page)
    exec(code, {})
    assert [name for name in vesk_framing.__all__ if f"`{name}" not in page and f"{name}." not in page] == []
