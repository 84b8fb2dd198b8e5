"""The OpenWrt feed, as far as it goes without it: the scripts in busybox's shell, with stand-ins for procd and uci."""

import json
import re
import shutil
import subprocess
from pathlib import Path

import pytest

from harness.daemon import CONF_FILE
from harness.world import BUILD, PROJECT

FEED = PROJECT / "packaging/openwrt"
FILES = FEED / "tlsc/files"
SCRIPTS = [path for path in sorted(FILES.iterdir()) if path.read_bytes().startswith(b"#!/bin/sh")]
UPDOWN_CONF = "/run/updown.conf"

# What /lib/functions.sh and procd.sh offer, as the scripts use it; the calls to procd are written down.
STAND_INS = r"""
config_load() { [ "$1" = tlsc ]; }
option() { sed -n "s/^[ \t]*option $1 '\(.*\)'$/\1/p" /run/config; }
config_get() {
    value_of_=$(option "$3")
    eval "$1=\${value_of_:-\${4:-}}"
}
config_get_bool() { config_get "$@"; }
config_list_foreach() {
    for item_ in $(sed -n "s/^[ \t]*list $2 '\(.*\)'$/\1/p" /run/config); do "$3" "$item_"; done
}
procd_open_instance() { echo "instance $1"; }
procd_set_param() { echo "param $*"; }
procd_close_instance() { echo end; }
procd_add_reload_trigger() { echo "trigger $*"; }
logger() { echo "logger $*"; }
"""


class Router:
    def __init__(self, world):
        self.world = world
        self.settings(enabled="1", psk_key="0123456789abcdef0123456789abcdef")
        world.write("/run/stand-ins.sh", STAND_INS)
        world.run(["mkdir", "-p", "/run/bin"])
        world.run(["ln", "-s", str(BUILD / "bin/wlcctl"), "/run/bin/wlcctl"])

    def settings(self, **changes):
        """The configuration that the package brings, changed."""
        text = (FILES / "tlsc.config").read_text()
        for name, value in changes.items():
            line = f"\toption {name} '{value}'"
            text = re.sub(rf"\toption {name} '.*'\n", "", text) + line + "\n"
        self.world.write("/run/config", text)

    def init(self, function):
        """Runs a function of the init script; what it asked of procd and the system log."""
        script = f". /run/stand-ins.sh; . {FILES}/tlsc.init; UPDOWN_CONF={UPDOWN_CONF}; {function}"
        path = "PATH=/run/bin:/usr/sbin:/usr/bin:/sbin:/bin"
        return self.world.run(["env", "-i", path, "busybox", "ash", "-c", script], check=False)

    def conf(self):
        lines = self.world.read(CONF_FILE).decode().splitlines()
        return dict(line.split(";")[:2] for line in lines)


@pytest.fixture
def router(bench):
    return Router(bench.world)


@pytest.mark.skipif(shutil.which("busybox") is None, reason="needs busybox")
@pytest.mark.parametrize("path", SCRIPTS, ids=lambda path: path.name)
def test_script_is_read_by_busybox_and_shellcheck_without_a_word(path):
    for words in (["busybox", "ash", "-n"], ["shellcheck", "--severity=warning"]):
        done = subprocess.run(words + [path], capture_output=True, text=True, timeout=60)
        assert (done.returncode, done.stdout + done.stderr) == (0, "")


def test_start_renders_the_settings_and_starts_both_programs(router):
    router.settings(enabled="1", psk_key="it's a 'key' with blanks", serial_num="SN 1")
    answer = router.init("start_service")
    assert answer["status"] == 0
    conf = router.conf()
    assert conf["psk_key"] == "it's a 'key' with blanks" and conf["serial_num"] == "SN 1"
    assert conf["server_ip_address"] == "192.0.2.1" and conf["tun_interface_name"] == "tlst0"
    assert router.world.read(UPDOWN_CONF).decode().splitlines()[1:] == ["routes = 10.9.0.0/24", "dns = none"]
    lines = answer["out"].splitlines()
    assert [line for line in lines if line.startswith("instance")] == ["instance daemon", "instance agent"]
    assert "param command /usr/sbin/tlsc" in lines
    agent = next(line.split()[2:] for line in lines if line.startswith("param command /usr/bin/wlcctl"))
    assert "--keep-up" in agent  # nobody else gives the order to start
    known = router.world.run([str(BUILD / "bin/wlcctl"), "agent", "--help"])["out"]
    assert [word for word in agent if word.startswith("--") and word + " " not in known] == []
    assert len([line for line in lines if line.startswith("param respawn")]) == 2


def test_key_reaches_the_file_and_no_command_line(router):
    router.world.run(["rm", "/run/bin/wlcctl"])
    program = '#!/bin/sh\necho "$@" >> /run/arguments\ncat > /run/input\n'
    router.world.write("/run/bin/wlcctl", program, 0o755)
    router.init("start_service")
    assert b"0123456789abcdef" not in router.world.read("/run/arguments")
    assert router.world.read("/run/input") == b"0123456789abcdef0123456789abcdef\n"


def test_key_file_is_preferred_to_a_key(router):
    router.world.write("/run/key", "fedcba9876543210fedcba9876543210\n")
    router.settings(enabled="1", psk_key_file="/run/key")
    assert router.init("start_service")["status"] == 0
    assert router.conf()["psk_key"] == "fedcba9876543210fedcba9876543210"


def test_disabled_tunnel_starts_nothing(router):
    router.settings(enabled="0")
    answer = router.init("start_service")
    assert (answer["status"], answer["out"]) == (0, "")
    assert not router.world.exists(CONF_FILE)


@pytest.mark.parametrize("changes", [{"server_port": "70000"}, {"psk_key": ""}, {"management_ip": "here"}])
def test_wrong_settings_are_told_to_the_system_log_and_start_nothing(router, changes):
    router.settings(**{"enabled": "1", "psk_key": "0123456789abcdef", **changes})
    answer = router.init("start_service")
    assert answer["status"] == 1
    assert "logger -t tlsc -p daemon.err wlcctl: conf init:" in answer["out"] and "instance" not in answer["out"]
    assert not router.world.exists(CONF_FILE)


def test_changed_settings_are_noticed(router):
    assert router.init("service_triggers")["out"] == "trigger tlsc\n"


def rpcd(world, *words, text=""):
    script = f"printf '%s' '{text}' | PATH=/run/bin:$PATH busybox ash {FILES}/tlsc.rpcd {' '.join(words)}"
    return world.run(["sh", "-c", script], check=False)


def test_ubus_is_told_the_methods_and_gets_json(router):
    methods = json.loads(rpcd(router.world, "list")["out"])
    granted = json.loads((FILES / "tlsc.acl.json").read_text())["tlsc"]["read"]["ubus"]["tlsc"]
    assert set(methods) == set(granted) == {"status", "stats", "events"}
    for method in methods:
        answer = rpcd(router.world, "call", method, text='{"since": 3}')
        assert answer["status"] == 0 and json.loads(answer["out"])["ok"] is False  # no agent runs here
    for word in ("shutdown", "stop", "conf", ""):
        assert rpcd(router.world, "call", word)["status"] == 1


def test_ubus_events_go_on_behind_the_number(router):
    router.world.run(["rm", "/run/bin/wlcctl"])
    router.world.write("/run/bin/wlcctl", '#!/bin/sh\necho "$@" >> /run/arguments\n', 0o755)
    for text in ('{"since": 41}', "{}", '{"since": "; reboot"}'):
        rpcd(router.world, "call", "events", text=text)
    lines = router.world.read("/run/arguments").decode().splitlines()
    assert lines == [f"--json events --since {number}" for number in (41, 0, 0)]


def test_network_that_comes_back_makes_a_lost_tunnel_connect_at_once(router):
    world = router.world
    world.run(["rm", "/run/bin/wlcctl"])
    program = '#!/bin/sh\necho "$@" >> /run/arguments; [ "$1" != status ] || exit "$(cat /run/state)"\n'
    world.write("/run/bin/wlcctl", program, 0o755)
    world.write("/run/bin/uci", "#!/bin/sh\ncase $3 in *.wan) echo wan ;; *) echo 1 ;; esac\n", 0o755)
    world.write("/run/bin/logger", "#!/bin/sh\n", 0o755)
    cases = [("ifup", "wan", 3, ["status", "restart"]), ("ifup", "wan", 0, ["status"])]
    cases += [("ifup", "lan", 3, []), ("ifdown", "wan", 3, [])]
    for action, interface, state, expected in cases:
        world.write("/run/state", str(state))
        world.write("/run/arguments", "")
        words = ["env", f"ACTION={action}", f"INTERFACE={interface}", "PATH=/run/bin:/usr/bin:/bin"]
        world.run(words + ["busybox", "ash", str(FILES / "tlsc.hotplug")], check=False)
        assert world.read("/run/arguments").decode().splitlines() == expected


@pytest.mark.skipif(not list(Path("/usr/include").glob("*-linux-musl")), reason="needs musl-dev")
def test_daemon_compiles_with_the_headers_of_musl():
    done = subprocess.run([FEED / "check-musl"], capture_output=True, text=True, timeout=300)
    assert (done.returncode, done.stdout + done.stderr) == (0, "")
