# SPDX-License-Identifier: MIT
"""The package as pip installs it."""
import contextlib
import os
import pickle
import re
import signal
import subprocess
import sys
import threading
import unittest.mock
from pathlib import Path

from support import TREE, WORK, Case, use_package

INSTALLED = Path(WORK.name, "installed")
PIP = [sys.executable, "-m", "pip", "install", "--no-build-isolation", "--no-deps", "--no-index", "--quiet"]
subprocess.run([*PIP, "--root-user-action=ignore", "--target", INSTALLED, TREE / "bindings/python"], check=True)
use_package(INSTALLED)
import kvr

PPOLL = "271 "


def once_it_waits(action):
    """Calls action in another thread as soon as this one waits for a message."""
    waiter = Path(f"/proc/self/task/{threading.get_native_id()}/syscall")

    def watch():
        while not waiter.read_text().startswith(PPOLL):
            pass
        action()

    threading.Thread(target=watch).start()


def taken(qm, **options):
    message = qm.get("Q", **options)
    return message and message.data


class Package(unittest.TestCase):
    def test_pip_takes_it_all_and_leaves_nothing_in_the_tree(self):
        self.assertEqual(kvr.__file__, str(INSTALLED / "kvr/__init__.py"))
        self.assertTrue((INSTALLED / "kvr/py.typed").exists())
        self.assertEqual({f.name for f in (TREE / "bindings/python").iterdir()} & {"build", "kvr.egg-info"}, set())

    def test_without_its_library_it_says_what_to_do(self):
        result = subprocess.run([sys.executable, "-c", "import kvr"], env={**os.environ, "KVR_LIBRARY": "/none"},
                                capture_output=True, text=True)
        self.assertRegex(result.stderr, "ImportError: .*/none.* set KVR_LIBRARY")

    def test_numbers_are_those_of_the_header(self):
        header = re.findall(r"KVR_(E_)?(\w+) = (-?\d+)", (TREE / "bindings/c/kvr.h").read_text())
        self.assertEqual({c.name: c.value for c in kvr.Code}, {name: int(n) for e, name, n in header if e})
        fields = {name: int(number) for e, name, number in header if not e and int(number) not in (0, 2)}
        del fields["NONE"]
        self.assertEqual({name: getattr(kvr.Message, name.lower()).number for name in fields}, fields)


class Interface(Case):
    def test_message_comes_out_as_it_went_in(self):
        values = {"data": bytes(range(256)) * 3, "message_id": b"\0id\0\xff", "correlation_id": bytes([0, 1]) * 16,
                  "group_id": b"\0" * 31 + b"g", "format": "f", "reply_queue": "R" * 32, "reply_qmgr": "\udcff",
                  "application": "test", "put_date": "20010203", "put_time": "040506", "destination": ("D", "WEST")}
        numbers = "type code usage expiry feedback encoding ccsid priority persistence sequence_number report"
        values.update({name: -(2**31) + i for i, name in enumerate((numbers + " application_type").split())})
        sent = kvr.Message(attachments=[__file__, INSTALLED])
        for name, value in values.items():
            setattr(sent, name, value)
        self.assertEqual(self.qm.put("Q", sent), values["message_id"])
        got = self.qm.get("Q")
        self.assertEqual({name: getattr(got, name) for name in values}, values)
        self.assertEqual((got.attachments, got.file, got.place), ([__file__, str(INSTALLED)], None, 1))
        self.qm.put("Q", kvr.Message(file=__file__))
        self.assertEqual(self.qm.get("Q").file, __file__)

    def test_messages_are_chosen_by_their_ids(self):
        ids = self.qm.put_many("Q", [bytearray(b"a"), kvr.Message(b"b", correlation_id=b"\0b"), memoryview(b"c")])
        self.assertEqual([m.data for m in self.qm.browse("Q")], [b"a", b"b", b"c"])
        self.assertEqual(taken(self.qm, correlation_id=b"\0b"), b"b")
        self.assertEqual(taken(self.qm, message_id=ids[2]), b"c")
        self.assertEqual(taken(self.qm, message_id=ids[2], wait=0.001), None)
        self.assertEqual([m.data for m in self.qm.browse("Q")], [b"a"])

    def test_unit_is_all_or_nothing(self):
        self.qm.put("Q", b"first")
        with kvr.open() as other, contextlib.suppress(KeyError):
            with self.qm.unit():
                self.assertEqual(taken(self.qm), b"first")
                self.qm.put_many("Q", [b"second", b"third"])
                self.assertEqual([(m.data, m.in_hand) for m in other.browse("Q")], [(b"first", True)])
                raise KeyError
        self.assertEqual(self.qm.depth("Q"), (1, 5))
        with self.qm.unit():
            first = self.qm.get("Q")
            self.assertEqual((first.data, first.given_back), (b"first", 1))
            self.qm.put("Q", b"second")
        self.qm.put("Q", b"never", unit=True)
        self.qm.close()
        self.qm = kvr.open()
        self.assertEqual([m.data for m in self.qm.browse("Q")], [b"second"])
        for _ in range(2):
            self.qm.get("Q", unit=True)
            self.assertRaises(kvr.Busy, self.qm.release, "Q")
            self.qm.rollback()
        self.assertIsNone(self.qm.get("Q", max_tries=2, aside="DEAD.LETTER.QUEUE"))
        self.assertEqual(self.qm.depth("DEAD.LETTER.QUEUE").messages, 1)

    def test_errors_have_their_class_and_text(self):
        for error, call in ((kvr.NotFound, lambda: self.qm.put("NONE", b"")), (kvr.NotFound, lambda: kvr.open("WEST")),
                            (kvr.TooLarge, lambda: self.qm.put("Q", bytes(2098377))),
                            (kvr.Invalid, lambda: self.qm.get("Q", max_tries=1)),
                            (kvr.Invalid, lambda: self.qm.get("Q", wait=-1)),
                            (kvr.Invalid, lambda: kvr.Message(reply_queue="R" * 33)),
                            (TypeError, lambda: self.qm.put("Q", "text")), (TypeError, lambda: pickle.dumps(self.qm)),
                            (ValueError, lambda: self.qm.put("Q\0", b"")),
                            (OverflowError, lambda: setattr(kvr.Message(), "code", 2**31))):
            with self.subTest(error), self.assertRaises(error):
                call()
        with self.assertRaisesRegex(kvr.NotFound, "NONE") as caught:
            self.qm.depth("NONE")
        self.assertEqual(str(pickle.loads(pickle.dumps(caught.exception))), str(caught.exception))
        self.qm.close()
        self.assertRaisesRegex(kvr.Invalid, "closed", self.qm.depth, "Q")

    # Short waits stand for the many of a long one.
    @unittest.mock.patch("kvr.queue_manager._LONGEST_WAIT", 0.01)
    def test_signal_handlers_run_while_it_waits(self):
        once_it_waits(lambda: os.kill(os.getpid(), signal.SIGINT))
        self.assertRaises(KeyboardInterrupt, self.qm.get, "Q", wait=None)
        with kvr.open() as other:
            signal.signal(signal.SIGUSR1, lambda *_: other.put("Q", b"of the handler"))
            once_it_waits(lambda: os.kill(os.getpid(), signal.SIGUSR1))
            self.assertEqual(taken(self.qm, wait=None), b"of the handler")

    def test_another_thread_may_only_interrupt(self):
        def intrude():
            self.assertRaises(kvr.Busy, self.qm.depth, "Q")
            self.qm.interrupt()

        once_it_waits(intrude)
        self.assertIsNone(self.qm.get("Q", wait=None))

    def test_child_has_to_open_its_own(self):
        self.qm.put("Q", b"kept")
        self.qm.get("Q", unit=True)
        child = os.fork()
        if child == 0:
            with contextlib.suppress(kvr.Forked), self.qm:
                self.qm.commit()
                os._exit(1)
            with kvr.open() as own:
                os._exit(0 if own.depth("Q").messages == 1 and own.get("Q") is None else 2)
        self.assertEqual(os.waitpid(child, 0)[1], 0)
        self.qm.commit()
        self.assertEqual(self.qm.depth("Q").messages, 0)

    def test_interpreter_ends_with_open_handles(self):
        self.qm.put("Q", b"kept")
        script = "import kvr; qm = kvr.open(); m = qm.get('Q', unit=True); print(m.data); b = qm.browse('Q'); next(b)"
        result = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True)
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, "b'kept'\n", ""))
        self.assertEqual(self.qm.get("Q", wait=5).given_back, 1)
