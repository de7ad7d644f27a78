"""Makes each allocation of the slow paths fail once: opening a flow's socket, and commands.

Linux hardly ever refuses memory; it ends processes instead. If an allocation does fail, there are
only two valid results: the process continues and serves every flow, possibly after the loss of a
datagram, or it ends at once with the reason on standard error and releases its port.
"""

from __future__ import annotations

import array
import fcntl
import re
import termios
from pathlib import Path
from typing import Callable, Iterator, List, Optional

import pytest

from framework.fixtures import StartVesk
from framework.bench import Bench
from framework.flow import four_keys
from framework.timing import SANITIZER, wait_until
from framework.udp import Received, UdpEnd
from framework.vesk_process import VeskProcess

from allocation_fault import AllocationFault
from figures import record

pytestmark = pytest.mark.skipif(SANITIZER != "", reason="sanitizers replace the allocator")

# More than the allocations of any path.
MOST_ALLOCATIONS = 200
ANY_THREAD = -1
# The resolver has its own error for it: EAI_MEMORY.
OUT_OF_MEMORY = re.compile(r".*(std::bad_alloc|getaddrinfo: \S+: err -10 ).*", re.DOTALL)


@pytest.fixture
def fault(tmp_path: Path) -> Iterator[AllocationFault]:
    made = AllocationFault(tmp_path)
    yield made
    made.close()


class Outcomes:
    """The results of the failures in a path."""

    def __init__(self) -> None:
        self.survived: List[int] = []
        self.ended: List[int] = []


def has_ended(vesk: VeskProcess) -> bool:
    """Whether the process has ended. If so, checks how."""
    try:
        vesk.settle()
        return False
    except (AssertionError, BrokenPipeError):
        wait_until(lambda: not vesk.running(), "the process ends, since it does not answer")
    vesk.wait_exit(-6, errors=OUT_OF_MEMORY, core_allowed=True)
    return True


def refuse_each(start_vesk: StartVesk, fault: AllocationFault, new_end: Callable[..., UdpEnd],
                thread_of: Callable[[VeskProcess], int],
                act: Callable[[Bench], None]) -> Outcomes:
    """`act` runs the path and returns when the forwarder has completed it."""
    outcomes = Outcomes()
    for number in range(1, MOST_ALLOCATIONS):
        vesk = start_vesk(environment=fault.environment).ready()
        bench = Bench(vesk, new_end(), new_end())
        flow = bench.flow(5, **four_keys())
        bench.declare(flow)
        warm_up(bench)
        # Allocates room for the longest line, since a failure of that would end the input.
        vesk.lines_after(" " * 4000)
        descriptors = vesk.descriptor_count()
        fault.strike(thread_of(vesk), number)
        act(bench)
        if not fault.relent():
            return outcomes
        if has_ended(vesk):
            outcomes.ended.append(number)
            continue
        outcomes.survived.append(number)
        vesk.lines_after("del label 5", flow.set_command())
        vesk.wait_for_descriptor_count(descriptors)
        read_on(bench.upstream)
        read_on(bench.peer)
        bench.exchange(flow)
        vesk.finish()
    raise AssertionError("the path has too many allocations")


def warm_up(bench: Bench) -> None:
    """Lets threads and libraries make the allocations that they make only once."""
    keyed = bench.flow(9, **four_keys())
    bench.declare(keyed)
    for _ in range(4):
        bench.exchange(keyed)
        bench.exchange(bench.control)


def read_on(end: UdpEnd) -> None:
    while end.waiting() is not None:
        pass


def waiting_in(vesk: VeskProcess, call: str) -> int:
    """Waits for a thread in this call and returns it."""
    wait_until(lambda: bool(vesk.threads_in(call)), f"a thread waits in {call}")
    return vesk.threads_in(call)[0]


def wait_for(bench: Bench, end: UdpEnd, payload: bytes) -> None:
    """Reads until this payload arrives or the forwarder has ended."""
    def has_come() -> bool:
        arrived = end.waiting()
        return arrived is not None and arrived.data.endswith(payload)
    wait_until(lambda: has_come() or not bench.vesk.running(), f"{payload!r} arrives", 2)


def opening(bench: Bench) -> None:
    """The flow's datagram may be lost, but the control flow's must arrive."""
    bench.send(bench.flow(5, **four_keys()).request(b"x"))
    bench.send(bench.control.request(b"control"))
    wait_for(bench, bench.upstream, b"control")


def exchanging(bench: Bench) -> None:
    """A question and its answer. Either may be lost, but the control flow's must arrive."""
    flow = bench.flow(5, **four_keys())
    bench.send(flow.request(b"question"))
    bench.send(bench.control.request(b"control"))
    while (arrived := next_of(bench)) is not None:
        if arrived.data.endswith(b"control"):
            bench.upstream.send(bench.control.reply(b"control"), arrived.sender)
            wait_for(bench, bench.peer, b"control")
            # Another worker may still handle the flow's answer or be about to end the process.
            wait_until(lambda: not bench.vesk.running() or workers_wait(bench.vesk),
                       "the workers wait again, or the process has ended")
            return
        bench.upstream.send(flow.reply(b"answer"), arrived.sender)


def workers_wait(vesk: VeskProcess) -> bool:
    workers = sum("created upstream recvThread" in line for line in vesk.log_lines())
    return len(vesk.threads_in("futex")) >= workers


def next_of(bench: Bench) -> Optional[Received]:
    """The next datagram at the service, or None if the forwarder has ended."""
    found: List[Received] = []

    def look() -> bool:
        arrived = bench.upstream.waiting()
        found.extend([arrived] if arrived is not None else [])
        return bool(found) or not bench.vesk.running()

    wait_until(look, "something arrives", 2)
    return found[0] if found else None


def declaring(bench: Bench) -> None:
    carry_out(bench.vesk, bench.flow(6, **four_keys()).set_command())


def changing(bench: Bench) -> None:
    carry_out(bench.vesk, f"set label 5 up_port {bench.upstream.port}")


def carry_out(vesk: VeskProcess, command: str) -> None:
    """Does not use a further command to wait, since that would fail too."""
    vesk.command(command)
    wait_until(lambda: not vesk.running() or has_read_everything(vesk), "the command has been executed")


def has_read_everything(vesk: VeskProcess) -> bool:
    waiting = array.array("i", [0])
    try:
        with open(f"/proc/{vesk.pid}/fd/0", "rb") as channel:
            fcntl.ioctl(channel, termios.FIONREAD, waiting)
    except FileNotFoundError:
        return True
    return waiting[0] == 0 and vesk.pid in vesk.threads_in("read")


@pytest.mark.parametrize("thread_of, act", [
    (lambda vesk: waiting_in(vesk, "recvmmsg"), opening),
    (lambda vesk: ANY_THREAD, exchanging),
    (lambda vesk: vesk.pid, declaring),
    (lambda vesk: vesk.pid, changing),
], ids=["opening a socket", "a flow's first exchange", "set of a new label",
        "set of a known label"])
def test_each_failed_allocation_is_survived_or_ends_the_process(
        start_vesk: StartVesk, fault: AllocationFault, new_end: Callable[..., UdpEnd],
        thread_of: Callable[[VeskProcess], int], act: Callable[[Bench], None]) -> None:
    outcomes = refuse_each(start_vesk, fault, new_end, thread_of, act)
    assert outcomes.survived or outcomes.ended, "the path has no allocation"
    record(f"allocations, {act.__name__}: {len(outcomes.survived)} survived, "
           f"{len(outcomes.ended)} ended the process at once")
