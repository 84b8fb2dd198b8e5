#!/usr/bin/python3
"""A long life of one daemon: the gateway dies and returns, the tunnel is stopped, started, rekeyed, refused, in turn.

    soak.py [--rounds N] [--factor F] [--worlds W] [--build DIR]

    --rounds N  rounds; each has one gateway kill, one stop and start, one rekey, one refusal (default 100)
    --factor F  the daemon's waits are divided by it (default 40)
    --worlds W  so many daemons side by side share the rounds (default 1)
    TLSC_BUILD  build directory whose gateway is used, and whose daemon unless --build names another

After each disturbance the tunnel must be up and carry a packet by itself. At the end: memory, descriptors and threads
are those after the first rounds, the log's counter has no gap, and EXIT ends the daemon with status 1.
"""

import argparse
import os
import re
import subprocess
import sys
import tempfile
import time
from collections import Counter
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parents[1] / "tools"))

from harness import records  # noqa: E402
from harness.controller import Controller  # noqa: E402
from harness.daemon import EARLY_LOG, PSK_KEY, Daemon, conf_text  # noqa: E402
from harness.gateway import Gateway  # noqa: E402
from harness.log import LOG_FILE  # noqa: E402
from harness.world import BUILD, MANAGEMENT_IP, SITE_IP, World, wait_until  # noqa: E402

REKEY = 40  # seconds of the daemon, as the gateway assigns them
RECOVERY = 90  # seconds of the daemon within which the tunnel is up again
SLACK = 20  # seconds that a loaded machine adds
SETTLED = 10  # rounds after which the size is taken for the first time
MEMORY_GROWTH = 1000  # kilobytes at most, from then on
THREADS = 3
REFUSALS = ("refuse", "reset", "key")


class Lines:
    """The log's counter, followed across rotations: the file that is being read stays open until its end."""

    def __init__(self, world):
        self.world = world
        self.counts = Counter()
        self.texts = Counter()
        self._files = {}
        self._rest = {}

    def look(self):
        for name in (EARLY_LOG, LOG_FILE):
            self._read(name)
            try:
                there = os.stat(self.world.path(name)).st_ino
            except FileNotFoundError:
                continue
            file = self._files.get(name)
            if file is None or os.fstat(file.fileno()).st_ino != there:
                self._read(name)  # to its end, now that nobody writes it
                self._files[name] = open(self.world.path(name), "rb")
                self._rest[name] = b""
                self._read(name)

    def _read(self, name):
        file = self._files.get(name)
        if file is None:
            return
        pieces = (self._rest[name] + file.read()).split(b"\nTLSC[")
        self._rest[name] = b"\nTLSC[" + pieces[-1] if len(pieces) > 1 else pieces[-1]
        for piece in pieces[1:]:  # the last one may be read again when it has grown: its number counts once
            match = re.match(rb"(\d+)\]: (?:\S+) \w+ +\[\S+\] \[\w+\] (.*)", piece)
            if match and int(match[1]) not in self.counts:
                self.counts[int(match[1])] = 1
                self.texts[match[2].decode(errors="replace")[:40]] += 1

    def gaps(self):
        """Numbers that are missing between the first and the last."""
        return max(self.counts) - min(self.counts) + 1 - len(self.counts)

    def count(self, beginning):
        self.look()
        return sum(count for text, count in self.texts.items() if text.startswith(beginning[:40]))


class Soak:
    def __init__(self, build, factor, fast_clock):
        self.world = World()
        self.factor = factor
        self.controller = Controller(self.world)
        self.gateway = Gateway(self.world, ["--rekey", str(REKEY), "--dpd", "200"])
        self.daemon = Daemon(
            self.world,
            self.controller,
            conf=conf_text(),
            binary=build / "bin/tlsc",
            env={"LD_PRELOAD": fast_clock, "FASTER": str(factor)},
        )
        self.lines = Lines(self.world)
        self.done = Counter()

    def close(self):
        self.controller.close()
        self.world.close()

    def patience(self):
        return RECOVERY / self.factor + SLACK

    def carries(self):
        self.lines.look()
        self.daemon.add_route()
        ping = ["ping", "-q", "-c", "1", "-W", "1", "-I", MANAGEMENT_IP, SITE_IP]
        return self.world.run(ping, ns="device", check=False)["status"] == 0

    def must_carry(self, what):
        def works():
            assert self.daemon.is_running(), f"the daemon ended: {what}"
            try:
                return self.carries()
            except Exception:  # the interface comes and goes meanwhile
                return False

        wait_until(works, self.patience(), f"the tunnel carries a packet after: {what}", pause=0.05)

    def must_report(self, kind, since, what):
        self.controller.wait_for(kind, self.patience(), since)
        self.done[what] += 1

    # The disturbances.

    def kill(self, _number):
        since = self.controller.count
        self.gateway.kill()
        self.must_report(records.TUN_DOWN, since, "kills")
        self.gateway.start()
        self.must_carry("a gateway kill")

    def stop_and_start(self, _number):
        ended = self.lines.count("TLS Client: epoll thread exiting normally")
        self.daemon.order(records.TUN_STOP)
        wait_until(
            lambda: self.lines.count("TLS Client: epoll thread exiting normally") > ended, self.patience(), "the stop"
        )
        since = self.controller.count
        self.daemon.start()
        self.must_report(records.TUN_UP, since, "stops and starts")
        self.must_carry("a stop and a start")

    def rekey(self, _number):
        before = self.daemon.statistics()["rekey_success"]
        wait_until(
            lambda: self.daemon.statistics()["rekey_success"] > before,
            REKEY / self.factor + self.patience(),
            "a rekey",
            pause=REKEY / self.factor / 4,
        )
        self.done["rekeys"] += 1
        self.must_carry("a rekey")

    def refuse(self, number):
        how = REFUSALS[number % len(REFUSALS)]
        failed = self.lines.count("Closing connection and bringing down tun ")
        if how == "key":
            self.gateway.kill()
            self.gateway.set_key(PSK_KEY[::-1])
            self.gateway.start()
        else:
            self.gateway.ask("accept", mode=how)
            self.gateway.ask("close", how="rst")
        wait_until(
            lambda: self.lines.count("Closing connection and bringing down tun ") > failed + 2,
            self.patience(),
            "two refusals",
        )
        if how == "key":
            self.gateway.kill()
            self.gateway.set_key(PSK_KEY)
            self.gateway.start()
        else:
            self.gateway.ask("accept", mode="normal")
        self.must_carry(f"refusals ({how})")
        self.done["refusals"] += 1

    # The whole.

    def size(self):
        kinds = Counter(re.sub(r"\d+", "N", target) for target in self.daemon.descriptors().values())
        return self.daemon.process.resident_kb(), kinds, self.daemon.process.threads()

    def run(self, rounds, name):
        since = self.controller.count
        self.daemon.start()
        self.must_report(records.TUN_UP, since, "first starts")
        self.must_carry("the first start")
        first, began = None, time.monotonic()
        for number in range(rounds):
            for disturb in (self.kill, self.stop_and_start, self.rekey, self.refuse):
                disturb(number)
            if number == min(SETTLED, rounds // 2):
                first = self.size()
            if number % 50 == 49:
                took, memory = time.monotonic() - began, self.daemon.process.resident_kb()
                print(f"{name}: {number + 1} rounds, {took:.0f} s, {memory} kB", flush=True)
        self.judge(first, rounds, name)

    def judge(self, first, rounds, name):
        def same_descriptors():  # a look may meet a rekey with its second connection, or a report
            return self.size()[1] == first[1] or self.size()[1] <= first[1]

        wait_until(same_descriptors, 10, lambda: f"the descriptors of the beginning: {first[1]}, now {self.size()[1]}")
        last = self.size()
        growth = last[0] - first[0]
        status = self.daemon.exit()
        self.lines.look()
        gaps = self.lines.gaps()
        print(
            f"{name}: {rounds} rounds: {dict(self.done)}; memory {first[0]} -> {last[0]} kB, descriptors "
            f"{sum(last[1].values())}, threads {last[2]}, {len(self.lines.counts)} log lines, {gaps} missing, "
            f"exit {status}",
            flush=True,
        )
        assert growth <= MEMORY_GROWTH, f"the memory grew by {growth} kB"
        assert last[2] == THREADS, f"{last[2]} threads"
        assert gaps == 0, f"{gaps} lines are missing in the log"
        assert status == 1, f"exit status {status}"


def soak(arguments, fast_clock, number):
    rounds = arguments.rounds // arguments.worlds + (number < arguments.rounds % arguments.worlds)
    life = Soak(Path(arguments.build or BUILD).resolve(), arguments.factor, fast_clock)
    try:
        life.run(rounds, f"soak {number + 1}")
        return True
    except AssertionError as finding:
        print(f"soak {number + 1}: {dict(life.done)}: {finding}", flush=True)
        return False
    finally:
        life.close()


def main():
    parser = argparse.ArgumentParser(description="A long life of one daemon.")
    parser.add_argument("--rounds", type=int, default=100)
    parser.add_argument("--factor", type=float, default=40)
    parser.add_argument("--worlds", type=int, default=1)
    parser.add_argument("--build")
    arguments = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="tlsc-soak-") as place:
        fast_clock = f"{place}/faster.so"
        source = Path(__file__).with_name("faster.c")
        subprocess.run(["cc", "-shared", "-fPIC", "-O2", "-o", fast_clock, source, "-ldl"], check=True)
        os.environ["TLSC_FASTER"] = fast_clock  # its directory is shown in the worlds
        with ThreadPoolExecutor(arguments.worlds) as pool:
            passed = list(pool.map(lambda number: soak(arguments, fast_clock, number), range(arguments.worlds)))
    print(f"soak: {'passed' if all(passed) else 'FAILED'}")
    sys.exit(0 if all(passed) else 1)


if __name__ == "__main__":
    main()
