"""The checks of joined files report the same findings as those of each file, with their places."""

from __future__ import annotations

import json
import subprocess
import sys
from pathlib import Path
from typing import Dict

import pytest

CHECKS = Path(__file__).resolve().parent

QUIET = "int doubled(int number) { return number * 2; }\n"
HEADER = "#pragma once\nint* const nothing = 0;\n"
INCLUDING = '#include "part.h"\n\nint first() { return 1; }\n'
# Found by the static analyzer only if the function is analysed for every argument.
DEREFERENCING = """namespace {
int text(const int* pointer) {
    if (pointer == nullptr) {
        return *pointer;
    }
    return 0;
}
}  // namespace
int second(const int& number) { return text(&number); }
"""
MOVED = """#include <string>
#include <utility>
std::string twice(std::string text) {
    std::string moved = std::move(text);
    return moved + text;
}
"""
UNREADABLE = """int sign(int number) {
    if (number < 0) {
        return -1;
    } else {
        return 1;
    }
}
"""
SAME_NAME = "namespace {\nint text(const int*) { return 3; }\n}  // namespace\nint third() { return text(nullptr); }\n"
UNLOCKED = """struct __attribute__((capability("mutex"))) Lock {};
Lock lock;
int guarded __attribute__((guarded_by(lock)));
int fourth() { return guarded; }
"""


@pytest.fixture
def root(tmp_path: Path) -> Path:
    (tmp_path / "src").mkdir()
    (tmp_path / "src/quiet.cpp").write_text(QUIET, encoding="utf-8")
    (tmp_path / ".clang-tidy").write_text(
        "Checks: '-*,clang-analyzer-core.*,clang-diagnostic-thread-safety-*,bugprone-use-after-move,"
        "modernize-use-nullptr,readability-else-after-return'\nWarningsAsErrors: '*'\n"
        "HeaderFilterRegex: 'src/.*'\n", encoding="utf-8")
    return tmp_path


def check(root: Path, name: str, files: Dict[str, str],
          *arguments: str) -> "subprocess.CompletedProcess[str]":
    for file, text in files.items():
        (root / "src" / file).write_text(text, encoding="utf-8")
    commands = [{"directory": str(root), "file": str(path),
                 "command": f"ccache c++ -I{root}/src -std=c++20 -Wall -o {path.name}.o -c {path}"}
                for path in (root / "src").rglob("*.cpp")]
    (root / "compile_commands.json").write_text(json.dumps(commands), encoding="utf-8")
    return subprocess.run([sys.executable, "-B", str(CHECKS / name), str(root), str(root), *arguments],
                          capture_output=True, text=True, check=False, timeout=120)


def tidy(root: Path, files: Dict[str, str]) -> "subprocess.CompletedProcess[str]":
    return check(root, "check_tidy.py", files, "src")


def test_quiet_files_pass(root: Path) -> None:
    done = tidy(root, {"including.cpp": "int first() { return 1; }\n"})
    assert (done.returncode, done.stdout, done.stderr) == (0, "clang-tidy is quiet\n", "")


def test_finding_in_a_header_is_reported_once(root: Path) -> None:
    done = tidy(root, {"part.h": HEADER, "a.cpp": INCLUDING, "b.cpp": INCLUDING.replace("first", "other")})
    assert done.returncode == 1
    assert done.stdout.count(f"{root}/src/part.h:2:22: error: use nullptr") == 1, done.stdout


def test_finding_in_a_source_file_has_its_place(root: Path) -> None:
    done = tidy(root, {"a.cpp": "int first() { return 1; }\n", "z.cpp": DEREFERENCING})
    assert done.returncode == 1
    assert f"{root}/src/z.cpp:4:16: error: Dereference of null pointer" in done.stdout


def test_files_that_cannot_be_joined_are_checked_separately(root: Path) -> None:
    done = tidy(root, {"y.cpp": SAME_NAME, "z.cpp": DEREFERENCING})
    assert done.returncode == 1
    assert f"{root}/src/z.cpp:4:16: error: Dereference of null pointer" in done.stdout
    assert "redefinition" not in done.stdout


def test_findings_of_each_kind_are_reported_with_their_places(root: Path) -> None:
    done = tidy(root, {"a.cpp": "int first() { return 1; }\n", "l.cpp": UNREADABLE, "m.cpp": MOVED,
                       "z.cpp": DEREFERENCING})
    assert done.returncode == 1
    assert f"{root}/src/l.cpp:4:7: error: do not use 'else' after 'return'" in done.stdout
    assert f"{root}/src/m.cpp:5:20: error: 'text' used after it was moved" in done.stdout
    assert f"{root}/src/z.cpp:4:16: error: Dereference of null pointer" in done.stdout


def test_program_is_joined_with_others(root: Path) -> None:
    (root / "src/part.h").write_text(HEADER, encoding="utf-8")
    program = '#include "part.h"\nint main() { return 0; }\n'
    done = tidy(root, {"a.cpp": program, "b.cpp": program})
    assert done.stdout.count("use nullptr") == 1, done.stdout


def test_only_the_file_that_uses_a_template_wrongly_is_separate(root: Path) -> None:
    (root / "src/part.h").write_text(
        HEADER + "template <typename A, typename B> auto sum(A a, B b) { return a + b; }\n", encoding="utf-8")
    done = tidy(root, {"a.cpp": INCLUDING, "b.cpp": INCLUDING.replace("first", "second"),
                       "c.cpp": '#include "part.h"\nnamespace {\nstruct Size {};\nSize size;\n}\n',
                       "z.cpp": '#include "part.h"\nnamespace {\nint size = 1;\n}\n'
                                "int third() { return sum(size, 1); }\n"})
    assert "invalid operands" not in done.stdout
    assert done.stdout.count("use nullptr") == 2, done.stdout


def test_folder_extends_the_settings(root: Path) -> None:
    (root / "src/part").mkdir()
    (root / "src/.clang-tidy").write_text(
        "InheritParentConfig: true\nChecks: '-readability-else-after-return'\n", encoding="utf-8")
    done = check(root, "check_tidy.py", {"part/l.cpp": UNREADABLE, "part/m.cpp": MOVED}, "src/part")
    assert done.returncode == 1
    assert "do not use 'else'" not in done.stdout
    assert f"{root}/src/part/m.cpp:5:20: error: 'text' used after it was moved" in done.stdout


def test_header_beside_a_source_file_is_found(root: Path) -> None:
    (root / "src/part").mkdir()
    (root / "src/part/beside.h").write_text(HEADER, encoding="utf-8")
    done = tidy(root, {"a.cpp": QUIET.replace("doubled", "first"), "part/b.cpp": '#include "beside.h"\n'})
    assert done.returncode == 1
    assert f"{root}/src/part/beside.h:2:22: error: use nullptr" in done.stdout


def test_file_that_does_not_compile_is_reported_beside_others(root: Path) -> None:
    done = tidy(root, {"a.cpp": "int first() { return unknown; }\n", "z.cpp": DEREFERENCING})
    assert done.returncode == 1
    assert f"{root}/src/a.cpp:1:22: error: use of undeclared identifier 'unknown'" in done.stdout
    assert f"{root}/src/z.cpp:4:16: error: Dereference of null pointer" in done.stdout


def test_file_compiled_in_a_batch_is_checked(root: Path) -> None:
    tidy(root, {"z.cpp": DEREFERENCING})
    batch = root / "tree/unity_0.cxx"
    batch.parent.mkdir()
    batch.write_text("".join(f'#include "{path}"\n' for path in (root / "src").glob("*.cpp")), encoding="utf-8")
    (root / "tree/compile_commands.json").write_text(json.dumps(
        [{"directory": str(root), "file": str(batch), "command": f"c++ -std=c++20 -o batch.o -c {batch}"}]),
        encoding="utf-8")
    done = subprocess.run(
        [sys.executable, "-B", str(CHECKS / "check_tidy.py"), str(root), str(root / "tree"), "src"],
        capture_output=True, text=True, check=False, timeout=120)
    assert done.returncode == 1
    assert f"{root}/src/z.cpp:4:16: error: Dereference of null pointer" in done.stdout


def test_file_that_is_not_compiled_is_reported(root: Path) -> None:
    tidy(root, {})
    (root / "src/new.cpp").write_text(QUIET, encoding="utf-8")
    done = subprocess.run([sys.executable, "-B", str(CHECKS / "check_tidy.py"), str(root), str(root), "src"],
                          capture_output=True, text=True, check=False, timeout=120)
    assert done.returncode == 1
    assert f"{root}/src/new.cpp: is compiled by no target" in done.stderr


def test_guarded_data_without_its_lock_fails(root: Path) -> None:
    done = tidy(root, {"z.cpp": UNLOCKED})
    assert done.returncode == 1
    assert f"{root}/src/z.cpp:4:23: error: reading variable 'guarded' requires holding" in done.stdout
