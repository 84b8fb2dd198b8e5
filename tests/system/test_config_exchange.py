"""The configuration response: what is taken from it, what is refused, and what happens when it does not come."""

import pytest

from harness import records
from harness.daemon import TUN_NAME

GUARD_SECONDS = 10
BACKOFF_SECONDS = 10
REQUEST_PAUSE_SECONDS = 2


def test_without_a_response_the_guard_ends_the_connection_and_backoff_makes_the_next(bench):
    gateway = bench.make_gateway()
    gateway.ask("config", mode="drop")
    daemon = bench.make_daemon()
    daemon.start()
    request = gateway.wait("config_req", since=0, timeout=10)
    closed = gateway.wait("closed", since=0, timeout=GUARD_SECONDS + 3)
    assert closed["by"] == "peer"
    # The gateway notes both when it gets round to them.
    assert -0.1 < closed["mono"] - request["mono"] - GUARD_SECONDS < 0.6
    gateway.ask("config", mode="normal")
    bench.controller.wait_for(records.NAME_REQUEST, BACKOFF_SECONDS + 2)
    bench.controller.wait_for(records.TUN_UP, 8)
    again = gateway.events("tcp_accept")[1]
    # Backoff, then at most one poll (2 s) until the controller's answer is read.
    assert 0 <= again["mono"] - closed["mono"] - BACKOFF_SECONDS < 3
    daemon.log.assert_order(
        "Started Backoff Timer for 10 sec",
        "Received FQDN resolved GW IP, trying to connect",
        "Establish new TCP connection",
        "TUN-INTF is UP!!",
    )
    # The interface never was up, so there was no DOWN to report.
    assert bench.controller.all(records.TUN_DOWN) == []


REFUSED = {
    "empty": b"",
    "no client address": b"X-CSTP-Address:10.9.0.0\nX-CSTP-DPD:30\n",
    "no IPv4 address": b"X-CSTP-Address-Client:2001:db8::1\n",
    "number too large": b"X-CSTP-Address-Client:10.9.0.256\n",
    "carriage return": b"X-CSTP-Address-Client:10.9.0.9\r\n",
    "blank in front": b"X-CSTP-Address-Client: 10.9.0.9\n",
    "endless value": b"X-CSTP-Address-Client:" + b"9" * 1300,
    "wrong case": b"x-cstp-address-client:10.9.0.9\n",
    "other bytes": bytes(range(128, 256)),
    "hidden behind a zero": b"X-CSTP-DPD:30\n\0X-CSTP-Address-Client:10.9.0.9\n",
}


@pytest.mark.sanitizer
def test_a_response_without_a_usable_address_is_refused_and_the_connection_stays_idle(bench):
    gateway = bench.make_gateway()
    daemon = bench.make_daemon(env=bench.preload_fast_clock(10))
    daemon.start()
    for name, text in REFUSED.items():
        place = daemon.log.position
        since = gateway.last
        gateway.ask("config", mode="replace", hex=text.hex(), once=True)
        if gateway.clients():
            gateway.ask("close", how="fin")
        answered = gateway.wait("config_resp_sent", since=since, timeout=20)
        daemon.log.wait_match(r"Could not process config resp for conn 0x\w+\. Error = ", 5, place)
        reason = (
            "Invalid IPv4 Client addr received for conn 0x"
            if b"Client:" in text.split(b"\0")[0]
            else "Did not receive IP addr from GW"
        )
        if name == "wrong case":
            reason = "Did not receive IP addr from GW"
        assert daemon.log.count(reason, place) == 1, name
        # Nobody closes such a connection but the gateway: it outlives the guard.
        assert gateway.events("closed", since=answered["number"]) == [], name
        assert gateway.clients()[-1]["client"] == answered["client"], name
    assert bench.controller.all(records.TUN_UP) == []
    assert bench.controller.all("30/1") == []
    gateway.ask("close", how="fin")
    bench.controller.wait_for(records.TUN_UP, 10)


def test_raw_bytes_in_place_of_the_response_frame(bench):
    gateway = bench.make_gateway()
    daemon = bench.make_daemon(env=bench.preload_fast_clock(10))
    gateway.ask("config", mode="malform", hex="00" * 8, once=True)
    daemon.start()
    gateway.wait("config_resp_sent", since=0, timeout=10)
    # A data frame of no length: nothing that stops the guard, which ends the connection.
    closed = gateway.wait("closed", since=0, timeout=5)
    assert closed["by"] == "peer"
    bench.controller.wait_for(records.TUN_UP, 10)


@pytest.mark.sanitizer
def test_every_header_of_the_response_is_taken(bench):
    gateway = bench.make_gateway()
    daemon = bench.make_daemon(env=bench.preload_fast_clock(4))
    daemon.bring_up()
    daemon.debug("level", "debug")
    place, since = daemon.log.position, bench.controller.count
    text = (
        "X-CSTP-DNS:10.9.0.1\nX-CSTP-DNS:nowhere\nX-CSTP-DNS:192.0.2.54\nX-CSTP-DNS:192.0.2.55\nX-CSTP-DNS:192.0.2.56\nX-CSTP-DNS:192.0.2.57\n"
        "X-CSTP-Cookie:0123456789abcdef\nX-CSTP-Rekey-Time: 600\nX-CSTP-Retry-Time:7\nX-CSTP-Address-Client:10.9.0.44\n"
        "X-CSTP-DPD:40\nX-CSTP-Prefix-Length:280\nX-CSTP-Address:10.9.0.0\n"
    )
    gateway.ask("config", mode="replace", text=text, once=True)
    gateway.ask("close", how="fin")
    bench.controller.wait_for(records.TUN_UP, 10, since)
    daemon.log.wait_for("Started DPD Timer for", 5, place)
    daemon.log.assert_order(
        "Received CSTP prefix-addr in config-resp: 10.9.0.0 for conn: 0x",
        "Prefix len received in config-resp: 24 50",
        "DPD interval received in config-resp: 40",
        "Received CSTP IPv4 client addr in config-resp: 10.9.0.44 for conn: 0x",
        "Retry interval received in config-resp: 7",
        "Rekey interval received in cofig-resp: 600",
        "Cookie received in cofig-resp: 0123456789",
        "Received CSTP DNS-addr in config-resp: 10.9.0.1 for conn: 0x",
        "Invalid DNS Ip received for conn 0x",
        "Received CSTP DNS-addr in config-resp: 192.0.2.54 for conn: 0x",
        "Received CSTP DNS-addr in config-resp: 192.0.2.55 for conn: 0x",
        "Received CSTP DNS-addr in config-resp: 192.0.2.56 for conn: 0x",
        "Client inner IP received 10.9.0.44",
        "Started Rekey Timer for 600 sec",
        "Enabling data reception by changing Dp-State of Client to 1",
        since=place,
    )
    assert daemon.log.count("192.0.2.57", place) == 0
    assert 32 <= int(daemon.log.wait_match(r"Started DPD Timer for (\d+) sec", 1, place)[1]) < 40
    assert bench.controller.wait_for("30/0", 1, since).data == records.dns_record(
        ["10.9.0.1", "192.0.2.54", "192.0.2.55", "192.0.2.56"]
    )
    assert bench.controller.wait_for("30/1", 1, since).data == records.inner_address_record("10.9.0.44")

    # Rekey time absent: 3600 again, whatever an earlier response said. The address is asked for; the cookie went with
    # the teardown.
    place, before = daemon.log.position, gateway.last
    gateway.ask("set", header="X-CSTP-Rekey-Time", value=None)
    gateway.ask("close", how="fin")
    request = gateway.wait("config_req", since=before, timeout=10)
    daemon.log.wait_for("Rekey interval not received in cofig-resp, so choosing default value: 3600", 5, place)
    assert request["address"] == "10.9.0.44"
    assert request["cookie"] is None


@pytest.mark.sanitizer
@pytest.mark.parametrize(
    "header, value, message",
    [
        ("X-CSTP-Rekey-Time", "0", "Started Rekey Timer for 3600 sec"),
        ("X-CSTP-Rekey-Time", "-5", "Could not start Rekey timer"),
        ("X-CSTP-DPD", "99999999999", "Started DPD Timer for "),
        ("X-CSTP-Retry-Time", "-1", "TUN-INTF is UP!!"),
        ("X-CSTP-Prefix-Length", "4096", "TUN-INTF is UP!!"),
        ("X-CSTP-Address", "somewhere", "Invalid IPv4 prefix received for conn 0x"),
        ("X-CSTP-Cookie", "", "TUN-INTF is UP!!"),
    ],
)
def test_unusual_values_do_not_end_the_daemon(bench, header, value, message):
    gateway = bench.make_gateway("--allow-fatal")
    gateway.ask("set", header=header, value=value)
    daemon = bench.make_daemon(env=bench.preload_fast_clock(4))
    daemon.start()
    daemon.log.wait_for(message, 10)
    assert daemon.exit() == 1


def test_a_dpd_interval_below_5_ends_the_process_by_an_arithmetic_error(bench):
    gateway = bench.make_gateway("--allow-fatal")
    gateway.ask("set", header="X-CSTP-DPD", value="4")
    daemon = bench.make_daemon(env=bench.preload_fast_clock(4))
    daemon.start()
    assert daemon.process.wait(10) == -8


def test_the_interface_has_mtu_1406_and_no_address_of_its_own(tunnel):
    shown = tunnel.world.ip("device", f"addr show dev {TUN_NAME}")
    assert " mtu 1406 " in shown
    assert "inet " not in shown
