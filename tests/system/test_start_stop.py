"""START, STOP and RESTART in every order, alone and twice, together and apart."""

import itertools
import time

import pytest

from harness import records
from harness.daemon import TUN_NAME, conf_text
from harness.world import wait_until

FAST = 10
QUIET_SECONDS = 0.7  # longer than any pause of the client at this speed, shorter than the DPD interval
ORDERS = {"start": records.TUN_START, "stop": records.TUN_STOP, "restart": records.TUN_RESTART}
MAIN_THREAD, MONITOR, TUNNEL = 1, 1, 1


def assert_one_tunnel(bench):
    """Whatever came before: one stop, one start, and there is exactly one tunnel that works."""
    daemon, gateway = bench.daemon, bench.gateway
    # An order to end that meets a client which is only starting is dropped: let what was ordered so far come to rest.
    daemon.log.wait_quiet(QUIET_SECONDS)
    daemon.order(records.TUN_STOP)
    wait_until(lambda: daemon.process.threads() == MAIN_THREAD, 10, "the end of both threads")
    place, since = daemon.log.position, bench.controller.count
    daemon.start()
    bench.controller.wait_for(records.TUN_UP, 15, since)
    daemon.log.wait_for("Started DPD Timer", 5, place)
    assert daemon.process.threads() == MAIN_THREAD + MONITOR + TUNNEL
    wait_until(lambda: len(gateway.clients()) == 1, 5, lambda: f"one connection: {gateway.clients()}")
    tun = [target for target in daemon.descriptors().values() if target.endswith("/net/tun")]
    assert len(tun) == 1, daemon.descriptors()
    daemon.order(records.TUN_STOP)
    wait_until(lambda: daemon.process.threads() == MAIN_THREAD, 10, "the end of both threads")
    assert not bench.world.has_interface("device", TUN_NAME)


@pytest.mark.sanitizer
@pytest.mark.parametrize("first", ORDERS)
@pytest.mark.parametrize("apart", [0, 0.1, 0.5], ids=lambda seconds: f"{seconds}s apart")
def test_orders_in_every_sequence(bench, build, first, apart):
    bench.make_gateway()
    daemon = bench.make_daemon(env=bench.preload_fast_clock(FAST))
    pairs = list(itertools.product(ORDERS, repeat=2))
    for second, third in pairs[:: 2 if build == "sanitizers" else 1]:
        for order in (first, second, third):
            daemon.order(ORDERS[order])
            time.sleep(apart)
        assert_one_tunnel(bench)
    assert daemon.exit() == 1


def test_a_second_start_changes_nothing_on_a_tunnel_that_is_up(tunnel):
    daemon, controller, gateway = tunnel.daemon, tunnel.controller, tunnel.gateway
    client, since = gateway.client(), controller.count
    daemon.start()
    controller.wait_for(records.TUN_IN_PROG, 5, since)
    daemon.log.wait_for("tlsc_init called again... Reading configuration again.", 5)
    time.sleep(1)
    assert gateway.client() == client
    assert controller.kinds(since) == ["23"]
    assert daemon.process.threads() == MAIN_THREAD + MONITOR + TUNNEL


def test_a_stop_is_silent_about_the_feature_and_a_second_one_too(tunnel):
    daemon, controller = tunnel.daemon, tunnel.controller
    since = controller.count
    daemon.order(records.TUN_STOP)
    assert controller.wait_for(records.TUN_DOWN, 5, since).text == "No Error"
    wait_until(lambda: daemon.process.threads() == MAIN_THREAD, 5, "the end of both threads")
    since = controller.count
    daemon.order(records.TUN_STOP)
    daemon.order(records.STATS_REQUEST)
    daemon.order(records.PROCESS_REQUEST)
    controller.wait_for(records.PROCESS_INFO, 5, since)
    # The feature is off: the request for statistics is not answered.
    assert controller.kinds(since) == ["36"]


def test_a_stop_before_any_start_is_dropped_by_the_start(bench):
    bench.make_gateway()
    daemon = bench.make_daemon()
    daemon.order(records.TUN_STOP)
    daemon.bring_up()
    assert daemon.log.count("Total number of stale commands cleared from CLI pipe:0") == 1


def test_a_restart_reads_the_file_again(tunnel):
    daemon, controller, gateway = tunnel.daemon, tunnel.controller, tunnel.gateway
    tunnel.world.write(
        "/storage/application/wlc/wlc-sec-tun.conf", conf_text(device_id="dev-0002", tun_interface_name="tlstun7")
    )
    since, before = controller.count, gateway.last
    daemon.order(records.TUN_RESTART)
    controller.wait_for(records.TUN_IN_PROG, 6, since)
    request = gateway.wait("config_req", since=before, timeout=10)
    controller.wait_for(records.TUN_UP, 5, since)
    # A new client run: no address is asked for, no cookie is shown.
    assert (request["device_id"], request["address"], request["cookie"]) == ("dev-0002", None, None)
    assert tunnel.world.has_interface("device", "tlstun7")
    assert not tunnel.world.has_interface("device", TUN_NAME)


def test_a_restart_without_a_start_runs_a_tunnel_whose_statistics_are_off(bench):
    bench.make_gateway()
    daemon = bench.make_daemon(env=bench.preload_fast_clock(FAST))
    daemon.order(records.TUN_RESTART)
    bench.controller.wait_for(records.TUN_UP, 10)
    daemon.order(records.STATS_REQUEST)
    daemon.order(records.PROCESS_REQUEST)
    bench.controller.wait_for(records.PROCESS_INFO, 5)
    assert bench.controller.all("30/33") == []
    # Without a pipe yet, the stop inside the restart could not be posted.
    assert (
        daemon.log.count("Posting message to stop TLS Client...")
        + daemon.early_log.count("Posting message to stop TLS Client...")
        == 1
    )


def test_statistics_come_every_thirtieth_poll(bench):
    bench.make_gateway()
    daemon = bench.make_daemon(env=bench.preload_fast_clock(20))
    daemon.bring_up()
    since = bench.controller.count
    wait_until(lambda: len(bench.controller.all("30/33", since)) >= 3, 15, "three periodic updates")
    first, second, third = (r.at for r in bench.controller.all("30/33", since)[:3])
    assert abs(second - first - 60 / 20) < 0.5
    assert abs(third - second - 60 / 20) < 0.5
