"""Runs tshark with the dissector on a capture and reads the result."""

from __future__ import annotations

import os
import re
import subprocess
from pathlib import Path
from typing import Dict, List, Sequence

from capture import Packet, write
from framework.flow import Flow
from framework.framing import Key
from framework.timing import scaled

DISSECTOR = Path(__file__).resolve().parent.parent.parent / "dissector"

INFO = "_ws.col.Info"
_ROOT_REMARK = 'Running as user "root"'
_SEPARATOR = "\t"
_PREFERENCE = re.compile("[a-z_]+:")


class Tshark:
    """Wireshark's command line program with only the settings of this test."""

    def __init__(self, program: str, folder: Path) -> None:
        self.folder = folder
        self._program = program
        folder.mkdir()

    def run(self, *arguments: str) -> "subprocess.CompletedProcess[str]":
        """Runs tshark and removes from standard error the warning about running as root."""
        environment = {**os.environ, "HOME": str(self.folder),
                       "WIRESHARK_CONFIG_DIR": str(self.folder)}
        done = subprocess.run([self._program, *arguments], capture_output=True, text=True,
                              errors="replace", env=environment, check=False, timeout=scaled(100))
        lines = [line for line in done.stderr.splitlines() if not line.startswith(_ROOT_REMARK)]
        done.stderr = "\n".join(lines)
        return done

    def read(self, capture: Path, *options: str) -> "subprocess.CompletedProcess[str]":
        """`options` of the form "name:value" are preferences of the dissector."""
        arguments: List[str] = []
        for option in options:
            arguments += ["-o", f"vesk.{option}"] if _PREFERENCE.match(option) else [option]
        return self.run("-n", "-r", str(capture), "-X", f"lua_script:{DISSECTOR}/vesk.lua",
                        *arguments)

    def fields(self, capture: Path, names: Sequence[str], *options: str) -> List[Dict[str, str]]:
        """The fields of each packet as text; an absent one is empty."""
        wanted = [word for name in names for word in ("-e", name)]
        done = self.read(capture, *options, "-T", "fields", "-E", f"separator={_SEPARATOR}", *wanted)
        assert (done.returncode, done.stderr) == (0, ""), done.stderr
        return [dict(zip(names, line.split(_SEPARATOR))) for line in done.stdout.splitlines()]

    def of(self, packets: Sequence[Packet], names: Sequence[str],
           *options: str) -> List[Dict[str, str]]:
        capture = write(self.folder / "written.pcap", packets)
        rows = self.fields(capture, names, *options)
        assert len(rows) == len(packets)
        return rows

    def column(self, packets: Sequence[Packet], name: str, *options: str) -> List[str]:
        return [row[name] for row in self.of(packets, [name], *options)]

    def passing(self, packets: Sequence[Packet], display_filter: str, *options: str) -> List[int]:
        """The numbers, from 1, of the packets that match a display filter."""
        capture = write(self.folder / "written.pcap", packets)
        rows = self.fields(capture, ["frame.number"], *options, "-Y", display_filter)
        return [int(row["frame.number"]) for row in rows]

    def key_file(self, *lines: str) -> str:
        """Writes a key file; returns the preference that names it."""
        path = self.folder / "keys"
        path.write_text("".join(f"{line}\n" for line in lines), encoding="utf-8")
        return f"key_file:{path}"


def key_line(label: int, key: Key, direction: str = "") -> str:
    return f"{label:#x} {key.algorithm} {key.secret.hex()} {direction}"


def key_lines(flow: Flow) -> List[str]:
    """The lines for the four keys of a flow, each with its direction and label."""
    ways = [(flow.label, flow.down_in, "from_peer"), (flow.up_label, flow.up_out, "to_upstream"),
            (flow.label, flow.up_in, "from_upstream"), (flow.down_label, flow.down_out, "to_peer")]
    return [key_line(label, key, direction) for label, key, direction in ways if key is not None]
