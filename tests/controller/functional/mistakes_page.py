"""Prints docs/mistakes.md from the rows that test_mistakes.py tests.

Usage: mistakes_page.py >docs/mistakes.md
"""

from __future__ import annotations

import sys
from pathlib import Path
from typing import Iterable, List

if __name__ == "__main__":
    sys.path.append(str(Path(__file__).resolve().parents[2] / "functional"))

# pylint: disable=wrong-import-position
import mistakes_at_start
import mistakes_in_file
import mistakes_in_fragments
import mistakes_while_it_runs
from mistake import UNUSABLE, FileMistake, Mistake, Section

SECTIONS = (*mistakes_at_start.SECTIONS, *mistakes_in_fragments.SECTIONS,
            *mistakes_while_it_runs.SECTIONS)

INTRODUCTION = f"""\
# Mistakes and their outcome

What `vesk-controller` logs and does if something is wrong with its file, its command line, the host or
the forwarder, and how that affects the traffic of its flows. A test carries out each row with traffic,
and this page is generated from the test's rows. `FILE`, `PROGRAM`, `PORT` and other words in capitals
stand for real values, and `...` stands for further text.

If a row has no exit status, the controller continues to run.

## Wrong lines in the file

Each message begins with `error controller: FILE:LINE: `. At the start the exit status is 1, and nothing
is started. At a reload nothing changes: no flow loses a datagram, the correct lines of the file have no effect
either, and the last line of the log is
`{UNUSABLE}`.
"""


def cell(text: str) -> str:
    return text.replace("|", "\\|")


def code(text: str) -> str:
    return f"`{cell(text)}`"


def table(heads: List[str], rows: Iterable[List[str]]) -> str:
    lines = [heads, ["---"] * len(heads), *rows]
    return "\n".join("| " + " | ".join(line) + " |" for line in lines) + "\n"


def file_row(row: FileMistake) -> List[str]:
    line = row.lines.splitlines()[row.wrong].replace("\0", "\\0")
    return [cell(row.what), code(line if len(line) <= 60 else line[:50] + " ..."), code(row.says)]


def row_of(row: Mistake) -> List[str]:
    return [cell(row.what), "<br>".join(map(code, row.says)) or "none",
            "" if row.status is None else
            str(row.status) if row.status >= 0 else f"signal {-row.status}", row.traffic.value]


def section(it: Section) -> str:
    moment = "while it runs" if it.while_it_runs else "at the start"
    return f"## {it.title}, {moment}\n\n" + table(
        ["Mistake", "Messages", "Exit status", "Traffic"], map(row_of, it.rows))


def page() -> str:
    files = (f"### {it.title}\n\n" + table(["Mistake", "Line", "Message"], map(file_row, it.rows))
             for it in mistakes_in_file.SECTIONS)
    return "\n".join([INTRODUCTION, *files, *map(section, SECTIONS)])


if __name__ == "__main__":
    sys.stdout.write(page())
