"""Mistakes in a folder of fragments at the start."""

from __future__ import annotations

from typing import Callable

from mistake import Mistake, Section, Traffic
from trial import Trial


def _fragments(name: str, text: str) -> Callable[[Trial], None]:
    """Makes the file a folder: alice's flow and the settings are in one fragment, bob's is in another, and
    `text` is in a third."""
    def make(trial: Trial) -> None:
        configuration = trial.configuration
        path, alice = configuration.path, {"alice": trial.alice}
        path.unlink()
        path.mkdir()
        for fragment, said in (("00-base.toml", configuration.settings() + configuration.text_of(alice)),
                               ("10-bob.toml", configuration.text_of({"bob": trial.bob})),
                               (name, text)):
            (path / fragment).write_text(said, encoding="utf-8")
            (path / fragment).chmod(0o600)
    return make


def _fragment_mistake(what: str, text: str, says: str) -> Mistake:
    return Mistake(what, _fragments("20-third.toml", text),
                   (f"error controller: FILE/20-third.toml{says}",
                    "error controller: FILE/20-third.toml is not usable: its flows are not served"),
                   Traffic.FORWARDED)


FRAGMENTS = Section("A folder of fragments", False, [
    _fragment_mistake("a fragment is not TOML", "[flows.carol\n",
                      ':1: column 13: "]" is missing after the name of the table'),
    _fragment_mistake("a flow has an error", '[flows.carol]\nlabel = 0\nupstream = "127.0.0.1:5000"\n',
                      ":2: flows.carol.label must be an integer from 1 to 4294967295"),
    _fragment_mistake("two fragments have the same label",
                      '[flows.carol]\nlabel = 2\nupstream = "127.0.0.1:5000"\n',
                      ":2: flows.carol.label is already used by flows.bob in FILE/10-bob.toml:2"),
    _fragment_mistake("two fragments have the same flow",
                      '[flows.bob]\nlabel = 3\nupstream = "127.0.0.1:5000"\n',
                      ":1: flows.bob is also in FILE/10-bob.toml:1"),
    _fragment_mistake("two fragments have the same table", "[controller]\n",
                      ":1: controller is also in FILE/00-base.toml:..."),
    _fragment_mistake("a table is in a fragment without `[downstream]`", "[forwarder]\n",
                      ":1: forwarder must be in the fragment that has downstream, FILE/00-base.toml"),
])

SECTIONS = (FRAGMENTS,)
