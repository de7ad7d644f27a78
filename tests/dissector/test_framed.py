"""Framed datagrams: labels, HMACs and framings, in traffic of the forwarder and in other traffic."""

from __future__ import annotations

import shutil
from typing import List

import pytest

from capture import Packet, fragments, write, write_records
from framework.bench import Bench
from framework.flow import Flow, four_keys
from framework.framing import UDPV1, UDPV2, Framing, Key
from tshark import DISSECTOR, INFO, Tshark, key_line, key_lines

LABEL = 0x10001
KEY = Key(bytes(range(16)), "sha256")
PEER, FORWARDER = ("127.0.0.1", 50000), ("127.0.0.1", 4500)
PORT = "downstream_ports:4500"

LABEL_FIELD, STATUS, PAYLOAD = "vesk.label", "vesk.hmac.status", "vesk.payload"
FRAMING, REFUSED, GUESSED = "vesk.framing", "vesk.expert.refused", "vesk.expert.guessed"

either_framing = pytest.mark.parametrize("framing", [UDPV1, UDPV2], ids=lambda framing: framing.name)


def from_peer(*datagrams: bytes) -> List[Packet]:
    return [Packet(PEER, FORWARDER, datagram) for datagram in datagrams]


def set_to(framing: Framing) -> str:
    return f"framing:{framing.name}"


def record_exchange(bench: Bench, flow: Flow, payload: bytes, extra: bytes) -> List[Packet]:
    """A request and its reply, each as sent and as received."""
    request, reply = flow.request(payload, extra), flow.reply(payload, extra)
    bench.send(request)
    arrived = bench.upstream.receive()
    bench.upstream.send(reply, arrived.sender)
    answer = bench.peer.receive()
    return [Packet(bench.peer.address, bench.to, request),
            Packet(arrived.sender, bench.upstream.address, arrived.data),
            Packet(bench.upstream.address, arrived.sender, reply),
            Packet(bench.to, bench.peer.address, answer.data)]


@pytest.mark.parametrize("algorithm", ["sha1", "sha256"])
@pytest.mark.parametrize("automatic", [True, False], ids=["automatic", "set"])
def test_traffic_of_the_forwarder_is_dissected(either_bench: Bench, tshark: Tshark, algorithm: str,
                                               automatic: bool) -> None:
    flow = either_bench.flow(label=LABEL, **four_keys(algorithm))
    either_bench.declare(flow)
    extra = b"\xaa\xbb" if flow.framing is UDPV1 else b""
    packets = record_exchange(either_bench, flow, b"a payload", extra)
    rows = tshark.of(packets, [LABEL_FIELD, STATUS, "vesk.direction", FRAMING, PAYLOAD, "data.data"],
                     f"downstream_ports:{either_bench.to[1]}",
                     f"upstream_ports:{either_bench.upstream.port}",
                     tshark.key_file(*key_lines(flow)),
                     "framing:automatic" if automatic else set_to(flow.framing))
    labels = [flow.label, flow.up_label, flow.label, flow.down_label]
    directions = ["from_peer", "to_upstream", "from_upstream", "to_peer"]
    payload = b"a payload".hex()
    assert rows == [{LABEL_FIELD: f"0x{label:08x}", STATUS: "good", "vesk.direction": direction,
                     FRAMING: str(flow.framing.version), PAYLOAD: payload, "data.data": payload}
                    for label, direction in zip(labels, directions)]


def test_the_info_column_summarizes_the_datagram(tshark: Tshark) -> None:
    packets = from_peer(UDPV2.build(LABEL, bytes(512), KEY), UDPV2.build(LABEL, b"", None), b"short")
    assert tshark.column(packets, INFO, PORT, tshark.key_file(key_line(LABEL, KEY))) == [
        "label 0x10001, HMAC good, 512 bytes",
        "label 0x10001, HMAC unsigned, 0 bytes",
        "not UDPv2: 5 bytes, and the header takes 20"]


@either_framing
@pytest.mark.parametrize("algorithm", ["sha1", "sha256"])
def test_each_changed_bit_makes_the_hmac_bad(tshark: Tshark, framing: Framing,
                                             algorithm: str) -> None:
    key = Key(b"a key", algorithm)
    datagram = framing.build(LABEL, b"payload", key, b"more" if framing is UDPV1 else b"")
    turned = []
    for bit in range(8 * len(datagram)):
        changed = bytearray(datagram)
        changed[bit // 8] ^= 1 << bit % 8
        turned.append(bytes(changed))
    statuses = tshark.column(from_peer(datagram, *turned), STATUS, PORT, set_to(framing),
                             tshark.key_file(key_line(LABEL, key)))
    assert statuses == ["good"] + [expected_status(framing, changed) for changed in turned]


def expected_status(framing: Framing, changed: bytes) -> str:
    try:
        parsed = framing.parse(changed)
    except ValueError:
        return ""
    if framing is UDPV1 and not parsed.payload:
        return ""
    return "bad" if parsed.label == LABEL else "no key"


@either_framing
def test_unsigned_datagrams_are_marked(tshark: Tshark, framing: Framing) -> None:
    packets = from_peer(framing.build(LABEL, b"payload"), framing.build(LABEL + 1, b"payload"))
    rows = tshark.of(packets, [STATUS, "vesk.expert.unsigned", "vesk.expert.unsigned_despite_key"],
                     PORT, tshark.key_file(key_line(LABEL, KEY)))
    assert [row[STATUS] for row in rows] == ["unsigned", "unsigned"]
    assert [bool(row["vesk.expert.unsigned_despite_key"]) for row in rows] == [True, False]
    assert [bool(row["vesk.expert.unsigned"]) for row in rows] == [False, True]


def test_the_whole_field_is_checked_with_a_shorter_digest(tshark: Tshark) -> None:
    key = Key(b"a key", "sha1")
    datagram = UDPV1.build(LABEL, b"payload", key)
    filled = datagram[:31] + b"\x01" + datagram[32:]
    assert tshark.column(from_peer(datagram, filled), STATUS, PORT, set_to(UDPV1),
                         tshark.key_file(key_line(LABEL, key))) == ["good", "bad"]


@either_framing
def test_short_datagrams_are_refused(tshark: Tshark, framing: Framing) -> None:
    """Sent in every length up to the full one: a datagram without a whole header is refused."""
    whole = framing.build(LABEL, b"payload", KEY)
    datagrams = [whole[:length] for length in range(1, len(whole) + 1)]
    rows = tshark.of(from_peer(*datagrams), [STATUS, REFUSED], PORT, set_to(framing),
                     tshark.key_file(key_line(LABEL, KEY)))
    smallest = framing.header_size + (1 if framing is UDPV1 else 0)
    for row, datagram in zip(rows, datagrams):
        accepted = len(datagram) >= smallest
        good = len(datagram) == len(whole)
        assert bool(row[REFUSED]) is not accepted, len(datagram)
        assert row[STATUS] == ("good" if good else "bad" if accepted else ""), len(datagram)


@either_framing
def test_short_captures_get_no_verdict(tshark: Tshark, framing: Framing) -> None:
    """Captured in every length up to the full one: the HMAC needs the whole datagram."""
    whole = framing.build(LABEL, b"payload", KEY)
    packets = [Packet(PEER, FORWARDER, whole, kept) for kept in range(len(whole) + 1)]
    rows = tshark.of(packets, [STATUS, LABEL_FIELD, PAYLOAD], PORT, set_to(framing),
                     tshark.key_file(key_line(LABEL, KEY)))
    for packet, row in zip(packets, rows):
        assert packet.kept is not None
        payload = whole[framing.header_size:packet.kept].hex()
        seen = packet.kept >= framing.header_size
        good = packet.kept == len(whole)
        assert row[STATUS] == ("good" if good else "cut short" if seen else ""), packet.kept
        assert row[LABEL_FIELD] == (f"0x{LABEL:08x}" if seen else ""), packet.kept
        assert row[PAYLOAD] == payload, packet.kept


def test_the_framing_is_detected(tshark: Tshark) -> None:
    """Bytes 12 and 13 of the payload are at the place of UDPv1's header length, here 38."""
    looks_like_v1 = bytes([1] * 12) + b"\x00\x26" + bytes([2] * 40)
    packets = from_peer(
        UDPV1.build(LABEL, b"signed", KEY), UDPV2.build(LABEL, looks_like_v1, KEY),
        UDPV1.build(LABEL, b"unsigned"), UDPV2.build(LABEL, looks_like_v1),
        UDPV2.build(9, b"a text that is no header", KEY), UDPV2.build(9, b"", KEY),
        UDPV1.build(9, b"no key", KEY), UDPV2.build(9, looks_like_v1, KEY))
    rows = tshark.of(packets, [FRAMING, GUESSED], PORT, tshark.key_file(key_line(LABEL, KEY)))
    assert [(row[FRAMING], bool(row[GUESSED])) for row in rows] == [
        ("1", False), ("2", False), ("1", False), ("2", False), ("2", False), ("2", False),
        ("1", True), ("1", True)]


def test_a_correct_hmac_is_recognised_on_any_port(tshark: Tshark) -> None:
    """The conversation is recognised with it, so that a wrong HMAC in it is shown."""
    good = UDPV2.build(LABEL, b"payload", KEY)
    bad = good[:-1] + b"!"
    packets = [Packet(PEER, ("127.0.0.1", port), datagram)
               for port, datagram in ((4501, bad), (4502, good), (4502, bad),
                                      (4503, UDPV1.build(LABEL, b"p", KEY)))]
    assert tshark.column(packets, STATUS, tshark.key_file(key_line(LABEL, KEY))) == [
        "", "good", "bad", "good"]
    assert tshark.column(packets, STATUS) == ["", "", "", ""]


def test_decode_as_selects_the_dissector(tshark: Tshark) -> None:
    packets = from_peer(UDPV2.build(LABEL, b"payload", KEY))
    assert tshark.column(packets, STATUS, "-d", "udp.port==4500,vesk") == ["no key"]


def test_ranges_of_ports_are_accepted(tshark: Tshark) -> None:
    packets = [Packet(PEER, ("127.0.0.1", port), UDPV2.build(LABEL, b"payload", KEY))
               for port in (4499, 4500, 4510, 4511, 4600)]
    assert tshark.column(packets, "vesk.direction", "downstream_ports:4500-4510,4600") == [
        "", "from_peer", "from_peer", "", "from_peer"]


def test_fragments_are_reassembled(tshark: Tshark) -> None:
    """The first fragment alone is cut short."""
    datagram = UDPV2.build(LABEL, bytes(range(256)) * 4, KEY)
    capture = write_records(tshark.folder / "pieces.pcap",
                            fragments(Packet(PEER, FORWARDER, datagram), 400))
    options = [PORT, tshark.key_file(key_line(LABEL, KEY)), set_to(UDPV2)]
    joined = tshark.fields(capture, [STATUS], *options, "-o", "ip.defragment:TRUE")
    assert [row[STATUS] for row in joined] == ["", "", "good"]
    alone = tshark.fields(capture, [STATUS], *options, "-o", "ip.defragment:FALSE")
    assert [row[STATUS] for row in alone] == ["cut short", "", ""]


def test_datagrams_longer_than_the_forwarder_reads_are_marked(tshark: Tshark) -> None:
    packets = from_peer(UDPV2.build(LABEL, bytes(2028), KEY), UDPV2.build(LABEL, bytes(2029), KEY))
    assert [bool(text) for text in tshark.column(packets, "vesk.expert.too_long", PORT)] == [
        False, True]


def test_it_works_as_a_personal_plugin(tshark: Tshark) -> None:
    """Wireshark loads every file of the folder, including the parts of the dissector."""
    shutil.copytree(DISSECTOR, tshark.folder / ".local/lib/wireshark/plugins/vesk")
    capture = write(tshark.folder / "one.pcap", from_peer(UDPV2.build(LABEL, b"payload", KEY)))
    done = tshark.run("-n", "-r", str(capture), "-o", f"vesk.{PORT}", "-T", "fields", "-e", STATUS)
    assert (done.stdout, done.stderr) == ("no key\n", "")


@pytest.mark.parametrize("script", ["dissector/vesk.lua", "vesk.lua"])
def test_it_can_be_loaded_by_a_relative_path(tshark: Tshark, monkeypatch: pytest.MonkeyPatch,
                                             script: str) -> None:
    monkeypatch.chdir(DISSECTOR if "/" not in script else DISSECTOR.parent)
    capture = write(tshark.folder / "one.pcap", from_peer(UDPV2.build(LABEL, b"payload", KEY)))
    done = tshark.run("-n", "-r", str(capture), "-X", f"lua_script:{script}", "-o", f"vesk.{PORT}",
                      "-T", "fields", "-e", STATUS)
    assert (done.stdout, done.stderr) == ("no key\n", "")


def test_display_filters_select_packets(tshark: Tshark) -> None:
    packets = from_peer(UDPV2.build(LABEL, b"one", KEY), UDPV2.build(LABEL, b"two"),
                        UDPV2.build(7, b"three", KEY))
    rows = [tshark.passing(packets, text, PORT, tshark.key_file(key_line(LABEL, KEY)))
            for text in ('vesk.hmac.status == "good"', "vesk.label == 65537",
                         "vesk.label == 0x7 && vesk.payload == 74:68:72:65:65",
                         "vesk.payload.length == 3")]
    assert rows == [[1], [1, 2], [3], [1, 2]]
