#!/usr/bin/python3
"""Do the unit tests notice when the daemon is wrong? Breaks the daemon's sources in small ways, one at a time, and says
whether a test fails.

  tests/mutate.py [--jobs N] [--only TEXT] [--module NAME] [--list] [--check] [--scratch DIRECTORY]

Each entry of the catalogue below is a sentence that is true of the broken daemon, a source file, a piece of its text
(which must occur there exactly once), what stands in its place, and the test executables that are tried first. For each
entry the one source is compiled anew and the tests are linked with it and run in worlds of their own
(tools/private-world), at first those that the entry names, then all others of the daemon. An entry is

  killed      when a test fails, and fails again when it is repeated alone or, if it then passes, with its whole
              executable; a run that exceeds its time limit counts only when the entry says that the broken daemon hangs
  SURVIVED    when every test passes: a test is missing
  NOT BUILT   when the broken source does not compile: the entry is wrong

An entry whose text does not occur exactly once is stale; the script then says so before anything is built, and with
--check does no more than that.

The sources are copied at the start into a temporary directory, which is removed at the end: the checkout is not touched
and may be edited meanwhile. --scratch uses a directory that stays, so that the next run builds only what has changed.
It needs root (for the worlds), and what the build needs. The exit status is 0 when every entry was killed.
"""

import argparse
import concurrent.futures
import os
import re
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path
from typing import NamedTuple

ROOT = Path(__file__).resolve().parent.parent
NEEDED = ("CMakeLists.txt", "src", "wlc", "common", "gateway", "controller", "tools/private-world", "tests",
          "docs/security.md")
TIME_LIMIT = 30        # seconds for one test executable, or as many times the unbroken daemon's as PATIENCE says
PATIENCE = 6
BASE_TIME_LIMIT = 120  # for the unbroken daemon, which must pass however busy the machine is


class Mutant(NamedTuple):
    name: str    # a sentence that is true of the broken daemon
    file: str
    old: str     # occurs exactly once in the file
    new: str
    tests: tuple  # test executables to try first
    hangs: bool = False  # a run that exceeds its time limit is a kill


# ==== the catalogue ===============================================================================================

catalogue = []


def module(file, *entries):
    """Adds entries (name, old, new, tests[, hangs]) of one source; tests is a text with names separated by blanks."""
    for name, old, new, tests, *hangs in entries:
        catalogue.append(Mutant(name, file, old, new, tuple(tests.split()), *hangs))


module("src/tlsc_debug.cpp",
    ("The log's opening waits for a reader.",
     "O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);", "O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);", "tlsc_debug_test", True),
    ("Another user's file is as good as ours.",
     " && status.st_uid == geteuid()", "", "tlsc_debug_test"),
    ("A file with other names is as good as one without.",
     " && status.st_nlink == 1", "", "tlsc_debug_test"),
    ("The archive is written through what stands at its name.",
     "    take_name(archive);\n", "", "tlsc_debug_test", True),
    ("The log is moved to wherever its new name leads.",
     "    take_name(moved);\n", "", "tlsc_debug_test"),
    ("What another user left is packed.",
     "    if (is_own_file_at(moved)) run_shell(command);", "    run_shell(command);", "tlsc_debug_test"),
    ("Every line waits for a console that nobody reads.",
     "    if (patience <= 0) return false;\n", "    if (patience <= 0) return takes_something(fd, console_patience);\n", "tlsc_debug_test", True),
    ("Patience with the console never returns.",
     "    if (!waited) regain_patience();\n", "    if (!waited) return static_cast<int32_t>(done);\n", "tlsc_debug_test"),
    ("Terminals are left as they block.",
     "!S_ISFIFO(status.st_mode) && !S_ISCHR(status.st_mode)", "!S_ISFIFO(status.st_mode)", "tlsc_debug_test", True),
    ("Control characters are obeyed.",
     "        show_controls_of_line(length);\n", "", "tlsc_debug_test"),
    ("The log file grows by one byte more before it is rotated.",
     "max_file_bytes     = 4999999;", "max_file_bytes     = 5000000;", "tlsc_debug_test"),
    ("A rotation by size leaves the count of bytes as it is.",
     "        file_bytes        = 0;\n", "", "tlsc_debug_test"),
    ("With both destinations the file is written first.",
     "        write_to_console(text, length);\n        write_to_file(text, length);\n",
     "        write_to_file(text, length);\n        write_to_console(text, length);\n", "tlsc_debug_test"),
    ("An archived log file stays open.",
     "        close(log_fd);\n        log_fd = 0;\n", "        log_fd = 0;\n", "tlsc_debug_test"),
    ("The log file may be a link.",
     "O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600", "O_WRONLY | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0600", "tlsc_debug_test"),
    ("The log lock is not taken.",
     "log_lock_alive.store(true, std::memory_order_release);", "", "tlsc_debug_test"),
    ("An alert of any length has its level and description read.",
     "        if (length != 2) break;\n", "        if (length < 2) break;\n", "tlsc_trace_test"),
)

module("src/tlsc_utils.cpp",
    ("A checksum is folded once.",
     "    while (sum >> 16) sum =", "    if (sum >> 16) sum =", "tlsc_utils_test"),
    ("A UDP packet without a checksum gets one.",
     "        if (load_word(transport + udp_checksum_off) != 0)\n", "", "tlsc_utils_test"),
    ("The transport header is looked for behind 20 bytes whatever the options.",
     "static_cast<size_t>(packet[0] & 0x0F) * 4;", "20;", "tlsc_utils_test"),
    ("A first fragment is taken for a later one.",
     "((packet[6] & 0x1F) | packet[7]) != 0", "((packet[6] & 0x3F) | packet[7]) != 0", "tlsc_utils_test"),
    ("The value 0 can be removed from a list.",
     "if (list->count == 0 || value == 0) return 0;", "if (list->count == 0) return 0;", "tlsc_utils_test"),
)

module("src/tlsc_config.cpp",
    ("The secret key is shown.",
     "psk_key[0] != '\\0' ? \"***\" : \"\"", "psk_key", "tlsc_config_test"),
    ("A value begins behind the first equals sign.",
     "strrchr(line, '=')", "strchr(line, '=')", "tlsc_config_test"),
    ("The key's range is printed as it is checked.",
     "printed_max_psk_key     = 4;", "printed_max_psk_key     = max_psk_key_text;", "tlsc_config_test"),
    ("The highest log level is refused.",
     "level > LOG_BUF_PRINT", "level >= LOG_BUF_PRINT", "tlsc_config_test"),
    ("The cipher list is read before the credentials.",
     "load_credentials(conf) &&\n           load_cipher_algo(conf)",
     "load_cipher_algo(conf) &&\n           load_credentials(conf)", "tlsc_config_test"),
)

module("src/tlsc_tun_intf.cpp",
    ("An ioctl refused by EPERM is told from a success.",
     "    return tlsc_ioctl_errno;\n}\n\nint32_t tlsc_socket_creation",
     "    return tlsc_ioctl_errno == EPERM ? -1 : tlsc_ioctl_errno;\n}\n\nint32_t tlsc_socket_creation", "tlsc_tun_intf_test"),
    ("The warning about the MTU names interface and error in their places.",
     "strerror(tlsc_ioctl_errno), name);\n        if (!renew_control_socket(name)) return tlsc_socket_errno;",
     "name, strerror(tlsc_ioctl_errno));\n        if (!renew_control_socket(name)) return tlsc_socket_errno;", "tlsc_tun_intf_test"),
    ("Events of a deleted interface are still delivered.",
     "        tlsc_forget_fd_events(session->tun_fd);\n", "", "tlsc_tun_intf_test"),
    ("A state is recorded before it is reported.",
     "    (void)tlsc_write_tun_intf_state(state ? 1 : 0, TLSC_DOWN_NO_ERROR);",
     "    session->tun_state = state ? 1 : 0;\n    (void)tlsc_write_tun_intf_state(state ? 1 : 0, TLSC_DOWN_NO_ERROR);", "tlsc_tun_intf_test"),
    ("An interface whose state cannot be changed keeps its name.",
     "        session->if_name = nullptr;  // The interface cannot be used until it is created again.\n", "", "tlsc_tun_intf_test"),
    ("An interface obtained on the fifth attempt counts.",
     "if (attach_session(session, name) >= max_create_attempts)", "if (attach_session(session, name) > max_create_attempts)", "tlsc_tun_intf_test"),
)

module("src/tlsc_route_utils.cpp",
    ("The mask of a route is one bit too long.",
     "0xFFFFFFFFu << (32 - length)", "0xFFFFFFFFu << (31 - length)", "tlsc_route_utils_test"),
    ("The socket of a route operation stays open.",
     "tlsc_route_operation_ipv4(sock, &route, add, name);\n    close(sock);\n", "tlsc_route_operation_ipv4(sock, &route, add, name);\n", "tlsc_route_utils_test"),
    ("The need of a new control socket is never met.",
     "            tlsc_new_socket_needed = false;\n", "", "tlsc_route_utils_test"),
)

module("src/tlsc_session.cpp",
    ("A fresh session names descriptor 0 as its interface.",
     "session->tun_fd    = -1;", "session->tun_fd    = 0;", "tlsc_session_test"),
    ("A released session is remembered.",
     "    free(process_session);\n    process_session = nullptr;\n", "    free(process_session);\n", "tlsc_session_test"),
    ("The errno of an interface that does not come up is not handled.",
     "            (void)tlsc_error_handling(result);", "            //", "tlsc_session_test"),
)

module("src/tlsc_timer.cpp",
    ("A dead-peer interval without a spread ends the process with another signal.",
     "        (void)raise(SIGFPE);\n", "", "tlsc_timer_test"),
    ("The start of the rekey timer is told at debug level.",
     "TLSC_INFO(\"Started Rekey Timer", "TLSC_DEBUG(\"Started Rekey Timer", "tlsc_timer_test"),
    ("The dead-peer timer runs for at least nine tenths of its interval.",
     "seconds * 8 / 10", "seconds * 9 / 10", "tlsc_timer_test"),
    ("The pause behind a failure grows up to 3601 seconds.",
     "max_backoff_seconds   = 3600;", "max_backoff_seconds   = 3601;", "tlsc_timer_test"),
    ("Timers follow the clock that can be set.",
     "timerfd_create(CLOCK_MONOTONIC,", "timerfd_create(CLOCK_REALTIME,", "tlsc_timer_test"),
    ("Events of a closed timer are still delivered.",
     "    tlsc_forget_fd_events(*slot);\n", "", "tlsc_timer_test engine_loop_test"),
    ("The peer is given up at the fifth retry expiry.",
     "max_retries = 3;", "max_retries = 4;", "timer_expiry_test"),
    ("The peer is given up for ever.",
     "    tlsc_stop_timer(&tlsc_timers.retry);\n    tlsc_retry_ref = 0;\n", "    tlsc_stop_timer(&tlsc_timers.retry);\n", "timer_expiry_test"),
    ("The name's resolution is waited for again and again.",
     "tlsc_start_timer(&tlsc_timers.fqdn, 1)", "tlsc_start_timer(&tlsc_timers.fqdn, 0)", "timer_expiry_test"),
    ("An old transport that an earlier attempt has kept leaks.",
     "    if (tlsc_old_transport.fd > 0) tlsc_close_old_transport();\n    tlsc_old_transport = {", "    tlsc_old_transport = {", "timer_expiry_test"),
    ("The pause behind failures goes on growing after a success.",
     "    }\n    tlsc_backoff_interval = 0;\n", "    }\n", "cstp_config_test"),
    ("A tunnel that ends in a rekey leaves it in progress.",
     "    tlsc_rekey_in_progress = 0;\n    tlsc_backoff_interval  = 0;\n", "    tlsc_backoff_interval  = 0;\n", "engine_loop_test"),
    ("The first pause of a new run goes on where the last run stopped.",
     "    tlsc_rekey_in_progress = 0;\n    tlsc_backoff_interval  = 0;\n", "    tlsc_rekey_in_progress = 0;\n", "engine_loop_test"),
)

module("src/tlsc_cstp.cpp",
    ("What an earlier frame left behind the payload stays there.",
     "    memset(frame->payload + kept, 0, looked - kept);\n", "", "tlsc_cstp_test"),
    ("Bytes behind the announced length are taken.",
     "    const size_t kept   = std::min(length, filled - std::min(filled, sizeof(frame->header)));\n",
     "    const size_t kept   = filled - std::min(filled, sizeof(frame->header));\n", "tlsc_cstp_test"),
    ("A data frame goes to the connection that the caller names.",
     "tlsc_ssl_write(sock->sess->conn, frame, size, &result)", "tlsc_ssl_write(sock, frame, size, &result)", "tlsc_cstp_test"),
    ("A request for a sign of life is no control packet.",
     "    tlsc_count(&tlsc_stats::dpd_req_tx);\n    tlsc_count(&tlsc_stats::ctrl_pkt_tx);\n", "    tlsc_count(&tlsc_stats::dpd_req_tx);\n", "tlsc_cstp_test"),
    ("A shorter cookie ends behind its last character.",
     "    for (size_t i = 0; i < max_cookie_text && value[i] != '\\n' && value[i] != '\\0'; ++i) cookie[i] = value[i];\n    cookie[max_cookie_text] = '\\0';\n",
     "    size_t i = 0;\n    for (; i < max_cookie_text && value[i] != '\\n' && value[i] != '\\0'; ++i) cookie[i] = value[i];\n    cookie[i] = '\\0';\n", "cstp_config_test"),
    ("A DNS server that is no address takes a place.",
     "            TLSC_ERROR(\"Invalid DNS Ip received for conn %p\", shown(sock));\n",
     "            TLSC_ERROR(\"Invalid DNS Ip received for conn %p\", shown(sock));\n            ++count;\n", "cstp_config_test"),
    ("The inner address is reported with every response.",
     "if (tlsc_cmp_addr(&earlier_inner_addr, &conf->inner_addr) != 0) (void)tlsc_write_inner_ip", "(void)tlsc_write_inner_ip", "cstp_config_test"),
    ("The retry timer stops before the dead-peer timer runs.",
     "    if (!tlsc_start_timer(&tlsc_timers.dpd, 1)) {\n        TLSC_WARNING(\"Could not start DPD timer for conn %p\", shown(sock));\n        TLSC_ERROR(\"Processing CSTP frame failed due to error %s\\n\", tlsc_cstp_resp_name(TLSC_CSTP_START_TIMER_FAILED));\n        return 0;\n    }\n    tlsc_stop_retries();\n",
     "    tlsc_stop_retries();\n    if (!tlsc_start_timer(&tlsc_timers.dpd, 1)) {\n        TLSC_WARNING(\"Could not start DPD timer for conn %p\", shown(sock));\n        TLSC_ERROR(\"Processing CSTP frame failed due to error %s\\n\", tlsc_cstp_resp_name(TLSC_CSTP_START_TIMER_FAILED));\n        return 0;\n    }\n", "tlsc_cstp_test"),
)

module("src/tlsc_turn.cpp",
    ("Who halts the tunnel thread does not wait for it.",
     "    moment.tv_sec += seconds;\n", "    (void)seconds;\n", "tlsc_turn_test engine_loop_test"),
    ("The tunnel thread keeps its turn while it sleeps.",
     "    tlsc_turn pause(TLSC_AT_SAFEPOINT);\n    sleep(seconds);", "    sleep(seconds);", "engine_loop_test"),
    ("A callback waits at the gate of who waits for the end.",
     "(turn.load(std::memory_order_acquire) & gate_ending) != 0;", "(turn.load(std::memory_order_acquire) & gate_ending) < 0;", "tlsc_turn_test"),
    ("A thread inside OpenSSL counts as one that can be halted.",
     "gate_shut | gate_ending, TLSC_AT_SAFEPOINT, interrupt", "gate_shut | gate_ending, TLSC_IN_TLS, interrupt", "tlsc_turn_test engine_loop_test"),
    ("A retired thread goes on.",
     "        if ((seen & run_bits) != run) end_retired_thread();\n", "        run = seen & run_bits;\n", "tlsc_turn_test", True),
    ("A thread that comes late to the end begins its run.",
     "            pthread_testcancel();\n", "", "tlsc_turn_test", True),
    ("A second one may quiesce what is quiesced already.",
     "while ((seen & gate_shut) == 0)", "while ((seen & gate_shut) <= gate_shut)", "tlsc_turn_test"),
)

module("src/tlsc_transport.cpp",
    ("A silent peer is waited for without end.",
     "if (!is_cut && seconds_now() > begin + patience_seconds) {", "if (false) {", "tlsc_transport_test", True),
    ("Patience with a silent peer lasts a minute.",
     "patience_seconds = 30;", "patience_seconds = 60;", "tlsc_transport_test"),
    ("A wait that is cut goes on.",
     "        is_cut = waits_are_cut;\n", "", "tlsc_transport_test", True),
    ("A peer that drips is waited for although waits are cut.",
     "return first_cut_wait != 0 && now - first_cut_wait >= cut_patience_seconds;", "return false;", "tlsc_transport_test", True),
    ("A socket that does not block is waited for.",
     "if (flags >= 0 && (flags & O_NONBLOCK) != 0) {", "if (false) {", "tlsc_transport_test", True),
    ("Flags that cannot be read are those of a socket that does not block.",
     "if (flags >= 0 && (flags & O_NONBLOCK) != 0) {", "if ((flags & O_NONBLOCK) != 0) {", "tlsc_transport_test"),
    ("A header that OpenSSL refuses waits for its record.",
     "return record_size() <= buffered() || !is_expected_record();", "return record_size() <= buffered();", "tlsc_transport_test"),
    ("A reset counts as an orderly end.",
     "incoming.state = count == 0 ? stream_state::ended : stream_state::failed;", "incoming.state = stream_state::ended;", "tlsc_transport_test"),
    ("Who waits for the peer keeps what was collected.",
     "{ return send_collected(fd, true) && wait_for(fd, POLLIN); }", "{ return wait_for(fd, POLLIN); }", "tlsc_transport_test", True),
    ("Bytes behind a record's end are handed out with it.",
     "std::min({size, buffered(), incoming.to_record});", "std::min(size, buffered());", "tlsc_transport_test", True),
    ("A write outside the data path overtakes what was collected.",
     "    if (bio == owner && !send_collected(fd, true)) return -1;\n", "", "tlsc_transport_test"),
    ("Any number of records waits for others.",
     "return ++outgoing.records < max_collected || send_collected(fd, true);", "return true;", "tlsc_transport_test", True),
    ("A flush that may not wait does.",
     "else if (!would_block(errno) || !can_wait || !wait_for(fd, POLLOUT)) break;", "else if (!would_block(errno) || !wait_for(fd, POLLOUT)) break;", "tlsc_transport_test", True),
    ("What a session has collected is lost with the next one.",
     "    (void)tlsc_transport_flush(false);\n    drop_buffers();\n", "    drop_buffers();\n", "tlsc_transport_test"),
    ("A session that has lost the buffers reads those of the next.",
     "    if (bio != owner) {  // what its session had in the buffer is gone\n", "    if (false) {\n", "tlsc_transport_test", True),
)

# The engine, section by section.
module("src/tlsc_engine.cpp",
    ("The tunnel thread keeps its turn while it waits for events.",
     "    tlsc_turn pause(TLSC_AT_SAFEPOINT);\n    return epoll_wait(", "    return epoll_wait(", "engine_loop_test"),
    ("The tunnel thread keeps its turn while it connects.",
     "    tlsc_turn pause(TLSC_AT_SAFEPOINT);\n    return connect(", "    return connect(", "engine_loop_test"),
    ("A server that never shows the key is taken for the gateway.",
     "    if (ret != 1 || is_key_used ||", "    if (ret != 1 || true ||", "engine_tls_test"),
    ("A failed set-up leaks what it has opened.",
     "    release_leftovers(sock);\n    if (!set_up_tunnel(sock))", "    if (!set_up_tunnel(sock))", "engine_loop_test"),
    ("The interface that was deleted is waited for.",
     "        is_interface_gone = tlsc_tun_is_gone(sock->sess);\n", "", "engine_loop_test", True),
    ("A tunnel without a timer is never looked after.",
     "    look_after_timeless_tunnel(sock);\n", "", "engine_loop_test"),
    ("A connection without a timer is given up at once.",
     "unwatched_seconds = 60;", "unwatched_seconds = 10;", "engine_loop_test"),
    ("An ended run leaves its closed transport as the old one.",
     "        tlsc_take_back_old_transport(sock);\n", "", "engine_loop_test"),
    # 1 TLS set-up
    ("The peer is told of an unspecified fault of its certificate.",
     "    X509_STORE_CTX_set_error(store, result.error);  // decides the alert that the peer gets\n", "", "engine_tls_test"),
    ("A certificate that OpenSSL has refused is refused.",
     "int tlsc_verify_cert_cb(int, X509_STORE_CTX *store) {\n", "int tlsc_verify_cert_cb(int good, X509_STORE_CTX *store) {\n    if (!good) return 0;\n", "engine_tls_test"),
    ("A failed cipher list leaves the context behind.",
     "        SSL_CTX_free(sock->ssl_ctx);\n        sock->ssl_ctx = nullptr;\n        tlsc_ssl_ctx  = nullptr;\n", "", "engine_tls_test"),
    ("The peer is told that the connection ends.",
     "SSL_CTX_set_quiet_shutdown(tlsc_ssl_ctx, 1);", "SSL_CTX_set_quiet_shutdown(tlsc_ssl_ctx, 0);", "engine_io_test"),
    # 2 connection and TLS I/O
    ("The socket of a refused connection stays open.",
     "    close(fd);  // not yet known to the teardown\n", "", "engine_io_test"),
    ("A write that wants to read counts as one that wants to write.",
     "&tlsc_stats::ssl_write_errors_total, &tlsc_stats::ssl_write_errors_readwouldblock,\n    &tlsc_stats::ssl_write_errors_writewouldblock,",
     "&tlsc_stats::ssl_write_errors_total, &tlsc_stats::ssl_write_errors_writewouldblock,\n    &tlsc_stats::ssl_write_errors_readwouldblock,", "engine_io_test"),
    ("An error of long ago colours the class of the next one.",
     "        ERR_clear_error();\n        count_ssl_error(ssl_read_errors, error);\n", "        count_ssl_error(ssl_read_errors, error);\n", "engine_io_test"),
    ("A released TLS session still closes a number that was closed before.",
     "        if (ssl && SSL_get_fd(ssl) == fd) tlsc_transport_forget(ssl);\n", "        (void)ssl;\n", "engine_teardown_test"),
    ("A socket made blocking loses the flag that says otherwise.",
     "~(~flags & O_NONBLOCK)", "flags & ~O_NONBLOCK", "engine_io_test"),
    # 3 registry and state
    ("A peer that hangs up is not noticed at once.",
     "EPOLLIN | EPOLLRDHUP;", "EPOLLIN;", "engine_registry_test"),
    ("A descriptor that is both is taken for the interface.",
     "    if (fd == sock->ssl_fd) return TLSC_FD_SSL;\n    if (sock->sess && fd == sock->sess->tun_fd) return TLSC_FD_TUN;\n",
     "    if (sock->sess && fd == sock->sess->tun_fd) return TLSC_FD_TUN;\n    if (fd == sock->ssl_fd) return TLSC_FD_SSL;\n", "engine_registry_test"),
    ("The request for another data-path state is obeyed.",
     "tlsc_dp_state, state);\n}\n\n// ==== 4", "tlsc_dp_state, state);\n    tlsc_dp_state = state;\n}\n\n// ==== 4", "engine_registry_test"),
    # 4 teardown
    ("The teardown is announced as a warning.",
     "TLSC_ERROR(\"Closing connection and bringing down tun interface\");", "TLSC_WARNING(\"Closing connection and bringing down tun interface\");", "engine_teardown_test"),
    ("A transport that is current and old at once is closed twice.",
     "if (tlsc_old_transport.fd > 0 && tlsc_old_transport.fd != sock->sockfd) drop_old_transport();", "if (tlsc_old_transport.fd > 0) drop_old_transport();", "engine_teardown_test"),
    ("The pause behind a failure fires again and again.",
     "if (tlsc_epoll_fd > 0) tlsc_start_timer(&tlsc_timers.backoff, 1)", "if (tlsc_epoll_fd > 0) tlsc_start_timer(&tlsc_timers.backoff, 0)", "engine_teardown_test"),
    # 5 data path
    ("A read of EINVAL counts as one of EFAULT.",
     "&tlsc_stats::tun_read_errors_total, &tlsc_stats::tun_read_errors_efault,\n                                             &tlsc_stats::tun_read_errors_einval,",
     "&tlsc_stats::tun_read_errors_total, &tlsc_stats::tun_read_errors_einval,\n                                             &tlsc_stats::tun_read_errors_efault,", "engine_data_path_test"),
    ("A changed management address does not reach the packets.",
     "if (strcmp(text, converted) != 0) {", "if (converted[0] == 0) {", "engine_data_path_test"),
    ("An inbound packet of 1436 bytes is refused.",
     "if (length < 0 || length > static_cast<int32_t>(max_packet_size)) {", "if (length < 0 || length >= static_cast<int32_t>(max_packet_size)) {", "engine_data_path_test"),
    # 6 commands
    ("An address that cannot be used brings no new connection.",
     "    const int32_t result = take_gateway_address(kind, gw_sockaddr);\n    tlsc_start_rekey_proc(",
     "    const int32_t result = take_gateway_address(kind, gw_sockaddr);\n    if (result) tlsc_start_rekey_proc(", "engine_commands_test"),
    ("Stale commands are not counted.",
     "        ++cleared;\n", "", "engine_commands_test"),
    # 7 event loop
    ("An event of a descriptor closed in the same pass goes to its new owner.",
     "    if (mask == 0) return on_unknown_event(TLSC_FD_UNKNOWN);  // closed earlier in this pass\n", "", "engine_loop_test"),
    ("A read that wants more ends the connection.",
     "if (result == TLSC_SSL_ERROR) tlsc_sock_error(TLSC_DOWN_SSL_READ);", "tlsc_sock_error(TLSC_DOWN_SSL_READ);", "engine_loop_test"),
    ("The tunnel thread ignores the order to end.",
     "    while (exit_client != 1 && is_interface_usable(sock));\n", "    while (is_interface_usable(sock));\n", "engine_loop_test", True),
)

module("src/tlsc_platform.cpp",
    ("A start does not clear the mark of the last orderly end.",
     "    epoll_thread_exited = 0;\n    sem_init(", "    sem_init(", "lifecycle_test"),
    ("A stop does not take back the restart before it.",
     "    run_wanted  = false;\n}", "}", "lifecycle_test"),
    ("A restart that meets a thread which is only starting gets lost.",
     "    if (answer == start_answer::end_and_next_run) (void)tlsc_send_exit_client_req();\n", "", "lifecycle_test"),
    ("A failed client that was started again still counts as told to end.",
     "            note_run();\n", "", "lifecycle_test"),
    ("A start behind an order to end gives it once more.",
     "    if (answer == start_answer::end_and_next_run)", "    if (answer != start_answer::begin)", "lifecycle_test"),
    ("A client that was cleaned up cannot be started again.",
     "    epoll_mon_thread = no_thread;\n    note_no_monitor();\n", "    epoll_mon_thread = no_thread;\n", "lifecycle_test"),
    ("An order to end waits for the gateway.",
     "    end_connection_attempt();\n    return posted;", "    return posted;", "engine_loop_test"),
    ("The end waits for the gateway.",
     "tlsc_halt_tunnel_thread(halt_seconds, tlsc_interrupt_transport)", "tlsc_halt_tunnel_thread(halt_seconds, nullptr)", "engine_loop_test"),
    ("What a run has left at the end stays open.",
     "    tlsc_release_run();\n", "", "engine_loop_test"),
    ("The secret key stays in memory.",
     "    OPENSSL_cleanse(psk_key, psk_key_size);\n", "", "lifecycle_test"),
    ("The clean-up cancels the monitor first.",
     "    const bool halted = tlsc_halt_tunnel_thread(", "    cancel_monitor();\n    const bool halted = tlsc_halt_tunnel_thread(", "lifecycle_test"),
    ("One counter is never cleared.",
     "    &tlsc_stats::rekey_success,\n    &tlsc_stats::tun_alloc,\n", "    &tlsc_stats::rekey_success,\n    &tlsc_stats::rekey_success,\n", "tlsc_platform_test"),
    ("Two counters are printed under each other's name.",
     "{\"tun_read_errors_EINVAL\", &tlsc_stats::tun_read_errors_einval},\n    {\"tun_read_errors_EBADF\", &tlsc_stats::tun_read_errors_ebadf},",
     "{\"tun_read_errors_EINVAL\", &tlsc_stats::tun_read_errors_ebadf},\n    {\"tun_read_errors_EBADF\", &tlsc_stats::tun_read_errors_einval},", "tlsc_platform_test"),
)

module("wlc/tlsc_wlc.cpp",
    # 1 configuration file and parameter block
    ("A key or flag of 64 characters is kept.",
     "conf_field_size = 64;", "conf_field_size = 65;", "wlc_conf_test"),
    ("The rewritten file is open to all.",
     "        (void)fchmod(fd, conf_stat.st_mode & 0777);\n", "", "wlc_conf_test"),
    ("An entry stays fresh after it was read.",
     "write_entry(pass, entry.key, entry.value, 0);", "write_entry(pass, entry.key, entry.value, entry.flag);", "wlc_conf_test"),
    ("What goes on from a secret line is printed.",
     "(pass->line_is_secret || is_named_across_seam(pass) || is_named_inside(pass));", "(is_named_across_seam(pass) || is_named_inside(pass));", "wlc_conf_test"),
    ("A secret key's name split by two pieces is not seen.",
     "(pass->line_is_secret || is_named_across_seam(pass) || is_named_inside(pass));", "(pass->line_is_secret || is_named_inside(pass));", "wlc_conf_test"),
    ("A secret key's name inside the rest of a long line is not seen.",
     "(pass->line_is_secret || is_named_across_seam(pass) || is_named_inside(pass));", "(pass->line_is_secret || is_named_across_seam(pass));", "wlc_conf_test"),
    ("Of a long line that names the secret key behind other fields everything is printed.",
     "goes_on ? strstr(pass->line, secret_key) : nullptr;", "nullptr;", "wlc_conf_test"),
    ("What goes on from a secret line becomes an entry.",
     "return skipped == 0 && pass->line_is_secret_rest ? 4 : skipped;", "return skipped;", "wlc_conf_test"),
    ("The flag behind a secret value is hidden with it.",
     "== '\\0') ? last : \"\";", "== '\\0') ? \"\" : \"\";", "wlc_conf_test"),
    ("A secret key in a comment is printed.",
     "strspn(line, line[0] == '#' ? \"# \\t;\" : \";\");", "strspn(line, \";\");", "wlc_conf_test"),
    ("Every line that names the secret key is cut.",
     "const bool  goes_on = pass->line_is_secret && pass->line_is_cut;", "const bool  goes_on = pass->line_is_secret;", "wlc_conf_test"),
    ("Whatever names the secret key hides its value.",
     "return strcmp(key, secret_key) == 0 ?", "return strstr(key, secret_key) ?", "wlc_conf_test"),
    # 2 FIFO transport and catalogue
    ("Opening a FIFO waits for the other end.",
     "access | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC", "access | O_NOFOLLOW | O_CLOEXEC", "wlc_fifo_test", True),
    ("Whatever bears a FIFO's name will do.",
     "fstat(fd, &status) == 0 && S_ISFIFO(status.st_mode)", "fstat(fd, &status) == 0", "wlc_fifo_test"),
    ("A FIFO that another process reads is removed.",
     "    if (is_read_by_another()) {", "    if (is_read_by_another() && inbound_mode == 0) {", "wlc_fifo_test"),
    ("A FIFO that could not be opened is given up.",
     "    regain_inbound();\n", "    if (inbound_mode == 0) regain_inbound();\n", "wlc_fifo_test"),
    ("The parameter block keeps the key to the end.",
     "    explicit_bzero(params.psk_key, sizeof(params.psk_key));\n", "", "wlc_fifo_test"),
    ("Half a message counts as sent.",
     "wrote == static_cast<ssize_t>(sizeof(*msg));", "wrote > 0;", "wlc_fifo_test"),
    # 3 reports
    ("Statistics do not follow an invalid state.",
     "        WLC_MSG_ERROR(\"%s() - invalid tunnel state update, state:%d\", __func__, state);\n",
     "        WLC_MSG_ERROR(\"%s() - invalid tunnel state update, state:%d\", __func__, state);\n        return 1;\n", "wlc_reports_test"),
    ("A tunnel lost to silence is reported with another text.",
     "\"Tunnel down due to max DPD timeout\"", "\"Tunnel down due to DPD timeout\"", "wlc_reports_test"),
    # 4 messages
    ("A word of the debug setting must be whole.",
     "return strncmp(text, word, strlen(word)) == 0;", "return strcmp(text, word) == 0;", "wlc_messages_test"),
    ("The messages behind an exit order are handled.",
     "            return -2;\n", "            break;\n", "wlc_messages_test"),
    ("After a stop the next DOWN is no news.",
     "    reported_state.store(state_none, std::memory_order_relaxed);\n    return 1;\n", "    return 1;\n", "wlc_messages_test wlc_reports_test"),
)

module("src/tlsc_main.cpp",
    ("The process's memory may be dumped.",
     "    (void)prctl(PR_SET_DUMPABLE, 0);", "    //", "tlsc_main_test"),
    ("The console stays as it was given.",
     "    tlsc_log_own_console();\n", "", "tlsc_main_test"),
    ("The controller's messages are looked at every second.",
     "poll_interval    = {2, 0};", "poll_interval    = {1, 0};", "tlsc_main_test"),
    ("Files that the process makes are readable by all.",
     "    (void)umask(077);", "    (void)umask(022);", "tlsc_main_test"),
    ("The last line is written while the lock lives.",
     "    tlsc_log_lock_destroy();\n    // By contract: this line is written after the lock is gone; nothing else runs by now.\n    TLSC_WARNING(\"Client Shutdown!!\");\n",
     "    TLSC_WARNING(\"Client Shutdown!!\");\n    tlsc_log_lock_destroy();\n", "tlsc_main_test"),
    ("A new reading of the settings halts the tunnel for ever.",
     "        tlsc_resume_tunnel_thread();\n", "", "tlsc_main_test"),
    ("A tunnel that goes on loses its address with new settings.",
     "        tlsc_keep_tunnel_settings();\n", "", "tlsc_main_test"),
    ("Settings are read anew under a tunnel thread that works.",
     "    while (!tlsc_hold_tunnel_thread(hold_seconds)) {}\n", "    (void)tlsc_hold_tunnel_thread(hold_seconds);\n", "tlsc_main_test"),
    ("A sender waits for ever while the pipe is full.",
     "poll(&ready, 1, full_pipe_ms) != 0;", "poll(&ready, 1, -1) != 0;", "engine_commands_test", True),
    ("The shell's children inherit the command pipe.",
     "    for (int end : ends) (void)fcntl(end, F_SETFD, FD_CLOEXEC);", "    //", "engine_commands_test"),
)


def stale_entries(mutants):
    """Says what is wrong with each entry whose text does not occur exactly once, or that changes nothing."""
    for mutant in mutants:
        found = (ROOT / mutant.file).read_text().count(mutant.old)
        if found != 1:
            yield f"{mutant.file}: {mutant.name} (its text occurs {found} times)"
        elif mutant.old == mutant.new:
            yield f"{mutant.file}: {mutant.name} (it changes nothing)"


# ==== running programs ============================================================================================

running = set()  # processes to end when the script is ended
running_lock = threading.Lock()


def run(command, time_limit=None, **options):
    """Runs a command to its end. Returns its status, None when it exceeded the limit, and what it printed."""
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                               text=True, errors="replace", **options)
    with running_lock:
        running.add(process)
    try:
        output, _ = process.communicate(timeout=time_limit)
        return process.returncode, output
    except subprocess.TimeoutExpired:
        process.kill()
        output, _ = process.communicate()
        return None, output
    except BaseException:  # the script is ended: a build tool stops its own children when it is told to stop
        process.terminate()
        process.wait(10)
        raise
    finally:
        with running_lock:
            running.discard(process)


def end_running():
    with running_lock:
        for process in running:
            process.kill()


# ==== the scratch tree ============================================================================================

class Broken(Exception):
    """The run cannot go on."""


class Scratch:
    """A copy of the sources, built once without optimisation, and the commands that built it."""

    def __init__(self, directory):
        self.directory = directory
        self.tree, self.build, self.mutants = (directory / name for name in ("tree", "build", "mutants"))

    def copy_sources(self):
        shutil.rmtree(self.tree, ignore_errors=True)
        shutil.rmtree(self.mutants, ignore_errors=True)
        for name in NEEDED:
            source, target = ROOT / name, self.tree / name
            target.parent.mkdir(parents=True, exist_ok=True)
            if source.is_dir():
                shutil.copytree(source, target)
            else:
                shutil.copy2(source, target)
        text = (self.tree / "tests/CMakeLists.txt").read_text()
        self.tests = re.findall(r"^ *tlsc_unit_test\((\w+)", text, re.MULTILINE)

    def build_base(self, jobs):
        status, output = run(["cmake", "-S", self.tree, "-B", self.build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
                              "-DCMAKE_CXX_FLAGS_DEBUG=-O0", "-DTLSC_TOOLS=OFF"])
        if status != 0:
            raise Broken(f"configuring the copy failed:\n{output}")
        status, output = run(["ninja", "-C", self.build, "-j", str(jobs), *self.tests])
        if status != 0:
            raise Broken(f"building the copy failed:\n{output}")
        self.links = {test: self.commands(test)[-1] for test in self.tests}
        self.compilations = {match[1]: line for line in self.commands("tlsc_testable")
                             if (match := re.search(r" -c \S*/((?:src|wlc)/\w+\.cpp)$", line))}

    def commands(self, target):
        status, output = run(["ninja", "-C", self.build, "-t", "commands", target])
        if status != 0:
            raise Broken(f"no build commands for {target}:\n{output}")
        return [line for line in output.splitlines() if not line.startswith("ninja:")]

    def run_test(self, executable, *arguments, time_limit=TIME_LIMIT):
        """Runs a test executable in a world of its own, up to its first failure."""
        environment = {**os.environ, "PRIVATE_WORLD_BIND": str(self.directory)}
        return run([self.tree / "tools/private-world", executable, "--gtest_fail_fast", *arguments],
                   time_limit, env=environment, cwd=self.build)

    def check_base(self, jobs):
        """The tests must pass as they are, or their failures would say nothing. Sorts them, the quickest first."""
        def check(test):
            began = time.monotonic()
            status, output = self.run_test(self.build / "tests" / test, time_limit=BASE_TIME_LIMIT)
            if status != 0:
                raise Broken(f"{test} does not pass on the unbroken daemon (status {status}):\n{output[-3000:]}")
            return time.monotonic() - began
        with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
            seconds = dict(zip(self.tests, pool.map(check, self.tests)))
        self.tests.sort(key=seconds.get)
        self.limits = {test: max(TIME_LIMIT, PATIENCE * seconds[test]) for test in self.tests}


# ==== one mutant ==================================================================================================

class Outcome(NamedTuple):
    word: str    # "killed", "SURVIVED", "NOT BUILT"
    reason: str  # the test that failed, or what else there is to say


class Trial:
    """One entry of the catalogue: its object file and its test executables, in a directory of its own."""

    def __init__(self, scratch, mutant, number):
        self.scratch, self.mutant = scratch, mutant
        self.late = []  # executables that exceeded the limit, which says nothing unless the broken daemon hangs
        self.directory = scratch.mutants / str(number)
        self.source = self.directory / mutant.file
        self.object = self.directory / "broken.o"

    def compile(self):
        """Compiles the broken source with the command of the unbroken one; warnings are nobody's concern here."""
        text = (self.scratch.tree / self.mutant.file).read_text()
        self.source.parent.mkdir(parents=True)
        self.source.write_text(text.replace(self.mutant.old, self.mutant.new))

        words = shlex.split(self.scratch.compilations[self.mutant.file])
        words[words.index("-o") + 1] = str(self.object)
        words[words.index("-c") + 1] = str(self.source)
        words[words.index("-MF") + 1] = str(self.directory / "broken.d")
        return run([*words, "-w", "-I", self.scratch.tree / Path(self.mutant.file).parent], cwd=self.scratch.build)

    def link(self, test):
        executable = self.directory / test
        command = self.scratch.links[test]
        whole = f"tests/CMakeFiles/tlsc_testable.dir/__/{self.mutant.file}.o"
        command = command.replace(whole, shlex.quote(str(self.object)))
        command = command.replace(f"-o tests/{test} ", f"-o {shlex.quote(str(executable))} ")
        status, output = run(command, shell=True, cwd=self.scratch.build)
        if status != 0:
            raise Broken(f"{test} cannot be linked with the broken {self.mutant.file}:\n{output}")
        return executable

    def failing_test(self, test):
        """Links and runs one executable. Returns what failed in it, and again when repeated; else None."""
        executable = self.link(test)
        limit = self.scratch.limits[test]
        try:
            status, output = self.scratch.run_test(executable, time_limit=limit)
            if status == 0:
                return None
            if "[==========] Running" not in output:
                raise Broken(f"{test} could not be run (status {status}):\n{output[-3000:]}")
            if status is None:
                self.late.append(test)
                return f"{test}: {failed_test(output)}, time limit" if self.mutant.hangs else None

            name = failed_test(output)
            again, _ = self.scratch.run_test(executable, f"--gtest_filter={name}", time_limit=limit)
            if again == 0:
                again, _ = self.scratch.run_test(executable, time_limit=limit)
            return f"{test}: {name}" if again not in (0, None) or (again is None and self.mutant.hangs) else None
        finally:
            executable.unlink()

    def run(self):
        status, output = self.compile()
        if status != 0:
            return Outcome("NOT BUILT", output)
        others = [test for test in self.scratch.tests if test not in self.mutant.tests]
        for test in [*self.mutant.tests, *others]:
            failed = self.failing_test(test)
            if failed:
                return Outcome("killed", failed)
        if self.late:
            return Outcome("SURVIVED", f"but {', '.join(self.late)} exceeded the time limit, which says nothing")
        return Outcome("SURVIVED", f"all {len(self.scratch.tests)} test executables pass")


def failed_test(output):
    """The name of the test that failed, or else of the one in which the process ended."""
    failed = re.findall(r"^\[  FAILED  \] (\w+\.\w+)", output, re.MULTILINE)
    return failed[0] if failed else re.findall(r"^\[ RUN      \] (\S+)", output, re.MULTILINE)[-1]


# ==== the run =====================================================================================================

def try_all(scratch, mutants, jobs):
    """Tries the mutants, prints each outcome as it comes, and returns them."""
    def attempt(numbered):
        number, mutant = numbered
        trial = Trial(scratch, mutant, number)
        try:
            return trial.run()
        finally:
            shutil.rmtree(trial.directory, ignore_errors=True)

    outcomes = []
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        attempts = {pool.submit(attempt, numbered): numbered[1] for numbered in enumerate(mutants)}
        try:
            for done in concurrent.futures.as_completed(attempts):
                outcome = done.result()
                outcomes.append(outcome)
                mutant = attempts[done]
                print(f"{outcome.word:<10} {Path(mutant.file).stem}: {mutant.name} [{outcome.reason}]", flush=True)
        except BaseException:
            pool.shutdown(wait=False, cancel_futures=True)
            end_running()
            raise
    return outcomes


def main():
    parser = argparse.ArgumentParser(
        description="Breaks the daemon in small ways and says whether the unit tests notice."
    )
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), metavar="N", help="mutants tried at the same time")
    parser.add_argument("--only", default="", metavar="TEXT", help="the entries whose sentence contains TEXT")
    parser.add_argument("--module", default="", metavar="NAME", help="the entries of one source, say tlsc_engine")
    parser.add_argument("--list", action="store_true", help="prints the entries and changes nothing")
    parser.add_argument("--scratch", type=Path, metavar="DIRECTORY", help="works there and leaves it for the next run")
    parser.add_argument("--check", action="store_true", help="only says which entries are stale")
    options = parser.parse_args()

    mutants = [m for m in catalogue if options.only.lower() in m.name.lower()]
    mutants = [m for m in mutants if options.module in ("", Path(m.file).stem)]
    if options.list:
        for mutant in mutants:
            print(f"{Path(mutant.file).stem}: {mutant.name} [{' '.join(mutant.tests)}]")
        return 0
    if not mutants:
        raise Broken("no entry fits")
    if stale := list(stale_entries(mutants)):
        raise Broken("stale entries:\n" + "\n".join(stale))
    if options.check:
        return 0
    if os.getuid() != 0:
        raise Broken("needs root: the tests run in mount and network namespaces of their own")

    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    began = time.monotonic()
    with tempfile.TemporaryDirectory(prefix="tlsc-mutate-") as temporary:
        directory = options.scratch.resolve() if options.scratch else Path(temporary)
        scratch = Scratch(directory)
        scratch.copy_sources()
        if unknown := sorted({test for m in mutants for test in m.tests} - set(scratch.tests)):
            raise Broken(f"no such tests: {' '.join(unknown)}")
        scratch.build_base(options.jobs)
        scratch.check_base(options.jobs)
        took = time.monotonic() - began
        print(f"{len(scratch.tests)} test executables pass on the unbroken daemon, {took:.0f} s", flush=True)
        outcomes = try_all(scratch, mutants, options.jobs)

    words = [outcome.word for outcome in outcomes]
    killed, survived, unbuilt = (words.count(word) for word in ("killed", "SURVIVED", "NOT BUILT"))
    print(f"took {time.monotonic() - began:.0f} s")
    print(f"{len(words)} mutants, {killed} killed, {survived} survived" + (f", {unbuilt} not built" if unbuilt else ""))
    return 0 if killed == len(mutants) else 1


if __name__ == "__main__":
    try:
        sys.exit(main())
    except Broken as reason:
        sys.exit(f"mutate: {reason}")
    except KeyboardInterrupt:
        sys.exit(130)
