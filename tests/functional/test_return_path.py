"""From the upstream service back to the peer."""

from __future__ import annotations

from pathlib import Path
from typing import Callable, Optional

import pytest

from framework.fixtures import StartVesk
from framework.bench import Bench
from framework.faults import recording_start
from framework.flow import four_keys
from framework.framing import UDPV1, Key
from framework.udp import UdpEnd, UpstreamService, free_port, kernels_choice
from framework.vesk_process import VeskProcess


# Authentication -------------------------------------------------------------------------

@pytest.mark.parametrize("incoming", [None, "sha1", "sha256"])
@pytest.mark.parametrize("outgoing", [None, "sha1", "sha256"])
def test_replies_are_checked_and_signed_again(either_bench: Bench, incoming: Optional[str],
                                              outgoing: Optional[str]) -> None:
    flow = either_bench.flow(up_in=incoming and Key(b"upstream", incoming),
                             down_out=outgoing and Key(b"downstream", outgoing))
    either_bench.declare(flow)
    sender = either_bench.ask(flow).sender
    for payload in (b"x", b"some more words", bytes(range(256)) * 5):
        either_bench.answer(flow, sender, payload)


def test_a_reply_that_fails_its_check_is_dropped_silently(either_bench: Bench) -> None:
    flow = either_bench.flow(**four_keys())
    either_bench.declare(flow)
    sender = either_bench.ask(flow).sender
    either_bench.vesk.lines_after("log priority debug")
    since = either_bench.vesk.mark()
    good = flow.reply(b"payload")
    for place in [*range(flow.framing.hmac_length), len(good) - 1]:
        bad = bytearray(good)
        bad[place] ^= 1
        either_bench.upstream.send(bytes(bad), sender)
    either_bench.upstream.send(flow.framing.build(5, b"unsigned"), sender)
    either_bench.nothing_came_back(flow, sender)
    either_bench.vesk.settle()
    assert either_bench.vesk.remarks(since) == []


def test_a_flow_without_a_key_requires_zeros_in_replies(either_bench: Bench) -> None:
    flow = either_bench.flow()
    either_bench.declare(flow)
    sender = either_bench.ask(flow).sender
    for place in range(flow.framing.hmac_length):
        bad = bytearray(flow.reply(b"x"))
        bad[place] = 0x80
        either_bench.upstream.send(bytes(bad), sender)
    either_bench.nothing_came_back(flow, sender)


# Framing --------------------------------------------------------------------------------

@pytest.mark.parametrize("length", [2047, 2048])
def test_the_largest_replies_are_forwarded(either_bench: Bench, length: int) -> None:
    flow = either_bench.flow(**four_keys())
    either_bench.declare(flow)
    sender = either_bench.ask(flow).sender
    payload = b"p" * (length - flow.framing.header_size)
    assert len(either_bench.answer(flow, sender, payload).data) == length


def test_larger_replies_are_truncated_before_they_are_handled(either_bench: Bench) -> None:
    keyless, keyed = either_bench.flow(5), either_bench.flow(6, **four_keys())
    either_bench.declare(keyless, keyed)
    sender = either_bench.ask(keyless).sender
    either_bench.upstream.send(keyless.reply(b"p" * 3000), sender)
    arrived = either_bench.peer.receive().data
    assert len(arrived) == 2048
    keyless.open_reply(arrived)
    sender = either_bench.ask(keyed).sender
    either_bench.upstream.send(keyed.reply(b"p" * 3000), sender)
    either_bench.nothing_came_back(keyed, sender)


@pytest.mark.parametrize("missing", [1, 4, 10, 19])
def test_short_replies_are_dropped(either_bench: Bench, missing: int) -> None:
    """The smallest header without its last bytes, which the buffer still contains from the
    reply before."""
    flow = either_bench.flow()
    either_bench.declare(flow)
    sender = either_bench.ask(flow).sender
    either_bench.answer(flow, sender, b"x")
    either_bench.upstream.send(flow.reply(b"x")[:flow.framing.header_size - missing], sender)
    either_bench.nothing_came_back(flow, sender)


@pytest.mark.parametrize("header_length", [37, 39, 65535])
def test_replies_with_a_bad_header_length_are_dropped(start_vesk: StartVesk, peer: UdpEnd,
                                                      upstream: UdpEnd,
                                                      header_length: int) -> None:
    bench = Bench(start_vesk("udpv1"), peer, upstream, UDPV1)
    flow = bench.flow()
    bench.declare(flow)
    sender = bench.ask(flow).sender
    upstream.send(UDPV1.build(5, b"x", header_length=header_length), sender)
    bench.nothing_came_back(flow, sender)


def test_an_empty_reply_has_no_effect(bench: Bench) -> None:
    """The flow is kept, and its socket is armed again."""
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    sender = bench.exchange(flow)
    descriptors = bench.vesk.descriptor_count()
    since = bench.vesk.mark()
    for _ in range(10):
        bench.upstream.send(b"", sender)
        bench.answer(flow, sender)
    bench.upstream.send(b"", sender)
    assert bench.exchange(flow) == sender
    bench.vesk.settle()
    assert bench.vesk.remarks(since) == []
    assert bench.vesk.descriptor_count() == descriptors


def test_a_reply_that_looks_like_udpv1_is_logged(bench: Bench) -> None:
    flow = bench.flow()
    bench.declare(flow)
    sender = bench.ask(flow).sender
    bench.vesk.lines_after("log priority trace")
    since = bench.vesk.mark()
    bench.answer(flow, sender, bytes(12))
    bench.vesk.wait_for_log("trace Dropping UDPv1 packet!", since)


# Labels ---------------------------------------------------------------------------------

@pytest.mark.parametrize("label", [0, 5, 6, 0xFFFFFFFF])
def test_the_label_of_a_reply_does_not_select_the_flow(either_bench: Bench, label: int) -> None:
    """The socket selects the flow. Another label is counted, and the reply is forwarded."""
    flow = either_bench.flow(**four_keys())
    either_bench.declare(flow)
    sender = either_bench.ask(flow).sender
    either_bench.upstream.send(flow.reply(b"answer", label=label), sender)
    assert flow.open_reply(either_bench.peer.receive().data).payload == b"answer"


def test_flows_do_not_mix(bench: Bench, new_end: Callable[..., UdpEnd]) -> None:
    """Thirty flows with one peer each: every answer reaches the sender of its question."""
    flows = [bench.flow(label, **four_keys()) for label in range(1, 31)]
    bench.declare(*flows)
    peers = {flow.label: new_end() for flow in flows}
    for flow in flows:
        for number in range(10):
            peers[flow.label].send(flow.request(f"{flow.label} {number}".encode()), bench.to)
    by_up_label = {flow.up_label: flow for flow in flows}
    for _ in range(10 * len(flows)):
        arrived = bench.upstream.receive()
        flow = by_up_label[bench.framing.parse(arrived.data).label]
        bench.upstream.send(flow.reply(flow.open_request(arrived.data).payload), arrived.sender)
    for flow in flows:
        answers = [flow.open_reply(peers[flow.label].receive().data).payload for _ in range(10)]
        assert answers == [f"{flow.label} {number}".encode() for number in range(10)]


# Who gets the reply ---------------------------------------------------------------------

def test_replies_go_to_the_last_sender(bench: Bench, new_end: Callable[..., UdpEnd]) -> None:
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    peers = [bench.peer, new_end(), new_end("127.0.0.7")]
    for peer in peers * 3:
        bench.peer = peer
        bench.exchange(flow)
    assert all(peer.waiting() is None for peer in peers)


def test_replies_without_a_request_go_to_the_last_sender(bench: Bench) -> None:
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    sender = bench.ask(flow).sender
    for number in range(50):
        bench.answer(flow, sender, f"answer {number}".encode())


def test_replies_are_accepted_from_any_address(bench: Bench,
                                               new_end: Callable[..., UdpEnd]) -> None:
    """The socket is not connected to the upstream address; only the key is checked."""
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    sender = bench.ask(flow).sender
    new_end("127.0.0.8").send(flow.reply(b"from elsewhere"), sender)
    assert flow.open_reply(bench.peer.receive().data).payload == b"from elsewhere"


def test_replies_come_from_the_port_that_received_the_request(bench: Bench) -> None:
    flow = bench.flow()
    bench.declare(flow)
    sender = bench.ask(flow).sender
    assert bench.answer(flow, sender).sender == bench.to


def test_a_peer_that_has_gone_is_no_error(bench: Bench, new_end: Callable[..., UdpEnd]) -> None:
    flow = bench.flow()
    bench.declare(flow)
    gone = new_end()
    gone.send(flow.request(b"question"), bench.to)
    sender = bench.upstream.receive().sender
    gone.close()
    since = bench.vesk.mark()
    for _ in range(20):
        bench.upstream.send(flow.reply(b"answer"), sender)
    assert bench.exchange(flow) == sender
    bench.vesk.settle()
    assert bench.vesk.remarks(since) == []


def test_an_unreachable_upstream_service_is_no_error(
        bench: Bench, new_end: Callable[..., UdpEnd]) -> None:
    """Its host answers with an ICMP error, and the flow remains until the service is back."""
    port = free_port()
    flow = bench.flow(upstream=("127.0.0.1", port))
    bench.declare(flow)
    since = bench.vesk.mark()
    for _ in range(20):
        bench.send(flow.request(b"anybody there?"))
    bench.nothing_went_upstream()
    service = new_end("127.0.0.1", port)
    bench.send(flow.request(b"now?"))
    arrived = service.receive()
    assert flow.open_request(arrived.data).payload == b"now?"
    service.send(flow.reply(b"yes"), arrived.sender)
    assert flow.open_reply(bench.peer.receive().data).payload == b"yes"
    assert not [line for line in bench.vesk.remarks(since) if "Created upstream" not in line]


# From which address ---------------------------------------------------------------------

@pytest.mark.parametrize("asked", ["127.0.0.1", "127.0.0.2", "127.1.2.3"])
def test_an_ipv6_listener_answers_ipv4_peers_from_their_destination(
        vesk: VeskProcess, peer: UdpEnd, upstream: UdpEnd, asked: str) -> None:
    """The kernel uses the source address from the packet information of IPv6."""
    bench = Bench(vesk, peer, upstream, listen="::")
    bench.to = (asked, bench.to[1])
    flow = bench.flow(options={"down_out_dscp_v4": 30, "down_out_dscp_v6": 40}, **four_keys())
    bench.declare(flow)
    sender = bench.ask(flow).sender
    answer = bench.answer(flow, sender)
    assert answer.sender == bench.to
    # An IPv4-mapped peer gets the IPv4 DSCP.
    assert answer.dscp == 30


def test_an_ipv6_listener_answers_ipv6_peers(vesk: VeskProcess, upstream: UdpEnd,
                                             new_end: Callable[..., UdpEnd]) -> None:
    bench = Bench(vesk, new_end("::1"), upstream, listen="::")
    bench.to = ("::1", bench.to[1])
    flow = bench.flow(options={"down_out_dscp_v4": 30, "down_out_dscp_v6": 40})
    bench.declare(flow)
    answer = bench.answer(flow, bench.ask(flow).sender)
    assert answer.sender == bench.to and answer.dscp == 40


def test_replies_come_from_the_last_destination_of_the_peer(vesk: VeskProcess, peer: UdpEnd,
                                                            upstream: UdpEnd) -> None:
    bench = Bench(vesk, peer, upstream, listen="::")
    port = bench.to[1]
    flow = bench.flow()
    bench.declare(flow)
    for asked in ("127.0.0.2", "127.0.0.3", "127.0.0.2"):
        bench.to = (asked, port)
        assert bench.answer(flow, bench.ask(flow).sender).sender == (asked, port)


@pytest.mark.parametrize("setting, named", [
    (None, "0.0.0.0"), ("", "0.0.0.0"), ("kernel", "0.0.0.0"), ("Arrival", "0.0.0.0"),
    ("arrival ", "0.0.0.0"), ("arrival", "127.0.0.2")])
def test_an_ipv4_reply_contains_the_destination_of_the_request(
        start_vesk: StartVesk, peer: UdpEnd, upstream: UdpEnd, tmp_path: Path,
        setting: Optional[str], named: str) -> None:
    """By default it is in the field that the kernel uses only for received datagrams.

    The kernel then chooses the source, even if the listener is bound to one address. On
    request the destination is also in the source field.
    """
    trace = tmp_path / "messages"
    vesk = start_vesk(prefix=recording_start(trace, "sendmsg"),
                      environment={} if setting is None else {"VESK_IPV4_SOURCE": setting})
    vesk.settle()
    bench = Bench(vesk, peer, upstream, listen="0.0.0.0")
    bench.to = ("127.0.0.2", bench.to[1])
    flow = bench.flow(options={"down_out_dscp_v4": 46})
    bench.declare(flow)
    sender = bench.ask(flow).sender
    upstream.send(flow.reply(b"answer"), sender)
    answer = peer.receive()
    flow.open_reply(answer.data)
    assert answer.sender[0] == (named if named != "0.0.0.0" else kernels_choice(peer.host))
    vesk.finish()
    (reply,) = [line for line in trace.read_text().splitlines() if "MSG_DONTWAIT" in line]
    mark = "{cmsg_len=20, cmsg_level=SOL_IP, cmsg_type=IP_TOS, cmsg_data=[0xb8, 0, 0, 0]}"
    source = ("{cmsg_len=28, cmsg_level=SOL_IP, cmsg_type=IP_PKTINFO, cmsg_data={ipi_ifindex=0, "
              f'ipi_spec_dst=inet_addr("{named}"), ipi_addr=inet_addr("127.0.0.2")}}}}')
    assert f"msg_control=[{mark}, {source}], msg_controllen=56," in reply, reply


def test_requests_are_sent_from_the_address_at_which_replies_arrive(
        start_vesk: StartVesk, peer: UdpEnd, upstream: UdpEnd, tmp_path: Path) -> None:
    """Before the first reply a request has no control data; after it, it has the address."""
    trace = tmp_path / "messages"
    vesk = start_vesk(prefix=recording_start(trace, "sendmsg")).ready()
    bench = Bench(vesk, peer, upstream)
    flow = bench.flow()
    bench.declare(flow)
    sender = bench.ask(flow, b"one").sender
    bench.answer(flow, sender)
    bench.ask(flow, b"two")
    vesk.finish()
    first, second = [line for line in trace.read_text().splitlines()
                     if "MSG_DONTWAIT" not in line and "sendmsg(" in line]
    assert "msg_controllen=0" in first, first
    assert ("msg_control=[{cmsg_len=28, cmsg_level=SOL_IP, cmsg_type=IP_PKTINFO, "
            'cmsg_data={ipi_ifindex=0, ipi_spec_dst=inet_addr("0.0.0.0"), '
            f'ipi_addr=inet_addr("{sender[0]}")}}}}], msg_controllen=32,') in second, second


@pytest.mark.parametrize("listen", ["0.0.0.0", "127.0.0.5"])
def test_an_ipv4_listener_leaves_the_source_to_the_kernel(vesk: VeskProcess, peer: UdpEnd,
                                                          upstream: UdpEnd, listen: str) -> None:
    bench = Bench(vesk, peer, upstream, listen=listen)
    bench.to = ("127.0.0.5", bench.to[1])
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    assert bench.answer(flow, bench.ask(flow).sender).sender == (
        kernels_choice(peer.host), bench.to[1])


# Under load -----------------------------------------------------------------------------

def test_bursts_are_drained_and_the_socket_armed_again(bench: Bench) -> None:
    flow = bench.flow(**four_keys())
    bench.declare(flow)
    sender = bench.ask(flow).sender
    for burst in range(20):
        payloads = [f"{burst} {number}".encode() for number in range(50)]
        for payload in payloads:
            bench.upstream.send(flow.reply(payload), sender)
        assert [flow.open_reply(bench.peer.receive().data).payload for _ in payloads] == payloads


def test_a_thousand_requests_are_answered(either_bench: Bench) -> None:
    flow = either_bench.flow(**four_keys())
    with UpstreamService(flow.echo) as service:
        flow.upstream = service.address
        either_bench.declare(flow)
        for first in range(0, 1000, 50):
            payloads = [f"question {number}".encode() for number in range(first, first + 50)]
            for payload in payloads:
                either_bench.send(flow.request(payload))
            answers = [flow.open_reply(either_bench.peer.receive().data).payload for _ in payloads]
            assert answers == payloads


def test_a_removed_flow_forwards_no_replies(bench: Bench) -> None:
    flow, other = bench.flow(5, **four_keys()), bench.flow(6, **four_keys())
    bench.declare(flow, other)
    sender = bench.exchange(flow)
    descriptors = bench.vesk.descriptor_count()
    bench.vesk.lines_after("del label 5")
    bench.vesk.wait_for_descriptor_count(descriptors - 2)
    bench.upstream.send(flow.reply(b"too late"), sender)
    bench.exchange(other)
    assert bench.peer.waiting() is None
