"""Fixtures of the system tests. Each test has a world of its own; see tools/harness/world.py.

    TLSC_BUILD      build directory with bin/tlsc and bin/tlsc-gateway (default: build/ of the project)
    TLSC_SAN_BUILD  the same, built with sanitizers; when given, tests marked `sanitizer` run once more with that daemon

    /usr/bin/python3 -m pytest -n 4 tests/system                    the usual run
    /usr/bin/python3 -m pytest -n 4 tests/system -m slow            what takes longer than a minute
    /usr/bin/python3 -m pytest -n 4 tests/system -k sanitizers      only what runs with that daemon
    /usr/bin/python3 -m pytest -n 4 tests/system --sanitized        every test, with that daemon alone
    /usr/bin/python3 -m pytest tests/system -m bulk                 a gigabyte each way, system calls per packet
"""

import contextlib
import os
import subprocess
import sys
import tempfile
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "tools"))

from harness.controller import Controller  # noqa: E402
from harness.daemon import Daemon, conf_text  # noqa: E402
from harness.gateway import Gateway  # noqa: E402
from harness.sanitizers import complains, surroundings  # noqa: E402
from harness.world import BUILD, GATEWAY_IP, World  # noqa: E402


OPT_IN = ("slow", "bulk", "browser")
SANITIZER_BUILD = Path(os.environ["TLSC_SAN_BUILD"]).resolve() if "TLSC_SAN_BUILD" in os.environ else None


def pytest_addoption(parser):
    parser.addoption(
        "--sanitized", action="store_true", help="runs every test with the daemon of TLSC_SAN_BUILD, and with no other"
    )


def pytest_collection_modifyitems(config, items):
    """Without -m, what is slow or bulky is left out."""
    chosen = config.getoption("-m")
    wanted = [BUILD / "bin/tlsc", BUILD / "bin/tlsc-gateway"] + (
        [SANITIZER_BUILD / "bin/tlsc"] if SANITIZER_BUILD else []
    )
    missing = [str(path) for path in wanted if not path.exists()]
    sanitized = config.getoption("--sanitized")
    if sanitized and SANITIZER_BUILD is None:
        raise pytest.UsageError("--sanitized needs TLSC_SAN_BUILD")
    if missing:
        raise pytest.UsageError(f"not built: {', '.join(missing)} (see TLSC_BUILD and TLSC_SAN_BUILD)")
    for item in items:
        if os.getuid() != 0:
            item.add_marker(pytest.mark.skip(reason="needs root (mount and network namespaces, TUN)"))
        elif not chosen and any(item.get_closest_marker(name) for name in OPT_IN):
            item.add_marker(pytest.mark.skip(reason=f"only with -m {' or -m '.join(OPT_IN)}"))
        elif sanitized and item.get_closest_marker("armhf"):
            item.add_marker(pytest.mark.skip(reason="runs another daemon than that of TLSC_SAN_BUILD"))
        elif item.get_closest_marker("sanitizer_only") and SANITIZER_BUILD is None:
            item.add_marker(pytest.mark.skip(reason="needs TLSC_SAN_BUILD"))


def pytest_generate_tests(metafunc):
    """The choice made for the sanitizers runs with both daemons, or with theirs alone."""
    if SANITIZER_BUILD is None or "build" not in metafunc.fixturenames:
        return
    if metafunc.config.getoption("--sanitized") or metafunc.definition.get_closest_marker("sanitizer_only"):
        metafunc.parametrize("build", ["sanitizers"])
    elif metafunc.definition.get_closest_marker("sanitizer"):
        metafunc.parametrize("build", ["release", "sanitizers"])


class Bench:
    """World, controller, gateway and daemon of one test, started as the test wants them, ended in the right order."""

    def __init__(self, sanitizer_build=None):
        self.world = World()
        self.sanitizer_build = sanitizer_build
        self.binary = (sanitizer_build or BUILD) / "bin/tlsc"
        self.controller = None
        self.gateway = None
        self.daemon = None
        self.sanitizer_reports = ""

    def make_controller(self, resolve=GATEWAY_IP, **more):
        self.controller = Controller(self.world, resolve, **more)
        return self.controller

    def make_gateway(self, *options, **more):
        self.gateway = Gateway(self.world, options, **more)
        return self.gateway

    def make_daemon(self, conf=None, **more):
        if self.controller is None:
            self.make_controller()
        more = {"binary": self.binary, **more, "env": self.environment(more.get("env", {}))}
        self.daemon = Daemon(self.world, self.controller, conf=conf_text() if conf is None else conf, **more)
        return self.daemon

    def make_tunnel(self, *options, **more):
        """Everything, and the tunnel up."""
        self.make_gateway(*options)
        self.make_daemon(**more)
        self.daemon.bring_up()
        self.daemon.add_route()
        return self

    def environment(self, wanted):
        """The environment with these settings that the daemon of this build needs."""
        return surroundings(self.binary, wanted) if self.sanitizer_build else wanted

    def preload_fast_clock(self, factor):
        """Environment of a daemon whose waits are that many times shorter."""
        return {"LD_PRELOAD": str(fast_clock()), "FASTER": str(factor)}

    def preload_clock_behind(self, days):
        """Environment of a program whose clock is behind."""
        return {"LD_PRELOAD": str(preloaded("behind")), "BEHIND": str(days * 86400)}

    def close(self):
        if self.daemon and self.sanitizer_build and complains(self.daemon.errors()):
            self.sanitizer_reports = self.daemon.errors()
        if self.controller:
            self.controller.close()
        self.world.close()

    def report(self):
        """What a person wants to see when a test has failed."""
        parts = []
        if self.controller:
            parts.append(f"--- records received: {self.controller.kinds()}")
        for name in ("/tmp/tlsc_log", "/tmp/daemon.err", "/tmp/gateway.log", "/tmp/gateway.err"):
            with contextlib.suppress(OSError):
                parts.append(f"--- {name}\n{self.world.read(name)[-6000:].decode(errors='replace')}")
        return "\n".join(parts)


def fast_clock():
    """The library that shortens the daemon's waits."""
    return preloaded("faster")


def preloaded(name):
    """The library of that name beside this file, compiled once per test process."""
    target = Path(os.environ["TLSC_FASTER"]).with_name(f"{name}.so")
    if not target.exists():
        source = Path(__file__).with_name(f"{name}.c")
        subprocess.run(
            ["cc", "-shared", "-fPIC", "-O2", "-Wall", "-Wextra", "-Werror", "-o", target, source, "-ldl"], check=True
        )
    return target


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    report = outcome.get_result()
    bench = item.funcargs.get("bench") if hasattr(item, "funcargs") else None
    if report.when == "call" and report.failed and bench:
        report.sections.append(("the world", bench.report()))


@pytest.fixture(scope="session")
def fast_clock_place():
    with tempfile.TemporaryDirectory(prefix="tlsc-system-tests-") as place:
        os.environ["TLSC_FASTER"] = f"{place}/faster.so"
        yield


@pytest.fixture
def build():
    """Which daemon runs: "release" or "sanitizers"."""
    return "release"


@pytest.fixture
def bench(fast_clock_place, build):
    """A world with nothing in it yet."""
    bench = Bench(SANITIZER_BUILD if build == "sanitizers" else None)
    yield bench
    bench.close()
    if bench.sanitizer_reports:
        pytest.fail(bench.sanitizer_reports, pytrace=False)


@pytest.fixture
def tunnel(bench):
    """A world with the tunnel up; the daemon's waits are a quarter of the true ones."""
    return bench.make_tunnel(env=bench.preload_fast_clock(4))
