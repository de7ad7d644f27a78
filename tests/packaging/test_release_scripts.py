"""What the scripts of a release refuse before they install or build anything. scripts/test-release tests the rest."""

from __future__ import annotations

import os
import shutil
import subprocess
from pathlib import Path
from typing import Dict, Sequence, Tuple

import pytest

_ROOT = Path(__file__).parents[2]


@pytest.fixture
def tree(tmp_path: Path) -> Path:
    """A repository with the scripts, one commit and no change."""
    made = tmp_path / "tree"
    shutil.copytree(_ROOT / "scripts", made / "scripts", ignore=shutil.ignore_patterns("__pycache__"))
    shutil.copytree(_ROOT / "packaging/cross", made / "packaging/cross")
    for words in (["init", "--quiet"], ["add", "."], ["commit", "--quiet", "--message", "scripts"]):
        _git(made, *words)
    (tmp_path / "key").touch()
    return made


def _git(tree: Path, *words: str) -> None:
    subprocess.run(["git", "-c", "user.name=nobody", "-c", "user.email=nobody@example.org", *words], cwd=tree,
                   check=True)


def _refusal(tree: Path, script: str, *words: object) -> Tuple[int, str]:
    """The status, and the message without the name of the script. Nothing is started that builds."""
    workers = tree.parent / "workers"
    workers.mkdir()
    for name in ("apt-get", "cmake", "dpkg-query", "minisign", "mmdebstrap"):
        (workers / name).write_text(f"#!/bin/sh\ntouch '{workers}/worked'\nexit 1\n", encoding="utf-8")
        (workers / name).chmod(0o755)
    environment: Dict[str, str] = {**os.environ, "PATH": f"{workers}:{os.environ['PATH']}"}
    done = subprocess.run([str(tree / script), *map(str, words)], cwd=tree.parent, env=environment,
                          capture_output=True, text=True, check=False, timeout=60)
    assert done.stdout == "" and not (workers / "worked").exists()
    return done.returncode, done.stderr.strip().removeprefix(f"{script}: ")


@pytest.mark.parametrize("words, status, message", [
    ([], 2, "one FOLDER is needed; see --help"),
    (["new", "other"], 2, "one FOLDER is needed; see --help"),
    (["new"], 2, "--key is missing; see --help"),
    (["--key"], 2, "--key needs a value; see --help"),
    (["--key", "none", "new"], 1, "none: no such key"),
    (["--key", "key", "--root", "none", "new"], 1, "{folder}/none: no such root"),
    (["--key", "key", "tree"], 1, "{folder}/tree exists"),
])
def test_release_without_what_it_needs(tree: Path, words: Sequence[str], status: int, message: str) -> None:
    assert _refusal(tree, "scripts/release", *words) == (status, message.format(folder=tree.parent))


@pytest.mark.parametrize("change", ["new", "scripts/release"])
def test_release_of_a_changed_tree(tree: Path, change: str) -> None:
    with (tree / change).open("a", encoding="utf-8") as file:
        file.write("\n")
    status, message = _refusal(tree, "scripts/release", "--key", "key", "result")
    assert status == 1
    first, listed = message.splitlines()
    assert first == "the tree has changes that are not committed:"
    assert listed.split()[-1] == change


def test_release_outside_a_repository(tree: Path) -> None:
    shutil.rmtree(tree / ".git")
    status, message = _refusal(tree, "scripts/release", "--key", "key", "result")
    assert (status, message.splitlines()[-1]) == (1, "scripts/release: git cannot read this tree")


@pytest.mark.parametrize("words, status, message", [
    ([], 2, "PACKAGES and OUTPUT.tar are needed; see --help"),
    (["--arch"], 2, "--arch needs a value; see --help"),
    (["--arch", "mips", "folder", "a.tar"], 2, "unknown architecture mips: amd64 or arm64"),
    (["--arch", "arm64", "folder", "a.tar"], 1, "folder: not exactly one package vesk for arm64"),
])
def test_image_without_what_it_needs(tree: Path, words: Sequence[str], status: int, message: str) -> None:
    assert _refusal(tree, "scripts/build-image", *words) == (status, message)


def test_image_of_two_versions(tree: Path) -> None:
    for version in ("1.0.0-1", "1.0.1-1"):
        (tree.parent / f"vesk_{version}_arm64.deb").touch()
    assert _refusal(tree, "scripts/build-image", "--arch", "arm64", ".", "a.tar") == (
        1, ".: not exactly one package vesk for arm64")


@pytest.mark.parametrize("script, words, status, message", [
    ("packaging/cross/make-root", [], 2, "Usage: packaging/cross/make-root FOLDER"),
    ("packaging/cross/make-root", ["tree"], 1, "tree exists"),
    ("packaging/cross/in-root", ["tree", "build"], 2, "Usage: packaging/cross/in-root ROOT BUILD COMMAND..."),
    ("scripts/test-release", ["now"], 2, "Usage: scripts/test-release"),
])
def test_other_scripts_with_wrong_arguments(tree: Path, script: str, words: Sequence[str], status: int,
                                            message: str) -> None:
    assert _refusal(tree, script, *words) == (status, message)
