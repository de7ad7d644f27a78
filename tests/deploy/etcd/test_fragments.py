"""deploy/etcd/fragments keeps a folder in step with etcd, also while servers fail."""

from __future__ import annotations

from typing import Callable

import pytest

from cluster import PREFIX, Cluster, Follower
from framework.timing import wait_until

_FLOW = '[flows.alice]\nlabel = 0x10001\nupstream = "127.0.0.1:5000"\n\n# $HOME `id` \\n "quoted"  '


def test_the_folder_is_filled_at_the_start_and_follows_changes(cluster: Cluster, follower: Follower) -> None:
    cluster.put("alice.toml", _FLOW)
    cluster.put("alice.key", "00112233")
    follower.leave("old.toml", "[flows.old]\n")
    follower.start()
    follower.wait_for("old.toml", None)
    assert follower.files() == ["alice.key", "alice.toml"]
    follower.wait_for("alice.toml", _FLOW)
    assert (follower.current / "alice.key").stat().st_mode & 0o777 == 0o600
    cluster.put("bob.toml", "[flows.bob]")
    follower.wait_for("bob.toml", "[flows.bob]")
    cluster.put("alice.toml", "[flows.alice]")
    follower.wait_for("alice.toml", "[flows.alice]")
    cluster.delete("alice.toml")
    follower.wait_for("alice.toml", None)
    assert follower.files() == ["alice.key", "bob.toml"]


def test_a_change_arrives_if_the_script_was_started_in_the_background(cluster: Cluster, follower: Follower) -> None:
    """By a shell, which lets it ignore SIGINT."""
    cluster.put("alice.toml", "before")
    follower.start("env", "--ignore-signal=INT")
    follower.wait_for("alice.toml", "before")
    cluster.put("alice.toml", "after")
    follower.wait_for("alice.toml", "after")


def test_a_file_is_replaced_not_rewritten(cluster: Cluster, follower: Follower) -> None:
    cluster.put("alice.toml", "first")
    follower.start()
    follower.wait_for("alice.toml", "first")
    with (follower.current / "alice.toml").open(encoding="utf-8") as reader:
        cluster.put("alice.toml", "second")
        follower.wait_for("alice.toml", "second")
        assert reader.read() == "first\n"


def test_files_stay_if_there_are_no_keys(cluster: Cluster, follower: Follower) -> None:
    follower.leave("old.toml", "[flows.old]\n")
    follower.start()
    follower.wait_for_line(f"there are no keys below {PREFIX}")
    assert follower.files() == ["old.toml"]
    cluster.put("alice.toml", "[flows.alice]")
    follower.wait_for("alice.toml", "[flows.alice]")
    assert follower.files() == ["alice.toml"]


def test_a_key_that_is_no_file_name_is_ignored(cluster: Cluster, follower: Follower) -> None:
    for name in ("../outside.toml", "a/b.toml", ".hidden", 'quo"te', "two words", ""):
        cluster.put(name, "text")
    follower.start()
    cluster.put("$(id).toml", "text")
    cluster.put("alice.toml", "[flows.alice]")
    follower.wait_for("alice.toml", "[flows.alice]")
    assert follower.files() == ["alice.toml"]
    assert not [*follower.folder.glob("*.toml"), *follower.folder.parent.glob("*.toml")]


def test_nothing_is_left_but_the_current_files(cluster: Cluster, follower: Follower) -> None:
    cluster.put("alice.toml", "first")
    follower.start()
    follower.wait_for("alice.toml", "first")
    cluster.put("alice.toml", "second")
    follower.wait_for("alice.toml", "second")
    wait_until(lambda: sorted(it.name for it in follower.folder.iterdir()) ==
               sorted(["current", str(follower.current.readlink())]), "the old files are removed")


@pytest.mark.parametrize("fail, seconds", [(Cluster.kill, 5), (Cluster.hang, 30)], ids=["dies", "hangs"])
@pytest.mark.parametrize("member", range(3))
def test_a_change_arrives_though_a_member_fails(cluster: Cluster, follower: Follower, member: int,
                                                fail: Callable[[Cluster, int], None], seconds: float) -> None:
    cluster.put("alice.toml", "before")
    follower.start()
    follower.wait_for("alice.toml", "before")
    fail(cluster, member)
    cluster.wait()
    cluster.put("alice.toml", "after")
    follower.wait_for("alice.toml", "after", seconds)


def test_changes_during_an_outage_arrive_after_it(cluster: Cluster, follower: Follower) -> None:
    cluster.put("alice.toml", "before")
    cluster.put("bob.toml", "before")
    follower.start()
    follower.wait_for("bob.toml", "before")
    cluster.kill(1)
    cluster.kill(2)
    cluster.start(1)
    cluster.start(2)
    cluster.wait()
    cluster.delete("alice.toml")
    cluster.put("bob.toml", "after")
    follower.wait_for("alice.toml", None, 30)
    follower.wait_for("bob.toml", "after", 30)
