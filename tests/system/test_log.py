"""The log: the form of its lines, its levels and destinations, its rotation, and the secret that never is in it."""

import io
import os
import re
import socket
import stat
import tarfile

import pytest

from harness import records
from harness.daemon import DEBUG_FLAG_FILE, EARLY_LOG, PSK_KEY, conf_text
from harness.log import LINE, LOG_FILE, split
from harness.world import MANAGEMENT_IP, SITE_IP, wait_until

ARCHIVE = "/tmp/tlsc_log_prev.tar"
ROTATION_BYTES = 4999999
LONGEST_LINE = 1023
FAST = 4

LEVELS = ["errors", "warnings", "info", "debug", "ssl-dbg", "buf-print"]


def reconnect(bench, timeout=15):
    """A whole life of a connection at the level that is set."""
    since = bench.controller.count
    bench.gateway.ask("close", how="fin")
    bench.controller.wait_for(records.TUN_UP, timeout, since)


def ping(world, count=3):
    world.run(
        ["ping", "-c", str(count), "-i", "0.02", "-W", "2", "-I", MANAGEMENT_IP, SITE_IP], ns="device", check=False
    )


@pytest.mark.parametrize("level", LEVELS)
def test_every_line_has_the_form_and_the_level_that_is_set(tunnel, level):
    daemon = tunnel.daemon
    tunnel.controller.send(records.debug_record("level", level))
    settle(daemon)
    place = daemon.log.position
    reconnect(tunnel)
    daemon.add_route()
    ping(tunnel.world)
    _, pieces = split(daemon.log.text[place:])
    entries = daemon.log.entries(place)  # each line is compared with the form here
    assert entries
    shown = {e.level for e in entries}
    order = ["ERROR", "WARNING", "INFO", "DEBUG", "SSL_DEBUG"]
    assert shown <= set(order[: LEVELS.index(level) + 1])
    assert order[min(LEVELS.index(level), 3)] in shown or level == "warnings"
    numbers = [e.number for e in entries]
    assert numbers == sorted(set(numbers))
    if level == "buf-print":
        dumps = [p for p in pieces if re.search(r"(?: [0-9a-f]{2}){16}\n   (?: [0-9a-f]{2})", p)]
        assert dumps, "no hex dump at the highest level"
        assert numbers[-1] - numbers[0] > len(entries)  # pieces of a dump count as well
    else:
        assert numbers == list(range(numbers[0], numbers[0] + len(numbers)))
        assert all(len(p) + 1 <= LONGEST_LINE for p in pieces)
    assert LINE.fullmatch(pieces[0])


def settle(daemon):
    """Returns when both threads have handled what was sent so far: an answer, and another poll for the tunnel thread."""
    for _ in range(2):
        since = daemon.controller.count
        daemon.order(records.PROCESS_REQUEST)
        daemon.controller.wait_for(records.PROCESS_INFO, 5, since)


@pytest.mark.sanitizer
def test_the_secret_is_in_no_log_at_any_level(bench):
    bench.world.write(DEBUG_FLAG_FILE, "")
    bench.make_gateway()
    daemon = bench.make_daemon(env=bench.preload_fast_clock(3 * FAST))
    daemon.bring_up()
    daemon.add_route()
    controller = bench.controller
    controller.send(records.debug_record("destination", "both"))
    for level in reversed(LEVELS):
        controller.send(records.debug_record("level", level))
        settle(daemon)
        ping(bench.world)
        reconnect(bench)
        since = controller.count
        daemon.order(records.TUN_RESTART)
        controller.wait_for(records.TUN_UP, 15, since)
        daemon.add_route()
    assert daemon.exit() == 1
    dump = " ".join(f"{byte:02x}" for byte in PSK_KEY.encode()[:16])
    seen = 0
    for name in (LOG_FILE, EARLY_LOG, "/tmp/daemon.out", "/tmp/daemon.err"):
        text = bench.world.read(name).decode(errors="replace")
        seen += len(text)
        assert PSK_KEY not in text, name
        assert PSK_KEY[:12] not in text, name
        assert dump not in re.sub(r"\n   ", "", text), name
    assert seen > 50000
    assert bench.world.read("/tmp/daemon.out").decode().count("Key:psk_key,value:***") >= 2


def test_the_debug_flag_file_sends_the_controller_lines_to_standard_output(bench):
    bench.world.write(DEBUG_FLAG_FILE, "", mode=0)
    daemon = bench.make_daemon()
    controller = bench.controller
    controller.wait_for(records.HELLO, 3)
    controller.send(records.record(99))
    assert daemon.exit() == 1
    text = daemon.output()
    stamp = r"\d{4}-\d\d-\d\d_\d\d_\d\d_\d\d"
    assert re.match(rf"\nTLSC-WLC: {stamp} EVENT \[\.\./src/tlsc_main\.c:\d+\] In TLS Client process", text)
    assert re.search(rf"\nTLSC-WLC: {stamp} EVENT \[\.\./wlc/tlsc_wlc\.c:\d+\]TLS Client: WLC initialization", text)
    assert re.search(
        rf"\nTLSC-WLC: {stamp} ERROR \[\.\./wlc/tlsc_wlc\.c:\d+\]wlcTlscFifoHandler - Msg:Invalid, id:99 received", text
    )
    assert re.search(rf"\nTLSC-WLC: {stamp} EVENT \[\.\./wlc/tlsc_wlc\.c:\d+\]Cleanup TLS Client WLC FIFO", text)
    # Warnings of the service are not redirected.
    daemon.early_log.assert_order("Received TWLC_EXIT command, Exiting TLS Client!!!", "Client Shutdown!!")


def test_destinations(tunnel):
    daemon = tunnel.daemon
    daemon.debug("destination", "both")
    place = daemon.log.position
    tunnel.gateway.ask("send_frame", type=9, payload="")
    daemon.log.wait_for("Receieved invalid cstp frame(9)", 5, place)
    assert daemon.output().count("Receieved invalid cstp frame(9)") == 1

    tunnel.controller.send(records.debug_record("destination", "console"))
    wait_until(lambda: "Log destination changed to: 1" in daemon.output(), 5, "the new destination on the console")
    size = os.stat(tunnel.world.path(LOG_FILE)).st_size
    tunnel.gateway.ask("send_frame", type=10, payload="")
    wait_until(lambda: "Receieved invalid cstp frame(10)" in daemon.output(), 5, "the line on the console")
    assert os.stat(tunnel.world.path(LOG_FILE)).st_size == size

    tunnel.controller.send(records.debug_record("destination", "file"))
    daemon.log.wait_for("Log destination changed to: 0", 5)


def test_the_log_is_rotated_at_five_megabytes_and_one_archive_kept(tunnel):
    daemon, world = tunnel.daemon, tunnel.world
    assert stat.S_IMODE(os.stat(world.path(LOG_FILE)).st_mode) == 0o600
    daemon.debug("level", "debug")
    with world.inside("device"):
        sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sender.bind((MANAGEMENT_IP, 0))
    first = os.stat(world.path(LOG_FILE)).st_ino

    def fill_until_rotated(inode):
        def step():
            for _ in range(50):
                sender.sendto(b"x" * 100, (SITE_IP, 9))
            return os.stat(world.path(LOG_FILE)).st_ino != inode and world.exists(ARCHIVE)

        wait_until(lambda: world.exists(LOG_FILE) and step(), 60, "a rotation")

    fill_until_rotated(first)
    wait_until(lambda: readable_archive(world), 5, "a whole archive")
    member, text = archived(world)
    assert re.fullmatch(r"tmp/tlsc_log_\d{4}-\d\d-\d\d_\d\d_\d\d_\d\d", member)
    assert ROTATION_BYTES < len(text) <= ROTATION_BYTES + LONGEST_LINE
    # No line is lost between the two files.
    last = int(LINE.fullmatch(split(text)[1][-1])["number"])
    assert int(LINE.match(split(world.read(LOG_FILE).decode()[:4000])[1][0])["number"]) == last + 1
    assert stat.S_IMODE(os.stat(world.path(LOG_FILE)).st_mode) == 0o600

    second = os.stat(world.path(LOG_FILE)).st_ino
    fill_until_rotated(second)
    wait_until(lambda: readable_archive(world) and archived(world)[0] != member, 5, "the next archive")
    assert sorted(n for n in os.listdir(world.path("/tmp")) if n.startswith("tlsc_log")) == [
        "tlsc_log",
        "tlsc_log_prev.tar",
    ]
    assert daemon.is_running()


def readable_archive(world):
    try:
        return bool(archived(world))
    except (tarfile.TarError, FileNotFoundError, IndexError):
        return False


def archived(world):
    """Name and text of the one member of the archive."""
    with tarfile.open(fileobj=io.BytesIO(world.read(ARCHIVE))) as archive:
        (member,) = archive.getmembers()
        return member.name, archive.extractfile(member).read().decode()


def test_a_link_in_place_of_the_log_is_not_followed(bench):
    bench.make_gateway()
    os.symlink("/tmp/victim", bench.world.path(LOG_FILE))  # leads nowhere yet, so the start does not archive it
    daemon = bench.make_daemon(env=bench.preload_fast_clock(FAST))
    daemon.start()
    bench.controller.wait_for(records.TUN_UP, 10)
    assert not bench.world.exists("/tmp/victim")
    daemon.early_log.wait_for("Started DPD Timer", 5)  # descriptor 0 takes the lines instead
    assert daemon.exit() == 1
    assert "\nFailed to open log file for TLS-Client" in daemon.output()


def test_the_level_in_the_file_does_not_take_effect(bench):
    # By contract: the two commands of the start stand in the pipe when the thread starts, which drops them.
    bench.make_gateway()
    daemon = bench.make_daemon(
        conf=conf_text() + "log_level;debug;1\nlog_dest;console;1\n", env=bench.preload_fast_clock(FAST)
    )
    daemon.bring_up()
    daemon.log.wait_for("Total number of stale commands cleared from CLI pipe:2", 5)
    assert {e.level for e in daemon.log.entries()} <= {"ERROR", "WARNING", "INFO"}
