"""The example of README.md: runs the command with the file and compares the output."""

from __future__ import annotations

import os
import re
from pathlib import Path
from typing import Iterator

import pytest

from shell import Shell, free_ports, wait_until

ROOT = Path(__file__).resolve().parent.parent.parent
BUILD = Path(os.environ["VESK_BUILD"]).resolve()
PORTS = ["4500", "5000", "9477"]


def section() -> str:
    text = (ROOT / "README.md").read_text(encoding="utf-8")
    return text.split("\n## Use\n")[1].split("\n## ")[0]


def block(language: str) -> str:
    (found,) = re.findall(rf"^```{language}\n(.*?)^```$", section(), re.MULTILINE | re.DOTALL)
    return found


@pytest.fixture
def shell(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Iterator[Shell]:
    monkeypatch.setenv("PATH", f"{BUILD}:{os.environ['PATH']}")
    started = Shell(tmp_path, tmp_path, tmp_path)
    yield started
    started.end()


def test_example_file_has_eight_lines() -> None:
    assert len(block("toml").splitlines()) == 8


def test_output_of_the_command_has_the_lines_shown(shell: Shell, tmp_path: Path) -> None:
    ports = free_ports(PORTS)
    file = tmp_path / "alice.toml"
    file.write_text(block("toml").replace("4500", ports["4500"]).replace("5000", ports["5000"])
                    + f"[metrics]\nport = {ports['9477']}\n", encoding="utf-8")
    shown = section().rsplit("\n```\n", 2)[-2].splitlines()
    expected = [line.replace("4500", ports["4500"]) for line in shown]
    assert len(expected) == 2

    # The command does not end by itself, so it runs in the background and writes its log to a file.
    log = tmp_path / "log"
    log.touch()
    shell.type(f"({block('sh').strip()}) 2>> log &")
    # Lines of the forwarder's other threads may come between and after them.
    wait_until(lambda: [line for line in log.read_text(encoding="utf-8").splitlines()
                        if line in expected] == expected,
               "the log has the lines that README.md shows")
    assert (tmp_path / "alice.key").stat().st_mode & 0o777 == 0o600
