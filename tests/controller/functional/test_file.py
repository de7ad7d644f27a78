"""The file: what is accepted, what is refused, and what --check prints."""

from __future__ import annotations

import subprocess

import pytest

from configuration_file import ConfigurationFile
from controller_process import binary, run_once
from framework.flow import Flow, four_keys


@pytest.fixture(autouse=True)
def one_flow(configuration: ConfigurationFile) -> None:
    configuration.flows["alice"] = Flow(label=1, upstream=("127.0.0.1", 5000), **four_keys())


@pytest.mark.parametrize("mode", [0o640, 0o604, 0o644])
def test_a_file_with_keys_that_others_can_read_is_refused(configuration: ConfigurationFile,
                                                          mode: int) -> None:
    configuration.write(mode)
    refused = run_once(configuration)
    assert refused.returncode == 1
    assert "the file contains a key and is readable by others" in refused.stderr
    assert run_once(configuration, "--check", "--allow-readable-keys").returncode == 0


def test_check_prints_the_commands_without_their_keys(configuration: ConfigurationFile) -> None:
    configuration.write()
    checked = run_once(configuration, "--check")
    assert checked.returncode == 0
    host, port = configuration.listen
    flow = configuration.flows["alice"]
    lengths = {name: len(getattr(flow, name).secret)
               for name in ("down_in", "up_out", "up_in", "down_out")}
    assert checked.stdout.splitlines() == [
        "# vesk udpv2 600 true true",
        "log priority info",
        "# flow alice (label 0x1/1)",
        "set label 0x1 up_ip 127.0.0.1 up_port 5000 "
        f"down_in_key <key of {lengths['down_in']} bytes> down_in_algo sha256 "
        f"up_label {flow.up_label:#x} "
        f"up_out_key <key of {lengths['up_out']} bytes> up_out_algo sha256 "
        f"up_in_key <key of {lengths['up_in']} bytes> up_in_algo sha256 "
        f"down_label {flow.down_label:#x} "
        f"down_out_key <key of {lengths['down_out']} bytes> down_out_algo sha256",
        f"start addr {host} port {port}"]


@pytest.mark.parametrize("arguments", [("--check",), ()])
def test_every_mistake_is_reported_at_once(configuration: ConfigurationFile,
                                           arguments: tuple) -> None:
    configuration.write_text('[downstream]\naddress = "here"\nport = 1\n\n'
                             "[flows.alice]\nlabel = 0\nto_peer = { key = \"1234f\" }\n")
    refused = run_once(configuration, *arguments)
    assert refused.returncode == 1
    assert refused.stdout == ""
    place = f"error controller: {configuration.path}"
    assert refused.stderr.splitlines() == [
        f"{place}:2: downstream.address must be a numeric address",
        f"{place}:5: flows.alice.upstream is missing",
        f"{place}:6: flows.alice.label must be an integer from 1 to 4294967295",
        f"{place}:7: flows.alice.to_peer.key is not usable: the key has an odd number of hex digits"]


def test_missing_file(configuration: ConfigurationFile) -> None:
    refused = run_once(configuration, "--check")
    assert refused.returncode == 1
    assert refused.stderr == (f"error controller: {configuration.path}: cannot be read: "
                              "No such file or directory\n")


def test_check_warns_of_a_low_limit_on_descriptors(configuration: ConfigurationFile) -> None:
    configuration.flows = {f"flow{label}": Flow(label=label, upstream=("127.0.0.1", 5000))
                           for label in range(1, 101)}
    configuration.write()
    limited = subprocess.run(
        ["prlimit", "--nofile=200:250", binary(), "--check", str(configuration.path)],
        capture_output=True, text=True, check=False, timeout=20)
    assert limited.returncode == 0
    assert ("warn controller: the hard limit on descriptors is 250, but 100 flows need 300"
            in limited.stderr)


def test_check_warns_of_settings_that_look_like_mistakes(
        configuration: ConfigurationFile) -> None:
    """One warning for each kind."""
    key = configuration.flows["alice"].down_in
    configuration.flows["bob"] = Flow(label=0x10002, upstream=("127.0.0.1", 5000), down_in=key)
    configuration.flows["carol"] = Flow(label=3, upstream=("127.0.0.1", 5000))
    configuration.listen = ("0.0.0.0", configuration.listen[1])
    configuration.tables["lateral"] = ('address = "127.0.0.1"\nport = 1\nindex = 0\ninstances = 3\n'
                                       'peers = [{ index = 1, address = "127.0.0.2" }]')
    configuration.write()
    checked = run_once(configuration, "--check")
    assert checked.returncode == 0
    for part in ("1 flow has no key, and 0.0.0.0 is not a loopback address",
                 "1 key is used for several legs or flows",
                 "flows.alice.from_peer and flows.bob.from_peer",
                 "flows.bob (label 0x10002, instance 1)",
                 "lateral.peers names 1 of the 2 other instances"):
        assert checked.stderr.count(part) == 1, part
    assert all(line.startswith("warn controller: ") for line in checked.stderr.splitlines())


def test_check_does_not_warn_of_a_correct_file(configuration: ConfigurationFile) -> None:
    configuration.write()
    assert "flow" not in run_once(configuration, "--check").stderr


def test_check_describes_a_toml_syntax_error(configuration: ConfigurationFile) -> None:
    configuration.write_text("[downstream]\naddress = 127.0.0.1\nport = 1\n")
    refused = run_once(configuration, "--check")
    assert refused.returncode == 1
    assert refused.stderr == (
        f"error controller: {configuration.path}:2: table downstream, key address, column 16: the value is "
        "not a number, true, false or a string in quotes\n")
