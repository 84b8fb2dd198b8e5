"""The daemon's log, read while it grows."""

import os
import re
import time
from dataclasses import dataclass

from .world import wait_until

LOG_FILE = "/tmp/tlsc_log"

LINE = re.compile(
    r"TLSC\[(?P<number>\d+)\]: (?P<time>\d{4}-\d\d-\d\d_\d\d_\d\d_\d\d) (?P<level>ERROR|WARNING|INFO |DEBUG|SSL_DEBUG) "
    r"\[(?P<file>tlsc_[a-z_]+\.c):(?P<line>\d+)\] \[(?P<function>\w+)\] (?P<message>.*)",
    re.DOTALL,
)


@dataclass(frozen=True)
class Entry:
    number: int
    level: str
    file: str
    function: str
    message: str


def split(text):
    """The lines of a log: each begins with a line end and its mark."""
    pieces = re.split(r"\n(?=TLSC\[)", text)
    return pieces[0], pieces[1:]


def parse(piece):
    match = LINE.fullmatch(piece)
    assert match, f"not of the form of a log line: {piece!r}"
    return Entry(int(match["number"]), match["level"].strip(), match["file"], match["function"], match["message"])


class Log:
    """Follows the file across its rotation. What was written between a look and a rotation may be missed."""

    def __init__(self, world, name=LOG_FILE):
        self.world = world
        self.name = name
        self._inode = None
        self._offset = 0
        self._text = ""

    @property
    def text(self):
        """Everything read so far, this moment included."""
        try:
            with open(self.world.path(self.name), "rb") as file:
                inode = os.fstat(file.fileno()).st_ino
                if inode != self._inode:
                    self._inode, self._offset = inode, 0
                file.seek(self._offset)
                added = file.read()
        except FileNotFoundError:
            return self._text
        self._offset += len(added)
        self._text += added.decode(errors="replace")
        return self._text

    @property
    def position(self):
        """A place in the log, to give as `since`."""
        return len(self.text)

    def entries(self, since=0):
        return [parse(piece) for piece in split(self.text[since:])[1]]

    def messages(self, since=0):
        return [entry.message for entry in self.entries(since)]

    def count(self, text, since=0):
        return self.text.count(text, since)

    def wait_for(self, text, timeout=10, since=0, times=1):
        """Waits until the text stands that many times behind the position."""
        wait_until(
            lambda: self.count(text, since) >= times,
            timeout,
            lambda: f"{times} x {text!r} in the log:\n{self.tail(since)}",
        )

    def wait_match(self, pattern, timeout=10, since=0):
        expression = re.compile(pattern)
        return wait_until(
            lambda: expression.search(self.text, since), timeout, lambda: f"{pattern!r} in the log:\n{self.tail(since)}"
        )

    def assert_order(self, *texts, since=0):
        """Each text stands in the log, behind the one before it."""
        whole, place = self.text, since
        for text in texts:
            found = whole.find(text, place)
            assert found >= 0, f"{text!r} is missing behind {texts[: texts.index(text)]}:\n{self.tail(since)}"
            place = found + len(text)

    def wait_quiet(self, seconds, timeout=30):
        """Waits until nothing was written for that long."""
        last, changed, deadline = self.position, time.monotonic(), time.monotonic() + timeout
        while time.monotonic() - changed < seconds:
            assert time.monotonic() < deadline, "the log does not come to rest"
            time.sleep(0.05)
            if self.position != last:
                last, changed = self.position, time.monotonic()

    def tail(self, since=0, size=3000):
        return self.text[since:][-size:]
