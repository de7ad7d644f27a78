"""The chart of processor time per datagram, as SVG. The only part that needs matplotlib."""

from pathlib import Path

from compare.scenarios import FLOWS, PAYLOADS, QUIET_RATE, Scenario

COLOURS = {"vesk": "#1f6feb", "bare-loop": "#8b949e", "batched-loop": "#c9d1d9",
           "nginx": "#d29922"}


def _bars(axes, summary: dict, scenarios: list, labels: list, title: str) -> None:
    measured = [(scenario, label) for scenario, label in zip(scenarios, labels)
                if scenario in summary]
    forwarders = [name for name in COLOURS if any(name in summary[scenario]
                                                  for scenario, _ in measured)]
    width = 0.8 / max(1, len(forwarders))
    for place, forwarder in enumerate(forwarders):
        spreads = [(x, summary[scenario][forwarder]["cpu_us_per_datagram"])
                   for x, (scenario, _) in enumerate(measured) if forwarder in summary[scenario]]
        positions = [x + (place - (len(forwarders) - 1) / 2) * width for x, _ in spreads]
        axes.bar(positions, [spread.median for _, spread in spreads], width,
                 yerr=[[spread.median - spread.low for _, spread in spreads],
                       [spread.high - spread.median for _, spread in spreads]],
                 error_kw={"linewidth": 0.8}, color=COLOURS[forwarder], label=forwarder)
    axes.set_xticks(range(len(measured)), [label for _, label in measured])
    axes.set_title(title, fontsize=10)
    axes.grid(axis="y", linewidth=0.3)
    axes.set_axisbelow(True)


def draw(summary: dict, path: Path) -> None:
    import matplotlib
    matplotlib.use("svg")
    from matplotlib import pyplot
    pyplot.rcParams["svg.hashsalt"] = "vesk"  # the same figures give the same file
    figure, (by_flows, by_payload, quiet) = pyplot.subplots(1, 3, figsize=(12, 3.8))
    _bars(by_flows, summary, [Scenario(512, flows, None) for flows in FLOWS],
          [f"{flows} flows" if flows > 1 else "1 flow" for flows in FLOWS],
          "saturation, 512 bytes")
    _bars(by_payload, summary, [Scenario(payload, 100, None) for payload in PAYLOADS],
          [f"{payload} bytes" for payload in PAYLOADS], "saturation, 100 flows")
    _bars(quiet, summary, [Scenario(512, flows, QUIET_RATE) for flows in FLOWS],
          [f"{flows} flows" if flows > 1 else "1 flow" for flows in FLOWS],
          f"{QUIET_RATE:,} pairs a second, 512 bytes")
    by_flows.set_ylabel("processor time per datagram, µs")
    by_flows.legend(fontsize=8)
    figure.tight_layout()
    figure.savefig(path, metadata={"Date": None})
