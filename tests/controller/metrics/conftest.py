"""Fixtures of the metrics' tests: those of the functional tests, the probe, and Prometheus."""

from __future__ import annotations

import importlib.util
import os
import sys
from pathlib import Path
from typing import Callable, Iterator, List

import pytest

_HERE = Path(__file__).resolve().parent
_FUNCTIONAL = _HERE.parent.parent / "functional"
sys.path[:0] = [str(_HERE), str(_FUNCTIONAL)]

_description = importlib.util.spec_from_file_location("functional_conftest",
                                                      _FUNCTIONAL / "conftest.py")
assert _description is not None and _description.loader is not None
_functional = importlib.util.module_from_spec(_description)
_description.loader.exec_module(_functional)

pytest_configure = _functional.pytest_configure
pytest_runtest_makereport = _functional.pytest_runtest_makereport
time_limit = _functional.time_limit
start_vesk = _functional.start_vesk
vesk = _functional.vesk
new_end = _functional.new_end
peer = _functional.peer
upstream = _functional.upstream
bench = _functional.bench

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
