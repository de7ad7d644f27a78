"""scripts/bench --beside-load: the processors it uses, its output, and when it fails."""

from __future__ import annotations

import json
import os
from pathlib import Path
from typing import Dict

import pytest

from given_tree import GivenTree, Run, bench, values_of

pytestmark = pytest.mark.skipif(not {0, 1} <= os.sched_getaffinity(0),
                                reason="the bench needs processors 0 and 1")

@pytest.fixture
def given(tmp_path: Path) -> GivenTree:
    return GivenTree(tmp_path, "--beside-load")


def verdicts(done: Run) -> Dict[str, str]:
    """The verdict on each forwarder, from the lines after the limit at the end of the output."""
    lines = done.stdout.splitlines()
    start = lines.index("p90 of 1,000/s beside the busy process: at most 1 ms and at most 10 times "
                        "the quiet p90")
    return dict(line.split(maxsplit=1) for line in lines[start + 1:])


SINGLE = ("--match", "^1000/s")


def test_each_condition_uses_its_processors(given: GivenTree) -> None:
    done = given.run({}, "--quick", "--rounds", "1")
    assert done.returncode == 0, done.stderr
    everywhere = sorted(os.sched_getaffinity(0))
    places = {turn["condition"]: (turn["forwarder_on"], turn["own"], turn["company"])
              for turn in given.turns()}
    assert places == {"quiet": ("0", [1], []), "beside": ("0", [1], [[0]]),
                      "shared": (None, everywhere, [])}


def test_every_forwarder_is_measured_with_all_work_in_every_condition(given: GivenTree) -> None:
    done = given.run({}, "--rounds", "2", "--duration", "0.3")
    assert done.returncode == 0, done.stderr
    turns = given.turns()
    work = []
    for turn in turns:
        option = values_of(turn)
        assert (option["--payload"], option["--duration"]) == ("512", "0.3")
        work.append((option.get("--rate"), option["--flows"], turn["condition"], turn["forwarder"]))
    one_round = [(rate, flows, condition, forwarder)
                 for rate, flows in (("1000", "1"), ("2000", "1"), ("20000", "100"),
                                     (None, "1"), (None, "100"), (None, "2000"))
                 for condition in ("quiet", "beside", "shared")
                 for forwarder in ("vesk", "bare-loop")]
    assert work == one_round * 2


@pytest.mark.parametrize(("quiet", "beside", "said"), [
    (90, 500, "0.500 ms, 5.6 times the quiet 0.090 ms: passed"),
    (50, 500, "0.500 ms, 10.0 times the quiet 0.050 ms: passed"),
    (49, 500, "0.500 ms, 10.2 times the quiet 0.049 ms: failed"),
    (900, 1000, "1.000 ms, 1.1 times the quiet 0.900 ms: passed"),
    (900, 1001, "1.001 ms, 1.1 times the quiet 0.900 ms: failed"),
])
def test_the_limit_decides_the_verdict(given: GivenTree, quiet: float, beside: float,
                                       said: str) -> None:
    done = given.run({"vesk": {"quiet": [quiet], "beside": [beside]}}, "--rounds", "1", *SINGLE)
    assert verdicts(done)["vesk"] == said
    failed = said.endswith("failed")
    assert done.returncode == (1 if failed else 0)
    assert ("vesk exceeds the limit" in done.stderr) == failed


@pytest.mark.parametrize(("beside", "status"), [([9000, 100, 200], 0), ([9000, 100, 2000], 1)])
def test_the_medians_of_the_rounds_are_judged(given: GivenTree, beside: list, status: int) -> None:
    done = given.run({"vesk": {"beside": beside}}, "--rounds", "3", *SINGLE)
    assert done.returncode == status, done.stdout


def test_the_verdict_on_other_forwarders_does_not_fail_the_bench(given: GivenTree) -> None:
    done = given.run({"bare-loop": {"beside": [5000]}}, "--rounds", "1", *SINGLE)
    assert verdicts(done)["vesk"].endswith("passed")
    assert "bare-loop    5.000 ms, 50.0 times the quiet 0.100 ms: failed" in done.stdout
    assert done.stdout.endswith("Measure again on a quiet machine.\n")
    assert done.returncode == 0


@pytest.mark.parametrize("options", [("--only", "bare-loop", *SINGLE), ("--match", "^2000/s")])
def test_only_measured_conditions_are_judged(given: GivenTree, options: tuple) -> None:
    done = given.run({}, "--rounds", "1", *options)
    assert verdicts(done)["vesk"] == "not measured"
    assert done.returncode == 0


def test_a_failed_measurement_fails_the_bench(given: GivenTree) -> None:
    done = given.run({"vesk": {"beside": [None]}}, "--rounds", "1", *SINGLE)
    assert "vesk, 1000/s, 512 bytes, 1 flow (single, beside): this turn fails" in done.stderr
    assert verdicts(done)["vesk"] == "not measured"
    assert done.returncode == 1


def test_a_busy_process_that_ends_early_fails_the_measurement(given: GivenTree) -> None:
    done = given.run({"vesk": {"beside": ["alone"]}}, "--rounds", "1", *SINGLE)
    assert "the busy process ended before the measurement did" in done.stderr
    assert verdicts(done)["vesk"] == "not measured"
    assert done.returncode == 1


def test_the_tables_have_this_form(given: GivenTree) -> None:
    done = given.run({"vesk": {"quiet": [90, 80, 110]}}, "--rounds", "3", "--match",
                     "^1000/s|saturation.* 1 flow$")
    assert done.returncode == 0, done.stderr
    assert """
                           p50 us      x                 p90 us      x    p99 us      x   lost
1000/s, 512 bytes, 1 flow
  quiet   vesk                 50   1.00            90 [80-110]   0.90       200   1.00      0
  quiet   bare-loop            50   1.00          100 [100-100]   1.00       200   1.00      0
  beside  vesk                 50   1.00          100 [100-100]   1.00       200   1.00      0
  beside  bare-loop            50   1.00          100 [100-100]   1.00       200   1.00      0
  shared  vesk                 50   1.00          100 [100-100]   1.00       200   1.00      0
  shared  bare-loop            50   1.00          100 [100-100]   1.00       200   1.00      0

                          pairs/s      x        CPU us/datagram      x   lost
saturation, 512 bytes, 1 flow
  quiet   vesk               1000   1.00       5.00 [5.00-5.00]   1.00      0
  quiet   bare-loop          1000   1.00       5.00 [5.00-5.00]   1.00      0
  beside  vesk               1000   1.00       5.00 [5.00-5.00]   1.00      0
  beside  bare-loop          1000   1.00       5.00 [5.00-5.00]   1.00      0
  shared  vesk               1000   1.00       5.00 [5.00-5.00]   1.00      0
  shared  bare-loop          1000   1.00       5.00 [5.00-5.00]   1.00      0

Medians""" in done.stdout, done.stdout


def test_figures_and_verdicts_are_written_as_json(given: GivenTree, tmp_path: Path) -> None:
    file = tmp_path / "figures.json"
    done = given.run({"vesk": {"quiet": [90, 80], "beside": [4000, 3000]}}, "--rounds", "2",
                     *SINGLE, "--json", str(file))
    assert done.returncode == 1
    written = json.loads(file.read_text(encoding="utf-8"))
    rows = {(row["condition"], row["forwarder"]): row for row in written["results"]}
    assert list(rows) == [(condition, forwarder) for condition in ("quiet", "beside", "shared")
                          for forwarder in ("vesk", "bare-loop")]
    assert rows["beside", "vesk"]["p90_us"] == {"median": 3500, "low": 3000, "high": 4000}
    assert rows["beside", "vesk"]["p90_us_ratio"]["median"] == 35
    assert written["judged"]["verdicts"] == [
        {"forwarder": "vesk", "beside_us": 3500, "quiet_us": 85, "passed": False},
        {"forwarder": "bare-loop", "beside_us": 100, "quiet_us": 100, "passed": True}]


def test_the_real_forwarder_can_be_measured() -> None:
    """For any result on this machine the table is complete and the status matches the verdict."""
    done = bench(Path(os.environ["VESK_BINARY"]).resolve().parent, "--beside-load", "--quick",
                 "--rounds", "1", "--duration", "0.2", *SINGLE)
    words = [line.split() for line in done.stdout.splitlines()]
    rows = [line[:2] for line in words if line and line[0] in ("quiet", "beside", "shared")]
    assert rows == [[condition, forwarder] for condition in ("quiet", "beside", "shared")
                    for forwarder in ("vesk", "bare-loop")], done.stdout + done.stderr
    verdict = verdicts(done)["vesk"].split()[-1]
    assert done.returncode == {"passed": 0, "failed": 1}[verdict], done.stderr
