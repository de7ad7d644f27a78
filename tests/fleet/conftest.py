"""Fixtures of the tests of a fleet."""

from __future__ import annotations

from typing import Iterator, List

import pytest

from configuration_file import ConfigurationFile
from fleet import Fleet, MakeFleet, StartController

pytest_plugins = ["framework.fixtures", "controller_fixtures", "traffic_fixtures"]


@pytest.fixture
def make_fleet(configuration: ConfigurationFile, start_controller: StartController) -> Iterator[MakeFleet]:
    """Makes fleets, which end with the test."""
    made: List[Fleet] = []

    def make(*arguments: object) -> Fleet:
        made.append(Fleet(configuration, start_controller, *arguments))  # type: ignore[arg-type]
        return made[-1]

    yield make
    for fleet in made:
        fleet.close()
