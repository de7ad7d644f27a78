"""The first five minutes of docs/tutorial.md: types every command and compares every output."""

from __future__ import annotations

import os
import re
import shutil
import subprocess
import urllib.error
import urllib.request
from pathlib import Path
from typing import Dict, List

import pytest

from shell import DEADLINE_SECONDS, Shell, free_ports, wait_until
# The fixtures too.
from walkthrough import ROOT, Block, blocks_of, own_files, shell, temporary, tree, with_ports

TRAFFIC_SECONDS = {"written": "--duration 60", "enough": "--duration 10"}
METRICS_PORT = "9477"
KEY = re.compile(r"\b[0-9a-f]{64}\b")
SENT = re.compile(r"^vesk_upstream_sent_datagrams_total [1-9]", re.MULTILINE)


def blocks() -> List[Block]:
    text = (ROOT / "docs/tutorial.md").read_text(encoding="utf-8")
    section = text.split("\n## First five minutes\n")[1].split("\n## ")[0]
    return blocks_of(section)


def adapted(text: str, ports: Dict[str, str]) -> str:
    """The same for this build, with other ports and shorter waits."""
    text = with_ports(text, ports)
    text = text.replace("[controller]\n", f"[metrics]\nport = {ports[METRICS_PORT]}\n\n[controller]\n")
    return text.replace(TRAFFIC_SECONDS["written"], TRAFFIC_SECONDS["enough"])


def require(program: str) -> None:
    if shutil.which(program) is None:
        pytest.skip(f"{program} is not installed")


def require_capturing() -> None:
    require("tshark")
    done = subprocess.run(["dumpcap", "-q", "-i", "lo", "-a", "duration:1", "-w", "/dev/null"],
                          capture_output=True, text=True, check=False, timeout=DEADLINE_SECONDS)
    if done.returncode != 0:
        pytest.skip(f"capturing is not allowed here: {done.stderr.strip()}")


# A reader types slowly enough for figures and reports to be available; the test has to wait for them.

def has_figures(port: str) -> bool:
    try:
        with urllib.request.urlopen(f"http://127.0.0.1:{port}/metrics", timeout=5) as page:
            return SENT.search(page.read().decode()) is not None
    except (urllib.error.URLError, ConnectionError):
        return False


def comparable(output: str) -> List[str]:
    """Counts vary between runs, and a capture may begin in the middle of an exchange."""
    return sorted(re.sub(r"\s+[1-9]\d+\s*$", " N", line) for line in output.splitlines())


# A package that asks a question gets no answer, and apt-get reads input that was typed ahead.
STAND_INS = {
    "scripts/setup": "exit 0",
    "apt-get": 'cat >/dev/null; [ "$DEBIAN_FRONTEND" = noninteractive ]',
    "cmake": 'echo "cmake $*"',
}


def test_first_block_can_be_pasted_as_a_whole(tmp_path: Path) -> None:
    for name, text in STAND_INS.items():
        program = tmp_path / name
        program.parent.mkdir(exist_ok=True)
        program.write_text(f"#!/bin/sh\n{text}\n", encoding="utf-8")
        program.chmod(0o755)
    environment = {**os.environ, "PATH": f"{tmp_path}:{os.environ['PATH']}"}
    environment.pop("DEBIAN_FRONTEND", None)
    done = subprocess.run(["bash"], input=blocks()[0].commands, cwd=tmp_path, env=environment, text=True,
                          stdout=subprocess.PIPE, timeout=DEADLINE_SECONDS, check=False)
    assert done.returncode == 0
    assert done.stdout.splitlines() == ["cmake --preset release -DBUILD_TESTING=OFF",
                                        "cmake --build --preset release"]


def test_every_command_does_what_is_shown(shell: Shell, tree: Path, temporary: Path) -> None:
    """Also checks that no key is readable by other users and that no process or file remains."""
    require_capturing()
    require("curl")
    ports = free_ports(["4500", "5000", METRICS_PORT])
    with_keys: List[Path] = []
    # The first command builds the tree, which has been done already.
    build, *walk = blocks()
    assert "cmake --build" in build.commands and len(walk) >= 5
    for block in walk:
        if "curl" in block.commands or "tshark" in block.commands:
            wait_until(lambda: has_figures(ports[METRICS_PORT]), "the metrics show traffic")
        if block.commands.startswith("head "):
            name = block.commands.split()[3]
            wait_until(lambda: any(path.name == name and path.stat().st_size > 0
                                   for path in own_files(temporary)),
                       "the traffic generator has reported")
        output = shell.type(adapted(block.commands, ports))
        assert comparable(output) == comparable(block.output), block.commands
        with_keys += [path for path in own_files(temporary) if KEY.search(path.read_text())]
        assert [path for path in with_keys if path.exists() and path.stat().st_mode & 0o077] == []
        assert own_files(tree) == {}, block.commands
    assert any(block.output for block in walk)
    assert with_keys, "the tutorial makes keys"
    assert list(temporary.iterdir()) == []
