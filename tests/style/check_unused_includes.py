"""Fails if a C++ file includes a header and uses none of its names: for headers of this project the
names that the header declares, for all others those in tests/style/header_names.txt.

Usage: check_unused_includes.py ROOT
"""

from __future__ import annotations

import re
import sys
from dataclasses import dataclass
from functools import lru_cache
from pathlib import Path
from typing import Dict, FrozenSet, Iterator, List, Set, Tuple

from source_files import Uses, is_cpp, source_files

NAMES = "header_names.txt"

_INCLUDE = re.compile(r'^\s*#\s*include\s+<([^>]+)>', re.MULTILINE)
# Comments and quoted text, which contain no names.
_NO_CODE = re.compile(r'//[^\n]*|/\*.*?\*/|R"\((?:.*?)\)"|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])+\'', re.DOTALL)
_SEPARATOR = re.compile(r"(?<=\d)'(?=\d)")
_DIRECTIVE = re.compile(r'^[ \t]*#[^\n]*(?:\\\n[^\n]*)*', re.MULTILINE)
_MACRO = re.compile(r'^[ \t]*#[ \t]*define[ \t]+(\w+)', re.MULTILINE)
_TOKEN = re.compile(r'[A-Za-z_]\w*|[^\s\w]')
_WORD = re.compile(r'[A-Za-z_]\w*')
_MEMBER = re.compile(r'(?:\.|->)\s*([A-Za-z_]\w*)')
# Names of members that many classes have, so that their use does not prove the use of a header.
_COMMON_MEMBERS = {"add", "begin", "bytes", "clear", "count", "data", "empty", "end", "find", "get", "length",
                   "name", "release", "reset", "size", "start", "stop", "text", "value"}
# Words in the place of a name that are not names, and the namespace that every header opens.
_NO_NAMES = {"bool", "char", "const", "default", "delete", "double", "final", "int", "long", "noexcept", "operator",
             "override", "return", "short", "unsigned", "vesk", "void"}
_FORWARD = re.compile(r'\b(?:class|struct|enum(?: class)?)\s+\w+\s*;')


@dataclass(frozen=True)
class Declared:
    """The names that a header declares: in namespaces and as macros, and in classes."""

    names: FrozenSet[str]
    members: FrozenSet[str]


def code_of(text: str) -> str:
    return _NO_CODE.sub(" ", _SEPARATOR.sub("", text))


def declared_in(text: str) -> Declared:
    code = code_of(text)
    names, members = set(_MACRO.findall(code)), set()
    for name, in_class in _declarations(_FORWARD.sub(" ", _DIRECTIVE.sub(" ", code))):
        if name not in _NO_NAMES and not name.startswith("VESK_") and not name.endswith("_t"):
            (members if in_class else names).add(name)
    return Declared(frozenset(names), frozenset(members - _COMMON_MEMBERS))


def _declarations(code: str) -> Iterator[Tuple[str, bool]]:
    """Each name that is followed by what may follow a declared name, outside of function bodies and
    parentheses, and whether it is in a class."""
    blocks: List[str] = []
    head: List[str] = []
    parentheses = 0
    for token in _TOKEN.findall(code):
        inside_body = "body" in blocks
        previous = head[-1] if head else ""
        if not inside_body and not parentheses and token in "(={;[,}" and _WORD.fullmatch(previous):
            yield previous, "class" in blocks
        if token == ":" and not inside_body and {"class", "struct"} & set(head) and previous != ":":
            yield previous, "class" in blocks
        if token == "{" and not parentheses:
            blocks.append(_block(head))
        elif token == "}" and not parentheses and blocks:
            blocks.pop()
        if token in "()":
            parentheses += 1 if token == "(" else -1
        head = [] if token in ";{}" and not parentheses else [*head, token]


def _block(head: List[str]) -> str:
    if "namespace" in head or (head[:1] == ["extern"] and "(" not in head):
        return "namespace"
    if "enum" in head and "class" not in head:
        return "namespace"
    if {"class", "struct", "union", "enum"} & set(head) and "(" not in head:
        return "class"
    return "body"


class Checker:
    def __init__(self, root: Path) -> None:
        self._root = root
        files = source_files(root)
        self._uses = Uses(root, files)
        self.files = [path for path in files if is_cpp(path)]
        table = (root / "tests/style" / NAMES).read_text(encoding="utf-8")
        self._others: Dict[str, List[str]] = {}
        for line in table.splitlines():
            if line and not line.startswith("#"):
                header, _, names = line.partition(": ")
                self._others[header] = names.split()
        self.unknown: Set[str] = set()

    @lru_cache(maxsize=None)
    def _declared(self, header: str) -> Declared:
        return declared_in((self._root / header).read_text(encoding="utf-8"))

    def faults(self, path: str) -> Iterator[str]:
        text = (self._root / path).read_text(encoding="utf-8")
        code = _DIRECTIVE.sub(lambda found: re.sub(r"#\s*include.*", " ", found[0]), code_of(text))
        words, members = set(_WORD.findall(code)), set(_MEMBER.findall(code))
        for name, header in self._uses.of(path).items():
            if header is None or Path(header).stem == Path(path).stem:
                continue
            declared = self._declared(header)
            if not declared.names & words and not declared.members & members:
                yield f"{path} includes {name} and uses no name of it"
        for header in _INCLUDE.findall(text):
            if header not in self._others:
                self.unknown.add(header)
            elif not any(re.search(rf"\b{name}\b", code) for name in self._others[header]):
                yield f"{path} includes <{header}> and uses no name of it"


def main() -> int:
    checker = Checker(Path(sys.argv[1]))
    faults = [fault for path in checker.files for fault in checker.faults(path)]
    faults += [f"tests/style/{NAMES} has no line for <{header}>" for header in sorted(checker.unknown)]
    print("\n".join(faults) or f"{len(checker.files)} files, every include is used")
    return 1 if faults or not checker.files else 0


if __name__ == "__main__":
    sys.exit(main())
