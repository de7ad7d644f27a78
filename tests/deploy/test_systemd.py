"""The drop-in for several hosts, checked by systemd-analyze together with the packaged unit."""

from __future__ import annotations

import re
import subprocess
import tomllib
from pathlib import Path

import pytest

from fleet import ROOT, variables

_EXAMPLE = ROOT / "deploy/systemd"
_UNIT = "vesk-controller@.service"
_INSTANCE = "vesk-controller@edge.service"
_SECONDS_TO_END = 9


@pytest.fixture
def root(tmp_path: Path) -> Path:
    """A file system with the unit, the drop-in and the programs that they name."""
    units = tmp_path / "usr/lib/systemd/system"
    drop_ins = tmp_path / "etc/systemd/system" / f"{_INSTANCE}.d"
    for folder in (units, drop_ins, tmp_path / "usr/bin"):
        folder.mkdir(parents=True)
    (units / _UNIT).write_text((ROOT / "packaging/systemd" / _UNIT).read_text())
    (units / _INSTANCE).symlink_to(_UNIT)
    (drop_ins / "fleet.conf").write_text((_EXAMPLE / "fleet.conf").read_text())
    for program in ("vesk-controller", "kill"):
        (tmp_path / "usr/bin" / program).write_text("")
        (tmp_path / "usr/bin" / program).chmod(0o755)
    return tmp_path


def _verify(root: Path) -> str:
    return subprocess.run(
        ["systemd-analyze", "verify", "--man=no", "--recursive-errors=no", f"--root={root}", _INSTANCE], text=True,
        timeout=60, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False).stdout


def test_systemd_accepts_every_line(root: Path) -> None:
    assert _verify(root) == ""


def test_systemd_reads_the_drop_in(root: Path) -> None:
    file = root / f"etc/systemd/system/{_INSTANCE}.d/fleet.conf"
    file.write_text(file.read_text() + "NoSuchSetting=1\n")
    assert "NoSuchSetting" in _verify(root)


def test_the_drop_in_names_the_folder_of_the_example() -> None:
    text = (_EXAMPLE / "fleet.conf").read_text()
    assert "\nExecStart=\nExecStart=vesk-controller /etc/vesk/%i.d/\n" in text
    assert (_EXAMPLE / "edge.d").is_dir()


def test_there_is_time_to_leave_and_to_drain() -> None:
    controller = tomllib.loads((_EXAMPLE / "edge.d/settings.toml").read_text())["controller"]
    found = re.search(r"^TimeoutStopSec=(\d+)$", (_EXAMPLE / "fleet.conf").read_text(), re.MULTILINE)
    assert found is not None
    assert int(found[1]) > controller["leave_seconds"] + controller["drain_seconds"] + _SECONDS_TO_END


def test_the_environment_file_sets_every_variable() -> None:
    named = {name for file in _EXAMPLE.glob("edge.d/*.toml") for name in variables(file.read_text())}
    lines = (_EXAMPLE / "host.env").read_text().splitlines()
    assert {it.partition("=")[0] for it in lines if not it.startswith("#")} == named
