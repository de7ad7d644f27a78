"""Fixtures of the tests of this folder."""

from __future__ import annotations

from pathlib import Path
from typing import Iterator

import pytest

from descriptor_store import DescriptorStore

pytest_plugins = ["framework.fixtures", "controller_fixtures", "traffic_fixtures"]


@pytest.fixture
def store(tmp_path: Path) -> Iterator[DescriptorStore]:
    """A service manager, which lets go of its descriptors at the end."""
    made = DescriptorStore(tmp_path)
    yield made
    made.close()
