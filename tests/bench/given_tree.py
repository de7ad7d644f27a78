"""A build tree whose traffic generator reports given figures, and the bench that measures it."""

from __future__ import annotations

import json
import os
import shutil
import subprocess
import sys
from pathlib import Path
from typing import Dict, List

ROOT = Path(__file__).resolve().parent.parent.parent
DEADLINE_SECONDS = 60

Run = "subprocess.CompletedProcess[str]"


def bench(tree: Path, *options: str, **environment: str) -> Run:
    return subprocess.run([sys.executable, "-B", str(ROOT / "scripts/bench"), "--build", str(tree),
                           *options], capture_output=True, text=True, check=False,
                          timeout=DEADLINE_SECONDS, env={**os.environ, **environment})


class GivenTree:
    """The tree is in `folder`; `always` are options of every run of the bench."""

    def __init__(self, folder: Path, *always: str) -> None:
        self._folder = folder
        self._always = always
        (folder / "bench").mkdir()
        shutil.copy(Path(__file__).parent / "given_traffic.py", folder / "vesk-traffic")
        for program in ("vesk", "bench/bare-loop", "bench/batched-loop"):
            (folder / program).touch()

    def run(self, figures: Dict[str, Dict[str, list]], *options: str) -> Run:
        (self._folder / "figures").write_text(json.dumps(figures), encoding="utf-8")
        return bench(self._folder, *self._always, *options, VESK_GIVEN=str(self._folder))

    def turns(self) -> List[dict]:
        lines = (self._folder / "turns").read_text(encoding="utf-8").splitlines()
        return [json.loads(line) for line in lines]


def values_of(turn: dict) -> Dict[str, str]:
    """The options of the generator that have a value."""
    words = turn["options"]
    return {name: value for name, value in zip(words, words[1:])
            if name.startswith("--") and not value.startswith("--")}
