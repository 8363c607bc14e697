# SPDX-License-Identifier: MIT
"""What can go wrong: one class, and one below it for each failure that a program may want to answer in its own way."""
import enum
from typing import Dict, Type

from ._library import quick


class Code(enum.IntEnum):
    """Error.code, as in kvr.h."""

    NOT_FOUND = -101
    EXISTS = -102
    INVALID = -103
    UNKNOWN_ATTR = -104
    TOO_LONG = -105
    TOO_LARGE = -106
    BUSY = -107
    FULL = -109
    IO = -110
    VERSION = -111
    PERMISSION = -112
    DAMAGED = -113
    UNKNOWN = -116
    FORKED = -117
    MEMORY = -118


class Error(Exception):
    """A call failed and changed nothing, unless it is an UnknownOutcome. The text says what to do."""

    def __init__(self, code: int, text: str) -> None:
        super().__init__(code, text)
        self.code = code
        self.text = text

    def __str__(self) -> str:
        return self.text


class NotFound(Error):
    """There is no such queue or queue manager."""


class Invalid(Error):
    """An argument is not what it has to be, or does not fit its field."""


class TooLarge(Error):
    """A message or a unit is beyond the limits."""


class Busy(Error):
    """A channel drains the queue, or another thread uses the connection just now."""


class Full(Error):
    """The quota is used up, the disk is full, or too much is taken and not committed: try again later."""


class NoPermission(Error):
    """Not for this user, or not safe from others."""


class Damaged(Error):
    """The store is damaged, or was removed while it was open."""


class UnknownOutcome(Error):
    """A put or a commit failed in the middle: it may have happened. What was taken comes again, unless it did."""


class Forked(Error):
    """The connection belongs to another process: open one in this process."""


_CLASSES: Dict[int, Type[Error]] = {
    Code.NOT_FOUND: NotFound,
    Code.INVALID: Invalid,
    Code.TOO_LONG: Invalid,
    Code.TOO_LARGE: TooLarge,
    Code.BUSY: Busy,
    Code.FULL: Full,
    Code.PERMISSION: NoPermission,
    Code.DAMAGED: Damaged,
    Code.UNKNOWN: UnknownOutcome,
    Code.FORKED: Forked,
}


def check(code: int) -> int:
    """The result of a call, unless it says that the call failed: then its error, for the thread that called."""
    if code >= 0:
        return code
    raise _CLASSES.get(code, Error)(code, quick.kvr_error().decode(errors="replace"))
