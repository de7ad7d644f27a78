"""A peer that sends datagrams to a forwarder, checks the replies, and prints what it has counted."""

from __future__ import annotations

import argparse
import asyncio
import json

from options import Options, options, parser
from vesk_framing import Match, Refused, check, largest_payload, make

_MTU = 1500
_NUMBER_LENGTH = 8
_PATTERN = bytes(range(256)) * 8


class Peer(asyncio.DatagramProtocol):
    """Keeps a window of unanswered datagrams full. `ended` is set when all are answered, or when nothing arrives."""

    def __init__(self, given: Options, count: int, window: int, timeout: float, further: bytes) -> None:
        self._given, self._count, self._window, self._timeout = given, count, window, timeout
        self._further = further
        self._lengths = largest_payload(given.framing, _MTU, further_length=len(further)) - _NUMBER_LENGTH + 1
        self._unanswered: set[int] = set()
        self.counts = {"sent": 0, "received": 0, "refused": 0, "wrong": 0, "key": 0, "old_key": 0}
        self.ended = asyncio.Event()

    def connection_made(self, transport: asyncio.DatagramTransport) -> None:  # type: ignore[override]
        self._transport = transport
        self._last_arrival = asyncio.get_running_loop().time()
        self._send()
        self._watch()

    def datagram_received(self, data: bytes, address: tuple[str, int]) -> None:
        given = self._given
        self._last_arrival = asyncio.get_running_loop().time()
        try:
            answer = check(given.framing, data, given.in_key, given.old_in_key)
        except Refused:
            self.counts["refused"] += 1
            return
        number = int.from_bytes(answer.payload[:_NUMBER_LENGTH], "big")
        if (answer.label != given.in_label or answer.further != self._further or number not in self._unanswered
                or answer.payload != self._payload(number)):
            self.counts["wrong"] += 1
            return
        self._unanswered.remove(number)
        self.counts["received"] += 1
        self.counts["key" if answer.match is Match.KEY else "old_key"] += 1
        self._send()

    def _send(self) -> None:
        given, sent = self._given, self.counts["sent"]
        while sent < self._count and len(self._unanswered) < self._window:
            self._unanswered.add(sent)
            self._transport.sendto(make(given.framing, given.out_label, self._payload(sent), given.out_key,
                                        further=self._further))
            sent += 1
        self.counts["sent"] = sent
        if not self._unanswered:
            self.ended.set()

    def _watch(self) -> None:
        """Gives up when nothing has arrived for the time that is allowed."""
        loop = asyncio.get_running_loop()
        if loop.time() >= self._last_arrival + self._timeout:
            self.ended.set()
        else:
            self._watching = loop.call_at(self._last_arrival + self._timeout, self._watch)

    def _payload(self, number: int) -> bytes:
        first, length = number % 256, number * 37 % self._lengths
        return number.to_bytes(_NUMBER_LENGTH, "big") + _PATTERN[first:first + length]


async def exchange(given: Options, details: argparse.Namespace) -> dict[str, int]:
    transport, peer = await asyncio.get_running_loop().create_datagram_endpoint(
        lambda: Peer(given, details.count, details.window, details.timeout, details.further),
        remote_addr=("127.0.0.1", given.port))
    await peer.ended.wait()
    transport.close()
    return {**peer.counts, "lost": peer.counts["sent"] - peer.counts["received"]}


def main() -> None:
    arguments = parser(__doc__)
    arguments.add_argument("--count", type=int, required=True)
    arguments.add_argument("--window", type=int, default=32)
    arguments.add_argument("--timeout", type=float, default=5, help="seconds without a reply before it gives up")
    arguments.add_argument("--further", type=bytes.fromhex, default=b"", metavar="HEX")
    details = arguments.parse_args()
    print(json.dumps(asyncio.run(exchange(options(details), details))))


if __name__ == "__main__":
    main()
