"""The list of skipped tests, with their reasons, at the end of scripts/test."""

from __future__ import annotations

import os
import shutil
import subprocess
import sys
from pathlib import Path
from typing import Dict

ROOT = Path(__file__).resolve().parent.parent.parent

# A log as CTest writes it, with a test that was run twice.
CTEST_LOG = """Start testing: Nov 22 08:20 UTC
----------------------------------------------------------
1/3 Testing: functional.faults
1/3 Test: functional.faults
Command: "python3"
Output:
----------------------------------------------------------
ss.                                                                      [100%]
=========================== short test summary info ============================
SKIPPED [2] framework/faults.py:30: strace is not installed
SKIPPED [1] test_faults.py:9: no second processor
SKIPPED [1] framework/faults.py:35: strace is not installed
1 passed, 4 skipped in 0.5s
<end of output>
Test Passed.
2/3 Testing: unit/app/CoreDumps
2/3 Test: unit/app/CoreDumps
Output:
----------------------------------------------------------
[ RUN      ] CoreDumps.AreOff
[       OK ] CoreDumps.AreOff (0 ms)
[ RUN      ] CoreDumps.AreUnlimited
/tree/core_dumps_test.cpp:40: Skipped
this process may not raise its core file limit

[  SKIPPED ] CoreDumps.AreUnlimited (0 ms)
<end of output>
3/3 Testing: functional.faults
Output:
----------------------------------------------------------
SKIPPED [2] framework/faults.py:30: strace is not installed
SKIPPED [1] test_faults.py:9: no second processor
<end of output>
"""
LISTED = """Skipped tests:
  release: functional.faults: strace is not installed (3 tests)
  release: functional.faults: no second processor
  release: unit/app/CoreDumps.AreUnlimited: this process may not raise its core file limit
"""


def add_program(path: Path, text: str) -> None:
    path.parent.mkdir(exist_ok=True)
    path.write_text(f"#!/bin/sh\n{text}\n", encoding="utf-8")
    path.chmod(0o755)


def list_skipped(folder: Path, logs: Dict[str, str]) -> "subprocess.CompletedProcess[str]":
    arguments = []
    for preset, text in logs.items():
        path = folder / f"{preset}.log"
        path.write_text(text, encoding="utf-8")
        arguments.append(f"{preset}={path}")
    return subprocess.run([sys.executable, "-B", str(ROOT / "tests/list_skipped.py"), *arguments],
                          capture_output=True, text=True, check=False, timeout=60)


def test_every_skipped_test_is_listed_once_with_its_reason(tmp_path: Path) -> None:
    done = list_skipped(tmp_path, {"release": CTEST_LOG})
    assert (done.returncode, done.stderr, done.stdout) == (0, "", LISTED)


def test_a_run_without_skipped_tests_is_reported(tmp_path: Path) -> None:
    done = list_skipped(tmp_path, {"release": "1/1 Testing: unit/a\nTest Passed.\n"})
    assert (done.returncode, done.stdout) == (0, "Skipped tests: none\n")


def test_a_preset_without_a_log_is_reported(tmp_path: Path) -> None:
    done = subprocess.run([sys.executable, "-B", str(ROOT / "tests/list_skipped.py"),
                           f"tsan={tmp_path / 'none'}"], capture_output=True, text=True, check=False,
                          timeout=60)
    assert (done.returncode, done.stdout) == (0, "Skipped tests: none\n  tsan: no test was run\n")


def run_all_tests(tree: Path, ctest: str,
                  cmake: str = "exit 0") -> "subprocess.CompletedProcess[str]":
    """scripts/test in a copy of the tree, with replacements for all long steps."""
    (tree / "scripts").mkdir()
    (tree / "tests").mkdir()
    for name in ("test", "options.sh", "stages.sh"):
        shutil.copy(ROOT / "scripts" / name, tree / "scripts")
    shutil.copy(ROOT / "tests/list_skipped.py", tree / "tests")
    add_program(tree / "scripts/setup", "exit 0")
    add_program(tree / "bin/cmake", cmake)
    # At the lowest priority a build would wait for other work of this host, for minutes if there is much.
    add_program(tree / "bin/renice", "exit 0")
    (tree / "given.log").write_text(CTEST_LOG, encoding="utf-8")
    add_program(tree / "bin/ctest", ctest)
    # The log of an earlier run must not be reported for this one.
    old = tree / "build/tsan/Testing/Temporary"
    old.mkdir(parents=True)
    (old / "LastTest.log").write_text(CTEST_LOG, encoding="utf-8")
    return subprocess.run([str(tree / "scripts/test")], capture_output=True, text=True, check=False,
                          env={**os.environ, "PATH": f"{tree / 'bin'}:{os.environ['PATH']}"},
                          timeout=60)


WRITE_LOG = """folder=build/$2/Testing/Temporary
mkdir -p "$folder"
"""


def test_the_list_is_the_end_of_the_output(tmp_path: Path) -> None:
    done = run_all_tests(tmp_path, WRITE_LOG + "[ $2 != release ] || cp given.log $folder/LastTest.log")
    assert done.returncode == 0, done.stderr
    assert done.stdout.endswith(LISTED + "  asan: no test was run\n  tsan: no test was run\n")


def test_the_list_is_printed_after_a_failure_too(tmp_path: Path) -> None:
    done = run_all_tests(tmp_path, WRITE_LOG + "cp given.log $folder/LastTest.log; exit 8")
    assert done.returncode == 8
    assert done.stdout.endswith(LISTED)
