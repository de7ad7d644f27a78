"""Batches over the lateral stream: two instances, each of which receives everything at once."""

from __future__ import annotations

from typing import Callable, List

import pytest

from framework.batches import receive_all, stopped, wait_until_idle
from framework.fixtures import StartVesk
from framework.flow import Flow, four_keys
from framework.framing import UDPV1, UDPV2, Framing
from framework.lateral import LOOPBACK, NewEnd, join, owned_label, shared_free_port
from framework.statistics import Counters, report
from framework.timing import wait_until
from framework.udp import Address, UdpEnd
from framework.vesk_process import VeskProcess

FRONT, OWNER = 0, 1
COUNT = 50


class Pair:
    """Peers send to the first instance; the second one owns every flow."""

    def __init__(self, start_vesk: StartVesk, new_end: NewEnd, framing: Framing) -> None:
        self.front, self.owner = (start_vesk(framing.name).ready() for _ in range(2))
        port = shared_free_port([LOOPBACK[FRONT], LOOPBACK[OWNER]])
        for index, vesk in enumerate((self.front, self.owner)):
            join(vesk, index, {0: LOOPBACK[0], 1: LOOPBACK[1]}, port, 2)
        self.to: Address = ("127.0.0.1", self.front.listen())
        self.owner.listen("127.0.0.2")
        self.upstream = new_end()
        self.peers = [new_end() for _ in range(3)]
        self.flows = [Flow(owned_label(OWNER, number), self.upstream.address, framing=framing,
                           **four_keys()) for number in range(1, 4)]
        self.owner.lines_after(*(flow.set_command() for flow in self.flows))
        self.by_up_label = {flow.up_label: flow for flow in self.flows}
        self.senders: List[Address] = []
        for peer, flow in zip(self.peers, self.flows):
            peer.send(flow.request(b"question"), self.to)
            arrived = self.upstream.receive()
            flow.open_request(arrived.data)
            self.senders.append(arrived.sender)

    def counters(self, vesk: VeskProcess) -> Counters:
        wait_until_idle(vesk)
        lateral = report(vesk).lateral
        assert lateral is not None
        return lateral


@pytest.fixture(params=[UDPV1, UDPV2], ids=lambda framing: framing.name)
def pair(request: pytest.FixtureRequest, start_vesk: StartVesk, new_end: NewEnd) -> Pair:
    return Pair(start_vesk, new_end, request.param)


def payloads(equal: bool) -> List[bytes]:
    """Of one length, or of two that take turns."""
    return [b"%04d" % number + (b"" if equal or number % 2 else b"longer")
            for number in range(COUNT)]


def one_by_one(end: UdpEnd, datagrams: List[bytes], to: Address) -> None:
    for datagram in datagrams:
        end.send(datagram, to)


def merged(end: UdpEnd, datagrams: List[bytes], to: Address) -> None:
    end.send_merged(datagrams, to)


Sending = Callable[[UdpEnd, List[bytes], Address], None]


@pytest.mark.parametrize("send, equal", [(one_by_one, True), (one_by_one, False), (merged, True)],
                         ids=["one length", "two lengths", "merged"])
def test_batches_over_the_lateral_stream_keep_their_order(pair: Pair, send: Sending,
                                                          equal: bool) -> None:
    sent = payloads(equal)
    total = COUNT * len(pair.flows)
    # The owner receives nothing before the first instance has handed everything over.
    with stopped(pair.owner):
        with stopped(pair.front):
            for peer, flow in zip(pair.peers, pair.flows):
                send(peer, [flow.request(payload) for payload in sent], pair.to)
        wait_until_idle(pair.front)
        assert pair.counters(pair.front)["TxDg"] == total + len(pair.flows)
    arrived = {flow.up_label: [] for flow in pair.flows}
    for datagram in receive_all(pair.upstream, total):
        label = pair.flows[0].framing.parse(datagram).label
        arrived[label].append(pair.by_up_label[label].open_request(datagram).payload)
    assert list(arrived.values()) == [sent] * len(pair.flows)

    with stopped(pair.front):
        with stopped(pair.owner):
            for sender, flow in zip(pair.senders, pair.flows):
                send(pair.upstream, [flow.reply(payload) for payload in sent], sender)
        wait_until(lambda: report(pair.owner).upstream_sum("DnTxDg") == total,
                   "the owner has returned every reply")
    for peer, flow in zip(pair.peers, pair.flows):
        replies = [flow.open_reply(datagram).payload for datagram in receive_all(peer, COUNT)]
        assert replies == sent

    everything = total + len(pair.flows)
    assert pair.counters(pair.front) == {"RxDg": total, "TxDg": everything, "RxDgError": 0,
                                         "TxDgDropped": 0, "DnTxDg": total, "DnTxDgDropped": 0}
    assert pair.counters(pair.owner) == {"RxDg": everything, "TxDg": 0, "RxDgError": 0,
                                         "TxDgDropped": 0, "DnTxDg": 0, "DnTxDgDropped": 0}
    seen = report(pair.owner)
    for flow in pair.flows:
        assert seen.upstream[flow.label] == {
            "RxDg": COUNT, "TxDg": COUNT + 1, "RxDgError": 0, "TxDgDropped": 0, "DnTxDg": COUNT,
            "DnTxDgDropped": 0}
    assert report(pair.front).downstream["RxDg"] == everything


@pytest.mark.parametrize("pair", [UDPV2], indirect=True, ids=["udpv2"])
def test_direct_and_lateral_replies_of_one_batch_go_their_own_ways(pair: Pair,
                                                                   new_end: NewEnd) -> None:
    """Some flows of the owner have a peer of its own, and all replies arrive at once."""
    direct = Flow(owned_label(OWNER, 9), pair.upstream.address, **four_keys())
    pair.owner.lines_after(direct.set_command())
    peer = new_end()
    peer.send(direct.request(b"question"), ("127.0.0.2", pair.owner.listen("127.0.0.2")))
    sender = pair.upstream.receive().sender
    with stopped(pair.owner):
        for number in range(COUNT):
            pair.upstream.send(pair.flows[0].reply(b"%d" % number), pair.senders[0])
            pair.upstream.send(direct.reply(b"%d" % number), sender)
    for end, flow in ((pair.peers[0], pair.flows[0]), (peer, direct)):
        assert [flow.open_reply(datagram).payload for datagram in receive_all(end, COUNT)] == [
            b"%d" % number for number in range(COUNT)]


@pytest.mark.parametrize("pair", [UDPV2], indirect=True, ids=["udpv2"])
def test_replies_that_do_not_fit_with_their_header_are_dropped_from_the_batch(pair: Pair) -> None:
    """The return header makes a reply 34 bytes longer."""
    flow, sender = pair.flows[0], pair.senders[0]
    room = 2048 - 34 - flow.framing.header_size
    with stopped(pair.owner):
        for number in range(10):
            pair.upstream.send(flow.reply(bytes(room + number % 2)), sender)
    for datagram in receive_all(pair.peers[0], 5):
        assert flow.open_reply(datagram).payload == bytes(room)
    assert pair.counters(pair.owner)["TxDgDropped"] == 5
    assert report(pair.owner).upstream[flow.label]["DnTxDg"] == 5
