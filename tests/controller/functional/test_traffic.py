"""A file, a controller, and datagrams in both directions."""

from __future__ import annotations

import re
import socket
import urllib.request
from pathlib import Path
from typing import Dict

import pytest

from configuration_file import ConfigurationFile
from controller_fixtures import Answer, StartController
from conversation import ask_until_answered
from framework.flow import Flow, four_keys
from framework.framing import UDPV1, Key
from framework.timing import wait_until
from framework.udp import UdpEnd

DOCUMENT = Path(__file__).resolve().parents[3] / "docs" / "controller.md"
ALICES_KEY = bytes(range(1, 33))


def example() -> str:
    """The configuration file from the documentation."""
    match = re.search(r"```toml\n(.*?)```", DOCUMENT.read_text(encoding="utf-8"), re.DOTALL)
    assert match is not None
    return match[1]


def test_the_documented_file_carries_traffic(
        configuration: ConfigurationFile, start_controller: StartController, peer: UdpEnd,
        answer: Answer) -> None:
    def key(digits: str) -> Key:
        assert digits in example()
        return Key(bytes.fromhex(digits))

    flow = Flow(label=0x10001, up_label=0x20001, down_label=0x30001, down_in=Key(ALICES_KEY),
                up_out=key("0f1e2d3c4b5a69788796a5b4c3d2e1f0"),
                up_in=key("00112233445566778899aabbccddeeff"),
                down_out=key("ffeeddccbbaa99887766554433221100"))
    service = answer(flow)
    key_file = configuration.folder / "alice.key"
    key_file.write_text(ALICES_KEY.hex() + "\n", encoding="ascii")
    key_file.chmod(0o600)
    text = example()
    for shown, used in (("port = 4500", f"port = {configuration.listen[1]}"),
                        ("0.0.0.0", "127.0.0.1"),
                        ("127.0.0.1:5000", f"127.0.0.1:{service.address[1]}")):
        assert shown in text
        text = text.replace(shown, used)
    configuration.write_text(text + "\n[metrics]\nenabled = false\n")

    controller = start_controller().ready()
    ask_until_answered(peer, flow, configuration.listen)
    assert controller.finish() == 0


def test_either_framing(configuration: ConfigurationFile, start_controller: StartController,
                        peer: UdpEnd, answer: Answer) -> None:
    flow = Flow(label=7, framing=UDPV1, **four_keys("sha1"))
    answer(flow)
    configuration.flows["bob"] = flow
    configuration.tables["forwarder"] = 'framing = "udpv1"'
    configuration.write()
    start_controller().ready()
    ask_until_answered(peer, flow, configuration.listen)


@pytest.mark.parametrize("setting, own, source", [
    ("", {}, "127.0.0.9"), ('ipv4_source = "arrival"', {}, "127.0.0.9"),
    ('ipv4_source = "kernel"', {}, "127.0.0.1"),
    ('ipv4_source = "kernel"', {"VESK_IPV4_SOURCE": "arrival"}, "127.0.0.1"),
    ("", {"VESK_IPV4_SOURCE": "kernel"}, "127.0.0.9")],
    ids=["default", "arrival", "kernel", "kernel-against-own", "default-against-own"])
def test_the_file_sets_the_source_address_of_replies(
        configuration: ConfigurationFile, start_controller: StartController, peer: UdpEnd,
        answer: Answer, setting: str, own: Dict[str, str], source: str) -> None:
    """The controller's own environment has no effect."""
    flow = Flow(label=7, **four_keys())
    answer(flow)
    configuration.flows["bob"] = flow
    configuration.listen = ("127.0.0.9", configuration.listen[1])
    configuration.tables["forwarder"] = setting
    configuration.write()
    start_controller(environment=own).ready()
    peer.send(flow.request(b"question"), configuration.listen)
    answered = peer.receive()
    assert flow.open_reply(answered.data).payload == b"question"
    assert answered.sender == (source, configuration.listen[1])


def test_the_forwarders_log_is_passed_on_with_its_levels(
        configuration: ConfigurationFile, start_controller: StartController, peer: UdpEnd,
        answer: Answer) -> None:
    flow = Flow(label=7, **four_keys())
    answer(flow)
    configuration.flows["bob"] = flow
    configuration.write()
    controller = start_controller().ready()
    host, port = configuration.listen
    controller.wait_for(f"info Vesk started on port {port} address {host}")
    ask_until_answered(peer, flow, configuration.listen)
    controller.wait_for(re.compile(r"info Created upstream endpoint: label 0x7/7 sockfds \d+ \d+"))
    peer.send(bytes(len(flow.request(b""))), configuration.listen)
    peer.send(flow.request(b"x")[:-1] + b"y", configuration.listen)
    controller.wait_for("downstreamPacketReceivedFailed HMAC Check!")
    assert controller.finish() == 0
    # Fences and reports, which have been requested by now, are not logged.
    assert not [line for line in controller.lines
                if "fence-" in line or "RxDg" in line or not line]


def test_a_quiet_forwarder_is_also_asked_for_reports(
        configuration: ConfigurationFile, start_controller: StartController, peer: UdpEnd,
        answer: Answer) -> None:
    flow = Flow(label=7, **four_keys())
    answer(flow)
    with socket.create_server(("127.0.0.1", 0)) as probe:
        port = probe.getsockname()[1]
    configuration.flows["bob"] = flow
    configuration.tables["forwarder"] = 'log_level = "error"'
    configuration.tables["controller"] = "stats_seconds = 1"
    configuration.tables["metrics"] = f"port = {port}\nper_flow = true"
    configuration.write()
    controller = start_controller().ready()
    ask_until_answered(peer, flow, configuration.listen)

    def page() -> str:
        with urllib.request.urlopen(f"http://127.0.0.1:{port}/metrics", timeout=10) as reply:
            return reply.read().decode("utf-8")

    wait_until(lambda: re.search(r'flow="bob".* [1-9]', page()) is not None,
               "the page shows the flow's traffic")
    assert controller.finish() == 0
    assert not [line for line in controller.lines if " controller: " not in line]
