"""What agent and gateway serve over HTTP: the truth about the tunnel, without a secret, whatever a client does."""

import contextlib
import gzip
import io
import re
import shutil
import signal
import socket
import stat
import subprocess
import tarfile
import time
from pathlib import Path

import pytest

from harness.daemon import PSK_IDENTITY, PSK_KEY, TUN_NAME
from harness.web import Web
from harness.wlcctl import PROGRAM
from harness.world import BUILD, MANAGEMENT_IP, SITE_IP, wait_until
from test_reasons import STATE, Device

PLACE = "/tmp/http.sock"
GATEWAY_PLACE = "/tmp/gateway-http.sock"
COOKIE = "Kekse-1234"
PATHS = ("/", "/status.json", "/conf.json", "/history.json", "/metrics", "/report")


@pytest.fixture
def device(bench):
    device = Device(bench)
    device.web = Web(bench.world, PLACE)
    yield device
    if device.agent and device.agent.is_running():
        device.agent.end()


def bring_up(device, *options):
    device.bench.make_gateway("--cookie", COOKIE, "--http", f"unix:{GATEWAY_PLACE}", "--dpd", "5", "--retry", "5")
    return device.bring_up("--http", f"unix:{PLACE}", *options)


def check_metrics(text):
    """Debian's own judge."""
    if not shutil.which("promtool"):
        pytest.skip("needs promtool (Debian package prometheus)")
    done = subprocess.run(["promtool", "check", "metrics"], input=text, capture_output=True, timeout=30)
    assert done.returncode == 0 and not done.stdout + done.stderr, done.stdout + done.stderr


def unpacked(archive):
    """Everything in a tar.gz, one behind the other."""
    with tarfile.open(fileobj=io.BytesIO(gzip.decompress(archive))) as files:
        return b"\n".join(files.extractfile(member).read() for member in files.getmembers() if member.isfile())


# What is shown.


def test_every_page_shows_a_tunnel_that_is_up(device):
    bring_up(device)
    web = device.web
    status = web.json("/status.json", "controller-status")
    told = device.status()
    assert status["tunnel"]["value"] == told["tunnel"]["value"] == "up"
    assert list(status) == list(told), "what wlcctl status --json prints"
    assert status["stream"] == told["stream"]

    conf = {entry["key"]: entry["value"] for entry in web.json("/conf.json", "controller-conf")["entries"]}
    assert conf["management_ip"] == MANAGEMENT_IP
    assert conf["psk_key"] == conf["psk_identity"] == "***"

    history = web.json("/history.json", "http-history")
    assert history["states"][-1]["state"] == "up" and history["states"][-1]["reason"] == ""
    assert history["states"][0] == {"at": history["now"] - history["span"], "state": "unknown", "reason": ""}
    assert history["stream"] == status["stream"]

    metrics = web.metrics()
    assert metrics["tlsc_tunnel_up"] == 1
    assert metrics['tlsc_tunnel_state{state="up"}'] == 1
    assert metrics["tlsc_up_seconds"] < 60
    check_metrics(web.get("/metrics"))

    page = web.open("/")
    assert page.getheader("Content-Type") == "text/html; charset=utf-8"
    assert page.read() == (Path(__file__).parents[2] / "controller/page/index.html").read_bytes()
    assert b"conf.txt" in web.get("/report") or tarfile.open(fileobj=io.BytesIO(web.get("/report")))


def test_no_answer_holds_a_key_an_identity_or_a_cookie(device):
    bring_up(device)
    device.run("debug", "level", "debug")
    log = lambda: device.world.read("/tmp/tlsc_log").decode(errors="replace")  # noqa: E731
    wait_until(lambda: "Log level changed to" in log(), 5, "the level")
    device.run("restart", "--wait")
    device.wait_up()
    assert COOKIE in log() and f"created identity '{PSK_IDENTITY}'" in log(), "there is something to be hidden"
    device.bench.gateway.set_key("another key")
    device.bench.gateway.process.signal(signal.SIGHUP)
    device.run("restart")
    reason = device.wait_reason("key-mismatch", 15)["reason"]
    assert PSK_IDENTITY in str(reason["lines"]), "the agent's own socket, root's, tells it"
    answers = b"".join(device.web.get(path) for path in PATHS if path != "/report")
    answers += unpacked(device.web.get("/report", timeout=30))
    held = device.web.open("/events?after=other:0", timeout=1)
    with contextlib.suppress(TimeoutError):
        while True:
            line = held.readline()
            answers += line
    assert b"agent_started" in answers
    for secret in (PSK_KEY, PSK_IDENTITY, COOKIE):
        at = answers.find(secret.encode())
        assert at < 0, answers[max(0, at - 200) : at + 100]


def test_a_killed_gateway_is_told_by_events_status_metrics_and_history(device):
    bring_up(device)
    stream = device.web.events(timeout=30)
    assert Web(device.world, GATEWAY_PLACE).metrics()['tlsc_gateway_clients{state="active"}'] == 1
    device.bench.gateway.kill()
    stream.until(event="health", to="down")
    status = device.web.json("/status.json", "controller-status")
    assert status["tunnel"]["value"] == "down" or status["health"]["value"] == "connecting"
    assert status["reason"]["code"] in ("gateway-closed", "connection-reset", "gateway-refused")
    metrics = wait_until(
        lambda: (lambda m: m if any(name.startswith("tlsc_down_total") for name in m) else None)(device.web.metrics()),
        5, "the down is counted",
    )  # fmt: skip
    assert metrics["tlsc_tunnel_up"] == 0 and metrics["tlsc_up_seconds"] == 0
    downs = {name: value for name, value in metrics.items() if name.startswith("tlsc_down_total")}
    assert sum(downs.values()) == 1 and "unknown" not in str(downs)
    states = device.web.json("/history.json", "http-history")["states"]
    assert states[-1]["state"] in ("down", "connecting")
    assert "up" in [state["state"] for state in states]


def test_counters_grow_with_traffic_and_outlive_daemon_and_agent(device):
    bring_up(device)
    device.world.run(["ip", "-n", "device", "route", "replace", f"{SITE_IP}/32", "dev", TUN_NAME, "src", MANAGEMENT_IP])
    device.world.run(["ping", "-c", "5", "-i", "0.05", "-W", "2", SITE_IP], ns="device")
    device.ask("stats", "--fresh")
    before = device.web.metrics()
    assert before['tlsc_packets_total{direction="out"}'] >= 5
    assert before['tlsc_packets_total{direction="in"}'] >= 5
    assert before['tlsc_interface_bytes_total{direction="out"}'] >= 5 * 84
    assert before["tlsc_stats_age_seconds"] < 5
    gateway = Web(device.world, GATEWAY_PLACE)
    assert gateway.metrics()['tlsc_gateway_packets_total{direction="in"}'] >= 5

    device.ask("stats", "--clear")
    device.agent.kill()
    device.start_agent("--keep-up", "--http", f"unix:{PLACE}")
    after = device.web.metrics()
    assert counters(before) and all(after[name] >= value for name, value in counters(before).items())
    device.world.run(["ping", "-c", "3", "-i", "0.05", "-W", "2", SITE_IP], ns="device")
    device.ask("stats", "--fresh")
    sent = 'tlsc_packets_total{direction="out"}'
    assert device.web.metrics()[sent] >= before[sent] + 3


def counters(metrics):
    return {name: value for name, value in metrics.items() if "_total" in name.partition("{")[0]}


# Events.


def test_events_are_resumed_by_number_and_another_stream_begins_anew(device):
    device.start_agent("--http", f"unix:{PLACE}")
    first = device.web.events()
    number, event = first.until(event="agent_started")
    assert number == f"{event['stream']}:{event['number']}"
    last, _ = first.until(event="health")
    first.close()
    device.configure()
    device.start_daemon()
    wait_until(lambda: device.status()["daemon"]["value"] == "running", 5, "the daemon")
    missed = device.events()
    after = int(last.partition(":")[2])
    for resumed in (device.web.events(Last_Event_ID=last), device.web.events(f"/events?after={last}")):
        seen = [data for (_, _, data), _ in zip(resumed, [e for e in missed if e["number"] > after])]
        assert seen == [e for e in missed if e["number"] > after], "nothing twice, nothing missing"

    device.agent.end()
    device.start_agent("--http", f"unix:{PLACE}")
    number, kind, data = next(device.web.events(Last_Event_ID=last))
    assert (kind, data["number"]) == ("message", 1)
    assert not number.startswith(last.partition(":")[0])


# What outlives the agent.


@pytest.mark.parametrize("how", ["ended", "killed"])
def test_the_history_outlives_the_agent(device, how):
    device.configure()
    device.start_daemon()
    device.start_agent("--http", f"unix:{PLACE}")
    wait_until(lambda: shown(device) == "stopped", 10, "a state")
    assert stat.S_IMODE(Path(device.world.path(f"{STATE}.history")).stat().st_mode) == 0o600
    if how == "killed":
        wait_until(lambda: b"stopped" in device.world.read(f"{STATE}.history"), 15, "the history is written")
        device.agent.kill()
    else:
        device.agent.end()
    time.sleep(1.1)
    device.start_agent("--http", f"unix:{PLACE}")
    wait_until(lambda: shown(device) == "stopped", 10, "a state")
    states = [state["state"] for state in device.web.json("/history.json", "http-history")["states"]]
    assert states.count("stopped") >= 2
    assert "unknown" in states[states.index("stopped") :], "nobody looked in between"


def shown(device):
    return device.web.json("/history.json", "http-history")["states"][-1]["state"]


# Clients that mean no good.


def test_neither_silent_nor_deaf_clients_disturb_the_agent_or_each_other(device):
    bring_up(device)
    path = device.world.path(PLACE)
    crowd = []
    for number in range(200):
        client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        client.settimeout(2)
        client.connect(path)
        text = b"" if number % 2 else b"GET /history.json HTTP/1.1\r\nX-"
        client.sendall(b"GET /events HTTP/1.1\r\n\r\n" if number % 10 == 0 else text)
        crowd.append(client)
        if number % 20 == 0:
            began = time.monotonic()
            assert device.web.json("/status.json", "controller-status")["health"]["value"] == "up"
            assert device.status()["health"]["value"] == "up"
            assert time.monotonic() - began < 2, "nobody waits for others"
    assert device.agent.threads() < 100
    assert len(device.agent.descriptors()) < 120
    for client in crowd:
        client.close()
    wait_until(lambda: device.agent.threads() <= 2, 10, "the clients are forgotten")
    assert device.web.status_of("/status.json") == 200


def test_requests_that_are_none_are_refused_and_the_agent_lives_on(device):
    device.start_agent("--http", f"unix:{PLACE}")
    path = device.world.path(PLACE)
    for bytes_sent in (
        b"\x16\x03\x01\x02\x00",
        b"GET " + b"/" * 20000,
        b"\x00" * 70000,
        b"GET / HTTP/1.1\r\n" + b"A: b\r\n" * 5000,
        b"POST /status.json HTTP/1.1\r\nContent-Length: 9999999999\r\n\r\n",
    ):
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as client:
            client.settimeout(10)
            client.connect(path)
            with contextlib.suppress(BrokenPipeError, ConnectionResetError):
                client.sendall(bytes_sent)
                client.shutdown(socket.SHUT_WR)
                answer = client.recv(65536)
                assert answer == b"" or re.match(rb"HTTP/1\.1 4\d\d ", answer), answer[:100]
    for method in ("POST", "PUT", "DELETE", "OPTIONS", "BREW"):
        assert device.web.status_of("/status.json", method) == 405
    assert device.web.status_of("/../../etc/passwd") == 404
    assert device.web.status_of("/status.json", "HEAD") == 200
    assert device.status()["agent"]["pid"] == device.agent.pid or device.agent.is_running()


# Where it listens.


def test_others_are_let_in_only_when_somebody_says_so(device):
    words = [str(PROGRAM), "agent", "--http"]
    for place in ("0.0.0.0:8080", "[::]:8080", "192.0.2.2:8080"):
        done = device.world.run([*words, place], ns="device", check=False)
        assert done["status"] == 2 and "--http-anywhere allows it" in done["err"] and done["err"].count("\n") == 1
    for place in ("8080", "example.net:80", "unix:"):
        assert device.world.run([*words, place], ns="device", check=False)["status"] == 2
    device.world.write("/tmp/agent.conf", "http = 192.0.2.2:8080\nhttp-anywhere = true\n")
    device.start_agent("--agent-conf", "/tmp/agent.conf")
    web = Web(device.world, ("device", "192.0.2.2", 8080))
    assert web.status_of("/status.json", Host="192.0.2.2:8080") == 200
    assert web.status_of("/status.json", Host="rebound.example:8080") == 403


def test_the_loopback_is_served_on_both_protocols(device):
    for place, address in (("127.0.0.1:8081", "127.0.0.1"), ("[::1]:8081", "::1")):
        device.start_agent("--http", place)
        assert Web(device.world, ("device", address, 8081)).status_of("/metrics") == 200
        device.agent.end()


def test_the_socket_is_for_owner_and_group_and_replaces_a_leftover_only(device):
    device.start_agent("--http", f"unix:{PLACE}")
    assert stat.S_IMODE(Path(device.world.path(PLACE)).stat().st_mode) == 0o660
    device.agent.kill()
    assert device.world.exists(PLACE)
    device.start_agent("--http", f"unix:{PLACE}")
    assert device.web.status_of("/metrics") == 200
    device.agent.end()
    assert not device.world.exists(PLACE)
    device.world.write(PLACE, "something else")
    done = device.world.run([str(PROGRAM), "agent", "--http", f"unix:{PLACE}"], ns="device", check=False)
    assert done["status"] == 1 and "exists and is no socket" in done["err"]
    assert device.world.read(PLACE) == b"something else"


def test_the_http_library_is_loaded_with_http_only(device):
    device.start_agent()
    assert "cpp-httplib" not in Path(device.agent.proc("maps")).read_text()
    device.agent.end()
    device.start_agent("--http", f"unix:{PLACE}")
    assert "cpp-httplib" in Path(device.agent.proc("maps")).read_text()
    device.agent.end()
    shutil.copy(PROGRAM, device.world.path("/tmp/lonely"))
    done = device.world.run(["/tmp/lonely", "agent", "--http", f"unix:{PLACE}"], ns="device", check=False)
    assert done["status"] == 1 and "wlcctl-http.so" in done["err"] and done["err"].count("\n") == 1


# For node_exporter.


def test_the_verb_prints_the_metrics_and_keeps_no_old_ones(device):
    device.start_agent("--http", f"unix:{PLACE}")
    printed = device.run("metrics")
    assert printed["status"] == 0
    check_metrics(printed["out"].encode())
    served = device.web.get("/metrics").decode()
    assert re.sub(r" .*", "", printed["out"]) == re.sub(r" .*", "", served)
    file = "/tmp/textfile/tlsc.prom"
    device.world.run(["mkdir", "-p", "/tmp/textfile"])
    assert device.run("metrics", "-o", file)["status"] == 0
    assert device.world.read(file).decode().startswith("# HELP ")
    assert stat.S_IMODE(Path(device.world.path(file)).stat().st_mode) == 0o644
    assert device.world.run(["ls", "/tmp/textfile"])["out"] == "tlsc.prom\n"
    assert device.ask("metrics")["text"].startswith("# HELP ")
    device.agent.end()
    done = device.run("metrics", "-o", file)
    assert done["status"] == 9 and "no agent" in done["err"]
    assert not device.world.exists(file)


# The gateway.


def test_the_gateways_metrics_tell_of_its_clients(device):
    bring_up(device)
    gateway = Web(device.world, GATEWAY_PLACE)
    check_metrics(gateway.get("/metrics"))
    metrics = gateway.metrics()
    assert metrics['tlsc_gateway_clients{state="active"}'] == 1
    assert metrics['tlsc_gateway_handshakes_total{result="success"}'] == 1
    assert metrics['tlsc_gateway_pool_addresses{state="used"}'] == 1
    assert sum(v for name, v in metrics.items() if name.startswith("tlsc_gateway_pool_addresses")) == 253
    assert metrics["tlsc_gateway_process_cpu_seconds_total"] > 0
    assert gateway.get("/").count(b"\n") == 1
    assert gateway.status_of("/status.json") == 404
    assert gateway.status_of("/metrics", "POST") == 405
    device.run("stop", "--wait")
    wait_until(lambda: gateway.metrics()['tlsc_gateway_clients{state="active"}'] == 0, 10, "the client has gone")
    assert gateway.metrics()['tlsc_gateway_pool_addresses{state="held"}'] == 1


def test_the_gateway_listens_to_others_only_when_somebody_says_so(device):
    device.world.write("/tmp/keys.txt", f"{PSK_IDENTITY}:{PSK_KEY}\n")
    words = [str(BUILD / "bin/tlsc-gateway"), "--listen", "127.0.0.1:0", "--psk-file", "/tmp/keys.txt", "--no-tun"]
    words.append("--http")
    done = device.world.run([*words, "0.0.0.0:9100"], check=False)
    assert done["status"] == 2 and "--http-anywhere allows it" in done["err"]
    assert device.world.run([*words, "nowhere"], check=False)["status"] == 2
