"""Fixtures of the packaging tests: the packages of this build tree, and a root with the packages."""

from __future__ import annotations

import os
from pathlib import Path
from typing import Callable, Dict, Iterator

import pytest

from debian import Root, build_packages, refusal_to_install

Packages = Dict[str, Path]


@pytest.fixture(scope="session")
def packages(tmp_path_factory: pytest.TempPathFactory) -> Packages:
    """The packages by name, made from the build tree."""
    return build_packages(tmp_path_factory.mktemp("packages"))


@pytest.fixture
def new_root(tmp_path: Path) -> Callable[[], Root]:
    """Makes empty roots for the installation of packages."""
    reason = refusal_to_install()
    if reason:
        pytest.skip(reason)
    made = iter(range(100))
    return lambda: Root(tmp_path / f"root-{next(made)}")


@pytest.fixture
def installed(new_root: Callable[[], Root], packages: Packages) -> Iterator[Root]:
    """A root with all packages installed."""
    root = new_root()
    root.install(*packages.values())
    yield root


def pytest_configure() -> None:
    # dpkg uses programs that are only in root's path.
    os.environ["PATH"] += ":/usr/local/sbin:/usr/sbin:/sbin"
