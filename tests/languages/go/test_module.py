"""The Go module: its own tests, its format, the findings of vet, and what its page says."""

from __future__ import annotations

import re
import textwrap

import pytest

from tools import ROOT, need, run

_MODULE = ROOT / "languages/go"


@pytest.fixture(autouse=True)
def _go() -> None:
    need("go")
    need("gofmt")


def test_own_tests_pass() -> None:
    # Go would reuse a result after the vectors have changed, because they are outside of the module.
    run(_MODULE, "go", "test", "-count=1", "./...")


def test_source_is_formatted() -> None:
    assert run(_MODULE, "gofmt", "-l", ".") == ""


def test_vet_finds_nothing() -> None:
    run(_MODULE, "go", "vet", "./...")


def test_only_the_standard_library_is_used() -> None:
    packages = run(_MODULE, "go", "list", "-deps", "-f", "{{if not .Standard}}{{.ImportPath}}{{end}}", "./...").split()
    assert {package.split("/examples/")[0] for package in packages} == {"vesk.example/framing"}


def test_example_of_the_page_is_the_tested_one() -> None:
    (code,) = re.findall(r"(?ms)^```go\n(.*?)^```$", (_MODULE / "README.md").read_text())
    assert textwrap.indent(code, "\t") in (_MODULE / "example_test.go").read_text()
