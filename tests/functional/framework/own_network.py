"""Gives the test process its own network, so that tests that run in parallel cannot interfere.

A test releases its ports when it ends. Another process may be assigned one of them at once. It
would receive datagrams that are still on their way to the first process, or find that a port it has
just seen free is taken. In its own network namespace a process shares its loopback interface and
its ports only with its children.
"""

from __future__ import annotations

import ctypes
import fcntl
import socket
import struct
from typing import Optional

import pytest

_CLONE_NEWNET = 0x40000000
_SIOCGIFFLAGS = 0x8913
_SIOCSIFFLAGS = 0x8914
_IFF_UP = 0x1
# struct ifreq: the name, then a union whose first two bytes are the flags.
_INTERFACE_FLAGS = struct.Struct("=16sh22x")


def enter() -> Optional[str]:
    """Moves the calling process, which must have a single thread, into a new network namespace with
    its loopback interface up. If this is not allowed, changes nothing and returns the reason."""
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.unshare(_CLONE_NEWNET) != 0:
        return OSError(ctypes.get_errno(), "unshare").strerror
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as control:
        request = _INTERFACE_FLAGS.pack(b"lo", 0)
        name, flags = _INTERFACE_FLAGS.unpack(fcntl.ioctl(control, _SIOCGIFFLAGS, request))
        fcntl.ioctl(control, _SIOCSIFFLAGS, _INTERFACE_FLAGS.pack(name, flags | _IFF_UP))
    return None


def require() -> None:
    """Does the same, for tests that use fixed ports. Ends pytest if it is not allowed."""
    reason = enter()
    if reason:
        raise pytest.UsageError(f"the tests need a network namespace of their own: {reason}")
