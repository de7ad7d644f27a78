"""Programs in C and C++ are built with the installed library, by pkg-config and by CMake, and run."""

from __future__ import annotations

import os
import re
from pathlib import Path
from typing import List

import pytest

from framework.framing import UDPV1, UDPV2, Key
from programs import ROOT, run

_CONSUMER = ROOT / "tests/framing/consumer"
_STRICT = ["-Wall", "-Wextra", "-Wpedantic", "-Wconversion", "-Werror"]


class Installed:
    """The two components in a folder of the test."""

    def __init__(self, prefix: Path) -> None:
        self.prefix = prefix
        for component in ("framing", "framing_dev"):
            run(os.environ["VESK_CMAKE"], "--install", os.environ["VESK_BUILD"], "--prefix", prefix,
                "--component", component)
        (description,) = prefix.glob("lib/**/vesk-framing.pc")
        self.libraries = description.parents[1]

    def flags(self, *options: str) -> List[str]:
        return run("pkg-config", *options, "vesk-framing", PKG_CONFIG_PATH=self.libraries / "pkgconfig").split()

    def run(self, program: Path, *words: str) -> List[str]:
        return run(program, *words, LD_LIBRARY_PATH=self.libraries).splitlines()


@pytest.fixture(scope="module")
def installed(tmp_path_factory: pytest.TempPathFactory) -> Installed:
    return Installed(tmp_path_factory.mktemp("prefix"))


def c_output(payload: bytes) -> List[str]:
    made = [UDPV1.build(0x10001, payload, Key(b"first key", "sha1"), b"more"),
            UDPV1.build(0x10002, payload, Key(b"second key"), b"more")]
    return [datagram.hex() for datagram in made]


def cpp_output(payload: bytes) -> List[str]:
    return [UDPV2.build(0x10001, payload, Key(b"first key")).hex()]


def test_program_in_c_is_built_by_pkg_config(installed: Installed, tmp_path: Path) -> None:
    flags = installed.flags("--cflags", "--libs")
    run("cc", "-std=c99", *_STRICT, "-o", tmp_path / "peer", _CONSUMER / "peer.c", *flags)
    assert installed.run(tmp_path / "peer", "hello") == c_output(b"hello")


def test_program_in_cpp_is_built_by_pkg_config(installed: Installed, tmp_path: Path) -> None:
    flags = installed.flags("--cflags", "--libs")
    run("c++", "-std=c++20", *_STRICT, "-o", tmp_path / "peer", _CONSUMER / "peer.cpp", *flags)
    assert installed.run(tmp_path / "peer", "hello") == cpp_output(b"hello")


def test_pkg_config_knows_the_version(installed: Installed) -> None:
    text = (ROOT / "CMakeLists.txt").read_text()
    version = re.search(r"project\(vesk VERSION (\S+)", text)
    assert version is not None and installed.flags("--modversion") == [version[1]]


def test_programs_are_built_by_cmake(installed: Installed, tmp_path: Path) -> None:
    cmake = os.environ["VESK_CMAKE"]
    run(cmake, "-S", _CONSUMER, "-B", tmp_path, "-G", "Ninja", f"-DCMAKE_PREFIX_PATH={installed.prefix}")
    run(cmake, "--build", tmp_path)
    assert installed.run(tmp_path / "c_peer", "hello") == c_output(b"hello")
    assert installed.run(tmp_path / "cpp_peer", "hello") == cpp_output(b"hello")


def test_example_of_the_manual_page_works(installed: Installed, tmp_path: Path) -> None:
    page = (ROOT / "man/vesk-framing.3.scd").read_text()
    (code,) = re.findall(r"(?ms)^```\n(.*?)^```$", page)
    (tmp_path / "example.c").write_text(code.replace("\\\\", "\\"))
    flags = installed.flags("--cflags", "--libs")
    run("cc", *_STRICT, "-o", tmp_path / "example", tmp_path / "example.c", *flags)
    expected = UDPV2.build(0x10001, b"hello", Key(bytes(range(16)))).hex()
    assert installed.run(tmp_path / "example") == [f"{expected} success"]


_INCLUDES = """#include <sys/socket.h>

#include <array>
#include <cstdio>
#include <span>
"""


def test_example_of_the_page_compiles(installed: Installed, tmp_path: Path) -> None:
    page = (ROOT / "docs/framing.md").read_text()
    (code,) = re.findall(r"(?ms)^```cpp\n(.*?)^```$", page)
    (tmp_path / "example.cpp").write_text(_INCLUDES + code)
    run("c++", "-std=c++20", *_STRICT, "-fsyntax-only", *installed.flags("--cflags"), tmp_path / "example.cpp")


def test_vectors_are_installed(installed: Installed) -> None:
    names = {path.name for path in (installed.prefix / "share/vesk/vectors").iterdir()}
    assert names == {path.name for path in (ROOT / "vectors").glob("*.json")}
