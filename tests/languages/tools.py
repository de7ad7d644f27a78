"""Runs the tools of Go and JavaScript without network, and skips tests without them."""

from __future__ import annotations

import os
import re
import shutil
import subprocess
from pathlib import Path
from typing import Dict

import pytest

ROOT = Path(__file__).resolve().parents[2]
_OLDEST_NODE = 18

# Go neither fetches a module nor asks git for the state of the tree.
GO_VARIABLES: Dict[str, str] = {"GOFLAGS": "-mod=mod -buildvcs=false", "GOPROXY": "off", "GOTOOLCHAIN": "local"}


def run(folder: Path, *words: str, **variables: str) -> str:
    """What a command writes, in this folder. Fails if the command does."""
    done = subprocess.run(words, cwd=folder, env={**os.environ, **GO_VARIABLES, **variables}, text=True, timeout=300,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
    assert done.returncode == 0, f"{words} ended with {done.returncode}:\n{done.stdout}"
    return done.stdout


def need(tool: str) -> None:
    """Skips the test if the tool is not installed, or if Node.js is too old."""
    if shutil.which(tool) is None:
        pytest.skip(f"{tool} is not installed")
    if tool == "node":
        version = run(ROOT, "node", "--version").strip()
        found = re.match(r"v(\d+)\.", version)
        if found is None or int(found[1]) < _OLDEST_NODE:
            pytest.skip(f"node {version} is older than {_OLDEST_NODE}")
