"""Joins source files to a few translation units, for a check that spends more time on the headers than on
the files themselves. Used by check_tidy.py.

The text of the files is joined, not included, so that each file is checked as a main file.
"""

from __future__ import annotations

import json
import re
import shlex
import subprocess
import sys
import tempfile
from dataclasses import dataclass
from pathlib import Path
from typing import Callable, Dict, Iterator, List, Sequence, Set, Tuple

# The check of one unit needs memory for all its files.
FILES_IN_ONE = 200

Flags = Tuple[str, ...]
# Takes a source file and its compiler flags; returns the findings, or an empty text.
Check = Callable[[Path, Flags], str]

_INCLUDE = re.compile(r'^(\s*#\s*include\s+)"([^"]+)"')
_MACRO = re.compile(r"-D(\w+)")
# Every fuzz target defines the one, every program the other.
_ENTRY = re.compile(r"\b(LLVMFuzzerTestOneInput|int main)(?=\()")


def flags_of(command: Dict[str, str]) -> Flags:
    """The flags that the meaning of the file depends on."""
    words = shlex.split(command["command"])
    flags = []
    for word, following in zip(words, [*words[1:], ""]):
        if word == "-isystem":
            flags.append(word + following)
        # Only an optimising compiler can fortify; clang-tidy would report the flag.
        elif word.startswith(("-I", "-D", "-std=")) and not word.startswith("-D_FORTIFY_SOURCE"):
            flags.append(word)
    return tuple(flags)


def flags_by_file(tree: Path) -> Dict[Path, Flags]:
    """The flags of each compiled file, also of those that the build includes in a batch."""
    found: Dict[Path, Flags] = {}
    for command in json.loads((tree / "compile_commands.json").read_text(encoding="utf-8")):
        path = Path(command["file"])
        files = re.findall(r'^#include "(.*)"', path.read_text(encoding="utf-8"), re.MULTILINE) \
            if path.is_relative_to(tree) and path.suffix == ".cxx" else [command["file"]]
        found.update((Path(file), flags_of(command)) for file in files)
    return found


@dataclass
class Group:
    """Files that can be compiled with the same flags."""

    files: List[Path]
    flags: Flags

    def takes(self, flags: Flags) -> bool:
        """Whether no macro is defined differently by these flags."""
        own = {macro[1]: flag for flag in self.flags if (macro := _MACRO.match(flag))}
        return all(own.get(macro[1], flag) == flag for flag in flags if (macro := _MACRO.match(flag)))

    def add(self, file: Path, flags: Flags) -> None:
        self.files.append(file)
        self.flags = tuple(dict.fromkeys((*self.flags, *flags)))


def groups_of(root: Path, tree: Path, folders: Sequence[str]) -> List[Group]:
    """The source files of the folders, in as few groups as possible."""
    flags = flags_by_file(tree)
    groups: List[Group] = []
    for path in (path for folder in folders for path in sorted((root / folder).rglob("*.cpp"))):
        if path not in flags:
            sys.exit(f"{path}: is compiled by no target of {tree}")
        group = next((group for group in groups if group.takes(flags[path])), None)
        if group is None:
            group = Group([], ())
            groups.append(group)
        group.add(path, flags[path])
    return groups


def compile_errors(path: Path, flags: Flags, *more: str) -> str:
    """The messages of clang for a file; empty if there are none."""
    done = subprocess.run(["clang++", *flags, "-fsyntax-only", "-ferror-limit=0", "-Wno-unknown-warning-option",
                           *more, str(path)],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    return done.stdout if done.returncode else ""


def joined(files: List[Path], path: Path) -> List[Tuple[Path, int]]:
    """Writes the joined text to the path. Returns the original file and line of each line."""

    def beside(match: "re.Match[str]") -> str:
        header = file.parent / match[2]
        return f'{match[1]}"{header}"' if header.exists() else match[0]

    origins = []
    with path.open("w", encoding="utf-8") as out:
        for place, file in enumerate(files):
            lines = _ENTRY.sub(rf"\g<1>{place}", file.read_text(encoding="utf-8")).splitlines()
            out.writelines(f"{_INCLUDE.sub(beside, line)}\n" for line in lines)
            origins += [(file, number) for number in range(1, len(lines) + 1)]
    return origins


def files_with_errors(path: Path, flags: Flags, origins: List[Tuple[Path, int]]) -> Set[Path]:
    """The files with the text that does not compile in the joined text, or else with the includes. The first file
    that includes a template is not the one whose use of it is wrong."""
    errors = compile_errors(path, flags, "-w")
    place = re.escape(str(path)) + r":(\d+)"
    lines = re.findall(place + r":\d+: (?:fatal )?error:", errors) or re.findall(
        place + r":\n(?:In file included from .*\n)*\S+:\d+: (?:fatal )?error:", errors)
    if errors and not lines:
        sys.exit(errors)
    return {origins[int(line) - 1][0] for line in lines}


def units_of(group: Group, path: Path) -> Iterator[List[Tuple[Path, int]]]:
    """Writes the text of one unit after the other to the path. Files that cannot be compiled together because
    they use a name twice are in different units."""
    waiting = group.files
    while waiting:
        files, waiting = waiting[:FILES_IN_ONE], waiting[FILES_IN_ONE:]
        origins = joined(files, path)
        while len(files) > 1 and (wrong := files_with_errors(path, group.flags, origins)):
            # The first file has only errors of its own, which the check reports.
            kept = files[:1] if files[0] in wrong else [file for file in files if file not in wrong]
            waiting += [file for file in files if file not in kept]
            files = kept
            origins = joined(files, path)
        yield origins


def check_folders(root: Path, tree: Path, folders: Sequence[str], check: Check) -> int:
    """Prints the findings in every source file of the folders. Returns 1 if there are any, else 0. The joined text is
    in a folder that is named as the first one."""
    findings = ""
    with tempfile.TemporaryDirectory() as temporary:
        path = Path(temporary) / folders[0] / "joined.cpp"
        path.parent.mkdir(parents=True)
        for group in groups_of(root, tree, folders):
            for origins in units_of(group, path):
                findings += re.sub(re.escape(str(path)) + r":(\d+)",
                                   lambda match: "{}:{}".format(*origins[int(match[1]) - 1]),
                                   check(path, group.flags))
    print(findings, end="")
    return 1 if findings else 0
