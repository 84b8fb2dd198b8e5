"""The first process of a private world: it starts and ends the world's processes.

Run by `World` as `tools/private-world python3 world_agent.py`. Speaks JSON lines: a request on standard input, its
answer on standard output. The world ends with this process, and this process ends when its input is closed; since it is
the first of its process namespace, everything that a test left running ends with it.
"""

import json
import os
import signal
import subprocess
import sys
import time

children = {}


def in_namespace(namespace, argv):
    """The command line that runs argv in a named network namespace (None: the world's own)."""
    if namespace is None:
        return argv
    return ["nsenter", f"--net=/run/netns/{namespace}", "--"] + argv


def open_stream(path, flags):
    return os.open(path or "/dev/null", flags | os.O_CREAT, 0o600)


def run(request):
    """Runs a command to its end and returns its status and output."""
    done = subprocess.run(
        in_namespace(request.get("ns"), request["argv"]),
        input=request.get("input", "").encode(),
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        env={**os.environ, **request.get("env", {})},
        timeout=request.get("timeout", 30),
    )
    out, err = (stream.decode(errors="replace") for stream in (done.stdout, done.stderr))
    return {"status": done.returncode, "out": out, "err": err}


def spawn(request):
    """Starts a command with its three streams in files and returns its process id."""
    stdin = open_stream(request.get("stdin"), os.O_RDWR)
    stdout = open_stream(request.get("stdout"), os.O_WRONLY | os.O_APPEND)
    stderr = open_stream(request.get("stderr"), os.O_WRONLY | os.O_APPEND)
    child = subprocess.Popen(
        in_namespace(request.get("ns"), request["argv"]),
        stdin=stdin,
        stdout=stdout,
        stderr=stderr,
        cwd="/tmp",
        env={**os.environ, **request.get("env", {})},
    )
    for stream in (stdin, stdout, stderr):
        os.close(stream)
    children[child.pid] = child
    return {"pid": child.pid}


def wait(request):
    """Waits for a child; the status is null when it still runs after the time-out (seconds)."""
    child = children[request["pid"]]
    try:
        return {"status": child.wait(request["timeout"])}
    except subprocess.TimeoutExpired:
        return {"status": None}


def send_signal(request):
    """Sends a signal to a process of this world."""
    os.kill(request["pid"], request["signal"])
    return {}


def end(request):
    """Ends a child: SIGTERM, and SIGKILL when it has not ended after the time-out (seconds)."""
    child = children[request["pid"]]
    if child.poll() is None:
        child.terminate()
        try:
            child.wait(request.get("timeout", 2))
        except subprocess.TimeoutExpired:
            child.kill()
            child.wait()
    return {"status": child.returncode}


def pid_here(_request):
    return {"pid": os.getpid()}


ACTIONS = {"run": run, "spawn": spawn, "wait": wait, "signal": send_signal, "end": end, "hello": pid_here}


def main():
    signal.signal(signal.SIGINT, signal.SIG_IGN)  # an interrupted test run closes the input
    for line in sys.stdin:
        request = json.loads(line)
        started = time.monotonic()
        try:
            answer = {"ok": True, **ACTIONS[request["do"]](request)}
        except (OSError, ValueError, KeyError, subprocess.SubprocessError) as error:
            answer = {"ok": False, "error": f"{type(error).__name__}: {error}"}
        answer["took"] = time.monotonic() - started
        sys.stdout.write(json.dumps(answer) + "\n")
        sys.stdout.flush()


if __name__ == "__main__":
    main()
