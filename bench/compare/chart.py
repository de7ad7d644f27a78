"""The chart of processor time per datagram, as SVG. The only part that needs matplotlib."""

import importlib.util
import sys
from pathlib import Path

from compare.scenarios import BURST, FLOWS, PAYLOADS, QUIET_RATE, Generator, Scenario

COLUMNS = 3
COLOURS = {"vesk": "#1f6feb", "bare-loop": "#8b949e", "batched-loop": "#c9d1d9",
           "nginx": "#d29922"}


def require_matplotlib() -> None:
    """Called before the measurement, so that a missing module is reported at once."""
    if importlib.util.find_spec("matplotlib") is None:
        sys.exit("the chart needs matplotlib: apt-get install python3-matplotlib")


def _panels() -> list:
    """Title, and the scenarios of the panel with their labels."""
    flows = {count: f"{count} flows" if count > 1 else "1 flow" for count in FLOWS}

    def by_flows(title: str, rate=None, **details) -> tuple:
        return title, [(Scenario(512, count, rate, **details), label)
                       for count, label in flows.items()]

    bursts = f"bursts of {BURST}, {QUIET_RATE:,} pairs a second"
    return [
        by_flows("saturation, 512 bytes"),
        by_flows("saturation, 512 bytes, sends merged", generator=Generator.MERGED),
        ("saturation, 100 flows",
         [(Scenario(payload, 100, None), f"{payload} bytes") for payload in PAYLOADS]),
        by_flows(bursts, QUIET_RATE, burst=BURST),
        by_flows(f"{bursts}, sends merged", QUIET_RATE, burst=BURST, generator=Generator.MERGED),
        by_flows(f"{QUIET_RATE:,} pairs a second, evenly", QUIET_RATE),
    ]


def _bars(axes, summary: dict, measured: list, forwarders: list) -> None:
    width = 0.8 / len(forwarders)
    for place, forwarder in enumerate(forwarders):
        offset = (place - (len(forwarders) - 1) / 2) * width
        spreads = [(x + offset, summary[scenario][forwarder]["cpu_us_per_datagram"])
                   for x, (scenario, _) in enumerate(measured) if forwarder in summary[scenario]]
        axes.bar([x for x, _ in spreads], [spread.median for _, spread in spreads], width,
                 yerr=[[spread.median - spread.low for _, spread in spreads],
                       [spread.high - spread.median for _, spread in spreads]],
                 error_kw={"linewidth": 0.8}, color=COLOURS[forwarder], label=forwarder)
    axes.set_xticks(range(len(measured)), [label for _, label in measured])
    axes.grid(axis="y", linewidth=0.3)
    axes.set_axisbelow(True)


def draw(summary: dict, path: Path) -> None:
    import matplotlib
    matplotlib.use("svg")
    from matplotlib import pyplot
    pyplot.rcParams["svg.hashsalt"] = "vesk"  # the same figures give the same file
    panels = [(title, [one for one in scenarios if one[0] in summary])
              for title, scenarios in _panels()]
    panels = [(title, measured) for title, measured in panels if measured]
    if not panels:
        sys.exit("the run measured nothing that the chart shows")
    forwarders = [name for name in COLOURS if name in next(iter(summary.values()))]
    columns = min(COLUMNS, len(panels))
    rows = -(-len(panels) // columns)
    figure, all_axes = pyplot.subplots(rows, columns, figsize=(4 * columns, 3.8 * rows),
                                       squeeze=False)
    for axes, (title, measured) in zip(all_axes.flat, panels):
        _bars(axes, summary, measured, forwarders)
        axes.set_title(title, fontsize=10)
    for axes in all_axes.flat[len(panels):]:
        axes.set_visible(False)
    for axes in all_axes[:, 0]:
        axes.set_ylabel("processor time per datagram, µs")
    all_axes[0][0].legend(fontsize=8)
    figure.tight_layout()
    figure.savefig(path, metadata={"Date": None} if path.suffix == ".svg" else None)
