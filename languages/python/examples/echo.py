"""An upstream service that answers each datagram with its payload. SIGTERM ends it; its last line shows its counts."""

from __future__ import annotations

import asyncio
import json
import signal

from options import Options, options, parser
from vesk_framing import Match, Refused, check, make


class Echo(asyncio.DatagramProtocol):
    def __init__(self, given: Options) -> None:
        self._given = given
        self.counts = {"sent": 0, "received": 0, "refused": 0, "wrong": 0, "key": 0, "old_key": 0}

    def connection_made(self, transport: asyncio.DatagramTransport) -> None:  # type: ignore[override]
        self._transport = transport

    def datagram_received(self, data: bytes, address: tuple[str, int]) -> None:
        given = self._given
        try:
            question = check(given.framing, data, given.in_key, given.old_in_key)
        except Refused:
            self.counts["refused"] += 1
            return
        if question.label != given.in_label:
            self.counts["wrong"] += 1
            return
        self.counts["received"] += 1
        self.counts["key" if question.match is Match.KEY else "old_key"] += 1
        # The forwarder passes the further header bytes of UDPv1 on, so the peer gets its own back.
        answer = make(given.framing, given.out_label, question.payload, given.out_key, further=question.further)
        self._transport.sendto(answer, address)
        self.counts["sent"] += 1


async def serve(given: Options) -> None:
    loop = asyncio.get_running_loop()
    ended = asyncio.Event()
    loop.add_signal_handler(signal.SIGTERM, ended.set)
    transport, echo = await loop.create_datagram_endpoint(lambda: Echo(given), ("127.0.0.1", given.port))
    print(json.dumps({"port": transport.get_extra_info("sockname")[1]}), flush=True)
    await ended.wait()
    transport.close()
    print(json.dumps(echo.counts))


if __name__ == "__main__":
    asyncio.run(serve(options(parser(__doc__).parse_args())))
