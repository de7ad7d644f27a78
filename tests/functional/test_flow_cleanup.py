"""The periodic task and the expiry of idle flows."""

from __future__ import annotations

import re
import time
from pathlib import Path
from typing import Callable, List

import pytest

from framework.fixtures import StartVesk
from framework.bench import Bench
from framework.faults import call_numbers, failing_listener, faulty_start
from framework.flow import Flow, four_keys
from framework.statistics import report
from framework.udp import UdpEnd

TASK = "info Task [FlowCleanUpTask]"
NOW = f"{TASK} now executing"
PREFIX = 0x0ABC


def expiring(label: int, kind: str = "main") -> str:
    return (f"debug Expiring label 0x{label:x}/{label} of flow type [{kind}]: "
            "closing upstream endpoint and cleaning up")


# The task -------------------------------------------------------------------------------

@pytest.mark.parametrize("arguments, switches, seconds", [
    ([], "1/1", 600),
    (["udpv1", "0x3c"], "1/1", 60),
    (["udpv2", "60", "true", "false", "extra"], "1/0", 60),
    (["udpv2", "60", "false", "true"], "0/1", 60),
    (["udpv2", "60", "false", "false"], "0/0", 60),
    (["udpv2", "60", "false"], "0/1", 60),
    (["udpv2", "9223372036"], "1/1", 9223372036),
])
def test_the_task_is_logged_at_start_up(start_vesk: StartVesk, arguments: List[str], switches: str,
                                        seconds: int) -> None:
    vesk = start_vesk(*arguments)
    created = vesk.wait_for_log(re.compile(
        r"info Created periodic task \[FlowCleanUpTask\] thread: [0-9a-f]+; "
        rf"main/aux flow cleanup switches \[{switches}\]"))
    vesk.wait_for_log(f"{TASK} will execute in [{seconds}s]")
    lines = vesk.log_lines()
    (poll,) = [line for line in lines if line.startswith("info Created pollLoop thread: ")]
    assert lines.index(poll) < lines.index(created)
    assert NOW not in lines


def test_the_task_runs_once_per_period(start_vesk: StartVesk) -> None:
    vesk = start_vesk("udpv2", "1")
    vesk.wait_for_log(f"{TASK} will execute in [1s]")
    began = time.monotonic()
    vesk.wait_for_log(f"{TASK} will execute in [1s]", count=3)
    assert time.monotonic() - began > 1.5
    task_lines = [line for line in vesk.log_lines() if line.startswith(TASK)]
    assert task_lines[:4] == [f"{TASK} will execute in [1s]", NOW] * 2


def test_a_task_that_cannot_be_started_ends_the_process(start_vesk: StartVesk,
                                                        tmp_path: Path) -> None:
    """The running threads are stopped. The exit status is 0, because the result of stopping the
    poll thread replaces the status of the failure."""
    # The task's thread is the last one. Before the first one of the forwarder an emulator starts one of its own.
    number = call_numbers(tmp_path, "clone3", "CLONE_THREAD")[-1]
    vesk = start_vesk(prefix=faulty_start(tmp_path / "trace",
                                          f"clone3:error=EAGAIN:when={number}"))
    vesk.close_input()
    vesk.wait_exit(0)
    assert vesk.log_lines()[-1] == ("error Failed to create periodic task [FlowCleanUpTask] "
                                    "thread: Resource temporarily unavailable")


def test_end_of_input_does_not_wait_for_the_period(start_vesk: StartVesk) -> None:
    vesk = start_vesk("udpv2", "3600")
    vesk.wait_for_log(f"{TASK} will execute in [3600s]")
    vesk.close_input()
    vesk.wait_exit(0, seconds=2)


# Expiry ---------------------------------------------------------------------------------

class Cleaned(Bench):
    """A bench whose forwarder cleans up every second and logs at debug level."""

    def next_pass(self) -> None:
        """Waits until the next clean-up is complete and a new period begins."""
        since = self.vesk.mark()
        self.vesk.wait_for_log(NOW, since)
        begun = self.vesk.log_lines().index(NOW, since)
        self.vesk.wait_for_log(f"{TASK} will execute in [1s]", begun)

    def expired(self, label: int, kind: str = "main", since: int = 0) -> bool:
        return expiring(label, kind) in self.vesk.log_lines(since)


def cleaned(start_vesk: StartVesk, peer: UdpEnd, upstream: UdpEnd, *switches: str) -> Cleaned:
    bench = Cleaned(start_vesk("udpv2", "1", *switches).ready(), peer, upstream)
    bench.vesk.lines_after("log priority debug")
    return bench


@pytest.fixture
def cleaning(start_vesk: StartVesk, peer: UdpEnd, upstream: UdpEnd) -> Cleaned:
    return cleaned(start_vesk, peer, upstream)


def aux_owner(bench: Bench) -> Flow:
    return bench.flow(5, options={"up_aux_flow_label": 0x7DEF0000,
                                  "down_aux_flow_label_prefix": PREFIX})


def aux_flow(bench: Bench, owner: Flow, number: int) -> Flow:
    return bench.flow((PREFIX << 16) | number, up_label=0x7DEF0000 | number,
                      down_label=owner.down_label)


def test_an_idle_endpoint_expires_in_the_second_pass(cleaning: Cleaned) -> None:
    """The first pass marks it and the next one expires it, so it takes one to two periods."""
    bench = cleaning
    descriptors = bench.vesk.descriptor_count()
    flow = bench.flow(0x1F)
    bench.declare(flow)
    bench.next_pass()
    since = bench.vesk.mark()
    before = bench.exchange(flow)
    bench.vesk.wait_for_log(expiring(0x1F), since)
    lines = bench.vesk.log_lines(since)
    passes = lines[:lines.index(expiring(0x1F))].count(NOW)
    assert passes == 2
    bench.vesk.wait_for_descriptor_count(descriptors)
    bench.vesk.lines_after("log priority info")
    assert report(bench.vesk).upstream == {}
    # The flow is still declared, so the next datagram opens a new endpoint.
    assert bench.exchange(flow) != before


def test_the_expiry_is_logged_at_debug_level_only(start_vesk: StartVesk, peer: UdpEnd,
                                                  upstream: UdpEnd) -> None:
    bench = Cleaned(start_vesk("udpv2", "1").ready(), peer, upstream)
    descriptors = bench.vesk.descriptor_count()
    bench.exchange(bench.control)
    bench.vesk.wait_for_descriptor_count(descriptors)
    assert not [line for line in bench.vesk.log_lines() if "Expiring" in line]


def test_traffic_in_one_direction_keeps_a_flow_active(cleaning: Cleaned) -> None:
    bench = cleaning
    asking, answering, rejected, silent = flows = [
        bench.flow(label, **four_keys()) for label in (1, 2, 3, 4)]
    bench.declare(*flows)
    senders = {flow.label: bench.exchange(flow) for flow in flows}
    bench.next_pass()
    since = bench.vesk.mark()
    for _ in range(3):
        bench.ask(asking)
        bench.answer(answering, senders[2])
        # Every datagram on the upstream socket counts, even one that is not forwarded.
        bench.upstream.send(b"nonsense", senders[3])
        bench.next_pass()
    assert bench.expired(silent.label, since=since)
    for flow in (asking, answering, rejected):
        assert not bench.expired(flow.label, since=since)
        assert bench.exchange(flow) == senders[flow.label]


def test_refused_and_unsent_datagrams_do_not_keep_a_flow_active(cleaning: Cleaned) -> None:
    bench = cleaning
    unsigned, unsendable = bench.flow(1, **four_keys()), bench.flow(2)
    bench.declare(unsigned, unsendable)
    bench.exchange(unsigned)
    bench.exchange(unsendable)
    bench.next_pass()
    since = bench.vesk.mark()
    with failing_listener(bench.vesk, "sendmsg:error=EAGAIN"):
        for _ in range(2):
            bench.send(bench.framing.build(1, b"unsigned"))
            bench.send(unsendable.request(b"lost"))
            bench.next_pass()
            if bench.expired(1, since=since) and bench.expired(2, since=since):
                break
        bench.vesk.wait_for_log(expiring(1), since)
        bench.vesk.wait_for_log(expiring(2), since)


def test_an_expired_auxiliary_flow_is_created_again(cleaning: Cleaned) -> None:
    bench = cleaning
    descriptors = bench.vesk.descriptor_count()
    owner = aux_owner(bench)
    bench.declare(owner)
    flow = aux_flow(bench, owner, 1)
    bench.exchange(owner)
    bench.exchange(flow)
    bench.vesk.wait_for_log(expiring(flow.label, "aux"))
    bench.vesk.wait_for_log(expiring(owner.label, "main"))
    bench.vesk.wait_for_descriptor_count(descriptors)
    # Its record was deleted too, so the next datagram uses the changed record of the owner.
    owner.down_label = flow.down_label = 4242
    bench.vesk.lines_after("set label 5 down_label 4242")
    bench.exchange(flow)


def test_the_switches_select_the_kinds_of_flow_that_expire(start_vesk: StartVesk,
                                                           new_end: Callable[..., UdpEnd]) -> None:
    """All four combinations run in parallel, so that the test waits only once."""
    benches = {(main, aux): cleaned(start_vesk, new_end(), new_end(), main, aux)
               for main in ("true", "false") for aux in ("true", "false")}
    for bench in benches.values():
        owner = aux_owner(bench)
        bench.declare(owner)
        bench.exchange(owner)
        bench.exchange(aux_flow(bench, owner, 1))
    for _ in range(3):
        for bench in benches.values():
            bench.next_pass()
    for (main, aux), bench in benches.items():
        bench.vesk.lines_after("log priority info")
        assert bench.expired(5, "main") == (main == "true"), (main, aux)
        assert bench.expired((PREFIX << 16) | 1, "aux") == (aux == "true"), (main, aux)
        assert len(report(bench.vesk).upstream) == (main, aux).count("false")


def test_declared_labels_under_a_prefix_are_main_flows(start_vesk: StartVesk, peer: UdpEnd,
                                                       upstream: UdpEnd) -> None:
    bench = cleaned(start_vesk, peer, upstream, "false", "true")
    declared = bench.flow((PREFIX << 16) | 7)
    bench.declare(aux_owner(bench), declared)
    before = bench.exchange(declared)
    for _ in range(3):
        bench.next_pass()
    assert bench.exchange(declared) == before


def test_hundreds_of_flows_expire_at_once(cleaning: Cleaned) -> None:
    """More than fit into the channel of the poll thread, while one flow continues."""
    bench = cleaning
    descriptors = bench.vesk.descriptor_count()
    flows = [bench.flow(label) for label in range(1, 401)]
    bench.declare(*flows)
    bench.next_pass()
    for flow in flows:
        bench.ask(flow)
    for _ in range(2):
        bench.exchange(bench.control)
        bench.next_pass()
    bench.exchange(bench.control)
    bench.vesk.wait_for_descriptor_count(descriptors + 2)
    lines = bench.vesk.log_lines()
    assert all(lines.count(expiring(flow.label)) == 1 for flow in flows)


def test_end_of_input_ends_the_process_while_hundreds_expire(start_vesk: StartVesk, peer: UdpEnd,
                                                             upstream: UdpEnd) -> None:
    bench = cleaned(start_vesk, peer, upstream)
    flows = [bench.flow(label) for label in range(1, 401)]
    bench.declare(*flows)
    bench.next_pass()
    for flow in flows:
        bench.ask(flow)
    bench.vesk.wait_for_log(re.compile(r"debug Expiring label .*"))
    bench.vesk.close_input()
    bench.vesk.wait_exit(0, seconds=2)
