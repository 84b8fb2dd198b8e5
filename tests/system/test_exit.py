"""The exit order in every state of the client: it always ends the process, soon, with status 1."""

import os
import random

import pytest

from harness import records
from harness.daemon import EARLY_LOG, conf_text
from harness.log import LOG_FILE
from harness.world import BLACK_HOLE_IP, GATEWAY_IP

# Until the poll 2 s; the clean-up waits for no gateway.
EXIT_SECONDS = 5


def before_any_start(_run):
    pass


def together_with_the_start(run):
    """The exit stands behind the start in the pipe: the tunnel thread is just beginning."""
    run.daemon.controller.send(records.record(records.TUN_START))


def connecting_to_a_black_hole(run):
    run.daemon.start()
    run.daemon.log.wait_for(f"Server IP({BLACK_HOLE_IP})", 8)


def handshake_stalled(run):
    run.gateway.ask("accept", mode="stall_tls")
    run.daemon.start()
    run.daemon.log.wait_for("TCP conn established successfully!!", 8)


def in_the_pause_before_the_request(run):
    run.daemon.start()
    run.daemon.log.wait_for("Successfully enabled SSL/TLS session to:", 8)


def waiting_for_the_response(run):
    run.gateway.ask("config", mode="drop")
    run.daemon.start()
    run.daemon.log.wait_for("of config-resq for conn", 10)


def response_refused(run):
    run.gateway.ask("config", mode="replace", text="X-CSTP-DPD:10\n")
    run.daemon.start()
    run.daemon.log.wait_for("Could not process config resp", 10)


def up(run):
    run.daemon.bring_up()


def dpd_outstanding(run):
    run.gateway.ask("set", header="X-CSTP-DPD", value="5")
    run.gateway.ask("dpd", on=False)
    run.daemon.bring_up()
    run.daemon.log.wait_for("Sending DPD Request [Req Retry Ref #0]", 8)


def backing_off(run):
    run.daemon.bring_up()
    place = run.daemon.log.position
    run.gateway.ask("close", how="rst")
    run.daemon.log.wait_for("Started Backoff Timer", 5, place)


def backing_off_without_a_first_connection(run):
    run.gateway.ask("accept", mode="refuse")
    run.daemon.start()
    run.daemon.log.wait_for("Started Backoff Timer", 8, times=2)


def waiting_for_the_name(run):
    run.gateway.ask("set", header="X-CSTP-Rekey-Time", value="3")
    run.controller.resolve = None
    run.daemon.bring_up()
    run.daemon.log.wait_for("Started FQDN Resoln Timer", 10)


def connecting_for_a_rekey(run):
    run.gateway.ask("set", header="X-CSTP-Rekey-Time", value="3")
    run.daemon.bring_up()
    place = run.daemon.log.position
    run.gateway.ask("accept", mode="stall_tls")
    run.daemon.log.wait_for("TCP conn established successfully!!", 10, place)


def waiting_for_the_response_of_a_rekey(run):
    run.gateway.ask("set", header="X-CSTP-Rekey-Time", value="3")
    run.daemon.bring_up()
    place = run.daemon.log.position
    run.gateway.ask("config", mode="drop")
    run.daemon.log.wait_for("of config-resq for conn", 12, place)


def trying_for_the_interface(run):
    run.daemon.start()
    run.daemon.log.wait_for("Retrying to create interface...", 8)


def monitor_waiting_to_start_again(run):
    run.daemon.start()
    run.daemon.log.wait_for("Retrying tlsc-start-client after sleep 10", 14)


def stopped(run):
    run.daemon.bring_up()
    run.daemon.order(records.TUN_STOP)
    run.daemon.log.wait_for("epoll monitor thread exiting!!", 6)


def restarting(run):
    run.daemon.bring_up()
    run.daemon.order(records.TUN_RESTART)


def under_traffic(run):
    run.daemon.bring_up()
    run.daemon.add_route()
    run.world.spawn(["ping", "-q", "-i", "0.002", "-c", "5000", "-I", "10.1.0.2", "10.9.0.1"], ns="device")


WRONG_NAME = {"tun_interface_name": "wan0"}  # exists and is no TUN interface
SETTINGS = {
    connecting_to_a_black_hole: {"server_ip_address": BLACK_HOLE_IP},
    trying_for_the_interface: WRONG_NAME,
    monitor_waiting_to_start_again: WRONG_NAME,
}
STATES = [
    before_any_start,
    together_with_the_start,
    connecting_to_a_black_hole,
    handshake_stalled,
    in_the_pause_before_the_request,
    waiting_for_the_response,
    response_refused,
    up,
    dpd_outstanding,
    backing_off,
    backing_off_without_a_first_connection,
    waiting_for_the_name,
    connecting_for_a_rekey,
    waiting_for_the_response_of_a_rekey,
    trying_for_the_interface,
    monitor_waiting_to_start_again,
    stopped,
    restarting,
    under_traffic,
]


def reset(gateway):
    """The gateway of a new round: normal in every respect, nobody connected."""
    gateway.ask("accept", mode="normal")
    gateway.ask("config", mode="normal")
    gateway.ask("dpd", on=True)
    gateway.ask("unset")
    for client in gateway.clients():
        gateway.ask("close", client=client["client"], how="rst")


def exit_from(bench, state, **more):
    """One life of the daemon up to that state, and its exit."""
    bench.controller.resolve = GATEWAY_IP
    reset(bench.gateway)
    bench.world.run(["rm", "-f", LOG_FILE, EARLY_LOG, "/tmp/daemon.out", "/tmp/daemon.err"])
    daemon = bench.make_daemon(conf=conf_text(**SETTINGS.get(state, {})), **more)
    state(bench)
    status = daemon.exit(EXIT_SECONDS)
    assert status == 1, f"{state.__name__}: status {status}\n{daemon.errors()}\n{daemon.log.tail()}"
    assert daemon.errors() == ""
    log = daemon.log if bench.world.exists(LOG_FILE) else daemon.early_log
    assert log.messages()[-1] == "Client Shutdown!!"
    if log.count("Added interface "):
        at_end = log.messages()[log.messages().index("Cleaning up Tls-session and SSL context") :]
        assert at_end.count("TUN State changed to 0, error cause:0") == 1, state.__name__
    assert daemon.output().endswith("Shutting down TLS Client...\n")
    assert not bench.world.exists("/tmp/wlc-to-tlsc-fifo")
    return daemon


@pytest.mark.parametrize("state", STATES, ids=lambda state: state.__name__)
def test_the_exit_ends_the_process_with_status_1(bench, state):
    bench.make_controller()
    bench.make_gateway()
    exit_from(bench, state, env=bench.preload_fast_clock(3))


@pytest.mark.sanitizer_only
@pytest.mark.parametrize("part", range(10))
def test_ten_exits_in_random_states(bench, part, record_property):
    seed = int(os.environ.get("TLSC_SEED", random.SystemRandom().randrange(1 << 30))) + part
    record_property("seed", seed)
    print(f"TLSC_SEED={seed - part} part {part}")
    rng = random.Random(seed)
    bench.make_controller()
    bench.make_gateway()
    states = [rng.choice(STATES) for _ in range(10)]
    print([state.__name__ for state in states])
    for state in states:
        exit_from(bench, state, env=bench.preload_fast_clock(5))
