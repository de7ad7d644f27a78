"""Lets a command find another file at a place of the file system."""

from __future__ import annotations

import subprocess
from pathlib import Path
from typing import List

import pytest


def with_file_at(place: str, file: Path) -> List[str]:
    """The command prefix under which a process finds the file at the place. Skips the test where mounts are
    not allowed."""
    prefix = ["unshare", "--mount", "sh", "-c", 'mount --bind "$0" "$1" && shift && exec "$@"',
              str(file), place]
    attempt = subprocess.run([*prefix, "true"], capture_output=True, text=True, check=False)
    if attempt.returncode:
        pytest.skip(f"mounts are not allowed here: {attempt.stderr.strip()}")
    return prefix
