"""Senders to which no reply can be sent."""

from __future__ import annotations

import pytest

from framework.bench import Bench
from framework.flow import four_keys

from hostile_kinds import PortZeroSender, raw_sockets_allowed


def test_a_sender_with_port_0_costs_only_the_socket_of_its_flow(bench: Bench) -> None:
    """Its datagram is accepted, because it is signed correctly. The reply cannot be sent, so the
    flow loses its socket; the next sender opens another one."""
    if not raw_sockets_allowed():
        pytest.skip("raw sockets are not allowed here")
    flow = bench.flow(5, **four_keys())
    bench.declare(flow)
    before = bench.exchange(flow)
    nobody = PortZeroSender()
    nobody.send(flow.request(b"from port 0"), bench.to)
    nobody.close()
    arrived = bench.upstream.receive()
    assert flow.open_request(arrived.data).payload == b"from port 0"
    assert arrived.sender == before
    bench.upstream.send(flow.reply(b"to port 0"), arrived.sender)
    bench.vesk.wait_for_log("error UP_TO_DOWN_SEND: network error on upstream endpoint of label "
                            "0x5/5, errno 22 (Invalid argument). Endpoint Deleted")
    assert bench.exchange(flow) != before
