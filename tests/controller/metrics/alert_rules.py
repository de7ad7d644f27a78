"""Reads the alert rules that the package installs."""

from __future__ import annotations

import re
from dataclasses import dataclass
from pathlib import Path
from typing import Dict

_ROOT = Path(__file__).resolve().parents[3]
RULES = _ROOT / "packaging/prometheus/vesk.rules.yml"

_RULE = re.compile(r"""      - alert: (?P<name>\w+)
        expr: (?:>-\n)?(?P<expression>.+?)
(?:        for: (?P<pending>\w+)
)?        labels:
          severity: (?P<severity>critical|warning)
        annotations:
          summary: (?P<summary>.+)
          runbook: (?P<runbook>.+)
""", re.DOTALL)


@dataclass(frozen=True)
class Rule:
    """One alert."""

    name: str
    expression: str
    severity: str
    annotations: Dict[str, str]


def alert_rules() -> Dict[str, Rule]:
    """All rules by name; fails if one is incomplete."""
    text = RULES.read_text(encoding="utf-8")
    rules = {}
    for block in re.split(r"(?=      - alert: )", text)[1:]:
        match = _RULE.fullmatch(block)
        assert match, block
        rules[match["name"]] = Rule(match["name"], " ".join(match["expression"].split()),
                                    match["severity"], {"summary": match["summary"],
                                                        "runbook": match["runbook"]})
    assert len(rules) == text.count("alert:")
    return rules
