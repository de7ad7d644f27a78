"""deploy/etcd/fragments keeps a folder in step with etcd, also while servers fail."""

from __future__ import annotations

import pytest

from cluster import PREFIX, Cluster, Follower

_FLOW = '[flows.alice]\nlabel = 0x10001\nupstream = "127.0.0.1:5000"\n\n# $HOME `id` \\n "quoted"  '


def test_the_folder_is_filled_at_the_start_and_follows_changes(cluster: Cluster, follower: Follower) -> None:
    cluster.put("alice.toml", _FLOW)
    cluster.put("alice.key", "00112233")
    (follower.folder / "old.toml").write_text("[flows.old]")
    follower.start()
    follower.wait_for("old.toml", None)
    assert follower.files() == ["alice.key", "alice.toml"]
    follower.wait_for("alice.toml", _FLOW)
    assert (follower.folder / "alice.key").stat().st_mode & 0o777 == 0o600
    cluster.put("bob.toml", "[flows.bob]")
    follower.wait_for("bob.toml", "[flows.bob]")
    cluster.put("alice.toml", "[flows.alice]")
    follower.wait_for("alice.toml", "[flows.alice]")
    cluster.delete("alice.toml")
    follower.wait_for("alice.toml", None)
    assert follower.files() == ["alice.key", "bob.toml"]


def test_a_file_is_replaced_not_rewritten(cluster: Cluster, follower: Follower) -> None:
    cluster.put("alice.toml", "first")
    follower.start()
    follower.wait_for("alice.toml", "first")
    with (follower.folder / "alice.toml").open(encoding="utf-8") as reader:
        cluster.put("alice.toml", "second")
        follower.wait_for("alice.toml", "second")
        assert reader.read() == "first\n"


def test_files_stay_if_there_are_no_keys(cluster: Cluster, follower: Follower) -> None:
    (follower.folder / "old.toml").write_text("[flows.old]\n")
    follower.start()
    follower.wait_for_line(f"there are no keys below {PREFIX}: {follower.folder} is left unchanged")
    cluster.put("alice.toml", "[flows.alice]")
    follower.wait_for("alice.toml", "[flows.alice]")
    follower.wait_for("old.toml", "[flows.old]")


def test_a_key_that_is_no_file_name_is_ignored(cluster: Cluster, follower: Follower) -> None:
    for name in ("../outside.toml", "a/b.toml", ".hidden", 'quo"te', "two words", ""):
        cluster.put(name, "text")
    follower.start()
    cluster.put("$(id).toml", "text")
    cluster.put("alice.toml", "[flows.alice]")
    follower.wait_for("alice.toml", "[flows.alice]")
    assert follower.files() == ["alice.toml"]
    assert sorted(it.name for it in follower.folder.parent.glob("*.toml")) == []
    follower.wait_for_line(f"{PREFIX}a/b.toml is ignored: it is not a file name")
    follower.wait_for_line(f"{PREFIX}$(id).toml is ignored: it is not a file name")


@pytest.mark.parametrize("member", range(3))
def test_a_change_arrives_after_a_member_died(cluster: Cluster, follower: Follower, member: int) -> None:
    cluster.put("alice.toml", "before")
    follower.start()
    follower.wait_for("alice.toml", "before")
    cluster.kill(member)
    cluster.wait()
    cluster.put("alice.toml", "after")
    follower.wait_for("alice.toml", "after", 5)


@pytest.mark.parametrize("member", range(3))
def test_a_change_arrives_while_a_member_hangs(cluster: Cluster, follower: Follower, member: int) -> None:
    cluster.put("alice.toml", "before")
    follower.start()
    follower.wait_for("alice.toml", "before")
    cluster.hang(member)
    cluster.wait()
    cluster.put("alice.toml", "after")
    follower.wait_for("alice.toml", "after", 30)


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
