"""A gateway that falls silent where the client must wait for it, or need not."""

import pytest

from harness import records
from harness.packets import UDP, Raw
from harness.world import wait_until

MAIN_THREAD = 1


def send_up(tunnel, count):
    """So many large packets from the device into the tunnel."""
    code = f"import socket\ns = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\nfor _ in range({count}):\n"
    code += "    try: s.sendto(bytes(1300), ('10.9.0.1', 9))\n    except OSError: pass"
    tunnel.world.run(["python3", "-c", code], ns="device")


def assert_stops(daemon):
    daemon.order(records.TUN_STOP)
    wait_until(lambda: daemon.process.threads() == MAIN_THREAD, 7, "the end of both threads")  # polled every 2 s


@pytest.mark.parametrize("cut", [3, 5, 20])
def test_a_record_that_does_not_end_holds_up_neither_dpd_nor_packets_nor_a_stop(bench, cut):
    bench.make_tunnel("--dpd", "5")
    gateway, daemon = bench.gateway, bench.daemon
    since = gateway.last
    gateway.ask("send_record", hex="00" * 600, cut=cut, gap_ms=20000)
    place = daemon.log.position
    gateway.wait("dpd_req", since=since, timeout=8)
    daemon.log.wait_for("Sending DPD Request [Req Retry Ref #0]", 1, place)
    assert_stops(daemon)


def test_a_stop_does_not_wait_for_a_gateway_that_takes_nothing(tunnel):
    tunnel.daemon.add_route()
    tunnel.gateway.ask("silence", on=True)
    sent = -1
    while sent != (sent := tunnel.daemon.statistics()["data_tx"]):  # until the way is full
        send_up(tunnel, 5000)
    assert_stops(tunnel.daemon)


@pytest.mark.slow
def test_a_gateway_that_takes_nothing_is_a_write_error_after_half_a_minute(tunnel):
    daemon, controller = tunnel.daemon, tunnel.controller
    daemon.add_route()
    place, before = daemon.log.position, controller.count
    tunnel.gateway.ask("silence", on=True)
    for _ in range(4):
        send_up(tunnel, 5000)
    daemon.log.wait_for(
        "SSL write error received = 5, translated-ssl-error = 0, write_len = -1, errno = 110", 40, place
    )
    controller.wait_for(records.TUN_DOWN, 5, before)
