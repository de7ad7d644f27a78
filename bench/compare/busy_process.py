"""A process that does nothing but compute, on the processor of what is measured beside it."""

import os
import subprocess
import sys

# Stays in user mode for about a millisecond at a time: no call gives the processor up, and the
# looks at the clock and at the parent cost nothing that could be measured.
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
    """Computes from entering the context to leaving it.

    It ends by itself after so many seconds, and as soon as the process that started it has died, so
    that a bench that is killed leaves no load behind.
    """

    def __init__(self, processor: int, seconds: float):
        self._arguments = [str(processor), str(seconds), str(os.getpid())]
        self._process = None

    def __enter__(self) -> "BusyProcess":
        self._process = subprocess.Popen([sys.executable, "-I", "-S", "-c", PROGRAM,
                                          *self._arguments],
                                         stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        # Written once it is on its processor. If it failed to start there is no line, and running()
        # tells so.
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
