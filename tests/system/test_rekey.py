"""The rekey: a new connection beside the old one, and nothing lost but what the closed data path holds back."""

import hashlib
import random
import socket
import threading
import time

import pytest

from harness import records
from harness.daemon import TUN_NAME
from harness.world import MANAGEMENT_IP, SITE_IP, wait_until

REKEY_SECONDS = 6


def rekeyed(daemon, times, timeout):
    """Waits until the client has begun that many sessions after its first."""
    daemon.log.wait_for("Started Rekey Timer for", timeout, times=times + 1)


def test_a_rekey_renews_the_connection_and_keeps_address_cookie_and_interface(bench):
    bench.make_tunnel("--rekey", str(REKEY_SECONDS))
    gateway, daemon, controller = bench.gateway, bench.daemon, bench.controller
    before = controller.count
    inner, old = gateway.inner(), gateway.client()
    index = bench.world.ip("device", f"-o link show dev {TUN_NAME}").split(":")[0]
    rekeyed(daemon, 1, REKEY_SECONDS + 8)

    first, second = gateway.events("config_req")[:2]
    assert (second["address"], second["cookie_known"]) == (inner, True)
    assert second["text"].startswith(
        f"X-CSTP-Address:{inner}\nX-CSTP-Device-ID:dev-0001\nX-CSTP-Cookie:{second['cookie']}\n"
    )
    assert first["address"] is None and first["cookie"] is None

    # Old and new side by side until the response is there, then the old one is closed by the client.
    closed = gateway.wait("closed", since=0, timeout=3, client=old)
    answered = gateway.events("config_resp_sent")[1]
    assert closed["by"] == "peer" and closed["number"] > answered["number"]
    assert gateway.client() == second["client"] != old
    assert gateway.inner() == inner

    # The controller hears of the question and of the DNS servers, and of no change.
    assert controller.kinds(before) == ["27", "30/0"]
    counters = daemon.statistics()
    assert (counters["rekey_attempts"], counters["rekey_success"], counters["tun_alloc"], counters["tun_freed"]) == (
        1,
        1,
        1,
        0,
    )
    assert bench.world.ip("device", f"-o link show dev {TUN_NAME}").split(":")[0] == index
    assert bench.world.run(["ping", "-c", "1", "-W", "2", "-I", MANAGEMENT_IP, SITE_IP], ns="device")["status"] == 0
    daemon.log.assert_order(
        "Received FQDN resolved GW IP, trying to connect",
        "Establish new TCP connection",
        "TCP connection established after rekey timeout, client-sock-fd = ",
        "Process CSTP-CONFIG-RESPONSE",
        "SSL-handle and Engine cleanup",
        f"Started Rekey Timer for {REKEY_SECONDS} sec",
    )


def paced_sender(connection, data, seconds):
    """Sends the data evenly over that time."""
    chunk = len(data) // int(seconds * 50)
    for start in range(0, len(data), chunk):
        connection.sendall(data[start : start + chunk])
        time.sleep(0.02)
    connection.shutdown(socket.SHUT_WR)


def test_a_transfer_survives_rekeys_without_losing_a_byte(bench):
    bench.make_tunnel("--rekey", "5")
    daemon = bench.daemon
    with bench.world.inside("gateway"):
        listener = socket.create_server((SITE_IP, 0))
    with bench.world.inside("device"):
        client = socket.socket()
    client.bind((MANAGEMENT_IP, 0))
    client.connect(listener.getsockname())
    served, _ = listener.accept()
    for end in (client, served):
        end.settimeout(60)

    data = random.Random(6).randbytes(6 << 20)
    senders = [threading.Thread(target=paced_sender, args=(end, data, 16)) for end in (client, served)]
    for sender in senders:
        sender.start()

    def receive(end, result):
        digest, count = hashlib.sha256(), 0
        while chunk := end.recv(1 << 16):
            digest.update(chunk)
            count += len(chunk)
        result.append((count, digest.hexdigest()))

    up, down = [], []
    receivers = [threading.Thread(target=receive, args=pair) for pair in ((served, up), (client, down))]
    for thread in receivers:
        thread.start()
    for thread in senders + receivers:
        thread.join(90)
    expected = [(len(data), hashlib.sha256(data).hexdigest())]
    assert up == expected
    assert down == expected
    counters = daemon.statistics()
    assert counters["rekey_success"] >= 2
    assert counters["rekey_success"] == len(bench.gateway.events("config_resp_sent")) - 1
    assert bench.controller.all(records.TUN_DOWN) == []
    assert counters["ssl_read_errors"] == counters["ssl_write_errors"] == 0


def test_the_old_connection_still_delivers_while_the_new_one_is_asked_for(bench):
    bench.make_tunnel("--rekey", str(REKEY_SECONDS), "--dpd", "30")
    gateway, controller, daemon = bench.gateway, bench.controller, bench.daemon
    controller.resolve = None  # the client waits for the name, data path closed
    old = gateway.client()
    controller.wait_for(records.NAME_REQUEST, REKEY_SECONDS + 3)
    before = daemon.process.cpu_seconds()
    with bench.world.inside("device"):
        receiver = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    receiver.bind((MANAGEMENT_IP, 0))
    receiver.settimeout(3)
    with bench.world.inside("gateway"):
        sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sender.sendto(b"inbound", (gateway.inner(), receiver.getsockname()[1]))
    assert receiver.recv(100) == b"inbound"
    counters = daemon.statistics()
    receiver.sendto(b"outbound", (SITE_IP, 9))
    time.sleep(0.5)
    assert daemon.statistics()["data_tx"] == counters["data_tx"]
    assert daemon.process.cpu_seconds() - before > 0.1  # the queued packet keeps its event coming: by contract
    controller.send(records.text_record(records.NAME_ANSWER, "192.0.2.1"))
    rekeyed(daemon, 1, 8)
    wait_until(lambda: daemon.statistics()["data_tx"] > counters["data_tx"], 8, "the packet that waited")
    assert gateway.client() != old


@pytest.mark.sanitizer
def test_a_rekey_without_a_response_ends_both_connections_and_comes_back(bench):
    # 24 s of rekey interval at six times the speed: the session has four seconds, the guard less than two.
    bench.make_tunnel("--rekey", "24", env=bench.preload_fast_clock(6))
    gateway, controller, daemon = bench.gateway, bench.controller, bench.daemon
    before, since, place = controller.count, gateway.last, daemon.log.position
    old = gateway.client()
    descriptors = sorted(daemon.descriptors())
    gateway.ask("config", mode="drop", once=True)
    withheld = gateway.wait("config_resp_withheld", since=since, timeout=10)
    new_closed = gateway.wait("closed", since=since, timeout=5, client=withheld["client"])
    old_closed = gateway.wait("closed", since=since, timeout=5, client=old)
    assert new_closed["by"] == old_closed["by"] == "peer"
    assert 1.5 < old_closed["mono"] - withheld["mono"] < 2.6
    controller.wait_for(records.TUN_DOWN, 5, before)
    controller.wait_for(records.TUN_UP, 10, before)
    daemon.log.wait_for("Started DPD Timer", 5, place)
    assert sorted(daemon.descriptors()) == descriptors
    # The flag of the failed rekey survives, so the reconnection counts as its success.
    counters = daemon.statistics()
    assert counters["rekey_success"] >= 1


@pytest.mark.sanitizer
def test_a_rekey_that_cannot_connect_leaves_no_descriptor_behind(bench):
    bench.make_tunnel("--rekey", "24", env=bench.preload_fast_clock(6))
    gateway, controller, daemon = bench.gateway, bench.controller, bench.daemon
    before, place = controller.count, daemon.log.position
    descriptors = sorted(daemon.descriptors())
    gateway.ask("accept", mode="refuse")
    controller.wait_for(records.TUN_DOWN, 10, before)
    daemon.log.wait_for("TCP connection failed!!!", 5, place, times=2)
    gateway.ask("accept", mode="normal")
    controller.wait_for(records.TUN_UP, 20, before)
    daemon.log.wait_for("Started DPD Timer", 5, place)
    assert sorted(daemon.descriptors()) == descriptors
    # The next rekey works as well.
    successes = daemon.statistics()["rekey_success"]
    wait_until(lambda: daemon.statistics()["rekey_success"] > successes, 15, "another rekey", pause=0.5)
