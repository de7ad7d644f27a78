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


def _table(flow: Flow) -> str:
    def key(name: str, label: str = "") -> str:
        secret = getattr(flow, name).secret.hex()
        return f'{{ key = "{secret}"{label} }}'
    assert flow.upstream is not None
    return (f"[flows.alice]\nlabel = {flow.label}\n"
            f'upstream = "{flow.upstream[0]}:{flow.upstream[1]}"\n'
            f"from_peer = {key('down_in')}\nto_upstream = {key('up_out', f', label = {flow.up_label}')}\n"
            f"from_upstream = {key('up_in')}\nto_peer = {key('down_out', f', label = {flow.down_label}')}\n")


def _write(container: Container, text: str) -> str:
    """Writes the configuration as the container's user, and returns its path in the container."""
    file = container.configuration / "alice.toml"
    file.write_text(f'[downstream]\naddress = "127.0.0.1"\nport = {_PORT}\n'
                    f"[controller]\ndrain_seconds = 0\n{text}", encoding="utf-8")
    file.chmod(0o400)
    os.chown(file, _USER, _USER)
    return "/etc/vesk/conf.d/alice.toml"


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
    container.start(_write(container, _table(flow)))
    wait_until(lambda: _status("/ready") == 200, "the controller is ready")
    return container


def test_datagrams_are_forwarded_both_ways(started: Container, flow: Flow, upstream: UdpEnd) -> None:
    with UdpEnd() as peer:
        peer.send(flow.request(b"a question"), ("127.0.0.1", _PORT))
        arrived = upstream.receive()
        assert flow.open_request(arrived.data).payload == b"a question"
        upstream.send(flow.reply(b"an answer"), arrived.sender)
        assert flow.open_reply(peer.receive().data).payload == b"an answer"
    assert started.stop() == 0, started.said()


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


def test_its_argument_is_a_folder_unless_another_is_given(container: Container) -> None:
    """What the controller does with the folder is tested with the controller."""
    container.start()
    wait_until(lambda: "/etc/vesk/conf.d" in container.said(), "the controller names the folder")
