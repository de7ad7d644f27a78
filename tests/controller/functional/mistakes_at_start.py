"""Mistakes at the start of the controller, other than wrong lines in the file."""

from __future__ import annotations

from pathlib import Path
from typing import Callable

from framework.lateral import LOOPBACK
from framework.udp import free_port
from mistake import TAKEN_BY_ANOTHER, Mistake, Section, Traffic
from programs import script
from trial import Trial, obeying_permissions

Make = Callable[[Trial], None]

_ENDED = ("error controller: the forwarder ended with status {} while handling the command for the log "
          "level")
_AGAIN = "warn controller: starts the forwarder again in ... ms"


def _usage(*words: str) -> Make:
    def make(trial: Trial) -> None:
        trial.usage = list(words)
        if "FILE" not in words:
            # The message must contain the argument.
            del trial.names["FILE"]
    return make


def _usage_mistake(what: str, words: str, says: str) -> Mistake:
    return Mistake(f"{what}: `vesk-controller {words}`".rstrip(" `") + "`", _usage(*words.split()),
                   (says,), Traffic.NOTHING, 2)


def _environment(name: str, value: str) -> Make:
    def make(trial: Trial) -> None:
        trial.environment[name] = value
    return make


def _prefix(*words: str) -> Make:
    def make(trial: Trial) -> None:
        trial.prefix = list(words)
    return make


def _program(path: str) -> Make:
    def make(trial: Trial) -> None:
        trial.names["PROGRAM"] = str(trial.configuration.folder / path)
        trial.arguments = ["--program", trial.names["PROGRAM"]]
    return make


def _text_for_program(trial: Trial) -> None:
    _program("program")(trial)
    (trial.configuration.folder / "program").write_text("no program\n", encoding="utf-8")


def _ending_program(trial: Trial) -> None:
    _program("program")(trial)
    script(trial.configuration.folder, "exit 7")


def _silent_program(trial: Trial) -> None:
    _program("program")(trial)
    script(trial.configuration.folder, "exec cat >/dev/null")
    trial.configuration.tables["controller"] += "\nanswer_seconds = 1"
    trial.configuration.write()


def _port_taken(trial: Trial) -> None:
    trial.remedy = trial.new_end(*trial.configuration.listen).close


def _foreign_address(trial: Trial) -> None:
    trial.configuration.listen = ("192.0.2.1", trial.configuration.listen[1])
    trial.configuration.write()


def _lateral_port_taken(trial: Trial) -> None:
    port = free_port()
    trial.names["LATERAL"] = str(port)
    trial.new_end(LOOPBACK[0], port)
    trial.append(f'[lateral]\naddress = "{LOOPBACK[0]}"\nport = {port}\nindex = 0\ninstances = 2\n'
                 f'peers = [ {{ index = 1, address = "{LOOPBACK[1]}" }} ]')


def _metrics_port_taken(settings: str) -> Make:
    def make(trial: Trial) -> None:
        trial.take_tcp_port()
        trial.configuration.tables["metrics"] = f"port = {trial.names['METRICS']}\n{settings}"
        trial.configuration.write()
    return make


def _file(change: Callable[[Path], object]) -> Make:
    def make(trial: Trial) -> None:
        change(trial.configuration.path)
    return make


def _directory(path: Path) -> None:
    path.unlink()
    path.mkdir()


def _unreadable(trial: Trial) -> None:
    trial.configuration.path.chmod(0)
    trial.prefix = obeying_permissions()


def _no_flows(trial: Trial) -> None:
    trial.configuration.flows.clear()
    trial.configuration.write()


def _short_key(trial: Trial) -> None:
    trial.append('[flows.carol]\nlabel = 3\nupstream = "127.0.0.1:5000"\n'
                 'from_peer = { key = "abcd" }')


def _unchanged_key(trial: Trial) -> None:
    key = "1234567890abcdef1234567890abcdef"
    trial.append(f'[flows.carol]\nlabel = 3\nupstream = "127.0.0.1:5000"\n'
                 f'from_peer = {{ key = "{key}" }}\n'
                 f'next = {{ label = 4, from_peer = {{ key = "{key}" }} }}')


def _checked(make: Make) -> Make:
    def checked(trial: Trial) -> None:
        make(trial)
        trial.arguments = ["--check"]
    return checked


CHECK = Section("`vesk-controller --check FILE`", False, [
    Mistake("there are no flows", _checked(_no_flows),
            ("warn controller: there are no flows: all datagrams from peers will be dropped",),
            Traffic.NOTHING, 0),
    Mistake("a short key: `from_peer = { key = \"abcd\" }`", _checked(_short_key),
            ("warn controller: 1 key is shorter than 16 bytes and can be guessed: "
             "flows.carol.from_peer",), Traffic.NOTHING, 0),
    Mistake("the old key again: `next = { ..., from_peer = { key = ... } }`", _checked(_unchanged_key),
            ("warn controller: 1 key in next equals that of the flow, so the old key stays valid: "
             "flows.carol.next.from_peer",), Traffic.NOTHING, 0),
    Mistake("standard output is on a full disk",
            _checked(_prefix("sh", "-c", 'exec "$@" >/dev/full', "sh")),
            ("error controller: the commands cannot be written to standard output",),
            Traffic.NOTHING, 1),
])

FILE_ITSELF = Section("The file itself", False, [
    Mistake("it does not exist", _file(Path.unlink),
            ("error controller: FILE: cannot be read: No such file or directory",), Traffic.NOTHING, 1),
    Mistake("it is an empty directory", _file(_directory),
            ("error controller: FILE: downstream is missing",), Traffic.NOTHING, 1),
    Mistake("it is not readable", _unreadable,
            ("error controller: FILE: cannot be read: Permission denied",), Traffic.NOTHING, 1),
    Mistake("it is empty", _file(lambda path: path.write_text("")),
            ("error controller: FILE:1: downstream is missing",), Traffic.NOTHING, 1),
    Mistake("it contains keys, and others can read it", _file(lambda path: path.chmod(0o644)),
            ("error controller: FILE:...: the file contains a key and is readable by others: run chmod "
             "go-r on it, or use --allow-readable-keys",), Traffic.NOTHING, 1),
    Mistake("it has no flows", _no_flows, ("info controller: the forwarder is set up: 0 flows",),
            Traffic.UNHEARD),
])

USAGE = Section("The command line", False, [
    _usage_mistake("no file", "", "FILE is required"),
    _usage_mistake("unknown option", "--chekc FILE",
                   "The following argument was not expected: --chekc"),
    _usage_mistake("two files", "FILE other.toml",
                   "The following argument was not expected: other.toml"),
    _usage_mistake("option without its value", "FILE --program",
                   "--program: 1 required TEXT missing"),
    Mistake("empty program: `vesk-controller --program \"\" FILE`", _usage("--program", "", "FILE"),
            ("--program: must be a path",), Traffic.NOTHING, 2),
    _usage_mistake("a file together with --new-key", "--new-key new.key FILE",
                   "--new-key cannot be used with a configuration file"),
])

PROGRAM = Section("The forwarder's program", False, [
    Mistake("it does not exist", _program("nowhere"),
            ("error controller: cannot run PROGRAM: No such file or directory",), Traffic.NOTHING, 3),
    Mistake("it is not executable", _text_for_program,
            ("error controller: cannot run PROGRAM: Permission denied",), Traffic.NOTHING, 3),
    Mistake("it is a directory", _program("."),
            ("error controller: cannot run PROGRAM: Permission denied",), Traffic.NOTHING, 3),
    Mistake("it ends at once", _ending_program,
            ("info controller: started PROGRAM, process ...", _ENDED.format(7), _AGAIN),
            Traffic.UNHEARD),
    Mistake("it is another program, which does not answer", _silent_program,
            ("error controller: no output from the forwarder for 1 s while handling the command for the "
             "log level: killing it", _AGAIN), Traffic.UNHEARD),
])

ADDRESSES = Section("Addresses and ports", False, [
    Mistake("another program uses the port", _port_taken,
            (f"error controller: cannot listen on 127.0.0.1, port PORT: {TAKEN_BY_ANOTHER}",
             "warn controller: tries to listen again in ... ms"), Traffic.REMEDIED),
    Mistake("the host does not have the address", _foreign_address,
            ("error controller: cannot listen on 192.0.2.1, port PORT: this host does not have "
             'the address; add it, or use one that "ip address" lists',),
            Traffic.UNHEARD),
    Mistake("another program uses the lateral port", _lateral_port_taken,
            (f"error controller: cannot listen on {LOOPBACK[0]}, port LATERAL: {TAKEN_BY_ANOTHER}",
             "info controller: the forwarder is set up: 2 flows, without lateral stream"),
            Traffic.FORWARDED),
    Mistake("another program uses the metrics port", _metrics_port_taken(""),
            ("error controller: cannot serve metrics on 127.0.0.1...METRICS: ...",
             "warn controller: continues without metrics and tries to serve them again in ... ms"),
            Traffic.FORWARDED),
    Mistake("the same with `required = true`", _metrics_port_taken("required = true"),
            ("error controller: cannot serve metrics on 127.0.0.1...METRICS: ...",
             "error controller: metrics.required is true: exiting"), Traffic.NOTHING, 4),
])

SURROUNDINGS = Section("Environment, limits and standard descriptors", False, [
    Mistake("`VESK_IPV4_SOURCE` has another value than the file's",
            _environment("VESK_IPV4_SOURCE", "nonsense"), (), Traffic.FORWARDED),
    Mistake("FIPS mode is required (`__TORLEXA_OPENSSL_FIPS`) on a host without it",
            _environment("__TORLEXA_OPENSSL_FIPS", ""),
            ("error Failed to initialize FIPS mode!", _ENDED.format(255), _AGAIN), Traffic.UNHEARD),
    Mistake("the same with `__MIRVOX_OPENSSL_FIPS`", _environment("__MIRVOX_OPENSSL_FIPS", "1"),
            ("error Failed to initialize FIPS mode!", _ENDED.format(255), _AGAIN), Traffic.UNHEARD),
    Mistake("`NOTIFY_SOCKET` is not the path of a socket", _environment("NOTIFY_SOCKET", "/nowhere/notify"),
            (), Traffic.FORWARDED),
    Mistake("too few descriptors for the flows", _prefix("prlimit", "--nofile=40:40"),
            ("warn controller: the hard limit on descriptors is 40, but 2 flows need 104: datagrams of "
             "flows beyond the limit will be dropped; set LimitNOFILE= of the service or ulimit -Hn to "
             "at least that",), Traffic.FORWARDED),
    Mistake("too few descriptors for the forwarder", _prefix("prlimit", "--nofile=5:5"),
            ("error controller: cannot run PROGRAM: no descriptors are left; raise LimitNOFILE of the "
             "unit",), Traffic.NOTHING, 3),
    Mistake("standard input is closed", _prefix("sh", "-c", 'exec "$@" <&-', "sh"), (),
            Traffic.FORWARDED),
    Mistake("standard error is closed", _prefix("sh", "-c", 'exec "$@" 2>&-', "sh"), (),
            Traffic.FORWARDED),
    Mistake("the log's disk is full", _prefix("sh", "-c", 'exec "$@" 2>/dev/full', "sh"), (),
            Traffic.FORWARDED),
    Mistake("the log's reader ends",
            _prefix("sh", "-c", 'mkfifo log; (read line) <log & exec "$@" 2>log', "sh"), (),
            Traffic.FORWARDED),
])

SECTIONS = (USAGE, CHECK, FILE_ITSELF, PROGRAM, ADDRESSES, SURROUNDINGS)
