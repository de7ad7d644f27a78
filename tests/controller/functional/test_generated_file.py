"""The file that vesk-traffic writes for a controller: its flows carry the generator's traffic."""

from __future__ import annotations

import os
import subprocess
from pathlib import Path
from typing import List

import pytest

from configuration_file import ConfigurationFile
from controller_fixtures import StartController
from controller_process import run_once
from framework.udp import free_port


def traffic(*words: object) -> "subprocess.CompletedProcess[str]":
    return subprocess.run([os.environ["VESK_TRAFFIC"], *map(str, words)], capture_output=True,
                          text=True, check=False, timeout=60)


def label_of(command: str) -> int:
    """The label of a set command; 0 for any other command."""
    words = command.split()
    return int(words[2], 0) if words[:2] == ["set", "label"] else 0


@pytest.mark.parametrize("options", [
    ["--flows", 3, "--algorithm", "sha256,sha1,none"],
    ["--framing", "udpv1"],
    ["--check-source", "127.0.0.9", "--flows", 2],
])
def test_generated_file_carries_the_generators_traffic(configuration: ConfigurationFile,
                                                       start_controller: StartController,
                                                       options: List[object]) -> None:
    plan = [*options, "--port", free_port(), "--upstream-port", free_port()]
    printed = traffic(*plan, "--print-toml")
    assert (printed.returncode, printed.stderr) == (0, "")
    configuration.write_text(printed.stdout + "\n[metrics]\nenabled = false\n")
    checked = run_once(configuration, "--check")
    assert checked.returncode == 0, checked.stderr
    assert " key " not in checked.stderr

    controller = start_controller().ready()
    sent = traffic(*plan, "--requests", 200, "--warm-up", 0, "--duration", 20, "--verify-every", 1)
    assert sent.returncode == 0, sent.stdout + sent.stderr
    assert controller.finish() == 0


def test_generated_file_has_the_commands_of_its_flows(configuration: ConfigurationFile) -> None:
    plan = ["--flows", 2, "--port", 4500, "--upstream-port", 5000]
    configuration.write_text(traffic(*plan, "--print-toml").stdout)
    told = run_once(configuration, "--check").stdout.splitlines()
    commands = traffic(*plan, "--print-commands").stdout.splitlines()
    said = [line for line in told[2:] if not line.startswith("# flow ")]
    assert [label_of(line) for line in said] == [label_of(line) for line in commands]


def test_generated_file_needs_both_ports(tmp_path: Path) -> None:
    refused = traffic("--print-toml", "--port", 4500)
    assert refused.returncode != 0
    assert refused.stdout == ""
    assert "--upstream-port" in refused.stderr
