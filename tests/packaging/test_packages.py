"""The contents of the packages."""

from __future__ import annotations

import hashlib
import os
import re
import subprocess
from pathlib import Path
from typing import Dict

import pytest

from conftest import Packages
from debian import build_packages, contents, field, run

_FILE = "-rw-r--r--"
_PROGRAM = "-rwxr-xr-x"
_LINK = "lrwxrwxrwx"

_MULTIARCH = run("dpkg-architecture", "--query", "DEB_HOST_MULTIARCH").strip()

# Every installed file with its mode. A missing or additional file is a defect.
_FILES: Dict[str, Dict[str, str]] = {
    "vesk": {
        "/etc/sysctl.d/20-vesk.conf": _FILE,
        "/usr/bin/vesk": _PROGRAM,
        "/usr/share/doc/vesk/changelog.Debian.gz": _FILE,
        "/usr/share/doc/vesk/control.md": _FILE,
        "/usr/share/doc/vesk/counters.md": _FILE,
        "/usr/share/doc/vesk/messages.md": _FILE,
        "/usr/share/doc/vesk/sizing.md": _FILE,
        "/usr/share/doc/vesk/threats.md": _FILE,
        "/usr/share/doc/vesk/copyright": _FILE,
        "/usr/share/doc/vesk/performance.md": _FILE,
        "/usr/share/doc/vesk/wire-format.md": _FILE,
        "/usr/share/man/man7/vesk-control.7.gz": _FILE,
        "/usr/share/man/man8/vesk.8.gz": _FILE,
    },
    "vesk-controller": {
        "/etc/vesk/example.toml": _FILE,
        "/usr/bin/vesk-controller": _PROGRAM,
        "/usr/share/bash-completion/completions/vesk-controller": _FILE,
        "/usr/lib/systemd/system/vesk-controller@.service": _FILE,
        "/usr/share/vesk/systemd/folder.conf": _FILE,
        "/usr/share/vesk/systemd/steering.conf": _FILE,
        "/usr/share/doc/vesk-controller/changelog.Debian.gz": _FILE,
        "/usr/share/doc/vesk-controller/copyright": _FILE,
        "/usr/share/doc/vesk/controller.md": _FILE,
        "/usr/share/doc/vesk/fleet.md": _FILE,
        "/usr/share/doc/vesk/instances.md": _FILE,
        "/usr/share/doc/vesk/metrics.md": _FILE,
        "/usr/share/doc/vesk/mistakes.md": _FILE,
        "/usr/share/doc/vesk/operating.md": _FILE,
        "/usr/share/man/man5/vesk-controller.toml.5.gz": _FILE,
        "/usr/share/man/man8/vesk-controller.8.gz": _FILE,
        "/usr/share/vesk/grafana/vesk.json": _FILE,
        "/usr/share/vesk/prometheus/vesk.rules.yml": _FILE,
    },
    "vesk-tools": {
        "/usr/bin/vesk-traffic": _PROGRAM,
        "/usr/share/bash-completion/completions/vesk-traffic": _FILE,
        "/usr/share/doc/vesk-tools/changelog.Debian.gz": _FILE,
        "/usr/share/doc/vesk-tools/copyright": _FILE,
        "/usr/share/doc/vesk/capture.md": _FILE,
        "/usr/share/man/man1/vesk-traffic.1.gz": _FILE,
    } | {f"/usr/lib/{_MULTIARCH}/wireshark/plugins/vesk/{path.name}": _FILE
         for path in (Path(__file__).parents[2] / "dissector").glob("*.lua")},
    "libvesk-framing1": {
        f"/usr/lib/{_MULTIARCH}/libvesk-framing.so.1": _LINK,
        f"/usr/lib/{_MULTIARCH}/libvesk-framing.so.1.0.0": _FILE,
        "/usr/share/doc/libvesk-framing1/changelog.Debian.gz": _FILE,
        "/usr/share/doc/libvesk-framing1/copyright": _FILE,
    },
    "libvesk-framing-dev": {
        "/usr/include/vesk_framing.h": _FILE,
        "/usr/include/vesk_framing.hpp": _FILE,
        f"/usr/lib/{_MULTIARCH}/cmake/vesk-framing/vesk-framing-config-version.cmake": _FILE,
        f"/usr/lib/{_MULTIARCH}/cmake/vesk-framing/vesk-framing-config.cmake": _FILE,
        f"/usr/lib/{_MULTIARCH}/cmake/vesk-framing/vesk-framing-targets-relwithdebinfo.cmake": _FILE,
        f"/usr/lib/{_MULTIARCH}/cmake/vesk-framing/vesk-framing-targets.cmake": _FILE,
        f"/usr/lib/{_MULTIARCH}/libvesk-framing.so": _LINK,
        f"/usr/lib/{_MULTIARCH}/pkgconfig/vesk-framing.pc": _FILE,
        "/usr/share/doc/libvesk-framing-dev/changelog.Debian.gz": _FILE,
        "/usr/share/doc/libvesk-framing-dev/copyright": _FILE,
        "/usr/share/doc/vesk/framing.md": _FILE,
        "/usr/share/doc/vesk/vectors.md": _FILE,
        "/usr/share/man/man3/vesk-framing.3.gz": _FILE,
    } | {f"/usr/share/vesk/vectors/{path.name}": _FILE
         for path in (Path(__file__).parents[2] / "vectors").glob("*.json")},
}

_CONFIGURATION = {
    "vesk": ["/etc/sysctl.d/20-vesk.conf"],
    "vesk-controller": ["/etc/vesk/example.toml"],
    "vesk-tools": [],
    "libvesk-framing1": [],
    "libvesk-framing-dev": [],
}

_NAMES = sorted(_FILES)
# Those with a program or a library.
_COMPILED = sorted(set(_NAMES) - {"libvesk-framing-dev"})


def test_there_is_a_package_for_each_component(packages: Packages) -> None:
    assert sorted(packages) == _NAMES


@pytest.mark.parametrize("name", _NAMES)
def test_package_installs_its_files_and_no_others(packages: Packages, name: str) -> None:
    entries = contents(packages[name])
    files = {path: entry.mode for path, entry in entries.items() if not entry.mode.startswith("d")}
    assert files == _FILES[name]
    folders = {entry.mode for entry in entries.values() if entry.mode.startswith("d")}
    assert folders == {"drwxr-xr-x"}
    assert {entry.owner for entry in entries.values()} == {"root/root"}


@pytest.mark.parametrize("name", _NAMES)
def test_files_that_an_operator_edits_are_kept_on_upgrade(packages: Packages, name: str,
                                                          tmp_path: Path) -> None:
    run("dpkg-deb", "--control", packages[name], tmp_path)
    listed = tmp_path / "conffiles"
    assert (listed.read_text().split() if listed.exists() else []) == _CONFIGURATION[name]


@pytest.mark.parametrize("name", _NAMES)
def test_package_describes_itself(packages: Packages, name: str) -> None:
    package = packages[name]
    assert field(package, "Maintainer") == "Vesk developers <vesk@example.org>"
    assert field(package, "Priority") == "optional"
    assert field(package, "Section") in ("net", "admin", "libs", "libdevel")
    assert len(field(package, "Description").splitlines()) > 3
    # Shared libraries are detected automatically.
    assert ("libc6 (>=" in field(package, "Depends")) == (name in _COMPILED)
    changelog = Path(__file__).parents[2] / "packaging/debian/changelog"
    newest = re.match(r"vesk \((\S+)\)", changelog.read_text())
    assert newest is not None and field(package, "Version") == newest[1]


def test_controller_depends_on_the_forwarder_of_its_version(packages: Packages) -> None:
    version = field(packages["vesk"], "Version")
    assert f"vesk (= {version})" in field(packages["vesk-controller"], "Depends").split(", ")


def test_controller_depends_on_one_http_server(packages: Packages) -> None:
    depends = field(packages["vesk-controller"], "Depends")
    assert "libmicrohttpd12 (>=" in depends
    assert "libnftables1 (>=" in depends
    assert "libc-ares2 (>=" in depends
    assert "libprometheus-cpp-core" in depends
    assert "libprometheus-cpp-pull" not in depends and "libcivetweb" not in depends


def test_framing_library_depends_on_libcrypto_and_the_language_only(packages: Packages) -> None:
    depends = {word.split(" ")[0] for word in field(packages["libvesk-framing1"], "Depends").split(", ")}
    assert depends == {"libc6", "libgcc-s1", "libssl3", "libstdc++6"}


def test_development_files_are_those_of_the_library(packages: Packages) -> None:
    version = field(packages["libvesk-framing1"], "Version")
    assert field(packages["libvesk-framing-dev"], "Depends") == f"libvesk-framing1 (= {version})"


def test_development_files_name_the_installed_folders(packages: Packages, tmp_path: Path) -> None:
    run("dpkg-deb", "--extract", packages["libvesk-framing-dev"], tmp_path)
    (description,) = tmp_path.rglob("vesk-framing.pc")
    assert f"prefix=/usr\nlibdir=${{prefix}}/lib/{_MULTIARCH}\n" in description.read_text()


@pytest.mark.parametrize("name", _COMPILED)
def test_programs_are_stripped(packages: Packages, name: str, tmp_path: Path) -> None:
    run("dpkg-deb", "--extract", packages[name], tmp_path)
    programs = [path for path in tmp_path.rglob("*")
                if path.parent.name == "bin" or ".so." in path.name and not path.is_symlink()]
    assert programs
    for program in programs:
        sections = run("readelf", "--wide", "--section-headers", program)
        assert ".text" in sections and ".symtab" not in sections and ".debug" not in sections


def test_symbols_are_in_separate_files(packages: Packages) -> None:
    folder = packages["vesk"].parent
    assert {path.name.split("_")[0] for path in folder.glob("*.ddeb")} == {
        f"{name}-dbgsym" for name in _COMPILED}


def test_lintian_reports_nothing(packages: Packages) -> None:
    result = subprocess.run(
        ["lintian", "--allow-root", "--no-cfg", "--fail-on", "error,warning",
         "--suppress-tags", _SUPPRESSED, *map(str, packages.values())],
        text=True, timeout=300, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
    assert result.returncode == 0, result.stdout


# initial-upload-closes-no-bugs: these packages are not made for Debian's archive.
_SUPPRESSED = "initial-upload-closes-no-bugs"


def test_shipped_packages_are_compressed_with_xz() -> None:
    settings = Path(os.environ["VESK_CPACK_CONFIG"]).read_text(encoding="utf-8")
    assert 'set(CPACK_DEBIAN_COMPRESSION_TYPE "xz")' in settings


def test_same_tree_makes_the_same_bytes(packages: Packages, tmp_path: Path) -> None:
    again = build_packages(tmp_path)
    assert _digests(again) == _digests(packages)


def _digests(packages: Packages) -> Dict[str, str]:
    return {name: hashlib.sha256(path.read_bytes()).hexdigest() for name, path in packages.items()}
