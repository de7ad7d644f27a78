"""Fails if a file is too long, or a function or the usual header of the product.

Usage: check_sizes.py ROOT FOLDER... --tests FOLDER...

Of the folders after --tests only the length of the files is checked. clang-tidy checks the length of
functions too (readability-function-size).
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

# These change together with the datapath, so they are split with its next change.
LONG_TESTS = (
    "tests/unit/datapath/upstream_arming_test.cpp",
    "tests/unit/datapath/wire/authentication_test.cpp",
)

# The line that opens a function, or a block within one, which is no longer than its function.
NOT_A_FUNCTION = r"(?!(namespace|class|struct|enum|union|typedef|extern|return)\b)"
OPENING = re.compile(rf"^( {{0,4}}){NOT_A_FUNCTION}[^ #/].*[^{{]\{{$")


def sources(root: Path, folders: List[str]) -> Dict[Path, List[str]]:
    files = [file for folder in folders for file in sorted((root / folder).rglob("*"))
             if file.suffix in (".cpp", ".h", ".hpp")]
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


def long_files(files: Dict[Path, List[str]]) -> Dict[str, str]:
    return {str(file): f"{file}: {len(lines)} lines, more than {LONGEST_FILE}"
            for file, lines in files.items() if len(lines) > LONGEST_FILE}


def problems_of_tests(files: Dict[Path, List[str]]) -> List[str]:
    found = long_files(files)
    return ([text for file, text in found.items() if file not in LONG_TESTS]
            + [f"{file}: is no longer too long; remove it from the list in {Path(__file__).name}"
               for file in LONG_TESTS if file not in found])


def problems(files: Dict[Path, List[str]]) -> List[str]:
    found = list(long_files(files).values())
    found += [f"{file}:{first}: a function of {length} lines, more than {LONGEST_FUNCTION}"
              for file, lines in files.items() for first, length in long_functions(lines)]
    median = statistics.median(len(lines) for file, lines in files.items() if file.suffix == ".h")
    if median >= HEADER_MEDIAN:
        found.append(f"half of the headers have {median:g} lines or more, not under {HEADER_MEDIAN}")
    return found


def main() -> int:
    root, *folders = sys.argv[1:]
    separator = folders.index("--tests")
    product = sources(Path(root), folders[:separator])
    tests = sources(Path(root), folders[separator + 1:])
    if not product or not tests:
        print(f"no source file in one of {' '.join(folders)} under {root}", file=sys.stderr)
        return 2
    found = problems(product) + problems_of_tests(tests)
    print("\n".join(found), file=sys.stderr)
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
