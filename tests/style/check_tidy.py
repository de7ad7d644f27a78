"""Fails if clang-tidy reports anything for a folder of sources or the headers they include.

Usage: check_tidy.py ROOT BUILD-TREE FOLDER
"""

from __future__ import annotations

import subprocess
import sys
from pathlib import Path

from joined_sources import Flags, check_folder


def main() -> int:
    root, tree = Path(sys.argv[1]).resolve(), Path(sys.argv[2]).resolve()

    def check(path: Path, flags: Flags) -> str:
        # Without this clang would report flags of the compiler that it does not know.
        # "all": a function is analysed for every argument, even if its file contains calls to it.
        done = subprocess.run(
            ["clang-tidy", "--quiet", f"--config-file={root / '.clang-tidy'}", str(path), "--", *flags,
             "-Wno-unknown-warning-option", "-Xclang", "-analyzer-inlining-mode=all"],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False)
        return done.stdout or (done.stderr if done.returncode else "")

    status = check_folder(root, tree, sys.argv[3], check)
    if status == 0:
        print("clang-tidy is quiet")
    return status


if __name__ == "__main__":
    sys.exit(main())
