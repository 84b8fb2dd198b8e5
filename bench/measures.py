"""What the benchmark measures of a tunnel. Each function takes the world, a tunnel and the seconds it may last, and
returns its values by their names in the catalogue. CPU time is that of the device's end, all threads, from the
scheduler's accounts; packets are counted by the interfaces at the far end of the tunnel.
"""

import os
import re
import signal
import statistics
import time

from harness.traffic import Transfer, ping
from harness.world import BUILD, wait_until

PACKET = 64  # bytes of a small packet, IP header included
STEADY = 10_000  # small packets a second
SINK_PORT = 9009
FLOOD = BUILD / "bin/bench-flood"

# name: (title, unit, decimals, True if more is better)
CATALOGUE = {
    "up": ("TCP stream up", "Mbit/s", 0, True),
    "down": ("TCP stream down", "Mbit/s", 0, True),
    "both": ("TCP streams both ways at once, sum", "Mbit/s", 0, True),
    "up_cpu": ("CPU time, stream up", "s/GB", 2, False),
    "down_cpu": ("CPU time, stream down", "s/GB", 2, False),
    "both_cpu": ("CPU time, both ways at once", "s/GB", 2, False),
    "ping": ("ping, nothing else, median", "ms", 3, False),
    "ping_99": ("ping, nothing else, 99th percentile", "ms", 3, False),
    "ping_up": ("ping beside a stream up, median", "ms", 2, False),
    "ping_up_99": ("ping beside a stream up, 99th percentile", "ms", 2, False),
    "ping_down": ("ping beside a stream down, median", "ms", 2, False),
    "ping_down_99": ("ping beside a stream down, 99th percentile", "ms", 2, False),
    "flood_up": ("flood of 64-byte packets up, arrived", "packets/s", 0, True),
    "flood_up_cpu": ("CPU time, flood up", "µs/packet", 2, False),
    "flood_down": ("flood of 64-byte packets down, arrived", "packets/s", 0, True),
    "flood_down_cpu": ("CPU time, flood down", "µs/packet", 2, False),
    "steady_up_cpu": ("CPU time, 10,000 packets a second up", "µs/packet", 2, False),
    "steady_up_lost": ("lost of 10,000 packets a second up", "%", 2, False),
    "steady_down_cpu": ("CPU time, 10,000 packets a second down", "µs/packet", 2, False),
    "steady_down_lost": ("lost of 10,000 packets a second down", "%", 2, False),
    "calls_up": ("system calls, stream up", "per packet", 2, False),
    "calls_down": ("system calls, stream down", "per packet", 2, False),
    "calls_up_alone": ("system calls, single packets up", "per packet", 2, False),
    "calls_down_alone": ("system calls, single packets down", "per packet", 2, False),
    "rss": ("resident memory after the run", "kB", 0, False),
    "size": ("program, stripped", "kB", 0, False),
    "ready": ("start to the first ping answered", "s", 2, False),
}


def percentile(values, share):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(share * len(ordered)))]


def endpoints(tunnel, way):
    """(sender, receiver, address that the sender uses), as `Transfer` wants them."""
    device, site = ("device", tunnel.local), ("gateway", tunnel.remote)
    return (device, site, tunnel.remote) if way == "up" else (site, device, tunnel.target)


def transfer(world, tunnel, way, seconds, port):
    sender, receiver, target = endpoints(tunnel, way)
    return Transfer(world, sender, receiver, f"--seconds {seconds}", target, port, ["--no-hash"])


def rate(report):
    return report["bytes"] * 8 / report["seconds"] / 1e6


# ---- streams ---------------------------------------------------------------------------------------------------------


def stream(world, tunnel, way, seconds):
    """One TCP connection, with a ping every 10 ms beside it."""
    before = tunnel.process.cpu_seconds()
    running = transfer(world, tunnel, way, seconds, 5001)
    time.sleep(0.3)
    times = ping(world, tunnel.remote, int((seconds - 0.6) * 100), tunnel.local, interval=0.01)
    report, _ = running.finish(60)
    used = tunnel.process.cpu_seconds() - before
    values = {way: rate(report), f"{way}_cpu": used / (report["bytes"] / 1e9)}
    if times:
        values |= {f"ping_{way}": statistics.median(times), f"ping_{way}_99": percentile(times, 0.99)}
    return values


def stream_up(world, tunnel, seconds):
    return stream(world, tunnel, "up", seconds)


def stream_down(world, tunnel, seconds):
    return stream(world, tunnel, "down", seconds)


def streams_both_ways(world, tunnel, seconds):
    before = tunnel.process.cpu_seconds()
    running = [transfer(world, tunnel, way, seconds, port) for way, port in (("up", 5002), ("down", 5003))]
    reports = [each.finish(60)[0] for each in running]
    used = tunnel.process.cpu_seconds() - before
    total = sum(report["bytes"] for report in reports)
    return {"both": sum(rate(report) for report in reports), "both_cpu": used / (total / 1e9)}


# ---- small packets ---------------------------------------------------------------------------------------------------


def open_sinks(world):
    """Where small packets end, in both namespaces."""
    for namespace in ("device", "gateway"):
        world.spawn([FLOOD, "sink", SINK_PORT], ns=namespace)


def arrived(world, tunnel, way):
    """Packets that have come out of the tunnel at its far end."""
    namespace, interface = ("gateway", tunnel.interfaces[1]) if way == "up" else ("device", tunnel.interfaces[0])
    table = world.run(["cat", "/proc/net/dev"], ns=namespace)["out"]
    return int(re.search(rf"^ *{re.escape(interface)}: *\d+ +(\d+)", table, re.MULTILINE)[1])


def small_packets(world, tunnel, way, seconds, per_second):
    """Returns (sent, arrived, CPU seconds)."""
    sender, _, target = endpoints(tunnel, way)
    before, count = tunnel.process.cpu_seconds(), arrived(world, tunnel, way)
    words = [FLOOD, "send", sender[1], target, SINK_PORT, PACKET, per_second, seconds]
    done = world.run([str(word) for word in words], ns=sender[0], timeout=seconds + 20)
    last, now = -1, arrived(world, tunnel, way)
    while now != last:  # what is on its way
        time.sleep(0.05)
        last, now = now, arrived(world, tunnel, way)
    return int(done["out"]), now - count, tunnel.process.cpu_seconds() - before


def flood(world, tunnel, seconds):
    values = {}
    for way in ("up", "down"):
        _, count, used = small_packets(world, tunnel, way, seconds / 2, 0)
        values |= {f"flood_{way}": count / (seconds / 2), f"flood_{way}_cpu": used / max(count, 1) * 1e6}
    return values


def steady(world, tunnel, seconds):
    values = {}
    for way in ("up", "down"):
        sent, count, used = small_packets(world, tunnel, way, seconds / 2, STEADY)
        lost = max(0.0, (sent - count) / sent * 100)
        values |= {f"steady_{way}_cpu": used / max(count, 1) * 1e6, f"steady_{way}_lost": lost}
    return values


def ping_alone(world, tunnel, seconds):
    times = ping(world, tunnel.remote, int(seconds * 200), tunnel.local, interval=0.005)
    return {"ping": statistics.median(times), "ping_99": percentile(times, 0.99)} if times else {}


# name: function, seconds
EACH_ROUND = {
    "stream up": (stream_up, 2.5),
    "stream down": (stream_down, 2.5),
    "both ways": (streams_both_ways, 2.0),
    "flood": (flood, 1.6),
    "steady": (steady, 1.6),
    "ping": (ping_alone, 1.0),
}


# ---- once a run ------------------------------------------------------------------------------------------------------


def system_calls(world, tunnel, way, send):
    """System calls of all the program's threads for a packet that send() sends, counted by strace."""
    output, errors = "/tmp/strace.out", "/tmp/strace.err"
    world.run(["rm", "-f", output, errors])
    words = ["strace", "-c", "-f", "-U", "name,calls", "-o", output, "-p", tunnel.process.pid]
    tracer = world.spawn(words, stderr=errors)
    try:
        wait_until(lambda: world.exists(errors) and b"attached" in world.read(errors), 10, "strace")
        before = arrived(world, tunnel, way)
        send()
        count = arrived(world, tunnel, way) - before
    finally:
        tracer.signal(signal.SIGINT)
        tracer.wait(10)
    total = re.search(r"^total +(\d+)", world.read(output).decode(), re.MULTILINE)
    return int(total[1]) / max(count, 1)


def calls_per_packet(world, tunnel, seconds):
    """The tracer makes everything slow, but a call remains a call."""
    values = {}
    for way in ("up", "down"):

        def one_stream(way=way):
            transfer(world, tunnel, way, seconds / 2, 5004).finish(60)

        def single_packets(way=way):
            small_packets(world, tunnel, way, seconds / 2, 500)

        values[f"calls_{way}"] = system_calls(world, tunnel, way, one_stream)
        values[f"calls_{way}_alone"] = system_calls(world, tunnel, way, single_packets)
    return values


def footprint(world, tunnel):
    stripped = "/tmp/stripped"
    world.run(["strip", "-o", stripped, str(tunnel.binary)])
    values = {"rss": tunnel.process.resident_kb(), "size": os.path.getsize(stripped) / 1000}
    return values | ({"ready": tunnel.ready} if tunnel.ready is not None else {})


def cost_over_time(world, tunnel, packets, windows=20):
    """A stream up until so many packets have crossed. Returns [(packets so far, CPU microseconds per packet)]."""
    sender, receiver, target = endpoints(tunnel, "up")
    running = Transfer(world, sender, receiver, "--until-told", target, 5005, ["--no-hash"])
    first = arrived(world, tunnel, "up")
    points, count, used = [], first, tunnel.process.cpu_seconds()
    for window in range(1, windows + 1):
        goal = first + packets * window // windows
        while (now := arrived(world, tunnel, "up")) < goal:
            time.sleep(0.02)
        cpu = tunnel.process.cpu_seconds()
        points.append((now - first, (cpu - used) / (now - count) * 1e6))
        count, used = now, cpu
    running.tell()
    running.finish(60)
    return points
