"""Fails if clang-tidy reports anything for the source files of some folders or the headers they include. That
includes the compiler's analysis of guarded data that is used without its lock.

The settings are those of the first folder: its .clang-tidy may extend those of the folders above it.

Usage: check_tidy.py ROOT BUILD-TREE FOLDER...
"""

from __future__ import annotations

import shutil
import subprocess
import sys
from pathlib import Path

from joined_sources import Flags, check_folders

# "all": a function is analysed for every argument, even if its file contains calls to it. As each function is
# analysed for itself, few paths through its callers suffice: the default of 225,000 states for the paths of
# one function costs ten times as much.
ANALYZER = ("-analyzer-inlining-mode=all", "-analyzer-config", "max-nodes=10000")

SETTINGS = ".clang-tidy"


def main() -> int:
    root, tree, first = Path(sys.argv[1]).resolve(), Path(sys.argv[2]).resolve(), Path(sys.argv[3])

    def check(path: Path, flags: Flags) -> str:
        for folder in (first, *first.parents):
            if (root / folder / SETTINGS).exists():
                shutil.copy(root / folder / SETTINGS, path.parents[len(first.parts)] / folder)
        done = subprocess.run(
            ["clang-tidy", "--quiet", str(path), "--", *flags, "-Wthread-safety",
             *(word for option in ANALYZER for word in ("-Xclang", option))],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False)
        return done.stdout or (done.stderr if done.returncode else "")

    status = check_folders(root, tree, sys.argv[3:], check)
    if status == 0:
        print("clang-tidy is quiet")
    return status


if __name__ == "__main__":
    sys.exit(main())
