"""A network that takes only short datagrams whole.

Longer ones leave in fragments, one by one: the kernel refuses to cut a message into datagrams that
do not fit. It is asked once for each length.
"""

from __future__ import annotations

from pathlib import Path
from typing import Iterator, List

import pytest

from framework.batches import cut_sends, receive_all, stopped
from framework.fixtures import StartVesk
from framework.faults import recording_start
from framework.flow import Flow, four_keys
from framework.statistics import wait_for_report
from framework.timing import wait_until
from framework.udp import Address

from network import PEERS, Network, ipv4, ipv6

MTU = 1400
COUNT = 10
FITTING, LONG, LONGER = 1000, 1500, 1900


@pytest.fixture
def narrow(network: Network) -> Iterator[Network]:
    """No packet from or to the first host is longer than 1,400 bytes."""
    set_mtu(network, MTU)
    yield network
    set_mtu(network, 1500)


def set_mtu(network: Network, mtu: int) -> None:
    network.hosts[0].ip("link", "set", "dev", "eth0", "mtu", str(mtu))
    for device in ("port1", "bridge"):
        network.hub.ip("link", "set", "dev", device, "mtu", str(mtu))


def payloads(length: int) -> List[bytes]:
    return [b"%04d" % number + bytes(length - 4) for number in range(COUNT)]


@pytest.mark.parametrize("address, port", [(ipv4, 4950), (ipv6, 4951)], ids=["ipv4", "ipv6"])
def test_datagrams_longer_than_the_mtu_arrive_whole(narrow: Network, start_vesk: StartVesk,
                                                    tmp_path: Path, address, port: int) -> None:
    trace = tmp_path / "trace"
    vesk = start_vesk(prefix=[*narrow.hosts[0].prefix,
                              *recording_start(trace, "sendmsg,sendmmsg")]).ready()
    vesk.lines_after(f"start addr {address(1)} port {port}")
    to: Address = (address(1), port)
    peer, service = narrow.end(address(PEERS)), narrow.end(address(PEERS))
    flow = Flow(5, service.address, **four_keys())
    vesk.lines_after(flow.set_command())
    peer.send(flow.request(b"question"), to)
    sender = service.receive().sender
    since = vesk.mark()
    rounds = 0
    # After a refused length shorter datagrams are still sent as one message.
    for length, attempts in ((FITTING, 1), (LONGER, 2), (LONG, 3), (LONG, 3), (LONGER, 3),
                             (FITTING, 4)):
        sent = payloads(length)
        with stopped(vesk):
            for payload in sent:
                peer.send(flow.request(payload), to)
                service.send(flow.reply(payload), sender)
        assert [flow.open_request(data).payload for data in receive_all(service, COUNT)] == sent
        assert [flow.open_reply(data).payload for data in receive_all(peer, COUNT)] == sent
        wait_until(lambda attempts=attempts: len(cut_sends(trace)) == 2 * attempts,
                   "each side has tried the message or not")
        rounds += 1
    seen = wait_for_report(vesk, lambda now: now.upstream[5]["DnTxDg"] == rounds * COUNT)
    assert seen.upstream[5]["TxDg"] == 1 + rounds * COUNT
    assert seen.upstream[5]["TxDgDropped"] == seen.upstream[5]["DnTxDgDropped"] == 0
    assert not [line for line in vesk.remarks(since) if "network error" in line]


def test_fragmented_datagrams_are_received_between_merged_ones(narrow: Network,
                                                           start_vesk: StartVesk) -> None:
    """Datagrams that arrive in fragments are received one by one, between merged ones."""
    vesk = start_vesk(prefix=narrow.hosts[0].prefix).ready()
    vesk.lines_after(f"start addr {ipv4(1)} port 4952")
    peer, service = narrow.end(ipv4(PEERS)), narrow.end(ipv4(PEERS))
    flow = Flow(5, service.address, **four_keys())
    vesk.lines_after(flow.set_command())
    expected: List[bytes] = []
    with stopped(vesk):
        for length in (100, LONGER, 100, LONG):
            sent = payloads(length)
            expected += sent
            requests = [flow.request(payload) for payload in sent]
            if length == 100:
                peer.send_merged(requests, (ipv4(1), 4952))
            else:
                for request in requests:
                    peer.send(request, (ipv4(1), 4952))
    arrived = receive_all(service, len(expected))
    assert [flow.open_request(data).payload for data in arrived] == expected
    seen = wait_for_report(vesk, lambda now: now.upstream[5]["TxDg"] == len(expected))
    assert seen.downstream["RxDg"] == len(expected)
