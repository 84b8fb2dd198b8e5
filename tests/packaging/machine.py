"""A Debian with its own systemd, booted from a directory; see boot-root. What is written in it is gone at its end."""

import os
import signal
import subprocess
import time
from pathlib import Path

PROJECT = Path(__file__).resolve().parents[2]


class Machine:
    def __init__(self, root, shared):
        self._boot = subprocess.Popen([PROJECT / "tests/packaging/boot-root", root, shared])
        self.pid = self._first_process()
        self.wait_until("systemctl is-system-running | grep -qE 'running|degraded'", 60)

    def _first_process(self):
        """The host's number of the machine's process 1."""
        deadline = time.monotonic() + 20
        while time.monotonic() < deadline:
            pid = self._boot.pid
            while pid:
                if Path(f"/proc/{pid}/comm").read_text().strip() == "systemd":
                    return pid
                children = Path(f"/proc/{pid}/task/{pid}/children").read_text().split()
                pid = int(children[0]) if children else None
            time.sleep(0.1)
        raise AssertionError("no systemd came up")

    def run(self, command, check=True, timeout=60):
        """Runs a shell command line as root of the machine; its output, both streams."""
        words = ["nsenter", "-t", str(self.pid), "-m", "-u", "-i", "-n", "-p", "-C", "-r", "-w", "/usr/bin/env", "-i"]
        words += ["PATH=/usr/sbin:/usr/bin:/sbin:/bin", "DEBIAN_FRONTEND=noninteractive", "LC_ALL=C.UTF-8"]
        words += ["/bin/sh", "-c", command]
        streams = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.STDOUT}
        done = subprocess.run(words, **streams, text=True, timeout=timeout)
        if check and done.returncode != 0:
            raise AssertionError(f"{command}: status {done.returncode}\n{done.stdout}")
        return done.stdout

    def holds(self, command):
        """True when the command's status is 0."""
        return self.run(f"({command}) >/dev/null 2>&1 && echo yes || echo no").strip() == "yes"

    def wait_until(self, command, timeout=20):
        deadline = time.monotonic() + timeout
        while not self.holds(command):
            if time.monotonic() > deadline:
                journal = self.run("journalctl --no-pager -n 60", check=False)
                raise AssertionError(f"waited {timeout} s in vain for: {command}\n{journal}")
            time.sleep(0.2)

    def close(self):
        """Ends every process of the machine."""
        os.kill(self.pid, signal.SIGKILL)
        self._boot.wait(20)
