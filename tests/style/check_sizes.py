"""Fails if a file of the product is too long to read in one sitting.

Usage: check_sizes.py ROOT FOLDER...

clang-tidy checks the length of functions (readability-function-size).
"""

from __future__ import annotations

import statistics
import sys
from pathlib import Path
from typing import Dict, List

LONGEST_FILE = 250
HEADER_MEDIAN = 60


def line_counts(root: Path, folders: List[str]) -> Dict[Path, int]:
    files = [file for folder in folders for file in sorted((root / folder).rglob("*"))
             if file.suffix in (".cpp", ".h")]
    return {file.relative_to(root): len(file.read_text(encoding="utf-8").splitlines())
            for file in files}


def problems(counts: Dict[Path, int]) -> List[str]:
    found = [f"{file}: {lines} lines, more than {LONGEST_FILE}"
             for file, lines in counts.items() if lines > LONGEST_FILE]
    median = statistics.median(lines for file, lines in counts.items() if file.suffix == ".h")
    if median >= HEADER_MEDIAN:
        found.append(f"half of the headers have {median:g} lines or more, not under {HEADER_MEDIAN}")
    return found


def main() -> int:
    root, *folders = sys.argv[1:]
    counts = line_counts(Path(root), folders)
    if not counts:
        print(f"no source file in {', '.join(folders)} under {root}", file=sys.stderr)
        return 2
    found = problems(counts)
    print("\n".join(found), file=sys.stderr)
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
