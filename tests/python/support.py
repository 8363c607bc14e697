# SPDX-License-Identifier: MIT
"""A home folder with the queue manager EAST and its queue Q, the program kvr, and the package as pip installs it."""
import os
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

TREE, BUILD = Path(os.environ["KVR_TREE"]), Path(os.environ["KVR_BUILD"])
WORK = tempfile.TemporaryDirectory()
INSTALLED, HOME = Path(WORK.name, "installed"), Path(WORK.name, "home")
os.environ.update(KVR_HOME=str(HOME), PYTHONPATH=str(INSTALLED), PIP_ROOT_USER_ACTION="ignore")
os.environ["PATH"] = f"{BUILD / 'bin'}:{os.environ['PATH']}"
os.environ.pop("KVR_QMGR", None)

pip = [sys.executable, "-m", "pip", "install", "--no-build-isolation", "--no-deps", "--no-index", "--quiet"]
subprocess.run([*pip, "--target", INSTALLED, TREE / "bindings/python"], check=True)
sys.path.insert(0, str(INSTALLED))


def operator(*command: object) -> None:
    subprocess.run(["kvr", *map(str, command)], check=True, stdout=subprocess.DEVNULL)


class Case(unittest.TestCase):
    def setUp(self) -> None:
        import kvr

        operator("create", "EAST")
        operator("define", "queue", "Q")
        self.qm = kvr.open()
        self.addCleanup(operator, "delete", "qmgr", "EAST", "--purge")
        self.addCleanup(self.qm.close)
