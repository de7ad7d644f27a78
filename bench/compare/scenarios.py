"""The work for every forwarder, and the length of each measurement."""

from dataclasses import dataclass
from enum import Enum
from typing import Optional

PAYLOADS = (64, 512, 1200)
FLOWS = (1, 100, 2000)
MANY_FLOWS = 8_000
BURST = 16
QUIET_RATE = 20_000
ROUND_TRIP_RATE = 1_000


class Condition(Enum):
    """The other use of the processors while a forwarder is measured."""

    QUIET = "quiet"  # none; the forwarder has one processor and the generator another
    BESIDE = "beside"  # the same, but a busy process shares the forwarder's processor
    SHARED = "shared"  # forwarder and generator run on any processor


class Generator(Enum):
    """How the generator passes datagrams to the kernel and takes them."""

    SINGLE = "single"  # each as a message of its own
    MERGED = "merged"  # consecutive ones of one length and destination as one message


@dataclass(frozen=True)
class Scenario:
    payload: int
    flows: int
    rate: Optional[int]  # requests a second; None is saturation
    condition: Condition = Condition.QUIET
    burst: int = 1  # consecutive requests of one flow, sent back to back
    generator: Generator = Generator.SINGLE
    algorithm: str = "sha256"

    @property
    def name(self) -> str:
        """The name of the work, which is the same in all conditions and with either generator."""
        pace = f"{self.rate}/s" if self.rate else "saturation"
        bursts = f" in bursts of {self.burst}" if self.burst > 1 else ""
        keys = {"sha256": "", "none": ", no keys"}.get(self.algorithm, f", {self.algorithm}")
        return (f"{pace}{bursts}, {self.payload} bytes, "
                f"{self.flows} flow{'s' if self.flows > 1 else ''}{keys}")

    @property
    def title(self) -> str:
        return f"{self.name} ({self.generator.value}, {self.condition.value})"


@dataclass(frozen=True)
class Plan:
    scenarios: tuple
    rounds: int
    warm_up: float
    duration: float


def full_plan() -> Plan:
    scenarios = [one for generator in Generator for one in _with_either_generator(generator)]
    scenarios.append(Scenario(512, MANY_FLOWS, None))
    scenarios += [Scenario(512, 100, None, algorithm=algorithm) for algorithm in ("sha1", "none")]
    scenarios += [Scenario(512, flows, ROUND_TRIP_RATE) for flows in FLOWS]
    return Plan(tuple(scenarios), rounds=7, warm_up=0.3, duration=1.0)


def quick_plan() -> Plan:
    scenarios = [Scenario(512, flows, None) for flows in FLOWS]
    scenarios += [Scenario(512, 1, None, generator=Generator.MERGED),
                  Scenario(512, 100, QUIET_RATE, burst=BURST),
                  Scenario(512, 100, QUIET_RATE), Scenario(512, 1, ROUND_TRIP_RATE)]
    return Plan(tuple(scenarios), rounds=2, warm_up=0.2, duration=0.6)


def _with_either_generator(generator: Generator) -> list:
    saturation = [Scenario(payload, flows, None, generator=generator)
                  for payload in PAYLOADS for flows in FLOWS]
    bursts = [Scenario(512, flows, QUIET_RATE, burst=BURST, generator=generator)
              for flows in FLOWS]
    even = [Scenario(512, flows, QUIET_RATE, condition, generator=generator)
            for condition in (Condition.QUIET, Condition.SHARED) for flows in FLOWS]
    return saturation + bursts + even
