"""Reads cmake/dependencies.ini: the units of the source tree and their allowed includes."""

from __future__ import annotations

import configparser
from dataclasses import dataclass
from pathlib import Path
from typing import Dict, List

TABLE = "cmake/dependencies.ini"
WHOLE_TREE = "/**"


@dataclass(frozen=True)
class Unit:
    name: str
    folder: str
    # Whether the unit includes subfolders that are not units themselves.
    whole_tree: bool
    uses: List[str]
    holds: str
    apart: str


class Table:
    """The units in the order of the file."""

    def __init__(self, root: Path) -> None:
        parser = configparser.ConfigParser(interpolation=None)
        parser.read_string((root / TABLE).read_text(encoding="utf-8"))
        self.units: Dict[str, Unit] = {name: _unit(name, parser[name])
                                       for name in parser.sections()}
        self._of_folder = {unit.folder: unit for unit in self.units.values()}

    def faults(self, root: Path) -> List[str]:
        """Entries that are invalid regardless of the source files."""
        found, above = [], set(self.units)
        for name, unit in self.units.items():
            found += [f"{TABLE}: {name} uses {used}, which is not above it in the file"
                      for used in unit.uses if used in above]
            found += [f"{TABLE}: {name} uses {used}, which is not a unit"
                      for used in unit.uses if used not in self.units]
            if not (root / unit.folder).is_dir():
                found.append(f"{TABLE}: {name} has no folder {unit.folder}")
            above.remove(name)
        return found

    def unit_of(self, path: str) -> Unit:
        folder = str(Path(path).parent)
        if folder in self._of_folder:
            return self._of_folder[folder]
        for parent in map(str, Path(folder).parents):
            unit = self._of_folder.get(parent)
            if unit and unit.whole_tree:
                return unit
        raise SystemExit(f"{path} belongs to no unit; add its folder to {TABLE}")

    def product(self) -> List[Unit]:
        """The units of the forwarder itself."""
        return [unit for unit in self.units.values() if unit.folder.startswith("src/")]


def _unit(name: str, entry: configparser.SectionProxy) -> Unit:
    folder = entry["folder"]
    return Unit(name, folder.removesuffix(WHOLE_TREE), folder.endswith(WHOLE_TREE),
                entry.get("uses", "").split(), entry.get("holds", ""), entry.get("apart", ""))
