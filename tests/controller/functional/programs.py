"""Programs that stand in for a forwarder, or spoil what it is told."""

from __future__ import annotations

import os
from pathlib import Path


# For the shell: takes commands and says nothing.
SILENT = "exec cat >/dev/null"

# For the shell: says of each command what the forwarder says of one that it does not know, and so answers
# each fence.
ANSWERING = "while read line; do echo \"error Unrecognised command '$line'\"; echo; done"


def script(folder: Path, text: str) -> str:
    """A program for the shell; returns its path."""
    path = folder / "program"
    path.write_text(f"#!/bin/sh\n{text}\n", encoding="utf-8")
    path.chmod(0o700)
    return str(path)


def spoiling_program(folder: Path, edit: str) -> str:
    """The forwarder, with its commands edited by sed on their way."""
    forwarder = os.path.abspath(os.environ["VESK_BINARY"])
    return script(folder, f"sed -u '{edit}' | '{forwarder}' \"$@\"")
