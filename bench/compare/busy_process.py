"""A process that only computes, on the processor of the measured forwarder."""

import os
import subprocess
import sys

# Stays in user mode for about a millisecond at a time. No call yields the processor, and the checks
# of the clock and the parent have no measurable cost.
PROGRAM = """
import os, sys, time
processor, seconds, parent = int(sys.argv[1]), float(sys.argv[2]), int(sys.argv[3])
os.sched_setaffinity(0, {processor})
end = time.monotonic() + seconds
print("running", flush=True)
while time.monotonic() < end and os.getppid() == parent:
    for _ in range(50000):
        pass
"""


class BusyProcess:
    """Computes from the entry into the context to its exit.

    It ends by itself after the given number of seconds, and when its parent process has ended, so that
    a killed bench leaves no busy process.
    """

    def __init__(self, processor: int, seconds: float):
        self._arguments = [str(processor), str(seconds), str(os.getpid())]
        self._process = None

    def __enter__(self) -> "BusyProcess":
        self._process = subprocess.Popen([sys.executable, "-I", "-S", "-c", PROGRAM,
                                          *self._arguments],
                                         stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        # The process writes a line once it runs on its processor. If it failed to start, there is no
        # line, and running() is false.
        self._process.stdout.readline()
        return self

    def __exit__(self, *_: object) -> None:
        self._process.kill()
        self._process.wait()
        self._process.stdout.close()

    @property
    def pid(self) -> int:
        return self._process.pid

    def running(self) -> bool:
        return self._process.poll() is None
