# SPDX-License-Identifier: MIT
import os
import re
import subprocess
import sys
import unittest

from support import BUILD, TREE, WORK

PROGRAM = os.path.join(WORK.name, "program")
LINK = ["-Wall", "-Wextra", "-Werror", "-o", PROGRAM, f"-L{BUILD}/lib", f"-Wl,-rpath,{BUILD}/lib", "-lkvr"]
COMPILERS = {
    "c": ["cc", "-std=c99", "-I", TREE / "bindings/c", "-xc", "-", *LINK],
    "cpp": ["c++", "-std=c++17", "-I", TREE / "bindings/c", "-I", TREE / "bindings/cpp", "-xc++", "-", *LINK],
}
RUNNERS = {"sh": ["bash", "-eu"], "python": [sys.executable, "-"], "c": [PROGRAM], "cpp": [PROGRAM]}


class Manual(unittest.TestCase):
    def test_what_it_prints_runs(self):
        os.environ.pop("KVR_HOME", None)
        os.environ["HOME"] = WORK.name
        blocks = re.findall(r"^```(\w+)\n(.*?)^```", (TREE / "docs/programming.md").read_text(), re.S | re.M)
        self.assertLessEqual(RUNNERS.keys(), {language for language, _ in blocks})
        for language, text in blocks:
            for command in (COMPILERS.get(language), RUNNERS.get(language)):
                done = subprocess.run(command or ["true"], input=text, capture_output=True, text=True)
                self.assertEqual((done.returncode, done.stderr), (0, ""), text)
