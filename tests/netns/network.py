"""Three hosts on one bridge, each a network namespace, and a namespace for the tests.

Nothing outside these namespaces is changed. An idle process keeps each namespace open, and the
namespace disappears with it.
"""

from __future__ import annotations

import ctypes
import os
import shutil
import subprocess
from contextlib import contextmanager
from pathlib import Path
from typing import Iterator, List

from framework.udp import UdpEnd

_CLONE_NEWNET = 0x40000000
_libc = ctypes.CDLL(None, use_errno=True)


def refusal() -> str:
    """The reason why namespaces cannot be made here; empty if they can."""
    for tool in ("unshare", "nsenter", "ip"):
        if shutil.which(tool) is None:
            return f"{tool} is not installed"
    attempt = subprocess.run(["unshare", "--net", "ip", "link", "add", "probe", "type", "bridge"],
                             capture_output=True, check=False)
    return attempt.stderr.decode(errors="replace").strip() if attempt.returncode else ""


class Namespace:
    """A network namespace that exists as long as this object."""

    def __init__(self) -> None:
        self._holder = subprocess.Popen(
            ["unshare", "--net", "sh", "-c", "echo ready; exec cat"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        assert self._holder.stdout is not None
        assert self._holder.stdout.readline() == b"ready\n"
        self.path = f"/proc/{self._holder.pid}/ns/net"
        self.process = self._holder.pid

    @property
    def prefix(self) -> List[str]:
        """The command prefix that runs a command in this namespace."""
        return ["nsenter", f"--net={self.path}"]

    def run(self, *words: str) -> None:
        """Runs a command in this namespace; raises CalledProcessError if it fails."""
        subprocess.run([*self.prefix, *words], check=True, capture_output=True)

    def ip(self, *words: str) -> None:
        self.run("ip", *words)

    def nft(self, text: str) -> None:
        """Changes the packet filter of this namespace in one transaction."""
        subprocess.run([*self.prefix, "nft", "-f", "-"], input=text, text=True, check=True)

    def set(self, name: str, value: str) -> None:
        """Sets a kernel parameter of this namespace, such as "net/ipv4/ip_forward"."""
        with self.inside():
            Path(f"/proc/sys/{name}").write_text(value, encoding="ascii")

    @contextmanager
    def inside(self) -> Iterator[None]:
        """Inside this context sockets opened by this thread belong to the namespace."""
        with open("/proc/thread-self/ns/net", "rb") as outside, open(self.path, "rb") as within:
            _enter(within.fileno())
            try:
                yield
            finally:
                _enter(outside.fileno())

    def close(self) -> None:
        assert self._holder.stdin is not None and self._holder.stdout is not None
        self._holder.stdin.close()
        self._holder.wait(10)
        self._holder.stdout.close()


def _enter(descriptor: int) -> None:
    if _libc.setns(descriptor, _CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))


class Network:
    """The tests use the bridge itself (host 254); forwarders run on hosts 1, 2 and 3."""

    def __init__(self, hosts: int) -> None:
        self.hub = Namespace()
        self.hosts = [Namespace() for _ in range(hosts)]
        self._ends: List[UdpEnd] = []
        self.hub.ip("link", "set", "lo", "up")
        self.hub.ip("link", "add", "bridge", "type", "bridge")
        self.hub.ip("link", "set", "bridge", "up")
        self._give_addresses(self.hub, "bridge", 254)
        for number, host in enumerate(self.hosts, start=1):
            self.hub.ip("link", "add", f"port{number}", "type", "veth", "peer", "name", "eth0",
                        "netns", str(host.process))
            self.hub.ip("link", "set", f"port{number}", "master", "bridge")
            self.hub.ip("link", "set", f"port{number}", "up")
            host.ip("link", "set", "lo", "up")
            host.ip("link", "set", "eth0", "up")
            self._give_addresses(host, "eth0", number)

    @staticmethod
    def _give_addresses(namespace: Namespace, device: str, number: int) -> None:
        """Two addresses of each family, so that the correct one has to be chosen."""
        for subnet in (77, 78):
            namespace.ip("address", "add", f"10.{subnet}.0.{number}/24", "dev", device)
            namespace.ip("address", "add", f"fd{subnet}::{number:x}/64", "dev", device, "nodad")

    def end(self, address: str, port: int = 0) -> UdpEnd:
        """A socket of the tests on the bridge."""
        with self.hub.inside():
            end = UdpEnd(address, port)
        self._ends.append(end)
        return end

    def close(self) -> None:
        for end in self._ends:
            end.close()
        for namespace in [*self.hosts, self.hub]:
            namespace.close()

    def __enter__(self) -> "Network":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()


def ipv4(number: int, subnet: int = 77) -> str:
    return f"10.{subnet}.0.{number}"


def ipv6(number: int, subnet: int = 77) -> str:
    return f"fd{subnet}::{number:x}"


PEERS = 254
