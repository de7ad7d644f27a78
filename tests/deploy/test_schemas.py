"""What kustomize makes fits the schemas of Kubernetes and of the Prometheus operator, and the job for Nomad is HCL.

Needs packages of the npm registry, which tests/deploy/run-long installs. VESK_DEPLOY_SCHEMAS is their folder.
"""

from __future__ import annotations

import json
import os
import subprocess
from typing import Any, Callable, List

import pytest

from fleet import ROOT, Fleet, Object, base_as_written

_FOLDER = os.environ.get("VESK_DEPLOY_SCHEMAS", "")

pytestmark = pytest.mark.skipif(not _FOLDER, reason="the schemas are not installed: tests/deploy/run-long does")


def _node(script: str, text: str) -> "subprocess.CompletedProcess[str]":
    return subprocess.run(["node", script], cwd=_FOLDER, input=text, text=True, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, timeout=300, check=False)


def _mistakes(objects: List[Object]) -> str:
    done = _node("validate.mjs", json.dumps(objects))
    assert (done.returncode == 0) == (done.stdout == ""), done.stderr
    return done.stdout


def test_every_object_fits_its_schema(fleet: Fleet) -> None:
    assert _mistakes(fleet.objects) == ""


def _misspell(spec: Any) -> None:
    spec["podManagmentPolicy"] = spec.pop("podManagementPolicy")


def _use_text(spec: Any) -> None:
    spec["replicas"] = str(spec["replicas"])


def _forget(spec: Any) -> None:
    del spec["selector"]


@pytest.mark.parametrize(("mistake", "reported"), [
    (_misspell, "podManagmentPolicy"), (_use_text, "data/spec/replicas must be integer"),
    (_forget, "data/spec must have required property selector")])
def test_a_mistake_is_reported(mistake: Callable[[Any], None], reported: str) -> None:
    (changed,) = base_as_written().of_kind("StatefulSet")
    mistake(changed["spec"])
    assert reported in _mistakes([changed])


def test_the_job_for_nomad_is_hcl() -> None:
    text = (ROOT / "deploy/nomad/vesk.nomad.hcl").read_text()
    assert _node("hcl.mjs", text).returncode == 0
    assert "closing brace" in _node("hcl.mjs", text.rstrip().removesuffix("}")).stderr
