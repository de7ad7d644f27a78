"""vesk-controller --check accepts the files of every example, as each owner reads them."""

from __future__ import annotations

import os
import re
import shlex
import shutil
import subprocess
from pathlib import Path
from typing import Dict

import pytest

from fleet import EXAMPLE, KUBERNETES, NEW_KEY, ROOT, Fleet, key_files

_CONTROLLER = os.environ["VESK_CONTROLLER"]
_ADDRESS = "10.0.0.1"


def _check(folder: Path, environment: Dict[str, str], host: str = "host") -> "subprocess.CompletedProcess[str]":
    """Has the folder checked on a host of this name."""
    command = f"hostname {host} && exec {shlex.quote(_CONTROLLER)} --check {shlex.quote(str(folder))}"
    user = [] if os.geteuid() == 0 else ["--user", "--map-root-user"]
    return subprocess.run(["unshare", *user, "--uts", "sh", "-c", command], text=True, timeout=60,
                          env={**os.environ, **environment}, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          check=False)


def _add_keys(folder: Path) -> None:
    for fragment in folder.glob("*.toml"):
        for name in key_files(fragment.read_text()):
            (folder / name).write_text(NEW_KEY)
            (folder / name).chmod(0o400)


def _check_kubernetes(folder: Path, index: int, owners: int) -> str:
    environment = {"POD_IP": _ADDRESS, "POD_NAMESPACE": "vesk", "VESK_INSTANCES": str(owners)}
    done = _check(folder, environment, f"vesk-{index}")
    assert done.returncode == 0, done.stderr
    return done.stdout


@pytest.mark.parametrize(("index", "owners"), [(0, 1), (0, 3), (2, 3), (3, 4)])
def test_kubernetes(tmp_path: Path, index: int, owners: int) -> None:
    shutil.copy(KUBERNETES / "base/settings.toml", tmp_path)
    for flow in EXAMPLE.glob("flows/*.toml"):
        shutil.copy(flow, tmp_path)
    _add_keys(tmp_path)
    commands = _check_kubernetes(tmp_path, index, owners)
    assert f"start addr {_ADDRESS} port 4500" in commands
    assert "label 0x10001" in commands and "label 0x20001" in commands


def test_the_mounted_files_of_kubernetes(fleet: Fleet, tmp_path: Path) -> None:
    for name, text in fleet.mounted().items():
        (tmp_path / name).write_text(text)
        (tmp_path / name).chmod(0o400)
    owners = fleet.stateful_set["replicas"]
    _check_kubernetes(tmp_path, owners - 1, owners)


def test_systemd(tmp_path: Path) -> None:
    for file in (ROOT / "deploy/systemd/edge.d").glob("*.toml"):
        shutil.copy(file, tmp_path)
    _add_keys(tmp_path)
    lines = (ROOT / "deploy/systemd/host.env").read_text().splitlines()
    environment = dict(it.split("=", 1) for it in lines if not it.startswith("#"))
    done = _check(tmp_path, environment)
    assert done.returncode == 0, done.stderr
    assert "label 0x10001" in done.stdout


def test_nomad(tmp_path: Path) -> None:
    job = (ROOT / "deploy/nomad/vesk.nomad.hcl").read_text()
    files = re.findall(r'destination = "secrets/conf\.d/(\S+\.toml)"\n.*?<<EOT\n(.*?)EOT\n', job, re.DOTALL)
    assert [name for name, _ in files] == ["settings.toml", "alice.toml"]
    for name, text in files:
        (tmp_path / name).write_text(re.sub(r'\{\{ env "NOMAD_IP_\w+" \}\}', _ADDRESS, text))
    _add_keys(tmp_path)
    done = _check(tmp_path, {"NOMAD_ALLOC_INDEX": "2", "VESK_INSTANCES": "3"})
    assert done.returncode == 0, done.stderr
    assert "label 0x10001" in done.stdout
