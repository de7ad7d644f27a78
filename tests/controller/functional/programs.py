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


def spoiling_program(folder: Path, edit: str, through: str = "") -> str:
    """Writes a script that becomes the forwarder and edits the commands to it with sed, and then with
    `through` if that is given; returns its path."""
    forwarder = os.path.abspath(os.environ["VESK_BINARY"])
    edited = f"'{folder}/commands.'$$"
    filters = f"sed -u '{edit}'" + (f" | {through}" if through else "")
    # The shell gives a background command another input unless it is told which.
    return script(folder, f"mkfifo {edited}\nexec 3<&0\n{{ {filters}; }} <&3 3<&- >{edited} &\n"
                          f"exec '{forwarder}' \"$@\" <{edited} 3<&-")


def unusable(*ports: int) -> str:
    """For sed: replaces the address in a start on one of the ports by one that the forwarder cannot use."""
    return "; ".join(f"s/^start addr 127.0.0.1 port {port}$/start addr 192.0.2.1 port {port}/"
                     for port in ports)


_GATE = """{
    stops=0
    while read -r line; do
        if [ "$line" = stop ]; then
            stops=$((stops + 1))
            [ $stops != NUMBER ] || read -r opened <'PATH'
        fi
        printf '%s\\n' "$line"
    done
}"""


class Gate:
    """Holds the commands to a forwarder back, from a certain "stop" on, until it is opened."""

    def __init__(self, folder: Path, stop: int) -> None:
        path = folder / "gate"
        os.mkfifo(path)
        # For reading too, so that the program does not wait for a writer.
        self._descriptor = os.open(path, os.O_RDWR)
        #: For the shell: passes on commands, but waits before the one with the number `stop`.
        self.program = _GATE.replace("NUMBER", str(stop)).replace("PATH", str(path))

    def open(self) -> None:
        os.write(self._descriptor, b"open\n")

    def __enter__(self) -> "Gate":
        return self

    def __exit__(self, *_: object) -> None:
        os.close(self._descriptor)
