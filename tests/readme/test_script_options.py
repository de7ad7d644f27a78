"""Every script answers --help and unknown options at once."""

from __future__ import annotations

import os
import subprocess
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parent.parent.parent
SCRIPTS = [path.relative_to(ROOT) for path in sorted(
    [*(path for path in (ROOT / "scripts").iterdir() if os.access(path, os.X_OK)),
     ROOT / "packaging/build-packages",
     *(path for path in (ROOT / "packaging/cross").iterdir() if os.access(path, os.X_OK))])]

# The first programs that the scripts call for their work, which must not be called here.
WORKERS = ("cmake", "ctest", "apt-get", "dpkg-query", "sudo", "mmdebstrap", "mount", "minisign", "unshare")


@pytest.fixture
def workers(tmp_path: Path) -> Path:
    for name in WORKERS:
        program = tmp_path / name
        program.write_text(f"#!/bin/sh\ntouch '{tmp_path}/worked'\nexit 1\n", encoding="utf-8")
        program.chmod(0o755)
    return tmp_path


def run(workers: Path, script: Path, option: str) -> "subprocess.CompletedProcess[str]":
    environment = {**os.environ, "PATH": f"{workers}:{os.environ['PATH']}"}
    done = subprocess.run([str(script), option], cwd=ROOT, env=environment, capture_output=True,
                          text=True, check=False, timeout=60)
    assert not (workers / "worked").exists()
    return done


@pytest.mark.parametrize("script", SCRIPTS, ids=str)
def test_help_is_printed(workers: Path, script: Path) -> None:
    helped = run(workers, script, "--help")
    assert (helped.returncode, helped.stderr) == (0, "")
    assert script.name in helped.stdout, "the help text shows how to call it"
    assert not any(line.startswith(("#", "set -")) for line in helped.stdout.splitlines())


@pytest.mark.parametrize("script", SCRIPTS, ids=str)
def test_unknown_option_is_reported(workers: Path, script: Path) -> None:
    wrong = run(workers, script, "--nonsense")
    assert (wrong.returncode, wrong.stdout) == (2, "")
    assert "--nonsense" in wrong.stderr
