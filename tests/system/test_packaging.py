"""What lies beside the programs: units, manual pages, scripts. The packages themselves: tests/packaging."""

import functools
import re
import shutil
import subprocess

import pytest

from harness import records
from harness.daemon import CONF_FILE, TUN_NAME, Daemon, conf_text
from harness.world import BUILD, PROJECT, SITE_IP

UNITS = sorted((PROJECT / "packaging/systemd").glob("*.service"))
PAGES = sorted((PROJECT / "docs/man").glob("*.scd"))
HIGHEST_EXPOSURE = 2.0


def needs(program):
    return pytest.mark.skipif(shutil.which(program) is None, reason=f"needs {program}")


def output(*words, **more):
    words = [str(word) for word in words]
    return subprocess.run(words, check=True, capture_output=True, text=True, timeout=60, **more).stdout


def of(paths):
    return pytest.mark.parametrize("path", paths, ids=lambda path: path.name)


# Units.


def test_every_program_has_its_unit():
    assert [unit.name for unit in UNITS] == ["tlsc-agent.service", "tlsc-gateway.service", "tlsc.service"]


@needs("systemd-analyze")
@of(UNITS)
def test_unit_is_exposed_by_no_more_than_two_points(path):
    report = output("systemd-analyze", "security", "--offline=true", "--no-pager", path)
    exposure = float(re.search(r"Overall exposure level for \S+: ([\d.]+)", report)[1])
    assert exposure <= HIGHEST_EXPOSURE, report


@needs("systemd-analyze")
@of(UNITS)
def test_unit_is_understood_by_systemd(path, tmp_path):
    """Programs that are not installed here do not count."""
    done = subprocess.run(["systemd-analyze", "verify", "--man=no", path], capture_output=True, text=True, timeout=60)
    said = [line for line in done.stderr.splitlines() if path.stem in line and "is not executable" not in line]
    assert said == []


def settings(path, key):
    return re.findall(rf"^{key}=(.*)$", path.read_text(), re.M)


def test_default_options_of_the_gateway_keep_the_leases_in_the_units_state_directory():
    """The rest of the system is read-only for it."""
    text = (PROJECT / "packaging/systemd/tlsc-gateway.default").read_text()
    options = dict(re.findall(r"(--[a-z-]+) ([^\s\"]+)", re.search(r'^TLSC_GATEWAY_OPTIONS="(.*)"$', text, re.M)[1]))
    [state] = settings(PROJECT / "packaging/systemd/tlsc-gateway.service", "StateDirectory")
    [runtime] = settings(PROJECT / "packaging/systemd/tlsc-gateway.service", "RuntimeDirectory")
    assert options.keys() <= options_in_help(BUILD / "bin/tlsc-gateway")
    assert options["--lease-file"].rpartition("/")[0] == f"/var/lib/{state}"
    assert options["--control"].rpartition("/")[0] == f"/run/{runtime}"


@functools.cache
def group(name):
    """The system calls of a group of systemd's."""
    members = set()
    for word in output("systemd-analyze", "syscall-filter", name).split("\n"):
        word = word.strip()
        if word.startswith("@") and word != name:
            members |= group(word)
        elif word and word != name and not word.startswith("#"):
            members.add(word)
    return members


def allowed_calls(path):
    allowed = set()
    for line in settings(path, "SystemCallFilter"):
        calls = set().union(*(group(word) if word.startswith("@") else {word} for word in line.lstrip("~").split()))
        allowed = allowed - calls if line.startswith("~") else allowed | calls
    return allowed


def calls_of(world, trace):
    """Calls that succeeded, or failed for another reason than being unknown to this kernel."""
    return {
        found[1]
        for line in world.read(trace).decode(errors="replace").splitlines()
        if (found := re.match(r"(?:\d+ +)?(\w+)\(", line)) and "ENOSYS" not in line
    }


# What the daemon asks for and can do without: it sets a file's owner where it may, and goes on where it may not.
DISPENSABLE = {"fchown"}


@needs("systemd-analyze")
@needs("strace")
def test_daemons_unit_allows_every_system_call_of_a_whole_life(bench):
    """START with a stale interface and an old log, traffic, a lost gateway, RESTART, STOP, START, the end."""
    world = bench.world
    world.write("/tmp/tlsc_log", "old\n")
    world.ip("device", f"tuntap add dev {TUN_NAME} mode tun")
    bench.make_gateway()
    bench.make_daemon(binary=["strace", "-D", "-f", "-qq", "-o", "/tmp/trace", bench.binary])
    bench.daemon.bring_up(30)
    bench.daemon.add_route()
    world.run(["ping", "-c", "2", "-W", "3", SITE_IP], ns="device")
    bench.daemon.debug("level", "buf-print")
    bench.gateway.ask("close", how="rst")
    bench.controller.wait_for(records.TUN_DOWN, 10)
    since = bench.controller.count
    bench.daemon.order(records.TUN_RESTART)
    bench.controller.wait_for(records.TUN_UP, 30, since)
    bench.daemon.exit(20)
    missing = calls_of(world, "/tmp/trace") - allowed_calls(UNIT)
    assert calls_of(world, "/tmp/trace") >= {"ioctl", "epoll_wait", "timerfd_create", "execve", "rename", "unlink"}
    assert missing <= DISPENSABLE


# Capabilities: the unit leaves the daemon CAP_NET_ADMIN alone.


UNIT = PROJECT / "packaging/systemd/tlsc.service"
DROP_IN = PROJECT / "packaging/systemd/other-owner.conf"
CONF_PLACE = CONF_FILE.rpartition("/")[0]


def confined(bench, *sources):
    """The daemon, its configuration file as it is, with the rights that these unit files give it and no others."""
    names = " ".join(line for source in sources for line in settings(source, "CapabilityBoundingSet"))
    words = ",".join(["-all"] + [f"+{name}" for name in names.lower().replace("cap_", "").split()])
    bench.make_controller()
    confine = ["setpriv", "--bounding-set", words, "--no-new-privs"]
    bench.daemon = Daemon(bench.world, bench.controller, confine + [bench.binary])
    return bench.daemon


def owner(world):
    return world.run(["stat", "-c", "%u:%g %a", CONF_FILE])["out"].strip()


def test_daemon_confined_as_in_its_unit_carries_a_tunnel(bench):
    bench.make_gateway()
    bench.world.write(CONF_FILE, conf_text())
    confined(bench, UNIT).bring_up()
    assert bench.world.read(CONF_FILE).endswith(b";0\n")
    assert owner(bench.world) == "0:0 600"


@pytest.mark.parametrize("directory", ["root", "other"])
def test_daemon_confined_as_in_its_unit_refuses_a_file_of_another_owner_and_leaves_it(bench, directory):
    """By contract: another user's configuration does not silently become root's."""
    bench.world.write(CONF_FILE, conf_text())
    bench.world.run(["chown", "-R", "4711:4712", CONF_FILE if directory == "root" else CONF_PLACE])
    daemon = confined(bench, UNIT)
    daemon.start()
    daemon.early_log.wait_match(r"File open failed|Temp File open failed", 10)
    assert owner(bench.world) == "4711:4712 600"
    assert bench.world.read(CONF_FILE).decode() == conf_text()


def test_drop_in_for_another_owner_keeps_owner_and_mode(bench):
    bench.make_gateway()
    bench.world.write(CONF_FILE, conf_text(), 0o640)
    bench.world.run(["chown", "-R", "4711:4712", CONF_PLACE])
    confined(bench, UNIT, DROP_IN).bring_up()
    assert bench.world.read(CONF_FILE).endswith(b";0\n")
    assert owner(bench.world) == "4711:4712 640"


def test_drop_in_for_another_owner_allows_the_calls_that_it_is_for():
    words = " ".join(settings(DROP_IN, "SystemCallFilter")).split()
    assert DISPENSABLE <= set().union(*(group(word) for word in words))


# Manual pages.


def page(path):
    """The page as it is installed."""
    return output("sh", "-c", f"scdoc < '{path}' | awk -f '{path.parent}/tidy.awk'")


@needs("scdoc")
@needs("mandoc")
@of(PAGES)
def test_manual_page_is_clean(path, tmp_path):
    name = tmp_path / path.stem
    name.write_text(page(path))
    done = subprocess.run(["mandoc", "-T", "lint", name], capture_output=True, text=True, timeout=60)
    assert (done.returncode, done.stdout + done.stderr) == (0, "")


def options_in_help(*words):
    """The long options of a program's help."""
    names = set()
    for line in output(*words, "--help").splitlines():
        if re.match(r" +-", line):
            names |= set(re.findall(r"(?<![\w-])--[a-z][a-z-]*(?![\w-])", line.split("  ")[1].partition(" ")[0]))
    return names


def options_in_page(name):
    return set(re.findall(r"\*(--[a-z][a-z-]*)\*", (PROJECT / "docs/man" / name).read_text()))


def test_manual_page_of_the_gateway_has_the_options_of_its_help():
    assert options_in_page("tlsc-gateway.8.scd") == options_in_help(BUILD / "bin/tlsc-gateway")


def test_manual_page_of_the_gateway_has_the_defaults_of_its_help():
    """Where the help shows a default value, the page's sentence ends with it."""
    text = (PROJECT / "docs/man/tlsc-gateway.8.scd").read_text()
    shown = re.findall(r"^  (--[a-z-]+) \S+ \[([^\] ]+)\]", output(BUILD / "bin/tlsc-gateway", "--help"), re.M)
    assert len(shown) >= 10
    for name, value in shown:
        paragraph = re.search(rf"^\*{name}\*[^\n]*\n((?:\t[^\n]*\n)+)", text, re.M)[1]
        assert f"Default {value}." in " ".join(paragraph.split()), name


def verbs_of_wlcctl():
    listed = output(BUILD / "bin/wlcctl", "--help").partition("Subcommands:")[2]
    return re.findall(r"^  ([a-z]+) ", listed, re.M)


def test_manual_page_of_the_controller_has_every_verb_and_every_option_of_its_help():
    text = (PROJECT / "docs/man/wlcctl.1.scd").read_text()
    program, names = BUILD / "bin/wlcctl", options_in_help(BUILD / "bin/wlcctl")
    for verb in verbs_of_wlcctl():
        assert re.search(rf"^\*({verb}\*|{verb} |\w+\*, \*{verb}\*)", text, re.M), verb
        names |= options_in_help(program, verb)
    names |= options_in_help(program, "conf", "init") | options_in_help(program, "conf", "show")
    assert options_in_page("wlcctl.1.scd") == names


def test_manual_page_of_the_controller_has_the_exit_statuses_of_its_help():
    told = output(BUILD / "bin/wlcctl", "--help").partition("Exit status")[2]
    text = (PROJECT / "docs/man/wlcctl.1.scd").read_text().partition("# EXIT STATUS")[2].partition("# FILES")[0]
    assert re.findall(r"^\*(\d+)\*$", text, re.M) == re.findall(r"(?<!\w)(\d+) [a-z]", told)


def test_every_key_of_the_configuration_file_is_in_its_page():
    help_text = output(BUILD / "bin/wlcctl", "conf", "init", "--help")
    keys = set(re.findall(r"--([a-z]+(?:_[a-z]+)+)", help_text)) - {"psk_key_file"}
    text = (PROJECT / "docs/man/wlc-sec-tun.conf.5.scd").read_text().partition("# KEYS")[2].partition("# REWRITING")[0]
    described = set(re.findall(r"^\*([a-z_]+)\*", text, re.M))
    assert len(keys) == 13 and described == keys


# Scripts.

FILES = sorted(path for path in (PROJECT / "packaging").rglob("*") if path.is_file())
SCRIPTS = [path for path in FILES if re.match(rb"#!/bin/(ba)?sh", path.read_bytes())]


@needs("shellcheck")
@of(SCRIPTS)
def test_script_has_no_finding_of_shellcheck(path):
    done = subprocess.run(["shellcheck", "--severity=warning", path], capture_output=True, text=True, timeout=60)
    assert done.stdout == ""
