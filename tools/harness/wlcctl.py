"""The reference controller, wlcctl: its resident agent on the device, and its command line."""

import json

from .daemon import PSK_IDENTITY, PSK_KEY, TUN_NAME
from .schema import check_controller_answer
from .world import BUILD, GATEWAY_IP, LAN, MANAGEMENT_IP, wait_until

SOCKET = "/tmp/wlcctl.sock"
PROGRAM = BUILD / "bin/wlcctl"


class Wlcctl:
    """The command line. `agent` is the agent's process once it was started."""

    def __init__(self, world):
        self.world = world
        self.agent = None

    def ask(self, *words, timeout=60):
        """Runs wlcctl. Returns its exit status and the answer's members."""
        done = self.world.run([str(PROGRAM), "--json", *map(str, words)], ns="device", check=False, timeout=timeout)
        try:
            return done["status"], check_controller_answer(json.loads(done["out"].splitlines()[-1]))
        except (ValueError, IndexError):
            return done["status"], {"ok": False, "error": (done["err"] or done["out"]).strip()}

    def write_configuration(self, *options, key=PSK_KEY):
        """Writes the daemon's configuration file; options are further words of `wlcctl conf init`."""
        return self.ask(
            "conf", "init", "--server-ip-address", GATEWAY_IP, "--server-port", "443", "--management-ip", MANAGEMENT_IP,
            "--tun-interface-name", TUN_NAME, "--device-id", "demo-device", "--serial-num", "0001",
            "--psk-identity", PSK_IDENTITY, "--psk-key", key, *options,
        )  # fmt: skip

    def start_agent(self, *options):
        """Starts the agent and waits until it serves. Its hook adds the device's route whenever the tunnel comes up."""
        hook = f'ip route replace {LAN} dev "$TLSC_TUN" src "$TLSC_MANAGEMENT_IP" congctl cubic'
        self.agent = self.world.spawn(
            [PROGRAM, "agent", *(options or ["--resolve-to", GATEWAY_IP]), "--on-up", hook],
            ns="device", stdout="/tmp/agent.out", stderr="/tmp/agent.err",
        )  # fmt: skip
        wait_until(
            lambda: self.world.exists(SOCKET), 5, lambda: f"wlcctl agent: {self.world.read('/tmp/agent.err').decode()}"
        )

    def shown(self, *labels):
        """The lines of `wlcctl status` that begin with these labels, or all of them."""
        lines = self.world.run([str(PROGRAM), "status"], ns="device", check=False)["out"].splitlines()
        return [line for line in lines if not labels or line.startswith(labels)]

    def events(self, since=0):
        """The agent's events numbered above since."""
        return self.ask("events", "--since", since)[1].get("events", [])

    def last_event(self):
        """Number of the newest event, to give as `since`."""
        return max((event["number"] for event in self.events()), default=0)

    def wait(self, kind, since=0, timeout=5, **match):
        """The first event of that kind above since that has the members of match."""

        def found():
            members = {"event": kind, **match}.items()
            return next((event for event in self.events(since) if members <= event.items()), None)

        return wait_until(found, timeout, f"the agent's event '{kind}' {match or ''}", pause=0.1)
