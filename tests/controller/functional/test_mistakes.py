"""Each mistake of the operator's table: its message, its exit status and its effect on traffic."""

from __future__ import annotations

from pathlib import Path
from typing import Callable, Iterator, List

import pytest

import mistakes_at_start
import mistakes_in_file
import mistakes_in_fragments
import mistakes_page
import mistakes_while_it_runs
from configuration_file import ConfigurationFile
from controller_fixtures import StartController
from framework.flow import Flow
from framework.udp import UdpEnd, UpstreamService
from mistake import FileMistake, Mistake, Section, at_reload, at_start
from trial import Trial


@pytest.fixture
def trial(configuration: ConfigurationFile, start_controller: StartController,
          answer: Callable[[Flow], UpstreamService],
          new_end: Callable[..., UdpEnd]) -> Iterator[Trial]:
    made = Trial(configuration, start_controller, answer, new_end)
    yield made
    made.close()


def name(value: object) -> str:
    return getattr(value, "what", "").replace("`", "")


def rows(sections: List[Section], while_it_runs: bool) -> List[Mistake]:
    return [row for section in sections if section.while_it_runs == while_it_runs
            for row in section.rows]


PAGE = Path(__file__).resolve().parents[3] / "docs" / "mistakes.md"
ALL = [*mistakes_at_start.SECTIONS, *mistakes_in_fragments.SECTIONS,
       *mistakes_while_it_runs.SECTIONS]
FILE = [row for section in mistakes_in_file.SECTIONS for row in section.rows]


@pytest.mark.parametrize("row", rows(ALL, False), ids=name)
def test_mistake_at_the_start(trial: Trial, row: Mistake) -> None:
    trial.check_at_start(row)


@pytest.mark.parametrize("row", rows(ALL, True), ids=name)
def test_mistake_while_it_runs(trial: Trial, row: Mistake) -> None:
    trial.check_while_it_runs(row)


@pytest.mark.parametrize("row", FILE, ids=name)
def test_mistake_in_the_file_at_the_start(trial: Trial, row: FileMistake) -> None:
    trial.check_at_start(at_start(row))


@pytest.mark.parametrize("row", FILE, ids=name)
def test_mistake_in_the_file_at_a_reload(trial: Trial, row: FileMistake) -> None:
    trial.check_while_it_runs(at_reload(row))


def test_page_is_printed_from_these_rows() -> None:
    assert PAGE.read_text(encoding="utf-8") == mistakes_page.page()
