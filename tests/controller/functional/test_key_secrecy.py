"""A key in the wrong place of the file is never shown: not by --check, in messages, on the metrics
page, or in the files of the two processes in /proc."""

from __future__ import annotations

import random
import re
import subprocess
import urllib.request
from pathlib import Path
from typing import Iterator, Tuple

import pytest

from configuration_file import ConfigurationFile
from controller_fixtures import StartController
from controller_process import binary, command
from framework.timing import scaled, wait_until
from framework.udp import free_port

SEED = 20240501
FILES = 300
# This many consecutive digits of a key do not occur by chance.
PIECE = 8

# "@" is the key's place.
PLACES = (
    '[flows."@"]\nlabel = 1\nupstream = "127.0.0.1:1"',
    '[flows."of @"]\nlabel = 1\nupstream = "127.0.0.1:1"\nfrom_peer = { key = "abab" }',
    '[flows."@"]\nlabel = 1\n[flows."@"]\nlabel = 1',
    '[flows.a]\nfrom_peer = { "@" = "sha256" }',
    '[flows.a]\nfrom_peer = { key = "@" }',
    '[flows.a]\nfrom_peer = { key = "@ }',
    '[flows.a]\nfrom_peer = { key = @ }',
    '[flows.a]\nfrom_peer = { key_file = "@" }',
    '[flows.a]\nupstream = "@"',
    '[flows.a]\nlabel = @',
    '[forwarder]\nprogram = "/@"\nframing = "@"',
    '[lateral]\npeers = [{ "@" = 1 }]',
    '[metrics]\naddress = "@"',
    '["@"]\na = 1',
    '# @\n[flows.a] # @',
    '@',
    '[flows.@',
)


def keys(source: random.Random) -> Iterator[Tuple[str, str]]:
    """The digits of keys, each also in a form in which an operator may write it."""
    while True:
        digits = "".join(source.choices("0123456789abcdefABCDEF", k=source.randint(16, 80)))
        size = source.randint(1, 7)
        separator = source.choice(("", ":", "-", " ", "_"))
        yield digits.lower(), separator.join(
            digits[i:i + size] for i in range(0, len(digits), size))


def shows(text: str, digits: str) -> bool:
    bare = re.sub(r"[\s:_-]", "", text.lower())
    return any(digits[i:i + PIECE] in bare for i in range(len(digits) - PIECE + 1))


@pytest.mark.limit_seconds(120)
def test_check_shows_no_key(configuration: ConfigurationFile) -> None:
    listening = '[downstream]\naddress = "127.0.0.1"\nport = 4500\n'
    for number, (digits, key) in zip(range(FILES), keys(random.Random(SEED))):
        # Eight groups with colons would be an IPv6 address.
        text = listening + PLACES[number % len(PLACES)].replace(
            "@", digits if key.count(":") == 7 else key) + "\n"
        configuration.write_text(text)
        checked = subprocess.run(command(configuration, "--check"), capture_output=True, text=True,
                                 cwd=configuration.folder, check=False, timeout=scaled(20))
        assert checked.returncode in (0, 1)
        assert checked.stdout + checked.stderr, text
        assert not shows(checked.stdout + checked.stderr, digits), f"seed {SEED}: {text}"


def test_a_key_as_an_argument_is_not_repeated() -> None:
    key = "00112233445566778899aabbccddeeff"
    for arguments in ([key], ["file", key], ["--check", f"--{key}", "file"]):
        refused = subprocess.run([binary(), *arguments], capture_output=True, text=True,
                                 check=False, timeout=scaled(20))
        assert refused.returncode in (1, 2)
        assert not shows(refused.stdout + refused.stderr, key), refused.stderr


def test_flows_with_keys_for_names_run_without_showing_them(
        configuration: ConfigurationFile, start_controller: StartController) -> None:
    port = free_port()
    configuration.tables["metrics"] = f"port = {port}\nper_flow = true"
    configuration.tables["forwarder"] = 'log_level = "debug"'
    configuration.tables["controller"] = "stats_seconds = 1"
    secrets = []
    for label, (digits, key) in zip(range(1, 20), keys(random.Random(SEED))):
        secrets.append(digits)
        configuration.tables[f'flows."{key}"'] = (
            f'label = {label:#x}\nupstream = "127.0.0.1:{5000 + label}"\n'
            f'from_peer = {{ key = "{digits[:16]}" }}')
    configuration.write()
    controller = start_controller().ready()
    forwarder = controller.forwarder()
    controller.wait_for(re.compile("debug Got message: set label 0x13 .*"))
    configuration.tables["flows.other"] = 'label = 1\nupstream = "127.0.0.1:1"'
    configuration.write()
    assert "is not usable" in controller.reload()

    def page() -> str:
        with urllib.request.urlopen(f"http://127.0.0.1:{port}/metrics", timeout=5) as answer:
            return answer.read().decode()

    wait_until(lambda: 'label="0x13"' in page(), "the flows are on the metrics page")
    told = [page()]
    told += [Path(f"/proc/{pid}/{name}").read_text(encoding="utf-8", errors="replace")
             for pid in (controller.pid, forwarder) for name in ("cmdline", "environ", "comm")]
    assert controller.finish() == 0
    shown = "\n".join([*told, *controller.lines])
    for secret in secrets:
        assert not shows(shown, secret), secret
