"""The image, started as an orchestrator starts it, forwards, answers and ends."""

from __future__ import annotations

import os
import urllib.request
from typing import Iterator

import pytest

from container import Container
from framework.flow import Flow, four_keys
from framework.timing import wait_until
from framework.udp import UdpEnd

_USER = 10001
_PORT = 4500


_SETTINGS = f'[downstream]\naddress = "127.0.0.1"\nport = {_PORT}\n[controller]\ndrain_seconds = 0\n'


def _table(flow: Flow, name: str) -> str:
    def key(name: str, label: str = "") -> str:
        secret = getattr(flow, name).secret.hex()
        return f'{{ key = "{secret}"{label} }}'
    assert flow.upstream is not None
    return (f"[flows.{name}]\nlabel = {flow.label}\n"
            f'upstream = "{flow.upstream[0]}:{flow.upstream[1]}"\n'
            f"from_peer = {key('down_in')}\nto_upstream = {key('up_out', f', label = {flow.up_label}')}\n"
            f"from_upstream = {key('up_in')}\nto_peer = {key('down_out', f', label = {flow.down_label}')}\n")


def _put(container: Container, name: str, text: str) -> None:
    """Adds a file of the container's user to the folder that is mounted."""
    written = container.configuration / f".{name}.new"
    written.write_text(text, encoding="utf-8")
    written.chmod(0o400)
    os.chown(written, _USER, _USER)
    os.replace(written, container.configuration / name)


def _exchange(flow: Flow, upstream: UdpEnd) -> None:
    """A question and its answer."""
    with UdpEnd() as peer:
        peer.send(flow.request(b"a question"), ("127.0.0.1", _PORT))
        arrived = upstream.receive()
        assert flow.open_request(arrived.data).payload == b"a question"
        upstream.send(flow.reply(b"an answer"), arrived.sender)
        assert flow.open_reply(peer.receive().data).payload == b"an answer"


def _status(path: str) -> int:
    try:
        with urllib.request.urlopen(f"http://127.0.0.1:9477{path}", timeout=5) as page:
            return int(page.status)
    except OSError:
        return 0


@pytest.fixture
def upstream() -> Iterator[UdpEnd]:
    with UdpEnd() as end:
        yield end


@pytest.fixture
def flow(upstream: UdpEnd) -> Flow:
    return Flow(label=0x10001, upstream=upstream.address, **four_keys("sha256"))


@pytest.fixture
def started(container: Container, flow: Flow) -> Container:
    """With the arguments of the image, and settings and flow in a fragment each."""
    _put(container, "00-settings.toml", _SETTINGS)
    _put(container, "alice.toml", _table(flow, "alice"))
    container.start()
    wait_until(lambda: _status("/ready") == 200, "the controller is ready")
    return container


def test_datagrams_are_forwarded_both_ways(started: Container, flow: Flow, upstream: UdpEnd) -> None:
    _exchange(flow, upstream)
    assert started.stop() == 0, started.said()


def test_a_fragment_that_is_added_is_served(started: Container, upstream: UdpEnd) -> None:
    bob = Flow(label=0x10002, upstream=upstream.address, **four_keys("sha256"))
    _put(started, "bob.toml", _table(bob, "bob"))
    wait_until(lambda: "info controller: reloaded: 2 flows" in started.said(), "the flow is served")
    _exchange(bob, upstream)


def test_it_answers_on_healthz(started: Container) -> None:
    assert _status("/healthz") == 200


def test_sigterm_ends_it_with_status_0(started: Container) -> None:
    assert started.stop() == 0, started.said()
    assert _status("/healthz") == 0


def test_it_runs_without_rights(started: Container) -> None:
    status = started.process_status()
    assert status["Uid"].split() == [str(_USER)] * 4
    assert {status[f"Cap{kind}"] for kind in ("Inh", "Prm", "Eff", "Bnd", "Amb")} == {"0" * 16}
    assert status["NoNewPrivs"] == "1"
    (root,) = (line for line in started.mounts() if line.split()[4] == "/")
    assert "ro" in root.split()[5].split(",")


def test_a_missing_file_ends_it_with_status_1(container: Container) -> None:
    container.start("/etc/vesk/conf.d/none.toml")
    assert container.wait() == 1
    assert "none.toml" in container.said()


def test_a_single_file_may_be_the_argument(container: Container, flow: Flow, upstream: UdpEnd) -> None:
    _put(container, "all.toml", _SETTINGS + _table(flow, "alice"))
    container.start("/etc/vesk/conf.d/all.toml")
    wait_until(lambda: _status("/ready") == 200, "the controller is ready")
    _exchange(flow, upstream)


def test_an_empty_folder_ends_it_with_status_1(container: Container) -> None:
    container.start()
    assert container.wait() == 1
    assert "/etc/vesk/conf.d/: downstream is missing" in container.said()
