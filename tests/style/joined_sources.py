"""Joins source files to a few translation units, for checks that spend more time on the headers than on
the files themselves. Used by check_tidy.py and check_thread_safety.py.

The text of the files is joined, not included, so that each file is checked as a main file.
"""

from __future__ import annotations

import json
import re
import shlex
import subprocess
import sys
import tempfile
from collections import defaultdict
from pathlib import Path
from typing import Callable, Dict, List, Tuple

# Larger units save little more time, and the check of one unit uses one processor only.
FILES_IN_ONE = 24

Flags = Tuple[str, ...]
# Takes a source file and its compiler flags; returns the findings, or an empty text.
Check = Callable[[Path, Flags], str]


def flags_of(command: Dict[str, str]) -> Flags:
    """The compiler's flags without the compiler, its launcher, the file and the output."""
    words = shlex.split(command["command"])
    words = words[next(i for i, word in enumerate(words) if word.startswith("-")):]
    output = words.index("-o")
    del words[output:output + 2]
    return tuple(word for word in words if word not in ("-c", command["file"]))


def groups_of(root: Path, tree: Path, folder: str) -> List[Tuple[List[Path], Flags]]:
    """The source files of the folder, grouped by equal compiler flags."""
    commands = json.loads((tree / "compile_commands.json").read_text(encoding="utf-8"))
    flags = {Path(command["file"]): flags_of(command) for command in commands}
    groups: Dict[Flags, List[Path]] = defaultdict(list)
    for path in sorted((root / folder).rglob("*.cpp")):
        if path not in flags:
            sys.exit(f"{path}: is compiled by no target of {tree}")
        groups[flags[path]].append(path)
    return [(paths[first:first + FILES_IN_ONE], key) for key, paths in groups.items()
            for first in range(0, len(paths), FILES_IN_ONE)]


def compile_errors(path: Path, flags: Flags, *more: str) -> str:
    """The messages of clang for a file; empty if there are none."""
    done = subprocess.run(["clang++", *flags, "-fsyntax-only", "-Wno-unknown-warning-option", *more, str(path)],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    return done.stdout if done.returncode else ""


def joined(files: List[Path], path: Path) -> List[Tuple[Path, int]]:
    """Writes the joined text to the path. Returns the original file and line of each line."""
    origins = []
    with path.open("w", encoding="utf-8") as out:
        for file in files:
            lines = file.read_text(encoding="utf-8").splitlines()
            out.writelines(f"{line}\n" for line in lines)
            origins += [(file, number) for number in range(1, len(lines) + 1)]
    return origins


def check_group(files: List[Path], flags: Flags, check: Check, folder: Path) -> str:
    """The findings of a check in files that are compiled with the same flags."""
    if len(files) == 1:
        return check(files[0], flags)
    path = folder / "joined.cpp"
    origins = joined(files, path)
    # Files that cannot be compiled together because they use a name twice are checked in smaller
    # groups.
    if compile_errors(path, flags, "-w"):
        half = len(files) // 2
        return (check_group(files[:half], flags, check, folder)
                + check_group(files[half:], flags, check, folder))

    def origin(match: "re.Match[str]") -> str:
        file, line = origins[int(match[1]) - 1]
        return f"{file}:{line}"

    return re.sub(re.escape(str(path)) + r":(\d+)", origin, check(path, flags))


def check_folder(root: Path, tree: Path, folder: str, check: Check) -> int:
    """Prints the findings in every source file of the folder. Returns 1 if there are any, else 0."""
    findings = ""
    with tempfile.TemporaryDirectory() as temporary:
        for files, flags in groups_of(root, tree, folder):
            findings += check_group(files, flags, check, Path(temporary))
    print(findings, end="")
    return 1 if findings else 0
