"""The sections that man/expand_page.py converts from Markdown pages for the manual pages."""

from __future__ import annotations

import subprocess
import sys
from pathlib import Path

import pytest

_SCRIPT = Path(__file__).resolve().parents[2] / "man/expand_page.py"


def expand(folder: Path, markdown: str, name: str = "part") -> "subprocess.CompletedProcess[str]":
    (folder / "page.md").write_text(markdown, encoding="utf-8")
    (folder / "page.scd").write_text(f"# HEADING\n\n@include page.md {name}\n\n# NEXT\n", encoding="utf-8")
    return subprocess.run([sys.executable, "-B", str(_SCRIPT), str(folder), str(folder / "page.scd")],
                          capture_output=True, text=True, check=False, timeout=30)


def included(folder: Path, section: str) -> str:
    done = expand(folder, f"before\n<!-- man part -->\n\n{section}\n\n<!-- end part -->\nafter\n")
    assert (done.returncode, done.stderr) == (0, "")
    return done.stdout.split("# HEADING\n\n")[1].split("\n\n# NEXT\n")[0]


@pytest.mark.parametrize(("markdown", "scdoc"), [
    ("A `name_of` it, and *this* [link](page.md#x).", "A *name\\_of* it, and *this* link."),
    ("host`|`port", "host|port"),
    ("plain_name", "plain\\_name"),
    ("## Memory", "## Memory"),
    ("- *One.* Two\n  three", "- *One.* Two\n  three"),
    ("```sh\na_b·\n\nc\n```", "```\na_b \n\nc\n```"),
    ("| Name | Meaning |\n|---|---|\n| `a_b`, `c` | the `d` |\n| 255 | Bad. |",
     "*a\\_b*, *c*\n\tThe *d*.\n\n*255*\n\tBad."),
    ("| Name | Value | Meaning | Default |\n|---|---|---|---|\n| `a` | x`\\|`y | it | 0 |\n"
     "| `b` | 1 | this | - |",
     "*a*\n\tIt. Value: x|y. Default: 0.\n\n*b*\n\tThis. Value: 1."),
    ("| Command | Effect |\n|---|---|\n| `set label N [A_B]...` | Sets it |",
     "*set* label N [A\\_B]...\n\tSets it."),
])
def test_section_is_converted(tmp_path: Path, markdown: str, scdoc: str) -> None:
    assert included(tmp_path, markdown) == scdoc


@pytest.mark.parametrize("markdown", [
    "no section at all",
    "<!-- man part -->\nwithout an end",
    "<!-- man part -->\ntwice\n<!-- end part -->\n<!-- man part -->\ntwice\n<!-- end part -->\n",
])
def test_missing_or_duplicate_section_is_reported(tmp_path: Path, markdown: str) -> None:
    done = expand(tmp_path, markdown)
    assert done.returncode != 0
    assert "part" in done.stderr and "page.md" in done.stderr
