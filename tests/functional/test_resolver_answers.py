"""A resolver that succeeds without an address: the command is refused, the process continues."""

from __future__ import annotations

import subprocess
from pathlib import Path
from typing import Callable, List

import pytest

from framework.bench import Bench
from framework.fixtures import StartVesk
from framework.timing import SANITIZER
from framework.udp import UdpEnd, free_port
from framework.vesk_process import VeskProcess

pytestmark = pytest.mark.skipif(bool(SANITIZER), reason="the sanitizer has to be loaded first")

SOURCE = Path(__file__).resolve().parent / "resolver" / "empty_answer.c"
StartWithEmptyAnswer = Callable[[int], VeskProcess]


@pytest.fixture
def start_with_empty_answer(start_vesk: StartVesk, tmp_path: Path) -> StartWithEmptyAnswer:
    """Starts a forwarder whose resolver returns an empty answer to its n-th query, from 1."""
    library = tmp_path / "empty_answer.so"
    subprocess.run(["cc", "-shared", "-fPIC", "-O1", "-Wall", "-Wextra", "-Werror", str(SOURCE),
                    "-o", str(library)], check=True)

    def start(number: int) -> VeskProcess:
        return start_vesk(environment={"LD_PRELOAD": str(library),
                                       "VESK_EMPTY_ANSWER": str(number)}).ready()

    return start


def remarks_after(vesk: VeskProcess, command: str) -> List[str]:
    return [line for line in vesk.lines_after(command) if " sized to " not in line]


@pytest.mark.parametrize("number", [1, 2])
def test_start_is_refused(start_with_empty_answer: StartWithEmptyAnswer, number: int) -> None:
    """The address is resolved when the command is checked, and again for the socket."""
    vesk = start_with_empty_answer(number)
    descriptors = vesk.descriptor_count()
    port = free_port()
    lines = remarks_after(vesk, f"start addr 127.0.0.1 port {port}")
    assert lines[-1] == "error startForwarder: bad command,  Invalid address and/or port "
    assert lines[:-1] == ([] if number == 1 else [
        f"info Making downstream endpoint with address 127.0.0.1 port {port}",
        f"info Making socket with family 2 address 127.0.0.1 port {port}"])
    assert vesk.descriptor_count() == descriptors
    vesk.listen()


def test_a_refused_second_start_keeps_the_socket_of_the_first(
        start_with_empty_answer: StartWithEmptyAnswer, peer: UdpEnd, upstream: UdpEnd) -> None:
    """Two answers belong to the first start and the third to the flow; the fifth is empty."""
    bench = Bench(start_with_empty_answer(5), peer, upstream)
    assert remarks_after(bench.vesk, f"start addr 127.0.0.1 port {free_port()}")[-1] == (
        "error startForwarder: bad command,  Invalid address and/or port ")
    bench.exchange(bench.control)


@pytest.mark.parametrize("number", [2, 3])
def test_start_lateral_is_refused(start_with_empty_answer: StartWithEmptyAnswer,
                                  number: int) -> None:
    vesk = start_with_empty_answer(number)
    vesk.lines_after("add_lateral_peer idx 1 addr 127.0.0.2")
    descriptors = vesk.descriptor_count()
    port = free_port()
    command = f"start_lateral addr 127.0.0.1 port {port} idx 0 max_qels 2"
    lines = remarks_after(vesk, command)
    assert lines[-1] == ("error startLateralStream: bad command, "
                         "Invalid lateral address and/or port ")
    assert lines[:-1] == ([] if number == 2 else [
        f"info Making lateral stream endpoint with address 127.0.0.1 port {port}",
        f"info Making socket with family 2 address 127.0.0.1 port {port}"])
    assert vesk.descriptor_count() == descriptors
    assert remarks_after(vesk, command)[-1] == (
        f"info Vesk Lateral listener started on port {port} address 127.0.0.1 index 0 maxQels 2")


def test_add_lateral_peer_is_refused(start_with_empty_answer: StartWithEmptyAnswer) -> None:
    vesk = start_with_empty_answer(1)
    assert remarks_after(vesk, "add_lateral_peer idx 1 addr 127.0.0.2") == [
        "error addLateralPeer: bad command, Invalid address"]


def test_set_is_refused(start_with_empty_answer: StartWithEmptyAnswer) -> None:
    vesk = start_with_empty_answer(1)
    assert remarks_after(vesk, "set label 5 up_ip 127.0.0.1 up_port 9") == [
        "error Vesk_validateAddrInfoString: up_addrinfo: unresolvable address '127.0.0.1|9'"
        "IPAddrInfo: bad IP address or port",
        "error setLabelAttrs: bad command for label 5"]


def test_set_of_half_an_address_is_refused(start_with_empty_answer: StartWithEmptyAnswer) -> None:
    """The address is resolved together with the stored half; nothing changes."""
    vesk = start_with_empty_answer(2)
    assert remarks_after(vesk, "set label 5 up_ip 127.0.0.1 up_port 9") == []
    assert remarks_after(vesk, "set label 5 up_port 10") == [
        "error setLabelAttrs: bad command for label 5"]
    assert remarks_after(vesk, "set label 5 up_port 10") == []
