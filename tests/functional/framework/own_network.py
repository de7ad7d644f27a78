"""A network of the test process's own, so that tests that run side by side cannot reach each other.

A test that ends gives its ports back. Another process may get one of them at once, and would then
receive what was still on its way to the first, or find a port taken that it saw free. In a network
namespace of its own a process shares its loopback interface and its ports with its children only.
"""

from __future__ import annotations

import ctypes
import fcntl
import socket
import struct
from typing import Optional

_CLONE_NEWNET = 0x40000000
_SIOCGIFFLAGS = 0x8913
_SIOCSIFFLAGS = 0x8914
_IFF_UP = 0x1
# struct ifreq: the name, then a union of which the flags are the first two bytes.
_INTERFACE_FLAGS = struct.Struct("=16sh22x")


def enter() -> Optional[str]:
    """Moves the calling process, while it has a single thread, into a new network namespace whose
    loopback interface is up. Returns why that is not allowed here, if so; nothing has changed then."""
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.unshare(_CLONE_NEWNET) != 0:
        return OSError(ctypes.get_errno(), "unshare").strerror
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as control:
        request = _INTERFACE_FLAGS.pack(b"lo", 0)
        name, flags = _INTERFACE_FLAGS.unpack(fcntl.ioctl(control, _SIOCGIFFLAGS, request))
        fcntl.ioctl(control, _SIOCSIFFLAGS, _INTERFACE_FLAGS.pack(name, flags | _IFF_UP))
    return None
