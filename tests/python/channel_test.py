# SPDX-License-Identifier: MIT
import subprocess
import sys
import time
import unittest
from pathlib import Path

from support import TREE, Case, operator

import kvr

EXAMPLE = [sys.executable, TREE / "examples/request_reply.py"]


class RequestAndReply(Case):
    def start(self, *command):
        process = subprocess.Popen([str(word) for word in command])
        self.addCleanup(process.wait)
        self.addCleanup(process.terminate)
        return process

    def listen(self, qmgr):
        file = Path(self.home, f"{qmgr}.port")
        self.start("kvr", "-m", qmgr, "listen", "--address", "127.0.0.1", "--port", 0, "--port-file", file)
        while not file.exists() or not file.read_text():
            time.sleep(0.01)
        return file.read_text().strip()

    def channel(self, here, there, port):
        queue, name = f"TO.{there}", f"{here}.{there}"
        operator("-m", here, "define", "queue", queue)
        operator("-m", here, "define", "channel", name, f"XMITQ={queue}", f"CONNAME=127.0.0.1({port})")
        self.start("kvr", "-m", here, "run", name)

    def test_reply_comes_back_over_the_other_channel(self):
        operator("create", "WEST")
        operator("-m", "EAST", "define", "queue", "REPLIES")
        operator("-m", "WEST", "define", "queue", "REQUESTS")
        self.channel("EAST", "WEST", self.listen("WEST"))
        self.channel("WEST", "EAST", self.listen("EAST"))
        server = self.start(*EXAMPLE, "--qmgr", "WEST", "serve")
        odd = self.qm.put("TO.WEST", kvr.Message(b"no reply wanted", destination=("REQUESTS", "WEST")))
        for text in ("two pallets of tea", "\u00e4rger"):
            asked = subprocess.run([*EXAMPLE, "--qmgr", "EAST", "ask", "WEST", text], stdout=subprocess.PIPE, text=True)
            self.assertEqual((asked.returncode, asked.stdout), (0, text.upper() + "\n"))
        with kvr.open("WEST") as west:
            self.assertEqual(west.get("DEAD.LETTER.QUEUE").message_id, odd)
            self.assertRaises(kvr.Busy, west.get, "TO.EAST")
            self.assertEqual(west.depth("REQUESTS").messages, 0)
        server.terminate()
        self.assertEqual(server.wait(), 0)
