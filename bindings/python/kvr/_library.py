# SPDX-License-Identifier: MIT
"""Finds the library and declares its functions. Their contracts stand in kvr.h."""
import os
from ctypes import CDLL, POINTER, PyDLL, Structure, c_char_p, c_int, c_int32, c_int64, c_size_t, c_uint, c_uint32
from ctypes import c_uint64, c_void_p, sizeof
from pathlib import Path
from typing import Any, Union

_SONAME = "libkvr.so.1"

UNIT = 1
OK = 0
INTERRUPTED = 2

StrPath = Union[str, "os.PathLike[str]"]


class GetOptions(Structure):
    _fields_ = [
        ("size", c_size_t),
        ("flags", c_uint),
        ("wait_ms", c_int64),
        ("message_id", c_char_p),
        ("message_id_size", c_size_t),
        ("correlation_id", c_char_p),
        ("correlation_id_size", c_size_t),
        ("max_tries", c_uint32),
        ("aside", c_char_p),
    ]


GET_OPTIONS_SIZE = sizeof(GetOptions)

# Result and arguments. These are over at once, and hold the interpreter: a message is never seen half changed.
_QUICK: "dict[str, list[Any]]" = {
    "error": [c_char_p],
    "version": [c_char_p],
    "interrupt": [c_int, c_void_p],
    "name": [c_char_p, c_void_p],
    "message_new": [c_int, POINTER(c_void_p)],
    "message_free": [None, c_void_p],
    "message_set_data": [c_int, c_void_p, c_char_p, c_size_t],
    "message_data": [c_void_p, c_void_p, POINTER(c_size_t)],
    "message_set_bytes": [c_int, c_void_p, c_int, c_char_p, c_size_t],
    "message_bytes": [c_void_p, c_void_p, c_int, POINTER(c_size_t)],
    "message_set_number": [c_int, c_void_p, c_int, c_int32],
    "message_number": [c_int32, c_void_p, c_int],
    "message_set_destination": [c_int, c_void_p, c_char_p, c_char_p],
    "message_destination_queue": [c_char_p, c_void_p],
    "message_destination_qmgr": [c_char_p, c_void_p],
    "message_attach": [c_int, c_void_p, c_char_p],
    "message_attachments": [c_size_t, c_void_p],
    "message_attachment": [c_char_p, c_void_p, c_size_t],
    "message_set_file": [c_int, c_void_p, c_char_p],
    "message_file": [c_char_p, c_void_p],
    "message_place": [c_uint64, c_void_p],
    "message_given_back": [c_uint32, c_void_p],
    "message_is_in_hand": [c_int, c_void_p],
    "message_is_held": [c_int, c_void_p],
}

# These can take their time: other threads of the interpreter go on meanwhile.
_SLOW: "dict[str, list[Any]]" = {
    "open": [c_int, c_char_p, c_char_p, POINTER(c_void_p)],
    "close": [None, c_void_p],
    "put": [c_int, c_void_p, c_char_p, c_void_p, c_uint],
    "put_many": [c_int, c_void_p, c_char_p, POINTER(c_void_p), c_size_t, c_uint],
    "get": [c_int, c_void_p, c_char_p, POINTER(GetOptions), c_void_p],
    "commit": [c_int, c_void_p],
    "rollback": [c_int, c_void_p],
    "release": [c_int, c_void_p, c_char_p],
    "browse": [c_int, c_void_p, c_char_p, c_uint64, c_void_p],
    "depth": [c_int, c_void_p, c_char_p, POINTER(c_uint64), POINTER(c_uint64)],
}


def _path() -> str:
    chosen = os.environ.get("KVR_LIBRARY")
    if chosen:
        return chosen
    here = Path(__file__).resolve()
    if here.parts[-5:-2] == ("share", "kvr", "python"):
        for pattern in ("lib*/", "lib*/*-linux-*/"):
            for path in here.parents[4].glob(pattern + _SONAME):
                return str(path)
    return _SONAME


def _load() -> CDLL:
    path = _path()
    try:
        return CDLL(path)
    except OSError as error:
        raise ImportError(
            f"the library of kvr cannot be loaded ({error}): install it where the system looks for libraries, "
            f"or set KVR_LIBRARY to the path of {_SONAME}"
        ) from None


def _declare(library: CDLL, functions: "dict[str, list[Any]]") -> None:
    for name, (result, *arguments) in functions.items():
        function = getattr(library, "kvr_" + name)
        function.restype, function.argtypes = result, arguments


slow = _load()
quick = PyDLL(None, handle=slow._handle)
_declare(slow, _SLOW)
_declare(quick, _QUICK)


def text(value: StrPath) -> bytes:
    """A name or path as the library takes it, which ends at the first NUL."""
    raw = os.fsencode(value)
    if b"\0" in raw:
        raise ValueError("a name or path cannot have a NUL in it")
    return raw
