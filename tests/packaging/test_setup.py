"""What scripts/setup asks apt-get for on a host that has none of it."""

from __future__ import annotations

import os
import subprocess
from pathlib import Path
from typing import Set

import pytest

_SETUP = Path(__file__).parents[2] / "scripts/setup"

# Nothing is installed, and what is asked for is written down instead.
_PROGRAMS = {
    "dpkg-query": "exit 1",
    "id": "echo 0",
    "apt-get": 'case $1 in install) echo "$@" >>"$ASKED" ;; esac',
}


@pytest.fixture
def bare_host(tmp_path: Path) -> Path:
    for name, text in _PROGRAMS.items():
        program = tmp_path / name
        program.write_text(f"#!/bin/sh\n{text}\n")
        program.chmod(0o755)
    return tmp_path


def set_up(host: Path, *words: str) -> "subprocess.CompletedProcess[str]":
    environment = {**os.environ, "PATH": f"{host}:{os.environ['PATH']}", "ASKED": str(host / "asked")}
    return subprocess.run([str(_SETUP), *words], env=environment, text=True, timeout=30,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False)


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
    assert {"g++", "cmake"} < building < packaging < testing
    assert asked_for(bare_host) == testing


def test_packaging_gets_what_finds_the_libraries_of_a_program(bare_host: Path) -> None:
    # Without dpkg-shlibdeps CPack makes packages that depend on no library, and says so in passing.
    assert {"dpkg-dev", "file"} <= asked_for(bare_host, "package")


def test_unknown_purpose_is_refused(bare_host: Path) -> None:
    done = set_up(bare_host, "packages")
    assert done.returncode == 2
    assert "scripts/setup [build|package|test]" in done.stderr
    assert not (bare_host / "asked").exists()
