"""Fixtures of the metrics tests: those of the functional tests and of the controller, the probe, a host
in its own network namespace, and Prometheus."""

from __future__ import annotations

import os
from pathlib import Path
from typing import Callable, Iterator, List

import pytest

from configuration_file import ConfigurationFile
from monitored_host import Host, StartController
from network import refusal
from probe import Probe
from prometheus_process import PrometheusProcess, free_tcp_port

pytest_plugins = ["framework.fixtures", "controller_fixtures"]


@pytest.fixture
def start_probe() -> Iterator[Callable[..., Probe]]:
    """Starts metrics servers that the test controls."""
    started: List[Probe] = []

    def start(*arguments: str) -> Probe:
        started.append(Probe(os.environ["VESK_METRICS_PROBE"], *arguments))
        return started[-1]

    yield start
    for probe in started:
        probe.finish()


@pytest.fixture
def port(configuration: ConfigurationFile) -> int:
    """The port of the metrics."""
    chosen = free_tcp_port()
    configuration.tables["metrics"] = f"port = {chosen}"
    configuration.write()
    return chosen


@pytest.fixture
def start_prometheus(tmp_path: Path) -> Iterator[Callable[[int], PrometheusProcess]]:
    """Starts Debian's Prometheus, which scrapes one port of this host."""
    started: List[PrometheusProcess] = []

    def start(port: int) -> PrometheusProcess:
        started.append(PrometheusProcess(tmp_path / f"prometheus-{len(started) + 1}", port))
        return started[-1]

    yield start
    for prometheus in started:
        prometheus.finish()


@pytest.fixture
def host(configuration: ConfigurationFile, start_controller: StartController) -> Iterator[Host]:
    """A host with a loopback device; skips the test if the kernel does not allow network namespaces."""
    reason = refusal()
    if reason:
        pytest.skip(f"network namespaces are not allowed here: {reason}")
    built = Host(configuration, start_controller)
    yield built
    built.close()
