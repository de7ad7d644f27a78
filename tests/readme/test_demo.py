"""The demonstration reports success and failure correctly."""

from __future__ import annotations

import os
import subprocess
import sys
from pathlib import Path
from typing import List

import pytest

ROOT = Path(__file__).resolve().parent.parent.parent
BUILD = Path(os.environ["VESK_BUILD"]).resolve()
TRAFFIC = BUILD / "vesk-traffic"
DEADLINE_SECONDS = 120

FLAWLESS = "Every datagram was answered, with a correct signature and label."
NOT_FLAWLESS = "Datagrams were lost or wrong; see the table."


def demonstrate(folder: Path, traffic: Path, *options: str) -> "subprocess.CompletedProcess[str]":
    return subprocess.run([sys.executable, "-B", str(ROOT / "scripts" / "demo.py"), "--binary",
                           str(BUILD / "vesk"), "--traffic", str(traffic), "--controller",
                           str(BUILD / "vesk-controller"), *options], cwd=folder,
                          capture_output=True, text=True, check=False, timeout=DEADLINE_SECONDS)


def rows(output: str) -> List[List[str]]:
    """The sent, answered and bad datagrams of each flow."""
    lines = output.splitlines()
    table = lines[lines.index("Result") + 2:lines.index("", lines.index("Result"))]
    return [line.split()[-5:-2] for line in table]


@pytest.mark.parametrize(("options", "flows"), [([], 2), (["--lateral"], 4)])
def test_success_is_reported(tmp_path: Path, options: List[str], flows: int) -> None:
    done = demonstrate(tmp_path, TRAFFIC, *options)
    assert (done.returncode, done.stderr) == (0, ""), done.stdout
    assert done.stdout.splitlines()[-1] == FLAWLESS
    assert rows(done.stdout) == [["1000", "1000", "0"]] * flows
    assert "exit status 0" in done.stdout


def test_instances_are_replaced_without_a_loss(tmp_path: Path) -> None:
    namespace = subprocess.run(["unshare", "--net", "nft", "add table inet probe"],
                               capture_output=True, text=True, check=False)
    if namespace.returncode != 0:
        pytest.skip(f"the packet filter is not allowed here: {namespace.stderr.strip()}")
    done = demonstrate(tmp_path, TRAFFIC, "--instances", "2")
    assert (done.returncode, done.stderr) == (0, ""), done.stdout
    assert done.stdout.splitlines()[-1] == FLAWLESS
    assert "info controller: replaced 2 instances" in done.stdout


@pytest.mark.parametrize("change", ['s/"answered": 1000/"answered": 999/', 's/"wrong": 0/"wrong": 1/',
                                    's/"verified": 2000/"verified": 1999/', "d"])
def test_failures_are_reported(tmp_path: Path, change: str) -> None:
    """The traffic generator reports a failure or nothing."""
    traffic = tmp_path / "traffic"
    traffic.write_text(f"#!/bin/sh\n'{TRAFFIC}' \"$@\" | sed '/^{{/{change}'\n", encoding="utf-8")
    traffic.chmod(0o755)
    done = demonstrate(tmp_path, traffic)
    assert done.returncode == 1, done.stdout
    assert done.stdout.splitlines()[-1] == NOT_FLAWLESS
