"""Two controllers whose forwarders share the labels."""

from __future__ import annotations

import re
from pathlib import Path
from typing import List

import pytest

from configuration_file import ConfigurationFile
from controller_fixtures import Answer, StartController
from conversation import ask_until_answered
from framework.flow import Flow, four_keys
from framework.lateral import LOOPBACK, owned_label, shared_free_port
from framework.udp import UdpEnd

@pytest.fixture
def pair(tmp_path: Path) -> List[ConfigurationFile]:
    port = shared_free_port([LOOPBACK[0], LOOPBACK[1]])
    files = []
    for index in (0, 1):
        folder = tmp_path / f"instance{index}"
        folder.mkdir()
        file = ConfigurationFile(folder)
        file.join(port, index)
        file.write()
        files.append(file)
    return files


def test_a_flow_of_the_other_instance_is_reached(
        pair: List[ConfigurationFile], start_controller: StartController, peer: UdpEnd,
        answer: Answer) -> None:
    flow = Flow(label=owned_label(1), **four_keys())
    answer(flow)
    pair[1].flows["alice"] = flow
    pair[1].write()
    for file in pair:
        start_controller(file=file).ready().wait_for(
            re.compile("info Vesk Lateral listener started on port .*"))
    ask_until_answered(peer, flow, pair[0].listen)


def test_a_lateral_stream_can_be_added_but_not_removed(
        pair: List[ConfigurationFile], start_controller: StartController) -> None:
    lateral = pair[0].tables.pop("lateral")
    pair[0].write()
    controller = start_controller(file=pair[0]).ready()
    pair[0].tables["lateral"] = lateral
    pair[0].write()
    controller.reload()
    controller.wait_for(re.compile("info Vesk Lateral listener started on port .*"))
    del pair[0].tables["lateral"]
    pair[0].write()
    controller.reload()
    controller.wait_for(
        "warn controller: lateral: the change applies at the next start of the forwarder")
