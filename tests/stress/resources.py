"""The memory that a process uses, and the datagrams that the kernel dropped."""

from __future__ import annotations

import re
from pathlib import Path
from typing import List


def resident_kib(process: int) -> int:
    status = Path(f"/proc/{process}/status").read_text()
    match = re.search(r"^VmRSS:\s+(\d+) kB$", status, re.MULTILINE)
    assert match, status
    return int(match[1])


def drops_on_port(port: int) -> int:
    """Datagrams that the kernel dropped because a receive buffer on this port was full."""
    drops = 0
    for table in ("/proc/net/udp", "/proc/net/udp6"):
        for row in _rows(table):
            fields = row.split()
            if int(fields[1].rsplit(":", 1)[1], 16) == port:
                drops += int(fields[-1])
    return drops


def drops_on_this_host() -> int:
    """The same for all sockets, including closed ones."""
    names, numbers = [line.split() for line in Path("/proc/net/snmp").read_text().splitlines()
                      if line.startswith("Udp:")]
    return int(numbers[names.index("RcvbufErrors")])


def _rows(table: str) -> List[str]:
    path = Path(table)
    return path.read_text().splitlines()[1:] if path.exists() else []
