"""Prints the description of the library's binary interface, with which test_interface.py compares it. After an addition
to the interface:

    describe_interface.py build/release/framing/libvesk-framing.so.1 > tests/framing/libvesk-framing.abi

What is removed or changed needs another SONAME.
"""

from __future__ import annotations

import re
import sys

from programs import ROOT, run


def main() -> None:
    text = run("abidw", "--exported-interfaces-only", "--drop-private-types",
               "--header-file", ROOT / "framing/vesk_framing.h", "--type-id-style", "hash", "--no-corpus-path",
               "--no-comp-dir-path", "--no-show-locs", "--no-elf-needed", "--no-architecture", sys.argv[1])
    # The same in every tree.
    print(re.sub(r" path='[^']*/(framing/\w+\.cpp)'", r" path='\1'", text), end="")


if __name__ == "__main__":
    main()
