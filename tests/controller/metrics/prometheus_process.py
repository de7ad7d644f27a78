"""Runs Debian's Prometheus in its own folder on loopback; it scrapes one exporter five times a second."""

from __future__ import annotations

import json
import socket
import subprocess
import time
import urllib.error
import urllib.parse
import urllib.request
from pathlib import Path
from typing import Callable, Dict, List, Optional

from framework.timing import scaled

_CONFIGURATION = """\
global:
  scrape_interval: 200ms
  scrape_timeout: 200ms
scrape_configs:
  - job_name: vesk
    static_configs:
      - targets: ["127.0.0.1:{port}"]
"""


class PrometheusProcess:
    """A Prometheus that answers queries; each wait has a deadline."""

    def __init__(self, folder: Path, exporter: int) -> None:
        folder.mkdir()
        self._log = (folder / "log").open("w+", encoding="utf-8")
        configuration = folder / "prometheus.yml"
        configuration.write_text(_CONFIGURATION.format(port=exporter), encoding="utf-8")
        self._address = f"127.0.0.1:{free_tcp_port()}"
        self._process = subprocess.Popen(
            ["prometheus", f"--config.file={configuration}",
             f"--storage.tsdb.path={folder / 'data'}", f"--web.listen-address={self._address}",
             "--log.level=warn"],
            cwd=folder, stdout=self._log, stderr=subprocess.STDOUT)
        try:
            self._wait(lambda: self._get("/-/ready") is not None, "is ready", 30)
        except BaseException:
            self.finish()
            raise

    def _get(self, path: str, **parameters: str) -> Optional[str]:
        """The body of an answer; none while Prometheus does not answer or is not ready."""
        url = f"http://{self._address}{path}?{urllib.parse.urlencode(parameters)}"
        try:
            with urllib.request.urlopen(url, timeout=scaled(10)) as answer:
                return answer.read().decode("utf-8")
        except urllib.error.HTTPError as error:
            with error:
                if error.code == 503:
                    return None
                raise AssertionError(f"{url}: {error.read().decode('utf-8')}") from None
        except urllib.error.URLError:
            return None

    def _wait(self, condition: Callable[[], bool], description: str, seconds: float) -> None:
        deadline = time.monotonic() + scaled(seconds)
        while not condition():
            assert self._process.poll() is None, f"Prometheus ended\n{self._said()}"
            assert time.monotonic() < deadline, f"timed out waiting until Prometheus {description}"
            time.sleep(0.05)

    def _said(self) -> str:
        self._log.seek(0)
        return self._log.read()[-4000:]

    def query(self, expression: str) -> List[Dict]:
        """The present samples of an expression; fails if the expression is not valid."""
        body = self._get("/api/v1/query", query=expression)
        assert body is not None, f"no answer\n{self._said()}"
        answer = json.loads(body)
        assert answer["status"] == "success", answer
        return answer["data"]["result"]

    def value(self, expression: str) -> Optional[float]:
        """The single value of an expression, or none."""
        result = self.query(expression)
        assert len(result) <= 1, f"{expression} has {len(result)} series"
        return float(result[0]["value"][1]) if result else None

    def wait_for(self, expected: Dict[str, float], seconds: float = 15) -> None:
        """Waits until each expression has its value."""
        seen: Dict[str, Optional[float]] = {}

        def arrived() -> bool:
            seen.update((expression, self.value(expression)) for expression in expected)
            return seen == expected

        try:
            self._wait(arrived, "shows the values", seconds)
        except AssertionError as error:
            wrong = {key: value for key, value in seen.items() if value != expected[key]}
            raise AssertionError(f"{error}: {wrong} instead of {expected}") from None

    def wait_for_series(self, expression: str, seconds: float = 15) -> None:
        self._wait(lambda: bool(self.query(expression)), f"has {expression}", seconds)

    def finish(self) -> None:
        self._process.terminate()
        try:
            self._process.wait(scaled(20))
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()
        self._log.close()


def free_tcp_port(host: str = "127.0.0.1") -> int:
    """A port that is free at present."""
    with socket.socket(socket.AF_INET6 if ":" in host else socket.AF_INET) as probe:
        probe.bind((host, 0))
        return probe.getsockname()[1]
