"""Checks a JSON value by the part of JSON Schema that vectors/schema.json uses, without a package."""

from __future__ import annotations

import re
from typing import Any, Dict, Iterator

Json = Dict[str, Any]

_TYPES = {"object": dict, "array": list, "string": str, "integer": int}
_KNOWN = {"$schema", "$defs", "title", "$ref", "type", "const", "enum", "pattern", "minimum", "maximum", "minItems",
          "items", "properties", "required", "additionalProperties", "oneOf"}


class Schema:
    def __init__(self, whole: Json) -> None:
        self._whole = whole

    def faults(self, value: Any, part: "Json | None" = None, place: str = "$") -> Iterator[str]:
        """What is wrong with the value, with the place of each fault."""
        schema = self._whole if part is None else part
        unknown = set(schema) - _KNOWN
        if unknown:
            raise ValueError(f"the schema has {unknown}, which this checker does not know")
        if "$ref" in schema:
            schema = self._whole["$defs"][schema["$ref"].removeprefix("#/$defs/")]
        if "oneOf" in schema:
            fitting = [one for one in schema["oneOf"] if not any(self.faults(value, one, place))]
            if len(fitting) != 1:
                yield f"{place}: fits {len(fitting)} of the alternatives"
        if "type" in schema and not isinstance(value, _TYPES[schema["type"]]):
            yield f"{place}: is no {schema['type']}"
            return
        yield from _faults_of_scalar(value, schema, place)
        yield from self._faults_below(value, schema, place)

    def _faults_below(self, value: Any, schema: Json, place: str) -> Iterator[str]:
        if isinstance(value, dict) and "properties" in schema:
            properties = schema["properties"]
            yield from (f"{place}: lacks {name}" for name in schema["required"] if name not in value)
            for name, below in value.items():
                if name in properties:
                    yield from self.faults(below, properties[name], f"{place}.{name}")
                elif not schema["additionalProperties"]:
                    yield f"{place}: has {name}"
        if isinstance(value, list) and "items" in schema:
            for number, below in enumerate(value):
                yield from self.faults(below, schema["items"], f"{place}[{number}]")


def _faults_of_scalar(value: Any, schema: Json, place: str) -> Iterator[str]:
    if "const" in schema and value != schema["const"]:
        yield f"{place}: is not {schema['const']}"
    if "enum" in schema and value not in schema["enum"]:
        yield f"{place}: {value} is not in the list"
    if "pattern" in schema and not re.search(schema["pattern"], value):
        yield f"{place}: does not match {schema['pattern']}"
    if isinstance(value, int) and not schema.get("minimum", value) <= value <= schema.get("maximum", value):
        yield f"{place}: {value} is out of range"
    if isinstance(value, list) and len(value) < schema.get("minItems", 0):
        yield f"{place}: has too few items"
