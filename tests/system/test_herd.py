"""The load program against the gateway, in small: what ./run herd measures must hold for a hundred sessions too."""

import json
import subprocess

from harness.world import BUILD, PROJECT


def test_a_herd_comes_lives_rekeys_and_returns_after_the_gateways_death(tmp_path):
    words = [
        PROJECT / "tools/private-world",
        PROJECT / "tools/herd/measure",
        "--bin",
        BUILD / "bin",
        "--sessions",
        "100",
    ]
    words += [
        "--idle",
        "5.5",
        "--dpd",
        "5",
        "--backoff",
        "3",
        "--seconds",
        "0.3",
        "--gateways",
        "1",
        "--json",
        tmp_path / "herd.json",
    ]
    done = subprocess.run(
        words,
        capture_output=True,
        text=True,
        timeout=100,
        env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "PRIVATE_WORLD_BIND": f"{BUILD} {tmp_path}"},
    )
    assert done.returncode == 0, done.stdout + done.stderr
    figures = json.loads((tmp_path / "herd.json").read_text())
    assert figures["arrival"]["failed"] == 0
    assert figures["idle"]["dpd"] >= 100
    assert figures["return"]["attempts"] == {"1": 100}
