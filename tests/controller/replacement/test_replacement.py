"""The forwarders are replaced while they forward."""

from __future__ import annotations

from typing import Type

import pytest

from configuration_file import ConfigurationFile
from controller_fixtures import StartController
from framework.timing import wait_until
from generator import Generator
from instances import (DONE, FLOWS, INSTANCES, METRICS, RATE, READY, REPLACEMENTS, forwarders,
                       replace, tables, write_for_generator)
from page import samples


@pytest.mark.limit_seconds(120)
def test_replacements_lose_nothing(configuration: ConfigurationFile,
                                       start_controller: StartController,
                                       start_generator: Type[Generator]) -> None:
    write_for_generator(configuration)
    controller = start_controller()
    controller.wait_for(READY)
    first = forwarders(controller, INSTANCES)
    generator = start_generator(controller.pid, FLOWS, RATE)
    for _ in range(REPLACEMENTS):
        controller.wait_for(DONE, replace(controller), 20)
    assert not set(forwarders(controller, INSTANCES)) & set(first)
    counts = generator.check_nothing_lost()

    # Each request of the warm-up and of the measured time is counted once, whichever forwarder had it.
    wait_until(lambda: samples(METRICS)["vesk_upstream_sent_datagrams_total"] >= counts["sent"],
               "the last report was read")
    page = samples(METRICS)
    for name in ("downstream_received_datagrams", "upstream_sent_datagrams"):
        parts = [page[f'vesk_instance_{name}_total{{instance="{i}"}}'] for i in range(INSTANCES)]
        assert sum(parts) == page[f"vesk_{name}_total"] and min(parts) > 0
    assert page['vesk_replacements_total{outcome="done"}'] == REPLACEMENTS
    assert controller.finish() == 0
    assert not tables()
