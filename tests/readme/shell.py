"""A shell into which the tests type, and functions that adapt the text of a page to this host."""

from __future__ import annotations

import os
import re
import select
import signal
import socket
import subprocess
import time
from contextlib import ExitStack
from pathlib import Path
from typing import Callable, Dict, List

DEADLINE_SECONDS = 60


def free_ports(written: List[str]) -> Dict[str, str]:
    """Maps the ports of a page, which may be taken on this host, to free ones."""
    with ExitStack() as stack:
        found = {}
        for name in written:
            end = stack.enter_context(socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
            end.bind(("127.0.0.1", 0))
            found[name] = str(end.getsockname()[1])
    return found


def wait_until(condition: Callable[[], bool], description: str) -> None:
    deadline = time.monotonic() + DEADLINE_SECONDS
    while not condition():
        assert time.monotonic() < deadline, f"timed out while waiting until {description}"
        time.sleep(0.05)


class Shell:
    """A shell that gets its commands as if they were typed."""

    def __init__(self, tree: Path, temporary: Path, home: Path) -> None:
        environment = {**os.environ, "HOME": str(home), "WIRESHARK_CONFIG_DIR": str(home),
                       "TMPDIR": str(temporary)}
        # The usual default: new files are readable by every user.
        self._process = subprocess.Popen(["bash"], cwd=tree, env=environment, stdin=subprocess.PIPE,
                                         stdout=subprocess.PIPE, start_new_session=True, umask=0o022)

    def type(self, commands: str) -> str:
        """Returns the output of the commands. Fails if one of them fails."""
        assert self._process.stdin is not None and self._process.stdout is not None
        self._process.stdin.write(f"{commands}\necho \"end of block, status $?\"\n".encode())
        self._process.stdin.flush()
        said, deadline = b"", time.monotonic() + DEADLINE_SECONDS
        while not (end := re.search(rb"end of block, status (\d+)\n", said)):
            readable, _, _ = select.select([self._process.stdout], [], [],
                                           max(0.0, deadline - time.monotonic()))
            assert readable, f"{commands}\nhas not ended; output so far: {said!r}"
            piece = os.read(self._process.stdout.fileno(), 1 << 16)
            assert piece, f"the shell ended: {said!r}"
            said += piece
        assert end[1] == b"0", f"{commands}\nfailed: {said!r}"
        return said[:end.start()].decode()

    def end(self) -> None:
        """Ends the shell and everything that still runs in it."""
        try:
            os.killpg(self._process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self._process.wait()
        for stream in (self._process.stdin, self._process.stdout):
            if stream is not None:
                stream.close()
