"""Bash completion for the programs, with the files that the packages install."""

from __future__ import annotations

import os
import re
import subprocess
from pathlib import Path
from typing import Set

import pytest

_COMPLETIONS = Path(__file__).resolve().parents[2] / "packaging/completions"
_PROGRAMS = {"vesk-controller": "VESK_CONTROLLER", "vesk-traffic": "VESK_TRAFFIC"}

# Completes the last word as Bash does.
_COMPLETE = """
source "$1"
shift
complete=$(complete -p "${1##*/}")
[[ $complete =~ -F\\ ([^ ]+) ]] || exit 1
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)) COMPREPLY=()
COMP_LINE="$*" COMP_POINT=${#COMP_LINE}
"${BASH_REMATCH[1]}" "$1" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
printf '%s\\n' "${COMPREPLY[@]}"
"""


def offered(folder: Path, program: str, *words: str) -> Set[str]:
    """Runs without the helpers of the package bash-completion, which may be missing."""
    done = subprocess.run(["bash", "--norc", "-c", _COMPLETE, "complete", str(_COMPLETIONS / program),
                           os.environ[_PROGRAMS[program]], *words], cwd=folder, capture_output=True,
                          text=True, check=False, timeout=30)
    assert (done.returncode, done.stderr) == (0, "")
    return set(done.stdout.split())


@pytest.mark.parametrize("program", _PROGRAMS)
def test_every_option_is_offered(tmp_path: Path, program: str) -> None:
    said = subprocess.run([os.environ[_PROGRAMS[program]], "--help"], check=True, text=True,
                          stdout=subprocess.PIPE, timeout=30).stdout
    options = set(re.findall(r"(?m)^\s+(?:-\w,)?(--[a-z-]+)", said))
    assert {"--help", "--version"} < options
    assert offered(tmp_path, program, "-") == options


def test_partial_option_is_completed(tmp_path: Path) -> None:
    assert offered(tmp_path, "vesk-controller", "--all") == {"--allow-readable-keys"}
    assert offered(tmp_path, "vesk-traffic", "--print-t") == {"--print-toml"}


def test_controller_is_offered_its_files(tmp_path: Path) -> None:
    for name in ("edge.toml", "edge.key", "other.toml"):
        (tmp_path / name).touch()
    (tmp_path / "folder").mkdir()
    assert offered(tmp_path, "vesk-controller", "") == {"edge.toml", "other.toml", "folder"}
    assert offered(tmp_path, "vesk-controller", "--check", "ed") == {"edge.toml"}
    # A program may have any name.
    assert offered(tmp_path, "vesk-controller", "--program", "edge") == {"edge.toml", "edge.key"}


def test_generator_is_offered_the_values_of_an_option(tmp_path: Path) -> None:
    assert offered(tmp_path, "vesk-traffic", "--framing", "") == {"udpv1", "udpv2"}
    assert offered(tmp_path, "vesk-traffic", "--algorithm", "sha") == {"sha1", "sha256"}


def test_words_after_the_generators_dashes_are_not_completed(tmp_path: Path) -> None:
    assert offered(tmp_path, "vesk-traffic", "--", "-") == set()
