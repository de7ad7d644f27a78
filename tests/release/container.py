"""Reads an image, and runs it with runc as an orchestrator does: read-only, without capabilities."""

from __future__ import annotations

import gzip
import hashlib
import io
import json
import os
import signal
import subprocess
import tarfile
from pathlib import Path
from typing import Any, Dict, List, Tuple

_SECONDS = 20.0
_CONFIGURATION = "/etc/vesk/conf.d"


class ImageArchive:
    """An OCI archive with one image of one layer."""

    def __init__(self, path: Path) -> None:
        self.path = path
        with tarfile.open(path) as archive:
            self.times = {member.mtime for member in archive}
            (entry,) = self._json(archive, "./index.json")["manifests"]
            self.digest: str = entry["digest"]
            self.manifest = self._json(archive, self._blob(self.digest))
            self.config = self._json(archive, self._blob(self.manifest["config"]["digest"]))
            (layer,) = self.manifest["layers"]
            self.blobs = {member.name for member in archive if member.isfile() and "/blobs/" in member.name}
            self.checksums = {f"sha256:{hashlib.sha256(self._read(archive, name)).hexdigest()}" for name in self.blobs}
            self._layer = tarfile.open(fileobj=io.BytesIO(gzip.decompress(
                self._read(archive, self._blob(layer["digest"])))))

    @staticmethod
    def _blob(digest: str) -> str:
        return f"./blobs/{digest.replace(':', '/')}"

    @staticmethod
    def _read(archive: tarfile.TarFile, name: str) -> bytes:
        file = archive.extractfile(name)
        assert file is not None
        return file.read()

    def _json(self, archive: tarfile.TarFile, name: str) -> Dict[str, Any]:
        found: Dict[str, Any] = json.loads(self._read(archive, name))
        return found

    def members(self) -> List[tarfile.TarInfo]:
        return self._layer.getmembers()

    def names(self) -> List[str]:
        return [_plain(member.name) for member in self.members()]

    def file(self, name: str) -> bytes:
        (member,) = (found.name for found in self.members() if _plain(found.name) == name)
        return self._read(self._layer, member)

    def unpack(self, folder: Path) -> None:
        self._layer.extractall(folder)


def _plain(name: str) -> str:
    return name.removeprefix("./")


class Container:
    """A container in the network namespace of the test. Its configuration is a folder of the test."""

    def __init__(self, archive: Path, folder: Path) -> None:
        self.configuration = folder / "configuration"
        self.configuration.mkdir()
        self.log = folder / "log"
        self._bundle = folder / "bundle"
        self._name = f"vesk-test-{os.getpid()}-{id(self)}"
        self._state = folder / "state"
        self._process: "subprocess.Popen[bytes] | None" = None
        layout = folder / "layout"
        layout.mkdir()
        with tarfile.open(archive) as packed:
            packed.extractall(layout)
        (entry,) = json.loads((layout / "index.json").read_text(encoding="utf-8"))["manifests"]
        tag = entry["annotations"]["org.opencontainers.image.ref.name"]
        subprocess.run(["umoci", "unpack", "--image", f"{layout}:{tag}", str(self._bundle)], check=True)

    def start(self, *arguments: str) -> None:
        """Starts the image's entry point. Arguments replace those of the image."""
        file = self._bundle / "config.json"
        file.write_text(json.dumps(self._restricted(json.loads(file.read_text()), arguments)))
        with self.log.open("wb") as log:
            self._process = subprocess.Popen(
                ["runc", "--root", str(self._state), "run", "--bundle", str(self._bundle), self._name],
                stdin=subprocess.DEVNULL, stdout=log, stderr=log)

    def _restricted(self, config: Dict[str, Any], arguments: Tuple[str, ...]) -> Dict[str, Any]:
        process = config["process"]
        process.update(terminal=False, noNewPrivileges=True, capabilities={
            kind: [] for kind in ("bounding", "effective", "inheritable", "permitted", "ambient")})
        if arguments:
            process["args"][1:] = arguments
        config["root"]["readonly"] = True
        config["mounts"].append({"destination": _CONFIGURATION, "type": "bind", "source": str(self.configuration),
                                 "options": ["bind", "ro"]})
        for namespace in config["linux"]["namespaces"]:
            if namespace["type"] == "network":
                namespace["path"] = f"/proc/{os.getpid()}/ns/net"
        return config

    def process_status(self) -> Dict[str, str]:
        """/proc/PID/status of the container's first process."""
        state = json.loads(self._runc("state", self._name))
        lines = Path(f"/proc/{state['pid']}/status").read_text(encoding="utf-8").splitlines()
        return {name: value.strip() for name, _, value in (line.partition(":") for line in lines)}

    def mounts(self) -> List[str]:
        state = json.loads(self._runc("state", self._name))
        return Path(f"/proc/{state['pid']}/mountinfo").read_text(encoding="utf-8").splitlines()

    def stop(self) -> int:
        """Sends SIGTERM to the first process and returns its status."""
        self._runc("kill", self._name, "TERM")
        return self.wait()

    def wait(self) -> int:
        assert self._process is not None
        return self._process.wait(_SECONDS)

    def said(self) -> str:
        return self.log.read_text(encoding="utf-8", errors="replace")

    def _runc(self, *words: str) -> str:
        return subprocess.run(["runc", "--root", str(self._state), *words], stdout=subprocess.PIPE, text=True,
                              check=True, timeout=_SECONDS).stdout

    def close(self) -> None:
        if self._process is not None and self._process.poll() is None:
            subprocess.run(["runc", "--root", str(self._state), "delete", "--force", self._name], check=False)
            self._process.send_signal(signal.SIGKILL)
            self._process.wait()
