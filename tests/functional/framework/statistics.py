"""Reads the report of the "stats" command and checks its exact form."""

from __future__ import annotations

import re
import time
from dataclasses import dataclass
from typing import Callable, Dict, List, Optional

from .timing import scaled
from .vesk_process import VeskProcess

Counters = Dict[str, int]

_OF_THE_DATAPATH = ("downstreamPacketReceived", "info Created", "info Bound", "debug ")
_WORKER = r"WakeNr:\d+,ReadyFdNr:\d+,DgNr:\d+ "
_BOTH_WAYS = r"RxDg:\d+,TxDg:\d+,RxDgError:\d+,TxDgDropped:\d+"

# Every section is one log record that ends in a newline.
_REPORT = re.compile(
    r"info \nPoll stats:\n(?P<poll>ActiveEvtNr:\d+ RdReadyNr:\d+ WrReadyNr:\d+ ErrorNr:\d+)\n\n"
    r"info Upstream Stats:\n(?P<upstream>(?:Label:\d+,RxDg:\d+,TxDg:\d+,RxDgError\d+,"
    r"TxDgDropped\d+,DnTxDg:\d+,DnTxDgDropped:\d+\n)*)\n"
    rf"info RcvThrStats: (?P<receivers>(?:{_WORKER})*)\n\n"
    rf"info SndThrStats (?P<senders>(?:{_WORKER})*)\n\n"
    r"info (?P<totals>EptNr:\d+,RxDg:\d+,TxDg:\d+)\n\n"
    rf"info Downstream Stats:\n(?P<downstream>{_BOTH_WAYS})?\n?\n"
    rf"info Lateral Stats:\n(?P<lateral>{_BOTH_WAYS},DnTxDg:\d+,DnTxDgDropped:\d+)?\n?\n")


@dataclass(frozen=True)
class Report:
    """The values of one report."""

    poll: Counters
    upstream: Dict[int, Counters]
    receivers: List[Counters]
    senders: List[Counters]
    totals: Counters
    downstream: Optional[Counters]
    lateral: Optional[Counters]

    def upstream_sum(self, name: str) -> int:
        return sum(counters[name] for counters in self.upstream.values())


def _counters(text: str) -> Counters:
    return {name: int(number) for name, number in re.findall(r"([A-Za-z]+):?(\d+)", text)}


def parse_report(text: str) -> Report:
    match = _REPORT.fullmatch(text)
    assert match, f"not a report:\n{text}"
    upstream = {}
    for line in match["upstream"].splitlines():
        counters = _counters(line)
        upstream[counters.pop("Label")] = counters
    assert list(upstream) == sorted(upstream), "labels are not in order"
    return Report(
        poll=_counters(match["poll"]), upstream=upstream,
        receivers=[_counters(worker) for worker in match["receivers"].split()],
        senders=[_counters(worker) for worker in match["senders"].split()],
        totals=_counters(match["totals"]),
        downstream=_counters(match["downstream"]) if match["downstream"] else None,
        lateral=_counters(match["lateral"]) if match["lateral"] else None)


def report_text(vesk: VeskProcess) -> str:
    """The report as written, without the lines that the datapath logged meanwhile."""
    return "".join(f"{line}\n" for line in vesk.lines_after("stats")
                   if not line.startswith(_OF_THE_DATAPATH))


def report(vesk: VeskProcess) -> Report:
    return parse_report(report_text(vesk))


def wait_for_report(vesk: VeskProcess, condition: Callable[[Report], bool],
                    seconds: float = 5.0) -> Report:
    """Requests reports until the counters have the expected values."""
    deadline = time.monotonic() + scaled(seconds)
    while True:
        current = report(vesk)
        if condition(current):
            return current
        assert time.monotonic() < deadline, f"the counters stay at {current}"
        time.sleep(0.005)
