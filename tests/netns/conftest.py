"""Fixtures of the tests in network namespaces: those of the functional tests, and a network."""

from __future__ import annotations

from pathlib import Path
from typing import Iterator

import pytest

from network import Network, refusal

pytest_plugins = ["framework.fixtures"]


@pytest.fixture(scope="session")
def network() -> Iterator[Network]:
    """Three hosts on a bridge. Skips the test if the kernel does not allow them."""
    reason = refusal()
    if reason:
        pytest.skip(f"network namespaces are not allowed here: {reason}")
    with Network(hosts=3) as built:
        yield built
