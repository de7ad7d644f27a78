"""The forwarder or the controller ends unexpectedly."""

from __future__ import annotations

import os
import re
import signal
import time

from configuration_file import ConfigurationFile
from controller_fixtures import Answer, StartController, StartWith
from controller_process import is_alive
from conversation import Conversation, ask_until_answered
from framework.flow import Flow, four_keys
from framework.timing import scaled, wait_until
from framework.udp import UdpEnd

FLOWS = 20


def test_a_killed_forwarder_is_back_within_a_second(
        configuration: ConfigurationFile, start_controller: StartController, peer: UdpEnd,
        answer: Answer) -> None:
    flows = [Flow(label=label, **four_keys()) for label in range(1, FLOWS + 1)]
    for flow in flows:
        answer(flow)
        configuration.flows[f"flow{flow.label}"] = flow
    configuration.write()
    controller = start_controller().ready()
    before = controller.forwarder()
    with Conversation(flows[0], configuration.listen) as conversation:
        conversation.wait_for_answers(20)
        began = time.monotonic()
        os.kill(before, signal.SIGKILL)
        for flow in flows:
            ask_until_answered(peer, flow, configuration.listen)
        took = time.monotonic() - began
        conversation.wait_for_answers(20)
    assert took < scaled(1), f"no answer for {took:.2f} s"
    assert controller.forwarder() != before
    controller.wait_for("error controller: the forwarder was ended by signal 9 (Killed)")
    controller.wait_for("warn controller: starts the forwarder again in 100 ms")
    assert controller.finish() == 0


def test_a_forwarder_that_ends_at_once_is_started_with_growing_pauses(start_with: StartWith) -> None:
    controller = start_with("restart_pause_ms = 1\nrestart_pause_max_ms = 3", "exit 7")
    for pause in (1, 2, 3):
        controller.wait_for(f"warn controller: starts the forwarder again in {pause} ms")
    controller.wait_for(re.compile(
        "error controller: the forwarder ended with status 7 while handling the command for the log "
        "level"))
    # 3 if a forwarder was running when the signal arrived.
    assert controller.finish() in (0, 3)


def test_the_forwarder_ends_with_the_controller(
        configuration: ConfigurationFile, start_controller: StartController, peer: UdpEnd,
        alice: Flow) -> None:
    configuration.write()
    controller = start_controller().ready()
    ask_until_answered(peer, alice, configuration.listen)
    forwarder = controller.forwarder()
    controller.signal(signal.SIGKILL)
    wait_until(lambda: not is_alive(forwarder), "the forwarder ended")


def test_the_next_forwarder_gets_a_reload_during_the_pause(
        configuration: ConfigurationFile, start_with: StartWith, peer: UdpEnd,
        answer: Answer) -> None:
    flow = Flow(label=1, **four_keys())
    answer(flow)
    controller = start_with("restart_pause_ms = 1000").ready()
    configuration.flows["alice"] = flow
    configuration.write()
    os.kill(controller.forwarder(), signal.SIGKILL)
    controller.wait_for("warn controller: starts the forwarder again in 1000 ms")
    controller.signal(signal.SIGHUP)
    controller.wait_for("info controller: the forwarder is set up: 1 flow")
    ask_until_answered(peer, flow, configuration.listen)
