"""Dead-peer detection, once with the clock as it is and the shortest intervals that a gateway may assign."""

from harness import records
from harness.world import wait_until

DPD_SECONDS = 4  # after a DPD interval of 5 the timer is 5 * 8 / 10 seconds, plus a random number below 1
RETRY_SECONDS = 1


def requests(gateway, since=0):
    return gateway.events("dpd_req", since=since)


def seconds_between(events):
    return [b["mono"] - a["mono"] for a, b in zip(events, events[1:])]


def test_answered_requests_keep_the_tunnel_and_four_unanswered_ones_end_it(bench):
    bench.make_tunnel("--dpd", "5", "--retry", str(RETRY_SECONDS))
    gateway, daemon, controller = bench.gateway, bench.daemon, bench.controller

    answered = wait_until(lambda: requests(gateway) if len(requests(gateway)) >= 2 else None, 12, "two DPD requests")
    assert all(abs(gap - DPD_SECONDS) < 0.5 for gap in seconds_between(answered))
    assert all(event["answered"] for event in answered)
    counters = daemon.statistics()
    assert counters["dpd_req_tx"] == counters["dpd_rsp_rx"] >= 2
    assert controller.all(records.TUN_DOWN) == []

    gateway.ask("dpd", on=False)
    since, place, before = gateway.last, daemon.log.position, controller.count
    closed = gateway.wait("closed", since=since, timeout=DPD_SECONDS + 4 * RETRY_SECONDS + 3)
    unanswered = requests(gateway, since)
    assert len(unanswered) == 4
    assert all(abs(gap - RETRY_SECONDS) < 0.3 for gap in seconds_between(unanswered))
    assert abs(closed["mono"] - unanswered[-1]["mono"] - RETRY_SECONDS) < 0.3
    daemon.log.wait_for("Started Backoff Timer for", 3, place)
    daemon.log.assert_order(
        *[f"Sending DPD Request [Req Retry Ref #{n}]" for n in range(4)],
        "Retry count exceeded, no response received from Server. Close connection and start back-off timer",
        "Closing connection and bringing down tun interface",
        "TUN State changed to 0, error cause:0",
        "TUN-INTF is DOWN!!",
        "Started Backoff Timer for 10 sec",
        since=place,
    )
    assert controller.wait_for(records.TUN_DOWN, 2, before).data == records.text_record(records.TUN_DOWN, "No Error")
    assert not daemon.interface_up()

    gateway.ask("dpd", on=True)
    controller.wait_for(records.TUN_UP, 20, before)
    assert controller.kinds(before)[:3] == ["25", "30/33", "27"]


def test_a_late_answer_resets_the_count(bench):
    bench.make_tunnel("--dpd", "10", "--retry", "6", env=bench.preload_fast_clock(4))
    gateway, daemon = bench.gateway, bench.daemon
    gateway.ask("dpd", on=False)
    daemon.log.wait_for("Sending DPD Request [Req Retry Ref #1]", 10)
    gateway.ask("dpd", on=True)
    place = daemon.log.position
    daemon.log.wait_match(r"Got CSTP dpd resp frame \[Req Retry Ref #2\]", 5, place)
    gateway.ask("dpd", on=False)
    place = daemon.log.position
    daemon.log.wait_for("Retry count exceeded", 20, place)
    daemon.log.assert_order(
        *[f"Sending DPD Request [Req Retry Ref #{n}]" for n in range(4)], "Retry count exceeded", since=place
    )
