"""The key;value;flag file: bad lines, long values, its mode, and a crash in the middle."""

import os

import pytest

from harness import records
from harness.daemon import CONF_FILE, PSK_KEY, SETTINGS, TEMP_CONF_FILE, conf_text
from harness.world import wait_until

FAST = 4


def start_and_read_back(bench, text, mode=0o600):
    bench.make_gateway()
    daemon = bench.make_daemon(conf=text, env=bench.preload_fast_clock(FAST))
    os.chmod(bench.world.path(CONF_FILE), mode)
    daemon.bring_up()
    return daemon, bench.world.read(CONF_FILE).decode()


def test_every_entry_is_marked_as_read(bench):
    _, text = start_and_read_back(bench, conf_text())
    assert text == conf_text().replace(";1\n", ";0\n")
    assert not bench.world.exists(TEMP_CONF_FILE)


def test_bad_lines_are_skipped_and_dropped_and_foreign_keys_kept(bench):
    bad = "\n# server_ip_address;192.0.2.99;1\nserver_port;444\nmanagement_ip\n;;;\n;\n"
    foreign = "colour;green;1\nempty_flag;value;\n"
    _, text = start_and_read_back(bench, bad + conf_text() + foreign + "tail_without_end;x;7")
    assert (
        text
        == (conf_text() + "colour;green;0\nempty_flag;value;0\n").replace(";1\n", ";0\n") + "tail_without_end;x;0\n"
    )


def test_the_last_of_several_entries_counts(bench):
    gateway = bench.make_gateway()
    daemon = bench.make_daemon(conf=conf_text() + "device_id;the-last-one;1\n", env=bench.preload_fast_clock(FAST))
    daemon.bring_up()
    assert gateway.events("config_req")[0]["device_id"] == "the-last-one"


def test_values_are_cut_to_what_their_fields_hold(bench):
    gateway = bench.make_gateway()
    text = conf_text(device_id="D" * 40, system_name="N" * 80, serial_num="S" * 40)
    daemon = bench.make_daemon(conf=text, env=bench.preload_fast_clock(FAST))
    daemon.bring_up()
    request = gateway.events("config_req")[0]
    assert (request["device_id"], request["name"], request["serial"]) == ("D" * 16, "N" * 50, "S" * 16)


@pytest.mark.sanitizer
def test_lines_of_any_length_do_no_harm(bench):
    text = "junk;" + "x" * 5000 + ";1\n" + conf_text() + "k" * 700 + ";v;1\n" + "\x00\x01binary;\xff;1\n"
    daemon, _ = start_and_read_back(bench, text)
    assert daemon.exit() == 1


def test_the_file_keeps_its_mode(bench):
    daemon, _ = start_and_read_back(bench, conf_text(), mode=0o640)
    assert daemon.conf_mode() == 0o640


def test_a_temporary_file_of_an_earlier_pass_is_carried_on(bench):
    bench.make_controller()
    bench.world.write(TEMP_CONF_FILE, "left_over;1;0\n")
    _, text = start_and_read_back(bench, conf_text())
    assert text == "left_over;1;0\n" + conf_text().replace(";1\n", ";0\n")


def test_a_crash_between_the_two_files_loses_no_entry(bench):
    bench.make_gateway()
    first = bench.make_daemon()
    first.start()
    wait_until(lambda: bench.world.exists(TEMP_CONF_FILE), 5, "the temporary file", pause=0.002)
    first.process.kill()
    assert bench.world.read(CONF_FILE).decode() == conf_text()

    second = bench.make_daemon(conf=conf_text(), env=bench.preload_fast_clock(FAST))
    second.bring_up()
    keys = {line.split(";")[0]: line.split(";")[1] for line in bench.world.read(CONF_FILE).decode().splitlines()}
    assert keys == SETTINGS
    assert not bench.world.exists(TEMP_CONF_FILE)


def test_neither_file_is_ever_readable_by_others(bench):
    bench.make_gateway()
    daemon = bench.make_daemon()
    daemon.start()
    wait_until(lambda: bench.world.exists(TEMP_CONF_FILE), 5, "the temporary file", pause=0.002)
    assert os.stat(bench.world.path(TEMP_CONF_FILE)).st_mode & 0o077 == 0
    bench.controller.wait_for(records.TUN_UP, 10)
    assert PSK_KEY in bench.world.read(CONF_FILE).decode()
    assert daemon.conf_mode() == 0o600


def test_serial_number_and_name_survive_a_file_that_lacks_them(bench):
    gateway = bench.make_gateway()
    daemon = bench.make_daemon(env=bench.preload_fast_clock(FAST))
    daemon.bring_up()
    bench.world.write(CONF_FILE, conf_text(serial_num=None, system_name=None, device_id=None))
    before = gateway.last
    daemon.order(records.TUN_RESTART)
    request = gateway.wait("config_req", since=before, timeout=10)
    assert (request["device_id"], request["name"], request["serial"]) == ("", "branch-router", "SN-4711")
