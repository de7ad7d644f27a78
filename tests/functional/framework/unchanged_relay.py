"""A forwarder that changes nothing and records which datagrams arrive as one message."""

from __future__ import annotations

import select
import socket
import struct
import threading
from typing import Dict, List, Tuple

from .framing import UDPV2
from .udp import UDP_GRO, Address, free_port, send_merged

Message = List[bytes]


class UnchangedRelay:
    """Both sides merge arrivals, and a merged message leaves merged. Runs until it is closed."""

    def __init__(self) -> None:
        self.port, self.upstream_port = free_port(), free_port()
        self.requests: List[Message] = []
        self.replies: List[Message] = []
        self._peers: Dict[int, Address] = {}
        self._front, self._back = _merging_socket(self.port), _merging_socket(0)
        self._stop, self._stopped = socket.socketpair()
        self._thread = threading.Thread(target=self._run, name="relay", daemon=True)
        self._thread.start()

    def __enter__(self) -> "UnchangedRelay":
        return self

    def __exit__(self, *_: object) -> None:
        self._stop.close()
        self._thread.join()
        for one in (self._front, self._back, self._stopped):
            one.close()

    def _run(self) -> None:
        while True:
            ready = select.select([self._stopped, self._front, self._back], [], [])[0]
            if self._stopped in ready:
                return
            if self._front in ready:
                self._pass_request()
            if self._back in ready:
                self._pass_reply()

    def _pass_request(self) -> None:
        message, peer = _receive(self._front)
        for datagram in message:
            self._peers[label_of(datagram)] = peer
        self.requests.append(message)
        send_merged(self._back, message, ("127.0.0.1", self.upstream_port))

    def _pass_reply(self) -> None:
        message, _ = _receive(self._back)
        self.replies.append(message)
        for datagram in message:
            send_merged(self._front, [datagram], self._peers[label_of(datagram)])


def label_of(datagram: bytes) -> int:
    return int.from_bytes(datagram[UDPV2.hmac_length:UDPV2.header_size], "big")


def _merging_socket(port: int) -> socket.socket:
    end = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    end.setsockopt(socket.IPPROTO_UDP, UDP_GRO, 1)
    end.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)
    end.bind(("127.0.0.1", port))
    return end


def _receive(end: socket.socket) -> Tuple[Message, Address]:
    data, ancillary, _, sender = end.recvmsg(1 << 16, socket.CMSG_SPACE(4))
    sizes = [struct.unpack("=i", value)[0] for _, kind, value in ancillary if kind == UDP_GRO]
    size = sizes[0] if sizes else len(data)
    return [data[at:at + size] for at in range(0, len(data), size)], sender
