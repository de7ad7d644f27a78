"""The job for Nomad agrees with the settings in it."""

from __future__ import annotations

import re
import tomllib

from fleet import ROOT, variables

_JOB = (ROOT / "deploy/nomad/vesk.nomad.hcl").read_text(encoding="utf-8")
_SECONDS_TO_END = 9


def _settings_text() -> str:
    (text,) = re.findall(r'settings\.toml"\n.*?<<EOT\n(.*?)EOT\n', _JOB, re.DOTALL)
    return re.sub(r'\{\{ env "(\w+)" \}\}', r"${\1}", text)


def test_the_ports_are_those_of_the_settings() -> None:
    settings = tomllib.loads(_settings_text())
    ports = dict(re.findall(r'port "(\w+)" \{\s+static = (\d+)', _JOB))
    assert ports == {"public": str(settings["downstream"]["port"]), "lateral": str(settings["lateral"]["port"]),
                     "metrics": str(settings["metrics"]["port"])}


def test_there_is_time_to_leave_and_to_drain() -> None:
    controller = tomllib.loads(_settings_text())["controller"]
    (seconds,) = re.findall(r'kill_timeout = "(\d+)s"', _JOB)
    assert int(seconds) > controller["leave_seconds"] + controller["drain_seconds"] + _SECONDS_TO_END


def test_owners_find_each_other_by_the_name_of_the_service() -> None:
    lateral = tomllib.loads(_settings_text())["lateral"]
    (service,) = re.findall(r'name = "(\S*\$\{NOMAD_ALLOC_INDEX\})"', _JOB)
    name = service.replace("${NOMAD_ALLOC_INDEX}", "{index}")
    assert lateral["peers_from"] == f"{name}.service.consul:{lateral['port']}"
    assert lateral["index_from"] == "env:NOMAD_ALLOC_INDEX"


def test_every_variable_is_set_by_nomad_or_by_the_job() -> None:
    named = {it for it in variables(_settings_text()) if not it.startswith("NOMAD_")}
    (block,) = re.findall(r"\n      env \{\n(.*?)\n      \}", _JOB, re.DOTALL)
    assert set(re.findall(r"^ +(\w+) +=", block, re.MULTILINE)) == named


def test_the_number_of_owners_is_written_once() -> None:
    assert "count = var.owners" in _JOB
    assert 'VESK_INSTANCES = "${var.owners}"' in _JOB


def test_a_change_of_a_file_restarts_nothing() -> None:
    assert _JOB.count('destination = "secrets/conf.d/') == _JOB.count('change_mode = "noop"') == 4
    assert "change_mode = \"restart\"" not in _JOB
