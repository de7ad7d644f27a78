"""The control channel: lines, words, attributes, and how it ends."""

from __future__ import annotations

import os
from typing import List

import pytest

from framework.fixtures import StartVesk
from framework.udp import free_port
from framework.vesk_process import VeskProcess

END_OF_INPUT = "info cltMessageLoop: Got EOF, exiting..."


def unknown(word: str) -> List[str]:
    """The message itself ends in a newline, so an empty line follows."""
    return [f"error Unrecognised command '{word}'", ""]


# Commands -------------------------------------------------------------------------------

@pytest.mark.parametrize("word", ["Start", "START", "sto", "stopp", "quit", "set_", "\u00e4",
                                  "'set'"])
def test_an_unknown_command_is_an_error(vesk: VeskProcess, word: str) -> None:
    assert vesk.lines_after(f"{word} label 5 whatever") == unknown(word)


def test_every_line_is_logged_at_debug_level(vesk: VeskProcess) -> None:
    vesk.command("log priority debug")
    for line in ("", "   ", "\t\r", " stop  now ", "nonsense  two\twords", "stop\x00"):
        shown = f"debug Got message: {line}"
        assert vesk.lines_after(line)[0] == shown


def test_blank_lines_do_nothing(vesk: VeskProcess) -> None:
    assert vesk.lines_after("", " ", "\t", "\r", " \t \r ", "\r\r") == []


def test_commands_are_executed_in_order(vesk: VeskProcess) -> None:
    words = [f"word{number}" for number in range(200)]
    expected = [line for word in words for line in unknown(word)]
    assert vesk.lines_after(*words) == expected


# Words ----------------------------------------------------------------------------------

MISSING_PORT = ["error startForwarder: bad command, missing or empty 'port' attr"]


@pytest.mark.parametrize("line", [
    "start addr 127.0.0.1",
    "  start addr 127.0.0.1",
    "start\taddr\t127.0.0.1",
    "start addr 127.0.0.1\r",
    "start addr 127.0.0.1 \t\r",
    "\r\tstart \t \r addr  \t  127.0.0.1",
])
def test_blanks_tabs_and_carriage_returns_separate_words(vesk: VeskProcess, line: str) -> None:
    assert vesk.lines_after(line) == MISSING_PORT


@pytest.mark.parametrize("character", ["\v", "\f", "\x00", "\x1f", "\x7f", "\u00a0", '"', "\\",
                                       ",", ";"])
def test_every_other_character_is_part_of_a_word(vesk: VeskProcess, character: str) -> None:
    word = f"stop{character}now"
    assert vesk.lines_after(word) == unknown(word)
    assert vesk.lines_after(character) == unknown(character)


def test_bytes_that_are_not_text_are_part_of_a_word(vesk: VeskProcess) -> None:
    since = len(vesk.output())
    vesk.write_input(bytes([0x80, 0xFF, 0x00, 0xC3]) + b"\n")
    vesk.settle()
    assert b"error Unrecognised command '\x80\xff\x00\xc3'\n\n" in vesk.output()[since:]


def test_quotes_do_not_join_words(vesk: VeskProcess) -> None:
    assert vesk.lines_after('log "priority debug"') == [
        "error setLogParams: bad command, missing or empty 'priority' attr"]


@pytest.mark.parametrize("length", [1 << 16, 1 << 20])
def test_a_very_long_word_is_accepted(vesk: VeskProcess, length: int) -> None:
    word = "x" * length
    assert vesk.lines_after(word) == unknown(word)


def test_a_very_long_line_is_accepted(vesk: VeskProcess) -> None:
    assert vesk.lines_after("log " + "a b " * (1 << 18) + "priority debug") == []
    assert vesk.lines_after("") == ["debug Got message: "]


# Attributes -----------------------------------------------------------------------------

# The error for a bad port includes the whole address.
def shown_address(vesk: VeskProcess, attributes: str) -> str:
    lines = vesk.lines_after(f"set label 5 {attributes}")
    assert len(lines) == 2, lines
    # Attributes are parsed in the order of their names, "down..." before "label".
    label = 0 if "down_" in attributes else 5
    assert lines[1] == f"error setLabelAttrs: bad command for label {label}"
    return lines[0]


def complaint(name: str, value: str) -> str:
    return (f"error Vesk_validateAddrInfoString: {name}: "
            f"unresolvable address '{value}' Bad port value")


@pytest.mark.parametrize("attributes, name, value", [
    ("up_ip 127.0.0.1 up_port x", "up_addrinfo", "127.0.0.1|x"),
    ("up_port x up_ip 127.0.0.1", "up_addrinfo", "127.0.0.1|x"),
    ("up_port x", "up_addrinfo", "|x"),
    ("up_ip 127.0.0.1 up_port 9 up_port x", "up_addrinfo", "127.0.0.1|x"),
    ("up_ip 127.0.0.1 up_port y up_ip 127.0.0.2 up_port x", "up_addrinfo", "127.0.0.2|x"),
    ("up_addrinfo 127.0.0.1|x up_ip 127.0.0.9", "up_addrinfo", "127.0.0.1|x"),
    ("up_ip 127.0.0.9 up_addrinfo 127.0.0.1|x", "up_addrinfo", "127.0.0.1|x"),
    ("up_addrinfo 127.0.0.1|x up_addrinfo 127.0.0.2|y", "up_addrinfo", "127.0.0.1|x"),
    ("up_addrinfo 127.0.0.1|9|x", "up_addrinfo", "127.0.0.1|9|x"),
    ("down_ip 127.0.0.1 down_port x", "down_addrinfo", "127.0.0.1|x"),
    ("up_src_ip 127.0.0.1 up_src_port x", "up_src_addrinfo", "127.0.0.1|x"),
    ("up_aux_flow_ip 127.0.0.1 up_aux_flow_port x", "up_aux_flow_addrinfo", "127.0.0.1|x"),
    # The halves of different addresses are not joined.
    ("up_ip 127.0.0.1 up_src_port x", "up_src_addrinfo", "|x"),
])
def test_halves_of_an_address_are_joined(vesk: VeskProcess, attributes: str, name: str,
                                         value: str) -> None:
    assert shown_address(vesk, attributes) == complaint(name, value)


def test_an_address_without_a_port_is_accepted(vesk: VeskProcess) -> None:
    assert vesk.lines_after("set label 5 up_ip 127.0.0.1") == []


def test_the_first_of_two_values_is_used(vesk: VeskProcess) -> None:
    assert vesk.lines_after("set label a label b") == [
        "error validateLabelLikeString: bad label-like value, 'label': bogus labelVal 'a'",
        "error setLabelAttrs: bad command for label 0"]


def test_a_name_without_a_value_is_dropped(vesk: VeskProcess) -> None:
    """At most the missing attribute is reported, never the name without a value."""
    assert vesk.lines_after("log priority") == [
        "error setLogParams: bad command, missing or empty 'priority' attr"]
    assert vesk.lines_after("set label 5 bogus") == []
    assert vesk.lines_after("set label") == [
        "error Vesk_setFlowDescLabelAttrs: Invalid Attr,  'label' field is missing",
        "error setLabelAttrs: bad command for label 0"]


# The end of the channel -----------------------------------------------------------------

def own_lines(vesk: VeskProcess) -> List[str]:
    """The log without the lines of the periodic task, which may come at any time."""
    return [line for line in vesk.log_lines() if not line.startswith("info Task [")]


def test_the_end_of_input_is_logged(vesk: VeskProcess) -> None:
    vesk.finish()
    assert own_lines(vesk)[-2:] == [END_OF_INPUT, ""]
    assert END_OF_INPUT.encode() + b"\n\n" in vesk.output()


def test_a_last_line_without_a_newline_is_executed(vesk: VeskProcess) -> None:
    port = free_port()
    vesk.write_input(f"start addr 127.0.0.1 port {port}".encode())
    vesk.close_input()
    vesk.wait_exit(0)
    assert f"info Vesk started on port {port} address 127.0.0.1" in vesk.log_lines()
    assert own_lines(vesk)[-3:] == [END_OF_INPUT, "", "info Forwarder listener stopped"]


def test_a_last_line_of_nul_bytes_is_executed(vesk: VeskProcess) -> None:
    vesk.write_input(b"\x00\x00")
    vesk.close_input()
    vesk.wait_exit(0)
    assert b"error Unrecognised command '\x00\x00'\n\n" in vesk.output()


def test_a_read_error_ends_the_process_without_a_log_line(start_vesk: StartVesk) -> None:
    directory = os.open(os.getcwd(), os.O_RDONLY)
    try:
        vesk = start_vesk(standard_input=directory)
    finally:
        os.close(directory)
    vesk.wait_exit(0)
    assert not [line for line in vesk.log_lines() if "Got EOF" in line]
    assert [line for line in vesk.log_lines() if "Created pollLoop thread" in line]


def test_a_standard_input_for_writing_only_is_a_read_error(start_vesk: StartVesk) -> None:
    with open(os.devnull, "wb") as no_input:
        vesk = start_vesk(standard_input=no_input)
    vesk.wait_exit(0)
    assert not [line for line in vesk.log_lines() if "Got EOF" in line]
