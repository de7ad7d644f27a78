"""A listening forwarder between a peer and an upstream end."""

from __future__ import annotations

from .flow import Flow
from .framing import UDPV2, Framing
from .udp import Address, Received, UdpEnd
from .vesk_process import VeskProcess

CONTROL_LABEL = 0xFEED


class Bench:
    """The steps of most tests: declare a flow, ask, answer, and prove that nothing was sent."""

    def __init__(self, vesk: VeskProcess, peer: UdpEnd, upstream: UdpEnd,
                 framing: Framing = UDPV2, listen: str = "127.0.0.1") -> None:
        self.vesk = vesk
        self.peer = peer
        self.upstream = upstream
        self.framing = framing
        self.to: Address = (listen, vesk.listen(listen))
        self.control = Flow(label=CONTROL_LABEL, upstream=upstream.address, framing=framing)
        self._control_answers = 0
        self.declare(self.control)

    def flow(self, label: int = 5, **details) -> Flow:
        """A flow to this bench's upstream end in its framing. It is not declared yet."""
        details.setdefault("upstream", self.upstream.address)
        return Flow(label=label, framing=self.framing, **details)

    def declare(self, *flows: Flow) -> None:
        lines = self.vesk.lines_after(*(flow.set_command() for flow in flows))
        complaints = [line for line in lines if not line.startswith(("debug ", "info Created"))]
        assert not complaints, complaints

    def send(self, datagram: bytes) -> None:
        self.peer.send(datagram, self.to)

    def ask(self, flow: Flow, payload: bytes = b"question", extra: bytes = b"") -> Received:
        """Sends one datagram upstream and checks it on arrival."""
        self.send(flow.request(payload, extra))
        arrived = self.upstream.receive()
        parsed = flow.open_request(arrived.data)
        assert (parsed.payload, parsed.extra) == (payload, extra)
        return arrived

    def answer(self, flow: Flow, to: Address, payload: bytes = b"answer",
               extra: bytes = b"") -> Received:
        """Sends one reply and checks it on arrival."""
        self.upstream.send(flow.reply(payload, extra), to)
        arrived = self.peer.receive()
        parsed = flow.open_reply(arrived.data)
        assert (parsed.payload, parsed.extra) == (payload, extra)
        return arrived

    def exchange(self, flow: Flow) -> Address:
        """Sends a question and its answer. Returns the address that the upstream end sees."""
        sender = self.ask(flow).sender
        self.answer(flow, sender)
        return sender

    def nothing_went_upstream(self) -> None:
        """Sends a good datagram last: the datagrams of one listener are handled in order."""
        self.ask(self.control, b"control")

    def nothing_came_back(self, flow: Flow, to: Address) -> None:
        """Sends a good reply last: the replies on one upstream socket are handled in order."""
        self._control_answers += 1
        payload = f"control answer {self._control_answers}".encode()
        self.answer(flow, to, payload)
