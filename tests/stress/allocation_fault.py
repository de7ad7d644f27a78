"""Lets single allocations of a forwarder's threads fail."""

from __future__ import annotations

import mmap
import struct
import subprocess
from pathlib import Path
from typing import Dict

_SOURCE = Path(__file__).resolve().parent / "fail_allocation.c"
_THREE_NUMBERS = struct.Struct("=qqq")


class AllocationFault:
    """The library to start a forwarder with, and the numbers that tell it what to do."""

    def __init__(self, folder: Path) -> None:
        library, shared = folder / "fail_allocation.so", folder / "allocation_fault"
        subprocess.run(["cc", "-shared", "-fPIC", "-O1", "-Wall", "-Wextra", "-Werror",
                        str(_SOURCE), "-o", str(library)], check=True)
        shared.write_bytes(bytes(_THREE_NUMBERS.size))
        self.environment: Dict[str, str] = {"LD_PRELOAD": str(library),
                                            "VESK_ALLOCATION_FAULT": str(shared)}
        with shared.open("r+b") as file:
            self._numbers = mmap.mmap(file.fileno(), _THREE_NUMBERS.size)

    def strike(self, thread: int, number: int) -> None:
        """The thread's allocation of this number from now on fails."""
        # Last the thread, which is what switches it on.
        self._numbers[8:] = struct.pack("=qq", number, 0)
        self._numbers[:8] = struct.pack("=q", thread)

    def relent(self) -> bool:
        """Whether an allocation failed; from now on none does."""
        self._numbers[:8] = bytes(8)
        return _THREE_NUMBERS.unpack(self._numbers)[2] > 0

    def close(self) -> None:
        self._numbers.close()
