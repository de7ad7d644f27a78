"""Prints what is inside an image or a package, as a CycloneDX bill of materials in JSON.

Usage: sbom.py image ARCHIVE.tar BUILT_IN
       sbom.py package PACKAGE.deb BUILT_IN
BUILT_IN is the list that packaging/build-packages writes: the libraries whose headers are compiled into the programs,
so that no dependency shows them. The time is SOURCE_DATE_EPOCH. scripts/release calls this.
"""

from __future__ import annotations

import hashlib
import io
import json
import os
import re
import subprocess
import sys
import tarfile
import uuid
from datetime import datetime, timezone
from pathlib import Path
from typing import Any, Dict, Iterable, List, Tuple
from urllib.parse import quote

Json = Dict[str, Any]

OURS = ("vesk", "vesk-controller", "vesk-tools", "libvesk-framing1", "libvesk-framing-dev")
LIBRARIES = OURS[3:]
HEADERS = {"vesk-controller": ("libcli11-dev",), "vesk-tools": ("libcli11-dev",)}


def fields(control: str) -> Dict[str, str]:
    """The one-line fields of a package's control file."""
    return dict(re.findall(r"(?m)^([A-Za-z-]+): (.*)$", control))


def depends(control: Dict[str, str]) -> List[Tuple[str, str]]:
    """The names of the dependencies, of alternatives the first one, and the versions that they need."""
    return [(found[1], found[2] or "") for found in
            (re.match(r"([^\s:(|]+)[^(|]*(?:\(([^)]*)\))?", word.strip())
             for word in control.get("Depends", "").split(",") if word.strip()) if found]


def purl(control: Dict[str, str]) -> str:
    version, arch = (quote(control[name], safe="") for name in ("Version", "Architecture"))
    if control["Package"] in OURS:
        return f"pkg:generic/{control['Package']}@{version}?arch={arch}"
    return f"pkg:deb/debian/{control['Package']}@{version}?arch={arch}&distro=debian-12"


def component(control: Dict[str, str]) -> Json:
    is_program = control["Package"] in OURS and control["Package"] not in LIBRARIES
    return {"type": "application" if is_program else "library", "bom-ref": purl(control),
            "name": control["Package"], "version": control["Version"], "purl": purl(control)}


def headers_in(name: str, built_in: Dict[str, str]) -> List[Json]:
    return [component({"Package": header, "Version": built_in[header], "Architecture": "all"})
            for header in HEADERS.get(name, ())]


def relation(reference: str, others: Iterable[str]) -> Json:
    return {"ref": reference, "dependsOn": sorted(set(others))}


def document(subject: Json, content: bytes, components: List[Json], relations: List[Json]) -> Json:
    """The bill of a subject with these bytes. The same bytes give the same serial number."""
    digest = hashlib.sha256(content).hexdigest()
    subject["hashes"] = [{"alg": "SHA-256", "content": digest}]
    time = datetime.fromtimestamp(int(os.environ["SOURCE_DATE_EPOCH"]), timezone.utc)
    return {"bomFormat": "CycloneDX", "specVersion": "1.5", "version": 1,
            "serialNumber": f"urn:uuid:{uuid.uuid5(uuid.NAMESPACE_OID, digest)}",
            "metadata": {"timestamp": time.strftime("%Y-%m-%dT%H:%M:%SZ"), "component": subject},
            "components": sorted({item["bom-ref"]: item for item in components}.values(),
                                 key=lambda item: item["bom-ref"]),
            "dependencies": sorted(relations, key=lambda item: item["ref"])}


def of_image(content: bytes, built_in: Dict[str, str]) -> Json:
    with tarfile.open(fileobj=io.BytesIO(content)) as archive:
        def blob(digest: str) -> bytes:
            file = archive.extractfile(f"./blobs/{digest.replace(':', '/')}")
            assert file is not None
            return file.read()

        index = archive.extractfile("./index.json")
        assert index is not None
        (entry,) = json.load(index)["manifests"]
        manifest = json.loads(blob(entry["digest"]))
        config = json.loads(blob(manifest["config"]["digest"]))
        controls = [control for layer in manifest["layers"] for control in _statuses(blob(layer["digest"]))]
    labels = config["config"]["Labels"]
    name, version = (labels[f"org.opencontainers.image.{word}"] for word in ("title", "version"))
    reference = f"pkg:oci/{name}@{quote(entry['digest'], safe='')}?arch={config['architecture']}"
    known = {control["Package"]: purl(control) for control in controls}
    components = [component(control) for control in controls]
    relations = [relation(reference, known.values())]
    for control in controls:
        inside = headers_in(control["Package"], built_in)
        components += inside
        relations.append(relation(purl(control), [*(known[other] for other, _ in depends(control) if other in known),
                                                  *(header["purl"] for header in inside)]))
        relations += [relation(header["purl"], []) for header in inside]
    subject = {"type": "container", "bom-ref": reference, "name": name, "version": version, "purl": reference}
    return document(subject, content, components, relations)


def _statuses(layer: bytes) -> Iterable[Dict[str, str]]:
    """The control files of the packages in a layer."""
    with tarfile.open(fileobj=io.BytesIO(layer)) as archive:
        for member in archive:
            file = archive.extractfile(member) if "var/lib/dpkg/status.d/" in member.name else None
            if file is not None:
                yield fields(file.read().decode())


def of_package(content: bytes, built_in: Dict[str, str]) -> Json:
    def dpkg_deb(option: str) -> bytes:
        return subprocess.run(["dpkg-deb", option, "/dev/stdin"], input=content, stdout=subprocess.PIPE,
                              check=True).stdout

    control = fields(dpkg_deb("--field").decode())
    subject = component(control)
    needed: List[Json] = [
        {"type": "library", "bom-ref": f"{name} ({wanted})", "name": name, "scope": "required",
         "properties": [{"name": "debian:version", "value": wanted}]}
        for name, wanted in depends(control)]
    inside = headers_in(control["Package"], built_in)
    with tarfile.open(fileobj=io.BytesIO(dpkg_deb("--fsys-tarfile"))) as archive:
        files: List[Json] = [
            {"type": "file", "bom-ref": member.name[1:], "name": member.name[1:],
             "hashes": [{"alg": "SHA-256", "content": hashlib.sha256(_read(archive, member)).hexdigest()}]}
            for member in archive if member.isfile()]
    others = [*needed, *inside]
    return document(subject, content, [*others, *files],
                    [relation(subject["bom-ref"], (other["bom-ref"] for other in others))])


def _read(archive: tarfile.TarFile, member: tarfile.TarInfo) -> bytes:
    file = archive.extractfile(member)
    assert file is not None
    return file.read()


def main() -> int:
    kinds = {"image": of_image, "package": of_package}
    if len(sys.argv) != 4 or sys.argv[1] not in kinds:
        print("Usage: sbom.py image|package FILE BUILT_IN", file=sys.stderr)
        return 2
    lines = Path(sys.argv[3]).read_text(encoding="utf-8").splitlines()
    built_in = {name: version for name, version in (line.split() for line in lines)}
    print(json.dumps(kinds[sys.argv[1]](Path(sys.argv[2]).read_bytes(), built_in), indent=2))
    return 0


if __name__ == "__main__":
    sys.exit(main())
