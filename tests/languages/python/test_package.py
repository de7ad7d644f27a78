"""The package: its types, and the wheel, which is built and installed without a network."""

from __future__ import annotations

import importlib.util
import re
import shutil
import subprocess
import sys
import zipfile
from pathlib import Path
from typing import Dict

import pytest

ROOT = Path(__file__).resolve().parents[3]
FOLDER = ROOT / "languages/python"


def require(module: str) -> None:
    if importlib.util.find_spec(module) is None:
        pytest.skip(f"python3-{module} is not installed")


def run(*words: object, folder: Path = FOLDER) -> str:
    """What a module of Python prints. Fails if it fails."""
    done = subprocess.run([sys.executable, "-B", *map(str, words)], cwd=folder, text=True, timeout=120,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
    assert done.returncode == 0, f"{words} ended with {done.returncode}:\n{done.stdout}"
    return done.stdout


@pytest.fixture(scope="module")
def wheel(tmp_path_factory: pytest.TempPathFactory) -> Path:
    for module in ("build", "setuptools", "wheel"):
        require(module)
    # The build writes into the folder of the source, and a copy must not have what an earlier one left there.
    source = tmp_path_factory.mktemp("source") / "python"
    shutil.copytree(FOLDER, source, ignore=shutil.ignore_patterns("build", "dist", "*.egg-info", "__pycache__"))
    run("-m", "build", "--wheel", "--no-isolation", "--outdir", source / "dist", folder=source)
    (found,) = (source / "dist").iterdir()
    return found


def project_version() -> str:
    found = re.search(r"project\(vesk VERSION (\S+)", (ROOT / "CMakeLists.txt").read_text(encoding="utf-8"))
    assert found is not None
    return found[1]


def test_wheel_is_named_after_the_version_of_the_project(wheel: Path) -> None:
    assert wheel.name == f"vesk_framing-{project_version()}-py3-none-any.whl"
    assert wheel.name in (FOLDER / "README.md").read_text(encoding="utf-8")


def test_wheel_holds_the_modules_and_the_marker_of_types(wheel: Path) -> None:
    contents: Dict[str, bytes] = {}
    with zipfile.ZipFile(wheel) as archive:
        contents = {name: archive.read(name) for name in archive.namelist() if ".dist-info/" not in name}
    source = FOLDER / "src"
    assert contents == {str(path.relative_to(source)): path.read_bytes() for path in source.glob("vesk_framing/**/*")
                        if path.is_file() and "__pycache__" not in path.parts}
    assert "vesk_framing/py.typed" in contents


def test_wheel_needs_nothing_but_python(wheel: Path) -> None:
    with zipfile.ZipFile(wheel) as archive:
        (metadata,) = (name for name in archive.namelist() if name.endswith("/METADATA"))
        text = archive.read(metadata).decode()
    assert "Requires-Python: >=3.11\n" in text and "Requires-Dist" not in text
    imported = {word for path in (FOLDER / "src").rglob("*.py")
                for word in re.findall(r"^(?:import|from) (\w+)", path.read_text(encoding="utf-8"), re.MULTILINE)}
    assert imported <= set(sys.stdlib_module_names)


def test_installed_wheel_works(wheel: Path, tmp_path: Path) -> None:
    require("pip")
    run("-m", "pip", "install", "--quiet", "--no-index", "--no-deps", "--no-compile", "--disable-pip-version-check",
        "--target", tmp_path / "installed", wheel, folder=tmp_path)
    # The datagram is the first example of docs/wire-format.md.
    said = run("-c", "from vesk_framing import *; print(make(Framing.UDPV2, 0x10001, b'hello', Key(bytes(range(16))))"
               ".hex())", folder=tmp_path / "installed")
    assert said == "ca1c952dd355266ae936a76ea8716b860001000168656c6c6f\n"


def test_types_are_complete(tmp_path: Path) -> None:
    """The library and its examples; mypy reads the settings from pyproject.toml."""
    require("mypy")
    said = run("-m", "mypy", "--cache-dir", tmp_path, "src", "examples")
    assert re.fullmatch(r"Success: no issues found in \d+ source files\n", said)
