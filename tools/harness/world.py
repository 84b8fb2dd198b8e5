"""A world of its own: private /tmp, /storage and /run, three network namespaces, its own processes.

    device  192.0.2.2 -- 192.0.2.1  gateway
    10.1.0.2 (management address)   10.9.0.1 (the gateway's TUN interface), 10.20.0.1 and 10.21.0.1 (sites behind it)

The daemon runs in `device`, the gateway in `gateway`. Packets to 198.51.100.1 leave the device for a station that does
not exist: nothing answers them.

A test makes a `World` and looks into it from outside. A program that tools/private-world runs is in such a world
already, and uses it as its `OwnWorld`. Both know the same operations.
"""

import contextlib
import ctypes
import json
import os
import signal
import subprocess
import sys
import threading
import time
from pathlib import Path

from . import world_agent

PROJECT = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("TLSC_BUILD", PROJECT / "build")).resolve()

MANAGEMENT_IP = "10.1.0.2"
DEVICE_IP = "192.0.2.2"
GATEWAY_IP = "192.0.2.1"
SITE_IP = "10.9.0.1"
LAN_IP, LAN = "10.20.0.1", "10.20.0.0/24"
SECOND_LAN_IP, SECOND_LAN = "10.21.0.1", "10.21.0.0/24"
BLACK_HOLE_IP = "198.51.100.1"  # packets to it vanish

CLONE_NEWNET = 0x40000000

TOPOLOGY = f"""
set -e
for ns in device gateway; do ip netns add $ns; ip -n $ns link set lo up; done
ip link add wan0 netns device type veth peer name wan0 netns gateway
ip -n device addr add {DEVICE_IP}/24 dev wan0
ip -n device addr add {MANAGEMENT_IP}/32 dev lo
ip -n device link set wan0 up
ip -n gateway addr add {GATEWAY_IP}/24 dev wan0
ip -n gateway link set wan0 up
ip -n gateway addr add {LAN_IP}/32 dev lo
ip -n gateway addr add {SECOND_LAN_IP}/32 dev lo
ip -n device route add {BLACK_HOLE_IP}/32 dev wan0
ip -n device neigh add {BLACK_HOLE_IP} dev wan0 lladdr 02:00:00:00:00:fe nud permanent
ip -n device route replace 192.0.2.0/24 dev wan0 src {DEVICE_IP} congctl cubic
ip -n gateway route replace 192.0.2.0/24 dev wan0 src {GATEWAY_IP} congctl cubic
"""


class WorldError(Exception):
    """The world itself did not do what it was asked for."""


def wait_until(check, timeout, what, pause=0.02):
    """Calls check until it returns something true, and returns that; fails after timeout seconds."""
    deadline = time.monotonic() + timeout
    while True:
        result = check()
        if result:
            return result
        if time.monotonic() > deadline:
            raise AssertionError(f"waited {timeout} s in vain for: {what() if callable(what) else what}")
        time.sleep(pause)


class Process:
    """A process inside the world. Its streams are files, by the names given to `World.spawn`."""

    def __init__(self, world, pid):
        self.world = world
        self.pid = pid

    def wait(self, timeout):
        """Exit status (negative: the signal), or None when it still runs after timeout seconds."""
        deadline = time.monotonic() + timeout
        while True:
            status = self.world.ask(do="wait", pid=self.pid, timeout=0.05)["status"]
            if status is not None or time.monotonic() > deadline:
                return status
            time.sleep(0.02)

    def is_running(self):
        return self.wait(0) is None

    def signal(self, number):
        self.world.ask(do="signal", pid=self.pid, signal=number)

    def kill(self):
        self.signal(signal.SIGKILL)
        return self.wait(5)

    def end(self, timeout=2):
        return self.world.ask(do="end", pid=self.pid, timeout=timeout)["status"]

    def proc(self, name):
        return self.world.path(f"/proc/{self.pid}/{name}")

    def descriptors(self):
        """What the open descriptors point to, by number. One that goes away meanwhile is left out."""
        found = {}
        for entry in os.listdir(self.proc("fd")):
            with contextlib.suppress(FileNotFoundError):
                found[int(entry)] = os.readlink(f"{self.proc('fd')}/{entry}")
        return found

    def threads(self):
        """How many threads the program has. A sanitizer's own blocks even SIGTERM and does not count."""
        count = 0
        for task in os.listdir(self.proc("task")):
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                status = Path(self.proc(f"task/{task}/status")).read_text()
                blocked = int(status.split("SigBlk:")[1].split()[0], 16)
                count += not blocked >> (signal.SIGTERM - 1) & 1
        return count

    def resident_kb(self):
        for line in Path(self.proc("status")).read_text().splitlines():
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
        raise WorldError("no VmRSS")

    def cpu_seconds(self):
        """CPU time of the living threads, from the scheduler's accounts."""
        total = 0
        for task in os.listdir(self.proc("task")):
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                total += int(Path(self.proc(f"task/{task}/schedstat")).read_text().split()[0])
        return total / 1e9


class OwnWorld:
    """The world that this program is in. Made once: it brings the network up."""

    root = ""

    def __init__(self):
        if os.environ.get("PRIVATE_WORLD") != "1":
            sys.exit(f"{sys.argv[0]}: start it through ./run; it changes /tmp, /storage and the network")
        self.run(["sh", "-c", TOPOLOGY])

    def ask(self, **request):
        try:
            return world_agent.ACTIONS[request["do"]](request)
        except (OSError, ValueError, KeyError, subprocess.SubprocessError) as error:
            raise WorldError(f"{type(error).__name__}: {error}") from error

    # Processes. `ns` is "device", "gateway" or None (the world's own, empty namespace).

    def run(self, argv, ns=None, check=True, **more):
        answer = self.ask(do="run", argv=argv, ns=ns, **more)
        if check and answer["status"] != 0:
            raise WorldError(f"{argv}: status {answer['status']}: {answer['err']}")
        return answer

    def spawn(self, argv, ns=None, **more):
        return Process(self, self.ask(do="spawn", argv=[str(a) for a in argv], ns=ns, **more)["pid"])

    def ip(self, ns, words):
        return self.run(["ip", "-n", ns] + words.split())["out"]

    def has_interface(self, ns, name):
        return self.run(["ip", "-n", ns, "link", "show", "dev", name], check=False)["status"] == 0

    # Files.

    def path(self, name):
        """Where the test process finds a file of the world."""
        return self.root + name

    def write(self, name, content, mode=0o600):
        data = content.encode() if isinstance(content, str) else content
        descriptor = os.open(self.path(name), os.O_WRONLY | os.O_CREAT | os.O_TRUNC, mode)
        with os.fdopen(descriptor, "wb") as file:
            os.fchmod(descriptor, mode)
            file.write(data)

    def read(self, name):
        return Path(self.path(name)).read_bytes()

    def exists(self, name):
        return os.path.lexists(self.path(name))

    # Sockets: one that is made inside the block stays in the namespace.

    @contextlib.contextmanager
    def inside(self, ns):
        libc = ctypes.CDLL(None, use_errno=True)
        with open("/proc/thread-self/ns/net", "rb") as home, open(self.path(f"/run/netns/{ns}"), "rb") as target:
            if libc.setns(target.fileno(), CLONE_NEWNET) != 0:
                raise OSError(ctypes.get_errno(), "setns")
            try:
                yield
            finally:
                if libc.setns(home.fileno(), CLONE_NEWNET) != 0:
                    raise OSError(ctypes.get_errno(), "setns back")


class World(OwnWorld):
    """A new world, seen from outside."""

    def __init__(self):
        agent = Path(__file__).with_name("world_agent.py")
        self._runner = subprocess.Popen(
            [str(PROJECT / "tools/private-world"), "/usr/bin/python3", str(agent)],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
            cwd=PROJECT,
            env={**os.environ, "PRIVATE_WORLD_BIND": " ".join(world_binds())},
        )
        self._one_request = threading.Lock()
        self.ask(do="hello")
        self.root = f"/proc/{self._first_process()}/root"
        self.run(["sh", "-c", TOPOLOGY])

    def _first_process(self):
        """The host's number of the agent, through which the world's files are reached."""
        pid = self._runner.pid
        while True:
            children = Path(f"/proc/{pid}/task/{pid}/children").read_text().split()
            if not children:
                return pid
            pid = int(children[0])

    def close(self):
        """Ends every process of the world; its files and interfaces go with them."""
        self._runner.stdin.close()
        try:
            self._runner.wait(5)
        except subprocess.TimeoutExpired:
            self._runner.kill()
            self._runner.wait()
        self._runner.stdout.close()

    def ask(self, **request):
        with self._one_request:
            self._runner.stdin.write(json.dumps(request) + "\n")
            self._runner.stdin.flush()
            line = self._runner.stdout.readline()
        if not line:
            raise WorldError("the world has ended")
        answer = json.loads(line)
        if not answer["ok"]:
            raise WorldError(answer["error"])
        return answer


def world_binds():
    """Directories outside the project that a world must show: the builds."""
    names = ("TLSC_SAN_BUILD", "TLSC_FASTER", "TLSC_ARMHF_BUILD", "TLSC_ARMHF_SYSROOT")
    builds = [BUILD] + [Path(os.environ[name]).resolve() for name in names if name in os.environ]
    return [str(build if build.is_dir() else build.parent) for build in builds]
