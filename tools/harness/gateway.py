"""The reference gateway in its namespace, and its control protocol."""

import json
import socket

from .daemon import PSK_IDENTITY, PSK_KEY
from .schema import check
from .world import BUILD, GATEWAY_IP, SITE_IP, wait_until

PSK_FILE = "/tmp/psk.txt"
CONTROL = "/run/gw.sock"
LOG = "/tmp/gateway.log"


class GatewayError(Exception):
    """The gateway answered a request with an error."""


class Gateway:
    """A running gateway; options are further words of its command line."""

    def __init__(self, world, options=(), key=PSK_KEY, dns=(SITE_IP,), listen=GATEWAY_IP):
        self.world = world
        self.listen = listen
        self.options = list(options)
        self.dns = dns
        self.process = None
        self._socket = None
        self.set_key(key)
        self.start()

    def set_key(self, key):
        """Takes effect with the next start."""
        self.world.write(PSK_FILE, f"{PSK_IDENTITY}:{key}\n")

    def start(self):
        words = [BUILD / "bin/tlsc-gateway", "--listen", f"{self.listen}:443", "--psk-file", PSK_FILE]
        words += ["--control", CONTROL, "--log", LOG]
        words += ["--tun", "tlsgw0", "--tun-addr", f"{SITE_IP}/24", "--pool", "10.9.0.0/24"]
        for address in self.dns:
            words += ["--dns", address]
        self.process = self.world.spawn(
            words + self.options, ns="gateway", stdout="/tmp/gateway.out", stderr="/tmp/gateway.err"
        )
        wait_until(self._connect, 10, self._why)
        route = "route replace 10.9.0.0/24 dev tlsgw0 src".split() + [SITE_IP, "congctl", "cubic"]
        self.world.run(["ip", "-n", "gateway", *route], check=False)

    def _why(self):
        return f"the gateway: {self.world.read('/tmp/gateway.err').decode()}"

    def _connect(self):
        try:
            self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            self._socket.connect(self.world.path(CONTROL))
            self._lines = self._socket.makefile("r")
            return True
        except (FileNotFoundError, ConnectionRefusedError):
            self._socket.close()
            return False

    def kill(self):
        """SIGKILL: the kernel closes its connections, with RST where unread bytes wait and FIN elsewhere."""
        self.process.kill()
        self._socket.close()
        self.world.run(["rm", "-f", CONTROL])

    def ask(self, request, patience=30, **members):
        """The answer to a request, checked against its schema. Raises GatewayError when it is refused or fails."""
        self._socket.settimeout(patience)
        self._socket.sendall((json.dumps({"request": request, **members}) + "\n").encode())
        answer = json.loads(self._lines.readline())
        check("gateway-answer", answer)
        if not answer["ok"]:
            raise GatewayError(f"{request}: {answer['error']}")
        return answer

    # Events.

    @property
    def last(self):
        """Number of the last event, to give as `since`."""
        return self.ask("status")["last"]

    def events(self, *kinds, since=0, client=None):
        members = {"since": since}
        if kinds:
            members["events"] = list(kinds)
        if client is not None:
            members["match"] = {"client": client}
        events = self.ask("events", **members)["events"]
        for event in events:
            check("gateway-event", event)
        return events

    def wait(self, kind, since=None, timeout=10, client=None, **match):
        """The first event of that kind behind the number whose members are those of match."""
        members = {"events": kind, "timeout": timeout}
        if since is not None:
            members["since"] = since
        if client is not None:
            match["client"] = client
        if match:
            members["match"] = match
        event = self.ask("wait", patience=timeout + 5, **members)["matched"]
        check("gateway-event", event)
        return event

    # Clients.

    def clients(self):
        return self.ask("clients")["clients"]

    def client(self):
        """Number of the connection that holds the inner address."""
        return wait_until(lambda: [c["client"] for c in self.clients() if c["active"]], 10, "an active client")[-1]

    def inner(self):
        return wait_until(lambda: [c["inner"] for c in self.clients() if c["active"]], 10, "an inner address")[-1]
