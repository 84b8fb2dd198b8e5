#!/usr/bin/python3
"""One fault at a time in a tunnel's life: every system call and allocation fails once, with each error it can have.

    campaign.py [--part N/M] [--seconds S] [--jobs J] [--only TEXT] [--list] [--build DIR]

    --part N/M   the Nth of M equal shares of the cases (default: all)
    --seconds S  a sample, spread evenly over the cases, for so long
    --only TEXT  cases whose name holds the text
    --list       names the cases and ends
    TLSC_BUILD   build directory whose gateway is used, and whose daemon unless --build names another

The story of a life: the daemon begins, START, the tunnel comes up and carries a packet, a rekey, another packet, STOP,
EXIT. A first life without a fault is recorded; its calls give the cases. A case is a system call, the how-manieth of
its kind in a thread, and an error (strace injects it); or the number of an allocation (a preloaded library lets it
fail). The daemon's waits are divided, so that 90 seconds of its own pass within some.

What must hold in each case:
- the daemon does not crash, and EXIT (or, where its pipe could not be made, SIGTERM) ends it in time;
- the tunnel is up and carries packets again by itself within 90 seconds, but for the cases of BY_CONTRACT.
"""

import argparse
import contextlib
import os
import re
import signal
import subprocess
import sys
import tempfile
import threading
import time
from collections import Counter
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parents[1] / "tools"))

from harness import records  # noqa: E402
from harness.controller import TO_DAEMON, Controller  # noqa: E402
from harness.daemon import CONF_FILE, TEMP_CONF_FILE, TUN_NAME, conf_text  # noqa: E402
from harness.gateway import Gateway  # noqa: E402
from harness.log import Log  # noqa: E402
from harness.world import BUILD, MANAGEMENT_IP, SITE_IP, World, WorldError, wait_until  # noqa: E402

FACTOR = 20        # the daemon's own waits are divided by it
RECOVERY = 90      # seconds of its own within which the tunnel is up again
SLACK = 6          # seconds that a loaded machine adds to anything
REKEY = 60         # seconds, as the gateway assigns it
EXIT_SECONDS = 10  # an end in time

STRACE_OUT = "/tmp/strace"
ERRORS = "/tmp/daemon.err"
NOBODY_READS = "no reader"

# The errors that a call can have. What a story calls and is not here cannot fail on what it is given, or not without
# having done its work, or tells of its failure otherwise than by an error (brk).
CALL_ERRORS = {
    "openat": "EMFILE ENFILE ENOMEM EACCES ENOENT EINTR",
    "read": "EINTR EIO EAGAIN",
    "write": "EINTR EAGAIN EPIPE ENOSPC EIO",
    "recvfrom": "EINTR EAGAIN ECONNRESET ENOMEM",
    "sendto": "EINTR EAGAIN EPIPE ENOBUFS",
    "socket": "EMFILE ENFILE ENOBUFS ENOMEM EACCES",
    "connect": "ECONNREFUSED ETIMEDOUT ENETUNREACH EINTR EADDRNOTAVAIL",
    "ioctl": "ENOMEM EBUSY ENODEV EPERM EINTR",
    "epoll_create1": "EMFILE ENFILE ENOMEM",
    "epoll_ctl": "ENOMEM ENOSPC",
    "epoll_wait": "EINTR",
    "epoll_pwait": "EINTR",
    "timerfd_create": "EMFILE ENFILE ENOMEM",
    "timerfd_settime": "ENOMEM",
    "eventfd2": "EMFILE ENFILE ENOMEM",
    "poll": "EINTR ENOMEM",
    "pipe": "EMFILE ENFILE",
    "pipe2": "EMFILE ENFILE",
    "clone": "EAGAIN ENOMEM",
    "clone3": "EAGAIN ENOMEM",
    "vfork": "EAGAIN ENOMEM",
    "mmap": "ENOMEM",
    "mprotect": "ENOMEM",
    "madvise": "EAGAIN",
    "mknodat": "EEXIST ENOSPC EACCES",
    "mknod": "EEXIST ENOSPC EACCES",
    "unlink": "EIO EACCES",
    "unlinkat": "EIO EACCES",
    "rename": "EIO EACCES ENOSPC",
    "renameat": "EIO EACCES ENOSPC",
    "fsync": "EIO ENOSPC",
    "truncate": "EIO",
    "ftruncate": "EIO",
    "fchown": "EPERM",
    "fchmod": "EPERM",
    "newfstatat": "ENOMEM EACCES",
    "fstat": "ENOMEM",
    "statx": "ENOMEM",
    "lseek": "EINVAL",
    "pread64": "EIO",
    "access": "EACCES ENOMEM",
    "faccessat": "EACCES ENOMEM",
    "faccessat2": "EACCES ENOMEM",
    "getrandom": "EINTR EAGAIN",
    "clock_nanosleep": "EINTR",
    "wait4": "EINTR ECHILD",
    "shutdown": "ENOTCONN",
    "prctl": "EINVAL",
    "sched_getaffinity": "EINVAL",
}

# Where one fault may keep the tunnel down until the controller gives the next order: the injected line, and why.
# The pattern is looked for in strace's line of the call, which begins with the name of the call.
BY_CONTRACT = [
    (
        r"^openat\(.*wlc-sec-tun",
        "the configuration file could not be opened: the parameters stay empty until the next START",
    ),
    (r'^(fstat|newfstatat)\(.*', "the same: the file's owner and mode are not known, so it is not rewritten nor read"),
    (r"^read\(\d+, .*, 512\)", "the configuration file could not be read to its end: what was read is what there is"),
    (r"wlcSecTunReadAllConf", "the same"),
    (
        r"tlsc_init_ssl_config|tlsc_init_session|tlsc_init_openssl|OPENSSL_init_(crypto|ssl) < .*tlsc_init",
        "OpenSSL, TLS context and session record are made once, at the first start, and not again",
    ),
    (
        r" < EVP_\w+_fetch < ",
        "the 3.0 series of OpenSSL remembers an algorithm that it could not load as unsupported for good",
    ),
    (
        r"^clone3?\(|^mprotect\(\w+, 8388608|^mmap\(.*MAP_STACK|pthread_create < tlsc_start_epoll_mon_thread",
        "a monitor thread that could not be made is a failed start: the controller is told, and decides",
    ),
    (
        r"^(socket\(AF_INET, SOCK_DGRAM|ioctl\(\d+, SIOC).*(ENOMEM|EMFILE|ENOBUFS)",
        "memory, descriptors or buffers that run out while the interface is brought up end the client in order",
    ),
    (
        r"^ioctl\(\d+, SIOC.*EPERM",
        "a refused permission is error 1, which reads as success: the interface stays down until the tunnel's next life",
    ),
]


@dataclass(frozen=True)
class Case:
    """kind: "start" (from the program's first call), "run" (from the idle daemon on) or "alloc"."""

    kind: str
    call: str
    when: int
    error: str = ""

    def __str__(self):
        return f"{self.kind}:{self.call}#{self.when}{':' + self.error if self.error else ''}"


class Judgement(Exception):
    """The daemon did not live up to it."""


@dataclass
class Outcome:
    case: Case
    verdict: str  # "ok", "not reached", "by contract" or what went wrong
    injected: str = ""
    text: str = ""


# ---- one life --------------------------------------------------------------------------------------------------------


class Stage:
    """A world with gateway and controller, in which one daemon after the other lives."""

    def __init__(self, build, libraries):
        self.build = build
        self.libraries = libraries
        self.world = World()
        self.controller = Controller(self.world)
        self.gateway = Gateway(self.world, ["--rekey", str(REKEY), "--dpd", "200"])

    def close(self):
        with contextlib.suppress(OSError, WorldError):
            self.controller.close()
        self.world.close()

    def carries(self):
        """True when a packet goes to the site and back."""
        route = f"route replace 10.9.0.0/24 dev {TUN_NAME} src {MANAGEMENT_IP}".split()
        self.world.run(["ip", "-n", "device", *route], check=False)
        ping = ["ping", "-q", "-c", "1", "-i", "0.2", "-W", "1", "-I", MANAGEMENT_IP, SITE_IP]
        return self.world.run(ping, ns="device", check=False)["status"] == 0


class Life:
    """One daemon and its story."""

    def __init__(self, stage, strace=(), attach=(), fail_at=0, patience=RECOVERY / FACTOR):
        self.stage = stage
        self.patience = patience + SLACK
        self.world = stage.world
        for name in ("/tmp/tlsc_log", STRACE_OUT, STRACE_OUT + ".run", ERRORS, TEMP_CONF_FILE, TO_DAEMON):
            with contextlib.suppress(FileNotFoundError):
                os.unlink(self.world.path(name))
        self.world.write(CONF_FILE, conf_text())
        self.log = Log(self.world)
        preload = " ".join(f"{stage.libraries}/{name}" for name in ["faster.so"] + ["alloc.so"] * bool(fail_at))
        settings = {"LD_PRELOAD": preload, "FASTER": str(FACTOR), "FAIL_AT": str(max(0, fail_at))}
        command = [str(stage.build / "bin/tlsc")]
        if strace:
            words = ["strace", "-f", "-qq", "-o", STRACE_OUT, *strace]
            command = words + [word for name, value in settings.items() for word in ("-E", f"{name}={value}")] + command
            settings = {}
        self.process = self.world.spawn(command, ns="device", env=settings, stdout="/tmp/daemon.out", stderr=ERRORS)
        self.is_traced = bool(strace)
        self.tracer = None
        self.has_pipe = self._wait(self._reads, SLACK)
        self.tracer = self._attach(attach) if attach and self.has_pipe else None

    def _attach(self, words):
        pid = self.daemon_pid()
        tracer = self.world.spawn(["strace", "-f", "-qq", "-o", STRACE_OUT, *words, "-p", str(pid)], stderr=ERRORS)
        status = Path(self.world.path(f"/proc/{pid}/status"))
        self._wait(lambda: "TracerPid:\t0\n" not in status.read_text(), SLACK)
        return tracer

    def _wait(self, check, timeout):
        """True as soon as the check is; false in the end. Raises when the daemon has gone."""
        deadline = time.monotonic() + timeout
        while True:
            with contextlib.suppress(OSError, WorldError):
                if check():
                    return True
            self._detach_when_injected()
            self.must_live()
            if time.monotonic() > deadline:
                return False
            time.sleep(0.03)

    def _detach_when_injected(self):
        """The tracer counts in each thread: the next tunnel thread would meet the same fault again."""
        if self.tracer and self.injected():
            with contextlib.suppress(WorldError):
                self.tracer.signal(signal.SIGTERM)
                self.tracer.wait(SLACK)
            self.tracer = None

    def _reads(self):
        os.close(os.open(self.world.path(TO_DAEMON), os.O_WRONLY | os.O_NONBLOCK))
        return True

    def must_live(self):
        status = self.process.wait(0)
        if status is not None:
            raise Judgement(f"ended by itself, status {status}")

    def daemon_pid(self):
        """Its number in the world: the process itself, or strace's first child."""
        if not self.is_traced:
            return self.process.pid
        pid = self.process.pid
        return int(Path(self.world.path(f"/proc/{pid}/task/{pid}/children")).read_text().split()[0])

    def order(self, message):
        with contextlib.suppress(OSError, AssertionError):
            self.stage.controller.order(message)

    def comes_up(self):
        return self._wait(self.stage.carries, self.patience)

    def end(self):
        """EXIT, or SIGTERM where nobody reads. Returns the status, or None when it goes on."""
        if self.has_pipe:
            self.order(records.EXIT)
        else:
            with contextlib.suppress(WorldError, OSError, IndexError):
                self.world.ask(do="signal", pid=self.daemon_pid(), signal=signal.SIGTERM)
        return self.process.wait(EXIT_SECONDS)

    def clear_away(self):
        with contextlib.suppress(WorldError, OSError, IndexError, ValueError):
            if self.process.wait(0) is None:
                self.world.ask(do="signal", pid=self.daemon_pid(), signal=signal.SIGKILL)
        for process in (self.process, self.tracer):
            if process:
                with contextlib.suppress(WorldError):
                    if process.wait(1) is None:
                        process.kill()

    def injected(self):
        """strace's line of the failed call."""
        with contextlib.suppress(FileNotFoundError):
            for line in self.world.read(STRACE_OUT).decode(errors="replace").splitlines():
                if "(INJECTED)" in line:
                    return re.sub(r"^\d+ +", "", line)
        return ""


def tell_story(life):
    """Returns what the tunnel did: "" or why it counts as down."""
    if not life.has_pipe:
        return NOBODY_READS
    life.order(records.TUN_START)
    if not life.comes_up():
        return "the tunnel did not come up"
    rekeys = life.log.count("Started Rekey Timer for")
    life._wait(lambda: life.log.count("Started Rekey Timer for") > rekeys, REKEY / FACTOR + SLACK / 2)
    if not life.comes_up():
        return "the tunnel did not come back after the rekey"
    life.order(records.TUN_STOP)
    life._wait(lambda: "epoll thread exiting normally" in life.log.text, 1)
    return ""


def judge_end(life, status):
    if status is None:
        raise Judgement("does not end")
    if status < 0 and not (status == -signal.SIGTERM and not life.has_pipe):
        raise Judgement(f"crashed, signal {-status}")
    if life.has_pipe and status != 1:
        raise Judgement(f"ended with status {status}")


def live(stage, case, patience=RECOVERY / FACTOR):
    """One case in a stage."""
    inject = ["-e", f"trace={case.call}", "-e", f"inject={case.call}:error={case.error}:when={case.when}"]
    life = None
    text = ""
    try:
        life = Life(
            stage,
            strace=inject if case.kind == "start" else (),
            attach=inject if case.kind == "run" else (),
            fail_at=case.when if case.kind == "alloc" else 0,
            patience=patience,
        )
        down = tell_story(life)
        text = life.log.text[-3000:]
        judge_end(life, life.end())
    except Judgement as judgement:
        down = str(judgement)
    finally:
        if life:
            life.clear_away()
    injected = life.injected()
    if case.kind == "alloc":
        injected = failed_allocation(stage, life)
    return Outcome(case, verdict_of(case, down, injected), injected, text if down else "")


def failed_allocation(stage, life):
    """The functions that the failed allocation was for, innermost first."""
    names = []
    for line in life.world.read(ERRORS).decode(errors="replace").splitlines():
        match = re.match(r"(\S+)\((\w*)\+(0x[0-9a-f]+)\)", line)
        if match and match[1].endswith("/tlsc"):
            ask = ["addr2line", "-f", "-i", "-e", stage.build / "bin/tlsc", match[3]]
            names.append(subprocess.run(ask, capture_output=True, text=True).stdout.split("\n")[-3])
        elif match and match[2] and "alloc.so" not in match[1]:
            names.append(match[2])
    return " < ".join(names)


def verdict_of(case, down, injected):
    if not down:
        return "ok" if injected else "not reached"
    if down == NOBODY_READS and case.kind == "start":
        return "by contract: without its pipe nobody can give it an order; SIGTERM ends it"
    if down.startswith("the tunnel"):
        for pattern, reason in BY_CONTRACT:
            if re.search(pattern, injected):
                return f"by contract: {reason}"
    return down


# ---- the cases -------------------------------------------------------------------------------------------------------

ALL_UP_TO = 12  # of a call's occurrences all are tried up to here, then ever fewer


def chosen(count):
    """Numbers of occurrences to try."""
    numbers, step, at = list(range(1, min(count, ALL_UP_TO) + 1)), 2, ALL_UP_TO + 2
    while at <= count:
        numbers.append(at)
        step += max(1, step // 2)
        at += step
    return numbers


def counted(text):
    """How often each call occurs, in the thread that has most of it."""
    threads = {}
    for line in text.splitlines():
        match = re.match(r"(\d+) +(\w+)\(", line)
        if match:
            threads.setdefault(match[1], Counter())[match[2]] += 1
    most = Counter()
    for counts in threads.values():
        for name, count in counts.items():
            most[name] = max(most[name], count)
    return most


def record(stage, **how):
    life = Life(stage, **how)
    try:
        down = tell_story(life)
        judge_end(life, life.end())
        if down:
            raise SystemExit(f"faults: the story does not even come off without a fault: {down}\n{life.log.tail()}")
        return life.world.read(ERRORS if "fail_at" in how else STRACE_OUT).decode(errors="replace")
    finally:
        life.clear_away()


def find_cases(stage):
    """All cases, and the calls of the story that cannot fail."""
    cases = []
    beginning = record(stage, strace=["-e", "trace=all"])
    first = beginning.split(None, 1)[0]
    mine = "\n".join(line for line in beginning.splitlines() if line.startswith(first + " "))
    loader, _, rest = mine.partition('"/dev/null", O_RDWR')  # the daemon's own first call
    own = rest.partition("clock_nanosleep(")[0]
    before, after = counted(loader), counted(mine[: len(mine) - len(rest) + len(own)])
    for call, errors in CALL_ERRORS.items():
        for when in range(before[call] + (call != "openat"), after[call] + 1):
            if when > 0:
                cases += [Case("start", call, when, error) for error in errors.split()]

    running = counted(record(stage, attach=["-e", "trace=all"]))
    for call, errors in CALL_ERRORS.items():
        cases += [Case("run", call, when, error) for when in chosen(running[call]) for error in errors.split()]

    told = re.search(r"allocations: (\d+)", record(stage, fail_at=-1))
    cases += [Case("alloc", "malloc", when) for when in chosen_allocations(int(told[1]))]
    return cases, sorted(set(running) - set(CALL_ERRORS))


def chosen_allocations(count):
    return sorted(set(range(1, count + 1, max(1, count // 400))))


# ---- the campaign ----------------------------------------------------------------------------------------------------


class Campaign:
    def __init__(self, arguments, libraries):
        self.build = Path(arguments.build or BUILD).resolve()
        self.arguments = arguments
        self.libraries = libraries
        self.deadline = time.monotonic() + arguments.seconds if arguments.seconds else None
        self.outcomes = []
        self._lock = threading.Lock()
        self._stages = threading.local()
        self._all_stages = []

    def stage(self):
        if not hasattr(self._stages, "stage"):
            self._stages.stage = Stage(self.build, self.libraries)
            with self._lock:
                self._all_stages.append(self._stages.stage)
        return self._stages.stage

    def close(self):
        for stage in self._all_stages:
            stage.close()

    def try_case(self, case):
        if self.deadline and time.monotonic() > self.deadline:
            return
        outcome = live(self.stage(), case)
        if outcome.verdict not in ("ok", "not reached") and not outcome.verdict.startswith("by contract"):
            # Once more, with patience: some of the daemon's waits are not divided, and the machine may be loaded.
            again = live(self.stage(), case, RECOVERY)
            outcome = again if again.verdict != "ok" else Outcome(case, "ok", again.injected)
        with self._lock:
            self.outcomes.append(outcome)
            if outcome.verdict not in ("ok", "not reached"):
                print(f"{case}: {outcome.verdict}\n    {outcome.injected}", flush=True)
                if self.arguments.verbose and not outcome.verdict.startswith("by contract"):
                    print(outcome.text, flush=True)

    def run(self):
        cases, impossible = find_cases(self.stage())
        print(f"faults: {len(cases)} cases; of the calls these cannot fail: {' '.join(impossible)}", flush=True)
        cases = self.share(cases)
        if self.arguments.list:
            print("\n".join(str(case) for case in cases))
            return 0
        with ThreadPoolExecutor(self.arguments.jobs) as pool:
            for _ in pool.map(self.try_case, cases):
                pass
        return self.report()

    def share(self, cases):
        if self.arguments.only:
            cases = [case for case in cases if self.arguments.only in str(case)]
        part, parts = (int(word) for word in self.arguments.part.split("/"))
        cases = cases[part - 1 :: parts]
        if not self.deadline:
            return cases
        order = []  # spread evenly: the middle of each half, of each quarter, ...
        step = 1 << len(cases).bit_length()
        while step > 1:
            order += range(step // 2, len(cases) + 1, step)
            step //= 2
        return [cases[number - 1] for number in order]

    def report(self):
        verdicts = Counter(outcome.verdict.partition(":")[0] for outcome in self.outcomes)
        wrong = sum(count for verdict, count in verdicts.items() if verdict not in ("ok", "not reached", "by contract"))
        told = ", ".join(f"{verdict}: {count}" for verdict, count in sorted(verdicts.items()))
        print(f"faults: {len(self.outcomes)} cases run; {told}")
        print(f"faults: {wrong} wrong", flush=True)
        return 1 if wrong else 0


@contextlib.contextmanager
def prepared_libraries():
    with tempfile.TemporaryDirectory(prefix="tlsc-faults-") as place:
        sources = {"faster.so": HERE.parent / "system/faster.c", "alloc.so": HERE / "failing_alloc.c"}
        for name, source in sources.items():
            compiler = ["cc", "-shared", "-fPIC", "-O2", "-Wall"]
            subprocess.run([*compiler, "-o", f"{place}/{name}", source, "-ldl"], check=True)
        os.environ["TLSC_FASTER"] = f"{place}/faster.so"  # its directory is shown in the worlds
        yield place


def main():
    parser = argparse.ArgumentParser(description="One fault at a time in a tunnel's life.")
    parser.add_argument("--part", default="1/1", help="N/M: the Nth of M shares")
    parser.add_argument("--seconds", type=float, help="a sample, for so long")
    parser.add_argument("--jobs", type=int, default=max(2, (os.cpu_count() or 2) * 2), help="worlds side by side")
    parser.add_argument("--only", help="cases whose name holds this text")
    parser.add_argument("--list", action="store_true", help="name the cases only")
    parser.add_argument("--build", help="build directory of the daemon")
    parser.add_argument("--verbose", action="store_true", help="the end of the log with each finding")
    arguments = parser.parse_args()
    with prepared_libraries() as libraries:
        campaign = Campaign(arguments, libraries)
        try:
            sys.exit(campaign.run())
        finally:
            campaign.close()


if __name__ == "__main__":
    main()
