"""Fixtures of the controller's tests: those of the functional tests, and a controller."""

from __future__ import annotations

import importlib.util
import sys
from pathlib import Path
from typing import Callable, Iterator, List

import pytest

_FUNCTIONAL = Path(__file__).resolve().parents[2] / "functional"
sys.path.insert(0, str(_FUNCTIONAL))
sys.path.insert(0, str(Path(__file__).resolve().parent))

_description = importlib.util.spec_from_file_location("functional_conftest",
                                                      _FUNCTIONAL / "conftest.py")
assert _description is not None and _description.loader is not None
_functional = importlib.util.module_from_spec(_description)
_description.loader.exec_module(_functional)

pytest_configure = _functional.pytest_configure
time_limit = _functional.time_limit
new_end = _functional.new_end
peer = _functional.peer
upstream = _functional.upstream

from configuration_file import ConfigurationFile  # noqa: E402
from controller_process import ControllerProcess  # noqa: E402
from framework.flow import Flow  # noqa: E402
from framework.udp import UpstreamService  # noqa: E402

StartController = Callable[..., ControllerProcess]


@pytest.fixture
def configuration(tmp_path: Path) -> ConfigurationFile:
    """A file that listens on 127.0.0.1 and has no flows yet."""
    return ConfigurationFile(tmp_path)


@pytest.fixture
def start_controller(configuration: ConfigurationFile) -> Iterator[StartController]:
    """Starts controllers; none of them outlives the test, or says a key of its file."""
    started: List[ControllerProcess] = []

    def start(*arguments: str, file: ConfigurationFile = configuration,
              **details: object) -> ControllerProcess:
        started.append(ControllerProcess(file, *arguments, **details))  # type: ignore[arg-type]
        return started[-1]

    yield start
    for controller in started:
        controller.abandon()
    for controller in started:
        controller.check_secrecy()


@pytest.fixture
def answer() -> Iterator[Callable[[Flow], UpstreamService]]:
    """Starts a flow's upstream service, which checks each datagram and sends its payload back."""
    services: List[UpstreamService] = []

    def start(flow: Flow) -> UpstreamService:
        services.append(UpstreamService(flow.echo))
        flow.upstream = services[-1].address
        return services[-1]

    yield start
    for service in services:
        service.close()
