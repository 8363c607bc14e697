# SPDX-License-Identifier: MIT
"""
Queues for programs: put messages on the queues of a queue manager of this machine, take them off, and do several of both
as one unit of work.

    import kvr

    with kvr.open("EAST") as qm:
        qm.put("ORDERS", b"two pallets of tea")
        with qm.unit():
            message = qm.get("ORDERS", wait=5)
            if message:
                print(message.data)

The library libkvr does the work: the file of KVR_LIBRARY, or else the one of the installed tree that this package lies in,
or else the one that the system finds.
"""
from typing import Optional

from ._library import StrPath, quick
from .errors import (
    Busy,
    Code,
    Damaged,
    Error,
    Forked,
    Full,
    Invalid,
    NoPermission,
    NotFound,
    TooLarge,
    UnknownOutcome,
)
from .message import Message
from .queue_manager import Depth, QueueManager

__all__ = [
    "Busy",
    "Code",
    "Damaged",
    "Depth",
    "Error",
    "Forked",
    "Full",
    "Invalid",
    "Message",
    "NoPermission",
    "NotFound",
    "QueueManager",
    "TooLarge",
    "UnknownOutcome",
    "library_version",
    "open",
]


def open(qmgr: Optional[str] = None, home: Optional[StrPath] = None) -> QueueManager:
    """
    Opens a queue manager.

    qmgr  its name; None: KVR_QMGR, and without it the only one that there is in home
    home  folder of the queue managers; None: KVR_HOME, and without it what `kvr` takes then
    """
    return QueueManager(qmgr, home)


def library_version() -> str:
    """Of the library that is loaded: "1.2.3"."""
    version: bytes = quick.kvr_version()
    return version.decode()
