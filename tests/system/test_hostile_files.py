"""Every verb and option that takes a file, given what is none: refused in one clear line, and nothing waited for."""

import json
import shutil
import subprocess

import pytest

from harness.daemon import CONF_FILE, PSK_IDENTITY, PSK_KEY, conf_text
from harness.schema import check_controller_answer
from harness.world import BUILD, wait_until

WLCCTL = str(BUILD / "bin/wlcctl")
GATEWAY = str(BUILD / "bin/tlsc-gateway")
FILES = ("pipe", "directory", "binary", "huge", "controls", "nothing")
INIT = ["conf", "init", "--server-ip-address", "192.0.2.1", "--management-ip", "10.1.0.2", "--device-id", "d"]
VERBS = {
    "lint": ["lint", "{}"],
    "logs": ["logs", "--file", "{}"],
    "conf show": ["conf", "show", "--file", "{}"],
    "decode": ["decode", "{}", "--conf", "{}"],
    "agent": ["agent", "--agent-conf", "{}"],
    "doctor": ["doctor", "--conf", "{}"],
    "status": ["--socket", "{}", "status"],
    "conf init": [*INIT, "--psk-identity", "i", "--psk-key-file", "{}", "--file", "new.conf"],
}
CALM = {("logs", "binary"), ("logs", "huge"), ("logs", "controls")}  # nothing of the daemon's stands there
CALM |= {("conf show", "controls"), ("conf show", "binary")}  # what can be shown, shown


@pytest.fixture
def place(bench):
    """A directory with one file of each kind."""
    script = """
        mkdir /run/files && cd /run/files && mkfifo pipe && mkdir directory
        head -c 1000000 /dev/urandom >binary && head -c 2000000 /dev/zero | tr '\\0' a >huge
        printf 'a\\033[31mb;\\007c;1\\n' >controls; chmod 600 *"""
    bench.world.run(["sh", "-c", script])
    return bench.world


def run(world, words):
    return world.run(["sh", "-c", 'cd /run/files && exec timeout 10 "$@"', "sh", *words], check=False, timeout=15)


@pytest.mark.parametrize("name", FILES)
def test_a_file_that_is_none_is_refused_by_every_verb(place, name):
    for verb, words in VERBS.items():
        done = run(place, [WLCCTL, *(word.format(name) for word in words)])
        told = (verb, name, done)
        assert done["status"] != 124, told
        assert (done["status"] == 0) == ((verb, name) in CALM), told
        assert not any(ord(c) < 32 and c != "\n" for c in done["out"] + done["err"]), told
        assert done["out"] or len(done["err"].splitlines()) == 1 or (verb, name) in CALM, told
    done = run(place, [WLCCTL, "--json", "lint", name])
    assert check_controller_answer(json.loads(done["out"]))["findings"]
    assert not place.exists("/run/files/new.conf")


@pytest.mark.parametrize("name", FILES)
def test_a_file_that_is_none_is_refused_by_the_gateway(place, name):
    place.write("/run/files/keys", f"{PSK_IDENTITY}:{PSK_KEY}\n", 0o600)
    ready = ["--listen", "127.0.0.1:4433", "--tun-addr", "10.9.0.1/24", "--pool", "10.9.0.0/24"]
    for words in (
        [GATEWAY, "--psk-file", name, *ready],
        [GATEWAY, "ctl", "run", name],
        [GATEWAY, "ctl", "--socket", name, "status"],
        *([[GATEWAY, "--psk-file", "keys", "--lease-file", name, *ready]] if name != "nothing" else []),
    ):
        done = run(place, words)
        assert done["status"] not in (0, 124), (words, done)
        assert len(done["err"].splitlines()) == 1, (words, done)
        assert not any(ord(c) < 32 and c != "\n" for c in done["out"] + done["err"]), (words, done)


def test_a_key_that_comes_through_a_pipe_is_taken(place):
    words = " ".join([WLCCTL, *INIT, "--psk-identity", "i", "--file", "new.conf", "--psk-key-file"])
    script = f"cd /run/files && (sleep 0.3; echo {PSK_KEY}) >pipe & cd /run/files && {words} pipe"
    done = place.run(["sh", "-c", script], check=False)
    assert done["status"] == 0, done
    assert f"psk_key;{PSK_KEY};1" in place.read("/run/files/new.conf").decode()


# Help.


def test_every_verb_explains_itself_with_examples():
    def output(*words):
        done = subprocess.run([WLCCTL, *words], capture_output=True, text=True, timeout=20)
        return done.returncode, done.stdout, done.stderr

    listed = output("--help")[1].split("Subcommands:")[1].split("Exit status")[0]
    verbs = [line.split()[0] for line in listed.splitlines() if line.startswith("  ") and line[2] != " "]
    assert len(verbs) >= 20
    for verb in verbs:
        status, text, _ = output(verb, "--help")
        assert status == 0 and "Examples:" in text, verb
        assert output("help", verb)[1].split("Usage:")[1].split("[")[1:] == text.split("Usage:")[1].split("[")[1:], verb
        assert output(verb, "--no-such-option")[0] == 2, verb
    assert output("help", "conf", "init")[1].startswith("Writes the file anew")
    status, _, errors = output("help", "nonsense")
    assert status == 2 and "there are: status" in errors and errors.count("\n") == 1


@pytest.mark.skipif(shutil.which("script") is None, reason="needs script(1)")
def test_a_start_that_waits_repaints_one_line_on_a_terminal(bench):
    world = bench.world
    bench.make_gateway()
    world.write(CONF_FILE, conf_text())
    world.spawn([BUILD / "bin/tlsc"], ns="device", stdin="/tmp/d0", stdout="/tmp/d.out", stderr="/tmp/d.err")
    world.spawn([WLCCTL, "agent", "--quiet"], ns="device", stdout="/tmp/agent.out", stderr="/tmp/agent.err")
    wait_until(lambda: world.exists("/tmp/wlcctl.sock"), 5, "an agent")
    words = f"{WLCCTL} start --wait 20"
    done = world.run(["script", "-qec", words, "/dev/null"], ns="device", check=False, timeout=40)
    steps = done["out"].split("\r")
    assert done["status"] == 0, done
    assert any("handshake with" in step for step in steps) and len(steps) >= 4, steps
