"""The example overlay as it is written; what kustomize makes of it is checked by test_kubernetes.py."""

from __future__ import annotations

from pathlib import Path

import yaml

from fleet import EXAMPLE, key_files


def test_it_changes_the_number_of_owners_in_both_places() -> None:
    spec = yaml.safe_load((EXAMPLE / "owners.yaml").read_text())["spec"]
    (container,) = spec["template"]["spec"]["containers"]
    assert container["env"] == [{"name": "VESK_INSTANCES", "value": str(spec["replicas"])}]


def test_it_has_every_flow_and_every_key() -> None:
    kustomization = yaml.safe_load((EXAMPLE / "kustomization.yaml").read_text())
    ((flows,), (keys,)) = (kustomization[it] for it in ("configMapGenerator", "secretGenerator"))
    written = sorted(f"flows/{it.name}" for it in EXAMPLE.glob("flows/*"))
    assert flows["files"] == written != []
    named = {f"keys/{key}" for it in written for key in key_files((EXAMPLE / it).read_text())}
    assert sorted(named) == keys["files"]


def test_its_flows_and_keys_keep_the_names_that_are_mounted() -> None:
    """With a suffix that depends on the content, each change would replace the pods."""
    for folder in (EXAMPLE, EXAMPLE.parents[1] / "base"):
        kustomization = yaml.safe_load((folder / "kustomization.yaml").read_text())
        names = {it["name"]: it.get("options", {}).get("disableNameSuffixHash", False)
                 for kind in ("configMapGenerator", "secretGenerator") for it in kustomization[kind]}
        names.pop("vesk-settings", None)
        assert names == {"vesk-flows": True, "vesk-keys": True}


def test_no_key_is_in_the_source_tree() -> None:
    assert "*.key" in (EXAMPLE / "keys/.gitignore").read_text().splitlines()
    assert [it for it in Path(EXAMPLE.parents[2]).rglob("*.toml") if "key = " in it.read_text()] == []
