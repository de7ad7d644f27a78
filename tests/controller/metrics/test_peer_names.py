"""Lateral peers given by name: their addresses follow the name server, and nothing waits for it."""

from __future__ import annotations

import re
import time
from pathlib import Path
from typing import Callable, Dict, Iterator, List

import pytest

from configuration_file import ConfigurationFile
from controller_process import ControllerProcess
from framework.lateral import owned_label
from framework.timing import scaled, wait_until
from monitored_host import Host
from name_server import NameServer

from page import fetch

_PORT = 8445
_OWN = "127.0.0.10"
_FIRST = {"p1.example": "127.0.0.11", "p2.example": "127.0.0.12"}
_RESOLVED = 'vesk_lateral_peer_resolved{peer="%d"}'

Serve = Callable[[Dict[str, str]], NameServer]


@pytest.fixture
def serve(host: Host, tmp_path: Path) -> Iterator[Serve]:
    servers: List[NameServer] = []

    def start(addresses: Dict[str, str]) -> NameServer:
        servers.append(NameServer(host.namespace, tmp_path, addresses))
        return servers[-1]

    yield start
    for server in servers:
        server.close()


@pytest.fixture(autouse=True)
def lateral(configuration: ConfigurationFile, host: Host) -> None:
    """Instance 0 of three."""
    del host
    configuration.tables["controller"] = "stats_seconds = 1\ndrain_seconds = 0"
    configuration.tables["lateral"] = (
        f'address = "{_OWN}"\nport = {_PORT}\nindex = 0\ninstances = 3\nresolve_seconds = 1\n'
        f'peers_from = "p{{index}}.example:{_PORT}"')


def _added(controller: ControllerProcess) -> List[str]:
    beginning = "info Added lateral stream peer: "
    return [line[len(beginning):] for line in controller.lines if line.startswith(beginning)]


def _page(host: Host, path: str) -> int:
    with host.namespace.inside():
        return fetch(9477, path)[0]


def _wait_for_stream(controller: ControllerProcess) -> None:
    controller.wait_for(re.compile("info Vesk Lateral listener started on port .*"))


def test_an_address_that_changes_is_one_command(host: Host, serve: Serve) -> None:
    server = serve(_FIRST)
    controller = host.start(*server.prefix())
    _wait_for_stream(controller)
    wait_until(lambda: len(_added(controller)) == 2, "both peers were added")
    assert sorted(_added(controller)) == ["idx 1 addr 127.0.0.11", "idx 2 addr 127.0.0.12"]
    server.answer({**_FIRST, "p2.example": "127.0.0.22"})
    controller.wait_for("info controller: lateral peer 2, p2.example, has the address 127.0.0.22, "
                        "before 127.0.0.12")
    controller.wait_for("info Added lateral stream peer: idx 2 addr 127.0.0.22")
    assert len(_added(controller)) == 3
    assert host.metrics()[_RESOLVED % 1] == host.metrics()[_RESOLVED % 2] == 1
    # A forwarder that is started again gets the present addresses.
    mark = controller.mark()
    host.namespace.run("kill", "-KILL", str(controller.forwarder()))
    controller.wait_for("info Added lateral stream peer: idx 2 addr 127.0.0.22", mark)


def test_a_name_that_is_gone_keeps_its_address(host: Host, serve: Serve) -> None:
    server = serve(_FIRST)
    controller = host.start(*server.prefix())
    wait_until(lambda: len(_added(controller)) == 2, "both peers were added")
    server.answer({"p1.example": "127.0.0.11"})
    warning = controller.wait_for(re.compile(
        "warn controller: lateral peer 2, p2.example, cannot be resolved: .*; it keeps the address "
        "127.0.0.12"))
    assert host.metrics()[_RESOLVED % 1] == 1
    assert host.metrics()[_RESOLVED % 2] == 0
    # Later answers are the same, and are not logged again.
    server.answer({"p1.example": "127.0.0.21"})
    controller.wait_for("info Added lateral stream peer: idx 1 addr 127.0.0.21")
    server.answer(_FIRST)
    controller.wait_for("info controller: lateral peer 2, p2.example, has the address 127.0.0.12")
    assert controller.lines.count(warning) == 1
    assert "idx 2 addr 127.0.0.12" in _added(controller)
    assert sum("idx 2" in line for line in _added(controller)) == 1


def test_is_ready_before_the_names_are_known(host: Host, serve: Serve) -> None:
    server = serve({})
    controller = host.start(*server.prefix())
    controller.wait_for(re.compile(
        "warn controller: lateral peer 1, p1.example, cannot be resolved: .*; it has no address yet"))
    assert _page(host, "/ready") == 200
    assert "vesk_lateral_listening" not in host.metrics()
    assert host.metrics()[_RESOLVED % 1] == 0
    server.answer({"p1.example": "127.0.0.11"})
    _wait_for_stream(controller)
    assert _added(controller) == ["idx 1 addr 127.0.0.11"]
    wait_until(lambda: host.metrics().get("vesk_lateral_listening") == 1, "the stream is shown")
    assert _page(host, "/ready") == 200


def test_a_server_that_hangs_delays_nothing(host: Host, serve: Serve) -> None:
    server = serve(_FIRST)
    server.hang()
    controller = host.start(*server.prefix())
    for path in ("/healthz", "/ready", "/metrics"):
        began = time.monotonic()
        assert _page(host, path) == 200
        assert time.monotonic() - began < scaled(1)
    assert controller.reload() == "info controller: reloaded: 0 flows"
    began = time.monotonic()
    assert controller.finish() == 0
    assert time.monotonic() - began < scaled(1.5)


def test_a_silent_peer_is_asked_for_at_once(
        configuration: ConfigurationFile, host: Host, serve: Serve) -> None:
    configuration.tables["lateral"] = configuration.tables["lateral"].replace(
        "resolve_seconds = 1", "resolve_seconds = 3600")
    flow = host.flow("alice", owned_label(1, instances=3))
    server = serve(_FIRST)
    controller = host.start(*server.prefix())
    _wait_for_stream(controller)
    wait_until(lambda: len(_added(controller)) == 2, "both peers were added")
    server.answer({**_FIRST, "p1.example": "127.0.0.21"})
    peer = host.peer()
    # Nobody listens at the old address.
    peer.send(flow.request(b"lost"), configuration.listen)
    controller.wait_for("info Added lateral stream peer: idx 1 addr 127.0.0.21")


def test_the_family_of_the_names_is_that_of_the_stream(
        configuration: ConfigurationFile, host: Host, serve: Serve) -> None:
    configuration.tables["lateral"] = configuration.tables["lateral"].replace(_OWN, "::1")
    server = serve({"p1.example": "127.0.0.11", "p2.example": "fd00::12"})
    controller = host.start(*server.prefix())
    controller.wait_for("info Added lateral stream peer: idx 2 addr fd00::12")
    controller.wait_for(re.compile("warn controller: lateral peer 1, p1.example, cannot be .*"))
    assert len(_added(controller)) == 1


def test_the_index_comes_from_the_host_name(
        configuration: ConfigurationFile, host: Host, serve: Serve) -> None:
    configuration.tables["lateral"] = configuration.tables["lateral"].replace(
        "index = 0\ninstances = 3", 'index_from = "hostname"\ninstances_from = "env:INSTANCES"')
    server = serve({"p0.example": "127.0.0.11"})
    named = ["unshare", "--uts", "sh", "-c",
             'echo vesk-2.example >/proc/sys/kernel/hostname && exec "$@"', "sh"]
    controller = host.start(*server.prefix(), *named, "env", "INSTANCES=3")
    controller.wait_for(
        f"info Vesk Lateral listener started on port {_PORT} address {_OWN} index 2 maxQels 3")
