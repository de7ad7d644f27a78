"""Valid traffic from a separate process that checks every answer it receives."""

from __future__ import annotations

import json
import os
import subprocess
from dataclasses import dataclass
from pathlib import Path
from typing import List, Sequence

from framework.udp import free_port
from framework.vesk_process import VeskProcess, binary


def traffic_program() -> str:
    beside = Path(binary()).parent / "vesk-traffic"
    return os.environ.get("VESK_TRAFFIC", str(beside))


@dataclass(frozen=True)
class Outcome:
    """The result of a round. `lost` requests got no answer, `late` ones got it too late."""

    sent: int
    lost: int
    late: int
    wrong: int
    request_rate: float
    p999_us: float


class GoodTraffic:
    """A group of flows through a running forwarder, and rounds of traffic on them."""

    def __init__(self, forwarder_port: int, flows: int, label_base: int, framing: str = "udpv2",
                 loss_timeout: float = 1.0, seed: int = 1) -> None:
        self.flows = flows
        self._upstream_port = free_port()
        self._words = [traffic_program(), "--framing", framing, "--flows", str(flows),
                       "--label-base", str(label_base), "--port", str(forwarder_port),
                       "--upstream-port", str(self._upstream_port), "--seed", str(seed),
                       "--loss-timeout", str(loss_timeout), "--payload", "200",
                       "--verify-every", "1"]

    def set_commands(self) -> List[str]:
        """The commands that declare the flows, one line each."""
        printed = subprocess.run([*self._words, "--print-commands"], check=True, text=True,
                                 stdout=subprocess.PIPE).stdout
        return [line for line in printed.splitlines() if line.startswith("set ")]

    def declare(self, vesk: VeskProcess) -> List[str]:
        commands = self.set_commands()
        complaints = vesk.lines_after(*commands)
        assert not complaints, complaints
        return commands

    def round(self, seconds: float, rate: float = 0.0, window: int = 64,
              options: Sequence[str] = ()) -> "Round":
        """Starts traffic for a number of seconds; without a rate, as fast as answers arrive."""
        pace = ["--rate", f"{rate:.0f}"] if rate else ["--window", str(window)]
        return Round([*self._words, *pace, "--duration", f"{seconds:g}", "--warm-up", "0.2",
                      "--json", "--allow-loss", *options])


class Round:
    """One running round."""

    def __init__(self, words: List[str]) -> None:
        self._process = subprocess.Popen(words, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                         text=True)

    def running(self) -> bool:
        return self._process.poll() is None

    def outcome(self, patience: float = 60.0) -> Outcome:
        printed, complaints = self._process.communicate(timeout=patience)
        assert printed, f"no report of the traffic: {complaints}"
        seen = json.loads(printed)
        return Outcome(sent=int(seen["sent"]), lost=int(seen["lost"]) - int(seen["late"]),
                       late=int(seen["late"]), wrong=int(seen["wrong"]) + int(seen["unexpected"]),
                       request_rate=seen["request_rate"], p999_us=seen["p999_us"])

    def abandon(self) -> None:
        if self.running():
            self._process.kill()
        self._process.communicate()

    def __enter__(self) -> "Round":
        return self

    def __exit__(self, *_: object) -> None:
        self.abandon()
