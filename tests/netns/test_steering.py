"""The rules that steer the datagrams of one port to several instances, in the kernel.

Sockets stand in for the instances: they receive on the instances' ports and reply from them.
"""

from __future__ import annotations

from pathlib import Path
from typing import Callable, Iterator

import pytest

from framework.framing import UDPV1, UDPV2, Framing
from framework.udp import UdpEnd

from network import PEERS, Namespace, Network, ipv4, ipv6
from steering import (FIRST, PUBLIC, Steered, labels, listed, refusal, rules, send_with_checksum,
                      without_checksum)

Steer = Callable[..., Steered]

BOTH_FAMILIES = pytest.mark.parametrize("address", [ipv4, ipv6])
BOTH_FRAMINGS = pytest.mark.parametrize("framing", [UDPV1, UDPV2], ids=["udpv1", "udpv2"])


@pytest.fixture
def host(network: Network) -> Namespace:
    reason = refusal(network.hosts[0])
    if reason:
        pytest.skip(f"the packet filter is not allowed in network namespaces here: {reason}")
    return network.hosts[0]


@pytest.fixture
def steer(host: Namespace, tmp_path: Path) -> Iterator[Steer]:
    """Installs the rules on the first host; removes them at the end."""
    made = []

    def install(listen: str = "::", framing: Framing = UDPV2, instances: int = 2) -> Steered:
        made.append(Steered(host, rules(tmp_path, listen, framing, instances), listen, instances))
        return made[-1]

    yield install
    for steered in made:
        steered.close()


@BOTH_FAMILIES
@BOTH_FRAMINGS
@pytest.mark.parametrize("instances", [1, 2, 4, 64])
def test_the_label_selects_the_instance_and_replies_leave_from_the_public_port(
        network: Network, steer: Steer, address: Callable[..., str], framing: Framing,
        instances: int) -> None:
    steered = steer(framing=framing, instances=instances)
    peer = network.end(address(PEERS))
    to = (address(1), PUBLIC)
    for label, instance in labels(instances):
        peer.send(framing.build(label, b"question"), to)
        received = steered.receive(instance)
        assert framing.parse(received.data).label == label
        steered.instances[instance].send(b"answer", received.sender)
        answer = peer.receive()
        assert (answer.data, answer.sender) == (b"answer", to)
    assert set(steered.counters().values()) == {0}


@pytest.mark.parametrize("listen", [ipv4(1), ipv4(1, 78), "0.0.0.0", ipv6(1), "::"])
def test_only_the_configured_addresses_are_steered(network: Network, steer: Steer,
                                                   listen: str) -> None:
    steered = steer(listen)
    request = UDPV2.build(0x10001, b"")
    for to in (ipv4(1), ipv4(1, 78), ipv6(1), ipv6(1, 78)):
        peer = network.end(ipv6(PEERS) if ":" in to else ipv4(PEERS))
        matches = to == listen or listen == "::" or listen == "0.0.0.0" and ":" not in to
        with steered.host.inside():
            # Where the rules do not match, other programs may use the port.
            other = None if matches else UdpEnd(to, PUBLIC)
        peer.send(request, (to, PUBLIC))
        if other is None:
            assert steered.receive(1).data == request
        else:
            assert other.receive().data == request
            steered.expect_nothing()
            other.close()


@BOTH_FAMILIES
@BOTH_FRAMINGS
def test_datagrams_without_a_whole_label_go_to_instance_0_and_are_counted(
        network: Network, steer: Steer, address: Callable[..., str], framing: Framing) -> None:
    steered = steer(framing=framing)
    peer = network.end(address(PEERS))
    whole = framing.build(0xffffffff, b"")
    for length in (0, 1, framing.hmac_length, len(whole) - 2, len(whole) - 1):
        peer.send(whole[:length], (address(1), PUBLIC))
        assert steered.receive(0).data == whole[:length]
    assert steered.counters()["too_short"] == 5
    peer.send(whole, (address(1), PUBLIC))
    assert steered.receive(1).data == whole
    assert steered.counters()["too_short"] == 5


@pytest.fixture(params=[False, True], ids=["plain", "tracked"])
def narrow(request: pytest.FixtureRequest, network: Network, steer: Steer) -> Iterator[Steered]:
    """A path that takes at most 1,400 bytes. Connection tracking puts fragments together before the
    rules see them."""
    steered = steer()
    if request.param:
        steered.nft("-f", "-", text=TRACKING)
    set_mtu(network, 1400)
    yield steered
    set_mtu(network, 1500)
    if request.param:
        steered.nft("delete", "table", "inet", "tracking")


# Only UDP: the kernel does not track the messages of neighbour discovery either, which come at any time.
TRACKING = """table inet tracking {
    chain input {
        type filter hook input priority filter; policy accept;
        meta l4proto udp ct state untracked counter
        udp dport 4500-4600 ct state != untracked counter
    }
}
"""


def set_mtu(network: Network, mtu: int) -> None:
    network.hosts[0].ip("link", "set", "dev", "eth0", "mtu", str(mtu))
    for device in ("port1", "bridge"):
        network.hub.ip("link", "set", "dev", device, "mtu", str(mtu))


@BOTH_FAMILIES
def test_fragments_arrive_whole_at_the_instance_and_are_counted(
        network: Network, narrow: Steered, request: pytest.FixtureRequest,
        address: Callable[..., str]) -> None:
    peer = network.end(address(PEERS))
    to = (address(1), PUBLIC)
    for label, instance in labels(2):
        whole = UDPV2.build(label, bytes(range(256)) * 7)
        peer.send(whole, to)
        received = narrow.receive(instance)
        assert received.data == whole
        narrow.instances[instance].send(whole, received.sender)
        answer = peer.receive()
        assert (answer.data, answer.sender) == (whole, to)
    tracked = "tracked" in request.node.callspec.id
    assert narrow.counters()["fragments"] == (0 if tracked else len(labels(2)))


@BOTH_FAMILIES
def test_checksums_stay_right(network: Network, steer: Steer,
                              address: Callable[..., str]) -> None:
    steered = steer()
    peer = network.end(address(PEERS))
    to = (address(1), PUBLIC)
    for label, instance in labels(2):
        whole = UDPV2.build(label, b"payload")
        with network.hub.inside():
            send_with_checksum(peer.address, to, whole)
        assert steered.receive(instance).data == whole


def test_datagrams_without_a_checksum_stay_without(network: Network, steer: Steer) -> None:
    steered = steer()
    peer = network.end(ipv4(PEERS))
    without_checksum(peer)
    to = (ipv4(1), PUBLIC)
    for label, instance in labels(2):
        whole = UDPV2.build(label, b"payload")
        peer.send(whole, to)
        assert steered.receive(instance).data == whole
    peer.send(b"short", to)
    assert steered.receive(0).data == b"short"


@BOTH_FAMILIES
def test_connection_tracking_sees_no_datagram(network: Network, steer: Steer,
                                              address: Callable[..., str]) -> None:
    steered = steer()
    steered.nft("-f", "-", text=TRACKING)
    with steered.host.inside():
        local = UdpEnd(address(1))
    for peer in (network.end(address(PEERS)), local):
        peer.send(UDPV2.build(0x10000, b""), (address(1), PUBLIC))
        sender = steered.receive(1).sender
        steered.instances[1].send(b"answer", sender)
        assert peer.receive().sender == (address(1), PUBLIC)
    local.close()
    untracked, tracked = [line for line in steered.nft("list", "table", "inet", "tracking")
                          .splitlines() if "counter" in line]
    # Two requests; the reply to the peer on this host also arrives here.
    assert "packets 3" in untracked
    assert "packets 0" in tracked
    steered.nft("delete", "table", "inet", "tracking")


@BOTH_FAMILIES
def test_datagrams_to_an_instances_own_port_are_dropped_and_counted(
        network: Network, steer: Steer, address: Callable[..., str]) -> None:
    steered = steer()
    peer = network.end(address(PEERS))
    for port in (FIRST, FIRST + 1, FIRST + 2):
        peer.send(UDPV2.build(0x10001, b"direct"), (address(1), port))
    peer.send(UDPV2.build(0x10001, b"public"), (address(1), PUBLIC))
    assert UDPV2.parse(steered.receive(1).data).payload == b"public"
    assert steered.counters()["direct"] == 3


def test_the_rules_are_there_once_and_no_other_table_changes(steer: Steer) -> None:
    steered = steer()
    steered.nft("-f", "-", text=TRACKING + "table ip nat { }\ntable inet vesk_4600 { }\n")
    others = [listed(steered, name) for name in ("tracking", "vesk_4600")]
    before = listed(steered)
    steered.nft("-f", "-", text=steered.text)
    assert sorted(listed(steered).splitlines()) == sorted(before.splitlines())
    assert [listed(steered, name) for name in ("tracking", "vesk_4600")] == others
    for words in (("inet", "tracking"), ("ip", "nat"), ("inet", "vesk_4600")):
        steered.nft("delete", "table", *words)


def test_a_datagram_without_an_entry_goes_to_instance_0_and_is_counted(network: Network,
                                                                       steer: Steer) -> None:
    steered = steer()
    steered.nft("delete", "element", "inet", f"vesk_{PUBLIC}", "instances", "{ 1 }")
    peer = network.end(ipv4(PEERS))
    peer.send(UDPV2.build(0x10001, b""), (ipv4(1), PUBLIC))
    steered.receive(0)
    assert steered.counters()["unmatched"] == 1


@BOTH_FAMILIES
def test_merged_datagrams_follow_the_first(network: Network, steer: Steer,
                                           address: Callable[..., str]) -> None:
    """One message that the kernel cuts late: the rules see it once."""
    steered = steer()
    peer = network.end(address(PEERS))
    requests = [UDPV2.build(label, b"") for label in (0x10001, 0x20001, 0x10002)]
    peer.send_merged(requests, (address(1), PUBLIC))
    assert [steered.instances[1].receive().data for _ in requests] == requests
    steered.expect_nothing()
