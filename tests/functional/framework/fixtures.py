"""Fixtures of all tests that run a forwarder. The conftest.py of a folder names this module."""

from __future__ import annotations

import signal
from pathlib import Path
from typing import Callable, Iterator, List

import pytest

from . import own_network
from .bench import Bench
from .flow import Flow, four_keys
from .framing import UDPV1, UDPV2
from .timing import scaled
from .udp import UdpEnd
from .vesk_process import VeskProcess, binary

StartVesk = Callable[..., VeskProcess]

# A test that runs longer than this fails.
_TEST_LIMIT_SECONDS = 120


def pytest_configure(config: pytest.Config) -> None:
    try:
        binary()
    except RuntimeError as error:
        pytest.exit(str(error), returncode=2)
    # If this is refused, the tests share the network of the machine.
    own_network.enter()


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item: pytest.Item) -> Iterator[None]:
    outcome = yield
    report = outcome.get_result()
    if report.when == "call":
        item.stash[_FAILED] = report.failed
        if report.failed:
            for number, vesk in enumerate(item.stash.get(_STARTED, []), start=1):
                report.sections.append((f"forwarder {number}", vesk.describe()))


_FAILED = pytest.StashKey[bool]()
_STARTED = pytest.StashKey[List[VeskProcess]]()


@pytest.fixture(autouse=True)
def time_limit(request: pytest.FixtureRequest) -> Iterator[None]:
    """Fails a test that hangs."""
    marker = request.node.get_closest_marker("limit_seconds")
    seconds = marker.args[0] if marker else _TEST_LIMIT_SECONDS

    def give_up(*_: object) -> None:
        raise TimeoutError(f"the test ran longer than {scaled(seconds):g} s")

    before = signal.signal(signal.SIGALRM, give_up)
    signal.setitimer(signal.ITIMER_REAL, scaled(seconds))
    yield
    signal.setitimer(signal.ITIMER_REAL, 0)
    signal.signal(signal.SIGALRM, before)


@pytest.fixture
def start_vesk(request: pytest.FixtureRequest, tmp_path: Path) -> Iterator[StartVesk]:
    """Starts forwarders and ends those that still run after the test.

    Every forwarder has to end without an error, whatever the test is about, unless the
    test has failed already.
    """
    started: List[VeskProcess] = []
    request.node.stash[_STARTED] = started

    def start(*arguments: str, **details: object) -> VeskProcess:
        folder = tmp_path / f"vesk-{len(started) + 1}"
        folder.mkdir()
        vesk = VeskProcess(folder, *arguments, **details)  # type: ignore[arg-type]
        started.append(vesk)
        return vesk

    yield start
    failed = request.node.stash.get(_FAILED, True)
    problems = []
    for vesk in started:
        if vesk.finished:
            continue
        if failed:
            vesk.abandon()
            continue
        try:
            vesk.finish()
        except AssertionError as error:
            problems.append(str(error))
    assert not problems, "\n".join(problems)


@pytest.fixture
def vesk(start_vesk: StartVesk) -> VeskProcess:
    """A forwarder with default arguments, ready for commands."""
    return start_vesk().ready()


@pytest.fixture
def new_end() -> Iterator[Callable[..., UdpEnd]]:
    """Opens UDP sockets that are closed after the test."""
    ends: List[UdpEnd] = []

    def open_end(host: str = "127.0.0.1", port: int = 0) -> UdpEnd:
        ends.append(UdpEnd(host, port))
        return ends[-1]

    yield open_end
    for end in ends:
        end.close()


@pytest.fixture
def peer(new_end: Callable[..., UdpEnd]) -> UdpEnd:
    return new_end()


@pytest.fixture
def upstream(new_end: Callable[..., UdpEnd]) -> UdpEnd:
    return new_end()


@pytest.fixture
def bench(vesk: VeskProcess, peer: UdpEnd, upstream: UdpEnd) -> Bench:
    """The default bench: framing udpv2, all ends on 127.0.0.1."""
    return Bench(vesk, peer, upstream)


@pytest.fixture
def flow(bench: Bench) -> Flow:
    """A flow of the default bench, declared and without an endpoint."""
    declared = bench.flow(**four_keys())
    bench.declare(declared)
    return declared


@pytest.fixture(params=[UDPV1, UDPV2], ids=lambda framing: framing.name)
def either_bench(request: pytest.FixtureRequest, start_vesk: StartVesk, peer: UdpEnd,
                 upstream: UdpEnd) -> Bench:
    """The same bench, once for each framing version."""
    vesk = start_vesk(request.param.name).ready()
    return Bench(vesk, peer, upstream, request.param)
