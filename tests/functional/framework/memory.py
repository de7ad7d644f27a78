"""Looks for bytes in the memory of a running forwarder."""

from __future__ import annotations

import re
from dataclasses import dataclass
from pathlib import Path
from typing import List, Sequence

from .vesk_process import VeskProcess

# The text of a command remains in the input buffer until later commands overwrite it.
_INPUT_BUFFER_SIZE = 4096


@dataclass(frozen=True)
class Mapping:
    """One row of /proc/PID/smaps."""

    first: int
    end: int
    writable: bool
    name: str
    flags: Sequence[str]

    @property
    def dumped(self) -> bool:
        """Whether a core file contains the mapping."""
        return "dd" not in self.flags


def mappings(vesk: VeskProcess) -> List[Mapping]:
    text = Path(f"/proc/{vesk.pid}/smaps").read_text(encoding="ascii")
    return [Mapping(int(first, 16), int(end, 16), "w" in rights, name.strip(), flags.split())
            for first, end, rights, name, flags in re.findall(
                r"^([0-9a-f]+)-([0-9a-f]+) (\S+) \S+ \S+ \S+(.*)\n(?:\w+:.*\n)*?VmFlags:(.*)$",
                text, re.MULTILINE)]


def places_of(vesk: VeskProcess, secret: bytes) -> List[Mapping]:
    """The writable mappings that contain either half of the secret. The allocator overwrites the
    beginning of freed memory, so the first half may be missing."""
    halves = secret[:len(secret) // 2], secret[len(secret) // 2:]
    found = []
    with open(f"/proc/{vesk.pid}/mem", "rb", buffering=0) as memory:
        for mapping in mappings(vesk):
            if mapping.writable:
                memory.seek(mapping.first)
                content = memory.read(mapping.end - mapping.first)
                found += [mapping] * any(half in content for half in halves)
    return found


def displace_input(vesk: VeskProcess) -> None:
    """Fills the forwarder's input buffer with blanks."""
    vesk.command(" " * 2 * _INPUT_BUFFER_SIZE)
    vesk.settle()
