"""The manual pages are well formed and complete, and their examples work as shown."""

from __future__ import annotations

import os
import re
import subprocess
from pathlib import Path
from typing import List

import pytest

from framework.bench import Bench
from framework.udp import UdpEnd, free_port
from framework.vesk_process import VeskProcess

_ROOT = Path(__file__).resolve().parents[2]
_PAGES = {path.name: path for path in map(Path, os.environ["VESK_PAGES"].split(":"))}

# scdoc starts every block with a paragraph, also where mandoc has just started one, so every page
# has this warning.
_HARMLESS = re.compile(r"WARNING: skipping paragraph macro: PP (empty|after S[HS])")

# The calls by which a reader takes a key of the file.
_KEY_READ = re.compile(r'\b(?:read\w+\(\*?\w+, |(?:text|choice|boolean|integer|table|array|require)\()"(\w+)"')

_OPTION = re.compile(r"(?<![\w-])--[a-z][a-z-]*")


def rendered(page: str) -> str:
    """The rendered text of a page as one line, since line breaks depend on the reader's width."""
    said = subprocess.run(["mandoc", "-Tascii", str(_PAGES[page])], check=True, text=True,
                          stdout=subprocess.PIPE).stdout
    return re.sub(r"\s+", " ", re.sub(".\x08", "", said))


def source(page: str) -> str:
    """The source of a page with the sections that it shares with docs/."""
    return Path(f"{_PAGES[page]}.scd").read_text()


def literal_blocks(page: str) -> List[str]:
    return re.findall(r"(?ms)^```\n(.*?)^```$", source(page))


@pytest.mark.parametrize("page", sorted(_PAGES))
def test_page_is_well_formed(page: str) -> None:
    said = subprocess.run(["mandoc", "-Tlint", "-W", "warning", str(_PAGES[page])], text=True,
                          stdout=subprocess.PIPE, check=False).stdout
    assert [line for line in said.splitlines() if not _HARMLESS.search(line)] == []


def test_every_source_is_a_page() -> None:
    assert sorted(_PAGES) == sorted(path.stem for path in (_ROOT / "man").glob("*.scd"))


@pytest.mark.parametrize("page", sorted(_PAGES))
def test_references_lead_to_existing_pages(page: str) -> None:
    """Only references to our own pages; other pages may not be installed."""
    named = re.findall(r"\*(vesk[\w.-]*)\*\((\d)\)", source(page))
    assert named
    assert {f"{name}.{section}" for name, section in named} <= set(_PAGES)


@pytest.mark.parametrize("page, program", [("vesk-traffic.1", "VESK_TRAFFIC"),
                                           ("vesk-controller.8", "VESK_CONTROLLER")])
def test_page_lists_exactly_the_options_of_the_program(page: str, program: str) -> None:
    said = subprocess.run([os.environ[program], "--help"], check=True, text=True,
                          stdout=subprocess.PIPE, timeout=30).stdout
    options = set(_OPTION.findall(said))
    assert options
    entries = {option for line in source(page).splitlines() if line.startswith("*-")
               for option in _OPTION.findall(line)}
    assert entries == options


def test_page_has_an_entry_for_every_key_that_the_controller_reads() -> None:
    text = "\n".join(path.read_text() for path in (_ROOT / "controller/config").glob("*_reader.cpp"))
    keys = set(_KEY_READ.findall(text))
    assert {"label", "upstream", "drain_seconds", "framing", "peers", "key_file", "dscp"} <= keys
    page = source("vesk-controller.toml.5").replace("\\", "")
    assert [key for key in sorted(keys) if not re.search(rf"\b{key}\b", page)] == []


def test_example_of_the_file_is_accepted(tmp_path: Path) -> None:
    (example,) = literal_blocks("vesk-controller.toml.5")
    (tmp_path / "vesk.toml").write_text(example)
    named = re.findall(r'key_file = "([^"]+)"', example)
    for name in named:
        subprocess.run([os.environ["VESK_CONTROLLER"], "--new-key", str(tmp_path / name)], check=True,
                       timeout=30)
    said = subprocess.run([os.environ["VESK_CONTROLLER"], "--check", str(tmp_path / "vesk.toml")],
                          check=True, timeout=30, stderr=subprocess.PIPE, text=True).stderr
    assert "flow" not in said, "the example causes no warning"


def test_answer_to_a_command_is_as_shown(tmp_path: Path) -> None:
    commands, answer, *_ = literal_blocks("vesk-control.7")
    assert log_of(commands, tmp_path) == answer.splitlines()


def test_session_is_as_shown(tmp_path: Path) -> None:
    *_, commands, answer = literal_blocks("vesk-control.7")
    # The port of the page may be taken on this host.
    port = f"port {free_port('0.0.0.0')}"
    said = [line.replace(port, "port 4500").replace(port.replace("port ", "0.0.0.0|"),
                                                    "0.0.0.0|4500")
            for line in log_of(commands.replace("port 4500", port), tmp_path)]
    assert [_masked(line) for line in said] == [_masked(line) for line in answer.splitlines()]


def _masked(line: str) -> str:
    """The lines without the numbers of threads and descriptors."""
    return re.sub(r"thread: [0-9a-f]+|\(\d+\)", "...", line)


def log_of(commands: str, folder: Path) -> List[str]:
    """The log of a forwarder after these commands, including the answer to the final fence."""
    vesk = VeskProcess(folder).ready()
    since = vesk.mark()
    vesk.write_input(commands.encode())
    fence = f"error Unrecognised command '{commands.split()[-1]}'"
    vesk.wait_for_log(fence, since)
    lines = vesk.log_lines(since)
    vesk.finish()
    return [line for line in lines[:lines.index(fence) + 1]
            if line and " sized to " not in line and not line.startswith("info Task [")]


def test_report_has_the_form_shown(tmp_path: Path) -> None:
    (shown,) = [block for block in literal_blocks("vesk-control.7") if "Poll stats" in block]
    vesk = VeskProcess(tmp_path).ready()
    with UdpEnd() as peer, UdpEnd() as upstream:
        bench = Bench(vesk, peer, upstream)
        bench.exchange(bench.control)
        report = [re.sub(r"\d+", "n", line) for line in vesk.lines_after("stats")]
    vesk.finish()
    workers = re.compile(r"(WakeNr:n,ReadyFdNr:n,DgNr:n )+")
    one_worker = [workers.sub("WakeNr:n,ReadyFdNr:n,DgNr:n ", line) for line in report]
    # There is no lateral stream, so the line with its figures is missing.
    assert [line for line in one_worker if line] == [line for line in shown.splitlines()[:-1]
                                                     if line]


def test_first_example_of_the_generator_works() -> None:
    command = literal_blocks("vesk-traffic.1")[0].split()
    assert command[0] == "vesk-traffic"
    command[0] = os.environ["VESK_TRAFFIC"]
    command[command.index("--") + 1] = os.environ["VESK_BINARY"]
    subprocess.run(command, check=True, timeout=60, stdout=subprocess.DEVNULL)
