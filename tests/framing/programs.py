"""Runs programs."""

from __future__ import annotations

import os
import subprocess
from pathlib import Path

ROOT = Path(__file__).parents[2]


def run(*words: object, **variables: object) -> str:
    """The standard output of a program. Fails if the program does."""
    environment = {**os.environ, **{name: str(value) for name, value in variables.items()}}
    done = subprocess.run([str(word) for word in words], env=environment, text=True, timeout=120,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False)
    assert done.returncode == 0, f"{words} ended with {done.returncode}:\n{done.stdout}{done.stderr}"
    return done.stdout
