"""The weight of the packet path: a gigabyte each way, and the system calls that a packet costs. Run with -m bulk."""

import os
import re
import signal
import socket
import time

import pytest

from harness.daemon import conf_text
from harness.traffic import Transfer
from harness.world import MANAGEMENT_IP, SITE_IP, wait_until

pytestmark = pytest.mark.bulk

GIGABYTE = 1 << 30


@pytest.mark.parametrize("direction", ["up", "down"])
def test_a_gigabyte_arrives_with_its_hash(bench, direction):
    bench.make_tunnel()
    device, site = ("device", MANAGEMENT_IP), ("gateway", SITE_IP)
    if direction == "up":
        transfer = Transfer(bench.world, device, site, f"--bytes {GIGABYTE}")
    else:
        transfer = Transfer(bench.world, site, device, f"--bytes {GIGABYTE}", target=bench.gateway.inner())
    received, _ = transfer.finish(300)  # fails unless both ends have the same hash
    assert received["bytes"] == GIGABYTE
    print(f"{direction}: {GIGABYTE * 8 / received['seconds'] / 1e6:.0f} Mbit/s")


def stream(world, number, receiver_ns, receiver_address, sender_ns, sender_address, target):
    """Starts a TCP stream of five seconds. Returns (sending process, receiving process, its output file)."""
    port, output = str(9000 + number), f"/tmp/receiver{number}.out"
    words = ["/usr/bin/python3", BULK, "receive", receiver_address, port, "--no-hash"]
    receiver = world.spawn(words, ns=receiver_ns, stdout=output)
    wait_until(lambda: world.exists(output) and b"ready" in world.read(output), 10, "the receiver")
    words = ["/usr/bin/python3", BULK, "send", target, port, "--from", sender_address, "--seconds", "5", "--no-hash"]
    return world.spawn(words, ns=sender_ns), receiver, output


def test_two_streams_in_opposite_directions_share_the_tunnel(bench):
    bench.make_tunnel()
    world = bench.world
    streams = [
        stream(world, 1, "gateway", SITE_IP, "device", MANAGEMENT_IP, SITE_IP),
        stream(world, 2, "device", MANAGEMENT_IP, "gateway", SITE_IP, bench.gateway.inner()),
    ]
    rates = []
    for sender, receiver, output in streams:
        assert sender.wait(30) == 0 and receiver.wait(30) == 0
        received = json.loads(world.read(output).decode().split("ready\n")[1])
        rates.append(received["bytes"] * 8 / received["seconds"] / 1e6)
    up, down = rates
    print(f"up {up:.0f} Mbit/s, down {down:.0f} Mbit/s")
    assert min(up, down) > 0.65 * max(up, down)


def calls_per_packet(bench, counter, direction):
    """System calls of the tunnel thread per packet while one small packet after the other crosses, by name."""
    daemon, world = bench.daemon, bench.world
    with world.inside("device"):
        inside = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    with world.inside("gateway"):
        outside = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    inside.bind((MANAGEMENT_IP, 9000))
    outside.bind((SITE_IP, 9000))
    sender, target = (inside, (SITE_IP, 9000)) if direction == "up" else (outside, (bench.gateway.inner(), 9000))
    tunnel_thread = max(int(t) for t in os.listdir(daemon.process.proc("task")))
    before = daemon.statistics()[counter]
    tracer = world.spawn(
        ["strace", "-c", "-f", "-o", "/tmp/strace.out", "-p", str(tunnel_thread)], stderr="/tmp/strace.err"
    )
    wait_until(lambda: b"attached" in world.read("/tmp/strace.err"), 10, "strace")
    for _ in range(2000):
        sender.sendto(b"x" * 200, target)
        time.sleep(0.001)
    wait_until(lambda: daemon.statistics()[counter] - before >= 2000, 10, "two thousand packets", pause=0.5)
    packets = daemon.statistics()[counter] - before
    tracer.signal(signal.SIGINT)
    tracer.wait(5)
    calls = {
        m[2]: int(m[1])
        for m in re.finditer(
            r"^ *[\d.]+ +[\d.]+ +\d+ +(\d+) +(?:\d+ +)?(\w+)$", world.read("/tmp/strace.out").decode(), re.M
        )
    }
    calls.pop("total", None)
    return {name: count / packets for name, count in calls.items()}


# A CBC record needs random bytes, for which OpenSSL asks for the process's number: one more call per packet out.
CALLS_OUT = {"PSK-AES256-GCM-SHA384": {}, "PSK-AES256-CBC-SHA": {"getpid": 1.0}}


@pytest.mark.parametrize("cipher", CALLS_OUT)
def test_a_packet_out_that_travels_alone_costs_three_calls(bench, cipher):
    bench.make_tunnel(conf=conf_text(cipher_algo=cipher))
    costs = calls_per_packet(bench, "data_tx", "up")
    assert {name: round(cost, 1) for name, cost in costs.items() if cost > 0.04} == {
        "epoll_wait": 1.0,
        "read": 1.0,
        "sendto": 1.0,
        **CALLS_OUT[cipher],
    }


@pytest.mark.parametrize("cipher", CALLS_OUT)
def test_a_packet_in_that_travels_alone_costs_three_calls(bench, cipher):
    bench.make_tunnel(conf=conf_text(cipher_algo=cipher))
    costs = calls_per_packet(bench, "data_rx", "down")
    assert costs.pop("write") == pytest.approx(1.0, abs=0.05)
    # Packets that a busy machine delivers together share the two calls that bring them.
    assert {name for name, cost in costs.items() if cost > 0.04} == {"epoll_wait", "recvfrom"}
    assert max(costs["epoll_wait"], costs["recvfrom"]) < 1.05
