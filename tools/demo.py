#!/usr/bin/python3
"""A tunnel's life as a time line: what happened, what proves it, when. Run it with ./run demo [--shell].

Runs inside tools/private-world, as its first process: when it ends, in whatever way, every process, namespace,
interface and file of the demonstration ends with it. Each step is checked; the exit status is 0 only if every step
held.
"""

import argparse
import os
import shutil
import signal
import stat
import subprocess
import sys
import time
from pathlib import Path

from harness.controller import FROM_DAEMON, TO_DAEMON
from harness.daemon import PSK_KEY, TUN_NAME, Daemon
from harness.gateway import CONTROL, Gateway, GatewayError
from harness.gateway import LOG as GATEWAY_LOG
from harness.log import LOG_FILE
from harness.traffic import Transfer, ping
from harness.wlcctl import PROGRAM as WLCCTL
from harness.wlcctl import SOCKET as AGENT_SOCKET
from harness.wlcctl import Wlcctl
from harness.world import BUILD, DEVICE_IP, GATEWAY_IP, LAN_IP, MANAGEMENT_IP, OwnWorld, WorldError, wait_until

STORY_SECONDS = 105  # the whole story, its failure included
REKEY_SECONDS = 18  # assigned to the first connection only: pings and both transfers take some 12 of them
BULK_SECONDS = 4  # each way
CIPHER = "PSK-AES256-GCM-SHA384"
DEVICE_SIDE, SITE_SIDE = ("device", MANAGEMENT_IP), ("gateway", LAN_IP)  # of the transfers
LOGS = {  # what the programs leave: the name on the screen and the files
    "tlsc_log": (LOG_FILE,),
    "daemon": ("/tmp/daemon.out", "/tmp/daemon.err"),
    "gateway": (GATEWAY_LOG, "/tmp/gateway.out", "/tmp/gateway.err"),
    "agent": ("/tmp/agent.out", "/tmp/agent.err"),
}


class StepFailed(Exception):
    """A step did not hold: what was expected, and what was seen instead."""

    def __init__(self, expected, seen):
        super().__init__(expected)
        self.expected, self.seen = expected, seen


class Interrupted(Exception):
    """A signal asked the demonstration to end."""


# ---- the time line on the screen -------------------------------------------------------------------------------------


class Timeline:
    """Prints rows of elapsed time, actor, fact, and beneath each fact its proof. Colours only on a terminal."""

    COLOURS = {"controller": "36", "daemon": "32", "gateway": "35", "device": "33", "site": "34"}
    MARGIN = 24  # columns before the text

    def __init__(self):
        self.began = time.monotonic()
        self.chapters = 0
        self.passing = False  # a passing word stands on the current line
        self.terminal = sys.stdout.isatty()
        self.colour = self.terminal and not os.environ.get("NO_COLOR")
        self.width = max(80, min(shutil.get_terminal_size((120, 24)).columns, 140))

    def paint(self, code, text):
        return f"\x1b[{code}m{text}\x1b[0m" if self.colour else text

    def print(self, text=""):
        wipe = "\r\x1b[K" if self.passing else ""
        self.passing = False
        try:
            print(wipe + text, flush=True)
        except OSError as error:  # the terminal or the reader of a pipe is gone
            sys.stdout = open(os.devnull, "w")
            raise Interrupted("output closed") from error

    def waiting(self, text):
        """A passing word about what is waited for; the next line replaces it."""
        if self.terminal:
            self.passing = True
            print(f"\r\x1b[K{'':{self.MARGIN}}" + self.paint("2", f"... {text}"), end="", flush=True)

    def chapter(self, title):
        self.chapters += 1
        self.heading(f"{self.chapters}  {title}")

    def heading(self, title):
        self.print()
        self.print("  " + self.paint("1", title))

    def row(self, who, what, *proofs, at=None):
        """at: CLOCK_MONOTONIC seconds of the fact; now if absent."""
        elapsed = f"{(at or time.monotonic()) - self.began:7.2f} s"
        self.print(f" {self.paint('2', elapsed)}  {self.paint(self.COLOURS.get(who, '1'), f'{who:<10}')}  {what}")
        for proof in proofs:
            room = self.width - self.MARGIN
            self.print(" " * self.MARGIN + self.paint("2", proof if len(proof) <= room else proof[: room - 3] + "..."))


# ---- the story -------------------------------------------------------------------------------------------------------


def megabytes(count):
    return f"{count / 1e6:.0f} MB"


def mbit_per_second(report):
    return report["bytes"] * 8 / report["seconds"] / 1e6


class Story:
    """The chapters in order. Whatever a later chapter or the summary needs is kept here."""

    def __init__(self, timeline):
        self.world = OwnWorld()
        self.controller = Wlcctl(self.world)
        self.line = timeline
        self.checks = 0
        self.summary = []

    def check(self, holds, expected, seen="it did not happen"):
        self.checks += 1
        if not holds:
            raise StepFailed(expected, str(seen))

    def event(self, kind, since, seconds=5, **match):
        """The agent's first event of that kind after number since; the step fails without one."""
        self.checks += 1
        return self.controller.wait(kind, since, seconds, **match)

    def sent_message(self, number, since):
        """The agent's event of having sent this message to the daemon."""
        return self.event("sent", since, id=number)

    def gateway_event(self, kind, since=0, seconds=5):
        self.checks += 1
        return self.gateway.wait(kind, since, seconds)

    def logged(self, text, seconds=3):
        """The newest line of the daemon's log that begins with text, as a proof."""

        def newest():
            entries = reversed(self.daemon.log.entries())
            return next((entry.message for entry in entries if entry.message.startswith(text)), None)

        self.checks += 1
        return f'log "{wait_until(newest, seconds, f"the line {text!r} in the log")}"'

    def show_status(self):
        """The end of a chapter: what the controller now says of the tunnel."""
        shown = self.controller.shown("Tunnel", "Health", "Reason", "To do", "Next attempt", "Rekey")
        self.check(shown, "wlcctl status to show the tunnel")
        self.line.row("controller", "wlcctl status", *shown)

    def open_descriptors(self):
        """How many the daemon has, without its end of the controller's pipe, which is open while it reports."""
        return sum(target != FROM_DAEMON for target in self.daemon.process.descriptors().values())

    def tail(self, name, count):
        """The last lines of a log, all of them if count is None."""
        files = [self.world.read(path) for path in LOGS[name] if self.world.exists(path)]
        lines = b"\n".join(files).decode(errors="replace").splitlines()
        return [line for line in lines if line.strip()][-count if count else None :]

    # ---- 1 the stage

    def set_the_stage(self):
        world, line = self.world, self.line
        line.chapter("The stage")

        self.check(ping(world, GATEWAY_IP, 1, DEVICE_IP), "one ping from the device to the gateway over the cable")
        line.row(
            "device",
            f"two network namespaces joined by a cable; the site {LAN_IP} lies behind the gateway",
            f"device {DEVICE_IP} ---- {GATEWAY_IP} gateway: ping answered",
        )
        self.check(not ping(world, LAN_IP, 1, MANAGEMENT_IP), "no way from the device to the site without a tunnel")

        self.gateway = Gateway(world)
        status = self.gateway.ask("status")
        line.row(
            "gateway", "accepts clients", f"status listen={status['listen']} tun={status['tun']} pool={status['pool']}"
        )

        done, answer = self.controller.write_configuration("--cipher-algo", CIPHER)
        self.check(done == 0, "wlcctl conf init to write the configuration file", answer)
        path = Path(answer["path"])
        mode = stat.S_IMODE(path.stat().st_mode)
        self.check(mode == 0o600, f"{path} readable by root alone", oct(mode))
        shown = world.run([str(WLCCTL), "conf", "show"], ns="device")["out"]
        self.check("***" in shown and PSK_KEY not in shown, "wlcctl conf show to mask the key", shown)
        line.row("controller", "writes the tunnel's configuration", f"{path}, mode {mode:04o}, key shown as ***")

        self.controller.start_agent()
        line.row("controller", "agent listens to the daemon's pipe", FROM_DAEMON)

        self.daemon = Daemon(world, None)
        hello = self.event("hello", 0)
        self.check(world.exists(TO_DAEMON), f"the daemon's pipe {TO_DAEMON}")
        line.row("daemon", "starts and says hello", "pipe 1 HELLO", at=hello["mono"])

    # ---- 2 the tunnel comes up

    def bring_the_tunnel_up(self, rekey_seconds=None):
        world, line = self.world, self.line
        line.chapter("The tunnel comes up")
        if rekey_seconds:
            self.gateway.ask("set", header="X-CSTP-Rekey-Time", value=str(rekey_seconds), once=True)

        since = self.controller.last_event()
        line.waiting("the daemon looks into its pipe every 2 s, and pauses 2 s before it negotiates")
        done, answer = self.controller.ask("start", "--wait", "30")
        self.check(done == 0, "wlcctl start --wait to end with 0", answer)

        asked = self.sent_message(20, since)
        line.row("controller", "says start", "pipe 20 TUN_START", at=asked["mono"])
        accepted = self.event("tun_in_prog", since)
        line.row("daemon", "reads its configuration and begins", "pipe 23 TUN_IN_PROG", at=accepted["mono"])

        tls = self.gateway_event("tls_up")
        self.check(tls["version"] == "TLSv1.2" and tls["cipher"] == CIPHER, f"TLS 1.2 with {CIPHER}", tls)
        line.row(
            "daemon",
            f"connects: {tls['version']}, {tls['cipher']}, pre-shared key of {tls['identity']}",
            self.logged("Successfully enabled SSL/TLS session to:"),
            at=tls["mono"],
        )
        request = self.gateway_event("config_req")
        line.row("daemon", "asks for a configuration", " ".join(request["text"].split()), at=request["mono"])
        response = self.gateway_event("config_resp_sent")
        line.row("gateway", f"assigns {response['inner']}", *self.fold(response["text"].split()), at=response["mono"])

        inner, servers, up = (self.event(kind, since) for kind in ("inner_ip", "dns", "tun_up"))
        self.check(inner["address"] == response["inner"], f"the inner address {response['inner']} in the report", inner)
        line.row(
            "daemon",
            "reports the inner address and the DNS server",
            f"pipe 30/1 {inner['address']}, 30/0 {' '.join(servers['servers'])}",
            at=inner["mono"],
        )
        line.row("daemon", "reports the tunnel up", "pipe 24 TUN_UP, " + self.logged("TUN-INTF is UP!!"), at=up["mono"])
        hook = self.event("hook_ended", since)
        route = world.ip("device", f"route get {LAN_IP}").split("\n")[0].strip()
        is_right = f"dev {TUN_NAME}" in route and f"src {MANAGEMENT_IP}" in route
        self.check(is_right, f"a route to {LAN_IP} through {TUN_NAME}", route)
        line.row("controller", "hook adds the device's route", f"ip route get: {route}", at=hook["mono"])
        times = [asked["mono"], accepted["mono"], tls["mono"], request["mono"]]
        times += [inner["mono"] + 0.001, up["mono"] + 0.001]
        self.check(times == sorted(times), "start, progress, TLS, request, address and up in this order", times)
        self.inner = inner["address"]
        self.up_event = up["number"]
        self.tunnel_up_at = up["mono"]

    def fold(self, words):
        """The words as lines of the time line's width."""
        lines = [""]
        for word in words:
            if len(lines[-1]) + len(word) > self.line.width - self.line.MARGIN - 2:
                lines.append("")
            lines[-1] = f"{lines[-1]} {word}".strip()
        return lines

    # ---- 3 traffic

    def ping_the_site(self, count=100):
        times = ping(self.world, LAN_IP, count, MANAGEMENT_IP)
        self.check(len(times) == count, f"{count} answers to {count} pings", len(times))
        self.line.row(
            "device",
            f"pings {LAN_IP}: {len(times)} of {count} answered",
            f"round trip {sum(times) / count:.2f} ms on average",
        )

    def start_transfer(self, way, amount, port=5001):
        if way == "up":
            return Transfer(self.world, DEVICE_SIDE, SITE_SIDE, amount, port=port)
        return Transfer(self.world, SITE_SIDE, DEVICE_SIDE, amount, target=self.inner, port=port)

    def finish_transfer(self, transfer):
        """The receiver's report; the step fails unless both ends have the same hash."""
        self.checks += 1
        return transfer.finish(30)[0]

    def carry_traffic(self):
        line = self.line
        line.chapter("Traffic")
        self.ping_the_site()
        for way, who in (("up", "device"), ("down", "site")):
            line.waiting(f"{BULK_SECONDS} s of bulk data {way}")
            report = self.finish_transfer(self.start_transfer(way, f"--seconds {BULK_SECONDS}"))
            rate = mbit_per_second(report)
            line.row(
                who,
                f"sends {megabytes(report['bytes'])} {way} through the tunnel at {rate:.0f} Mbit/s",
                f"sha256 equal on both ends: {report['sha256'][:32]}...",
            )
            self.summary.append((f"throughput {way}", f"{rate:.0f} Mbit/s ({CIPHER}, one TCP connection)"))

    # ---- 4 rekey

    def rekey_under_load(self):
        line = self.line
        line.chapter("Rekey under load")
        since, gateway_since = self.up_event, self.gateway.last
        transfers = [self.start_transfer(way, "--until-told", port) for way, port in (("up", 5002), ("down", 5003))]
        loaded = time.monotonic()
        line.row("device", "bulk data runs both ways", "two TCP connections")

        left = max(0, self.tunnel_up_at + REKEY_SECONDS - time.monotonic())
        line.waiting(f"the rekey timer expires in {left:.0f} s")
        query = self.event("name_query", since, left + 5)
        line.row(
            "daemon",
            "rekey timer expires; asks the controller for the gateway's address",
            "pipe 27 GW_FQDN_REQ, data path closed until the new connection stands",
            at=query["mono"],
        )
        early = f"it came {loaded - query['mono']:.1f} s earlier"
        self.check(query["mono"] > loaded, "the rekey to come while the data flows", early)
        answer = self.sent_message(28, query["number"])
        line.row("controller", f"answers {answer.get('text', '')}", "pipe 28 GW_FQDN_RES", at=answer["mono"])

        line.waiting("the daemon reads the answer, connects, pauses 2 s and negotiates")
        tls = self.gateway_event("tls_up", gateway_since, 10)
        line.row(
            "daemon",
            "opens a second connection beside the old one",
            self.logged("Establish new TCP connection"),
            at=tls["mono"],
        )
        response = self.gateway_event("config_resp_sent", gateway_since, 10)
        self.check(response["inner"] == self.inner, f"the same inner address {self.inner}", response["inner"])
        line.row(
            "gateway",
            f"confirms {response['inner']} on the new connection",
            self.logged("TCP connection established after rekey timeout"),
            at=response["mono"],
        )
        closed = self.gateway_event("closed", gateway_since)
        line.row(
            "daemon",
            "closes the old connection; the interface stayed up",
            f"gateway event closed client={closed['client']} by={closed['by']}",
            at=closed["mono"],
        )

        time.sleep(1.5)
        for transfer in transfers:
            transfer.tell()
        reports = [self.finish_transfer(transfer) for transfer in transfers]
        total, pause = sum(r["bytes"] for r in reports), max(r["longest_pause"] for r in reports)
        carried = next(c for c in self.gateway.clients() if c["client"] == response["client"])["counters"]
        self.check(min(carried["data_rx"], carried["data_tx"]) > 100, "data both ways on the new connection", carried)
        downs = [e for e in self.controller.events(since) if e["event"] == "tun_down"]
        self.check(not downs, "no DOWN report during the rekey", downs)
        line.row(
            "device",
            f"both transfers survived: {megabytes(total)}, hashes equal, longest pause {pause:.1f} s",
            f"new connection: {carried['data_rx']} packets up, {carried['data_tx']} down",
        )

        stats = self.statistics()
        attempts, done = stats["Rekey Attempts"], stats["Rekey Success"]
        self.check((attempts, done) == (1, 1), "one rekey attempted, one done", (attempts, done))
        line.row("daemon", "counts the rekey", f"pipe 30/33 Rekey Attempts {attempts}, Rekey Success {done}")
        intact = f"{megabytes(total)} intact, longest pause {pause:.1f} s"
        self.summary.append(("rekeys", f"{done} of {attempts}, under load; {intact}"))

    def statistics(self):
        _, answer = self.controller.ask("stats", "--fresh")
        self.check(answer.get("ok"), "statistics from the daemon", answer)
        return answer["statistics"].get("value", answer["statistics"])

    # ---- 5 the gateway dies

    def kill_the_gateway(self):
        world, line = self.world, self.line
        line.chapter("The gateway dies and comes back")
        descriptors, since = self.open_descriptors(), self.controller.last_event()

        killed = time.monotonic()
        self.gateway.kill()
        line.row("gateway", "killed", f"SIGKILL to process {self.gateway.process.pid}", at=killed)
        down = self.event("tun_down", since)
        line.row(
            "daemon",
            "notices, takes the interface down and waits",
            "pipe 25 TUN_DOWN, " + self.logged("Started Backoff Timer for"),
            at=down["mono"],
        )

        time.sleep(1)
        self.gateway.start()
        line.row("gateway", "starts again; it remembers nothing", f"process {self.gateway.process.pid}")

        line.waiting("the daemon's back-off of 10 s")
        query = self.event("name_query", since, 15)
        line.row(
            "daemon",
            "back-off over; asks for the gateway's address",
            "pipe 27 GW_FQDN_REQ, answered with 28",
            at=query["mono"],
        )
        line.waiting("connecting and negotiating")
        up = self.event("tun_up", since, 15)
        request = self.gateway_event("config_req")
        asked = request["address"]
        self.check(asked == self.inner, f"the daemon to ask for its address {self.inner} again", asked)
        line.row(
            "daemon",
            "reports the tunnel up",
            f"pipe 24 TUN_UP, asked for X-CSTP-Address:{asked} and got it",
            at=up["mono"],
        )

        wait_until(lambda: ping(world, LAN_IP, 1, MANAGEMENT_IP), 5, "an answer from the site within 5 s of TUN_UP")
        recovered = time.monotonic() - killed
        line.row("device", f"reaches the site again {recovered:.1f} s after the kill", "ping answered")
        self.ping_the_site(20)
        now_open = self.open_descriptors()
        self.check(now_open == descriptors, f"{descriptors} descriptors open in the daemon, as before", now_open)
        line.row("daemon", f"holds {now_open} descriptors, as before the kill", f"/proc/{self.daemon.process.pid}/fd")
        self.summary.append(
            ("time to recover", f"{recovered:.1f} s from the gateway's death to the first ping (10 s of it back-off)")
        )

    # ---- 6 wrong key

    def start_with_a_wrong_key(self):
        world, line = self.world, self.line
        line.chapter("Wrong key")
        words = ("--cipher-algo", CIPHER, "--force")
        done, answer = self.controller.write_configuration(*words, key="another key of this length")
        self.check(done == 0, "wlcctl conf init --force to write another key", answer)
        since = self.controller.last_event()
        done, answer = self.controller.ask("restart")
        self.check(done == 0, "wlcctl restart to be sent", answer)
        line.waiting("the daemon reads the new configuration and connects")
        reason = self.event("reason", since, 15, code="key-mismatch")
        line.row(
            "controller",
            f"knows why: {reason['code']}, {reason['cause']}",
            self.logged("SSL connect failed!!"),
            at=reason["mono"],
        )
        self.check(self.controller.ask("status")[0] == 3, "wlcctl status to end with 3")
        self.show_status()

        done, answer = self.controller.write_configuration(*words)
        self.check(done == 0, "wlcctl conf init --force to write the right key", answer)
        line.waiting("the daemon reads the right key and connects")
        done, answer = self.controller.ask("restart", "--wait", "30")
        self.check(done == 0, "wlcctl restart --wait to end with 0", answer)
        wait_until(lambda: ping(world, LAN_IP, 1, MANAGEMENT_IP), 5, "an answer from the site")
        line.row("daemon", "is up again with the right key", "ping answered")

    # ---- 7 the orderly end

    def shut_down(self):
        world, line = self.world, self.line
        line.chapter("The orderly end")
        stats = self.statistics()
        packets = f"{stats['Data Pkt Tx']} up, {stats['Data Pkt Rx']} down, invalid {stats['Invalid Rx']}"
        self.summary.insert(0, ("packets", packets))

        done, answer = self.controller.ask("stop", "--wait")
        self.check(done == 0, "wlcctl stop --wait to end with 0", answer)
        wait_until(lambda: not world.has_interface("device", TUN_NAME), 5, f"the end of {TUN_NAME} after the stop")
        line.row("controller", "says stop", "pipe 21 TUN_STOP")
        line.row(
            "daemon",
            f"ends the tunnel thread; {TUN_NAME} is gone",
            self.logged("TLS Client: epoll thread exiting normally"),
        )

        self.show_status()

        done, answer = self.controller.ask("shutdown", "--wait")
        self.check(done == 0, "wlcctl shutdown --wait to end with 0", answer)
        status = self.daemon.process.wait(5)
        self.check(status == 1, "exit status 1 of the daemon, which is the ordered end", status)
        words = "Shutting down TLS Client..."
        self.check(words in self.daemon.output(), f'the daemon\'s last words "{words}"', self.tail("daemon", 5))
        self.check(not world.exists(TO_DAEMON), f"{TO_DAEMON} removed by the daemon")
        line.row("daemon", "shuts down with status 1, the ordered one", f'pipe 37, "{words}", pipe removed')

        for who, process in (("gateway", self.gateway.process), ("controller", self.controller.agent)):
            status = process.end(5)
            self.check(status == 0, f"the {who} to end with 0 on SIGTERM", status)
            line.row(who, "ends", "SIGTERM, status 0")
        told = [name for name in LOGS if any(PSK_KEY in text for text in self.tail(name, None))]
        self.check(not told, "the key in no log", told)
        line.row(
            "device",
            "the key is in no log of daemon, gateway and controller",
            f"{len(self.tail('tlsc_log', None))} lines in {LOG_FILE}",
        )
        left = [path for path in (FROM_DAEMON, AGENT_SOCKET, CONTROL) if world.exists(path)]
        self.check(not left, "no pipe or socket left behind", left)


# ---- the shell -------------------------------------------------------------------------------------------------------


def take_terminal():
    """Makes this process's group the terminal's foreground group, so that a shell can hand the terminal back."""
    if sys.stdin.isatty():
        signal.signal(signal.SIGTTOU, signal.SIG_IGN)
        os.setpgid(0, 0)
        os.tcsetpgrp(sys.stdin.fileno(), os.getpgrp())


def open_shell(story):
    line = story.line
    line.heading("A shell on the device; the tunnel is up")
    for command, purpose in (
        ("wlcctl", "what the controller knows"),
        ("wlcctl events --follow", "what the daemon reports"),
        (f"ping {LAN_IP}", "through the tunnel"),
        ("tail -f /tmp/tlsc_log", "the daemon's log"),
        ("wlcctl debug level debug", "a more talkative one"),
        ("ip netns exec gateway COMMAND", "on the gateway"),
        ("exit", "ends the tunnel and everything else"),
    ):
        line.print(f"   {command:<32} {line.paint('2', purpose)}")
    line.print()
    environment = os.environ | {"PATH": f"{BUILD}/bin:{os.environ['PATH']}", "PS1": "device# ", "HOME": "/tmp"}
    take_terminal()
    subprocess.run(["ip", "netns", "exec", "device", "bash", "--norc", "--noprofile"], env=environment, check=False)
    take_terminal()


# ---- the whole -------------------------------------------------------------------------------------------------------


def tell(story, shell):
    story.set_the_stage()
    story.show_status()
    if shell:
        story.bring_the_tunnel_up()
        story.ping_the_site()
        signal.alarm(0)
        open_shell(story)
        if story.controller.ask("status")[0] != 0:
            story.line.row("device", "the tunnel was ended in the shell; what still runs ends now")
            return
    else:
        chapters = (
            lambda: story.bring_the_tunnel_up(REKEY_SECONDS),
            story.carry_traffic,
            story.rekey_under_load,
            story.kill_the_gateway,
            story.start_with_a_wrong_key,
        )
        for chapter in chapters:
            chapter()
            story.show_status()
    story.shut_down()


def print_summary(story):
    line = story.line
    line.heading("Summary")
    elapsed = time.monotonic() - line.began
    for name, value in story.summary + [("story", f"{elapsed:.1f} s, {story.checks} checks, all held")]:
        line.print(f"   {name:<18}{value}")
    line.print()
    line.print("   " + line.paint("1;32", "Every step held."))


def print_failure(story, failure):
    line = story.line
    line.print()
    line.print(line.paint("1;31", "  A step failed."))
    line.print(f"   expected  {failure.expected}")
    line.print(f"   seen      {failure.seen}")
    for name, count in (("tlsc_log", 15), ("daemon", 5), ("gateway", 8), ("agent", 8)):
        line.print()
        line.print(line.paint("1", f"   last lines of {name}"))
        for text in story.tail(name, count):
            line.print(f"     {text}")


def on_signal(number, _):
    raise Interrupted(signal.Signals(number).name)


def on_alarm(*_):
    raise StepFailed(f"the story to end within {STORY_SECONDS} s", "it is still waiting")


def main():
    parser = argparse.ArgumentParser(prog="./run demo", description="Shows a tunnel's life from start to shutdown.")
    parser.add_argument("--shell", action="store_true", help="leave the tunnel up and open a shell on the device")
    options = parser.parse_args()
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, on_signal)
    signal.signal(signal.SIGALRM, on_alarm)
    signal.alarm(STORY_SECONDS)

    story = Story(Timeline())
    try:
        tell(story, options.shell)
    except StepFailed as failure:
        print_failure(story, failure)
        return 1
    except AssertionError as waited:
        print_failure(story, StepFailed("what a step waited for to happen in time", waited))
        return 1
    except (WorldError, GatewayError, OSError, LookupError, ValueError) as error:
        seen = f"{type(error).__name__}: {error}"
        print_failure(story, StepFailed("every program of the demonstration to run and to answer", seen))
        return 1
    except Interrupted as signal_name:
        story.line.print(f"  {signal_name}: interrupted, nothing is left behind")
        return 130
    signal.alarm(0)
    print_summary(story)
    return 0


if __name__ == "__main__":
    sys.exit(main())
