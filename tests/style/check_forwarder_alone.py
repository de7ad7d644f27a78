"""Fails if the forwarder alone needs more than a compiler, CMake and libcrypto: configures it with
everything else disabled and every other package hidden, and checks which libraries it links.

Usage: check_forwarder_alone.py ROOT CMAKE
"""

from __future__ import annotations

import re
import subprocess
import sys
import tempfile
from pathlib import Path

OPTIONS = ("CONTROLLER", "TOOLS", "FRAMING", "BENCH", "TESTS")
ALLOWED_PACKAGES = {"OpenSSL", "Threads"}
_PACKAGE = re.compile(r"^\s*(?:find_package|find_dependency)\((\w[\w+-]*)", re.MULTILINE)
_LINKS = re.compile(r"^build vesk: CXX_EXECUTABLE_LINKER.*?LINK_LIBRARIES = ([^\n]*)", re.MULTILINE | re.DOTALL)


def other_packages(root: Path) -> "set[str]":
    """Every package that any part of the project searches for."""
    found = set()
    for folder in ("cmake", "src", "framing", "tools", "bench", "controller", "man", "packaging", "tests"):
        for path in [*(root / folder).rglob("CMakeLists.txt"), *(root / folder).rglob("*.cmake")]:
            found.update(_PACKAGE.findall(path.read_text(encoding="utf-8")))
    return found - ALLOWED_PACKAGES - {"PkgConfig"}


def main() -> int:
    root, cmake = Path(sys.argv[1]), sys.argv[2]
    with tempfile.TemporaryDirectory(prefix="vesk-alone-") as tree:
        settings = [f"-DVESK_BUILD_{name}=OFF" for name in OPTIONS]
        # Not disabled like the others, because the search for libcrypto always calls it.
        settings.append("-DPKG_CONFIG_EXECUTABLE=/nonexistent/pkg-config")
        settings += [f"-DCMAKE_DISABLE_FIND_PACKAGE_{name}=TRUE" for name in sorted(other_packages(root))]
        done = subprocess.run([cmake, "-S", str(root), "-B", tree, "-G", "Ninja", "-DVESK_HARDENING=ON",
                               *settings], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              check=False)
        if done.returncode != 0:
            print(done.stdout)
            return 1
        found = _LINKS.search((Path(tree) / "build.ninja").read_text(encoding="utf-8"))
    if found is None:
        print("the program vesk is not built")
        return 1
    others = [name for name in found[1].split() if not re.fullmatch(r"src/libvesk_\w+\.a", name)
              and not name.startswith("-Wl,") and "libcrypto" not in name]
    print(f"vesk links {' '.join(others)} too" if others else "vesk links libcrypto and its own libraries")
    return 1 if others else 0


if __name__ == "__main__":
    sys.exit(main())
