"""The gateway's operator: ctl and its tables, signals, the lease file, files that are refused, the scenarios."""

import json
import signal

import pytest

from harness.daemon import PSK_IDENTITY, PSK_KEY
from harness.gateway import CONTROL, LOG, PSK_FILE
from harness.schema import check
from harness.world import BUILD, GATEWAY_IP, PROJECT, wait_until

SCENARIOS = sorted((PROJECT / "docs/scenarios").glob("*.txt"))


def ctl(bench, *words, timeout=20, want=0):
    """What ctl prints on standard output; `want` is its exit status."""
    argv = [str(BUILD / "bin/tlsc-gateway"), "ctl", "--socket", CONTROL, *[str(word) for word in words]]
    done = bench.world.run(argv, ns="gateway", check=False, timeout=timeout)
    assert done["status"] == want, done
    return done["out"] if want == 0 else done["err"]


def refused(bench, *words):
    """Standard error of a gateway that must not start."""
    argv = [str(BUILD / "bin/tlsc-gateway"), "--listen", f"{GATEWAY_IP}:4433", "--no-tun", *words]
    done = bench.world.run(argv, ns="gateway", check=False, timeout=10)
    assert done["status"] == 2, done
    assert done["err"].count("\n") == 1
    return done["err"]


def test_ctl_shows_the_gateway_its_clients_leases_and_counters(tunnel):
    assert f"listening    {GATEWAY_IP}:443\n" in ctl(tunnel, "status")
    head, row = ctl(tunnel, "clients").splitlines()
    assert head.split() == "CLIENT STATE INNER IDENTITY DEVICE PEER CIPHER AGE PACKETS IN OUT".split()
    assert row.split()[:4] == ["1", "up", "10.9.0.2", PSK_IDENTITY]
    assert ctl(tunnel, "leases").splitlines()[1].split()[:2] == ["10.9.0.2", PSK_IDENTITY]
    assert "config_resp                 1\n" in ctl(tunnel, "counters")
    for verb in ("status", "clients", "leases", "counters", "fault"):
        check("gateway-answer", json.loads(ctl(tunnel, "--json", verb)))


def test_ctl_lists_and_follows_events_and_kicks(tunnel):
    assert [line.split()[2] for line in ctl(tunnel, "events").splitlines()][:2] == ["tcp_accept", "tls_up"]
    assert len(ctl(tunnel, "events", "--kind", "tls_up").splitlines()) == 1
    follower = tunnel.world.spawn(
        [BUILD / "bin/tlsc-gateway", "ctl", "--socket", CONTROL, "--json", "events", "-f", "--kind", "closed"],
        ns="gateway",
        stdout="/tmp/followed",
    )
    assert ctl(tunnel, "kick", 1, "--how", "rst") == "1 closed\n"
    wait_until(lambda: tunnel.world.read("/tmp/followed").count(b"\n") == 1, 5, "the event")
    event = json.loads(tunnel.world.read("/tmp/followed"))
    check("gateway-event", event)
    assert (event["event"], event["client"], event["how"]) == ("closed", 1, "rst")
    follower.signal(signal.SIGINT)
    assert follower.wait(5) == 0


def test_ctl_refuses_with_what_exists_and_says_where_nobody_serves(tunnel):
    assert "there are: silence, stall" in ctl(tunnel, "fault", "silense", want=2)
    assert "no client 77" in ctl(tunnel, "kick", 77, want=2)
    assert "there are: tcp_accept, " in ctl(tunnel, "events", "--kind", "odd", want=2)
    done = tunnel.world.run(
        [str(BUILD / "bin/tlsc-gateway"), "ctl", "--socket", "/run/none.sock", "status"], ns="gateway", check=False
    )
    assert done["status"] == 9 and "no gateway serves /run/none.sock" in done["err"]
    assert "\x1b" not in ctl(tunnel, "fault", "\x1b[2J", want=2)


def test_an_event_that_is_not_described_fails_its_schema(tunnel):
    event = tunnel.gateway.events("tls_up")[0]
    for wrong in (
        {**event, "more": 1},
        {**event, "event": "tls_down"},
        {k: v for k, v in event.items() if k != "cipher"},
    ):
        with pytest.raises(AssertionError):
            check("gateway-event", wrong)
    check("gateway-answer", tunnel.gateway.ask("help"))


def test_sighup_reads_the_keys_again_and_the_live_tunnel_stays(tunnel):
    tunnel.world.write(PSK_FILE, f"{PSK_IDENTITY}:another key of this identity\n")
    tunnel.gateway.process.signal(signal.SIGHUP)
    assert tunnel.gateway.wait("keys_read", since=0)["identities"] == 1
    tunnel.gateway.wait("dpd_resp_sent")
    assert [c["state"] for c in tunnel.gateway.clients()] == ["up"]
    tunnel.gateway.ask("close", how="fin")
    assert tunnel.gateway.wait("tls_failed", since=0, timeout=20)["identity"] == PSK_IDENTITY
    tunnel.world.write(PSK_FILE, f"{PSK_IDENTITY}:{PSK_KEY}\n")
    ctl(tunnel, "reload")
    tunnel.gateway.wait("config_resp_sent", timeout=20)


def test_sigusr1_opens_the_log_again(tunnel):
    tunnel.world.run(["mv", LOG, "/tmp/moved.log"])
    tunnel.gateway.process.signal(signal.SIGUSR1)
    wait_until(lambda: tunnel.world.exists(LOG), 5, "the new log")
    moved = tunnel.world.read("/tmp/moved.log")
    tunnel.gateway.ask("close", how="fin")
    wait_until(lambda: b"event=closed" in tunnel.world.read(LOG), 5, "a line in the new log")
    assert tunnel.world.read("/tmp/moved.log") == moved


def test_leases_survive_a_restart(bench):
    bench.make_gateway("--lease-file", "/tmp/leases")
    bench.make_daemon(env=bench.preload_fast_clock(4))
    bench.daemon.bring_up()
    before = bench.gateway.ask("leases")["leases"]
    wait_until(lambda: bench.world.exists("/tmp/leases"), 5, "the lease file")
    bench.gateway.kill()
    bench.gateway.start()
    after = bench.gateway.ask("leases")["leases"]
    assert [{**lease, "connections": 0} for lease in before] == after
    assert bench.gateway.wait("config_resp_sent", since=0, timeout=20)["inner"] == before[0]["address"]
    assert bench.gateway.ask("leases")["leases"] == before


def test_files_that_cannot_serve_are_refused_with_the_reason(bench):
    bench.world.write("/tmp/open.txt", "device:key\n", mode=0o644)
    assert "/tmp/open.txt is open to others (mode 0644): chmod 600" in refused(bench, "--psk-file", "/tmp/open.txt")
    bench.world.write("/tmp/psk", "device:key\n")
    assert "cannot write the log /tmp/none/gw.log: No such file" in refused(
        bench, "--psk-file", "/tmp/psk", "--log", "/tmp/none/gw.log"
    )
    assert not bench.world.exists("/tmp/none")
    bench.world.write("/tmp/leases", "[]")
    assert "/tmp/leases is no lease file" in refused(bench, "--psk-file", "/tmp/psk", "--lease-file", "/tmp/leases")
    assert bench.world.read("/tmp/leases") == b"[]"


@pytest.mark.parametrize("scenario", SCENARIOS, ids=lambda path: path.stem)
def test_a_scenario_holds(tunnel, scenario):
    assert len(SCENARIOS) == 5
    assert ctl(tunnel, "run", scenario, timeout=110).endswith("every step held\n")
    assert [c["state"] for c in tunnel.gateway.clients() if c["active"]] == ["up"]
