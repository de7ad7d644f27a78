"""Reads the metrics page over HTTP."""

from __future__ import annotations

import re
import urllib.error
import urllib.request
from typing import Dict, Set, Tuple

from framework.timing import scaled

_SAMPLE = re.compile(r"(?P<series>[a-z_]+(?:\{.*\})?) (?P<value>\S+)")


def fetch(port: int, path: str, host: str = "127.0.0.1") -> Tuple[int, str]:
    """Status and body of an answer."""
    place = f"[{host}]" if ":" in host else host
    try:
        with urllib.request.urlopen(f"http://{place}:{port}{path}", timeout=scaled(10)) as answer:
            return answer.status, answer.read().decode("utf-8")
    except urllib.error.HTTPError as error:
        with error:
            return error.code, error.read().decode("utf-8")


def metrics_text(port: int) -> str:
    status, text = fetch(port, "/metrics")
    assert status == 200, text
    return text


def samples(port: int) -> Dict[str, float]:
    """The values on the page by series; labels are written as on the page."""
    return samples_in(metrics_text(port))


def samples_in(text: str) -> Dict[str, float]:
    found = {}
    for line in text.splitlines():
        if not line.startswith("#"):
            match = _SAMPLE.fullmatch(line)
            assert match, f"not a sample: {line!r}"
            assert match["series"] not in found, f"twice on the page: {match['series']}"
            found[match["series"]] = float(match["value"])
    return found


def names(port: int) -> Set[str]:
    return {series.split("{")[0] for series in samples(port)}
