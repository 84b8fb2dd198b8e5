"""Many lives of a connection in one life of the daemon: nothing grows."""

import time

import pytest

from harness import records
from harness.world import MANAGEMENT_IP, SITE_IP, wait_until

KILLS = 20


def test_twenty_gateway_kills_in_a_row(bench):
    bench.make_tunnel(env=bench.preload_fast_clock(10))
    daemon, gateway, controller = bench.daemon, bench.gateway, bench.controller
    descriptors = sorted(daemon.descriptors().items())
    for round_number in range(KILLS):
        since, place = controller.count, daemon.log.position
        gateway.kill()
        controller.wait_for(records.TUN_DOWN, 10, since)
        gateway.start()
        controller.wait_for(records.TUN_UP, 20, since)
        daemon.log.wait_for("Started DPD Timer", 5, place)
        daemon.add_route()
        answer = bench.world.run(["ping", "-c", "1", "-W", "2", "-I", MANAGEMENT_IP, SITE_IP], ns="device", check=False)
        assert answer["status"] == 0, f"round {round_number}"
    assert [n for n, _ in sorted(daemon.descriptors().items())] == [n for n, _ in descriptors]
    assert daemon.process.threads() == 3
    assert daemon.exit() == 1


def hours_of_life(bench, factor, hours, rekey_seconds):
    """Lives through that many hours of the daemon's clock and looks at its size at the quarters."""
    bench.make_tunnel("--rekey", str(rekey_seconds), env=bench.preload_fast_clock(factor))
    daemon = bench.daemon
    pinger = bench.world.spawn(["ping", "-q", "-i", "0.1", "-I", MANAGEMENT_IP, SITE_IP], ns="device")
    sizes = []
    began = time.monotonic()
    for quarter in range(1, 5):
        time.sleep(max(0, began + hours * 3600 / factor * quarter / 4 - time.monotonic()))
        wait_until(
            lambda: len(bench.gateway.clients()) == 1 and bench.gateway.clients()[0]["active"], 10, "one connection"
        )
        sizes.append((len(daemon.descriptors()), daemon.process.threads(), daemon.process.resident_kb()))
    pinger.end()
    counters = daemon.statistics()
    expected = hours * 3600 / (rekey_seconds + 6)
    assert counters["rekey_success"] > expected / 2, counters
    assert counters["dpd_rsp_rx"] > hours * 3600 / 30, counters
    assert counters["data_tx"] > 0 and counters["data_rx"] > 0
    numbers, threads, resident = zip(*sizes)
    # A look may meet a rekey with its second connection or the moment of a report.
    assert max(numbers) - min(numbers) <= 3, sizes
    assert set(threads) == {3}
    if not bench.sanitizer_build:  # it keeps what was freed
        assert resident[3] - resident[0] < 300, sizes
    assert daemon.is_running()
    return sizes


def test_two_hours_of_life(bench):
    hours_of_life(bench, factor=240, hours=2, rekey_seconds=300)


@pytest.mark.slow
def test_a_day_of_life(bench):
    hours_of_life(bench, factor=500, hours=24, rekey_seconds=3600)


def test_a_thousand_records_leave_no_trace(tunnel):
    daemon, controller = tunnel.daemon, tunnel.controller
    daemon.statistics()
    descriptors, resident = sorted(daemon.descriptors()), daemon.process.resident_kb()
    for _ in range(10):
        since = controller.count
        controller.send(*[records.record(records.STATS_REQUEST)] * 100)
        wait_until(lambda: len(controller.all("30/33", since)) >= 100, 10, "a hundred answers")
    assert sorted(daemon.descriptors()) == descriptors
    if not tunnel.sanitizer_build:
        assert daemon.process.resident_kb() - resident < 200
