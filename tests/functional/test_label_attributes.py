"""Every attribute of a label: accepted values, and the exact text of every refusal."""

from __future__ import annotations

import pytest

from framework.flow import Flow, four_keys
from framework.framing import Key
from framework.udp import UdpEnd
from framework.vesk_process import VeskProcess

LABELS = ["label", "down_label", "up_label", "up_aux_flow_label"]
KEYS = ["down_in_key", "down_out_key", "up_in_key", "up_out_key"]
ALGORITHMS = ["down_in_algo", "down_out_algo", "up_in_algo", "up_out_algo"]
MARKS = ["down_out_dscp_v4", "down_out_dscp_v6", "up_out_dscp_v4", "up_out_dscp_v6"]
ADDRESSES = ["down_addrinfo", "up_addrinfo", "up_src_addrinfo", "up_aux_flow_addrinfo"]

# Attributes are parsed in the order of their names, so a bad one that sorts before "label"
# is refused before the label is read.
BAD_COMMAND = "error setLabelAttrs: bad command for label {}"


def refusal(vesk: VeskProcess, name: str, value: str) -> str:
    """Sets label 7 with one more attribute and returns the reason for the refusal."""
    lines = vesk.lines_after(f"set label 7 {name} {value}")
    label = 7 if name > "label" else 0
    assert len(lines) == 2 and lines[1] == BAD_COMMAND.format(label), lines
    assert lines[0].startswith("error ")
    return lines[0][len("error "):]


def accepts(vesk: VeskProcess, name: str, value: str) -> bool:
    text = f"label {value}" if name == "label" else f"label 7 {name} {value}"
    return vesk.lines_after(f"set {text}") == []


# Names ----------------------------------------------------------------------------------

@pytest.mark.parametrize("name", ["bogus", "Label", "LABEL", "up_src_label",
                                  "down_src_addrinfo", "is_aux_flow", "zzz"])
def test_unknown_names_are_refused(vesk: VeskProcess, name: str) -> None:
    assert refusal(vesk, name, "1") == (
        f"Vesk_setFlowDescLabelAttrs: Invalid Attr,  name '{name}' unrecognized")


def test_a_label_is_required(vesk: VeskProcess) -> None:
    """Even if every other attribute is valid, and before any of them is checked."""
    missing = ["error Vesk_setFlowDescLabelAttrs: Invalid Attr,  'label' field is missing",
               "error setLabelAttrs: bad command for label 0"]
    assert vesk.lines_after("set up_label 6 down_label 7") == missing
    assert vesk.lines_after("set bogus 6") == missing
    assert vesk.lines_after("set") == missing


def test_only_the_first_bad_attribute_is_reported(vesk: VeskProcess) -> None:
    assert vesk.lines_after("set zzz 1 up_label 0 down_label 0 label 7") == [
        "error validateLabelLikeString: bad label-like value, 'down_label': reserved labelVal '0'",
        BAD_COMMAND.format(0)]
    assert vesk.lines_after("set zzz 1 up_label 0 down_label 1 label 7") == [
        "error validateLabelLikeString: bad label-like value, 'up_label': reserved labelVal '0'",
        BAD_COMMAND.format(7)]


def test_all_twenty_two_attributes_are_accepted_together(vesk: VeskProcess) -> None:
    words = ["set is_multiplex true down_aux_flow_label_prefix 9"]
    words += [f"{name} 7" for name in LABELS]
    words += [f"{name} 0123456789abcdefABCDEF" for name in KEYS]
    words += [f"{name} sha1" for name in ALGORITHMS]
    words += [f"{name} 10" for name in MARKS]
    words += [f"{name} 127.0.0.1|9" for name in ADDRESSES]
    assert vesk.lines_after(" ".join(words)) == []


# Labels ---------------------------------------------------------------------------------

@pytest.mark.parametrize("value", ["1", "0x10", "010", "4294967295", "0xffffffff", "+5"])
@pytest.mark.parametrize("name", LABELS)
def test_valid_labels_are_accepted(vesk: VeskProcess, name: str, value: str) -> None:
    assert accepts(vesk, name, value)


@pytest.mark.parametrize("value", ["10abc", "x", "0x", "08", "1.5", "1,000",
                                   "99999999999999999999"])
@pytest.mark.parametrize("name", LABELS + ["down_aux_flow_label_prefix"])
def test_labels_that_are_not_numbers_are_refused(vesk: VeskProcess, name: str, value: str) -> None:
    if name == "label":
        assert refused_label(vesk, value) == f"bogus labelVal '{value}'"
    else:
        assert refusal(vesk, name, value) == (
            f"validateLabelLikeString: bad label-like value, '{name}': bogus labelVal '{value}'")


def refused_label(vesk: VeskProcess, value: str) -> str:
    """The reason why a label is refused. Nothing is stored, so the reported label is 0."""
    lines = vesk.lines_after(f"set label {value}")
    assert len(lines) == 2 and lines[1] == BAD_COMMAND.format(0), lines
    prefix = "error validateLabelLikeString: bad label-like value, 'label': "
    assert lines[0].startswith(prefix), lines
    return lines[0][len(prefix):]


@pytest.mark.parametrize("value", ["0", "0x0", "000", "-0"])
@pytest.mark.parametrize("name", LABELS[1:] + ["down_aux_flow_label_prefix"])
def test_label_zero_is_reserved(vesk: VeskProcess, name: str, value: str) -> None:
    assert refusal(vesk, name, value) == (
        f"validateLabelLikeString: bad label-like value, '{name}': reserved labelVal '{value}'")


@pytest.mark.parametrize("value", ["4294967296", "0x100000000", "-1", "18446744073709551614"])
@pytest.mark.parametrize("name", LABELS[1:])
def test_labels_above_32_bits_are_refused(vesk: VeskProcess, name: str, value: str) -> None:
    assert refusal(vesk, name, value) == (
        f"validateLabelLikeString: bad label-like value, '{name}': "
        f"illegal labelVal '{value}' exceeds '4294967295'")


def test_bad_values_of_the_label_itself_are_refused(vesk: VeskProcess) -> None:
    assert refused_label(vesk, "0") == "reserved labelVal '0'"
    assert refused_label(vesk, "4294967296") == (
        "illegal labelVal '4294967296' exceeds '4294967295'")
    assert refused_label(vesk, "-1") == "illegal labelVal '-1' exceeds '4294967295'"


@pytest.mark.parametrize("value, good", [("1", True), ("65535", True), ("0xffff", True),
                                         ("65536", False), ("-1", False)])
def test_prefixes_have_16_bits(vesk: VeskProcess, value: str, good: bool) -> None:
    if good:
        assert accepts(vesk, "down_aux_flow_label_prefix", value)
        return
    assert refusal(vesk, "down_aux_flow_label_prefix", value) == (
        "validateLabelLikeString: bad label-like value, 'down_aux_flow_label_prefix': "
        f"illegal labelVal '{value}' exceeds '65535'")


def test_a_label_may_be_written_in_three_bases(vesk: VeskProcess, peer: UdpEnd,
                                               upstream: UdpEnd) -> None:
    port = vesk.listen()
    for written, label in (("0x10", 16), ("020", 16), ("16", 16)):
        flow = Flow(label=label, upstream=upstream.address)
        command = flow.set_command().replace(f"label {label} ", f"label {written} ", 1)
        vesk.lines_after(f"del label {label}", command)
        peer.send(flow.request(b"x"), ("127.0.0.1", port))
        flow.open_request(upstream.receive().data)


# DSCP -----------------------------------------------------------------------------------

@pytest.mark.parametrize("value", ["-1", "0", "1", "63", "0x3f", "077", "+46"])
@pytest.mark.parametrize("name", MARKS)
def test_valid_dscp_values_are_accepted(vesk: VeskProcess, name: str, value: str) -> None:
    assert accepts(vesk, name, value)


@pytest.mark.parametrize("value", ["64", "-2", "255", "1000000", "-9223372036854775807",
                                   "9223372036854775806"])
@pytest.mark.parametrize("name", MARKS)
def test_dscp_values_out_of_range_are_ignored_with_a_warning(vesk: VeskProcess, name: str,
                                                             value: str) -> None:
    assert vesk.lines_after(f"set label 7 {name} {value}") == [
        f"warn Vesk_validateDscpString: ' Ignore invalid DSCP value: {value}'"]


@pytest.mark.parametrize("value", ["ef", "4x", "1.0", "0x", "09", "99999999999999999999"])
@pytest.mark.parametrize("name", MARKS)
def test_dscp_values_that_are_not_numbers_are_refused(vesk: VeskProcess, name: str,
                                                      value: str) -> None:
    assert refusal(vesk, name, value) == f"Vesk_validateDscpString: ' Bad dscp value: {value}"


# Keys -----------------------------------------------------------------------------------

@pytest.mark.parametrize("value, reason", [
    ("0", "odd length"),
    ("abc", "odd length"),
    ("xyz", "odd length"),       # the length is checked first
    ("0" * 257, "odd length"),
    ("0" * 258, "too long"),
    ("x" * 258, "too long"),
    ("0" * 100_000, "too long"),
    ("0g", "illegal character"),
    ("0x12", "illegal character"),
    ("12-4", "illegal character"),
])
@pytest.mark.parametrize("name", KEYS)
def test_bad_keys_are_refused(vesk: VeskProcess, name: str, value: str, reason: str) -> None:
    assert refusal(vesk, name, value) == f"Vesk_validateHmacKeyString: bad key, {reason}"


@pytest.mark.parametrize("key", [b"\x00", b"\xff", bytes(range(16)), b"\xab" * 127,
                                 bytes(range(128))],
                         ids=["zero", "one byte", "16 bytes", "127 bytes", "128 bytes"])
@pytest.mark.parametrize("upper_case", [False, True], ids=["lower", "upper"])
def test_keys_are_read_high_digit_first(vesk: VeskProcess, peer: UdpEnd, upstream: UdpEnd,
                                        key: bytes, upper_case: bool) -> None:
    """A datagram that is checked and signed with the keys proves it."""
    port = vesk.listen()
    flow = Flow(label=7, upstream=upstream.address, down_in=Key(key), up_out=Key(key))
    command = flow.set_command()
    if upper_case:
        command = command.replace(key.hex(), key.hex().upper())
    assert vesk.lines_after(command) == []
    peer.send(flow.request(b"signed"), ("127.0.0.1", port))
    assert flow.open_request(upstream.receive().data).payload == b"signed"


# Algorithms -----------------------------------------------------------------------------

@pytest.mark.parametrize("value", ["SHA1", "Sha256", "sha512", "md5", "sha-256", "sha25"])
@pytest.mark.parametrize("name", ALGORITHMS)
def test_unknown_algorithms_are_refused(vesk: VeskProcess, name: str, value: str) -> None:
    assert refusal(vesk, name, value) == f"Vesk_validateHmacAlgoString: unknown algo '{value}'"


def test_the_default_algorithm_is_sha1(vesk: VeskProcess, peer: UdpEnd,
                                       upstream: UdpEnd) -> None:
    port = vesk.listen()
    flow = Flow(label=7, upstream=upstream.address, **four_keys("sha1"))
    words = flow.set_command().split()
    pairs = [pair for pair in zip(words[1::2], words[2::2]) if not pair[0].endswith("_algo")]
    vesk.lines_after("set " + " ".join(f"{name} {value}" for name, value in pairs))
    peer.send(flow.request(b"x"), ("127.0.0.1", port))
    arrived = upstream.receive()
    flow.open_request(arrived.data)
    upstream.send(flow.reply(b"y"), arrived.sender)
    flow.open_reply(peer.receive().data)


# Multiplexing ---------------------------------------------------------------------------

@pytest.mark.parametrize("value", ["True", "FALSE", "1", "0", "yes"])
def test_the_multiplex_flag_is_true_or_false(vesk: VeskProcess, value: str) -> None:
    assert refusal(vesk, "is_multiplex", value) == (
        f"Vesk_validateIsMultiplexString: ' Bad isMultiplex value: {value}")


# Addresses ------------------------------------------------------------------------------

@pytest.mark.parametrize("value", ["127.0.0.1|x", "|x", "127.0.0.1|0x", "127.0.0.1|9|9", "|9z",
                                   "127.0.0.1|99999999999999999999", "::1|[9]"])
@pytest.mark.parametrize("name", ADDRESSES)
def test_bad_ports_are_refused(vesk: VeskProcess, name: str, value: str) -> None:
    assert refusal(vesk, name, value) == (
        f"Vesk_validateAddrInfoString: {name}: unresolvable address '{value}' Bad port value")


@pytest.mark.parametrize("value", ["127.0.0.1|9", "::1|9", "|9", "127.0.0.1|", "|", "127.0.0.1",
                                   "nonsense", "127.0.0.1|0", "nonsense|0", "127.0.0.1|70000",
                                   "127.0.0.1|0x50"])
@pytest.mark.parametrize("name", ADDRESSES)
def test_addresses_without_a_host_or_a_port_are_accepted(vesk: VeskProcess, name: str,
                                                         value: str) -> None:
    """The old half is kept, and nothing is resolved."""
    assert accepts(vesk, name, value)


def test_an_upstream_port_above_16_bits_is_truncated(vesk: VeskProcess, peer: UdpEnd,
                                                     upstream: UdpEnd) -> None:
    port = vesk.listen()
    flow = Flow(label=7, upstream=(upstream.host, upstream.port + 65536))
    vesk.lines_after(flow.set_command())
    peer.send(flow.request(b"x"), ("127.0.0.1", port))
    flow.open_request(upstream.receive().data)
