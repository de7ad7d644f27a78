"""Many lines of one kind, such as those caused by an unknown sender's datagrams, do not fill the log."""

from __future__ import annotations

import re
import urllib.request
from typing import List

from configuration_file import ConfigurationFile
from controller_fixtures import StartWith
from controller_process import ControllerProcess
from conversation import ask_until_answered
from framework.flow import Flow
from framework.timing import wait_until
from framework.udp import UdpEnd, free_port

BAD_HMAC = "downstreamPacketReceivedFailed HMAC Check!"
LEFT_OUT = re.compile(r"warn controller: (\d+) more lines? like this (?:was|were) left out: "
                      + re.escape(BAD_HMAC))
# More lines than the limit lets through during the flood, even on a slow machine.
FLOOD = 2000


class Errors:
    """Reads the counter of refused datagrams from the metrics page."""

    def __init__(self, configuration: ConfigurationFile) -> None:
        self._port = free_port()
        configuration.tables["metrics"] = f"port = {self._port}"

    def count(self) -> int:
        with urllib.request.urlopen(f"http://127.0.0.1:{self._port}/metrics", timeout=5) as answer:
            page = answer.read().decode()
        match = re.search(r"^vesk_downstream_receive_errors_total (\S+)$", page, re.MULTILINE)
        assert match is not None
        return int(float(match[1]))


def flood(peer: UdpEnd, flow: Flow, configuration: ConfigurationFile, count: int) -> None:
    """Sends datagrams with a wrong HMAC, slowly enough for all to be received."""
    datagram = bytearray(flow.request(b"forged"))
    datagram[0] ^= 1
    for number in range(count):
        peer.send(bytes(datagram), configuration.listen)
        if number % 100 == 0:
            ask_until_answered(peer, flow, configuration.listen)
    ask_until_answered(peer, flow, configuration.listen)


def passed_on(controller: ControllerProcess) -> List[str]:
    return [line for line in list(controller.lines) if line == BAD_HMAC]


def left_out(controller: ControllerProcess) -> int:
    matches = [LEFT_OUT.fullmatch(line) for line in list(controller.lines)]
    return sum(int(match[1]) for match in matches if match is not None)


def test_a_flood_of_bad_datagrams_leaves_a_few_lines_and_their_count(
        configuration: ConfigurationFile, start_with: StartWith, peer: UdpEnd, alice: Flow) -> None:
    errors = Errors(configuration)
    controller = start_with("stats_seconds = 1").ready()
    flood(peer, alice, configuration, FLOOD)
    wait_until(lambda: len(passed_on(controller)) + left_out(controller) == FLOOD,
               "every line is logged or counted", 10)
    assert 20 <= len(passed_on(controller)) <= FLOOD // 4
    wait_until(lambda: errors.count() == FLOOD, "every datagram is counted", 10)


def test_the_count_is_logged_at_the_end(
        configuration: ConfigurationFile, start_with: StartWith, peer: UdpEnd, alice: Flow) -> None:
    controller = start_with("drain_seconds = 0").ready()
    flood(peer, alice, configuration, 300)
    assert controller.finish() == 0
    assert left_out(controller) > 0
    assert len(passed_on(controller)) + left_out(controller) == 300


def test_the_limit_can_be_turned_off(
        configuration: ConfigurationFile, start_with: StartWith, peer: UdpEnd, alice: Flow) -> None:
    controller = start_with("log_limit = false").ready()
    flood(peer, alice, configuration, 300)
    wait_until(lambda: len(passed_on(controller)) == 300, "every line is passed on", 10)

    configuration.tables["controller"] = "log_limit = true"
    configuration.write()
    controller.reload()
    flood(peer, alice, configuration, 300)
    wait_until(lambda: len(passed_on(controller)) + left_out(controller) == 600,
               "every line is logged or counted", 10)
    assert left_out(controller) > 0
