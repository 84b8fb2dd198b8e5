"""The controller's end of the two pipes, byte for byte."""

import contextlib
import errno
import fcntl
import os
import select
import threading
import time

from . import records
from .world import wait_until

TO_DAEMON = "/tmp/wlc-to-tlsc-fifo"  # created by the daemon
FROM_DAEMON = "/tmp/tlsc-to-wlc-fifo"  # created by the controller

F_SETPIPE_SZ = 1031


class Controller:
    """Creates the daemon's outbound pipe, keeps what arrives there, answers name requests.

    resolve: the text that answers a name request (None: no answer).
    The outbound pipe is opened read-write, so it has a reader from now until `close`.
    """

    def __init__(self, world, resolve=None, reading=True, pipe_size=None):
        self.world = world
        self.resolve = resolve
        self.received = []
        self.fragments = []  # reads that were no whole record; none is expected
        os.mkfifo(world.path(FROM_DAEMON), 0o600)
        self._outbound = os.open(world.path(FROM_DAEMON), os.O_RDWR | os.O_NONBLOCK)
        if pipe_size:
            fcntl.fcntl(self._outbound, F_SETPIPE_SZ, pipe_size)
        self._stop, self._stopper = os.pipe()
        self._thread = None
        if reading:
            self.read_on()

    def close(self):
        """Ends the reading and removes the reader: from here on the daemon finds nobody at the other end."""
        self.stop_reading()
        for descriptor in (self._outbound, self._stop, self._stopper):
            with contextlib.suppress(OSError):
                os.close(descriptor)

    # Reading.

    def read_on(self):
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def stop_reading(self):
        if self._thread:
            os.write(self._stopper, b".")
            self._thread.join()
            os.read(self._stop, 1)
            self._thread = None

    def _read(self):
        while True:
            ready, _, _ = select.select([self._outbound, self._stop], [], [])
            if self._stop in ready:
                return
            self.take_one()

    def take_one(self):
        """Reads one record; False when none waits."""
        try:
            data = os.read(self._outbound, records.RECORD_SIZE)
        except OSError as error:
            if error.errno == errno.EAGAIN:
                return False
            raise
        if len(data) != records.RECORD_SIZE:
            self.fragments.append(data)
            return True
        arrived = records.Received(data, time.monotonic())
        self.received.append(arrived)
        if arrived.id == records.NAME_REQUEST and self.resolve is not None:
            self.send(records.text_record(records.NAME_ANSWER, self.resolve))
        return True

    @property
    def count(self):
        """A position in what was received, to give as `since`."""
        return len(self.received)

    def all(self, kind, since=0):
        return [r for r in self.received[since:] if r.kind == str(kind)]

    def kinds(self, since=0):
        return [r.kind for r in self.received[since:]]

    def wait_for(self, kind, timeout=10, since=0):
        """The first record of that kind ("24", "30/33") behind the position."""
        found = wait_until(
            lambda: self.all(kind, since), timeout, lambda: f"record {kind}; received since: {self.kinds(since)}"
        )
        return found[0]

    # Writing.

    def send(self, *whole_records):
        """Writes each record with one write."""
        for data in whole_records:
            self.send_bytes(data)

    def send_bytes(self, data):
        descriptor = os.open(self.world.path(TO_DAEMON), os.O_WRONLY | os.O_NONBLOCK)
        try:
            assert os.write(descriptor, data) == len(data)
        finally:
            os.close(descriptor)

    def order(self, msg_id):
        self.send(records.record(msg_id))
