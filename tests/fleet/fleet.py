"""Three instances on hosts behind a balancer, a spare host, a name server, and the peers."""

from __future__ import annotations

from typing import Callable, Collection, Dict, List

import instance_command
from balancer import Balancer
from configuration_file import ConfigurationFile
from controller_process import ControllerProcess
from framework.timing import wait_until
from name_server import NameServer
from network import PEERS as HUB
from network import Network, ipv4
from peers import Peers, Place

StartController = Callable[..., ControllerProcess]

SLOTS = 3
SPARE = 4
RESOLVE_SECONDS = 1
_LATERAL = 9000


def name(slot: int) -> str:
    return f"vesk-{slot}.example"


class Fleet:
    """Slot 0 begins on host 1, slot 1 on host 2, slot 2 on host 3; host 4 is the spare. Each host runs the same
    file, as docs/fleet.md has it."""

    def __init__(self, configuration: ConfigurationFile, start: StartController, places: List[Place],
                 limited: Dict[str, Collection[str]]) -> None:
        self.configuration = configuration
        self._start = start
        self._addresses = {name(slot): ipv4(slot + 1) for slot in range(SLOTS)}
        folder = configuration.folder / "names"
        folder.mkdir()
        self.network = Network(hosts=SPARE)
        self.peers = Peers(self.network.hub, places)
        for host in self.network.hosts:
            self.peers.give_route(host, ipv4(HUB))
        self._names = NameServer(self.network.hub, folder, self._addresses, ipv4(HUB))
        self.balancer = Balancer(self.network.hub, [ipv4(host) for host in range(1, SPARE + 1)], limited)
        self._folder = configuration.folder / "configuration"

    def write(self, controller: str, flows: str) -> None:
        """Writes the file of all instances, with the given lines in [controller]."""
        text = (f'[downstream]\naddress = "0.0.0.0"\nport = 4500\n[lateral]\naddress = "0.0.0.0"\nport = {_LATERAL}\n'
                f'index_from = "env:VESK_INDEX"\ninstances = {SLOTS}\nresolve_seconds = {RESOLVE_SECONDS}\n'
                f'peers_from = "{name(0).replace("0", "{index}")}:{_LATERAL}"\n'
                f'[controller]\n{controller}\n[metrics]\naddress = "0.0.0.0"\nport = 9477\n{flows}')
        self._folder.mkdir()
        self.configuration.path = self._folder / "vesk.toml"
        self.configuration.write_text(text)
        instance_command.prepare(self.configuration.path)

    def start(self, slot: int, host: int) -> ControllerProcess:
        """Starts the instance of a slot on a host."""
        return self._start(environment={"VESK_INDEX": str(slot)},
                           **instance_command.details(self.network.hosts[host - 1], self._names,
                                                      self.configuration.path))

    def start_all(self) -> List[ControllerProcess]:
        """Starts each slot on its first host; returns them when they forward to each other."""
        started = [self.start(slot, slot + 1) for slot in range(SLOTS)]
        for slot, instance in enumerate(started):
            for other in {*range(SLOTS)} - {slot}:
                instance.wait_for(added(other, other + 1))
        self.balancer.wait_for(*map(ipv4, range(1, SLOTS + 1)))
        return started

    def wait_for_datagrams(self, *places: Place) -> None:
        """Waits until vesk-traffic sends from each place: its first datagrams only find out who answers."""
        def sent() -> List[int]:
            return [sum(self.balancer.sent(place.address, ipv4(host)) for host in range(1, SPARE + 1))
                    for place in places]
        wait_until(lambda: min(sent()) > 200, "vesk-traffic sends")

    def move_name(self, slot: int, host: int) -> None:
        """Lets the name of a slot have the address of a host."""
        self._addresses[name(slot)] = ipv4(host)
        self._names.answer(self._addresses)

    def close(self) -> None:
        self.balancer.close()
        self._names.close()
        self.peers.close()
        self.network.close()


def added(slot: int, host: int) -> str:
    """What an instance logs when it has the address of another one."""
    return f"info Added lateral stream peer: idx {slot} addr {ipv4(host)}"


MakeFleet = Callable[..., Fleet]
