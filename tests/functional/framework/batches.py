"""Lets datagrams wait for the forwarder, so that it receives them as one batch."""

from __future__ import annotations

import os
import re
import signal
from contextlib import contextmanager
from pathlib import Path
from typing import Iterator, List

from .timing import wait_until
from .udp import UdpEnd
from .vesk_process import VeskProcess

#: The messages that the forwarder takes with one receive call.
BATCH = 64

# How the tracer writes a control message of type UDP_SEGMENT with a size.
_CUT = re.compile(r"cmsg_level=SOL_UDP, cmsg_type=(?:0x67|UDP_SEGMENT)")


@contextmanager
def stopped(*forwarders: VeskProcess) -> Iterator[None]:
    """Inside this context all threads of the forwarders are stopped."""
    for vesk in forwarders:
        os.kill(vesk.pid, signal.SIGSTOP)
    try:
        for vesk in forwarders:
            wait_until(lambda vesk=vesk: _is_stopped(vesk), "every thread is stopped")
        yield
    finally:
        for vesk in forwarders:
            os.kill(vesk.pid, signal.SIGCONT)


def _is_stopped(vesk: VeskProcess) -> bool:
    return all(_state(vesk, thread) in "Tt" for thread in vesk.threads())


def _state(vesk: VeskProcess, thread: int) -> str:
    status = Path(f"/proc/{vesk.pid}/task/{thread}/stat").read_text(encoding="ascii")
    return status.rpartition(")")[2].split()[0]


def wait_until_idle(vesk: VeskProcess) -> None:
    """Waits until every thread waits, so that all that has arrived is counted."""
    calls = ("epoll_wait", "recvmmsg", "futex", "clock_nanosleep", "read")
    wait_until(lambda: sum(len(vesk.threads_in(call)) for call in calls) == len(vesk.threads()),
               "every thread waits")


def receive_all(end: UdpEnd, count: int) -> List[bytes]:
    """The next datagrams in the order of their arrival."""
    return [end.receive().data for _ in range(count)]


def cut_sends(trace: Path) -> List[str]:
    """The recorded send calls with a message that the kernel is to cut into datagrams."""
    return [line for line in trace.read_text(errors="replace").splitlines()
            if _CUT.search(line)]
