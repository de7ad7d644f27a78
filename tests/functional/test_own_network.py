"""The tests of a process run in their own network, so that other processes cannot interfere."""

from __future__ import annotations

import os
import socket

import pytest

from framework import own_network
from framework.udp import UdpEnd


def test_a_taken_port_is_free_in_another_network(peer: UdpEnd) -> None:
    child = os.fork()
    if child == 0:
        try:
            refusal = own_network.enter()
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as same:
                if refusal is None:
                    same.bind(peer.address)
                    same.sendto(b"never leaves", peer.address)
            os._exit(77 if refusal else 0)
        finally:
            os._exit(1)
    status = os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])
    if status == 77:
        pytest.skip("network namespaces are not allowed here")
    assert status == 0
    assert peer.waiting() is None
