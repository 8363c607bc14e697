#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""
Request and reply over two channels: EAST asks, WEST answers in capital letters.

Each end has a queue for what it receives, a transmission queue to the other end, named "TO." and its name, a channel
that drains it, and a listener:

    kvr create EAST && kvr -m EAST define queue REPLIES && kvr -m EAST define queue TO.WEST
    kvr create WEST && kvr -m WEST define queue REQUESTS && kvr -m WEST define queue TO.EAST
    kvr -m EAST define channel EAST.WEST XMITQ=TO.WEST CONNAME='127.0.0.1(5152)'
    kvr -m WEST define channel WEST.EAST XMITQ=TO.EAST CONNAME='127.0.0.1(5151)'
    kvr -m EAST listen --address 127.0.0.1 --port 5151 &
    kvr -m WEST listen --address 127.0.0.1 --port 5152 &
    kvr -m EAST run EAST.WEST &
    kvr -m WEST run WEST.EAST &

Then:

    request_reply.py --qmgr WEST serve &
    request_reply.py --qmgr EAST ask WEST 'two pallets of tea'
"""
import argparse
import signal
import sys

import kvr


def ask(qm: kvr.QueueManager, server: str, text: str) -> str:
    request = kvr.Message(text.encode(), destination=("REQUESTS", server), reply_queue="REPLIES", reply_qmgr=qm.name)
    request_id = qm.put("TO." + server, request)
    reply = qm.get("REPLIES", correlation_id=request_id, wait=60)
    if reply is None:
        sys.exit(f"no reply in time: look at 'kvr -m {qm.name} status'")
    return reply.data.decode()


def answer(qm: kvr.QueueManager, request: kvr.Message) -> None:
    reply = kvr.Message(
        request.data.decode().upper().encode(),
        destination=(request.reply_queue, request.reply_qmgr),
        correlation_id=request.message_id,
    )
    qm.put("TO." + request.reply_qmgr, reply, unit=True)


def serve(qm: kvr.QueueManager) -> None:
    """Request and reply are one unit: killed in between, it answers that request again, and no reply is lost."""
    signal.signal(signal.SIGTERM, lambda *_: qm.interrupt())
    while True:
        # A request that cannot be answered is laid aside: it would be the first one for ever.
        request = qm.get("REQUESTS", wait=None, unit=True, max_tries=3, aside="DEAD.LETTER.QUEUE")
        if request is None:
            return
        try:
            answer(qm, request)
            qm.commit()
        except (kvr.NotFound, kvr.Invalid, UnicodeDecodeError) as error:
            print(f"given back, try {request.given_back + 1}: {error}", file=sys.stderr)
            qm.rollback()


def main() -> None:
    parser = argparse.ArgumentParser(description="Request and reply between two queue managers.")
    parser.add_argument("--qmgr", help="this end [KVR_QMGR]")
    verbs = parser.add_subparsers(dest="verb", required=True)
    verbs.add_parser("serve", help="answer until SIGTERM")
    asking = verbs.add_parser("ask", help="send a request and print the reply")
    asking.add_argument("server", help="queue manager that answers")
    asking.add_argument("text")
    options = parser.parse_args()
    with kvr.open(options.qmgr) as qm:
        if options.verb == "serve":
            serve(qm)
        else:
            print(ask(qm, options.server, options.text))


if __name__ == "__main__":
    main()
