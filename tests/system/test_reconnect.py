"""Every way to lose the gateway, and the way back."""

import re

import pytest

from harness import records
from harness.daemon import TUN_NAME
from harness.world import MANAGEMENT_IP, SITE_IP

FAST = 5


def ping(world):
    return (
        world.run(["ping", "-c", "1", "-W", "2", "-I", MANAGEMENT_IP, SITE_IP], ns="device", check=False)["status"] == 0
    )


@pytest.fixture
def fast_tunnel(bench):
    return bench.make_tunnel(env=bench.preload_fast_clock(FAST))


def close_by(how, **more):
    return lambda bench: bench.gateway.ask("close", how=how, **more)


def kill(bench):
    bench.gateway.kill()
    bench.gateway.start()


def garbage(bench):
    bench.gateway.ask("send_bytes", hex="47455420 2f20 485454502f312e31 0d0a0d0a".replace(" ", ""))


def wrong_record_type(bench):
    bench.gateway.ask("send_record", hex="00", type=99)


@pytest.mark.sanitizer
@pytest.mark.parametrize(
    "lose",
    [
        pytest.param(close_by("fin"), id="fin"),
        pytest.param(close_by("notify"), id="close_notify"),
        pytest.param(close_by("rst"), id="rst"),
        pytest.param(close_by("alert", code=80), id="fatal alert"),
        pytest.param(kill, id="killed"),
        pytest.param(garbage, id="bytes that are no TLS record"),
        pytest.param(wrong_record_type, id="record of unknown type"),
    ],
)
def test_a_lost_connection_is_reported_and_made_again(fast_tunnel, lose):
    daemon, controller = fast_tunnel.daemon, fast_tunnel.controller
    before, place = controller.count, daemon.log.position
    descriptors = sorted(daemon.descriptors())
    inner = fast_tunnel.gateway.inner()
    lose(fast_tunnel)
    controller.wait_for(records.TUN_DOWN, 10, before)
    controller.wait_for(records.TUN_UP, 15, before)
    # The inner address is the one from before, so it is not reported again; the DNS servers are, with every response.
    assert controller.kinds(before)[:5] == ["25", "30/33", "27", "30/0", "24"]
    assert controller.all("30/1", before) == []
    daemon.log.wait_for("Started DPD Timer for", 5, place)
    daemon.log.assert_order(
        "Closing connection and bringing down tun interface",
        "TUN-INTF is DOWN!!",
        "Started Backoff Timer for 10 sec",
        "TUN-INTF is UP!!",
        since=place,
    )
    assert fast_tunnel.gateway.inner() == inner
    daemon.add_route()
    assert ping(fast_tunnel.world)
    assert sorted(daemon.descriptors()) == descriptors


def test_a_silent_gateway_is_left_after_the_fourth_retry_and_found_again(fast_tunnel):
    gateway, controller = fast_tunnel.gateway, fast_tunnel.controller
    before = controller.count
    gateway.ask("silence", on=True)
    # DPD 8 or 9 s, four retries of 20 s: shortened.
    controller.wait_for(records.TUN_DOWN, 100 / FAST + 5, before)
    controller.wait_for(records.TUN_UP, 15, before)


def test_a_wrong_key_fails_the_handshake_until_the_key_is_right(bench):
    gateway = bench.make_gateway(key="another key")
    daemon = bench.make_daemon(env=bench.preload_fast_clock(FAST))
    daemon.start()
    daemon.log.wait_match(r"ssl-connect error : 1, ssl-connect ret-value = -?\d", 10)
    daemon.log.wait_match(r"SSL connect failed!! Error = error:.*, SSL state = \w+", 5)
    daemon.log.wait_for("Could not build a SSL session to: 192.0.2.1, Initiate session and ssl cleanup", 5)
    # A handshake failure is not taken for a failed connection: one teardown, one backoff.
    daemon.log.wait_for("Started Backoff Timer for", 10, times=2)
    text = daemon.log.text
    assert text.count("TCP Connection failed") == 0
    assert text.count("Closing connection and bringing down tun interface") == text.count(
        "Could not build a SSL session to:"
    )
    assert [e["reason"] for e in gateway.events("tls_failed")]
    # The interface never was up: nothing to report but the name requests of the backoff.
    assert set(bench.controller.kinds()) == {"1", "23", "27"}

    gateway.kill()
    gateway.set_key("0f1e2d3c4b5a69788796a5b4c3d2e1f0-secret")
    gateway.start()
    bench.controller.wait_for(records.TUN_UP, 20)


def test_the_backoff_grows_by_less_than_a_fifth_and_starts_anew_after_success(bench):
    gateway = bench.make_gateway()
    gateway.ask("accept", mode="refuse")
    daemon = bench.make_daemon(env=bench.preload_fast_clock(30))
    daemon.start()
    daemon.log.wait_for("Started Backoff Timer for", 40, times=20)
    place = daemon.log.position
    intervals = [int(n) for n in re.findall(r"Started Backoff Timer for (\d+) sec", daemon.log.text[:place])]
    # A connection that fails at the very start is torn down twice, so the second backoff follows at once.
    assert intervals[0] == 10
    for earlier, later in zip(intervals, intervals[1:]):
        assert earlier <= later <= earlier + earlier // 5 - 1 or (earlier // 5 <= 1 and later == earlier), intervals
    assert intervals[-1] > 10, intervals

    gateway.ask("accept", mode="normal")
    bench.controller.wait_for(records.TUN_UP, 20)
    place = daemon.log.position
    gateway.ask("close", how="fin")
    assert daemon.log.wait_match(r"Started Backoff Timer for (\d+) sec", 5, place)[1] == "10"


def test_an_unreachable_gateway_at_the_start_is_torn_down_twice(bench):
    daemon = bench.make_daemon()
    daemon.start()
    daemon.log.wait_for("TCP Connection failed", 8)
    daemon.log.wait_for("Started Backoff Timer for", 2, times=2)
    daemon.log.assert_order(
        "TCP connection failed to server",
        "Closing connection and bringing down tun interface",
        "Started Backoff Timer for 10 sec",
        "TCP Connection failed",
        "Closing connection and bringing down tun interface",
        "SSL-handle is NULL",
        "Started Backoff Timer for 1",
    )
    assert daemon.world.has_interface("device", TUN_NAME)
    assert not daemon.interface_up()


@pytest.mark.parametrize("mode", ["reset", "stall", "stall_tls"])
def test_a_gateway_that_does_not_shake_hands(bench, mode):
    gateway = bench.make_gateway("--handshake-timeout", "2")
    gateway.ask("accept", mode=mode)
    daemon = bench.make_daemon(env=bench.preload_fast_clock(FAST))
    daemon.start()
    gateway.wait("tcp_accept" if mode != "reset" else ["accept_refused", "tcp_accept"], since=0, timeout=10)
    gateway.ask("accept", mode="normal")
    if mode != "reset":
        for client in gateway.clients():
            gateway.ask("close", client=client["client"], how="rst")
    bench.controller.wait_for(records.TUN_UP, 20)


def test_a_second_connection_loss_during_the_backoff_wait_changes_nothing(fast_tunnel):
    gateway, daemon, controller = fast_tunnel.gateway, fast_tunnel.daemon, fast_tunnel.controller
    before = controller.count
    gateway.ask("accept", mode="reset")
    gateway.ask("close", how="rst")
    controller.wait_for(records.NAME_REQUEST, 10, before)
    daemon.log.wait_for("Started Backoff Timer for", 20, times=3)
    gateway.ask("accept", mode="normal")
    controller.wait_for(records.TUN_UP, 20, before)
    assert len(controller.all(records.TUN_DOWN, before)) == 1
