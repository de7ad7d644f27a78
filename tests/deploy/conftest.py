"""Fixtures of the tests of deploy/."""

from __future__ import annotations

import shutil
from pathlib import Path

import pytest

from fleet import EXAMPLE, KUBERNETES, Fleet, add_keys, base_as_written, kustomize_command, rendered

# Rendering needs a kustomize that Debian does not have; tests/deploy/run-long finds one.
_RENDERED = ["base", "example"] if kustomize_command() else []


@pytest.fixture(scope="session", params=["base as written", *_RENDERED])
def fleet(request: pytest.FixtureRequest, tmp_path_factory: pytest.TempPathFactory) -> Fleet:
    if request.param == "base as written":
        return base_as_written()
    copy = tmp_path_factory.mktemp("deploy") / "kubernetes"
    shutil.copytree(KUBERNETES, copy)
    example = copy / EXAMPLE.relative_to(KUBERNETES)
    add_keys(example)
    folder: Path = copy / "base" if request.param == "base" else example
    return rendered(kustomize_command(), request.param, folder)
