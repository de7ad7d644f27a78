"""The types of the table of operators' mistakes, and the messages that several rows share."""

from __future__ import annotations

import enum
import re
from dataclasses import dataclass
from typing import TYPE_CHECKING, Callable, Dict, Optional, Sequence, Tuple

if TYPE_CHECKING:
    from trial import Trial


# The last line of a reload of an unusable file.
UNUSABLE = "error controller: FILE is not usable: the running configuration is unchanged"

TAKEN_BY_ANOTHER = (
    'the port is in use; stop the process that "ss -lunp" shows, or change the file')


class Traffic(enum.Enum):
    """The effect on the traffic of the flows, as it is written on the page."""

    NOTHING = "nothing is started"
    FORWARDED = "all datagrams are forwarded"
    UNHEARD = "no datagram is forwarded"
    REMEDIED = "no datagram is forwarded until the cause is removed, then all are"
    UNAFFECTED = "no flow loses a datagram"
    OTHERS_UNAFFECTED = "this flow's datagrams are dropped; no other flow loses one"
    INTERRUPTED = "all flows pause until the new forwarder runs"
    ENDED = "forwarding ends at once"


@dataclass(frozen=True)
class Mistake:
    """One row. In messages the words of `Trial.names` stand for values, and `...` for any text."""

    what: str
    make: Callable[["Trial"], None]
    says: Tuple[str, ...]
    traffic: Traffic
    status: Optional[int] = None  # None: the controller continues to run
    #: What is prepared before the start, for a mistake while it runs.
    prepare: Callable[["Trial"], None] = lambda trial: None


@dataclass(frozen=True)
class FileMistake:
    """One wrong line in an otherwise correct file: at the start and at a reload."""

    what: str
    lines: str  # appended to the file, or replacing a line of it
    says: str
    wrong: int = -1  # index of the line that the message names
    instead_of: str = ""


@dataclass(frozen=True)
class FileSection:
    """Mistakes in the file, which all have the same outcome."""

    title: str
    rows: Sequence[FileMistake]


@dataclass(frozen=True)
class Section:
    """The rows of one table of the page."""

    title: str
    while_it_runs: bool  # otherwise at the start
    rows: Sequence[Mistake]


def _said(row: FileMistake) -> str:
    return f"error controller: FILE:LINE: {row.says}"


def at_start(row: FileMistake) -> Mistake:
    return Mistake(row.what, lambda trial: trial.make_in_file(row), (_said(row),), Traffic.NOTHING, 1)


def at_reload(row: FileMistake) -> Mistake:
    def make(trial: "Trial") -> None:
        trial.make_in_file(row)
        trial.reload()
    return Mistake(row.what, make, (_said(row), UNUSABLE), Traffic.UNAFFECTED)


def pattern(message: str, names: Dict[str, str]) -> "re.Pattern[str]":
    """The pattern that a message of the table stands for."""
    words = "|".join(sorted(map(re.escape, names), key=len, reverse=True))
    parts = re.split(rf"(\.\.\.|\b(?:{words})\b)" if names else r"(\.\.\.)", message)
    return re.compile("".join(
        ".*" if part == "..." else re.escape(names.get(part, part)) for part in parts))
