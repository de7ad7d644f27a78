"""Datagrams of one label that arrive directly and over the lateral stream at the same time.

VESK_LATERAL_SECONDS is the duration.
"""

from __future__ import annotations

import time
from contextlib import ExitStack
from typing import List, Tuple

import pytest

from framework.fixtures import StartVesk
from framework.flood import Drain, Flood
from framework.flow import Flow, four_keys
from framework.framing import UDPV2
from framework.lateral import LOOPBACK, join, owned_label, shared_free_port
from framework.timing import count_from_environment, scaled, wait_until
from framework.udp import Address, UdpEnd, UpstreamService
from framework.vesk_process import VeskProcess

SECONDS = count_from_environment("VESK_LATERAL_SECONDS", 3)
FLOWS = 8


def joined_pair(start_vesk: StartVesk,
                *arguments: str) -> Tuple[List[VeskProcess], List[Address]]:
    port = shared_free_port([LOOPBACK[0], LOOPBACK[1]])
    hosts = {0: LOOPBACK[0], 1: LOOPBACK[1]}
    instances = [start_vesk(*arguments).ready() for _ in hosts]
    listeners = []
    for index, vesk in enumerate(instances):
        join(vesk, index, hosts, port, 2)
        listeners.append(("127.0.0.1", vesk.listen()))
    return instances, listeners


@pytest.mark.limit_seconds(60 + 4 * SECONDS)
def test_one_label_is_served_directly_and_laterally_at_once(start_vesk: StartVesk) -> None:
    """Every forwarded datagram is signed correctly in both directions."""
    instances, listeners = joined_pair(start_vesk)
    owner = instances[0]
    by_up_label = {}
    with ExitStack() as ends, UpstreamService(
            lambda data: by_up_label[UDPV2.parse(data).label].echo(data)) as service:
        flows = [Flow(owned_label(0, number), service.address, **four_keys())
                 for number in range(1, FLOWS + 1)]
        by_up_label.update({flow.up_label: flow for flow in flows})
        by_down_label = {flow.down_label: flow for flow in flows}
        for flow in flows:
            owner.command(flow.set_command())
        owner.settle()
        peers = [ends.enter_context(UdpEnd()) for _ in listeners]
        drains = [ends.enter_context(Drain(peer)) for peer in peers]
        for peer, listener in zip(peers, listeners):
            datagrams = [(flow.request(b"p" * 200), listener) for flow in flows]
            ends.enter_context(Flood(peer, datagrams, pause_seconds=scaled(0.001)))
        ended = time.monotonic() + SECONDS
        wait_until(lambda: time.monotonic() > ended, "the time has elapsed", SECONDS + 10)
        assert all(drain.count > 100 for drain in drains), [drain.count for drain in drains]
        for drain in drains:
            drain.stop()
            for sample in drain.samples:
                by_down_label[UDPV2.parse(sample).label].open_reply(sample)
    for vesk in instances:
        assert not [line for line in vesk.remarks() if line.startswith(("error", "warn"))]
        vesk.finish()


@pytest.mark.limit_seconds(60)
def test_two_threads_that_miss_an_endpoint_create_it_once(start_vesk: StartVesk) -> None:
    """New labels arrive on both ways at once. One complete endpoint is created for each."""
    instances, listeners = joined_pair(start_vesk)
    labels = [owned_label(0, number) for number in range(1, 301)]
    with UdpEnd() as upstream, UdpEnd() as direct, UdpEnd() as other:
        flows = [Flow(label, upstream.address, **four_keys()) for label in labels]
        for flow in flows:
            instances[0].command(flow.set_command())
        instances[0].settle()
        since = instances[0].mark()
        for flow in flows:
            other.send(flow.request(b"x"), listeners[1])
            direct.send(flow.request(b"x"), listeners[0])
        by_up_label = {flow.up_label: flow for flow in flows}
        for _ in range(2 * len(flows)):
            data = upstream.receive().data
            by_up_label[UDPV2.parse(data).label].open_request(data)
        # Once a later command is answered, every line written before it has been read.
        instances[0].settle()
        created = [line for line in instances[0].remarks(since) if "Created upstream" in line]
        assert len(created) == len(flows)


@pytest.mark.limit_seconds(60)
def test_end_of_input_under_full_load(start_vesk: StartVesk) -> None:
    """With a clean-up every second and the lateral stream at full speed."""
    for _ in range(2):
        instances, listeners = joined_pair(start_vesk, "udpv2", "1")
        with ExitStack() as ends:
            upstream, first, second = (ends.enter_context(UdpEnd()) for _ in range(3))
            flows = [Flow(owned_label(number % 2, number), upstream.address)
                     for number in range(1, 301)]
            for flow in flows:
                instances[(flow.label >> 16) % 2].command(flow.set_command())
            for vesk in instances:
                vesk.settle()
            arrived = ends.enter_context(Drain(upstream))
            for peer, listener in ((first, listeners[0]), (second, listeners[1])):
                ends.enter_context(Flood(peer, [(flow.request(b"x"), listener) for flow in flows]))
            wait_until(lambda: arrived.count > 2000, "traffic arrives", 20)
            for vesk in instances:
                vesk.close_input()
            for vesk in instances:
                vesk.wait_exit(0, seconds=2)


@pytest.mark.limit_seconds(60)
def test_peers_are_added_while_both_threads_look_them_up(start_vesk: StartVesk) -> None:
    (vesk, _), (listener, _) = joined_pair(start_vesk)
    with UdpEnd() as peer, UdpEnd("127.0.0.4") as nowhere:
        foreign = UDPV2.build(owned_label(1), b"x")
        with Flood(peer, [(foreign, listener)] * 8, pause_seconds=scaled(0.0005)):
            for number in range(1000):
                vesk.command(f"add_lateral_peer idx {number + 2} addr 127.0.0.{number % 200 + 4}")
                if number % 50 == 49:
                    vesk.settle()
        assert nowhere.waiting() is None
