"""The examples of deploy/ as the tests read them."""

from __future__ import annotations

import base64
import os
import re
import shlex
import subprocess
import tomllib
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Dict, Iterator, List

import yaml

ROOT = Path(__file__).parents[2]
KUBERNETES = ROOT / "deploy/kubernetes"
EXAMPLE = KUBERNETES / "overlays/example"
NEW_KEY = "00112233445566778899aabbccddeeff" * 2

Object = Dict[str, Any]


@dataclass
class Fleet:
    """The objects that are applied to a cluster. The data of a generated one are texts by file name."""

    name: str
    objects: List[Object]

    def of_kind(self, kind: str) -> List[Object]:
        return [it for it in self.objects if it["kind"] == kind]

    def named(self, kind: str, name: str) -> Object:
        (found,) = (it for it in self.of_kind(kind) if it["metadata"]["name"] == name)
        return found

    @property
    def stateful_set(self) -> Object:
        (found,) = self.of_kind("StatefulSet")
        return found["spec"]

    @property
    def pod(self) -> Object:
        return self.stateful_set["template"]["spec"]

    @property
    def container(self) -> Object:
        (found,) = self.pod["containers"]
        return found

    @property
    def pod_labels(self) -> Dict[str, str]:
        return self.stateful_set["template"]["metadata"]["labels"]

    @property
    def ports(self) -> Dict[str, Object]:
        return {it["name"]: it for it in self.container["ports"]}

    @property
    def environment(self) -> Dict[str, Object]:
        return {it["name"]: it for it in self.container["env"]}

    def mounted(self) -> Dict[str, str]:
        """The files in the folder that the controller reads."""
        (volume,) = self.pod["volumes"]
        files: Dict[str, str] = {}
        for source in volume["projected"]["sources"]:
            for kind, object_kind in (("configMap", "ConfigMap"), ("secret", "Secret")):
                if kind in source:
                    files.update(self._texts(object_kind, source[kind]["name"]))
        return files

    def _texts(self, kind: str, name: str) -> Dict[str, str]:
        data = self.named(kind, name).get("data") or {}
        if kind == "Secret":
            return {file: base64.b64decode(text).decode() for file, text in data.items()}
        return dict(data)

    @property
    def settings(self) -> Object:
        return tomllib.loads(self.mounted()["settings.toml"])


def base_as_written() -> Fleet:
    """The base without kustomize: its files, and what it generates, under the names that the files use."""
    folder = KUBERNETES / "base"
    objects = [it for file in _kustomization(folder)["resources"] for it in _documents(folder / file)]
    return Fleet("base as written", objects + _generated(folder))


def rendered(command: str, name: str, folder: Path) -> Fleet:
    """What this command, such as "kubectl kustomize", makes of the folder."""
    done = subprocess.run([*shlex.split(command), str(folder)], stdout=subprocess.PIPE, text=True, timeout=60,
                          check=True)
    objects = list(yaml.safe_load_all(done.stdout))
    for secret in (it for it in objects if it["kind"] == "Secret"):
        # kustomize folds long lines, and Kubernetes, unlike the schema, accepts that in base64.
        secret["data"] = {file: "".join(text.split()) for file, text in secret["data"].items()}
    return Fleet(name, objects)


def add_keys(overlay: Path) -> None:
    """Makes the key files of an overlay, which the source tree does not hold."""
    for generator in _kustomization(overlay)["secretGenerator"]:
        for file in generator["files"]:
            (overlay / file).write_text(NEW_KEY, encoding="utf-8")


def variables(text: str) -> Iterator[str]:
    """The environment variables that a configuration file names."""
    yield from re.findall(r"(?<!\$)\$\{(\w+)\}", text)
    yield from re.findall(r'"env:(\w+)"', text)


def key_files(fragment: str) -> Iterator[str]:
    for flow in tomllib.loads(fragment).get("flows", {}).values():
        for leg in flow.values():
            if isinstance(leg, dict) and "key_file" in leg:
                yield leg["key_file"]


def kustomize_command() -> str:
    return os.environ.get("VESK_KUSTOMIZE", "")


def _kustomization(folder: Path) -> Object:
    (found,) = _documents(folder / "kustomization.yaml")
    return found


def _documents(file: Path) -> List[Object]:
    return list(yaml.safe_load_all(file.read_text(encoding="utf-8")))


def _generated(folder: Path) -> List[Object]:
    objects = []
    for kind, generators in (("ConfigMap", "configMapGenerator"), ("Secret", "secretGenerator")):
        for it in _kustomization(folder)[generators]:
            data = {Path(file).name: (folder / file).read_text(encoding="utf-8") for file in it.get("files", [])}
            objects.append({"apiVersion": "v1", "kind": kind, "metadata": {"name": it["name"]}, "data": data})
    return objects
