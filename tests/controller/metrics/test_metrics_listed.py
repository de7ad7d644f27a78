"""The page, its documentation, the alerts and the dashboard have the same metrics."""

from __future__ import annotations

import json
import re
import subprocess
from pathlib import Path
from typing import Callable, Dict, Iterator, List, Set

import pytest

from alert_rules import RULES, alert_rules
from page import metrics_text, names
from probe import Probe
from prometheus_process import PrometheusProcess

_ROOT = Path(__file__).resolve().parents[3]
_DOCUMENT = (_ROOT / "docs/metrics.md").read_text(encoding="utf-8")
_DASHBOARD = json.loads((_ROOT / "packaging/grafana/vesk.json").read_text(encoding="utf-8"))
_NAME = re.compile(r"\bvesk_[a-z0-9_]+")

# Every section has figures, so that no metric is missing.
_REPORT = """\
info \n\
Poll stats:
ActiveEvtNr:1 RdReadyNr:{n} WrReadyNr:0 ErrorNr:{n}

info Upstream Stats:
Label:65537,RxDg:{n},TxDg:{n},RxDgError{n},TxDgDropped{n},DnTxDg:{n},DnTxDgDropped:{n}

info RcvThrStats: WakeNr:{n},ReadyFdNr:{n},DgNr:{n} WakeNr:{n},ReadyFdNr:{n},DgNr:{n} \n\

info SndThrStats \n\

info EptNr:1,RxDg:{n},TxDg:0

info Downstream Stats:
RxDg:{n},TxDg:{n},RxDgError:{n},TxDgDropped:{n}

info Lateral Stats:
RxDg:{n},TxDg:{n},RxDgError:{n},TxDgDropped:{n},DnTxDg:{n},DnTxDgDropped:{n}

"""


def report(number: int) -> str:
    return _REPORT.replace("{n}", str(number))


@pytest.fixture
def probe(start_probe: Callable[..., Probe]) -> Probe:
    started = start_probe("per-flow", "65537=alice")
    started.act("up")
    started.act("flows 1 1")
    started.act("kernel 1")
    started.act("event")
    started.act("listening 1 1")
    started.act("instances 2")
    started.act("steering 1")
    started.act("peer 1")
    started.act("rotation 1 1")
    started.act("fragments 1")
    started.tell(report(1))
    assert started.act("settle") == ["report"]
    return started


def dashboard_expressions() -> Iterator[str]:
    for panel in _DASHBOARD["panels"]:
        for target in panel.get("targets", []):
            yield target["expr"]


def documented() -> Set[str]:
    """The metrics with a row in one of the tables."""
    rows: List[str] = re.findall(r"^\| `(vesk_[a-z_]+)` \| (?:counter|gauge) \|", _DOCUMENT,
                                 re.MULTILINE)
    assert len(rows) == len(set(rows)), "a metric is documented twice"
    return set(rows)


def test_documented_metrics_equal_exported_ones(probe: Probe) -> None:
    assert names(probe.port) == documented()


def test_documented_types_equal_exported_ones(probe: Probe) -> None:
    exported = dict(re.findall(r"^# TYPE (\S+) (\S+)$", metrics_text(probe.port), re.MULTILINE))
    told: Dict[str, str] = dict(re.findall(r"^\| `(vesk_[a-z_]+)` \| (\w+) \|", _DOCUMENT,
                                           re.MULTILINE))
    assert exported == told


def test_texts_name_only_existing_metrics(probe: Probe) -> None:
    exported = names(probe.port)
    assert set(_NAME.findall(_DOCUMENT)) <= exported
    asked = asked_by_alerts()
    assert asked and asked <= exported
    variables = json.dumps(_DASHBOARD["templating"])
    used = {name for text in [*dashboard_expressions(), variables] for name in _NAME.findall(text)}
    assert used and used <= exported


def shown_on_the_dashboard() -> Set[str]:
    return {name for text in dashboard_expressions() for name in _NAME.findall(text)}


def test_the_dashboard_shows_metrics_of_the_kernel_and_the_log() -> None:
    section = _DOCUMENT.split("## What the kernel says\n")[1].split("\n## Alerts")[0]
    assert set(re.findall(r"^\| `(vesk_\w+)`", section, re.MULTILINE)) <= shown_on_the_dashboard()


def test_the_dashboard_shows_the_spread_over_the_instances() -> None:
    assert {"vesk_instance_downstream_received_datagrams_total", "vesk_instance_up",
            "vesk_steering_active", "vesk_replacements_total"} - shown_on_the_dashboard() == set()


def asked_by_alerts() -> Set[str]:
    return {name for rule in alert_rules().values() for name in _NAME.findall(rule.expression)}


def test_the_dashboard_shows_the_metrics_of_the_alerts() -> None:
    assert asked_by_alerts() - shown_on_the_dashboard() == set()


def test_the_dashboard_shows_the_listeners_and_the_reloads() -> None:
    assert {"vesk_listening", "vesk_lateral_listening", "vesk_reloads_total",
            "vesk_last_reload_successful"} - shown_on_the_dashboard() == set()


def test_promtool_accepts_the_page(probe: Probe) -> None:
    result = subprocess.run(["promtool", "check", "metrics"], input=metrics_text(probe.port),
                            capture_output=True, text=True, timeout=60, check=False)
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")


def test_promtool_accepts_the_alerts() -> None:
    result = subprocess.run(["promtool", "check", "rules", str(RULES)], capture_output=True,
                            text=True, timeout=60, check=False)
    assert result.returncode == 0, result.stdout + result.stderr


def test_prometheus_answers_the_queries_of_dashboard_and_alerts(
        probe: Probe, start_prometheus: Callable[[int], PrometheusProcess]) -> None:
    prometheus = start_prometheus(probe.port)
    prometheus.wait_for({"vesk_upstream_sent_datagrams_total": 1})
    probe.tell(report(100))
    probe.act("kernel 100")
    probe.act("event")
    prometheus.wait_for({"vesk_upstream_sent_datagrams_total": 100})
    for expression in dashboard_expressions():
        asked = expression.replace("$__rate_interval", "1m").replace("$instance", ".*")
        assert "$" not in asked
        prometheus.wait_for_series(asked)
    fired = {rule.name for rule in alert_rules().values() if prometheus.query(rule.expression)}
    # The child is up, its flow is active and its report is new, but it refuses and drops many
    # datagrams, the kernel drops some at its sockets, a fragment has an error, and a rotation is old.
    assert fired == {"VeskDatagramsRefused", "VeskDatagramsDropped", "VeskReceiveBufferFull",
                     "VeskHostBufferErrors", "VeskConntrackFull", "VeskFragmentError",
                     "VeskRotationLong"}


def test_the_dashboard_can_be_imported() -> None:
    panels = _DASHBOARD["panels"]
    assert len({panel["id"] for panel in panels}) == len(panels)
    variables = {variable["name"] for variable in _DASHBOARD["templating"]["list"]}
    text = json.dumps(panels)
    assert set(re.findall(r"\$\{?([a-z]+)", text)) <= variables
    taken = set()
    for panel in panels:
        place = panel["gridPos"]
        cells = {(x, y) for x in range(place["x"], place["x"] + place["w"])
                 for y in range(place["y"], place["y"] + place["h"])}
        assert place["x"] + place["w"] <= 24 and not cells & taken, panel["title"]
        taken |= cells
