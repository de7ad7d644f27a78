"""A stand-in for a balancer: stateless rules of the packet filter that spread the datagrams of peers over
the hosts that are ready, and a thread that asks the hosts."""

from __future__ import annotations

import json
import subprocess
import threading
import urllib.error
from typing import Collection, Dict, List

from framework.timing import scaled
from generator import PORT
from network import Namespace
from page import fetch

#: Where the peers send to. No device has this address: the rules replace it.
VIRTUAL = "10.80.0.1"
#: The network of the peers.
PEERS = "10.79.0.0/24"
PROBE_SECONDS = 0.2

_METRICS = 9477


class Balancer:
    """Asks each host for /ready once every PROBE_SECONDS and removes a host after one failure."""

    def __init__(self, namespace: Namespace, hosts: Collection[str],
                 limited: Dict[str, Collection[str]]) -> None:
        """`limited` gives the only hosts for the peers behind an address."""
        self._namespace = namespace
        self._hosts = list(hosts)
        self._limited = limited
        self._ready: List[str] = []
        self._changed = threading.Condition()
        self._failure: "BaseException | None" = None
        self._stop = threading.Event()
        # The replies get the virtual address back. Nothing tracks connections here.
        self._namespace.nft(f"""table ip balancer {{
            set sent {{ type ipv4_addr . ipv4_addr; flags dynamic; size 64; }}
            chain choose {{ }}
            chain prerouting {{ type filter hook prerouting priority raw;
                ip daddr {VIRTUAL} udp dport {PORT} notrack goto choose
                ip daddr {PEERS} udp sport {PORT} notrack ip saddr set {VIRTUAL}
            }}
        }}""")
        self._thread = threading.Thread(target=self._run, name="balancer", daemon=True)
        self._thread.start()

    def wait_for(self, *ready: str) -> None:
        """Waits until the datagrams are spread over exactly these hosts."""
        with self._changed:
            found = self._changed.wait_for(
                lambda: self._failure is not None or set(self._ready) == set(ready), scaled(10))
        if self._failure is not None:
            raise self._failure
        assert found, f"{self._ready} are ready and not {ready}"

    def sent(self, source: str, host: str) -> int:
        """How many datagrams of a source were given to a host."""
        listing = subprocess.run([*self._namespace.prefix, "nft", "-j", "list", "set", "ip", "balancer", "sent"],
                                 check=True, capture_output=True, text=True).stdout
        (found,) = (item["set"] for item in json.loads(listing)["nftables"] if "set" in item)
        elements = (item["elem"] for item in found.get("elem", ()))
        return sum(element["counter"]["packets"] for element in elements
                   if element["val"]["concat"] == [source, host])

    def close(self) -> None:
        self._stop.set()
        self._thread.join()

    def _run(self) -> None:
        try:
            with self._namespace.inside():
                while not self._stop.wait(PROBE_SECONDS):
                    self._spread([host for host in self._hosts if _is_ready(host)])
        except BaseException as failure:  # pylint: disable=broad-except
            with self._changed:
                self._failure = failure
                self._changed.notify_all()

    def _spread(self, ready: List[str]) -> None:
        if ready == self._ready:
            return
        # One transaction: no datagram meets an empty chain.
        rules = ["flush chain ip balancer choose"]
        for source, only in self._limited.items():
            rules += _rules(f"ip saddr {source}", [host for host in ready if host in only])
        self._namespace.nft("\n".join(rules + _rules("", ready)))
        with self._changed:
            self._ready = ready
            self._changed.notify_all()


def _is_ready(host: str) -> bool:
    try:
        return fetch(_METRICS, "/ready", host)[0] == 200
    except (urllib.error.URLError, ConnectionError):
        return False


def _rules(match: str, hosts: List[str]) -> List[str]:
    """Gives each host its turn, and counts by source and host."""
    if not hosts:
        return [f"add rule ip balancer choose {match} drop"]
    turns = ", ".join(f"{turn} : {host}" for turn, host in enumerate(hosts))
    return [f"add rule ip balancer choose {match} ip daddr set numgen inc mod {len(hosts)} map {{ {turns} }} "
            "update @sent { ip saddr . ip daddr counter } accept"]
