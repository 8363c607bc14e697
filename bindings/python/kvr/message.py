# SPDX-License-Identifier: MIT
"""A message: its data, and the fields of its descriptor."""
import os
from ctypes import byref, c_size_t, c_void_p, string_at
from typing import Callable, Generic, Iterable, List, NoReturn, Optional, Tuple, TypeVar, Union, overload

from ._library import StrPath, quick, text
from .errors import check

Bytes = Union[bytes, bytearray, memoryview]
Value = TypeVar("Value")


class _Field(Generic[Value]):
    """An attribute that is a field of the message's descriptor."""

    def __init__(
        self,
        number: int,
        read: Callable[[c_void_p, int], Value],
        write: Callable[[c_void_p, int, Value], None],
        doc: str,
    ) -> None:
        self.number, self._read, self._write, self.__doc__ = number, read, write, doc

    @overload
    def __get__(self, message: None, owner: object) -> "_Field[Value]": ...

    @overload
    def __get__(self, message: "Message", owner: object) -> Value: ...

    def __get__(self, message: "Optional[Message]", owner: object) -> "Union[_Field[Value], Value]":
        return self if message is None else self._read(message._handle, self.number)

    def __set__(self, message: "Message", value: Value) -> None:
        self._write(message._handle, self.number, value)


def _read_bytes(handle: c_void_p, number: int) -> bytes:
    size = c_size_t()
    return string_at(quick.kvr_message_bytes(handle, number, byref(size)), size.value)


def _write_bytes(handle: c_void_p, number: int, value: Bytes) -> None:
    raw = value if type(value) is bytes else bytes(memoryview(value))
    check(quick.kvr_message_set_bytes(handle, number, raw, len(raw)))


def _read_text(handle: c_void_p, number: int) -> str:
    return os.fsdecode(_read_bytes(handle, number))


def _write_text(handle: c_void_p, number: int, value: str) -> None:
    _write_bytes(handle, number, text(value))


def _read_number(handle: c_void_p, number: int) -> int:
    return int(quick.kvr_message_number(handle, number))


def _write_number(handle: c_void_p, number: int, value: int) -> None:
    if not -(2**31) <= value < 2**31:
        raise OverflowError(f"{value} does not fit a field of 32 bits")
    check(quick.kvr_message_set_number(handle, number, value))


def _bytes(number: int, doc: str) -> _Field[bytes]:
    return _Field(number, _read_bytes, _write_bytes, doc)


def _text(number: int, doc: str) -> _Field[str]:
    return _Field(number, _read_text, _write_text, doc)


def _number(number: int, doc: str) -> _Field[int]:
    return _Field(number, _read_number, _write_number, doc)


class Message:
    """
    A message to be put, or one that was taken or browsed. For one thread at a time.

    Fields that are not set are b"", "" and 0. Bytes and texts come without the NULs at their end; a text that is not
    UTF-8 keeps its bytes as os.fsdecode() does.
    """

    __slots__ = ("_handle",)

    message_id = _bytes(1, "Up to 32 bytes; a put makes a unique one where it is not set.")
    correlation_id = _bytes(2, "Up to 32 bytes; of an answer, by custom, the id of the message that it answers.")
    group_id = _bytes(3, "Up to 32 bytes.")
    format = _text(10, "Up to 8 bytes.")
    reply_queue = _text(11, "Where an answer is wanted, up to 32 bytes.")
    reply_qmgr = _text(12, "Its queue manager, up to 32 bytes.")
    application = _text(13, "Who put it, up to 32 bytes; filled by a put where it is not set.")
    put_date = _text(14, "YYYYMMDD, UTC; filled by a put where it is not set.")
    put_time = _text(15, "HHMMSS, UTC; filled by a put where it is not set.")
    type = _number(30, "Carried; as all numbers it changes nothing that happens to the message.")
    code = _number(31, "Carried.")
    usage = _number(32, "Carried.")
    expiry = _number(33, "Carried.")
    feedback = _number(34, "Carried.")
    encoding = _number(35, "Carried.")
    ccsid = _number(36, "Carried.")
    priority = _number(37, "Carried.")
    persistence = _number(38, "Carried.")
    sequence_number = _number(39, "Carried.")
    report = _number(40, "Carried.")
    application_type = _number(41, "Carried.")

    def __init__(
        self,
        data: Bytes = b"",
        *,
        destination: Optional[Tuple[str, str]] = None,
        message_id: Bytes = b"",
        correlation_id: Bytes = b"",
        reply_queue: str = "",
        reply_qmgr: str = "",
        attachments: Iterable[StrPath] = (),
        file: Optional[StrPath] = None,
    ) -> None:
        """All else is set by its attribute."""
        self._handle = c_void_p()
        check(quick.kvr_message_new(byref(self._handle)))
        if data:
            self.data = data
        if destination:
            self.destination = destination
        if message_id:
            self.message_id = message_id
        if correlation_id:
            self.correlation_id = correlation_id
        if reply_queue:
            self.reply_queue = reply_queue
        if reply_qmgr:
            self.reply_qmgr = reply_qmgr
        for path in attachments:
            self.attach(path)
        if file is not None:
            self.file = os.fspath(file)

    def __del__(self, _free: Callable[[c_void_p], None] = quick.kvr_message_free) -> None:
        _free(self._handle)

    def __reduce__(self) -> NoReturn:
        raise TypeError("a Message is neither copied nor pickled: take its data and fields")

    def __repr__(self) -> str:
        return f"<kvr.Message {self.message_id.hex().upper() or 'without id'}>"

    @property
    def data(self) -> bytes:
        """A copy of the data, without its transmission header, where it has one."""
        size = c_size_t()
        return string_at(quick.kvr_message_data(self._handle, byref(size)), size.value)

    @data.setter
    def data(self, data: Bytes) -> None:
        raw = data if isinstance(data, bytes) else bytes(memoryview(data))
        check(quick.kvr_message_set_data(self._handle, raw, len(raw)))

    @property
    def destination(self) -> Optional[Tuple[str, str]]:
        """Queue and queue manager that a message on a transmission queue is bound for; None: it has none."""
        queue = quick.kvr_message_destination_queue(self._handle)
        qmgr = quick.kvr_message_destination_qmgr(self._handle)
        return (os.fsdecode(queue), os.fsdecode(qmgr)) if queue else None

    @destination.setter
    def destination(self, destination: Optional[Tuple[str, str]]) -> None:
        queue, qmgr = destination or ("", "")
        check(quick.kvr_message_set_destination(self._handle, text(queue), text(qmgr)))

    @property
    def attachments(self) -> List[str]:
        """Full paths of the files that go with it."""
        count = quick.kvr_message_attachments(self._handle)
        return [os.fsdecode(quick.kvr_message_attachment(self._handle, index)) for index in range(count)]

    def attach(self, path: StrPath) -> None:
        """Adds a file, by its full path: it is read when the message is sent, and stays as it is until then."""
        check(quick.kvr_message_attach(self._handle, text(path)))

    @property
    def file(self) -> Optional[str]:
        """Full path of the file that is sent instead of data, of a file message."""
        path = quick.kvr_message_file(self._handle)
        return None if path is None else os.fsdecode(path)

    @file.setter
    def file(self, path: StrPath) -> None:
        check(quick.kvr_message_set_file(self._handle, text(path)))

    @property
    def place(self) -> int:
        """Of a message that was taken or browsed: its place in the queue, which no other one ever has."""
        return int(quick.kvr_message_place(self._handle))

    @property
    def given_back(self) -> int:
        """Times that it was taken and came back, because a unit was rolled back or its process died."""
        return int(quick.kvr_message_given_back(self._handle))

    @property
    def in_hand(self) -> bool:
        """Of a browsed message: somebody has taken it and not committed."""
        return bool(quick.kvr_message_is_in_hand(self._handle))

    @property
    def held(self) -> bool:
        """Of a browsed message: a channel holds it back."""
        return bool(quick.kvr_message_is_held(self._handle))
