"""Pings and bulk transfers between the namespaces of a world."""

import itertools
import json
import re
import signal

from .world import PROJECT, wait_until

BULK = str(PROJECT / "tools/bulk.py")
PYTHON = "/usr/bin/python3"

numbers = itertools.count()


def ping(world, address, count, source, interval=0.02, size=56):
    """Pings from the device. Returns the round trips in milliseconds, of those that were answered."""
    words = ["ping", "-n", "-c", count, "-i", interval, "-s", size, "-W", 1, "-I", source, address]
    done = world.run([str(word) for word in words], ns="device", check=False, timeout=count * max(interval, 0.01) + 30)
    return [float(time) for time in re.findall(r" time=([\d.]+) ms", done["out"])]


class Transfer:
    """One TCP connection that carries bulk data; both ends hash it, unless they are told --no-hash.

    sender, receiver: (namespace, address); target: the address that the sender connects to (default: the receiver's);
    amount: "--bytes N", "--seconds S", or "--until-told" (see `tell`).
    """

    def __init__(self, world, sender, receiver, amount, target=None, port=5001, options=()):
        self.world = world
        number = next(numbers)
        self._outputs = [f"/tmp/bulk-{number}.{end}" for end in ("receiver", "sender")]
        words = [PYTHON, BULK, "receive", receiver[1], port, *options]
        self.receiver = world.spawn(words, ns=receiver[0], stdout=self._outputs[0], stderr="/tmp/bulk.err")
        wait_until(lambda: self._output(0).startswith("ready"), 10, lambda: f"the receiver: {self._errors()}")
        words = [PYTHON, BULK, "send", target or receiver[1], port, "--from", sender[1], *amount.split(), *options]
        self.sender = world.spawn(words, ns=sender[0], stdout=self._outputs[1], stderr="/tmp/bulk.err")

    def _output(self, end):
        return self.world.read(self._outputs[end]).decode() if self.world.exists(self._outputs[end]) else ""

    def _errors(self):
        return self.world.read("/tmp/bulk.err").decode()[-500:]

    def tell(self):
        """Ends the sending of an --until-told transfer; what was sent arrives."""
        self.sender.signal(signal.SIGTERM)

    def finish(self, timeout=60):
        """Waits for both ends. Returns what the receiver and the sender report; fails unless they agree."""
        for end in (self.sender, self.receiver):
            assert end.wait(timeout) == 0, f"a bulk transfer failed: {self._errors()}"
        received, sent = (json.loads(self._output(end).splitlines()[-1]) for end in (0, 1))
        same = received["bytes"] == sent["bytes"] and received["sha256"] == sent["sha256"]
        assert same, f"not the same bytes on either end: sent {sent}, received {received}"
        return received, sent

    def end(self):
        """Gives the transfer up."""
        for end in (self.sender, self.receiver):
            end.kill()
