"""The forwarder of the arm64 image, with the libraries of the image, run by an emulator."""

from __future__ import annotations

import subprocess
from pathlib import Path

import pytest

from conftest import find_image
from container import ImageArchive
from framework.flow import Flow, four_keys
from framework.udp import UdpEnd
from framework.vesk_process import VeskProcess


@pytest.fixture
def root(release: Path, tmp_path: Path) -> Path:
    image = ImageArchive(find_image(release, "arm64"))
    image.unpack(tmp_path / "root")
    return tmp_path / "root"


def _emulated(root: Path, program: str) -> "list[str]":
    return ["qemu-aarch64-static", "-L", str(root), str(root / "usr/bin" / program)]


def test_controller_starts(root: Path) -> None:
    done = subprocess.run([*_emulated(root, "vesk-controller"), "--version"], capture_output=True, text=True,
                          check=False, timeout=60)
    assert done.returncode == 0, done.stderr
    assert "1." in done.stdout


def test_forwarder_forwards_both_ways(root: Path, tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    wrapper = tmp_path / "vesk"
    wrapper.write_text("#!/bin/sh\nexec " + " ".join(_emulated(root, "vesk")) + ' "$@"\n', encoding="utf-8")
    wrapper.chmod(0o755)
    monkeypatch.setenv("VESK_BINARY", str(wrapper))
    vesk = VeskProcess(tmp_path)
    with UdpEnd() as peer, UdpEnd() as upstream:
        port = vesk.listen("127.0.0.1")
        flow = Flow(label=5, upstream=upstream.address, **four_keys("sha256"))
        assert vesk.lines_after(flow.set_command()) == []
        peer.send(flow.request(b"a question"), ("127.0.0.1", port))
        arrived = upstream.receive()
        assert flow.open_request(arrived.data).payload == b"a question"
        upstream.send(flow.reply(b"an answer"), arrived.sender)
        assert flow.open_reply(peer.receive().data).payload == b"an answer"
    vesk.finish()
