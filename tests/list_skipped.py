"""Lists the skipped tests of CTest logs with their reasons. scripts/test prints the list at its end.

Usage: list_skipped.py PRESET=LOG...
"""

import re
import sys
from collections import Counter
from pathlib import Path

TEST = re.compile(r"\d+/\d+ Testing: (.*)")
# pytest prints one line for all tests of a file that were skipped at the same place.
PYTEST = re.compile(r"SKIPPED \[(\d+)\] (\S+?:\d+|\S+): (.*)")
# GoogleTest names each test of a suite and prints the reason after the second of these lines.
CASE = re.compile(r"\[ RUN      \] \S+\.(\S+)")
GOOGLETEST = re.compile(r"\S+:\d+: Skipped")


def skipped_tests(log: str) -> list[str]:
    """"TEST: reason" for each skipped test, in the order of the log."""
    # By test, reason and place, so that a repeated test adds nothing.
    found: dict[tuple[str, str, str], int] = {}
    test = suite = ""
    lines = iter(log.splitlines())
    for line in lines:
        if started := TEST.fullmatch(line):
            test = suite = started[1]
        elif skipped := PYTEST.fullmatch(line):
            count, place, reason = skipped.groups()
            found[test, reason, place] = int(count)
        elif case := CASE.fullmatch(line):
            test = f"{suite}.{case[1]}"
        elif GOOGLETEST.fullmatch(line):
            found[test, next(lines, ""), line] = 1
    counts: Counter[tuple[str, str]] = Counter()
    for (test, reason, _), count in found.items():
        counts[test, reason] += count
    return [f"{test}: {reason}" + (f" ({count} tests)" if count > 1 else "")
            for (test, reason), count in counts.items()]


def main() -> None:
    entries = []
    for argument in sys.argv[1:]:
        preset, path = argument.split("=", 1)
        if Path(path).exists():
            log = Path(path).read_text(encoding="utf-8", errors="replace")
            entries += [f"  {preset}: {entry}" for entry in skipped_tests(log)]
        else:
            entries.append(f"  {preset}: no test was run")
    skipped = any(not entry.endswith(": no test was run") for entry in entries)
    print("Skipped tests:" if skipped else "Skipped tests: none")
    for entry in entries:
        print(entry)


if __name__ == "__main__":
    main()
