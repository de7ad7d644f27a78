"""The test vectors, read from the source tree."""

from __future__ import annotations

import json
from pathlib import Path
from typing import Any, Dict, List

FOLDER = Path(__file__).resolve().parents[2] / "vectors"

Json = Dict[str, Any]

SCHEMA: Json = json.loads((FOLDER / "schema.json").read_text(encoding="ascii"))
FILES: Dict[str, Json] = {path.stem: json.loads(path.read_text(encoding="ascii"))
                          for path in sorted(FOLDER.glob("*.json")) if path.name != "schema.json"}


def of_kind(kind: str) -> List[Json]:
    return [vector for file in FILES.values() if file["kind"] == kind for vector in file["vectors"]]


def refusals(operation: str) -> List[Json]:
    return [vector for vector in of_kind("refusals") if vector["operation"] == operation]
