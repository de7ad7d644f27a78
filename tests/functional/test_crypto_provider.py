"""FIPS mode: already active, not required, required and activated, required and refused.

The providers come from the host's configuration. These tests write one in which other
modules have the names "fips" and "qorng", on which alone the decisions depend.
"""

from __future__ import annotations

from pathlib import Path

import pytest

from framework.crypto_provider import configuration
from framework.fixtures import StartVesk
from framework.flow import Flow, four_keys
from framework.udp import UdpEnd
from framework.vesk_process import VeskProcess

INACTIVE = "info Initial OpenSSL FIPS mode is inactive."
NOT_REQUIRED = "info OpenSSL FIPS mode activation is not required."
REQUIRED = "info OpenSSL FIPS mode activation is required."
SWITCHES = ["__TORLEXA_OPENSSL_FIPS", "__MIRVOX_OPENSSL_FIPS"]


def fips_lines(vesk: VeskProcess) -> list:
    return [line for line in vesk.log_lines() if "FIPS" in line]


def test_fips_mode_is_inactive_by_default(vesk: VeskProcess) -> None:
    assert fips_lines(vesk) == [INACTIVE, NOT_REQUIRED]


@pytest.mark.parametrize("value", ["", "0", "1"])
@pytest.mark.parametrize("switch", SWITCHES)
def test_fips_mode_that_is_required_but_missing_ends_the_start(start_vesk: StartVesk, switch: str,
                                                               value: str) -> None:
    """The variable requires the mode if it is set, whatever its value."""
    vesk = start_vesk(environment={switch: value})
    vesk.wait_exit(255)
    lines = vesk.log_lines()
    assert lines[1:3] == [INACTIVE, REQUIRED]
    assert lines[3].startswith("error Failed to activate OpenSSL FIPS mode: error:")
    assert lines[4:] == ["error Failed to initialize FIPS mode!"]


@pytest.mark.parametrize("switch", SWITCHES)
def test_fips_mode_is_activated_when_required(start_vesk: StartVesk, tmp_path: Path,
                                              switch: str) -> None:
    environment = configuration(tmp_path, ["fips", "qorng"], fips_by_default=False)
    vesk = start_vesk(environment={**environment, switch: "1"})
    vesk.settle()
    assert fips_lines(vesk) == [INACTIVE, REQUIRED, "info OpenSSL FIPS mode has been activated."]


@pytest.mark.parametrize("demanded", [False, True])
def test_fips_mode_that_the_host_has_enabled_is_reported(start_vesk: StartVesk, tmp_path: Path,
                                                         demanded: bool) -> None:
    environment = configuration(tmp_path, ["fips", "qorng"], fips_by_default=True)
    if demanded:
        environment[SWITCHES[0]] = "1"
    vesk = start_vesk(environment=environment)
    vesk.settle()
    assert fips_lines(vesk) == ["info Initial OpenSSL FIPS mode is active."]


def test_without_the_seed_provider_fips_mode_counts_as_inactive(start_vesk: StartVesk,
                                                                tmp_path: Path) -> None:
    environment = configuration(tmp_path, ["fips"], fips_by_default=True)
    vesk = start_vesk(environment=environment)
    vesk.settle()
    assert fips_lines(vesk) == [INACTIVE, NOT_REQUIRED]


def test_without_the_seed_provider_required_fips_mode_is_activated(
        start_vesk: StartVesk, tmp_path: Path) -> None:
    environment = configuration(tmp_path, ["fips"], fips_by_default=True)
    vesk = start_vesk(environment={**environment, SWITCHES[1]: ""})
    vesk.settle()
    assert fips_lines(vesk)[:2] == [INACTIVE, REQUIRED]


def test_fips_enabled_but_no_provider_counts_as_inactive(start_vesk: StartVesk,
                                                         tmp_path: Path) -> None:
    environment = configuration(tmp_path, ["qorng"], fips_by_default=True)
    vesk = start_vesk(environment={**environment, SWITCHES[0]: ""})
    vesk.wait_exit(255)
    assert fips_lines(vesk)[:2] == [INACTIVE, REQUIRED]
    assert vesk.log_lines()[-1] == "error Failed to initialize FIPS mode!"


@pytest.fixture
def without_digests(start_vesk: StartVesk, tmp_path: Path) -> VeskProcess:
    """A forwarder whose libcrypto refuses every digest, because none has the FIPS property."""
    vesk = start_vesk(environment=configuration(tmp_path, ["fips", "qorng"], fips_by_default=True))
    vesk.settle()
    return vesk


def test_a_check_fails_when_libcrypto_fails(
        without_digests: VeskProcess, peer: UdpEnd, upstream: UdpEnd) -> None:
    vesk = without_digests
    port = vesk.listen()
    keyed = Flow(label=5, upstream=upstream.address, down_in=four_keys()["down_in"])
    keyless = Flow(label=6, upstream=upstream.address)
    vesk.lines_after(keyed.set_command(), keyless.set_command())
    peer.send(keyed.request(b"signed"), ("127.0.0.1", port))
    peer.send(keyed.framing.build(5, b"unsigned"), ("127.0.0.1", port))
    vesk.wait_for_log("downstreamPacketReceivedFailed HMAC Check!", count=2)
    peer.send(keyless.request(b"needs no digest"), ("127.0.0.1", port))
    assert keyless.open_request(upstream.receive().data).payload == b"needs no digest"


def test_a_datagram_is_dropped_when_libcrypto_fails_to_sign_it(
        without_digests: VeskProcess, peer: UdpEnd, upstream: UdpEnd) -> None:
    """A flow with a key sends nothing unsigned in either direction."""
    vesk = without_digests
    port = vesk.listen()
    unsendable = Flow(label=5, upstream=upstream.address, up_out=four_keys()["up_out"])
    unanswerable = Flow(label=6, upstream=upstream.address, down_out=four_keys()["down_out"])
    keyless = Flow(label=7, upstream=upstream.address)
    vesk.lines_after(*(flow.set_command() for flow in (unsendable, unanswerable, keyless)))

    peer.send(unsendable.request(b"must not arrive"), ("127.0.0.1", port))
    peer.send(unanswerable.request(b"first"), ("127.0.0.1", port))
    first = upstream.receive()
    assert unanswerable.open_request(first.data).payload == b"first"
    upstream.send(unanswerable.reply(b"must not come back"), first.sender)

    peer.send(keyless.request(b"second"), ("127.0.0.1", port))
    second = upstream.receive()
    upstream.send(keyless.reply(b"third"), second.sender)
    assert keyless.open_reply(peer.receive().data).payload == b"third"
    vesk.finish()
    assert upstream.waiting() is None and peer.waiting() is None
