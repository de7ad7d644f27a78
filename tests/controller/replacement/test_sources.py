"""Flows with a source of their own are moved one by one: two forwarders cannot bind its address."""

from __future__ import annotations

import os
import re
import signal
from typing import Type

from configuration_file import ConfigurationFile
from controller_fixtures import StartController
from framework.timing import SANITIZER, scaled, wait_until
from framework.udp import UdpEnd
from generator import PORT, Generator, configuration_text
from instances import (DONE, FLOWS, INSTANCES, METRICS, forwarders, listener, nft, replace,
                       write_for_generator)
from page import samples

_SOURCES = 4
# Requests per second.
_RATE_OF_OTHERS = 500 if SANITIZER else 2000
_RATE_OF_EACH = 250 if SANITIZER else 1000
# What docs/instances.md states.
_LONGEST_GAP = 0.05

# The generator takes the ports from 10000 on; the labels follow those of the other flows.
_OPTIONS = ("--check-source", "127.0.0.1", "--upstream-port", 5001, "--label-base",
            65536 * (FLOWS + 2))
_FIRST_PORT = 10000


def _write(file: ConfigurationFile) -> None:
    tables = configuration_text(_SOURCES, *_OPTIONS)
    flows = tables[tables.index("[flows."):].replace("[flows.flow", "[flows.source")
    write_for_generator(file, more="\n" + flows)


_READY = (f"info controller: the forwarder is set up: {FLOWS + _SOURCES} flows, "
          f"{INSTANCES} instances")


def test_others_lose_nothing_and_each_has_a_short_gap(configuration: ConfigurationFile,
                                                      start_controller: StartController,
                                                      start_generator: Type[Generator]) -> None:
    _write(configuration)
    controller = start_controller()
    controller.wait_for(_READY)
    others = start_generator(controller.pid, FLOWS, _RATE_OF_OTHERS)
    moved = start_generator(controller.pid, _SOURCES, _SOURCES * _RATE_OF_EACH, *_OPTIONS)
    wait_until(lambda: samples(METRICS)["vesk_flow_sockets"] == FLOWS + _SOURCES,
               "all flows have their sockets", 10)
    since = replace(controller)
    for instance in range(INSTANCES):
        controller.wait_for(
            f"info controller: instance {instance}: moved {_SOURCES // INSTANCES} flows with a "
            "source to the new forwarder; the old one drains", since)
    controller.wait_for(DONE, since)
    others.check_nothing_lost()
    counts = moved.result()
    assert not any(counts[name] for name in ("late", "wrong", "unexpected", "wrong_source")), counts
    assert counts["most_lost"] <= scaled(_LONGEST_GAP) * _RATE_OF_EACH, counts
    # Nobody had to try an address that was still in use.
    assert not any("Failed bind" in line for line in controller.lines)
    assert controller.finish() == 0


def test_a_flow_whose_address_is_in_use_is_named(configuration: ConfigurationFile,
                                                 start_controller: StartController) -> None:
    _write(configuration)
    controller = start_controller()
    controller.wait_for(_READY)
    # No request has made the forwarder bind it.
    with UdpEnd("127.0.0.1", _FIRST_PORT):
        since = replace(controller)
        controller.wait_for(re.compile(
            r"error controller: instance 0: flow source1 \(label 0x420000/\d+\): its source "
            rf"127\.0\.0\.1, port {_FIRST_PORT} is in use, although the old forwarder has deleted "
            "the flow: the new forwarder tries to bind it with each request"), since)
        controller.wait_for(DONE, since)
    assert controller.finish() == 0


def test_the_new_forwarder_gets_all_flows_if_the_old_one_ends(
        configuration: ConfigurationFile, start_controller: StartController) -> None:
    _write(configuration)
    controller = start_controller()
    controller.wait_for(_READY)
    old = listener(PORT + 1, forwarders(controller, INSTANCES))
    assert old is not None
    # The first flow does not come to its end before.
    with UdpEnd("127.0.0.1", _FIRST_PORT):
        since = replace(controller)
        left = _SOURCES // INSTANCES
        controller.wait_for(
            "info controller: instance 0: the new forwarder has taken over on port 4503; to be moved: "
            f"{left} flows with a source", since)
        os.kill(old, signal.SIGKILL)
        controller.wait_for(
            "error controller: instance 0: the old forwarder ended before all its flows with a source "
            f"had been moved; left: {left}", since)
    # Those of the next instance may be there already.
    assert f": {PORT + 1}" not in nft("list", "map", "inet", f"vesk_{PORT}", "staying")
    controller.wait_for(DONE, since)
    assert controller.finish() == 0
