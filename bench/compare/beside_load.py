"""The mode --beside-load: the same work on quiet processors, beside a busy process, and with all
processors shared, and the limit that the forwarder must meet.
"""

import os
import sys
from dataclasses import dataclass
from typing import Callable, Optional

from compare.forwarders import FORWARDER_CPU, GENERATOR_CPU
from compare.scenarios import Condition, Plan, Scenario
from compare.summary import FLOOR

PAYLOAD = 512
JUDGED = "vesk"

# One request at a time: a quiet machine answers each request before the next one is due.
SINGLE = (1, 1_000)
PACED = (SINGLE, (1, 2_000), (100, 20_000))  # flows and requests a second
SATURATED = (1, 100, 2_000)  # flows

LIMIT_US = 1_000
LIMIT_TIMES = 10
LIMIT = (f"p90 of {SINGLE[1]:,}/s beside the busy process: at most {LIMIT_US // 1000} ms and "
         f"at most {LIMIT_TIMES} times the quiet p90")


def full_plan() -> Plan:
    return _plan(PACED, SATURATED, rounds=5, warm_up=0.5, duration=2.0)


def quick_plan() -> Plan:
    return _plan((SINGLE, (100, 20_000)), (1,), rounds=2, warm_up=0.2, duration=0.8)


def default_names(with_peers: bool) -> tuple:
    """The forwarders that are measured by default."""
    return (JUDGED, FLOOR, "nginx") if with_peers else (JUDGED, FLOOR)


def require_two_processors() -> None:
    """Exits unless two processors are available: the busy process must not share the generator's."""
    missing = {FORWARDER_CPU, GENERATOR_CPU} - os.sched_getaffinity(0)
    if missing:
        sys.exit(f"needs processors {FORWARDER_CPU} and {GENERATOR_CPU}, one for the forwarder and "
                 "one for the generator")


@dataclass(frozen=True)
class Column:
    """One figure and its ratio to the floor."""

    key: str
    title: str
    decimals: int = 0
    with_range: bool = False

    @property
    def width(self) -> int:
        return 23 if self.with_range else 10

    def cell(self, figures: dict) -> str:
        spread, ratio = figures[self.key], figures.get(f"{self.key}_ratio")
        text = (spread.text(self.decimals) if self.with_range
                else f"{spread.median:.{self.decimals}f}")
        return f"{text:>{self.width}}{f'{ratio.median:.2f}' if ratio else '-':>7}"


PACED_COLUMNS = (Column("p50_us", "p50 us"), Column("p90_us", "p90 us", with_range=True),
                 Column("p99_us", "p99 us"))
SATURATED_COLUMNS = (Column("reply_rate", "pairs/s"),
                     Column("cpu_us_per_datagram", "CPU us/datagram", 2, with_range=True))


@dataclass(frozen=True)
class Verdict:
    """Medians of the rounds in both conditions, and whether they meet the limit."""

    forwarder: str
    beside_us: float
    quiet_us: float

    @property
    def times(self) -> float:
        return self.beside_us / self.quiet_us

    @property
    def passed(self) -> bool:
        return self.beside_us <= LIMIT_US and self.beside_us <= LIMIT_TIMES * self.quiet_us

    def text(self) -> str:
        return (f"{self.forwarder:13}{self.beside_us / 1000:.3f} ms, {self.times:.1f} times the "
                f"quiet {self.quiet_us / 1000:.3f} ms: {'passed' if self.passed else 'failed'}")


def judge(results: dict) -> list:
    """One verdict for each forwarder that was measured in both conditions."""
    flows, rate = SINGLE
    quiet, beside = (results.get(Scenario(PAYLOAD, flows, rate, condition), {})
                     for condition in (Condition.QUIET, Condition.BESIDE))
    return [Verdict(name, beside[name]["p90_us"].median, quiet[name]["p90_us"].median)
            for name in beside if name in quiet]


def verdict_on(forwarder: str, verdicts: list) -> Optional[Verdict]:
    return next((one for one in verdicts if one.forwarder == forwarder), None)


def print_verdicts(verdicts: list) -> None:
    print(f"\n{LIMIT}")
    for verdict in verdicts:
        print(verdict.text())
    if not verdict_on(JUDGED, verdicts):
        print(f"{JUDGED:13}not measured")
    floor = verdict_on(FLOOR, verdicts)
    if floor and not floor.passed:
        print(f"{FLOOR} never yields: if it fails, other programs used the processors.\n"
              "Measure again on a quiet machine.")


def verdicts_as_json(verdicts: list) -> dict:
    return {"limit": LIMIT, "verdicts": [{**vars(one), "passed": one.passed} for one in verdicts]}


def print_tables(results: dict) -> None:
    _print_table(results, lambda scenario: scenario.rate is not None, PACED_COLUMNS)
    _print_table(results, lambda scenario: scenario.rate is None, SATURATED_COLUMNS)
    print("\nMedians over the rounds, [lowest-highest]; "
          f"x is the ratio to {FLOOR} in the same round.")


def _plan(paced: tuple, saturated: tuple, rounds: int, warm_up: float, duration: float) -> Plan:
    work = [*paced, *((flows, None) for flows in saturated)]
    scenarios = tuple(Scenario(PAYLOAD, flows, rate, condition) for flows, rate in work
                      for condition in Condition)
    return Plan(scenarios, rounds, warm_up, duration)


def _print_table(results: dict, belongs: Callable, columns: tuple) -> None:
    chosen = {scenario: rows for scenario, rows in results.items() if belongs(scenario)}
    if not chosen:
        return
    titles = "".join(f"{column.title:>{column.width}}{'x':>7}" for column in columns)
    print(f"\n{'':23}{titles}{'lost':>7}")
    work = None
    for scenario, by_forwarder in chosen.items():
        if scenario.name != work:
            work = scenario.name
            print(work)
        for forwarder, figures in by_forwarder.items():
            cells = "".join(column.cell(figures) for column in columns)
            print(f"  {scenario.condition.value:8}{forwarder:13}{cells}"
                  f"{figures['lost'].median:>7.0f}")
