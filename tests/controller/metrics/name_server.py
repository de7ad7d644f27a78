"""Debian's dnsmasq as the name server of a network namespace."""

from __future__ import annotations

import signal
import subprocess
from pathlib import Path
from typing import Dict, List

from framework.bind_mount import with_file_at
from network import Namespace


class NameServer:
    """Answers for names below "example" on an address of the namespace."""

    def __init__(self, namespace: Namespace, folder: Path, addresses: Dict[str, str],
                 listen: str = "127.0.0.1") -> None:
        self._hosts = folder / "hosts"
        #: The resolver's file that names this server.
        self.resolver = folder / "resolv.conf"
        self.resolver.write_text(f"nameserver {listen}\n", encoding="ascii")
        self._write(addresses)
        self._process = subprocess.Popen(
            [*namespace.prefix, "dnsmasq", "--conf-file=/dev/null", "--no-daemon", "--log-facility=-",
             "--pid-file=", "--user=root", "--no-resolv", "--no-hosts", f"--addn-hosts={self._hosts}",
             "--local=/example/", f"--listen-address={listen}", "--bind-interfaces"],
            stderr=subprocess.PIPE, text=True)
        self._wait_for("]: started", "]: read")

    def prefix(self) -> List[str]:
        """The command prefix that makes a command use this server."""
        return with_file_at("/etc/resolv.conf", self.resolver)

    def answer(self, addresses: Dict[str, str]) -> None:
        """Changes all addresses."""
        self._write(addresses)
        self._process.send_signal(signal.SIGHUP)
        self._wait_for("]: read")

    def hang(self) -> None:
        self._process.send_signal(signal.SIGSTOP)

    def close(self) -> None:
        self._process.kill()
        self._process.wait(10)
        assert self._process.stderr is not None
        self._process.stderr.close()

    def _write(self, addresses: Dict[str, str]) -> None:
        self._hosts.write_text("".join(f"{address} {name}\n" for name, address in addresses.items()),
                               encoding="ascii")

    def _wait_for(self, *parts: str) -> None:
        assert self._process.stderr is not None
        for part in parts:
            for line in self._process.stderr:
                if part in line:
                    break
            else:
                raise AssertionError(f"dnsmasq ended before it wrote {part!r}")
