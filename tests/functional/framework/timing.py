"""Deadlines: how long a test is willing to wait before it calls a silence a failure."""

from __future__ import annotations

import os
import time
from typing import Callable

SANITIZER = os.environ.get("VESK_SANITIZER", "")

# Instrumented builds run several times slower; a deadline that is generous for the
# release build would be a coin toss for them.
_SLOWDOWN = {"": 1.0, "asan": 3.0, "tsan": 6.0}

if SANITIZER not in _SLOWDOWN:
    raise RuntimeError(f"VESK_SANITIZER must be one of {sorted(_SLOWDOWN)}, not {SANITIZER!r}")


def scaled(seconds: float) -> float:
    """A deadline stretched to the build under test."""
    return seconds * _SLOWDOWN[SANITIZER]


def count_from_environment(name: str, default: int) -> int:
    """How often a test repeats itself; long runs are asked for through the environment."""
    return int(os.environ.get(name, default))


def wait_until(condition: Callable[[], bool], description: str, seconds: float = 5.0) -> None:
    """Waits for something that has no event to wait on (the state of a process in /proc)."""
    deadline = time.monotonic() + scaled(seconds)
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError(f"gave up waiting until {description}")
        time.sleep(0.005)
