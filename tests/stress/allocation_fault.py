"""Makes single allocations of a forwarder's threads fail."""

from __future__ import annotations

import mmap
import struct
import subprocess
from pathlib import Path
from typing import Dict

_SOURCE = Path(__file__).resolve().parent / "fail_allocation.c"
_THREE_NUMBERS = struct.Struct("=qqq")


class AllocationFault:
    """The library to preload into a forwarder, and the numbers that control it."""

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
        """Makes the thread's allocation of this number, counted from now, fail."""
        # The thread is written last, because it enables the fault.
        self._numbers[8:] = struct.pack("=qq", number, 0)
        self._numbers[:8] = struct.pack("=q", thread)

    def relent(self) -> bool:
        """Disables the fault and returns whether an allocation has failed."""
        self._numbers[:8] = bytes(8)
        return _THREE_NUMBERS.unpack(self._numbers)[2] > 0

    def close(self) -> None:
        self._numbers.close()
