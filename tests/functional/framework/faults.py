"""Makes system calls of a running forwarder fail."""

from __future__ import annotations

import os
import re
import select
import shutil
import signal
import subprocess
from contextlib import contextmanager
from functools import lru_cache
from pathlib import Path
from typing import ContextManager, Iterator, List, Sequence

import pytest

from .timing import SANITIZER, scaled, wait_until
from .vesk_process import VeskProcess, binary


# By default the runtime of the address sanitizer sets the core limit itself. Its leak check
# stops threads with the same system call that a tracer uses.
CORE_LIMIT_UNTOUCHED = {"ASAN_OPTIONS": "disable_coredump=0:detect_leaks=0",
                        "TSAN_OPTIONS": "disable_coredump=0"}


@lru_cache(maxsize=None)
def _tracing_refusal() -> str:
    if shutil.which("strace") is None:
        return "strace is not installed"
    attempt = subprocess.run(["strace", "-o", "/dev/null", "true"], capture_output=True,
                             check=False)
    return attempt.stderr.decode(errors="replace").strip() if attempt.returncode else ""


def require_tracing() -> None:
    refusal = _tracing_refusal()
    if refusal:
        pytest.skip(f"cannot make system calls fail here: {refusal}")
    if SANITIZER == "tsan":
        pytest.skip("the system calls of the thread sanitizer would fail too")


def faulty_start(log: Path, *injections: str) -> List[str]:
    """The command prefix that makes system calls of the executable fail from the start.

    The tracer runs as a detached process, so the forwarder remains a child of the test.
    """
    require_tracing()
    words = ["strace", "-D", "-f", "-qq", "-o", str(log)]
    for injection in injections:
        call = injection.split(":")[0]
        words += ["-e", f"trace={call}"] if len(injections) == 1 else []
        words += ["-e", f"inject={injection}"]
    return words


def recording_start(log: Path, calls: str) -> List[str]:
    """The command prefix that records the system calls of the executable."""
    require_tracing()
    return ["strace", "-D", "-f", "-qq", "-s", "4096", "-e", f"trace={calls}", "-o", str(log)]


def call_numbers(folder: Path, call: str, pattern: str) -> List[int]:
    """The numbers (from 1) of the main thread's calls that match `pattern` in an idle start.

    The loader and the runtime libraries make calls of the same name before the
    forwarder does. Their number differs between builds.
    """
    require_tracing()
    trace = folder / "rehearsal.strace"
    subprocess.run(["strace", "-f", "-qq", "-e", f"trace={call}", "-o", str(trace), binary()],
                   cwd=folder, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL, check=False, timeout=scaled(20),
                   env={**os.environ, **CORE_LIMIT_UNTOUCHED})
    lines = trace.read_text(errors="replace").splitlines()
    first_thread = lines[0].split()[0]
    own = [line for line in lines if line.split()[0] == first_thread and f" {call}(" in line]
    return [number for number, line in enumerate(own, start=1) if re.search(pattern, line)]


@contextmanager
def failing_calls(vesk: VeskProcess, threads: Sequence[int], *injections: str) -> Iterator[Path]:
    """Inside this context calls of the given threads fail as `injections` specify.

    An injection is a text such as "sendto:error=ENOBUFS:when=1". The count starts with the
    first call after the tracer has attached. Yields the path of the trace.
    """
    require_tracing()
    trace = vesk.folder / f"faults-{len(list(vesk.folder.glob('faults-*')))}.strace"
    calls = ",".join(dict.fromkeys(injection.split(":")[0] for injection in injections))
    words = ["strace", "-o", str(trace), "-e", f"trace={calls}"]
    for injection in injections:
        words += ["-e", f"inject={injection}"]
    for thread in threads:
        words += ["-p", str(thread)]
    tracer = subprocess.Popen(words, stderr=subprocess.PIPE)
    try:
        _wait_for_tracer(tracer, len(threads))
        yield trace
    finally:
        if tracer.poll() is None:
            tracer.send_signal(signal.SIGINT)
        tracer.wait(scaled(5))
        assert tracer.stderr is not None
        tracer.stderr.close()


def failing_listener(vesk: VeskProcess, *injections: str) -> ContextManager[Path]:
    """The same for the downstream receive thread, the only thread that waits in recvmmsg."""
    return failing_calls(vesk, [_thread_in(vesk, "recvmmsg")], *injections)


def failing_poll_thread(vesk: VeskProcess, *injections: str) -> ContextManager[Path]:
    return failing_calls(vesk, [_thread_in(vesk, "epoll_wait")], *injections)


def failing_workers(vesk: VeskProcess, *injections: str) -> ContextManager[Path]:
    """The same for the upstream receive workers, which wait for their queues when idle."""
    count = len([line for line in vesk.log_lines() if "created upstream recvThread" in line])
    wait_until(lambda: len(vesk.threads_in("futex")) >= count, "all workers are idle")
    return failing_calls(vesk, vesk.threads_in("futex"), *injections)


def _thread_in(vesk: VeskProcess, system_call: str) -> int:
    wait_until(lambda: len(vesk.threads_in(system_call)) == 1,
               f"exactly one thread waits in {system_call}")
    return vesk.threads_in(system_call)[0]


def _wait_for_tracer(tracer: "subprocess.Popen[bytes]", threads: int) -> None:
    """Waits until the tracer reports every thread as attached; it misses no later call."""
    assert tracer.stderr is not None
    said = b""
    while said.count(b" attached") < threads:
        readable, _, _ = select.select([tracer.stderr], [], [], scaled(5))
        piece = os.read(tracer.stderr.fileno(), 4096) if readable else b""
        if not piece:
            raise AssertionError(f"the tracer did not attach: {said.decode(errors='replace')}")
        said += piece
