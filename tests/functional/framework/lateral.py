"""Joined forwarders, and ends that act as one of them."""

from __future__ import annotations

from contextlib import ExitStack
from typing import Dict, Sequence

from .udp import UdpEnd
from .vesk_process import VeskProcess


def shared_free_port(hosts: Sequence[str]) -> int:
    """A port that is free on all these addresses, for a group of instances that share it."""
    for _ in range(50):
        with ExitStack() as ends:
            port = ends.enter_context(UdpEnd(hosts[0])).port
            try:
                for host in hosts[1:]:
                    ends.enter_context(UdpEnd(host, port))
                return port
            except OSError:
                continue
    raise AssertionError(f"no port is free on all of {hosts}")


def join(vesk: VeskProcess, own_index: int, hosts: Dict[int, str], port: int,
         instances: int) -> None:
    """Adds the peers of a forwarder and starts its lateral stream."""
    lines = vesk.lines_after(
        *(f"add_lateral_peer idx {index} addr {host}"
          for index, host in hosts.items() if index != own_index),
        f"start_lateral addr {hosts[own_index]} port {port} idx {own_index} max_qels {instances}")
    assert lines[-1] == (f"info Vesk Lateral listener started on port {port} address "
                         f"{hosts[own_index]} index {own_index} maxQels {instances}"), lines


def owned_label(owner: int, number: int = 1, instances: int = 2) -> int:
    """A label whose upper 16 bits belong to this instance."""
    return ((instances * 7 + owner) << 16) | number


LOOPBACK: Dict[int, str] = {0: "127.0.0.1", 1: "127.0.0.2", 2: "127.0.0.3"}
