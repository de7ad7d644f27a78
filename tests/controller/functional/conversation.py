"""Sends questions on one flow and receives the answers, one after the other, in a thread."""

from __future__ import annotations

import threading
import time
from typing import Optional

from framework.flow import Flow
from framework.timing import scaled, wait_until
from framework.udp import Address, UdpEnd


def ask(end: UdpEnd, flow: Flow, to: Address, payload: bytes, seconds: float) -> bool:
    """Whether a question gets the correct answer in time."""
    deadline = time.monotonic() + seconds
    end.send(flow.request(payload), to)
    while (left := deadline - time.monotonic()) > 0:
        end.socket.settimeout(left)
        try:
            answer = end.socket.recv(65536)
        except TimeoutError:
            return False
        if flow.open_reply(answer).payload == payload:
            return True
    return False


def ask_until_answered(end: UdpEnd, flow: Flow, to: Address, seconds: float = 10.0) -> None:
    deadline = time.monotonic() + scaled(seconds)
    number = 0
    while not ask(end, flow, to, f"question {number}".encode(), 0.05):
        assert time.monotonic() < deadline, f"no answer for label {flow.label:#x}"
        number += 1


class Conversation:
    """Continues until it is stopped. An answer that does not arrive within `patience` seconds is a
    loss. A wrong answer ends the conversation, and `stop` raises the error."""

    def __init__(self, flow: Flow, to: Address, patience: float = 1.0) -> None:
        self.answered = 0
        self.lost = 0
        self._flow = flow
        self._to = to
        self._patience = scaled(patience)
        self._stop = threading.Event()
        self._failure: Optional[BaseException] = None
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self) -> None:
        try:
            with UdpEnd() as end:
                while not self._stop.is_set():
                    payload = f"question {self.answered + self.lost}".encode()
                    if ask(end, self._flow, self._to, payload, self._patience):
                        self.answered += 1
                    else:
                        self.lost += 1
        except BaseException as failure:  # pylint: disable=broad-except
            self._failure = failure

    def wait_for_answers(self, count: int) -> None:
        """Waits for `count` more answers."""
        goal = self.answered + count
        wait_until(lambda: self.answered >= goal or self._failure is not None,
                   f"{count} more answers came", 20)

    def wait_for_losses(self, count: int) -> None:
        """Waits for `count` more losses."""
        goal = self.lost + count
        wait_until(lambda: self.lost >= goal or self._failure is not None,
                   f"{count} more answers did not come", 20)

    def ask_no_more(self) -> None:
        """Sends no further question; the last one may still wait for its answer."""
        self._stop.set()

    def stop(self) -> None:
        self.ask_no_more()
        self._thread.join()
        if self._failure is not None:
            raise self._failure

    def __enter__(self) -> "Conversation":
        return self

    def __exit__(self, *_: object) -> None:
        self.stop()
