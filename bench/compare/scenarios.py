"""The work for every forwarder, and the length of each measurement."""

from dataclasses import dataclass
from enum import Enum
from typing import Optional

PAYLOADS = (64, 512, 1200)
FLOWS = (1, 100, 2000)
MANY_FLOWS = 8_000
QUIET_RATE = 20_000
ROUND_TRIP_RATE = 1_000


class Condition(Enum):
    """The other use of the processors while a forwarder is measured."""

    QUIET = "quiet"  # none; the forwarder has one processor and the generator another
    BESIDE = "beside"  # the same, but a busy process shares the forwarder's processor
    SHARED = "shared"  # forwarder and generator run on any processor


@dataclass(frozen=True)
class Scenario:
    payload: int
    flows: int
    rate: Optional[int]  # requests a second; None is saturation
    condition: Condition = Condition.QUIET

    @property
    def name(self) -> str:
        """The name of the work, which is the same in all conditions."""
        pace = f"{self.rate}/s" if self.rate else "saturation"
        return f"{pace}, {self.payload} bytes, {self.flows} flow{'s' if self.flows > 1 else ''}"

    @property
    def title(self) -> str:
        return f"{self.name} ({self.condition.value})"


@dataclass(frozen=True)
class Plan:
    scenarios: tuple
    rounds: int
    warm_up: float
    duration: float


def full_plan() -> Plan:
    saturation = [Scenario(payload, flows, None) for payload in PAYLOADS for flows in FLOWS]
    saturation.append(Scenario(512, MANY_FLOWS, None))
    paced = [Scenario(512, flows, rate) for rate in (QUIET_RATE, ROUND_TRIP_RATE)
             for flows in FLOWS]
    return Plan(tuple(saturation + paced), rounds=5, warm_up=0.5, duration=2.0)


def quick_plan() -> Plan:
    scenarios = [Scenario(512, flows, None) for flows in FLOWS]
    scenarios += [Scenario(512, 100, QUIET_RATE), Scenario(512, 1, ROUND_TRIP_RATE)]
    return Plan(tuple(scenarios), rounds=2, warm_up=0.2, duration=0.8)
