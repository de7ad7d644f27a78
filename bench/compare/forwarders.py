"""The compared programs, each in a form that one measurement can use."""

import json
import os
import random
import shutil
import socket
import subprocess
import tempfile
import textwrap
import time
from contextlib import contextmanager, nullcontext
from pathlib import Path

from compare.busy_process import BusyProcess
from compare.scenarios import Condition, Generator, Plan, Scenario

# The forwarder has one processor to itself. The generator, which is both ends of the path, has the
# other one.
FORWARDER_CPU = 0
GENERATOR_CPU = 1

SECONDS_TO_START_AND_END = 60


class MeasurementFailed(Exception):
    pass


def placed(condition: Condition, cpu: int, command: list) -> list:
    """The command, pinned to this processor unless the condition shares all processors."""
    if condition == Condition.SHARED or cpu not in os.sched_getaffinity(0):
        return command
    return ["taskset", "-c", str(cpu), *command]


def free_port() -> int:
    """A port from a range from which the kernel assigns none, so that it remains free."""
    while True:
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
            try:
                port = random.randint(10240, 32767)
                probe.bind(("127.0.0.1", port))
                return port
            except OSError:
                continue


def company(condition: Condition, seconds: float):
    """The load beside the forwarder: a context with a BusyProcess or with None."""
    if condition != Condition.BESIDE:
        return nullcontext()
    return BusyProcess(FORWARDER_CPU, seconds)


def run_traffic(build: Path, plan: Plan, scenario: Scenario, arguments: list) -> dict:
    command = [str(build / "vesk-traffic"), "--json", "--allow-loss", "--spin",
               "--warm-up", str(plan.warm_up), "--duration", str(plan.duration),
               "--algorithm", scenario.algorithm, "--payload", str(scenario.payload),
               "--flows", str(scenario.flows)]
    if scenario.rate:
        command += ["--rate", str(scenario.rate)]
    if scenario.burst > 1:
        command += ["--burst", str(scenario.burst)]
    if scenario.generator == Generator.MERGED:
        command.append("--merge-sends")
    command = placed(scenario.condition, GENERATOR_CPU, command + arguments)
    limit = plan.warm_up + plan.duration + SECONDS_TO_START_AND_END
    try:
        with company(scenario.condition, limit) as busy:
            done = subprocess.run(command, capture_output=True, text=True, check=False,
                                  timeout=limit)
            if busy and not busy.running():
                raise MeasurementFailed("the busy process ended before the measurement did")
    except subprocess.TimeoutExpired as late:
        raise MeasurementFailed(f"not done after {limit:.0f} seconds") from late
    if done.returncode != 0:
        raise MeasurementFailed(f"{done.stderr}{done.stdout}".strip())
    result = json.loads(done.stdout)
    if result["answered"] == 0:
        raise MeasurementFailed("nothing was answered in the measured time")
    return result


class CommandedForwarder:
    """The forwarder or a loop that accepts the same commands."""

    def __init__(self, name: str, program: Path):
        self.name = name
        self.program = program

    def measure(self, build: Path, plan: Plan, scenario: Scenario) -> dict:
        command = placed(scenario.condition, FORWARDER_CPU, [str(self.program), "udpv2"])
        return run_traffic(build, plan, scenario, ["--", *command])


class StreamProxy:
    """nginx forwarding unchanged datagrams: no labels, no keys, one session for each peer."""

    name = "nginx"
    program = Path("/usr/sbin/nginx")
    module = Path("/usr/lib/nginx/modules/ngx_stream_module.so")
    packages = ("nginx", "libnginx-mod-stream")

    @classmethod
    def installed(cls) -> bool:
        return cls.program.exists() and cls.module.exists()

    def measure(self, build: Path, plan: Plan, scenario: Scenario) -> dict:
        with self._running(scenario.condition) as (port, upstream_port, worker):
            # nginx distinguishes flows only by their peers, so each flow needs its own peer.
            return run_traffic(build, plan, scenario,
                               ["--unchanged", "--peers", str(scenario.flows), "--port", str(port),
                                "--upstream-port", str(upstream_port), "--pid", str(worker)])

    @contextmanager
    def _running(self, condition: Condition):
        port, upstream_port = free_port(), free_port()
        folder = Path(tempfile.mkdtemp(prefix="vesk-bench-"))
        configuration = folder / "nginx.conf"
        configuration.write_text(textwrap.dedent(f"""\
            load_module {self.module};
            daemon off;
            worker_processes 1;
            pid {folder}/pid;
            error_log {folder}/error.log warn;
            events {{ worker_connections 16000; }}
            stream {{
                server {{
                    listen 127.0.0.1:{port} udp rcvbuf=1m;
                    proxy_pass 127.0.0.1:{upstream_port};
                    proxy_timeout 60s;
                }}
            }}
            """))
        command = [str(self.program), "-c", str(configuration)]
        master = subprocess.Popen(placed(condition, FORWARDER_CPU, command),
                                  stdin=subprocess.DEVNULL)
        try:
            yield port, upstream_port, self._worker_of(master.pid)
        finally:
            master.terminate()
            master.wait()
            shutil.rmtree(folder)

    @staticmethod
    def _worker_of(master: int) -> int:
        children = Path(f"/proc/{master}/task/{master}/children")
        deadline = time.monotonic() + 10
        while time.monotonic() < deadline:
            workers = children.read_text().split() if children.exists() else []
            if workers:
                return int(workers[0])
            time.sleep(0.02)
        raise MeasurementFailed("nginx started no worker")


def all_forwarders(build: Path) -> list:
    forwarders = [CommandedForwarder("vesk", build / "vesk"),
                  CommandedForwarder("bare-loop", build / "bench/bare-loop"),
                  CommandedForwarder("batched-loop", build / "bench/batched-loop")]
    if StreamProxy.installed():
        forwarders.append(StreamProxy())
    return forwarders
