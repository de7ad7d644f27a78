"""Thousands of flows, and a log that nobody reads."""

from __future__ import annotations

import time

from configuration_file import ConfigurationFile
from controller_fixtures import Answer, StartController
from conversation import Conversation, ask_until_answered
from framework.flow import Flow, four_keys
from framework.timing import scaled
from framework.udp import UdpEnd

FLOWS = 2000


def test_two_thousand_flows_start_fast(configuration: ConfigurationFile,
                                       start_controller: StartController, peer: UdpEnd,
                                       answer: Answer) -> None:
    last = Flow(label=FLOWS, **four_keys())
    answer(last)
    for label in range(1, FLOWS):
        configuration.flows[f"flow{label}"] = Flow(label=label, upstream=("127.0.0.1", 5000),
                                                   **four_keys())
    configuration.flows["last"] = last
    configuration.write()
    began = time.monotonic()
    controller = start_controller()
    controller.wait_for(f"info controller: the forwarder is set up: {FLOWS} flows")
    took = time.monotonic() - began
    ask_until_answered(peer, last, configuration.listen)
    assert took < scaled(3), f"{took:.2f} s"

    # A reload that changes one of them sends one command.
    last.down_label += 1
    configuration.write()
    controller.reload()
    controller.wait_for("info controller: reload: 1 command to send: flow last")
    ask_until_answered(peer, last, configuration.listen)
    assert controller.finish() == 0


def test_forwarding_continues_if_nobody_reads_the_log(configuration: ConfigurationFile,
                                                      start_controller: StartController, peer: UdpEnd,
                                                      alice: Flow) -> None:
    configuration.tables["controller"] = "log_limit = false"
    configuration.write()
    controller = start_controller(read=False)
    ask_until_answered(peer, alice, configuration.listen)
    # Each datagram causes a line, and together the lines are more than the pipes can hold.
    wrong = alice.request(b"right")[:-1] + b"!"
    with Conversation(alice, configuration.listen) as conversation:
        for _ in range(500):
            for _ in range(100):
                peer.send(wrong, configuration.listen)
            conversation.wait_for_answers(1)
    assert conversation.lost == 0
    controller.start_reading()
    assert controller.finish() == 0
    heard = controller.lines.count("downstreamPacketReceivedFailed HMAC Check!")
    # Datagrams may have been lost at a full receive buffer; the lines of the others still exceed a pipe.
    assert heard * len("downstreamPacketReceivedFailed HMAC Check!\n") > 1 << 20
