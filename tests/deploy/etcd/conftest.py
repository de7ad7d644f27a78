"""Fixtures of the test of deploy/etcd: three servers of etcd in a network of their own."""

from __future__ import annotations

import os
from pathlib import Path
from typing import Iterator

import pytest

from cluster import Cluster, Follower
from framework import own_network


def pytest_configure() -> None:
    own_network.require()


@pytest.fixture(scope="session")
def programs() -> Path:
    """The folder with etcd and etcdctl."""
    return Path(os.environ["VESK_ETCD_PROGRAMS"])


@pytest.fixture
def cluster(programs: Path, tmp_path: Path) -> Iterator[Cluster]:
    with Cluster(programs, tmp_path) as made:
        yield made


@pytest.fixture
def follower(cluster: Cluster, tmp_path: Path) -> Iterator[Follower]:
    """The script, not yet started, and its folder."""
    with Follower(cluster, tmp_path / "conf.d") as made:
        yield made
