"""The daemon built for 32-bit ARM, run by qemu-arm against the gateway of the native build.

    TLSC_ARMHF_BUILD    build directory with bin/tlsc (default: build/armhf of the project)
    TLSC_ARMHF_SYSROOT  the sysroot it was built with (default: build/armhf-sysroot)
"""

import os
import random
import shutil
import signal
from hashlib import sha256
from pathlib import Path

import pytest

from harness import records
from harness.packets import with_address
from harness.world import MANAGEMENT_IP, PROJECT, SITE_IP
from test_traffic import Crossing, random_packet, transfer

DAEMON = Path(os.environ.get("TLSC_ARMHF_BUILD", PROJECT / "build/armhf")).resolve() / "bin/tlsc"
SYSROOT = Path(os.environ.get("TLSC_ARMHF_SYSROOT", PROJECT / "build/armhf-sysroot")).resolve()
QEMU = shutil.which("qemu-arm") or shutil.which("qemu-arm-static")
WRAPPER = "/tmp/tlsc-armhf"
REKEY_SECONDS = 12


def missing():
    """What the tests lack on this machine; nothing when they can run."""
    if not DAEMON.exists():
        return f"no {DAEMON}: not built for ARM (see TLSC_ARMHF_BUILD)"
    if not (SYSROOT / "packages.txt").exists():
        return f"no sysroot in {SYSROOT} (see TLSC_ARMHF_SYSROOT)"
    if not QEMU:
        return "no qemu-arm"
    return ""


pytestmark = [pytest.mark.armhf, pytest.mark.skipif(bool(missing()), reason=missing() or "complete")]


def make_arm_daemon(bench):
    """The daemon in the place of the native one. Its process is the emulator's."""
    bench.world.write(WRAPPER, f"#!/bin/sh\nexec {QEMU} -L {SYSROOT} {DAEMON}\n", mode=0o755)
    return bench.make_daemon(binary=WRAPPER)


def is_arm_program(path):
    """ELF, 32 bits, little-endian, machine 40."""
    head = Path(path).read_bytes()[:20]
    return head[:6] == b"\x7fELF\x01\x01" and head[18:20] == b"\x28\x00"


def test_a_session_with_traffic_and_a_rekey_is_the_documented_one(bench):
    assert is_arm_program(DAEMON)
    gateway = bench.make_gateway("--rekey", str(REKEY_SECONDS), dns=("10.9.0.1", "192.0.2.53"))
    daemon = make_arm_daemon(bench)
    controller = bench.controller

    # Start.
    daemon.bring_up()
    daemon.add_route()
    inner, first_client = gateway.inner(), gateway.client()
    controller.wait_for("30/33", 3)
    assert [r.data for r in controller.received] == [
        records.record(records.HELLO),
        records.record(records.TUN_IN_PROG),
        records.dns_record(["10.9.0.1", "192.0.2.53"]),
        records.inner_address_record(inner),
        records.record(records.TUN_UP),
        records.statistics_record({"ctrl_rx": 1, "ctrl_tx": 1, "tun_alloc": 1}),
    ]
    daemon.order(records.PROCESS_REQUEST)
    answer = controller.wait_for(records.PROCESS_INFO, 5)
    assert answer.data == records.record(records.PROCESS_INFO, daemon.process.pid.to_bytes(4, "little"))

    # Traffic of the kernel's own.
    ping = bench.world.run(["ping", "-c", "50", "-i", "0.02", "-W", "2", "-I", MANAGEMENT_IP, SITE_IP], ns="device")
    assert "50 received, 0% packet loss" in ping["out"]
    rng = random.Random(32)
    data = rng.randbytes(1 << 20)
    assert (
        transfer(bench.world, data, "gateway", (SITE_IP, SITE_IP), "device", MANAGEMENT_IP)
        == [sha256(data).hexdigest()] * 2
    )

    # Rekey: another connection, the same address, no report of a change.
    daemon.log.wait_for("Started Rekey Timer for", REKEY_SECONDS + 8, times=2)
    counters = daemon.statistics()
    assert (counters["rekey_attempts"], counters["rekey_success"], counters["tun_alloc"], counters["tun_freed"]) == (
        1,
        1,
        1,
        0,
    )
    assert gateway.client() != first_client
    assert gateway.inner() == inner
    assert controller.all(records.TUN_DOWN) == []

    # Traffic on the new connection, byte for byte; inbound first, because the site answers what it gets.
    crossing = Crossing(bench)
    inbound = [random_packet(rng, SITE_IP, inner) for _ in range(40)]
    assert crossing.down(inbound) == [with_address(packet, dst=MANAGEMENT_IP) for packet in inbound]
    outbound = [random_packet(rng, MANAGEMENT_IP, SITE_IP) for _ in range(40)]
    assert crossing.up(outbound) == [with_address(packet, src=inner) for packet in outbound]

    # Stop and exit.
    before_stop = controller.count
    daemon.order(records.TUN_STOP)
    down = controller.wait_for(records.TUN_DOWN, 5, since=before_stop)
    assert down.data == records.text_record(records.TUN_DOWN, "No Error")
    daemon.log.wait_for("epoll monitor thread exiting!!", 6)
    assert daemon.exit() == 1
    assert controller.fragments == []
    assert daemon.output().endswith("Shutting down TLS Client...\n")
    assert daemon.errors() == ""
    assert daemon.log.messages()[-1] == "Client Shutdown!!"


@pytest.mark.parametrize("interval", [4, 0])
def test_a_dpd_interval_below_5_ends_the_process_by_an_arithmetic_error(bench, interval):
    """Where the processor divides in hardware as well: the unit tests are built for such a one."""
    bench.make_gateway("--allow-fatal", "--dpd", str(interval))
    daemon = make_arm_daemon(bench)
    daemon.start()
    assert daemon.process.wait(15) == -signal.SIGFPE
    daemon.log.assert_order("Process CSTP-CONFIG-RESPONSE", "TUN-INTF is UP!!")
