"""The effects of datagrams, sent one by one or as one batch."""

from __future__ import annotations

import re
from contextlib import nullcontext
from typing import Callable, List, NamedTuple

from .batches import stopped, wait_until_idle
from .statistics import Report, report
from .udp import UdpEnd
from .vesk_process import VeskProcess

#: Sends a control datagram and returns what arrived before it, in order.
Collect = Callable[[], List[bytes]]


class Seen(NamedTuple):
    """What datagrams caused."""

    arrived: List[bytes]
    lines: List[str]
    counters: Report


def effects(vesk: VeskProcess, send: Callable[[bytes], None], datagrams: List[bytes],
            collect: Collect, together: bool) -> Seen:
    """Sends the datagrams, either as one batch or each after the effects of the one before."""
    vesk.lines_after("log priority debug")
    since = vesk.mark()
    arrived: List[bytes] = []
    with stopped(vesk) if together else nullcontext():
        for datagram in datagrams:
            send(datagram)
            if not together:
                arrived += collect()
    if together:
        arrived += collect()
    vesk.settle()
    wait_until_idle(vesk)
    lines = [without_numbers(line) for line in vesk.remarks(since)]
    return Seen(arrived, lines, report(vesk))


def without_numbers(line: str) -> str:
    """The numbers of descriptors and of an earlier error differ from run to run."""
    return re.sub(r"(sockfds|errno =|sent fd) .*", r"\1", line)


def until_control(end: UdpEnd, is_control: Callable[[bytes], bool]) -> List[bytes]:
    arrived: List[bytes] = []
    while True:
        datagram = end.receive().data
        if is_control(datagram):
            return arrived
        arrived.append(datagram)


def mixed(good: List[bytes], bad: List[bytes]) -> List[bytes]:
    """A good datagram before and after each bad one."""
    datagrams = [good[0]]
    for number, datagram in enumerate(bad, start=1):
        datagrams += [datagram, good[number % len(good)]]
    assert len(datagrams) <= 60
    return datagrams
