"""The checksums and their signature."""

from __future__ import annotations

import os
import shutil
import subprocess
from pathlib import Path


def _verifies(folder: Path) -> "subprocess.CompletedProcess[str]":
    return subprocess.run(["minisign", "-V", "-p", os.environ["VESK_RELEASE_KEY"], "-m", "SHA256SUMS"], cwd=folder,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)


def test_every_file_has_its_checksum(release: Path) -> None:
    lines = (release / "SHA256SUMS").read_text(encoding="ascii").splitlines()
    files = {path.name for path in release.iterdir()}
    assert {line.split()[1] for line in lines} == files - {"SHA256SUMS", "SHA256SUMS.minisig"}
    subprocess.run(["sha256sum", "--check", "--strict", "--quiet", "SHA256SUMS"], cwd=release, check=True)


def test_signature_names_the_commit_and_is_valid(release: Path) -> None:
    verified = _verifies(release)
    assert verified.returncode == 0, verified.stdout
    root = str(Path(__file__).parents[2])
    commit = subprocess.run(["git", "-C", root, "rev-parse", "HEAD"], stdout=subprocess.PIPE, text=True,
                            check=True).stdout.strip()
    assert f"commit {commit}" in verified.stdout


def test_changed_checksums_are_not_accepted(release: Path, tmp_path: Path) -> None:
    for name in ("SHA256SUMS", "SHA256SUMS.minisig"):
        shutil.copy(release / name, tmp_path)
    with (tmp_path / "SHA256SUMS").open("a", encoding="ascii") as sums:
        sums.write(f"{'0' * 64}  another.deb\n")
    assert _verifies(tmp_path).returncode != 0
