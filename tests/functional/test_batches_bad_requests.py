"""Bad requests among good ones: a batch has the same effects as the same datagrams one by one."""

from __future__ import annotations

from pathlib import Path
from typing import Dict, List, Tuple

from framework.batches import stopped, wait_until_idle
from framework.batch_effects import Seen, effects, mixed, until_control
from framework.bench import Bench
from framework.crypto_provider import configuration
from framework.fixtures import StartVesk
from framework.flow import Flow, four_keys
from framework.framing import UDPV2
from framework.lateral import LOOPBACK, MINE, NewEnd, join, owned_label, shared_free_port
from framework.statistics import Counters, report
from framework.udp import Address
from framework.vesk_process import VeskProcess

INSTANCES = 3
NEIGHBOUR, STRANGER = 1, 2

class Requests:
    """Flows on instance 0 of 3, of which only the first two know each other."""

    def __init__(self, vesk: VeskProcess, new_end: NewEnd) -> None:
        self.vesk = vesk
        self.peer, self.upstream = new_end(), new_end()
        port = shared_free_port([LOOPBACK[MINE], LOOPBACK[NEIGHBOUR]])
        self.neighbour = new_end(LOOPBACK[NEIGHBOUR], port)
        join(vesk, MINE, {0: LOOPBACK[0], 1: LOOPBACK[1]}, port, INSTANCES)
        self.to: Address = ("127.0.0.1", vesk.listen())
        keyed = [Flow(self.label(number), self.upstream.address, **four_keys())
                 for number in range(1, 5)]
        self.first, self.second, self.late, self.forged_first = keyed
        self.keyless = Flow(self.label(5), self.upstream.address)
        self.nowhere = Flow(self.label(6))
        vesk.lines_after(*(flow.set_command()
                           for flow in [*keyed, self.keyless, self.nowhere]))

    @staticmethod
    def label(number: int, owner: int = MINE) -> int:
        return owned_label(owner, number, INSTANCES)

    def datagrams(self) -> List[bytes]:
        bad = [b"short",
               UDPV2.build(self.first.label, b"unsigned"),
               UDPV2.build(self.label(99), b"unknown label"),
               b"",
               self.keyless.request(b"c" * 3000),
               self.first.request(b"c" * 3000),
               UDPV2.build(self.label(1, STRANGER), b"no such neighbour"),
               UDPV2.build(self.label(1, NEIGHBOUR), b"for the neighbour"),
               UDPV2.build(self.label(1, NEIGHBOUR), b"too long with a header" * 92),
               UDPV2.build(self.forged_first.label, b"unsigned"),
               self.nowhere.request(b"nowhere"),
               self.late.request(b"opens an endpoint"),
               self.second.request(b"c" * 3000),
               b"", b"x"]
        good = [flow.request(f"good {number}".encode()) for number, flow in
                enumerate([self.first, self.second, self.first, self.first, self.second] * 3)]
        return mixed(good, bad)

    def collect(self) -> List[bytes]:
        self.peer.send(self.second.request(b"control"), self.to)
        return until_control(self.upstream, lambda datagram: (
            UDPV2.parse(datagram).payload == b"control"))

    def effects(self, together: bool) -> Tuple[Seen, bytes]:
        seen = effects(self.vesk, lambda datagram: self.peer.send(datagram, self.to),
                       self.datagrams(), self.collect, together)
        return seen, self.neighbour.receive().data


def test_bad_requests_in_a_batch_are_treated_as_alone(start_vesk: StartVesk,
                                                      new_end: NewEnd) -> None:
    alone, together = (Requests(start_vesk().ready(), new_end) for _ in range(2))
    one_by_one, handed = alone.effects(together=False)
    batch, handed_in_batch = together.effects(together=True)
    assert batch.arrived == one_by_one.arrived
    assert batch.lines == one_by_one.lines
    for name, counters in one_by_one.counters.upstream.items():
        controls = len(alone.datagrams()) - 1 if name == alone.second.label else 0
        counters["TxDg"] -= controls
        assert batch.counters.upstream[name] == counters, name
    assert batch.counters.lateral == one_by_one.counters.lateral
    assert batch.counters.downstream is not None
    # All that the neighbour gets is one datagram, from the same label in either case.
    assert handed[-17:] == handed_in_batch[-17:] == b"for the neighbour"
    # Two of all datagrams are empty, and one more is the control datagram.
    assert batch.counters.downstream["RxDg"] == len(together.datagrams()) - 2 + 1
    assert batch.counters.downstream["RxDgError"] == 9
    assert one_by_one.counters.downstream["RxDgError"] == 9


def test_the_effects_of_bad_requests(start_vesk: StartVesk, new_end: NewEnd) -> None:
    """Absolute numbers, since the comparison would not notice what is wrong in both cases."""
    requests = Requests(start_vesk().ready(), new_end)
    batch, _ = requests.effects(together=True)
    good = [UDPV2.parse(datagram).payload for datagram in batch.arrived
            if UDPV2.parse(datagram).payload.startswith(b"good")]
    assert good == [f"good {number % 15}".encode() for number in range(16)]
    assert batch.lines.count("downstreamPacketReceivedFailed HMAC Check!") == 4
    assert len([line for line in batch.lines if "while receiving: errno =" in line]) == 2
    flows: Dict[int, Counters] = batch.counters.upstream
    assert requests.forged_first.label not in flows
    assert flows[requests.late.label]["TxDg"] == flows[requests.keyless.label]["TxDg"] == 1
    assert batch.counters.lateral["TxDg"] == batch.counters.lateral["TxDgDropped"] == 1


def test_unsignable_datagrams_in_a_batch_are_dropped(start_vesk: StartVesk, tmp_path: Path,
                                                     new_end: NewEnd) -> None:
    """In both directions. libcrypto refuses every digest, so flows with keys sign nothing."""
    vesk = start_vesk(environment=configuration(tmp_path, ["fips", "qorng"],
                                                fips_by_default=True)).ready()
    bench = Bench(vesk, new_end(), new_end())
    unsendable = bench.flow(5, up_out=four_keys()["up_out"])
    unanswerable = bench.flow(6, down_out=four_keys()["down_out"])
    uncheckable = bench.flow(7, **four_keys())
    keyless = bench.flow(8)
    bench.declare(unsendable, unanswerable, uncheckable, keyless)
    sender = bench.exchange(keyless)
    unanswered = bench.ask(unanswerable).sender
    with stopped(vesk):
        for number in range(10):
            for flow in (unsendable, uncheckable):
                bench.send(flow.request(b"must not arrive"))
            bench.send(keyless.request(str(number).encode()))
            bench.upstream.send(unanswerable.reply(b"must not come back"), unanswered)
            bench.upstream.send(keyless.reply(str(number).encode()), sender)
    for number in range(10):
        assert keyless.open_request(bench.upstream.receive().data).payload == b"%d" % number
        assert keyless.open_reply(bench.peer.receive().data).payload == b"%d" % number
    bench.nothing_went_upstream()
    wait_until_idle(vesk)
    seen = report(vesk)
    assert seen.upstream[5]["TxDgDropped"] == 10 and seen.upstream[5]["TxDg"] == 0
    assert seen.upstream[6]["DnTxDgDropped"] == 10 and seen.upstream[6]["DnTxDg"] == 0
    assert seen.upstream[8]["TxDg"] == seen.upstream[8]["DnTxDg"] == 11
    assert seen.downstream["RxDgError"] == 10
