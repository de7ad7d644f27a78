"""Shows the forwarder at work, for somebody who has never seen it.

The forwarder is a child process. It reads commands, one a line, and answers none of
them; what happened can be read in its log. This script plays everybody around it: the
controlling service that types the commands, the peers, and the upstream service. It
checks the HMAC and the label of every datagram with a framing of its own.
"""

from __future__ import annotations

import argparse
import os
import re
import statistics
import sys
import tempfile
import time
from contextlib import ExitStack
from dataclasses import dataclass, field
from pathlib import Path
from typing import Callable, List, Sequence

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "tests" / "functional"))
sys.dont_write_bytecode = True

from framework.flow import Flow, four_keys  # noqa: E402
from framework.framing import UDPV2  # noqa: E402
from framework.lateral import LOOPBACK, shared_free_port  # noqa: E402
from framework.udp import Address, UdpEnd, UpstreamService, free_port  # noqa: E402
from framework.vesk_process import VeskProcess  # noqa: E402

DATAGRAMS = 1000
ANSWER_SECONDS = 1.0

# Lines that tell the story; the rest of the log is about the machinery.
TELLING = re.compile(r"(info (Starting|Endpoint socket bound|Vesk|Created upstream|Added"
                     r"|cltMessageLoop|Forwarder listener)|warn |error ).*")


@dataclass
class Result:
    """How one flow fared."""

    name: str
    sent: int = 0
    answered: int = 0
    bad: int = 0
    round_trips: List[float] = field(default_factory=list)

    @property
    def flawless(self) -> bool:
        return self.sent == self.answered and self.bad == 0

    def row(self) -> str:
        median = statistics.median(self.round_trips) * 1e6 if self.round_trips else float("nan")
        return f"  {self.name:<34}{self.sent:>7}{self.answered:>10}{self.bad:>6}{median:>12.0f} us"


class ControllingService:
    """Types commands to one forwarder, and prints them and the telling log lines."""

    def __init__(self, vesk: VeskProcess, name: str) -> None:
        self.vesk = vesk
        self.name = name
        self._shown = 0
        vesk.ready()
        self.show_log()

    def type(self, line: str) -> None:
        print(f"  {self.name} < {shortened(line)}")
        self.vesk.command(line)
        self.vesk.settle()
        self.show_log()

    def show_log(self) -> None:
        lines = self.vesk.log_lines()
        for line in lines[self._shown:]:
            if TELLING.fullmatch(line) and "'fence-" not in line:
                print(f"  {self.name} > {line}")
        self._shown = len(lines)

    def skip_log(self) -> None:
        """What is in the log by now was shown by other means."""
        self._shown = self.vesk.mark()

    def end(self) -> None:
        self.show_log()
        print(f"  {self.name} < (end of input)")
        took = self.vesk.finish()
        self.show_log()
        print(f"  {self.name}   exit status 0 after {took * 1000:.0f} ms")


def shortened(line: str) -> str:
    """Keys are long; their first digits are enough to look at."""
    return re.sub(r"\b([0-9a-f]{8})[0-9a-f]{24,}\b", r"\1...", line)


def title(text: str) -> None:
    print(f"\n{text}")


def exchange(flow: Flow, name: str, to: Address) -> Result:
    """Sends datagrams one after the other and checks the reply to each."""
    result = Result(name)
    with UdpEnd() as peer:
        peer.socket.settimeout(ANSWER_SECONDS)
        for number in range(DATAGRAMS):
            payload = f"datagram {number} of {name}".encode()
            began = time.perf_counter()
            peer.send(flow.request(payload), to)
            result.sent += 1
            try:
                reply, sender = peer.socket.recvfrom(65536)
            except TimeoutError:
                continue
            result.round_trips.append(time.perf_counter() - began)
            if is_good(flow, reply, payload) and sender[:2] == to:
                result.answered += 1
            else:
                result.bad += 1
    return result


def is_good(flow: Flow, reply: bytes, payload: bytes) -> bool:
    try:
        return flow.open_reply(reply).payload == payload
    except (AssertionError, ValueError):
        return False


def echo_service(flows: Sequence[Flow]) -> Callable[[bytes], bytes]:
    """An upstream service that checks what it gets and sends the payload back, signed."""
    by_label = {flow.up_label: flow for flow in flows}
    return lambda datagram: by_label[UDPV2.parse(datagram).label].echo(datagram)


def print_table(results: Sequence[Result]) -> bool:
    print(f"  {'flow':<34}{'sent':>7}{'answered':>10}{'bad':>6}{'median round trip':>18}")
    for result in results:
        print(result.row())
    return all(result.flawless for result in results)


def two_flows() -> List[Flow]:
    return [Flow(label=1001, up_label=2001, down_label=3001, **four_keys("sha256")),
            Flow(label=1002, up_label=2002, down_label=3002)]


def start(stack: ExitStack, name: str) -> ControllingService:
    folder = Path(stack.enter_context(tempfile.TemporaryDirectory(prefix="vesk-demo-")))
    vesk = VeskProcess(folder, "udpv2")
    stack.callback(lambda: vesk.finished or vesk.abandon())
    return ControllingService(vesk, name)


def listen(service: ControllingService) -> Address:
    port = free_port()
    service.type(f"start addr 127.0.0.1 port {port}")
    return "127.0.0.1", port


def show_forwarding(stack: ExitStack) -> bool:
    flows = two_flows()
    upstream = stack.enter_context(UpstreamService(echo_service(flows)))
    for flow in flows:
        flow.upstream = upstream.address

    print("peer  <-->  forwarder  <-->  upstream echo service      (all on 127.0.0.1)")
    title("1. The forwarder starts; the controlling service types (<) and reads the log (>):")
    service = start(stack, "vesk")
    to = listen(service)
    for flow in flows:
        service.type(flow.set_command())

    title(f"2. A peer sends {DATAGRAMS} datagrams on each flow and checks every reply:")
    results = [exchange(flows[0], "label 1001, SHA-256 both ways", to),
               exchange(flows[1], "label 1002, no keys", to)]
    service.show_log()

    title("3. The controlling service closes the channel:")
    service.end()

    title("Result")
    return print_table(results)


def print_report(service: ControllingService) -> None:
    """Types "stats" and prints all it says."""
    print(f"  {service.name} < stats")
    for line in service.vesk.lines_after("stats"):
        if line:
            print(f"  {service.name} > {line}")
    service.skip_log()


def show_lateral(stack: ExitStack) -> bool:
    # The upper 16 bits of a label name its owner: an even number the first instance,
    # an odd one the second, as there are two.
    flows = [Flow(label=0x00020001, **four_keys("sha256")),
             Flow(label=0x00030001, **four_keys("sha256"))]
    upstream = stack.enter_context(UpstreamService(echo_service(flows)))
    for flow in flows:
        flow.upstream = upstream.address
    hosts = {0: LOOPBACK[0], 1: LOOPBACK[1]}

    print("peer  <-->  instance A  <-->  upstream echo service    (all on 127.0.0.0/8)\n"
          "               |  ^\n"
          "               v  |            a datagram that reaches the wrong instance is handed\n"
          "peer  <-->  instance B         to the owner of its label, and its reply handed back")
    title("1. Two instances start, each with one flow of its own, and are joined:")
    lateral_port = shared_free_port(list(hosts.values()))
    services, listeners = [], []
    for index, name in enumerate("AB"):
        service = start(stack, name)
        listeners.append(listen(service))
        service.type(flows[index].set_command())
        service.type(f"add_lateral_peer idx {1 - index} addr {hosts[1 - index]}")
        service.type(f"start_lateral addr {hosts[index]} port {lateral_port} idx {index} "
                     f"max_qels {len(hosts)}")
        services.append(service)

    title(f"2. Peers send {DATAGRAMS} datagrams on each flow through each instance:")
    results = [exchange(flow, f"label 0x{flow.label:08x} of {owner}, through {through}", to)
               for through, to in zip("AB", listeners) for owner, flow in zip("AB", flows)]
    for service in services:
        service.show_log()

    title("3. Both report their counters:")
    for service in services:
        print_report(service)

    title("4. The controlling service closes both channels:")
    for service in services:
        service.end()

    title("Result")
    return print_table(results)


def main() -> int:
    parser = argparse.ArgumentParser(description="Shows the forwarder at work.")
    parser.add_argument("--binary", required=True, help="the forwarder's executable")
    parser.add_argument("--lateral", action="store_true", help="show two joined instances")
    arguments = parser.parse_args()
    os.environ["VESK_BINARY"] = os.path.abspath(arguments.binary)
    with ExitStack() as stack:
        flawless = show_lateral(stack) if arguments.lateral else show_forwarding(stack)
    print("\nEvery datagram was answered, rightly signed and rightly labelled." if flawless
          else "\nSomething was lost or wrong; see the table.")
    return 0 if flawless else 1


if __name__ == "__main__":
    sys.exit(main())
