"""Hostile datagrams mixed with valid traffic cost time and nothing else.

VESK_HOSTILE_DATAGRAMS is the number of hostile datagrams for each framing.
"""

from __future__ import annotations

import random
from contextlib import ExitStack
from typing import Callable, Dict, List, Tuple

import pytest

from framework.fixtures import StartVesk
from framework.flow import Flow, four_keys
from framework.framing import UDPV1, UDPV2, Framing, build_lateral, parse_lateral
from framework.lateral import LOOPBACK, join, owned_label, shared_free_port
from framework.statistics import Report, report, wait_for_report
from framework.timing import SANITIZER, count_from_environment, scaled, wait_until
from framework.udp import Address, UdpEnd, UpstreamService

from figures import record
from good_traffic import GoodTraffic, Outcome
from hostile_kinds import (DOWNSTREAM, LATERAL, PORT_ZERO, UPSTREAM, KindMaker, PortZeroSender,
                           Surroundings, raw_sockets_allowed)
from resources import drops_on_port, resident_kib

DATAGRAMS = count_from_environment("VESK_HOSTILE_DATAGRAMS", 20_000)
GOOD_FLOWS = 50
INSTANCES = 3
# The amount that always fits into the forwarder's receive buffer, including the kernel's overhead.
BURST_BYTES = 150_000
KERNEL_BYTES = 1000
MEMORY_GROWTH_KIB = 1024

Sending = Tuple[str, bytes, Callable[[bytes], object]]


class HostileBench:
    """One of three joined instances, with valid flows, a victim and an attacker."""

    def __init__(self, start_vesk: StartVesk, framing: Framing, ends: ExitStack) -> None:
        self.framing = framing
        self.vesk = start_vesk(framing.name, "600").ready()
        self._keep = ends
        self.peer, self.sink = self._end(), self._end()
        port = shared_free_port([LOOPBACK[0], LOOPBACK[1]])
        self.neighbour = self._end(LOOPBACK[1], port)
        join(self.vesk, 0, {0: LOOPBACK[0], 1: LOOPBACK[1]}, port, INSTANCES)
        self.lateral_at: Address = (LOOPBACK[0], port)
        self.listener: Address = ("127.0.0.1", self.vesk.listen())
        self.good = GoodTraffic(self.listener[1], GOOD_FLOWS,
                                owned_label(0, 1000, INSTANCES), framing.name)
        self.good.declare(self.vesk)
        self._declare_own_flows()
        self.victim_socket = self._open_victim()
        self.kinds = 0
        self.sent: Dict[str, int] = dict.fromkeys((DOWNSTREAM, LATERAL, PORT_ZERO, UPSTREAM), 0)
        self.questions = 0

    def _end(self, host: str = "127.0.0.1", port: int = 0) -> UdpEnd:
        return self._keep.enter_context(UdpEnd(host, port))

    def _flow(self, number: int, upstream: Address) -> Flow:
        return Flow(owned_label(0, number, INSTANCES), upstream, framing=self.framing,
                    **four_keys())

    def _declare_own_flows(self) -> None:
        """The victim's service never answers, so that the attacker gets nothing for a replay."""
        by_up_label: Dict[int, Flow] = {}
        service = self._keep.enter_context(UpstreamService(
            lambda data: by_up_label[self.framing.parse(data).label].echo(data)))
        self.victim = self._flow(1, self.sink.address)
        self.direct, self.handed = self._flow(2, service.address), self._flow(3, service.address)
        by_up_label.update({flow.up_label: flow for flow in (self.direct, self.handed)})
        self.idle = [self._flow(number, self.sink.address) for number in range(100, 110)]
        complaints = self.vesk.lines_after(*(flow.set_command() for flow in
                                             (self.victim, self.direct, self.handed, *self.idle)))
        assert not complaints, complaints

    def _open_victim(self) -> Address:
        self.peer.send(self.victim.request(b"first"), self.listener)
        return self.sink.receive().sender

    def sendings(self) -> List[Sending]:
        """Every kind the same number of times, with the function that sends it."""
        foreign = owned_label(1, 1, INSTANCES)
        self.peer.send(self.framing.build(foreign, b"x"), self.listener)
        seen = parse_lateral(self.neighbour.receive().data)
        raw_allowed = raw_sockets_allowed()
        kinds = KindMaker(Surroundings(
            self.framing, [owned_label(0, 1000 + number, INSTANCES)
                           for number in range(GOOD_FLOWS)],
            self.idle, self.victim, owned_label(0, 999, INSTANCES), foreign,
            owned_label(2, 1, INSTANCES), seen.address, seen.authentication)).all(raw_allowed)
        self.kinds = len(kinds)
        ways = self._ways(raw_allowed)
        most = max(len(kind.datagrams) for kind in kinds)
        return [(kind.way, kind.datagrams[number % len(kind.datagrams)], ways[kind.way])
                for kind in kinds for number in range(most)]

    def _ways(self, raw_allowed: bool) -> Dict[str, Callable[[bytes], object]]:
        ways: Dict[str, Callable[[bytes], object]] = {
            DOWNSTREAM: lambda data: self.peer.send(data, self.listener),
            LATERAL: lambda data: self.neighbour.send(data, self.lateral_at),
            UPSTREAM: lambda data: self.sink.send(data, self.victim_socket)}
        if raw_allowed:
            raw = PortZeroSender()
            self._keep.callback(raw.close)
            ways[PORT_ZERO] = lambda data: raw.send(data, self.listener)
        return ways

    def keep_up(self) -> None:
        """Waits until the forwarder has handled all datagrams: each socket is read in order, and
        a valid question is sent last to each."""
        wait_until(self._questions_are_answered, "valid questions are answered", 20)
        while self.sink.waiting() is not None:
            pass

    def _questions_are_answered(self) -> bool:
        """False if the kernel had no room for one of them."""
        self.questions += 1
        payload = f"question {self.questions}".encode()
        self.peer.send(self.direct.request(payload), self.listener)
        self.neighbour.send(build_lateral(1, bytes(16), bytes(16), self.handed.request(payload)),
                            self.lateral_at)
        answer = last_of(self.peer, payload)
        returned = last_of(self.neighbour, payload)
        if answer and returned:
            self.direct.open_reply(answer)
            self.handed.open_reply(parse_lateral(returned).framed)
        return bool(answer and returned)

    def burst(self, sendings: List[Sending], choose: random.Random) -> int:
        """A few random ones, no more than fit into the receive buffers."""
        room, count = BURST_BYTES, 0
        while room > 0 and count < 64:
            way, data, send = choose.choice(sendings)
            send(data)
            self.sent[way] += bool(data)
            room -= len(data) + KERNEL_BYTES
            count += 1
        self.keep_up()
        return count


def last_of(end: UdpEnd, ending: bytes) -> bytes:
    """Reads until a datagram ends like this; None if none arrives in time."""
    end.socket.settimeout(scaled(1))
    while True:
        try:
            data = end.socket.recv(65536)
        except TimeoutError:
            return b""
        if data.endswith(ending):
            return data


def attack(bench: HostileBench, sendings: List[Sending], count: int, rate: float,
           seconds: float) -> Tuple[int, List[Outcome]]:
    """Sends at least `count` hostile datagrams, all of them during valid traffic."""
    choose = random.Random(2)
    sent = 0
    outcomes = []
    while sent < count:
        with bench.good.round(seconds, rate) as good:
            while good.running():
                sent += bench.burst(sendings, choose)
            outcomes.append(good.outcome())
    return sent, outcomes


def all_accounted_for(seen: Report) -> bool:
    downstream, lateral = seen.downstream, seen.lateral
    assert downstream is not None and lateral is not None
    return (downstream["RxDg"] + lateral["RxDg"]
            == downstream["RxDgError"] + lateral["RxDgError"]
            + lateral["TxDg"] + lateral["TxDgDropped"]
            + lateral["DnTxDg"] + lateral["DnTxDgDropped"]
            + seen.upstream_sum("TxDg") + seen.upstream_sum("TxDgDropped"))


def replies_accounted_for(seen: Report) -> bool:
    return all(flow["RxDg"] == flow["RxDgError"] + flow["DnTxDg"] + flow["DnTxDgDropped"]
               for flow in seen.upstream.values())


def half_load(bench: HostileBench) -> float:
    """Half of the rate that the forwarder reaches with valid traffic alone."""
    with bench.good.round(seconds=1.0) as alone:
        return alone.outcome().request_rate / 2


@pytest.mark.limit_seconds(120 + DATAGRAMS // 500)
@pytest.mark.parametrize("framing", [UDPV1, UDPV2], ids=lambda framing: framing.name)
def test_hostile_datagrams_do_not_affect_valid_traffic(start_vesk: StartVesk,
                                                       framing: Framing) -> None:
    with ExitStack() as ends:
        bench = HostileBench(start_vesk, framing, ends)
        vesk, sendings = bench.vesk, bench.sendings()
        rate = half_load(bench)
        seconds = 3.0 if DATAGRAMS < 100_000 else 10.0
        # Every valid flow now has its socket; only the first attack may increase the memory.
        bench.keep_up()
        descriptors, endpoints = vesk.descriptor_count(), report(vesk).totals["EptNr"]
        attack(bench, sendings, min(DATAGRAMS, 20_000) // 4, rate, seconds)
        memory = resident_kib(vesk.pid)

        sent, outcomes = attack(bench, sendings, DATAGRAMS, rate, seconds)

        drops = drops_on_port(bench.listener[1])
        lateral_drops = drops_on_port(bench.lateral_at[1])
        good_sent = sum(outcome.sent for outcome in outcomes)
        lost = sum(outcome.lost for outcome in outcomes)
        assert sum(outcome.wrong for outcome in outcomes) == 0
        assert lost <= drops, f"{lost} lost, of which the kernel dropped {drops} at most"
        vesk.wait_for_descriptor_count(descriptors)
        seen = wait_for_report(vesk, lambda now: all_accounted_for(now)
                               and replies_accounted_for(now))
        assert seen.totals["EptNr"] == endpoints == len(seen.upstream)
        # All datagrams of the neighbour, whose first question used the same socket.
        assert seen.lateral["RxDg"] + lateral_drops == bench.sent[LATERAL] + bench.questions
        wait_until(lambda: SANITIZER or resident_kib(vesk.pid) - memory <= MEMORY_GROWTH_KIB,
                   f"memory is back at {memory} KiB")
        record(f"hostile {framing.name}: {sent} hostile datagrams of {bench.kinds} kinds beside "
               f"{good_sent} good ones at {rate:.0f}/s, {lost} good ones lost, "
               f"{drops + lateral_drops} dropped by the kernel, "
               f"descriptors {descriptors} and sockets {endpoints} as before, memory {memory} KiB "
               f"{resident_kib(vesk.pid) - memory:+d} KiB, every datagram accounted for")
        vesk.finish()
