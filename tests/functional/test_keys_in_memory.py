"""Keys are in the forwarder's memory only where and only as long as they are needed."""

from __future__ import annotations

import os
from typing import Dict, Iterable, List

import pytest

from framework.bench import Bench
from framework.fixtures import StartVesk
from framework.flow import Flow
from framework.framing import Key
from framework.memory import Mapping, displace_input, mappings, places_of
from framework.sha256_state import kept_states
from framework.timing import SANITIZER
from framework.vesk_process import VeskProcess

pytestmark = pytest.mark.skipif(bool(SANITIZER), reason="the sanitizer keeps freed memory")

# Without this the loader saves the vector registers on the stack at the first call of each library
# function, with the bytes that were last copied through them.
LOADED_AT_ONCE = {"LD_BIND_NOW": "1"}

USES = ("down_in", "down_out", "up_in", "up_out")


@pytest.fixture
def vesk(start_vesk: StartVesk) -> VeskProcess:
    return start_vesk(environment=LOADED_AT_ONCE).ready()


def four_random_keys() -> Dict[str, Key]:
    return {use: Key(os.urandom(64), "sha256") for use in USES}


def keys_of(flow: Flow) -> List[Key]:
    return [getattr(flow, use) for use in USES]


def found(bench: Bench, keys: Iterable[Key]) -> List[Mapping]:
    """The places that contain any of the keys: as bytes, as the text of a command, or as the hash
    states that are computed from them, with which one can sign."""
    displace_input(bench.vesk)
    return [place for key in keys
            for secret in (key.secret, key.secret.hex().encode(), *kept_states(key.secret))
            for place in places_of(bench.vesk, secret)]


def declared(bench: Bench) -> Flow:
    flow = bench.flow(**four_random_keys())
    bench.declare(flow)
    return flow


def test_keys_of_declared_flows_are_in_no_core_file(bench: Bench) -> None:
    flow = declared(bench)
    for key in keys_of(flow):
        assert [place.dumped for place in found(bench, [key])] == [False]


def test_states_are_kept_once_for_each_key_in_use(bench: Bench) -> None:
    """The other tests would find no traces of states if they looked for the wrong bytes."""
    flow = declared(bench)
    states = [state for key in keys_of(flow) for state in kept_states(key.secret)]
    assert [places_of(bench.vesk, state) for state in states] == [[]] * 8
    bench.exchange(flow)
    assert [len(places_of(bench.vesk, state)) for state in states] == [1] * 8


def test_keys_are_wiped_when_their_flow_is_removed(bench: Bench) -> None:
    descriptors = bench.vesk.descriptor_count()
    flow = declared(bench)
    bench.exchange(flow)
    assert found(bench, keys_of(flow))
    assert bench.vesk.lines_after(f"del label {flow.label}") == []
    bench.vesk.wait_for_descriptor_count(descriptors)
    assert found(bench, keys_of(flow)) == []


def test_a_replaced_key_is_wiped(bench: Bench) -> None:
    descriptors = bench.vesk.descriptor_count()
    flow = declared(bench)
    bench.exchange(flow)
    before = keys_of(flow)
    for use, key in four_random_keys().items():
        setattr(flow, use, key)
    bench.declare(flow)
    bench.vesk.wait_for_descriptor_count(descriptors)
    assert found(bench, before) == []
    bench.exchange(flow)


@pytest.mark.parametrize("command", ["set", "del"])
def test_keys_of_a_refused_command_are_wiped(bench: Bench, command: str) -> None:
    flow = bench.flow(**four_random_keys())
    words = flow.set_command().split(" ", 1)[1]
    assert bench.vesk.lines_after(f"{command} {words} zzz 1") != []
    assert found(bench, keys_of(flow)) == []


def test_keys_of_auxiliary_flows_are_wiped_with_their_owner(bench: Bench) -> None:
    descriptors = bench.vesk.descriptor_count()
    owner = bench.flow(options={"up_aux_flow_label": 0x70000, "down_aux_flow_label_prefix": 9},
                       **four_random_keys())
    bench.declare(owner)
    auxiliary = bench.flow(0x90001, up_label=0x70001, down_label=owner.down_label,
                           **{use: getattr(owner, use) for use in USES})
    bench.exchange(auxiliary)
    assert bench.vesk.lines_after(f"del label {owner.label}") == []
    bench.vesk.wait_for_descriptor_count(descriptors)
    assert found(bench, keys_of(owner)) == []


def test_memory_of_removed_flows_is_reused(bench: Bench) -> None:
    def size() -> int:
        return sum(mapping.end - mapping.first for mapping in mappings(bench.vesk)
                   if not mapping.dumped)

    def declare_and_remove() -> None:
        labels = range(100, 1100)
        bench.vesk.lines_after(*(f"set label {label}" for label in labels),
                               *(f"del label {label}" for label in labels))

    before = size()
    declare_and_remove()
    grown = size()
    assert grown > before
    for _ in range(5):
        declare_and_remove()
    assert size() == grown
