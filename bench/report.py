"""The benchmark's page and its plots, from the values of a run."""

import os
import platform
import re
import statistics
import subprocess
import time
from pathlib import Path

from measures import CATALOGUE
from tunnels import PEERS

REFERENCE = "tlsc"  # ratios are its value divided by the other's, round by round

GROUPS = (  # title, sentence, names in the catalogue, measure that they come from
    ("TCP stream up", "One connection from the device to the site, with a ping every 10 ms beside it.",
     ("up", "up_cpu", "ping_up", "ping_up_99"), "stream up"),
    ("TCP stream down", "One connection from the site to the device, with a ping every 10 ms beside it.",
     ("down", "down_cpu", "ping_down", "ping_down_99"), "stream down"),
    ("TCP streams both ways at once", "One connection each way; the sum of both.", ("both", "both_cpu"), "both ways"),
    ("Flood of 64-byte packets", "UDP as fast as the sender can; what arrives at the other end.",
     ("flood_up", "flood_up_cpu", "flood_down", "flood_down_cpu"), "flood"),
    ("10,000 packets of 64 bytes a second", "UDP at a steady rate.",
     ("steady_up_cpu", "steady_up_lost", "steady_down_cpu", "steady_down_lost"), "steady"),
    ("Ping, nothing else", "One every 5 ms.", ("ping", "ping_99"), "ping"),
)  # fmt: skip
ONCE = ("calls_up", "calls_down", "calls_up_alone", "calls_down_alone", "rss", "size", "ready")


ABOUT_THE_RUN = """\
Two network namespaces of one machine, joined by a cable; device and gateway share its processors. All tunnels are
up during the whole run, and the traffic takes them in turn: in each round one measure after the other, and for
each measure one program after the other, each time beginning with another one. The interfaces' MTU is 1406 and the
congestion control cubic everywhere. CPU time is that of the device's end, all threads, from the scheduler's
accounts. A cell holds the median of all rounds and their range; a ratio is taken within each round, then its
median and range. The load average is the one at the end of the measure.
"""
ABOUT_MINIMAL = """\
`minimal` is the least program that does what the daemon does, one packet per readiness event (bench/minimal.cpp):
no log, no counters, no timers, no address exchange.
"""
ABOUT_CALLS = """\
System calls are counted by a tracer, which slows everything down. A single packet is one that finds nothing to do
when it comes (500 a second). In a stream its acknowledgements count as calls, not as packets.
"""

# ---- numbers ---------------------------------------------------------------------------------------------------------


class Results:
    """values[program][name]: one value a round, None where a measure failed; loads[program][measure]: the same."""

    def __init__(self, programs):
        self.programs = programs
        self.values = {program: {} for program in programs}
        self.loads = {program: {} for program in programs}

    def add(self, program, values, measure=None, names=()):
        """names: those that the measure should have given; the missing ones count as failed."""
        for name in set(names) | set(values):
            self.values[program].setdefault(name, []).append(values.get(name))
        if measure:
            self.loads[program].setdefault(measure, []).append(os.getloadavg()[0])

    def of(self, program, name):
        return [value for value in self.values[program].get(name, []) if value is not None]

    def ratios(self, program, name):
        """The reference's value divided by this program's, for each round that has both."""
        pairs = zip(self.values[REFERENCE].get(name, []), self.values[program].get(name, []))
        return [ours / theirs for ours, theirs in pairs if ours is not None and theirs]


def busy(results):
    """A warning when much else ran on the machine, or nothing. The benchmark itself loads two processors with about 3."""
    loads = [load for measures in results.loads.values() for each in measures.values() for load in each]
    load = statistics.median(loads) if loads else 0
    if load < 2 * max(os.cpu_count(), 2) + 1:
        return ""
    return f"**Much else ran on the machine meanwhile (load average {load:.0f}): throughputs and times say little.**"


def number(value, decimals):
    return f"{value:,.{decimals}f}"


def spread(values, decimals):
    """The median, and the range when there is one."""
    if not values:
        return "-"
    middle, low, high = (number(f(values), decimals) for f in (statistics.median, min, max))
    return middle if low == high else f"{middle} ({low} - {high})"


# ---- the page --------------------------------------------------------------------------------------------------------


def rows(header, lines):
    yield "| " + " | ".join(header) + " |"
    yield "|---" + "|---:" * (len(header) - 1) + "|"
    for line in lines:
        yield "| " + " | ".join(line) + " |"
    yield ""


def group(results, title, sentence, names, measure):
    yield f"### {title}"
    yield ""
    yield sentence
    yield ""
    header = ["program"]
    for name in names:
        header += [f"{CATALOGUE[name][0]}, {CATALOGUE[name][1]}", f"{REFERENCE} / it"]
    lines = []
    for program in results.programs:
        line = [program]
        for name in names:
            ratio = "" if program == REFERENCE else spread(results.ratios(program, name), 2)
            line += [spread(results.of(program, name), CATALOGUE[name][2]), ratio]
        lines.append([*line, spread(results.loads[program].get(measure, []), 1)])
    yield from rows([*header, "load average"], lines)


def once(results):
    yield "### Once a run"
    yield ""
    yield ABOUT_CALLS
    lines = [
        [program, *(spread(results.of(program, name), CATALOGUE[name][2]) for name in ONCE)]
        for program in results.programs
    ]
    yield from rows(["program", *(f"{CATALOGUE[name][0]}, {CATALOGUE[name][1]}" for name in ONCE)], lines)


def life(run):
    yield "### The daemon's own times"
    yield ""
    yield from rows(["what", "seconds"], [[what, spread(values, 2)] for what, values in run["times"].items() if values])
    points = run["flat"]
    if points:
        first, last = points[0][1], points[-1][1]
        costs = [cost for _, cost in points]
        yield f"From the first to the {points[-1][0]:,}th packet of one stream up, in {len(points)} windows:"
        yield f"{first:.2f} µs of CPU time a packet in the first, {last:.2f} in the last (ratio {last / first:.2f});"
        yield f"median {statistics.median(costs):.2f}, range {min(costs):.2f} to {max(costs):.2f}."
        yield ""
        yield "![CPU time per packet over a long stream](benchmark-flat.svg)"
        yield ""


def version(words, pattern):
    try:
        done = subprocess.run(words, capture_output=True, text=True, check=False)
        found = re.search(pattern, done.stdout + done.stderr)
        return found[1] if found else "?"
    except OSError:
        return "?"


WORD = r"(\S+)"


def machine():
    processor = re.search(r"model name\s*: (.*)", Path("/proc/cpuinfo").read_text())
    memory = re.search(r"MemTotal: *(\d+)", Path("/proc/meminfo").read_text())
    packages = ("openssl", "openvpn", "wireguard-go", "tinc", "socat", "openssh-client")
    query = ["dpkg-query", "-W", "-f", "${Version}"]
    versions = [f"{name} {version([*query, name], WORD)}" for name in packages]
    return [
        f"{processor[1] if processor else platform.machine()}, {os.cpu_count()} processors, "
        f"{int(memory[1]) // 1024} MB, Linux {platform.release()}",
        f"g++ {version(['g++', '-dumpfullversion'], WORD)}; {', '.join(versions)}",
    ]


def page(run, results):
    """run: a record with "when", "revision", "rounds", "seconds", "command", "left_out", "times", "flat"."""
    yield "# Benchmark"
    yield ""
    yield "Written by `./run bench`; every figure is of one run, losses included."
    yield ""
    hardware, software = machine()
    yield f"- {run['when']}, revision {run['revision']}, {run['rounds']} rounds, {run['seconds'] / 60:.1f} minutes"
    yield f"- {hardware}"
    yield f"- {software}"
    yield f"- To repeat it: `{run['command']}`, as root, on a Debian 12 machine that does nothing else."
    yield ""
    if busy(results):
        yield busy(results)
        yield ""
    yield "![Streams: throughput and CPU time](benchmark-streams.svg)"
    yield ""
    yield "![Round trips](benchmark-latency.svg)"
    yield ""
    yield "## What runs"
    yield ""
    yield ABOUT_THE_RUN
    carries = {peer.name: peer.carries for peer in PEERS}
    lines = [[program, carries.get(program, "TLS 1.2, AES-256-GCM, TCP")] for program in results.programs]
    yield from rows(["program", "carries packets in"], lines)
    yield ABOUT_MINIMAL
    for name, reason in run["left_out"].items():
        yield f"- {name} did not take part: {reason}"
    if run["left_out"]:
        yield ""
    for failure, count in run["failures"].items():
        yield f"- failed {count} times and left out there: {failure}"
    if run["failures"]:
        yield ""
    yield "## Figures"
    yield ""
    for each in GROUPS:
        yield from group(results, *each)
    yield from once(results)
    yield from life(run)


# ---- the plots -------------------------------------------------------------------------------------------------------


def bars(axes, results, names, labels, title, unit):
    """Grouped bars with their ranges: for each program one bar per name."""
    width = 0.8 / len(names)
    for index, (name, label) in enumerate(zip(names, labels)):
        places, heights, below, above = [], [], [], []
        for place, program in enumerate(results.programs):
            values = results.of(program, name)
            if values:
                middle = statistics.median(values)
                places.append(place + (index - (len(names) - 1) / 2) * width)
                heights.append(middle)
                below.append(middle - min(values))
                above.append(max(values) - middle)
        axes.bar(places, heights, width, label=label, yerr=[below, above], error_kw={"elinewidth": 0.8}, capsize=2)
    axes.set_title(title, fontsize=10)
    axes.set_ylabel(unit, fontsize=9)
    axes.set_ylim(bottom=0)
    axes.set_xticks(range(len(results.programs)))
    axes.set_xticklabels(results.programs, rotation=25, ha="right", fontsize=8)
    axes.grid(axis="y", alpha=0.3)
    axes.legend(fontsize=8)


def plot(results, flat, folder):
    os.environ.setdefault("MPLCONFIGDIR", "/tmp/matplotlib")
    import matplotlib  # only here: it takes a second, and needs the line above

    matplotlib.use("svg")
    matplotlib.rcParams["svg.hashsalt"] = "benchmark"
    from matplotlib import pyplot

    def save(figure, name):
        figure.tight_layout()
        figure.savefig(folder / name, metadata={"Date": None})
        pyplot.close(figure)

    figure, (left, right) = pyplot.subplots(1, 2, figsize=(11, 4.2))
    ways = ("up", "down", "both ways")
    bars(left, results, ("up", "down", "both"), ways, "TCP stream through the tunnel", "Mbit/s, more is better")
    names = ("up_cpu", "down_cpu", "both_cpu")
    bars(right, results, names, ways, "CPU time of the device's end", "s/GB, less is better")
    save(figure, "benchmark-streams.svg")

    figure, (left, right) = pyplot.subplots(1, 2, figsize=(11, 4.2))
    bars(left, results, ("ping", "ping_99"), ("median", "99 %"), "Ping, nothing else", "ms, less is better")
    names = ("ping_up", "ping_up_99", "ping_down", "ping_down_99")
    labels = ("up, median", "up, 99 %", "down, median", "down, 99 %")
    bars(right, results, names, labels, "Ping beside a stream", "ms, less is better")
    save(figure, "benchmark-latency.svg")

    if flat:
        figure, axes = pyplot.subplots(figsize=(7, 3))
        axes.plot([count / 1e6 for count, _ in flat], [cost for _, cost in flat], marker="o", markersize=3)
        axes.set_ylim(bottom=0)
        axes.set_xlabel("million packets", fontsize=9)
        axes.set_ylabel("CPU, µs per packet", fontsize=9)
        axes.grid(alpha=0.3)
        save(figure, "benchmark-flat.svg")


def write(run, results, folder):
    """Writes benchmark.md and its plots into the folder."""
    folder = Path(folder)
    folder.mkdir(parents=True, exist_ok=True)
    plot(results, run["flat"], folder)
    text = "\n".join(page(run, results)).rstrip() + "\n"
    (folder / "benchmark.md").write_text(text)


# ---- the README ------------------------------------------------------------------------------------------------------

FRONT = ("up", "down", "both", "up_cpu", "down_cpu", "ping", "ping_up_99", "ping_down_99")
FRONT_BEGIN, FRONT_END = "<!-- figures: written by ./run bench -->\n", "<!-- end of the figures -->\n"


def front(results):
    """The medians that the README shows."""
    lines = []
    for name in FRONT:
        title, unit, decimals, _ = CATALOGUE[name]
        medians = [spread(results.of(program, name), decimals).split(" ")[0] for program in results.programs]
        lines.append([f"{title}, {unit}", *medians])
    table = "\n".join(rows(["median", *results.programs], lines))
    return f"{busy(results)}\n\n{table}" if busy(results) else table


def write_front(results, readme):
    """Puts them between their marks in the README."""
    text = Path(readme).read_text()
    before, _, rest = text.partition(FRONT_BEGIN)
    _, _, after = rest.partition(FRONT_END)
    Path(readme).write_text(f"{before}{FRONT_BEGIN}\n{front(results)}\n{FRONT_END}{after}")


def today():
    return time.strftime("%Y-%m-%d %H:%M UTC", time.gmtime())
