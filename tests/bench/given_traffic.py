#!/usr/bin/python3
"""Replaces vesk-traffic in a build tree of the tests: reports given figures and records on which
processors it, the forwarder and the other children of the bench may run.

VESK_GIVEN is a folder with two files. "figures" has a p90 in microseconds for each round, by
forwarder and condition (none: 100; null: the run fails; "alone": the other children of the bench
are ended first). "turns" gets one line of JSON for each run.
"""

import json
import os
import select
import signal
import sys
from pathlib import Path

OTHERS = {"answered": 10, "lost": 0, "reply_rate": 1000, "p50_us": 50, "p99_us": 200,
          "cpu_us_per_datagram": 5}


def company() -> list:
    """Every other child process of the bench."""
    parent = os.getppid()
    children = Path(f"/proc/{parent}/task/{parent}/children").read_text(encoding="ascii").split()
    return [int(pid) for pid in children if int(pid) != os.getpid()]


def end_company() -> None:
    for pid in company():
        process = os.pidfd_open(pid)
        signal.pidfd_send_signal(process, signal.SIGKILL)
        select.select([process], [], [])  # readable once it has ended


def main() -> None:
    options, command = sys.argv[1:sys.argv.index("--")], sys.argv[sys.argv.index("--") + 1:]
    folder = Path(os.environ["VESK_GIVEN"])
    pinned = command[:2] == ["taskset", "-c"]
    turn = {"forwarder": Path(command[-2]).name, "options": options,
            "own": sorted(os.sched_getaffinity(0)),
            "company": [sorted(os.sched_getaffinity(pid)) for pid in company()],
            "forwarder_on": command[2] if pinned else None}
    condition = "beside" if turn["company"] else "quiet" if pinned else "shared"
    turn["condition"] = condition
    turns = folder / "turns"
    turns.touch()
    earlier = [json.loads(line) for line in turns.read_text(encoding="utf-8").splitlines()]
    with turns.open("a", encoding="utf-8") as file:
        file.write(json.dumps(turn) + "\n")
    same = ("forwarder", "condition", "options")
    number = sum(all(one[key] == turn[key] for key in same) for one in earlier)
    given = json.loads((folder / "figures").read_text(encoding="utf-8"))
    p90 = given.get(turn["forwarder"], {}).get(condition)
    p90 = p90[number] if p90 else 100
    if p90 is None:
        sys.exit("this turn fails")
    if p90 == "alone":
        end_company()
        p90 = 100
    print(json.dumps({**OTHERS, "p90_us": p90}))


if __name__ == "__main__":
    main()
