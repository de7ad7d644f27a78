"""The pages while the forwarder does not work normally."""

from __future__ import annotations

import os
import re
import signal
import socket
from pathlib import Path
from typing import Callable, Dict, Iterator, Tuple

import pytest

from configuration_file import ConfigurationFile
from configuration_folder import ConfigurationFolder
from controller_process import ControllerProcess
from framework.flow import Flow
from framework.lateral import LOOPBACK
from framework.timing import wait_until
from framework.udp import UdpEnd, free_port
from programs import ANSWERING, script, spoiling_program

from page import fetch, samples
from prometheus_process import free_tcp_port

StartController = Callable[..., ControllerProcess]


def test_a_forwarder_that_does_not_listen_is_shown(
        configuration: ConfigurationFile, port: int, start_controller: StartController) -> None:
    with UdpEnd(*configuration.listen):
        start_controller().ready()
        now = samples(port)
        assert (now["vesk_up"], now["vesk_listening"]) == (1, 0)
        assert "vesk_lateral_listening" not in now
    wait_until(lambda: samples(port)["vesk_listening"] == 1, "it listens")


def test_a_lateral_stream_that_does_not_listen_is_shown(
        configuration: ConfigurationFile, port: int, start_controller: StartController) -> None:
    lateral = free_port()
    configuration.join(lateral)
    configuration.write()
    with UdpEnd(LOOPBACK[0], lateral):
        start_controller().ready()
        now = samples(port)
        assert (now["vesk_listening"], now["vesk_lateral_listening"]) == (1, 0)
    wait_until(lambda: samples(port)["vesk_lateral_listening"] == 1, "it listens")


def test_a_forwarder_that_hangs_is_shown(
        configuration: ConfigurationFile, port: int, start_controller: StartController) -> None:
    configuration.tables["controller"] = "answer_seconds = 1\nrestart_pause_ms = 1500"
    configuration.write()
    controller = start_controller().ready()
    assert samples(port)["vesk_up"] == 1
    os.kill(controller.forwarder(), signal.SIGSTOP)
    wait_until(lambda: samples(port)["vesk_up"] == 0, "the page says that it is down")
    assert fetch(port, "/healthz")[0] == 503
    wait_until(lambda: fetch(port, "/healthz")[0] == 200, "the page says that it is up again")
    assert samples(port)["vesk_restarts_total"] == 1


def test_the_outcome_of_each_reload_is_shown(
        configuration: ConfigurationFile, port: int, start_controller: StartController) -> None:
    controller = start_controller().ready()

    def reloads() -> Dict[str, float]:
        now = samples(port)
        assert now["vesk_listening"] == 1
        return {name: now[name] for name in now
                if name.startswith(("vesk_reloads_total", "vesk_last_reload"))}

    def expected(successful: int, done: int, file_refused: int, address_refused: int
                 ) -> Dict[str, float]:
        return {"vesk_last_reload_successful": successful,
                'vesk_reloads_total{outcome="done"}': done,
                'vesk_reloads_total{outcome="file_refused"}': file_refused,
                'vesk_reloads_total{outcome="address_refused"}': address_refused}

    assert reloads() == expected(1, 0, 0, 0)
    with UdpEnd() as taken:
        old, configuration.listen = configuration.listen, taken.address
        configuration.write()
        controller.reload()
        assert reloads() == expected(0, 0, 0, 1)
    configuration.write_text("[downstream\n")
    controller.reload()
    wait_until(lambda: reloads() == expected(0, 0, 1, 1), "the reload is counted")
    configuration.listen = old
    configuration.write()
    controller.reload()
    assert reloads() == expected(1, 1, 1, 1)


def test_a_fragment_with_an_error_is_shown(tmp_path: Path, start_controller: StartController) -> None:
    folder = ConfigurationFolder(tmp_path)
    port = free_tcp_port()
    folder.tables["metrics"] = f"port = {port}"
    folder.write()
    start_controller(file=folder).ready()

    def shown() -> Dict[str, float]:
        return {name: value for name, value in samples(port).items()
                if name.startswith(("vesk_fragment_errors", "vesk_last_reload"))}

    base = {'vesk_fragment_errors{fragment="00-base.toml"}': 0.0}
    assert shown() == {"vesk_last_reload_successful": 1, **base}
    file = folder.put("10-a.toml", "[")
    wait_until(lambda: shown() == {"vesk_last_reload_successful": 0, **base,
                                   'vesk_fragment_errors{fragment="10-a.toml"}': 1},
               "the error is shown")
    folder.put("10-a.toml", "")
    wait_until(lambda: shown() == {"vesk_last_reload_successful": 1, **base,
                                   'vesk_fragment_errors{fragment="10-a.toml"}': 0},
               "it is no longer shown")
    file.unlink()
    wait_until(lambda: shown() == {"vesk_last_reload_successful": 1, **base}, "the fragment is gone")


def test_ready_differs_from_healthy(
        configuration: ConfigurationFile, port: int, start_controller: StartController,
        peer: UdpEnd) -> None:
    def answers() -> Tuple[int, int, str]:
        status, text = fetch(port, "/ready")
        return fetch(port, "/healthz")[0], status, text

    flow = Flow(label=1, upstream=peer.address)
    configuration.flows["alice"] = flow
    configuration.tables["controller"] = "restart_pause_ms = 1000\ndrain_seconds = 60"
    configuration.write()
    with UdpEnd(*configuration.listen):
        controller = start_controller().ready()
        assert answers() == (200, 503, "the forwarder does not listen\n")
    wait_until(lambda: answers() == (200, 200, "ready\n"), "it is ready")
    os.kill(controller.forwarder(), signal.SIGKILL)
    wait_until(lambda: answers() == (503, 503, "the forwarder is not running\n"), "it is down")
    wait_until(lambda: answers() == (200, 200, "ready\n"), "it is ready again")
    configuration.write_text("[downstream\n")
    controller.reload()
    assert answers() == (200, 200, "ready\n")
    controller.signal(signal.SIGTERM)
    # It drains for at least a second.
    wait_until(lambda: answers() == (200, 503, "the forwarder is about to end\n"), "it drains")
    assert controller.wait_exit() == 0


def test_it_is_not_ready_before_its_flows_are_set(
        configuration: ConfigurationFile, port: int, start_controller: StartController) -> None:
    # It answers only once a certain file exists.
    hesitant = f"while [ ! -e go ]; do sleep 0.01; done\n{ANSWERING}"
    controller = start_controller("--program", script(configuration.folder, hesitant))
    controller.wait_for(re.compile("info controller: started .*"))
    assert fetch(port, "/healthz") == (200, "ok\n")
    assert fetch(port, "/ready") == (503, "the forwarder is being set up\n")
    (configuration.folder / "go").touch()
    controller.ready()
    assert fetch(port, "/ready") == (200, "ready\n")


def test_a_refused_flow_does_not_prevent_readiness(
        configuration: ConfigurationFile, port: int, start_controller: StartController,
        peer: UdpEnd) -> None:
    configuration.flows["alice"] = Flow(label=1, upstream=peer.address)
    configuration.write()
    program = spoiling_program(configuration.folder,
                               "s/label 0x1 up_ip/label 0x1 is_multiplex no up_ip/")
    controller = start_controller("--program", program).ready()
    controller.wait_for("info controller: the forwarder is set up: 0 flows, 1 refused")
    assert fetch(port, "/ready") == (200, "ready\n")


@pytest.fixture
def taken(port: int) -> Iterator[socket.socket]:
    """Occupies the port of the metrics."""
    with socket.socket() as holder:
        holder.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        holder.bind(("127.0.0.1", port))
        holder.listen()
        yield holder


def test_a_metrics_port_that_is_taken_is_tried_again(
        port: int, taken: socket.socket, start_controller: StartController) -> None:
    controller = start_controller().ready()
    since = controller.mark()
    os.kill(controller.forwarder(), signal.SIGKILL)
    for pause in (100, 200):
        controller.wait_for("warn controller: continues without metrics and tries to serve them "
                            f"again in {pause} ms")
    controller.wait_for(f"error controller: cannot serve metrics on 127.0.0.1:{port}: "
                        "Address already in use")
    controller.wait_for(re.compile("info controller: the forwarder is set up: .*"), since)
    taken.close()
    controller.wait_for(f"info controller: serving metrics on 127.0.0.1, port {port}")
    # The restart before it could serve is counted.
    assert samples(port)["vesk_restarts_total"] == 1
    assert controller.finish() == 0


def test_a_reload_changes_the_port_of_metrics_that_are_not_served(
        configuration: ConfigurationFile, taken: socket.socket,
        start_controller: StartController) -> None:
    assert taken.fileno() >= 0
    controller = start_controller().ready()
    other = free_tcp_port()
    configuration.tables["metrics"] = f"port = {other}"
    configuration.write()
    controller.reload()
    controller.wait_for(f"info controller: serving metrics on 127.0.0.1, port {other}")
    assert not [line for line in controller.lines if "the change applies" in line]


def test_required_metrics_that_cannot_be_served_are_fatal(
        configuration: ConfigurationFile, port: int, taken: socket.socket,
        start_controller: StartController) -> None:
    assert taken.fileno() >= 0
    configuration.tables["metrics"] += "\nrequired = true"
    configuration.write()
    controller = start_controller()
    assert controller.wait_exit() == 4
    controller.wait_for(f"error controller: cannot serve metrics on 127.0.0.1:{port}: "
                        "Address already in use")
    controller.wait_for("error controller: metrics.required is true: exiting")
    assert not [line for line in controller.lines if "started" in line]
