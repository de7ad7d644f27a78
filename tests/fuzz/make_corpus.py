"""Writes the seed corpora of the fuzz targets: small inputs that pass the first checks. The build
runs this script (see CMakeLists.txt). The same source always gives the same bytes. An input that
revealed a defect is not a seed: it is committed under finds/, in the folder of its target.

Usage: make_corpus.py FOLDER
"""

import shutil
import socket
import struct
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "functional"))

from framework.framing import (LATERAL_HMAC_LENGTH, UDPV1, UDPV2, Key, build_lateral,
                               socket_address_bytes)

# The keys with which the fuzz targets check datagrams (support/keys.h).
NO_KEY = None
SHA1 = Key(bytes(range(1, 21)), "sha1")
SHA256 = Key(bytes(range(101, 201)))
KEYS = {"no_key": NO_KEY, "sha1": SHA1, "sha256": SHA256}


# Maps the target and name of each input to its bytes.
inputs = {}


def add(target, name, content):
    inputs[target, name] = content


def framed_v1(label, payload, key, further=b"", header_length=None):
    return UDPV1.build(label, payload, key, further, header_length)


def framed_v2(label, payload, key):
    return UDPV2.build(label, payload, key)


def framing():
    for name, key in KEYS.items():
        add("framing_v1", f"signed_{name}", framed_v1(0x10002, b"payload", key))
        add("framing_v1", f"further_header_{name}", framed_v1(7, b"p", key, further=b"extra"))
        add("framing_v2", f"signed_{name}", framed_v2(0x10002, b"payload", key))
        add("framing_v2", f"empty_payload_{name}", framed_v2(7, b"", key))
    add("framing_v1", "one_byte_short", framed_v1(7, b"", SHA1)[:-1])
    add("framing_v1", "no_payload", framed_v1(7, b"", SHA1))
    add("framing_v1", "header_length_37", framed_v1(7, b"pp", SHA1, header_length=37))
    add("framing_v1", "header_length_past_end", framed_v1(7, b"pp", SHA1, header_length=65535))
    add("framing_v1", "largest", framed_v1(7, bytes(2010), SHA256))
    add("framing_v1", "too_large", framed_v1(7, bytes(2011), SHA256))
    add("framing_v2", "one_byte_short", framed_v2(7, b"", SHA1)[:-1])
    add("framing_v2", "zeros_like_unsigned_v1", framed_v2(7, bytes(40), NO_KEY))
    add("framing_v2", "largest", framed_v2(7, bytes(2028), SHA256))
    for target in ("framing_v1", "framing_v2"):
        add(target, "one_byte", b"\0")


def framing_library():
    """The datagrams of the forwarder's own targets, behind a byte that chooses the version."""
    for (target, name), content in list(inputs.items()):
        if target in ("framing_v1", "framing_v2"):
            add("framing_library", f"{target}_{name}", target[-1].encode() + content)


def ipv4_address():
    return socket_address_bytes("127.0.0.1", 4500)


def ipv6_address():
    return socket_address_bytes("::1", 4500)


def lateral(kind, address, key=SHA256, inner=b"inner datagram"):
    covered = bytes([len(address) + LATERAL_HMAC_LENGTH]) + address
    return build_lateral(kind, address, key.digest(covered)[:LATERAL_HMAC_LENGTH], inner)


def lateral_header():
    target = "lateral_header"
    inner = framed_v2(0x20001, b"payload", SHA256)
    add(target, "forwarded_ipv4", lateral(1, ipv4_address(), inner=inner))
    add(target, "forwarded_ipv6", lateral(1, ipv6_address(), inner=inner))
    add(target, "returned_ipv4", lateral(2, ipv4_address(), inner=inner))
    add(target, "returned_ipv6", lateral(2, ipv6_address(), inner=inner))
    add(target, "header_alone", lateral(1, ipv4_address(), inner=b""))
    add(target, "one_byte_short", lateral(1, ipv4_address(), inner=b"")[:-1])
    add(target, "forged", lateral(2, ipv4_address(), key=SHA1))
    add(target, "unknown_type", lateral(3, ipv4_address()))
    add(target, "length_31", b"\1\x1f" + bytes(60))
    add(target, "length_44_cut", b"\1\x2c" + bytes(40))
    add(target, "length_45", b"\1\x2d" + bytes(60))
    add(target, "odd_address_length", b"\2\x21" + bytes(60))
    add(target, "no_family", b"\2\x20" + bytes(60))
    add(target, "no_room_for_a_header", lateral(1, ipv6_address(), inner=bytes(2000)))
    add(target, "just_room_for_a_header", bytes(2048 - 34))


def control_message(level, kind, data, length=None):
    length = 16 + len(data) if length is None else length
    return struct.pack("=QII", length, level, kind) + data + bytes(-len(data) % 8)


def control_messages():
    target = "control_messages"
    ipv4 = struct.pack("=I4s4s", 1, b"\x7f\0\0\1", b"\x7f\0\0\1")
    ipv6 = bytes(15) + b"\1" + struct.pack("=I", 1)
    v4 = control_message(socket.IPPROTO_IP, 8, ipv4)
    v6 = control_message(socket.IPPROTO_IPV6, 50, ipv6)
    tos = control_message(socket.IPPROTO_IP, 1, struct.pack("=I", 184))
    add(target, "ipv4", v4)
    add(target, "ipv6", v6)
    add(target, "both_behind_another", tos + v4 + v6)
    add(target, "ipv4_cut", v4[:27])
    add(target, "ipv6_data_too_short", control_message(socket.IPPROTO_IPV6, 50, ipv6[:19]))
    add(target, "short_one_then_whole_one",
          control_message(socket.IPPROTO_IP, 8, ipv4[:8]) + v4)
    add(target, "length_0", control_message(0, 8, ipv4, length=0))
    add(target, "length_15", control_message(0, 8, ipv4, length=15) + v4)
    add(target, "length_past_end", control_message(0, 8, ipv4, length=2**64 - 1))
    add(target, "length_wraps_when_rounded_up", control_message(0, 8, ipv4, length=2**64 - 7))
    add(target, "header_cut", v4[:15])
    merged = control_message(socket.IPPROTO_UDP, 104, struct.pack("=i", 1200))
    add(target, "merged", v4 + merged)
    add(target, "segment_size_0_then_1200",
          control_message(socket.IPPROTO_UDP, 104, bytes(4)) + merged)
    add(target, "segment_size_negative",
          control_message(socket.IPPROTO_UDP, 104, struct.pack("=i", -1)))
    add(target, "segment_size_too_short", control_message(socket.IPPROTO_UDP, 104, b"\1\2\3"))


def merged_datagrams():
    target = "merged_datagrams"
    for name, length, segment in (("alone", 532, 0), ("empty", 0, 0), ("empty_merged", 0, 100),
                                  ("equal", 1200, 400), ("last_shorter", 1000, 400),
                                  ("one_of_many_lengths", 65535, 1), ("shorter_than_one", 3, 400),
                                  ("longer_than_the_buffer", 9000, 2049)):
        add(target, name, struct.pack(">HH", length, segment))


LINES = {
    "start": b"start addr 0.0.0.0 port 4500\n",
    "carriage_return_and_tabs": b" \tstart\taddr 0.0.0.0  port 4500\r",
    "value_missing": b"log priority",
    "first_value_wins": b"set label a label b",
    "last_half_wins": b"set up_ip 10.0.0.1 up_port 4500 up_port 4600",
    "port_alone": b"up_port 4500",
    "whole_address_wins": b"up_addrinfo 1.2.3.4|5 up_ip 9.9.9.9",
    "all_halves": b"down_ip 1 down_port 2 up_ip 3 up_port 4 up_src_ip 5 up_src_port 6 "
                  b"up_aux_flow_ip 7 up_aux_flow_port 8",
    "nul_and_high_bytes": b"set label \0\xff\x0b\x0c x",
    "blanks": b" \t\r\n  ",
}

KEY_TEXT = SHA256.secret.hex().encode()

COMMANDS = {
    "whole_flow": b"set label 0x10001 is_multiplex true up_label 17 down_label 18 up_ip 127.0.0.1 "
                  b"up_port 4500 up_in_key 00ff up_in_algo sha256 up_out_key aabb up_out_algo sha1 "
                  b"down_in_key " + KEY_TEXT + b" down_in_algo sha256 down_out_key 01 "
                  b"down_out_algo sha1 up_out_dscp_v4 46 up_out_dscp_v6 0 down_out_dscp_v4 -1 "
                  b"down_out_dscp_v6 63\ndel label 65537\n",
    "aux_flow": b"set label 5 up_aux_flow_label 0x770000 down_aux_flow_label_prefix 9 "
                b"up_aux_flow_addrinfo 127.0.0.1|9 up_addrinfo ::1|9\n"
                b"set label 6 up_aux_flow_label 1 down_aux_flow_label_prefix 9\n"
                b"set label 589829 up_addrinfo ::1|9\ndel label 5\n",
    "merge_port": b"set label 5 up_addrinfo 127.0.0.1|4500\nset label 5 up_port 9000\n"
                  b"set label 5 up_ip ::1\n",
    "merge_with_a_name": b"set label 5 up_ip nowhere.invalid\nset label 5 up_port 9\n",
    "name_for_address": b"set label 5 up_addrinfo nowhere.invalid|53",
    "label_missing": b"set up_label 1",
    "label_0": b"set label 0\ndel label 0",
    "label_too_large": b"set label 4294967296",
    "label_negative": b"set label -1\nset label -18446744073709551615",
    "label_octal_and_signs": b"set label 010\nset label +0x1F\nset label 08\nset label 0x",
    "label_out_of_range": b"set label 99999999999999999999",
    "other_labels_0": b"set label 5 up_label 0\nset label 5 up_aux_flow_label 0\n"
                      b"set label 5 down_aux_flow_label_prefix 0",
    "prefix_too_large": b"set label 5 down_aux_flow_label_prefix 65536",
    "marks_out_of_range": b"set label 5 up_out_dscp_v4 64 up_out_dscp_v6 -2 "
                          b"down_out_dscp_v4 -99999999999999999999",
    "mark_no_number": b"set label 5 up_out_dscp_v4 4x",
    "mark_greatest": b"set label 5 up_out_dscp_v4 9223372036854775807",
    "port_too_large": b"set label 5 up_addrinfo 127.0.0.1|70000",
    "port_greatest": b"set label 5 up_addrinfo 127.0.0.1|18446744073709551615",
    "port_two_bars": b"set label 5 up_addrinfo ::1|4500|1",
    "key_256_digits": b"set label 5 up_in_key " + b"aB" * 128,
    "key_258_digits": b"set label 5 up_in_key " + b"aB" * 129,
    "key_odd": b"set label 5 up_in_key 00z",
    "key_illegal": b"set label 5 up_in_key 0g",
    "algorithm_capitals": b"set label 5 up_in_algo SHA1",
    "multiplex_other": b"set label 5 is_multiplex yes",
    "unknown_name": b"set label 5 bogus 1\ndel label 5 bogus 1",
    "ipv6_with_interface": b"set label 5 up_addrinfo fe80::1%lo|4500",
    "short_ipv4": b"set label 5 up_addrinfo 127.1|4500",
}


def commands():
    for name, line in LINES.items():
        add("command_line", name, line)
    for name, lines in COMMANDS.items():
        add("set_command", name, lines)


AS_IT_IS, SIGNED, LATERALLY, EXPIRED, PADDED = 0x08, 0x10, 0x20, 0x40, 0x80


def datagram(choice, payload=b""):
    return bytes([choice, len(payload)]) + payload


def wrong_tag_end(framed, length):
    return framed[:length - 1] + bytes([framed[length - 1] ^ 1]) + framed[length:]


def downstream():
    target = "downstream"
    each_label = b"".join(datagram(SIGNED | label, b"payload") for label in range(8))
    unsigned = b"".join(datagram(label, b"payload") for label in range(8))
    names = {0: "udpv2", 1: "udpv1", 2: "udpv2_joined", 3: "udpv1_joined"}
    for set_up, name in names.items():
        begin = bytes([set_up])
        add(target, f"{name}_each_label", begin + each_label)
        add(target, f"{name}_unsigned", begin + unsigned + each_label)
        add(target, f"{name}_again_after_expiry",
              begin + datagram(SIGNED | 1, b"a") + datagram(SIGNED | 1, b"b")
              + datagram(EXPIRED | SIGNED | 1, b"c"))
        add(target, f"{name}_over_the_lateral_stream",
              begin + b"".join(datagram(LATERALLY | SIGNED | label, b"x") for label in range(8)))
        add(target, f"{name}_long",
              begin + b"".join(datagram(PADDED | SIGNED | 1, bytes(n)) for n in (0, 20, 38, 63))
              + b"".join(datagram(PADDED | 6, bytes(n)) for n in (0, 33, 34, 54, 63)))
        add(target, f"{name}_empty_and_short",
              begin + datagram(AS_IT_IS) + datagram(AS_IT_IS, b"\0")
              + datagram(AS_IT_IS, bytes(19)) + datagram(AS_IT_IS, bytes(20))
              + datagram(AS_IT_IS, bytes(37)))
    add(target, "udpv2_well_signed_bytes",
          b"\0" + datagram(AS_IT_IS, framed_v2(0x10002, b"hello", SHA1)))
    add(target, "udpv1_signed_without_payload",
          b"\1" + datagram(AS_IT_IS, framed_v1(0x10002, b"", SHA1)))
    add(target, "udpv2_last_byte_of_tag_wrong",
          b"\0" + datagram(AS_IT_IS, wrong_tag_end(framed_v2(0x10002, b"hello", SHA1), 16)))
    add(target, "udpv1_last_byte_of_tag_wrong",
          b"\1" + datagram(AS_IT_IS, wrong_tag_end(framed_v1(0x10002, b"hello", SHA1), 32)))
    add(target, "udpv1_further_header",
          b"\1" + datagram(AS_IT_IS, framed_v1(0x10002, b"hello", SHA1, further=b"extra")))


def upstream():
    target = "upstream"
    flows = ["no_key", "sha1", "sha256_multiplexed", "one_key", "aux"]
    labels = [0, 1, 2, 3, 5]
    ways = {0: "udpv2", 1: "udpv1", 6: "udpv2_lateral", 7: "udpv1_lateral", 4: "udpv2_not_joined"}
    for number, (flow, label) in enumerate(zip(flows, labels)):
        for way, name in ways.items():
            begin = bytes([number << 3 | way])
            add(target, f"{name}_{flow}",
                  begin + datagram(SIGNED | label, b"reply") + datagram(label, b"unsigned")
                  + datagram(SIGNED | 1, b"other label") + datagram(AS_IT_IS)
                  + datagram(AS_IT_IS, bytes(25)) + datagram(AS_IT_IS, b"\0" * 19)
                  + datagram(PADDED | SIGNED | label, bytes(63))
                  + datagram(PADDED | AS_IT_IS, bytes(20)))
    for name, pad in (("just_room", 54), ("no_room", 53)):
        add(target, f"udpv2_lateral_{name}_for_a_header",
              bytes([1 << 3 | 6]) + datagram(PADDED | SIGNED | 1, bytes(pad)))
    add(target, "udpv2_label_0", b"\0" + datagram(AS_IT_IS, framed_v2(0, b"hello", NO_KEY)))


def make_all():
    framing()
    framing_library()
    lateral_header()
    control_messages()
    merged_datagrams()
    commands()
    downstream()
    upstream()


def save(corpus):
    """Replaces all files of an earlier build, so that a renamed input is not replayed twice."""
    for target in {target for target, _ in inputs}:
        shutil.rmtree(corpus / target, ignore_errors=True)
        (corpus / target).mkdir(parents=True)
    for (target, name), content in inputs.items():
        (corpus / target / name).write_bytes(content)


if __name__ == "__main__":
    make_all()
    save(Path(sys.argv[1]))
