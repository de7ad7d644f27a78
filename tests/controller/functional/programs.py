"""Programs that replace the forwarder, or change the commands to it."""

from __future__ import annotations

import os
from pathlib import Path


# For the shell: reads commands and writes nothing.
SILENT = "exec cat >/dev/null"

# For the shell: answers each command with the forwarder's error for an unknown command. That answers each
# fence.
ANSWERING = "while read line; do echo \"error Unrecognised command '$line'\"; echo; done"


def script(folder: Path, text: str) -> str:
    """Writes a shell script; returns its path."""
    path = folder / "program"
    path.write_text(f"#!/bin/sh\n{text}\n", encoding="utf-8")
    path.chmod(0o700)
    return str(path)


def spoiling_program(folder: Path, edit: str) -> str:
    """Writes a script that runs the forwarder and edits its commands with sed; returns its path."""
    forwarder = os.path.abspath(os.environ["VESK_BINARY"])
    return script(folder, f"sed -u '{edit}' | '{forwarder}' \"$@\"")
