"""The installed controller with the installed example, as the unit runs it."""

from __future__ import annotations

import contextlib
import re
import shutil
import subprocess
import urllib.request
from pathlib import Path
from typing import Callable, Dict, Iterator

import pytest

from conftest import Packages
from controller import Controller
from debian import Root, run
from framework.flow import Flow
from framework.framing import Key
from framework.udp import UdpEnd, free_port

_EXAMPLE = "etc/vesk/example.toml"
_FROM_PEER = "etc/vesk/example-from-peer.key"
_TO_PEER = "etc/vesk/example-to-peer.key"
_KEYS = (_FROM_PEER, _TO_PEER)


def test_all_packages_are_installed(installed: Root, packages: Packages) -> None:
    assert installed.states() == {name: "installed" for name in packages}


def test_example_is_valid_unchanged(installed: Root) -> None:
    said = run(installed / "usr/bin/vesk-controller", "--check", installed / _EXAMPLE)
    assert "start addr 127.0.0.1 port 4500" in said
    assert said.count("<key of 32 bytes>") == len(_KEYS)
    for name in _KEYS:
        assert _key(installed, name).hex() not in said.lower()


def test_example_causes_no_warning(installed: Root) -> None:
    said = run(installed / "usr/bin/vesk-controller", "--check", installed / _EXAMPLE)
    # This host's own limits may be too low.
    assert re.findall(r"warn controller: (?!net\.core\.|the hard limit )(.*)", said) == []


def test_example_keys_are_random_and_private(installed: Root, new_root: Callable[[], Root],
                                             packages: Packages) -> None:
    other = new_root()
    other.install(*packages.values())
    for name in _KEYS:
        assert (installed / name).stat().st_mode & 0o7777 == 0o400
        text = (installed / name).read_text()
        assert re.fullmatch(r"[0-9a-f]{64}\n", text), "one word that can be copied"
    assert len({_key(root, name) for root in (installed, other) for name in _KEYS}) == 4


@pytest.fixture
def ports() -> Dict[str, int]:
    """Maps the ports of the example to free ports of this host."""
    return {"4500": free_port(), "9477": free_port()}


@pytest.fixture
def service() -> Iterator[UdpEnd]:
    with UdpEnd() as end:
        yield end


@pytest.fixture
def running(installed: Root, service: UdpEnd, ports: Dict[str, int],
            tmp_path: Path) -> Iterator[Controller]:
    """The installed controller, ready, with the example on ports of this test."""
    file = installed / _EXAMPLE
    text = file.read_text()
    for written, ours in {**ports, "5000": service.port}.items():
        text, found = re.subn(rf"(?m)^([^#\n]*\b){written}\b", rf"\g<1>{ours}", text)
        assert found == 1, f"{written} is {found} times in the example"
    file.write_text(text)
    controller = Controller(installed / "usr/bin/vesk-controller", file, tmp_path)
    with contextlib.closing(controller):
        controller.wait_for("READY=1")
        yield controller
        assert controller.finish() == 0, controller.said()


def test_example_carries_traffic(installed: Root, running: Controller, service: UdpEnd,
                                 ports: Dict[str, int]) -> None:
    flow = Flow(label=0x10001, up_label=0x20001, down_label=0x10001, upstream=service.address,
                down_in=Key(_key(installed, _FROM_PEER)), down_out=Key(_key(installed, _TO_PEER)))
    with UdpEnd() as peer:
        peer.send(flow.request(b"question"), ("127.0.0.1", ports["4500"]))
        arrived = service.receive()
        assert flow.open_request(arrived.data).payload == b"question"
        service.send(flow.reply(b"answer"), arrived.sender)
        assert flow.open_reply(peer.receive().data).payload == b"answer"


def test_example_serves_metrics(running: Controller, ports: Dict[str, int]) -> None:
    base = f"http://127.0.0.1:{ports['9477']}"
    with urllib.request.urlopen(f"{base}/healthz", timeout=10) as page:
        assert page.status == 200
    with urllib.request.urlopen(f"{base}/metrics", timeout=10) as page:
        assert b"vesk_" in page.read()


def test_reload_is_announced_and_stop_drains(running: Controller) -> None:
    running.reload()
    running.wait_for("RELOADING=1")
    running.wait_for("READY=1")
    assert running.finish() == 0
    assert "STOPPING=1" in running.notifications()


def test_no_key_is_in_the_output(installed: Root, running: Controller) -> None:
    running.finish()
    assert running.said(), "the controller logs"
    for name in _KEYS:
        assert _key(installed, name).hex() not in running.said().lower()


@pytest.mark.skipif(shutil.which("tshark") is None, reason="tshark is not installed")
def test_dissector_is_loaded_from_its_folder(installed: Root, tmp_path: Path) -> None:
    """From the personal plugins, since the test must not change the host's folder."""
    (folder,) = installed.path.glob("usr/lib/*/wireshark/plugins")
    plugins = tmp_path / "home/.local/lib/wireshark/plugins"
    plugins.parent.mkdir(parents=True)
    plugins.symlink_to(folder)
    said = run("env", f"HOME={tmp_path / 'home'}", "tshark", "-G", "protocols")
    assert "\tvesk\n" in said and "Error during loading" not in said


def test_missing_file_is_reported_with_the_status_in_the_unit(installed: Root) -> None:
    result = subprocess.run([str(installed / "usr/bin/vesk-controller"),
                             str(installed / "etc/vesk/none.toml")],
                            capture_output=True, text=True, timeout=30, check=False)
    assert result.returncode == 1
    assert "none.toml" in result.stderr
    unit = (installed / "usr/lib/systemd/system/vesk-controller@.service").read_text()
    assert "RestartPreventExitStatus=1 2\n" in unit


def _key(root: Root, name: str) -> bytes:
    return bytes.fromhex((root / name).read_text())
