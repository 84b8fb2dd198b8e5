#!/usr/bin/python3
"""Bulk data over one TCP connection, with a hash on either end.

    bulk.py receive ADDRESS PORT [--no-hash]
    bulk.py send ADDRESS PORT [--from ADDRESS] (--bytes N | --seconds S | --until-told) [--no-hash]

--until-told: SIGTERM ends the sending; what was sent arrives. The receiver prints "ready" when it listens. Each end
prints one JSON object when it is done: "bytes", "seconds" (receiver: from the first byte to the last), "sha256" (empty
with --no-hash), and the receiver also "longest_pause", in seconds.
"""

import argparse
import hashlib
import json
import random
import signal
import socket
import sys
import time

BLOCK = 1 << 18  # bytes per call
CONGESTION_CONTROL = b"cubic"  # whatever the host's default is
POOL = random.Random(1).randbytes(64 * BLOCK)  # what the sender repeats


def receive(options):
    digest = hashlib.sha256()
    buffer = bytearray(BLOCK)
    view = memoryview(buffer)
    with socket.create_server((options.address, options.port)) as server:
        server.setsockopt(socket.IPPROTO_TCP, socket.TCP_CONGESTION, CONGESTION_CONTROL)
        print("ready", flush=True)
        connection, _ = server.accept()
    total, first, last, longest_pause = 0, None, None, 0.0
    with connection:
        while count := connection.recv_into(buffer):
            now = time.monotonic()
            longest_pause = max(longest_pause, now - (last or now))
            first, last = first or now, now
            total += count
            if not options.no_hash:
                digest.update(view[:count])
    seconds = last - first if total else 0.0
    sha256 = "" if options.no_hash else digest.hexdigest()
    return {"bytes": total, "seconds": seconds, "longest_pause": longest_pause, "sha256": sha256}


def blocks(options):
    """Yields pieces of the pool, cut at --bytes, until the end that the options ask for."""
    told = []
    if options.until_told:
        signal.signal(signal.SIGTERM, lambda *_: told.append(True))
    end = time.monotonic() + options.seconds if options.seconds else None
    left = options.bytes
    place = 0
    while left is None or left > 0:
        if end and time.monotonic() >= end:
            return
        if told:
            return
        piece = memoryview(POOL)[place : place + min(BLOCK, left or BLOCK)]
        yield piece
        place = (place + BLOCK) % len(POOL)
        left = left - len(piece) if left else left


def hash_of_sent(total):
    digest = hashlib.sha256()
    for _ in range(total // len(POOL)):
        digest.update(POOL)
    digest.update(memoryview(POOL)[: total % len(POOL)])
    return digest.hexdigest()


def send(options):
    source = (options.source, 0) if options.source else None
    total = 0
    with socket.create_connection((options.address, options.port), timeout=10, source_address=source) as connection:
        connection.settimeout(None)
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_CONGESTION, CONGESTION_CONTROL)
        started = time.monotonic()
        for piece in blocks(options):
            connection.sendall(piece)
            total += len(piece)
        connection.shutdown(socket.SHUT_WR)
        connection.recv(1)  # the receiver closes when it has everything
        seconds = time.monotonic() - started
    return {"bytes": total, "seconds": seconds, "sha256": "" if options.no_hash else hash_of_sent(total)}


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    verbs = parser.add_subparsers(dest="verb", required=True)
    for name in ("receive", "send"):
        verb = verbs.add_parser(name)
        verb.add_argument("address")
        verb.add_argument("port", type=int)
        verb.add_argument("--no-hash", action="store_true")
        if name == "send":
            verb.add_argument("--from", dest="source")
            amount = verb.add_mutually_exclusive_group(required=True)
            amount.add_argument("--bytes", type=int)
            amount.add_argument("--seconds", type=float)
            amount.add_argument("--until-told", action="store_true")
    options = parser.parse_args()
    print(json.dumps(receive(options) if options.verb == "receive" else send(options)), flush=True)


if __name__ == "__main__":
    try:
        main()
    except (OSError, KeyboardInterrupt) as error:
        sys.exit(f"bulk.py: {error}")
