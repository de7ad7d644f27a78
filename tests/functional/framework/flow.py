"""A flow as the controlling service declares it, with the datagrams of both its ends."""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Dict, Optional

from .framing import UDPV2, Datagram, Framing, Key
from .udp import Address


@dataclass
class Flow:
    """The attributes of one label, and the datagrams that match them."""

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
        # The labels of both sides differ, so that a missing rewrite is detected.
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
        """A datagram as a peer sends it."""
        return self.framing.build(self.label, payload, self.down_in, extra)

    def open_request(self, datagram: bytes) -> Datagram:
        """Parses a datagram that upstream received and checks its HMAC and upstream label."""
        parsed = self.framing.open(datagram, self.up_out)
        assert parsed.label == self.up_label, f"upstream label is {parsed.label:#x}"
        return parsed

    def reply(self, payload: bytes, extra: bytes = b"", label: Optional[int] = None) -> bytes:
        """A reply as the upstream service sends it, with the label that the forwarder uses."""
        return self.framing.build(self.label if label is None else label, payload, self.up_in,
                                  extra)

    def open_reply(self, datagram: bytes) -> Datagram:
        """Parses a datagram that the peer received and checks its HMAC and downstream label."""
        parsed = self.framing.open(datagram, self.down_out)
        assert parsed.label == self.down_label, f"downstream label is {parsed.label:#x}"
        return parsed

    def echo(self, datagram: bytes) -> bytes:
        """Checks a datagram as the upstream service and returns the reply with the same payload."""
        parsed = self.open_request(datagram)
        return self.reply(parsed.payload, parsed.extra)


def four_keys(algorithm: str = "sha256") -> Dict[str, Key]:
    """Four different keys, so that the use of a wrong one is detected."""
    return {name: Key(bytes([number]) * 16 + name.encode(), algorithm)
            for number, name in enumerate(("down_in", "down_out", "up_in", "up_out"), start=1)}
