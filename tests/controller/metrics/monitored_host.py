"""A network namespace as a host, with a controller in it whose metrics are read there."""

from __future__ import annotations

import contextlib
import http.client
import itertools
from typing import Callable, Dict, List, Optional, Union

from configuration_file import ConfigurationFile
from controller_process import ControllerProcess
from framework.flow import Flow, four_keys
from framework.timing import scaled, wait_until
from framework.udp import UdpEnd, UpstreamService
from network import Namespace

from page import samples_in

StartController = Callable[..., ControllerProcess]

_METRICS_PORT = 9477


class Host:
    """A host with a loopback device, and a controller on it."""

    def __init__(self, configuration: ConfigurationFile, start: StartController) -> None:
        self.namespace = Namespace()
        self.namespace.ip("link", "set", "lo", "up")
        self._configuration = configuration
        self._start = start
        self._ends: List[UdpEnd] = []
        self._services: List[UpstreamService] = []
        self._ports = itertools.count(10_000)
        configuration.tables["controller"] = "stats_seconds = 1"
        configuration.tables["metrics"] = f"port = {_METRICS_PORT}"

    def set(self, name: str, value: str) -> None:
        """Sets a kernel parameter of the namespace."""
        self.namespace.set(name, value)

    def flow(self, name: str, label: int) -> Flow:
        flow = Flow(label=label, **four_keys())
        with self.namespace.inside():
            self._services.append(UpstreamService(flow.echo))
        flow.upstream = self._services[-1].address
        self._configuration.flows[name] = flow
        return flow

    def peer(self, *address: Union[str, int]) -> UdpEnd:
        """A socket of the test in the namespace, bound to the address if one is given."""
        with self.namespace.inside():
            self._ends.append(UdpEnd(*address))  # type: ignore[arg-type]
        return self._ends[-1]

    def start(self, *prefix: str, program: Optional[str] = None) -> ControllerProcess:
        """Starts a controller, with `program` instead of the forwarder if that is given."""
        self._configuration.write()
        arguments = ["--program", program] if program else []
        return self._start(*arguments, prefix=[*self.namespace.prefix, *prefix]).ready()

    def metrics(self) -> Dict[str, float]:
        """The samples on the page. Each request has its own port below the ephemeral ones, because one
        of the tests has only a few of these."""
        with self.namespace.inside():
            connection = http.client.HTTPConnection(
                "127.0.0.1", _METRICS_PORT, timeout=scaled(10),
                source_address=("127.0.0.1", next(self._ports)))
            connection.connect()
        with contextlib.closing(connection):
            connection.request("GET", "/metrics", headers={"Connection": "close"})
            return samples_in(connection.getresponse().read().decode("utf-8"))

    def wait_for(self, condition: Callable[[Dict[str, float]], bool], description: str) -> None:
        wait_until(lambda: condition(self.metrics()), description, 15)

    def close(self) -> None:
        for service in self._services:
            service.close()
        for end in self._ends:
            end.close()
        self.namespace.close()
