"""Fixtures of the tests of a release. scripts/test-release makes one and names its folder in VESK_RELEASE.
They have a network of their own, so nothing here can build an image."""

from __future__ import annotations

import os
from pathlib import Path
from typing import Iterator

import pytest

from container import Container, ImageArchive
from framework import own_network


def pytest_configure() -> None:
    own_network.require()


@pytest.fixture(scope="session")
def release() -> Path:
    return Path(os.environ["VESK_RELEASE"])


@pytest.fixture(scope="session", params=["amd64", "arm64"])
def image(request: pytest.FixtureRequest, release: Path) -> ImageArchive:
    return ImageArchive(find_image(release, request.param))


@pytest.fixture
def container(release: Path, tmp_path: Path) -> Iterator[Container]:
    """A container of this host's architecture, not yet started."""
    made = Container(find_image(release, "amd64"), tmp_path)
    yield made
    made.close()


def find_image(release: Path, arch: str) -> Path:
    (found,) = release.glob(f"vesk-controller_*_{arch}.oci.tar")
    return found
