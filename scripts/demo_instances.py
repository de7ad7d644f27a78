"""Demonstrates several forwarders behind one port, and their replacement while traffic runs.

Works in a network namespace of its own, so the packet filter of the host is left unchanged.
"""

from __future__ import annotations

import json
import re
import signal
import subprocess
import tempfile
import time
import urllib.request
from contextlib import contextmanager
from pathlib import Path
from typing import Iterator, List

from compare import own_network

PORT = 4500
UPSTREAM_PORT = 5000
METRICS = "http://127.0.0.1:9477/metrics"
RATE = 2000
READY_SECONDS = 20
COUNTER_SECONDS = 3
REPLACEMENT_SECONDS = 60


class Traffic:
    """vesk-traffic with two flows for each instance."""

    def __init__(self, program: str, instances: int) -> None:
        self._words = [program, "--flows", 2 * instances, "--label-step", 0x10000, "--port", PORT,
                       "--upstream-port", UPSTREAM_PORT]

    def command(self, *more: object) -> List[str]:
        return [str(word) for word in (*self._words, *more)]

    def write_file(self, file: Path, instances: int) -> None:
        """The file for the controller. It contains keys, so nobody else may read it."""
        text = subprocess.run(self.command("--print-toml"), check=True, stdout=subprocess.PIPE,
                              text=True).stdout
        text = text.replace("[forwarder]", f"[forwarder]\ninstances = {instances}")
        text = text.replace(f"port = {PORT}\n", f"port = {PORT}\ninstance_ports = "
                                                f"[{PORT + 1}, {PORT + 1 + instances}]\n")
        file.touch(mode=0o600)
        file.write_text(text + "\n[controller]\nstats_seconds = 1\ndrain_seconds = 2\n",
                        encoding="ascii")
        for line in text.split("[flows", maxsplit=1)[0].splitlines():
            print(f"  {line}".rstrip())

    def send(self, *more: object) -> "subprocess.Popen[str]":
        return subprocess.Popen(self.command("--rate", RATE, "--verify-every", 1, "--warm-up", 0,
                                             "--loss-timeout", 2, "--json", *more),
                                stdout=subprocess.PIPE, text=True)


class Controller:
    """The controller; its log is kept in a file."""

    def __init__(self, program: str, forwarder: str, file: Path) -> None:
        self.log = file.with_name("log")
        with self.log.open("wb") as log:
            self.process = subprocess.Popen([program, "--program", forwarder, str(file)],
                                            stderr=log)
        self._shown = 0

    def wait_for(self, pattern: str, times: int, seconds: float) -> None:
        """Shows the controller's own lines until so many of them match."""
        deadline = time.monotonic() + seconds
        while self._show(pattern) < times:
            if time.monotonic() > deadline or self.process.poll() is not None:
                raise RuntimeError(f"the controller has not logged {pattern!r}; its log:\n"
                                   + self.log.read_text(encoding="utf-8"))
            time.sleep(0.05)

    def _show(self, pattern: str) -> int:
        lines = [line for line in self.log.read_text(encoding="utf-8").splitlines()
                 if "controller: " in line]
        for line in lines[self._shown:]:
            print(f"  {line}")
        self._shown = len(lines)
        return sum(re.search(pattern, line) is not None for line in lines)


@contextmanager
def running(controller: str, forwarder: str, file: Path) -> Iterator[Controller]:
    started = Controller(controller, forwarder, file)
    try:
        yield started
    finally:
        started.process.send_signal(signal.SIGTERM)
        started.process.wait()


def received_by_instance() -> List[int]:
    with urllib.request.urlopen(METRICS, timeout=10) as page:
        text = page.read().decode()
    return [int(float(value)) for value in re.findall(
        r"^vesk_instance_downstream_received_datagrams_total{.*} (\S+)$", text, re.MULTILINE)]


def wait_for_counters(requests: int) -> List[int]:
    """The controller reads the counters once per second."""
    deadline = time.monotonic() + COUNTER_SECONDS
    while sum(received_by_instance()) < requests and time.monotonic() < deadline:
        time.sleep(0.1)
    return received_by_instance()


def flawless(name: str, traffic: "subprocess.Popen[str]", row: List[str]) -> bool:
    """Whether each request was answered once and rightly; adds a row to the table."""
    output, _ = traffic.communicate()
    report = json.loads(output) if output else {}
    bad = report.get("wrong", 0) + report.get("unexpected", 0)
    sent, answered = report.get("sent", 0), report.get("answered", 0)
    row.append(f"  {name:<34}{sent:>7}{answered:>10}{bad:>6}")
    return traffic.returncode == 0 and sent == answered > 0 and bad == 0


def show_instances(instances: int, forwarder: str, traffic_program: str, controller: str) -> bool:
    own_network.enter()
    rows: List[str] = []
    traffic = Traffic(traffic_program, instances)
    with tempfile.TemporaryDirectory() as folder:
        file = Path(folder, "demo.toml")
        print(f"peers  <-->  port {PORT}  <-->  {instances} instances  <-->  upstream echo service\n")
        print("1. The file of the controller begins like this; two flows for each instance follow:")
        traffic.write_file(file, instances)
        print("\n2. The controller starts the instances and steers the port to them:")
        with running(controller, forwarder, file) as service:
            service.wait_for(": the forwarder is set up", instances, READY_SECONDS)
            print("\n3. Peers send for two seconds. Each instance gets the datagrams of its flows:")
            good = flawless("two seconds", traffic.send("--duration", 2), rows)
            for number, count in enumerate(wait_for_counters(2 * RATE)):
                print(f"  instance {number} has received {count} datagrams")
            print("\n4. Each instance is replaced by a new process, while peers send:")
            sending = traffic.send("--duration", 6 * instances)
            service.process.send_signal(signal.SIGUSR2)
            service.wait_for(": replaced ", 1, REPLACEMENT_SECONDS)
            good = flawless("replacement of every instance", sending, rows) and good
    print(f"\nResult\n  {'traffic':<34}{'sent':>7}{'answered':>10}{'bad':>6}")
    print("\n".join(rows))
    return good
