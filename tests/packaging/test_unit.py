"""The systemd unit, checked by systemd-analyze."""

from __future__ import annotations

import shutil
from pathlib import Path

import pytest

from debian import Root, run

_UNIT = "usr/lib/systemd/system/vesk-controller@.service"
_DROP_INS = "usr/share/vesk/systemd"

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


def verified(installed: Root, instance: Path) -> str:
    """What systemd-analyze says."""
    # Manual pages are checked by another test, and units of the system are not in this root.
    return run("systemd-analyze", "verify", "--man=no", "--recursive-errors=no",
               f"--root={installed.path}", instance.name)


def test_systemd_accepts_every_line(installed: Root, instance: Path) -> None:
    assert verified(installed, instance) == ""


def drop_in(instance: Path, text: str) -> None:
    folder = instance.with_name(f"{instance.name}.d")
    folder.mkdir(exist_ok=True)
    (folder / "drop-in.conf").write_text(text)


@pytest.mark.parametrize("name", ["steering.conf", "folder.conf"])
def test_systemd_accepts_the_drop_in(installed: Root, instance: Path, name: str) -> None:
    drop_in(instance, (installed / _DROP_INS / name).read_text())
    assert verified(installed, instance) == ""


def test_a_drop_in_is_verified_too(installed: Root, instance: Path) -> None:
    drop_in(instance, (installed / _DROP_INS / "folder.conf").read_text() + "NoSuchSetting=1\n")
    with pytest.raises(AssertionError, match="NoSuchSetting"):
        verified(installed, instance)


def test_exposure_stays_low(installed: Root, instance: Path) -> None:
    assert "Overall exposure level" in run(
        "systemd-analyze", "security", "--no-pager", "--offline=yes", f"--threshold={_EXPOSURE}",
        f"--root={installed.path}", instance.name)


def test_the_drop_in_has_room_for_the_descriptors_of_all_forwarders(installed: Root) -> None:
    settings = dict(line.split("=", 1) for line in (installed / _DROP_INS / "steering.conf").read_text().splitlines()
                    if "=" in line and not line.startswith("#"))
    # At most 64 instances and one that replaces another, with three descriptors each.
    assert int(settings["FileDescriptorStoreMax"]) >= 65 * 3
    assert settings["KillMode"] == "process"
