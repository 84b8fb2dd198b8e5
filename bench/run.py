#!/usr/bin/python3
"""The daemon against the least program of its kind and against what Debian has, through the same traffic in one run.

Run it with ./run bench [--quick] [--rounds N] [--only WORDS] [--output DIRECTORY]. It writes docs/benchmark.md,
its plots and the README's figures, about eleven minutes later; --quick is two minutes, for a first look, and writes to
build/benchmark.
"""

import argparse
import json
import os
import subprocess
import sys
import time
from collections import Counter
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
sys.path[:0] = [str(ROOT / "tools"), str(ROOT / "bench")]

import measures  # noqa: E402 (found through the line above)
import report  # noqa: E402
import tunnels as made  # noqa: E402
from harness.gateway import Gateway, GatewayError  # noqa: E402
from harness.world import OwnWorld, WorldError  # noqa: E402

FAILURES = (AssertionError, WorldError, GatewayError, OSError, LookupError, ValueError, ZeroDivisionError)
FAILURES += (subprocess.SubprocessError, TypeError)


def say(text):
    print(text, flush=True)


class Run:
    """One run: its tunnels, what they measured, and what failed."""

    def __init__(self, options):
        self.options = options
        self.began = time.monotonic()
        self.world = OwnWorld()
        for namespace in ("device", "gateway"):
            command = "echo cubic > /proc/sys/net/ipv4/tcp_congestion_control"
            self.world.run(["sh", "-c", command], ns=namespace, check=False)
        self.failures = Counter()
        self.times = {"START to UP": [], "the gateway's return to UP": []}
        self.flat = []

    def elapsed(self):
        return f"{time.monotonic() - self.began:5.0f} s"

    def attempt(self, what, function, *arguments):
        """The function's result; None, and a remark, when it fails."""
        try:
            return function(*arguments)
        except FAILURES as error:
            self.failures[what] += 1
            say(f"{self.elapsed()}  {what}: failed: {' '.join(str(error).split())[:300]}")
            return None

    def start(self):
        gateway = Gateway(self.world)
        self.tunnels, self.left_out = made.start_all(self.world, gateway, lambda text: say(f"{self.elapsed()}  {text}"))
        wanted = self.options.only
        self.tunnels = [t for t in self.tunnels if not wanted or t.name == "tlsc" or any(w in t.name for w in wanted)]
        measures.open_sinks(self.world)
        self.results = report.Results([tunnel.name for tunnel in self.tunnels])

    def measure_rounds(self):
        names = {each[3]: each[2] for each in report.GROUPS}
        for number in range(self.options.rounds):
            for measure, (function, seconds) in measures.EACH_ROUND.items():
                first = number % len(self.tunnels)
                for tunnel in self.tunnels[first:] + self.tunnels[:first]:
                    what = f"{measure}, {tunnel.name}"
                    values = self.attempt(what, function, self.world, tunnel, seconds * self.options.scale) or {}
                    self.results.add(tunnel.name, values, measure, names[measure])
                self.tell(number, names[measure])

    def tell(self, number, names):
        for name in names:
            title, unit, decimals, _ = measures.CATALOGUE[name]
            values = ((t.name, self.results.values[t.name][name][-1]) for t in self.tunnels)
            told = (
                f"{program} {'-' if value is None else report.number(value, decimals)}" for program, value in values
            )
            say(f"{self.elapsed()}  round {number + 1}  {title}, {unit}: {'; '.join(told)}")

    def measure_once(self):
        for tunnel in self.tunnels:
            for function, arguments in (
                (measures.calls_per_packet, (3 * self.options.scale,)),
                (measures.footprint, ()),
            ):
                what = f"{function.__name__.replace('_', ' ')}, {tunnel.name}"
                self.results.add(tunnel.name, self.attempt(what, function, self.world, tunnel, *arguments) or {})
        daemon = self.tunnels[0]
        say(f"{self.elapsed()}  {self.options.packets:,} packets, one after the other")
        cost = (measures.cost_over_time, self.world, daemon, self.options.packets)
        self.flat = self.attempt("cost over a long stream", *cost) or []
        for _ in range(self.options.lives):
            self.attempt("stop", daemon.take_down)
            self.times["START to UP"].append(self.attempt("START to UP", daemon.bring_up))
        for _ in range(self.options.lives):
            returned = self.attempt("the gateway's return", daemon.survive_the_gateway)
            self.times["the gateway's return to UP"].append(returned)

    def record(self):
        revision = subprocess.run(
            ["git", "describe", "--always", "--dirty"], cwd=ROOT, capture_output=True, text=True, check=False
        ).stdout.strip()
        return {
            "when": report.today(), "revision": revision or "unknown", "rounds": self.options.rounds,
            "seconds": time.monotonic() - self.began, "left_out": self.left_out, "flat": self.flat,
            "times": {what: [v for v in values if v is not None] for what, values in self.times.items()},
            "failures": dict(self.failures), "command": " ".join(["./run bench", *sys.argv[1:]]),
        }  # fmt: skip


def parse():
    parser = argparse.ArgumentParser(prog="./run bench", description=__doc__)
    parser.formatter_class = argparse.RawDescriptionHelpFormatter
    parser.add_argument("--quick", action="store_true", help="one short round, a tenth of the long stream")
    parser.add_argument("--rounds", type=int, help="rounds of all measures (4; quick: 1)")
    parser.add_argument("--packets", type=int, help="of the long stream (10,000,000; quick: 500,000)")
    parser.add_argument("--lives", type=int, help="starts and returns of the gateway (2; quick: 1)")
    parser.add_argument("--only", nargs="+", help="the daemon and the programs whose names contain one of these")
    parser.add_argument("--output", type=Path, help="directory of the page (docs; quick: build/benchmark)")
    options = parser.parse_args()
    quick = options.quick
    options.scale = 0.5 if quick else 1.0
    options.rounds = options.rounds or (1 if quick else 4)
    options.packets = options.packets or (500_000 if quick else 10_000_000)
    options.lives = options.lives or (1 if quick else 2)
    options.output = options.output or (ROOT / "build/benchmark" if quick else ROOT / "docs")
    return options


def main():
    run = Run(parse())
    run.start()
    run.measure_rounds()
    run.measure_once()
    record = run.record()
    report.write(record, run.results, run.options.output)
    if run.options.output.resolve() == ROOT / "docs":
        report.write_front(run.results, ROOT / "README.md")
    raw = ROOT / "build/benchmark.json"
    raw.write_text(json.dumps({"run": record, "values": run.results.values, "loads": run.results.loads}, indent=1))
    say(f"{run.elapsed()}  {os.path.relpath(run.options.output, ROOT)}/benchmark.md and its plots are written")
    return 1 if len(run.tunnels) < 2 else 0


if __name__ == "__main__":
    sys.exit(main())
