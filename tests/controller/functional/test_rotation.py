"""A flow changes its label and keys while its peers send: next in the file."""

from __future__ import annotations

import json
import os
import re
import signal
import time

import pytest

from configuration_file import ConfigurationFile
from controller_fixtures import StartController
from controller_process import ControllerProcess, run_once
from conversation import Conversation, ask, ask_until_answered
from framework.flow import Flow
from framework.framing import UDPV2, Key
from framework.timing import scaled, wait_until
from framework.udp import Address, UdpEnd, UpstreamService, free_port
from moving_traffic import MovingTraffic, figure, page
from steered_traffic import all_ready, refusal

_DELETED = r"warn controller: flow {}: deletes its old label {}/\d+, which was silent for 1 s\. .*"


def deleted(name: str, label: int) -> "re.Pattern[str]":
    return re.compile(_DELETED.format(name, hex(label)))


# Traffic of the generator ---------------------------------------------------------------


@pytest.mark.parametrize("instances", [1, 2])
def test_traffic_moves_to_other_labels_and_keys_without_loss(
        configuration: ConfigurationFile, start_controller: StartController, peer: UdpEnd,
        instances: int) -> None:
    if instances > 1 and refusal():
        pytest.skip(f"the packet filter is not allowed here: {refusal()}")
    traffic = MovingTraffic(configuration, instances)
    controller = all_ready(start_controller(), instances)
    controller.wait_for("info controller: 2 flows have a next label beside the present one: "
                        "flow1, flow2")
    labels = {name: (flow["label"], flow["next"]["label"])
              for name, flow in traffic.plan["flows"].items()}
    with traffic.start() as generator:
        for name, (_, following) in labels.items():
            controller.wait_for(f"info controller: flow {name}: its next label "
                                f"{following:#x}/{following} is in use")
        for name, (old, following) in labels.items():
            controller.wait_for(deleted(name, old))
            assert traffic.received(name, "current", old) > 0
            assert traffic.received(name, "next", following) > 0
            assert figure(traffic.metrics, "vesk_rotation_old_label_deleted"
                          f'{{flow="{name}",label="{old:#x}"}}') == 1
            # The flow keeps its name, and the label tells the generations apart.
            assert figure(traffic.metrics, "vesk_flow_sent_datagrams_total"
                          f'{{flow="{name}",label="{following:#x}"}}') > 0
        # The next report shows that the commands before it have been carried out.
        now = time.time()
        wait_until(lambda: figure(traffic.metrics, "vesk_last_report_timestamp_seconds") > now,
                   "the labels are deleted")
        refused = "vesk_downstream_receive_errors_total"
        before = figure(traffic.metrics, refused)
        sent = traffic.send_old(peer)
        wait_until(lambda: figure(traffic.metrics, refused) == before + sent,
                   "the datagrams with the old keys are refused")
        since = controller.mark()
        configuration.write_text(traffic.finished())
        controller.reload()
        assert not [line for line in controller.lines[since:] if "command" in line
                    and "0 commands to send" not in line]
        assert "vesk_rotation" not in page(traffic.metrics)
        assert generator.poll() is None, "the traffic has ended too early"
        generator.terminate()
        said, _ = generator.communicate(timeout=scaled(20))
    assert generator.returncode == 0, said
    report = json.loads(said)
    assert report["lost"] == report["wrong"] == report["unexpected"] == 0
    assert report["answered"] == report["sent"] > report["next_sent"] > 0
    assert report["next_answered"] == report["next_sent"]
    assert controller.finish() == 0


# One flow and its next label ------------------------------------------------------------


@pytest.fixture
def following(configuration: ConfigurationFile, alice: Flow) -> Flow:
    """The next of alice: another label and other keys of the peer, the same upstream service."""
    flow = Flow(label=3, upstream=alice.upstream, up_label=alice.up_label, up_in=alice.up_in,
                up_out=alice.up_out, down_in=Key(b"next of the peer"),
                down_out=Key(b"next to the peer"))
    configuration.next["alice"] = flow
    return flow


def refuses(old: Flow, other: Flow, to: Address) -> bool:
    """Whether a datagram of the old label is not answered. It is handled before the question, and its
    answer would not be one of the other flow."""
    with UdpEnd() as peer:
        peer.send(old.request(b"to nobody"), to)
        return ask(peer, other, to, b"control", scaled(5)) and peer.waiting() is None


def test_a_file_with_only_the_next_label_ends_the_old_one_without_loss(
        configuration: ConfigurationFile, start_controller: StartController, alice: Flow,
        following: Flow) -> None:
    del configuration.next["alice"]
    configuration.tables["controller"] = "rotate_seconds = 0"
    configuration.write()
    controller = start_controller().ready()
    with Conversation(alice, configuration.listen) as old:
        old.wait_for_answers(20)
        configuration.next["alice"] = following
        configuration.write()
        controller.reload()
        controller.wait_for("info controller: reload: 1 command to send: next of flow alice")
        with Conversation(following, configuration.listen) as new:
            for conversation in (new, old):
                conversation.wait_for_answers(20)
            old.stop()
            since = controller.mark()
            # As next is declared: with the service's keys of alice.
            configuration.flows["alice"] = following
            del configuration.next["alice"]
            configuration.write()
            controller.reload()
            controller.wait_for("info controller: reload: 1 command to send: flow alice", since)
            new.wait_for_answers(20)
    assert refuses(alice, following, configuration.listen)
    assert (old.lost, new.lost) == (0, 0)
    assert controller.finish() == 0


def start_and_move(controller: ControllerProcess, peer: UdpEnd, alice: Flow, following: Flow,
                   to: Address) -> None:
    """Both labels are valid; then the old one is deleted."""
    controller.ready()
    ask_until_answered(peer, alice, to)
    ask_until_answered(peer, following, to)
    controller.wait_for(deleted("alice", alice.label))
    with UdpEnd() as late:
        wait_until(lambda: not ask(late, alice, to, b"late", 0.1), "the old label is deleted")
    assert refuses(alice, following, to)


def test_a_deleted_label_does_not_come_back_before_the_controller_is_restarted(
        configuration: ConfigurationFile, start_controller: StartController, peer: UdpEnd,
        alice: Flow, following: Flow, bob: Flow) -> None:
    configuration.tables["controller"] = "stats_seconds = 1\nrotate_seconds = 1"
    configuration.write()
    to = configuration.listen
    controller = start_controller()
    start_and_move(controller, peer, alice, following, to)

    configuration.flows["bob"] = bob
    configuration.write()
    controller.reload()
    controller.wait_for("warn controller: 1 flow in the file still with a label that was deleted, and "
                        "that is valid again after a restart of the controller: alice")
    controller.wait_for("info controller: reload: 1 command to send: flow bob")
    ask_until_answered(peer, bob, to)
    assert refuses(alice, following, to)

    since = controller.mark()
    os.kill(controller.forwarder(), signal.SIGKILL)
    controller.wait_for("info controller: the forwarder is set up: 2 flows", since)
    ask_until_answered(peer, following, to)
    assert refuses(alice, following, to)
    assert controller.finish() == 0

    # A new controller knows only the file.
    start_and_move(start_controller(), peer, alice, following, to)


def test_a_reload_during_a_rotation_leaves_both_labels_alone(
        configuration: ConfigurationFile, start_controller: StartController, peer: UdpEnd,
        alice: Flow, following: Flow, bob: Flow) -> None:
    configuration.write()
    controller = start_controller().ready()
    with Conversation(alice, configuration.listen) as old, \
            Conversation(following, configuration.listen) as new:
        for conversation in (old, new):
            conversation.wait_for_answers(20)
        configuration.flows["bob"] = bob
        configuration.write()
        controller.reload()
        controller.wait_for("info controller: reload: 1 command to send: flow bob")
        ask_until_answered(peer, bob, configuration.listen)
        for conversation in (old, new):
            conversation.wait_for_answers(20)
    assert (old.lost, new.lost) == (0, 0)


def test_both_labels_share_the_source_of_a_multiplexed_flow(
        configuration: ConfigurationFile, start_controller: StartController, peer: UdpEnd) -> None:
    flows = [Flow(label=label, down_in=Key(b"from the peer %d" % label)) for label in (1, 2)]
    configuration.secrets |= {flow.down_in.secret.hex() for flow in flows if flow.down_in}
    by_up_label = {flow.up_label: flow for flow in flows}

    def answer(datagram: bytes) -> bytes:
        return by_up_label[UDPV2.parse(datagram).label].echo(datagram)

    def legs(flow: Flow) -> str:
        assert flow.down_in is not None
        return (f"label = {flow.label}\nfrom_peer = {{ key = \"{flow.down_in.secret.hex()}\" }}\n"
                f"to_upstream = {{ label = {flow.up_label} }}\nto_peer = {{ label = {flow.down_label} }}")

    with UpstreamService(answer) as service:
        configuration.tables["flows.alice"] = (
            f'upstream = "127.0.0.1:{service.address[1]}"\nsource = "127.0.0.1:{free_port()}"\n'
            f"multiplex = true\n{legs(flows[0])}")
        configuration.tables["flows.alice.next"] = legs(flows[1])
        configuration.write()
        start_controller().ready()
        for flow in [*flows, *flows]:
            ask_until_answered(peer, flow, configuration.listen)


def test_check_shows_the_commands_for_both_labels(
        configuration: ConfigurationFile, following: Flow) -> None:
    configuration.write()
    checked = run_once(configuration, "--check")
    assert (checked.returncode, checked.stderr) == (0, "")
    lines = checked.stdout.splitlines()
    command = lines[lines.index(f"# next of flow alice (label {following.label:#x}/3)") + 1]
    assert command.startswith(f"set label {following.label:#x} ")
    assert "down_in_key <key of 16 bytes>" in command
    assert "# flow alice (label 0x1/1)" in lines
