"""The programs that the benchmark compares, each with a tunnel between the same two namespaces: the daemon, the minimal
program in its shapes, and what Debian has that can carry the same packets.

Every tunnel is up for the whole run; the traffic takes them in turn. A tunnel that cannot be made raises Unavailable.
"""

import os
import re
import shutil
import subprocess
import time
from pathlib import Path

from harness.daemon import PSK_IDENTITY, PSK_KEY, TUN_NAME, Daemon
from harness.traffic import ping
from harness.wlcctl import Wlcctl
from harness.world import BUILD, GATEWAY_IP, LAN_IP, MANAGEMENT_IP, SECOND_LAN, SECOND_LAN_IP, WorldError, wait_until

MTU = 1406  # the daemon's; all have the same
CIPHERS = "PSK-AES256-GCM-SHA384"
GATEWAY_TUN = "tlsgw0"
UP_SECONDS = 20  # for a peer to answer the first ping


class Unavailable(Exception):
    """This program cannot take part here; the text says why."""


class Tunnel:
    """One program's tunnel.

    name, carries: for the tables; process: the device's end, whose CPU time counts; gateway_process: the other end;
    local, remote: addresses of the device's and of the site's sockets; target: the device, as the site addresses it;
    interfaces: on the device and on the gateway; binary: the program's file; ready: seconds from its start to the first
    ping that was answered.
    """

    name = carries = binary = None
    process = gateway_process = None
    ready = None

    def __init__(self, world):
        self.world = world

    def wait_for_answer(self, began):
        wait_until(
            lambda: ping(self.world, self.remote, 1, self.local), UP_SECONDS, f"a ping through {self.name}", 0.02
        )
        self.ready = time.monotonic() - began

    def errors(self):
        """What its two ends have printed last."""
        files = [f"/tmp/{self.name.split()[0]}.{end}" for end in ("device", "gateway")]
        return " | ".join(
            self.world.read(name)[-200:].decode(errors="replace") for name in files if os.path.exists(name)
        )

    def spawn(self, end, words, **more):
        file = f"/tmp/{self.name.split()[0]}.{end}"
        return self.world.spawn(words, ns=end, stdout=file, stderr=file, **more)


# ---- ours ------------------------------------------------------------------------------------------------------------


class DaemonTunnel(Tunnel):
    """The daemon, started by the controller."""

    name, carries = "tlsc", "TLS 1.2, AES-256-GCM, TCP"
    local, remote = MANAGEMENT_IP, LAN_IP
    interfaces = TUN_NAME, GATEWAY_TUN
    binary = BUILD / "bin/tlsc"

    def __init__(self, world, gateway):
        super().__init__(world)
        self.gateway = gateway
        self.gateway_process = gateway.process
        self.controller = Wlcctl(world)

    def start(self):
        self.controller.write_configuration("--cipher-algo", CIPHERS)
        self.controller.start_agent()
        self.process = Daemon(self.world, None).process
        self.controller.wait("hello", timeout=10)
        self.bring_up()

    def bring_up(self):
        """Seconds from START to UP, as the controller sees both."""
        since, began = self.controller.last_event(), time.monotonic()
        status, answer = self.controller.ask("start", "--wait", "30")
        if status != 0:
            raise Unavailable(f"the tunnel did not come up: {answer}")
        up = self.controller.wait("tun_up", since)
        self.target = self.controller.wait("inner_ip", since)["address"]
        self.controller.wait("hook_ended", since)
        self.wait_for_answer(began)
        return up["mono"] - self.controller.wait("sent", since, id=20)["mono"]

    def take_down(self):
        self.controller.ask("stop", "--wait")

    def survive_the_gateway(self):
        """Kills the gateway, starts it again, and returns the seconds from its return to UP."""
        since = self.controller.last_event()
        self.gateway.kill()
        self.controller.wait("tun_down", since, 10)
        self.gateway.start()
        returned = time.monotonic()
        up = self.controller.wait("tun_up", since, 60)
        self.gateway_process = self.gateway.process
        return up["mono"] - returned


class MinimalTunnel(Tunnel):
    """The least program that does the same, in one of its shapes."""

    carries = DaemonTunnel.carries
    binary = BUILD / "bin/bench-minimal"

    def __init__(self, world, gateway, number, name, remote, network, options=()):
        super().__init__(world)
        self.gateway_process = gateway.process
        self.name, self.remote, self.network, self.options = name, remote, network, options
        self.interfaces = f"min{number}", GATEWAY_TUN

    def start(self):
        began = time.monotonic()
        output = f"/tmp/{self.interfaces[0]}.out"
        words = [self.binary, *self.options, GATEWAY_IP, "443", CIPHERS, PSK_IDENTITY, PSK_KEY, self.interfaces[0]]
        self.process = self.world.spawn(words, ns="device", stdout=output, stderr=output)

        def address():
            if not self.process.is_running():
                raise Unavailable(self.world.read(output)[-200:].decode())
            return re.search(r"^up ([\d.]+)$", self.world.read(output).decode(), re.MULTILINE)

        self.local = self.target = wait_until(address, 10, f"the tunnel of {self.name}")[1]
        self.world.run(["ip", "addr", "replace", f"{self.remote}/32", "dev", "lo"], ns="gateway")
        self.world.run(["ip", "route", "replace", self.network, "dev", self.interfaces[0]], ns="device")
        self.wait_for_answer(began)


# ---- from Debian -----------------------------------------------------------------------------------------------------


class Peer(Tunnel):
    """A program from Debian, with both ends and addresses of its own."""

    number = 0  # of its addresses and ports
    needs = ()  # programs
    made_by_us = ()  # of its interfaces, those that it expects to find

    def __init__(self, world):
        super().__init__(world)
        self.local = self.target = f"10.3{self.number}.0.2"
        self.remote = f"10.3{self.number}.0.1"
        self.port = 5100 + self.number
        self.interfaces = f"{self.short}d", f"{self.short}g"
        self.place = Path(f"/tmp/{self.short}")

    @property
    def short(self):
        return f"peer{self.number}"

    def start(self):
        missing = [program for program in self.needs if not shutil.which(program)]
        if missing:
            raise Unavailable(f"{', '.join(missing)} not installed")
        self.binary = Path(shutil.which(self.needs[0])).resolve()
        self.place.mkdir()
        self.prepare()
        began = time.monotonic()
        self.gateway_process = self.spawn("gateway", self.gateway_words())
        self.after_gateway()
        self.process = self.spawn("device", self.device_words())
        self.set_up_interfaces()
        self.wait_for_answer(began)

    def set_up_interfaces(self):
        ends = (("device", self.local, self.remote), ("gateway", self.remote, self.local))
        for interface, (namespace, here, there) in zip(self.interfaces, ends):
            wait_until(
                lambda: self.world.has_interface(namespace, interface), 15, lambda: f"{interface}: {self.errors()}"
            )
            words = f"addr replace {here}/32 peer {there}/32 dev {interface}"
            self.world.ip(namespace, words)
            self.world.ip(namespace, f"link set {interface} mtu {MTU} up")
        self.configure()

    def make_certificate(self):
        """A key and a certificate that both ends use and trust."""
        words = "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=bench -days 2"
        self.world.run([*words.split(), "-keyout", f"{self.place}/key.pem", "-out", f"{self.place}/cert.pem"])

    def prepare(self):
        """Makes keys and files."""

    def after_gateway(self):
        """What must be so before the device's end starts: as a rule, somebody listens."""

        def listens():
            return f":{self.port} " in self.world.run(["ss", "-Hltn"], ns="gateway")["out"] + " "

        wait_until(listens, 10, lambda: f"{self.name} to listen: {self.errors()}")

    def configure(self):
        """What is left to do when both interfaces are up."""


class OpenVpn(Peer):
    name, carries, number, needs = "OpenVPN", "TLS and AES-256-GCM, TCP", 1, ("openvpn", "openssl")

    def prepare(self):
        self.make_certificate()

    def words(self, interface, here, there):
        return [
            "openvpn", "--dev", interface, "--dev-type", "tun", "--ifconfig", here, there, "--tun-mtu", MTU, "--ca",
            f"{self.place}/cert.pem", "--cert", f"{self.place}/cert.pem", "--key", f"{self.place}/key.pem",
            "--data-ciphers", "AES-256-GCM", "--disable-dco", "--port", self.port, "--keepalive", 10, 60,
        ]  # fmt: skip

    def gateway_words(self):
        words = self.words(self.interfaces[1], self.remote, self.local)
        return [*words, "--proto", "tcp-server", "--local", GATEWAY_IP, "--tls-server", "--dh", "none"]

    def device_words(self):
        words = self.words(self.interfaces[0], self.local, self.remote)
        return [*words, "--proto", "tcp-client", "--remote", GATEWAY_IP, "--tls-client"]


class WireguardGo(Peer):
    name, carries, number, needs = "wireguard-go", "ChaCha20-Poly1305, UDP", 2, ("wireguard-go", "wg")

    def prepare(self):
        self.keys = []
        for end in ("device", "gateway"):
            private = self.world.run(["wg", "genkey"])["out"]
            self.world.write(f"{self.place}/{end}.key", private)
            self.keys.append(self.world.run(["wg", "pubkey"], input=private)["out"].strip())

    def gateway_words(self):
        return ["env", "WG_I_PREFER_BUGGY_USERSPACE_TO_POLISHED_KMOD=1", "wireguard-go", "-f", self.interfaces[1]]

    def device_words(self):
        return [*self.gateway_words()[:-1], self.interfaces[0]]

    def after_gateway(self):
        pass

    def configure(self):
        for end, interface, peer, there in (
            ("gateway", self.interfaces[1], self.keys[0], [f"{self.local}/32"]),
            (
                "device",
                self.interfaces[0],
                self.keys[1],
                [f"{self.remote}/32", "endpoint", f"{GATEWAY_IP}:{self.port}"],
            ),
        ):
            words = ["wg", "set", interface, "private-key", f"{self.place}/{end}.key"]
            words += ["listen-port", str(self.port)] if end == "gateway" else []
            self.world.run([*words, "peer", peer, "allowed-ips", *there], ns=end)


class Tinc(Peer):
    name, carries, number, needs = "tinc", "AES-256, TCP", 3, ("tincd",)

    def prepare(self):
        hosts = {
            "gw": f"Address = {GATEWAY_IP} {self.port}\nPort = {self.port}\nSubnet = {self.remote}/32\n",
            "dev": f"Port = {self.port}\nSubnet = {self.local}/32\n",
        }
        for name, interface, more in (("gw", self.interfaces[1], ""), ("dev", self.interfaces[0], "ConnectTo = gw\n")):
            (self.place / name / "hosts").mkdir(parents=True)
            text = f"Name = {name}\nInterface = {interface}\n{more}"
            text += "DeviceType = tun\nDevice = /dev/net/tun\nAddressFamily = ipv4\nTCPOnly = yes\n"
            self.world.write(f"{self.place}/{name}/tinc.conf", text)
            own = f"{self.place}/{name}/hosts/{name}"
            self.world.write(own, hosts[name] + "TCPOnly = yes\nCipher = aes-256-cbc\n")
            self.world.run(["tincd", "-c", f"{self.place}/{name}", "-K2048"])
        for name, other in (("gw", "dev"), ("dev", "gw")):
            shutil.copy(self.place / name / "hosts" / name, self.place / other / "hosts" / name)

    def gateway_words(self):
        return ["tincd", "-c", f"{self.place}/gw", "-D", f"--pidfile={self.place}/gw.pid"]

    def device_words(self):
        return ["tincd", "-c", f"{self.place}/dev", "-D", f"--pidfile={self.place}/dev.pid"]


class Socat(Peer):
    name, carries, number, needs = "socat", "TLS 1.2, AES-256-GCM, TCP", 4, ("socat", "openssl")

    def prepare(self):
        self.make_certificate()

    def words(self, end, interface):
        files = f"cert={self.place}/cert.pem,key={self.place}/key.pem,verify=0"
        cipher = "cipher=ECDHE-ECDSA-AES256-GCM-SHA384,openssl-max-proto-version=TLS1.2"
        tun = f"TUN,tun-type=tun,tun-name={interface},iff-no-pi,iff-up"
        return ["socat", f"{end},{files},{cipher}", tun]

    def gateway_words(self):
        return self.words(f"OPENSSL-LISTEN:{self.port},bind={GATEWAY_IP},reuseaddr", self.interfaces[1])

    def device_words(self):
        return self.words(f"OPENSSL-CONNECT:{GATEWAY_IP}:{self.port}", self.interfaces[0])


class OpenSsh(Peer):
    name, carries, number, needs = "OpenSSH", "AES-256-GCM, TCP", 5, ("ssh", "sshd", "ssh-keygen")

    def __init__(self, world):
        super().__init__(world)
        self.interfaces = "tun57", "tun57"

    def prepare(self):
        for name in ("host", "user"):
            self.world.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", f"{self.place}/{name}"])
        shutil.copy(self.place / "user.pub", self.place / "authorized")
        os.makedirs("/run/sshd", mode=0o755, exist_ok=True)
        settings = {
            "Port": self.port, "ListenAddress": GATEWAY_IP, "HostKey": f"{self.place}/host",
            "AuthorizedKeysFile": f"{self.place}/authorized", "PermitTunnel": "point-to-point",
            "PermitRootLogin": "prohibit-password", "StrictModes": "no", "UsePAM": "no", "PidFile": "none",
        }  # fmt: skip
        self.world.write(f"{self.place}/sshd.conf", "".join(f"{key} {value}\n" for key, value in settings.items()))

    def gateway_words(self):
        return [shutil.which("sshd"), "-D", "-e", "-f", f"{self.place}/sshd.conf"]

    def device_words(self):
        options = ["Tunnel=point-to-point", "Ciphers=aes256-gcm@openssh.com", "StrictHostKeyChecking=no"]
        options += ["UserKnownHostsFile=/dev/null", "ServerAliveInterval=10"]
        words = ["ssh", "-F", "none", "-N", "-w", "57:57", "-i", f"{self.place}/user", "-p", self.port]
        return [*words, *(word for option in options for word in ("-o", option)), f"root@{GATEWAY_IP}"]


PEERS = (OpenVpn, WireguardGo, Tinc, Socat, OpenSsh)


def start_all(world, gateway, say):
    """Starts every tunnel that can be made; returns those, the daemon first, and a reason for each of the others."""
    tunnels = [
        DaemonTunnel(world, gateway),
        MinimalTunnel(world, gateway, 0, "minimal", SECOND_LAN_IP, SECOND_LAN),
        MinimalTunnel(world, gateway, 1, "minimal, with transport", "10.22.0.1", "10.22.0.0/24", ["--transport"]),
        *(peer(world) for peer in PEERS),
    ]
    started, left_out = [], {}
    for tunnel in tunnels:
        try:
            tunnel.start()
            if tunnel.target in (other.target for other in started):
                raise Unavailable(f"its address {tunnel.target} is another's, too")
            started.append(tunnel)
            say(f"{tunnel.name}: up, first ping after {tunnel.ready:.2f} s")
        except (Unavailable, WorldError, AssertionError, OSError, subprocess.SubprocessError) as error:
            if isinstance(tunnel, DaemonTunnel):
                raise
            reason = " ".join(str(error).replace(f"{BUILD}/", "").split())
            left_out[tunnel.name] = reason[-300:] or type(error).__name__
            say(f"{tunnel.name}: left out: {left_out[tunnel.name]}")
            for process in (tunnel.process, tunnel.gateway_process):
                if isinstance(tunnel, Peer) and process:
                    process.end()
    return started, left_out
