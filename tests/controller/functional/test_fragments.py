"""A folder of fragments: each change is applied by itself, and an error concerns its fragment only."""

from __future__ import annotations

import os
import re
import shutil
import signal
import time
from pathlib import Path
from typing import Callable

import pytest

from configuration_folder import ConfigurationFolder
from controller_fixtures import Answer, StartController
from controller_process import ControllerProcess, run_once
from conversation import Conversation, ask_until_answered
from framework.flow import Flow
from framework.framing import Key
from framework.timing import scaled
from framework.udp import UdpEnd
from trial import obeying_permissions

StartFolder = Callable[..., ControllerProcess]


@pytest.fixture
def configuration(tmp_path: Path) -> ConfigurationFolder:
    """A folder with settings and without flows."""
    folder = ConfigurationFolder(tmp_path)
    folder.tables["controller"] = "drain_seconds = 0"
    folder.write()
    return folder


@pytest.fixture
def start(configuration: ConfigurationFolder, start_controller: StartController) -> StartFolder:
    return lambda **details: start_controller(file=configuration, **details).ready()


def reloaded(flows: str) -> str:
    return f"info controller: reloaded: {flows}"


def unusable(configuration: ConfigurationFolder, file: str, consequence: str) -> str:
    return f"error controller: {configuration.path}/{file} is not usable: {consequence}"


def test_a_fragment_is_added_changed_broken_mended_and_removed(
        configuration: ConfigurationFolder, start: StartFolder, peer: UdpEnd, alice: Flow,
        bob: Flow) -> None:
    configuration.put_flows("10-alice.toml", alice=alice)
    controller = start()
    with Conversation(alice, configuration.listen) as conversation:
        conversation.wait_for_answers(5)
        configuration.put_flows("20-bob.toml", bob=bob)
        controller.wait_for("info controller: reload: 1 command to send: flow bob")
        controller.wait_for(reloaded("2 flows"))
        ask_until_answered(peer, bob, configuration.listen)

        bob.down_in = Key(b"another key of bob", "sha1")
        configuration.put_flows("20-bob.toml", bob=bob)
        ask_until_answered(peer, bob, configuration.listen)

        since = controller.mark()
        file = configuration.put("20-bob.toml", '[flows.bob]\nlabel = 0\nupstream = "127.0.0.1:1"\n')
        controller.wait_for(f"error controller: {file}:2: flows.bob.label must be an integer from 1 to "
                            "4294967295", since)
        controller.wait_for(unusable(configuration, "20-bob.toml", "its flows are unchanged"), since)
        controller.wait_for(reloaded("2 flows"), since)
        ask_until_answered(peer, bob, configuration.listen)

        # The others are applied meanwhile.
        since = controller.mark()
        configuration.put("30-carol.toml", '[flows.carol]\nlabel = 3\nupstream = "127.0.0.1:1"\n')
        controller.wait_for(reloaded("3 flows"), since)
        assert not [line for line in controller.lines[since:] if line.startswith("error")]

        since = controller.mark()
        configuration.put_flows("20-bob.toml", bob=bob)
        controller.wait_for(f"info controller: {file} is usable again", since)
        controller.wait_for(reloaded("3 flows"), since)

        since = controller.mark()
        file.unlink()
        (configuration.path / "30-carol.toml").unlink()
        controller.wait_for(reloaded("1 flow"), since)
        conversation.wait_for_answers(5)
    assert conversation.lost == 0
    assert controller.finish() == 0


def test_a_swapped_link_changes_a_key(configuration: ConfigurationFolder, start: StartFolder,
                                      peer: UdpEnd, answer: Answer) -> None:
    flow = Flow(label=1, up_label=1, down_label=1)
    service = answer(flow)

    def mount(version: str, secret: bytes) -> None:
        """As a container engine mounts a secret."""
        flow.down_in = Key(secret)
        configuration.secrets.add(secret.hex())
        data = configuration.path / f"..{version}"
        data.mkdir()
        (data / "alice.key").write_text(secret.hex(), encoding="ascii")
        (data / "alice.key").chmod(0o400)
        (data / "alice.toml").write_text(
            f'[flows.alice]\nlabel = 1\nupstream = "127.0.0.1:{service.address[1]}"\n'
            'from_peer = { key_file = "alice.key" }\nto_upstream = { label = 1 }\n'
            "to_peer = { label = 1 }\n", encoding="ascii")
        (configuration.path / "..data_tmp").symlink_to(data.name)
        os.replace(configuration.path / "..data_tmp", configuration.path / "..data")

    mount("2026_1", b"the first key")
    for name in ("alice.toml", "alice.key"):
        (configuration.path / name).symlink_to(f"..data/{name}")
    controller = start()
    ask_until_answered(peer, flow, configuration.listen)
    since = controller.mark()
    mount("2026_2", b"the second key")
    controller.wait_for("info controller: reload: 1 command to send: flow alice", since)
    ask_until_answered(peer, flow, configuration.listen)
    assert sum("reload: " in line for line in controller.lines) == 1


def test_the_folder_itself_may_be_a_swapped_link(configuration: ConfigurationFolder, start: StartFolder,
                                                 peer: UdpEnd, alice: Flow, bob: Flow) -> None:
    """As deploy/etcd/fragments swaps it."""
    first = configuration.folder / ".first"
    configuration.put_flows("10-alice.toml", alice=alice)
    configuration.path.rename(first)
    configuration.path.symlink_to(first.name)
    controller = start()
    second = configuration.folder / ".second"
    shutil.copytree(first, second)
    (second / "20-bob.toml").write_text(configuration.text_of({"bob": bob}), encoding="utf-8")
    (second / "20-bob.toml").chmod(0o600)
    (configuration.folder / "link").symlink_to(second.name)
    os.replace(configuration.folder / "link", configuration.path)
    shutil.rmtree(first)
    controller.wait_for("info controller: reload: 1 command to send: flow bob")
    ask_until_answered(peer, bob, configuration.listen)


def test_the_others_are_served_if_fragments_are_broken_at_the_start(
        configuration: ConfigurationFolder, start: StartFolder, peer: UdpEnd, alice: Flow) -> None:
    configuration.put_flows("10-alice.toml", alice=alice)
    folder = configuration.path
    configuration.put("11-unreadable.toml", "", 0)
    (folder / "12-dangling.toml").symlink_to("nowhere")
    (folder / "13-directory.toml").mkdir()
    os.mkfifo(folder / "14-pipe.toml")
    configuration.put("15-huge.toml", "")
    os.truncate(folder / "15-huge.toml", (256 << 20) + 1)
    configuration.put("16-again.toml", '[flows.alice]\nlabel = 1\nupstream = "127.0.0.1:1"\n')
    configuration.put("17-settings.toml", "[metrics]\n[forwarder]\n")
    configuration.put("18-variable.toml", '[flows.dave]\nlabel = 4\nupstream = "${VESK_UNSET}"\n')
    configuration.put(".19-hidden.toml", "[")
    errors = ["11-unreadable.toml: cannot be read: Permission denied",
              "12-dangling.toml: cannot be read: No such file or directory",
              "14-pipe.toml: is not a regular file",
              "15-huge.toml: is larger than 268435456 bytes",
              f"16-again.toml:1: flows.alice is also in {folder}/10-alice.toml:1",
              f"16-again.toml:2: flows.alice.label is already used by flows.alice in "
              f"{folder}/10-alice.toml:2",
              f"17-settings.toml:1: metrics is also in {folder}/00-base.toml:5",
              f"17-settings.toml:2: forwarder must be in the fragment that has downstream, "
              f"{folder}/00-base.toml",
              "18-variable.toml:3: flows.dave.upstream needs the environment variable VESK_UNSET, "
              "which is not set"]
    controller = start(prefix=obeying_permissions())
    ask_until_answered(peer, alice, configuration.listen)
    for error in errors:
        controller.wait_for(f"error controller: {folder}/{error}")
    controller.wait_for(unusable(configuration, "16-again.toml", "its flows are not served"))
    said = [line for line in controller.lines if line.startswith("error")]
    assert len(said) == len(errors) + 7

    (folder / "11-unreadable.toml").unlink()
    checked = run_once(configuration, "--check")
    assert (checked.returncode, checked.stdout) == (1, "")
    assert sorted(line for line in checked.stderr.splitlines() if "error" in line) == sorted(
        f"error controller: {folder}/{error}" for error in errors[1:])


def test_the_settings_are_needed(configuration: ConfigurationFolder) -> None:
    base = configuration.path / "00-base.toml"
    base.unlink()
    for text, error in (("", f"{configuration.path}: downstream is missing"),
                        ("[downstream]\n", f"{base}:1: downstream.port is missing"),
                        ('address = "127.0.0.1"\n', f"{configuration.path}: downstream is missing")):
        if text:
            configuration.put(base.name, text)
        refused = run_once(configuration)
        assert refused.returncode == 1
        assert f"error controller: {error}" in refused.stderr.splitlines(), refused.stderr
        assert "is not usable" not in refused.stderr


def test_check_prints_the_commands_of_all_fragments(configuration: ConfigurationFolder) -> None:
    for name, label in (("a", 1), ("b", 2)):
        configuration.put_flows(f"{name}.toml", **{name: Flow(label=label, upstream=("127.0.0.1", 9))})
    checked = run_once(configuration, "--check")
    assert checked.returncode == 0
    assert [line for line in checked.stdout.splitlines() if line.startswith("# flow")] == [
        "# flow a (label 0x1/1)", "# flow b (label 0x2/2)"]


def test_sighup_reads_all_fragments(configuration: ConfigurationFolder, start: StartFolder) -> None:
    configuration.put("10-a.toml", "[")
    controller = start()
    since = controller.mark()
    assert controller.reload() == unusable(configuration, "10-a.toml", "its flows are not served")
    controller.wait_for("info controller: reload: 0 commands to send", since)


def test_a_removed_folder_changes_nothing(configuration: ConfigurationFolder, start: StartFolder,
                                          peer: UdpEnd, alice: Flow, bob: Flow) -> None:
    configuration.put_flows("10-alice.toml", alice=alice)
    controller = start()
    elsewhere = configuration.folder / "elsewhere"
    configuration.path.rename(elsewhere)
    controller.wait_for(f"error controller: {configuration.path}: cannot be read: No such file or "
                        "directory")
    controller.wait_for(f"error controller: {configuration.path} is not usable: the running "
                        "configuration is unchanged")
    ask_until_answered(peer, alice, configuration.listen)
    elsewhere.rename(configuration.path)
    configuration.put_flows("20-bob.toml", bob=bob)
    controller.signal(signal.SIGHUP)
    controller.wait_for(reloaded("2 flows"))


def test_a_refused_address_names_the_fragment(configuration: ConfigurationFolder,
                                              start: StartFolder, peer: UdpEnd,
                                              alice: Flow) -> None:
    configuration.put_flows("10-alice.toml", alice=alice)
    controller = start()
    with UdpEnd() as taken:
        old, configuration.listen = configuration.listen, taken.address
        configuration.write()
        controller.wait_for(re.compile(
            rf"error controller: {configuration.path}/00-base.toml:3: cannot listen on .*"))
        configuration.listen = old
    ask_until_answered(peer, alice, configuration.listen)


def test_variables_are_replaced(configuration: ConfigurationFolder, start: StartFolder,
                                peer: UdpEnd, alice: Flow) -> None:
    key = Key(b"the key from the environment")
    text = configuration.text_of({"alice": alice})
    assert alice.down_in is not None and alice.upstream is not None
    text = text.replace(alice.down_in.secret.hex(), "${ALICE_KEY}").replace(
        alice.down_in.algorithm, key.algorithm, 1)
    configuration.put("10-alice.toml", text)
    alice.down_in = key
    configuration.secrets.add(key.secret.hex())
    start(environment={"ALICE_KEY": key.secret.hex()})
    ask_until_answered(peer, alice, configuration.listen)


FRAGMENTS = 100
FLOWS = 500  # in each of them


def test_one_of_fifty_thousand_flows_changes_within_a_second(
        configuration: ConfigurationFolder, start_controller: StartController) -> None:
    def write(fragment: int, port: int) -> None:
        first = 1 + fragment * FLOWS
        configuration.put(f"{fragment:03}.toml", "".join(
            f'[flows.f{label}]\nlabel = {label}\nupstream = "127.0.0.1:{port}"\n'
            f'from_peer = {{ key = "{label:032x}" }}\nto_upstream = {{ label = {label} }}\n'
            f'from_upstream = {{ key = "ff{label:030x}" }}\nto_peer = {{ label = {label} }}\n'
            for label in range(first, first + FLOWS)))

    for fragment in range(FRAGMENTS):
        write(fragment, 5000)
    configuration.tables["forwarder"] = 'log_level = "error"'
    configuration.write()
    controller = start_controller(file=configuration).ready(60)
    write(50, 5001)
    began = time.monotonic()
    controller.wait_for(reloaded(f"{FRAGMENTS * FLOWS} flows"))
    took = time.monotonic() - began
    controller.wait_for(re.compile(rf"info controller: reload: {FLOWS} commands to send: .*"))
    print(f"{took:.2f} s")
    assert took < scaled(2), f"{took:.2f} s"
