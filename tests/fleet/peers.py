"""The namespace of the peers and of the upstream service. vesk-traffic uses the loopback address for both; rules of
the packet filter put it behind an address of this namespace."""

from __future__ import annotations

from typing import List

from balancer import VIRTUAL
from generator import PORT, configuration_text
from network import Namespace

_UPSTREAM = 5000
_GATEWAY = "10.79.0.1"
#: The address of peers that are not vesk-traffic.
OWN = "10.79.0.2"


class Place:
    """An address for one vesk-traffic, and its ports on the loopback address."""

    def __init__(self, number: int, *options: object) -> None:
        self.address = f"10.79.0.{11 + number}"
        self.port = PORT + number
        self.upstream = _UPSTREAM + number
        self.options = ("--port", self.port, "--upstream-port", self.upstream, *options)
        #: What vesk-traffic is given beside that: every request counts, also the first ones.
        self.counted = (*self.options, "--warm-up", 0)
        self._number = number

    def flows(self, count: int) -> str:
        """The tables of its flows for the controller's file."""
        text = configuration_text(count, *self.options)
        text = text[text.index("[flows."):].replace("[flows.", f"[flows.place{self._number}-")
        return text.replace(f'"127.0.0.1:{self.upstream}"', f'"{self.address}:{self.upstream}"')

    def rules(self) -> List[str]:
        return [
            f"add rule ip peers output ip daddr 127.0.0.1 udp dport {self.port} "
            f"ip saddr set {self.address} ip daddr set {VIRTUAL} udp dport set {PORT}",
            f"add rule ip peers output ip saddr 127.0.0.1 udp sport {self.upstream} ip saddr set {self.address}",
            f"add rule ip peers prerouting ip saddr {VIRTUAL} ip daddr {self.address} udp sport {PORT} "
            f"ip saddr set 127.0.0.1 ip daddr set 127.0.0.1 udp sport set {self.port}",
            f"add rule ip peers prerouting ip daddr {self.address} udp dport {self.upstream} "
            "ip daddr set 127.0.0.1",
        ]


class Peers(Namespace):
    """Is behind the hub, so that the hub sees all datagrams between peers and hosts."""

    def __init__(self, hub: Namespace, places: List[Place]) -> None:
        super().__init__()
        hub.ip("link", "add", "peers", "type", "veth", "peer", "name", "eth0", "netns", str(self.process))
        hub.ip("link", "set", "peers", "up")
        hub.ip("address", "add", f"{_GATEWAY}/24", "dev", "peers")
        hub.set("net/ipv4/ip_forward", "1")
        for device in ("lo", "eth0"):
            self.ip("link", "set", device, "up")
        for address in (OWN, *(place.address for place in places)):
            self.ip("address", "add", f"{address}/24", "dev", "eth0")
        self.ip("route", "add", "default", "via", _GATEWAY)
        # Datagrams with loopback addresses come from and go to eth0.
        for device in ("all", "eth0"):
            self.set(f"net/ipv4/conf/{device}/rp_filter", "0")
            self.set(f"net/ipv4/conf/{device}/route_localnet", "1")
            self.set(f"net/ipv4/conf/{device}/accept_local", "1")
        rules = ["table ip peers { chain output { type route hook output priority raw; }; ",
                 "chain prerouting { type filter hook prerouting priority raw; }; }",
                 *(rule for place in places for rule in place.rules())]
        self.nft("\n".join(rules))

    def give_route(self, host: Namespace, hub_address: str) -> None:
        """Lets a host reach the peers through the hub."""
        host.ip("route", "add", "10.79.0.0/24", "via", hub_address)
