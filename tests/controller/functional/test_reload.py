"""SIGHUP applies what changed in the file, and changes nothing else."""

from __future__ import annotations

import re
import signal
from pathlib import Path


from configuration_file import ConfigurationFile
from controller_fixtures import Answer, StartController
from conversation import Conversation, ask, ask_until_answered
from framework.flow import Flow
from framework.framing import Key
from framework.timing import wait_until
from framework.udp import UdpEnd, free_port


def test_one_flow_changes_without_loss_on_another(
        configuration: ConfigurationFile, start_controller: StartController, peer: UdpEnd,
        alice: Flow, bob: Flow) -> None:
    configuration.flows["bob"] = bob
    configuration.write()
    controller = start_controller().ready()
    ask_until_answered(peer, bob, configuration.listen)
    with Conversation(alice, configuration.listen) as conversation:
        conversation.wait_for_answers(50)
        bob.down_in = Key(b"another key of bob", "sha1")
        configuration.write()
        controller.reload()
        conversation.wait_for_answers(50)
        ask_until_answered(peer, bob, configuration.listen)
        conversation.wait_for_answers(50)
    assert conversation.lost == 0
    controller.wait_for("info controller: reload: 1 command to send: flow bob")


def test_a_reload_during_the_first_reading_is_done_after_it(
        configuration: ConfigurationFile, start_controller: StartController) -> None:
    # Many flows, so that the reading takes a while.
    configuration.flows = {f"flow{label}": Flow(label=label, upstream=("127.0.0.1", 5000))
                           for label in range(1, 10001)}
    configuration.write()
    controller = start_controller()
    status = Path(f"/proc/{controller.pid}/status")
    wait_until(lambda: ignores(status.read_text(encoding="ascii"), signal.SIGPIPE),
               "it is about to read")
    controller.signal(signal.SIGHUP)
    controller.wait_for(re.compile(r"info controller: reload: \d+ commands to send.*"), 0, 60)
    controller.wait_for("info controller: reloaded: 10000 flows", 0, 60)


def ignores(status: str, number: int) -> bool:
    line = next(line for line in status.splitlines() if line.startswith("SigIgn:"))
    return bool(int(line.split()[1], 16) >> (number - 1) & 1)


def test_flows_are_added_and_removed(configuration: ConfigurationFile, start_controller: StartController,
                                     peer: UdpEnd, alice: Flow, bob: Flow) -> None:
    configuration.write()
    controller = start_controller().ready()
    ask_until_answered(peer, alice, configuration.listen)

    configuration.flows = {"bob": bob}
    configuration.write()
    assert controller.reload() == "info controller: reloaded: 1 flow"
    ask_until_answered(peer, bob, configuration.listen)
    # This datagram is handled before the following question.
    peer.send(alice.request(b"to nobody"), configuration.listen)
    assert ask(peer, bob, configuration.listen, b"control", 5)


def test_a_removed_key_is_no_longer_required(
        configuration: ConfigurationFile, start_controller: StartController, peer: UdpEnd,
        alice: Flow) -> None:
    configuration.write()
    controller = start_controller().ready()
    ask_until_answered(peer, alice, configuration.listen)
    alice.down_in = None
    configuration.write()
    controller.reload()
    ask_until_answered(peer, alice, configuration.listen)


def test_a_label_of_a_former_auxiliary_flow_inherits_nothing(
        configuration: ConfigurationFile, start_controller: StartController, peer: UdpEnd,
        answer: Answer) -> None:
    key = Key(b"the owner's key")
    configuration.secrets.add(key.secret.hex())
    auxiliary = Flow(label=0x50001, up_label=0x70001, down_label=9, down_in=key)
    service = answer(auxiliary)
    configuration.tables["flows.owner"] = (
        f'label = 1\nupstream = "127.0.0.1:{service.address[1]}"\n'
        f'from_peer = {{ key = "{key.secret.hex()}" }}\nto_peer = {{ label = 9 }}\n'
        "auxiliary = { prefix = 5, upstream_label = 0x70000 }")
    configuration.write()
    controller = start_controller().ready()
    ask_until_answered(peer, auxiliary, configuration.listen)

    declared = Flow(label=auxiliary.label)
    answer(declared)
    configuration.flows["declared"] = declared
    configuration.write()
    controller.reload()
    ask_until_answered(peer, declared, configuration.listen)


def test_a_key_file_is_read_again(configuration: ConfigurationFile,
                                  start_controller: StartController, peer: UdpEnd,
                                  answer: Answer) -> None:
    flow = Flow(label=1, up_label=1, down_label=1, down_in=Key(b"the first key"))
    service = answer(flow)
    key_file = configuration.folder / "flow.key"

    def write_key(secret: bytes) -> None:
        configuration.secrets.add(secret.hex())
        key_file.write_text(secret.hex(), encoding="ascii")
        key_file.chmod(0o600)

    configuration.tables["flows.alice"] = (
        f'label = 1\nupstream = "127.0.0.1:{service.address[1]}"\n'
        'from_peer = { key_file = "flow.key" }\nto_upstream = { label = 1 }\n'
        "to_peer = { label = 1 }")
    configuration.write()
    write_key(b"the first key")
    controller = start_controller().ready()
    ask_until_answered(peer, flow, configuration.listen)
    write_key(b"the second key")
    flow.down_in = Key(b"the second key")
    controller.reload()
    ask_until_answered(peer, flow, configuration.listen)


def test_the_downstream_address_moves(configuration: ConfigurationFile,
                                      start_controller: StartController, peer: UdpEnd,
                                      alice: Flow) -> None:
    configuration.write()
    controller = start_controller().ready()
    ask_until_answered(peer, alice, configuration.listen)
    configuration.listen = ("127.0.0.1", free_port())
    configuration.write()
    controller.reload()
    ask_until_answered(peer, alice, configuration.listen)


def test_a_change_that_needs_a_new_forwarder_is_logged(
        configuration: ConfigurationFile, start_controller: StartController, alice: Flow) -> None:
    configuration.write()
    controller = start_controller().ready()
    configuration.tables["forwarder"] = 'framing = "udpv1"'
    configuration.write()
    controller.reload()
    controller.wait_for("warn controller: forwarder.framing: the change applies at the next "
                        "start of the forwarder")
    configuration.tables["forwarder"] = 'framing = "udpv2"'
    configuration.write()
    since = controller.mark()
    controller.reload()
    assert not [line for line in controller.lines[since:] if "the change applies" in line]


def test_the_log_level_changes(configuration: ConfigurationFile,
                               start_controller: StartController, peer: UdpEnd,
                               alice: Flow) -> None:
    configuration.tables["forwarder"] = 'log_level = "warn"'
    configuration.write()
    controller = start_controller().ready()
    ask_until_answered(peer, alice, configuration.listen)
    configuration.tables["forwarder"] = 'log_level = "debug"'
    alice.down_in = Key(b"a key to be masked")
    configuration.write()
    controller.reload()
    ask_until_answered(peer, alice, configuration.listen)
    shown = controller.wait_for(re.compile("debug Got message: set label 0x1 .*"))
    assert "down_in_key <key of 18 bytes> down_in_algo sha256" in shown
    assert not [line for line in controller.lines if "Got message: fence" in line]
