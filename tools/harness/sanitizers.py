"""Programs built with sanitizers: what they need around them, and what they complain of."""

import os
import re
import subprocess
from functools import cache

FAULT_STATUS = 99  # not 1, which is the status of an orderly end of the daemon

OPTIONS = {
    # The alternate stack of a cancelled thread is reported wrongly. An exit inside a connection attempt leaves to the
    # kernel what the tunnel thread still uses: no leak check, and no complaint about a thread that nobody has joined.
    # An arithmetic error ends the process by its signal.
    "ASAN_OPTIONS": f"exitcode={FAULT_STATUS}:handle_sigfpe=0:use_sigaltstack=0:detect_leaks=0",
    "TSAN_OPTIONS": f"exitcode={FAULT_STATUS}:handle_sigfpe=0:report_thread_leaks=0:second_deadlock_stack=1",
    "UBSAN_OPTIONS": f"exitcode={FAULT_STATUS}:print_stacktrace=1",
}
# For a program that releases everything and joins its threads.
STRICT_OPTIONS = {
    "ASAN_OPTIONS": f"exitcode={FAULT_STATUS}:detect_leaks=1",
    "TSAN_OPTIONS": f"exitcode={FAULT_STATUS}",
    "UBSAN_OPTIONS": f"exitcode={FAULT_STATUS}:print_stacktrace=1",
}

REPORT_MARKS = ("ThreadSanitizer", "AddressSanitizer", "LeakSanitizer", "runtime error:")


@cache
def runtime(program):
    """The path of the sanitizer's library that the program is linked with, libasan or libtsan; None without one."""
    libraries = subprocess.run(["ldd", program], capture_output=True, text=True, check=True).stdout
    found = re.search(r"lib[at]san\S* => (\S+)", libraries)
    return os.path.realpath(found[1]) if found else None


def surroundings(program, environment):
    """The environment for the program. Of the preloaded libraries the address sanitizer's must come first. The thread
    sanitizer's must not be preloaded: the commands that the program runs would inherit it, and do not work with it."""
    changed = {**OPTIONS, **environment}
    if "LD_PRELOAD" in changed and "libasan" in (runtime(program) or ""):
        changed["LD_PRELOAD"] = f"{runtime(program)} {changed['LD_PRELOAD']}"
    return changed


def complains(errors):
    """True when a program's standard error holds a report of a sanitizer."""
    return any(mark in errors for mark in REPORT_MARKS)
