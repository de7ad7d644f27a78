"""Wrong lines in the file."""

from __future__ import annotations

from mistake import FileMistake, FileSection

_CAROL = '[flows.carol]\nlabel = 3\nupstream = "127.0.0.1:5000"\n'
_LATERAL = '[lateral]\naddress = "127.0.0.1"\nport = 4600\ninstances = 2\n'
_LABEL = "flows.carol.label must be an integer from 1 to 4294967295"
_UPSTREAM = ('flows.carol.upstream must be a numeric address and a port, "127.0.0.1:5000" or '
             '"[::1]:5000"')


def _upstream(text: str) -> str:
    return f"[flows.carol]\nlabel = 3\nupstream = {text}"


def _label(text: str) -> str:
    return f'[flows.carol]\nupstream = "127.0.0.1:5000"\nlabel = {text}'


def _from_peer(text: str) -> str:
    return _CAROL + f"from_peer = {{ {text} }}"


SYNTAX = FileSection("Lines that are not TOML", [
    FileMistake("text without quotes", _upstream("127.0.0.1:5000"),
                "table flows.carol, key upstream, column 14: the value is not a number, true, false "
                "or a string in quotes"),
    FileMistake("closing quote missing", _upstream('"127.0.0.1:5000'),
                "table flows.carol, key upstream, column ...: the string has no closing quote"),
    FileMistake("bracket missing", "[flows.carol",
                '...column 13: "]" is missing after the name of the table'),
    FileMistake("key given twice", _CAROL + "label = 4",
                "table flows.carol, key label, column 9: the key is given twice"),
    FileMistake("NUL byte", _upstream('"127.0.0.1:5000"') + " # a\0b",
                "table flows.carol, key upstream, column 32: there is a NUL byte"),
    FileMistake("table defined twice", _CAROL + _CAROL,
                "table flows.carol is defined twice, first on line ...", wrong=3),
])

FLOWS = FileSection("Flows", [
    FileMistake("misspelled key", _CAROL + 'upstraem = "127.0.0.1:5000"',
                "flows.carol.upstraem is not a known key"),
    FileMistake("key missing", "[flows.carol]\nlabel = 3", "flows.carol.upstream is missing", 0),
    FileMistake("label of another flow", _label("0x2"), "flows.carol.label is already used by flows.bob"),
    FileMistake("label too large", _label("4294967296"), _LABEL),
    FileMistake("label 0", _label("0"), _LABEL),
    FileMistake("label in quotes", _label('"3"'), _LABEL),
    FileMistake("host name instead of an address", _upstream('"service.example:5000"'), _UPSTREAM),
    FileMistake("port missing", _upstream('"127.0.0.1"'), _UPSTREAM),
    FileMistake("IPv6 address without brackets", _upstream('"::1:5000"'), _UPSTREAM),
    FileMistake("source of the other address family", _CAROL + 'source = "[::1]:5001"',
                "flows.carol.source and upstream must have the same address family"),
    FileMistake("variable that is not set", _upstream('"${CAROL_UPSTREAM}"'),
                "flows.carol.upstream needs the environment variable CAROL_UPSTREAM, which is not set"),
    FileMistake("variable without a closing brace", _upstream('"${CAROL_HOST:5000"'),
                'flows.carol.upstream has "${CAROL_HOST" without "}" after it'),
    FileMistake("DSCP out of range", _CAROL + "to_peer = { dscp = 64 }",
                "flows.carol.to_peer.dscp must be an integer from 0 to 63"),
])

KEYS = FileSection("Keys", [
    FileMistake("odd number of hex digits", _from_peer('key = "abc"'),
                "flows.carol.from_peer.key is not usable: the key has an odd number of hex digits"),
    FileMistake("not hex digits", _from_peer('key = "alice and bob"'),
                "flows.carol.from_peer.key is not usable: the key has a character that is not a "
                "hex digit"),
    FileMistake("empty key", _from_peer('key = ""'),
                "flows.carol.from_peer.key is not usable: the key is empty"),
    FileMistake("key too long", _from_peer(f'key = "{"ab" * 129}"'),
                "flows.carol.from_peer.key is not usable: the key is longer than 128 bytes"),
    FileMistake("key file missing", _from_peer('key_file = "carol.key"'),
                "flows.carol.from_peer.key_file is not usable: FOLDER/carol.key cannot be read: No "
                "such file or directory"),
    FileMistake("key file that others can read", _from_peer('key_file = "readable.key"'),
                "flows.carol.from_peer.key_file is not usable: FOLDER/readable.key is readable by others: "
                "run chmod go-r on it, or use --allow-readable-keys"),
    FileMistake("key file that is a directory", _from_peer('key_file = "."'),
                "flows.carol.from_peer.key_file is not usable: FOLDER/. is not a regular file"),
    FileMistake("key and key file", _from_peer('key = "ab", key_file = "readable.key"'),
                "flows.carol.from_peer.key_file and key are mutually exclusive"),
    FileMistake("unknown algorithm", _from_peer('key = "ab", algorithm = "md5"'),
                'flows.carol.from_peer.algorithm must be one of "sha256", "sha1"'),
])

_PEERS_KEY = _from_peer('key = "1234567890abcdef1234567890abcdef"') + "\n"

NEXT = FileSection("The next label and keys of a flow", [
    FileMistake("label of another flow", _CAROL + "next = { label = 2 }",
                "flows.carol.next.label is already used by flows.bob"),
    FileMistake("the same label", _CAROL + "next = { label = 3 }",
                "flows.carol.next.label is already used by flows.carol"),
    FileMistake("label missing", _CAROL + "next = {}", "flows.carol.next.label is missing"),
    FileMistake("key of the peer missing", _PEERS_KEY + "next = { label = 4 }",
                "flows.carol.next.from_peer has no key, but the flow has one, which is not inherited"),
    FileMistake("key that is not usable", _CAROL + 'next = { label = 4, to_peer = { key = "abc" } }',
                "flows.carol.next.to_peer.key is not usable: the key has an odd number of hex digits"),
    FileMistake("another upstream service", _CAROL + 'next = { label = 4, upstream = "127.0.0.1:1" }',
                "flows.carol.next.upstream is not a known key"),
    FileMistake("the same source", _CAROL + 'source = "127.0.0.1:5001"\nnext = { label = 4 }',
                "flows.carol.next.source is needed and must differ from that of the flow: only with "
                "multiplex two labels can share it"),
    FileMistake("the same upstream label of a multiplexed flow",
                _CAROL + "multiplex = true\nnext = { label = 4 }",
                "flows.carol.next.to_upstream needs a label that differs from that of the flow: with "
                "multiplex the label of a reply selects its flow"),
    FileMistake("auxiliary prefix missing",
                _CAROL + "auxiliary = { prefix = 9, upstream_label = 1 }\nnext = { label = 4 }",
                "flows.carol.next.auxiliary is missing: a prefix belongs to one label, so that of the "
                "flow is not inherited"),
])

SETTINGS = FileSection("Other tables", [
    FileMistake("misspelled table", "[flow.carol]", "flow is not a known key"),
    FileMistake("misspelled setting", "enabeld = false", "metrics.enabeld is not a known key",
                instead_of="enabled = false"),
    FileMistake("host name to listen on", 'address = "localhost"',
                "downstream.address must be a numeric address",
                instead_of='address = "127.0.0.1"'),
    FileMistake("port out of range", "port = 70000",
                "downstream.port must be an integer from 1 to 65535",
                instead_of="port = PORT"),
    FileMistake("unknown framing", '[forwarder]\nframing = "udpv3"',
                'forwarder.framing must be one of "udpv1", "udpv2"'),
    FileMistake("unknown log level", '[forwarder]\nlog_level = "verbose"',
                'forwarder.log_level must be one of "error", "warn", "info", "debug", "trace"'),
    FileMistake("instance that does not exist", _LATERAL + 'peers = [ { index = 1, address = '
                '"127.0.0.2" } ]\nindex = 2', "lateral.index must be below the number of instances"),
    FileMistake("lateral stream on the downstream port", '[lateral]\naddress = "127.0.0.1"\n'
                'instances = 1\nindex = 0\npeers = []\nport = PORT',
                "lateral.port is the same as downstream.port, on the same address"),
    FileMistake("lateral stream without peers", _LATERAL + "index = 0\npeers = []",
                "lateral.peers is empty: the lateral stream needs at least one peer"),
])

_NAMED = '[lateral]\naddress = "127.0.0.1"\nport = 4600\nindex = 0\ninstances = 2\n'
_UNNUMBERED = ('[lateral]\naddress = "127.0.0.1"\nport = 4600\npeers_from = "vesk-{index}:4600"\n'
               'instances = 2\n')

FLEET = FileSection("Index and peers from elsewhere", [
    FileMistake("variable of the index not set", _UNNUMBERED + 'index_from = "env:NO_INDEX"',
                "lateral.index_from names the environment variable NO_INDEX, which is not set"),
    FileMistake("variable of the index that is not a number", _UNNUMBERED + 'index_from = "env:PATH"',
                "lateral.index_from names the environment variable PATH, which is not a number"),
    FileMistake("unknown source of the index", _UNNUMBERED + 'index_from = "host"',
                'lateral.index_from must be "hostname" or "env:NAME"'),
    FileMistake("index given twice", _UNNUMBERED + 'index = 0\nindex_from = "env:NO_INDEX"',
                "lateral.index_from and index are mutually exclusive"),
    FileMistake("variable of the number not set", '[lateral]\naddress = "127.0.0.1"\nport = 4600\n'
                'index = 0\npeers_from = "vesk-{index}:4600"\ninstances_from = "env:NO_NUMBER"',
                "lateral.instances_from names the environment variable NO_NUMBER, which is not set"),
    FileMistake("names of peers without {index}", _NAMED + 'peers_from = "vesk:4600"',
                "lateral.peers_from must contain {index}, or be an array of names"),
    FileMistake("name of a peer without a port", _NAMED + 'peers_from = "vesk-{index}"',
                'lateral.peers_from must have names and ports like "vesk-0.example:8445"'),
    FileMistake("name of a peer with another port", _NAMED + 'peers_from = "vesk-{index}:4601"',
                "lateral.peers_from must have the port of lateral.port, 4600, which is the same on all "
                "instances"),
    FileMistake("too few names of peers", _NAMED + 'peers_from = ["vesk-0:4600"]',
                "lateral.peers_from must contain 2 names, one for each of lateral.instances"),
    FileMistake("peers and names of peers", _NAMED + 'peers = [ { index = 1, address = "127.0.0.2" } ]\n'
                'peers_from = "vesk-{index}:4600"',
                "lateral.peers_from and peers are mutually exclusive"),
    FileMistake("peers never asked again", _NAMED + 'peers_from = "vesk-{index}:4600"\nresolve_seconds = 0',
                "lateral.resolve_seconds must be an integer from 1 to 86400"),
])

SECTIONS = (SYNTAX, FLOWS, KEYS, NEXT, SETTINGS, FLEET)
