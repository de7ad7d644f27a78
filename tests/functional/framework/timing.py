"""Deadlines: how long a test waits before it fails."""

from __future__ import annotations

import os
import time
from typing import Callable

SANITIZER = os.environ.get("VESK_SANITIZER", "")

# Instrumented builds are several times slower, so a deadline that suits the release build
# would be too short for them.
_SLOWDOWN = {"": 1.0, "asan": 3.0, "tsan": 6.0}

if SANITIZER not in _SLOWDOWN:
    raise RuntimeError(f"VESK_SANITIZER must be one of {sorted(_SLOWDOWN)}, not {SANITIZER!r}")


def scaled(seconds: float) -> float:
    """A deadline multiplied by the slowdown of the build under test."""
    return seconds * _SLOWDOWN[SANITIZER]


def count_from_environment(name: str, default: int) -> int:
    """A number from an environment variable, such as the repetitions of a test, or its default."""
    return int(os.environ.get(name, default))


def wait_until(condition: Callable[[], bool], description: str, seconds: float = 5.0) -> None:
    """Polls for a condition without an event to wait for, such as a process state in /proc."""
    deadline = time.monotonic() + scaled(seconds)
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError(f"timed out while waiting until {description}")
        time.sleep(0.005)
