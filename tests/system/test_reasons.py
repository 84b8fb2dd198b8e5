"""Every reason code, provoked for real and shown by `wlcctl status --json`; the tunnel kept up through all of it."""

import json
import random
import re
import shutil
import subprocess
import time
from pathlib import Path

import pytest

from harness.controller import TO_DAEMON
from harness.daemon import CONF_FILE, PSK_IDENTITY, PSK_KEY, TUN_NAME, conf_text
from harness.schema import check, check_controller_answer
from harness.wlcctl import PROGRAM, SOCKET
from harness.world import BLACK_HOLE_IP, BUILD, GATEWAY_IP, MANAGEMENT_IP, PROJECT, SITE_IP, wait_until
from test_certificates import Client as CertificateClient

STATE = "/tmp/agent-state/agent.json"
DAEMON = BUILD / "bin/tlsc"
SHOWN = 5  # seconds in which a reason is shown


class Device:
    """The device as its user has it: a daemon, an agent beside it, and the command line."""

    def __init__(self, bench):
        self.world = bench.world
        self.bench = bench
        self.agent = self.daemon = None

    def start_daemon(self, ns="device", **env):
        self.daemon = self.world.spawn(
            [DAEMON], ns=ns, env=env, stdin="/tmp/daemon-0", stdout="/tmp/daemon.out", stderr="/tmp/daemon.err"
        )
        return self.daemon

    def start_agent(self, *options):
        self.world.run(["rm", "-f", SOCKET])  # of an agent that was killed
        words = [PROGRAM, "agent", "--state", STATE, "--json", *options]
        self.agent = self.world.spawn(words, ns="device", stdout="/tmp/agent.out", stderr="/tmp/agent.err")
        wait_until(lambda: self.world.exists(SOCKET), 5, lambda: self.world.read("/tmp/agent.err").decode())
        return self.agent

    def configure(self, **changes):
        self.world.write(CONF_FILE, conf_text(**changes))

    def run(self, *words, timeout=60):
        return self.world.run([str(PROGRAM), *words], ns="device", check=False, timeout=timeout)

    def ask(self, *words, timeout=60):
        return check_controller_answer(json.loads(self.run("--json", *words, timeout=timeout)["out"].splitlines()[-1]))

    def status(self):
        return self.ask("status")

    def events(self, *kinds):
        words = [word for kind in kinds for word in ("--event", kind)]
        return self.ask("events", *words)["events"]

    def wait(self, what, check, timeout):
        seen = {}

        def look():
            status = self.status()
            seen.update(status)
            return status if check(status) else None

        def told():
            names = ("exit", "error", "tunnel", "health", "phase", "reason", "daemon", "interface")
            return f"{what}; seen: {json.dumps({name: seen.get(name) for name in names})}"

        return wait_until(look, timeout, told, pause=0.1)

    def wait_reason(self, code, timeout):
        return self.wait(code, lambda s: s.get("reason") and s["reason"]["code"] == code, timeout)

    def wait_up(self, timeout=20):
        return self.wait("up", lambda s: s.get("health", {}).get("value") == "up", timeout)

    def bring_up(self, *options):
        self.configure()
        self.start_daemon()
        self.start_agent("--keep-up", *options)
        return self.wait_up()


@pytest.fixture
def device(bench):
    device = Device(bench)
    yield device
    if device.agent and device.agent.is_running():
        device.agent.end()


# What a configuration does.


@pytest.mark.parametrize(
    ("code", "gateway", "changes"),
    [
        pytest.param("key-mismatch", {}, {"psk_key": "another-key-of-32-characters-..."}, id="key-mismatch"),
        pytest.param("identity-unknown", {}, {"psk_identity": "somebody-else"}, id="identity-unknown"),
        pytest.param("no-common-cipher", {}, {"cipher_algo": "PSK-AES128-CBC-SHA"}, id="no-common-cipher"),
        pytest.param("gateway-refused", {}, {"server_port": "444"}, id="gateway-refused"),
        pytest.param("gateway-unreachable", {}, {"server_ip_address": BLACK_HOLE_IP}, id="black hole"),
        pytest.param("gateway-unreachable", {}, {"server_ip_address": "203.0.113.9"}, id="no route"),
        pytest.param("no-tls-context", {}, {"cipher_algo": "NO-SUCH-CIPHER"}, id="no-tls-context"),
    ],
)
def test_a_wrong_setting_has_its_reason(device, code, gateway, changes):
    device.bench.make_gateway("--ciphers", "PSK-AES256-CBC-SHA")
    device.configure(**changes)
    device.start_daemon()
    device.start_agent()
    device.run("start")
    status = device.wait_reason(code, 3 + 3 + SHOWN)  # the daemon's poll and its rewriting of the file come first
    assert status["reason"]["remedy"]
    assert status["health"]["value"] != "up"
    assert status["exit"] != 0
    assert code in device.run("status")["out"]


def test_a_configuration_that_is_missing_or_bad_has_its_reason_and_is_not_started(device):
    device.start_daemon()
    device.start_agent("--keep-up")
    assert device.wait_reason("conf-missing", SHOWN + 3)["reason"]["detail"] == CONF_FILE
    device.configure(server_port="99999")
    status = device.wait_reason("conf-invalid", SHOWN + 10)
    assert "server_port" in status["reason"]["detail"]
    assert [e["name"] for e in device.events("sent") if e["id"] == 20] == []
    device.bench.make_gateway()
    device.configure()
    device.wait_up()


def test_a_name_without_address_has_its_reason(device):
    device.configure(server_ip_address="no-such-name.invalid")
    device.start_daemon()
    device.start_agent("--keep-up")
    assert "no-such-name.invalid" in device.wait_reason("name-unresolved", SHOWN + 5)["reason"]["detail"]


def test_a_name_in_the_configuration_becomes_an_address_and_stays_a_name(device):
    device.world.write("/tmp/hosts", f"{GATEWAY_IP} gw.example.net\n")
    device.world.run(["mount", "--bind", "/tmp/hosts", "/etc/hosts"])
    device.bench.make_gateway()
    device.configure(server_ip_address="gw.example.net")
    device.start_daemon()
    device.start_agent("--keep-up")
    status = device.wait_up()
    assert status["gateway"]["name"] == "gw.example.net"
    assert status["gateway"]["address"] == GATEWAY_IP
    content = device.world.read(CONF_FILE).decode()
    assert f"server_ip_address;{GATEWAY_IP};" in content
    assert "gateway_name;gw.example.net;" in content


class Names:
    """A name server on the device, which tells what its file says now."""

    def __init__(self, device):
        self.world = device.world
        self.world.write("/tmp/resolv.conf", "nameserver 127.0.0.1\noptions timeout:1 attempts:1\n")
        self.world.run(["mount", "--bind", "/tmp/resolv.conf", "/etc/resolv.conf"])
        self.server = None

    def tell(self, name, *addresses):
        self.world.write("/tmp/names", "".join(f"{address} {name}\n" for address in addresses))
        if self.server:
            self.server.kill()
        words = "dnsmasq -k --conf-file=/dev/null --no-resolv --no-hosts --listen-address=127.0.0.1 --bind-interfaces"
        words += " --pid-file= --user=root --addn-hosts=/tmp/names --local=/example.net/"
        self.server = self.world.spawn(words.split(), ns="device", stdout="/tmp/dns.out", stderr="/tmp/dns.err")
        asked = ["getent", "ahosts", name]
        wait_until(
            lambda: set(addresses) == set(self.world.run(asked, ns="device", check=False)["out"].split()) - NOISE,
            5,
            lambda: self.world.read("/tmp/dns.err").decode(),
        )


NOISE = {"STREAM", "DGRAM", "RAW", "gw.example.net"}


@pytest.mark.skipif(shutil.which("dnsmasq") is None, reason="needs dnsmasq")
def test_all_addresses_of_a_name_are_tried_in_turn_and_the_last_good_one_is_kept(device):
    """Nobody lives at the address that comes first; later the name is gone."""
    nobody, somebody = "192.0.2.3", "192.0.2.77"
    device.world.ip("gateway", f"addr add {somebody}/24 dev wan0")
    names = Names(device)
    names.tell("gw.example.net", nobody, somebody)
    device.bench.make_gateway(listen=somebody)
    device.configure(server_ip_address="gw.example.net")
    fast = device.bench.preload_fast_clock(4)
    device.start_daemon(**fast)
    device.start_agent("--keep-up")
    status = device.wait_up(30)
    assert status["gateway"]["address"] == somebody
    answers = [(e["address"], e["source"]) for e in device.events("name_answer")]
    assert answers[0] == (nobody, "lookup") and answers[-1] == (somebody, "lookup")
    assert any(e["code"] == "gateway-unreachable" for e in device.events("reason"))

    names.tell("gw.example.net")
    since = device.status()["agent"]["last_event"]
    device.bench.gateway.ask("close", how="rst")
    device.wait("down", lambda s: s["health"]["value"] != "up", SHOWN)
    status = device.wait_up(30)
    assert status["gateway"]["address"] == somebody
    told = [e for e in device.events("name_answer", "name_answer_failed") if e["number"] > since]
    assert "gw.example.net" in told[0]["error"]
    assert told[-1]["event"] == "name_answer" and told[-1]["source"] == "last_good"

    device.daemon.kill()
    device.agent.kill()
    device.configure(server_ip_address="gw.example.net")
    device.start_daemon(**fast)
    device.start_agent("--keep-up")
    first = wait_until(lambda: device.events("name_answer"), 15, "an address")[0]
    assert first["source"] == "last_good", "known across the agent's lives"
    assert device.wait_up(30)["gateway"]["address"] == somebody


def test_a_name_with_ipv6_addresses_only_is_named_by_the_doctor(device):
    device.world.write("/tmp/hosts", "2001:db8::1 gw.example.net\n")
    device.world.run(["mount", "--bind", "/tmp/hosts", "/etc/hosts"])
    device.configure(server_ip_address="gw.example.net")
    checks = {c["check"]: c for c in device.ask("doctor")["checks"]}
    assert checks["resolve"]["verdict"] == "failed"
    assert "IPv6 addresses only (2001:db8::1)" in checks["resolve"]["text"]
    assert checks["connect"]["verdict"] == "skipped"
    device.start_daemon()
    device.start_agent("--keep-up")
    assert "IPv6" in device.wait_reason("name-unresolved", SHOWN + 3)["reason"]["detail"]


def test_no_daemon_a_daemon_that_was_stopped_and_one_that_was_never_started(device):
    device.bench.make_gateway()
    device.configure()
    device.start_agent()
    device.wait_reason("daemon-gone", SHOWN)
    device.start_daemon()
    device.wait_reason("never-started", SHOWN)
    assert device.run("start", "--wait")["status"] == 0
    assert device.status()["reason"] is None
    assert device.run("stop", "--wait")["status"] == 0
    status = device.wait_reason("stopped-by-order", SHOWN)
    assert status["exit"] == 8
    for name in ("inner_ip", "dns"):
        assert status[name]["value"] is None
    device.daemon.kill()
    device.wait_reason("daemon-gone", SHOWN)


def test_a_daemon_that_is_not_root_is_not_permitted(device):
    device.configure()
    device.world.write("/tmp/as-nobody", f"#!/bin/sh\nexec setpriv --reuid 65534 --clear-groups {DAEMON}\n", 0o755)
    device.start_agent("--keep-up", "--run", "/tmp/as-nobody")
    device.wait_reason("not-permitted", SHOWN + 3)


def test_an_agent_that_may_not_open_the_daemons_pipe_says_so(device):
    device.start_daemon()
    wait_until(lambda: device.world.exists(TO_DAEMON), 5, "the daemon's pipe")
    device.world.run(["chmod", "600", TO_DAEMON])
    user = ["setpriv", "--reuid", "65534", "--clear-groups", "--inh-caps=-all", str(PROGRAM)]
    words = [*user, "agent", "--state", ""]
    device.agent = device.world.spawn(words, ns="device", stdout="/tmp/agent.out", stderr="/tmp/agent.err")
    wait_until(lambda: device.world.exists(SOCKET), 5, lambda: device.world.read("/tmp/agent.err").decode())
    status = json.loads(device.world.run([*user, "--json", "status"], ns="device", check=False)["out"])
    assert status["reason"]["code"] == "not-permitted" and TO_DAEMON in status["reason"]["detail"]


def test_a_start_that_the_daemon_refuses_has_its_reason(device):
    """No thread of its can have the stack that the limit asks for."""
    device.configure()
    words = ["prlimit", "--stack=200000000000000:unlimited", DAEMON]
    device.world.spawn(words, ns="device", stdin="/tmp/daemon-0", stdout="/tmp/daemon.out", stderr="/tmp/daemon.err")
    device.start_agent()
    wait_until(lambda: device.status()["daemon"]["value"] == "running", 5, "a daemon")
    answer = device.ask("start", "--wait", "10")
    assert answer["exit"] == 1 and "start-failed" in answer["error"]
    assert device.wait_reason("start-failed", SHOWN)["reason"]["detail"] == answer["cause"]["value"]


def test_a_gateway_that_speaks_no_tls_has_its_reason(device):
    speaker = (
        "import socket\ns=socket.socket()\ns.setsockopt(1,2,1)\ns.bind(('%s',443))\ns.listen()\n"
        "open('/tmp/speaks','w')\nwhile True:\n c=s.accept()[0]\n c.recv(9)\n"
        " c.sendall(b'HTTP/1.1 400 Bad Request\\r\\n\\r\\n')\n c.recv(9999)\n"
    )
    device.world.write("/tmp/speak.py", speaker % GATEWAY_IP)
    device.world.spawn(["/usr/bin/python3", "/tmp/speak.py"], ns="gateway", stderr="/tmp/speak.err")
    wait_until(lambda: device.world.exists("/tmp/speaks"), 5, lambda: device.world.read("/tmp/speak.err").decode())
    device.configure()
    device.start_daemon()
    device.start_agent("--keep-up")
    status = device.wait_reason("tls-failed", 3 + 3 + SHOWN)
    assert status["reason"]["detail"], "what OpenSSL says"


def test_a_second_daemon_is_named(device):
    device.bench.make_gateway()
    device.bring_up()
    second = device.world.spawn([DAEMON], ns="device", stdin="/tmp/d2", stdout="/tmp/d2", stderr="/tmp/d2")
    status = device.wait_reason("daemon-second", SHOWN)
    assert str(second.pid) in status["reason"]["detail"]
    second.kill()
    device.wait("no second daemon", lambda s: s["reason"] is None and s["health"]["value"] == "up", SHOWN)
    assert [e["to"] for e in device.events("tunnel")][-1] == "up", "the first one's tunnel was there all the time"


def test_no_tun_device(device):
    device.configure()
    device.start_daemon()
    device.start_agent()
    device.world.run(["sh", "-c", "touch /tmp/nothing && mount --bind /tmp/nothing /dev/net/tun"])
    device.run("start")
    device.wait_reason("tun-missing", 6 + SHOWN)


def test_an_interface_that_another_program_holds(device):
    device.configure()
    device.start_daemon()
    device.start_agent()
    device.world.run(["ip", "-n", "device", "link", "add", TUN_NAME, "type", "veth", "peer", "name", "other0"])
    device.run("start")
    device.wait_reason("tun-busy", 6 + 6 + SHOWN)


def test_an_interface_that_is_removed_while_in_use(device):
    device.bench.make_gateway()
    device.bring_up()
    device.world.run(["ip", "-n", "device", "link", "del", TUN_NAME])
    status = device.wait_reason("tun-missing", SHOWN)
    assert status["tunnel"]["value"] != "up"


def test_a_full_disk(device):
    place = "/storage/application/wlc"
    device.world.run(["sh", "-c", f"mkdir -p {place} && mount -t tmpfs -o size=64k tmpfs {place}"])
    device.bench.make_gateway()
    device.bring_up()
    device.world.run(["sh", "-c", f"dd if=/dev/zero of={place}/fill bs=1k count=200"], check=False)
    device.wait_reason("disk-full", SHOWN)
    device.world.run(["rm", f"{place}/fill"])
    device.wait("space again", lambda s: s["reason"] is None, SHOWN)


# What the gateway does.


def test_a_handshake_that_stalls_is_ended_and_the_tunnel_returns(device):
    """The agent's patience is shortened; the daemon is the agent's own child."""
    stall = (
        "import socket\ns=socket.socket()\ns.setsockopt(1,2,1)\ns.bind(('%s',443))\ns.listen()\n"
        "open('/tmp/stalling','w')\nkept=[]\nwhile True: kept.append(s.accept())\n"
    )
    device.world.write("/tmp/stall.py", stall % GATEWAY_IP)
    staller = device.world.spawn(["python3", "/tmp/stall.py"], ns="gateway", stderr="/tmp/stall.err")
    wait_until(lambda: device.world.exists("/tmp/stalling"), 5, "a gateway that stalls")
    device.configure()
    device.start_agent("--keep-up", "--stuck-after", "8", "--run", DAEMON)
    device.wait_reason("handshake-stalled", 8 + SHOWN)
    device.wait_reason("stuck", 8 + SHOWN)
    staller.kill()
    device.bench.make_gateway()
    device.wait_up(60)
    kinds = [e["event"] for e in device.events("stuck", "daemon_ended", "daemon_run", "tun_up")]
    assert kinds[0] == "daemon_run"
    assert kinds[-1] == "tun_up"
    assert "stuck" in kinds


STALLER = """
import socket, time
def listen():
    s = socket.socket()
    s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    s.bind(("%s", 443))
    s.listen()
    return s
s = listen()
open("/tmp/stalling", "w")
kept = [s.accept()]
s.close()
open("/tmp/stalled", "w")
time.sleep(1000)
"""


def stall(device):
    """A gateway that takes one connection, never says a word on it and never lets go of it."""
    device.world.write("/tmp/stall.py", STALLER % GATEWAY_IP)
    device.world.spawn(["/usr/bin/python3", "/tmp/stall.py"], ns="gateway", stderr="/tmp/stall.err")
    wait_until(lambda: device.world.exists("/tmp/stalling"), 5, lambda: device.world.read("/tmp/stall.err").decode())


def stop_process(device, pid):
    device.world.run(["kill", "-STOP", str(pid)])


@pytest.mark.parametrize("keeper", ["agent", "supervisor"])
def test_a_stuck_daemon_that_does_not_end_is_killed_after_15_seconds_and_started_again(device, keeper):
    """Stopped, it reads no order either; the supervisor is one that the agent and the daemon have in common."""
    stall(device)
    device.configure()
    if keeper == "agent":
        device.start_agent("--keep-up", "--stuck-after", "5", "--run", DAEMON)
    else:
        agent = f"{PROGRAM} agent --state {STATE} --json --keep-up --stuck-after 5"
        text = f"#!/bin/sh\n{agent} >/tmp/agent.out 2>/tmp/agent.err &\n"
        text += f"while :; do {DAEMON} <>/tmp/d0; sleep 1; done\n"
        device.world.write("/tmp/supervisor", text, 0o755)
        device.world.spawn(["/tmp/supervisor"], ns="device", stdout="/tmp/daemon.out", stderr="/tmp/daemon.err")
        wait_until(lambda: device.world.exists(SOCKET), 5, "an agent")
    wait_until(lambda: device.world.exists("/tmp/stalled"), 10, "a connection that stalls")
    pid = device.status()["daemon_pid"]["value"]
    stop_process(device, pid)
    status = device.wait_reason("stuck", 5 + SHOWN)
    assert status["health"]["value"] != "up"
    device.bench.make_gateway()
    ordered = time.monotonic()
    device.wait("another daemon", lambda s: s["daemon_pid"]["value"] not in (None, pid), 15 + SHOWN + 5)
    assert time.monotonic() - ordered > 9, "it has 15 seconds to obey"
    device.wait_up(30)
    assert [e["action"] for e in device.events("stuck")] == ["end", "kill"]
    if keeper == "agent":
        assert [e["signal"] for e in device.events("daemon_ended")] == [9]


def test_a_daemon_of_somebody_else_is_told_to_end_and_not_killed(device):
    """Nobody would start it again."""
    stall(device)
    device.configure()
    agent = f"{PROGRAM} agent --state {STATE} --json --keep-up --stuck-after 4 >/tmp/agent.out 2>/tmp/agent.err"
    device.world.spawn(["sh", "-c", f"{agent}; exit"], ns="device")  # the shell stands between
    wait_until(lambda: device.world.exists(SOCKET), 5, "an agent")
    device.world.spawn(["sh", "-c", f"sh -c '{DAEMON} <>/tmp/d0; exit'; exit"], ns="device", stdout="/tmp/daemon.out")
    wait_until(lambda: device.world.exists("/tmp/stalled"), 10, "a connection that stalls")
    pid = device.status()["daemon_pid"]["value"]
    stop_process(device, pid)
    device.wait_reason("stuck", 4 + SHOWN)
    time.sleep(16)
    assert device.status()["daemon_pid"]["value"] == pid
    assert [e["action"] for e in device.events("stuck")] == ["end"]


@pytest.mark.slow
def test_a_stalled_handshake_with_the_true_times_is_up_within_180_seconds_of_the_gateways_recovery(device):
    """The connection stays as it is for ever, and the gateway is well again as soon as it was taken."""
    stall(device)
    device.configure()
    device.start_agent("--keep-up", "--run", DAEMON)
    wait_until(lambda: device.world.exists("/tmp/stalled"), 20, "a connection that stalls")
    device.bench.make_gateway()
    recovered = time.monotonic()
    device.wait_reason("handshake-stalled", 3 + SHOWN)
    device.wait_up(180)
    assert time.monotonic() - recovered < 180


def test_a_daemon_that_ends_at_once_is_started_again_after_a_growing_pause_and_collected(device):
    device.world.write("/tmp/fails", "#!/bin/sh\necho x >>/tmp/starts\nexit 3\n", 0o755)
    device.start_agent("--run", "/tmp/fails")
    wait_until(lambda: len(device.events("daemon_ended")) >= 4, 1 + 2 + 4 + 5, "four ends")
    assert [e["again_in"] for e in device.events("daemon_ended")][:4] == [1, 2, 4, 8]
    assert [e["status"] for e in device.events("daemon_ended")][:4] == [3] * 4
    assert device.world.read("/tmp/starts").decode().count("x") == 4
    assert device.world.run(["ps", "--no-headers", "--ppid", str(device.agent.pid)], check=False)["out"] == ""


def test_an_agent_that_was_killed_leaves_a_daemon_that_the_next_one_supervises(device):
    device.bench.make_gateway()
    device.configure()
    device.start_agent("--keep-up", "--run", DAEMON)
    pid = device.wait_up()["daemon_pid"]["value"]
    time.sleep(0.5)
    restart_agent(device, "--keep-up", "--run", DAEMON)
    assert device.status()["health"]["value"] == "up"
    assert device.events("daemon_run") == [], "one daemon is enough"
    device.world.run(["kill", "-9", str(pid)])
    device.wait("another daemon", lambda s: s["daemon_pid"]["value"] not in (None, pid), 10)
    device.wait_up()
    device.agent.end(5)
    readers = device.world.run(["sh", "-c", f"ls -l /proc/[0-9]*/fd 2>/dev/null | grep -c {TO_DAEMON}"], check=False)
    assert readers["out"].strip() == "0", "its end is the daemon's"


@pytest.mark.parametrize(
    ("code", "lose"),
    [
        pytest.param("gateway-closed", lambda gateway: gateway.ask("close", how="fin"), id="fin"),
        pytest.param("gateway-closed", lambda gateway: gateway.ask("close", how="notify"), id="close_notify"),
        pytest.param("connection-reset", lambda gateway: gateway.ask("close", how="rst"), id="reset"),
    ],
)
def test_a_connection_that_ends_has_its_reason_and_returns(device, code, lose):
    device.bench.make_gateway()
    device.bring_up()
    lose(device.bench.gateway)
    device.wait_reason(code, SHOWN)
    status = device.wait("the next attempt", lambda s: s["next_attempt"]["value"], 2)
    assert status["reason"]["code"] == code
    assert status["inner_ip"]["value"] is None
    device.wait_up(30)


def test_a_response_that_does_not_come_and_one_that_cannot_be_used(device):
    gateway = device.bench.make_gateway()
    gateway.ask("config", mode="drop")
    device.configure()
    device.start_daemon()
    device.start_agent("--keep-up")
    device.wait_reason("response-timeout", 3 + 2 + 10 + SHOWN + 3)
    gateway.ask("config", mode="normal")
    device.wait_up(40)


def test_a_response_without_address(device):
    gateway = device.bench.make_gateway()
    gateway.ask("set", header="X-CSTP-Address-Client", value="nonsense")
    device.configure()
    device.start_daemon()
    device.start_agent("--keep-up")
    device.wait_reason("response-rejected", 3 + 3 + SHOWN + 3)


def test_a_silent_gateway_degrades_the_tunnel_before_it_is_given_up(device):
    device.bench.make_gateway("--dpd", "5", "--retry", "2")
    device.bring_up()
    device.bench.gateway.ask("silence", on=True)
    begun = time.monotonic()
    while time.monotonic() - begun < 40:
        status = device.status()
        requests = [e for e in device.events("health")]
        if status["health"].get("unanswered", 0) >= 2:
            assert status["health"]["value"] != "up"
            assert status["tunnel"]["value"] != "up"
            assert status["exit"] != 0
        if status["reason"] and status["reason"]["code"] == "dpd-timeout":
            break
        time.sleep(0.1)
    else:
        pytest.fail(f"no dpd-timeout: {status}")
    assert [e["to"] for e in requests if e["to"] == "degraded"]


def hide_log(device, how):
    """Takes the daemon's log away from the agent, and has one begin that never saw it."""
    log = "/tmp/tlsc_log"
    options = []
    if how == "level":
        device.run("debug", "level", "errors")
        device.run("info")  # its answer says that the order before it was read
    elif how == "none":
        options = ["--daemon-log", ""]
    else:
        device.world.run(["rm", log])
    restart_agent(device, "--keep-up", *options)


@pytest.mark.parametrize("how", ["level", "deleted", "none"])
def test_a_silent_gateway_is_never_up_although_no_log_tells_it(device, how):
    """The daemon's counters tell: the gateway notes each request, and from the second on the answer is not `up`."""
    device.bench.make_gateway("--dpd", "5", "--retry", "3")
    device.bring_up()
    time.sleep(0.5)  # what is known is kept
    hide_log(device, how)
    assert device.status()["health"]["value"] == "up", "a living tunnel"
    since = device.bench.gateway.last
    device.bench.gateway.ask("dpd", on=False)
    for _ in range(2):
        since = device.bench.gateway.wait("dpd_req", since=since, timeout=15)["number"]
    status = device.wait("degraded", lambda s: s["health"]["value"] == "degraded", SHOWN + 3)  # the machine may be busy
    assert status["health"]["unanswered"] >= 2
    assert status["tunnel"]["value"] == "degraded"
    assert status["exit"] == 6
    time.sleep(0.5)
    restart_agent(device, "--keep-up", *(["--daemon-log", ""] if how == "none" else []))
    assert device.status()["health"]["value"] == "degraded", "an agent that begins now knows it as well"


# Kept up.


def test_a_daemon_killed_again_and_again_under_traffic_returns_each_time(device):
    """Ten deaths at random moments; events tell the story without a gap, and the hook runs each time."""
    device.bench.make_gateway()
    device.configure()
    hook = f'ip route replace 10.9.0.0/24 dev "$TLSC_TUN" src {MANAGEMENT_IP} && echo up >>/tmp/ups'
    device.start_agent("--keep-up", "--run", DAEMON, "--on-up", hook)
    chance = random.Random(11)
    device.wait_up(30)
    device.world.spawn(["ping", "-i", "0.05", "-I", MANAGEMENT_IP, SITE_IP], ns="device")
    for round_number in range(10):
        time.sleep(chance.uniform(0, 1.5))
        pid = device.status()["daemon_pid"]["value"]
        device.world.run(["kill", "-9", str(pid)], check=False)
        device.wait("another daemon", lambda s: s["daemon_pid"]["value"] not in (None, pid), 30)
        device.wait_up(30)
    events = device.ask("events")["events"]
    assert [e["number"] for e in events] == list(range(1, len(events) + 1))
    kinds = [e["event"] for e in events]
    assert kinds.count("daemon_ended") == 10
    assert kinds.count("tun_up") == 11
    wait_until(lambda: device.world.read("/tmp/ups").decode().count("up") == 11, 5, "eleven hooks")
    reached = device.world.run(["ping", "-c", "1", "-W", "2", "-I", MANAGEMENT_IP, SITE_IP], ns="device", check=False)
    assert reached["status"] == 0


def restart_agent(device, *options):
    device.agent.kill()
    return device.start_agent(*options)


def test_an_agent_that_begins_anew_knows_the_tunnel_in_every_state(device):
    device.bench.make_gateway("--dpd", "5", "--retry", "3")
    hook = 'echo "an error of the hook" >&2; exit 3'
    device.configure()
    device.start_daemon()
    device.start_agent("--on-up", hook)
    device.run("start", "--wait", "20")
    before = device.wait("up", lambda s: s["health"]["value"] == "up" and s["hooks"] and s["dns"]["value"], 10)
    assert before["hooks"]["up"]["error"] == "an error of the hook"
    time.sleep(0.5)  # what is known is kept
    restart_agent(device, "--on-up", hook)
    status = device.status()
    assert status["tunnel"]["value"] == "up"
    assert status["inner_ip"]["value"] == before["inner_ip"]["value"]
    assert status["inner_ip"]["source"] in ("remembered", "logged")
    assert status["dns"]["value"] == before["dns"]["value"]
    assert status["hooks"]["up"]["error"] == "an error of the hook"
    assert [e for e in device.events("hook_started")] == [], "no hook runs for what is not new"
    # Without memory the log alone must do.
    device.agent.kill()
    device.world.run(["rm", "-f", STATE])
    device.start_agent()
    assert device.status()["tunnel"]["value"] == "up"
    # Down, with a reason.
    device.bench.gateway.ask("close", how="fin")
    device.wait_reason("gateway-closed", SHOWN)
    time.sleep(0.5)
    restart_agent(device)
    status = device.status()
    assert status["tunnel"]["value"] == "down"
    assert status["reason"]["code"] == "gateway-closed"
    # Stopped.
    device.run("stop", "--wait")
    time.sleep(0.5)
    restart_agent(device)
    assert device.status()["reason"]["code"] == "stopped-by-order"


@pytest.mark.parametrize("state", ["never-started", "gateway-unreachable", "handshake-stalled", "degraded"])
def test_an_agent_that_begins_anew_in_this_state_says_at_once_what_the_old_one_said(device, state):
    """With what it kept, and by the log alone."""
    if state == "handshake-stalled":
        stall(device)
    if state == "degraded":
        device.bench.make_gateway("--dpd", "5", "--retry", "6")
    device.configure(**({"server_ip_address": BLACK_HOLE_IP} if state == "gateway-unreachable" else {}))
    device.start_daemon()
    device.start_agent()
    wait_until(lambda: device.status()["daemon"]["value"] == "running", 5, "a daemon")
    if state == "degraded":
        assert device.run("start", "--wait")["status"] == 0
        device.bench.gateway.ask("dpd", on=False)
        before = device.wait(state, lambda s: s["health"]["value"] == "degraded", 5 + 6 + 2 * SHOWN)
    else:
        if state != "never-started":
            device.run("start")
        before = device.wait_reason(state, 3 + 3 + SHOWN)
    for has_memory in (True, False):
        time.sleep(0.5)
        device.agent.kill()
        if not has_memory:
            device.world.run(["rm", "-f", STATE])
        device.start_agent()
        after = device.status()
        wanted = before["health"]["value"]
        if state == "never-started":  # whether anybody has ordered a start is told by the daemon
            after = device.wait_reason(state, SHOWN)
        assert after["health"]["value"] == wanted, (has_memory, after["health"], after["reason"])
        if before["reason"]:
            device.wait_reason(before["reason"]["code"], 1)


def test_a_stop_is_remembered_until_the_next_start(device):
    device.bench.make_gateway()
    device.bring_up()
    device.run("stop", "--wait")
    time.sleep(0.5)
    restart_agent(device, "--keep-up")
    time.sleep(4)
    assert device.status()["reason"]["code"] == "stopped-by-order"
    device.daemon.kill()
    device.start_daemon()
    device.wait_reason("stopped-by-order", SHOWN)
    time.sleep(4)
    assert [e["id"] for e in device.events("sent") if e["id"] == 20] == []
    assert device.run("start", "--wait")["status"] == 0


def test_a_start_that_waits_tells_its_steps_and_the_hooks_failure(device):
    device.bench.make_gateway()
    device.configure()
    device.start_daemon()
    device.start_agent("--on-up", "echo no route >&2; exit 7")
    done = device.run("start", "--wait", "20")
    assert done["status"] == 10
    assert "no route" in done["err"]
    steps = done["err"].splitlines()
    told = ["the daemon has read the start", f"connecting {GATEWAY_IP}", f"handshake with {GATEWAY_IP}"]
    told += ["configuration", "up"]
    order = [steps.index(step) for step in told]
    assert order == sorted(order)


def test_a_start_that_fails_names_reason_remedy_and_next_attempt(device):
    device.bench.make_gateway()
    device.configure(psk_key="another-key-of-32-characters-...")
    device.start_daemon()
    device.start_agent()
    done = device.run("start", "--wait", "8")
    assert done["status"] == 3
    assert "key-mismatch" in done["err"]
    assert "conf init --psk-key-file" in done["err"]
    assert "next attempt in" in done["err"]


def test_a_probe_goes_through_the_tunnel(device):
    device.bench.make_gateway()
    device.configure()
    device.start_daemon()
    device.start_agent("--on-up", f'ip route replace 10.9.0.0/24 dev "$TLSC_TUN" src {MANAGEMENT_IP}')
    answer = device.ask("start", "--wait", "20", "--probe", SITE_IP)
    assert answer["probe"]["ok"], answer
    assert answer["exit"] == 0
    assert device.ask("start", "--wait", "20", "--probe", "10.9.0.77")["exit"] == 6


def test_the_doctor_says_that_all_is_well_and_finds_a_wrong_key(device):
    device.bench.make_gateway()
    device.bring_up("--on-up", f'ip route replace 10.9.0.0/24 dev "$TLSC_TUN" src {MANAGEMENT_IP}')
    answer = device.ask("doctor", "--mtu")
    assert answer["exit"] == 0, answer
    looked_at = {"root", "tun", "daemon", "agent", "conf", "clock", "connect", "handshake", "dpd", "ping", "mtu"}
    assert {c["check"] for c in answer["checks"]} >= looked_at
    device.configure(psk_key="another-key-of-32-characters-...")
    answer = device.ask("doctor")
    assert answer["exit"] == 1
    assert answer["reason"]["code"] == "key-mismatch", answer


def test_the_log_is_followed_through_rotation_truncation_and_deletion(device):
    device.bench.make_gateway()
    device.bring_up()
    follower = device.world.spawn([PROGRAM, "logs", "-f", "--why"], ns="device", stdout="/tmp/followed")
    log = "/tmp/tlsc_log"
    line = "\nTLSC[%d]: 2026-01-31_09_30_00 INFO  [a.c:1] [f] line %s"
    for name, change in (("moved", f"mv {log} {log}.old"), ("cut", f": >{log}"), ("removed", f"rm {log}")):
        device.world.run(["sh", "-c", change])
        with open(device.world.path(log), "a") as file:
            file.write(line % (1, name))
        wait_until(lambda: f"line {name}".encode() in device.world.read("/tmp/followed"), 5, f"line {name}")
    with open(device.world.path(log), "a") as file:
        file.write(
            "\x1b[2Jbinary \x00\xff" * 1000 + "\nTLSC[99999999999999]: \nTLSC[x" + line % (2, "after \x1b[31mall")
        )
    wait_until(lambda: b"line after \\x1b[31mall" in device.world.read("/tmp/followed"), 5, "the line after")
    assert b"\x1b" not in device.world.read("/tmp/followed")
    assert follower.is_running() and device.agent.is_running()


def test_a_report_holds_no_key_cookie_or_identity(device):
    device.bench.make_gateway("--cookie", "cookie4711")
    device.bring_up()
    device.run("debug", "level", "debug")
    answer = device.ask("report", "-o", "/tmp/report.tar.gz")
    assert answer["exit"] == 0, answer
    text = device.world.run(["tar", "-xzOf", "/tmp/report.tar.gz"])["out"]
    for secret in (PSK_KEY, PSK_IDENTITY, "cookie4711"):
        assert secret not in text
    assert "TLSC[" in text


def test_a_report_holds_no_identity_that_json_writes_in_another_way(device):
    device.configure(psk_identity='qu"\u00e4x', server_ip_address='qu"\u00e4x')
    device.start_agent()
    assert device.status()["gateway"]["name"] is None
    assert device.status()["gateway"]["address"] == 'qu"\u00e4x'
    assert device.ask("report", "-o", "/tmp/report.tar.gz")["exit"] == 0
    text = device.world.run(["tar", "-xzOf", "/tmp/report.tar.gz"])["out"]
    assert '"address":"***"' in text
    assert "\u00e4x" not in text and "u00e4x" not in text


def test_a_group_may_watch_and_gives_no_orders(device):
    device.bench.make_gateway()
    device.bring_up("--socket-group", "daemon")
    second = SOCKET + ".ro"
    assert device.ask("--socket", second, "status")["exit"] == 0
    refused = device.ask("--socket", second, "stop")
    assert refused["exit"] == 2
    assert "reading only" in refused["error"]


def test_every_answer_and_event_has_the_form_that_its_schema_says(device):
    assert check_controller_answer(json.loads(device.run("--json", "status")["out"]))["exit"] == 9, "no agent"
    device.bench.make_gateway()
    device.bring_up("--on-down", "true")
    for words in (
        ("status", "--fresh"),
        ("stats", "--fresh"),
        ("stats", "--clear"),
        ("wait", "up"),
        ("wait", "down", "--timeout", "0.1"),
        ("hello",),
        ("info",),
        ("debug", "level", "info"),
        ("why",),
        ("why", "stuck"),
        ("why", "no-such-code"),
        ("lint",),
        ("lint", "/nowhere"),
        ("conf", "show"),
        ("help",),
        ("restart", "--wait"),
        ("stop", "--wait"),
        ("status",),
        ("start",),
        ("events",),
        ("shutdown", "--wait"),
        ("status",),
    ):
        device.ask(*words)
    for line in device.world.read("/tmp/agent.out").decode().splitlines():
        check("controller-event", json.loads(line))
    for line in device.run("logs", "--json", "--why")["out"].splitlines():
        check("controller-log-line", json.loads(line))


def test_the_socket_describes_itself_and_refuses_what_it_does_not_know(device):
    """Line by line, as another program would speak to it."""
    device.start_agent()
    talk = (
        "import json,socket,sys\ns=socket.socket(socket.AF_UNIX)\ns.connect('%s')\nf=s.makefile('rw')\n"
        "for line in sys.stdin:\n f.write(line)\n f.flush()\n print(f.readline(), end='')\n" % SOCKET
    )
    lines = (
        '{"request":"help"}\n{"request":"nothing"}\n{"request":"status","fresch":true}\n'
        '{"request":"events","events":["nothing"]}\nnot json\n'
    )
    done = device.world.run(["/usr/bin/python3", "-c", talk], ns="device", input=lines)
    answers = [json.loads(line) for line in done["out"].splitlines()]
    for answer in answers:
        check("answer", answer)
    check("help", answers[0])
    assert "start" in [r["request"] for r in answers[0]["requests"]]
    assert [a["exit"] for a in answers] == [0, 2, 2, 2, 2]
    assert "there are: " in answers[1]["error"] and "status" in answers[1]["error"]
    assert answers[2]["error"].endswith("there are: fresh")
    assert "tun_up" in answers[3]["error"]


@pytest.mark.parametrize(
    ("certificate", "verdict"), [("revoked", "certificate revoked"), ("expired", "certificate has expired")]
)
def test_a_certificate_that_is_rejected_has_its_verdict(device, certificate, verdict):
    """The daemon's modules with certificates, that its own configuration file cannot ask for."""
    client = CertificateClient(device.bench, "release")
    client.start_gateway(certificate)
    holder = f"mkfifo {TO_DAEMON} && exec sleep 1000 <>{TO_DAEMON}"
    device.world.spawn(["sh", "-c", holder], ns="device")
    device.start_agent()
    device.wait("a daemon", lambda s: s["daemon"]["value"] == "running", SHOWN)
    client.run()
    status = device.wait_reason("certificate-rejected", SHOWN)
    assert status["reason"]["detail"] == verdict


def test_a_certificate_that_is_not_valid_yet_by_a_clock_that_is_behind_names_the_clock(device):
    """The clock of agent and client stands years before both were built, as one without a battery does."""
    behind = device.bench.preload_clock_behind(days=3650)

    class LateClient(CertificateClient):
        def command(self):
            return ["env", *(f"{name}={value}" for name, value in behind.items()), *super().command()]

    client = LateClient(device.bench, "release")
    client.start_gateway("leaf")
    device.world.spawn(["sh", "-c", f"mkfifo {TO_DAEMON} && exec sleep 1000 <>{TO_DAEMON}"], ns="device")
    device.agent = device.world.spawn(
        [PROGRAM, "agent", "--state", STATE], ns="device", stdout="/tmp/agent.out", stderr="/tmp/agent.err", env=behind
    )
    wait_until(lambda: device.world.exists(SOCKET), 5, lambda: device.world.read("/tmp/agent.err").decode())
    device.wait("a daemon", lambda s: s["daemon"]["value"] == "running", SHOWN)
    client.run()
    assert "not yet valid" in device.wait_reason("clock", SHOWN)["reason"]["detail"]


def test_a_watcher_gets_a_line_for_each_change(device):
    device.bench.make_gateway()
    device.bring_up()
    plain = device.world.spawn([PROGRAM, "watch", "--count", "2"], ns="device", stdout="/tmp/watched")
    wait_until(lambda: b"health up" in device.world.read("/tmp/watched"), 5, "the first line")
    device.run("stop", "--wait")
    assert plain.wait(5) == 0
    lines = device.world.read("/tmp/watched").decode().splitlines()
    assert len(lines) == 3 and "\x1b" not in "".join(lines), lines


def test_the_agents_own_file_has_all_options_and_is_refused_with_the_list_of_them(device):
    conf = "/tmp/agent.conf"
    device.world.write(conf, "# the device\nkeep-up = true\nstuck_after = 9\nquiet = yes\n")
    device.bench.make_gateway()
    device.configure()
    device.start_daemon()
    device.start_agent("--agent-conf", conf)
    assert device.wait_up()["agent"]["keep_up"] is True
    wrong = {"kep-up = true\n": "there are: ", "keep-up = maybe\n": "true or false", "nonsense\n": "line 1"}
    for text, part in wrong.items():
        device.world.write(conf, text)
        done = device.run("agent", "--agent-conf", conf)
        assert done["status"] == 2
        assert part in done["err"] and len(done["err"].splitlines()) == 1
    # Another verb's value is not the verb.
    done = device.run("lint", "agent", "--agent-conf", "/nowhere")
    assert done["status"] == 2 and "cannot read" not in done["err"]


# The table of reasons.


def test_the_table_of_reasons_is_the_same_in_the_program_the_manual_and_the_sources():
    words = [PROGRAM, "--json", "--socket", "/nowhere", "why"]
    done = subprocess.run(words, capture_output=True, text=True, check=True)
    table = {r["code"]: r for r in json.loads(done.stdout)["reasons"]}
    manual = (PROJECT / "docs/wlcctl.md").read_text().split("| Code | Cause | What to do | Shown by |")[1]
    lines = [line for line in manual.split("\n\n")[0].splitlines() if line.startswith("| `")]
    rows = [[cell.strip() for cell in line.strip("|").split("|")] for line in lines]
    told = {code.strip("`"): {"cause": cause, "remedy": remedy, "lines": lines} for code, cause, remedy, lines in rows}
    for code, row in table.items():
        assert told.get(code) == {name: row[name] for name in ("cause", "remedy", "lines")}, code
        assert all(row.values()), f"{code} has cause, remedy and lines"
    assert list(told) == list(table)
    used = set()
    for path in (PROJECT / "controller").glob("*.cpp"):
        used |= set(re.findall(r'(?:blame|state|withdraw)\("([a-z-]+)"', path.read_text()))
    assert used <= set(table), used - set(table)
    provoked = Path(__file__).read_text()
    missing = [code for code in table if f'"{code}"' not in provoked]
    assert missing == [], "each is provoked for real in this file"
