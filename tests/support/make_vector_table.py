"""Writes the test vectors as a table of C++: one line of "name=value" pairs for each vector. The build runs this
script.

Usage: make_vector_table.py FOLDER > FILE
"""

from __future__ import annotations

import json
import sys
from pathlib import Path
from typing import Iterator


def lines(folder: Path) -> Iterator[str]:
    for path in sorted(folder.glob("*.json")):
        file = json.loads(path.read_text(encoding="ascii"))
        for vector in file.get("vectors", ()):
            yield " ".join([f"kind={file['kind']}", *(f"{name}={value}" for name, value in vector.items())])


def main() -> None:
    print('#include "support/vector_lines.h"\n\n#include <array>\n\nnamespace vesk {\n')
    rows = [f'"{line}"' for line in lines(Path(sys.argv[1]))]
    print(f"static constexpr std::array<std::string_view, {len(rows)}> rows{{{{")
    print(",\n".join(rows) + "}};\n")
    print("std::span<const std::string_view> vectorLines() {\n    return rows;\n}\n\n}  // namespace vesk")


if __name__ == "__main__":
    main()
