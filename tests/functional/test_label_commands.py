"""Declaring, changing and removing flows at run time: "set" and "del"."""

from __future__ import annotations

import re
import signal

import pytest

from framework.bench import Bench
from framework.flow import Flow, four_keys
from framework.framing import Key

CREATED = re.compile(r"info Created upstream endpoint: label 0x5/5 sockfds \d+ \d+")


def refuses(bench: Bench, flow: Flow) -> None:
    """The label is unknown: its datagrams are dropped and open no endpoint."""
    bench.vesk.lines_after("log priority debug")
    since = bench.vesk.mark()
    bench.send(flow.request(b"question"))
    bench.vesk.wait_for_log(
        f"debug Failed to create upstream endpoint with label {flow.label}", since)
    bench.vesk.lines_after("log priority info")
    bench.nothing_went_upstream()


def keyed(bench: Bench, label: int = 5) -> Flow:
    return Flow(label=label, upstream=bench.upstream.address, **four_keys())


# Set ------------------------------------------------------------------------------------

def test_a_flow_works_after_its_first_set(bench: Bench) -> None:
    flow = keyed(bench)
    refuses(bench, flow)
    bench.declare(flow)
    bench.exchange(flow)


def test_set_opens_no_socket_before_the_first_datagram(bench: Bench) -> None:
    descriptors = bench.vesk.descriptor_count()
    bench.declare(keyed(bench))
    assert bench.vesk.descriptor_count() == descriptors


def test_labels_that_are_not_set_are_written_as_zero(bench: Bench) -> None:
    host, port = bench.upstream.address
    bench.vesk.lines_after(f"set label 5 up_ip {host} up_port {port}")
    flow = Flow(label=5, upstream=bench.upstream.address)
    bench.send(flow.request(b"x"))
    arrived = bench.upstream.receive()
    assert flow.framing.open(arrived.data, None).label == 0
    bench.upstream.send(flow.reply(b"y"), arrived.sender)
    assert flow.framing.open(bench.peer.receive().data, None).label == 0


def test_a_refused_set_changes_nothing(bench: Bench) -> None:
    flow = keyed(bench)
    bench.declare(flow)
    before = bench.exchange(flow)
    lines = bench.vesk.lines_after("set label 5 up_port 9 down_label 6 up_in_key 00 zzz 1")
    assert lines[-1] == "error setLabelAttrs: bad command for label 5"
    assert bench.exchange(flow) == before, "the endpoint was opened again"


def test_a_refused_set_declares_nothing(bench: Bench) -> None:
    bench.vesk.lines_after(keyed(bench).set_command() + " zzz 1")
    refuses(bench, keyed(bench))


# A second "set" changes the attributes that it names and no others.
@pytest.mark.parametrize("name, member, value", [
    ("up_label", "up_label", 77), ("down_label", "down_label", 78),
    ("down_in_key", "down_in", b"new"), ("down_out_key", "down_out", b"new"),
    ("up_in_key", "up_in", b"new"), ("up_out_key", "up_out", b"new"),
    ("down_in_algo", "down_in", "sha1"), ("down_out_algo", "down_out", "sha1"),
    ("up_in_algo", "up_in", "sha1"), ("up_out_algo", "up_out", "sha1"),
])
def test_a_second_set_changes_only_what_it_names(bench: Bench, name: str, member: str,
                                                 value) -> None:
    flow = keyed(bench)
    bench.declare(flow)
    bench.exchange(flow)
    text = value.hex() if isinstance(value, bytes) else value
    assert bench.vesk.lines_after(f"set label 5 {name} {text}") == []
    if isinstance(value, bytes):
        value = Key(value, getattr(flow, member).algorithm)
    elif isinstance(value, str):
        value = Key(getattr(flow, member).secret, value)
    setattr(flow, member, value)
    bench.exchange(flow)


def test_a_shorter_key_replaces_the_longer_one(bench: Bench) -> None:
    flow = keyed(bench)
    bench.declare(flow)
    bench.exchange(flow)
    flow.down_in = Key(b"k")
    bench.declare(Flow(label=5, down_in=flow.down_in))
    bench.exchange(flow)


def test_a_second_set_changes_the_port_and_keeps_the_host(bench: Bench, new_end) -> None:
    flow = keyed(bench)
    bench.declare(flow)
    bench.exchange(flow)
    bench.upstream = new_end()
    assert bench.vesk.lines_after(f"set label 5 up_addrinfo |{bench.upstream.port}") == []
    bench.exchange(flow)
    bench.upstream = new_end()
    assert bench.vesk.lines_after(f"set label 5 up_port {bench.upstream.port}") == []
    bench.exchange(flow)


def test_a_second_set_changes_the_host_and_keeps_the_port(bench: Bench, new_end) -> None:
    flow = keyed(bench)
    bench.declare(flow)
    bench.exchange(flow)
    bench.upstream = new_end("127.0.0.2", bench.upstream.port)
    assert bench.vesk.lines_after("set label 5 up_addrinfo 127.0.0.2|") == []
    bench.exchange(flow)


def test_an_address_may_come_in_two_halves(bench: Bench) -> None:
    """Host and port are set by separate commands and resolved only together."""
    flow = keyed(bench)
    flow.upstream = None
    bench.declare(flow)
    assert bench.vesk.lines_after(f"set label 5 up_ip {bench.upstream.host}") == []
    assert bench.vesk.lines_after(f"set label 5 up_port {bench.upstream.port}") == []
    flow.upstream = bench.upstream.address
    bench.exchange(flow)


def test_a_set_of_a_label_in_use_opens_new_sockets(bench: Bench) -> None:
    flow = keyed(bench)
    bench.declare(flow)
    bench.exchange(flow)
    bench.vesk.wait_for_log(CREATED)
    descriptors = bench.vesk.descriptor_count()
    before = bench.exchange(flow)
    bench.declare(flow)
    bench.vesk.wait_for_descriptor_count(descriptors - 2)
    since = bench.vesk.mark()
    assert bench.exchange(flow) != before
    bench.vesk.wait_for_log(CREATED, since)
    bench.vesk.wait_for_descriptor_count(descriptors)


def test_a_dscp_out_of_range_removes_the_dscp(bench: Bench) -> None:
    """The attribute is named, so its default value, no DSCP, is stored."""
    flow = keyed(bench)
    flow.options["up_out_dscp_v4"] = 46
    bench.declare(flow)
    bench.send(flow.request(b"x"))
    assert bench.upstream.receive().dscp == 46
    bench.vesk.lines_after("set label 5 up_out_dscp_v4 99")
    bench.send(flow.request(b"x"))
    assert bench.upstream.receive().dscp == 0


def test_a_label_set_with_a_bad_dscp_is_declared(bench: Bench) -> None:
    flow = keyed(bench)
    flow.options["up_out_dscp_v4"] = 99
    assert bench.vesk.lines_after(flow.set_command()) == [
        "warn Vesk_validateDscpString: ' Ignore invalid DSCP value: 99'"]
    bench.send(flow.request(b"x"))
    assert bench.upstream.receive().dscp == 0


# Resolver failures ----------------------------------------------------------------------

# The resolver refuses a name with an unknown scope without a query on the network.
UNRESOLVABLE = "fe80::1%nowhere"


def resolver_failure(host: str, port: int) -> "re.Pattern[str]":
    return re.compile(
        r"terminate called after throwing an instance of 'std::runtime_error'\n"
        rf"  what\(\):  getaddrinfo: {re.escape(host)}\|{port}: err -?\d+ errno \d+\n"
        r"(.*Sanitizer.*)?", re.DOTALL)


@pytest.mark.parametrize("command", ["set", "del"])
def test_an_address_that_cannot_be_resolved_ends_the_process(bench: Bench, command: str) -> None:
    bench.vesk.command(f"{command} label 5 up_ip {UNRESOLVABLE} up_port 53")
    bench.vesk.wait_exit(-signal.SIGABRT, errors=resolver_failure(UNRESOLVABLE, 53),
                         core_allowed=True)


def test_a_joined_address_that_cannot_be_resolved_ends_the_process(bench: Bench) -> None:
    """The failure occurs under the lock that the datapath uses, so the end must not block."""
    flow = keyed(bench)
    bench.declare(flow)
    bench.exchange(flow)
    bench.declare(Flow(label=6))
    assert bench.vesk.lines_after(f"set label 6 up_ip {UNRESOLVABLE}") == []
    for _ in range(20):
        bench.send(flow.request(b"x"))
    bench.vesk.command("set label 6 up_port 53")
    bench.vesk.wait_exit(-signal.SIGABRT, errors=resolver_failure(UNRESOLVABLE, 53),
                         core_allowed=True)


# Del ------------------------------------------------------------------------------------

def test_del_removes_the_flow_and_its_sockets(bench: Bench) -> None:
    descriptors = bench.vesk.descriptor_count()
    flow = keyed(bench)
    bench.declare(flow)
    bench.exchange(flow)
    bench.vesk.wait_for_descriptor_count(descriptors + 2)
    assert bench.vesk.lines_after("del label 5") == []
    bench.vesk.wait_for_descriptor_count(descriptors)
    refuses(bench, flow)


def test_removing_a_flow_does_not_affect_others(bench: Bench) -> None:
    first, second = keyed(bench, 5), keyed(bench, 6)
    bench.declare(first)
    bench.declare(second)
    bench.exchange(first)
    before = bench.exchange(second)
    bench.vesk.lines_after("del label 5")
    assert bench.exchange(second) == before


def test_a_removed_flow_can_be_declared_again_from_scratch(bench: Bench) -> None:
    bench.declare(keyed(bench))
    bench.exchange(keyed(bench))
    bench.vesk.lines_after("del label 5")
    keyless = Flow(label=5, upstream=bench.upstream.address)
    bench.declare(keyless)
    bench.exchange(keyless)


def test_del_of_an_unknown_label_is_silent(bench: Bench) -> None:
    assert bench.vesk.lines_after("del label 5", "del label 4294967295") == []


@pytest.mark.parametrize("line, complaint, label", [
    ("del", "Vesk_setFlowDescLabelAttrs: Invalid Attr,  'label' field is missing", 0),
    ("del label", "Vesk_setFlowDescLabelAttrs: Invalid Attr,  'label' field is missing", 0),
    ("del label 0", "validateLabelLikeString: bad label-like value, 'label': "
                    "reserved labelVal '0'", 0),
    ("del label x", "validateLabelLikeString: bad label-like value, 'label': "
                    "bogus labelVal 'x'", 0),
    ("del label 5 nonsense 1", "Vesk_setFlowDescLabelAttrs: Invalid Attr,  "
                               "name 'nonsense' unrecognized", 5),
    ("del label 5 bogus 1", "Vesk_setFlowDescLabelAttrs: Invalid Attr,  "
                            "name 'bogus' unrecognized", 0),
    ("del label 5 up_in_key abc", "Vesk_validateHmacKeyString: bad key, odd length", 5),
])
def test_a_bad_del_is_refused(bench: Bench, line: str, complaint: str, label: int) -> None:
    """The second line does not begin with the name of a routine."""
    flow = keyed(bench)
    bench.declare(flow)
    before = bench.exchange(flow)
    assert bench.vesk.lines_after(line) == [f"error {complaint}", f"error label {label}"]
    assert bench.exchange(flow) == before


def test_other_attributes_of_a_del_have_no_effect(bench: Bench) -> None:
    flow = keyed(bench)
    bench.declare(flow)
    bench.exchange(flow)
    assert bench.vesk.lines_after("del label 5 up_label 9 up_out_dscp_v4 64") == [
        "warn Vesk_validateDscpString: ' Ignore invalid DSCP value: 64'"]
    refuses(bench, flow)


# Many -----------------------------------------------------------------------------------

def test_hundreds_of_flows_can_be_declared_and_removed(bench: Bench) -> None:
    """More deletions at once than fit into the channel of the poll thread."""
    descriptors = bench.vesk.descriptor_count()
    flows = [keyed(bench, label) for label in range(1, 401)]
    bench.vesk.lines_after(*(flow.set_command() for flow in flows))
    for flow in flows:
        bench.exchange(flow)
    bench.vesk.wait_for_descriptor_count(descriptors + 2 * len(flows))
    bench.vesk.lines_after(*(f"del label {flow.label}" for flow in flows))
    bench.vesk.wait_for_descriptor_count(descriptors)
