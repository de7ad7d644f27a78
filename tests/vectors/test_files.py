"""The files are what the script writes, and have the form that the schema and the page describe."""

from __future__ import annotations

import copy
import importlib
import importlib.util
import re
import shutil
import subprocess
import sys
from pathlib import Path
from typing import Any, List, Set

import pytest

from small_schema import Schema
from vector_files import FILES, FOLDER, SCHEMA, Json, of_kind

_PAGE = (FOLDER.parent / "docs/vectors.md").read_text(encoding="utf-8")
_NAMES = sorted(FILES)


def check(folder: Path) -> "subprocess.CompletedProcess[str]":
    return subprocess.run([sys.executable, "-B", str(folder / "make.py"), "--check"], text=True, timeout=60,
                          stdout=subprocess.PIPE, check=False)


def test_files_are_what_the_script_writes() -> None:
    done = check(FOLDER)
    assert (done.returncode, done.stdout) == (0, "")


def test_changed_missing_and_additional_files_are_noticed(tmp_path: Path) -> None:
    folder = tmp_path / "vectors"
    shutil.copytree(FOLDER, folder)
    changed = folder / "keys.json"
    changed.write_text(changed.read_text().replace("udpv1-sha1-key-007", "udpv1-sha1-key-7"))
    (folder / "lateral.json").unlink()
    (folder / "other.json").write_text("{}")
    done = check(folder)
    assert done.returncode == 1
    assert done.stdout.split() == [word for name in ("keys", "lateral", "other") for word in
                                   f"vectors/{name}.json is not what vectors/make.py writes".split()]


def test_script_needs_nothing_but_python() -> None:
    text = (FOLDER / "make.py").read_text()
    modules = set(re.findall(r"^(?:import|from) (\w+)", text, re.MULTILINE))
    assert modules <= set(sys.stdlib_module_names)


def test_files_are_small() -> None:
    assert sum(path.stat().st_size for path in FOLDER.glob("*.json")) < 500_000


@pytest.mark.parametrize("name", _NAMES)
def test_identifiers_are_unique(name: str) -> None:
    names = [vector["id"] for vector in FILES[name]["vectors"]]
    assert len(names) == len(set(names))


@pytest.mark.parametrize("name", _NAMES)
def test_file_has_the_form_of_the_schema(name: str) -> None:
    assert list(Schema(SCHEMA).faults(FILES[name])) == []
    # The alternatives of a file hide what is wrong in it, so its vectors are checked by themselves too.
    part = {"$ref": f"#/$defs/{FILES[name]['kind']}"}
    assert [fault for vector in FILES[name]["vectors"] for fault in Schema(SCHEMA).faults(vector, part)] == []


@pytest.mark.skipif(importlib.util.find_spec("jsonschema") is None, reason="python3-jsonschema is not installed")
@pytest.mark.parametrize("name", _NAMES)
def test_file_is_valid_by_the_schema(name: str) -> None:
    jsonschema = importlib.import_module("jsonschema")
    jsonschema.Draft202012Validator.check_schema(SCHEMA)
    validator = jsonschema.Draft202012Validator(SCHEMA)
    assert [error.message for error in validator.iter_errors(FILES[name])] == []
    broken = copy.deepcopy(FILES[name])
    broken["vectors"][0]["id"] = "Not An Id"
    assert [*validator.iter_errors(broken)] != []


def _broken_vectors() -> List[Any]:
    datagram, refusal = of_kind("datagrams")[0], of_kind("refusals")[0]
    return [
        ("datagrams", {**datagram, "label": 2**32}), ("datagrams", {**datagram, "label": -1}),
        ("datagrams", {**datagram, "label": "1"}), ("datagrams", {**datagram, "key": "0"}),
        ("datagrams", {**datagram, "key": "AB"}), ("datagrams", {**datagram, "key": "00" * 129}),
        ("datagrams", {**datagram, "framing": "udpv3"}), ("datagrams", {**datagram, "more": ""}),
        ("datagrams", {name: datagram[name] for name in datagram if name != "hmac"}),
        ("datagrams", [datagram]), ("refusals", {**refusal, "reason": "bad"}),
        ("refusals", {**refusal, "cause": "bad"}), ("refusals", {**refusal, "operation": "datagram"}),
    ]


@pytest.mark.parametrize("kind, vector", _broken_vectors())
def test_schema_refuses_what_has_another_form(kind: str, vector: Json) -> None:
    assert [*Schema(SCHEMA).faults(vector, {"$ref": f"#/$defs/{kind}"})] != []


def _in_schema(field: str) -> Set[str]:
    """The values that the schema lists for a field of the refusals."""
    return {value for name, part in SCHEMA["$defs"].items() if name.startswith("refused_")
            for value in part["properties"][field]["enum"]}


@pytest.mark.parametrize("field", ["reason", "cause"])
def test_each_listed_reason_and_cause_occurs_and_is_described(field: str) -> None:
    used = {vector[field] for vector in of_kind("refusals")}
    assert used == _in_schema(field)
    assert [value for value in sorted(used) if f"`{value}`" not in _PAGE] == []


def test_page_describes_every_file_and_field() -> None:
    fields = {name for file in FILES.values() for name in file}
    fields |= {name for file in FILES.values() for vector in file["vectors"] for name in vector}
    assert [name for name in sorted(fields) if f"`{name}`" not in _PAGE] == []
    assert [name for name in _NAMES if f"`{name}.json`" not in _PAGE] == []
