"""The hook script: address, routes and name servers with the tunnel, and back to what was there."""

import pytest

from harness.daemon import TUN_NAME
from harness.world import DEVICE_IP, GATEWAY_IP, MANAGEMENT_IP, PROJECT, wait_until

SCRIPT = PROJECT / "packaging/updown"
CONF = "/run/updown.conf"
STATE = "/run/tlsc/updown"
SHELLS = ["sh", "busybox ash"]

ENVIRONMENT = {
    "TLSC_STATE": "up",
    "TLSC_TUN": TUN_NAME,
    "TLSC_MANAGEMENT_IP": MANAGEMENT_IP,
    "TLSC_GATEWAY": GATEWAY_IP,
    "TLSC_DNS": "10.9.0.53 10.9.0.54",
    "TLSC_UPDOWN_CONF": CONF,
}


class Device:
    """A device with a default route and, in place of a tunnel, an interface that is up."""

    def __init__(self, world, shell="sh"):
        self.world = world
        self.shell = shell.split()
        self.stand_ins = ""
        self.ip(f"link add {TUN_NAME} type veth peer name far0")
        self.ip("link set far0 up")
        self.ip(f"link set {TUN_NAME} up")
        self.ip("route add default via 192.0.2.254 dev wan0")
        self.before = self.routes()

    def ip(self, words):
        return self.world.ip("device", words)

    def routes(self):
        return sorted(self.ip("route show").splitlines())

    def configure(self, **settings):
        self.world.write(CONF, "".join(f"{key} = {value}\n" for key, value in settings.items()))

    def hook(self, event, check=True, **changes):
        environment = {**ENVIRONMENT, "TLSC_EVENT": event} | changes
        words = [f"{name}={value}" for name, value in environment.items() if value is not None]
        path = f"PATH={self.stand_ins}/usr/sbin:/usr/bin:/sbin:/bin"
        answer = self.world.run(["env", "-i", path] + words + self.shell + [str(SCRIPT)], ns="device", check=False)
        assert not check or answer["status"] == 0, answer["err"]
        return answer

    def way_to(self, address):
        return self.ip(f"route get {address}")

    def stand_in(self, name, script):
        """A command of the system's, replaced by this shell script."""
        self.world.run(["mkdir", "-p", "/run/stand-ins"])
        self.world.write(f"/run/stand-ins/{name}", f"#!/bin/sh\n{script}\n", 0o755)
        self.stand_ins = "/run/stand-ins:"

    def link_down_and_up(self):
        """What a lost connection does: the kernel drops the interface's routes."""
        self.ip(f"link set {TUN_NAME} down")
        self.ip(f"link set {TUN_NAME} up")


@pytest.fixture(params=SHELLS)
def device(bench, request):
    return Device(bench.world, request.param)


def test_chosen_routes_lead_into_the_tunnel_from_the_management_address_and_go_with_it(device):
    device.configure(routes="10.9.0.0/24 10.20.0.0/16", dns="none")
    device.hook("up")
    for address in ("10.9.0.1", "10.20.3.4"):
        assert f"dev {TUN_NAME} src {MANAGEMENT_IP}" in device.way_to(address)
    assert "dev wan0" in device.way_to("203.0.113.5")
    device.hook("down")
    assert device.routes() == device.before
    assert not device.world.exists(STATE)


def test_default_route_into_the_tunnel_keeps_the_gateways_own_way_and_the_default_route_that_was_there(device):
    device.configure(routes="default", dns="none")
    device.hook("up", TLSC_GATEWAY="198.51.100.7")
    assert f"dev {TUN_NAME}" in device.way_to("203.0.113.5")
    assert "via 192.0.2.254 dev wan0" in device.way_to("198.51.100.7")
    assert set(device.before) <= set(device.routes())
    device.hook("down", TLSC_GATEWAY="198.51.100.7")
    assert device.routes() == device.before


def test_reconnection_sets_the_routes_again(device):
    device.configure(routes="default", dns="none")
    device.hook("up", TLSC_GATEWAY="198.51.100.7")
    device.link_down_and_up()
    device.hook("up", TLSC_GATEWAY="198.51.100.7")
    assert f"dev {TUN_NAME}" in device.way_to("203.0.113.5")
    assert "via 192.0.2.254 dev wan0" in device.way_to("198.51.100.7")
    device.hook("down")
    assert device.routes() == device.before


def test_after_a_crash_the_next_run_takes_back_what_was_left(device):
    """Nobody called down; the gateway is another one meanwhile, and the routes are others."""
    device.configure(routes="default 10.20.0.0/16", dns="none")
    device.hook("up", TLSC_GATEWAY="198.51.100.7")
    device.configure(routes="10.9.0.0/24", dns="none")
    device.hook("up", TLSC_GATEWAY="198.51.100.8")
    assert "dev wan0" in device.way_to("10.20.1.1") and "dev wan0" in device.way_to("203.0.113.5")
    assert "198.51.100.7" not in "".join(device.routes())
    device.hook("down")
    assert device.routes() == device.before


def test_routes_of_others_are_left_alone(device):
    device.ip("route add 198.51.100.7/32 via 192.0.2.253 dev wan0")
    device.ip("route add 10.30.0.0/16 via 192.0.2.253 dev wan0")
    before = device.routes()
    device.configure(routes="default", dns="none")
    device.hook("up", TLSC_GATEWAY="198.51.100.7")
    assert "via 192.0.2.253" in device.way_to("198.51.100.7")
    device.hook("down")
    assert device.routes() == before


def test_address_is_set_only_where_no_interface_has_it(device):
    device.configure(routes="", dns="none")
    device.hook("up")
    assert MANAGEMENT_IP not in device.ip(f"addr show dev {TUN_NAME}")
    device.hook("up", TLSC_MANAGEMENT_IP="10.1.0.9")
    assert "10.1.0.9/32" in device.ip(f"addr show dev {TUN_NAME}")
    device.hook("down", TLSC_MANAGEMENT_IP="10.1.0.9")
    assert "10.1.0.9" not in device.ip("addr show")


def test_name_servers_go_to_resolvconf_and_come_back(device):
    device.stand_in("resolvconf", 'echo "$@" >> /run/resolvconf.calls; [ "$1" = -d ] || cat >> /run/resolvconf.calls')
    device.configure(routes="", dns="resolvconf")
    device.hook("dns", TLSC_STATE="down")  # reported before the interface is up: nothing yet
    assert not device.world.exists("/run/resolvconf.calls")
    device.hook("up")
    device.hook("down")
    calls = device.world.read("/run/resolvconf.calls").decode()
    assert calls == f"-a {TUN_NAME}.tlsc\nnameserver 10.9.0.53\nnameserver 10.9.0.54\n-d {TUN_NAME}.tlsc\n"


def test_name_servers_go_to_resolved_for_the_tunnels_interface(device):
    device.stand_in("resolvectl", 'echo "$@" >> /run/resolvectl.calls')
    device.configure(routes="default", dns="resolved")
    device.hook("up")
    device.hook("down")
    calls = device.world.read("/run/resolvectl.calls").decode().splitlines()
    assert calls == [f"dns {TUN_NAME} 10.9.0.53 10.9.0.54", f"domain {TUN_NAME} ~.", f"revert {TUN_NAME}"]


def test_refused_name_servers_are_an_error_and_leave_nothing_behind_at_down(device):
    device.stand_in("resolvectl", "exit 1")
    device.configure(routes="10.9.0.0/24", dns="resolved")
    answer = device.hook("up", check=False)
    assert answer["status"] == 1 and "resolved refused the name servers" in answer["err"]
    device.hook("down")
    assert device.routes() == device.before


def test_dnsmasq_asks_the_tunnels_name_servers_while_it_is_up(device):
    world = device.world
    servers = "/run/tlsc/dnsmasq.servers"
    world.run(["mkdir", "-p", "/run/tlsc", "/run/dnsmasq"])
    world.write(servers, "", 0o644)
    words = ["dnsmasq", "--keep-in-foreground", "--no-resolv", "--no-hosts", "--conf-file=/dev/null"]
    words += [f"--servers-file={servers}", "--log-facility=-", "--log-debug", "--user=root", "--port=5353"]
    words += ["--pid-file=/run/dnsmasq/dnsmasq.pid", "--listen-address=127.0.0.1", "--bind-interfaces"]
    world.spawn(words, ns="device", stderr="/run/dnsmasq.err")
    wait_until(lambda: world.exists("/run/dnsmasq/dnsmasq.pid"), 10, lambda: world.read("/run/dnsmasq.err").decode())
    device.configure(routes="", dns="dnsmasq")
    device.hook("up")
    assert world.read(servers) == b"server=10.9.0.53\nserver=10.9.0.54\n"
    wait_until(lambda: b"using nameserver 10.9.0.54#53" in world.read("/run/dnsmasq.err"), 5, "dnsmasq to read them")
    device.hook("down")
    assert world.read(servers) == b""


@pytest.mark.parametrize(
    "changes, text",
    [
        ({"TLSC_TUN": "a;b"}, "TLSC_TUN is no interface name"),
        ({"TLSC_TUN": "-x"}, "TLSC_TUN is no interface name"),
        ({"TLSC_MANAGEMENT_IP": "1.2.3.4 dev lo"}, "TLSC_MANAGEMENT_IP is no address"),
        ({"TLSC_EVENT": "sideways"}, "called with neither up, down nor dns"),
    ],
)
def test_values_that_are_none_are_refused_and_change_nothing(device, changes, text):
    device.configure(routes="default", dns="none")
    answer = device.hook("up", check=False, **changes)
    assert answer["status"] == 1 and text in answer["err"]
    assert device.routes() == device.before


@pytest.mark.parametrize(
    "line, text",
    [
        ("routes = 10.9.0.0/24;reboot", "is no network"),
        ("routes = 10.9.0.0/2/4", "is no network"),
        ("dns = magic", "dns is none of"),
        ("colour = red", "unknown key colour"),
        ("routes", "not understood"),
    ],
)
def test_wrong_settings_are_refused_and_change_nothing(device, line, text):
    device.world.write(CONF, line + "\n")
    answer = device.hook("up", check=False)
    assert answer["status"] == 1 and text in answer["err"]
    assert device.routes() == device.before


def test_name_servers_that_are_no_addresses_are_left_out(device):
    device.stand_in("resolvconf", '[ "$1" = -d ] || cat > /run/resolvconf.input')
    device.configure(routes="", dns="resolvconf")
    device.hook("up", TLSC_DNS="10.9.0.53 $(reboot) 1.2.3 fe80::1")
    assert device.world.read("/run/resolvconf.input") == b"nameserver 10.9.0.53\n"


def test_device_keeps_its_own_network(device):
    device.configure(routes="default", dns="none")
    device.hook("up")
    assert f"dev wan0 src {DEVICE_IP}" in device.way_to(GATEWAY_IP)
