"""Several instances behind one port, in the network namespace of the tests."""

from __future__ import annotations

import re
from typing import Callable, Iterator, List

import pytest

from configuration_file import ConfigurationFile
from controller_fixtures import StartController
from framework.framing import UDPV1, UDPV2, Framing
from framework.udp import UdpEnd
from steered_traffic import PUBLIC, TABLE, OwnedTable, SteeredTraffic, all_ready, nft, refusal

FLOWS = 4000
HOSTS = ("127.0.0.1", "::1")

MakeTraffic = Callable[..., SteeredTraffic]


@pytest.fixture(autouse=True)
def packet_filter() -> None:
    reason = refusal()
    if reason:
        pytest.skip(f"the packet filter is not allowed here: {reason}")


@pytest.fixture
def make_traffic(configuration: ConfigurationFile) -> Iterator[MakeTraffic]:
    made: List[SteeredTraffic] = []

    def make(framing: Framing = UDPV2, instances: int = 2, flows: int = 20) -> SteeredTraffic:
        made.append(SteeredTraffic(configuration, framing, instances, flows))
        return made[-1]

    yield make
    for traffic in made:
        traffic.close()


@pytest.fixture(params=HOSTS)
def host(request: pytest.FixtureRequest) -> str:
    return request.param


@pytest.mark.parametrize("framing", [UDPV1, UDPV2], ids=["udpv1", "udpv2"])
@pytest.mark.parametrize("instances", [1, 2, 4])
def test_every_datagram_is_at_its_owner_and_every_reply_comes_from_the_public_port(
        start_controller: StartController, make_traffic: MakeTraffic, framing: Framing,
        instances: int) -> None:
    traffic = make_traffic(framing, instances, FLOWS)
    controller = all_ready(start_controller(), instances)
    for address in HOSTS:
        with UdpEnd(address) as peer:
            traffic.exchange(peer, (address, PUBLIC), traffic.flows)
    if instances > 1:
        each = len(HOSTS) * FLOWS // instances
        traffic.wait_for_figures("downstream_received_datagrams_total", [each] * instances)
        # A reply is counted after it was sent, so the report may be older than the last reply.
        traffic.wait_for_figures("upstream_sent_replies_total", [each] * instances)
        assert traffic.figures("lateral_received_datagrams_total") == [0] * instances
    assert controller.finish() == 0
    assert nft("list", "tables") == ""


def test_a_label_whose_entry_was_removed_arrives_over_the_lateral_stream(
        start_controller: StartController, make_traffic: MakeTraffic, host: str) -> None:
    traffic = make_traffic(instances=4)
    all_ready(start_controller(), 4)
    nft("delete", "element", *TABLE.split(), "instances", "{ 3 }")
    with UdpEnd(host) as peer:
        traffic.exchange(peer, (host, PUBLIC), traffic.flows)
    strays = sum(traffic.owner(flow) == 3 for flow in traffic.flows)
    traffic.wait_for_figures("lateral_received_datagrams_total", [strays, 0, 0, strays])


def test_merged_datagrams_of_several_instances_arrive(
        start_controller: StartController, make_traffic: MakeTraffic, host: str) -> None:
    traffic = make_traffic(instances=2)
    all_ready(start_controller(), 2)
    with UdpEnd(host) as peer:
        peer.send_merged([flow.request(b"payload") for flow in traffic.flows], (host, PUBLIC))
        awaited = {flow.down_label: flow for flow in traffic.flows}
        while awaited:
            answer = peer.receive()
            assert answer.sender == (host, PUBLIC)
            flow = awaited.pop(UDPV2.parse(answer.data).label)
            assert flow.open_reply(answer.data).payload == b"payload"


def test_rules_that_a_crash_has_left_behind_are_replaced(
        start_controller: StartController, make_traffic: MakeTraffic, host: str) -> None:
    traffic = make_traffic()
    first = all_ready(start_controller(), 2)
    before = nft("list", "table", *TABLE.split())
    first.abandon()
    assert nft("list", "table", *TABLE.split()) == before
    second = all_ready(start_controller(), 2)
    assert nft("list", "table", *TABLE.split()) == before
    with UdpEnd(host) as peer:
        traffic.exchange(peer, (host, PUBLIC), traffic.flows)
    assert second.finish() == 0
    assert nft("list", "tables") == ""


def test_rules_that_a_crash_has_left_behind_are_removed_without_instances(
        start_controller: StartController, make_traffic: MakeTraffic, host: str) -> None:
    traffic = make_traffic()
    all_ready(start_controller(), 2).abandon()
    assert nft("list", "tables") == f"table {TABLE}\n"
    traffic.no_longer_steered()
    controller = start_controller().ready()
    assert (f"info controller: removed the rules of the packet filter that an earlier controller has left for "
            f"port {PUBLIC}") in controller.lines
    assert nft("list", "tables") == ""
    with UdpEnd(host) as peer:
        traffic.exchange(peer, (host, PUBLIC), traffic.flows)


def test_rules_that_cannot_be_removed_are_reported(
        start_controller: StartController, make_traffic: MakeTraffic) -> None:
    make_traffic().no_longer_steered()
    with OwnedTable(f"add table {TABLE} {{ flags owner; map instances {{ typeof udp dport : udp dport; }}; }}"):
        controller = start_controller().ready()
        controller.wait_for(re.compile(
            rf"warn controller: the rules of the packet filter that an earlier controller has left for port {PUBLIC} "
            rf"cannot be removed and may steer its datagrams away: .+; run nft delete table {TABLE}"))
        assert nft("list", "tables") == f"table {TABLE}\n"


def test_rules_stay_without_the_right_to_remove_them(
        start_controller: StartController, make_traffic: MakeTraffic) -> None:
    traffic = make_traffic()
    all_ready(start_controller(), 2).abandon()
    traffic.no_longer_steered()
    controller = start_controller(prefix=["setpriv", "--bounding-set", "-net_admin"]).ready()
    assert not [line for line in controller.lines if "packet filter" in line]
    assert controller.finish() == 0
    assert nft("list", "tables") == f"table {TABLE}\n"
    nft("delete", "table", *TABLE.split())


def test_the_rules_of_a_controller_that_runs_are_not_removed(
        start_controller: StartController, make_traffic: MakeTraffic,
        tmp_path_factory: pytest.TempPathFactory) -> None:
    traffic = make_traffic()
    traffic.listen("127.0.0.1")
    steering = all_ready(start_controller(), 2)
    other = ConfigurationFile(tmp_path_factory.mktemp("other"))
    other.listen = ("127.0.0.2", PUBLIC)
    other.write()
    start_controller(file=other).ready()
    with UdpEnd("127.0.0.1") as peer:
        traffic.exchange(peer, ("127.0.0.1", PUBLIC), traffic.flows)
    assert steering.finish() == 0


def test_no_other_table_is_touched(start_controller: StartController,
                                   make_traffic: MakeTraffic) -> None:
    make_traffic()
    nft("table inet other { chain input { type filter hook input priority filter; }; }")
    before = nft("list", "ruleset")
    controller = all_ready(start_controller(), 2)
    assert before in nft("list", "ruleset")
    assert controller.finish() == 0
    assert nft("list", "ruleset") == before
    nft("delete", "table", "inet", "other")


def test_a_second_controller_of_the_port_reports_it(
        start_controller: StartController, make_traffic: MakeTraffic,
        tmp_path_factory: pytest.TempPathFactory) -> None:
    traffic = make_traffic()
    all_ready(start_controller(), 2)
    with UdpEnd("127.0.0.1") as peer:
        other = ConfigurationFile(tmp_path_factory.mktemp("other"))
        other.write_text(f'[forwarder]\ninstances = 2\n[downstream]\naddress = "127.0.0.2"\n'
                         f'port = {PUBLIC}\ninstance_ports = [4601, 4603]\n'
                         '[metrics]\nenabled = false\n')
        second = start_controller(file=other)
        second.wait_for(re.compile(f"error controller: cannot .*port {PUBLIC}.*"))
        second.finish()
        traffic.exchange(peer, ("127.0.0.1", PUBLIC), traffic.flows)


def test_two_hosts_with_two_instances_each_share_the_labels(
        start_controller: StartController, make_traffic: MakeTraffic, host: str,
        tmp_path_factory: pytest.TempPathFactory) -> None:
    """Each label is steered to the same instance number on both hosts, and over the lateral stream
    to its owner. The two hosts are two controllers here, with ports and addresses of their own."""
    traffic = make_traffic(instances=2)
    ports = (PUBLIC, PUBLIC + 100)
    for index, port in enumerate(ports):
        file = ConfigurationFile(tmp_path_factory.mktemp(f"host{index}"))
        write_host(file, traffic, index, port)
        all_ready(start_controller(file=file), 2)
    for port in ports:
        with UdpEnd(host) as peer:
            traffic.exchange(peer, (host, port), traffic.flows)


def write_host(file: ConfigurationFile, traffic: SteeredTraffic, index: int, port: int) -> None:
    addresses = [f"127.0.1.{number}" for number in (1, 2, 3, 4)]
    own, others = 2 * index, 2 - 2 * index
    file.listen = ("::", port)
    file.flows = {f"flow{flow.label}": flow for flow in traffic.flows
                  if (flow.label >> 16) % 4 in (own, own + 1)}
    peers = ", ".join(f'{{ index = {number}, address = "{addresses[number]}" }}'
                      for number in (others, others + 1))
    file.tables = {
        "forwarder": "instances = 2",
        "downstream": f'address = "::"\nport = {port}\ninstance_ports = [{port + 1}, {port + 3}]',
        "lateral": f'addresses = ["{addresses[own]}", "{addresses[own + 1]}"]\nport = 8445\n'
                   f'index = {own}\ninstances = 4\npeers = [{peers}]',
        "metrics": "enabled = false"}
    file.write()
