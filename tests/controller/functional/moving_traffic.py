"""Traffic of the generator that changes its labels and keys, and the controller's figures about it."""

from __future__ import annotations

import os
import re
import subprocess
import tomllib
import urllib.request
from typing import Any, Dict, List

from configuration_file import ConfigurationFile
from framework.flow import Flow
from framework.framing import Key
from framework.timing import scaled
from framework.udp import UdpEnd, free_port
from steered_traffic import PUBLIC


def page(port: int) -> str:
    with urllib.request.urlopen(f"http://127.0.0.1:{port}/metrics", timeout=scaled(10)) as reply:
        return reply.read().decode("utf-8")


def figure(port: int, series: str) -> float:
    """The value of a series; 0 if there is none."""
    found = re.search(rf"^{re.escape(series)} (\S+)$", page(port), re.MULTILINE)
    return float(found[1]) if found else 0


class MovingTraffic:
    """Two flows of the generator that move to other labels and keys, and the file for them. With two
    instances the labels of each flow belong to different ones."""

    def __init__(self, file: ConfigurationFile, instances: int) -> None:
        self.metrics = free_port()
        self.port = PUBLIC if instances > 1 else free_port()
        self._words = ["--flows", 2, "--label-base", 0x10000, "--label-step", 0x10000,
                       "--next-label", 0x40000, "--port", self.port, "--upstream-port", free_port()]
        text = self._run("--print-toml").stdout
        self.plan: Dict[str, Any] = tomllib.loads(text)
        for flow in self.plan["flows"].values():
            for generation in (flow, flow["next"]):
                file.secrets |= {leg["key"] for leg in generation.values()
                                 if isinstance(leg, dict) and "key" in leg}
        if instances > 1:
            text = text.replace("[forwarder]\n", f"[forwarder]\ninstances = {instances}\n")
            text = text.replace(f"port = {PUBLIC}\n", f"port = {PUBLIC}\ninstance_ports = "
                                f"[{PUBLIC + 1}, {PUBLIC + 1 + instances}]\n")
        self.settings = (text.split("[flows.")[0] + "[controller]\nstats_seconds = 1\n"
                         "rotate_seconds = 1\n[metrics]\nper_flow = true\n"
                         f"port = {self.metrics}\n")
        self._flows = text[text.index("[flows."):]
        file.write_text(self.settings + self._flows)

    def finished(self) -> str:
        """The file in which next is the flow itself."""
        tables = re.split(r"^(?=\[)", self._flows, flags=re.MULTILINE)
        upstream = re.findall(r"^upstream = .*\n", self._flows, re.MULTILINE)
        return self.settings + "".join(
            table.replace(".next]\n", f"]\n{upstream[0]}") for table in tables if ".next]" in table)

    def _run(self, *words: object) -> "subprocess.CompletedProcess[str]":
        return subprocess.run(self._command(*words), capture_output=True, text=True, check=True,
                              timeout=scaled(20))

    def _command(self, *words: object) -> List[str]:
        return [os.environ["VESK_TRAFFIC"], *map(str, [*self._words, *words])]

    def start(self) -> "subprocess.Popen[str]":
        return subprocess.Popen(self._command(
            "--json", "--rate", 500, "--warm-up", 0, "--duration", 60, "--next-after", 1,
            "--loss-timeout", 5, "--verify-every", 1), stdout=subprocess.PIPE, text=True)

    def received(self, name: str, generation: str, label: int) -> float:
        return figure(self.metrics, "vesk_rotation_received_datagrams_total"
                      f'{{flow="{name}",generation="{generation}",label="{label:#x}"}}')

    def send_old(self, peer: UdpEnd) -> int:
        """Sends datagrams that only the old label and keys make valid; the service would count them as
        wrong. Returns their number."""
        flow = self.plan["flows"]["flow1"]
        old_key = Key(bytes.fromhex(flow["from_peer"]["key"]))
        strays = [Flow(label=flow["label"], down_in=old_key),
                  Flow(label=flow["next"]["label"], down_in=old_key)]
        for stray in strays:
            peer.send(stray.request(b"stray"), ("127.0.0.1", self.port))
        return len(strays)
