"""From the controller's START to its EXIT with the clock as it is: every record, byte for byte, and the log in order."""

import subprocess
import time

import pytest

from harness import records
from harness.daemon import PSK_KEY, TUN_NAME, conf_text
from harness.log import LOG_FILE
from harness.world import BUILD, DEVICE_IP, GATEWAY_IP

REQUEST = "X-CSTP-Device-ID:dev-0001\nX-CSTP-Device-Name:branch-router\nX-CSTP-Device-SerialNo:SN-4711\n"


@pytest.mark.sanitizer
def test_every_record_of_a_session_is_the_documented_one(bench):
    bench.make_gateway(dns=("10.9.0.1", "192.0.2.53"))
    daemon = bench.make_daemon()
    controller = bench.controller
    began = time.monotonic()

    controller.wait_for(records.HELLO, 3)
    daemon.start()
    up = controller.wait_for(records.TUN_UP, 15)
    controller.wait_for("30/33", 3)
    inner = bench.gateway.inner()
    assert [r.data for r in controller.received] == [
        records.record(records.HELLO),
        records.record(records.TUN_IN_PROG),
        records.dns_record(["10.9.0.1", "192.0.2.53"]),
        records.inner_address_record(inner),
        records.record(records.TUN_UP),
        controller.received[5].data,
    ]
    # The counters at the moment of the report: one request out, one response in, one interface.
    assert controller.received[5].data == records.statistics_record({"ctrl_rx": 1, "ctrl_tx": 1, "tun_alloc": 1})

    # Poll within 2 s, 1 s for the configuration file, 2 s between handshake and request.
    assert 3.0 < up.at - began < 6.5

    daemon.order(records.PROCESS_REQUEST)
    answer = controller.wait_for(records.PROCESS_INFO, 3)
    assert answer.data == records.record(records.PROCESS_INFO, daemon.process.pid.to_bytes(4, "little"))

    daemon.order(records.HELLO)
    assert controller.wait_for(records.HELLO, 3, since=1).data == records.record(records.HELLO)

    before_stop = controller.count
    daemon.order(records.TUN_STOP)
    down = controller.wait_for(records.TUN_DOWN, 4, since=before_stop)
    assert down.data == records.text_record(records.TUN_DOWN, "No Error")
    daemon.log.wait_for("epoll monitor thread exiting!!", 5)
    # The stop has switched the feature off; whether a statistics update slips through before is a race of two threads.
    assert controller.kinds(before_stop) in (["25"], ["25", "30/33"])

    assert daemon.exit() == 1
    assert controller.fragments == []
    assert not bench.world.exists("/tmp/wlc-to-tlsc-fifo")
    assert bench.world.exists("/tmp/tlsc-to-wlc-fifo")
    assert daemon.output().endswith("Shutting down TLS Client...\n")
    assert daemon.errors() == ""


def test_the_log_tells_the_session_in_order(bench):
    bench.make_gateway()
    daemon = bench.make_daemon()
    daemon.bring_up()
    daemon.order(records.TUN_STOP)
    daemon.log.wait_for("epoll monitor thread exiting!!", 6)
    assert daemon.exit() == 1

    daemon.log.assert_order(
        "[tlsc_init] Initialize tls-client",
        "Setting sock-fd(",
        "Set non-block flag on CLI pipe read fd:",
        "OpenSSL initialized...",
        "[tlsc_init] tlsc_init() - Invoking config set APIs",
        "tlsc_set_config_all() - setting all config for TLS Client",
        f"tlsc_set_config_server_ip_port() - server_ip:{GATEWAY_IP}, server_port:443",
        "tlsc_set_config_management_ip() - mgmt_ip:10.1.0.2",
        "tlsc_set_config_device_id() - device_id:dev-0001",
        f"tlsc_set_config_tun_interface_name() - tun_interface_name:{TUN_NAME}",
        "tlsc_set_config_tun_cipher_algo() - cipher_algo:PSK-AES256-CBC-SHA",
        "tlsc_set_config_psk_identify() - psk_identity:device-1",
        "tlsc_set_config_psk_key() - psk_key:***",
        "tlsc_set_config_serial_num() - serial_no:SN-4711",
        "tlsc_set_config_device_name() - device_name:branch-router",
        f"\ntlsc_init() - svr_addr_ipv4:{GATEWAY_IP}, svr_port:443, management_ip:10.1.0.2, tun_interface_name:{TUN_NAME}, "
        "cipher_algo:PSK-AES256-CBC-SHA, tlsc_debug_level:2, psk_identity:device-1, psk_key:***",
        "Cipher set successfully for SSL-Ctx : PSK-AES256-CBC-SHA",
        "Started the epoll monitor thread successfully",
    )
    daemon.log.assert_order(
        "In TLS Client epoll monitor thread",
        "Starting epoll thread",
        "In epoll thread",
        "to handle maximum 80 events",
        "Clearing the stale commands form CLI pipe, read fd:",
        "Total number of stale commands cleared from CLI pipe:0",
        f"for tun-interface {TUN_NAME}",
        f"Successfully set the MTU(1406) for the interface {TUN_NAME}",
        f"Added interface {TUN_NAME} to epoll list",
        "Successfully created new sock-fd for client: ",
        f"Server port = {443 << 8 & 0xFF00 | 443 >> 8}, Server IP({GATEWAY_IP}) = ",
        "TCP conn established successfully!! sockfd = ",
        "psk_client_cb received...",
        f"created PSK of len = {len(PSK_KEY)}",
        f"Successfully enabled SSL/TLS session to: {GATEWAY_IP}.",
        "Building CSTP-CONFIG-REQ",
        f"Config Request msg = [index = {len(REQUEST)}] \n{REQUEST}",
        f"Successfully wrote {8 + len(REQUEST)} ",
        "bytes of config-resq for conn ",
        "Successfully added Client-socket-fd(",
        "Process CSTP-CONFIG-RESPONSE",
        "Parsing CSTP-CONFIG-RESPONSE msg",
        "Client inner IP received 10.9.0.",
        "Starting TLS session by making tun-intf up",
        "TUN State changed to 1, error cause:0",
        "TUN-INTF is UP!!",
        "Rekey interval is set, start the timer",
        "Started Rekey Timer for 3600 sec",
        "Started DPD Timer for ",
        "Exit cmd rcvd for child thread, set exit_client flag to true",
        "TUN State changed to 0, error cause:0",
        "TLS Client: epoll thread exiting normally",
        "TLS Client: epoll thread exiting",
        "epoll monitor thread exiting!!",
        "Received TWLC_EXIT command, Exiting TLS Client!!!",
        "Cleaning up Tls-session and SSL context",
        "Client Shutdown!!",
    )
    levels = {e.message: e.level for e in daemon.log.entries()}
    assert levels[f"Added interface {TUN_NAME} to epoll list"] == "WARNING"
    assert levels["Client Shutdown!!"] == "WARNING"
    assert levels["psk_client_cb received..."] == "INFO"


def test_the_gateway_sees_the_request_line_by_line(bench):
    gateway = bench.make_gateway()
    bench.make_daemon().bring_up()

    request = gateway.events("config_req")[0]
    assert request["text"] == REQUEST
    handshake = gateway.events("tls_up")[0]
    assert (handshake["version"], handshake["cipher"], handshake["identity"]) == (
        "TLSv1.2",
        "PSK-AES256-CBC-SHA",
        "device-1",
    )
    accepted = gateway.events("tcp_accept")[0]
    assert accepted["peer"].startswith(f"{DEVICE_IP}:")
    # The client pauses 2 seconds between handshake and request.
    assert 1.95 < request["mono"] - handshake["mono"] < 3


def test_lines_before_the_first_start_go_to_descriptor_0_and_the_file_is_opened_by_the_start(bench):
    bench.make_gateway()
    bench.make_controller().close()
    bench.world.run(["rm", "/tmp/tlsc-to-wlc-fifo"])
    daemon = bench.make_daemon()
    daemon.early_log.wait_for(
        "Open /tmp/tlsc-to-wlc-fifo FIFO failed in O_WRONLY | O_NONBLOCK mode error:No such file or directory", 5
    )
    assert not bench.world.exists(LOG_FILE)
    daemon.start()
    daemon.log.wait_for("Initialize tls-client", 5)
    entries = daemon.log.entries()
    assert entries[0].message == "Initialize tls-client"
    assert entries[0].number == len(daemon.early_log.entries()) + 1


def test_a_wrong_debug_setting_changes_nothing(tunnel):
    daemon = tunnel.daemon
    place = daemon.log.position
    wrong = [("error", "error"), ("level", "loud"), ("level", "error"), ("destination", "printer"), ("colour", "info")]
    tunnel.controller.send(*[records.debug_record(*words) for words in wrong])
    daemon.log.wait_for("debug set msg received, invalid params,category:", 5, place, times=len(wrong))
    lines = [e for e in daemon.log.entries(place) if "invalid params" in e.message]
    # By contract the category stands where the function's name was meant, and the last text is empty.
    assert [e.message for e in lines] == [
        f"{category}() - TLS Client, debug set msg received, invalid params,category:{value}, level:"
        for category, value in wrong
    ]
    assert {e.level for e in lines} == {"ERROR"}
    assert daemon.log.count("Log level", place) == 0
    assert daemon.log.count("Log destination", place) == 0


@pytest.mark.parametrize("cipher", ["PSK-AES256-GCM-SHA384", "DHE-PSK-AES256-CBC-SHA", "nonsense:PSK-AES128-CBC-SHA"])
def test_the_configured_cipher_list_is_used(bench, cipher):
    libraries = subprocess.run(["ldd", BUILD / "bin/tlsc"], capture_output=True, text=True, check=True).stdout
    if "libssl.so.1.0" in libraries and cipher.startswith(("PSK-AES256-GCM", "DHE-PSK")):
        pytest.skip("the 1.0 series of OpenSSL has no such cipher")
    gateway = bench.make_gateway()
    bench.make_daemon(conf=conf_text(cipher_algo=cipher)).bring_up()
    assert gateway.events("tls_up")[0]["cipher"] == cipher.split(":")[-1]
