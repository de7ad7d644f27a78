"""The table of stages at the end of scripts/test: processor time and elapsed time of each."""

from __future__ import annotations

import os
import re
import select
from pathlib import Path
from typing import Dict, Tuple
from test_skipped_tests import WRITE_LOG, run_all_tests

HEADING = re.compile(r"Stage +Processor +Elapsed")
ROW = re.compile(r"  (\S.*?) +(\d+\.\d) s +(\d+\.\d) s")

# Uses processor time in a child process, as a compiler under the build tool does.
COMPUTE = """case "$*" in --build*asan*)
    sh -c 'i=0; while [ $i -lt 600000 ]; do i=$((i + 1)); done' ;;
esac"""


def table(output: str) -> Dict[str, Tuple[float, float]]:
    """Processor and elapsed seconds of each stage, in the table's order."""
    lines = output.splitlines()
    heading = next(i for i, line in enumerate(lines) if HEADING.fullmatch(line))
    rows = {}
    for line in lines[heading + 1:]:
        row = ROW.fullmatch(line)
        if not row:
            break
        rows[row[1]] = (float(row[2]), float(row[3]))
    return rows


def ends(process: int) -> bool:
    try:
        descriptor = os.pidfd_open(process)
    except ProcessLookupError:
        return True
    try:
        return bool(select.select([descriptor], [], [], 10)[0])
    finally:
        os.close(descriptor)


def test_every_stage_has_a_row(tmp_path: Path) -> None:
    done = run_all_tests(tmp_path, "exit 0")
    assert (done.returncode, done.stderr) == (0, "")
    assert list(table(done.stdout)) == ["setup", "release build", "sanitizer builds", "release tests",
                                        "asan tests", "tsan tests", "all"]


def test_processor_time_includes_the_children_of_the_stage(tmp_path: Path) -> None:
    rows = table(run_all_tests(tmp_path, "exit 0", COMPUTE).stdout)
    processor = {name: row[0] for name, row in rows.items()}
    assert processor["sanitizer builds"] >= 0.2, rows
    assert processor["all"] >= processor["sanitizer builds"]
    assert rows["sanitizer builds"][1] >= 0.2, rows
    others = set(processor) - {"sanitizer builds", "all"}
    assert all(processor[name] < processor["sanitizer builds"] for name in others), rows


def test_the_table_ends_with_a_failed_stage(tmp_path: Path) -> None:
    done = run_all_tests(tmp_path, WRITE_LOG + "exit 8")
    assert done.returncode == 8
    rows = list(table(done.stdout))
    # The build beside the tests may have been ended before it began.
    assert [row for row in rows if row != "sanitizer builds"] == ["setup", "release build", "release tests", "all"]


def test_a_failed_test_ends_the_build_beside_it(tmp_path: Path) -> None:
    # Neither would end without the failure.
    cmake = """case "$*" in --build*asan*) echo $$ >building; exec sleep 300 ;; esac"""
    done = run_all_tests(tmp_path, "until [ -s building ]; do sleep 0.01; done; exit 8", cmake)
    assert done.returncode == 8
    assert ends(int((tmp_path / "building").read_text(encoding="ascii")))


def test_a_build_that_fails_beside_tests_fails_the_run(tmp_path: Path) -> None:
    done = run_all_tests(tmp_path, "exit 0", """case "$*" in --build*asan*) exit 3 ;; esac""")
    assert done.returncode == 3
    assert list(table(done.stdout)) == ["setup", "release build", "sanitizer builds", "release tests", "all"]
