#!/usr/bin/python3
"""Orders, answers and faults in random order at random moments, and one daemon that must live with them.

    stress.py [--seed N] [--seconds S] [--worlds W] [--build DIR]

    TLSC_BUILD  build directory whose bin/tlsc-gateway is used (default: build/ of the project)
    --build     build directory whose bin/tlsc is stressed, with or without sanitizers (default: the same)

Each world has a gateway, a controller, and a daemon that is started again after every exit. The seed gives the
operations, their arguments and the pauses between them; it is printed first and gives the same sequence again. Where
the threads meet is up to the machine.

What must hold:
- all the time (class Watch): the process lives, has at most three threads (main, monitor, tunnel), and no more
  descriptors and memory than one tunnel needs;
- between the operations: a request for the process id is answered in the time that the orders before it may take;
- now and then (recover): when every fault has ended, there is one tunnel that carries packets;
- at the end of each life: the exit is quick and has status 1, and no sanitizer has reported anything.
"""

import argparse
import contextlib
import heapq
import itertools
import os
import random
import struct
import subprocess
import sys
import tempfile
import threading
import time
from collections import Counter
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from unittest import mock

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "tools"))

from harness import records  # noqa: E402
from harness.controller import TO_DAEMON, Controller  # noqa: E402
from harness.daemon import CONF_FILE, TUN_NAME, Daemon, conf_text  # noqa: E402
from harness.gateway import Gateway, GatewayError  # noqa: E402
from harness.sanitizers import complains, runtime, surroundings  # noqa: E402
from harness.traffic import Transfer  # noqa: E402
from harness.world import (  # noqa: E402
    BLACK_HOLE_IP,
    BUILD,
    GATEWAY_IP,
    MANAGEMENT_IP,
    SITE_IP,
    World,
    WorldError,
    wait_until,
)

# The daemon's own times, in seconds; the preloaded clock divides them by its factor.
FACTORS = [2, 4, 8]
POLL = 2  # between two looks at the pipe
START_PAUSES = 1  # the pass over the configuration file
RESTART_PAUSES = 2  # the same, and the time for the stop
FAILED_SET_UP = 5  # five tries for the interface

HALT = 3  # the exit waits for a tunnel thread inside OpenSSL; not divided
SLACK = 6  # what a loaded machine adds to any of these
RECOVERY_SECONDS = 30

BUSY_NAME = "wan0"  # exists and is no TUN interface
INNER_IP = "10.9.0.77"
FRAME_RESPONSE = 2
LARGEST_OUTPUT = 64 << 20  # bytes of standard output that a life may leave behind

THREADS = 3
# Descriptors at most, by what they point to; standard streams apart. The second socket is the old transport of a rekey,
# the third asks for flags of the interface; both threads may write to the controller.
DESCRIPTORS = {
    "socket:": 3,
    "anon_inode:[timerfd]": 6,
    "anon_inode:[eventpoll]": 1,
    "/dev/net/tun": 1,
    "pipe:": 2,
    "/tmp/tlsc_log": 1,
    "/storage/": 2,
    "-fifo": 3,
}
LEFT_BEHIND = ("anon_inode:[eventpoll]", "/dev/net/tun")  # one more of each after every set-up that failed
STANDARD_STREAMS = 3


class StressError(Exception):
    """The daemon did what it must not do, or did not do what it must."""


# ---- the build under stress ------------------------------------------------------------------------------------------


class Build:
    """A daemon, the environment it needs, and its size."""

    def __init__(self, directory, fast_clock):
        self.binary = Path(directory).resolve() / "bin/tlsc"
        self.sanitizer = Path(runtime(self.binary) or "none").name
        self.environment = surroundings(self.binary, {"LD_PRELOAD": fast_clock})
        self.memory = (
            24_000 if self.sanitizer == "none" else 200_000
        )  # resident kilobytes; a sanitizer keeps what was freed
        self.threads = THREADS + ("libtsan" in self.sanitizer)  # which has one of its own


@contextlib.contextmanager
def prepared(directory):
    """The build in that directory, shown in the worlds made meanwhile together with the library that divides its waits."""
    with tempfile.TemporaryDirectory(prefix="tlsc-stress-") as place:
        fast_clock = f"{place}/faster.so"
        subprocess.run(
            ["cc", "-shared", "-fPIC", "-O2", "-o", fast_clock, Path(__file__).with_name("faster.c"), "-ldl"],
            check=True,
        )
        with mock.patch.dict(os.environ, TLSC_FASTER=fast_clock, TLSC_SAN_BUILD=str(Path(directory).resolve())):
            yield Build(directory, fast_clock)


# ---- what is looked at all the time ----------------------------------------------------------------------------------


class Watch:
    """Looks at one life of the daemon through /proc, from a thread of its own, until it is closed."""

    PAUSE = 0.02
    CONFIRMATIONS = 8  # looks in a row that find too many descriptors or too much memory
    PF_EXITING = 0x4  # of the kernel's thread flags

    def __init__(self, run):
        self.build = run.build
        self.process = run.daemon.process
        self.failed_set_ups = 0  # at most
        self.error = None
        self.most = Counter()
        self.looks = 0
        self._end = threading.Event()
        self._thread = threading.Thread(target=self._watch, daemon=True)
        self._thread.start()

    def close(self):
        self._end.set()
        self._thread.join()

    def _watch(self):
        excesses = 0  # in a row
        while self.error is None and not self._end.wait(self.PAUSE):
            try:
                if self._fields("stat")[0] in "ZX":
                    self.error = "the process has died"
                    return
                self._look_at_threads()
                excess = self._excess()
            except (
                FileNotFoundError,
                ProcessLookupError,
                WorldError,
            ):  # it has gone while it was looked at; seen next time
                continue
            self.looks += 1
            excesses = excesses + 1 if excess else 0
            if excesses >= self.CONFIRMATIONS:
                self.error = excess

    def _fields(self, name):
        """The fields of a stat file behind the program's name, the state first; see proc(5)."""
        return Path(self.process.proc(name)).read_text().rpartition(")")[2].split()

    def _look_at_threads(self):
        """One thread too many is wrong however short it lives. One that is on its way out may have been joined already."""
        living = []
        for task in os.listdir(self.process.proc("task")):
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                if not int(self._fields(f"task/{task}/stat")[6]) & self.PF_EXITING:
                    living.append(task)
        self._note("threads", len(living))
        if len(living) > self.build.threads:
            self.error = f"{len(living)} threads, at most {self.build.threads}: {living}"

    def _excess(self):
        """What there is too much of, as a text. Not one moment's picture: descriptors change while they are listed."""
        targets = [target for number, target in self.process.descriptors().items() if number >= STANDARD_STREAMS]
        kinds = Counter(next((kind for kind in DESCRIPTORS if kind in target), target) for target in targets)
        self._note("descriptors", len(targets))
        for kind, count in kinds.items():
            limit = DESCRIPTORS.get(kind, 0) + (self.failed_set_ups if kind in LEFT_BEHIND else 0)
            if count > limit and (
                kind in DESCRIPTORS or self.build.sanitizer == "none"
            ):  # one opens what it reports about
                return f"{count} descriptors of kind {kind}, at most {limit}: {dict(kinds)}"

        memory = self.process.resident_kb()
        self._note("kB", memory)
        return f"{memory} kB resident, at most {self.build.memory}" if memory > self.build.memory else None

    def _note(self, name, value):
        self.most[name] = max(self.most[name], value)


# ---- one world -------------------------------------------------------------------------------------------------------


class Ear(Controller):
    """A controller that outlives its daemon: an answer that nobody reads any more is left out."""

    def take_one(self):
        with contextlib.suppress(OSError):
            return super().take_one()
        return True


class Run:
    """One world and its sequence of operations."""

    def __init__(self, seed, build):
        self.seed = seed
        self.build = build
        # Drawn from by what stands in the sequence only, never by what depends on time: so a seed can be replayed.
        self.rng = random.Random(seed)
        self.world = World()
        self.world.run(
            ["sh", "-c", "echo 1 > /proc/sys/net/ipv4/tcp_syn_retries"], ns="device"
        )  # a black hole holds for 3 s
        self.controller = Ear(self.world, GATEWAY_IP)
        self.gateway = Gateway(self.world)
        self.daemon = None
        self.watch = None
        self.began = time.monotonic()
        self.trace = []
        self.undo = []  # heap of (moment, number, operation): what ends a fault
        self.undo_numbers = itertools.count()
        self.done = Counter()  # operations, by name
        self.happened = Counter()
        self.most = Counter()

    def close(self):
        self.controller.close()
        self.world.close()

    # A life of the daemon.

    def begin_life(self):
        self.factor = self.rng.choice(FACTORS)
        # Each life has its own likes: what is rare on the whole comes often in some, and what does harm is absent from
        # some.
        self.weights = [
            weight if operation in ALWAYS else weight * self.rng.choice([0, 1, 1, 3])
            for operation, weight in CHOICES.items()
        ]
        self.world.run(["sh", "-c", "rm -f /tmp/daemon.out /tmp/daemon.err /tmp/tlsc_log*"])
        self.daemon = Daemon(
            self.world,
            self.controller,
            binary=self.build.binary,
            conf=conf_text(),
            env={**self.build.environment, "FASTER": str(self.factor)},
        )
        self.watch = Watch(self)
        self.cost_sent = self.cost_done = 0.0  # seconds that orders may hold up the daemon's main thread
        self.out_of_step_until = 0.0
        self.failing_since = None
        self.heartbeat = None  # (place, moment, deadline, cost before it) of the one that is under way
        self.next_heartbeat = time.monotonic()
        self.happened["lives"] += 1

    def end_life(self):
        """The exit, from whatever state the daemon is in, and what is left behind."""
        self.wait_out_of_step()
        self.close_watch()

        began = time.monotonic()
        bound = self.backlog() + HALT + SLACK
        self.send_patiently(records.record(records.EXIT), bound)
        status = self.daemon.process.wait(bound)
        if status is None:
            raise StressError(f"the exit has not come in {bound:.1f} s")
        self.note_most("seconds to an exit", time.monotonic() - began)
        self.check_reports()
        if status != 1:
            raise StressError(f"exit status {status}: {self.daemon.errors()[-3000:]}")
        if self.world.exists(TO_DAEMON):
            raise StressError("the daemon's pipe is left behind")
        self.happened["times up"] += len(self.controller.all(records.TUN_UP))
        self.controller.received.clear()

    def close_watch(self):
        watch, self.watch = self.watch, None
        watch.close()
        self.happened["looks"] += watch.looks
        for name, value in watch.most.items():
            self.note_most(name, value)
        if watch.error:
            self.check_reports()
            raise StressError(watch.error)

    def note_most(self, name, value):
        self.most[name] = max(self.most[name], value)

    # What the operations use.

    def poll(self):
        return POLL / self.factor

    def backlog(self):
        """Seconds until the daemon has begun with what is sent now, at most."""
        return self.poll() + self.cost_sent - self.cost_done

    def send(self, data, cost=0.0):
        """Sends a record. False when the pipe is full."""
        try:
            self.controller.send_bytes(data)
        except BlockingIOError:
            self.happened["full pipes"] += 1
            return False
        except OSError as error:
            raise StressError(f"nobody reads the daemon's pipe: {error}") from error
        self.cost_sent += cost
        return True

    def send_patiently(self, data, seconds):
        wait_until(lambda: self.send(data), seconds, "room in the pipe", pause=0.1)

    def order(self, msg_id):
        pauses = {records.TUN_START: START_PAUSES, records.TUN_RESTART: RESTART_PAUSES}.get(msg_id, 0)
        self.send(records.record(msg_id), cost=pauses / self.factor)

    def ask(self, cmd, **arguments):
        """A request to the gateway. What the gateway cannot do at this moment is left undone."""
        with contextlib.suppress(GatewayError):
            self.gateway.ask(cmd, **arguments)

    def write_settings(self, **changes):
        self.world.write(CONF_FILE, conf_text(**changes))

    def add_route(self):
        self.world.run(
            ["ip", "-n", "device", "route", "replace", "10.9.0.0/24", "dev", TUN_NAME, "src", MANAGEMENT_IP],
            check=False,
        )

    def later(self, seconds, operation):
        heapq.heappush(self.undo, (time.monotonic() + seconds, next(self.undo_numbers), operation))

    def undo_due(self, all_of_them=False):
        while self.undo and (all_of_them or self.undo[0][0] <= time.monotonic()):
            heapq.heappop(self.undo)[2]()

    # What is looked at between the operations.

    def check(self):
        if self.failing_since is not None:
            self.watch.failed_set_ups = 3 + int((time.monotonic() - self.failing_since) * self.factor / FAILED_SET_UP)
        if self.watch.error:
            self.close_watch()
        if self.controller.fragments:
            raise StressError(f"the controller has read pieces of records: {self.controller.fragments}")
        self.check_heartbeat()

    def check_reports(self):
        errors = self.daemon.errors()
        if complains(errors):
            raise StressError(f"a sanitizer has reported:\n{errors[:20000]}")

    def check_heartbeat(self):
        """A request for the process id is under way most of the time; its answer shows that all before it was handled."""
        now = time.monotonic()
        if self.heartbeat:
            place, sent, deadline, cost = self.heartbeat
            answers = self.controller.all(records.PROCESS_INFO, place)
            if answers:
                if struct.unpack_from("=i", answers[0].data, 8)[0] != self.daemon.process.pid:
                    raise StressError(f"the wrong process id: {answers[0].data[:16].hex()}")
                self.happened["answers"] += 1
                self.note_most("seconds to an answer", answers[0].at - sent)
                self.cost_done = cost
                self.heartbeat = None
                self.next_heartbeat = now + 0.2
            elif now > deadline:
                raise StressError(f"no answer for {now - sent:.1f} s to a request for the process id")
            return

        due = max(self.next_heartbeat, self.out_of_step_until)
        if now >= due:
            place, cost, patience = self.controller.count, self.cost_sent, self.backlog() + SLACK
            if self.send(records.record(records.PROCESS_REQUEST)):
                self.heartbeat = (place, now, now + patience, cost)
            elif now > due + patience:
                raise StressError(f"the pipe has been full for {now - due:.1f} s")

    def check_output(self):
        """Standard output gets what the log does not; nobody reads all of it."""
        with contextlib.suppress(FileNotFoundError):
            name = self.world.path("/tmp/daemon.out")
            if os.path.getsize(name) > LARGEST_OUTPUT:
                os.truncate(name, 0)

    def wait_out_of_step(self):
        self.pause(self.out_of_step_until - time.monotonic())

    def wait_until_idle(self):
        """Until the daemon has handled everything that was sent to it."""
        self.wait_out_of_step()
        enough = self.happened["answers"] + 2  # the first may be to a request that was under way
        while self.happened["answers"] < enough:
            self.pause(0.05)

    # The sequence.

    def stress(self, seconds):
        """Operations for that long, in one life of the daemon after the other."""
        end = time.monotonic() + seconds
        self.begin_life()
        while time.monotonic() < end:
            self.perform(self.rng.choices(list(CHOICES), self.weights)[0])
            self.pause(self.rng.choices([0.0, self.rng.expovariate(8), self.rng.expovariate(1)], [4, 8, 1])[0])
        self.perform(recover)
        self.end_life()

    def perform(self, operation):
        self.trace.append(f"{time.monotonic() - self.began:8.3f} {operation.__name__}")
        self.done[operation.__name__] += 1
        operation(self)

    def note(self, text):
        self.trace[-1] += f" {text}"

    def pause(self, seconds):
        """Looks on meanwhile, and ends the faults that are due."""
        end = time.monotonic() + seconds
        while True:
            self.undo_due()
            self.check()
            left = end - time.monotonic()
            if left <= 0:
                break
            time.sleep(min(left, 0.05))
        self.check_output()

    def summary(self):
        happened = ", ".join(f"{count} {name}" for name, count in self.happened.items())
        most = ", ".join(
            f"{value:.3g} {name}" if isinstance(value, float) else f"{value} {name}"
            for name, value in self.most.items()
        )
        operations = " ".join(f"{name}={count}" for name, count in sorted(self.done.items()))
        return f"seed {self.seed}: {self.done.total()} operations; {happened}; at most: {most}\n    {operations}"

    def report(self):
        """What a person wants to see of a failure."""
        parts = [
            f"seed {self.seed}",
            "--- the last operations",
            *self.trace[-40:],
            f"--- records received: {self.controller.kinds()[-40:]}",
        ]
        for name in ("/tmp/tlsc_log", "/tmp/daemon.out", "/tmp/daemon.err", "/tmp/gateway.log", "/tmp/gateway.err"):
            with contextlib.suppress(OSError):
                parts.append(f"--- {name}\n{self.world.read(name)[-5000:].decode(errors='replace')}")
        with contextlib.suppress(OSError):
            for task in sorted(os.listdir(self.daemon.process.proc("task"))):
                parts.append(f"--- thread {task}\n{Path(self.daemon.process.proc(f'task/{task}/stack')).read_text()}")
        return "\n".join(parts)


# ---- operations: orders and answers ----------------------------------------------------------------------------------


def start(run):
    run.order(records.TUN_START)


def stop(run):
    run.order(records.TUN_STOP)


def restart(run):
    run.order(records.TUN_RESTART)


def volley(run):
    """Several orders of which none waits for the other."""
    for msg_id in run.rng.choices(
        [records.TUN_START, records.TUN_STOP, records.TUN_RESTART, records.PROCESS_REQUEST, records.STATS_REQUEST],
        k=run.rng.randint(2, 5),
    ):
        run.order(msg_id)


def leave(run):
    """The exit, and another life."""
    run.end_life()
    run.begin_life()
    if run.rng.random() < 0.8:
        start(run)


def debug_level(run):
    word = run.rng.choice(
        ["errors", "warnings", "info", "debug", "ssl-dbg", "buf-print", "", "informational", "x" * 63]
    )
    run.note(word)
    run.send(records.debug_record("level", word))
    if word in ("debug", "ssl-dbg", "buf-print"):  # they write a lot
        run.later(run.rng.uniform(0.5, 4), lambda: run.send(records.debug_record("level", "info")))


def debug_destination(run):
    run.send(
        records.debug_record(
            run.rng.choice(["destination", "destination", "nowhere"]),
            run.rng.choice(["file", "console", "both", "paper"]),
        )
    )


def statistics(run):
    run.order(run.rng.choice([records.STATS_REQUEST, records.STATS_CLEAR]))


def hello(run):
    run.order(records.HELLO)


NAMES = [GATEWAY_IP] * 4 + [
    "::1",
    "fe80::1%lo",
    "not an address",
    "",
    "300.1.2.3",
    "x" * 500,
    BLACK_HOLE_IP,
    "127.0.0.1",
]


def send_name(run):
    """A name answer that nobody has asked for; the last word is mostly the true address."""
    text = run.rng.choice(NAMES)
    run.note(text[:20])
    run.send(records.text_record(records.NAME_ANSWER, text))
    if text != GATEWAY_IP:
        run.later(run.rng.uniform(0.2, 4), lambda: run.send(records.text_record(records.NAME_ANSWER, GATEWAY_IP)))


def answer_names(run):
    """What the next requests for the name are answered with; None is no answer."""
    run.controller.resolve = run.rng.choice([*NAMES, None])
    run.later(run.rng.uniform(1, 5), lambda: setattr(run.controller, "resolve", GATEWAY_IP))


def garbage(run):
    """A whole record of random bytes, of any identifier but the exit's."""
    msg_id = run.rng.choice([0, 28, 29, 31, 36, 38, 99, run.rng.getrandbits(32)])
    payload = run.rng.randbytes(records.PAYLOAD_SIZE)
    if msg_id != records.EXIT:
        run.send(struct.pack("=II", msg_id, run.rng.getrandbits(32)) + payload)


def fragment(run):
    """Less than a record. What follows is out of step until the daemon has emptied the pipe."""
    run.send(run.rng.randbytes(run.rng.randint(1, records.RECORD_SIZE - 1)))
    run.out_of_step_until = time.monotonic() + run.backlog() + run.poll() + 0.5


def settings(run):
    """The configuration file as the next start will read it."""
    changes = run.rng.choice(
        [
            {},
            {},
            {"tun_interface_name": "tlstun1"},
            {"device_id": "dev-0002", "system_name": None},
            {"psk_key": "wrong"},
            {"cipher_algo": "PSK-AES128-CBC-SHA"},
            {"server_ip_address": BLACK_HOLE_IP},
            {"server_ip_address": "gateway.example"},
            {"server_port": "1"},
            {"log_level": "debug", "log_dest": "both"},
            {"tun_interface_name": BUSY_NAME},
        ]
    )
    run.note(str(changes))
    if changes.get("tun_interface_name") == BUSY_NAME and run.failing_since is None:
        run.failing_since = time.monotonic()
    run.write_settings(**changes)
    run.later(run.rng.uniform(0.5, 6), run.write_settings)


# ---- operations: faults of the gateway -------------------------------------------------------------------------------


def lose(run):
    """The gateway ends the connection."""
    how = run.rng.choice(["fin", "rst", "notify", "alert", "half"])
    client = run.rng.choice([{}, {"client": "all"}])
    run.note(how)
    run.ask("close", how=how, **client, **({"code": run.rng.choice([0, 20, 40, 80, 255])} if how == "alert" else {}))


def refuse(run):
    """The gateway accepts no connection, or accepts one and says nothing for a while."""
    mode = run.rng.choice(["refuse", "reset", "stall", "stall_tls"])
    run.note(mode)
    run.ask("accept", mode=mode)
    if run.rng.random() < 0.7:
        run.ask("close", how="rst", client="all")
    run.later(run.rng.uniform(0.3, 7), lambda: accept_again(run))


def accept_again(run):
    run.ask("accept", mode="normal")
    for client in run.gateway.clients():
        if client["state"] in ("stalled", "handshake"):
            run.ask("close", how="rst", client=client["client"])


def withhold(run):
    """The next configuration requests get no response, a late one, or one that is none."""
    mode = run.rng.choice(
        [
            {"mode": "hold"},
            {"mode": "drop"},
            {"mode": "delay", "ms": run.rng.randint(1, 3000)},
            {"mode": "replace", "text": "X-CSTP-DPD:10\n"},
            {"mode": "replace", "text": response_text("X-CSTP-Address-Client:no address\n")},
            {"mode": "replace", "hex": run.rng.randbytes(run.rng.randint(0, 1400)).hex()},
            {"mode": "malform", "hex": run.rng.randbytes(run.rng.randint(1, 1600)).hex()},
            {"mode": "malform", "hex": b"STF\1\xff\xff\2\0".hex()},
        ]
    )
    run.note(mode["mode"])
    run.ask("config", **mode, once=run.rng.random() < 0.5)
    run.later(run.rng.uniform(0.3, 5), lambda: (run.ask("config", mode="release"), run.ask("config", mode="normal")))


def response_text(client_line=f"X-CSTP-Address-Client:{INNER_IP}\n"):
    times = "X-CSTP-Retry-Time:5\nX-CSTP-Rekey-Time:20\n"
    return f"X-CSTP-Address:10.9.0.0\nX-CSTP-Prefix-Length:24\nX-CSTP-DPD:5\n{client_line}{times}X-CSTP-DNS:{SITE_IP}\n"


def change_times(run):
    """Other intervals in the next responses: short, none, or nonsense."""
    header, value = run.rng.choice(
        [
            ("X-CSTP-Rekey-Time", run.rng.choice(["3", "5", "8", "1", "0", "-1", "soon", None])),
            ("X-CSTP-Rekey-Time", run.rng.choice(["3", "5", "8"])),
            ("X-CSTP-DPD", run.rng.choice(["5", "6", "9", None])),
            ("X-CSTP-Retry-Time", run.rng.choice(["1", "2", "0", "-3", None])),
            ("X-CSTP-Cookie", run.rng.choice(["short", "0123456789", None])),
            ("X-CSTP-Address-Client", run.rng.choice([INNER_IP, "10.9.0.300", None])),
        ]
    )
    run.note(f"{header}:{value}")
    run.ask("set", header=header, value=value, once=run.rng.random() < 0.3)
    run.later(run.rng.uniform(1, 8), lambda: run.ask("unset"))


def keep_silent(run):
    """The gateway answers no DPD request, or neither reads nor writes at all."""
    if run.rng.random() < 0.5:
        run.ask("dpd", on=False)
        run.later(run.rng.uniform(1, 8), lambda: run.ask("dpd", on=True))
    else:
        run.ask("silence", on=True, client="all")
        run.later(run.rng.uniform(0.3, 6), lambda: run.ask("silence", on=False, client="all"))


def send_frame(run):
    """A frame of any kind, with a length that may lie."""
    kind = run.rng.choice([0, 1, 2, 3, 4, 5, 255])
    size = run.rng.choice([0, 1, 19, 20, 60, 1436, 1437])
    payload = response_text().encode() if kind == FRAME_RESPONSE and run.rng.random() < 0.7 else run.rng.randbytes(size)
    length = run.rng.choice([None, None, 0, 1, 1436, 1437, 65535])
    run.note(f"type {kind}")
    run.ask("send_frame", type=kind, payload=payload.hex(), **({} if length is None else {"length": length}))


def send_record(run):
    """Records that are no frames, or come in two pieces: the rest of one that was begun is waited for."""
    data = run.rng.randbytes(run.rng.choice([0, 1, 7, 8, 1444, 1445, 5000, 16384]))
    cut = {"cut": run.rng.randint(1, 40), "gap_ms": run.rng.randint(1, 4000)} if run.rng.random() < 0.5 else {}
    content_type = run.rng.choice([23, 23, 23, 22, 21, 20, 99])
    run.ask("send_record", hex=data.hex(), type=content_type, **cut)


def send_bytes(run):
    """Bytes that are no TLS record."""
    run.ask("send_bytes", hex=run.rng.randbytes(run.rng.randint(1, 60)).hex())


def kill_gateway(run):
    """The gateway's end and its return. What was changed in it is normal again."""
    run.gateway.kill()
    run.gateway.start()


# ---- operations: traffic ---------------------------------------------------------------------------------------------


def ping(run):
    run.add_route()
    count, size = run.rng.randint(10, 600), run.rng.choice([0, 56, 1378, 1400])
    run.world.spawn(
        ["ping", "-q", "-i", "0.003", "-c", str(count), "-s", str(size), "-w", "4", "-I", MANAGEMENT_IP, SITE_IP],
        ns="device",
    )


def push(run):
    """A burst of packets from the gateway's side, of which some are none."""
    good = b"\x45\0\0\x1c\0\0\0\0\x40\x11\0\0" + bytes([10, 9, 0, 1, 10, 9, 0, 77]) + b"\x04\xd2\x10\xe1\0\x08\0\0"
    packet = run.rng.choice(
        [good, good, b"", b"\x45", b"\x60" + bytes(60), run.rng.randbytes(1436), run.rng.randbytes(1592)]
    )
    count = run.rng.choice([1, 10, 1000])
    for client in run.gateway.clients():
        run.ask("send_packet", client=client["client"], hex=packet.hex(), count=count)


def bulk(run):
    """Some megabytes over TCP from the device to the site, for as long as the tunnel lasts."""
    run.add_route()
    port = run.rng.randint(6000, 9999)
    transfer = Transfer(
        run.world, ("device", MANAGEMENT_IP), ("gateway", SITE_IP), "--seconds 2", port=port, options=["--no-hash"]
    )
    run.later(5, transfer.end)


# ---- operations: a look at the whole ---------------------------------------------------------------------------------


RECOVERIES = [
    [records.TUN_RESTART],
    [records.TUN_STOP, records.TUN_START],
    [records.TUN_START, records.TUN_STOP, records.TUN_START],
    [records.TUN_STOP, records.TUN_RESTART],
    [records.TUN_RESTART, records.TUN_RESTART],
]


def recover(run):
    """Orders in the midst of the faults, of which the last wants a tunnel; then every fault ends, and there must be one."""
    orders = run.rng.choice(RECOVERIES)
    run.note(str(orders))
    run.wait_until_idle()  # a pass over the configuration file that was under way has put its own file in place
    run.write_settings()
    for msg_id in orders:
        run.order(msg_id)
    run.undo_due(all_of_them=True)
    run.ask("unset")
    accept_again(run)
    run.controller.resolve = GATEWAY_IP

    run.wait_until_idle()
    began = time.monotonic()
    while not is_in_order(run):
        if time.monotonic() - began > RECOVERY_SECONDS:
            raise StressError(f"no tunnel with everything in order; connections: {run.gateway.clients()}")
    run.note_most("seconds to a recovery", time.monotonic() - began)
    run.check_reports()
    run.happened["recoveries"] += 1


def is_in_order(run):
    """One tunnel that carries packets, now and a little later."""
    for _ in range(2):
        run.pause(0.5)
        run.add_route()
        ping = ["ping", "-q", "-c", "1", "-W", "1", "-I", MANAGEMENT_IP, SITE_IP]
        if run.world.run(ping, ns="device", check=False)["status"] != 0 or [
            c["state"] for c in run.gateway.clients()
        ] != ["up"]:
            return False
    return True


# Frequencies, against each other; see begin_life.
CHOICES = {
    start: 8,
    stop: 5,
    restart: 4,
    volley: 2,
    leave: 1.5,
    debug_level: 6,
    debug_destination: 4,
    statistics: 8,
    hello: 1,
    send_name: 5,
    answer_names: 3,
    garbage: 3,
    fragment: 1,
    settings: 3,
    lose: 6,
    refuse: 3,
    withhold: 4,
    change_times: 4,
    keep_silent: 3,
    send_frame: 8,
    send_record: 3,
    send_bytes: 1,
    kill_gateway: 0.5,
    ping: 3,
    push: 3,
    bulk: 0.7,
    recover: 1.5,
}
ALWAYS = (start, leave, recover)


# ---- the whole -------------------------------------------------------------------------------------------------------


def stress_one(seed, seconds, build, say):
    """True when one world has lived through its sequence."""
    run = Run(seed, build)
    try:
        run.stress(seconds)
        say(run.summary())
        return True
    except (StressError, WorldError, AssertionError, OSError, ValueError) as error:
        if run.watch:
            with contextlib.suppress(StressError):
                run.close_watch()
        say(f"{run.summary()}\nstress: FAILED\n{type(error).__name__}: {error}\n{run.report()}")
        return False
    finally:
        run.close()


def stress(seed, seconds, worlds, directory=BUILD, say=print):
    """Runs so many worlds side by side, of seed, seed + 1 and so on. True when all of them went well."""
    seeds = range(seed, seed + worlds)
    with prepared(directory) as build, ThreadPoolExecutor(worlds) as pool:
        say(f"stress: seeds {list(seeds)}, {seconds:g} s, {build.binary}, sanitizer: {build.sanitizer}")
        return all(list(pool.map(lambda number: stress_one(number, seconds, build, say), seeds)))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument(
        "--seed",
        type=int,
        default=random.SystemRandom().randrange(1 << 30),
        help="of the first world (default: a new one)",
    )
    parser.add_argument("--seconds", type=float, default=60)
    parser.add_argument("--worlds", type=int, default=1, help="worlds side by side; each has the next seed")
    parser.add_argument("--build", default=BUILD, help="build directory of the daemon (default: %(default)s)")
    options = parser.parse_args()
    if os.getuid() != 0:
        parser.error("needs root (mount and network namespaces, TUN)")

    passed = stress(options.seed, options.seconds, options.worlds, options.build, lambda text: print(text, flush=True))
    print(f"stress: {'passed' if passed else 'FAILED'}")
    return 0 if passed else 1


if __name__ == "__main__":
    sys.exit(main())
