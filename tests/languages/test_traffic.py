"""An echo service and a peer of each language exchange datagrams through a forwarder, while every key changes."""

from __future__ import annotations

from pathlib import Path

import pytest

from framework.fixtures import StartVesk
from framework.flow import Flow
from framework.framing import UDPV1, UDPV2, Framing, Key
from framework.timing import count_from_environment
from languages import Commands
from programs import Counts, Echo, Ends, Peer

# What each peer program sends; there are two, before and after the change of the keys.
_HALF = count_from_environment("VESK_LANGUAGE_DATAGRAMS", 2000) // 2
_LABEL, _UP_LABEL, _DOWN_LABEL = 0x10001, 0xFFFFFFFE, 0x80000000


def keys(name: str, old_digest: str, new_digest: str) -> "tuple[Key, Key]":
    return Key(f"old {name}".encode(), old_digest), Key(f"new {name}".encode(), new_digest)


def flow_counts(received: int, key: int, old_key: int) -> Counts:
    return {"sent": received, "received": received, "refused": 0, "wrong": 0, "key": key, "old_key": old_key}


def of(expected: Counts, counts: Counts) -> Counts:
    """The counts that are expected, without fields that a program may add."""
    return {name: value for name, value in counts.items() if name in expected}


@pytest.mark.limit_seconds(600)
@pytest.mark.parametrize("framing, further", [(UDPV1, "aabbcc"), (UDPV2, "")], ids=["udpv1", "udpv2"])
def test_every_datagram_is_answered_while_keys_change(commands: Commands, start_vesk: StartVesk, tmp_path: Path,
                                                      framing: Framing, further: str) -> None:
    vesk = start_vesk(framing.name).ready()
    port = vesk.listen()
    # Each direction on each side has another order of the digests. The ends accept the keys of both halves.
    old_up_out, up_out = keys("up_out", "sha1", "sha256")
    old_down_out, down_out = keys("down_out", "sha256", "sha1")
    down_in = keys("down_in", "sha256", "sha1")
    up_in = Key(b"up_in", "sha1" if framing == UDPV2 else "sha256")
    echo_ends = Ends(framing, out_label=_LABEL, in_label=_UP_LABEL, out_key=up_in, in_key=up_out,
                     old_in_key=old_up_out)
    peers = [Ends(framing, out_label=_LABEL, in_label=_DOWN_LABEL, out_key=key, in_key=down_out,
                  old_in_key=old_down_out) for key in down_in]
    options = ["--further", further] if further else []

    with Echo(commands, echo_ends, tmp_path) as echo:
        for number, signing in enumerate([(old_up_out, old_down_out), (up_out, down_out)]):
            flow = Flow(_LABEL, ("127.0.0.1", echo.port), _UP_LABEL, _DOWN_LABEL, framing=framing, up_in=up_in,
                        down_in=down_in[number], up_out=signing[0], down_out=signing[1])
            assert vesk.lines_after(flow.set_command()) == []
            with Peer(commands, peers[number], tmp_path, port, _HALF, *options) as peer:
                counts = peer.counts()
            expected = {**flow_counts(_HALF, key=number * _HALF, old_key=(1 - number) * _HALF), "lost": 0}
            assert of(expected, counts) == expected
        expected = flow_counts(2 * _HALF, key=_HALF, old_key=_HALF)
        assert of(expected, echo.end()) == expected
