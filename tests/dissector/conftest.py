"""Fixtures of the dissector's tests: those of the functional tests, and tshark."""

from __future__ import annotations

import shutil
from pathlib import Path

import pytest

from tshark import Tshark

pytest_plugins = ["framework.fixtures"]


@pytest.fixture
def tshark(tmp_path: Path) -> Tshark:
    """Wireshark's command line program with the dissector loaded and without the user's settings."""
    program = shutil.which("tshark")
    if program is None:
        pytest.skip("tshark is not installed")
    return Tshark(program, tmp_path / "tshark")
