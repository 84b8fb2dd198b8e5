"""The small network that the demonstration and the benchmark run in, for use inside tools/private-world.

    device namespace                                        gateway namespace
    10.1.0.2 (management, lo) -- tun0 ==== tunnel ==== gw0 -- 10.20.0.1, 10.21.0.1 (site, lo)
                 192.0.2.2 (wan0) -------- cable --------- (wan0) 192.0.2.1

Nothing here cleans up by deleting: processes, namespaces, interfaces and files end with the private world.
"""

import json
import os
import re
import signal
import socket
import subprocess
import sys
import time
from pathlib import Path

DEVICE, GATEWAY = "device", "gateway"
DEVICE_WAN, GATEWAY_WAN = "192.0.2.2", "192.0.2.1"
MANAGEMENT = "10.1.0.2"
SITE, SITE_NET = "10.20.0.1", "10.20.0.0/24"
SECOND_SITE, SECOND_SITE_NET = "10.21.0.1", "10.21.0.0/24"
GATEWAY_INNER, POOL = "10.9.0.1/24", "10.9.0.0/24"
GATEWAY_CONTROL = "/run/gateway.sock"
TLSC_LOG = Path("/tmp/tlsc_log")
IDENTITY, KEY = "device-1", "0123456789abcdef0123456789abcdef"
BULK = str(Path(__file__).with_name("bulk.py"))


def require_private_world(program):
    """Refuses to touch the host: ends the program unless tools/private-world runs it."""
    if os.environ.get("PRIVATE_WORLD") != "1":
        sys.exit(f"{program}: start it through ./run; it changes /tmp, /storage and the network")


def wait_for(condition, seconds, interval=0.05):
    """Returns the first true value of condition(), or its last one when the seconds are over."""
    end = time.monotonic() + seconds
    while True:
        value = condition()
        if value or time.monotonic() >= end:
            return value
        time.sleep(interval)


class World:
    """Namespaces, the programs in them, and what they print. Times are CLOCK_MONOTONIC seconds."""

    def __init__(self, binaries):
        self.binaries = Path(binaries)
        self.logs = Path("/tmp/logs")
        self.logs.mkdir()

    # ---- network and processes ---------------------------------------------------------------------------------------

    def make_network(self):
        for name in (DEVICE, GATEWAY):
            self._host("ip", "netns", "add", name)
            self.run(name, "ip", "link", "set", "lo", "up")
        self._host("ip", "link", "add", "wan0", "netns", DEVICE, "type", "veth", "peer", "name", "wan0", "netns", GATEWAY)
        for name, address in ((DEVICE, DEVICE_WAN), (GATEWAY, GATEWAY_WAN)):
            self.run(name, "ip", "addr", "add", f"{address}/24", "dev", "wan0")
            self.run(name, "ip", "link", "set", "wan0", "up")
            # The tunnel's own connection: the host's default algorithm may be one that makes small writes costly.
            self.run(name, "ip", "route", "replace", "192.0.2.0/24", "dev", "wan0", "src", address, "congctl", "cubic")
        self.run(DEVICE, "ip", "addr", "add", f"{MANAGEMENT}/32", "dev", "lo")
        for address in (SITE, SECOND_SITE):
            self.run(GATEWAY, "ip", "addr", "add", f"{address}/32", "dev", "lo")

    @staticmethod
    def _host(*command):
        subprocess.run(command, check=True, stdin=subprocess.DEVNULL, capture_output=True, text=True)

    def run(self, namespace, *command, check=True, timeout=60):
        """Runs a command to its end in a namespace; its output is in the result's stdout and stderr."""
        return subprocess.run(
            ["ip", "netns", "exec", namespace, *command],
            check=check, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=timeout,
        )

    def start(self, namespace, *command, log=None, **popen):
        """Starts a command in a namespace. What it prints goes to the file logs/LOG.log, if log is given."""
        if log:
            output = open(self.logs / f"{log}.log", "ab")
            popen |= {"stdout": output, "stderr": subprocess.STDOUT}
        return subprocess.Popen(["ip", "netns", "exec", namespace, *command], **({"stdin": subprocess.DEVNULL} | popen))

    # ---- the three programs ------------------------------------------------------------------------------------------

    def start_gateway(self, *options):
        """Starts the gateway and waits until it accepts clients. Returns the process, or None when it did not come up."""
        keys = Path("/tmp/psk.txt")
        keys.write_text(f"{IDENTITY}:{KEY}\n")
        keys.chmod(0o600)
        Path(GATEWAY_CONTROL).unlink(missing_ok=True)  # a killed gateway leaves it
        process = self.start(
            GATEWAY, self.binaries / "tlsc-gateway", "--listen", f"{GATEWAY_WAN}:443", "--psk-file", keys,
            "--tun", "gw0", "--tun-addr", GATEWAY_INNER, "--pool", POOL, "--dns", GATEWAY_INNER.split("/")[0],
            "--control", GATEWAY_CONTROL, *options, log="gateway",
        )
        ready = wait_for(lambda: process.poll() is not None or os.path.exists(GATEWAY_CONTROL), 5)
        return process if ready and process.poll() is None else None

    def write_configuration(self, *options):
        return self.wlcctl(
            "conf", "init", "--server-ip-address", GATEWAY_WAN, "--server-port", "443", "--management-ip", MANAGEMENT,
            "--tun-interface-name", "tun0", "--device-id", "demo-device", "--serial-num", "0001",
            "--psk-identity", IDENTITY, "--psk-key", KEY, *options,
        )

    def start_agent(self):
        """Starts the controller's resident part. Its hook adds the device's route whenever the tunnel comes up."""
        hook = f'ip route replace {SITE_NET} dev "$TLSC_TUN" src "$TLSC_MANAGEMENT_IP"'
        process = self.start(
            DEVICE, self.binaries / "wlcctl", "agent", "--resolve-to", GATEWAY_WAN, "--on-up", hook, log="agent"
        )
        wait_for(lambda: process.poll() is not None or os.path.exists("/tmp/wlcctl.sock"), 5)
        return process if process.poll() is None else None

    def start_daemon(self):
        return self.start(DEVICE, self.binaries / "tlsc", log="daemon")

    def wlcctl(self, *words, timeout=60):
        """Runs wlcctl on the device. The result has the answer's members in .answer and the exit status in .returncode."""
        result = self.run(DEVICE, self.binaries / "wlcctl", "--json", *words, check=False, timeout=timeout)
        try:
            result.answer = json.loads(result.stdout.splitlines()[-1])
        except (ValueError, IndexError):
            result.answer = {"ok": False, "error": (result.stderr or result.stdout).strip()}
        return result

    def events(self, since=0):
        """The agent's events numbered above since."""
        return self.wlcctl("events", "--since", str(since)).answer.get("events", [])

    def wait_for_event(self, kind, since=0, seconds=5):
        """Returns the first event of that kind numbered above since, or None when the seconds are over."""
        return wait_for(lambda: next((e for e in self.events(since) if e["kind"] == kind), None), seconds, 0.1)

    # ---- traffic -----------------------------------------------------------------------------------------------------

    def ping(self, count, interval=0.02):
        """Pings the site from the device. Returns (received, average milliseconds)."""
        done = self.run(DEVICE, "ping", "-n", "-q", "-c", str(count), "-i", str(interval), "-W", "1", SITE, check=False)
        received = re.search(r"(\d+) received", done.stdout)
        average = re.search(r"= [\d.]+/([\d.]+)/", done.stdout)
        return (int(received[1]) if received else 0, float(average[1]) if average else 0.0)

    def receiver(self, namespace, address, port, *options):
        """Starts the receiving end of a bulk transfer and waits until it listens."""
        process = self.start(namespace, sys.executable, BULK, "receive", address, str(port), *options, stdout=subprocess.PIPE, text=True)
        process.stdout.readline()
        return process

    def sender(self, namespace, address, port, *options):
        """Starts the sending end. With --until-stdin-closes, finish() ends it."""
        return self.start(
            namespace, sys.executable, BULK, "send", address, str(port), *options,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
        )

    @staticmethod
    def finish(process, timeout=60):
        """Lets an end of a bulk transfer come to its end. Returns what it reports, or None when it failed."""
        try:
            output, _ = process.communicate(timeout=timeout)
        except subprocess.TimeoutExpired:
            process.kill()
            process.communicate()
            return None
        return json.loads(output) if process.returncode == 0 and output.strip() else None

    # ---- what the programs tell --------------------------------------------------------------------------------------

    def log_lines(self):
        """The messages of the daemon's log, without their headers: [(level, message)]."""
        try:
            text = TLSC_LOG.read_text(errors="replace")
        except FileNotFoundError:
            return []
        return re.findall(r"^TLSC\[\d+\]: \S+ (\w+) +\[[^\]]*\] \[[^\]]*\] (.*)$", text, re.MULTILINE)

    def tail(self, name, count):
        """The last lines of a log, all of them if count is None: "tlsc_log", or what a program printed."""
        path = TLSC_LOG if name == "tlsc_log" else self.logs / f"{name}.log"
        try:
            return [line for line in path.read_text(errors="replace").splitlines() if line.strip()][-count if count else None :]
        except FileNotFoundError:
            return []


class GatewayControl:
    """A connection to the gateway's control socket."""

    def __init__(self):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(15)
        self.socket.connect(GATEWAY_CONTROL)
        self.stream = self.socket.makefile("rw")

    def ask(self, cmd, **arguments):
        self.stream.write(json.dumps({"cmd": cmd} | arguments) + "\n")
        self.stream.flush()
        return json.loads(self.stream.readline())

    def events(self, *kinds, since=0):
        return self.ask("events", since=since, events=list(kinds))["events"]


def stop(process, number=signal.SIGTERM, seconds=5):
    """Ends a process. Returns its exit status, or None when it had to be killed."""
    if process.poll() is None:
        process.send_signal(number)
    try:
        return process.wait(seconds)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()
        return None
