"""Fixtures of the tests in network namespaces: those of the functional tests, and a network."""

from __future__ import annotations

import importlib.util
import sys
from pathlib import Path
from typing import Iterator

import pytest

_FUNCTIONAL = Path(__file__).resolve().parent.parent / "functional"
sys.path.insert(0, str(_FUNCTIONAL))
sys.path.insert(0, str(Path(__file__).resolve().parent))

_description = importlib.util.spec_from_file_location("functional_conftest",
                                                      _FUNCTIONAL / "conftest.py")
assert _description is not None and _description.loader is not None
_functional = importlib.util.module_from_spec(_description)
_description.loader.exec_module(_functional)

pytest_configure = _functional.pytest_configure
pytest_runtest_makereport = _functional.pytest_runtest_makereport
time_limit = _functional.time_limit
start_vesk = _functional.start_vesk

from network import Network, refusal  # noqa: E402


@pytest.fixture(scope="session")
def network() -> Iterator[Network]:
    """Three hosts on a bridge; skipped where the kernel does not let us build them."""
    reason = refusal()
    if reason:
        pytest.skip(f"network namespaces are not allowed here: {reason}")
    with Network(hosts=3) as built:
        yield built
