"""Fails on a link in a Markdown page whose file or heading is missing, and on an installed page
(/usr/share/doc/vesk/NAME.md) that a manual page, a unit or a rule names but docs/ lacks.

Usage: check_links.py ROOT-DIRECTORY
"""

import re
import sys
from pathlib import Path

FENCED = re.compile(r"^ *```.*?^ *```", re.MULTILINE | re.DOTALL)
CODE = re.compile(r"`[^`\n]*`")
LINK = re.compile(r"\]\(([^)\s]+)\)")
HEADING = re.compile(r"^#{1,6} +(.+?) *$", re.MULTILINE)
INSTALLED = re.compile(r"/usr/share/doc/vesk/([\w-]+\.md)")


def pages(root: Path) -> list[Path]:
    """Every page of the tree, except those in build trees and hidden folders."""
    return [path for path in sorted(root.rglob("*.md"))
            if not any(part == "build" or part.startswith(".")
                       for part in path.relative_to(root).parts)]


def anchor(heading: str) -> str:
    """The anchor that common renderers give a heading."""
    kept = re.sub(r"[^\w\- ]", "", heading.lower())
    return kept.replace(" ", "-")


def anchors(page: Path) -> set[str]:
    found: set[str] = set()
    for heading in HEADING.findall(FENCED.sub("", page.read_text(encoding="utf-8"))):
        name, number = anchor(heading), 0
        while (f"{name}-{number}" if number else name) in found:
            number += 1
        found.add(f"{name}-{number}" if number else name)
    return found


def faults_of(page: Path) -> list[str]:
    faults = []
    text = CODE.sub("", FENCED.sub("", page.read_text(encoding="utf-8")))
    for link in LINK.findall(text):
        if re.match(r"[a-z]+:", link):
            continue
        path, _, name = link.partition("#")
        target = (page.parent / path).resolve() if path else page
        if not target.exists():
            faults.append(f"{page}: {link}: there is no such file")
        elif name and name not in anchors(target):
            faults.append(f"{page}: {link}: {target.name} has no such heading")
    return faults


def missing_installed_pages(root: Path) -> list[str]:
    named = {(path, name) for folder in ("man", "packaging", "docs")
             for path in (root / folder).rglob("*")
             if path.is_file() and path.suffix != ".svg"
             for name in INSTALLED.findall(path.read_text(encoding="utf-8"))}
    return [f"{path}: docs/{name} does not exist" for path, name in sorted(named)
            if not (root / "docs" / name).is_file()]


def main() -> int:
    root = Path(sys.argv[1]).resolve()
    found = pages(root)
    faults = [fault for page in found for fault in faults_of(page)] + missing_installed_pages(root)
    for fault in faults:
        print(fault)
    if not found:
        print(f"no page below {root}")
    return 1 if faults or not found else 0


if __name__ == "__main__":
    sys.exit(main())
