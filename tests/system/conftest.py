"""Fixtures of the system tests. Each test has a world of its own; see harness/world.py.

    TLSC_BUILD      build directory with bin/tlsc and bin/tlsc-gateway (default: build/ of the project)
    TLSC_SAN_BUILD  the same, built with sanitizers: its daemon runs in the pass -m sanitizer

    /usr/bin/python3 -m pytest -n 4 tests/system                    the usual run
    /usr/bin/python3 -m pytest -n 4 tests/system -m slow            what takes longer than a minute
    /usr/bin/python3 -m pytest -n 4 tests/system -m sanitizer       a hundred exits and a choice of tests with the sanitizers' daemon
    /usr/bin/python3 -m pytest tests/system -m bulk                 a gigabyte each way, system calls per packet
"""

import os
import subprocess
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).parent))

from harness.controller import Controller  # noqa: E402
from harness.daemon import Daemon, conf_text  # noqa: E402
from harness.gateway import Gateway  # noqa: E402
from harness.world import BUILD, GATEWAY_IP, World  # noqa: E402


OPT_IN = ("slow", "bulk", "sanitizer_only")


def pytest_collection_modifyitems(config, items):
    """Without -m, what is slow, bulky, or made for the sanitizers is left out."""
    chosen = config.getoption("-m")
    if "sanitizer" in chosen and "TLSC_SAN_BUILD" not in os.environ:
        raise pytest.UsageError("-m sanitizer needs TLSC_SAN_BUILD")
    missing = [name for name in ("tlsc", "tlsc-gateway") if not (BUILD / "bin" / name).exists()]
    if missing:
        raise pytest.UsageError(f"not built: {', '.join(missing)} in {BUILD}/bin (see TLSC_BUILD)")
    for item in items:
        if os.getuid() != 0:
            item.add_marker(pytest.mark.skip(reason="needs root (mount and network namespaces, TUN)"))
        elif not chosen and any(item.get_closest_marker(name) for name in OPT_IN):
            item.add_marker(pytest.mark.skip(reason=f"only with -m {' or -m '.join(OPT_IN)}"))


class Bench:
    """World, controller, gateway and daemon of one test, started as the test wants them, ended in the right order."""

    def __init__(self, sanitizer_build=None):
        self.world = World()
        self.sanitizer_build = sanitizer_build
        self.controller = None
        self.gateway = None
        self.daemon = None
        self.sanitizer_reports = []

    def make_controller(self, resolve=GATEWAY_IP, **more):
        self.controller = Controller(self.world, resolve, **more)
        return self.controller

    def make_gateway(self, *options, **more):
        self.gateway = Gateway(self.world, options, **more)
        return self.gateway

    def make_daemon(self, conf=None, **more):
        if self.controller is None:
            self.make_controller()
        if self.sanitizer_build:
            more = {"binary": self.sanitizer_build / "bin/tlsc", **more, "env": under_sanitizers(more.get("env", {}))}
        self.daemon = Daemon(self.world, self.controller, conf=conf_text() if conf is None else conf, **more)
        return self.daemon

    def make_tunnel(self, *options, **more):
        """Everything, and the tunnel up."""
        self.make_gateway(*options)
        self.make_daemon(**more)
        self.daemon.bring_up()
        self.daemon.add_route()
        return self

    def preload_fast_clock(self, factor):
        """Environment of a daemon whose waits are that many times shorter."""
        return {"LD_PRELOAD": str(fast_clock()), "FASTER": str(factor)}

    def close(self):
        if self.daemon and self.sanitizer_build:
            self.sanitizer_reports = [line for line in self.daemon.errors().splitlines() if "ERROR: " in line or "runtime error" in line]
        if self.controller:
            self.controller.close()
        self.world.close()

    def report(self):
        """What a person wants to see when a test has failed."""
        parts = []
        if self.controller:
            parts.append(f"--- records received: {self.controller.kinds()}")
        for name in ("/tmp/tlsc_log", "/tmp/daemon.err", "/tmp/gateway.log", "/tmp/gateway.err"):
            if self.world.exists(name):
                parts.append(f"--- {name}\n{self.world.read(name)[-6000:].decode(errors='replace')}")
        return "\n".join(parts)


def fast_clock():
    """The library that shortens the daemon's waits, compiled once per test run."""
    target = Path(os.environ["TLSC_FASTER"])
    source = Path(__file__).with_name("faster.c")
    if not target.exists():
        scratch = target.with_suffix(f".{os.getpid()}")
        subprocess.run(["cc", "-shared", "-fPIC", "-O2", "-Wall", "-Wextra", "-Werror", "-o", scratch, source, "-ldl"], check=True)
        scratch.rename(target)
    return target


def under_sanitizers(environment):
    """The environment for a daemon that is built with sanitizers."""
    changed = {
        # Not 1, which is the status of an orderly end. The alternate stack of a cancelled thread is reported wrongly. An exit
        # inside a connection attempt leaves to the kernel what the tunnel thread still uses: no leak check.
        "ASAN_OPTIONS": "exitcode=99:use_sigaltstack=0:detect_leaks=0",
        "UBSAN_OPTIONS": "print_stacktrace=1",
        **environment,
    }
    if "LD_PRELOAD" in changed:
        first = subprocess.run(["cc", "-print-file-name=libasan.so"], capture_output=True, text=True, check=True).stdout.strip()
        changed["LD_PRELOAD"] = f"{os.path.realpath(first)} {changed['LD_PRELOAD']}"  # it insists on being the first
    return changed


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    report = outcome.get_result()
    bench = item.funcargs.get("bench") if hasattr(item, "funcargs") else None
    if report.when == "call" and report.failed and bench:
        report.sections.append(("the world", bench.report()))


@pytest.fixture(scope="session", autouse=True)
def fast_clock_place(tmp_path_factory):
    os.environ.setdefault("TLSC_FASTER", str(tmp_path_factory.mktemp("clock") / "faster.so"))


@pytest.fixture
def bench(fast_clock_place, request):
    """A world with nothing in it yet."""
    in_sanitizer_pass = "sanitizer" in request.config.getoption("-m")
    bench = Bench(Path(os.environ["TLSC_SAN_BUILD"]) if in_sanitizer_pass else None)
    yield bench
    bench.close()
    if in_sanitizer_pass:
        assert bench.sanitizer_reports == []


@pytest.fixture
def tunnel(bench):
    """A world with the tunnel up; the daemon's waits are a quarter of the true ones."""
    return bench.make_tunnel(env=bench.preload_fast_clock(4))
