"""The two pipes: foreign and broken records, a controller that reads slowly, goes away, or never was."""

import os
import stat
import time

import pytest

from harness import records
from harness.controller import FROM_DAEMON, TO_DAEMON, Controller
from harness.world import wait_until

FAST = 4

NAMES = {
    0: "Invalid",
    2: "WLC_SEC_TUN_MSG_BOOTUP",
    3: "WLC_SEC_TUN_MSG_ENABLE",
    4: "WLC_SEC_TUN_MSG_DISABLE",
    5: "WLC_SEC_TUN_MSG_TUN_RESTART",
    6: "WLC_SEC_TUN_MSG_CONFIG_ERR",
    7: "WLC_SEC_TUN_MSG_CONFIG_UPDATE",
    8: "Invalid",
    19: "Invalid",
    23: "WLC_SEC_TUN_MSG_TLSC_TUN_IN_PROG",
    24: "WLC_SEC_TUN_MSG_TLSC_TUN_UP",
    25: "WLC_SEC_TUN_MSG_TLSC_TUN_DOWN",
    26: "WLC_SEC_TUN_MSG_TLSC_TUN_STATS",
    27: "WLC_SEC_TUN_MSG_TLSC_GW_FQDN_REQ",
    30: "WLC_SEC_TUN_MSG_TLSC_INFO_UPDATE",
    31: "WLC_SEC_TUN_MSG_EXIT",
    33: "Invalid",
    36: "WLC_SEC_TUN_MSG_TLSC_DBG_INFO_UPDATE",
    38: "Invalid",
    255: "Invalid",
    2**31: "Invalid",
    2**32 - 1: "Invalid",
}


def test_a_foreign_message_is_named_logged_and_dropped(tunnel):
    daemon, controller = tunnel.daemon, tunnel.controller
    since = controller.count
    controller.send(*[records.record(msg_id, b"\xff" * 512) for msg_id in NAMES])
    daemon.order(records.PROCESS_REQUEST)
    controller.wait_for(records.PROCESS_INFO, 5, since)
    for msg_id, name in NAMES.items():
        shown = msg_id if msg_id < 2**31 else msg_id - 2**32
        line = f"wlcTlscFifoHandler - Msg:{name}, id:{shown} received, but not processed"
        assert daemon.log.count(line) == 1 or daemon.log.count(line.replace(f"id:{shown}", f"id:{msg_id}")) == 1, line
    assert controller.kinds(since) == ["36"]


@pytest.mark.sanitizer
def test_texts_without_an_end_are_cut_at_the_end_of_the_record(tunnel):
    daemon, controller = tunnel.daemon, tunnel.controller
    place = daemon.log.position
    controller.send(records.record(records.DEBUG_SET, b"A" * 512))
    daemon.log.wait_for("debug set msg received, invalid params,category:", 5, place)
    line = [e.message for e in daemon.log.entries(place) if "invalid params" in e.message][0]
    assert line == f"{'A' * 64}() - TLS Client, debug set msg received, invalid params,category:{'A' * 64}, level:"
    controller.send(records.record(records.DEBUG_SET, b"level".ljust(64, b"\0") + b"info" + b"X" * 444))
    daemon.log.wait_for("Log level already same(2)", 5, place)
    controller.send(records.record(records.NAME_ANSWER, b"1" * 512))
    daemon.log.wait_match(r"Server IP\(0\.0\.0\.0\) = 0", 5, place)
    assert daemon.is_running()


def test_a_short_write_is_lost_and_the_next_record_is_whole(tunnel):
    daemon, controller = tunnel.daemon, tunnel.controller
    for size in (1, 100, 519):
        since = controller.count
        controller.send_bytes(records.record(records.PROCESS_REQUEST)[:size])
        time.sleep(1.2)  # the daemon polls and takes it
        assert controller.kinds(since) == []
        daemon.order(records.PROCESS_REQUEST)
        controller.wait_for(records.PROCESS_INFO, 5, since)


def test_several_records_in_one_write_are_handled_in_order(tunnel):
    controller = tunnel.controller
    since = controller.count
    wanted = [records.PROCESS_REQUEST, records.HELLO, records.STATS_REQUEST, records.PROCESS_REQUEST]
    controller.send_bytes(b"".join(records.record(msg_id) for msg_id in wanted))
    wait_until(lambda: len(controller.received) >= since + 4, 5, "four answers")
    assert controller.kinds(since) == ["36", "1", "30/33", "36"]


def test_what_stands_behind_an_exit_is_not_handled(tunnel):
    controller = tunnel.controller
    since = controller.count
    controller.send(
        records.record(records.PROCESS_REQUEST), records.record(records.EXIT), records.record(records.HELLO)
    )
    assert tunnel.daemon.process.wait(8) == 1
    time.sleep(0.2)
    assert [k for k in controller.kinds(since) if k not in ("25", "30/33")] == ["36"]


def test_the_inbound_pipe_has_mode_0620_whatever_the_mask(bench):
    bench.make_daemon()
    mode = os.stat(bench.world.path(TO_DAEMON)).st_mode
    assert stat.S_ISFIFO(mode) and stat.S_IMODE(mode) == 0o620


def test_an_inbound_pipe_that_is_already_there_is_used(bench):
    bench.make_controller()
    os.mkfifo(bench.world.path(TO_DAEMON), 0o600)
    bench.make_daemon()
    bench.controller.wait_for(records.HELLO, 3)
    bench.daemon.order(records.PROCESS_REQUEST)
    bench.controller.wait_for(records.PROCESS_INFO, 4)
    assert bench.daemon.exit() == 1


def test_without_any_controller_the_tunnel_works_and_nothing_blocks(bench):
    gateway = bench.make_gateway()
    controller = bench.make_controller()
    controller.close()
    os.unlink(bench.world.path(FROM_DAEMON))
    daemon = bench.make_daemon(env=bench.preload_fast_clock(FAST))
    daemon.start()
    daemon.log.wait_for("TUN-INTF is UP!!", 10)
    daemon.log.wait_for("FIFO failed in O_WRONLY | O_NONBLOCK mode error:No such file or directory", 2)
    os.mkfifo(bench.world.path(FROM_DAEMON), 0o600)  # a pipe that nobody reads
    place = daemon.log.position
    gateway.ask("close", how="fin")
    daemon.log.wait_for("FQDN Resoln failed, try rekeying with previous GW IP", 10, place)
    daemon.log.wait_for("FIFO failed in O_WRONLY | O_NONBLOCK mode error:No such device or address", 5, place)
    daemon.log.wait_for("TUN-INTF is UP!!", 10, place)
    assert daemon.exit() == 1
    assert bench.world.exists(FROM_DAEMON)


def test_a_new_controller_is_served_at_once(bench):
    bench.make_gateway()
    daemon = bench.make_daemon(env=bench.preload_fast_clock(FAST))
    daemon.bring_up()
    bench.controller.close()
    os.unlink(bench.world.path(FROM_DAEMON))
    bench.controller = daemon.controller = Controller(bench.world)
    daemon.order(records.HELLO)
    bench.controller.wait_for(records.HELLO, 5)


def test_a_controller_that_does_not_read_loses_records_but_never_stops_the_daemon(bench):
    bench.make_gateway()
    controller = bench.make_controller(reading=False, pipe_size=4096)
    daemon = bench.make_daemon(env=bench.preload_fast_clock(FAST))
    daemon.start()
    daemon.log.wait_for("TUN-INTF is UP!!", 10)
    for _ in range(3):
        controller.send(*[records.record(records.PROCESS_REQUEST)] * 10)
    refused = (
        "tlscWriteToWLC() - on TLS Client, Error writing to FIFO /tmp/tlsc-to-wlc-fifo, msgId=36, num bytes written:-1, "
        "num bytes to be written:520, error:Resource temporarily unavailable"
    )
    daemon.log.wait_for(refused, 8, times=25)
    while controller.take_one():
        pass
    kept = controller.kinds()
    assert kept[:3] == ["1", "23", "30/0"]
    assert len(kept) == 7  # what 4096 bytes hold
    since = controller.count
    daemon.order(records.PROCESS_REQUEST)
    wait_until(lambda: controller.take_one() or controller.count > since, 5, "an answer")
    assert controller.kinds(since) == ["36"]
    assert controller.fragments == []


def test_a_controller_that_reads_slowly_gets_whole_records(bench):
    bench.make_gateway()
    controller = bench.make_controller(reading=False)
    daemon = bench.make_daemon(env=bench.preload_fast_clock(FAST))
    daemon.start()
    daemon.log.wait_for("Started DPD Timer", 10)
    controller.send(*[records.record(records.PROCESS_REQUEST)] * 40)
    time.sleep(1)
    while controller.take_one():
        time.sleep(0.01)
    assert controller.fragments == []
    assert controller.kinds()[:6] == ["1", "23", "30/0", "30/1", "24", "30/33"]
    assert controller.kinds()[6:] == ["36"] * 40


def test_records_from_both_threads_never_mix(bench):
    gateway = bench.make_gateway()
    daemon = bench.make_daemon(env=bench.preload_fast_clock(20))
    daemon.bring_up()
    controller = bench.controller
    for _ in range(12):
        since = controller.count
        gateway.ask("close", how="fin")
        controller.send(*[records.record(records.STATS_REQUEST)] * 10)
        controller.wait_for(records.TUN_UP, 10, since)
    known = {"1", "23", "24", "25", "27", "30/0", "30/1", "30/33"}
    assert controller.fragments == []
    assert set(controller.kinds()) <= known
    assert all(r.data[4:8] == bytes(4) for r in controller.received)


def test_a_start_without_a_configuration_file_leaves_a_daemon_that_can_be_ended(bench):
    daemon = bench.make_daemon(env=bench.preload_fast_clock(FAST), conf="")
    os.unlink(bench.world.path("/storage/application/wlc/wlc-sec-tun.conf"))
    daemon.start()
    daemon.log.wait_for("Could not set the SSL Cipher: ", 8)
    daemon.log.wait_for("Could not get new SSL handle", 8)
    daemon.log.wait_for("TCP Connection failed", 8)
    daemon.order(records.TUN_STOP)
    daemon.log.wait_for("epoll monitor thread exiting!!", 8)
    assert daemon.exit() == 1
