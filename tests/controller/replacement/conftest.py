"""Fixtures of the tests of this folder."""

from __future__ import annotations

import subprocess
from pathlib import Path
from typing import Iterator, List

import pytest

from descriptor_store import DescriptorStore
from generator import Generator
from network import refusal

pytest_plugins = ["framework.fixtures", "controller_fixtures"]

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
        def __init__(self, *arguments: object) -> None:
            super().__init__(*arguments)  # type: ignore[arg-type]
            started.append(self)

    yield Started
    for generator in started:
        generator.end()


@pytest.fixture
def store(tmp_path: Path) -> Iterator[DescriptorStore]:
    """A service manager, which lets go of its descriptors at the end."""
    made = DescriptorStore(tmp_path)
    yield made
    made.close()
