"""Mistakes in a folder of fragments, at the start and while the controller watches it."""

from __future__ import annotations

import os
from typing import Callable, Tuple

from mistake import Mistake, Section, Traffic
from trial import Trial

Make = Callable[[Trial], None]

_CAROL = '[flows.carol]\nlabel = 3\nupstream = "127.0.0.1:5000"\n'
_BOBS_FLOW = _CAROL.replace("carol", "bob")
_BOBS_LABEL = _CAROL.replace("label = 3", "label = 2")
_VARIABLE = _CAROL.replace("127.0.0.1:5000", "${VESK_UNSET}")
_VARIABLE_UNSET = "flows.carol.upstream needs the environment variable VESK_UNSET, which is not set"

_NOT_SERVED = "its flows are not served"
_UNCHANGED = "its flows are unchanged"


def _put(trial: Trial, name: str, text: str) -> None:
    """Replaces a file of the folder as a whole."""
    file = trial.configuration.path / name
    written = file.with_name(f".{name}.new")
    written.write_text(text, encoding="utf-8")
    written.chmod(0o600)
    os.replace(written, file)


def _become_folder(trial: Trial) -> None:
    """Makes the file a folder: the settings, alice's flow and bob's flow are in one fragment each, and a key of bob's
    is in a key file."""
    configuration, key = trial.configuration, trial.bob.down_in
    assert key is not None
    configuration.path.unlink()
    configuration.path.mkdir()
    _put(trial, "00-base.toml", configuration.settings())
    _put(trial, "05-alice.toml", configuration.text_of({"alice": trial.alice}))
    _put(trial, "bob.key", key.secret.hex())
    _put(trial, "10-bob.toml", configuration.text_of({"bob": trial.bob}).replace(
        f'key = "{key.secret.hex()}"', 'key_file = "bob.key"'))


def _added(name: str, text: str) -> Make:
    return lambda trial: _put(trial, name, text)


def _removed(name: str) -> Make:
    return lambda trial: (trial.configuration.path / name).unlink()


def _remove_folder(trial: Trial) -> None:
    trial.configuration.path.rename(trial.configuration.folder / "elsewhere")


def _errors(file: str, says: str, consequence: str) -> Tuple[str, str]:
    return (f"error controller: FILE/{file}{says}",
            f"error controller: FILE/{file} is not usable: {consequence}")


def _at_start(what: str, text: str, says: str) -> Mistake:
    def make(trial: Trial) -> None:
        _become_folder(trial)
        _put(trial, "20-third.toml", text)
    return Mistake(what, make, _errors("20-third.toml", says, _NOT_SERVED), Traffic.FORWARDED)


def _later(what: str, make: Make, says: Tuple[str, ...], traffic: Traffic = Traffic.UNAFFECTED) -> Mistake:
    return Mistake(what, make, says, traffic, prepare=_become_folder)


FRAGMENTS = Section("A folder of fragments", False, [
    _at_start("a fragment is not TOML", "[flows.carol\n",
              ':1: column 13: "]" is missing after the name of the table'),
    _at_start("a flow has an error", _CAROL.replace("label = 3", "label = 0"),
              ":2: flows.carol.label must be an integer from 1 to 4294967295"),
    _at_start("two fragments have the same label", _BOBS_LABEL,
              ":2: flows.carol.label is already used by flows.bob in FILE/10-bob.toml:2"),
    _at_start("two fragments have the same flow", _BOBS_FLOW,
              ":1: flows.bob is also in FILE/10-bob.toml:1"),
    _at_start("two fragments have the same table", "[controller]\n",
              ":1: controller is also in FILE/00-base.toml:..."),
    _at_start("a table is in a fragment without `[downstream]`", "[forwarder]\n",
              ":1: forwarder must be in the fragment that has downstream, FILE/00-base.toml"),
    _at_start("the variable of a `${NAME}` is not set", _VARIABLE, f":3: {_VARIABLE_UNSET}"),
])

CHANGES = Section("A folder of fragments", True, [
    _later("a fragment is no longer TOML", _added("10-bob.toml", "[flows.bob\n"),
           _errors("10-bob.toml", ':1: column 11: "]" is missing after the name of the table', _UNCHANGED)),
    _later("a flow is no longer valid", _added("10-bob.toml", _BOBS_FLOW.replace("label = 3", "label = 0")),
           _errors("10-bob.toml", ":2: flows.bob.label must be an integer from 1 to 4294967295", _UNCHANGED)),
    _later("a fragment becomes empty", _added("10-bob.toml", ""),
           ("info controller: reload: 1 command to send: flow bob", "info controller: reloaded: 1 flow"),
           Traffic.OTHERS_UNAFFECTED),
    _later("the fragment with the settings is no longer valid", _added("00-base.toml", "[downstream]\nport = 0\n"),
           _errors("00-base.toml", ":2: downstream.port must be an integer from 1 to 65535", _UNCHANGED)),
    _later("a later fragment has a label that is in use", _added("20-third.toml", _BOBS_LABEL),
           _errors("20-third.toml", ":2: flows.carol.label is already used by flows.bob in FILE/10-bob.toml:2",
                   _NOT_SERVED)),
    _later("a later fragment has a flow of the same name", _added("20-third.toml", _BOBS_FLOW),
           _errors("20-third.toml", ":1: flows.bob is also in FILE/10-bob.toml:1", _NOT_SERVED)),
    _later("an earlier fragment has a label that is in use", _added("07-earlier.toml", _BOBS_LABEL),
           _errors("10-bob.toml", ":2: flows.bob.label is already used by flows.carol in FILE/07-earlier.toml:2",
                   f"{_UNCHANGED}, except those that an earlier fragment replaces"), Traffic.OTHERS_UNAFFECTED),
    _later("the variable of a `${NAME}` is not set", _added("20-third.toml", _VARIABLE),
           _errors("20-third.toml", f":3: {_VARIABLE_UNSET}", _NOT_SERVED)),
    _later("a fragment is removed", _removed("10-bob.toml"),
           ("info controller: reload: 1 command to send: flow bob", "info controller: reloaded: 1 flow"),
           Traffic.OTHERS_UNAFFECTED),
    _later("the fragment with the settings is removed", _removed("00-base.toml"),
           ("error controller: FILE: downstream is missing",
            "error controller: FILE is not usable: the settings are unchanged")),
    _later("a key file is removed", _removed("bob.key"),
           _errors("10-bob.toml", ":4: flows.bob.from_peer.key_file is not usable: FILE/bob.key cannot be read: No "
                   "such file or directory", _UNCHANGED)),
    _later("the folder is removed", _remove_folder,
           ("error controller: FILE: cannot be read: No such file or directory",
            "error controller: FILE is not usable: the running configuration is unchanged")),
])

SECTIONS = (FRAGMENTS, CHANGES)
