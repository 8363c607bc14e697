# SPDX-License-Identifier: MIT
"""For each case a home folder with the queue manager EAST and its queue Q; the package as pip installs it."""
import os
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

TREE, BUILD = Path(os.environ["KVR_TREE"]), Path(os.environ["KVR_BUILD"])
WORK = tempfile.TemporaryDirectory()
INSTALLED = Path(WORK.name, "installed")
os.environ.update(PYTHONPATH=str(INSTALLED), PIP_ROOT_USER_ACTION="ignore")
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

        self.home = tempfile.mkdtemp(dir=WORK.name)
        os.environ["KVR_HOME"] = self.home
        operator("create", "EAST")
        operator("define", "queue", "Q")
        self.qm = kvr.open()
        self.addCleanup(self.qm.close)
