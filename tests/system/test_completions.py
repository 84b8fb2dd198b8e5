"""Completions, each asked in its own shell. What they offer must be what the program's help tells."""

import os
import re
import shutil
import socket
import subprocess
import time

import pytest

from harness.world import BUILD, PROJECT

PLACE = PROJECT / "packaging/completions"
ENVIRONMENT = {**os.environ, "PATH": f"{BUILD}/bin:{os.environ['PATH']}", "HOME": "/nonexistent", "TERM": "dumb"}


def run(words, **more):
    return subprocess.run(words, env=ENVIRONMENT, capture_output=True, text=True, timeout=60, **more)


def bash(line):
    """What bash offers for the last word of the line."""
    words = line.split(" ")
    quoted = " ".join(f"'{word}'" for word in words)
    function = "_" + words[0].replace("-", "_")
    script = f"source {PLACE}/{words[0]}.bash; COMP_WORDS=({quoted}); COMP_CWORD={len(words) - 1}; {function}"
    script += '; printf "%s\\n" "${COMPREPLY[@]}"'
    done = run(["bash", "--norc", "-c", script])
    assert done.stderr == ""
    return set(done.stdout.split())


def fish(line):
    done = run(["fish", "--no-config", "-c", f"source {PLACE}/{line.split()[0]}.fish; complete -C '{line}'"])
    assert done.stderr == ""
    return {offer.split("\t")[0] for offer in done.stdout.splitlines()}


ZSH = """
words=({words}); CURRENT=$#words; current=$words[CURRENT]
compadd() {{ shift; for offer in "$@"; do [[ $offer == $current* ]] && print -r -- $offer; done }}
_describe() {{ local name=$2; set -- ${{(P)name}}; compadd -- ${{@%%:*}} }}
_files() {{ for offer in $current*(N); do print -r -- $offer; done }}
fpath=({place} $fpath); autoload -Uz {function}; {function}
"""


def zsh(line):
    """The function itself, with what it calls of zsh's completion system replaced: that needs a terminal."""
    words = " ".join(f"'{word}'" for word in line.split(" "))
    done = run(["zsh", "-f", "-c", ZSH.format(words=words, place=PLACE, function="_" + line.split(" ")[0])])
    assert done.stderr == ""
    return set(done.stdout.split())


SHELLS = [bash, fish, zsh]


@pytest.fixture(params=SHELLS, ids=lambda shell: shell.__name__)
def offers(request):
    if shutil.which(request.param.__name__) is None:
        pytest.skip(f"needs {request.param.__name__}")
    return request.param


def help_of(*verb, program="wlcctl"):
    done = run([BUILD / "bin" / program, *verb, "--help"])
    return done.stdout


def verbs(*place, program="wlcctl"):
    return set(re.findall(r"^  ([a-z]+) ", help_of(*place, program=program).partition("Subcommands:")[2], re.M))


def options(*verb, program="wlcctl"):
    lines = re.findall(r"^  (-\S+)", help_of(*verb, program=program), re.M)
    return {name for line in lines for name in line.split(",") if "_" not in name}


def test_every_verb_is_offered(offers):
    assert len(verbs()) >= 14
    assert offers("wlcctl ") == verbs()
    assert offers("wlcctl st") == {verb for verb in verbs() if verb.startswith("st")}


@pytest.mark.parametrize("verb", ["agent", "events", "stats", "conf init", "start", "logs", "decode"])
def test_every_option_of_a_verb_is_offered(offers, verb):
    assert offers(f"wlcctl {verb} --") == {n for n in options(*verb.split()) | options() if n.startswith("--")}


def test_words_are_offered_where_they_stand(offers):
    assert offers("wlcctl debug ") == {"level", "destination"}
    assert offers("wlcctl debug level ") == {"errors", "warnings", "info", "debug", "ssl-dbg", "buf-print"}
    assert offers("wlcctl debug destination ") == {"file", "console", "both"}
    assert offers("wlcctl wait ") == {"up", "down"}
    assert offers("wlcctl conf ") == {"init", "show"}


def test_options_in_front_of_the_verb_do_not_confuse(offers):
    assert offers("wlcctl --json wait ") == {"up", "down"}
    assert offers("wlcctl --socket /tmp/x debug ") == {"level", "destination"}


def test_event_kinds_are_offered(offers):
    assert {"tun_up", "tun_down"} <= offers("wlcctl events --kind tun_")


def test_reason_codes_are_offered(offers):
    codes = set(re.findall(r"^([a-z-]+)$", run([BUILD / "bin/wlcctl", "why"]).stdout, re.M))
    assert len(codes) > 20 and {"clock", "stuck", "key-mismatch"} <= codes
    assert offers("wlcctl why ") == codes


def test_choices_that_the_help_names_are_offered(offers):
    assert offers("wlcctl logs --level ") == {"errors", "warnings", "info", "debug", "ssl-dbg"}
    assert offers("wlcctl agent --log-level wa") == {"warning"}


def test_files_are_offered_for_a_path(offers, tmp_path):
    (tmp_path / "key.txt").write_text("")
    assert offers(f"wlcctl conf init --psk-key-file {tmp_path}/") == {f"{tmp_path}/key.txt"}


# ---- the gateway's ---------------------------------------------------------------------------------------------------

def gateway_options(*place):
    return {name for name in options(*place, program="tlsc-gateway") if name.startswith("--")}


def test_every_option_of_the_gateway_is_offered(offers):
    assert len(gateway_options()) > 25
    assert offers("tlsc-gateway --") == gateway_options()
    assert offers("tlsc-gateway --no-tun --ps") == {"--psk-file", "--psk-hint"}


def test_every_verb_of_its_control_is_offered(offers):
    assert offers("tlsc-gateway ") == {"ctl"}
    assert offers("tlsc-gateway ctl ") == verbs("ctl", program="tlsc-gateway") >= {"status", "kick", "run"}
    assert offers("tlsc-gateway ctl --json --socket /tmp/x cl") == {"clients"}
    assert offers("tlsc-gateway ctl status ") == set()


@pytest.mark.parametrize("verb", ["events", "kick", "run"])
def test_every_option_of_a_verb_of_its_control_is_offered(offers, verb):
    assert offers(f"tlsc-gateway ctl {verb} --") == gateway_options("ctl", verb) | gateway_options("ctl")


def test_words_that_an_option_of_the_gateway_takes_are_offered(offers):
    assert offers("tlsc-gateway --log-level ") == {"trace", "debug", "info", "warn", "error", "off"}
    assert offers("tlsc-gateway --dpd ") == {"omit"}
    assert offers("tlsc-gateway --cookie ") == {"auto", "none"}
    assert offers("tlsc-gateway --listen ") == set()
    assert offers("tlsc-gateway ctl kick 7 --how ") == {"notify", "fin", "rst", "alert"}


def test_files_are_offered_for_what_the_gateway_reads(offers, tmp_path):
    (tmp_path / "psk.txt").write_text("")
    for words in ("--psk-file", "--no-tun --control", "ctl --socket", "ctl run"):
        assert offers(f"tlsc-gateway {words} {tmp_path}/") == {f"{tmp_path}/psk.txt"}


@pytest.fixture
def control(tmp_path):
    """The control socket of a gateway that has one connection."""
    keys, path, ready = (tmp_path / name for name in ("psk", "control", "ready"))
    keys.write_text("dev:0123456789abcdef\n")
    keys.chmod(0o600)
    gateway = subprocess.Popen(
        [BUILD / "bin/tlsc-gateway", "--listen", "127.0.0.1:0", "--no-tun", "--psk-file", keys, "--control", path]
        + ["--ready-file", ready, "--log", tmp_path / "log"]
    )

    def ask(*words):
        return run([BUILD / "bin/tlsc-gateway", "ctl", "--socket", path, *words]).stdout

    def wait_until(condition):
        for _ in range(500):
            if condition():
                return
            time.sleep(0.01)
        pytest.fail("the gateway is not ready")

    try:
        wait_until(ready.exists)
        port = re.search(r'"listen":"127.0.0.1:(\d+)"', ask("--json", "status"))[1]
        with socket.create_connection(("127.0.0.1", int(port))):
            wait_until(lambda: '"client":1' in ask("--json", "clients"))
            yield path
    finally:
        gateway.terminate()
        gateway.wait(10)


def test_what_the_running_gateway_knows_is_offered(offers, control):
    ctl = f"tlsc-gateway ctl --socket {control}"
    assert offers(f"{ctl} kick ") == {"1", "all"}
    assert offers(f"{ctl} fault d") == {"drop-dpd"}
    assert offers(f"{ctl} fault n") == {"notify", "no-response", "no-address", "none"}
    assert offers(f"{ctl} events --kind tls_") == {"tls_up", "tls_failed"}


def test_without_a_running_gateway_only_what_needs_none_is_offered(offers):
    assert offers("tlsc-gateway ctl --socket /nonexistent/control kick ") == {"all"}
    assert offers("tlsc-gateway ctl --socket /nonexistent/control fault ") == set()
