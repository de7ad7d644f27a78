"""docs/tutorial-framing.md: types every command and compares every output."""

from __future__ import annotations

import re
from pathlib import Path
from typing import List

from shell import Shell, free_ports, wait_until
# The fixtures too.
from walkthrough import ROOT, Block, blocks_of, own_files, shell, temporary, tree, with_ports

_PORTS = ["4500", "5000", "9477"]


def blocks() -> List[Block]:
    return blocks_of((ROOT / "docs/tutorial-framing.md").read_text(encoding="utf-8"))


def file_of(block: Block, name: str) -> List[str]:
    """The lines of a file that the commands of a block write."""
    (found,) = re.findall(rf"^cat > {re.escape(name)} <<'END'\n(.*?)^END$", block.commands, re.MULTILINE | re.DOTALL)
    return found.splitlines()


def block_with(name: str) -> Block:
    (found,) = (block for block in blocks() if f"cat > {name} " in block.commands)
    return found


def test_programs_in_python_have_30_lines_at_most() -> None:
    for name in ("echo.py", "peer.py"):
        assert 10 < len(file_of(block_with(name), name)) <= 30


def test_file_is_that_of_the_readme() -> None:
    readme = (ROOT / "README.md").read_text(encoding="utf-8")
    assert "".join(f"{line}\n" for line in file_of(block_with("alice.toml"), "alice.toml")) in readme


# What a block starts, and the line of which file says that it is ready. A reader types slowly enough for that.
_STARTED = (("vesk-controller alice.toml", "alice.log", "the forwarder is set up"),
            ("python3 echo.py", "echo.log", "ready"), ("./echo", "echo_cpp.log", "ready"))


def wait_for_what_starts(commands: str, folder: Path) -> None:
    for command, name, line in _STARTED:
        if f"{command} " in commands:
            wait_until(lambda: any(line in path.read_text() for path in folder.glob(f"*/{name}")), f"{name}: {line}")


def test_every_command_does_what_is_shown(shell: Shell, tree: Path, temporary: Path) -> None:
    """Also checks that no process and no file remains."""
    ports = free_ports(_PORTS)
    build, *walk = blocks()
    assert "cmake --build" in build.commands and len(walk) >= 10
    for block in walk:
        commands = with_ports(block.commands, ports).replace(
            "[downstream]\n", f"[metrics]\nport = {ports['9477']}\n[downstream]\n")
        assert shell.type(commands) == block.output, block.commands
        wait_for_what_starts(commands, temporary)
        assert own_files(tree) == {}, block.commands
    assert len([block for block in walk if block.output]) >= 5
    wait_until(lambda: shell.type("jobs -r") == "", "all that was started has ended")
    assert list(temporary.iterdir()) == []
