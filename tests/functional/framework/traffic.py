"""Runs the traffic generator."""

from __future__ import annotations

import json
import os
import subprocess
from pathlib import Path
from typing import Sequence

from .vesk_process import binary


def generator() -> str:
    return os.environ.get("VESK_TRAFFIC", str(Path(binary()).parent / "vesk-traffic"))


def run_generator(*words: object,
                  before: Sequence[str] = ()) -> "subprocess.CompletedProcess[str]":
    return subprocess.run([*before, generator(), *map(str, words)], capture_output=True, text=True,
                          check=False, timeout=60)


def figures(*words: object, before: Sequence[str] = ()) -> dict:
    """The report of a run without losses and faults."""
    done = run_generator("--json", "--warm-up", 0, "--duration", 20, "--loss-timeout", 5,
                         "--verify-every", 1, *words, before=before)
    assert done.returncode == 0, done.stdout + done.stderr
    report = json.loads(done.stdout)
    assert report["answered"] == report["sent"] > 0
    return report
