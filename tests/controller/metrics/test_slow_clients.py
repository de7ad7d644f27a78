"""Slow, silent or many clients do not keep others from reading the pages."""

from __future__ import annotations

import contextlib
import socket
import time
from pathlib import Path
from typing import Callable, Iterator

import pytest

from controller_process import ControllerProcess
from framework.timing import scaled, wait_until

from page import fetch

StartController = Callable[..., ControllerProcess]
Connect = Callable[..., socket.socket]

HALF_A_REQUEST = b"GET /healthz HTTP/1.1\r\nHost: vesk\r\n"
WHOLE_REQUEST = HALF_A_REQUEST + b"Connection: close\r\n\r\n"
AT_ONCE = 0.5
MOST_OF_ONE_ADDRESS = 576
"""The limit in docs/metrics.md."""


@pytest.fixture
def controller(port: int, start_controller: StartController) -> ControllerProcess:
    assert port
    return start_controller().ready()


@pytest.fixture
def connect(port: int) -> Iterator[Connect]:
    """Makes connections from an address of this host; closes them after the test."""
    with contextlib.ExitStack() as connections:
        def make(said: bytes, source: str = "127.0.0.1") -> socket.socket:
            connection = connections.enter_context(socket.create_connection(
                ("127.0.0.1", port), timeout=scaled(20), source_address=(source, 0)))
            connection.sendall(said)
            return connection
        yield make


def answer_on(connection: socket.socket) -> bytes:
    """Reads everything until the end of the connection."""
    pieces = []
    with contextlib.suppress(ConnectionResetError):
        while piece := connection.recv(65536):
            pieces.append(piece)
    return b"".join(pieces)


def descriptors(controller: ControllerProcess) -> int:
    return len(list(Path(f"/proc/{controller.pid}/fd").iterdir()))


@pytest.mark.parametrize("count", [60, 500])
@pytest.mark.parametrize("said", [b"", HALF_A_REQUEST], ids=["silent", "half_a_request"])
def test_connections_without_a_request_do_not_delay_an_answer(
        controller: ControllerProcess, port: int, connect: Connect, count: int, said: bytes) -> None:
    for _ in range(count):
        connect(said)
    for _ in range(3):
        began = time.monotonic()
        assert fetch(port, "/healthz") == (200, "ok\n")
        assert time.monotonic() - began < scaled(AT_ONCE)
    assert controller.finish() == 0


@pytest.mark.parametrize("said", [b"", HALF_A_REQUEST], ids=["silent", "half_a_request"])
def test_an_idle_connection_is_closed(
        controller: ControllerProcess, connect: Connect, said: bytes) -> None:
    idle = connect(said)
    began = time.monotonic()
    assert not answer_on(idle).startswith(b"HTTP/1.1 200")
    assert 3 < time.monotonic() - began < scaled(8)
    assert controller.finish() == 0


def test_one_address_is_limited_while_another_is_served(
        controller: ControllerProcess, connect: Connect) -> None:
    before = descriptors(controller)
    for _ in range(700):
        with contextlib.suppress(ConnectionError):
            connect(HALF_A_REQUEST)
    began = time.monotonic()
    assert answer_on(connect(WHOLE_REQUEST, "127.0.0.2")).endswith(b"\r\n\r\nok\n")
    assert time.monotonic() - began < scaled(AT_ONCE)
    wait_until(lambda: descriptors(controller) <= before + MOST_OF_ONE_ADDRESS,
               "the other address's connection is closed")
    # The idle connections are closed.
    wait_until(lambda: descriptors(controller) <= before, "the connections are closed", 15)
    assert answer_on(connect(WHOLE_REQUEST)).endswith(b"\r\n\r\nok\n")
    assert controller.finish() == 0
