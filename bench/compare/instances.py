"""The mode --instances: what it costs to steer one port to several forwarders, and what they can take.

The rules of the packet filter run in the sender's system call on the loopback interface, so the processor
time of the generator is part of every figure.
"""

import json
import os
import re
import statistics
import subprocess
import sys
import tempfile
import time
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path

PORT = 4500
UPSTREAM_PORT = 5000
FLOWS = 100
PAYLOAD = 512

COST_RATE = 10_000
MOST_LOST = 0.001
# The generator counts as too slow if it falls behind the schedule by more.
LEAST_SENT = 0.98
FIRST_RATE = 20_000
GROWTH = 1.3
# Times that the distance between a rate that holds and one that does not is halved.
REFINEMENTS = 2

ATTEMPTS = 3
WARM_UP = 0.2

READY_SECONDS = 20


@dataclass(frozen=True)
class Setup:
    """One way to run the forwarder."""

    name: str
    instances: int
    steered: bool


SETUPS = (Setup("1 instance, not steered", 1, False), Setup("1 instance, steered", 1, True),
          Setup("2 instances", 2, True))


@dataclass(frozen=True)
class Turn:
    """Rates are datagrams from peers in a second; each is answered."""

    microseconds: float  # of all processes, for a request and its reply
    share: float  # of it, in the forwarders
    rate: float


def traffic(build: Path, *more: object) -> list:
    return [str(word) for word in (build / "vesk-traffic", "--flows", FLOWS, "--label-step", 0x10000,
                                   "--payload", PAYLOAD, "--port", PORT, "--upstream-port",
                                   UPSTREAM_PORT, *more)]


def write_file(build: Path, setup: Setup, file: Path) -> None:
    text = subprocess.run(traffic(build, "--print-toml"), check=True, stdout=subprocess.PIPE,
                          text=True).stdout
    if setup.steered:
        text = text.replace("[forwarder]", f"[forwarder]\ninstances = {setup.instances}", 1)
        text = text.replace(f"port = {PORT}\n", f"port = {PORT}\ninstance_ports = [{PORT + 1}, "
                                                f"{PORT + 1 + setup.instances}]\n", 1)
    file.touch(mode=0o600)
    file.write_text(text + "\n[controller]\nstats_seconds = 3600\ndrain_seconds = 0\n"
                           "[metrics]\nenabled = false\n", encoding="ascii")


@contextmanager
def running(build: Path, setup: Setup):
    """A controller with its forwarders; gives its process id."""
    with tempfile.TemporaryDirectory() as folder:
        file, log = Path(folder, "bench.toml"), Path(folder, "log")
        write_file(build, setup, file)
        with log.open("wb") as output:
            controller = subprocess.Popen([str(build / "vesk-controller"), str(file)], stderr=output)
        try:
            wait_until_ready(log, controller, setup.instances)
            yield controller.pid
        finally:
            controller.terminate()
            controller.wait()


def wait_until_ready(log: Path, controller: subprocess.Popen, instances: int) -> None:
    deadline = time.monotonic() + READY_SECONDS
    pattern = re.compile(r"info controller: (instance \d+: )?the forwarder is set up: \d+ flows?$",
                         re.MULTILINE)
    while len(pattern.findall(log.read_text(encoding="utf-8"))) < instances:
        if controller.poll() is not None or time.monotonic() > deadline:
            sys.exit(f"the controller is not ready:\n{log.read_text(encoding='utf-8')}")
        time.sleep(0.05)


def forwarders_of(controller: int) -> list:
    children = Path(f"/proc/{controller}/task/{controller}/children")
    return children.read_text(encoding="ascii").split()


def nanoseconds_of(processes: list) -> int:
    return sum(int((task / "schedstat").read_text(encoding="ascii").split()[0])
               for process in processes for task in Path(f"/proc/{process}/task").iterdir())


def send(build: Path, rate: float, seconds: float, warm_up: float = 0) -> tuple:
    """The report of the generator, and its processor time in seconds."""
    command = traffic(build, "--rate", round(rate), "--duration", seconds, "--warm-up", warm_up,
                      "--allow-loss", "--json")
    with tempfile.TemporaryFile("w+") as output:
        process = subprocess.Popen(command, stdout=output)
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
        output.seek(0)
        text = output.read()
    if process.returncode != 0:
        sys.exit(f"the generator failed: {text}")
    return json.loads(text), usage.ru_utime + usage.ru_stime


def cost(build: Path, controller: int, seconds: float) -> Turn:
    processes = forwarders_of(controller)
    before = nanoseconds_of(processes)
    report, generator = send(build, COST_RATE, seconds)
    forwarding = (nanoseconds_of(processes) - before) / 1e9
    whole = forwarding + generator
    return Turn(whole * 1e6 / report["sent"], forwarding / whole, report["request_rate"])


def holds(build: Path, rate: float, seconds: float) -> bool:
    """Whether the path takes this rate with hardly a loss, in one of a few attempts: a single pause of
    the machine must not decide."""
    for _ in range(ATTEMPTS):
        report, _ = send(build, rate, seconds, WARM_UP)
        if (report["sent"] >= LEAST_SENT * rate * seconds
                and report["lost"] <= MOST_LOST * report["sent"]):
            return True
    return False


def highest_rate(build: Path, seconds: float) -> float:
    good, bad = 0.0, FIRST_RATE
    while holds(build, bad, seconds):
        good, bad = bad, bad * GROWTH
    for _ in range(REFINEMENTS):
        middle = (good + bad) / 2
        good, bad = (middle, bad) if holds(build, middle, seconds) else (good, middle)
    return good


def measure(build: Path, rounds: int, seconds: float) -> dict:
    """Turns and highest rates by setup. Each setup takes a turn in each round."""
    turns = {setup: [] for setup in SETUPS}
    rates = {setup: [] for setup in SETUPS}
    for number in range(rounds):
        for setup in SETUPS:
            print(f"\rround {number + 1} of {rounds}: {setup.name:30}", end="", file=sys.stderr,
                  flush=True)
            with running(build, setup) as controller:
                turns[setup].append(cost(build, controller, seconds))
                rates[setup].append(highest_rate(build, seconds))
    print(file=sys.stderr)
    return {setup.name: summarise(turns[setup], rates[setup]) for setup in SETUPS}


def summarise(turns: list, rates: list) -> dict:
    def spread(values: list) -> dict:
        return {"median": statistics.median(values), "least": min(values), "most": max(values)}

    return {"us_per_pair": spread([turn.microseconds for turn in turns]),
            "forwarder_share": spread([turn.share for turn in turns]),
            "highest_rate": spread(rates)}


def print_table(results: dict) -> None:
    print(f"{'':28}{'us per pair':>22}{'in the forwarder':>18}{'highest rate':>28}")
    for name, figures in results.items():
        time_spent, rate = figures["us_per_pair"], figures["highest_rate"]
        print(f"{name:28}{time_spent['median']:>8.1f} [{time_spent['least']:.1f}-"
              f"{time_spent['most']:.1f}]{figures['forwarder_share']['median']:>14.0%}"
              f"{rate['median']:>16,.0f}/s [{rate['least']:,.0f}-{rate['most']:,.0f}]")
