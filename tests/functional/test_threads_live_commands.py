"""Commands during traffic: no flow stalls, no datagram is signed wrongly, nothing leaks.

VESK_LABEL_COMMANDS and VESK_RESTARTS are the numbers of commands in a run.
"""

from __future__ import annotations

import threading
import time
from contextlib import contextmanager
from typing import Dict, Iterator, List, Tuple

import pytest

from framework.fixtures import StartVesk
from framework.bench import Bench
from framework.flood import Drain, Flood
from framework.flow import Flow, four_keys
from framework.framing import Key
from framework.timing import SANITIZER, count_from_environment, scaled, wait_until
from framework.udp import UdpEnd, UpstreamService, free_port
from framework.vesk_process import VeskProcess

COMMANDS = count_from_environment("VESK_LABEL_COMMANDS", 5000 if not SANITIZER else 1000)
RESTARTS = count_from_environment("VESK_RESTARTS", 500 if not SANITIZER else 100)
LONGEST_STALL_SECONDS = 0.1


class Pacer:
    """Sends one question after another and records the longest wait for an answer."""

    def __init__(self, flows: List[Flow], to) -> None:
        self._flows = flows
        self._to = to
        self._stop = threading.Event()
        self.answers = 0
        self.longest = 0.0
        self.failure: BaseException | None = None
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self) -> None:
        with UdpEnd() as peer:
            peer.socket.settimeout(scaled(5))
            try:
                while not self._stop.is_set():
                    flow = self._flows[self.answers % len(self._flows)]
                    payload = str(self.answers).encode()
                    began = time.monotonic()
                    peer.send(flow.request(payload), self._to)
                    answer = flow.open_reply(peer.socket.recv(65536))
                    self.longest = max(self.longest, time.monotonic() - began)
                    assert answer.payload == payload
                    self.answers += 1
            except BaseException as error:
                self.failure = error

    def stop(self) -> None:
        self._stop.set()
        self._thread.join()
        if self.failure is not None:
            raise self.failure


class MachinePacer:
    """The longest wait for an answer that does not pass through the forwarder.

    A busy machine delays every process; only a longer delay is caused by the forwarder.
    """

    def __init__(self) -> None:
        self._stop = threading.Event()
        self.longest = 0.0
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self) -> None:
        with UpstreamService(lambda data: data) as service, UdpEnd() as peer:
            while not self._stop.is_set():
                began = time.monotonic()
                peer.send(b"x", service.address)
                peer.receive()
                self.longest = max(self.longest, time.monotonic() - began)
                self._stop.wait(0.001)

    def stop(self) -> None:
        self._stop.set()
        self._thread.join()


@pytest.mark.limit_seconds(60 + COMMANDS // 20)
def test_set_and_del_do_not_delay_other_flows(vesk: VeskProcess, upstream: UdpEnd) -> None:
    """Flows that are not changed get correctly signed answers without delay."""
    by_up_label: Dict[int, Flow] = {}
    framing = Flow(label=1).framing

    def echo(data: bytes) -> bytes:
        return by_up_label[framing.parse(data).label].echo(data)

    with UpstreamService(echo) as service:
        steady = [Flow(label, service.address, **four_keys()) for label in range(1, 5)]
        churned = [Flow(label, service.address, **four_keys("sha1")) for label in range(101, 121)]
        by_up_label.update({flow.up_label: flow for flow in steady + churned})
        port = vesk.listen()
        descriptors = vesk.descriptor_count()
        vesk.lines_after(*(flow.set_command() for flow in steady + churned))
        pacer = Pacer(steady, ("127.0.0.1", port))
        machine = MachinePacer()
        with UdpEnd() as peer, Drain(peer) as answered, \
                Flood(peer, [(flow.request(b"x"), ("127.0.0.1", port)) for flow in churned],
                      pause_seconds=scaled(0.003)):
            for number in range(COMMANDS // 2):
                flow = churned[number % len(churned)]
                vesk.command(f"del label {flow.label}")
                vesk.command(flow.set_command())
                if number % 5 == 4:
                    vesk.settle()
            vesk.settle()
            machine.stop()
            pacer.stop()
        assert pacer.answers > 0 and answered.samples
        by_down_label = {flow.down_label: flow for flow in churned}
        for sample in answered.samples:
            by_down_label[framing.parse(sample).label].open_reply(sample)
        limit = scaled(LONGEST_STALL_SECONDS) + machine.longest
        assert pacer.longest < limit, f"stalled for {pacer.longest:.3f} s (limit {limit:.3f} s)"
        vesk.lines_after(*(f"del label {flow.label}" for flow in steady + churned))
        vesk.wait_for_descriptor_count(descriptors)
    assert not [line for line in vesk.log_lines() if line.startswith("error ")
                and "'fence-" not in line]


@pytest.mark.limit_seconds(60 + COMMANDS // 20)
def test_replies_are_signed_correctly_while_keys_change(vesk: VeskProcess, peer: UdpEnd) -> None:
    """Every reply is signed with the old key or the new key, never with parts of both."""
    keys = [Key(bytes([number]) * length, algorithm)
            for number, (length, algorithm) in
            enumerate([(1, "sha1"), (128, "sha256"), (20, "sha256"), (64, "sha1")])]
    flow = Flow(5)
    with UpstreamService(lambda data: flow.reply(flow.framing.parse(data).payload)) as service:
        flow.upstream = service.address
        port = vesk.listen()
        vesk.lines_after(flow.set_command())
        with Drain(peer, keep_every=2) as answered, \
                Flood(peer, [(flow.request(b"p" * 100), ("127.0.0.1", port))] * 4,
                      pause_seconds=scaled(0.001)):
            for number in range(COMMANDS // 10):
                key = keys[number % len(keys)]
                vesk.command(f"set label 5 down_out_key {key.secret.hex()} "
                             f"down_out_algo {key.algorithm}")
                before = answered.count
                wait_until(lambda: answered.count > before + 2, "replies arrive again")
    allowed = [None, *keys]
    assert len(answered.samples) > COMMANDS // 20
    for sample in answered.samples:
        parsed = flow.framing.parse(sample)
        assert any(flow.framing.build(parsed.label, parsed.payload, key) == sample
                   for key in allowed), "signed with no key that was ever set"


@contextmanager
def busy_bench(vesk: VeskProcess) -> Iterator[Tuple[Bench, List[Flow], Drain]]:
    """A bench with ten flows at full load both ways, and what its peer receives."""
    with UdpEnd() as peer, UdpEnd() as upstream:
        bench = Bench(vesk, peer, upstream)
        flows = [bench.flow(label, **four_keys()) for label in range(1, 11)]
        bench.declare(*flows)
        senders = {flow.label: bench.exchange(flow) for flow in flows}
        with Drain(peer) as returned, Drain(upstream), \
                Flood(peer, [(flow.request(b"x"), bench.to) for flow in flows]), \
                Flood(upstream, [(flow.reply(b"y"), senders[flow.label]) for flow in flows]):
            yield bench, flows, returned


@pytest.mark.limit_seconds(60 + RESTARTS // 5)
def test_stop_frees_the_port_under_traffic(start_vesk: StartVesk) -> None:
    """The port is free as soon as "stop" is done, although replies have just been sent from it."""
    vesk = start_vesk()
    with busy_bench(vesk) as (bench, flows, returned):
        port = bench.to[1]
        since = vesk.mark()
        for _ in range(RESTARTS):
            vesk.command("stop")
            vesk.command(f"start addr 127.0.0.1 port {port}")
            vesk.settle()
    lines = vesk.remarks(since)
    assert not [line for line in lines if line.startswith("error")]
    assert lines.count("info Forwarder listener stopped") == RESTARTS
    bound = [line for line in lines
             if line.startswith(f"info Endpoint socket bound: 127.0.0.1|{port} ")]
    assert len(bound) == RESTARTS
    by_label = {flow.down_label: flow for flow in flows}
    for sample in returned.samples:
        by_label[bench.framing.parse(sample).label].open_reply(sample)
    vesk.finish()


@pytest.mark.limit_seconds(90)
def test_repeated_starts_without_stops_keep_forwarding(start_vesk: StartVesk) -> None:
    """Replies still arrive, and the process ends normally."""
    vesk = start_vesk()
    with busy_bench(vesk):
        for _ in range(20):
            vesk.listen()
        vesk.close_input()
        vesk.wait_exit(0, seconds=2)


@pytest.mark.limit_seconds(90)
def test_replies_of_one_multiplexed_flow_on_many_sockets_are_signed_correctly(
        start_vesk: StartVesk) -> None:
    """Several workers sign replies of the same flow at once."""
    vesk = start_vesk()
    with UdpEnd() as peer, UdpEnd() as upstream:
        bench = Bench(vesk, peer, upstream)
        host, port = "127.0.0.1", free_port()
        flows = [bench.flow(label, **four_keys(), options={
            "is_multiplex": "true", "up_src_ip": host, "up_src_port": port})
            for label in range(1, 9)]
        bench.declare(*flows)
        for flow in flows:
            bench.ask(flow)
        target = flows[0]
        senders = [UdpEnd() for _ in range(4)]
        try:
            with Drain(peer) as returned:
                floods = [Flood(sender, [(target.reply(b"p" * 500), (host, port))])
                          for sender in senders]
                deadline = time.monotonic() + scaled(20)
                while returned.count < 20_000 and time.monotonic() < deadline:
                    time.sleep(0.01)
                for flood in floods:
                    flood.stop()
            assert len(returned.samples) > 10
            for sample in returned.samples:
                target.open_reply(sample)
        finally:
            for sender in senders:
                sender.close()
        vesk.finish()
