"""The gateway's name, asked of the controller before each new connection."""

import pytest

from harness import records
from harness.daemon import conf_text
from harness.gateway import Gateway
from harness.world import GATEWAY_IP, wait_until

OTHER_IP = "192.0.2.3"
FAST = 6
NAME_WAIT_SECONDS = 30


@pytest.fixture
def fast_tunnel(bench):
    """The gateway listens on two addresses; the client's waits are shorter."""
    world = bench.world
    world.ip("gateway", f"addr add {OTHER_IP}/24 dev wan0")
    bench.gateway = Gateway(world, listen="0.0.0.0")
    bench.make_daemon(env=bench.preload_fast_clock(FAST))
    bench.daemon.bring_up()
    return bench


def connected_to(daemon, place, timeout=10):
    return daemon.log.wait_match(
        r"TCP conn established successfully!!(?s:.*?)SSL/TLS session to: ([\d.]+)\.", timeout, place
    )[1]


def test_an_answered_query_leads_to_the_new_address(fast_tunnel):
    daemon, controller = fast_tunnel.daemon, fast_tunnel.controller
    controller.resolve = OTHER_IP
    place, since = daemon.log.position, controller.count
    fast_tunnel.gateway.ask("close", how="fin")
    assert controller.wait_for(records.NAME_REQUEST, 5, since).data == records.record(records.NAME_REQUEST)
    assert connected_to(daemon, place) == OTHER_IP
    controller.wait_for(records.TUN_UP, 5, since)

    # The address stays in use: without an answer the next connection goes there as well.
    controller.resolve = None
    place = daemon.log.position
    fast_tunnel.gateway.ask("close", how="fin")
    assert connected_to(daemon, place, 15) == OTHER_IP


def test_an_unanswered_query_is_given_up_after_its_time_and_the_old_address_kept(fast_tunnel):
    daemon, controller, gateway = fast_tunnel.daemon, fast_tunnel.controller, fast_tunnel.gateway
    controller.resolve = None
    place, since = daemon.log.position, controller.count
    gateway.ask("close", how="fin")
    asked = controller.wait_for(records.NAME_REQUEST, 5, since)
    daemon.log.wait_for(f"Started FQDN Resoln Timer for {NAME_WAIT_SECONDS} sec", 2, place)
    assert connected_to(daemon, place, 15) == GATEWAY_IP
    waited = gateway.events("tcp_accept")[1]["mono"] - asked.at
    assert abs(waited - NAME_WAIT_SECONDS / FAST) < 0.7
    controller.wait_for(records.TUN_UP, 5, since)


def test_a_text_that_is_no_address_leads_to_0_0_0_0_and_the_next_answer_back(fast_tunnel):
    daemon, controller = fast_tunnel.daemon, fast_tunnel.controller
    controller.resolve = "gateway.example.net"
    place, since = daemon.log.position, controller.count
    fast_tunnel.gateway.ask("close", how="fin")
    daemon.log.wait_match(r"Server IP\(0\.0\.0\.0\) = 0", 10, place)
    daemon.log.wait_for("TCP connection failed!!!", 5, place)
    controller.resolve = GATEWAY_IP
    controller.wait_for(records.TUN_UP, 10, since)


@pytest.mark.sanitizer
def test_a_version_6_address_is_refused_and_the_old_one_tried(fast_tunnel):
    daemon, controller = fast_tunnel.daemon, fast_tunnel.controller
    controller.resolve = "2001:db8::1"
    place, since = daemon.log.position, controller.count
    fast_tunnel.gateway.ask("close", how="fin")
    daemon.log.wait_for("IPv6 ADDR not supported", 10, place)
    assert connected_to(daemon, place) == GATEWAY_IP
    controller.wait_for(records.TUN_UP, 5, since)


def test_an_answer_that_nobody_asked_for_makes_a_new_connection_at_once(fast_tunnel):
    daemon, controller, gateway = fast_tunnel.daemon, fast_tunnel.controller, fast_tunnel.gateway
    old = gateway.client()
    before = daemon.statistics()
    place, since = daemon.log.position, controller.count
    controller.send(records.text_record(records.NAME_ANSWER, OTHER_IP))
    assert connected_to(daemon, place) == OTHER_IP
    wait_until(lambda: [c for c in gateway.clients() if c["active"] and c["client"] != old], 5, "the new connection")
    assert gateway.wait("closed", since=0, timeout=5, client=old)["by"] == "peer"
    after = daemon.statistics()
    assert after["rekey_attempts"] == before["rekey_attempts"] and after["rekey_success"] == before["rekey_success"]
    assert controller.all(records.TUN_DOWN, since) == []


@pytest.mark.sanitizer
def test_two_answers_in_a_row_leave_one_connection(fast_tunnel):
    daemon, controller, gateway = fast_tunnel.daemon, fast_tunnel.controller, fast_tunnel.gateway
    descriptors = len(daemon.descriptors())
    place = daemon.log.position
    controller.send(
        *[records.text_record(records.NAME_ANSWER, address) for address in (OTHER_IP, GATEWAY_IP, OTHER_IP)]
    )
    daemon.log.wait_for("Received FQDN resolved GW IP, trying to connect", 10, place, times=3)
    wait_until(lambda: len(gateway.events("tcp_accept")) == 4, 10, "three more connections")
    wait_until(lambda: len(gateway.clients()) == 1, 10, lambda: f"one connection, not {gateway.clients()}")
    wait_until(
        lambda: len(daemon.descriptors()) == descriptors,
        10,
        lambda: f"{descriptors} descriptors, not {daemon.descriptors()}",
    )
    assert daemon.is_running()


def test_without_a_reader_the_old_address_is_tried_at_once(fast_tunnel):
    daemon, controller = fast_tunnel.daemon, fast_tunnel.controller
    controller.close()
    place = daemon.log.position
    fast_tunnel.gateway.ask("close", how="fin")
    daemon.log.wait_for("FQDN Resoln failed, try rekeying with previous GW IP", 5, place)
    assert daemon.log.count("Started FQDN Resoln Timer", place) == 0
    daemon.log.wait_for("TUN-INTF is UP!!", 5, place)


def test_a_name_in_the_configuration_is_no_address_until_the_controller_has_given_one(bench):
    bench.make_gateway()
    daemon = bench.make_daemon(
        conf=conf_text(server_ip_address="gateway.example.net"), env=bench.preload_fast_clock(FAST)
    )
    daemon.start()
    daemon.log.wait_match(r"Server IP\(gateway\.example\.net\) = 0", 5)
    bench.controller.wait_for(records.TUN_UP, 10)
