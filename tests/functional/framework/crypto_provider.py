"""Configurations of libcrypto for a forwarder."""

from __future__ import annotations

import glob
from pathlib import Path
from typing import Dict, Sequence

import pytest


def any_provider_module() -> str:
    found = sorted(glob.glob("/usr/lib/*/ossl-modules/legacy.so")
                   + glob.glob("/usr/lib*/ossl-modules/legacy.so"))
    if not found:
        pytest.skip("libcrypto has no loadable provider module here")
    return found[0]


def configuration(folder: Path, providers: Sequence[str], fips_by_default: bool) -> Dict[str, str]:
    """An environment in which libcrypto has only these providers and its default one."""
    lines = ["openssl_conf = init", "[init]", "providers = providers"]
    if fips_by_default:
        lines.append("alg_section = algorithms")
    lines += ["[providers]", "default = provider_default"]
    lines += [f"{name} = provider_{name}" for name in providers]
    lines += ["[provider_default]", "activate = 1"]
    for name in providers:
        lines += [f"[provider_{name}]", f"module = {any_provider_module()}", "activate = 1"]
    if fips_by_default:
        lines += ["[algorithms]", "default_properties = fips=yes"]
    path = folder / "openssl.cnf"
    path.write_text("\n".join(lines) + "\n")
    return {"OPENSSL_CONF": str(path)}
