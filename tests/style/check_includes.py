"""Fails if a file includes, imports or loads a file that cmake/dependencies.ini does not allow for its
unit, if that table allows a pair that no file needs, or if a header includes the context, which would
make the state of every thread visible in every file.

Usage: check_includes.py ROOT
"""

from __future__ import annotations

import sys
from pathlib import Path
from typing import List, Set, Tuple

from dependency_table import TABLE, Table
from source_files import Uses, source_files

CONTEXT = "src/context/forwarder_context.h"


def faults_of(root: Path) -> Tuple[List[str], int]:
    table, files = Table(root), source_files(root)
    faults, used = table.faults(root), set()
    uses = Uses(root, files)
    for path in files:
        unit = table.unit_of(path)
        for name, target in uses.of(path).items():
            if target is None:
                faults.append(f"{path} includes {name}, which does not exist")
                continue
            other = table.unit_of(target)
            if other is unit:
                continue
            used.add((unit.name, other.name))
            if other.name not in unit.uses:
                faults.append(f"{path} includes {target}: {unit.name} may not use {other.name}")
            if target == CONTEXT and path.startswith("src/") and path.endswith(".h"):
                faults.append(f"{path} is a header and includes the context")
    return faults + unneeded(table, used), len(files)


def unneeded(table: Table, used: Set[Tuple[str, str]]) -> List[str]:
    return [f"{TABLE}: {unit.name} may use {name}, but no file of it does"
            for unit in table.units.values() for name in unit.uses
            if (unit.name, name) not in used]


def main() -> int:
    faults, count = faults_of(Path(sys.argv[1]))
    print("\n".join(faults) or f"{count} files, every include is allowed")
    return 1 if faults or not count else 0


if __name__ == "__main__":
    sys.exit(main())
