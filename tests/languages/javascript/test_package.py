"""The JavaScript package: its own tests, its types, its files, and what its page says."""

from __future__ import annotations

import json
import re

import pytest

from tools import ROOT, need, run

_PACKAGE = ROOT / "languages/javascript"


@pytest.fixture(autouse=True)
def _node() -> None:
    need("node")


def test_own_tests_pass() -> None:
    said = run(_PACKAGE, "node", "--test", *sorted(str(file) for file in _PACKAGE.glob("test/*.test.js")))
    # Each file counts as a test of its own in some versions.
    assert re.search(r"(?m)^\S+ fail 0$", said) and re.search(r"(?m)^\S+ skipped 0$", said), said


def test_types_fit_their_use() -> None:
    need("tsc")
    run(_PACKAGE, "tsc", "--noEmit", "--project", ".")


def test_package_has_the_version_of_the_project_and_lists_its_files() -> None:
    package = json.loads((_PACKAGE / "package.json").read_text())
    assert sorted(package["files"]) == sorted(file.name for file in _PACKAGE.glob("*.*s"))
    assert "dependencies" not in package
    project = re.search(r"project\(vesk VERSION (\S+)", (ROOT / "CMakeLists.txt").read_text())
    assert project is not None and package["version"] == project[1]
    imported = {name for file in _PACKAGE.glob("*.js") for name in re.findall(r"from '(.*)'", file.read_text())}
    assert imported == {"node:crypto", "./layout.js"}


def test_example_of_the_page_works() -> None:
    (code,) = re.findall(r"(?ms)^```js\n(.*?)^```$", (_PACKAGE / "README.md").read_text())
    said = run(_PACKAGE, "node", "--input-type=module", "--eval", code)
    assert said.splitlines() == ["ca1c952dd355266ae936a76ea8716b860001000168656c6c6f", "65537 hello",
                                 "the HMAC of the datagram is wrong"]
