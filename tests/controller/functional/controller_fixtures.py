"""Fixtures of all tests that run a controller."""

from __future__ import annotations

from pathlib import Path
from typing import Callable, Iterator, List

import pytest

from configuration_file import ConfigurationFile
from controller_process import ControllerProcess
from framework.flow import Flow, four_keys
from framework.udp import UpstreamService
from programs import script

StartController = Callable[..., ControllerProcess]
StartWith = Callable[..., ControllerProcess]
Answer = Callable[[Flow], UpstreamService]


@pytest.fixture
def configuration(tmp_path: Path) -> ConfigurationFile:
    """A file that listens on 127.0.0.1 and has no flows yet."""
    return ConfigurationFile(tmp_path)


@pytest.fixture
def start_controller(configuration: ConfigurationFile) -> Iterator[StartController]:
    """Starts controllers. At the end of the test stops them and checks that they printed no key."""
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
def start_with(configuration: ConfigurationFile, start_controller: StartController) -> StartWith:
    """Writes the file with the given lines in [controller] and starts a controller, with `program`, a text
    for the shell, instead of the forwarder if that is given."""

    def start(settings: str, program: str = "", **details: object) -> ControllerProcess:
        configuration.tables["controller"] = settings
        configuration.write()
        arguments = ["--program", script(configuration.folder, program)] if program else []
        return start_controller(*arguments, **details)

    return start


@pytest.fixture
def answer() -> Iterator[Answer]:
    """Starts a flow's upstream service, which checks each datagram and sends its payload back."""
    services: List[UpstreamService] = []

    def start(flow: Flow) -> UpstreamService:
        services.append(UpstreamService(flow.echo))
        flow.upstream = services[-1].address
        return services[-1]

    yield start
    for service in services:
        service.close()


@pytest.fixture
def alice(configuration: ConfigurationFile, answer: Answer) -> Flow:
    """A flow of the file, with a service that answers."""
    flow = Flow(label=1, **four_keys())
    answer(flow)
    configuration.flows["alice"] = flow
    return flow


@pytest.fixture
def bob(answer: Answer) -> Flow:
    """A flow that is not in the file yet, with a service that answers."""
    flow = Flow(label=2, **four_keys())
    answer(flow)
    return flow
