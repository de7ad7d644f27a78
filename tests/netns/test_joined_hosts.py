"""Three instances on three hosts, each with its own addresses."""

from __future__ import annotations

from typing import Callable, List

import pytest

from framework.flow import Flow, four_keys
from framework.framing import (FORWARDED, RETURNED, build_lateral, parse_lateral,
                               socket_address_bytes)
from framework.lateral import join, owned_label
from framework.statistics import wait_for_report
from framework.udp import Address, UdpEnd
from framework.vesk_process import VeskProcess

from network import PEERS, Network, ipv4, ipv6

# No host shares its addresses, so fixed ports cannot conflict.
DOWNSTREAM_PORT = 4500
LATERAL_PORT = 8445
INSTANCES = 3


class Hosts:
    """Three joined forwarders, each owning one flow to a service on the bridge."""

    def __init__(self, network: Network, start_vesk: Callable[..., VeskProcess],
                 lateral: Callable[[int], str], upstream: str) -> None:
        self.network = network
        self.upstream = network.end(upstream)
        self.instances: List[VeskProcess] = []
        self.flows = [Flow(owned_label(index, 1, INSTANCES), self.upstream.address, **four_keys())
                      for index in range(INSTANCES)]
        addresses = {index: lateral(index + 1) for index in range(INSTANCES)}
        for index, host in enumerate(network.hosts):
            vesk = start_vesk(prefix=host.prefix).ready()
            join(vesk, index, addresses, LATERAL_PORT, INSTANCES)
            lines = vesk.lines_after(f"start addr :: port {DOWNSTREAM_PORT}")
            assert not [line for line in lines if line.startswith("error")], lines
            assert vesk.lines_after(self.flows[index].set_command()) == []
            self.instances.append(vesk)

    def exchange(self, peer: UdpEnd, to: Address, flow: Flow) -> None:
        """The reply has to come from the address to which the peer sends."""
        peer.send(flow.request(b"question"), to)
        arrived = self.upstream.receive()
        assert flow.open_request(arrived.data).payload == b"question"
        self.upstream.send(flow.reply(b"answer"), arrived.sender)
        answer = peer.receive()
        assert flow.open_reply(answer.data).payload == b"answer"
        assert answer.sender == to


@pytest.mark.parametrize("upstream", [ipv4(PEERS), ipv6(PEERS)], ids=["upstream4", "upstream6"])
@pytest.mark.parametrize("lateral", [ipv4, ipv6], ids=["lateral4", "lateral6"])
@pytest.mark.parametrize("peer_address, listener", [(ipv4(PEERS), ipv4), (ipv6(PEERS), ipv6)],
                         ids=["peer4", "peer6"])
def test_every_owner_is_reached_through_every_host(
        network: Network, start_vesk: Callable[..., VeskProcess], peer_address: str,
        listener: Callable[[int], str], lateral: Callable[[int], str], upstream: str) -> None:
    hosts = Hosts(network, start_vesk, lateral, upstream)
    for number in range(1, INSTANCES + 1):
        peer = network.end(peer_address)
        for flow in hosts.flows:
            hosts.exchange(peer, (listener(number), DOWNSTREAM_PORT), flow)
    for index, vesk in enumerate(hosts.instances):
        # Each instance forwarded datagrams to the two others and received as many from them.
        seen = wait_for_report(vesk, lambda now: now.lateral["TxDg"] == INSTANCES - 1
                               and now.lateral["DnTxDg"] == INSTANCES - 1)
        assert seen.lateral["RxDg"] == 2 * (INSTANCES - 1), index
        assert seen.lateral["RxDgError"] == 0
        vesk.finish()


@pytest.mark.parametrize("subnet", [77, 78])
@pytest.mark.parametrize("address", [ipv4, ipv6])
def test_direct_replies_come_from_the_destination_of_the_request(
        network: Network, start_vesk: Callable[..., VeskProcess],
        address: Callable[..., str], subnet: int) -> None:
    """Also for a peer for whose address the kernel would choose another source."""
    hosts = Hosts(network, start_vesk, ipv4, ipv4(PEERS))
    for own_subnet in (77, 78):
        peer = network.end(address(PEERS, own_subnet))
        hosts.exchange(peer, (address(1, subnet), DOWNSTREAM_PORT), hosts.flows[0])


def test_forged_and_foreign_returns_are_refused(network: Network,
                                                start_vesk: Callable[..., VeskProcess]) -> None:
    hosts = Hosts(network, start_vesk, ipv4, ipv4(PEERS))
    first = hosts.instances[0]
    victim, intruder = network.end(ipv4(PEERS)), network.end(ipv4(PEERS))
    to = (ipv4(1), LATERAL_PORT)
    # The intruder replaces the second instance and receives a valid HMAC.
    first.lines_after(f"add_lateral_peer idx 1 addr {ipv4(PEERS)}")
    neighbour = network.end(ipv4(PEERS), LATERAL_PORT)
    intruder.send(hosts.flows[1].request(b"x"), (ipv4(1), DOWNSTREAM_PORT))
    handed = parse_lateral(neighbour.receive().data)
    assert handed.kind == FORWARDED
    # The listener has IPv4 peers as IPv4-mapped addresses.
    redirected = socket_address_bytes(f"::ffff:{victim.host}", victim.port)
    for address, code in ((redirected, handed.authentication), (redirected, bytes(16)),
                          (handed.address, bytes(16))):
        neighbour.send(build_lateral(RETURNED, address, code, b"forged"), to)
    neighbour.send(build_lateral(RETURNED, handed.address, handed.authentication, b"honest"), to)
    # An HMAC of the first instance is not valid for the second.
    neighbour.send(build_lateral(RETURNED, handed.address, handed.authentication, b"foreign"),
                   (ipv4(2), LATERAL_PORT))
    assert intruder.receive().data == b"honest"
    wait_for_report(first, lambda now: now.lateral["RxDgError"] == 3)
    wait_for_report(hosts.instances[1], lambda now: now.lateral["RxDgError"] == 1)
    assert victim.waiting() is None and intruder.waiting() is None
