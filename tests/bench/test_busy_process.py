"""The busy process computes on one processor and ends in time."""

from __future__ import annotations

import os
import subprocess
import sys
import time
from pathlib import Path
from typing import Callable

from compare.busy_process import BusyProcess

BENCH = Path(__file__).resolve().parent.parent.parent / "bench"
DEADLINE_SECONDS = 30
PROCESSOR = min(os.sched_getaffinity(0))


def await_true(condition: Callable[[], bool]) -> None:
    deadline = time.monotonic() + DEADLINE_SECONDS
    while not condition():
        assert time.monotonic() < deadline
        time.sleep(0.01)


def stat(pid: int) -> list:
    """The fields of /proc/PID/stat after the name, from the state on; empty if it has ended."""
    try:
        return Path(f"/proc/{pid}/stat").read_text(encoding="ascii").rpartition(")")[2].split()
    except (FileNotFoundError, ProcessLookupError):
        return []


def ended(pid: int) -> bool:
    fields = stat(pid)
    return not fields or fields[0] == "Z"


def test_computes_on_its_processor_until_the_context_is_left() -> None:
    with BusyProcess(PROCESSOR, DEADLINE_SECONDS) as busy:
        assert os.sched_getaffinity(busy.pid) == {PROCESSOR}
        # Field 14 of the file is the user time in ticks. This number exceeds that of its start.
        await_true(lambda: int(stat(busy.pid)[11]) >= 20)
        assert busy.running()
    assert ended(busy.pid)


def test_ends_by_itself_after_its_time() -> None:
    with BusyProcess(PROCESSOR, 0.1) as busy:
        await_true(lambda: not busy.running())


def test_ends_with_the_process_that_started_it() -> None:
    program = ("import os; from compare.busy_process import BusyProcess; "
               f"print(BusyProcess({PROCESSOR}, 600).__enter__().pid, flush=True); os._exit(0)")
    starter = subprocess.run([sys.executable, "-B", "-c", program], cwd=BENCH, check=True,
                             capture_output=True, text=True, timeout=DEADLINE_SECONDS)
    await_true(lambda: ended(int(starter.stdout)))
