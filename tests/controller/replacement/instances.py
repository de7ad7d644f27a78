"""A controller with several instances, and the rules that steer their port."""

from __future__ import annotations

import contextlib
import json
import os
import signal
import subprocess
from pathlib import Path
from typing import Dict, List, Optional

from configuration_file import ConfigurationFile
from controller_fixtures import Answer
from controller_process import ControllerProcess
from framework.flow import Flow, four_keys
from framework.timing import SANITIZER, wait_until
from generator import PORT, configuration_text

METRICS = 9477

# What most tests run: the instances, and the flows and requests per second of vesk-traffic.
INSTANCES = 2
FLOWS = 64
# A sanitizer finds the same faults at a lower rate and in fewer replacements.
RATE = 1000 if SANITIZER else 5000
REPLACEMENTS = 3 if SANITIZER else 10
READY = f"info controller: the forwarder is set up: {FLOWS} flows, {INSTANCES} instances"
DONE = f"info controller: replaced {INSTANCES} instances"


def downstream(instances: int) -> str:
    return (f'address = "127.0.0.1"\nport = {PORT}\n'
            f"instance_ports = [{PORT + 1}, {PORT + 1 + instances}]")


def steer(file: ConfigurationFile, instances: int) -> None:
    """Makes this the file of several instances."""
    file.listen = ("127.0.0.1", PORT)
    file.tables["forwarder"] = f"instances = {instances}"
    file.tables["downstream"] = downstream(instances)
    file.tables["metrics"] = f"port = {METRICS}"


def flow_of_each(file: ConfigurationFile, answer: Answer, first: int = 0,
                 controller: str = "") -> List[Flow]:
    """Writes the file of two instances with one flow of each. The upper 16 bits of the labels count
    from `first`, which is even."""
    flows = [Flow(label=(first + instance) << 16 | 1, **four_keys()) for instance in range(2)]
    for instance, flow in enumerate(flows):
        answer(flow)
        file.flows[f"flow{instance}"] = flow
    steer(file, 2)
    file.tables["controller"] = f"stats_seconds = 1\n{controller}"
    file.write()
    return flows


def write_for_generator(file: ConfigurationFile, controller: str = "", *options: object,
                        more: str = "") -> None:
    """Writes the file of INSTANCES instances with the flows of vesk-traffic, and `more` flows."""
    text = configuration_text(FLOWS, *options) + more
    for found, put in (("[forwarder]\n", f"[forwarder]\ninstances = {INSTANCES}\n"),
                       (f"port = {PORT}\n", "\n".join(downstream(INSTANCES).splitlines()[1:]) + "\n")):
        assert text.count(found) == 1
        text = text.replace(found, put)
    file.write_text(f"{text}\n[metrics]\nport = {METRICS}\n"
                    f"[controller]\nstats_seconds = 1\n{controller}\n")


def nft(*words: str) -> str:
    return subprocess.run(["nft", *words], check=True, capture_output=True, text=True).stdout


def tables() -> List[str]:
    """The tables of the packet filter."""
    return nft("list", "tables").splitlines()


def port_of_instances() -> Dict[int, int]:
    """Where the rules send the datagrams, by instance."""
    listing = json.loads(nft("-j", "list", "map", "inet", f"vesk_{PORT}", "instances"))
    found = [item["map"] for item in listing["nftables"] if "map" in item]
    return dict(found[0]["elem"])


def replace(controller: ControllerProcess) -> int:
    """Asks for a replacement; returns the mark before it in the log."""
    since = controller.mark()
    controller.signal(signal.SIGUSR2)
    return since


def forwarders(controller: ControllerProcess, expected: int) -> List[int]:
    """The processes of the forwarders, once there are so many."""
    def present() -> List[int]:
        return children(controller.pid)
    wait_until(lambda: len(present()) == expected, f"there are {expected} forwarders", 10)
    return present()


def children(pid: int) -> List[int]:
    words = Path(f"/proc/{pid}/task/{pid}/children").read_text(encoding="ascii").split()
    return sorted(map(int, words))


def all_forwarders() -> List[int]:
    """The forwarders in this network, whichever process has started them."""
    program = os.path.realpath(os.environ["VESK_BINARY"])
    found = []
    for process in Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(FileNotFoundError, ProcessLookupError, PermissionError):
            if (os.readlink(process / "exe") == program and
                    os.readlink(process / "ns/net") == os.readlink("/proc/self/ns/net")):
                found.append(int(process.name))
    return sorted(found)


def listener(port: int, processes: List[int]) -> Optional[int]:
    """Which of the processes listens on the port of 127.0.0.1."""
    rows = Path("/proc/net/udp").read_text(encoding="ascii").splitlines()[1:]
    inodes = {f"socket:[{row.split()[9]}]" for row in rows
              if row.split()[1] == f"0100007F:{port:04X}"}
    for process in processes:
        for descriptor in Path(f"/proc/{process}/fd").iterdir():
            if str(descriptor.readlink()) in inodes:
                return process
    return None
