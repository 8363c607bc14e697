#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""
Puts and gets through the Python package, in units of many: one line of JSON with messages in a second, and the
processor's time for each, whose difference to that of a C program that does the same is what Python costs.

    KVR_LIBRARY=build/release/lib/libkvr.so.1 PYTHONPATH=bindings/python bench/python_overhead.py --kvr build/release/bin/kvr
"""
import argparse
import json
import os
import subprocess
import tempfile
import time

import kvr

QUEUE = "BENCH"


def put_all(qm: kvr.QueueManager, data: bytes, count: int, unit: int) -> None:
    for _ in range(0, count, unit):
        with qm.unit():
            for _ in range(unit):
                qm.put(QUEUE, data)


def get_all(qm: kvr.QueueManager, data: bytes, count: int, unit: int) -> None:
    for _ in range(0, count, unit):
        with qm.unit():
            for _ in range(unit):
                message = qm.get(QUEUE)
                assert message and message.data == data


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.split(":")[0])
    parser.add_argument("--kvr", default="kvr", help="the operator's program [kvr]")
    parser.add_argument("--dir", help="disk to be measured [/tmp]")
    parser.add_argument("--messages", type=int, default=20000)
    parser.add_argument("--size", type=int, default=1024)
    parser.add_argument("--unit", type=int, default=100)
    options = parser.parse_args()
    count = options.messages // options.unit * options.unit
    figures = {"messages": count, "bytes": options.size, "unit": options.unit}
    with tempfile.TemporaryDirectory(dir=options.dir) as home:
        environment = dict(os.environ, KVR_HOME=home)
        for command in (["create", "BENCH"], ["-m", "BENCH", "define", "queue", QUEUE]):
            subprocess.run([options.kvr, *command], env=environment, check=True, stdout=subprocess.DEVNULL)
        with kvr.open("BENCH", home) as qm:
            for name, work in (("put", put_all), ("get", get_all)):
                began, used = time.perf_counter(), time.process_time()
                work(qm, bytes(options.size), count, options.unit)
                figures[name + "_messages_per_s"] = round(count / (time.perf_counter() - began))
                figures[name + "_us_cpu"] = round((time.process_time() - used) * 1e6 / count, 2)
    print(json.dumps(figures))


if __name__ == "__main__":
    main()
