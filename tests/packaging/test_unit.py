"""The unit, judged by systemd itself."""

from __future__ import annotations

import shutil
from pathlib import Path

import pytest

from debian import Root, run

_UNIT = "usr/lib/systemd/system/vesk-controller@.service"

# In tenths, the greatest that systemd calls OK is 29. What is left is sockets and looking at /proc/sys.
_EXPOSURE = 15

pytestmark = pytest.mark.skipif(shutil.which("systemd-analyze") is None,
                                reason="systemd-analyze is not installed")


@pytest.fixture
def instance(installed: Root) -> Path:
    """An instance of the unit where the commands below expect units."""
    path = (installed / _UNIT).with_name("vesk-controller@example.service")
    path.symlink_to("vesk-controller@.service")
    # The system's own program that it names has to be there, too.
    (installed / "usr/bin/kill").symlink_to("vesk")
    return path


def test_systemd_understands_every_line(installed: Root, instance: Path) -> None:
    # Pages are another test's matter, and so are the units of the system that are not in this root.
    said = run("systemd-analyze", "verify", "--man=no", "--recursive-errors=no",
               f"--root={installed.path}", instance.name)
    assert said == ""


def test_exposure_stays_low(installed: Root, instance: Path) -> None:
    assert "Overall exposure level" in run(
        "systemd-analyze", "security", "--no-pager", "--offline=yes", f"--threshold={_EXPOSURE}",
        f"--root={installed.path}", instance.name)
