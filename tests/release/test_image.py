"""What is in the images, and that the same packages and the same commit make the same image."""

from __future__ import annotations

import os
import re
import subprocess
from pathlib import Path

from container import ImageArchive

_ROOT = Path(__file__).resolve().parents[2]

# Machine numbers of ELF.
_MACHINES = {"amd64": 62, "arm64": 183}

# Every file except those whose names contain versions; a missing or additional one is a defect.
_FILES = {"etc/group", "etc/nsswitch.conf", "etc/os-release", "etc/passwd", "etc/ssl/certs/ca-certificates.crt",
          "usr/bin/vesk", "usr/bin/vesk-controller", "usr/lib/os-release"}
_PATTERNS = (r"usr/lib(64)?/ld-linux-[^/]+", r"usr/lib/[^/]+-linux-gnu/[^/]+\.so(\.[\d.]+)?",
             r"usr/lib/[^/]+-linux-gnu/ld-linux-[^/]+", r"usr/share/doc/[^/]+/copyright",
             r"usr/share/zoneinfo/.+", r"var/lib/dpkg/status\.d/[^/]+", r"(bin|lib|lib64)")
_PACKAGES = {"base-files", "ca-certificates", "libc6", "libssl3", "libstdc++6", "tzdata", "vesk", "vesk-controller"}


def test_only_what_runs_is_inside(image: ImageArchive) -> None:
    files = {member.name for member in image.members() if not member.isdir()}
    unexpected = [name for name in files - _FILES
                  if not any(re.fullmatch(pattern, name) for pattern in _PATTERNS)]
    assert unexpected == []
    assert _FILES <= files
    assert {name.split("/")[2] for name in files if re.fullmatch(r"usr/bin/.+", name)} == {"vesk", "vesk-controller"}


def test_its_packages_are_known_to_scanners(image: ImageArchive) -> None:
    folder = "var/lib/dpkg/status.d/"
    found = {name.removeprefix(folder) for name in image.names() if name.startswith(folder)}
    assert _PACKAGES <= found
    assert not found & {"adduser", "bash", "dash", "dpkg", "openssl", "perl-base"}
    for name in found:
        assert f"Package: {name}\n" in image.file(folder + name).decode()
        assert f"usr/share/doc/{name}/copyright" in image.names()


def test_programs_are_for_the_architecture(image: ImageArchive) -> None:
    for name in ("usr/bin/vesk", "usr/bin/vesk-controller"):
        program = image.file(name)
        assert int.from_bytes(program[18:20], "little") == _MACHINES[image.config["architecture"]]


def test_certificates_and_time_zones_are_readable(image: ImageArchive) -> None:
    bundle = image.file("etc/ssl/certs/ca-certificates.crt").decode()
    assert bundle.count("BEGIN CERTIFICATE") == bundle.count("END CERTIFICATE") > 100
    assert image.file("usr/share/zoneinfo/Etc/UTC").startswith(b"TZif")


def test_nothing_can_be_written_or_gains_rights(image: ImageArchive) -> None:
    for member in image.members():
        assert (member.uid, member.gid) == (0, 0), member.name
        assert member.issym() or member.mode & 0o7022 == 0, member.name


def test_it_starts_the_controller_as_an_ordinary_user(image: ImageArchive) -> None:
    config = image.config["config"]
    assert config["User"] == "10001:10001"
    assert config["Entrypoint"] == ["/usr/bin/vesk-controller"]
    assert config["Cmd"] == ["/etc/vesk/conf.d/"]
    assert config["StopSignal"] == "SIGTERM"
    assert "etc/vesk/conf.d" in image.names()
    assert b"vesk:x:10001:10001:" in image.file("etc/passwd")


def test_all_times_are_that_of_the_commit(image: ImageArchive) -> None:
    seconds = int(_git("log", "-1", "--format=%ct"))
    assert {member.mtime for member in image.members()} == {seconds}
    assert image.times == {seconds}
    assert len({image.config["created"], *(entry["created"] for entry in image.config["history"])}) == 1


def test_no_blob_is_left_over(image: ImageArchive) -> None:
    assert len(image.blobs) == 3, "manifest, configuration and layer"


def test_each_blob_is_named_by_its_checksum(image: ImageArchive) -> None:
    assert image.digest in image.checksums
    assert {f"sha256:{name.rpartition('/')[2]}" for name in image.blobs} == image.checksums


def test_second_build_has_the_same_digest(image: ImageArchive) -> None:
    again = ImageArchive(Path(os.environ["VESK_SECOND_IMAGES"]) / image.path.name)
    assert again.digest == image.digest
    assert again.path.read_bytes() == image.path.read_bytes()


def _git(*words: str) -> str:
    return subprocess.run(["git", "-C", str(_ROOT), *words], stdout=subprocess.PIPE, text=True, check=True).stdout
