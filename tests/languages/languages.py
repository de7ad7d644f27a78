"""The languages that have a framing library, and how the two programs of each are run. README.md describes the
programs."""

from __future__ import annotations

import os
import sys
from dataclasses import dataclass, field
from pathlib import Path
from typing import Callable, Dict, List

import pytest

from tools import ROOT, need, run


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


def _go(folder: Path) -> Commands:
    run(ROOT / "languages/go", "go", "build", "-o", str(folder), "./examples/echo", "./examples/peer")
    return Commands([str(folder / "echo")], [str(folder / "peer")])


def _javascript(_: Path) -> Commands:
    examples = ROOT / "languages/javascript/examples"
    return Commands(["node", str(examples / "echo.js")], ["node", str(examples / "peer.js")])


LANGUAGES = [
    Language("python", sys.executable, _python),
    Language("go", "go", _go),
    Language("javascript", "node", _javascript),
]


@pytest.fixture(scope="module", params=LANGUAGES, ids=lambda language: language.name)
def commands(request: pytest.FixtureRequest, tmp_path_factory: pytest.TempPathFactory) -> Commands:
    """The programs of each language in turn."""
    language: Language = request.param
    need(language.tool)
    prepared = language.prepare(tmp_path_factory.mktemp(language.name))
    return Commands(prepared.echo, prepared.peer, {**os.environ, **prepared.environment})
