"""Writes a manual page's source for scdoc, with the parts that it takes from the Markdown pages.

A line "@include docs/PAGE.md NAME" in the source stands for the text between "<!-- man NAME -->" and
"<!-- end NAME -->" of that page. Of Markdown it may use paragraphs, lists, fenced blocks, headings of
level 2 and tables: the first column of a table becomes the term of a definition, the columns behind it
its text. Called by CMake for each page and by a test.

Usage: expand_page.py ROOT-DIRECTORY SOURCE > RESULT
"""

import re
import sys
from pathlib import Path

INCLUDE = re.compile(r"^@include (\S+) (\S+)$", re.MULTILINE)
INLINE = re.compile(r"`([^`]+)`|\[([^\]]+)\]\([^)]*\)|\*\*([^*]+)\*\*|\*([^*]+)\*|([\\_*])")


def section(page: Path, name: str) -> str:
    text = page.read_text(encoding="utf-8")
    begin, end = f"<!-- man {name} -->\n", f"<!-- end {name} -->"
    if text.count(begin) != 1 or text.count(end) != 1:
        raise SystemExit(f"{page} must have one section {name}")
    return text.split(begin)[1].split(end)[0].strip()


def escaped(text: str) -> str:
    return re.sub(r"([\\_*])", r"\\\1", text.replace(r"\|", "|"))


def inline(text: str) -> str:
    """Code and emphasis become bold, links plain text."""
    def convert(found: "re.Match[str]") -> str:
        code, link, strong, emphasis, special = found.groups()
        if code is not None:
            return f"*{escaped(code)}*"
        if special is not None:
            return f"\\{special}"
        if link is not None:
            return inline(link)
        return f"*{escaped((strong or emphasis).replace('`', ''))}*"
    return INLINE.sub(convert, text.replace(r"\|", "|").replace("`|`", "|"))


def term(cell: str) -> str:
    """Of a command with its arguments only the command is bold."""
    def convert(found: "re.Match[str]") -> str:
        first, _, rest = found[1].partition(" ")
        return f"*{escaped(first)}* {escaped(rest)}".rstrip()
    converted = re.sub(r"`([^`]+)`", convert, cell)
    return converted if converted != cell else f"*{escaped(cell)}*"


def sentence(text: str) -> str:
    text = text[:1].upper() + text[1:] if not text.startswith("`") else text
    return text if text.endswith(".") else text + "."


def definition(names: list[str], cells: list[str]) -> str:
    """A row: the meaning first, then the columns that have a name of their own."""
    values = dict(zip(names[1:], cells[1:]))
    parts = [sentence(values.pop(names[-1] if "Meaning" not in values else "Meaning"))]
    parts += [sentence(f"{name}: {value}") for name, value in values.items() if value not in ("", "-")]
    return f"{term(cells[0])}\n\t{inline(' '.join(parts))}"


def table(lines: list[str]) -> str:
    rows = [[cell.strip() for cell in re.split(r"(?<!\\)\|", line)[1:-1]] for line in lines]
    return "\n\n".join(definition(rows[0], row) for row in rows[2:])


def block(text: str) -> str:
    if text.startswith("```"):
        # The pages show a space at the end of a line as a dot.
        return re.sub(r"\A```\w*", "```", text).replace("·", " ")
    if text.startswith("|"):
        return table(text.splitlines())
    if text.startswith("## "):
        return f"## {inline(text[3:])}"
    return inline(text)


def blocks(text: str) -> list[str]:
    """Split at empty lines, but not within a fenced block."""
    found: list[str] = []
    for number, part in enumerate(re.split(r"^(```.*?^```)$", text, flags=re.MULTILINE | re.DOTALL)):
        found += [part] if number % 2 else [one.strip("\n") for one in part.split("\n\n")]
    return [one for one in found if one]


def converted(text: str) -> str:
    return "\n\n".join(block(one) for one in blocks(text))


def expanded(source: str, root: Path) -> str:
    return INCLUDE.sub(lambda found: converted(section(root / found[1], found[2])), source)


if __name__ == "__main__":
    sys.stdout.write(expanded(Path(sys.argv[2]).read_text(encoding="utf-8"), Path(sys.argv[1])))
