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
from contextlib import nullcontext
from itertools import groupby
from typing import Callable, List, NamedTuple, Tuple

import pytest

from framework.batches import stopped, wait_until_idle
from framework.fixtures import StartVesk
from framework.flow import Flow, four_keys
from framework.framing import FORWARDED, RETURNED, UDPV2, build_lateral, socket_address_bytes
from framework.lateral import LOOPBACK, join, owned_label, shared_free_port
from framework.statistics import Report, report, wait_for_report
from framework.traffic import figures, run_generator
from framework.udp import Address, UdpEnd, free_port
from framework.vesk_process import VeskProcess

DATAGRAMS = 3000
AT_ONCE = 50


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


class Outgoing(NamedTuple):
    data: bytes
    end: UdpEnd
    to: Address


def send_singly(datagrams: List[Outgoing]) -> None:
    for data, end, to in datagrams:
        end.send(data, to)


def send_merged(datagrams: List[Outgoing]) -> None:
    """Those of one end, one destination and one length leave as one message."""
    def kind(datagram: Outgoing) -> Tuple[int, Address, int]:
        return datagram.end.port, datagram.to, len(datagram.data)

    for _, same in groupby(sorted(datagrams, key=kind), key=kind):
        message = list(same)
        message[0].end.send_merged([datagram.data for datagram in message], message[0].to)


Way = Callable[[List[Outgoing]], None]


class Answers:
    """Answers datagrams: most correctly, some with a bad HMAC, some too short."""

    def __init__(self, upstream: UdpEnd, flows: List[Flow], choose: random.Random,
                 send: Way) -> None:
        self.sent = 0
        self._send = send
        self._upstream = upstream
        self._by_up_label = {flow.up_label: flow for flow in flows}
        self._choose = choose

    def give(self) -> None:
        answers: List[Outgoing] = []
        while (arrived := self._upstream.waiting()) is not None:
            flow = self._by_up_label[UDPV2.parse(arrived.data).label]
            reply = self._choose.choice([flow.reply(b"good"), flow.reply(b"good"),
                                         UDPV2.build(flow.label, b"unsigned"), b"short"])
            answers.append(Outgoing(reply, self._upstream, arrived.sender))
        self._send(answers)
        self.sent += len(answers)


@pytest.mark.parametrize("send", [send_singly, send_merged])
@pytest.mark.parametrize("together", [False, True], ids=["as they come", "as one batch"])
def test_mixed_traffic_is_accounted_for(start_vesk: StartVesk, new_end: Callable[..., UdpEnd],
                                        send: Way, together: bool) -> None:
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
        return choose.choice(flows).request(bytes(choose.choice([0, 100, choose.randrange(200)])))

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
    answers = Answers(upstream, flows, choose, send)
    sent = 1
    while sent < DATAGRAMS:
        chosen = [choose.choice(ways) for _ in range(AT_ONCE)]
        with stopped(vesk) if together else nullcontext():
            send([Outgoing(make(), end, destination) for make, end, destination in chosen])
        sent += AT_ONCE
        # No more at once than fit into the socket buffers.
        wait_for_report(vesk, lambda now: from_outside(now) == (sent, sent))
        with stopped(vesk) if together else nullcontext():
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


@pytest.mark.parametrize("merging", [(), ("--merge-sends",)], ids=["single", "merged"])
@pytest.mark.parametrize("pace", [("--burst", 16), ("--burst", 64, "--rate", 20_000), ()],
                         ids=["bursts", "paced bursts", "window"])
def test_generated_bursts_are_counted_to_the_last_datagram(vesk: VeskProcess, merging: tuple,
                                                           pace: tuple) -> None:
    """The generator loses nothing, so each of its requests is counted four times."""
    port, upstream_port = vesk.listen(), free_port()
    flows = ["--flows", 7, "--peers", 3, "--port", port, "--upstream-port", upstream_port]
    declared = run_generator(*flows, "--print-commands").stdout.splitlines()
    vesk.lines_after(*(line for line in declared if line.startswith("set ")))
    sent = figures(*flows, "--pid", vesk.pid, "--requests", 16 * 700, *pace, *merging)["sent"]
    wait_until_idle(vesk)
    seen = report(vesk)
    assert seen.downstream is not None
    received = seen.downstream["RxDg"]
    assert received >= sent and seen.downstream["RxDgError"] == 0
    assert received == sum(worker["DgNr"] for worker in seen.receivers) == seen.totals["RxDg"]
    for name, expected in (("TxDg", received), ("RxDg", received), ("DnTxDg", received),
                           ("RxDgError", 0), ("TxDgDropped", 0), ("DnTxDgDropped", 0)):
        assert seen.upstream_sum(name) == expected, name
