"""The options of both examples, and the keys that they name."""

from __future__ import annotations

import argparse
from dataclasses import dataclass
from pathlib import Path

from vesk_framing import Digest, Framing, Key


@dataclass(frozen=True)
class Options:
    """What both programs need. "In" is what the program receives and checks, "out" what it makes and signs."""

    framing: Framing
    port: int
    out_label: int
    in_label: int
    out_key: Key
    in_key: Key
    # The second key that is accepted while keys are changed.
    old_in_key: Key | None


def parser(description: str) -> argparse.ArgumentParser:
    found = argparse.ArgumentParser(description=description)
    found.add_argument("--framing", type=Framing, choices=list(Framing), metavar="udpv1|udpv2", required=True)
    for name in ("port", "out-label", "in-label"):
        found.add_argument(f"--{name}", type=int, required=True)
    for name in ("out", "in", "old-in"):
        found.add_argument(f"--{name}-key", type=Path, metavar="FILE")
        found.add_argument(f"--{name}-digest", type=Digest, choices=list(Digest), metavar="sha1|sha256",
                           default=Digest.SHA256)
    return found


def options(given: argparse.Namespace) -> Options:
    old = read_key(given.old_in_key, given.old_in_digest) if given.old_in_key else None
    return Options(given.framing, given.port, given.out_label, given.in_label,
                   read_key(given.out_key, given.out_digest), read_key(given.in_key, given.in_digest), old)


def read_key(file: Path | None, digest: Digest) -> Key:
    """The key in a file of hexadecimal digits and white space, as `vesk-controller --new-key` writes it."""
    return Key.empty() if file is None else Key(bytes.fromhex(file.read_text(encoding="ascii")), digest)
