"""Makes the Debian packages and installs them in folders instead of on this host."""

from __future__ import annotations

import os
import shutil
import subprocess
from pathlib import Path
from typing import Dict, List, NamedTuple, Tuple

# Any fixed time, so that the packages always contain the same bytes.
_BUILD_TIME = "1700000000"


def run(*words: object) -> str:
    """The output of a program. Fails if the program does."""
    result = subprocess.run([str(word) for word in words], text=True, timeout=300,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
    assert result.returncode == 0, f"{words} ended with {result.returncode}:\n{result.stdout}"
    return result.stdout


def build_packages(folder: Path) -> Dict[str, Path]:
    """Runs CPack on the build tree under test and returns the packages by name. They are compressed with gzip: xz,
    with which they are shipped, needs four times as long."""
    run("env", f"SOURCE_DATE_EPOCH={_BUILD_TIME}", os.environ["VESK_CPACK"],
        "--config", os.environ["VESK_CPACK_CONFIG"], "-D", "CPACK_DEBIAN_COMPRESSION_TYPE=gzip", "-B", folder)
    return {path.name.split("_")[0]: path for path in sorted(folder.glob("*.deb"))}


class Entry(NamedTuple):
    """A file or a folder in a package."""

    mode: str
    owner: str


def contents(package: Path) -> Dict[str, Entry]:
    """The entries that a package installs, by path."""
    found = {}
    for line in run("dpkg-deb", "--contents", package).splitlines():
        mode, owner, _size, _date, _time, path = line.split(maxsplit=5)
        name, _, _target = path.partition(" -> ")
        found[name.removeprefix(".").rstrip("/")] = Entry(mode, owner)
    found.pop("", None)
    return found


def field(package: Path, name: str) -> str:
    return run("dpkg-deb", "--field", package, name).strip()


def _without_root() -> List[str]:
    """The command prefix that lets dpkg run without the rights of root."""
    return [] if os.geteuid() == 0 else ["fakeroot"]


def refusal_to_install() -> str:
    """The reason why packages cannot be installed in a folder here, if any."""
    missing = [word for word in [*_without_root(), "dpkg"] if shutil.which(word) is None]
    return f"not installed: {', '.join(missing)}" if missing else ""


class Root:
    """A folder that dpkg uses as the root of a system.

    It contains none of the packages' dependencies, and their scripts run outside of it with DPKG_ROOT
    set. Neither a complete system nor root's rights are needed.
    """

    def __init__(self, path: Path) -> None:
        self.path = path
        for folder in ("info", "updates", "triggers"):
            (path / "var/lib/dpkg" / folder).mkdir(parents=True)
        (path / "var/lib/dpkg/status").touch()

    def _dpkg(self, *words: object) -> str:
        return run(*_without_root(), "dpkg", f"--root={self.path}", "--force-depends",
                   "--force-script-chrootless", "--force-confold", "--log=/dev/null", *words)

    def install(self, *packages: Path) -> str:
        return self._dpkg("--install", *packages)

    def remove(self, *names: str) -> None:
        self._dpkg("--remove", *names)

    def purge(self, *names: str) -> None:
        self._dpkg("--purge", *names)

    def states(self) -> Dict[str, str]:
        """The packages that dpkg knows in this root, with their states."""
        lines = run("dpkg-query", f"--admindir={self.path}/var/lib/dpkg", "--show",
                    "--showformat=${Package} ${db:Status-Status}\n").splitlines()
        pairs: List[Tuple[str, str]] = [(*line.split(),) for line in lines]  # type: ignore[misc]
        return dict(pairs)

    def files(self) -> List[str]:
        """All files except dpkg's own."""
        return sorted(str(path.relative_to(self.path)) for path in self.path.rglob("*")
                      if not path.is_dir() and "var/lib/dpkg" not in str(path))

    def __truediv__(self, path: str) -> Path:
        return self.path / path
