# SPDX-License-Identifier: MIT
"""For each case a home folder with the queue manager EAST and its queue Q; the package as it lies in the tree."""
import os
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

TREE, BUILD = Path(os.environ["KVR_TREE"]), Path(os.environ["KVR_BUILD"])
WORK = tempfile.TemporaryDirectory()


def use_package(folder: Path) -> None:
    """For this process, before it imports it, and for its children."""
    os.environ["PYTHONPATH"] = str(folder)
    sys.path.insert(0, str(folder))


use_package(TREE / "bindings/python")
os.environ["PATH"] = f"{BUILD / 'bin'}:{os.environ['PATH']}"
os.environ["PYTHONDONTWRITEBYTECODE"] = "1"
os.environ.pop("KVR_QMGR", None)


def operator(*command: object) -> None:
    subprocess.run(["kvr", *map(str, command)], check=True, stdout=subprocess.DEVNULL)


class Case(unittest.TestCase):
    def setUp(self) -> None:
        import kvr

        self.home = tempfile.mkdtemp(dir=WORK.name)
        os.environ["KVR_HOME"] = self.home
        operator("create", "EAST")
        operator("define", "queue", "Q")
        self.qm = kvr.open()
        self.addCleanup(self.qm.close)
