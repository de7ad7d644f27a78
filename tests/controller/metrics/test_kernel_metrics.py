"""The metrics of the kernel's figures and of log lines change when their causes are provoked in a network
namespace."""

from __future__ import annotations

import os
import re
import signal
from pathlib import Path
from typing import Callable, Dict, Tuple

import pytest

from configuration_file import ConfigurationFile
from controller_process import ControllerProcess
from conversation import ask, ask_until_answered
from framework.timing import scaled
from framework.udp import UdpEnd
from programs import spoiling_program, unusable

from monitored_host import Host


def udp_drops(pid: int) -> int:
    """The sum of the last column of the kernel's table."""
    lines = Path(f"/proc/{pid}/net/udp").read_text(encoding="ascii").splitlines()[1:]
    return sum(int(line.split()[-1]) for line in lines)


def overflow(controller: ControllerProcess, sender: UdpEnd, to: Tuple[str, int]) -> int:
    """Sends to a stopped forwarder until the kernel drops datagrams; returns how many it dropped."""
    child = controller.forwarder()
    os.kill(child, signal.SIGSTOP)
    try:
        before = udp_drops(child)
        while udp_drops(child) < before + 10:
            for _ in range(200):
                sender.send(bytes(1000), to)
        return udp_drops(child) - before
    finally:
        os.kill(child, signal.SIGCONT)


def test_drops_equal_the_kernels_on_each_side(configuration: ConfigurationFile,
                                              host: Host) -> None:
    flow = host.flow("alice", 1)
    configuration.tables["metrics"] += "\nper_flow = true"
    controller = host.start()
    peer = host.peer()
    ask_until_answered(peer, flow, configuration.listen)
    host.wait_for(lambda now: now.get('vesk_udp_sockets{side="upstream"}') == 1, "there is a socket")
    assert host.metrics()['vesk_udp_sockets{side="downstream"}'] == 1
    assert host.metrics()['vesk_udp_dropped_datagrams_total{side="downstream"}'] == 0
    dropped = overflow(controller, peer, configuration.listen)
    host.wait_for(lambda now: now['vesk_udp_dropped_datagrams_total{side="downstream"}'] == dropped,
                  f"{dropped} drops are shown")
    now = host.metrics()
    assert now['vesk_udp_dropped_datagrams_total{side="upstream"}'] == 0
    assert now['vesk_host_udp_receive_buffer_errors_total{family="ipv4"}'] == dropped
    lines = Path(f"/proc/{controller.forwarder()}/net/udp").read_text(encoding="ascii")
    ports = {int(port, 16) for port in re.findall(r": 00000000:([0-9A-F]{4}) ", lines)}
    own = ports - {end.port for end in [peer]}
    assert len(own) == 1
    dropped_upstream = overflow(controller, peer, ("127.0.0.1", own.pop()))
    host.wait_for(
        lambda now: now['vesk_udp_dropped_datagrams_total{side="upstream"}'] == dropped_upstream,
        f"{dropped_upstream} drops are shown")
    now = host.metrics()
    assert now['vesk_udp_dropped_datagrams_total{side="downstream"}'] == dropped
    assert now['vesk_flow_udp_dropped_datagrams_total{flow="alice",label="0x1"}'] == dropped_upstream


def test_one_warning_before_ports_run_out(configuration: ConfigurationFile,
                                          host: Host) -> None:
    peer = host.peer()
    flows = [host.flow(f"flow{label}", label) for label in range(1, 13)]
    host.set("net/ipv4/ip_local_port_range", "61000 61011")
    host.set("net/ipv4/ip_local_reserved_ports", "61000-61001")
    controller = host.start()
    host.wait_for(lambda now: now.get("vesk_ephemeral_ports_left") == 10, "all ports are left")
    for flow in flows[:9]:
        ask_until_answered(peer, flow, configuration.listen)
    warning = ("warn controller: ephemeral ports are running out: 1 of 10 are left; a flow that opens "
               "its socket when none is left drops its datagrams; widen net.ipv4.ip_local_port_range, or "
               "list the users with ss -uanp")
    controller.wait_for(warning)
    now = host.metrics()
    assert (now["vesk_ephemeral_ports_used"], now["vesk_ephemeral_ports_left"]) == (9, 1)
    assert now["vesk_upstream_dropped_datagrams_total"] == 0
    ask_until_answered(peer, flows[9], configuration.listen)
    assert not ask(peer, flows[10], configuration.listen, b"too late", scaled(0.5))
    host.wait_for(lambda now: now["vesk_ephemeral_ports_left"] == 0
                  and now["vesk_upstream_dropped_datagrams_total"] == 1, "the port is missing")
    assert [line for line in controller.lines if "ports are running out" in line] == [warning]


def test_descriptors_are_counted_against_the_limit(configuration: ConfigurationFile,
                                                   host: Host) -> None:
    peer = host.peer()
    flow = host.flow("alice", 1)
    host.start("prlimit", "--nofile=64:64")
    host.wait_for(lambda now: "vesk_descriptors_used" in now, "there is a reading")
    before = host.metrics()
    assert before["vesk_descriptors_used"] + before["vesk_descriptors_left"] == 64
    ask_until_answered(peer, flow, configuration.listen)
    host.wait_for(lambda now: now["vesk_descriptors_used"] == before["vesk_descriptors_used"] + 2,
                  "the flow's socket is counted")


def test_connections_are_shown_if_the_module_is_loaded(host: Host) -> None:
    host.start()
    host.wait_for(lambda now: "vesk_descriptors_used" in now, "there is a reading")
    limit = Path("/proc/sys/net/netfilter/nf_conntrack_max")
    with host.namespace.inside():
        expected = float(limit.read_text(encoding="ascii")) if limit.exists() else None
    assert host.metrics().get("vesk_conntrack_entries_limit") == expected
    assert ("vesk_conntrack_entries" in host.metrics()) == (expected is not None)


@pytest.mark.parametrize("level, created", [("error", 0), ("info", 3)])
def test_log_lines_are_counted_at_each_level_that_shows_them(configuration: ConfigurationFile,
                                                             host: Host, level: str,
                                                             created: int) -> None:
    peer = host.peer()
    flows = [host.flow(name, label) for label, name in enumerate(("alice", "bob"), start=1)]
    unreachable = host.flow("carol", 3)
    # There is no route to this address.
    unreachable.upstream = ("192.0.2.1", 5000)
    configuration.tables["forwarder"] = f'log_level = "{level}"'
    host.start()
    for flow in flows:
        ask_until_answered(peer, flow, configuration.listen)
    for _ in range(6):
        peer.send(flows[0].request(b"x")[:-1] + b"y", configuration.listen)
    peer.send(unreachable.request(b"x"), configuration.listen)
    host.wait_for(lambda now: now["vesk_endpoints_deleted_by_error_total"] == 1
                  and now["vesk_hmac_failures_total"] == 6, "the lines are counted")
    assert host.metrics()["vesk_endpoints_created_total"] == created


def test_no_figure_of_a_child_that_ended_is_shown(configuration: ConfigurationFile,
                                                  host: Host) -> None:
    configuration.tables["controller"] = "stats_seconds = 1\nrestart_pause_ms = 1500"
    peer = host.peer()
    flow = host.flow("alice", 1)
    controller = host.start()
    ask_until_answered(peer, flow, configuration.listen)
    host.wait_for(lambda now: "vesk_descriptors_used" in now, "there is a reading")
    dropped = overflow(controller, peer, configuration.listen)
    series = 'vesk_udp_dropped_datagrams_total{side="downstream"}'
    host.wait_for(lambda now: now[series] == dropped, "drops are shown")
    os.kill(controller.forwarder(), signal.SIGKILL)
    host.wait_for(lambda now: now["vesk_up"] == 0, "the page says that it is down")
    now = host.metrics()
    assert not [name for name in now if re.match("vesk_(descriptors|ephemeral|udp_sockets)", name)]
    assert now[series] == dropped
    host.wait_for(lambda now: "vesk_descriptors_used" in now, "there is a reading of the new one")
    assert host.metrics()[series] == dropped


def next_reading(host: Host) -> Callable[[Dict[str, float]], bool]:
    """Returns a check for a page with a reading that began after this call: it uses one more port."""
    used = host.metrics()["vesk_ephemeral_ports_used"]
    host.peer()
    return lambda now: now["vesk_ephemeral_ports_used"] == used + 1


def sockets(now: Dict[str, float]) -> Dict[str, float]:
    return {side: now[f'vesk_udp_sockets{{side="{side}"}}']
            for side in ("downstream", "lateral", "upstream")}


def test_the_lateral_stream_is_found_after_a_reload_that_changes_its_port(
        configuration: ConfigurationFile, host: Host) -> None:
    configuration.join(4600)
    controller = host.start()
    host.wait_for(lambda now: "vesk_descriptors_used" in now, "there is a reading")
    configuration.join(4601)
    configuration.write()
    controller.reload()
    controller.wait_for(
        "warn controller: lateral: the change applies at the next start of the forwarder")
    host.wait_for(next_reading(host), "there is another reading")
    assert sockets(host.metrics()) == {"downstream": 1, "lateral": 1, "upstream": 0}


def test_the_listener_is_found_after_a_move_that_failed(
        configuration: ConfigurationFile, host: Host) -> None:
    controller = host.start(program=spoiling_program(configuration.folder, unusable(4600)))
    host.wait_for(lambda now: "vesk_descriptors_used" in now, "there is a reading")
    configuration.listen = ("127.0.0.1", 4600)
    configuration.write()
    assert controller.reload() == "info controller: reloaded: 0 flows"
    controller.wait_for(re.compile("error controller: .*The forwarder continues to listen on .*"))
    host.wait_for(next_reading(host), "there is another reading")
    assert sockets(host.metrics()) == {"downstream": 1, "lateral": 0, "upstream": 0}
