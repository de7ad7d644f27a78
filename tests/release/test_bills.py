"""The bills of materials: complete, consistent, and valid by the published schema."""

from __future__ import annotations

import hashlib
import io
import json
import os
import re
import subprocess
import tarfile
from pathlib import Path
from typing import Any, Dict, List
from urllib.parse import unquote

import pytest

from conftest import find_image
from container import ImageArchive

Json = Dict[str, Any]


def _subjects(release: Path) -> List[Path]:
    return sorted([*release.glob("*.deb"), *release.glob("*.oci.tar")])


def _bill(subject: Path) -> Json:
    found: Json = json.loads(Path(f"{subject}.cdx.json").read_text(encoding="utf-8"))
    return found


@pytest.fixture
def bills(release: Path) -> List[Json]:
    return [_bill(subject) for subject in _subjects(release)]


def test_every_image_and_package_has_one(release: Path) -> None:
    subjects = _subjects(release)
    assert len(subjects) == 12, "five packages and an image for each of two architectures"
    assert len([*release.glob("*.cdx.json")]) == len(subjects)
    for subject in subjects:
        (digest,) = _bill(subject)["metadata"]["component"]["hashes"]
        assert digest == {"alg": "SHA-256", "content": hashlib.sha256(subject.read_bytes()).hexdigest()}


def test_they_are_valid_by_the_schema(bills: List[Json]) -> None:
    folder = os.environ.get("VESK_CYCLONEDX_SCHEMA")
    if not folder:
        pytest.skip("VESK_CYCLONEDX_SCHEMA names no folder with the published schema")
    jsonschema = pytest.importorskip("jsonschema")
    parts = {f"http://cyclonedx.org/schema/{file.name}": json.loads(file.read_text(encoding="utf-8"))
             for file in Path(folder).glob("*.schema.json")}
    schema = parts["http://cyclonedx.org/schema/bom-1.5.SNAPSHOT.schema.json"]
    resolver = jsonschema.RefResolver(schema["$id"], schema, store=parts)
    validator = jsonschema.Draft7Validator(schema, resolver=resolver)
    for bill in bills:
        assert [error.message for error in validator.iter_errors(bill)] == []
    # The validator finds something where there is something to find.
    assert [*validator.iter_errors({**bills[0], "components": [{"type": "libary", "name": "x"}]})] != []


def test_they_have_the_form_of_the_standard(bills: List[Json]) -> None:
    for bill in bills:
        assert (bill["bomFormat"], bill["specVersion"], bill["version"]) == ("CycloneDX", "1.5", 1)
        assert re.fullmatch(r"urn:uuid:[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}", bill["serialNumber"])
        assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", bill["metadata"]["timestamp"])
    assert len({bill["serialNumber"] for bill in bills}) == len(bills)


def test_references_name_components_once(bills: List[Json]) -> None:
    for bill in bills:
        names = [item["bom-ref"] for item in [bill["metadata"]["component"], *bill["components"]]]
        assert len(names) == len(set(names))
        relations = [item["ref"] for item in bill["dependencies"]]
        assert len(relations) == len(set(relations))
        assert {*relations, *(name for item in bill["dependencies"] for name in item["dependsOn"])} <= set(names)


@pytest.mark.parametrize("arch", ["amd64", "arm64"])
def test_that_of_an_image_lists_its_packages(release: Path, arch: str) -> None:
    image = ImageArchive(find_image(release, arch))
    inside = {name.rsplit("/", 1)[1]: _version(image.file(name).decode())
              for name in image.names() if "status.d/" in name}
    components = {item["name"]: item for item in _bill(image.path)["components"]}
    # The library of headers is in no package of the image.
    assert components.pop("libcli11-dev")["version"]
    assert {name: item["version"] for name, item in components.items()} == inside
    for item in components.values():
        assert unquote(re.split("[@?]", item["purl"])[1]) == item["version"]


def test_that_of_a_package_lists_its_files_and_needs(release: Path) -> None:
    for package in release.glob("*.deb"):
        components = _bill(package)["components"]
        assert {item["name"]: item["hashes"] for item in components if item["type"] == "file"} == {
            name: [{"alg": "SHA-256", "content": digest}] for name, digest in _files(package).items()}
        needed = {item["name"]: item["properties"] for item in components if "properties" in item}
        assert needed == {name: [{"name": "debian:version", "value": version}]
                          for name, version in _dependencies(package).items()}
        assert needed


def _version(control: str) -> str:
    (found,) = re.findall(r"(?m)^Version: (.*)$", control)
    return str(found)


def _files(package: Path) -> Dict[str, str]:
    """The checksum of each file of a package, by its path on the host."""
    found = {}
    with tarfile.open(fileobj=io.BytesIO(_output("dpkg-deb", "--fsys-tarfile", package))) as archive:
        for member in archive:
            file = archive.extractfile(member) if member.isfile() else None
            if file is not None:
                found[member.name[1:]] = hashlib.sha256(file.read()).hexdigest()
    return found


def _dependencies(package: Path) -> Dict[str, str]:
    """The lowest version, or "", of each package that a package needs; of alternatives, of the first one."""
    first = (word.split("|")[0].split(maxsplit=1)
             for word in _output("dpkg-deb", "--field", package, "Depends").decode().strip().split(","))
    return {name: " ".join(version).strip(" ()") for name, *version in first}


def _output(*words: object) -> bytes:
    return subprocess.run([str(word) for word in words], stdout=subprocess.PIPE, check=True).stdout
