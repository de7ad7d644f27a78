"""The controller's rules in a network namespace, and sockets that stand in for its instances."""

from __future__ import annotations

import ipaddress
import json
import os
import socket
import struct
import subprocess
from contextlib import ExitStack
from pathlib import Path
from typing import Dict, List, Optional, Tuple

from framework.framing import Framing
from framework.udp import Address, Received, UdpEnd

from network import Namespace

PUBLIC = 4500
FIRST = 4501


def refusal(host: Namespace) -> str:
    """The reason why a namespace has no packet filter; empty if it has one."""
    attempt = subprocess.run([*host.prefix, "nft", "-c", "-f", "-"], input=PROBE,
                             capture_output=True, text=True, check=False)
    return attempt.stderr.strip().split("\n")[0] if attempt.returncode else ""


PROBE = """table inet probe {
    chain prerouting {
        type filter hook prerouting priority raw; policy accept;
        fib daddr type local udp dport 1 notrack udp dport set 2
    }
}
"""


def rules(folder: Path, address: str, framing: Framing, instances: int) -> str:
    """What --print-nft prints."""
    file = folder / "steered.toml"
    file.write_text(
        f'[forwarder]\ninstances = {instances}\nframing = "{framing.name}"\n[downstream]\n'
        f'address = "{address}"\nport = {PUBLIC}\n'
        f'instance_ports = [{FIRST}, {FIRST + instances}]\n', encoding="ascii")
    return subprocess.run([os.environ["VESK_CONTROLLER"], "--print-nft", str(file)], check=True,
                          capture_output=True, text=True).stdout


class Steered:
    """A host with the rules, a socket on the public port, and one on each port of the instances."""

    def __init__(self, host: Namespace, text: str, address: str, instances: int) -> None:
        self.host = host
        self.text = text
        self._ends = ExitStack()
        with host.inside():
            self.holder = self._ends.enter_context(UdpEnd(address, PUBLIC))
            self.instances = [self._ends.enter_context(UdpEnd(address, FIRST + number))
                              for number in range(instances)]
        self.nft("-f", "-", text=text)

    def nft(self, *words: str, text: str = "") -> str:
        return subprocess.run([*self.host.prefix, "nft", *words], input=text, check=True,
                              capture_output=True, text=True).stdout

    def counters(self) -> Dict[str, int]:
        listed = json.loads(self.nft("-j", "list", "counters", "table", "inet", f"vesk_{PUBLIC}"))
        return {entry["counter"]["name"]: entry["counter"]["packets"]
                for entry in listed["nftables"] if "counter" in entry}

    def receive(self, instance: int) -> Received:
        """The next datagram of the instance; no other may have one."""
        received = self.instances[instance].receive()
        self.expect_nothing()
        return received

    def expect_nothing(self) -> None:
        for number, end in enumerate([self.holder, *self.instances]):
            assert end.waiting() is None, f"socket {number} has a datagram"

    def close(self) -> None:
        self._ends.close()
        self.nft("delete", "table", "inet", f"vesk_{PUBLIC}")


def checksum(data: bytes) -> int:
    """The checksum of the Internet protocols, RFC 1071."""
    data += bytes(len(data) % 2)
    total = sum(struct.unpack(f"!{len(data) // 2}H", data))
    while total >> 16:
        total = (total & 0xffff) + (total >> 16)
    return ~total & 0xffff or 0xffff


def send_with_checksum(sender: Address, to: Address, data: bytes) -> None:
    """Sends a datagram whose checksum was computed before it reaches the kernel."""
    source, destination = ipaddress.ip_address(sender[0]), ipaddress.ip_address(to[0])
    family = socket.AF_INET6 if source.version == 6 else socket.AF_INET
    length = 8 + len(data)
    ports = struct.pack("!HHH", sender[1], to[1], length)
    pseudo = source.packed + destination.packed + struct.pack("!HH", socket.IPPROTO_UDP, length)
    header = ports + struct.pack("!H", checksum(pseudo + ports + bytes(2) + data))
    with socket.socket(family, socket.SOCK_RAW, socket.IPPROTO_UDP) as raw:
        raw.bind((sender[0], 0))
        raw.sendto(header + data, (to[0], 0))


def without_checksum(end: UdpEnd) -> None:
    so_no_check = 11
    end.socket.setsockopt(socket.SOL_SOCKET, so_no_check, 1)


def labels(instances: int) -> List[Tuple[int, int]]:
    """Labels, and the instance of each."""
    prefixes = [*range(2 * instances), 0x7fff, 0xfffe, 0xffff]
    return [(prefix << 16 | 0x8001, prefix % instances) for prefix in prefixes]


def listed(steered: Steered, table: Optional[str] = None) -> str:
    """The rules as the kernel has them, without the values of their counters."""
    words = ["list", "ruleset"] if table is None else ["list", "table", "inet", table]
    return steered.nft("-s", *words)
