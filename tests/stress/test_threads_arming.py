"""No reply to any of a thousand flows is left unread.

Replies arrive in every way that affects the arming of a socket: alone, after an empty datagram, in a
burst, after a pause, and while other flows' sockets are opened and closed and their numbers are
reused. VESK_ARMING_SECONDS is the duration.
"""

from __future__ import annotations

import random
import threading
import time
from typing import Callable, Dict, List, Set

import pytest

from framework.bench import Bench
from framework.flow import Flow, four_keys
from framework.timing import SANITIZER, count_from_environment, scaled
from framework.udp import Address, UdpEnd

from figures import record
from resources import drops_on_port

SECONDS = count_from_environment("VESK_ARMING_SECONDS", 8)
FLOWS = 1000
CHANGING_FLOWS = 50
FLOWS_AT_A_TIME = 50
PATIENCE_SECONDS = 1.0


class Watch:
    """Asks the flows in turn and waits for the answer of each."""

    def __init__(self, bench: Bench) -> None:
        self.bench = bench
        self._random = random.Random(5)
        self.flows = [bench.flow(label, **four_keys()) for label in range(1, FLOWS + 1)]
        self.changing = [bench.flow(label) for label in range(5001, 5001 + CHANGING_FLOWS)]
        bench.vesk.lines_after(*(flow.set_command() for flow in (*self.flows, *self.changing)))
        self._by_up_label = {flow.up_label: flow for flow in (*self.flows, *self.changing)}
        self._by_down_label = {flow.down_label: flow for flow in self.flows}
        self._answers: List[Callable[[Flow, Address, bytes], None]] = [
            self._alone, self._behind_nothing, self._behind_a_forged_one, self._three_in_a_row,
            self._behind_one_too_long, self._from_somebody_else]
        self._somebody = UdpEnd()
        self.questions = 0
        self.repeated = 0

    def close(self) -> None:
        self._somebody.close()

    # Ways to answer -------------------------------------------------------------------------

    def _alone(self, flow: Flow, to: Address, payload: bytes) -> None:
        self.bench.upstream.send(flow.reply(payload), to)

    def _behind_nothing(self, flow: Flow, to: Address, payload: bytes) -> None:
        self.bench.upstream.send(b"", to)
        self._alone(flow, to, payload)

    def _behind_a_forged_one(self, flow: Flow, to: Address, payload: bytes) -> None:
        self.bench.upstream.send(flow.framing.build(flow.label, b"unsigned"), to)
        self._alone(flow, to, payload)

    def _three_in_a_row(self, flow: Flow, to: Address, payload: bytes) -> None:
        for _ in range(3):
            self._alone(flow, to, payload)

    def _behind_one_too_long(self, flow: Flow, to: Address, payload: bytes) -> None:
        self.bench.upstream.send(bytes(5000), to)
        self._alone(flow, to, payload)

    def _from_somebody_else(self, flow: Flow, to: Address, payload: bytes) -> None:
        self._somebody.send(b"", to)
        self._somebody.send(flow.reply(payload), to)

    # Asking ---------------------------------------------------------------------------------

    def turn(self, flows: List[Flow]) -> None:
        """Sends one question on each of these flows and waits for all answers."""
        self.questions += 1
        payload = f"question {self.questions}".encode()
        sockets = self._ask(flows, payload)
        missing = self._await(set(sockets), payload, PATIENCE_SECONDS)
        # The kernel may drop a datagram; a socket on which the next one is read is armed.
        for label in missing:
            self.repeated += 1
            self._alone(self.flows[label - 1], sockets[label], payload)
        dead = self._await(missing, payload, 10)
        assert not dead, f"flows {sorted(dead)} get no more answers"

    def _ask(self, flows: List[Flow], payload: bytes) -> Dict[int, Address]:
        """Sends the questions and the answers; returns the flows' sockets."""
        by_label = {flow.label: flow for flow in flows}
        sockets: Dict[int, Address] = {}
        while len(sockets) < len(flows):
            for label, flow in by_label.items():
                if label not in sockets:
                    self.bench.send(flow.request(payload))
            self._answer_arrivals(sockets, by_label, payload)
        return sockets

    def _answer_arrivals(self, sockets: Dict[int, Address], by_label: Dict[int, Flow],
                         payload: bytes) -> None:
        end = self.bench.upstream.socket
        end.settimeout(scaled(PATIENCE_SECONDS))
        while len(sockets) < len(by_label):
            try:
                data, sender = end.recvfrom(65536)
            except TimeoutError:
                return
            flow = self._by_up_label[self.bench.framing.parse(data).label]
            if flow.label in by_label and data.endswith(payload):
                sockets[flow.label] = sender[:2]
                self._random.choice(self._answers)(flow, sender[:2], payload)

    def _await(self, wanted: Set[int], payload: bytes, seconds: float) -> Set[int]:
        """The flows whose answers do not arrive in this time."""
        missing = set(wanted)
        deadline = time.monotonic() + scaled(seconds)
        while missing and time.monotonic() < deadline:
            self.bench.peer.socket.settimeout(max(0.001, deadline - time.monotonic()))
            try:
                data = self.bench.peer.socket.recv(65536)
            except TimeoutError:
                break
            flow = self._by_down_label.get(self.bench.framing.parse(data).label)
            if flow is not None and flow.open_reply(data).payload == payload:
                missing.discard(flow.label)
        return missing


class Changes:
    """Opens and closes sockets of other flows meanwhile, so that numbers are reused."""

    def __init__(self, watch: Watch) -> None:
        self._watch = watch
        self._stop = threading.Event()
        self.failure: BaseException | None = None
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self) -> None:
        vesk, to = self._watch.bench.vesk, self._watch.bench.to
        try:
            with UdpEnd() as peer:
                while not self._stop.wait(scaled(0.02)):
                    for flow in self._watch.changing:
                        vesk.command(flow.set_command())
                        peer.send(flow.request(b"x"), to)
                    vesk.settle()
        except BaseException as error:
            self.failure = error

    def stop(self) -> None:
        self._stop.set()
        self._thread.join()
        if self.failure is not None:
            raise self.failure


@pytest.mark.limit_seconds(90 + 3 * SECONDS)
def test_every_flow_is_answered_until_it_is_removed(bench: Bench) -> None:
    watch = Watch(bench)
    changes = Changes(watch)
    began = time.monotonic()
    rounds = 0
    try:
        # Every flow is asked several times, however short the time is.
        while rounds < 2 or time.monotonic() - began < SECONDS:
            for first in range(0, FLOWS, FLOWS_AT_A_TIME):
                watch.turn(watch.flows[first:first + FLOWS_AT_A_TIME])
            rounds += 1
    finally:
        changes.stop()
        watch.close()
    record(f"arming {SANITIZER or 'release'}: {FLOWS} flows asked {rounds} times each in "
           f"{time.monotonic() - began:.0f} s, {watch.repeated} answers sent again, "
           f"{drops_on_port(bench.to[1])} datagrams dropped by the kernel, no flow without a reply")
