"""vesk-traffic: what it sends, seen by a relay, and that it verifies what returns."""

from __future__ import annotations

import json
import signal
import subprocess
from itertools import groupby
from pathlib import Path
from typing import List, Tuple

import pytest

from framework.faults import faulty_start
from framework.timing import scaled, wait_until
from framework.traffic import figures, generator, run_generator
from framework.udp import free_port
from framework.unchanged_relay import Message, UnchangedRelay, label_of
from framework.vesk_process import binary

BURST = 16


def through_relay(requests: int, *words: object) -> Tuple[dict, List[Message], List[Message]]:
    """The report, and the messages of the measured requests and of their replies."""
    with UnchangedRelay() as relay:
        report = figures("--unchanged", "--port", relay.port, "--upstream-port",
                         relay.upstream_port, "--requests", requests, *words)
    assert report["sent"] == requests
    return report, last(relay.requests, requests), last(relay.replies, requests)


def last(messages: List[Message], datagrams: int) -> List[Message]:
    """The last messages, which have this number of datagrams."""
    chosen: List[Message] = []
    while sum(map(len, chosen)) < datagrams:
        chosen.insert(0, messages[-len(chosen) - 1])
    assert sum(map(len, chosen)) == datagrams
    return chosen


def labels(messages: List[Message]) -> List[int]:
    return [label_of(datagram) for message in messages for datagram in message]


def in_turn(flows: int, messages: List[Message]) -> List[int]:
    """The labels if flows from 100 on take turns. Any of them may be the first."""
    found = labels(messages)
    return [100 + (found[0] - 100 + turn) % flows for turn in range(len(found))]


@pytest.mark.parametrize("options", [(), ("--merge-sends",)])
def test_each_flow_sends_its_burst_in_turn(options: tuple) -> None:
    report, requests, _ = through_relay(6 * BURST, "--flows", 3, "--rate", 1600, "--burst", BURST,
                                        "--label-base", 100, *options)
    bursts = [(label, len(list(same))) for label, same in groupby(labels(requests))]
    assert bursts == [(100, BURST), (101, BURST), (102, BURST)] * 2
    assert report["seconds"] >= 5 * BURST / 1600, "the last burst was due then"


def test_flows_take_turns_without_bursts() -> None:
    _, requests, _ = through_relay(12, "--flows", 3, "--label-base", 100)
    assert labels(requests) == in_turn(3, requests)


def test_labels_have_the_distance_of_the_step() -> None:
    _, requests, _ = through_relay(6, "--flows", 3, "--label-base", 100, "--label-step", 65536)
    assert set(labels(requests)) == {100, 100 + 65536, 100 + 2 * 65536}


def test_both_ends_merge_their_sends() -> None:
    report, requests, replies = through_relay(4 * BURST, "--rate", 1600, "--burst", BURST,
                                              "--merge-sends")
    # Bursts that the machine delayed leave together.
    assert all(len(message) % BURST == 0 for message in requests + replies)
    assert report["merged_sends"] >= len(requests) + len(replies)


def test_sends_are_not_merged_without_the_option() -> None:
    report, requests, replies = through_relay(4 * BURST, "--rate", 1600, "--burst", BURST)
    assert {len(message) for message in requests} == {1}
    assert {len(message) for message in replies} == {1}
    assert report["merged_sends"] == 0


def test_merging_keeps_the_order_of_flows() -> None:
    _, requests, _ = through_relay(64, "--flows", 8, "--peers", 2, "--window", 8, "--label-base",
                                   100, "--merge-sends")
    assert labels(requests) == in_turn(8, requests)


@pytest.mark.parametrize("options", [(), ("--merge-sends",), ("--burst", BURST),
                                     ("--burst", BURST, "--merge-sends"),
                                     ("--burst", BURST, "--merge-sends", "--rate", 5000)])
def test_traffic_through_the_forwarder_is_complete(options: tuple) -> None:
    report = figures("--flows", 5, "--peers", 1, "--requests", 2000, "--algorithm",
                     "sha256,sha1,none", *options, "--", binary())
    assert report["verified"] >= 2 * report["sent"]
    assert (report["merged_sends"] > 0) == ("--merge-sends" in options)


@pytest.mark.parametrize(("payload", "merged"), [(500, True), (1200, False)])
def test_datagrams_longer_than_a_packet_are_sent_singly(payload: int, merged: bool) -> None:
    """The kernel refuses to segment into datagrams that do not fit into one packet."""
    network = ["unshare", "--net", "sh", "-c", 'ip link set lo mtu 1000 up && exec "$@"', "sh"]
    probe = subprocess.run([*network, "true"], capture_output=True, text=True, check=False)
    if probe.returncode != 0:
        pytest.skip(f"no small packets: {probe.stderr.strip()}")
    report = figures("--burst", BURST, "--requests", 10 * BURST, "--payload", payload,
                     "--merge-sends", "--", binary(), before=network)
    assert (report["merged_sends"] > 0) == merged


@pytest.mark.parametrize(("options", "said"), [
    (("--burst", 65), "--burst: Value 65 not in range 1 to 64"),
    (("--burst", 0), "--burst: Value 0 not in range 1 to 64"),
    (("--burst", 16, "--window", 15), "--burst: more requests than --window allows"),
])
def test_impossible_bursts_are_refused(options: tuple, said: str) -> None:
    done = run_generator(*options, "--", "true")
    assert done.returncode > 2
    assert said in done.stderr


def test_the_command_may_follow_the_algorithm() -> None:
    figures("--requests", 10, "--algorithm", "sha1", "--", "env", "-u", "NONE", binary())


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_a_signal_ends_the_measured_time(number: signal.Signals) -> None:
    """What was sent before is still awaited and reported."""
    with UnchangedRelay() as relay:
        words = ["--unchanged", "--port", relay.port, "--upstream-port", relay.upstream_port, "--rate", 1000,
                 "--duration", 60, "--json"]
        with subprocess.Popen([generator(), *map(str, words)], stdout=subprocess.PIPE) as process:
            wait_until(lambda: len(relay.requests) > 1000, "the measured time has begun")
            process.send_signal(number)
            printed, _ = process.communicate(timeout=scaled(10))
        assert process.returncode == 0
    report = json.loads(printed)
    assert report["answered"] == report["sent"] > 0
    assert report["seconds"] < 50


def test_a_signal_ends_a_run_with_a_forwarder_of_its_own_at_once() -> None:
    with subprocess.Popen([generator(), "--duration", "60", "--", binary()], stdout=subprocess.PIPE) as process:
        wait_until(Path(f"/proc/{process.pid}/task/{process.pid}/children").read_text, "the forwarder has started")
        process.terminate()
        printed, _ = process.communicate(timeout=scaled(10))
    assert process.returncode == -signal.SIGTERM
    assert not printed


def test_a_wait_that_fails_ends_the_run(tmp_path: Path) -> None:
    # Leaks cannot be looked for under strace.
    done = run_generator("--port", free_port(), "--upstream-port", free_port(), before=[
        "env", "ASAN_OPTIONS=detect_leaks=0", *faulty_start(tmp_path / "trace", "epoll_pwait2:error=ENOSYS")])
    assert done.returncode == 2
    assert done.stderr == "vesk-traffic: epoll_pwait2: Function not implemented\n"
