"""Everything changes at once: flows are declared and deleted and expire, their datagrams arrive
directly and over the lateral stream, one by one, in bursts and merged, and are answered on several
sockets, and the listener is stopped and started.

Every datagram that arrives must be signed correctly and reach the correct end.
VESK_CHURN_SECONDS is the duration.
"""

from __future__ import annotations

import struct
import threading
import time
from contextlib import ExitStack
from typing import Dict, List, Sequence, Set

import pytest

from framework.fixtures import StartVesk
from framework.flood import Flood
from framework.flow import Flow, four_keys
from framework.framing import UDPV2, Key
from framework.lateral import LOOPBACK, join, owned_label, shared_free_port
from framework.timing import SANITIZER, count_from_environment, scaled, wait_until
from framework.udp import Address, UdpEnd, UpstreamService, free_port
from framework.vesk_process import VeskProcess

from figures import record
from good_traffic import GoodTraffic, Round

SECONDS = count_from_environment("VESK_CHURN_SECONDS", 10)
COMMANDS_A_SECOND = 1000
TICKS_A_SECOND = 10
EXPIRY_SECONDS = "1"
DIRECT, LATERAL = 1, 2
#: Requests of different flows in one message.
MERGED = 16
# The traffic of separate processes: flows, requests a second, and how they are sent.
BURST_FLOWS = 40
BURST_RATE = 3200
BURSTS = {DIRECT: ["--burst", "16", "--merge-sends"], LATERAL: ["--burst", "16"]}


class Peer:
    """Sends requests that contain their sender, and checks every reply on arrival."""

    def __init__(self, identity: int, flows: Dict[int, Flow], shared: Set[int]) -> None:
        self.identity = identity
        self._flows = flows
        self._shared = shared
        self.service = UpstreamService(self._check)

    @property
    def end(self) -> UdpEnd:
        return self.service.end

    def request(self, flow: Flow) -> bytes:
        return flow.request(payload_of(self.identity, flow))

    def _check(self, data: bytes) -> None:
        flow = self._flows[UDPV2.parse(data).label]
        identity, label = struct.unpack_from("!BI", flow.open_reply(data).payload)
        assert label == flow.label, f"a reply of flow {label:#x} came as one of {flow.label:#x}"
        # On labels that both peers use, replies go to the peer that sent last.
        assert identity == self.identity or label in self._shared, \
            f"a reply to peer {identity} on flow {label:#x} came to peer {self.identity}"


def free_ports(count: int) -> List[int]:
    """Different free ports."""
    ports: Set[int] = set()
    while len(ports) < count:
        ports.add(free_port())
    return sorted(ports)


def own_keys(label: int) -> Dict[str, Key]:
    """Keys of one flow only. A late reply may reach the port of a closed socket when another flow
    uses it, and must not be accepted as a reply of that flow."""
    return {name: Key(label.to_bytes(4, "big") + key.secret, key.algorithm)
            for name, key in four_keys().items()}


def payload_of(identity: int, flow: Flow) -> bytes:
    return struct.pack("!BI", identity, flow.label) + b"p" * 100


def deletion(set_command: str) -> str:
    return f"del label {set_command.split()[2]}"


class Churn:
    """Two joined instances. The first owns all flows and gets all commands."""

    def __init__(self, start_vesk: StartVesk, keep: ExitStack) -> None:
        self.instances = [start_vesk("udpv2", EXPIRY_SECONDS).ready() for _ in range(2)]
        self.owner = self.instances[0]
        port = shared_free_port([LOOPBACK[0], LOOPBACK[1]])
        for index, vesk in enumerate(self.instances):
            join(vesk, index, {0: LOOPBACK[0], 1: LOOPBACK[1]}, port, 2)
        self.listeners: List[Address] = [("127.0.0.1", vesk.listen()) for vesk in self.instances]
        self.descriptors = self.owner.descriptor_count()
        by_up_label: Dict[int, Flow] = {}
        self.service = keep.enter_context(UpstreamService(
            lambda data: by_up_label[UDPV2.parse(data).label].echo(data)))
        self._make_flows()
        by_up_label.update({flow.up_label: flow for flow in self.flows})
        by_down_label = {flow.down_label: flow for flow in self.flows}
        shared = {flow.label for flow in self.shared}
        self.peers = {identity: Peer(identity, by_down_label, shared)
                      for identity in (DIRECT, LATERAL)}
        for peer in self.peers.values():
            keep.enter_context(peer.service)
        self.owner.lines_after(*self.declared)
        self._declare_bursts()
        self.commands = 0

    def _declare_bursts(self) -> None:
        """Half of the flows of each process change."""
        self.bursts: Dict[int, GoodTraffic] = {}
        for identity, (_, port) in zip((DIRECT, LATERAL), self.listeners):
            traffic = GoodTraffic(port, BURST_FLOWS, owned_label(0, 1000 * identity))
            self.bursts[identity] = traffic
            declared = traffic.declare(self.owner)
            self.declared += declared
            self.changing += declared[:BURST_FLOWS // 2]

    def _flows(self, first: int, count: int, **options: object) -> List[Flow]:
        return [self._flow(number, options) for number in range(first, first + count)]

    def _flow(self, number: int, options: Dict[str, object]) -> Flow:
        label = owned_label(0, number)
        return Flow(label, self.service.address, **own_keys(label), options=dict(options))

    def _make_flows(self) -> None:
        self.reply_port: Address = ("127.0.0.1", free_port())
        self.direct, self.lateral = self._flows(100, 40), self._flows(200, 40)
        self.shared, self.expiring = self._flows(300, 40), self._flows(400, 100)
        self.multiplexed = self._flows(500, 8, is_multiplex="true", up_src_ip="127.0.0.1",
                                       up_src_port=self.reply_port[1])
        self.bound = [self._flow(600 + number, {"up_src_ip": "127.0.0.1", "up_src_port": port})
                      for number, port in enumerate(free_ports(8))]
        self.flows = [*self.direct, *self.lateral, *self.shared, *self.expiring,
                      *self.multiplexed, *self.bound]
        self.declared = [flow.set_command() for flow in self.flows]
        changing = [*self.direct, *self.lateral, *self.shared, *self.multiplexed[4:], *self.bound]
        self.changing = [flow.set_command() for flow in changing]

    def _flood(self, floods: ExitStack, identity: int, flows: Sequence[Flow],
               pause_seconds: float, merge: int = 1) -> None:
        peer = self.peers[identity]
        to = self.listeners[0 if identity == DIRECT else 1]
        floods.enter_context(Flood(peer.end, [(peer.request(flow), to) for flow in flows],
                                   pause_seconds, merge))

    def flood_everything(self, floods: ExitStack) -> None:
        pause = scaled(0.05)
        for identity, own in ((DIRECT, self.direct), (LATERAL, self.lateral)):
            self._flood(floods, identity, [*own, *self.shared], pause)
            self._flood(floods, identity, [*own, *self.shared], 4 * pause, merge=MERGED)
        self._flood(floods, DIRECT, [*self.multiplexed, *self.bound], pause)
        # Longer than two passes of the clean-up, so each round starts without sockets.
        self._flood(floods, DIRECT, self.expiring, 2.5)
        # The kernel selects the socket for a reply by its sender.
        for _ in range(4):
            end = floods.enter_context(UdpEnd())
            replies = [(flow.reply(payload_of(DIRECT, flow)), self.reply_port)
                       for flow in self.multiplexed]
            floods.enter_context(Flood(end, replies, pause / 5, merge=len(replies)))

    def start_bursts(self, rounds: ExitStack, seconds: float) -> List[Round]:
        """Traffic of separate processes, whose datagrams arrive and leave in batches."""
        return [rounds.enter_context(traffic.round(seconds, BURST_RATE / scaled(1),
                                                   options=BURSTS[identity]))
                for identity, traffic in self.bursts.items()]

    def change(self, count: int) -> None:
        """Half of the commands delete flows, the other half declare them again."""
        for _ in range(count // 2):
            command = self.changing[self.commands // 2 % len(self.changing)]
            self.owner.command(deletion(command))
            self.owner.command(command)
            self.commands += 2

    def restart_listener(self) -> None:
        host, port = self.listeners[0]
        self.owner.command("stop")
        self.owner.command(f"start addr {host} port {port}")

    def received(self) -> List[int]:
        return [self.service.received, *(peer.service.received for peer in self.peers.values())]

    def still_alive(self, before: List[int]) -> None:
        wait_until(lambda: all(now > then for now, then in zip(self.received(), before)),
                   "datagrams arrive at the service and at both peers again", 10)
        failures = [end.failure for end in
                    (self.service, *(peer.service for peer in self.peers.values()))]
        for failure in failures:
            if failure is not None:
                raise failure


def keep_changing(churn: Churn, seconds: float) -> float:
    """Sends commands at their rate for this time and returns how long it took."""
    pace = threading.Event()
    began = time.monotonic()
    ticks = 0
    while time.monotonic() - began < seconds:
        before = churn.received()
        for _ in range(TICKS_A_SECOND):
            churn.change(COMMANDS_A_SECOND // TICKS_A_SECOND)
            if ticks % 3 == 0:
                churn.restart_listener()
            churn.owner.settle()
            ticks += 1
            pace.wait(max(0.0, began + ticks / TICKS_A_SECOND - time.monotonic()))
        churn.still_alive(before)
    return time.monotonic() - began


def complaints(vesk: VeskProcess) -> List[str]:
    return [line for line in vesk.remarks() if line.startswith(("error", "warn"))]


@pytest.mark.limit_seconds(90 + 2 * SECONDS)
def test_replies_are_correct_while_everything_changes_at_once(start_vesk: StartVesk) -> None:
    with ExitStack() as keep:
        churn = Churn(start_vesk, keep)
        with ExitStack() as floods:
            rounds = churn.start_bursts(floods, SECONDS)
            churn.flood_everything(floods)
            took = keep_changing(churn, SECONDS)
            outcomes = [one.outcome() for one in rounds]
        churn.owner.lines_after(*map(deletion, churn.declared))
        churn.owner.wait_for_descriptor_count(churn.descriptors)
        for vesk in churn.instances:
            assert complaints(vesk) == []
            vesk.finish()
        service, direct, lateral = churn.received()
        assert [one.wrong for one in outcomes] == [0, 0], outcomes
        expired = sum(line == "info Task [FlowCleanUpTask] now executing"
                      for line in churn.owner.log_lines())
        record(f"churn {SANITIZER or 'release'}: {took:.0f} s, {churn.commands / took:.0f} set/del "
               f"a second, {expired} clean-up passes, {service} requests and {direct} direct and "
               f"{lateral} lateral replies, every one correctly signed and at the correct peer; in "
               f"bursts {sum(one.sent for one in outcomes)} requests, of which "
               f"{sum(one.sent - one.lost - one.late for one in outcomes)} were answered")
