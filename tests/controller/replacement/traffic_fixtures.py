"""Fixtures of tests that send with vesk-traffic through rules of the packet filter."""

from __future__ import annotations

import subprocess
from typing import Iterator, List

import pytest

from generator import Generator
from network import refusal

_PROBE = ("table inet probe { chain probe { type filter hook prerouting priority raw; "
          "fib daddr type local udp dport 1 notrack udp dport set 2; }; }")


@pytest.fixture(autouse=True, scope="session")
def packet_filter() -> None:
    """Skips the tests where the kernel does not allow a packet filter in a network namespace."""
    reason = refusal()
    if not reason:
        attempt = subprocess.run(["unshare", "--net", "nft", "-c", _PROBE], capture_output=True,
                                 text=True, check=False)
        reason = attempt.stderr.strip().split("\n")[0]
    if reason:
        pytest.skip(f"no packet filter in a network namespace here: {reason}")


@pytest.fixture
def start_generator() -> Iterator["type[Generator]"]:
    """Starts generators, which are ended with the test."""
    started: List[Generator] = []

    class Started(Generator):
        def __init__(self, *arguments: object, **details: object) -> None:
            super().__init__(*arguments, **details)  # type: ignore[arg-type]
            started.append(self)

    yield Started
    for generator in started:
        generator.end()
