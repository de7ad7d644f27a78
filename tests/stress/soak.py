"""Half load on thousands of flows for a long time, with a hundred flows changed each second.

Usage: soak.py MINUTES, in an environment as described in `run`. Prints a line each minute and one
line of figures at the end. The exit status is 1 if a datagram was lost or a resource grew.
"""

from __future__ import annotations

import os
import resource
import statistics
import sys
import tempfile
import threading
import time
from dataclasses import dataclass
from pathlib import Path
from typing import List, Sequence

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "functional"))

from framework.statistics import report  # noqa: E402
from framework.vesk_process import VeskProcess  # noqa: E402

from good_traffic import GoodTraffic, Outcome  # noqa: E402
from resources import drops_on_this_host, resident_kib  # noqa: E402

STEADY_FLOWS = 4000
CHANGING_FLOWS = 1000
CHANGES_A_SECOND = 100
TICKS_A_SECOND = 10
MEMORY_GROWTH_KIB = 1024
LATE_ALLOWED = 1e-4
DESCRIPTORS_BESIDE_FLOWS = 64


@dataclass(frozen=True)
class Minute:
    """The figures of one minute."""

    descriptors: int
    expected_descriptors: int
    memory_kib: int
    steady: Outcome
    changing: Outcome
    changes: int
    kernel_drops: int

    def faults(self) -> List[str]:
        found = []
        if self.descriptors != self.expected_descriptors:
            found.append(f"{self.descriptors} descriptors instead of {self.expected_descriptors}")
        if self.steady.lost > self.kernel_drops:
            found.append(f"{self.steady.lost} lost, of which the kernel dropped "
                         f"{self.kernel_drops} at most")
        # Each change may lose the datagrams that are on their way at that moment.
        if self.changing.lost > self.changes + self.kernel_drops:
            found.append(f"{self.changing.lost} lost in {self.changes} changes")
        if self.steady.late > LATE_ALLOWED * self.steady.sent:
            found.append(f"{self.steady.late} late")
        if self.steady.wrong + self.changing.wrong:
            found.append(f"{self.steady.wrong + self.changing.wrong} wrong")
        return found


class Soak:
    """A forwarder under load, and the number of its descriptors before the first flow."""

    def __init__(self, folder: Path) -> None:
        self.vesk = VeskProcess(folder).ready()
        port = self.vesk.listen()
        self._bare = self.vesk.descriptor_count()
        self.steady = GoodTraffic(port, STEADY_FLOWS, label_base=1 << 16, seed=1)
        self.changing = GoodTraffic(port, CHANGING_FLOWS, label_base=2 << 16, seed=2)
        self.steady.declare(self.vesk)
        self._commands = self.changing.declare(self.vesk)
        self._changes = 0
        self.rate = self._half_load()

    def _half_load(self) -> float:
        with self.steady.round(seconds=3) as alone:
            return alone.outcome().request_rate / 2

    def _change(self, count: int) -> None:
        """Alternately sets a flow again, or deletes and declares it again."""
        for _ in range(count):
            command = self._commands[self._changes % CHANGING_FLOWS]
            if self._changes // CHANGING_FLOWS % 2:
                self.vesk.command(f"del label {command.split()[2]}")
            self.vesk.command(command)
            self._changes += 1

    def minute(self, seconds: float) -> Minute:
        changes, drops = self._changes, drops_on_this_host()
        share = STEADY_FLOWS / (STEADY_FLOWS + CHANGING_FLOWS)
        with self.steady.round(seconds, self.rate * share) as steady, \
                self.changing.round(seconds, self.rate * (1 - share)) as changing:
            self._change_while(lambda: steady.running() and changing.running())
            outcomes = steady.outcome(), changing.outcome()
        seen = report(self.vesk)
        expected = self._bare + 2 * seen.totals["EptNr"]
        try:
            self.vesk.wait_for_descriptor_count(expected)
        except AssertionError:
            pass  # The line of the minute shows it.
        return Minute(self.vesk.descriptor_count(), expected, resident_kib(self.vesk.pid),
                      *outcomes, self._changes - changes, drops_on_this_host() - drops)

    def _change_while(self, busy) -> None:
        pace = threading.Event()
        due = time.monotonic()
        while busy():
            self._change(CHANGES_A_SECOND // TICKS_A_SECOND)
            self.vesk.settle()
            due += 1 / TICKS_A_SECOND
            pace.wait(max(0.0, due - time.monotonic()))


def memory_trend_kib(minutes: Sequence[Minute]) -> float:
    """The growth of the median from the first third of the minutes to the last third, without the
    first minute, which is a warm-up."""
    figures = [minute.memory_kib for minute in minutes[1:]] or [minutes[0].memory_kib]
    third = max(1, len(figures) // 3)
    return statistics.median(figures[-third:]) - statistics.median(figures[:third])


def show(number: int, minute: Minute) -> None:
    print(f"minute {number}: descriptors {minute.descriptors}, memory {minute.memory_kib} KiB, "
          f"steady flows {minute.steady.sent} sent {minute.steady.lost} lost "
          f"{minute.steady.late} late, changing flows {minute.changing.sent} sent "
          f"{minute.changing.lost} lost {minute.changing.late} late in {minute.changes} changes, "
          f"{minute.kernel_drops} dropped by the kernel"
          + "".join(f"; FAULT: {fault}" for fault in minute.faults()), flush=True)


def raise_descriptor_limit() -> None:
    """Children inherit it."""
    wanted = 2 * (STEADY_FLOWS + CHANGING_FLOWS) + DESCRIPTORS_BESIDE_FLOWS
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if soft < wanted:
        if hard < wanted and os.geteuid() == 0:
            hard = wanted
        resource.setrlimit(resource.RLIMIT_NOFILE, (min(wanted, hard), hard))


def main() -> int:
    count = int(sys.argv[1])
    raise_descriptor_limit()
    with tempfile.TemporaryDirectory() as folder:
        soak = Soak(Path(folder))
        minutes: List[Minute] = []
        for number in range(1, count + 1):
            minutes.append(soak.minute(seconds=58))
            show(number, minutes[-1])
        soak.vesk.finish()
    trend = memory_trend_kib(minutes)
    faults = [fault for minute in minutes for fault in minute.faults()]
    if trend > MEMORY_GROWTH_KIB:
        faults.append(f"memory grew by {trend:.0f} KiB")
    steady = [minute.steady for minute in minutes]
    changing = [minute.changing for minute in minutes]
    print(f"soak: {count} minutes, {STEADY_FLOWS + CHANGING_FLOWS} flows at {soak.rate:.0f}/s, "
          f"{sum(minute.changes for minute in minutes)} changes, steady flows "
          f"{sum(one.sent for one in steady)} sent {sum(one.lost for one in steady)} lost "
          f"{sum(one.late for one in steady)} late, changing flows "
          f"{sum(one.sent for one in changing)} sent {sum(one.lost for one in changing)} lost, "
          f"descriptors {minutes[0].descriptors} to {minutes[-1].descriptors}, memory "
          f"{minutes[0].memory_kib} to {minutes[-1].memory_kib} KiB (trend {trend:+.0f} KiB), "
          + (f"FAULTS: {'; '.join(faults)}" if faults else "no trend"))
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
