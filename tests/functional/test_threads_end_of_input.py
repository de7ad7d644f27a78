"""The end of input under load.

VESK_REPEAT_ENDINGS is the number of repetitions of each test.
"""

from __future__ import annotations

import re
from contextlib import ExitStack
from typing import List

import pytest

from framework.fixtures import StartVesk
from framework.bench import Bench
from framework.flood import Drain, Flood
from framework.flow import Flow, four_keys
from framework.framing import UDPV1, UDPV2
from framework.timing import count_from_environment, wait_until
from framework.udp import UdpEnd

REPETITIONS = count_from_environment("VESK_REPEAT_ENDINGS", 5)
FLOWS = 50
PROMPT_SECONDS = 2


def busy_flows(bench: Bench) -> List[Flow]:
    """Fifty declared flows, half of them with keys."""
    flows = [bench.flow(label, **(four_keys() if label % 2 else {}))
             for label in range(1, FLOWS + 1)]
    bench.declare(*flows)
    return flows


@pytest.mark.limit_seconds(60 + 10 * REPETITIONS)
@pytest.mark.parametrize("arguments", [[], ["udpv1", "1"]], ids=["udpv2", "udpv1"])
def test_end_of_input_under_full_load(start_vesk: StartVesk, arguments: List[str]) -> None:
    """The exit status is 0 within two seconds, and nothing is written to standard error."""
    for _ in range(REPETITIONS):
        with ExitStack() as ends:
            peer, upstream = (ends.enter_context(UdpEnd()) for _ in range(2))
            vesk = start_vesk(*arguments)
            bench = Bench(vesk, peer, upstream, UDPV1 if arguments else UDPV2)
            flows = busy_flows(bench)
            senders = {flow.label: bench.exchange(flow) for flow in flows}
            payload = b"p" * 64
            with Drain(upstream) as arrived, Drain(peer) as returned, \
                    Flood(peer, [(flow.request(payload), bench.to) for flow in flows]), \
                    Flood(upstream, [(flow.reply(payload), senders[flow.label])
                                     for flow in flows]):
                wait_until(lambda: arrived.count > 500 and returned.count > 500,
                           "traffic flows both ways", seconds=10)
                vesk.close_input()
                vesk.wait_exit(0, seconds=PROMPT_SECONDS)
            by_label = {flow.down_label: flow for flow in flows}
            for sample in returned.samples:
                by_label[bench.framing.parse(sample).label].open_reply(sample)


@pytest.mark.limit_seconds(60 + 10 * REPETITIONS)
def test_end_of_input_while_flows_are_opened(start_vesk: StartVesk) -> None:
    """Hundreds of endpoints are created and removed while the process ends."""
    for _ in range(REPETITIONS):
        with ExitStack() as ends:
            peer, upstream = (ends.enter_context(UdpEnd()) for _ in range(2))
            vesk = start_vesk()
            bench = Bench(vesk, peer, upstream)
            flows = [bench.flow(label) for label in range(1, 301)]
            bench.declare(*flows)
            with Flood(peer, [(flow.request(b"x"), bench.to) for flow in flows]) as flood:
                wait_until(lambda: flood.rounds > 0, "every flow has got a datagram", seconds=20)
                for flow in flows:
                    vesk.command(f"del label {flow.label}")
                    vesk.command(flow.set_command())
                vesk.close_input()
                vesk.wait_exit(0, seconds=PROMPT_SECONDS + 3)


@pytest.mark.limit_seconds(60 + 5 * REPETITIONS)
def test_end_of_input_right_after_the_start(start_vesk: StartVesk) -> None:
    """Threads are cancelled at the beginning of their work or before it."""
    for _ in range(4 * REPETITIONS):
        vesk = start_vesk()
        vesk.close_input()
        vesk.wait_exit(0, seconds=PROMPT_SECONDS)


@pytest.mark.limit_seconds(60 + 5 * REPETITIONS)
def test_end_of_input_right_after_a_start_command(start_vesk: StartVesk) -> None:
    for _ in range(4 * REPETITIONS):
        vesk = start_vesk()
        with UdpEnd() as probe:
            port = probe.port
        vesk.command(f"start addr 127.0.0.1 port {port}")
        vesk.close_input()
        vesk.wait_exit(0, seconds=PROMPT_SECONDS)


@pytest.mark.limit_seconds(60 + 10 * REPETITIONS)
def test_end_of_input_while_flows_expire(start_vesk: StartVesk) -> None:
    """The process ends while a pass closes hundreds of flows."""
    for _ in range(REPETITIONS):
        with ExitStack() as ends:
            peer, upstream = (ends.enter_context(UdpEnd()) for _ in range(2))
            vesk = start_vesk("udpv2", "1")
            bench = Bench(vesk, peer, upstream)
            flows = [bench.flow(label) for label in range(1, 601)]
            bench.declare(*flows)
            vesk.command("log priority debug")
            for flow in flows:
                bench.ask(flow)
            vesk.wait_for_log(re.compile(r"debug Expiring label .*"))
            vesk.close_input()
            vesk.wait_exit(0, seconds=PROMPT_SECONDS)


@pytest.mark.limit_seconds(60 + 10 * REPETITIONS)
def test_end_of_input_with_a_flood_of_bad_datagrams(start_vesk: StartVesk) -> None:
    """Each datagram creates an endpoint, fails its check and removes the endpoint again."""
    for _ in range(REPETITIONS):
        with ExitStack() as ends:
            peer, upstream = (ends.enter_context(UdpEnd()) for _ in range(2))
            vesk = start_vesk()
            bench = Bench(vesk, peer, upstream)
            flows = [bench.flow(label, **four_keys()) for label in range(1, FLOWS + 1)]
            bench.declare(*flows)
            bad = [(bench.framing.build(flow.label, b"unsigned"), bench.to) for flow in flows]
            since = vesk.mark()
            with Flood(peer, bad):
                vesk.wait_for_log("downstreamPacketReceivedFailed HMAC Check!", since, count=200)
                vesk.close_input()
                vesk.wait_exit(0, seconds=PROMPT_SECONDS)
