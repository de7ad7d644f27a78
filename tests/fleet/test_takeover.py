"""A host fails, and a spare takes its slot over: it starts with the index, and gets the name.

Flows of other slots lose nothing of what arrives at a living host. What a balancer still sends to the dead one, until
it has asked /ready again, is lost for all slots; so the peers of the other slots get only living hosts here.
"""

from __future__ import annotations

import os
import signal
import time
from typing import Iterator, Type

import pytest

from balancer import PROBE_SECONDS
from configuration_file import ConfigurationFile
from controller_process import ControllerProcess
from fleet import RESOLVE_SECONDS, SLOTS, SPARE, Fleet, MakeFleet, added
from framework.timing import scaled
from generator import Generator
from network import ipv4
from peers import Place
from probe import Probe

_FLOWS = 64
_KILLED = 1
# vesk-traffic counts the labels up, and the slot follows from the upper 16 bits: half of the others have slot 2 and
# half have slot 0.
_SLOT = Place(0, "--label-base", _KILLED << 16, "--label-step", 1)
_OTHERS = Place(1, "--label-base", (3 << 16) - _FLOWS // 2, "--label-step", 1)
_SLOT_RATE = 1000
_OTHERS_RATE = 2000


@pytest.fixture
def fleet(make_fleet: MakeFleet) -> Fleet:
    living = [ipv4(host) for host in range(1, SPARE + 1) if host != _KILLED + 1]
    return make_fleet([_SLOT, _OTHERS], {_OTHERS.address: living})


@pytest.fixture
def probe(fleet: Fleet) -> Iterator[Probe]:
    """Requests for the slot that is taken over."""
    made = Probe(fleet.peers, (_KILLED + SLOTS) << 16)
    yield made
    made.close()


def _kill(instance: ControllerProcess, forwarder: int) -> None:
    """Ends both processes without any notice to others."""
    for process in (instance.pid, forwarder):
        os.kill(process, signal.SIGKILL)
    instance.wait_exit()


def test_a_spare_takes_a_slot_over(fleet: Fleet, probe: Probe, configuration: ConfigurationFile,
                                   start_generator: Type[Generator]) -> None:
    fleet.write("", _SLOT.flows(_FLOWS) + _OTHERS.flows(_FLOWS) + configuration.text_of({"probe": probe.flow}))
    instances = fleet.start_all()
    probe.start()
    probe.wait_for_arrivals(20)
    prefix = fleet.peers.prefix
    slot = start_generator(fleet.peers.process, _FLOWS, _SLOT_RATE, *_SLOT.counted, prefix=prefix)
    others = start_generator(fleet.peers.process, _FLOWS, _OTHERS_RATE, *_OTHERS.counted, prefix=prefix)
    fleet.wait_for_datagrams(_SLOT, _OTHERS)

    forwarder = instances[_KILLED].forwarder()
    before = fleet.balancer.sent(_SLOT.address, ipv4(_KILLED + 1))
    killed = time.monotonic()
    _kill(instances[_KILLED], forwarder)
    gone = time.monotonic()
    spare = fleet.start(_KILLED, SPARE)
    fleet.move_name(_KILLED, SPARE)
    spare.ready()
    for instance in (instances[0], instances[2]):
        instance.wait_for(added(_KILLED, SPARE))
    fleet.balancer.wait_for(*(ipv4(host) for host in range(1, SPARE + 1) if host != _KILLED + 1))
    probe.wait_for_arrivals(50)

    others.check_nothing_lost()
    of_slot = slot.result()
    first = probe.first_after(gone) - killed
    last = probe.last_lost()
    assert last is not None and last > killed, "the host was not needed"
    to_dead = fleet.balancer.sent(_SLOT.address, ipv4(_KILLED + 1)) - before
    print(f"first datagram of the slot after {first:.2f} s, last loss after {last - killed:.2f} s; "
          f"{of_slot['lost']} of {of_slot['sent']} requests lost at {_SLOT_RATE} a second; {to_dead} went from the "
          "balancer to the dead host; other slots lost none")
    assert not of_slot["wrong"], of_slot
    assert 0 < of_slot["lost"] <= _SLOT_RATE * (last - killed + 0.1), of_slot
    assert last - killed < scaled(RESOLVE_SECONDS + PROBE_SECONDS + 2)
