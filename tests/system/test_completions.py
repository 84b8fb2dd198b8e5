"""Completions, each asked in its own shell. What they offer must be what the program's help tells."""

import os
import re
import shutil
import subprocess

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
    script = f"source {PLACE}/wlcctl.bash; COMP_WORDS=({quoted}); COMP_CWORD={len(words) - 1}; _wlcctl"
    script += '; printf "%s\\n" "${COMPREPLY[@]}"'
    done = run(["bash", "--norc", "-c", script])
    assert done.stderr == ""
    return set(done.stdout.split())


def fish(line):
    done = run(["fish", "--no-config", "-c", f"source {PLACE}/wlcctl.fish; complete -C '{line}'"])
    assert done.stderr == ""
    return {offer.split("\t")[0] for offer in done.stdout.splitlines()}


ZSH = """
words=({words}); CURRENT=$#words; current=$words[CURRENT]
compadd() {{ shift; for offer in "$@"; do [[ $offer == $current* ]] && print -r -- $offer; done }}
_describe() {{ local name=$2; set -- ${{(P)name}}; compadd -- ${{@%%:*}} }}
_files() {{ for offer in $current*(N); do print -r -- $offer; done }}
fpath=({place} $fpath); autoload -Uz _wlcctl; _wlcctl
"""


def zsh(line):
    """The function itself, with what it calls of zsh's completion system replaced: that needs a terminal."""
    words = " ".join(f"'{word}'" for word in line.split(" "))
    done = run(["zsh", "-f", "-c", ZSH.format(words=words, place=PLACE)])
    assert done.stderr == ""
    return set(done.stdout.split())


SHELLS = [bash, fish, zsh]


@pytest.fixture(params=SHELLS, ids=lambda shell: shell.__name__)
def offers(request):
    if shutil.which(request.param.__name__) is None:
        pytest.skip(f"needs {request.param.__name__}")
    return request.param


def help_of(*verb):
    done = run([BUILD / "bin/wlcctl", *verb, "--help"])
    return done.stdout


def verbs():
    return set(re.findall(r"^  ([a-z]+) ", help_of().partition("Subcommands:")[2], re.M))


def options(*verb):
    lines = re.findall(r"^  (-\S+)", help_of(*verb), re.M)
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
