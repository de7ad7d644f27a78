"""Fails if clang's thread-safety analysis finds guarded data that is used without its lock.

Usage: check_thread_safety.py ROOT BUILD-TREE
"""

from __future__ import annotations

import sys
from pathlib import Path

from joined_sources import Flags, check_folders, compile_errors


def check(path: Path, flags: Flags) -> str:
    return compile_errors(path, flags, "-Wall", "-Wextra", "-Wthread-safety", "-Werror")


def main() -> int:
    status = check_folders(Path(sys.argv[1]).resolve(), Path(sys.argv[2]).resolve(), ["src"], check)
    if status == 0:
        print("every lock is held where it is needed")
    return status


if __name__ == "__main__":
    sys.exit(main())
