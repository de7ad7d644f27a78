"""Fails on an #include that points upwards: each file of the source stands on a floor and uses only
its own floor and those below. Also on a header that includes the context, which would let every
thread's state into every file.

Usage: check_includes.py SOURCE-DIRECTORY
"""

import re
import sys
from pathlib import Path

# The floors, lowest first; a file belongs to the first floor that names it or its beginning.
FLOORS = [
    ["log/"],
    ["base/"],
    ["net/socket_options"],
    ["flow/ip_addr_info", "flow/hmac_info", "flow/flow_desc",
     "flow/flow_attributes"],
    ["poll/"],
    ["net/local_address", "net/endpoint.", "net/endpoint_slot", "net/endpoint_sockets",
     "net/endpoint_tables", "net/kept_endpoints",
     "net/endpoint_manager"],
    ["datapath/wire/", "datapath/datagram_io"],
    ["tasks/"],
    ["context/"],
    ["net/"],
    ["datapath/"],
    ["flow/commands/"],
    ["stats/"],
    ["control/"],
    ["app/"],
]
CONTEXT = "context/forwarder_context.h"
INCLUDE = re.compile(r'^\s*#include\s+"([^"]+)"', re.MULTILINE)


def floor_of(path: str) -> int:
    for number, names in enumerate(FLOORS):
        if any(path.startswith(name) for name in names):
            return number
    raise SystemExit(f"{path} stands on no floor; add it to {Path(__file__).name}")


def faults_of(path: str, text: str) -> list[str]:
    faults = []
    for included in INCLUDE.findall(text):
        if floor_of(included) > floor_of(path):
            faults.append(f"{path} includes {included}, which stands above it")
        if included == CONTEXT and path.endswith(".h"):
            faults.append(f"{path} is a header and includes the context")
    return faults


def main() -> int:
    root = Path(sys.argv[1])
    files = sorted(p for p in root.rglob("*") if p.suffix in (".h", ".cpp"))
    faults = [fault for p in files
              for fault in faults_of(p.relative_to(root).as_posix(), p.read_text())]
    print("\n".join(faults) or f"{len(files)} files, every include points downwards")
    return 1 if faults or not files else 0


if __name__ == "__main__":
    sys.exit(main())
