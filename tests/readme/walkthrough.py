"""The commands of a page and their output, and the shell and the folders into which a test types them."""

from __future__ import annotations

import os
import re
from dataclasses import dataclass
from pathlib import Path
from typing import Dict, Iterator, List

import pytest

from shell import Shell

ROOT = Path(__file__).resolve().parent.parent.parent
BUILD = Path(os.environ["VESK_BUILD"]).resolve()

BLOCK = re.compile(r"^```sh\n(.*?)^```\n(?:\n```\n(.*?)^```\n)?", re.MULTILINE | re.DOTALL)


@dataclass(frozen=True)
class Block:
    """The commands to type and the expected output, which is empty if the page shows none."""

    commands: str
    output: str


def blocks_of(text: str) -> List[Block]:
    return [Block(*found) for found in BLOCK.findall(text)]


def with_ports(text: str, ports: Dict[str, str]) -> str:
    """The same with other ports."""
    return re.sub(rf"\b({'|'.join(ports)})\b", lambda found: ports[found[0]], text)


@pytest.fixture
def tree(tmp_path: Path) -> Path:
    """A built source tree with only the parts that the pages need."""
    folder = tmp_path / "tree"
    (folder / "build").mkdir(parents=True)
    (folder / "build" / "release").symlink_to(BUILD)
    for name in ("dissector", "languages"):
        (folder / name).symlink_to(ROOT / name)
    return folder


@pytest.fixture
def temporary(tmp_path: Path) -> Path:
    """The folder that replaces /tmp in the pages."""
    folder = tmp_path / "temporary"
    folder.mkdir()
    return folder


@pytest.fixture
def shell(tmp_path: Path, tree: Path, temporary: Path, monkeypatch: pytest.MonkeyPatch) -> Iterator[Shell]:
    # The tree is also that of other tests.
    monkeypatch.setenv("PYTHONDONTWRITEBYTECODE", "1")
    home = tmp_path / "home"
    home.mkdir()
    started = Shell(tree, temporary, home)
    yield started
    started.end()


def own_files(folder: Path) -> Dict[Path, int]:
    """The mode of each regular file. Symbolic links are not followed."""
    return {path: path.stat().st_mode & 0o777 for path in folder.rglob("*")
            if path.is_file() and not path.is_symlink()}
