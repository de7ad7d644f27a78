"""A controller that is killed, and started again with what the service manager has kept."""

from __future__ import annotations

import os
import re
import signal
from typing import Callable, List, Type

import pytest

from configuration_file import ConfigurationFile
from controller_fixtures import Answer, StartController
from controller_process import ControllerProcess, is_alive
from conversation import Conversation, ask_until_answered
from descriptor_store import DescriptorStore
from framework.flow import Flow, four_keys
from framework.timing import wait_until
from framework.udp import UdpEnd
from generator import Generator
from instances import (DONE, FLOWS, INSTANCES, METRICS, PORT, RATE, READY, all_forwarders,
                       flow_of_each, forwarders, nft, port_of_instances, replace, tables,
                       write_for_generator)
from page import samples
from programs import script


def _names(*forwarders_kept: "tuple[int, int]") -> List[str]:
    return [f"forwarder-{instance}-{port}-{part}" for instance, port in forwarders_kept
            for part in ("input", "output", "process")]


def _kill(controller: ControllerProcess) -> List[int]:
    """Returns the forwarders that go on."""
    before = all_forwarders()
    controller.kill()
    assert all_forwarders() == before
    return before


def _process(controller: ControllerProcess, instance: int) -> int:
    line = controller.wait_for(re.compile(
        rf"info controller: instance {instance}: takes over the running forwarder, process \d+"))
    return int(line.split()[-1])


def test_a_killed_controller_stops_no_traffic(
        configuration: ConfigurationFile, start_controller: StartController,
        start_generator: Type[Generator], store: DescriptorStore) -> None:
    write_for_generator(configuration)
    controller = start_controller(environment=store.environment)
    controller.wait_for(READY)
    store.wait_for(*_names((0, 4501), (1, 4502)))
    generator = start_generator(os.getpid(), FLOWS, RATE)

    old = _kill(controller)
    controller = start_controller(**store.passed())
    assert [_process(controller, instance) for instance in range(INSTANCES)] == old
    controller.wait_for("info controller: instance 0: the new forwarder has taken over on port 4503; "
                        "the old one drains")

    # In the middle of the replacement.
    assert len(_kill(controller)) == INSTANCES + 1
    assert port_of_instances() == {0: 4503, 1: 4502}
    controller = start_controller(**store.passed())
    controller.wait_for("info controller: instance 0: a second forwarder, on port 4501, drains")
    assert _process(controller, 0) not in old
    assert _process(controller, 1) == old[1]
    controller.wait_for(re.compile("info controller: instance 0: started .*"))

    # While the new forwarder is set up.
    assert len(_kill(controller)) == INSTANCES + 1
    told = len(store.told)
    controller = start_controller(**store.passed())
    controller.wait_for(DONE)
    assert "READY=1" in store.told[told:]
    assert samples(METRICS)['vesk_replacements_total{outcome="done"}'] == 1
    assert tables() == ["table inet vesk_4500"]
    assert all_forwarders() == forwarders(controller, INSTANCES)
    assert not set(all_forwarders()) & set(old)
    store.wait_for(*_names(*port_of_instances().items()))
    generator.check_nothing_lost()
    assert controller.finish() == 0
    assert not tables() and not all_forwarders()
    store.wait_for()


@pytest.fixture
def flows(configuration: ConfigurationFile, answer: Answer) -> "list[Flow]":
    """One flow of each of two instances."""
    return flow_of_each(configuration, answer, controller="drain_seconds = 0")


@pytest.fixture
def killed(flows: "list[Flow]", start_controller: StartController,
           store: DescriptorStore) -> "list[int]":
    """The forwarders of a controller that was killed, by instance."""
    controller = start_controller(environment=store.environment)
    controller.wait_for(f"info controller: the forwarder is set up: {len(flows)} flows, 2 instances")
    store.wait_for(*_names((0, 4501), (1, 4502)))
    started = [controller.wait_for(re.compile(rf"info controller: instance {i}: started .*"))
               for i in range(2)]
    _kill(controller)
    return [int(line.split()[-1]) for line in started]


def _close_one(store: DescriptorStore, _: int) -> None:
    store.remove("forwarder-1-4502-output")


def _end(_: DescriptorStore, process: int) -> None:
    os.kill(process, signal.SIGKILL)
    wait_until(lambda: not is_alive(process), "the forwarder has ended")


@pytest.mark.parametrize("spoil", [_close_one, _end])
def test_a_forwarder_that_cannot_be_taken_over_is_started_anew(
        killed: "list[int]", configuration: ConfigurationFile, flows: "list[Flow]",
        start_controller: StartController, store: DescriptorStore, peer: UdpEnd,
        spoil: Callable[[DescriptorStore, int], None]) -> None:
    spoil(store, killed[1])
    with Conversation(flows[0], configuration.listen) as other:
        other.wait_for_answers(10)
        controller = start_controller(**store.passed())
        controller.wait_for("info controller: replaced 1 instance")
        other.wait_for_answers(10)
    assert other.lost == 0
    assert _process(controller, 0) == killed[0]
    controller.wait_for(re.compile("info controller: instance 1: started .*"))
    assert not any(map(is_alive, killed))
    assert all_forwarders() == forwarders(controller, 2)
    for flow in flows:
        ask_until_answered(peer, flow, configuration.listen)
    store.wait_for(*_names((0, 4503), (1, 4502)))
    assert controller.finish() == 0


def test_a_flow_that_was_deleted_in_between_is_refused_after_the_replacement(
        killed: "list[int]", configuration: ConfigurationFile, flows: "list[Flow]",
        start_controller: StartController, store: DescriptorStore, peer: UdpEnd) -> None:
    ask_until_answered(peer, flows[1], configuration.listen)
    del configuration.flows["flow1"]
    configuration.write()
    controller = start_controller(**store.passed())
    controller.wait_for(DONE)
    assert not any(map(is_alive, killed))
    peer.send(flows[1].request(b"deleted"), configuration.listen)
    wait_until(lambda: samples(METRICS)["vesk_downstream_receive_errors_total"] > 0,
               "the datagram is counted as dropped")
    assert peer.waiting() is None
    ask_until_answered(peer, flows[0], configuration.listen)
    assert controller.finish() == 0


def _staying() -> bool:
    return "elements" in nft("list", "map", "inet", f"vesk_{PORT}", "staying")


def test_flows_with_a_source_that_had_not_been_moved_go_to_the_new_forwarder(
        configuration: ConfigurationFile, flows: "list[Flow]", answer: Answer,
        start_controller: StartController, store: DescriptorStore, peer: UdpEnd) -> None:
    second = Flow(label=2, **four_keys())
    answer(second)
    configuration.flows["second"] = second
    configuration.write()
    text = configuration.path.read_text(encoding="utf-8")
    for label in (1, 2):
        text = text.replace(f"label = {label:#x}\n",
                            f'label = {label:#x}\nsource = "127.0.0.1:600{label}"\n')
    configuration.write_text(text)
    controller = start_controller(environment=store.environment).ready()
    ask_until_answered(peer, second, configuration.listen)
    # The first flow's address is not free, so it is waited for, and the second does not get its turn.
    with UdpEnd("127.0.0.1", 6001):
        replace(controller)
        controller.wait_for("info controller: instance 0: the new forwarder has taken over on port "
                            "4503; to be moved: 2 flows with a source")
        _kill(controller)
    assert _staying()
    controller = start_controller(**store.passed())
    controller.wait_for("info controller: instance 0: a second forwarder, on port 4501, drains")
    assert not _staying()
    with Conversation(second, configuration.listen, 0.1) as conversation:
        conversation.wait_for_answers(10)
        ask_until_answered(peer, flows[0], configuration.listen)
        controller.wait_for(DONE)
        conversation.wait_for_answers(10)
    assert all_forwarders() == forwarders(controller, 2)
    assert not any("Failed bind" in line for line in controller.lines)
    assert controller.finish() == 0


def test_a_replacement_that_fails_is_tried_again_at_the_next_reload(
        killed: "list[int]", configuration: ConfigurationFile, flows: "list[Flow]",
        start_controller: StartController, store: DescriptorStore) -> None:
    program = script(configuration.folder, "exit 1")
    with Conversation(flows[0], configuration.listen) as conversation:
        controller = start_controller("--program", program, **store.passed())
        controller.wait_for("error controller: instance 0 was not replaced: the new forwarder did not "
                            "come up: it ended; the old one continues")
        controller.wait_for("error controller: 2 instances of an earlier controller may differ from the "
                            "file: the next SIGHUP or SIGUSR2 tries the replacement again")
        assert all_forwarders() == sorted(killed)
        script(configuration.folder, f"exec '{os.path.abspath(os.environ['VESK_BINARY'])}' \"$@\"")
        controller.reload()
        controller.wait_for(DONE)
        conversation.wait_for_answers(10)
    assert conversation.lost == 0
    assert not any(map(is_alive, killed))
    assert controller.finish() == 0


def test_a_forwarder_that_was_taken_over_is_started_again_when_it_ends(
        killed: "list[int]", configuration: ConfigurationFile, flows: "list[Flow]",
        start_controller: StartController, store: DescriptorStore, peer: UdpEnd) -> None:
    program = script(configuration.folder, "exit 1")
    controller = start_controller("--program", program, **store.passed())
    controller.wait_for(re.compile("error controller: 2 instances of an earlier controller .*"))
    script(configuration.folder, f"exec '{os.path.abspath(os.environ['VESK_BINARY'])}' \"$@\"")
    os.kill(killed[1], signal.SIGKILL)
    controller.wait_for(re.compile("error controller: instance 1: the forwarder ended.*"))
    for flow in flows:
        ask_until_answered(peer, flow, configuration.listen)
    assert controller.finish() == 0
    assert not all_forwarders()
    store.wait_for()


def test_a_file_without_instances_takes_nothing_over(
        killed: "list[int]", configuration: ConfigurationFile, start_controller: StartController,
        store: DescriptorStore) -> None:
    configuration.tables.pop("forwarder")
    configuration.tables.pop("downstream")
    configuration.write()
    controller = start_controller(**store.passed()).ready()
    controller.wait_for("warn controller: closes a descriptor of an earlier controller: "
                        "forwarder-0-4501-input")
    assert not any(map(is_alive, killed))
    store.wait_for()
    assert controller.finish() == 0
