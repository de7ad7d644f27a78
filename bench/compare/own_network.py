"""Runs a program again in a network namespace of its own, so that it leaves the host's packet filter unchanged."""

import fcntl
import os
import socket
import struct
import sys

_SIOCSIFFLAGS, _IFF_UP = 0x8914, 1
_MARK = "VESK_OWN_NETWORK"


def inside() -> bool:
    return _MARK in os.environ


def enter() -> None:
    """Ends this program and runs it again inside, unless it runs there already. Only loopback is up."""
    if not inside():
        privilege = [] if os.geteuid() == 0 else ["--map-root-user"]
        os.environ[_MARK] = "1"
        sys.stdout.flush()
        os.execvp("unshare", ["unshare", "--net", *privilege, sys.executable, *sys.argv])
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as control:
        fcntl.ioctl(control, _SIOCSIFFLAGS, struct.pack("=16sh22x", b"lo", _IFF_UP))
