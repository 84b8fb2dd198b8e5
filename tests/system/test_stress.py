"""The short form of stress.py: two worlds, each with a seed of its own. TLSC_SEED=N repeats a run."""

import os
import random

import pytest

from conftest import BUILD, SANITIZER_BUILD
from stress import stress

SECONDS = 25  # of operations; the last recovery and the exit come on top
WORLDS = 2


@pytest.mark.sanitizer
def test_orders_answers_and_faults_in_random_order(build):
    seed = int(os.environ.get("TLSC_SEED") or random.SystemRandom().randrange(1 << 30))
    assert stress(seed, SECONDS, WORLDS, SANITIZER_BUILD if build == "sanitizers" else BUILD)
