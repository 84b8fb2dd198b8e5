"""The TUN interface when the world is not as the daemon expects it, and the refusal to run without root."""

import time

import pytest

from harness import records
from harness.daemon import TUN_NAME, conf_text
from harness.world import wait_until

FAST = 4

# Keeps a TUN interface of that name attached until it is ended.
HOLDER = """
import fcntl, struct, sys, time
tun = open("/dev/net/tun", "r+b", buffering=0)
fcntl.ioctl(tun, 0x400454CA, struct.pack("16sH22x", sys.argv[1].encode(), 0x1001))
print("held", flush=True)
time.sleep(600)
"""


def hold_interface(world, name):
    world.write("/tmp/holder.py", HOLDER)
    holder = world.spawn(["/usr/bin/python3", "/tmp/holder.py", name], ns="device", stdout="/tmp/holder.out")
    wait_until(lambda: world.exists("/tmp/holder.out") and world.read("/tmp/holder.out") == b"held\n", 10, "the holder")
    return holder


@pytest.mark.sanitizer
def test_an_interface_held_by_another_process_is_deleted_and_made_again(bench):
    bench.make_gateway()
    bench.world.ip("device", f"tuntap add dev {TUN_NAME} mode tun")
    holder = hold_interface(bench.world, TUN_NAME)
    daemon = bench.make_daemon(env=bench.preload_fast_clock(FAST))
    daemon.bring_up()
    assert (
        daemon.log.count(f"IOCTL error[16] in setting tun interface {TUN_NAME}, deleting the existing tun interface")
        == 1
    )
    daemon.log.assert_order(
        "Failed to create interface for session 0x",
        "TUN State changed to 0, error cause:0",
        f"for tun-interface {TUN_NAME}",
        f"Successfully set the MTU(1406) for the interface {TUN_NAME}",
        "TUN-INTF is UP!!",
    )
    # The failed attempt has reported the interface down.
    assert [r.text for r in bench.controller.all(records.TUN_DOWN)] == ["No Error"]
    counters = daemon.statistics()
    assert (counters["tun_alloc"], counters["tun_freed"]) == (1, 1)
    assert holder.is_running()
    assert daemon.exit() == 1


def test_a_persistent_interface_of_an_earlier_owner_is_taken_over(bench):
    bench.make_gateway()
    bench.world.ip("device", f"tuntap add dev {TUN_NAME} mode tun")
    daemon = bench.make_daemon(env=bench.preload_fast_clock(FAST))
    daemon.bring_up()
    assert daemon.log.count("IOCTL error") == 0
    assert daemon.exit() == 1


def test_a_killed_daemon_leaves_nothing_that_hinders_the_next(bench):
    bench.make_gateway()
    first = bench.make_daemon(env=bench.preload_fast_clock(FAST))
    first.bring_up()
    first.process.kill()
    assert bench.world.exists("/tmp/wlc-to-tlsc-fifo")
    since = bench.controller.count
    second = bench.make_daemon(env=bench.preload_fast_clock(FAST))
    bench.controller.wait_for(records.HELLO, 3, since)
    second.start()
    bench.controller.wait_for(records.TUN_UP, 10, since)
    # The first one's log was archived.
    assert bench.world.exists("/tmp/tlsc_log_prev.tar")
    second.log.wait_for("Initialize tls-client", 1)
    assert second.exit() == 1


def test_an_orderly_daemon_can_be_followed_by_another(bench):
    bench.make_gateway()
    for _ in range(2):
        daemon = bench.make_daemon(env=bench.preload_fast_clock(FAST))
        daemon.bring_up()
        assert daemon.exit() == 1
        assert not bench.world.has_interface("device", TUN_NAME)


def test_five_failed_attempts_end_the_thread_and_the_monitor_starts_it_after_ten_seconds(bench):
    gateway = bench.make_gateway()
    daemon = bench.make_daemon(conf=conf_text(tun_interface_name="wan0"))
    daemon.start()
    daemon.log.wait_for("Retry count(5) over. Failed to create interface for session 0x", 12)
    ended = time.monotonic()
    assert daemon.log.count("IOCTL error[22] in setting tun interface wan0") == 5
    assert daemon.log.count("Retrying to create interface...") == 5
    daemon.log.assert_order(
        "Creation of tun-intf failed", "TLSC Client exited abnormally", "Retrying tlsc-start-client after sleep 10"
    )
    # An order to end that meets the sleeping monitor is dropped when the thread starts again.
    daemon.order(records.TUN_STOP)
    daemon.log.wait_for("Starting epoll thread", 13, times=2)
    assert abs(time.monotonic() - ended - 10) < 1
    daemon.log.wait_for("Total number of stale commands cleared from CLI pipe:1", 3)
    assert gateway.events("tcp_accept") == []
    assert daemon.exit() == 1


@pytest.mark.sanitizer
def test_a_restart_with_a_corrected_name_brings_the_tunnel_up(bench):
    bench.make_gateway()
    daemon = bench.make_daemon(conf=conf_text(tun_interface_name="wan0"), env=bench.preload_fast_clock(FAST))
    daemon.start()
    daemon.log.wait_for("Retrying tlsc-start-client after sleep 10", 8)
    bench.world.write("/storage/application/wlc/wlc-sec-tun.conf", conf_text())
    daemon.order(records.TUN_RESTART)
    bench.controller.wait_for(records.TUN_UP, 15)
    assert daemon.process.threads() == 3
    assert daemon.exit() == 1


def test_an_interface_deleted_from_outside_is_torn_down_once_and_another_is_made(bench):
    gateway = bench.make_gateway()
    daemon = bench.make_daemon(env=bench.preload_fast_clock(FAST))
    daemon.bring_up()
    told = bench.controller.count
    bench.world.ip("device", f"link delete {TUN_NAME}")
    daemon.log.wait_for("TLSC Client exited abnormally", 5)
    bench.controller.wait_for(records.TUN_DOWN, 5, since=told)
    bench.controller.wait_for(records.TUN_UP, 15, since=told)
    assert daemon.log.count("occured on TUN-Socket-fd(") == 1
    assert daemon.log.count("Closing connection and bringing down tun interface") == 1
    assert len(gateway.events("tcp_accept")) == 2
    assert daemon.exit() == 1


def test_a_name_that_is_a_shell_command_is_not_run(bench):
    name = "a&touch${IFS}x"  # the kernel accepts it as an interface name
    bench.world.ip("device", f"tuntap add dev {name} mode tun")
    hold_interface(bench.world, name)
    daemon = bench.make_daemon(conf=conf_text(tun_interface_name=name), env=bench.preload_fast_clock(FAST))
    daemon.start()
    daemon.log.wait_for("Retry count(5) over", 10)
    assert (
        daemon.log.count(f"IOCTL error[16] in setting tun interface {name}, deleting the existing tun interface") == 5
    )
    assert not bench.world.exists("/tmp/x")
    assert daemon.exit() == 1


@pytest.mark.parametrize(
    "name, shows", [("averyveryverylongname", "averyveryverylo"), ("", "tun0")], ids=["long", "empty"]
)
def test_names_as_the_kernel_takes_them(bench, name, shows):
    bench.make_gateway()
    daemon = bench.make_daemon(conf=conf_text(tun_interface_name=name or None), env=bench.preload_fast_clock(FAST))
    daemon.start()
    wait_until(lambda: bench.world.has_interface("device", shows), 10, f"interface {shows}")
    if name:
        bench.controller.wait_for(records.TUN_UP, 10)
    assert daemon.exit() == 1


def test_without_root_it_refuses_with_status_0(bench):
    bench.make_controller()
    bench.world.run(["chmod", "0666", "/tmp/tlsc-to-wlc-fifo"])
    answer = bench.world.run(
        ["setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups", str(bench.binary)],
        ns="device",
        check=False,
    )
    assert answer["status"] == 0
    assert answer["out"] == "\n  TLS Client process - Error: The program must be run as ROOT!!...existing"
    assert not bench.world.exists("/tmp/wlc-to-tlsc-fifo")
    assert bench.controller.received == []


def test_it_needs_no_open_standard_descriptors(bench):
    bench.make_gateway()
    bench.make_controller()
    bench.world.write("/storage/application/wlc/wlc-sec-tun.conf", conf_text())
    process = bench.world.spawn(
        ["sh", "-c", f"exec {bench.binary} <&- >&- 2>&-"],
        ns="device",
        env=bench.environment(bench.preload_fast_clock(FAST)),
    )
    bench.controller.wait_for(records.HELLO, 5)
    bench.controller.order(records.TUN_START)
    bench.controller.wait_for(records.TUN_UP, 10)
    assert all(process.descriptors()[number].endswith("/dev/null") for number in (0, 1, 2))
    bench.controller.order(records.EXIT)
    assert process.wait(8) == 1


def test_arguments_and_environment_change_nothing(bench):
    bench.make_gateway()
    bench.make_controller()
    bench.world.write("/storage/application/wlc/wlc-sec-tun.conf", conf_text())
    strange = {
        "server_ip_address": "192.0.2.99",
        "server_port": "1",
        "log_level": "buf-print",
        "LOG_DEST": "console",
        "DEBUG": "1",
    }
    process = bench.world.spawn(
        [bench.binary, "--help", "-d", "server_port=1", "/tmp/another.conf"],
        ns="device",
        env=bench.environment({**bench.preload_fast_clock(FAST), **strange}),
        stdout="/tmp/daemon.out",
    )
    bench.controller.wait_for(records.HELLO, 5)
    bench.controller.order(records.TUN_START)
    bench.controller.wait_for(records.TUN_UP, 10)
    bench.controller.order(records.EXIT)
    assert process.wait(8) == 1
    assert bench.world.read("/tmp/daemon.out") == b"Shutting down TLS Client...\n"
