"""Two forwarders in parallel, and one that replaces another after a crash."""

from __future__ import annotations

import re

from framework.fixtures import StartVesk
from framework.flood import Drain, Flood
from framework.bench import Bench
from framework.flow import four_keys
from framework.udp import UdpEnd
from framework.vesk_process import VeskProcess

RESOLVER_FAILURE = re.compile(r"terminate called .*getaddrinfo: no\.such\.host\.invalid\|1: err .*",
                              re.DOTALL)
ABORTED = -6


def bench_of(vesk: VeskProcess, new_end) -> Bench:
    return Bench(vesk, new_end(), new_end())


def test_two_forwarders_do_not_affect_each_other(start_vesk: StartVesk, new_end) -> None:
    """Both have the same labels. The end of one does not affect the other."""
    benches = [bench_of(start_vesk().ready(), new_end) for _ in range(2)]
    flows = [bench.flow(5, **four_keys()) for bench in benches]
    for bench, flow in zip(benches, flows):
        bench.declare(flow)
    for _ in range(10):
        senders = {bench.exchange(flow) for bench, flow in zip(benches, flows)}
        assert len(senders) == 2
    # The second forwarder cannot bind the port of the first.
    lines = benches[1].vesk.lines_after(f"start addr 127.0.0.1 port {benches[0].to[1]}")
    assert "error Failed bind syscall for endpoint socket: Address already in use" in lines
    benches[0].exchange(flows[0])
    benches[1].vesk.finish()
    benches[0].exchange(flows[0])


def crash(bench: Bench) -> None:
    bench.vesk.command("set label 1 up_ip no.such.host.invalid up_port 1")
    bench.vesk.wait_exit(ABORTED, seconds=10, errors=RESOLVER_FAILURE, core_allowed=True)


def test_a_new_forwarder_can_replace_one_that_crashed(start_vesk: StartVesk, new_end) -> None:
    """A resolver failure ends the first one under load. Its port is free once it has ended."""
    bench = bench_of(start_vesk().ready(), new_end)
    flows = [bench.flow(label, **four_keys()) for label in range(1, 51)]
    bench.declare(*flows)
    senders = {flow.label: bench.exchange(flow) for flow in flows}
    with Drain(bench.peer), Drain(bench.upstream), \
            Flood(bench.peer, [(flow.request(b"x"), bench.to) for flow in flows]), \
            Flood(bench.upstream, [(flow.reply(b"y"), senders[flow.label]) for flow in flows]):
        crash(bench)
        successor = start_vesk().ready()
        lines = successor.lines_after(*(flow.set_command() for flow in flows),
                                      f"start addr 127.0.0.1 port {bench.to[1]}")
        assert not [line for line in lines if line.startswith("error")], lines
    with UdpEnd() as peer, UdpEnd() as upstream:
        flow = bench.flow(60, upstream=upstream.address, **four_keys())
        successor.lines_after(flow.set_command())
        peer.send(flow.request(b"question"), bench.to)
        arrived = upstream.receive()
        upstream.send(flow.reply(b"answer"), arrived.sender)
        assert flow.open_reply(peer.receive().data).payload == b"answer"
    successor.finish()


def test_a_crash_does_not_affect_another_forwarder(start_vesk: StartVesk, new_end) -> None:
    crashing, neighbour = (bench_of(start_vesk().ready(), new_end) for _ in range(2))
    flow = neighbour.flow(5, **four_keys())
    neighbour.declare(flow)
    sender = neighbour.exchange(flow)
    crash(crashing)
    assert neighbour.exchange(flow) == sender
