"""Joined forwarders, and ends that act as one of them."""

from __future__ import annotations

from contextlib import ExitStack
from typing import Callable, Dict, Sequence

from .flow import Flow, four_keys
from .framing import (FORWARDED, RETURNED, UDPV2, Framing, LateralDatagram, build_lateral,
                      parse_lateral, socket_address_bytes)
from .statistics import report
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

MINE, OTHERS = 0, 1
NewEnd = Callable[..., UdpEnd]


class Joined:
    """One forwarder (instance 0 of 2) whose only neighbour is a socket of the test."""

    def __init__(self, vesk: VeskProcess, new_end: NewEnd, framing: Framing = UDPV2,
                 listen: str = "127.0.0.1", instances: int = 2) -> None:
        self.vesk = vesk
        self.framing = framing
        self.upstream = new_end()
        self.peer = new_end(listen)
        self.lateral_port = shared_free_port([LOOPBACK[MINE], LOOPBACK[OTHERS]])
        self.neighbour = new_end(LOOPBACK[OTHERS], self.lateral_port)
        self.lateral_to = (LOOPBACK[MINE], self.lateral_port)
        join(vesk, MINE, {0: LOOPBACK[0], 1: LOOPBACK[1]}, self.lateral_port, instances)
        self.to = (listen, vesk.listen(listen))
        self.flow = Flow(owned_label(MINE), self.upstream.address, framing=framing, **four_keys())
        vesk.lines_after(self.flow.set_command())

    def foreign(self, payload: bytes = b"foreign") -> bytes:
        """A datagram whose label belongs to the neighbour. The forwarder has no key for it."""
        return self.framing.build(owned_label(OTHERS), payload, four_keys()["up_in"])

    def hand_over(self, datagram: bytes) -> LateralDatagram:
        """Sends a datagram and returns what the neighbour receives."""
        self.peer.send(datagram, self.to)
        return parse_lateral(self.neighbour.receive().data)

    def forward(self, payload: bytes, address: bytes = socket_address_bytes("192.0.2.1", 7),
                authentication: bytes = b"neighbour's code") -> bytes:
        """A lateral datagram in which the neighbour forwards a datagram of our flow."""
        return build_lateral(FORWARDED, address, authentication, self.flow.request(payload))

    def nothing_reached_the_peer(self) -> None:
        """Sends a good returned datagram last: the lateral stream is handled in order."""
        handed = self.hand_over(self.foreign(b"control"))
        self.neighbour.send(build_lateral(RETURNED, handed.address, handed.authentication,
                                          b"control answer"), self.lateral_to)
        assert self.peer.receive().data == b"control answer"

    def lateral(self) -> Dict[str, int]:
        counters = report(self.vesk).lateral
        assert counters is not None
        return counters
