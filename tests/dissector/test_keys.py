"""The key file: valid lines, and how mistakes are reported."""

from __future__ import annotations

from pathlib import Path

import pytest

from capture import Packet, write
from framework.framing import UDPV2, Key
from tshark import Tshark, key_line

LABEL = 0x10001
KEY = Key(bytes(range(16)), "sha256")
PEER, FORWARDER = ("127.0.0.1", 50000), ("127.0.0.1", 4500)
PORT = "downstream_ports:4500"
STATUS = "vesk.hmac.status"

SIGNED = Packet(PEER, FORWARDER, UDPV2.build(LABEL, b"payload", KEY))
OTHER = Packet(FORWARDER, PEER, UDPV2.build(LABEL, b"payload", Key(b"another", "sha1")))


@pytest.mark.parametrize("line", [
    f"65537 sha256 {KEY.secret.hex()}", f"0x10001\tsha256\t{KEY.secret.hex().upper()}  ",
    f"  0X00010001 sha256 {KEY.secret.hex()} # the peer's key", f"65537 sha256 {KEY.secret.hex()}\r"])
def test_valid_lines_are_accepted(tshark: Tshark, line: str) -> None:
    assert tshark.column([SIGNED], STATUS, PORT, tshark.key_file("# keys", "", line)) == ["good"]


def test_a_label_can_have_several_keys(tshark: Tshark) -> None:
    keys = tshark.key_file(key_line(LABEL, Key(b"another", "sha1")), key_line(LABEL, KEY))
    assert tshark.column([SIGNED, OTHER], STATUS, PORT, keys) == ["good", "good"]


def test_a_direction_limits_a_key_to_it(tshark: Tshark) -> None:
    keys = tshark.key_file(key_line(LABEL, KEY, "to_peer"))
    assert tshark.column([SIGNED, OTHER], STATUS, PORT, keys) == ["no key", "bad"]
    # The direction is unknown here, so every key of the label is tried.
    assert tshark.column([SIGNED], STATUS, keys, "-d", "udp.port==4500,vesk") == ["good"]


@pytest.mark.parametrize(("line", "complaint"), [
    ("65537 sha256", "expected LABEL ALGORITHM HEXKEY [DIRECTION]"),
    ("65537 sha256 00 to_peer more", "expected LABEL ALGORITHM HEXKEY [DIRECTION]"),
    ("4294967296 sha256 00", "not a label: 4294967296"),
    ("-1 sha256 00", "not a label: -1"),
    ("010 sha256 00", "not a label: 010"),
    ("0x sha256 00", "not a label: 0x"),
    ("65537 md5 00", "not an algorithm (sha1, sha256): md5"),
    ("65537 sha256 0", "not a key (2 to 256 hex digits, an even number)"),
    ("65537 sha256 0g", "not a key (2 to 256 hex digits, an even number)"),
    ("65537 sha256 " + "00" * 129, "not a key (2 to 256 hex digits, an even number)"),
    ("65537 sha256 00 up", "not a direction (from_peer, to_upstream, from_upstream, to_peer): up"),
])
def test_bad_lines_are_reported_and_ignored(tshark: Tshark, line: str, complaint: str) -> None:
    keys = tshark.key_file("# keys", line, key_line(LABEL, KEY))
    done = tshark.read(write(tshark.folder / "one.pcap", [SIGNED]), PORT, keys,
                       "-T", "fields", "-e", STATUS)
    assert done.stdout.split() == ["good"]
    assert done.stderr.splitlines() == [f"tshark: Vesk key file {tshark.folder / 'keys'}:",
                                        f"line 2: {complaint}"]


def test_a_missing_file_is_reported(tshark: Tshark, tmp_path: Path) -> None:
    done = tshark.read(write(tshark.folder / "one.pcap", [SIGNED]), PORT,
                       f"key_file:{tmp_path}/none", "-T", "fields", "-e", STATUS)
    assert done.stdout.strip() == "no key"
    assert done.stderr == f"tshark: Vesk key file: {tmp_path}/none: No such file or directory"
