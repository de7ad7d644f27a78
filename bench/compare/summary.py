"""Computes medians, spreads and ratios from single measurements, and prints the table."""

import statistics
from dataclasses import dataclass

# Ratios are relative to this forwarder, measured in the same round.
FLOOR = "bare-loop"

RELATED = ("cpu_us_per_datagram", "reply_rate", "p50_us", "p90_us", "p99_us")
FIGURES = (*RELATED, "lost")


@dataclass(frozen=True)
class Spread:
    median: float
    low: float
    high: float

    @classmethod
    def of(cls, values: list) -> "Spread":
        return cls(statistics.median(values), min(values), max(values))

    def text(self, decimals: int) -> str:
        return (f"{self.median:.{decimals}f} "
                f"[{self.low:.{decimals}f}-{self.high:.{decimals}f}]")


def summarise(runs: dict) -> dict:
    """Takes and returns a dict of dicts, by scenario and forwarder. The values are lists with the
    result of each round, None for a failed one. The returned values are the spread of each figure and
    of its ratio to the floor."""
    summary = {}
    for scenario, by_forwarder in runs.items():
        floor = by_forwarder.get(FLOOR)
        summary[scenario] = {}
        for forwarder, rounds in by_forwarder.items():
            measured = [one for one in rounds if one]
            if not measured:
                continue
            figures = {key: Spread.of([one[key] for one in measured]) for key in FIGURES}
            pairs = [(one, base) for one, base in zip(rounds, floor or []) if one and base]
            for key in RELATED if pairs else ():
                figures[f"{key}_ratio"] = Spread.of([one[key] / base[key] for one, base in pairs])
            summary[scenario][forwarder] = figures
    return summary


def print_table(summary: dict) -> None:
    header = (f"{'':14}{'CPU us/datagram':>22}{'ratio':>20}{'replies/s':>12}"
              f"{'p50 us':>10}{'p99 us':>10}{'lost':>7}")
    for scenario, by_forwarder in summary.items():
        print(f"\n{scenario.title}\n{header}")
        for forwarder, figures in by_forwarder.items():
            ratio = figures.get("cpu_us_per_datagram_ratio")
            print(f"{forwarder:14}{figures['cpu_us_per_datagram'].text(2):>22}"
                  f"{ratio.text(2) if ratio else '-':>20}"
                  f"{figures['reply_rate'].median:>12.0f}{figures['p50_us'].median:>10.1f}"
                  f"{figures['p99_us'].median:>10.1f}{figures['lost'].median:>7.0f}")
    print(f"\nMedians over the rounds, [lowest-highest]; ratios are to {FLOOR} in the same round.")


def as_json(summary: dict) -> list:
    return [{"payload": scenario.payload, "flows": scenario.flows, "rate": scenario.rate,
             "burst": scenario.burst, "generator": scenario.generator.value,
             "algorithm": scenario.algorithm, "condition": scenario.condition.value,
             "forwarder": forwarder,
             **{key: vars(spread) for key, spread in figures.items()}}
            for scenario, by_forwarder in summary.items()
            for forwarder, figures in by_forwarder.items()]
