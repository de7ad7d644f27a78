"""scripts/demo reports its steps. Runs in a copy of the tree with replacements for all long steps."""

from __future__ import annotations

import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parent.parent.parent

# Acts as cmake with Ninja, which checks the tree before it builds and reports each step.
CMAKE = r"""
case "$*" in
--preset*) echo "-- Configuring done" ;;
--build*)
    echo "[0/2] Re-checking globbed directories..."
    for step in $(seq 88); do echo "[$step/88] Building"; done
    echo "remark of the compiler"
    ;;
esac
"""
UP_TO_DATE = 'echo "ninja: no work to do."'
BROKEN = """
case "$*" in
--build*) echo "[1/1] Building"; echo "FAILED: vesk"; exit 1 ;;
esac
"""


@pytest.fixture
def tree(tmp_path: Path) -> Path:
    scripts = tmp_path / "scripts"
    scripts.mkdir()
    for name in ("demo", "options.sh"):
        shutil.copy(ROOT / "scripts" / name, scripts)
    (scripts / "demo.py").write_text("print('the demonstration')\n", encoding="utf-8")
    add_program(scripts / "setup", "exit 0")
    add_program(tmp_path / "bin" / "cmake", CMAKE)
    return tmp_path


def add_program(path: Path, text: str) -> None:
    path.parent.mkdir(exist_ok=True)
    path.write_text(f"#!/bin/sh\n{text}\n", encoding="utf-8")
    path.chmod(0o755)


def demonstrate(tree: Path) -> "subprocess.CompletedProcess[str]":
    environment = {**os.environ, "PATH": f"{tree / 'bin'}:{os.environ['PATH']}"}
    return subprocess.run([str(tree / "scripts" / "demo")], env=environment, capture_output=True,
                          text=True, check=False, timeout=60)


def test_each_step_is_reported_with_its_time(tree: Path) -> None:
    done = demonstrate(tree)
    assert (done.returncode, done.stderr) == (0, "")
    steps = [line for line in done.stdout.splitlines() if line.startswith("Step ")]
    assert [step[:11] for step in steps] == [f"Step {number} of 4" for number in range(1, 5)]
    assert all(re.search(r"\b(second|minute)s?\b", step) for step in steps), steps
    assert done.stdout.splitlines()[-1] == "the demonstration"


def test_build_reports_its_progress_and_compiler_messages(tree: Path) -> None:
    lines = demonstrate(tree).stdout.splitlines()
    progress = [line for line in lines if re.fullmatch(r"  \d+ of 88 build steps done", line)]
    # If the output is not a terminal, there is one line for each tenth.
    assert 9 <= len(progress) <= 11
    assert progress[-1] == "  88 of 88 build steps done"
    assert "remark of the compiler" in lines
    assert not any(line.startswith("[") or "Configuring" in line for line in lines)


def test_terminal_has_one_line_of_progress(tree: Path) -> None:
    """It is rewritten for each step, and cleared before a message of the compiler."""
    environment = {**os.environ, "PATH": f"{tree / 'bin'}:{os.environ['PATH']}"}
    add_program(tree / "bin" / "cmake", """case "$*" in --build*)
        printf '[1/3] Building\\n[2/3] Building\\nremark\\n[3/3] Linking\\n' ;; esac""")
    done = subprocess.run(["script", "-qec", str(tree / "scripts" / "demo"), "/dev/null"],
                          env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          check=False, timeout=60)
    assert done.returncode == 0
    shown = done.stdout.decode().replace("\r\n", "\n").split("\nStep")[2].splitlines(keepends=True)
    assert "".join(shown[1:]) == ("\r  1 of 3 build steps done\r  2 of 3 build steps done\nremark\n"
                                  "\r  3 of 3 build steps done")


def test_a_tree_that_is_already_built_is_reported(tree: Path) -> None:
    add_program(tree / "bin" / "cmake", UP_TO_DATE)
    done = demonstrate(tree)
    assert done.returncode == 0
    assert "  everything is built already" in done.stdout.splitlines()


def test_failed_build_ends_the_script_with_the_reason(tree: Path) -> None:
    add_program(tree / "bin" / "cmake", BROKEN)
    done = demonstrate(tree)
    assert done.returncode != 0
    assert "FAILED: vesk" in done.stdout
    assert "the demonstration" not in done.stdout


def test_missing_packages_end_the_script_with_one_line_that_names_them(tree: Path) -> None:
    add_program(tree / "scripts" / "setup", 'echo "as root, run: apt-get install g++" >&2; exit 1')
    done = demonstrate(tree)
    assert done.returncode == 1
    assert done.stderr == "as root, run: apt-get install g++\n"
    assert "Step 2" not in done.stdout
