"""A controller with its forwarder and a Prometheus: the figures equal what was sent."""

from __future__ import annotations

import os
import signal
import urllib.error
from typing import Callable, Dict

import pytest

from configuration_file import ConfigurationFile
from controller_process import ControllerProcess
from conversation import ask, ask_until_answered
from framework.flow import Flow, four_keys
from framework.timing import scaled, wait_until
from framework.udp import UdpEnd, UpstreamService
from programs import spoiling_program

from page import fetch, samples
from prometheus_process import PrometheusProcess, free_tcp_port

Answer = Callable[[Flow], UpstreamService]
StartController = Callable[..., ControllerProcess]
StartPrometheus = Callable[[int], PrometheusProcess]

QUESTIONS: Dict[str, int] = {"alice": 40, "bob": 15}
FORGED = 6


@pytest.fixture
def port(configuration: ConfigurationFile, answer: Answer) -> int:
    """The port of the metrics of a file with two flows."""
    chosen = free_tcp_port()
    for label, name in enumerate(QUESTIONS, start=1):
        configuration.flows[name] = Flow(label=label, **four_keys())
        answer(configuration.flows[name])
    configuration.tables["controller"] = "stats_seconds = 1"
    configuration.tables["metrics"] = f"port = {chosen}\nper_flow = true"
    configuration.write()
    return chosen


def send_all(configuration: ConfigurationFile, peer: UdpEnd) -> None:
    for name, questions in QUESTIONS.items():
        flow = configuration.flows[name]
        for number in range(questions):
            assert ask(peer, flow, configuration.listen, f"question {number}".encode(), scaled(5))
    for _ in range(FORGED):
        peer.send(configuration.flows["bob"].request(b"x")[:-1] + b"y", configuration.listen)


def shown_after(rounds: int) -> Dict[str, float]:
    """What Prometheus shows after `rounds` calls of send_all."""
    expected: Dict[str, float] = {
        "vesk_up": 1, "vesk_restarts_total": rounds - 1, "vesk_flow_sockets": 2,
        "vesk_flows_declared": 2, "vesk_flows_active": 2,
        "vesk_downstream_received_datagrams_total": rounds * (sum(QUESTIONS.values()) + FORGED),
        "vesk_downstream_receive_errors_total": rounds * FORGED}
    for counter in ("sent_datagrams", "received_datagrams", "sent_replies"):
        expected[f"vesk_upstream_{counter}_total"] = rounds * sum(QUESTIONS.values())
        for name, questions in QUESTIONS.items():
            expected[f'vesk_flow_{counter}_total{{flow="{name}"}}'] = rounds * questions
    return expected


def test_the_totals_equal_what_was_sent_across_a_restart(
        configuration: ConfigurationFile, port: int, start_controller: StartController,
        start_prometheus: StartPrometheus, peer: UdpEnd) -> None:
    controller = start_controller().ready()
    prometheus = start_prometheus(port)
    send_all(configuration, peer)
    prometheus.wait_for(shown_after(1))
    since = controller.mark()
    os.kill(controller.forwarder(), signal.SIGKILL)
    controller.wait_for("info controller: the forwarder is set up: 2 flows", since)
    send_all(configuration, peer)
    prometheus.wait_for(shown_after(2))
    assert controller.finish() == 0


def test_a_flow_removed_from_the_file_is_no_longer_shown(
        configuration: ConfigurationFile, port: int, start_controller: StartController,
        peer: UdpEnd) -> None:
    controller = start_controller().ready()
    send_all(configuration, peer)
    expected = sum(QUESTIONS.values())
    counter = "vesk_upstream_sent_datagrams_total"
    wait_until(lambda: samples(port)[counter] == expected, "all is counted")
    series = 'vesk_flow_sent_datagrams_total{flow="bob",label="0x2"}'
    assert samples(port)[series] == QUESTIONS["bob"]
    del configuration.flows["bob"]
    configuration.write()
    controller.reload()
    wait_until(lambda: series not in samples(port), "the flow is no longer on the page")
    now = samples(port)
    assert (now[counter], now["vesk_flows_declared"], now["vesk_flows_active"]) == (expected, 1, 1)


def test_refused_flows_are_declared_but_not_active(
        configuration: ConfigurationFile, port: int, start_controller: StartController) -> None:
    program = spoiling_program(configuration.folder,
                               "s/label 0x2 up_ip/label 0x2 is_multiplex no up_ip/")
    start_controller("--program", program).ready()
    now = samples(port)
    assert (now["vesk_flows_declared"], now["vesk_flows_active"]) == (2, 1)


def test_health_follows_the_forwarder(
        configuration: ConfigurationFile, port: int, start_controller: StartController,
        peer: UdpEnd) -> None:
    configuration.tables["controller"] += "\nrestart_pause_ms = 1500"
    configuration.write()
    controller = start_controller().ready()
    assert fetch(port, "/healthz") == (200, "ok\n")
    os.kill(controller.forwarder(), signal.SIGKILL)
    wait_until(lambda: fetch(port, "/healthz")[0] == 503, "the page says that it is down")
    assert samples(port)["vesk_up"] == 0
    wait_until(lambda: fetch(port, "/healthz")[0] == 200, "the page says that it is up again")
    ask_until_answered(peer, configuration.flows["alice"], configuration.listen)
    assert samples(port)["vesk_restarts_total"] == 1
    assert controller.finish() == 0
    with pytest.raises(urllib.error.URLError):
        fetch(port, "/healthz")
