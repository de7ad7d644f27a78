"""Assembles the root of the container image from Debian packages: the two programs, the libraries that they load,
CA certificates and time zones. A dependency that none of these needs, such as a shell, is left out.

Usage: assemble_root.py ROOT PACKAGE.deb...   (ROOT must not exist). scripts/build-image calls it.
"""

from __future__ import annotations

import os
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path
from typing import Dict, Iterable, Iterator, List, Set

PROGRAMS = ("usr/bin/vesk", "usr/bin/vesk-controller")
TREES = ("usr/share/zoneinfo", "usr/lib/os-release", "etc/os-release")
CERTIFICATES = "usr/share/ca-certificates"
BUNDLE = "etc/ssl/certs/ca-certificates.crt"

# Debian 12 has the old folders only as links; packages still name them.
MERGED = ("bin", "sbin", "lib", "lib64")
# Where a container runtime mounts something, since it cannot create folders in a root that is read-only.
MOUNT_POINTS = ("dev", "etc/vesk/conf.d", "proc", "run", "sys", "tmp")

# The user is above those that Debian and its administrators assign.
USER = 10001
TEXTS = {
    "etc/passwd": f"root:x:0:0:root:/:/usr/sbin/nologin\nvesk:x:{USER}:{USER}:Vesk:/:/usr/sbin/nologin\n",
    "etc/group": f"root:x:0:\nvesk:x:{USER}:\n",
    "etc/nsswitch.conf": "passwd: files\ngroup: files\nhosts: files dns\n",
}


def output(*words: object) -> str:
    return subprocess.run([str(word) for word in words], stdout=subprocess.PIPE, text=True, check=True).stdout


def merged(path: str) -> str:
    """The path of a package's file without links in its folders."""
    path = path.removeprefix(".").strip("/")
    return f"usr/{path}" if path.split("/")[0] in MERGED else path


class Packages:
    """Packages unpacked into one folder, and the owner of each file."""

    def __init__(self, folder: Path, files: Iterable[Path]) -> None:
        self.folder = folder
        self.control: Dict[str, str] = {}
        self._owners: Dict[str, str] = {}
        for name in MERGED:
            (folder / "usr" / name).mkdir(parents=True)
            (folder / name).symlink_to(f"usr/{name}")
        for file in files:
            # dpkg-deb's own extraction would replace the links by folders.
            archive = subprocess.run(["dpkg-deb", "--fsys-tarfile", str(file)], stdout=subprocess.PIPE, check=True)
            subprocess.run(["tar", "--extract", "--keep-directory-symlink", "--directory", str(folder)],
                           input=archive.stdout, check=True)
            name = output("dpkg-deb", "--field", file, "Package").strip()
            self.control[name] = output("dpkg-deb", "--field", file)
            for line in output("dpkg-deb", "--contents", file).splitlines():
                path = line.split(maxsplit=5)[5].split(" -> ")[0]
                self._owners[merged(path)] = name

    def owner(self, path: str) -> str:
        return self._owners[path]

    def library(self, name: str) -> str:
        """The path of the library that the loader finds by this name. It looks below the architecture first."""
        found = sorted(path for path in self._owners
                       if re.fullmatch(rf"usr/lib(/[^/]+-linux-gnu[^/]*)?/{re.escape(name)}", path))
        if not found:
            raise SystemExit(f"assemble_root.py: no package has the library {name}")
        return next((path for path in found if path.count("/") == 3), found[0])

    def linked(self, path: str) -> Iterator[str]:
        """The path, and those of the files to which it links one after the other."""
        yield path
        while (self.folder / path).is_symlink():
            target = os.readlink(self.folder / path)
            path = merged(os.path.normpath(os.path.join("/", os.path.dirname(path), target)))
            yield path

    def loaded(self, programs: Iterable[str]) -> Set[str]:
        """The files that the loader maps for these programs, and the loader."""
        found: Set[str] = set()
        waiting = [*programs]
        while waiting:
            chain = [*self.linked(waiting.pop())]
            if not found.issuperset(chain):
                found.update(chain)
                waiting += self._needed(self.folder / chain[-1])
        return found

    def _needed(self, file: Path) -> List[str]:
        text = output("readelf", "--wide", "--dynamic", "--program-headers", file)
        loader = re.findall(r"program interpreter: (\S+)\]", text)
        return [merged(path) for path in loader] + [
            self.library(name) for name in re.findall(r"\(NEEDED\).*\[(.+)\]", text)]


def files_below(packages: Packages, tree: str) -> Iterator[str]:
    top = packages.folder / tree
    for path in [top, *(sorted(top.rglob("*")) if top.is_dir() and not top.is_symlink() else [])]:
        if path.is_symlink() or path.is_file():
            yield str(path.relative_to(packages.folder))


def copy(packages: Packages, paths: Iterable[str], root: Path) -> None:
    for path in sorted(paths):
        (root / path).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(packages.folder / path, root / path, follow_symlinks=False)


def write(root: Path, path: str, text: str) -> None:
    (root / path).parent.mkdir(parents=True, exist_ok=True)
    (root / path).write_text(text, encoding="utf-8")


def assemble(packages: Packages, root: Path) -> None:
    paths = packages.loaded(PROGRAMS)
    paths.update(*(files_below(packages, tree) for tree in TREES))
    certificates = [path for path in files_below(packages, CERTIFICATES) if path.endswith(".crt")]
    owners = {packages.owner(path) for path in [*paths, *certificates]}
    copy(packages, paths, root)
    for name in MERGED:
        if (root / "usr" / name).is_dir():
            (root / name).symlink_to(f"usr/{name}")
    for name in MOUNT_POINTS:
        (root / name).mkdir(parents=True)
    for path, text in TEXTS.items():
        write(root, path, text)
    write(root, BUNDLE, "".join((packages.folder / path).read_text() for path in certificates))
    for name in owners:
        # The form in which scanners expect the packages of an image that has no dpkg.
        write(root, f"var/lib/dpkg/status.d/{name}", packages.control[name])
        notice = f"usr/share/doc/{name}/copyright"
        write(root, notice, (packages.folder / notice).read_text(encoding="utf-8"))


def normalise(root: Path, seconds: int) -> None:
    """Gives every entry the same time, and modes that do not depend on who made it."""
    for path in [root, *root.rglob("*")]:
        if not path.is_symlink():
            path.chmod(0o755 if path.is_dir() or os.access(path, os.X_OK) and path.stat().st_mode & 0o111 else 0o644)
        os.utime(path, (seconds, seconds), follow_symlinks=False)


def main() -> int:
    if len(sys.argv) < 3:
        print("Usage: assemble_root.py ROOT PACKAGE.deb...", file=sys.stderr)
        return 2
    root = Path(sys.argv[1])
    root.mkdir()
    with tempfile.TemporaryDirectory() as folder:
        assemble(Packages(Path(folder), map(Path, sys.argv[2:])), root)
    normalise(root, int(os.environ["SOURCE_DATE_EPOCH"]))
    return 0


if __name__ == "__main__":
    sys.exit(main())
