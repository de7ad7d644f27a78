"""The pages on IPv4 and IPv6 addresses."""

from __future__ import annotations

import re
import socket
import urllib.error
from contextlib import closing
from typing import Callable

import pytest

from configuration_file import ConfigurationFile
from controller_process import ControllerProcess

from page import fetch
from prometheus_process import free_tcp_port

StartController = Callable[..., ControllerProcess]


def has_ipv6() -> bool:
    try:
        free_tcp_port("::1")
    except OSError:
        return False
    return True


needs_ipv6 = pytest.mark.skipif(not has_ipv6(), reason="this host has no IPv6 address ::1")


def serve_on(configuration: ConfigurationFile, address: str, *lines: str) -> int:
    """Writes the address and a free port to the file; returns the port."""
    port = free_tcp_port(address)
    configuration.tables["metrics"] = "\n".join(
        [f'address = "{address}"', f"port = {port}", *lines])
    configuration.write()
    return port


def holder_of(port: int) -> socket.socket:
    """Listens on the port of ::1."""
    holder = socket.socket(socket.AF_INET6)
    holder.bind(("::1", port))
    holder.listen()
    return holder


def is_served(host: str, port: int) -> bool:
    try:
        answers = [fetch(port, path, host) for path in ("/healthz", "/ready")]
        status, text = fetch(port, "/metrics", host)
    except urllib.error.URLError:
        return False
    assert answers == [(200, "ok\n"), (200, "ready\n")]
    assert status == 200 and "\nvesk_up 1\n" in text
    return True


@pytest.mark.parametrize("address, ipv4, ipv6", [
    ("127.0.0.1", True, False), ("0.0.0.0", True, False),
    pytest.param("::1", False, True, marks=needs_ipv6),
    pytest.param("::", True, True, marks=needs_ipv6)])
def test_the_pages_are_served_on_the_address_of_the_file(
        configuration: ConfigurationFile, start_controller: StartController, address: str,
        ipv4: bool, ipv6: bool) -> None:
    port = serve_on(configuration, address)
    controller = start_controller().ready()
    controller.wait_for(f"info controller: serving metrics on {address}, port {port}")
    assert is_served("127.0.0.1", port) == ipv4
    if has_ipv6():
        assert is_served("::1", port) == ipv6
    assert controller.finish() == 0


@needs_ipv6
def test_a_taken_port_of_ipv6_is_tried_again(
        configuration: ConfigurationFile, start_controller: StartController) -> None:
    port = serve_on(configuration, "::1")
    with closing(holder_of(port)):
        controller = start_controller().ready()
        controller.wait_for(f"error controller: cannot serve metrics on [::1]:{port}: "
                            "Address already in use")
        controller.wait_for(re.compile("warn controller: continues without metrics .*"))
    controller.wait_for(f"info controller: serving metrics on ::1, port {port}")
    assert is_served("::1", port)
    assert controller.finish() == 0


@needs_ipv6
def test_a_taken_port_of_ipv6_is_fatal_if_metrics_are_required(
        configuration: ConfigurationFile, start_controller: StartController) -> None:
    port = serve_on(configuration, "::1", "required = true")
    with closing(holder_of(port)):
        controller = start_controller()
        assert controller.wait_exit() == 4
    controller.wait_for("error controller: metrics.required is true: exiting")
    assert not [line for line in controller.lines if "started" in line]
