"""The source files of the repository, and the files that each of them includes, imports or loads."""

from __future__ import annotations

import ast
import os
import re
from pathlib import Path, PurePosixPath
from typing import Dict, Iterator, List, Optional

FOLDERS = ("src", "framing", "controller", "tools", "bench", "dissector", "scripts", "vectors", "tests")
# Where the C++ files in a folder find headers, in addition to their own folder.
HEADER_FOLDERS = {
    "src": ("src",),
    "framing": ("framing", "src"),
    "controller": ("controller", "src"),
    "tools": ("tools", "src"),
    "bench": ("bench", "tools", "src"),
    "tests/support": ("tests", "framing", "src"),
    "tests/unit/tools": ("tools", "src"),
    "tests/unit/framing": ("framing", "tests/unit", "tests", "src"),
    "tests/unit": ("tests/unit", "tests", "src"),
    "tests/fuzz": ("tests/fuzz", "tests", "framing", "src"),
    "tests/model": ("tests/unit", "tests", "src"),
    "tests/framing": ("framing",),
    "tests": ("controller", "src"),
}
# Where Python files find modules, in addition to their own folder.
MODULE_FOLDERS = ("tests/functional", "tests/netns", "tests/controller/functional", "bench")

_INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.MULTILINE)
_LUA_PART = re.compile(r'\b(?:part|dofile|require)\(?\s*"([^"]+)"')


def source_files(root: Path) -> List[str]:
    """The C++, Lua and Python files by their paths from the root."""
    return sorted(path.relative_to(root).as_posix() for folder in FOLDERS
                  for path in _files_below(root / folder) if _kind(path))


def _files_below(folder: Path) -> Iterator[Path]:
    for parent, folders, names in os.walk(folder):
        folders[:] = [name for name in folders if name not in ("__pycache__", "corpus")]
        yield from (Path(parent, name) for name in names)


def _kind(path: Path) -> str:
    if path.suffix in (".h", ".hpp", ".cpp", ".lua", ".py"):
        return path.suffix
    if path.suffix == "" and path.read_bytes()[:64].split(b"\n")[0].endswith(b"python3"):
        return ".py"
    return ""


def is_cpp(path: str) -> bool:
    return path.endswith((".h", ".hpp", ".cpp"))


class Uses:
    """The files that one file needs."""

    def __init__(self, root: Path, files: List[str]) -> None:
        self._root = root
        self._files = set(files)

    def of(self, path: str) -> Dict[str, Optional[str]]:
        """Each name in the file with the project's file to which it refers; None for a quoted include
        or a part that does not exist. External modules are omitted."""
        text = (self._root / path).read_text(encoding="utf-8")
        if is_cpp(path):
            return {name: self._find(name, path, header_folders(path))
                    for name in _INCLUDE.findall(text)}
        if path.endswith(".lua"):
            return {name: self._find(name + ".lua", path, ()) for name in _LUA_PART.findall(text)}
        found = {name: self._module(name, path) for name in _imports(text)}
        return {name: file for name, file in found.items() if file}

    def _find(self, name: str, path: str, folders: "tuple[str, ...]") -> Optional[str]:
        for folder in (str(PurePosixPath(path).parent), *folders):
            candidate = os.path.normpath(f"{folder}/{name}")
            if candidate in self._files:
                return candidate
        return None

    def _module(self, name: str, path: str) -> Optional[str]:
        steps = name.lstrip(".").replace(".", "/")
        return (self._find(steps + ".py", path, MODULE_FOLDERS)
                or self._find(steps + "/__init__.py", path, MODULE_FOLDERS))


def header_folders(path: str) -> "tuple[str, ...]":
    return next(found for folder, found in HEADER_FOLDERS.items() if path.startswith(folder + "/"))


def _imports(text: str) -> Iterator[str]:
    for node in ast.walk(ast.parse(text)):
        if isinstance(node, ast.Import):
            yield from (alias.name for alias in node.names)
        elif isinstance(node, ast.ImportFrom):
            module = "." * node.level + (node.module or "")
            yield module
            # A name imported from a package may be one of its modules.
            yield from (f"{module}.{alias.name}" for alias in node.names)
