"""Makes the picture and the table of the units of src/ in docs/architecture.md from
cmake/dependencies.ini.

Usage: layers_page.py ROOT [--write]   (fails if the page is out of date, or updates it)
"""

from __future__ import annotations

import sys
from pathlib import Path
from typing import Dict, List

from dependency_table import TABLE, Table, Unit

PAGE = "docs/architecture.md"
BEGIN = f"<!-- Made of {TABLE} by tests/style/layers_page.py --write; do not edit. -->"
END = "<!-- End of what layers_page.py writes. -->"


def levels_of(table: Table) -> Dict[str, int]:
    """The layer of each unit: above all units that it uses."""
    levels: Dict[str, int] = {}
    for name, unit in table.units.items():
        levels[name] = 1 + max((levels[used] for used in unit.uses), default=0)
    return levels


def shown_folder(unit: Unit) -> str:
    return unit.folder.removeprefix("src/")


def picture(table: Table) -> List[str]:
    levels = levels_of(table)
    rows: Dict[int, List[str]] = {}
    for unit in table.product():
        rows.setdefault(levels[unit.name], []).append(shown_folder(unit))
    lines = ["```"]
    for level in sorted(rows, reverse=True):
        edges = " ".join(f"+{'-' * (len(name) + 2)}+" for name in rows[level])
        lines += [edges, " ".join(f"| {name} |" for name in rows[level]), edges]
    return [*lines, "```"]


def files_of(root: Path, unit: Unit) -> str:
    names = {path.stem for path in (root / unit.folder).iterdir() if path.suffix in (".h", ".cpp")}
    return ", ".join(f"`{name}`" for name in sorted(names))


def table_of(root: Path, table: Table) -> List[str]:
    lines = ["| Folder of `src/` | Holds | Files | Includes |", "|---|---|---|---|"]
    for unit in table.product():
        used = ", ".join(f"`{shown_folder(table.units[name])}`" for name in unit.uses)
        lines.append(f"| `{shown_folder(unit)}` | {unit.holds} | {files_of(root, unit)} | "
                     f"{used or 'nothing'} |")
    return lines


def reasons(table: Table) -> List[str]:
    lines = ["Where the files of one subject belong to two layers, a subfolder holds one of them:", ""]
    return lines + [f"- `{shown_folder(unit)}`: {unit.apart}." for unit in table.product()
                    if unit.apart]


def section(root: Path) -> str:
    table = Table(root)
    return "\n".join([BEGIN, "", *picture(table), "", *table_of(root, table), "",
                      *reasons(table), "", END])


def main() -> int:
    root = Path(sys.argv[1])
    page = root / PAGE
    text = page.read_text(encoding="utf-8")
    before, begin, rest = text.partition(BEGIN)
    _, end, after = rest.partition(END)
    if not begin or not end:
        print(f"{PAGE} lacks the marker lines around the layers")
        return 1
    current = before + section(root) + after
    if "--write" in sys.argv[2:]:
        page.write_text(current, encoding="utf-8")
    elif current != text:
        print(f"{PAGE} is out of date: run tests/style/layers_page.py . --write")
        return 1
    print(f"{PAGE} shows the current layers")
    return 0


if __name__ == "__main__":
    sys.exit(main())
