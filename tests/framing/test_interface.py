"""The binary interface of the library: its name, its functions, and that it stays compatible."""

from __future__ import annotations

import os
import re
import shutil
import subprocess
from pathlib import Path
from typing import List, Set

import pytest

from programs import ROOT, run

_LIBRARY = Path(os.environ["VESK_FRAMING"])
_HEADER = ROOT / "framing/vesk_framing.h"
_DESCRIPTION = ROOT / "tests/framing/libvesk-framing.abi"
_SYMBOLS = ROOT / "packaging/debian/libvesk-framing1/symbols"


def declared() -> Set[str]:
    """The functions that the header declares."""
    text = re.sub(r"(?s)/\*.*?\*/", "", _HEADER.read_text())
    return set(re.findall(r"\b(vesk_framing_\w+)\(", text))


def exported() -> Set[str]:
    """The symbols with their versions, without the version node itself."""
    lines = run("nm", "--dynamic", "--defined-only", "--with-symbol-versions", _LIBRARY).splitlines()
    return {name for name in (line.split()[-1] for line in lines) if name != "VESK_FRAMING_1.0"}


def dynamic(kind: str) -> List[str]:
    found = run("readelf", "--wide", "--dynamic", _LIBRARY)
    return re.findall(rf"\({kind}\).*\[(.*)\]", found)


def test_library_has_its_name() -> None:
    assert dynamic("SONAME") == ["libvesk-framing.so.1"]


def test_library_needs_libcrypto_and_the_language_only() -> None:
    assert {name.split(".so")[0] for name in dynamic("NEEDED")} <= {"libcrypto", "libstdc++", "libgcc_s", "libc",
                                                                   "libm"}


def test_library_exports_the_functions_of_the_header_only() -> None:
    assert len(declared()) == 11
    assert exported() == {f"{name}@@VESK_FRAMING_1.0" for name in declared()}


def test_library_neither_prints_nor_ends_the_program() -> None:
    needed = run("nm", "--dynamic", "--undefined-only", _LIBRARY)
    # libstdc++ reports a failed precondition by __glibcxx_assert_fail, which ends the program.
    assert not re.findall(r"\b(?:printf|puts|fwrite|write|exit|_exit|abort)(?:@|$)", needed, re.MULTILINE)


def test_symbols_file_of_the_package_lists_each_function() -> None:
    first, *lines = _SYMBOLS.read_text().splitlines()
    assert first == "libvesk-framing.so.1 libvesk-framing1"
    assert {line.split()[0] for line in lines} == {
        "VESK_FRAMING_1.0@VESK_FRAMING_1.0", *(f"{name}@VESK_FRAMING_1.0" for name in declared())}


def compared(description: Path) -> "subprocess.CompletedProcess[str]":
    return subprocess.run(["abidiff", "--no-architecture", str(description), str(_LIBRARY)], text=True, timeout=60,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)


_NEEDS_ABIDIFF = pytest.mark.skipif(shutil.which("abidiff") is None, reason="abigail-tools is not installed")


@_NEEDS_ABIDIFF
def test_binary_interface_is_the_described_one() -> None:
    done = compared(_DESCRIPTION)
    assert done.returncode == 0, done.stdout


@_NEEDS_ABIDIFF
@pytest.mark.parametrize("before, after", [
    ("vesk_framing_relabel", "vesk_framing_rename"),
    ("<enumerator name='VESK_FRAMING_NO_ROOM' value='7'/>", "<enumerator name='VESK_FRAMING_NO_ROOM' value='77'/>"),
    ("layout-offset-in-bits='32'", "layout-offset-in-bits='64'"),
    ("name='vesk_framing_content' size-in-bits='320'", "name='vesk_framing_content' size-in-bits='256'"),
])
def test_another_interface_is_noticed(before: str, after: str, tmp_path: Path) -> None:
    text = _DESCRIPTION.read_text()
    assert before in text
    changed = tmp_path / "changed.abi"
    changed.write_text(text.replace(before, after))
    assert compared(changed).returncode != 0
