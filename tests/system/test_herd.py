"""The load program against the gateway, in small: what ./run herd measures must hold for a hundred sessions too."""

import json
import subprocess

from harness.world import BUILD, PROJECT


def test_a_herd_comes_lives_rekeys_and_returns_after_the_gateways_death():
    words = [PROJECT / "tools/private-world", PROJECT / "tools/herd/measure", "--bin", BUILD / "bin", "--json"]
    words += "--sessions 100 --idle 5.5 --dpd 5 --backoff 3 --seconds 0.3 --gateways 1".split()
    env = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "PRIVATE_WORLD_BIND": str(BUILD)}
    done = subprocess.run(words, capture_output=True, text=True, timeout=100, env=env)
    assert done.returncode == 0, done.stdout + done.stderr
    figures = json.loads(done.stdout)
    assert figures["arrival"]["failed"] == 0
    assert figures["idle"]["dpd"] >= 100
    assert figures["return"]["attempts"] == {"1": 100}
