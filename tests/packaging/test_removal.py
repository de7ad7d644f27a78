"""Upgrading, removing and purging keep the operator's files and remove all others."""

from __future__ import annotations

from conftest import Packages
from debian import Root

_EXAMPLE = "etc/vesk/example.toml"
_KEYS = ["etc/vesk/example-from-peer.key", "etc/vesk/example-to-peer.key"]


def test_upgrade_keeps_edited_files(installed: Root, packages: Packages) -> None:
    (installed / _EXAMPLE).write_text("# edited\n")
    keys = [(installed / name).read_bytes() for name in _KEYS]
    installed.install(*packages.values())
    assert (installed / _EXAMPLE).read_text() == "# edited\n"
    assert [(installed / name).read_bytes() for name in _KEYS] == keys


def test_upgrade_does_not_restore_removed_files(installed: Root, packages: Packages) -> None:
    for name in [_EXAMPLE, *_KEYS]:
        (installed / name).unlink()
    installed.install(*packages.values())
    assert not [name for name in [_EXAMPLE, *_KEYS] if (installed / name).exists()]


def test_removal_keeps_configuration_and_keys(installed: Root, packages: Packages) -> None:
    installed.remove(*packages)
    assert installed.files() == ["etc/sysctl.d/20-vesk.conf", *_KEYS, _EXAMPLE]


def test_purge_leaves_nothing(installed: Root, packages: Packages) -> None:
    core = installed / "var/lib/vesk/example/core"
    core.parent.mkdir(parents=True)
    core.touch()
    link = installed / "etc/systemd/system/multi-user.target.wants/vesk-controller@example.service"
    link.parent.mkdir(parents=True)
    link.symlink_to("/usr/lib/systemd/system/vesk-controller@.service")
    installed.purge(*packages)
    assert installed.files() == []
    assert not (installed / "etc/vesk").exists()
    assert installed.states() == {}


def test_purge_keeps_files_that_the_operator_wrote(installed: Root, packages: Packages) -> None:
    for name in ("edge.toml", "edge.key"):
        (installed / "etc/vesk" / name).write_text("ours\n")
    installed.purge(*packages)
    assert installed.files() == ["etc/vesk/edge.key", "etc/vesk/edge.toml"]
