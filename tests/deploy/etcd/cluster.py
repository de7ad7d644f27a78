"""Three servers of etcd on the loopback address, and the script that follows them."""

from __future__ import annotations

import os
import signal
import subprocess
from pathlib import Path
from typing import Dict, List, Optional, Set

from framework.timing import wait_until

_SCRIPT = Path(__file__).parents[3] / "deploy/etcd/fragments"
_MEMBERS = 3
# Until the members have elected a leader, also on a busy machine.
_SECONDS = 30.0
PREFIX = "/vesk/edge/"


def _client(member: int) -> str:
    return f"http://127.0.0.1:{2379 + 10 * member}"


def _peer(member: int) -> str:
    return f"http://127.0.0.1:{2380 + 10 * member}"


class Cluster:
    def __init__(self, programs: Path, folder: Path) -> None:
        self._programs = programs
        self._folder = folder
        self._members: Dict[int, "subprocess.Popen[bytes]"] = {}
        self._hung: Set[int] = set()
        self.environment = {**os.environ, "PATH": f"{programs}:{os.environ['PATH']}",
                            "ETCDCTL_ENDPOINTS": ",".join(_client(it) for it in range(_MEMBERS))}

    def __enter__(self) -> "Cluster":
        for member in range(_MEMBERS):
            self.start(member)
        self.wait()
        return self

    def __exit__(self, *_: object) -> None:
        for member in list(self._members):
            self.kill(member)

    def start(self, member: int) -> None:
        peers = ",".join(f"m{it}={_peer(it)}" for it in range(_MEMBERS))
        with (self._folder / f"etcd-{member}.log").open("ab") as log:
            self._members[member] = subprocess.Popen(
                [str(self._programs / "etcd"), "--name", f"m{member}", "--data-dir", str(self._folder / f"m{member}"),
                 "--listen-client-urls", _client(member), "--advertise-client-urls", _client(member),
                 "--listen-peer-urls", _peer(member), "--initial-advertise-peer-urls", _peer(member),
                 "--initial-cluster", peers], stdout=log, stderr=log)

    def kill(self, member: int) -> None:
        process = self._members.pop(member)
        process.send_signal(signal.SIGKILL)
        process.wait()

    def hang(self, member: int) -> None:
        """Leaves its connections open, but it no longer answers."""
        self._members[member].send_signal(signal.SIGSTOP)
        self._hung.add(member)

    def wait(self) -> None:
        """Until changes are accepted."""
        wait_until(lambda: self._run("get", "any").returncode == 0, "etcd accepts requests", _SECONDS)

    def put(self, name: str, text: str) -> None:
        done = self._run("put", PREFIX + name, text)
        assert done.returncode == 0, done.stderr

    def delete(self, name: str) -> None:
        done = self._run("del", PREFIX + name)
        assert done.stdout == "1\n", done.stderr

    def _run(self, *words: str) -> "subprocess.CompletedProcess[str]":
        alive = ",".join(_client(it) for it in self._members if it not in self._hung)
        return subprocess.run([str(self._programs / "etcdctl"), *words], text=True, timeout=_SECONDS, check=False,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              env={**self.environment, "ETCDCTL_ENDPOINTS": alive})


class Follower:
    def __init__(self, cluster: Cluster, folder: Path) -> None:
        self.folder = folder
        self.folder.mkdir()
        self._log = folder.with_suffix(".log")
        self._environment = cluster.environment
        self._process: Optional["subprocess.Popen[bytes]"] = None

    def __enter__(self) -> "Follower":
        return self

    def __exit__(self, *_: object) -> None:
        if self._process is not None:
            # The script and etcdctl, which are in a process group of their own.
            os.killpg(self._process.pid, signal.SIGTERM)
            self._process.wait()

    def start(self, *prefix: str) -> None:
        """Starts the script, by the prefix if there is one."""
        with self._log.open("wb") as log:
            self._process = subprocess.Popen([*prefix, str(_SCRIPT), PREFIX.rstrip("/"), str(self.folder)],
                                             stdout=log, stderr=log, env=self._environment, start_new_session=True)

    def log(self) -> str:
        return self._log.read_text(encoding="utf-8", errors="replace")

    @property
    def current(self) -> Path:
        """The folder that the controller reads."""
        return self.folder / "current"

    def leave(self, name: str, text: str) -> None:
        """Makes the only file that an earlier run of the script has left."""
        (self.folder / ".before").mkdir()
        (self.folder / ".before" / name).write_text(text, encoding="utf-8")
        self.current.symlink_to(".before")

    def files(self) -> List[str]:
        return sorted(it.name for it in self.current.iterdir())

    def wait_for_line(self, line: str) -> None:
        wait_until(lambda: f"{line}\n" in self.log(), f"the script has written: {line}", 10)

    def wait_for(self, name: str, text: Optional[str], seconds: float = 10.0) -> None:
        """Until the file has this text and a newline, or until there is no such file."""
        path = self.current / name
        wait_until(lambda: (path.read_text() if path.exists() else None) == (None if text is None else text + "\n"),
                   f"{name} is {text!r}\n{self.log()}", seconds)
