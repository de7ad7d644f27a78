"""The route to a service or to a peer is removed for a while and restored."""

from __future__ import annotations

from contextlib import ExitStack
from typing import Callable, Iterator, List, Tuple

import pytest

from framework.fixtures import StartVesk
from framework.bench import Bench
from framework.flow import Flow, four_keys
from framework.timing import wait_until
from framework.udp import UdpEnd

from network import PEERS, Namespace, Network, ipv4, refusal

SUBNET = "10.77.0.0/24"
# The commands that remove and restore the route, and what the forwarder logs for each datagram.
LOSSES: List[Tuple[List[str], List[str], str]] = [
    (["route", "del", SUBNET], ["route", "add", SUBNET, "dev", "eth0"],
     "error {} network error on upstream endpoint of label 0x5/5, errno 101 "
     "(Network is unreachable). Endpoint Deleted"),
    (["route", "replace", "unreachable", SUBNET], ["route", "replace", SUBNET, "dev", "eth0"],
     "warn {} network error on upstream endpoint of label 0x5/5, errno 113 (No route to host)."),
    (["link", "set", "eth0", "down"], ["link", "set", "eth0", "up"],
     "error {} network error on upstream endpoint of label 0x5/5, errno 101 "
     "(Network is unreachable). Endpoint Deleted"),
]
IDS = ["route deleted", "route unreachable", "link down"]


class Host:
    """A forwarder on its own host, with ends on that host and others over a link."""

    def __init__(self, start_vesk: StartVesk, network: Network, keep: ExitStack) -> None:
        self._keep = keep
        self.namespace: Namespace = network.hosts[0]
        self.far = network.end(ipv4(PEERS))
        vesk = start_vesk(prefix=self.namespace.prefix).ready()
        self.bench = Bench(vesk, self.near(), self.near(), listen="0.0.0.0")
        self.bench.to = ("127.0.0.1", self.bench.to[1])

    def near(self) -> UdpEnd:
        with self.namespace.inside():
            return self._keep.enter_context(UdpEnd())


@pytest.fixture
def host(start_vesk: StartVesk) -> Iterator[Host]:
    reason = refusal()
    if reason:
        pytest.skip(f"network namespaces are not allowed here: {reason}")
    with Network(hosts=1) as network, ExitStack() as keep:
        yield Host(start_vesk, network, keep)


def no_harm_to_others(host: Host) -> None:
    host.bench.exchange(host.bench.control)


@pytest.mark.parametrize("away, back, complaint", LOSSES, ids=IDS)
def test_a_flow_works_again_when_the_route_to_the_service_is_restored(host: Host, away: List[str],
                                                                      back: List[str],
                                                                      complaint: str) -> None:
    bench = host.bench
    flow = bench.flow(5, upstream=host.far.address, **four_keys())
    bench.declare(flow)
    far_bench = exchange_with(host.far, bench)
    far_bench(flow)
    no_harm_to_others(host)
    host.namespace.ip(*away)
    since = bench.vesk.mark()
    for _ in range(3):
        bench.send(flow.request(b"lost"))
        no_harm_to_others(host)
    bench.vesk.wait_for_log(complaint.format("DOWN_TO_UP_SEND:"), since, count=3)
    host.namespace.ip(*back)
    wait_until_it_carries(lambda: bench.send(flow.request(b"question")), host.far)
    far_bench(flow)


def wait_until_it_carries(send: Callable[[], object], end: UdpEnd) -> None:
    """Repeats the datagram, since a link that has just come up may lose it."""
    def arrives() -> bool:
        send()
        return end.waiting() is not None
    wait_until(arrives, "datagrams arrive again")


def exchange_with(service: UdpEnd, bench: Bench) -> Callable[[Flow], None]:
    def exchange(flow: Flow) -> None:
        bench.send(flow.request(b"question"))
        arrived = service.receive()
        assert flow.open_request(arrived.data).payload == b"question"
        service.send(flow.reply(b"answer"), arrived.sender)
        assert flow.open_reply(bench.peer.receive().data).payload == b"answer"
    return exchange


@pytest.mark.parametrize("away, back, complaint", LOSSES, ids=IDS)
def test_a_flow_works_again_when_the_route_to_the_peer_is_restored(host: Host, away: List[str],
                                                                   back: List[str],
                                                                   complaint: str) -> None:
    bench = host.bench
    flow = bench.flow(5, **four_keys())
    bench.declare(flow)
    listener = (ipv4(1), bench.to[1])

    def ask() -> None:
        host.far.send(flow.request(b"question"), listener)
        arrived = bench.upstream.receive()
        bench.upstream.send(flow.reply(b"answer"), arrived.sender)
        assert flow.open_reply(host.far.receive().data).payload == b"answer"

    ask()
    no_harm_to_others(host)
    host.far.send(flow.request(b"question"), listener)
    sender = bench.upstream.receive().sender
    host.namespace.ip(*away)
    since = bench.vesk.mark()
    bench.upstream.send(flow.reply(b"lost"), sender)
    bench.vesk.wait_for_log(complaint.format("UP_TO_DOWN_SEND:"), since)
    no_harm_to_others(host)
    host.namespace.ip(*back)
    wait_until_it_carries(lambda: host.far.send(flow.request(b"question"), listener),
                          bench.upstream)
    ask()
