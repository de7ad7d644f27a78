"""Multiplexed flows, which share an upstream port, and auxiliary flows, which share a prefix."""

from __future__ import annotations

import re
from typing import Callable, List

import pytest

from framework.bench import Bench
from framework.flow import Flow, four_keys
from framework.framing import Key
from framework.udp import UdpEnd, free_port
from framework.vesk_process import VeskProcess

PREFIX = 0x0ABC
UP_AUX_LABEL = 0x7DEF1234


# Multiplexed flows ----------------------------------------------------------------------

def multiplexed(bench: Bench, labels: List[int], host: str = "127.0.0.1") -> List[Flow]:
    """Flows that have different keys and share one upstream source address."""
    port = free_port(host)
    flows = [bench.flow(label, up_in=Key(f"up in {label}".encode()),
                        down_out=Key(f"down out {label}".encode()),
                        options={"is_multiplex": "true", "up_src_ip": host, "up_src_port": port})
             for label in labels]
    bench.declare(*flows)
    return flows


def test_multiplexed_flows_share_one_upstream_address(bench: Bench) -> None:
    flows = multiplexed(bench, [5, 6, 7])
    senders = {bench.ask(flow).sender for flow in flows}
    assert senders == {(flows[0].options["up_src_ip"], flows[0].options["up_src_port"])}
    for flow in flows:
        bench.vesk.wait_for_log(re.compile(
            rf"info Created multiplexed upstream endpoint: label 0x{flow.label:x}/{flow.label} "
            r"sockfds \d+ \d+"))


def test_the_label_selects_the_flow_of_a_multiplexed_reply(
        either_bench: Bench, new_end: Callable[..., UdpEnd]) -> None:
    """Each peer gets the answers to its questions, whichever socket the kernel chooses."""
    bench = either_bench
    flows = multiplexed(bench, list(range(5, 13)))
    peers = {flow.label: new_end() for flow in flows}
    for flow in flows:
        peers[flow.label].send(flow.request(b"question"), bench.to)
        shared = bench.upstream.receive().sender
    # The kernel assigns senders with different ports to different sockets.
    for sender in [bench.upstream] + [new_end() for _ in range(8)]:
        for flow in flows:
            payload = f"{sender.port} {flow.label}".encode()
            sender.send(flow.reply(payload), shared)
            assert flow.open_reply(peers[flow.label].receive().data).payload == payload


@pytest.mark.parametrize("label", [0, 99, 0xFFFFFFFF])
def test_a_multiplexed_reply_with_an_unknown_label_is_dropped(bench: Bench, label: int) -> None:
    (flow,) = multiplexed(bench, [5])
    bench.declare(bench.flow(99, up_in=flow.up_in))
    sender = bench.ask(flow).sender
    bench.upstream.send(flow.reply(b"nobody's", label=label), sender)
    bench.nothing_came_back(flow, sender)


def test_a_multiplexed_reply_is_checked_with_the_key_of_its_flow(bench: Bench) -> None:
    first, second = multiplexed(bench, [5, 6])
    sender = bench.ask(first).sender
    bench.ask(second)
    bench.upstream.send(first.reply(b"wrong key", label=second.label), sender)
    bench.nothing_came_back(first, sender)


def test_without_multiplexing_flows_cannot_share_an_address(bench: Bench) -> None:
    port = free_port()
    flows = [bench.flow(label, options={"up_src_ip": "127.0.0.1", "up_src_port": port})
             for label in (5, 6)]
    bench.declare(*flows)
    bench.ask(flows[0])
    bench.send(flows[1].request(b"x"))
    bench.vesk.wait_for_log(
        "error Failed bind syscall for upstream endpoint socket: Address already in use")


def test_multiplexing_can_be_disabled_again(bench: Bench) -> None:
    (flow,) = multiplexed(bench, [5])
    descriptors = bench.vesk.descriptor_count()
    bench.exchange(flow)
    bench.vesk.lines_after("set label 5 is_multiplex false")
    # The poll thread closes the old socket, which frees its address, a moment later.
    bench.vesk.wait_for_descriptor_count(descriptors)
    bench.exchange(flow)
    bench.vesk.wait_for_log(re.compile(r"info Created upstream endpoint: label 0x5/5 .*"))


def test_removing_one_multiplexed_flow_keeps_the_others(bench: Bench) -> None:
    first, second = multiplexed(bench, [5, 6])
    bench.ask(first)
    bench.ask(second)
    descriptors = bench.vesk.descriptor_count()
    bench.vesk.lines_after("del label 5")
    bench.vesk.wait_for_descriptor_count(descriptors - 2)
    sender = bench.ask(second).sender
    bench.answer(second, sender)


# Auxiliary flows ------------------------------------------------------------------------

class Owner:
    """A flow that owns a prefix, and its auxiliary flows."""

    def __init__(self, bench: Bench, label: int = 5, **details) -> None:
        self.bench = bench
        options = {"up_aux_flow_label": UP_AUX_LABEL, "down_aux_flow_label_prefix": PREFIX}
        self.flow = bench.flow(label, options=options, **{**four_keys(), **details})

    def declare(self) -> "Owner":
        self.bench.declare(self.flow)
        return self

    def auxiliary(self, number: int) -> Flow:
        """An auxiliary flow, which has every attribute of the owner except the labels."""
        owner = self.flow
        return self.bench.flow((PREFIX << 16) | number,
                               up_label=(UP_AUX_LABEL & 0xFFFF0000) | number,
                               down_label=owner.down_label, down_in=owner.down_in,
                               down_out=owner.down_out, up_in=owner.up_in, up_out=owner.up_out)


@pytest.fixture
def owner(bench: Bench) -> Owner:
    return Owner(bench).declare()


@pytest.mark.parametrize("number", [0, 1, 0x1234, 0xFFFF])
def test_a_label_with_a_registered_prefix_is_an_auxiliary_flow(owner: Owner, number: int) -> None:
    flow = owner.auxiliary(number)
    owner.bench.exchange(flow)
    owner.bench.vesk.wait_for_log(re.compile(
        rf"info Created upstream endpoint: label 0x{flow.label:x}/{flow.label} sockfds \d+ \d+"))


def test_auxiliary_flows_work_in_both_framings(either_bench: Bench) -> None:
    owner = Owner(either_bench).declare()
    either_bench.exchange(owner.auxiliary(7))


def test_the_owner_works_as_a_flow_itself(owner: Owner) -> None:
    owner.bench.exchange(owner.flow)
    owner.bench.exchange(owner.auxiliary(1))
    owner.bench.exchange(owner.flow)


def test_each_auxiliary_flow_has_its_own_socket(owner: Owner) -> None:
    flows = [owner.flow] + [owner.auxiliary(number) for number in range(1, 20)]
    assert len({owner.bench.exchange(flow) for flow in flows}) == len(flows)


def test_auxiliary_flows_can_have_another_upstream_service(bench: Bench,
                                                           new_end: Callable[..., UdpEnd]) -> None:
    owner = Owner(bench)
    service = new_end("127.0.0.6")
    owner.flow.options.update(up_aux_flow_ip=service.host, up_aux_flow_port=service.port)
    owner.declare()
    bench.exchange(owner.flow)
    bench.upstream = service
    bench.exchange(owner.auxiliary(1))


def test_without_an_auxiliary_address_the_owners_is_used(bench: Bench) -> None:
    owner = Owner(bench)
    owner.flow.options.update(up_aux_flow_ip="127.0.0.6")
    owner.declare()
    bench.exchange(owner.auxiliary(1))


def test_a_declared_label_takes_precedence_over_a_prefix(owner: Owner) -> None:
    label = (PREFIX << 16) | 1
    declared = owner.bench.flow(label, up_label=1, down_label=2)
    owner.bench.declare(declared)
    owner.bench.exchange(declared)


@pytest.mark.parametrize("missing", ["up_aux_flow_label", "down_aux_flow_label_prefix"])
def test_one_of_the_two_attributes_alone_registers_nothing(bench: Bench, missing: str) -> None:
    owner = Owner(bench)
    value = owner.flow.options.pop(missing)
    owner.declare()
    bench.send(owner.auxiliary(1).request(b"x"))
    bench.nothing_went_upstream()
    # The other attribute may be set later.
    bench.vesk.lines_after(f"set label 5 {missing} {value}")
    bench.exchange(owner.auxiliary(1))


@pytest.mark.parametrize("prefix", [PREFIX - 1, PREFIX + 1, 0])
def test_other_prefixes_are_unknown(owner: Owner, prefix: int) -> None:
    flow = owner.auxiliary(1)
    flow.label = (prefix << 16) | 1
    owner.bench.send(flow.request(b"x"))
    owner.bench.nothing_went_upstream()


def test_an_auxiliary_datagram_is_checked_with_the_owners_key(owner: Owner) -> None:
    descriptors = owner.bench.vesk.descriptor_count()
    owner.bench.send(owner.bench.framing.build((PREFIX << 16) | 1, b"unsigned"))
    owner.bench.vesk.wait_for_log("downstreamPacketReceivedFailed HMAC Check!")
    owner.bench.vesk.wait_for_descriptor_count(descriptors)


def test_a_refused_auxiliary_datagram_leaves_no_record(owner: Owner) -> None:
    """If the label is declared later, it is not removed together with the owner."""
    bench = owner.bench
    label = (PREFIX << 16) | 1
    bench.send(bench.framing.build(label, b"unsigned"))
    bench.vesk.wait_for_log("downstreamPacketReceivedFailed HMAC Check!")
    declared = bench.flow(label, up_label=1, down_label=2)
    bench.declare(declared)
    bench.vesk.lines_after("del label 5")
    bench.exchange(declared)


def test_a_prefix_has_one_owner(owner: Owner) -> None:
    second = Owner(owner.bench, label=6, up_out=Key(b"of the second"))
    assert owner.bench.vesk.lines_after(second.flow.set_command()) == [
        "warn setLabelAttrs: Aux. flow label prefix added more than once; ignoring; "
        f"label 6; label prefix {PREFIX}"]
    owner.bench.exchange(second.flow)
    owner.bench.exchange(owner.auxiliary(1))


def test_setting_the_owner_again_keeps_its_registration(owner: Owner) -> None:
    assert owner.bench.vesk.lines_after(owner.flow.set_command()) == []
    owner.bench.exchange(owner.auxiliary(1))


def test_changing_the_owner_changes_its_auxiliary_flows(owner: Owner) -> None:
    bench = owner.bench
    bench.exchange(owner.auxiliary(1))
    descriptors = bench.vesk.descriptor_count()
    owner.flow.down_out = Key(b"another key")
    bench.vesk.lines_after(owner.flow.set_command())
    bench.vesk.wait_for_descriptor_count(descriptors - 2)
    bench.exchange(owner.auxiliary(1))


def test_del_of_the_owner_removes_its_auxiliary_flows(owner: Owner) -> None:
    bench = owner.bench
    bench.nothing_went_upstream()
    descriptors = bench.vesk.descriptor_count()
    flows = [owner.auxiliary(number) for number in range(1, 20)]
    for flow in [owner.flow, *flows]:
        bench.exchange(flow)
    bench.vesk.lines_after("del label 5")
    bench.vesk.wait_for_descriptor_count(descriptors)
    for flow in flows:
        bench.send(flow.request(b"x"))
    bench.nothing_went_upstream()
    assert bench.vesk.descriptor_count() == descriptors


def test_del_of_one_auxiliary_flow_keeps_the_prefix_and_the_others(owner: Owner) -> None:
    bench = owner.bench
    first, second = owner.auxiliary(1), owner.auxiliary(2)
    bench.exchange(first)
    before = bench.exchange(second)
    descriptors = bench.vesk.descriptor_count()
    bench.vesk.lines_after(f"del label {first.label}")
    bench.vesk.wait_for_descriptor_count(descriptors - 2)
    assert bench.exchange(second) == before
    # The next datagram of the removed label creates the flow again.
    bench.exchange(first)
    # It is an auxiliary flow again, so it is removed with the owner.
    bench.vesk.lines_after("del label 5")
    bench.vesk.wait_for_descriptor_count(descriptors - 4)


def test_del_of_a_flow_refused_as_second_owner_keeps_the_prefix(owner: Owner) -> None:
    bench = owner.bench
    second = Owner(bench, label=6)
    bench.vesk.lines_after(second.flow.set_command())
    before = bench.exchange(owner.auxiliary(1))
    assert bench.vesk.lines_after("del label 6") == []
    assert bench.exchange(owner.auxiliary(1)) == before
    bench.exchange(owner.auxiliary(2))


def test_a_freed_prefix_can_be_registered_by_another(owner: Owner) -> None:
    bench = owner.bench
    bench.vesk.lines_after("del label 5")
    second = Owner(bench, label=6, up_out=Key(b"of the second")).declare()
    bench.exchange(second.auxiliary(1))


def test_set_of_an_auxiliary_label_changes_a_copy_of_its_record(owner: Owner) -> None:
    """The "set" changes the record that was copied from the owner."""
    bench = owner.bench
    flow = owner.auxiliary(1)
    bench.exchange(flow)
    bench.vesk.lines_after(f"set label {flow.label} down_label 4242")
    flow.down_label = 4242
    bench.exchange(flow)


def test_the_record_of_an_auxiliary_flow_remains_after_a_network_error(bench: Bench) -> None:
    """Sending to a broadcast address fails. A later "set" still changes the copied record."""
    owner = Owner(bench)
    owner.flow.options.update(up_aux_flow_ip="127.255.255.255",
                              up_aux_flow_port=bench.upstream.port)
    owner.declare()
    flow = owner.auxiliary(1)
    bench.send(flow.request(b"lost"))
    bench.vesk.wait_for_log(re.compile(r"error DOWN_TO_UP_SEND: network error on upstream endpoint "
                                       r"of label .*\. Endpoint Deleted"))
    host, port = bench.upstream.address
    bench.vesk.lines_after(f"set label {flow.label} up_ip {host} up_port {port}")
    bench.exchange(flow)


def test_an_owner_can_be_changed_to_another_prefix(owner: Owner) -> None:
    bench = owner.bench
    bench.exchange(owner.auxiliary(1))
    bench.vesk.lines_after(f"set label 5 down_aux_flow_label_prefix {PREFIX + 1}")
    bench.send(owner.auxiliary(1).request(b"x"))
    bench.nothing_went_upstream()
    moved = owner.auxiliary(1)
    moved.label = ((PREFIX + 1) << 16) | 1
    bench.exchange(moved)


def test_an_auxiliary_flow_of_a_multiplexed_owner_is_multiplexed(vesk: VeskProcess, peer: UdpEnd,
                                                                 upstream: UdpEnd) -> None:
    bench = Bench(vesk, peer, upstream)
    owner = Owner(bench)
    owner.flow.options.update(is_multiplex="true", up_src_ip="127.0.0.1",
                              up_src_port=free_port())
    owner.declare()
    flows = [owner.flow, owner.auxiliary(1), owner.auxiliary(2)]
    shared = {bench.exchange(flow) for flow in flows}
    assert len(shared) == 1
