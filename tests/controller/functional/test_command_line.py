"""What the programs print for --help, --version, wrong options and --new-key."""

from __future__ import annotations

import os
import re
import subprocess
from pathlib import Path
from typing import Dict, Optional

import pytest

from controller_process import binary

KEY_LINE = re.compile(r"[0-9a-f]{64}\n")


def traffic() -> str:
    return os.path.abspath(os.environ["VESK_TRAFFIC"])


PROGRAMS = {"vesk-controller": binary, "vesk-traffic": traffic}


def run(*words: object, umask: int = 0o022, stdout: Optional[int] = subprocess.PIPE,
        folder: Optional[Path] = None) -> "subprocess.CompletedProcess[str]":
    return subprocess.run([str(word) for word in words], stdout=stdout, stderr=subprocess.PIPE,
                          text=True, check=False, timeout=20, umask=umask, cwd=folder)


@pytest.mark.parametrize("name", PROGRAMS)
def test_help_and_version(name: str) -> None:
    for option in ("--help", "-h"):
        helped = run(PROGRAMS[name](), option)
        assert (helped.returncode, helped.stderr) == (0, "")
        assert "--version" in helped.stdout
    told = run(PROGRAMS[name](), "--version")
    assert (told.returncode, told.stderr) == (0, "")
    assert re.fullmatch(rf"{name} \d+\.\d+\.\d+\n", told.stdout)


@pytest.mark.parametrize("name", PROGRAMS)
def test_wrong_option_is_named(name: str) -> None:
    wrong = run(PROGRAMS[name](), "--nonsense")
    assert wrong.returncode != 0
    assert wrong.stdout == ""
    assert "--nonsense" in wrong.stderr


STEERED = """[forwarder]
instances = 4
[downstream]
address = "::"
port = 4500
instance_ports = [4501, 4505]
[flows.alice]
label = 0x30001
upstream = "127.0.0.1:5000"
"""


def test_the_rules_for_the_packet_filter_are_printed(tmp_path: Path) -> None:
    file = tmp_path / "steered.toml"
    file.write_text(STEERED)
    printed = run(binary(), "--print-nft", file)
    assert (printed.returncode, printed.stderr) == (0, "")
    assert "elements = { 0 : 4501, 1 : 4502, 2 : 4503, 3 : 4504 }" in printed.stdout
    file.write_text(STEERED.replace("instances = 4", "").replace("instance_ports", "# "))
    printed = run(binary(), "--print-nft", file)
    assert (printed.returncode, printed.stderr) == (0, "")
    assert printed.stdout == "# none: the forwarder itself listens on the public port\n"
    assert run(binary(), "--print-nft", "--check", file).returncode == 2
    with open("/dev/full", "w", encoding="ascii") as full:
        assert run(binary(), "--print-nft", file, stdout=full.fileno()).returncode == 1


def test_a_check_prints_what_each_instance_gets(tmp_path: Path) -> None:
    file = tmp_path / "steered.toml"
    file.write_text(STEERED)
    said = run(binary(), "--check", file)
    assert said.returncode == 0
    parts = re.split(r"# instance \d\n", said.stdout)
    assert len(parts) == 5
    assert ["set label 0x30001" in part for part in parts[1:]] == [False, False, False, True]
    assert [f"start addr :: port {4501 + number}" in part
            for number, part in enumerate(parts[1:])] == [True] * 4


def test_a_check_names_the_remedy_for_a_missing_right(tmp_path: Path) -> None:
    file = tmp_path / "steered.toml"
    file.write_text(STEERED)
    without = ["setpriv", "--bounding-set=-net_admin", "--inh-caps=-net_admin"]
    if os.geteuid() != 0 or run(*without, "true").returncode != 0:
        pytest.skip("only root with all capabilities can run a program without CAP_NET_ADMIN")
    said = run(*without, binary(), "--check", file)
    assert said.returncode == 0
    assert ('warn controller: cannot steer port 4500 to the instances: the packet filter says '
            '"Operation not permitted"; grant CAP_NET_ADMIN') in said.stderr
    assert said.stderr.count("Operation not permitted") == 1


def test_new_key_is_printed() -> None:
    keys = [run(binary(), "--new-key") for _ in range(3)]
    assert all(key.returncode == 0 and KEY_LINE.fullmatch(key.stdout) for key in keys)
    assert len({key.stdout for key in keys}) == 3


@pytest.mark.parametrize("umask", [0o000, 0o022, 0o777])
def test_new_key_file_is_readable_by_owner_only(tmp_path: Path, umask: int) -> None:
    file = tmp_path / "alice.key"
    done = run(binary(), "--new-key", file, umask=umask)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
    assert file.stat().st_mode & 0o7777 == 0o600
    assert KEY_LINE.fullmatch(file.read_text())


def test_new_key_does_not_replace_a_file(tmp_path: Path) -> None:
    old: Dict[Path, str] = {}
    for name in ("plain", "empty"):
        old[tmp_path / name] = name if name != "empty" else ""
        (tmp_path / name).write_text(old[tmp_path / name])
    (tmp_path / "link").symlink_to("nothing")
    for name in ("plain", "empty", "link"):
        done = run(binary(), "--new-key", name, folder=tmp_path)
        assert (done.returncode, done.stdout) == (1, "")
        assert done.stderr == f"vesk-controller: {name} cannot be created: File exists\n"
    assert {path: path.read_text() for path in old} == old
    assert not (tmp_path / "nothing").exists()


def test_new_key_that_cannot_be_written_leaves_no_file(tmp_path: Path) -> None:
    done = subprocess.run(["prlimit", "--fsize=0", "env", "--ignore-signal=XFSZ", binary(), "--new-key",
                           str(tmp_path / "key")], capture_output=True, text=True, check=False, timeout=20)
    assert done.returncode == 1
    assert "key cannot be written" in done.stderr
    assert list(tmp_path.iterdir()) == []


def test_new_key_that_cannot_be_printed_is_an_error() -> None:
    with open("/dev/full", "wb") as full:
        done = run(binary(), "--new-key", stdout=full.fileno())
    assert done.returncode == 1
    assert "cannot be written" in done.stderr


def test_new_key_refuses_a_second_file(tmp_path: Path) -> None:
    done = run(binary(), "--new-key", tmp_path / "a.key", tmp_path / "vesk.toml")
    assert done.returncode == 2
    assert list(tmp_path.iterdir()) == []
