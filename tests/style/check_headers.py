"""Fails if a header does not compile on its own. The build checks a header with a source file of the
same name if that file includes the header first; the other headers are compiled here.

Usage: check_headers.py ROOT COMPILER
"""

from __future__ import annotations

import os
import re
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import List, Optional

from source_files import header_folders, source_files

_FIRST_INCLUDE = re.compile(r'^\s*#\s*include\s+[<"]([^>"]+)[>"]', re.MULTILINE)


def included_first(root: Path, header: str, source: str) -> bool:
    found = _FIRST_INCLUDE.search((root / source).read_text(encoding="utf-8"))
    return found is not None and header.endswith("/" + found[1])


def fault_of(root: Path, compiler: str, header: str) -> Optional[str]:
    folders = [f"-I{folder}" for folder in (Path(header).parent.as_posix(), *header_folders(header))]
    done = subprocess.run([compiler, "-std=c++20", "-fsyntax-only", "-Wall", "-Wextra", "-Werror",
                           "-DOPENSSL_SUPPRESS_DEPRECATED", *folders, "-include", header,
                           "-x", "c++", os.devnull],
                          cwd=root, stderr=subprocess.PIPE, text=True, check=False)
    return f"{header} does not compile on its own:\n{done.stderr}" if done.returncode else None


def main() -> int:
    root, compiler = Path(sys.argv[1]), sys.argv[2]
    files = source_files(root)
    headers = [path for path in files if path.endswith((".h", ".hpp"))]
    sources = {path: str(Path(path).with_suffix(".cpp")) for path in headers}
    # A header for users of a library has the name of the library's own, which its source file includes.
    alone = [path for path in headers if path.endswith(".hpp") or sources[path] not in files]
    faults: List[Optional[str]] = [
        f"{sources[path]} does not include its own header first"
        for path in headers if path not in alone and not included_first(root, path, sources[path])]
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        faults += pool.map(lambda path: fault_of(root, compiler, path), alone)
    found = [fault for fault in faults if fault]
    print("\n".join(found) or f"{len(headers)} headers compile on their own, {len(alone)} of them here")
    return 1 if found or not headers else 0


if __name__ == "__main__":
    sys.exit(main())
