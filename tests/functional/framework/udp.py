"""UDP ends of the tests: peers and upstream services."""

from __future__ import annotations

import ipaddress
import random
import socket
import struct
import threading
from dataclasses import dataclass
from pathlib import Path
from typing import Callable, Optional, Sequence, Tuple

from .timing import scaled

Address = Tuple[str, int]

# From linux/udp.h; the module socket does not have them.
UDP_SEGMENT = 103
UDP_GRO = 104

_ANCILLARY_ROOM = socket.CMSG_SPACE(4) + socket.CMSG_SPACE(12) + socket.CMSG_SPACE(20)


@dataclass(frozen=True)
class Received:
    """One datagram with everything that the network layer reported about it."""

    data: bytes
    sender: Address
    dscp: int


# Below it are the ports of well-known services.
FIRST_FREE_PORT = 10_000


def family_of(host: str) -> socket.AddressFamily:
    return socket.AF_INET6 if ipaddress.ip_address(host).version == 6 else socket.AF_INET


def free_port(host: str = "127.0.0.1") -> int:
    """A port that is free at the moment. It is below the range from which the kernel assigns
    ports, so only a socket that requests this port can take it before it is used."""
    ports = Path("/proc/sys/net/ipv4/ip_local_port_range").read_text(encoding="ascii")
    while True:
        port = random.randrange(FIRST_FREE_PORT, int(ports.split()[0]))
        with socket.socket(family_of(host), socket.SOCK_DGRAM) as probe:
            try:
                probe.bind((host, port))
            except OSError:
                continue
            return port


def kernels_choice(destination: str) -> str:
    """The source address that the kernel chooses for a destination."""
    with socket.socket(family_of(destination), socket.SOCK_DGRAM) as probe:
        probe.connect((destination, 9))
        return probe.getsockname()[0]


def send_merged(end: socket.socket, datagrams: Sequence[bytes], to: Address) -> None:
    """Sends datagrams with one call, as one message that the kernel cuts if anybody needs it cut.

    All have the length of the first one, except the last, which may be shorter.
    """
    size = struct.pack("=H", len(datagrams[0]))
    ancillary = [(socket.IPPROTO_UDP, UDP_SEGMENT, size)] if len(datagrams) > 1 else []
    end.sendmsg(datagrams, ancillary, 0, to)


class UdpEnd:
    """A bound UDP socket. Every wait has a deadline."""

    def __init__(self, host: str = "127.0.0.1", port: int = 0) -> None:
        self.family = family_of(host)
        self.socket = socket.socket(self.family, socket.SOCK_DGRAM)
        try:
            # A socket on "::" also receives IPv4 datagrams.
            if self.family == socket.AF_INET or host == "::":
                self.socket.setsockopt(socket.IPPROTO_IP, socket.IP_RECVTOS, 1)
            if self.family == socket.AF_INET6:
                self.socket.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_RECVTCLASS, 1)
                self.socket.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY,
                                       0 if host == "::" else 1)
            # All datagrams of a burst must fit; a datagram lost here would look like a defect.
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)
            self.socket.bind((host, port))
        except BaseException:
            self.socket.close()
            raise
        self.host, self.port = self.socket.getsockname()[:2]

    @property
    def address(self) -> Address:
        return self.host, self.port

    def send(self, data: bytes, to: Address) -> None:
        self.socket.sendto(data, to)

    def send_merged(self, datagrams: Sequence[bytes], to: Address) -> None:
        send_merged(self.socket, datagrams, to)

    def receive(self, seconds: float = 5.0) -> Received:
        self.socket.settimeout(scaled(seconds))
        try:
            data, ancillary, _, sender = self.socket.recvmsg(65536, _ANCILLARY_ROOM)
        except TimeoutError:
            raise AssertionError(
                f"nothing arrived on {self.host}|{self.port} in {scaled(seconds):g} s") from None
        return Received(data, sender[:2], _dscp_of(ancillary))

    def waiting(self) -> Optional[Received]:
        """The next datagram if one has arrived, else None."""
        self.socket.settimeout(0)
        try:
            data, ancillary, _, sender = self.socket.recvmsg(65536, _ANCILLARY_ROOM)
        except BlockingIOError:
            return None
        return Received(data, sender[:2], _dscp_of(ancillary))

    def close(self) -> None:
        self.socket.close()

    def __enter__(self) -> "UdpEnd":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()


def _dscp_of(ancillary: list) -> int:
    for level, kind, data in ancillary:
        if level == socket.IPPROTO_IP and kind == socket.IP_TOS:
            return data[0] >> 2
        if level == socket.IPPROTO_IPV6 and kind == socket.IPV6_TCLASS:
            return struct.unpack("=i", data[:4])[0] >> 2
    raise AssertionError("the kernel did not report a traffic class")


class UpstreamService:
    """An upstream service on its own thread that answers every datagram it receives.

    `answer` takes the received datagram and returns the reply, or None for no reply.
    `close` raises the exceptions of `answer` again, so that a wrong datagram fails the
    test instead of only ending a call in the thread.
    """

    def __init__(self, answer: Callable[[bytes], Optional[bytes]],
                 host: str = "127.0.0.1") -> None:
        self.end = UdpEnd(host)
        self.received = 0
        self.failure: Optional[BaseException] = None
        self._answer = answer
        self._stop = threading.Event()
        self.end.socket.settimeout(0.05)
        self._thread = threading.Thread(target=self._serve, name="upstream service", daemon=True)
        self._thread.start()

    @property
    def address(self) -> Address:
        return self.end.address

    def _serve(self) -> None:
        while not self._stop.is_set():
            try:
                data, sender = self.end.socket.recvfrom(65536)
            except TimeoutError:
                continue
            self.received += 1
            try:
                reply = self._answer(data)
            except Exception as error:
                self.failure = self.failure or error
                continue
            if reply is not None:
                self.end.socket.sendto(reply, sender)

    def close(self) -> None:
        self._stop.set()
        self._thread.join()
        self.end.close()
        if self.failure is not None:
            raise self.failure

    def __enter__(self) -> "UpstreamService":
        return self

    def __exit__(self, kind: object, *_: object) -> None:
        try:
            self.close()
        except Exception:
            if kind is None:
                raise
