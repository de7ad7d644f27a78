"""Fixtures of the metrics' tests: those of the functional tests and the controller's, the probe, and
Prometheus."""

from __future__ import annotations

import importlib.util
import os
import sys
from pathlib import Path
from types import ModuleType
from typing import Callable, Iterator, List

import pytest

_HERE = Path(__file__).resolve().parent


def _fixtures_of(folder: Path) -> ModuleType:
    sys.path.insert(0, str(folder))
    description = importlib.util.spec_from_file_location(f"{folder.parent.name}_conftest",
                                                         folder / "conftest.py")
    assert description is not None and description.loader is not None
    module = importlib.util.module_from_spec(description)
    description.loader.exec_module(module)
    return module


_functional = _fixtures_of(_HERE.parents[1] / "functional")
_controller = _fixtures_of(_HERE.parent / "functional")
sys.path.insert(0, str(_HERE))

pytest_configure = _functional.pytest_configure
pytest_runtest_makereport = _functional.pytest_runtest_makereport
time_limit = _functional.time_limit
start_vesk = _functional.start_vesk
vesk = _functional.vesk
new_end = _functional.new_end
peer = _functional.peer
upstream = _functional.upstream
bench = _functional.bench
configuration = _controller.configuration
start_controller = _controller.start_controller
answer = _controller.answer

from prometheus_process import PrometheusProcess  # noqa: E402
from probe import Probe  # noqa: E402


@pytest.fixture
def start_probe() -> Iterator[Callable[..., Probe]]:
    """Starts metrics servers that are fed by hand."""
    started: List[Probe] = []

    def start(*arguments: str) -> Probe:
        started.append(Probe(os.environ["VESK_METRICS_PROBE"], *arguments))
        return started[-1]

    yield start
    for probe in started:
        probe.finish()


@pytest.fixture
def start_prometheus(tmp_path: Path) -> Iterator[Callable[[int], PrometheusProcess]]:
    """Starts Debian's own Prometheus, scraping one port of this host."""
    started: List[PrometheusProcess] = []

    def start(port: int) -> PrometheusProcess:
        started.append(PrometheusProcess(tmp_path / f"prometheus-{len(started) + 1}", port))
        return started[-1]

    yield start
    for prometheus in started:
        prometheus.finish()
