"""The languages that have a framing library, and how the two programs of each are run. README.md describes the
programs."""

from __future__ import annotations

import os
import shutil
import subprocess
import sys
from dataclasses import dataclass, field
from pathlib import Path
from typing import Callable, Dict, List

import pytest

ROOT = Path(__file__).resolve().parents[2]


@dataclass(frozen=True)
class Commands:
    """The beginning of both command lines, and variables for both programs."""

    echo: List[str]
    peer: List[str]
    environment: Dict[str, str] = field(default_factory=dict)


@dataclass(frozen=True)
class Language:
    name: str
    # The program that has to be installed.
    tool: str
    # Builds the programs if necessary, in the folder that it is given.
    prepare: Callable[[Path], Commands]


def _python(_: Path) -> Commands:
    folder = ROOT / "languages/python"
    program = [sys.executable, "-B"]
    return Commands([*program, str(folder / "examples/echo.py")], [*program, str(folder / "examples/peer.py")],
                    {"PYTHONPATH": str(folder / "src")})


LANGUAGES = [
    Language("python", sys.executable, _python),
]


def build(folder: Path, *words: str) -> None:
    """Runs a command that builds a program, in the language's folder. Fails if the command does."""
    done = subprocess.run(words, cwd=folder, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          timeout=300, check=False)
    assert done.returncode == 0, f"{words} ended with {done.returncode}:\n{done.stdout}"


@pytest.fixture(scope="module", params=LANGUAGES, ids=lambda language: language.name)
def commands(request: pytest.FixtureRequest, tmp_path_factory: pytest.TempPathFactory) -> Commands:
    """The programs of each language in turn."""
    language: Language = request.param
    if shutil.which(language.tool) is None:
        pytest.skip(f"{language.tool} is not installed")
    prepared = language.prepare(tmp_path_factory.mktemp(language.name))
    return Commands(prepared.echo, prepared.peer, {**os.environ, **prepared.environment})
