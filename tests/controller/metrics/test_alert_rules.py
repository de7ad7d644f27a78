"""Each alert fires when it should, is silent otherwise, and has a row in the operator's table."""

from __future__ import annotations

import json
import re
import subprocess
from dataclasses import dataclass
from pathlib import Path
from typing import Dict, List

from alert_rules import RULES, Rule, alert_rules

_OPERATING = Path(__file__).resolve().parents[3] / "docs/operating.md"

# Series by name and labels; values in the form of promtool, "first+stepxcount", one step in 10 seconds.
Series = Dict[str, str]


@dataclass(frozen=True)
class Case:
    """Series with which an alert fires after 20 minutes, and series with which it must not."""

    fires: Series
    silent: Series
    labels: Dict[str, str]


def case(fires: Series, silent: Series, **labels: str) -> Case:
    return Case(fires, silent, labels)


def steady(**values: int) -> Series:
    return {name: f"{value}x120" for name, value in values.items()}


def rising(name: str, step: int) -> Series:
    return {name: f"0+{step}x120"}


_CASES: Dict[str, Case] = {
    "VeskUnreachable": case({'up{job="vesk"}': "0x120"},
                            {'up{job="vesk"}': "1x120", 'up{job="other"}': "0x120"}, job="vesk"),
    # A restart that succeeds within a minute does not fire the alert.
    "VeskDown": case(steady(vesk_up=0), {"vesk_up": "1x117 0x3"}),
    "VeskNotListening": case(steady(vesk_listening=0), steady(vesk_listening=1)),
    "VeskRestarts": case({"vesk_restarts_total": "0x60 1 2 3x58"},
                         {"vesk_restarts_total": "0x60 1x60"}),
    "VeskReportsMissing": case(
        steady(vesk_up=1, vesk_last_report_timestamp_seconds=600),
        {"vesk_up": "1x120", "vesk_last_report_timestamp_seconds": "0+10x120"}),
    "VeskFlowsRefused": case(steady(vesk_up=1, vesk_flows_active=6, vesk_flows_declared=7),
                             steady(vesk_up=0, vesk_flows_active=0, vesk_flows_declared=7)),
    "VeskFragmentError": case({'vesk_fragment_errors{fragment="10-alice.toml"}': "1x120"},
                              {'vesk_fragment_errors{fragment="10-alice.toml"}': "1x100 0x20"},
                              fragment="10-alice.toml"),
    # The time of the test begins at 0.
    "VeskRotationLong": case(
        {'vesk_rotation_start_timestamp_seconds{flow="alice",label="0x1"}': "-604000x120"},
        {'vesk_rotation_start_timestamp_seconds{flow="alice",label="0x1"}': "-603000x120"},
        flow="alice", label="0x1"),
    # One answer that is missing does not fire the alert.
    "VeskPeerUnresolved": case({'vesk_lateral_peer_resolved{peer="2"}': "1x60 0x60",
                                'vesk_lateral_peer_resolved{peer="1"}': "1x120"},
                               {'vesk_lateral_peer_resolved{peer="2"}': "1x100 0x20"}, peer="2"),
    "VeskDatagramsRefused": case(
        {**rising("vesk_downstream_receive_errors_total", 6),
         **rising("vesk_downstream_received_datagrams_total", 100)},
        {**rising("vesk_downstream_receive_errors_total", 4),
         **rising("vesk_downstream_received_datagrams_total", 100)}),
    "VeskHmacFailures": case(rising("vesk_hmac_failures_total", 11),
                             rising("vesk_hmac_failures_total", 9)),
    "VeskDatagramsDropped": case(
        {**rising("vesk_upstream_dropped_datagrams_total", 0),
         **rising("vesk_upstream_dropped_replies_total", 0),
         **rising("vesk_lateral_dropped_datagrams_total", 0),
         **rising("vesk_lateral_dropped_replies_total", 1)},
        steady(vesk_upstream_dropped_datagrams_total=5, vesk_upstream_dropped_replies_total=5,
               vesk_lateral_dropped_datagrams_total=5, vesk_lateral_dropped_replies_total=5)),
    "VeskEndpointsDeleted": case({"vesk_endpoints_deleted_by_error_total": "0x60 1+1x10 11x50"},
                                 {"vesk_endpoints_deleted_by_error_total": "0x60 1+1x2 3x58"}),
    "VeskReceiveBufferFull": case(
        rising('vesk_udp_dropped_datagrams_total{side="upstream"}', 1),
        {'vesk_udp_dropped_datagrams_total{side="upstream"}': "7x120"}, side="upstream"),
    "VeskReceiveQueueLong": case(
        {'vesk_udp_receive_queue_bytes{side="lateral"}': "600000x120"},
        # The queues of all flows together may be long.
        {'vesk_udp_receive_queue_bytes{side="downstream"}': "500000x120",
         'vesk_udp_receive_queue_bytes{side="upstream"}': "1500000x120"}, side="lateral"),
    "VeskPortsRunOut": case(steady(vesk_ephemeral_ports_left=10, vesk_ephemeral_ports_used=90),
                            steady(vesk_ephemeral_ports_left=11, vesk_ephemeral_ports_used=89)),
    "VeskDescriptorsRunOut": case(steady(vesk_descriptors_left=0, vesk_descriptors_used=64),
                                  steady(vesk_descriptors_left=11, vesk_descriptors_used=89)),
    "VeskConntrackFull": case(steady(vesk_conntrack_entries=91, vesk_conntrack_entries_limit=100),
                              steady(vesk_conntrack_entries=90, vesk_conntrack_entries_limit=100)),
    "VeskHostBufferErrors": case(
        {**rising('vesk_host_udp_receive_buffer_errors_total{family="ipv6"}', 0),
         **rising('vesk_host_udp_send_buffer_errors_total{family="ipv6"}', 1)},
        {'vesk_host_udp_receive_buffer_errors_total{family="ipv6"}': "9x120",
         'vesk_host_udp_send_buffer_errors_total{family="ipv6"}': "9x120"}, family="ipv6"),
}


def promtool_test(series: Series, rule: Rule, alerts: List[Dict[str, object]]) -> Dict[str, object]:
    return {"interval": "10s",
            "input_series": [{"series": name, "values": values} for name, values in series.items()],
            "alert_rule_test": [{"eval_time": "20m", "alertname": rule.name,
                                 "exp_alerts": alerts}]}


def test_each_alert_fires_and_is_silent(tmp_path: Path) -> None:
    rules = alert_rules()
    assert sorted(_CASES) == sorted(rules), "a rule has no case, or a case no rule"
    tests = []
    for name, rule in rules.items():
        alert: Dict[str, object] = {
            "exp_labels": {"severity": rule.severity, **_CASES[name].labels},
            "exp_annotations": rule.annotations}
        tests.append(promtool_test(_CASES[name].fires, rule, [alert]))
        tests.append(promtool_test(_CASES[name].silent, rule, []))
    # JSON is valid YAML.
    file = tmp_path / "tests.yml"
    file.write_text(json.dumps({"rule_files": [str(RULES)], "evaluation_interval": "10s",
                                "tests": tests}), encoding="utf-8")
    result = subprocess.run(["promtool", "test", "rules", str(file)], capture_output=True,
                            text=True, timeout=60, check=False)
    assert result.returncode == 0, result.stdout + result.stderr


def rows() -> Dict[str, List[str]]:
    """The cells of each row of the operator's table after the alert's name."""
    text = _OPERATING.read_text(encoding="utf-8")
    section = text.split("## When something is wrong\n")[1].split("\n## ")[0]
    lines = re.findall(r"^\| `(\w+)` \| (.+) \|$", section, re.MULTILINE)
    found = {name: cells.split(" | ") for name, cells in lines}
    assert len(found) == len(lines), "an alert has two rows"
    return found


def test_each_alert_has_its_row_in_the_operators_table() -> None:
    rules = alert_rules()
    assert sorted(rows()) == sorted(rules)
    for name, rule in rules.items():
        assert rule.annotations["runbook"] == (
            f"/usr/share/doc/vesk/operating.md, When something is wrong, {name}")


def test_each_row_has_a_metric_of_its_rule_a_cause_and_a_remedy() -> None:
    rules = alert_rules()
    for name, cells in rows().items():
        assert len(cells) == 4 and all(cells), name
        shown = set(re.findall(r"`(\w+)`", cells[1]))
        assert shown and shown <= set(re.findall(r"\w+", rules[name].expression)), name
