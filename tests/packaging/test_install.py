"""The packages in a Debian of their own, from the installation to a tunnel. Made by ./run package test.

    TLSC_PACKAGES    directory with the packages (default: build/packages)
    TLSC_BARE_ROOT   the Debian that boots (default: build/bare-root, see make-roots); with -armhf: ARM libraries
"""

import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest

from machine import PROJECT, Machine

PACKAGES = Path(os.environ.get("TLSC_PACKAGES", PROJECT / "build/packages")).resolve()
ROOT = Path(os.environ.get("TLSC_BARE_ROOT", PROJECT / "build/bare-root")).resolve()
ARMHF_ROOT = Path(f"{ROOT}-armhf")

KEY = "9a3fbc01d2e4f5061728394a5b6c7d8e"
GATEWAY, DEVICE, SITE, MANAGEMENT = "192.0.2.1", "192.0.2.2", "10.9.0.1", "10.1.0.2"

# The gateway is another machine for the device: it runs in a network of its own, by its own unit.
TOPOLOGY = f"""
set -e
ip netns add gateway
ip link add wan0 type veth peer name wan0 netns gateway
ip addr add {DEVICE}/24 dev wan0
ip addr add {MANAGEMENT}/32 dev lo
ip link set lo up
ip link set wan0 up
ip -n gateway addr add {GATEWAY}/24 dev wan0
ip -n gateway link set lo up
ip -n gateway link set wan0 up
install -d -m 0700 /etc/tlsc-gateway
(umask 077; echo device-1:{KEY} > /etc/tlsc-gateway/psk.txt; echo {KEY} > /root/key.txt)
mkdir -p /etc/systemd/system/tlsc-gateway.service.d
cd /etc/systemd/system/tlsc-gateway.service.d
printf '[Service]\\nNetworkNamespacePath=/run/netns/gateway\\n' > network.conf
"""

# What the documents tell: three commands.
INSTALL = "apt-get install -y --no-install-recommends /mnt/tlsc_*_amd64.deb /mnt/tlsc-tools_*_amd64.deb"
CONFIGURE = (
    f"wlcctl conf init --server-ip-address {GATEWAY} --management-ip {MANAGEMENT}"
    " --device-id dev-1 --psk-identity device-1 --psk-key-file /root/key.txt"
)
ENABLE = "systemctl enable --now tlsc-agent"


@pytest.fixture(scope="module", autouse=True)
def complete():
    assert list(PACKAGES.glob("*.deb")), f"no packages in {PACKAGES}: ./run package"
    assert (ROOT / ".complete").exists(), f"{ROOT} is not there: tests/packaging/make-roots"


@pytest.fixture
def bare():
    machine = Machine(ROOT, PACKAGES)
    yield machine
    machine.close()


@pytest.fixture
def device(bare):
    """A machine with the gateway running, and the client installed and configured."""
    bare.run("dpkg -i /mnt/tlsc-gateway_*_amd64.deb", timeout=120)
    bare.run(TOPOLOGY)
    bare.run("systemctl daemon-reload; systemctl start tlsc-gateway")
    bare.run(INSTALL, timeout=120)
    return bare


def show(machine, unit, name):
    return machine.run(f"systemctl show -p {name} --value {unit}").strip()


def test_three_commands_lead_from_installation_to_up(device):
    assert not device.holds("systemctl is-active tlsc tlsc-agent")  # nothing runs before it is configured
    device.run(CONFIGURE)
    assert device.run("stat -c '%U %a' /storage/application/wlc/wlc-sec-tun.conf").strip() == "root 600"
    device.run(ENABLE)
    device.wait_until("wlcctl status", 30)
    assert device.holds("systemctl is-active tlsc tlsc-agent tlsc-gateway")
    assert device.holds("systemctl is-enabled tlsc-agent")
    assert device.run("systemctl --failed --no-legend | grep tlsc || true") == ""


def test_killed_daemon_comes_back_and_the_tunnel_with_it(device):
    device.run(CONFIGURE)
    device.run(ENABLE)
    device.wait_until("wlcctl status", 30)
    first = show(device, "tlsc", "MainPID")
    device.run(f"kill -9 {first}")
    device.wait_until(f"wlcctl status && [ $(systemctl show -p MainPID --value tlsc) != {first} ]", 40)


def test_tunnel_outlives_a_killed_agent_which_comes_back_and_knows_it(device):
    device.run(CONFIGURE)
    device.run(ENABLE)
    device.wait_until("wlcctl status", 30)
    agent, daemon = show(device, "tlsc-agent", "MainPID"), show(device, "tlsc", "MainPID")
    device.run(f"kill -9 {agent}")
    device.wait_until(f"wlcctl status && [ $(systemctl show -p MainPID --value tlsc-agent) != {agent} ]", 40)
    assert show(device, "tlsc", "MainPID") == daemon
    assert device.run("journalctl -u tlsc-gateway --no-pager | grep -c event=tls_up").strip() == "1"
    assert device.holds("ip link show dev tun0 up | grep -q tun0")


def test_ended_daemon_comes_back_and_a_stopped_tunnel_stays_down(device):
    device.run(CONFIGURE)
    device.run(ENABLE)
    device.wait_until("wlcctl status", 30)
    device.run("wlcctl stop --wait")
    first = show(device, "tlsc", "MainPID")
    device.run("wlcctl shutdown --wait", timeout=40)
    device.wait_until(f"[ $(systemctl show -p MainPID --value tlsc) -gt 0 ] && [ -p /tmp/wlc-to-tlsc-fifo ]", 30)
    assert show(device, "tlsc", "MainPID") != first
    device.run("sleep 8")  # longer than the agent takes to start a tunnel
    assert not device.holds("wlcctl status")
    device.run("wlcctl start --wait", timeout=60)
    assert device.holds("wlcctl status")


def get(machine, place, path):
    """The answer to a request; the machine has no client for HTTP but its shell."""
    request = f"GET {path} HTTP/1.1\\r\\nHost: localhost\\r\\n\\r\\n"
    words = f"exec 3<>/dev/tcp/{place.replace(':', '/')}; printf '{request}' >&3; tr -cd '[:print:]\\n' <&3"
    return machine.run(f'bash -c "{words}"')


def test_both_serve_over_http_within_what_their_units_allow(device):
    device.run("sed -i 's|^#http = |http = |' /etc/tlsc/agent.conf")
    device.run(CONFIGURE)
    device.run(ENABLE)
    device.wait_until("wlcctl status", 30)
    assert "Content-Type: text/html" in get(device, "127.0.0.1:9468", "/")
    assert "tlsc_tunnel_up 1" in get(device, "127.0.0.1:9468", "/metrics")
    assert get(device, "127.0.0.1:9468", "/report").startswith("HTTP/1.1 200")
    device.run("sed -i 's|--control|--http 127.0.0.1:9469 --control|' /etc/default/tlsc-gateway")
    device.run("systemctl restart tlsc-gateway")
    device.wait_until("ip netns exec gateway bash -c '</dev/tcp/127.0.0.1/9469'", 10)
    words = ["exec 3<>/dev/tcp/127.0.0.1/9469", "printf 'GET /metrics HTTP/1.1\\r\\nHost: localhost\\r\\n\\r\\n' >&3"]
    page = device.run(f'ip netns exec gateway bash -c "{"; ".join(words)}; cat <&3"')
    assert "tlsc_gateway_build_info" in page


def test_stop_is_the_orderly_end(device):
    device.run(CONFIGURE)
    device.run(ENABLE)
    device.wait_until("wlcctl status", 30)
    device.run("systemctl stop tlsc", timeout=40)
    assert show(device, "tlsc", "Result") == "success"
    assert show(device, "tlsc", "ExecMainStatus") == "1"
    assert "Client Shutdown!!" in device.run("cat /tmp/tlsc_log")


def test_traffic_crosses_with_the_hook_script_and_the_routes_are_taken_back(device):
    device.run("sed -i 's|^routes =.*|routes = 10.9.0.0/24|' /etc/tlsc/updown.conf")
    device.run(CONFIGURE)
    device.run(ENABLE)
    device.wait_until("wlcctl status", 30)
    device.wait_until("ip route show 10.9.0.0/24 | grep -q tun0", 10)
    device.run(f"ping -c 2 -W 3 {SITE}")
    assert device.holds(f"ip route show {GATEWAY} | grep -q wan0")
    device.run("systemctl stop tlsc tlsc-agent", timeout=40)
    left = f"$(ip route show 10.9.0.0/24; ip route show {GATEWAY}; ls /run/tlsc/updown 2>/dev/null)"
    device.wait_until(f'[ -z "{left}" ]', 10)


def test_purge_takes_the_key_away(device):
    device.run(CONFIGURE)
    device.run("apt-get purge -y tlsc tlsc-tools", timeout=120)
    assert not device.holds("[ -e /storage ]")
    assert not device.holds("[ -e /etc/tlsc ]")


def test_pipes_and_log_are_kept_from_the_ageing_of_tmp(device):
    device.run(CONFIGURE)
    device.run(ENABLE)
    device.wait_until("wlcctl status", 30)
    device.run("touch /tmp/other; printf 'd /tmp 1777 root root 1s\\n' > /etc/tmpfiles.d/tmp.conf; sleep 2")
    device.run("systemd-tmpfiles --clean")
    assert not device.holds("[ -e /tmp/other ]")
    for name in ("wlc-to-tlsc-fifo", "tlsc-to-wlc-fifo", "tlsc_log"):
        assert device.holds(f"[ -e /tmp/{name} ]"), name


def test_every_package_has_its_debug_symbols_apart():
    for arch in ("amd64", "armhf"):
        names = {path.name.partition("_")[0] for path in PACKAGES.glob(f"*_{arch}.deb")}
        assert names == {f"{name}{part}" for name in ("tlsc", "tlsc-tools", "tlsc-gateway") for part in ("", "-dbgsym")}


@pytest.mark.skipif(shutil.which("qemu-arm") is None, reason="needs qemu-arm")
def test_programs_of_the_armhf_packages_run(tmp_path):
    """Unpacked over Debian's ARM libraries; packages are configured on the device only."""
    for path in PACKAGES.glob("*_armhf.deb"):
        if "dbgsym" not in path.name:
            subprocess.run(["dpkg-deb", "-x", path, tmp_path], check=True)
    qemu = ["qemu-arm", "-L", ARMHF_ROOT]
    for program, pattern in (("usr/bin/wlcctl", r"wlcctl \d"), ("usr/sbin/tlsc-gateway", r"\d+\.\d+")):
        done = subprocess.run(qemu + [tmp_path / program, "--version"], capture_output=True, text=True, timeout=60)
        assert done.returncode == 0 and re.search(pattern, done.stdout + done.stderr)
