"""Controls metrics-probe, which serves the controller's metrics without the controller."""

from __future__ import annotations

import queue
import subprocess
import threading
from typing import List

from framework.timing import scaled
from framework.vesk_process import VeskProcess


class Probe:
    """A metrics server that gets the lines of a child from the test."""

    def __init__(self, program: str, *arguments: str) -> None:
        self._process = subprocess.Popen([program, *arguments], stdin=subprocess.PIPE,
                                         stdout=subprocess.PIPE, text=True, bufsize=1)
        self._answers: "queue.Queue[str]" = queue.Queue()
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()
        # How much of the child's output has been passed on, in bytes.
        self.followed = 0
        self.port = int(self._answer())

    def _read(self) -> None:
        assert self._process.stdout is not None
        for line in self._process.stdout:
            self._answers.put(line.rstrip("\n"))

    def _answer(self) -> str:
        try:
            return self._answers.get(timeout=scaled(10))
        except queue.Empty:
            raise AssertionError("no answer from the probe") from None

    def tell(self, text: str) -> None:
        assert self._process.stdin is not None
        self._process.stdin.write(text)
        self._process.stdin.flush()

    def act(self, line: str) -> List[str]:
        """Makes the probe carry out the line; returns its answers to earlier lines of the child."""
        self.tell(f"@{line}\n")
        said = []
        while (answer := self._answer()) != "done":
            said.append(answer)
        return said

    def follow(self, vesk: VeskProcess) -> List[str]:
        """Passes on the whole lines that the child has written since the last call."""
        output = vesk.output()
        end = output.rfind(b"\n") + 1
        self.tell(output[self.followed:end].decode("utf-8", "surrogateescape"))
        self.followed = end
        return self.act("settle")

    def follow_new_child(self, vesk: VeskProcess) -> None:
        """Replaces the child by a new one."""
        self.act("down")
        self.act("restart")
        self.followed = 0
        self.act("up")
        self.follow(vesk)

    def finish(self) -> None:
        assert self._process.stdin is not None and self._process.stdout is not None
        self._process.stdin.close()
        try:
            status = self._process.wait(scaled(10))
        except subprocess.TimeoutExpired:
            self._process.kill()
            status = self._process.wait()
        self._reader.join(scaled(5))
        self._process.stdout.close()
        assert status == 0, f"the probe ended with status {status}"
