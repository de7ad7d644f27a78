"""Instances that forward datagrams to the instance that owns their label.

In half of these tests a plain socket acts as the other instance: it receives every byte
sent over the lateral stream, and sends bytes that no correct instance would send.
"""

from __future__ import annotations

import re
from typing import List, Optional

import pytest

from framework.fixtures import StartVesk
from framework.faults import failing_calls
from framework.flow import Flow, four_keys
from framework.framing import (FORWARDED, RETURNED, UDPV1, UDPV2, Framing, build_lateral,
                               parse_lateral, socket_address_bytes)
from framework.lateral import (LOOPBACK, MINE, OTHERS, Joined, NewEnd, join, owned_label,
                               shared_free_port)
from framework.statistics import report, wait_for_report
from framework.timing import wait_until
from framework.udp import UdpEnd
from framework.vesk_process import VeskProcess

IPV4_HEADER, IPV6_HEADER = 34, 46


@pytest.fixture
def joined(vesk: VeskProcess, new_end: NewEnd) -> Joined:
    return Joined(vesk, new_end)


# Sending to the owner -------------------------------------------------------------------

@pytest.mark.parametrize("framing", [UDPV1, UDPV2], ids=lambda framing: framing.name)
def test_a_datagram_is_sent_unchanged_to_the_owner_of_its_label(start_vesk: StartVesk,
                                                                new_end: NewEnd,
                                                                framing: Framing) -> None:
    joined = Joined(start_vesk(framing.name).ready(), new_end, framing)
    datagram = joined.foreign(b"some words")
    joined.peer.send(datagram, joined.to)
    arrived = joined.neighbour.receive()
    assert arrived.sender == joined.lateral_to
    assert arrived.data[0] == FORWARDED and arrived.data[1] == 16 + 16
    handed = parse_lateral(arrived.data)
    assert handed.address == socket_address_bytes(*joined.peer.address)
    assert handed.framed == datagram
    assert handed.authentication != bytes(16)


def test_the_lateral_header_contains_the_address_of_an_ipv6_sender(vesk: VeskProcess,
                                                                   new_end: NewEnd) -> None:
    joined = Joined(vesk, new_end, listen="::1")
    handed = joined.hand_over(joined.foreign())
    assert handed.address == socket_address_bytes("::1", joined.peer.port)
    joined.nothing_reached_the_peer()


def test_the_lateral_hmac_covers_only_the_address(joined: Joined, new_end: NewEnd) -> None:
    first = joined.hand_over(joined.foreign(b"one"))
    second = joined.hand_over(joined.foreign(b"two, which is longer"))
    assert first.authentication == second.authentication
    joined.peer = new_end()
    assert joined.hand_over(joined.foreign(b"one")).authentication != first.authentication


def test_every_start_draws_a_new_key(start_vesk: StartVesk, new_end: NewEnd) -> None:
    codes = set()
    peer: Optional[UdpEnd] = None
    for _ in range(3):
        joined = Joined(start_vesk().ready(), new_end)
        joined.peer = peer = peer or joined.peer
        codes.add(joined.hand_over(joined.foreign()).authentication)
    assert len(codes) == 3


@pytest.mark.parametrize("listen, header", [("127.0.0.1", IPV4_HEADER), ("::1", IPV6_HEADER)])
def test_a_datagram_that_does_not_fit_with_its_header_is_dropped(vesk: VeskProcess, new_end: NewEnd,
                                                                 listen: str, header: int) -> None:
    """The limit is 2,048 bytes including the header."""
    joined = Joined(vesk, new_end, listen=listen)
    room = 2048 - header - UDPV2.header_size
    too_long = joined.foreign(b"p" * (room + 1))
    joined.peer.send(too_long, joined.to)
    fitting = joined.foreign(b"p" * room)
    handed = joined.hand_over(fitting)
    assert handed.framed == fitting
    assert wait_for_report(vesk, lambda now: now.lateral["TxDg"] == 1).lateral["TxDgDropped"] == 1


def test_datagrams_with_own_labels_are_not_sent_to_the_neighbour(joined: Joined) -> None:
    joined.peer.send(joined.flow.request(b"mine"), joined.to)
    assert joined.flow.open_request(joined.upstream.receive().data).payload == b"mine"
    joined.nothing_reached_the_peer()
    assert joined.neighbour.waiting() is None


def test_a_datagram_whose_owner_is_not_a_peer_is_dropped(vesk: VeskProcess,
                                                         new_end: NewEnd) -> None:
    joined = Joined(vesk, new_end, instances=3)
    unknown = owned_label(2, instances=3)
    joined.peer.send(UDPV2.build(unknown, b"x"), joined.to)
    wait_for_report(vesk, lambda now: now.downstream["RxDgError"] == 1)
    # Peers may be added later.
    late = new_end(LOOPBACK[2], joined.lateral_port) if _is_free(
        LOOPBACK[2], joined.lateral_port) else None
    if late is None:
        pytest.skip("the shared port is taken on the third address")
    vesk.lines_after(f"add_lateral_peer idx 2 addr {LOOPBACK[2]}")
    joined.peer.send(UDPV2.build(unknown, b"y"), joined.to)
    assert parse_lateral(late.receive().data).framed == UDPV2.build(unknown, b"y")


def _is_free(host: str, port: int) -> bool:
    try:
        UdpEnd(host, port).close()
    except OSError:
        return False
    return True


def test_before_the_start_an_instance_owns_every_label(vesk: VeskProcess, new_end: NewEnd) -> None:
    upstream, peer = new_end(), new_end()
    flow = Flow(owned_label(OTHERS), upstream.address)
    vesk.lines_after("add_lateral_peer idx 1 addr 127.0.0.2", flow.set_command())
    peer.send(flow.request(b"x"), ("127.0.0.1", vesk.listen()))
    flow.open_request(upstream.receive().data)


def test_with_zero_instances_an_instance_owns_every_label(vesk: VeskProcess,
                                                          new_end: NewEnd) -> None:
    port = shared_free_port([LOOPBACK[0]])
    join(vesk, MINE, {0: LOOPBACK[0], 1: LOOPBACK[1]}, port, instances=0)
    upstream, peer = new_end(), new_end()
    to = ("127.0.0.1", vesk.listen())
    for label in (owned_label(MINE), owned_label(OTHERS), 0xFFFFFFFF, 1):
        flow = Flow(label, upstream.address, up_label=1, down_label=2)
        vesk.lines_after(flow.set_command())
        peer.send(flow.request(b"x"), to)
        flow.open_request(upstream.receive().data)


# Receiving from another instance --------------------------------------------------------

@pytest.mark.parametrize("framing", [UDPV1, UDPV2], ids=lambda framing: framing.name)
@pytest.mark.parametrize("address", [socket_address_bytes("192.0.2.1", 7),
                                     socket_address_bytes("2001:db8::1", 7)], ids=["v4", "v6"])
def test_a_lateral_datagram_is_forwarded_and_its_reply_is_returned(
        start_vesk: StartVesk, new_end: NewEnd, framing: Framing, address: bytes) -> None:
    """The neighbour's HMAC is stored and sent back; only the neighbour can check it."""
    joined = Joined(start_vesk(framing.name).ready(), new_end, framing)
    joined.neighbour.send(joined.forward(b"question", address), joined.lateral_to)
    arrived = joined.upstream.receive()
    assert joined.flow.open_request(arrived.data).payload == b"question"
    joined.upstream.send(joined.flow.reply(b"answer"), arrived.sender)
    back = joined.neighbour.receive()
    returned = parse_lateral(back.data)
    assert (returned.kind, returned.address, returned.authentication) == (
        RETURNED, address, b"neighbour's code")
    assert joined.flow.open_reply(returned.framed).payload == b"answer"
    assert back.sender[1] == joined.lateral_port


def test_a_lateral_datagram_is_not_sent_to_a_third_instance(joined: Joined) -> None:
    handed = build_lateral(FORWARDED, socket_address_bytes("192.0.2.1", 7), bytes(16),
                           joined.foreign())
    joined.neighbour.send(handed, joined.lateral_to)
    seen = wait_for_report(joined.vesk, lambda now: now.downstream["RxDgError"] == 1)
    assert seen.lateral["RxDg"] == 1 and seen.lateral["RxDgError"] == 0
    assert joined.neighbour.waiting() is None


def test_a_lateral_datagram_is_checked_with_the_key_of_its_flow(joined: Joined) -> None:
    handed = build_lateral(FORWARDED, socket_address_bytes("192.0.2.1", 7), bytes(16),
                           UDPV2.build(joined.flow.label, b"unsigned"))
    joined.neighbour.send(handed, joined.lateral_to)
    joined.vesk.wait_for_log("downstreamPacketReceivedFailed HMAC Check!")
    assert report(joined.vesk).downstream["RxDgError"] == 1


def test_a_direct_datagram_replaces_the_return_path_over_the_neighbour(joined: Joined) -> None:
    joined.neighbour.send(joined.forward(b"by the neighbour"), joined.lateral_to)
    sender = joined.upstream.receive().sender
    joined.upstream.send(joined.flow.reply(b"one"), sender)
    assert parse_lateral(joined.neighbour.receive().data).kind == RETURNED
    joined.peer.send(joined.flow.request(b"directly"), joined.to)
    joined.upstream.receive()
    joined.upstream.send(joined.flow.reply(b"two"), sender)
    answer = joined.peer.receive()
    assert joined.flow.open_reply(answer.data).payload == b"two" and answer.sender == joined.to
    assert joined.neighbour.waiting() is None
    # A lateral datagram restores the return path.
    joined.neighbour.send(joined.forward(b"by the neighbour"), joined.lateral_to)
    joined.upstream.receive()
    joined.upstream.send(joined.flow.reply(b"three"), sender)
    returned = parse_lateral(joined.neighbour.receive().data)
    assert joined.flow.open_reply(returned.framed).payload == b"three"
    assert joined.peer.waiting() is None


@pytest.mark.parametrize("address, header", [
    (socket_address_bytes("192.0.2.1", 7), IPV4_HEADER),
    (socket_address_bytes("2001:db8::1", 7), IPV6_HEADER)], ids=["v4", "v6"])
def test_a_reply_that_does_not_fit_with_its_return_header_is_dropped(joined: Joined, address: bytes,
                                                                     header: int) -> None:
    joined.neighbour.send(joined.forward(b"question", address), joined.lateral_to)
    sender = joined.upstream.receive().sender
    room = 2048 - header - UDPV2.header_size
    joined.upstream.send(joined.flow.reply(b"p" * (room + 1)), sender)
    joined.upstream.send(joined.flow.reply(b"q" * room), sender)
    returned = joined.neighbour.receive().data
    assert len(returned) == 2048
    assert joined.flow.open_reply(parse_lateral(returned).framed).payload == b"q" * room
    seen = wait_for_report(joined.vesk,
                           lambda now: now.upstream[joined.flow.label]["DnTxDg"] == 1)
    assert seen.lateral["TxDgDropped"] == 1
    assert seen.upstream[joined.flow.label]["DnTxDgDropped"] == 0


def test_a_reply_to_the_neighbour_has_the_dscp_of_its_flow(joined: Joined) -> None:
    """A reply over the lateral stream has the same DSCP as any reply of its flow."""
    joined.vesk.lines_after(f"set label {joined.flow.label} down_out_dscp_v4 30")
    joined.neighbour.send(joined.forward(b"question"), joined.lateral_to)
    sender = joined.upstream.receive().sender
    joined.upstream.send(joined.flow.reply(b"answer"), sender)
    assert joined.neighbour.receive().dscp == 30


# Returning ------------------------------------------------------------------------------

def test_a_returned_datagram_reaches_the_peer_unchanged(joined: Joined, new_end: NewEnd) -> None:
    """Only the HMAC is checked, neither the sender nor the content."""
    handed = joined.hand_over(joined.foreign())
    for sender, content in ((joined.neighbour, b"anything at all"), (new_end(), b"x"),
                            (joined.neighbour, b"p" * (2048 - IPV4_HEADER))):
        sender.send(build_lateral(RETURNED, handed.address, handed.authentication, content),
                    joined.lateral_to)
        answer = joined.peer.receive()
        assert (answer.data, answer.sender, answer.dscp) == (content, joined.to, 0)
    seen = wait_for_report(joined.vesk, lambda now: now.lateral["DnTxDg"] == 3)
    assert seen.lateral["RxDg"] == 3 and seen.lateral["RxDgError"] == 0


def test_a_forged_lateral_hmac_is_refused(joined: Joined) -> None:
    handed = joined.hand_over(joined.foreign())
    for place in range(16):
        forged = bytearray(handed.authentication)
        forged[place] ^= 1
        joined.neighbour.send(build_lateral(RETURNED, handed.address, bytes(forged), b"forged"),
                              joined.lateral_to)
    joined.neighbour.send(build_lateral(RETURNED, handed.address, bytes(16), b"forged"),
                          joined.lateral_to)
    joined.nothing_reached_the_peer()
    seen = wait_for_report(joined.vesk, lambda now: now.lateral["DnTxDg"] == 1)
    assert seen.lateral["RxDgError"] == 17


def test_a_changed_address_is_refused(joined: Joined, new_end: NewEnd) -> None:
    handed = joined.hand_over(joined.foreign())
    other = new_end()
    joined.neighbour.send(build_lateral(RETURNED, socket_address_bytes(*other.address),
                                        handed.authentication, b"redirected"), joined.lateral_to)
    joined.nothing_reached_the_peer()
    assert joined.lateral()["RxDgError"] == 1 and other.waiting() is None


def test_the_lateral_hmac_of_another_instance_is_refused(start_vesk: StartVesk,
                                                         new_end: NewEnd) -> None:
    first, second = (Joined(start_vesk().ready(), new_end) for _ in range(2))
    second.peer = first.peer
    foreign = second.hand_over(second.foreign())
    first.neighbour.send(build_lateral(RETURNED, foreign.address, foreign.authentication, b"no"),
                         first.lateral_to)
    first.nothing_reached_the_peer()
    assert first.lateral()["RxDgError"] == 1


def test_after_stop_a_returned_datagram_is_dropped(joined: Joined) -> None:
    handed = joined.hand_over(joined.foreign())
    joined.vesk.lines_after("stop")
    joined.neighbour.send(build_lateral(RETURNED, handed.address, handed.authentication, b"late"),
                          joined.lateral_to)
    wait_for_report(joined.vesk, lambda now: now.lateral["DnTxDgDropped"] == 1)
    assert joined.lateral()["DnTxDg"] == 0


# Bad headers ----------------------------------------------------------------------------

V4 = socket_address_bytes("192.0.2.1", 7)
FRAMED = UDPV2.build(owned_label(MINE), b"x")


@pytest.mark.parametrize("datagram", [
    pytest.param(bytes([FORWARDED]), id="one byte"),
    pytest.param(build_lateral(FORWARDED, V4, bytes(15), b"", length_byte=32), id="33 bytes"),
    pytest.param(build_lateral(FORWARDED, V4, bytes(16), FRAMED, length_byte=31), id="length 31"),
    pytest.param(build_lateral(FORWARDED, V4, bytes(40), FRAMED, length_byte=45), id="length 45"),
    pytest.param(build_lateral(FORWARDED, V4, bytes(16), b"", length_byte=44), id="cut"),
    pytest.param(build_lateral(FORWARDED, V4, bytes(16), FRAMED, length_byte=0), id="length 0"),
    pytest.param(build_lateral(FORWARDED, V4, bytes(16), FRAMED, length_byte=255),
                 id="length 255"),
    pytest.param(build_lateral(0, V4, bytes(16), FRAMED), id="type 0"),
    pytest.param(build_lateral(3, V4, bytes(16), FRAMED), id="type 3"),
    pytest.param(build_lateral(255, V4, bytes(16), FRAMED), id="type 255"),
])
def test_bad_headers_are_counted_and_dropped(joined: Joined, datagram: bytes) -> None:
    joined.neighbour.send(datagram, joined.lateral_to)
    seen = wait_for_report(joined.vesk, lambda now: now.lateral["RxDgError"] == 1)
    assert seen.lateral["RxDg"] == 1 and seen.downstream["RxDgError"] == 0
    joined.nothing_reached_the_peer()


@pytest.mark.parametrize("address_length", [16, 17, 22, 27, 28])
def test_addresses_of_other_lengths_are_returned_unchanged(joined: Joined,
                                                           address_length: int) -> None:
    """Only the instance that wrote an address reads it."""
    address = bytes(range(address_length))
    joined.neighbour.send(joined.forward(b"question", address), joined.lateral_to)
    sender = joined.upstream.receive().sender
    joined.upstream.send(joined.flow.reply(b"answer"), sender)
    assert parse_lateral(joined.neighbour.receive().data).address == address


def test_a_lateral_header_without_a_datagram_is_counted(joined: Joined) -> None:
    """It is long enough for a lateral header, but the datagram in it is too short."""
    joined.neighbour.send(build_lateral(FORWARDED, V4, bytes(16), b""), joined.lateral_to)
    seen = wait_for_report(joined.vesk, lambda now: now.downstream["RxDgError"] == 1)
    assert seen.lateral["RxDg"] == 1 and seen.lateral["RxDgError"] == 0


def test_lateral_datagrams_that_are_too_long_are_truncated(joined: Joined) -> None:
    joined.neighbour.send(joined.forward(b"p" * 3000), joined.lateral_to)
    joined.vesk.wait_for_log("downstreamPacketReceivedFailed HMAC Check!")
    joined.nothing_reached_the_peer()


# Errors ---------------------------------------------------------------------------------

def lateral_threads(vesk: VeskProcess) -> List[int]:
    """Both receive threads wait in the same call."""
    wait_until(lambda: len(vesk.threads_in("recvmmsg")) == 2, "both receive threads are idle")
    return vesk.threads_in("recvmmsg")


def test_a_receive_error_is_reported(joined: Joined) -> None:
    with failing_calls(joined.vesk, lateral_threads(joined.vesk),
                       "recvmmsg:error=ENOBUFS:when=1"):
        joined.vesk.wait_for_log("error Forwarder lateral stream endpoint got error while "
                                 "receiving: errno = 105 (No buffer space available).")
    joined.nothing_reached_the_peer()


def test_an_empty_lateral_datagram_has_no_effect_on_later_ones(joined: Joined) -> None:
    joined.neighbour.send(b"", joined.lateral_to)
    joined.vesk.wait_for_log(re.compile(r"error Forwarder lateral stream endpoint got error while "
                                        r"receiving: errno = \d+ \(.+\)\."))
    joined.nothing_reached_the_peer()


@pytest.mark.parametrize("error, dropped", [("ENOBUFS", 1), ("EAGAIN", 1), ("ECONNREFUSED", 0)])
def test_a_failed_send_to_the_neighbour_is_counted(joined: Joined, error: str,
                                                   dropped: int) -> None:
    with failing_calls(joined.vesk, lateral_threads(joined.vesk),
                       f"sendmsg:error={error}:when=1") as trace:
        joined.peer.send(joined.foreign(), joined.to)
        wait_until(lambda: error in trace.read_text(), "the datagram was refused")
    joined.nothing_reached_the_peer()
    seen = wait_for_report(joined.vesk, lambda now: now.lateral["TxDg"] == 1)
    assert seen.lateral["TxDgDropped"] == dropped


@pytest.mark.parametrize("error, dropped", [("ENOBUFS", 1), ("EAGAIN", 1), ("ECONNREFUSED", 0)])
def test_a_failed_send_to_the_peer_is_counted(joined: Joined, error: str, dropped: int) -> None:
    handed = joined.hand_over(joined.foreign())
    with failing_calls(joined.vesk, lateral_threads(joined.vesk),
                       f"sendmsg:error={error}:when=1") as trace:
        joined.neighbour.send(build_lateral(RETURNED, handed.address, handed.authentication,
                                            b"lost"), joined.lateral_to)
        wait_until(lambda: error in trace.read_text(), "the datagram was refused")
    joined.nothing_reached_the_peer()
    seen = wait_for_report(joined.vesk, lambda now: now.lateral["DnTxDg"] == 1)
    assert seen.lateral["DnTxDgDropped"] == dropped


# Several forwarders ---------------------------------------------------------------------

class Group:
    """Joined forwarders, each with its own flow."""

    def __init__(self, start_vesk: StartVesk, new_end: NewEnd, count: int,
                 framing: Framing = UDPV2, listen: str = "127.0.0.1") -> None:
        self.upstream = new_end()
        hosts = {index: LOOPBACK[index] for index in range(count)}
        port = shared_free_port(list(hosts.values()))
        self.instances = [start_vesk(framing.name).ready() for _ in range(count)]
        self.listeners = []
        self.flows = [Flow(owned_label(index, 1, count), self.upstream.address, framing=framing,
                           **four_keys()) for index in range(count)]
        for index, vesk in enumerate(self.instances):
            join(vesk, index, hosts, port, count)
            self.listeners.append((listen, vesk.listen(listen)))
            vesk.lines_after(self.flows[index].set_command())

    def exchange(self, peer: UdpEnd, instance: int, flow: Flow) -> None:
        peer.send(flow.request(b"question"), self.listeners[instance])
        arrived = self.upstream.receive()
        assert flow.open_request(arrived.data).payload == b"question"
        self.upstream.send(flow.reply(b"answer"), arrived.sender)
        answer = peer.receive()
        assert flow.open_reply(answer.data).payload == b"answer"
        assert answer.sender == self.listeners[instance]


@pytest.mark.parametrize("count", [2, 3])
@pytest.mark.parametrize("framing", [UDPV1, UDPV2], ids=lambda framing: framing.name)
@pytest.mark.parametrize("listen", ["127.0.0.1", "::1"])
def test_every_flow_is_reached_through_every_instance(
        start_vesk: StartVesk, new_end: NewEnd, count: int, framing: Framing,
        listen: str) -> None:
    group = Group(start_vesk, new_end, count, framing, listen)
    for instance in range(count):
        peer = new_end(listen)
        for flow in group.flows:
            group.exchange(peer, instance, flow)
            group.exchange(peer, instance, flow)


def test_an_auxiliary_flow_of_another_instance_is_reached(start_vesk: StartVesk,
                                                          new_end: NewEnd) -> None:
    group = Group(start_vesk, new_end, 2)
    prefix = owned_label(1) >> 16
    owner = group.flows[1]
    group.instances[1].lines_after(f"set label {owner.label} up_aux_flow_label {0x7DEF0000} "
                                   f"down_aux_flow_label_prefix {prefix}")
    flow = Flow((prefix << 16) | 99, group.upstream.address, up_label=0x7DEF0000 | 99,
                down_label=owner.down_label, **four_keys())
    for instance in (0, 1, 0):
        group.exchange(new_end(), instance, flow)


def test_instances_end_cleanly_with_traffic_between_them(start_vesk: StartVesk,
                                                         new_end: NewEnd) -> None:
    group = Group(start_vesk, new_end, 2)
    peer = new_end()
    group.exchange(peer, 0, group.flows[1])
    group.instances[1].finish()
    for _ in range(20):
        peer.send(group.flows[1].request(b"anybody?"), group.listeners[0])
    group.exchange(peer, 0, group.flows[0])
    group.instances[0].finish()
