#!/usr/bin/python3
"""Runs the fuzz targets and says what they did.

    campaign.py [TARGET...] [--seconds N] [--inputs N] [--build DIR] [--keep]

    TARGET       names of sources in this directory (default: all)
    --seconds N  for each target (default 60)
    --inputs N   ends a target after so many inputs, if that comes first
    --build DIR  build with the preset "fuzz" (default: build/fuzz)
    --keep       writes a small corpus back to this directory: a share of the smallest inputs that reach everything

Each target begins with its corpus here and with what earlier runs have found (DIR/inputs). An input that breaks a rule
is left in DIR/findings; the target with that file as its argument repeats it.
"""

import argparse
import re
import subprocess
import sys
import tempfile
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent
PROJECT = HERE.parents[1]
LONGEST = 3000  # bytes of an input
KEPT_BYTES = 45_000  # of one target's corpus in the tree
KEPT_FILES = 120     # the same
NOT_TARGETS = {"kernel", "replay"}


def all_targets():
    return sorted(path.stem for path in HERE.glob("*.cpp") if path.stem not in NOT_TARGETS)


class Target:
    def __init__(self, name, build):
        self.name = name
        self.program = build / "fuzz" / f"fuzz_{name}"
        self.corpus = HERE / "corpus" / name
        self.inputs = build / "inputs" / name
        self.findings = build / "findings"
        for place in (self.inputs, self.findings):
            place.mkdir(parents=True, exist_ok=True)

    def command(self, *options):
        findings = f"-artifact_prefix={self.findings}/{self.name}-"
        return [str(self.program), f"-max_len={LONGEST}", "-rss_limit_mb=4096", findings, *options]

    def run(self, seconds, inputs):
        """Returns inputs, edges, inputs per second, and the text of a finding or None."""
        places = [str(place) for place in (self.inputs, self.corpus) if place.is_dir()]
        began = time.monotonic()
        done = subprocess.run(
            self.command(f"-max_total_time={int(seconds)}", f"-runs={inputs}", "-print_final_stats=1", *places),
            stdout=subprocess.DEVNULL,
            stderr=subprocess.PIPE,
            text=True,
            errors="replace",
        )
        took = time.monotonic() - began
        edges = [int(number) for number in re.findall(r" cov: (\d+)", done.stderr)]
        executed = re.search(r"stat::number_of_executed_units: +(\d+)", done.stderr)
        count = int(executed[1]) if executed else 0
        finding = None
        if done.returncode != 0:
            mark = re.compile(r"finding:|ERROR|runtime error|shows:|Test unit")
            told = [line for line in done.stderr.splitlines() if mark.search(line)]
            finding = "\n    ".join(told) or done.stderr[-2000:]
        return count, max(edges, default=0), count / took, finding

    def keep(self):
        """The smallest inputs that together reach what all of them reach, as far as they fit."""
        with tempfile.TemporaryDirectory() as merged:
            places = [str(place) for place in (self.corpus, self.inputs) if place.is_dir()]
            subprocess.run(self.command("-merge=1", merged, *places), stderr=subprocess.DEVNULL, check=True)
            self.corpus.mkdir(parents=True, exist_ok=True)
            for old in self.corpus.iterdir():
                old.unlink()
            kept = sorted(Path(merged).iterdir(), key=lambda path: (path.stat().st_size, path.name))
            kept = kept[:: max(1, -(-len(kept) // KEPT_FILES))]  # spread over all sizes
            size = 0
            for path in kept:
                size += path.stat().st_size
                if size <= KEPT_BYTES:
                    (self.corpus / path.name[:16]).write_bytes(path.read_bytes())


def main():
    parser = argparse.ArgumentParser(description="Runs the fuzz targets and says what they did.")
    parser.add_argument("targets", nargs="*", metavar="TARGET", help=", ".join(all_targets()))
    parser.add_argument("--seconds", type=int, default=60)
    parser.add_argument("--inputs", type=int, default=-1)
    parser.add_argument("--build", type=Path, default=PROJECT / "build/fuzz")
    parser.add_argument("--keep", action="store_true")
    arguments = parser.parse_args()
    unknown = set(arguments.targets) - set(all_targets())
    if unknown:
        parser.error(f"no such target: {', '.join(sorted(unknown))} (there are {', '.join(all_targets())})")

    print(f"{'target':16} {'inputs':>12} {'edges':>7} {'inputs/s':>9}  findings", flush=True)
    found = 0
    for name in arguments.targets or all_targets():
        target = Target(name, arguments.build.resolve())
        count, edges, rate, finding = target.run(arguments.seconds, arguments.inputs)
        print(f"{name:16} {count:12,} {edges:7} {rate:9,.0f}  {'none' if finding is None else finding}", flush=True)
        found += finding is not None
        if arguments.keep:
            target.keep()
    sys.exit(1 if found else 0)


if __name__ == "__main__":
    main()
