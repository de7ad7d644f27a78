"""Provokes the causes in the operator's table of alerts in a network namespace: the metrics of the rule
reach the values at which it fires."""

from __future__ import annotations

import os
import shutil
import signal
import subprocess
from pathlib import Path
from typing import Dict, Iterator, List

import pytest

from configuration_file import ConfigurationFile
from conversation import ask_until_answered
from framework.lateral import LOOPBACK
from framework.udp import Address, UdpEnd, free_port

from alert_rules import alert_rules
from monitored_host import Host
from name_server import NameServer

# VeskNotListening ------------------------------------------------------------------------


def test_the_downstream_port_is_taken(configuration: ConfigurationFile, host: Host) -> None:
    taken = host.peer(*configuration.listen)
    host.start()
    assert host.metrics()["vesk_listening"] == 0
    taken.close()
    host.wait_for(lambda now: now["vesk_listening"] == 1, "it listens")


def test_the_address_is_not_one_of_this_host(configuration: ConfigurationFile,
                                             host: Host) -> None:
    configuration.listen = ("10.77.0.1", 4500)
    host.start()
    assert host.metrics()["vesk_listening"] == 0
    host.namespace.ip("address", "add", "10.77.0.1/32", "dev", "lo")
    host.wait_for(lambda now: now["vesk_listening"] == 1, "it listens")


def test_the_port_of_the_lateral_stream_is_taken(configuration: ConfigurationFile,
                                                 host: Host) -> None:
    port = free_port()
    configuration.join(port)
    taken = host.peer(LOOPBACK[0], port)
    host.start()
    now = host.metrics()
    assert (now["vesk_listening"], now["vesk_lateral_listening"]) == (1, 0)
    taken.close()
    host.wait_for(lambda now: now["vesk_lateral_listening"] == 1, "it listens")


# VeskPeerUnresolved ----------------------------------------------------------------------

_RESOLVED = 'vesk_lateral_peer_resolved{peer="%d"}'


@pytest.fixture
def name_server(configuration: ConfigurationFile, host: Host, tmp_path: Path) -> Iterator[NameServer]:
    """Knows the first of two peers, whose names the file has."""
    port = free_port()
    configuration.tables["lateral"] = (
        f'address = "{LOOPBACK[0]}"\nport = {port}\nindex = 0\ninstances = 3\n'
        f'peers_from = "p{{index}}.example:{port}"\nresolve_seconds = 1')
    server = NameServer(host.namespace, tmp_path, {"p1.example": LOOPBACK[1]})
    yield server
    server.close()


def test_the_name_servers_do_not_have_the_name_of_a_peer(host: Host, name_server: NameServer) -> None:
    host.start(*name_server.prefix())
    host.wait_for(lambda now: (now[_RESOLVED % 1], now[_RESOLVED % 2]) == (1, 0), "one is resolved")
    name_server.answer({"p1.example": LOOPBACK[1], "p2.example": LOOPBACK[1]})
    host.wait_for(lambda now: now[_RESOLVED % 2] == 1, "both are resolved")


def test_the_name_server_has_no_address_of_the_family(host: Host, name_server: NameServer) -> None:
    name_server.answer({"p1.example": LOOPBACK[1], "p2.example": "::1"})
    host.start(*name_server.prefix())
    host.wait_for(lambda now: (now[_RESOLVED % 1], now[_RESOLVED % 2]) == (1, 0), "one is resolved")


def test_the_name_servers_do_not_answer(host: Host, name_server: NameServer) -> None:
    name_server.hang()
    host.start(*name_server.prefix())
    now = host.metrics()
    assert (now[_RESOLVED % 1], now[_RESOLVED % 2]) == (0, 0)


# VeskReceiveQueueLong --------------------------------------------------------------------

_QUEUE = 'vesk_udp_receive_queue_bytes{side="downstream"}'


def receive_queue(process: int, port: int) -> int:
    """The bytes in the receive queue of a port, from the kernel's table."""
    lines = Path(f"/proc/{process}/net/udp").read_text(encoding="ascii").splitlines()[1:]
    rows = [line.split() for line in lines]
    (queues,) = [row[4] for row in rows if int(row[1].split(":")[1], 16) == port]
    return int(queues.split(":")[1], 16)


def fill(process: int, sender: UdpEnd, to: Address, wanted: int) -> int:
    """Sends to a forwarder that does not read until more than `wanted` bytes of its buffer are used;
    returns how many are used then."""
    for _ in range(wanted // 1000 + 1):
        sender.send(bytes(1000), to)
        if receive_queue(process, to[1]) > wanted:
            break
    return receive_queue(process, to[1])


def test_the_forwarder_gets_no_processor_time(configuration: ConfigurationFile,
                                              host: Host) -> None:
    expression = alert_rules()["VeskReceiveQueueLong"].expression
    threshold = int(expression.split(" > ")[1])
    allowed = int(Path("/proc/sys/net/core/rmem_max").read_text(encoding="ascii"))
    configuration.tables["controller"] += "\nanswer_seconds = 1000"
    flow = host.flow("alice", 1)
    controller = host.start()
    peer = host.peer()
    ask_until_answered(peer, flow, configuration.listen)
    host.wait_for(lambda now: now.get(_QUEUE) == 0, "there is a reading")
    child = controller.forwarder()
    os.kill(child, signal.SIGSTOP)
    try:
        # The kernel doubles the size that is requested for a buffer.
        waiting = fill(child, peer, configuration.listen, min(threshold, allowed))
        assert waiting > min(threshold, allowed)
        host.wait_for(lambda now: now[_QUEUE] == waiting, f"{waiting} bytes are shown")
    finally:
        os.kill(child, signal.SIGCONT)
    host.wait_for(lambda now: now[_QUEUE] == 0, "the queue is empty again")


# VeskConntrackFull -----------------------------------------------------------------------

# More would take minutes and hundreds of megabytes.
_MOST_CONNECTIONS = 600_000


def conntrack_settings(host: Host) -> Dict[str, int]:
    with host.namespace.inside():
        return {name: int(path.read_text(encoding="ascii"))
                for name in ("nf_conntrack_count", "nf_conntrack_max")
                for path in [Path("/proc/sys/net/netfilter") / name] if path.exists()}


@pytest.fixture
def firewall(host: Host) -> int:
    """Makes the host track connections; returns the limit."""
    if shutil.which("nft") is None:
        pytest.skip("nft is not installed")
    try:
        host.namespace.run("nft", "add table ip vesk; add chain ip vesk arriving "
                           "{ type filter hook prerouting priority 0; }; "
                           "add rule ip vesk arriving ct state new accept")
    except subprocess.CalledProcessError as error:
        pytest.skip(f"this kernel does not track connections: {error.stderr.decode(errors='replace')}")
    limit = conntrack_settings(host)["nf_conntrack_max"]
    if limit > _MOST_CONNECTIONS:
        pytest.skip(f"net.netfilter.nf_conntrack_max is {limit}, too many to make here")
    # No entry may expire before the last one is created.
    host.set("net/netfilter/nf_conntrack_udp_timeout", "600")
    return limit


def loopback_addresses() -> Iterator[str]:
    for number in range(1 << 16, 1 << 24):
        yield f"127.{number >> 16}.{number >> 8 & 255}.{number & 255}"


def test_a_firewall_tracks_each_peer(configuration: ConfigurationFile, host: Host,
                                     firewall: int) -> None:
    configuration.listen = ("0.0.0.0", configuration.listen[1])
    host.start()
    host.wait_for(lambda now: now.get("vesk_conntrack_entries_limit") == firewall,
                  "there is a reading")
    before = host.metrics()["vesk_conntrack_entries"]
    wanted = firewall * 95 // 100
    assert before < 0.9 * firewall
    peer = host.peer("0.0.0.0")
    # One peer that sends to many addresses creates as many entries as many peers.
    for _, address in zip(range(wanted), loopback_addresses()):
        peer.send(b"x", (address, configuration.listen[1]))
    host.wait_for(lambda now: wanted <= now["vesk_conntrack_entries"] <= firewall,
                  f"{wanted} connections are shown")
    assert host.metrics()["vesk_conntrack_entries"] > 0.9 * host.metrics()[
        "vesk_conntrack_entries_limit"]


# VeskHostBufferErrors --------------------------------------------------------------------


def host_errors(process: int, name: str) -> int:
    """A counter of the kernel's table for IPv4."""
    lines: List[str] = Path(f"/proc/{process}/net/snmp").read_text(encoding="ascii").splitlines()
    names, values = [line.split() for line in lines if line.startswith("Udp:")]
    return int(values[names.index(name)])


@pytest.fixture
def slow_device(host: Host) -> Address:
    """Makes a device that sends one datagram per second and queues three; returns an address behind it."""
    host.namespace.ip("link", "add", "slow", "type", "veth", "peer", "name", "far")
    for device in ("slow", "far"):
        host.namespace.ip("link", "set", device, "up")
    host.namespace.ip("address", "add", "10.77.0.1/24", "dev", "slow")
    host.namespace.ip("neighbour", "add", "10.77.0.2", "lladdr", "02:00:00:00:00:02", "dev", "slow")
    try:
        host.namespace.run("tc", "qdisc", "add", "dev", "slow", "root", "tbf", "rate", "8kbit",
                           "burst", "1600", "limit", "3200")
    except subprocess.CalledProcessError as error:
        pytest.skip(f"this kernel cannot slow down a device: {error.stderr.decode(errors='replace')}")
    return "10.77.0.2", 5000


def test_a_slow_device_drops_datagrams_of_another_program(host: Host,
                                                          slow_device: Address) -> None:
    series = 'vesk_host_udp_send_buffer_errors_total{family="ipv4"}'
    child = host.start().forwarder()
    host.wait_for(lambda now: now.get(series) == 0, "there is a reading")
    program = host.peer("10.77.0.1")
    for _ in range(20):
        program.send(bytes(1000), slow_device)
    errors = host_errors(child, "SndbufErrors")
    assert errors >= 10
    host.wait_for(lambda now: now[series] == errors, f"{errors} errors are shown")
    assert host.metrics()['vesk_host_udp_receive_buffer_errors_total{family="ipv4"}'] == 0
    assert host.metrics()["vesk_upstream_dropped_datagrams_total"] == 0
