"""IPv4 datagrams are sent from the address that the other side uses, if that is requested.

The forwarder's host has two addresses on one interface. The peer and the service have addresses in
the same two subnets, so that the kernel itself would choose the source address in the subnet of the
destination.
"""

from __future__ import annotations

import re
import socket
from contextlib import contextmanager
from dataclasses import dataclass
from itertools import count
from pathlib import Path
from typing import Callable, Dict, Iterator, List, Optional

import pytest

from framework.faults import recording_start
from framework.flow import Flow, four_keys
from framework.lateral import join, owned_label
from framework.statistics import wait_for_report
from framework.udp import Address, Received, UdpEnd
from framework.vesk_process import VeskProcess

from network import PEERS, Network, ipv4

StartVesk = Callable[..., VeskProcess]

WILDCARD = "0.0.0.0"
BY_ARRIVAL = {"VESK_IPV4_SOURCE": "arrival"}
HOST = {subnet: ipv4(1, subnet) for subnet in (77, 78)}

_ports = count(4600)


@dataclass
class Site:
    """A forwarder on the first host, with a peer and a service on the bridge."""

    vesk: VeskProcess
    peer: UdpEnd
    service: UdpEnd
    to: Address

    def declare(self, label: int = 5, source: Optional[str] = None) -> Flow:
        options: Dict[str, object] = {}
        if source is not None:
            options = {"up_src_ip": source, "up_src_port": next(_ports)}
        flow = Flow(label, self.service.address, options=options, **four_keys())
        assert self.vesk.lines_after(flow.set_command()) == []
        return flow

    def ask(self, flow: Flow) -> Received:
        self.peer.send(flow.request(b"question"), self.to)
        arrived = self.service.receive()
        assert flow.open_request(arrived.data).payload == b"question"
        return arrived

    def answer(self, flow: Flow, to: Address) -> Received:
        self.service.send(flow.reply(b"answer"), to)
        arrived = self.peer.receive()
        assert flow.open_reply(arrived.data).payload == b"answer"
        return arrived


@pytest.fixture
def site(network: Network, start_vesk: StartVesk) -> Callable[..., Site]:
    def build(listen: str, asked: str, peer_subnet: int = 77, service_subnet: int = 77,
              environment: Optional[Dict[str, str]] = None, trace: Optional[Path] = None) -> Site:
        prefix: List[str] = network.hosts[0].prefix
        if trace is not None:
            prefix = prefix + recording_start(trace, "sendmsg")
        vesk = start_vesk(prefix=prefix, environment=environment or {}).ready()
        port = next(_ports)
        lines = vesk.lines_after(f"start addr {listen} port {port}")
        assert not [line for line in lines if line.startswith("error")], lines
        return Site(vesk, network.end(ipv4(PEERS, peer_subnet)),
                    network.end(ipv4(PEERS, service_subnet)), (asked, port))

    return build


def sources_in(trace: Path, destination: Address) -> List[Optional[str]]:
    """The source in the control data of each datagram sent there."""
    target = f'sin_port=htons({destination[1]}), sin_addr=inet_addr("{destination[0]}")'
    calls = [line for line in trace.read_text(encoding="utf-8").splitlines()
             if "sendmsg(" in line and target in line]
    found = [re.search(r"cmsg_type=IP_PKTINFO, cmsg_data=\{(.*?)\}\}", call) for call in calls]
    return [match and match[1] for match in found]


def kernels_form(address: str) -> str:
    return f'ipi_ifindex=0, ipi_spec_dst=inet_addr("0.0.0.0"), ipi_addr=inet_addr("{address}")'


def arrival_form(address: str) -> str:
    return f'ipi_ifindex=0, ipi_spec_dst=inet_addr("{address}"), ipi_addr=inet_addr("{address}")'


# The addresses that the other side uses -------------------------------------------------

@pytest.mark.parametrize("peer_subnet", [77, 78])
@pytest.mark.parametrize("asked", [77, 78])
@pytest.mark.parametrize("on_wildcard", [True, False], ids=["wildcard", "one-address"])
def test_replies_are_sent_from_the_destination_of_the_request(site: Callable[..., Site],
                                                              on_wildcard: bool, asked: int,
                                                              peer_subnet: int) -> None:
    at = site(WILDCARD if on_wildcard else HOST[asked], HOST[asked], peer_subnet,
              environment=BY_ARRIVAL)
    flow = at.declare()
    for _ in range(2):
        assert at.answer(flow, at.ask(flow).sender).sender == at.to


@pytest.mark.parametrize("service_subnet", [77, 78])
@pytest.mark.parametrize("source", [77, 78])
def test_requests_are_sent_from_the_address_of_their_flow(site: Callable[..., Site], source: int,
                                                          service_subnet: int) -> None:
    at = site(WILDCARD, HOST[77], service_subnet=service_subnet, environment=BY_ARRIVAL)
    flow = at.declare(source=HOST[source])
    expected = (HOST[source], flow.options["up_src_port"])
    for _ in range(2):
        sender = at.ask(flow).sender
        assert sender == expected
        # A datagram that the service sends there reaches the flow.
        assert at.answer(flow, sender).sender == at.to


def test_one_listener_replies_from_the_last_destination(site: Callable[..., Site]) -> None:
    at = site(WILDCARD, HOST[77], environment=BY_ARRIVAL)
    flow = at.declare()
    for subnet in (78, 77, 78):
        at.to = (HOST[subnet], at.to[1])
        assert at.answer(flow, at.ask(flow).sender).sender == at.to


def test_requests_without_a_source_keep_the_address_that_the_kernel_chose_first(
        site: Callable[..., Site], tmp_path: Path) -> None:
    trace = tmp_path / "messages"
    at = site(WILDCARD, HOST[78], service_subnet=78, environment=BY_ARRIVAL, trace=trace)
    flow = at.declare()
    sender = at.ask(flow).sender
    at.answer(flow, sender)
    assert at.ask(flow).sender == sender
    at.vesk.finish()
    assert sources_in(trace, at.service.address) == [None, arrival_form(HOST[78])]


# The control data -----------------------------------------------------------------------

@pytest.mark.parametrize("environment, form",
                         [({}, kernels_form), ({"VESK_IPV4_SOURCE": "kernel"}, kernels_form),
                          (BY_ARRIVAL, arrival_form)], ids=["unset", "kernel", "arrival"])
@pytest.mark.parametrize("on_wildcard", [True, False], ids=["wildcard", "one-address"])
def test_the_control_data_of_both_directions(
        site: Callable[..., Site], tmp_path: Path, on_wildcard: bool,
        environment: Dict[str, str], form: Callable[[str], str]) -> None:
    trace = tmp_path / "messages"
    asked = HOST[78]
    at = site(WILDCARD if on_wildcard else asked, asked, environment=environment, trace=trace)
    flow = at.declare(source=HOST[78])
    arrived = at.ask(flow)
    back = (HOST[78], arrived.sender[1])
    answer = at.answer(flow, back)
    at.ask(flow)
    at.vesk.finish()
    chosen = HOST[78] if environment == BY_ARRIVAL else HOST[77]
    assert (arrived.sender[0], answer.sender[0]) == (chosen, chosen)
    assert sources_in(trace, at.service.address) == [form(HOST[78])] * 2
    assert sources_in(trace, at.peer.address) == [form(HOST[78])]


# Destinations that are not valid sources -------------------------------------------------

@contextmanager
def group_joined(network: Network, group: str) -> Iterator[None]:
    """Inside this context the first host receives datagrams to the multicast group."""
    with network.hosts[0].inside():
        member = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    with member:
        member.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                          socket.inet_aton(group) + socket.inet_aton(HOST[77]))
        yield


@pytest.mark.parametrize("asked", ["10.77.0.255", "255.255.255.255", "239.7.7.7"],
                         ids=["subnet-broadcast", "limited-broadcast", "multicast"])
def test_the_kernel_chooses_the_source_for_an_invalid_one(
        network: Network, site: Callable[..., Site], tmp_path: Path, asked: str) -> None:
    trace = tmp_path / "messages"
    at = site(WILDCARD, asked, environment=BY_ARRIVAL, trace=trace)
    at.peer.socket.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
    at.peer.socket.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, b"bridge\0")
    at.peer.socket.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF,
                              socket.inet_aton(ipv4(PEERS)))
    flow = at.declare()
    with group_joined(network, "239.7.7.7"):
        sender = at.ask(flow).sender
        assert at.answer(flow, sender).sender == (HOST[77], at.to[1])
        # The next sender of the same flow gets replies from its destination.
        at.to = (HOST[78], at.to[1])
        assert at.answer(flow, at.ask(flow).sender).sender == at.to
    at.vesk.finish()
    assert sources_in(trace, at.peer.address) == [kernels_form(asked), arrival_form(HOST[78])]


# Over the lateral stream -----------------------------------------------------------------

def test_a_reply_returned_by_its_owner_contains_no_source(
        network: Network, site: Callable[..., Site], start_vesk: StartVesk,
        tmp_path: Path) -> None:
    trace = tmp_path / "messages"
    at = site(WILDCARD, HOST[78], environment=BY_ARRIVAL, trace=trace)
    owner = start_vesk(prefix=network.hosts[1].prefix, environment=BY_ARRIVAL).ready()
    addresses = {0: ipv4(1), 1: ipv4(2, 78)}
    port = next(_ports)
    for index, vesk in enumerate((at.vesk, owner)):
        join(vesk, index, addresses, port, len(addresses))
    flow = Flow(owned_label(1), at.service.address, **four_keys())
    assert owner.lines_after(flow.set_command()) == []
    # The kernel chooses the source, because the destination of the request is not known here.
    assert at.answer(flow, at.ask(flow).sender).sender == (HOST[77], at.to[1])
    at.vesk.finish()
    assert sources_in(trace, at.peer.address) == [None]


# Addresses that are removed -------------------------------------------------------------

@contextmanager
def passing_address(network: Network) -> Iterator[Callable[[], None]]:
    """A third address of the first host, and the command that removes it."""
    host = network.hosts[0]
    words = ["10.77.0.201/24", "dev", "eth0"]
    host.ip("address", "add", *words)
    yield lambda: host.ip("address", "del", *words)


def deleted_by(tag: str) -> "re.Pattern[str]":
    """The error differs between kernels: ENETUNREACH or EINVAL."""
    return re.compile(rf"error {tag}: network error on upstream endpoint of label 0x5/5, "
                      r"errno (101|22) \(.*\)\. Endpoint Deleted")


def test_a_reply_from_a_removed_address_is_a_network_error(
        network: Network, site: Callable[..., Site]) -> None:
    with passing_address(network) as take_away:
        at = site(WILDCARD, "10.77.0.201", environment=BY_ARRIVAL)
        flow = at.declare()
        sender = at.ask(flow).sender
        take_away()
        since = at.vesk.mark()
        at.service.send(flow.reply(b"late"), sender)
        at.vesk.wait_for_log(deleted_by("UP_TO_DOWN_SEND"), since)
        assert at.peer.waiting() is None
        # The next datagram arrives at another address and creates the endpoint again.
        at.to = (HOST[77], at.to[1])
        assert at.answer(flow, at.ask(flow).sender).sender == at.to
        wait_for_report(at.vesk, lambda now: now.upstream[5]["DnTxDg"] == 1)


def test_a_request_from_a_removed_address_is_a_network_error(
        network: Network, site: Callable[..., Site]) -> None:
    with passing_address(network) as take_away:
        at = site(WILDCARD, HOST[77], environment=BY_ARRIVAL)
        flow = at.declare(source="10.77.0.201")
        assert at.ask(flow).sender[0] == "10.77.0.201"
        take_away()
        since = at.vesk.mark()
        at.peer.send(flow.request(b"question"), at.to)
        at.vesk.wait_for_log(deleted_by("DOWN_TO_UP_SEND"), since)
        assert at.service.waiting() is None
        wait_for_report(at.vesk, lambda now: 5 not in now.upstream)
