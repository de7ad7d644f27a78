"""Fails if a file of the product is too long to read in one sitting.

Usage: check_sizes.py ROOT FOLDER...

clang-tidy checks the length of functions (readability-function-size).
"""

from __future__ import annotations

import re
import statistics
import sys
from pathlib import Path
from typing import Dict, Iterator, List, Tuple

LONGEST_FILE = 250
LONGEST_FUNCTION = 40
HEADER_MEDIAN = 60

# The line that opens a function, or a block within one, which is no longer than its function.
NOT_A_FUNCTION = r"(?!(namespace|class|struct|enum|union|extern|return)\b)"
OPENING = re.compile(rf"^( {{0,4}}){NOT_A_FUNCTION}[^ #/].*[^{{]\{{$")


def sources(root: Path, folders: List[str]) -> Dict[Path, List[str]]:
    files = [file for folder in folders for file in sorted((root / folder).rglob("*"))
             if file.suffix in (".cpp", ".h")]
    return {file.relative_to(root): file.read_text(encoding="utf-8").splitlines() for file in files}


def long_functions(lines: List[str]) -> Iterator[Tuple[int, int]]:
    """The first line, counted from 1, and the length of each function that is too long."""
    opened: Dict[str, int] = {}
    for number, line in enumerate(lines, start=1):
        opening = OPENING.match(line)
        if opening and " = " not in line:
            opened.setdefault(opening.group(1), number)
        elif line.strip() == "}":
            first = opened.pop(line[:-1], number)
            if number - first + 1 > LONGEST_FUNCTION:
                yield first, number - first + 1


def problems(files: Dict[Path, List[str]]) -> List[str]:
    found = [f"{file}: {len(lines)} lines, more than {LONGEST_FILE}"
             for file, lines in files.items() if len(lines) > LONGEST_FILE]
    found += [f"{file}:{first}: a function of {length} lines, more than {LONGEST_FUNCTION}"
              for file, lines in files.items() for first, length in long_functions(lines)]
    median = statistics.median(len(lines) for file, lines in files.items() if file.suffix == ".h")
    if median >= HEADER_MEDIAN:
        found.append(f"half of the headers have {median:g} lines or more, not under {HEADER_MEDIAN}")
    return found


def main() -> int:
    root, *folders = sys.argv[1:]
    files = sources(Path(root), folders)
    if not files:
        print(f"no source file in {', '.join(folders)} under {root}", file=sys.stderr)
        return 2
    found = problems(files)
    print("\n".join(found), file=sys.stderr)
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
