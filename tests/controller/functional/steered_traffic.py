"""A controller with several instances behind one port, and verified traffic through them."""

from __future__ import annotations

import os
import re
import shutil
import subprocess
import urllib.request
from contextlib import ExitStack
from typing import Dict, List, Optional, Sequence

from configuration_file import ConfigurationFile
from controller_process import ControllerProcess
from framework.flow import Flow, four_keys
from framework.framing import Framing
from framework.timing import scaled, wait_until
from framework.udp import Address, UdpEnd, UpstreamService, free_port

PUBLIC = 4500
FIRST = 4501
TABLE = f"inet vesk_{PUBLIC}"

# Few enough for every receive buffer on the way.
_WINDOW = 200


def refusal() -> str:
    """The reason why the tests cannot change the packet filter; empty if they can."""
    if os.readlink("/proc/self/ns/net") == os.readlink(f"/proc/{os.getppid()}/ns/net"):
        return "the tests have no network of their own"
    if shutil.which("nft") is None:
        return "nft is not installed"
    attempt = subprocess.run(["nft", "add table inet probe; delete table inet probe"],
                             capture_output=True, text=True, check=False)
    return attempt.stderr.strip().split("\n")[0] if attempt.returncode else ""


def nft(*words: str) -> str:
    return subprocess.run(["nft", *words], check=True, capture_output=True, text=True).stdout


class OwnedTable:
    """A table of the packet filter that only its maker can remove."""

    def __init__(self, command: str) -> None:
        self._maker = subprocess.Popen(["nft", "-i"], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, text=True)
        assert self._maker.stdin is not None
        self._maker.stdin.write(f"{command}\n")
        self._maker.stdin.flush()
        wait_until(lambda: nft("list", "tables") != "", "the table was made")

    def __enter__(self) -> "OwnedTable":
        return self

    def __exit__(self, *_: object) -> None:
        # The kernel removes the table with its maker.
        self._maker.communicate(timeout=scaled(10))


class SteeredTraffic:
    """The file of a controller with so many instances and flows, and both ends of its traffic.

    The upper 16 bits of the flows' labels count from 1, so each instance has as many flows.
    """

    def __init__(self, file: ConfigurationFile, framing: Framing, instances: int,
                 flows: int) -> None:
        self.file = file
        self.instances = instances
        self.metrics_port = free_port()
        self._ends = ExitStack()
        self.service = self._ends.enter_context(UpstreamService(self._answer))
        self.flows = [Flow((number << 16) + 1 + number % 7, self.service.address, framing=framing,
                           **four_keys()) for number in range(1, flows + 1)]
        self._by_up_label = {flow.up_label: flow for flow in self.flows}
        file.listen = ("::", PUBLIC)
        file.flows = {f"flow{flow.label}": flow for flow in self.flows}
        file.tables = {
            "forwarder": f'instances = {instances}\nframing = "{framing.name}"',
            "downstream": f'address = "::"\nport = {PUBLIC}\n'
                          f'instance_ports = [{FIRST}, {FIRST + instances}]',
            "controller": "stats_seconds = 1",
            "metrics": f"port = {self.metrics_port}"}
        file.write()

    def listen(self, address: str) -> None:
        """Writes a file with another address."""
        self.file.listen = (address, PUBLIC)
        self.file.tables["downstream"] = self.file.tables["downstream"].replace('"::"', f'"{address}"')
        self.file.write()

    def no_longer_steered(self) -> None:
        """Writes a file without instances."""
        del self.file.tables["downstream"]
        self.file.tables["forwarder"] = f'framing = "{self.flows[0].framing.name}"'
        self.file.write()

    def _answer(self, data: bytes) -> Optional[bytes]:
        framing = self.flows[0].framing
        return self._by_up_label[framing.parse(data).label].echo(data)

    def owner(self, flow: Flow) -> int:
        return (flow.label >> 16) % self.instances

    def exchange(self, peer: UdpEnd, to: Address, flows: Sequence[Flow]) -> None:
        """Sends one request of each flow; each has to be answered, once and rightly."""
        for begin in range(0, len(flows), _WINDOW):
            part = flows[begin:begin + _WINDOW]
            for flow in part:
                peer.send(flow.request(b"%d" % flow.label), to)
            awaited = {flow.down_label: flow for flow in part}
            for _ in part:
                answer = peer.receive()
                # The address and the public port, whatever port the instance has.
                assert answer.sender == to
                flow = awaited.pop(part[0].framing.parse(answer.data).label)
                assert flow.open_reply(answer.data).payload == b"%d" % flow.label
        assert peer.waiting() is None

    def figures(self, name: str) -> List[int]:
        """A metric of each instance."""
        place = f"http://127.0.0.1:{self.metrics_port}/metrics"
        with urllib.request.urlopen(place, timeout=scaled(10)) as page:
            text = page.read().decode()
        found: Dict[int, int] = {
            int(number): int(float(value)) for number, value in re.findall(
                rf'^vesk_instance_{name}{{instance="(\d+)"}} (\S+)$', text, re.MULTILINE)}
        return [found[number] for number in range(self.instances)]

    def wait_for_figures(self, name: str, expected: List[int]) -> None:
        wait_until(lambda: self.figures(name) == expected, f"{name} is {expected}", 15)

    def close(self) -> None:
        self._ends.close()


def all_ready(controller: ControllerProcess, instances: int) -> ControllerProcess:
    for number in range(instances):
        name = f"instance {number}: " if instances > 1 else ""
        controller.wait_for(re.compile(
            rf"info controller: {name}the forwarder is set up: .*"), 0, 20)
    return controller
