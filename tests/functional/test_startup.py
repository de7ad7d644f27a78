"""Arguments, the steps of start-up, core dumps, exit statuses and the end of input."""

from __future__ import annotations

import os
import re
import resource
import subprocess
from pathlib import Path
from typing import List

import pytest

from framework.fixtures import StartVesk
from framework.faults import CORE_LIMIT_UNTOUCHED, call_numbers, faulty_start
from framework.timing import SANITIZER, wait_until
from framework.vesk_process import VeskProcess

END_OF_INPUT = "info cltMessageLoop: Got EOF, exiting..."


def lines_of_a_run(vesk: VeskProcess, status: int = 0) -> List[str]:
    vesk.close_input()
    vesk.wait_exit(status)
    return vesk.log_lines()


# Arguments ------------------------------------------------------------------------------

@pytest.mark.parametrize("arguments, version", [
    ([], 2),
    (["udpv1"], 1),
    (["udpv2"], 2),
    (["udpv1", "1"], 1),
    (["udpv2", "0x3c"], 2),
    (["udpv2", "074"], 2),
    (["udpv2", "60", "true", "true"], 2),
    (["udpv2", "60", "false", "false"], 2),
    (["udpv2", "60", "true", "false", "extra", "0"], 2),
    (["udpv2", "9223372036"], 2),
])
def test_valid_arguments_are_accepted(start_vesk: StartVesk, arguments: List[str],
                                      version: int) -> None:
    lines = lines_of_a_run(start_vesk(*arguments))
    assert f"info Starting forwarder with UDPv{version}" in lines
    assert not [line for line in lines if line.startswith("error")]


@pytest.mark.parametrize("arguments, complaint", [
    (["UDPV2"], "Bad UDP version argument [UDPV2]"),
    (["udpv3"], "Bad UDP version argument [udpv3]"),
    (["udpv1 "], "Bad UDP version argument [udpv1 ]"),
    ([""], "Bad UDP version argument []"),
    (["udpv1", "0"], "Bad duration argument [0]"),
    (["udpv1", "0x0"], "Bad duration argument [0x0]"),
    (["udpv1", "10s"], "Bad duration argument [10s]"),
    (["udpv1", "089"], "Bad duration argument [089]"),
    (["udpv1", "x"], "Bad duration argument [x]"),
    (["udpv1", ""], "Bad duration argument []"),
    (["udpv1", "60 "], "Bad duration argument [60 ]"),
    (["udpv1", "99999999999999999999"], "Bad duration argument [99999999999999999999]"),
    # The interval in nanoseconds has to fit into 64 bits.
    (["udpv1", "9223372037"], "Bad duration argument [9223372037]"),
    (["udpv1", "-1"], "Bad duration argument [-1]"),
    (["udpv2", "60", "yes"], "Bad flag argument at index [3]: [yes]"),
    (["udpv2", "60", "True"], "Bad flag argument at index [3]: [True]"),
    (["udpv2", "60", ""], "Bad flag argument at index [3]: []"),
    (["udpv2", "60", "true", "0"], "Bad flag argument at index [4]: [0]"),
    (["udpv2", "60", "no", "no"], "Bad flag argument at index [3]: [no]"),
    # The first bad argument from the left is reported.
    (["udpv9", "0", "no", "no"], "Bad UDP version argument [udpv9]"),
    (["udpv2", "0", "no", "no"], "Bad duration argument [0]"),
])
def test_a_bad_argument_ends_the_process(start_vesk: StartVesk, arguments: List[str],
                                         complaint: str) -> None:
    lines = lines_of_a_run(start_vesk(*arguments), status=255)
    assert lines == ["info allowCoreDumps: removed core size limit", f"error {complaint}"]


# Order ----------------------------------------------------------------------------------

def test_start_up_logs_its_steps_in_order(start_vesk: StartVesk) -> None:
    lines = lines_of_a_run(start_vesk())
    workers = [r"info created upstream recvThread \d+"] * max(1, os.cpu_count() or 1)
    steps = [r"info allowCoreDumps: removed core size limit",
             r"info Initial OpenSSL FIPS mode is inactive\.",
             r"info OpenSSL FIPS mode activation is not required\.",
             r"info Starting forwarder with UDPv2",
             *workers,
             r"info Created pollLoop thread: [0-9a-f]+"]
    for step, line in zip(steps, lines):
        assert re.fullmatch(step, line), f"{line!r} instead of {step!r}"
    assert [line for line in lines if "Task [" not in line][-2:] == [END_OF_INPUT, ""]
    identities = {line.split()[-1] for line in lines if " recvThread " in line}
    assert len(identities) == len(workers)


def test_the_logged_thread_identifiers_are_those_of_the_threads(start_vesk: StartVesk) -> None:
    """Decimal for the workers, hexadecimal for the poll thread; each is a mapped address."""
    vesk = start_vesk()
    worker = int(vesk.wait_for_log(
        re.compile(r"info created upstream recvThread \d+")).split()[-1])
    poll = int(vesk.wait_for_log(
        re.compile(r"info Created pollLoop thread: [0-9a-f]+")).split()[-1], 16)
    for identity in (worker, poll):
        assert _is_mapped(vesk.pid, identity), f"{identity:#x} is not an address of this process"


def _is_mapped(process: int, address: int) -> bool:
    for line in Path(f"/proc/{process}/maps").read_text().splitlines():
        first, last = (int(part, 16) for part in line.split()[0].split("-"))
        if first <= address < last:
            return True
    return False


def test_end_of_input_right_after_the_start_ends_the_process(start_vesk: StartVesk) -> None:
    vesk = start_vesk(standard_input=subprocess.DEVNULL)
    vesk.wait_exit(0)
    assert [line for line in vesk.log_lines() if "Task [" not in line][-2:] == [END_OF_INPUT, ""]


def test_end_of_input_ends_every_thread(vesk: VeskProcess) -> None:
    vesk.listen()
    since = vesk.mark()
    vesk.close_input()
    vesk.wait_exit(0)
    assert [line for line in vesk.log_lines(since) if "Task" not in line] == [
        END_OF_INPUT, "", "info Forwarder listener stopped"]


# Core dumps -----------------------------------------------------------------------------

def limited(core_limits: str) -> List[str]:
    """The command prefix that removes the right to raise the core limit."""
    words = ["prlimit", f"--core={core_limits}"]
    if os.geteuid() == 0:
        words += ["setpriv", "--bounding-set=-sys_resource"]
    return words


def test_the_core_limit_is_removed(vesk: VeskProcess) -> None:
    unlimited = (resource.RLIM_INFINITY, resource.RLIM_INFINITY)
    assert resource.prlimit(vesk.pid, resource.RLIMIT_CORE) == unlimited


def test_a_fixed_core_limit_is_logged_and_ignored(start_vesk: StartVesk) -> None:
    lines = lines_of_a_run(start_vesk(prefix=limited("4096:4096"),
                                      environment=CORE_LIMIT_UNTOUCHED))
    assert lines[:3] == [
        "warn allowCoreDumps: failed to remove core size limit, Operation not permitted",
        "info allowCoreDumps: core size limit is 4096, max is 4096",
        "info Initial OpenSSL FIPS mode is inactive."]


def test_the_core_limit_is_raised_as_far_as_allowed(start_vesk: StartVesk) -> None:
    vesk = start_vesk(prefix=limited("0:4096"), environment=CORE_LIMIT_UNTOUCHED)
    vesk.settle()
    assert resource.prlimit(vesk.pid, resource.RLIMIT_CORE) == (4096, 4096)
    assert vesk.log_lines()[:3] == [
        "warn allowCoreDumps: failed to remove core size limit, Operation not permitted",
        "info allowCoreDumps: core size limit is 0, max is 4096",
        "info allowCoreDumps: raised core size limit to 4096"]


CORE_LIMIT_SET = r"RLIMIT_CORE, \{"


def test_an_unlimited_core_limit_is_logged_as_the_largest_number(
        start_vesk: StartVesk, tmp_path: Path) -> None:
    (first,) = call_numbers(tmp_path, "prlimit64", CORE_LIMIT_SET)[:1]
    prefix = ["prlimit", "--core=0:unlimited", *faulty_start(
        tmp_path / "trace", f"prlimit64:error=EPERM:when={first}")]
    vesk = start_vesk(prefix=prefix, environment=CORE_LIMIT_UNTOUCHED)
    vesk.settle()
    assert vesk.log_lines()[:3] == [
        "warn allowCoreDumps: failed to remove core size limit, Operation not permitted",
        "info allowCoreDumps: core size limit is 0, max is 18446744073709551615",
        "info allowCoreDumps: raised core size limit to 18446744073709551615"]


def test_a_core_limit_that_cannot_be_read_is_reported(start_vesk: StartVesk,
                                                      tmp_path: Path) -> None:
    (first,) = call_numbers(tmp_path, "prlimit64", CORE_LIMIT_SET)[:1]
    lines = lines_of_a_run(start_vesk(environment=CORE_LIMIT_UNTOUCHED, prefix=faulty_start(
        tmp_path / "trace", f"prlimit64:error=EFAULT:when={first}..{first + 1}")))
    assert lines[:3] == [
        "warn allowCoreDumps: failed to remove core size limit, Bad address",
        "error allowCoreDumps: failed to discover core size limit, Bad address",
        "info Initial OpenSSL FIPS mode is inactive."]


def test_a_core_limit_that_cannot_be_raised_is_reported(start_vesk: StartVesk,
                                                        tmp_path: Path) -> None:
    (first,) = call_numbers(tmp_path, "prlimit64", CORE_LIMIT_SET)[:1]
    prefix = ["prlimit", "--core=0:4096", *faulty_start(
        tmp_path / "trace", f"prlimit64:error=EPERM:when={first}..{first + 2}+2")]
    lines = lines_of_a_run(start_vesk(prefix=prefix, environment=CORE_LIMIT_UNTOUCHED))
    assert lines[:4] == [
        "warn allowCoreDumps: failed to remove core size limit, Operation not permitted",
        "info allowCoreDumps: core size limit is 0, max is 4096",
        "warn allowCoreDumps: failed to raise core size limit, Operation not permitted",
        "info Initial OpenSSL FIPS mode is inactive."]


def test_the_descriptor_table_does_not_grow_later(vesk: VeskProcess) -> None:
    """The kernel would hold up the receive thread whose socket makes the table grow."""
    soft, _ = resource.prlimit(vesk.pid, resource.RLIMIT_NOFILE)
    status = Path(f"/proc/{vesk.pid}/status").read_text(encoding="ascii")
    found = re.search(r"^FDSize:\s+(\d+)$", status, re.MULTILINE)
    assert found and int(found[1]) >= min(soft, 1 << 17)


# Failures of the start ------------------------------------------------------------------

def test_a_missing_message_channel_ends_the_start(start_vesk: StartVesk, tmp_path: Path) -> None:
    vesk = start_vesk(prefix=faulty_start(tmp_path / "trace", "socketpair:error=EMFILE"))
    lines = lines_of_a_run(vesk, status=256 - 24)
    assert lines[-2:] == ["error Failed to create socketpair for poll socket: Too many open files",
                          "error Failed to create poll socks"]


@pytest.mark.parametrize("call", ["F_GETFL", "F_SETFL"])
def test_a_message_channel_that_stays_blocking_ends_the_start(start_vesk: StartVesk, tmp_path: Path,
                                                              call: str) -> None:
    number = call_numbers(tmp_path, "fcntl", call)[-1]
    vesk = start_vesk(prefix=faulty_start(tmp_path / "trace", f"fcntl:error=EPERM:when={number}"))
    lines = lines_of_a_run(vesk, status=256 - 1)
    assert lines[-2:] == ["error Failed to set serverPollSock to non-blocking mode",
                          "error Failed to create poll socks"]


def thread_starts(folder: Path) -> List[int]:
    """The numbers of the main thread's calls that start threads, in order."""
    return call_numbers(folder, "clone3", "CLONE_THREAD")


def test_a_first_worker_that_cannot_be_started_ends_the_start(start_vesk: StartVesk,
                                                              tmp_path: Path) -> None:
    first = thread_starts(tmp_path)[0]
    vesk = start_vesk(prefix=faulty_start(tmp_path / "trace",
                                          f"clone3:error=EAGAIN:when={first}"))
    lines = lines_of_a_run(vesk, status=256 - 11)
    assert lines[-2:] == ["error Failed to create Upstream Recv Threads, Error: "
                          "Resource temporarily unavailable",
                          "error Failed to create upstream threads"]


@pytest.mark.skipif((os.cpu_count() or 1) < 2, reason="one processor means one worker")
def test_a_second_worker_that_cannot_be_started_ends_the_start(start_vesk: StartVesk,
                                                               tmp_path: Path) -> None:
    second = thread_starts(tmp_path)[1]
    vesk = start_vesk(prefix=faulty_start(tmp_path / "trace",
                                          f"clone3:error=EAGAIN:when={second}"))
    lines = lines_of_a_run(vesk, status=256 - 11)
    assert re.fullmatch(r"info created upstream recvThread \d+", lines[-3])
    assert lines[-2:] == ["error Failed to create Upstream Recv Threads, Error: "
                          "Resource temporarily unavailable",
                          "error Failed to create upstream threads"]


def test_a_poll_thread_that_cannot_be_started_ends_the_start(start_vesk: StartVesk,
                                                             tmp_path: Path) -> None:
    number = thread_starts(tmp_path)[os.cpu_count() or 1]
    vesk = start_vesk(prefix=faulty_start(tmp_path / "trace",
                                          f"clone3:error=EAGAIN:when={number}"))
    lines = lines_of_a_run(vesk, status=256 - 11)
    assert lines[-1] == "error Failed to create pollLoop thread: Resource temporarily unavailable"


# Threads that cannot be ended -----------------------------------------------------------

@pytest.mark.skipif(SANITIZER == "tsan", reason="its runtime sends signals itself")
def test_a_thread_that_cannot_be_cancelled_is_reported(start_vesk: StartVesk,
                                                       tmp_path: Path) -> None:
    """The result of stopping the poll thread becomes the exit status."""
    vesk = start_vesk(prefix=faulty_start(tmp_path / "trace", "tgkill:error=EPERM:when=1"))
    vesk.settle()
    wait_until(lambda: len(vesk.threads_in("epoll_wait")) == 1, "the poll thread waits")
    lines = lines_of_a_run(vesk, status=1)
    assert "error Failed pthread_cancel: error Operation not permitted" in lines
