"""The packages that scripts/setup requests from apt-get on a host that has none of them."""

from __future__ import annotations

import os
import re
import shutil
import subprocess
from pathlib import Path
from typing import Set

import pytest

_SETUP = Path(__file__).parents[2] / "scripts/setup"

# Installs nothing and records the requested packages instead.
_PROGRAMS = {
    "dpkg-query": "exit 1",
    "id": "echo 0",
    "apt-get": 'case $1 in install) echo "$@" >>"$ASKED" ;; esac',
}

# The programs that scripts/setup runs. Nothing else is in the path, so there is no sudo.
_OWN_TOOLS = ("bash", "cat", "dirname", "env", "grep", "mktemp", "rm", "sh")

# debconf writes to standard error, as on a host without apt-utils. The recorded front end shows
# whether a package may ask questions.
_NOISY_APT = """echo "debconf: delaying package configuration" >&2
echo "Reading package lists..."
case $1 in install) echo "front end $DEBIAN_FRONTEND" >>"$ASKED"; cat >>"$ASKED" ;; esac"""


def add_program(host: Path, name: str, text: str) -> None:
    program = host / name
    program.write_text(f"#!/bin/sh\n{text}\n")
    program.chmod(0o755)


@pytest.fixture
def bare_host(tmp_path: Path) -> Path:
    for name, text in _PROGRAMS.items():
        add_program(tmp_path, name, text)
    for name in _OWN_TOOLS:
        tool = shutil.which(name)
        assert tool is not None
        (tmp_path / name).symlink_to(tool)
    return tmp_path


def set_up(host: Path, *words: str) -> "subprocess.CompletedProcess[str]":
    environment = {**os.environ, "PATH": str(host), "ASKED": str(host / "asked")}
    environment.pop("DEBIAN_FRONTEND", None)
    return subprocess.run([str(_SETUP), *words], env=environment, text=True, timeout=30,
                          input="typed ahead\n", stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          check=False)


def asked_for(host: Path, *words: str) -> Set[str]:
    done = set_up(host, *words)
    assert done.returncode == 0, done.stderr
    asked = host / "asked"
    packages = {word for word in asked.read_text().split()[1:] if not word.startswith("-")}
    asked.unlink()
    return packages


def test_each_purpose_includes_those_before_it(bare_host: Path) -> None:
    building = asked_for(bare_host, "build")
    packaging = asked_for(bare_host, "package")
    testing = asked_for(bare_host, "test")
    releasing = asked_for(bare_host, "release")
    assert {"g++", "cmake"} < building < packaging < testing < releasing
    assert asked_for(bare_host) == testing


def test_building_installs_the_http_server_of_the_controller(bare_host: Path) -> None:
    assert "libmicrohttpd-dev" in asked_for(bare_host, "build")
    assert "libnftables-dev" in asked_for(bare_host, "build")


def test_packaging_installs_the_tools_that_find_a_programs_libraries(bare_host: Path) -> None:
    # Without dpkg-shlibdeps CPack makes packages without dependencies on libraries and only warns.
    assert {"dpkg-dev", "file"} <= asked_for(bare_host, "package")


def test_unknown_purpose_is_refused(bare_host: Path) -> None:
    done = set_up(bare_host, "packages")
    assert done.returncode == 2
    assert "scripts/setup [build|package|test|release]" in done.stderr
    assert not (bare_host / "asked").exists()


def test_testing_installs_the_programs_without_which_tests_are_skipped(bare_host: Path) -> None:
    # The package systemd contains systemd-analyze.
    assert {"curl", "python3-yaml", "systemd", "tshark", "iproute2", "strace"} <= asked_for(bare_host, "test")


@pytest.mark.parametrize("version, requested", [("v16.20.2", True), ("v18.0.0", False), ("v20.20.2", False)])
def test_testing_leaves_a_recent_node_in_place(bare_host: Path, version: str, requested: bool) -> None:
    assert "nodejs" in asked_for(bare_host, "test")
    add_program(bare_host, "node", f"echo {version}")
    packages = asked_for(bare_host, "test")
    assert ("nodejs" in packages) == requested
    assert {"golang-go", "node-typescript"} <= packages


@pytest.mark.parametrize("user", ["0", "1000"])
def test_only_the_packages_and_the_time_are_printed(bare_host: Path,
                                                    user: str) -> None:
    add_program(bare_host, "id", f"echo {user}")
    # Passes no variable on, as sudo does.
    add_program(bare_host, "sudo", 'exec env -i PATH="$PATH" ASKED="$ASKED" "$@"')
    add_program(bare_host, "apt-get", _NOISY_APT)
    done = set_up(bare_host, "build")
    assert (done.returncode, done.stderr) == (0, "")
    (line,) = done.stdout.splitlines()
    assert re.match(r"Installing \d+ packages, which takes about \d+ minutes?: .*\bcmake\b", line)
    # Input that was typed ahead is not read as an answer.
    assert (bare_host / "asked").read_text() == "front end noninteractive\n"


def test_failure_of_apt_get_is_shown(bare_host: Path) -> None:
    add_program(bare_host, "apt-get", 'echo "E: no such host"; exit 100')
    done = set_up(bare_host, "build")
    assert done.returncode == 1
    assert "E: no such host" in done.stderr
    assert "apt-get install" in done.stderr.splitlines()[-1]


def test_without_root_and_sudo_one_line_names_the_packages(bare_host: Path) -> None:
    add_program(bare_host, "id", "echo 1000")
    done = set_up(bare_host, "build")
    assert done.returncode == 1
    assert done.stdout == ""
    (line,) = done.stderr.splitlines()
    assert re.search(r"apt-get install .*\bg\+\+ .*\bcmake\b", line)
    assert not (bare_host / "asked").exists()
