"""The systemd unit, checked by systemd-analyze."""

from __future__ import annotations

import shutil
from pathlib import Path

import pytest

from debian import Root, run

_UNIT = "usr/lib/systemd/system/vesk-controller@.service"
_DROP_IN = "usr/share/vesk/systemd/steering.conf"

# In tenths; systemd rates up to 29 as OK. The rest is caused by sockets and by reading /proc/sys.
_EXPOSURE = 15

pytestmark = pytest.mark.skipif(shutil.which("systemd-analyze") is None,
                                reason="systemd-analyze is not installed")


@pytest.fixture
def instance(installed: Root) -> Path:
    """An instance of the unit in the folder in which the commands below expect units."""
    path = (installed / _UNIT).with_name("vesk-controller@example.service")
    path.symlink_to("vesk-controller@.service")
    # The system program in the unit has to exist too.
    (installed / "usr/bin/kill").symlink_to("vesk")
    return path


def test_systemd_accepts_every_line(installed: Root, instance: Path) -> None:
    # Manual pages are checked by another test, and units of the system are not in this root.
    said = run("systemd-analyze", "verify", "--man=no", "--recursive-errors=no",
               f"--root={installed.path}", instance.name)
    assert said == ""


def test_systemd_accepts_the_drop_in_for_several_instances(installed: Root,
                                                           instance: Path) -> None:
    folder = instance.with_name("vesk-controller@example.service.d")
    assert not folder.exists()
    folder.mkdir()
    (folder / "steering.conf").write_text((installed / _DROP_IN).read_text())
    said = run("systemd-analyze", "verify", "--man=no", "--recursive-errors=no",
               f"--root={installed.path}", instance.name)
    assert said == ""


def test_exposure_stays_low(installed: Root, instance: Path) -> None:
    assert "Overall exposure level" in run(
        "systemd-analyze", "security", "--no-pager", "--offline=yes", f"--threshold={_EXPOSURE}",
        f"--root={installed.path}", instance.name)


def test_the_drop_in_has_room_for_the_descriptors_of_all_forwarders(installed: Root) -> None:
    settings = dict(line.split("=", 1) for line in (installed / _DROP_IN).read_text().splitlines()
                    if "=" in line and not line.startswith("#"))
    # At most 64 instances and one that replaces another, with three descriptors each.
    assert int(settings["FileDescriptorStoreMax"]) >= 65 * 3
    assert settings["KillMode"] == "process"
