"""From the peer to the upstream service: framing, authentication, DSCP, limits."""

from __future__ import annotations

import re
from typing import Callable, Dict, Optional

import pytest

from framework.fixtures import StartVesk
from framework.bench import Bench
from framework.flow import four_keys
from framework.framing import UDPV1, Key
from framework.udp import UdpEnd, free_port, kernels_choice
from framework.vesk_process import VeskProcess

FAILED_CHECK = "downstreamPacketReceivedFailed HMAC Check!"
LOOKS_LIKE_UDPV1 = "trace Dropping UDPv1 packet!"
ALGORITHMS = ["sha1", "sha256"]


# Authentication -------------------------------------------------------------------------

@pytest.mark.parametrize("incoming", [None, *ALGORITHMS])
@pytest.mark.parametrize("outgoing", [None, *ALGORITHMS])
def test_datagrams_are_checked_and_signed_again(either_bench: Bench, incoming: Optional[str],
                                                outgoing: Optional[str]) -> None:
    flow = either_bench.flow(down_in=incoming and Key(b"downstream", incoming),
                             up_out=outgoing and Key(b"upstream", outgoing))
    either_bench.declare(flow)
    for payload in (b"x", b"some more words", bytes(range(256)) * 5):
        either_bench.ask(flow, payload)


def test_sha1_is_padded_with_zeros(start_vesk: StartVesk, peer: UdpEnd, upstream: UdpEnd) -> None:
    vesk = start_vesk("udpv1")
    bench = Bench(vesk, peer, upstream, UDPV1)
    flow = bench.flow(up_out=Key(b"key", "sha1"))
    bench.declare(flow)
    code = bench.ask(flow).data[:32]
    assert code[20:] == bytes(12) and code[:20] != bytes(20)


def test_without_a_key_zeros_are_written(either_bench: Bench) -> None:
    flow = either_bench.flow(down_in=Key(b"key"))
    either_bench.declare(flow)
    length = either_bench.framing.hmac_length
    assert either_bench.ask(flow).data[:length] == bytes(length)


def test_the_key_of_another_flow_is_refused(either_bench: Bench) -> None:
    first = either_bench.flow(5, down_in=Key(b"first"))
    second = either_bench.flow(6, down_in=Key(b"second"))
    either_bench.declare(first, second)
    either_bench.send(either_bench.framing.build(6, b"x", first.down_in))
    either_bench.vesk.wait_for_log(FAILED_CHECK)
    either_bench.nothing_went_upstream()


def test_every_changed_byte_is_detected(either_bench: Bench) -> None:
    """Except in the label, which selects another flow, and in the header length."""
    flow = either_bench.flow(down_in=Key(b"key"))
    either_bench.declare(flow)
    either_bench.ask(flow)
    good = bytearray(flow.request(b"payload", b"extra" if flow.framing is UDPV1 else b""))
    size = flow.framing.header_size
    places = [*range(flow.framing.hmac_length), *range(size, len(good))]
    since = either_bench.vesk.mark()
    for place in places:
        bad = bytearray(good)
        bad[place] ^= 0x10
        either_bench.send(bytes(bad))
    either_bench.vesk.wait_for_log(FAILED_CHECK, since, count=len(places))
    either_bench.nothing_went_upstream()


def test_the_header_length_is_authenticated(start_vesk: StartVesk, peer: UdpEnd,
                                            upstream: UdpEnd) -> None:
    vesk = start_vesk("udpv1")
    bench = Bench(vesk, peer, upstream, UDPV1)
    flow = bench.flow(down_in=Key(b"key"))
    bench.declare(flow)
    bad = bytearray(flow.request(b"payload", b"extra"))
    bad[33] += 1
    bench.send(bytes(bad))
    vesk.wait_for_log(FAILED_CHECK)
    bench.nothing_went_upstream()


def test_a_flow_without_a_key_requires_zeros(either_bench: Bench) -> None:
    flow = either_bench.flow()
    either_bench.declare(flow)
    since = either_bench.vesk.mark()
    length = flow.framing.hmac_length
    for place in range(length):
        bad = bytearray(flow.request(b"x"))
        bad[place] = 1
        either_bench.send(bytes(bad))
    either_bench.vesk.wait_for_log(FAILED_CHECK, since, count=length)
    either_bench.nothing_went_upstream()


def test_a_failed_check_is_logged_at_every_level(bench: Bench) -> None:
    """The line is written directly and not through the logger."""
    flow = bench.flow(down_in=Key(b"key"))
    bench.declare(flow)
    bench.vesk.lines_after("log priority error")
    since = bench.vesk.mark()
    bench.send(bench.framing.build(5, b"unsigned"))
    bench.vesk.wait_for_log(FAILED_CHECK, since)
    # One line, with no empty line after it.
    place = bench.vesk.settle()
    assert bench.vesk.log_lines()[since:place] == [FAILED_CHECK]


def test_a_first_datagram_that_fails_its_check_leaves_no_endpoint(bench: Bench) -> None:
    flow = bench.flow(down_in=Key(b"key"))
    bench.declare(flow)
    descriptors = bench.vesk.descriptor_count()
    for _ in range(20):
        bench.send(bench.framing.build(5, b"unsigned"))
    bench.vesk.wait_for_log(FAILED_CHECK, count=20)
    bench.nothing_went_upstream()
    # The additional endpoint belongs to the flow that proved that nothing was sent.
    bench.vesk.wait_for_descriptor_count(descriptors + 2)
    bench.exchange(flow)


def test_a_datagram_that_fails_its_check_keeps_an_existing_endpoint(bench: Bench) -> None:
    flow = bench.flow(down_in=Key(b"key"))
    bench.declare(flow)
    before = bench.exchange(flow)
    bench.send(bench.framing.build(5, b"unsigned"))
    bench.vesk.wait_for_log(FAILED_CHECK)
    assert bench.exchange(flow) == before


def test_a_datagram_that_fails_its_check_keeps_the_reply_address(
        bench: Bench, new_end: Callable[..., UdpEnd]) -> None:
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    sender = bench.exchange(flow)
    stranger = new_end()
    stranger.send(bench.framing.build(5, b"unsigned"), bench.to)
    bench.vesk.wait_for_log(FAILED_CHECK)
    bench.answer(flow, sender)


# Framing --------------------------------------------------------------------------------

def test_further_header_bytes_are_relayed(start_vesk: StartVesk, peer: UdpEnd,
                                          upstream: UdpEnd) -> None:
    vesk = start_vesk("udpv1")
    bench = Bench(vesk, peer, upstream, UDPV1)
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    for extra in (b"", b"\x00", bytes(range(200))):
        arrived = bench.ask(flow, b"payload", extra)
        bench.answer(flow, arrived.sender, b"reply", extra)


def test_a_udpv2_datagram_may_be_a_header_alone(bench: Bench) -> None:
    for flow in (bench.flow(5), bench.flow(6, **four_keys())):
        bench.declare(flow)
        assert len(flow.request(b"")) == 20
        arrived = bench.ask(flow, b"")
        bench.answer(flow, arrived.sender, b"")


@pytest.mark.parametrize("length", [1, 4, 15, 16, 19])
def test_shorter_udpv2_datagrams_are_dropped(bench: Bench, length: int) -> None:
    """Even if the buffer still contains the missing bytes from the datagram before."""
    flow = bench.flow(5, up_label=0x105)
    bench.declare(flow)
    bench.ask(flow, b"")
    since = bench.vesk.mark()
    bench.send(flow.request(b"")[:length])
    bench.nothing_went_upstream()
    assert not [line for line in bench.vesk.remarks(since) if "Created" not in line]


@pytest.mark.parametrize("header_length, accepted", [
    (0, False), (37, False), (38, True), (39, True), (42, True), (43, False), (44, False),
    (65535, False)])
def test_udpv1_header_lengths_are_checked(start_vesk: StartVesk, peer: UdpEnd, upstream: UdpEnd,
                                          header_length: int, accepted: bool) -> None:
    """A datagram of 43 bytes: the payload follows the header and has at least one byte."""
    vesk = start_vesk("udpv1")
    bench = Bench(vesk, peer, upstream, UDPV1)
    flow = bench.flow()
    bench.declare(flow)
    datagram = UDPV1.build(5, b"hello", header_length=header_length)
    assert len(datagram) == 43
    bench.send(datagram)
    if accepted:
        arrived = upstream.receive().data
        assert len(flow.open_request(arrived).payload) == 43 - header_length
        assert arrived[38:] == b"hello"
    bench.nothing_went_upstream()


@pytest.mark.parametrize("length", [1, 20, 33, 37, 38])
def test_short_udpv1_datagrams_are_dropped(start_vesk: StartVesk, peer: UdpEnd,
                                           upstream: UdpEnd, length: int) -> None:
    vesk = start_vesk("udpv1")
    bench = Bench(vesk, peer, upstream, UDPV1)
    flow = bench.flow(5, up_label=0x105)
    bench.declare(flow)
    bench.ask(flow, b"x")
    bench.send(flow.request(b"x")[:length])
    bench.nothing_went_upstream()


def test_a_datagram_that_looks_like_udpv1_is_logged_and_forwarded(bench: Bench) -> None:
    flow = bench.flow()
    bench.declare(flow)
    bench.vesk.lines_after("log priority trace")
    for payload, remarked in ((bytes(12), True), (bytes(12) + b"more", True),
                              (bytes(11) + b"x", False), (b"x" + bytes(11), False)):
        since = bench.vesk.mark()
        bench.ask(flow, payload)
        bench.vesk.settle()
        assert (LOOKS_LIKE_UDPV1 in bench.vesk.log_lines(since)) == remarked, payload


def test_that_line_is_logged_at_trace_level_only(bench: Bench) -> None:
    flow = bench.flow()
    bench.declare(flow)
    bench.vesk.lines_after("log priority debug")
    bench.ask(flow, bytes(12))
    bench.vesk.settle()
    assert LOOKS_LIKE_UDPV1 not in bench.vesk.log_lines()


@pytest.mark.parametrize("length", [2047, 2048])
def test_the_largest_datagrams_are_forwarded(either_bench: Bench, length: int) -> None:
    flow = either_bench.flow(**four_keys())
    either_bench.declare(flow)
    arrived = either_bench.ask(flow, b"p" * (length - flow.framing.header_size))
    assert len(arrived.data) == length


@pytest.mark.parametrize("length", [2049, 4000, 60000])
def test_larger_datagrams_are_truncated_before_they_are_handled(either_bench: Bench,
                                                                length: int) -> None:
    keyless, keyed = either_bench.flow(5), either_bench.flow(6, **four_keys())
    either_bench.declare(keyless, keyed)
    payload = b"p" * (length - keyless.framing.header_size)
    either_bench.send(keyless.request(payload))
    arrived = either_bench.upstream.receive().data
    assert len(arrived) == 2048
    keyless.open_request(arrived)
    # The HMAC does not match the truncated datagram.
    either_bench.send(keyed.request(payload))
    either_bench.vesk.wait_for_log(FAILED_CHECK)
    either_bench.nothing_went_upstream()


def test_an_empty_datagram_is_reported_and_the_next_one_forwarded(bench: Bench) -> None:
    since = bench.vesk.mark()
    bench.send(b"")
    bench.vesk.wait_for_log(re.compile(
        r"error Forwarder downstream endpoint got error while receiving: errno = \d+ \(.+\)\."),
        since)
    bench.nothing_went_upstream()


# Labels ---------------------------------------------------------------------------------

@pytest.mark.parametrize("label", [1, 0x80000000, 0xFFFFFFFF, 0x01020304])
def test_labels_use_all_32_bits(either_bench: Bench, label: int) -> None:
    flow = either_bench.flow(label, up_label=0xFFFFFFFE, down_label=0x0A0B0C0D, **four_keys())
    either_bench.declare(flow)
    either_bench.exchange(flow)


@pytest.mark.parametrize("label", [0, 4, 6, 5 << 16, 0xFFFFFFFF])
def test_unknown_labels_are_dropped(bench: Bench, label: int) -> None:
    bench.declare(bench.flow(5))
    bench.vesk.lines_after("log priority debug")
    descriptors = bench.vesk.descriptor_count()
    bench.send(bench.framing.build(label, b"x"))
    bench.vesk.wait_for_log(f"debug Failed to create upstream endpoint with label {label}")
    assert bench.vesk.descriptor_count() == descriptors


def test_unknown_labels_are_not_logged_at_info(bench: Bench) -> None:
    bench.nothing_went_upstream()
    since = bench.vesk.mark()
    bench.send(bench.framing.build(4, b"x"))
    bench.nothing_went_upstream()
    assert bench.vesk.remarks(since) == []


def test_the_first_datagram_opens_the_upstream_endpoint(bench: Bench) -> None:
    flow = bench.flow(0xABCD)
    bench.declare(flow)
    bench.vesk.lines_after("log priority debug")
    before = set(bench.vesk.descriptors())
    bench.ask(flow)
    created = bench.vesk.wait_for_log(re.compile(
        r"info Created upstream endpoint: label 0xabcd/43981 sockfds (\d+) (\d+)"))
    sockets = [int(number) for number in created.split()[-2:]]
    assert set(bench.vesk.descriptors()) - before == set(sockets)
    assert len({bench.vesk.descriptors()[number] for number in sockets}) == 1, "not one socket"
    bench.vesk.wait_for_log(
        f"debug Successfully sent fd {sockets[0]} (add, EPOLLIN) to poll loop")
    bench.vesk.lines_after(f"del label {flow.label}")
    for number in sockets:
        bench.vesk.wait_for_log(f"debug Successfully sent fd {number} (del) to poll loop")


def test_a_second_datagram_uses_the_same_endpoint(bench: Bench) -> None:
    flow = bench.flow()
    bench.declare(flow)
    assert len({bench.ask(flow).sender for _ in range(20)}) == 1


def test_a_flow_without_an_upstream_address_drops_its_datagrams(bench: Bench) -> None:
    bench.declare(bench.flow(6, upstream=None))
    descriptors = bench.vesk.descriptor_count()
    bench.vesk.lines_after("log priority debug")
    bench.send(bench.framing.build(6, b"x"))
    bench.vesk.wait_for_log("debug Failed to create upstream endpoint with label 6")
    lines = bench.vesk.log_lines()
    assert ("error socket: new endpoint socket. Error: Address family not supported by protocol"
            in lines)
    assert "error createEndpoint: Failed to create endpoint sockets (family 0): -97" in lines
    assert bench.vesk.descriptor_count() == descriptors


# Addresses ------------------------------------------------------------------------------

def test_the_upstream_endpoint_is_bound_to_its_source_address(bench: Bench) -> None:
    port = free_port()
    flow = bench.flow(options={"up_src_ip": "127.0.0.1", "up_src_port": port})
    bench.declare(flow)
    assert bench.exchange(flow) == ("127.0.0.1", port)
    bench.vesk.wait_for_log(f"info Bound upstream endpoint to 127.0.0.1:{port}")


def test_an_ipv6_endpoint_sends_from_its_source_address(vesk: VeskProcess, peer: UdpEnd,
                                                        new_end: Callable[..., UdpEnd]) -> None:
    bench = Bench(vesk, peer, new_end("::1"))
    port = free_port("::1")
    flow = bench.flow(options={"up_src_ip": "::1", "up_src_port": port})
    bench.declare(flow)
    assert bench.exchange(flow) == ("::1", port)
    vesk.wait_for_log(f"info Bound upstream endpoint to ::1:{port}")


def test_the_kernel_chooses_the_ipv4_source_of_a_bound_endpoint(bench: Bench) -> None:
    """The port is the configured one; the kernel chooses the address."""
    port = free_port("127.0.0.3")
    flow = bench.flow(options={"up_src_ip": "127.0.0.3", "up_src_port": port})
    bench.declare(flow)
    assert bench.ask(flow).sender == (kernels_choice(bench.upstream.host), port)
    bench.vesk.wait_for_log(f"info Bound upstream endpoint to 127.0.0.3:{port}")


def test_half_an_upstream_source_address_has_no_effect(bench: Bench) -> None:
    flow = bench.flow(options={"up_src_ip": "127.0.0.1"})
    bench.declare(flow)
    bench.exchange(flow)
    assert not [line for line in bench.vesk.log_lines() if "Bound upstream" in line]


def test_an_upstream_source_address_in_use_is_an_error(bench: Bench,
                                                       new_end: Callable[..., UdpEnd]) -> None:
    taken = new_end()
    flow = bench.flow(options={"up_src_ip": taken.host, "up_src_port": taken.port})
    bench.declare(flow)
    descriptors = bench.vesk.descriptor_count()
    since = bench.vesk.mark()
    bench.send(flow.request(b"x"))
    bench.vesk.wait_for_log("error Failed bind syscall for upstream endpoint socket: "
                            "Address already in use", since)
    bench.vesk.wait_for_descriptor_count(descriptors)
    bench.nothing_went_upstream()
    assert not [line for line in bench.vesk.log_lines(since) if "label 0x5/5" in line]
    # The flow is still declared and works as soon as the address is free.
    taken.close()
    assert bench.exchange(flow) == (flow.options["up_src_ip"], flow.options["up_src_port"])


@pytest.mark.parametrize("listen, upstream_host", [
    ("127.0.0.1", "::1"), ("::1", "127.0.0.1"), ("::1", "::1")])
def test_families_may_differ_on_the_two_sides(vesk: VeskProcess,
                                              new_end: Callable[..., UdpEnd],
                                              listen: str, upstream_host: str) -> None:
    bench = Bench(vesk, new_end(listen), new_end(upstream_host), listen=listen)
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    bench.exchange(flow)


# DSCP -----------------------------------------------------------------------------------

def test_without_a_dscp_none_is_set(vesk: VeskProcess, new_end: Callable[..., UdpEnd]) -> None:
    for host in ("127.0.0.1", "::1"):
        bench = Bench(vesk, new_end(host), new_end(host), listen=host)
        flow = bench.flow(6)
        bench.declare(flow)
        arrived = bench.ask(flow)
        assert arrived.dscp == 0
        assert bench.answer(flow, arrived.sender).dscp == 0
        vesk.lines_after("stop", "del label 6", f"del label {0xFEED}")


MARKS = {"up_out_dscp_v4": 10, "up_out_dscp_v6": 20,
         "down_out_dscp_v4": 30, "down_out_dscp_v6": 40}


@pytest.mark.parametrize("host, upwards, downwards", [("127.0.0.1", 10, 30), ("::1", 20, 40)])
def test_dscp_values_apply_to_their_family_and_direction(vesk: VeskProcess,
                                                         new_end: Callable[..., UdpEnd], host: str,
                                                         upwards: int, downwards: int) -> None:
    bench = Bench(vesk, new_end(host), new_end(host), listen=host)
    flow = bench.flow(options=dict(MARKS))
    bench.declare(flow)
    arrived = bench.ask(flow)
    assert arrived.dscp == upwards
    assert bench.answer(flow, arrived.sender).dscp == downwards


@pytest.mark.parametrize("mark", [0, 1, 46, 63])
def test_the_dscp_is_in_the_upper_six_bits(bench: Bench, mark: int) -> None:
    flow = bench.flow(options={"up_out_dscp_v4": mark, "down_out_dscp_v4": mark})
    bench.declare(flow)
    arrived = bench.ask(flow)
    assert arrived.dscp == mark
    assert bench.answer(flow, arrived.sender).dscp == mark


def test_the_dscp_of_the_other_family_is_not_used(bench: Bench) -> None:
    flow = bench.flow(options={"up_out_dscp_v6": 20, "down_out_dscp_v6": 40})
    bench.declare(flow)
    arrived = bench.ask(flow)
    assert arrived.dscp == 0
    assert bench.answer(flow, arrived.sender).dscp == 0


def test_an_ipv4_mapped_address_gets_the_ipv4_dscp(bench: Bench) -> None:
    host, port = bench.upstream.address
    options: Dict[str, object] = dict(MARKS)
    flow = bench.flow(options=options, upstream=(f"::ffff:{host}", port))
    bench.declare(flow)
    assert bench.ask(flow).dscp == 10
