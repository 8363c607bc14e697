# SPDX-License-Identifier: MIT
"""A connection to a queue manager of this machine."""
import os
from contextlib import contextmanager
from ctypes import byref, c_uint64, c_void_p
from math import ceil, inf
from threading import get_ident
from time import monotonic
from typing import Any, Callable, Iterable, Iterator, List, NamedTuple, NoReturn, Optional, Union

from ._library import GET_OPTIONS_SIZE, INTERRUPTED, OK, UNIT, GetOptions, StrPath, quick, slow, text
from .errors import Busy, Code, Invalid, check
from .message import Bytes, Message

# The interpreter runs its signal handlers in the main thread, but the system may interrupt another one: so no single
# call waits longer, in seconds.
_LONGEST_WAIT = 1.0


class Depth(NamedTuple):
    messages: int
    bytes: int


class QueueManager:
    """
    Puts and takes messages, several of both as one unit of work; made by kvr.open(), with which it is closed by `with`.

    For one thread at a time (another one gets Busy), and for the process that opened it (a child of fork gets Forked).
    A connection has one unit at a time: what is put and taken with unit=True, or within `with qm.unit()`, happens when
    it is committed. Until then nobody else sees it; a rollback, close() and the end of the process undo it.
    """

    def __init__(self, qmgr: Optional[str] = None, home: Optional[StrPath] = None) -> None:
        self._handle = c_void_p()
        self._user = 0  # thread that is in the library
        self._in_unit = False
        self._interrupted = False
        check(slow.kvr_open(text(home or ""), text(qmgr or ""), byref(self._handle)))

    def close(self) -> None:
        """Rolls back and closes; what is closed already stays so."""
        self._refuse_another_thread()
        handle, self._handle = self._handle, c_void_p()
        slow.kvr_close(handle)

    def __enter__(self) -> "QueueManager":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __del__(self, _close: Callable[[c_void_p], None] = slow.kvr_close) -> None:
        _close(self._handle)

    def __reduce__(self) -> NoReturn:
        raise TypeError("a QueueManager belongs to the process that opened it: open one where it is needed")

    @property
    def name(self) -> str:
        """Name of the queue manager."""
        self._refuse_closed()
        return os.fsdecode(quick.kvr_name(self._handle))

    def put(self, queue: str, message: Union[Message, Bytes], *, unit: bool = False) -> bytes:
        """
        Puts a message, or data as one, and returns its id; of a Message all that a put fills is set then.

        In a unit it is refused here for what is wrong with it, but for room, which the commit finds.
        """
        whole = message if isinstance(message, Message) else Message(message)
        self._call(slow.kvr_put, text(queue), whole._handle, self._flags(unit))
        return whole.message_id

    def put_many(self, queue: str, messages: Iterable[Union[Message, Bytes]], *, unit: bool = False) -> List[bytes]:
        """Puts all of them, in this order, or none; returns their ids."""
        whole = [message if isinstance(message, Message) else Message(message) for message in messages]
        handles = (c_void_p * len(whole))(*(message._handle for message in whole))
        self._call(slow.kvr_put_many, text(queue), handles, len(whole), self._flags(unit))
        return [message.message_id for message in whole]

    def get(
        self,
        queue: str,
        *,
        wait: Optional[float] = 0,
        message_id: Optional[bytes] = None,
        correlation_id: Optional[bytes] = None,
        unit: bool = False,
        max_tries: int = 0,
        aside: Optional[str] = None,
    ) -> Optional[Message]:
        """
        Takes the oldest message that was asked for; None when there is none in the time given, or after interrupt().

        wait        seconds; 0: not at all; None: for ever. Signal handlers run meanwhile; one that raises ends the wait
        message_id, correlation_id  only messages with these: each look goes through the queue
        max_tries, aside  a message that was given back so many times or more is put on the queue `aside` instead of
                    being returned, each in a unit of its own; 0: none is
        """
        if wait is not None and not wait >= 0:
            raise Invalid(Code.INVALID, f"a wait takes seconds, 0 for none, or None for one without end; not {wait}")
        options = GetOptions(
            GET_OPTIONS_SIZE,
            self._flags(unit),
            0,
            message_id,
            len(message_id or b""),
            correlation_id,
            len(correlation_id or b""),
            max_tries,
            aside and text(aside),
        )
        name, message = text(queue), Message()
        end = inf if wait is None else monotonic() + wait
        left = inf if wait is None else wait
        while True:
            options.wait_ms = ceil(max(0.0, min(left, _LONGEST_WAIT)) * 1000)
            result = self._call(slow.kvr_get, name, byref(options), message._handle)
            if result == OK:
                return message
            if result == INTERRUPTED and self._interrupted:
                self._interrupted = False
                return None
            left = end - monotonic()
            if left <= 0:
                return None

    def commit(self) -> None:
        """Does the unit of work. A failure leaves it to be committed again or rolled back; UnknownOutcome ends it."""
        self._call(slow.kvr_commit)

    def rollback(self) -> None:
        """Undoes the unit of work. Without one nothing."""
        self._call(slow.kvr_rollback)

    @contextmanager
    def unit(self) -> Iterator[None]:
        """What is put and taken inside is one unit: committed at the end, rolled back by an exception."""
        if self._in_unit:
            raise Invalid(Code.INVALID, "a unit is open already: a connection has one at a time")
        self._in_unit = True
        try:
            yield
            self.commit()
        except BaseException:
            self.rollback()
            raise
        finally:
            self._in_unit = False

    def browse(self, queue: str, start: int = 0) -> Iterator[Message]:
        """Shows messages, oldest first from the place `start` on, and leaves them there; those in hand, too."""
        name = text(queue)
        while True:
            message = Message()
            if self._call(slow.kvr_browse, name, start, message._handle) != OK:
                return
            start = message.place + 1
            yield message

    def depth(self, queue: str) -> Depth:
        """Messages on the queue, those in hand and held ones included, and bytes of their data."""
        messages, size = c_uint64(), c_uint64()
        self._call(slow.kvr_depth, text(queue), byref(messages), byref(size))
        return Depth(messages.value, size.value)

    def release(self, queue: str) -> None:
        """This connection takes from the queue no more, so that a channel may drain it."""
        self._call(slow.kvr_release, text(queue))

    def interrupt(self) -> None:
        """Ends the get that waits, or else the next one that would wait. For every thread and signal handler."""
        self._refuse_closed()
        self._interrupted = True
        check(quick.kvr_interrupt(self._handle))

    def _flags(self, unit: bool) -> int:
        return UNIT if unit or self._in_unit else 0

    def _refuse_closed(self) -> None:
        if not self._handle:
            raise Invalid(Code.INVALID, "the connection is closed: open one")

    def _refuse_another_thread(self) -> None:
        if self._user not in (0, get_ident()):
            raise Busy(Code.BUSY, "another thread uses the connection just now: open one for each thread")

    def _call(self, function: Callable[..., int], *arguments: Any) -> int:
        self._refuse_closed()
        self._refuse_another_thread()
        self._user = get_ident()
        try:
            return check(function(self._handle, *arguments))
        finally:
            self._user = 0
