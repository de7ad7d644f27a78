"""Demonstrates the forwarder to somebody who has never seen it.

The forwarder is a child process. It reads commands, one per line, and replies to none of
them; its log shows the results. This script plays the controlling service, which types
the commands. The traffic generator plays the peers and the upstream service: it sends,
echoes, and verifies label, HMAC and payload of every datagram at both ends.
"""

from __future__ import annotations

import argparse
import json
import os
import re
import subprocess
import sys
from contextlib import ExitStack
from dataclasses import dataclass
from pathlib import Path
from typing import Dict, List, Sequence

sys.dont_write_bytecode = True
sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "bench"))

from demo_forwarder import Address, Forwarder, free_port  # noqa: E402
from demo_instances import show_instances  # noqa: E402

DATAGRAMS = 1000
ANSWER_SECONDS = 1
LONGEST_RUN_SECONDS = 60

# The lines that matter here; the rest of the log is about internal details.
TELLING = re.compile(r"(info (Starting|Endpoint socket bound|Vesk|Created upstream|Added"
                     r"|cltMessageLoop|Forwarder listener)|warn |error ).*")


@dataclass(frozen=True)
class Result:
    """The result of one flow, as the traffic generator reports it."""

    name: str
    report: Dict[str, float]
    status: int

    def count(self, *names: str) -> int:
        return int(sum(self.report.get(name, 0) for name in names))

    @property
    def bad(self) -> int:
        return self.count("wrong", "unexpected")

    @property
    def flawless(self) -> bool:
        # Every datagram is verified twice: upstream as a request, at the peer as its reply.
        return (self.status == 0 and self.bad == 0 and self.count("verified") >= 2 * DATAGRAMS
                and self.count("sent") == self.count("answered") == DATAGRAMS)

    def row(self) -> str:
        median = self.report.get("p50_us", float("nan"))
        return (f"  {self.name:<34}{self.count('sent'):>7}{self.count('answered'):>10}"
                f"{self.bad:>6}{median:>12.0f} us")


@dataclass(frozen=True)
class Flow:
    """One label with its keys, which the traffic generator derives from a seed."""

    traffic: str
    label: int
    algorithm: str
    seed: int
    upstream_port: int

    def set_command(self) -> str:
        printed = self._run(1, "--print-commands").stdout
        return next(line for line in printed.splitlines() if line.startswith("set "))

    def exchange(self, name: str, to: Address) -> Result:
        """Sends datagrams one after the other; each is checked at both ends."""
        run = self._run(to[1], "--requests", DATAGRAMS, "--window", 1, "--warm-up", 0,
                        "--verify-every", 1, "--loss-timeout", ANSWER_SECONDS,
                        "--duration", LONGEST_RUN_SECONDS, "--json")
        return Result(name, json.loads(run.stdout) if run.stdout else {}, run.returncode)

    def _run(self, port: int, *arguments: object) -> "subprocess.CompletedProcess[str]":
        words = [self.traffic, "--label-base", self.label, "--algorithm", self.algorithm,
                 "--seed", self.seed, "--port", port, "--upstream-port", self.upstream_port]
        return subprocess.run([str(word) for word in (*words, *arguments)], check=False,
                              stdout=subprocess.PIPE, text=True)


class ControllingService:
    """Types commands to one forwarder, and prints them and the relevant log lines."""

    def __init__(self, vesk: Forwarder, name: str) -> None:
        self.vesk = vesk
        self.name = name
        self._shown = 0
        self.show_log()

    def type(self, line: str) -> None:
        print(f"  {self.name} < {shortened(line)}")
        self.vesk.command(line)
        self.show_log()

    def show_log(self, every_line: bool = False) -> None:
        self.vesk.settle()
        self._print_log(every_line)

    def _print_log(self, every_line: bool = False) -> None:
        for line in self.vesk.log[self._shown:]:
            if TELLING.fullmatch(line) or (every_line and line):
                print(f"  {self.name} > {line}")
        self._shown = len(self.vesk.log)

    def report(self) -> None:
        """Types "stats" and prints all it says."""
        self.show_log()
        print(f"  {self.name} < stats")
        self.vesk.command("stats")
        self.show_log(every_line=True)

    def end(self) -> None:
        self.show_log()
        print(f"  {self.name} < (end of input)")
        took = self.vesk.finish()
        self._print_log()
        print(f"  {self.name}   exit status 0 after {took * 1000:.0f} ms")


def shortened(line: str) -> str:
    """Shows only the first digits of keys."""
    return re.sub(r"\b([0-9a-f]{8})[0-9a-f]{24,}\b", r"\1...", line)


def title(text: str) -> None:
    print(f"\n{text}")


def print_table(results: Sequence[Result]) -> bool:
    print(f"  {'flow':<34}{'sent':>7}{'answered':>10}{'bad':>6}{'median round trip':>18}")
    for result in results:
        print(result.row())
    return all(result.flawless for result in results)


def start(stack: ExitStack, binary: str, name: str) -> ControllingService:
    vesk = Forwarder(binary, "udpv2")
    stack.callback(vesk.end)
    return ControllingService(vesk, name)


def listen(service: ControllingService) -> Address:
    port = free_port()
    service.type(f"start addr 127.0.0.1 port {port}")
    return "127.0.0.1", port


def show_forwarding(stack: ExitStack, binary: str, traffic: str) -> bool:
    upstream_port = free_port()
    flows = [Flow(traffic, 1001, "sha256", 1, upstream_port),
             Flow(traffic, 1002, "none", 2, upstream_port)]

    print("peer  <-->  forwarder  <-->  upstream echo service      (all on 127.0.0.1)")
    title("1. The forwarder starts. The controlling service types (<) and reads the log (>):")
    service = start(stack, binary, "vesk")
    to = listen(service)
    for flow in flows:
        service.type(flow.set_command())

    title(f"2. A peer sends {DATAGRAMS} datagrams on each flow. Both ends verify all of them:")
    results = [flows[0].exchange("label 1001, SHA-256 both ways", to),
               flows[1].exchange("label 1002, no keys", to)]
    service.show_log()

    title("3. The controlling service closes the forwarder's input:")
    service.end()

    title("Result")
    return print_table(results)


def show_lateral(stack: ExitStack, binary: str, traffic: str) -> bool:
    # The upper 16 bits of a label name its owner: an even number the first instance,
    # an odd one the second, as there are two.
    upstream_port = free_port()
    flows = [Flow(traffic, 0x00020001, "sha256", 1, upstream_port),
             Flow(traffic, 0x00030001, "sha256", 2, upstream_port)]
    hosts = ["127.0.0.1", "127.0.0.2"]

    print("peer  <-->  instance A  <-->  upstream echo service    (all on 127.0.0.0/8)\n"
          "               |  ^\n"
          "               v  |            a datagram that reaches the wrong instance is handed\n"
          "peer  <-->  instance B         over to the owner of its label, and its reply is returned")
    title("1. Two instances start, each with one flow of its own, and are connected:")
    lateral_port = free_port(hosts)
    services, listeners = [], []
    for index, name in enumerate("AB"):
        service = start(stack, binary, name)
        listeners.append(listen(service))
        service.type(flows[index].set_command())
        service.type(f"add_lateral_peer idx {1 - index} addr {hosts[1 - index]}")
        service.type(f"start_lateral addr {hosts[index]} port {lateral_port} idx {index} "
                     f"max_qels {len(hosts)}")
        services.append(service)

    title(f"2. Peers send {DATAGRAMS} datagrams on each flow through each instance:")
    results = [flow.exchange(f"label 0x{flow.label:08x} of {owner}, through {through}", to)
               for through, to in zip("AB", listeners) for owner, flow in zip("AB", flows)]
    for service in services:
        service.show_log()

    title("3. Both instances report their counters:")
    for service in services:
        service.report()

    title("4. The controlling service closes both inputs:")
    for service in services:
        service.end()

    title("Result")
    return print_table(results)


def main() -> int:
    parser = argparse.ArgumentParser(description="Demonstrates the forwarder.")
    parser.add_argument("--binary", required=True, help="path of the forwarder")
    parser.add_argument("--traffic", required=True, help="path of the traffic generator")
    parser.add_argument("--lateral", action="store_true", help="demonstrate two connected instances")
    parser.add_argument("--instances", type=int, choices=(2, 4, 8),
                        help="demonstrate so many instances behind one port")
    parser.add_argument("--controller", default="vesk-controller", help="path of the controller")
    arguments = parser.parse_args()
    binary, traffic = os.path.abspath(arguments.binary), os.path.abspath(arguments.traffic)
    if arguments.instances:
        flawless = show_instances(arguments.instances, binary, traffic,
                                  os.path.abspath(arguments.controller))
    else:
        with ExitStack() as stack:
            show = show_lateral if arguments.lateral else show_forwarding
            flawless = show(stack, binary, traffic)
    print("\nEvery datagram was answered, with a correct signature and label." if flawless
          else "\nDatagrams were lost or wrong; see the table.")
    return 0 if flawless else 1


if __name__ == "__main__":
    sys.exit(main())
