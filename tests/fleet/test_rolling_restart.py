"""All instances are replaced, one after the other, while they forward.

What holds: nothing is lost and nothing is wrong, if the new instance of a slot starts beside the old one, is in the
balancer, and has the slot's name before the old one gets SIGTERM. Meanwhile both own the slot.

What does not hold: an owner that is restarted in place leaves a gap for the flows of its slot, since no other instance
forwards them.

leave_seconds has to be longer than resolve_seconds plus the interval of the balancer's probes: peers send to the old
instance until the balancer has asked /ready again, and the other instances hand over to it until they have resolved
its name again. Where the name follows /ready, the second time begins when the first one is over. Here the name is
changed just before SIGTERM.
"""

from __future__ import annotations

import math
import signal
import time
from dataclasses import dataclass
from typing import Type

import pytest

from balancer import PROBE_SECONDS
from controller_process import ControllerProcess
from fleet import RESOLVE_SECONDS, SLOTS, SPARE, Fleet, MakeFleet
from generator import Generator
from instance_command import image_root
from network import ipv4
from peers import Place

_FLOWS = 96
_RATE = 3000
_LEAVE_SECONDS = math.ceil(RESOLVE_SECONDS + PROBE_SECONDS)


@dataclass
class _End:
    """How an instance ends."""

    leave_seconds: int
    drain_seconds: int


# A drain continues to forward while datagrams arrive, so it would hide a leave_seconds that is too short.
_WITHOUT_DRAIN = _End(_LEAVE_SECONDS, 0)
_WITH_DRAIN = _End(_LEAVE_SECONDS, 10)


def _started(make_fleet: MakeFleet, place: Place, end: _End) -> Fleet:
    fleet = make_fleet([place], {})
    fleet.write(f"leave_seconds = {end.leave_seconds}\ndrain_seconds = {end.drain_seconds}", place.flows(_FLOWS))
    return fleet


def _replace(fleet: Fleet, old: ControllerProcess, slot: int, free: int) -> ControllerProcess:
    """Starts a new instance of the slot on the free host, and ends the old one."""
    host = slot + 1
    others = {*range(1, SPARE + 1)} - {free, host}
    new = fleet.start(slot, free).ready()
    fleet.balancer.wait_for(*map(ipv4, others | {host, free}))
    fleet.move_name(slot, free)
    old.signal(signal.SIGTERM)
    fleet.balancer.wait_for(*map(ipv4, others | {free}))
    assert old.wait_exit(_LEAVE_SECONDS + 15) == 0
    return new


@pytest.mark.limit_seconds(60)
@pytest.mark.parametrize("end", [_WITHOUT_DRAIN, *([_WITH_DRAIN] if image_root() else [])])
def test_a_rolling_restart_loses_nothing(
        make_fleet: MakeFleet, start_generator: Type[Generator], end: _End) -> None:
    place = Place(0)
    fleet = _started(make_fleet, place, end)
    instances = fleet.start_all()
    generator = start_generator(fleet.peers.process, _FLOWS, _RATE, *place.counted, prefix=fleet.peers.prefix)
    fleet.wait_for_datagrams(place)
    began = time.monotonic()
    free = SPARE
    for slot in range(SLOTS):
        instances[slot] = _replace(fleet, instances[slot], slot, free)
        free = slot + 1
    took = time.monotonic() - began
    counts = generator.check_nothing_lost()
    assert counts["sent"] > 0.9 * _RATE * counts["seconds"], "this machine is too slow for this check"
    for host in range(1, SPARE + 1):
        assert fleet.balancer.sent(place.address, ipv4(host)) > 0
    print(f"{counts['sent']} requests, none lost; the restart took {took:.1f} s")


def test_an_instance_that_does_not_wait_loses_datagrams(
        make_fleet: MakeFleet, start_generator: Type[Generator]) -> None:
    """Otherwise the same as above, so what is above can fail."""
    place = Place(0)
    fleet = _started(make_fleet, place, _End(0, 0))
    instances = fleet.start_all()
    generator = start_generator(fleet.peers.process, _FLOWS, _RATE, *place.counted, prefix=fleet.peers.prefix)
    fleet.wait_for_datagrams(place)
    _replace(fleet, instances[0], 0, SPARE)
    counts = generator.result()
    assert counts["lost"] > 0 and not counts["wrong"], counts
    print(f"without leave_seconds {counts['lost']} requests of {counts['sent']} are lost")
