"""Compares the HMAC of the dissector with Python's."""

from __future__ import annotations

import hmac
import random
from typing import List, Tuple

import pytest

from capture import write
from tshark import DISSECTOR, Tshark

Vector = Tuple[str, bytes, bytes]

BLOCK = 64


def vectors() -> List[Vector]:
    """Message lengths around two blocks, all key lengths, and some lengths of real datagrams."""
    source = random.Random(1)
    lengths = [(16, message) for message in range(2 * BLOCK + 3)]
    lengths += [(key, 25) for key in range(1, 2 * BLOCK + 1)]
    lengths += [(32, message) for message in (512, 1200, 2030, 2032)]
    found = [(algorithm, source.randbytes(key), source.randbytes(message))
             for algorithm in ("sha1", "sha256") for key, message in lengths]
    # Words at both limits of their range.
    return found + [(algorithm, bytes([value]) * BLOCK, bytes([value]) * 200)
                    for algorithm in ("sha1", "sha256") for value in (0x00, 0x7f, 0x80, 0xff)]


@pytest.mark.parametrize("library", ["bit32", "bit"])
def test_the_hmac_equals_pythons(tshark: Tshark, library: str) -> None:
    """With each of the bit libraries that different versions of Wireshark have."""
    listed = tshark.folder / "vectors"
    listed.write_text("".join(f"{algorithm} {key.hex()} {message.hex() or '-'}\n"
                              for algorithm, key, message in vectors()), encoding="ascii")
    script = DISSECTOR.parent / "tests" / "dissector" / "print_hmacs.lua"
    done = tshark.run("-r", str(write(tshark.folder / "empty.pcap", [])),
                      "-X", f"lua_script:{script}",
                      *(word for argument in (DISSECTOR / "vesk_hmac.lua", listed, library)
                        for word in ("-X", f"lua_script1:{argument}")))
    assert done.stderr == ""
    assert done.stdout.split() == [hmac.new(key, message, algorithm).hexdigest()
                                   for algorithm, key, message in vectors()]
