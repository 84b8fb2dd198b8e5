"""Two gateways behind Debian's haproxy, as docs/fleet.md has them: one is killed, its devices go on with the other."""

import ipaddress
import json
import shutil
import socket

import pytest

from harness.daemon import CONF_FILE, PSK_IDENTITY, PSK_KEY, conf_text
from harness.schema import check, check_controller_answer
from harness.world import BUILD, PROJECT, wait_until
from conftest import fast_clock

pytestmark = pytest.mark.skipif(not shutil.which("haproxy"), reason="needs Debian's haproxy")

CONFIGURATION = PROJECT / "packaging/haproxy/haproxy.cfg"
PROGRAM = BUILD / "bin/wlcctl"
DEVICES = 4
KEYS = "/tmp/fleet-keys"
CLOCK = "/run/faster.so"  # where a device sees it

# What a device of its own is made of: files of its own, then an agent that runs the daemon.
DEVICE = """
set -e
mount -t tmpfs tmpfs /tmp
mount -t tmpfs tmpfs /storage
mkdir -p -m 700 /storage/application/wlc
umask 077
cat > {conf} <<EOF
{text}EOF
printf '#!/bin/sh\\nLD_PRELOAD={clock} FASTER=4 exec {daemon}\\n' > /tmp/run-daemon
chmod 700 /tmp/run-daemon
exec {wlcctl} agent --quiet --keep-up --run /tmp/run-daemon --state '' \
    --on-up 'ip route replace 10.64.0.0/15 dev "$TLSC_TUN" src "$TLSC_MANAGEMENT_IP"'
"""


class Gateway:
    """One of the gateways: an address, a pool and an interface of its own."""

    def __init__(self, world, name, address, network):
        self.world, self.name, self.address = world, name, address
        self.pool = ipaddress.ip_network(network)
        self.site = str(self.pool[1])
        self.control = f"/run/{name}.sock"
        world.ip("gateway", f"addr replace {address}/32 dev lo")
        self.start()

    def start(self):
        words = [BUILD / "bin/tlsc-gateway", "--listen", f"{self.address}:443", "--psk-file", KEYS]
        words += ["--tun", self.name, "--tun-addr", f"{self.site}/{self.pool.prefixlen}", "--control", self.control]
        words += ["--log", f"/tmp/{self.name}.log", "--lease-file", f"/tmp/{self.name}.leases"]
        words += ["--dpd", "5", "--rekey", "20"]  # every five seconds by the devices' clocks
        words += ["--http", f"{self.address}:9469", "--http-anywhere"]
        self.process = self.world.spawn(words, ns="gateway", stderr=f"/tmp/{self.name}.err")
        wait_until(self.clients_or_none, 10, lambda: self.world.read(f"/tmp/{self.name}.err").decode())

    def ctl(self, *words):
        argv = [str(BUILD / "bin/tlsc-gateway"), "ctl", "--socket", self.control, "--json", *words]
        return self.world.run(argv, ns="gateway", check=False)

    def clients_or_none(self):
        done = self.ctl("clients")
        return check("gateway-answer", json.loads(done["out"])) or [done["out"]] if done["status"] == 0 else None

    def events(self, kind):
        return json.loads(self.ctl("events", "--kind", kind)["out"])["events"]

    def inner_addresses(self):
        """Of its devices; a device that rekeys has two connections with one address."""
        return {c["inner"] for c in json.loads(self.ctl("clients")["out"])["clients"] if c["active"]}

    def kill(self):
        self.process.kill()
        self.world.run(["rm", "-f", self.control])


class Device:
    """A device in a network of its own, with a real daemon and its agent."""

    def __init__(self, world, number):
        self.world, self.number = world, number
        self.ns, self.management = f"device{number}", f"10.1.0.{number + 10}"
        near, far = f"198.51.100.{number * 4 + 1}", f"198.51.100.{number * 4 + 2}"
        world.run(["ip", "netns", "add", self.ns])
        world.ip("gateway", f"link add d{number} type veth peer name wan0 netns {self.ns}")
        for ns, link, address in (("gateway", f"d{number}", near), (self.ns, "wan0", far)):
            world.ip(ns, f"addr add {address}/30 dev {link}")
            world.ip(ns, f"link set {link} up")
        world.ip(self.ns, "link set lo up")
        world.ip(self.ns, f"addr add {self.management}/32 dev lo")
        world.ip(self.ns, f"route add default via {near}")
        conf = conf_text(management_ip=self.management, psk_identity=f"{PSK_IDENTITY}-{number}",
                         device_id=f"dev-{number}", cipher_algo="PSK-AES256-GCM-SHA384")  # fmt: skip
        script = DEVICE.format(conf=CONF_FILE, text=conf, clock=CLOCK, daemon=BUILD / "bin/tlsc", wlcctl=PROGRAM)
        self.agent = world.spawn(["unshare", "--mount", "sh", "-c", script], ns=self.ns, stderr=f"/tmp/{self.ns}.err")

    def inside(self, *words, check=False):
        place = f"/proc/{self.agent.pid}"
        enter = ["nsenter", f"--mount={place}/ns/mnt", f"--root={place}/root", *words]
        return self.world.run(enter, ns=self.ns, check=check)

    def status(self):
        out = self.inside(str(PROGRAM), "--json", "status")["out"]
        return check_controller_answer(json.loads(out.splitlines()[-1]))

    def wait_up(self, timeout, pool=None):
        """The status with the tunnel up, with an address of that pool when one is given."""
        seen = {}

        def look():
            seen.update(self.status())
            inner = seen.get("inner_ip", {}).get("value")
            if seen.get("health", {}).get("value") != "up" or not inner:
                return None
            return seen if pool is None or ipaddress.ip_address(inner) in pool else None

        names = ("error", "health", "phase", "reason", "inner_ip")
        return wait_until(look, timeout, lambda: f"{ {n: seen.get(n) for n in names} } {self.errors()}", pause=0.2)

    def errors(self):
        return self.world.read(f"/tmp/{self.ns}.err").decode()[-2000:]

    def inner(self):
        return ipaddress.ip_address(self.status()["inner_ip"]["value"])

    def reaches(self, address):
        return self.inside("ping", "-q", "-c1", "-W5", "-I", self.management, address)["status"] == 0


@pytest.fixture
def fleet(bench):
    """Two gateways, the balancer of the shipped configuration, devices that are up."""
    world = bench.world
    world.write(KEYS, "".join(f"{PSK_IDENTITY}-{n}:{PSK_KEY}\n" for n in range(DEVICES)))
    gateways = [Gateway(world, "gateway-a", "192.0.2.11", "10.64.0.0/24"),
                Gateway(world, "gateway-b", "192.0.2.12", "10.65.0.0/24")]  # fmt: skip
    world.run(["mkdir", "/run/haproxy"])
    world.spawn(["haproxy", "-f", CONFIGURATION], ns="gateway", stdout="/tmp/haproxy.out", stderr="/tmp/haproxy.err")
    wait_until(lambda: servers_up(world) == 2, 15, lambda: world.read("/tmp/haproxy.err").decode())
    world.write(CLOCK, fast_clock().read_bytes(), 0o755)
    devices = [Device(world, number) for number in range(DEVICES)]
    for device in devices:
        device.wait_up(40)
    return world, gateways, devices


def servers_up(world):
    """How many gateways the balancer holds for alive, by its own metrics."""
    script = 'exec 3<>/dev/tcp/127.0.0.1/8405; printf "GET /metrics HTTP/1.0\\r\\n\\r\\n" >&3; cat <&3'
    out = world.run(["bash", "-c", script], ns="gateway", check=False)["out"]
    return sum(line.startswith("haproxy_server_status{") and 'state="UP"' in line and line.endswith(" 1")
               for line in out.splitlines())  # fmt: skip


def tell_balancer(world, order):
    """An order on the balancer's socket; it answers with an empty line when it obeys."""
    with socket.socket(socket.AF_UNIX) as line:
        line.connect(world.path("/run/haproxy/admin.sock"))
        line.sendall(f"{order}\n".encode())
        assert line.recv(1000).strip() == b""


def wait_rekey(device):
    """Waits for the device's next renewal of its keys."""
    last = device.status()["rekey"]["last"]["value"]
    wait_until(lambda: device.status()["rekey"]["last"]["value"] not in (None, last), 30, "a rekey", pause=0.2)


def test_a_killed_gateways_devices_are_up_again_on_the_other_and_nobody_else_notices(fleet):
    world, gateways, devices = fleet
    homes = {device: next(g for g in gateways if device.inner() in g.pool) for device in devices}
    for gateway in gateways:  # disjoint pools, and each gateway has what the devices say
        assert gateway.inner_addresses() == {str(d.inner()) for d, home in homes.items() if home is gateway}
    lost, kept = sorted(gateways, key=lambda g: -sum(home is g for home in homes.values()))
    moved = [d for d in devices if homes[d] is lost]
    stayed = [d for d in devices if homes[d] is kept]
    assert moved and stayed, "the balancer sent every device to one gateway"
    since = {d: d.status()["tunnel"]["since"] for d in stayed}

    lost.kill()
    for device in moved:
        device.wait_up(40, kept.pool)
        assert device.reaches(kept.site)
    assert {d: d.status()["tunnel"]["since"] for d in stayed} == since
    wait_until(lambda: servers_up(world) == 1, 10, "the balancer notices")

    lost.start()
    wait_until(lambda: servers_up(world) == 2, 15, "the balancer notices that it is back")
    since = {d: d.status()["tunnel"]["since"] for d in devices}
    for device in devices:
        wait_rekey(device)
    assert {d: d.status()["tunnel"]["since"] for d in devices} == since, "who is up stays, its rekey too"
    assert kept.inner_addresses() == {str(device.inner()) for device in devices}
    assert lost.inner_addresses() == set()
    assert lost.events("tcp_accept") == [], "the balancer's looks are no connections"

    tell_balancer(world, f"set server gateways/{kept.name} state maint")
    for device in devices:
        assert device.wait_up(40, lost.pool)["tunnel"]["since"] != since[device], "it moves at once, not with a rekey"
    assert kept.inner_addresses() == set()
