"""Runs vesk-traffic beside the test, with labels that all instances share."""

from __future__ import annotations

import json
import os
import subprocess
from typing import Dict, List, Sequence

from framework.timing import scaled

PORT = 4500
# In seconds; a limit for a test that does not end the traffic.
_LONGEST = 100
_DEFAULTS = {"--label-step": 65536, "--port": PORT, "--upstream-port": 5000}


def _words(*more: object) -> List[str]:
    words = list(map(str, more))
    for option, value in _DEFAULTS.items():
        if option not in words:
            words += [option, str(value)]
    return [os.environ["VESK_TRAFFIC"], *words]


def configuration_text(flows: int, *options: object) -> str:
    """The tables of the file with the generator's flows."""
    return subprocess.run(_words("--flows", flows, *options, "--print-toml"), check=True,
                          capture_output=True, text=True).stdout


class Generator:
    """Sends at a fixed rate until its result is asked for, and verifies every reply."""

    def __init__(self, process: int, flows: int, rate: int, *options: object,
                 prefix: Sequence[str] = ()) -> None:
        # The id of a process that outlives the traffic is required; the time that it uses is not looked at.
        self._process = subprocess.Popen(
            [*prefix, *_words("--flows", flows, "--rate", rate, "--duration", _LONGEST,
                              "--loss-timeout", 1, "--verify-every", 1, "--pid", process,
                              "--allow-loss", "--json", *options)],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

    def result(self) -> Dict[str, float]:
        """Ends the traffic."""
        assert self._process.poll() is None, "the traffic ended too early for this check"
        self._process.terminate()
        printed, said = self._process.communicate(timeout=scaled(20))
        assert printed, said
        counts: Dict[str, float] = json.loads(printed)
        assert counts["sent"] > 0
        return counts

    def check_nothing_lost(self) -> Dict[str, float]:
        """Ends the traffic; returns its counts."""
        counts = self.result()
        assert not any(counts[name] for name in ("lost", "late", "wrong", "unexpected")), counts
        return counts

    def end(self) -> None:
        self._process.kill()
        self._process.communicate()
