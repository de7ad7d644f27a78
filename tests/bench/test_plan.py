"""scripts/bench without a mode: the rows it measures, their selection and its output."""

from __future__ import annotations

import json
import os
from itertools import product
from pathlib import Path
from typing import List

import pytest

from compare import scenarios
from given_tree import GivenTree, bench, values_of

pytestmark = pytest.mark.skipif(not {0, 1} <= os.sched_getaffinity(0),
                                reason="the bench needs processors 0 and 1")

ONE_FORWARDER = ("--only", "vesk", "--rounds", "1")


@pytest.fixture
def given(tmp_path: Path) -> GivenTree:
    return GivenTree(tmp_path)


def work_of(turn: dict) -> tuple:
    """Pace, payload, flows, algorithm, generator and condition of a turn."""
    option = values_of(turn)
    pace = option.get("--rate", "saturation") + (f"/{option['--burst']}" if "--burst" in option else "")
    return (pace, option["--payload"], option["--flows"], option["--algorithm"],
            "merged" if "--merge-sends" in turn["options"] else "single", turn["condition"])


def measured(given: GivenTree, *options: str) -> List[tuple]:
    done = given.run({}, *ONE_FORWARDER, *options)
    assert done.returncode == 0, done.stderr
    return [work_of(turn) for turn in given.turns()]


def rows(paces: tuple, payloads: tuple, generators: tuple = ("single", "merged"),
         conditions: tuple = ("quiet",)) -> set:
    return set(product(paces, payloads, ("1", "100", "2000"), ("sha256",), generators, conditions))


def test_everything_is_measured(given: GivenTree) -> None:
    work = measured(given)
    assert len(work) == len(set(work))
    assert set(work) == (
        rows(("saturation",), ("64", "512", "1200")) | rows(("20000/16",), ("512",))
        | rows(("20000",), ("512",), conditions=("quiet", "shared"))
        | rows(("1000",), ("512",), generators=("single",))
        | {("saturation", "512", "8000", "sha256", "single", "quiet"),
           ("saturation", "512", "100", "sha1", "single", "quiet"),
           ("saturation", "512", "100", "none", "single", "quiet")})


def test_a_first_look_is_short() -> None:
    plan = scenarios.quick_plan()
    seconds = len(plan.scenarios) * plan.rounds * (plan.warm_up + plan.duration)
    assert 3 * seconds < 45, "with three forwarders, besides the time to start"
    assert {one.generator for one in plan.scenarios} == set(scenarios.Generator)
    assert {one.burst for one in plan.scenarios} == {1, 16}


@pytest.mark.parametrize(("pattern", "selected"), [
    (r"^saturation, 512 bytes, (1|100|2000) flows? \(single",
     rows(("saturation",), ("512",), ("single",))),
    (r"^saturation, 512 bytes, (1|100|2000) flows? \(merged",
     rows(("saturation",), ("512",), ("merged",))),
    (r"^20000/s in bursts of 16", rows(("20000/16",), ("512",))),
    (r"^20000/s, .*\(single, quiet", rows(("20000",), ("512",), ("single",))),
    (r"shared", rows(("20000",), ("512",), conditions=("shared",))),
    (r"^1000/s.* flows$", {("1000", "512", flows, "sha256", "single", "quiet")
                           for flows in ("100", "2000")}),
    (r"sha1|no keys", {("saturation", "512", "100", algorithm, "single", "quiet")
                       for algorithm in ("sha1", "none")}),
])
def test_a_pattern_selects_rows(given: GivenTree, pattern: str, selected: set) -> None:
    assert set(measured(given, "--match", pattern)) == selected


def test_a_pattern_without_rows_fails(given: GivenTree) -> None:
    done = given.run({}, "--match", "bursts of 17")
    assert (done.returncode, done.stderr) == (1, "nothing matches bursts of 17\n")


def test_rows_are_named_in_table_and_json(given: GivenTree, tmp_path: Path) -> None:
    file = tmp_path / "figures.json"
    done = given.run({}, *ONE_FORWARDER, "--json", str(file), "--match",
                     r"bursts.* 100 flows \(merged|sha1|, 100 flows \(single, shared")
    titles = [line for line in done.stdout.splitlines() if line.endswith(")") and "bytes" in line]
    assert titles == ["20000/s, 512 bytes, 100 flows (single, shared)",
                      "20000/s in bursts of 16, 512 bytes, 100 flows (merged, quiet)",
                      "saturation, 512 bytes, 100 flows, sha1 (single, quiet)"]
    keys = ("rate", "burst", "generator", "algorithm", "condition", "forwarder")
    results = json.loads(file.read_text(encoding="utf-8"))["results"]
    assert [tuple(row[key] for key in keys) for row in results] == [
        (20000, 1, "single", "sha256", "shared", "vesk"),
        (20000, 16, "merged", "sha256", "quiet", "vesk"),
        (None, 1, "single", "sha1", "quiet", "vesk")]


def test_real_programs_can_be_measured_with_every_kind_of_row() -> None:
    tree = Path(os.environ["VESK_BINARY"]).resolve().parent
    done = bench(tree, "--rounds", "1", "--duration", "0.1", "--match",
                 r"^(20000/s|saturation, 512).* 100 flows")
    assert done.returncode == 0, done.stderr
    forwarders = [line.split()[0] for line in done.stdout.splitlines()
                  if line.startswith(("vesk ", "bare-loop ", "batched-loop "))]
    assert forwarders == ["vesk", "bare-loop", "batched-loop"] * 10
