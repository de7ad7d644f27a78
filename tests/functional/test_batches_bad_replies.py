"""Bad replies and lateral datagrams among good ones: a batch has the same effects as the same
datagrams one by one.
"""

from __future__ import annotations

from typing import List, Tuple

import pytest

from framework.batch_effects import effects, mixed, until_control
from framework.bench import Bench
from framework.fixtures import StartVesk
from framework.flow import four_keys
from framework.framing import FORWARDED, RETURNED, UDPV2, build_lateral, socket_address_bytes
from framework.lateral import Joined, NewEnd
from framework.statistics import Counters

# From services --------------------------------------------------------------------------

@pytest.mark.parametrize("keys", [{}, four_keys()], ids=["keyless", "keyed"])
def test_bad_replies_in_a_batch_are_treated_as_alone(start_vesk: StartVesk, new_end: NewEnd,
                                                     keys: dict) -> None:
    def run(together: bool) -> Tuple[List[bytes], List[str], Counters, int]:
        bench = Bench(start_vesk().ready(), new_end(), new_end())
        flow = bench.flow(**keys)
        bench.declare(flow)
        sender = bench.exchange(flow)
        bad = [b"short", b"", UDPV2.build(5, b"unsigned", four_keys()["down_in"]),
               flow.reply(b"c" * 3000), flow.reply(b"other label", label=6),
               flow.reply(b"x")[:19], b"", flow.reply(b"label 0", label=0)]
        replies = mixed([flow.reply(b"good %d" % number) for number in range(9)], bad)

        def collect() -> List[bytes]:
            bench.upstream.send(flow.reply(b"control"), sender)
            return until_control(bench.peer, lambda datagram: (
                flow.open_reply(datagram).payload == b"control"))

        seen = effects(bench.vesk, lambda reply: bench.upstream.send(reply, sender), replies,
                       collect, together)
        controls = 1 if together else len(replies)
        counters = seen.counters.upstream[flow.label]
        counters["RxDg"] -= controls
        counters["DnTxDg"] -= controls
        return seen.arrived, seen.lines, counters, len(replies)

    arrived, lines, counters, replies = run(together=True)
    assert (arrived, lines, counters, replies) == run(together=False)
    assert lines == []
    assert counters["RxDg"] == replies - 2 + 1
    # Too short twice, forged, cut if there is a key, and another label.
    assert counters["RxDgError"] == (5 if keys else 4)
    # All but these, of which the one with another label is sent.
    assert counters["DnTxDg"] == counters["RxDg"] - counters["RxDgError"] + 1


# Over the lateral stream ----------------------------------------------------------------

def test_bad_lateral_datagrams_in_a_batch_are_treated_as_alone(start_vesk: StartVesk,
                                                               new_end: NewEnd) -> None:
    def run(together: bool) -> Tuple[List[bytes], List[bytes], List[str], Counters, Counters]:
        joined = Joined(start_vesk().ready(), new_end)
        handed = joined.hand_over(joined.foreign())
        address = socket_address_bytes("192.0.2.1", 7)

        def returned(payload: bytes, code: bytes = handed.authentication) -> bytes:
            return build_lateral(RETURNED, handed.address, code, payload)

        bad = [b"x", b"", build_lateral(3, address, bytes(16), joined.flow.request(b"type 3")),
               build_lateral(FORWARDED, address, bytes(16), b"short"),
               build_lateral(FORWARDED, address, bytes(16), joined.foreign()),
               build_lateral(FORWARDED, address, bytes(16),
                             UDPV2.build(joined.flow.label, b"unsigned")),
               returned(b"forged", bytes(16)), returned(b"r" * 3000),
               build_lateral(FORWARDED, address, bytes(15), b"", length_byte=32)]
        good = [joined.forward(b"good %d" % number) if number % 2 else returned(b"%d" % number)
                for number in range(10)]
        peers: List[bytes] = []

        def collect() -> List[bytes]:
            joined.neighbour.send(returned(b"control"), joined.lateral_to)
            peers.extend(until_control(joined.peer, lambda datagram: datagram == b"control"))
            joined.neighbour.send(joined.forward(b"control"), joined.lateral_to)
            return until_control(joined.upstream, lambda datagram: (
                joined.flow.open_request(datagram).payload == b"control"))

        lateral = mixed(good, bad)
        seen = effects(joined.vesk, lambda data: joined.neighbour.send(data, joined.lateral_to),
                       lateral, collect, together)
        counters, own = seen.counters.lateral, seen.counters.downstream
        assert counters is not None and own is not None
        controls = 1 if together else len(lateral)
        counters["RxDg"] -= 2 * controls
        counters["DnTxDg"] -= controls
        return peers, seen.arrived, seen.lines, counters, own

    peers, arrived, lines, lateral, own = run(together=True)
    assert (peers, arrived, lines, lateral, own) == run(together=False)
    assert len(arrived) == 5 and len(peers) == 6
    assert lateral["RxDg"] == 19 - 1 and lateral["RxDgError"] == 4
    # The one that was handed over for the HMAC, and the three bad ones with a good header.
    assert own["RxDg"] == 1 and own["RxDgError"] == 3
