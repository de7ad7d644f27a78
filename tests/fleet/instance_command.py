"""The command that runs a controller on a host of the fleet: the programs of the build, or, if VESK_FLEET_ROOT names
the unpacked file system of the image, those in it, as its user and with a root that is read-only."""

from __future__ import annotations

import os
import shutil
from pathlib import Path
from typing import Any, Dict

from name_server import NameServer
from network import Namespace

_USER = 10001
_FOLDER = "etc/vesk/conf.d"

# What a container runtime does: the root, its mounts, and the file that names the servers.
_ENTER = """set -e
root=$1 folder=$2 resolver=$3 user=$4
shift 4
mount --bind "$root" "$root"
cd "$root"
mount -t proc proc proc
mount --rbind /dev dev
mount --bind "$folder" FOLDER
mount --bind "$resolver" etc/resolv.conf
mount -o remount,bind,ro "$root"
exec chroot --userspec="$user:$user" "$root" "$@"
""".replace("FOLDER", _FOLDER)


def image_root() -> str:
    return os.environ.get("VESK_FLEET_ROOT", "")


def prepare(configuration: Path) -> None:
    """Makes the file readable for the user of the image, and the place for the resolver's file."""
    if image_root():
        (Path(image_root()) / "etc/resolv.conf").touch()
        for path in (configuration.parent, configuration):
            shutil.chown(path, _USER, _USER)


def details(host: Namespace, names: NameServer, configuration: Path) -> Dict[str, Any]:
    """How a ControllerProcess is started on the host."""
    if not image_root():
        return {"prefix": [*host.prefix, *names.prefix()]}
    return {"prefix": [*host.prefix, "unshare", "--mount", "sh", "-c", _ENTER, "sh", image_root(),
                       str(configuration.parent), str(names.resolver), str(_USER)],
            "instead": ["/usr/bin/vesk-controller", f"/{_FOLDER}/{configuration.name}"]}
