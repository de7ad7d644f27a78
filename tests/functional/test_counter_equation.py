"""Every datagram is accounted for: received equals sent plus each kind of drop.

For the datagrams that come from peers and neighbours:

    downstream RxDg + lateral RxDg
        = upstream TxDg + upstream TxDgDropped      sent to the services, or not
        + downstream RxDgError                      rejected, direct or lateral
        + lateral TxDg + lateral TxDgDropped        sent to the owner, or not
        + lateral RxDgError                         bad lateral headers and HMACs
        + lateral DnTxDg + lateral DnTxDgDropped    returned to the peers, or not

and for the replies of the services, flow by flow:

    upstream RxDg = upstream DnTxDg + upstream DnTxDgDropped + upstream RxDgError

as long as replies have the label of their flow (a reply with another label is counted as
an error but sent) and fit together with their return header.
"""

from __future__ import annotations

import random
from typing import Callable, List, Tuple

from framework.fixtures import StartVesk
from framework.flow import Flow, four_keys
from framework.framing import FORWARDED, RETURNED, UDPV2, build_lateral, socket_address_bytes
from framework.lateral import LOOPBACK, join, owned_label, shared_free_port
from framework.statistics import Report, wait_for_report
from framework.udp import Address, UdpEnd

DATAGRAMS = 3000


def from_outside(seen: Report) -> Tuple[int, int]:
    """Both sides of the first equation."""
    downstream, lateral = seen.downstream, seen.lateral
    assert downstream is not None and lateral is not None
    received = downstream["RxDg"] + lateral["RxDg"]
    accounted = (seen.upstream_sum("TxDg") + seen.upstream_sum("TxDgDropped")
                 + downstream["RxDgError"]
                 + lateral["TxDg"] + lateral["TxDgDropped"] + lateral["RxDgError"]
                 + lateral["DnTxDg"] + lateral["DnTxDgDropped"])
    return received, accounted


def replies_are_accounted_for(seen: Report) -> None:
    for label, flow in seen.upstream.items():
        assert flow["RxDg"] == flow["DnTxDg"] + flow["DnTxDgDropped"] + flow["RxDgError"], label


class Answers:
    """Answers datagrams: most correctly, some with a bad HMAC, some too short."""

    def __init__(self, upstream: UdpEnd, flows: List[Flow], choose: random.Random) -> None:
        self.sent = 0
        self._upstream = upstream
        self._by_up_label = {flow.up_label: flow for flow in flows}
        self._choose = choose

    def give(self) -> None:
        while True:
            arrived = self._upstream.waiting()
            if arrived is None:
                return
            flow = self._by_up_label[UDPV2.parse(arrived.data).label]
            reply = self._choose.choice([flow.reply(b"good"), flow.reply(b"good"),
                                         UDPV2.build(flow.label, b"unsigned"), b"short"])
            self._upstream.send(reply, arrived.sender)
            self.sent += 1


def test_mixed_traffic_is_accounted_for(start_vesk: StartVesk,
                                        new_end: Callable[..., UdpEnd]) -> None:
    choose = random.Random(1)
    vesk = start_vesk().ready()
    upstream, peer = new_end(), new_end()
    port = shared_free_port([LOOPBACK[0], LOOPBACK[1]])
    neighbour = new_end(LOOPBACK[1], port)
    join(vesk, 0, {0: LOOPBACK[0], 1: LOOPBACK[1]}, port, 2)
    to: Address = ("127.0.0.1", vesk.listen())
    lateral_to = (LOOPBACK[0], port)
    flows = [Flow(owned_label(0, number), upstream.address, **four_keys())
             for number in range(1, 11)]
    vesk.lines_after(*(flow.set_command() for flow in flows))
    peer.send(UDPV2.build(owned_label(1), b"x"), to)
    handed = neighbour.receive().data
    address, code = handed[2:18], handed[18:34]

    def good() -> bytes:
        return choose.choice(flows).request(bytes(choose.randrange(200)))

    def bad() -> bytes:
        return UDPV2.build(choose.choice(flows).label, b"unsigned")

    def short() -> bytes:
        return bytes(choose.randrange(1, 20))

    def unknown() -> bytes:
        return UDPV2.build(owned_label(0, 99), b"x")

    def foreign() -> bytes:
        return UDPV2.build(owned_label(1), bytes(choose.choice([10, 1994, 1995, 2028])))

    def forwarded() -> bytes:
        return build_lateral(FORWARDED, socket_address_bytes("192.0.2.1", 7), bytes(16),
                             choose.choice([good, bad, short, unknown, foreign])()[:2014])

    def returned() -> bytes:
        return build_lateral(RETURNED, address, choose.choice([code, bytes(16)]), b"returned")

    def nonsense() -> bytes:
        return bytes(choose.randrange(1, 100))

    ways: List[Tuple[Callable[[], bytes], UdpEnd, Address]] = [
        (make, peer, to) for make in (good, good, bad, short, unknown, foreign)]
    ways += [(make, neighbour, lateral_to) for make in (forwarded, returned, nonsense)]
    answers = Answers(upstream, flows, choose)
    sent = 1
    for number in range(DATAGRAMS):
        make, end, destination = choose.choice(ways)
        end.send(make(), destination)
        sent += 1
        if number % 50 == 49:
            # No more at once than fit into the socket buffers.
            wait_for_report(vesk, lambda now: from_outside(now) == (sent, sent))
            answers.give()
    seen = wait_for_report(
        vesk, lambda now: from_outside(now) == (sent, sent)
        and now.poll["ActiveEvtNr"] == len(flows)
        and now.upstream_sum("RxDg") == answers.sent
        and now.totals["RxDg"] == answers.sent)
    replies_are_accounted_for(seen)
    # Every kind occurred.
    assert seen.downstream["RxDgError"] > 0 and seen.upstream_sum("TxDg") > 0
    assert all(seen.lateral[name] > 0 for name in ("RxDg", "RxDgError", "TxDg", "TxDgDropped",
                                                   "DnTxDg"))
    assert seen.upstream_sum("RxDgError") > 0 and seen.upstream_sum("DnTxDg") > 0
