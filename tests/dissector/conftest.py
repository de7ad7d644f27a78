"""Fixtures of the dissector's tests: those of the functional tests, and tshark."""

from __future__ import annotations

import importlib.util
import shutil
import sys
from pathlib import Path

import pytest

_FUNCTIONAL = Path(__file__).resolve().parent.parent / "functional"
sys.path.insert(0, str(_FUNCTIONAL))
sys.path.insert(0, str(Path(__file__).resolve().parent))

_description = importlib.util.spec_from_file_location("functional_conftest",
                                                      _FUNCTIONAL / "conftest.py")
assert _description is not None and _description.loader is not None
_functional = importlib.util.module_from_spec(_description)
_description.loader.exec_module(_functional)

StartVesk = _functional.StartVesk
pytest_configure = _functional.pytest_configure
pytest_runtest_makereport = _functional.pytest_runtest_makereport
time_limit = _functional.time_limit
start_vesk = _functional.start_vesk
vesk = _functional.vesk
new_end = _functional.new_end
peer = _functional.peer
upstream = _functional.upstream
either_bench = _functional.either_bench

from tshark import Tshark  # noqa: E402


@pytest.fixture
def tshark(tmp_path: Path) -> Tshark:
    """Wireshark's command line program with the dissector loaded and no settings of its user's."""
    program = shutil.which("tshark")
    if program is None:
        pytest.skip("tshark is not installed")
    return Tshark(program, tmp_path / "tshark")
