"""A flow as the controlling service declares it, with both of its outer ends."""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Dict, Optional

from .framing import UDPV2, Datagram, Framing, Key
from .udp import Address


@dataclass
class Flow:
    """The attributes of one label, and the datagrams they allow."""

    label: int
    upstream: Optional[Address] = None
    up_label: int = 0
    down_label: int = 0
    down_in: Optional[Key] = None
    down_out: Optional[Key] = None
    up_in: Optional[Key] = None
    up_out: Optional[Key] = None
    framing: Framing = UDPV2
    options: Dict[str, object] = field(default_factory=dict)

    def __post_init__(self) -> None:
        # Labels differ on every leg, so that a forgotten rewrite shows.
        self.up_label = self.up_label or self.label + 1_000_000
        self.down_label = self.down_label or self.label + 2_000_000

    def set_command(self) -> str:
        words = [f"set label {self.label} up_label {self.up_label} down_label {self.down_label}"]
        if self.upstream is not None:
            words.append(f"up_ip {self.upstream[0]} up_port {self.upstream[1]}")
        for name in ("down_in", "down_out", "up_in", "up_out"):
            key = getattr(self, name)
            if key is not None:
                words.append(f"{name}_key {key.secret.hex()} {name}_algo {key.algorithm}")
        words += [f"{name} {value}" for name, value in self.options.items()]
        return " ".join(words)

    def request(self, payload: bytes, extra: bytes = b"") -> bytes:
        """What a peer sends."""
        return self.framing.build(self.label, payload, self.down_in, extra)

    def open_request(self, datagram: bytes) -> Datagram:
        """What the upstream service got: rightly signed, under the upstream label."""
        parsed = self.framing.open(datagram, self.up_out)
        assert parsed.label == self.up_label, f"upstream label is {parsed.label:#x}"
        return parsed

    def reply(self, payload: bytes, extra: bytes = b"", label: Optional[int] = None) -> bytes:
        """What the upstream service answers: it names the flow by the forwarder's label."""
        return self.framing.build(self.label if label is None else label, payload, self.up_in,
                                  extra)

    def open_reply(self, datagram: bytes) -> Datagram:
        """What the peer got: rightly signed, under the downstream label."""
        parsed = self.framing.open(datagram, self.down_out)
        assert parsed.label == self.down_label, f"downstream label is {parsed.label:#x}"
        return parsed

    def echo(self, datagram: bytes) -> bytes:
        """What an upstream service does that checks, and sends the payload back."""
        parsed = self.open_request(datagram)
        return self.reply(parsed.payload, parsed.extra)


def four_keys(algorithm: str = "sha256") -> Dict[str, Key]:
    """Four different keys, so that using the wrong one shows."""
    return {name: Key(bytes([number]) * 16 + name.encode(), algorithm)
            for number, name in enumerate(("down_in", "down_out", "up_in", "up_out"), start=1)}
