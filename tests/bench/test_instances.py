"""How the bench searches the highest rate that several instances take."""

from __future__ import annotations

from pathlib import Path

import pytest

from compare import instances


@pytest.mark.parametrize("limit", [19_999, 20_000, 33_000, 90_000])
def test_the_highest_rate_is_found_from_below(monkeypatch: pytest.MonkeyPatch, limit: int) -> None:
    monkeypatch.setattr(instances, "holds", lambda build, rate, seconds: rate <= limit)
    found = instances.highest_rate(Path(), 1)
    assert 0.7 * limit <= found <= limit


def test_one_attempt_without_losses_is_enough(monkeypatch: pytest.MonkeyPatch) -> None:
    def reports(*each: dict) -> None:
        left = iter(each)
        monkeypatch.setattr(instances, "send", lambda *_: (next(left), 0.0))

    lossy, slow = {"sent": 1000, "lost": 2}, {"sent": 900, "lost": 0}
    good = {"sent": 1000, "lost": 1}
    reports(lossy, slow, good)
    assert instances.holds(Path(), 1000, 1)
    reports(lossy, slow, lossy)
    assert not instances.holds(Path(), 1000, 1)


def test_figures_are_medians_with_their_range() -> None:
    turns = [instances.Turn(time, 0.5, 1.0) for time in (3.0, 1.0, 2.0)]
    figures = instances.summarise(turns, [30.0, 10.0, 20.0])
    assert figures["us_per_pair"] == {"median": 2.0, "least": 1.0, "most": 3.0}
    assert figures["highest_rate"] == {"median": 20.0, "least": 10.0, "most": 30.0}
