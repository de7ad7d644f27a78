"""An instance that fails does not affect the others, and a label in the wrong place arrives."""

from __future__ import annotations

import os
import re
import signal
import time

import pytest

from configuration_file import ConfigurationFile
from controller_fixtures import Answer, StartController
from controller_process import ControllerProcess
from conversation import Conversation, ask_until_answered
from framework.flow import Flow
from framework.timing import scaled, wait_until
from framework.udp import UdpEnd
from generator import PORT
from instances import (METRICS, flow_of_each, forwarders, listener, nft, port_of_instances,
                       tables)
from page import fetch, samples


@pytest.fixture
def flows(configuration: ConfigurationFile, answer: Answer) -> "list[Flow]":
    """One flow of each of two instances."""
    return flow_of_each(configuration, answer, first=2)


@pytest.fixture
def controller(flows: "list[Flow]", start_controller: StartController) -> ControllerProcess:
    started = start_controller()
    started.wait_for(f"info controller: the forwarder is set up: {len(flows)} flows, 2 instances")
    return started


def _of_instance(name: str, instance: int) -> float:
    return samples(METRICS)[f'vesk_instance_{name}{{instance="{instance}"}}']


def test_a_killed_instance_is_back_within_a_second_and_the_others_lose_nothing(
        configuration: ConfigurationFile, controller: ControllerProcess, flows: "list[Flow]",
        peer: UdpEnd) -> None:
    victim = listener(PORT + 2, forwarders(controller, 2))
    assert victim is not None
    ask_until_answered(peer, flows[1], configuration.listen)
    with Conversation(flows[0], configuration.listen) as other:
        other.wait_for_answers(100)
        since = controller.mark()
        os.kill(victim, signal.SIGKILL)
        died = time.monotonic()
        controller.wait_for(re.compile("error controller: instance 1: the forwarder was ended by "
                                       "signal 9 .*"), since)
        ask_until_answered(peer, flows[1], configuration.listen)
        took = time.monotonic() - died
        other.wait_for_answers(100)
    assert took < scaled(1), f"{took:.2f} s"
    assert other.lost == 0
    assert _of_instance("restarts_total", 1) == 1
    assert _of_instance("restarts_total", 0) == 0
    assert controller.finish() == 0


def test_while_an_instance_is_down_the_service_is_neither_healthy_nor_ready(
        configuration: ConfigurationFile, flows: "list[Flow]",
        start_controller: StartController) -> None:
    configuration.tables["controller"] = "restart_pause_ms = 20000"
    configuration.write()
    controller = start_controller()
    controller.wait_for(f"info controller: the forwarder is set up: {len(flows)} flows, 2 instances")
    assert fetch(METRICS, "/healthz")[0] == 200
    wait_until(lambda: fetch(METRICS, "/ready") == (200, "ready\n"), "the service is ready")
    victim = listener(PORT + 2, forwarders(controller, 2))
    assert victim is not None
    os.kill(victim, signal.SIGKILL)
    controller.wait_for("warn controller: instance 1: starts the forwarder again in 20000 ms")
    assert fetch(METRICS, "/healthz")[0] == 503
    assert fetch(METRICS, "/ready") == (503, "instance 1: the forwarder is not running\n")
    page = samples(METRICS)
    assert page["vesk_up"] == 0
    assert page["vesk_flows_active"] == 1
    assert page['vesk_instance_up{instance="0"}'] == 1
    assert page['vesk_instance_up{instance="1"}'] == 0
    assert controller.finish() == 0


def test_a_label_whose_rule_was_removed_arrives_over_the_lateral_stream(
        configuration: ConfigurationFile, controller: ControllerProcess, flows: "list[Flow]",
        peer: UdpEnd) -> None:
    ask_until_answered(peer, flows[1], configuration.listen)
    assert _of_instance("lateral_received_datagrams_total", 1) == 0
    nft("delete", "element", "inet", f"vesk_{PORT}", "instances", "{ 1 }")
    with Conversation(flows[1], configuration.listen) as conversation:
        conversation.wait_for_answers(100)
    assert conversation.lost == 0
    wait_until(lambda: _of_instance("lateral_received_datagrams_total", 1) >= 100,
               "instance 1 got the datagrams over the lateral stream")
    assert controller.finish() == 0


def test_rules_that_somebody_removed_are_created_again(
        configuration: ConfigurationFile, controller: ControllerProcess, flows: "list[Flow]",
        peer: UdpEnd) -> None:
    nft("flush", "ruleset")
    controller.wait_for("error controller: the rules of the packet filter were removed: creates them "
                        "again")
    assert tables() == [f"table inet vesk_{PORT}"]
    for flow in flows:
        ask_until_answered(peer, flow, configuration.listen)
    assert controller.finish() == 0


def test_a_reload_reaches_the_instance_of_the_flow(
        configuration: ConfigurationFile, controller: ControllerProcess, flows: "list[Flow]",
        peer: UdpEnd) -> None:
    flows[1].down_label += 1
    configuration.tables["forwarder"] = "instances = 4"
    configuration.tables["downstream"] = f'address = "127.0.0.1"\nport = {PORT}\n' \
                                         f"instance_ports = [{PORT + 1}, {PORT + 8}]"
    configuration.write()
    since = controller.mark()
    assert controller.reload() == "info controller: reloaded: 2 flows, 2 instances"
    for key in ("forwarder.instances", "downstream.instance_ports"):
        controller.wait_for(f"warn controller: {key}: the change applies at the next start of the "
                            "controller", since)
    controller.wait_for("info controller: instance 1: reload: 1 command to send: flow flow1", since)
    assert port_of_instances() == {0: PORT + 1, 1: PORT + 2}
    for flow in flows:
        ask_until_answered(peer, flow, configuration.listen)
    assert controller.finish() == 0


def test_a_flow_of_two_instances_counts_once(configuration: ConfigurationFile,
                                             flows: "list[Flow]",
                                             start_controller: StartController) -> None:
    # Its label belongs to instance 0, its prefix to instance 1.
    configuration.tables["flows.both"] = (
        'label = 0x20005\nupstream = "127.0.0.1:1"\n'
        "auxiliary = { prefix = 5, upstream_label = 0x70000 }")
    configuration.write()
    controller = start_controller()
    controller.wait_for(
        f"info controller: the forwarder is set up: {len(flows) + 1} flows, 2 instances")
    page = samples(METRICS)
    assert page["vesk_flows_declared"] == page["vesk_flows_active"] == len(flows) + 1
    assert [page[f'vesk_instance_flows_active{{instance="{i}"}}'] for i in range(2)] == [2, 2]
    assert controller.finish() == 0
