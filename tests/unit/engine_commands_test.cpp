// Both ends of the command pipe: what the senders write, as bytes, and what the tunnel thread does with it. The rekey
// procedure is stood in for.

#include <atomic>
#include <chrono>
#include <thread>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/ioctl.h>

#include "tlsc_main.h"

#include "tunnel_fixture.h"

// ---- stand-ins ------------------------------------------------------------------------------------------------------

namespace {

int              rekeys;
bool             pipe_fails;
bool             nonblock_fails;
int              short_fd = -2;  // writes to it take short_count bytes
int              short_count;
std::atomic<int> pipe_writes;  // calls, not bytes
bool             conversion_fails;
int              poll_timeout;  // of the last wait for room in the pipe
bool             nobody_reads;  // a wait for room may be cut short
bool             waits_are_cut;
bool             waits_were_cut;  // at the last write to the pipe

std::vector<int32_t> closed;

}  // namespace

extern "C" int32_t __wrap_tlsc_start_rekey_proc(tlsc_sock *sock) {
    EXPECT_EQ(sock, tlsc_get_sock());
    ++rekeys;
    return 0;
}

extern "C" int __real_pipe(int *ends);
extern "C" int __wrap_pipe(int *ends) { return pipe_fails ? -1 : __real_pipe(ends); }

extern "C" ssize_t __real_write(int fd, const void *buffer, size_t size);
extern "C" ssize_t __wrap_write(int fd, const void *buffer, size_t size) {
    pipe_writes += fd == cli_pipe_wr_fd;
    if (fd == cli_pipe_wr_fd) waits_were_cut = waits_are_cut;
    return fd == short_fd ? short_count : __real_write(fd, buffer, size);
}

extern "C" void __wrap_tlsc_transport_cut_waits(bool on) { waits_are_cut = on; }

extern "C" int __real_poll(pollfd *fds, nfds_t count, int timeout);
extern "C" int __wrap_poll(pollfd *fds, nfds_t count, int timeout) {
    poll_timeout = timeout;
    return __real_poll(fds, count, nobody_reads ? 0 : timeout);
}

extern "C" int __real_close(int fd);
extern "C" int __wrap_close(int fd) {
    closed.push_back(fd);
    return __real_close(fd);
}

extern "C" const char *__real_inet_ntop(int family, const void *address, char *text, socklen_t size);
extern "C" const char *__wrap_inet_ntop(int family, const void *address, char *text, socklen_t size) {
    return conversion_fails ? nullptr : __real_inet_ntop(family, address, text, size);
}

extern "C" int32_t __real_tlsc_set_sock_nonblocking(int32_t fd);
extern "C" int32_t __wrap_tlsc_set_sock_nonblocking(int32_t fd) {
    return nonblock_fails ? 0 : __real_tlsc_set_sock_nonblocking(fd);
}

namespace {

using strings = std::vector<std::string>;

// One message, put together by the documented offsets.
std::string message(int32_t id, int32_t value = 0, const std::string &sockaddr_bytes = "") {
    std::string bytes(36, '\0');
    memcpy(bytes.data(), &id, 4);
    memcpy(bytes.data() + 4, &value, 4);
    bytes.replace(8, sockaddr_bytes.size(), sockaddr_bytes);
    return bytes;
}

// Family 2 at message offset 8, the address at message offset 12.
std::string ipv4_sockaddr(const std::string &address) {
    return std::string("\x02\x00\x00\x00", 4) + address + std::string(20, '\0');
}

tlsc_gw_addr gateway(int32_t kind, const std::string &address) {
    tlsc_gw_addr gw{};
    gw.kind   = kind;
    gw.family = kind == ADDR_IPV4 ? AF_INET : AF_INET6;
    memcpy(gw.ipv4, address.data(), 4);
    return gw;
}

class engine_commands : public tunnel_test {
protected:
    engine_commands() {
        static const bool once = [] {
            tlsc_log_lock_create();  // some tests have a second thread
            return true;
        }();
        (void)once;
        rekeys           = 0;
        pipe_fails       = false;
        nonblock_fails   = false;
        nobody_reads     = false;
        waits_are_cut    = false;
        short_fd         = -2;
        short_count      = 5;
        conversion_fails = false;
        EXPECT_EQ(tlsc_create_pipe_for_cli_cmds(), 1);
        tlsc_log_level = LOG_DEBUG;
        log.clear();
    }
    ~engine_commands() override { tlsc_close_cli_pipe(); }

    std::string read_pipe() {
        char          bytes[200];
        const ssize_t count = read(cli_pipe_rd_fd, bytes, sizeof(bytes));
        return count > 0 ? std::string(bytes, static_cast<size_t>(count)) : "";
    }
    void put(const std::string &bytes) {
        ASSERT_EQ(write(cli_pipe_wr_fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    int32_t handle(const std::string &bytes) {
        put(bytes);
        return tlsc_handle_cli_cmds();
    }
};

// ---- pipe -----------------------------------------------------------------------------------------------------------

TEST_F(engine_commands, the_read_end_does_not_block_and_the_write_end_does) {
    EXPECT_TRUE(fcntl(cli_pipe_rd_fd, F_GETFL) & O_NONBLOCK);
    EXPECT_FALSE(fcntl(cli_pipe_wr_fd, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(tlsc_create_pipe_for_cli_cmds(), 1);
    EXPECT_TRUE(log.has("INFO", main_file, "tlsc_create_pipe_for_cli_cmds",
                        text_of("Set non-block flag on CLI pipe read fd:%d success.", cli_pipe_rd_fd.load())));
}

TEST_F(engine_commands, a_new_pipe_closes_the_previous_one) {
    put("stale");
    const int before = open_descriptors();
    EXPECT_EQ(tlsc_create_pipe_for_cli_cmds(), 1);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(read_pipe(), "");
}

TEST_F(engine_commands, the_ends_are_not_inherited_by_the_shells_children) {
    for (int32_t fd : {cli_pipe_rd_fd.load(), cli_pipe_wr_fd.load()}) EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
}

TEST_F(engine_commands, closing_sets_both_ends_to_minus_1_and_leaves_closed_ones_alone) {
    const int32_t rd = cli_pipe_rd_fd;
    const int32_t wr = cli_pipe_wr_fd;
    tlsc_close_cli_pipe();
    EXPECT_FALSE(is_open(rd));
    EXPECT_FALSE(is_open(wr));
    EXPECT_EQ(cli_pipe_rd_fd, -1);
    EXPECT_EQ(cli_pipe_wr_fd, -1);
    tlsc_close_cli_pipe();
    cli_pipe_rd_fd = 0;
    tlsc_close_cli_pipe();
    EXPECT_TRUE(is_open(0));
    EXPECT_EQ(cli_pipe_rd_fd, 0);
    cli_pipe_rd_fd = -1;
}

TEST_F(engine_commands, closing_takes_the_write_end_first_and_then_the_read_end) {
    const int32_t rd = cli_pipe_rd_fd;
    const int32_t wr = cli_pipe_wr_fd;
    closed.clear();
    tlsc_close_cli_pipe();
    EXPECT_EQ(closed, (std::vector<int32_t>{wr, rd}));
}

TEST_F(engine_commands, without_a_pipe_every_sender_fails) {
    pipe_fails = true;
    EXPECT_EQ(tlsc_create_pipe_for_cli_cmds(), 0);
    EXPECT_TRUE(log.has("ERROR", main_file, "tlsc_create_pipe_for_cli_cmds",
                        "Could not create pipe fd for comm to server thread"));
    EXPECT_EQ(cli_pipe_wr_fd, -1);
    log.clear();
    EXPECT_EQ(tlsc_send_exit_client_req(), 0);
    EXPECT_EQ(tlsc_send_log_lvl_chg_req(1), 0);
    EXPECT_EQ(tlsc_send_log_dest_chg_req(1), 0);
    EXPECT_EQ(tlsc_send_gw_ip({}), 0);
    EXPECT_EQ(log.messages(), strings(4, "Writing to pipe-fd(-1) failed"));
    EXPECT_EQ(log.entries()[0].severity, "ERROR");
    EXPECT_LT(tlsc_handle_cli_cmds(), 0);
}

TEST_F(engine_commands, a_read_end_that_cannot_be_made_non_blocking_is_used_all_the_same) {
    nonblock_fails = true;
    EXPECT_EQ(tlsc_create_pipe_for_cli_cmds(), 1);
    EXPECT_GT(cli_pipe_wr_fd, 0);
    EXPECT_FALSE(fcntl(cli_pipe_rd_fd, F_GETFL) & O_NONBLOCK);
    EXPECT_TRUE(log.has("ERROR", main_file, "tlsc_create_pipe_for_cli_cmds",
                        text_of("Set non-block flag on CLI pipe read fd:%d failed.", cli_pipe_rd_fd.load())));
}

// ---- senders --------------------------------------------------------------------------------------------------------

TEST_F(engine_commands, the_exit_command_is_36_bytes_with_id_1) {
    EXPECT_EQ(tlsc_send_exit_client_req(), 1);
    EXPECT_EQ(read_pipe(), message(1));
    EXPECT_EQ(log.messages(), (strings{text_of("Wrote 36 bytes on pipe-fd: %d", cli_pipe_wr_fd.load()),
                                       "Sent CLI cmd: 1, to child thread"}));
    EXPECT_EQ(log.entries()[0].severity, "DEBUG");
    EXPECT_EQ(log.entries()[1].severity, "DEBUG");
}

// A run that has the command may be over, and the next one begun, before the sender goes on.
TEST_F(engine_commands, waits_are_cut_before_the_exit_command_can_be_read_and_not_without_one) {
    EXPECT_EQ(tlsc_send_log_lvl_chg_req(5), 1);
    EXPECT_FALSE(waits_were_cut);
    EXPECT_EQ(tlsc_send_exit_client_req(), 1);
    EXPECT_TRUE(waits_were_cut);
    EXPECT_TRUE(waits_are_cut);
    tlsc_close_cli_pipe();
    EXPECT_EQ(tlsc_send_exit_client_req(), 0);
    EXPECT_FALSE(waits_are_cut);
}

TEST_F(engine_commands, level_and_destination_commands_carry_their_value) {
    EXPECT_EQ(tlsc_send_log_lvl_chg_req(5), 1);
    EXPECT_EQ(read_pipe(), message(2, 5));
    EXPECT_EQ(tlsc_send_log_dest_chg_req(-2), 1);
    EXPECT_EQ(read_pipe(), message(3, -2));
    EXPECT_TRUE(log.has("DEBUG", main_file, "tlsc_send_log_lvl_chg_req", "Sent CLI cmd: 2, to child thread"));
    EXPECT_TRUE(log.has("DEBUG", main_file, "tlsc_send_log_dest_chg_req", "Sent CLI cmd: 3, to child thread"));
}

TEST_F(engine_commands, the_gateway_command_carries_the_whole_record_behind_its_id) {
    tlsc_gw_addr gw = gateway(ADDR_IPV4, "\x0a\x01\x02\x03");
    memset(gw.ipv6, 0x66, sizeof(gw.ipv6));
    gw.scope_id = 0x01020304;
    EXPECT_EQ(tlsc_send_gw_ip(gw), 1);
    EXPECT_EQ(read_pipe(), message(4, 1,
                                   std::string("\x02\x00\x00\x00\x0a\x01\x02\x03", 8) + std::string(16, '\x66') +
                                       "\x04\x03\x02\x01"));
    EXPECT_TRUE(log.has("DEBUG", main_file, "tlsc_send_gw_ip", "Sent CLI cmd: 4, to epoll thread"));
}

TEST_F(engine_commands, messages_follow_each_other_whole) {
    EXPECT_EQ(tlsc_send_log_lvl_chg_req(1), 1);
    EXPECT_EQ(tlsc_send_exit_client_req(), 1);
    EXPECT_EQ(read_pipe(), message(2, 1) + message(1));
}

TEST_F(engine_commands, every_command_is_one_write_so_that_those_of_two_threads_never_mix) {
    pipe_writes = 0;
    EXPECT_EQ(tlsc_send_exit_client_req(), 1);
    EXPECT_EQ(pipe_writes, 1);
    EXPECT_EQ(tlsc_send_log_lvl_chg_req(1), 1);
    EXPECT_EQ(pipe_writes, 2);
    EXPECT_EQ(tlsc_send_log_dest_chg_req(1), 1);
    EXPECT_EQ(pipe_writes, 3);
    EXPECT_EQ(tlsc_send_gw_ip(gateway(ADDR_IPV4, "\x01\x02\x03\x04")), 1);
    EXPECT_EQ(pipe_writes, 4);
}

TEST_F(engine_commands, a_sender_waits_while_the_pipe_is_full) {
    pollfd room{cli_pipe_wr_fd, POLLOUT, 0};
    for (int sent = 0; sent < 5000 && poll(&room, 1, 0) == 1; ++sent)
        ASSERT_EQ(tlsc_send_log_lvl_chg_req(LOG_DEBUG), 1);
    std::atomic<int32_t> result{-1};
    std::thread          sender([&] { result = tlsc_send_log_dest_chg_req(LOG_DEST_CONSOLE); });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(result, -1);
    int held = -1;
    for (int now = 0; now != held; ioctl(cli_pipe_rd_fd, FIONREAD, &now)) {
        held = now;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_GT(held, 1000 * 36);
    EXPECT_EQ(held % 36, 0);  // nobody wrote a part of a command
    tlsc_log_level = LOG_ERRORS;
    for (int i = 0; i < 200; ++i)
        EXPECT_EQ(tlsc_handle_cli_cmds(), 36);  // more than a page, which is what a writer waits for
    sender.join();
    EXPECT_EQ(result, 1);
}

TEST_F(engine_commands, a_short_write_is_not_detected) {
    short_fd = cli_pipe_wr_fd;
    EXPECT_EQ(tlsc_send_exit_client_req(), 1);
    EXPECT_TRUE(log.contains(text_of("Wrote 5 bytes on pipe-fd: %d", short_fd)));
    EXPECT_EQ(tlsc_send_gw_ip(gateway(ADDR_IPV4, "\x01\x02\x03\x04")), 1);
    short_count = 0;
    EXPECT_EQ(tlsc_send_exit_client_req(), 0);
    EXPECT_TRUE(log.contains(text_of("Writing to pipe-fd(%d) failed", short_fd)));
}

TEST_F(engine_commands, the_wrappers_print_a_failure_without_a_line_end) {
    tlsc_post_log_level(3);
    EXPECT_EQ(read_pipe(), message(2, 3));
    tlsc_post_log_dest(1);
    EXPECT_EQ(read_pipe(), message(3, 1));
    EXPECT_EQ(tlsc_post_gw_ip(gateway(ADDR_IPV4, "\x01\x02\x03\x04")), 1);
    EXPECT_EQ(read_pipe().substr(0, 8), message(4, 1).substr(0, 8));
    tlsc_close_cli_pipe();
    tlsc_log_level = -1;
    log.clear();
    tlsc_post_log_level(3);
    EXPECT_EQ(log.text(), "Failed to send log-level-chg req to TLS Client");
    log.clear();
    tlsc_post_log_dest(3);
    EXPECT_EQ(log.text(), "Failed to send log-dest-chg req to TLS Client");
    EXPECT_EQ(tlsc_post_gw_ip({}), 0);
}

// ---- handling -------------------------------------------------------------------------------------------------------

TEST_F(engine_commands, an_empty_pipe_does_nothing_and_gives_the_result_of_the_read) {
    EXPECT_EQ(tlsc_handle_cli_cmds(), -1);
    EXPECT_EQ(log.text(), "");
    close(cli_pipe_wr_fd.exchange(-1));
    EXPECT_EQ(tlsc_handle_cli_cmds(), 0);
    EXPECT_EQ(log.text(), "");
}

TEST_F(engine_commands, the_invalid_command_is_rejected) {
    EXPECT_EQ(handle(message(0)), 36);
    EXPECT_TRUE(
        log.has("ERROR", engine_file, "tlsc_handle_cli_cmds", "Invalid command type received from CLI... Ignore!!"));
    EXPECT_EQ(exit_client, 0);
}

TEST_F(engine_commands, the_exit_command_sets_the_exit_flag) {
    EXPECT_EQ(handle(message(1)), 36);
    EXPECT_EQ(exit_client, 1);
    EXPECT_TRUE(log.has("INFO", engine_file, "tlsc_handle_cli_cmds",
                        "Exit cmd rcvd for child thread, set exit_client flag to true"));
}

TEST_F(engine_commands, a_new_log_level_is_set_without_a_range_check) {
    EXPECT_EQ(handle(message(2, LOG_DEBUG)), 36);
    EXPECT_TRUE(log.contains("Log level already same(3)"));
    EXPECT_EQ(handle(message(2, 5)), 36);
    EXPECT_EQ(tlsc_log_level, 5);
    EXPECT_TRUE(log.contains("Log level changed to: 5"));
    EXPECT_EQ(handle(message(2, 99)), 36);
    EXPECT_EQ(tlsc_log_level, 99);
    EXPECT_EQ(handle(message(2, -7)), 36);
    EXPECT_EQ(tlsc_log_level, -7);
}

TEST_F(engine_commands, the_new_log_level_decides_over_its_own_line) {
    EXPECT_EQ(handle(message(2, LOG_WARNINGS)), 36);
    EXPECT_EQ(tlsc_log_level, LOG_WARNINGS);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(handle(message(2, LOG_INFO)), 36);
    EXPECT_EQ(log.messages(), (strings{"Log level changed to: 2"}));
    EXPECT_TRUE(log.has("INFO", engine_file, "tlsc_handle_cli_cmds", "Log level changed to: 2"));
    EXPECT_EQ(handle(message(2, LOG_INFO)), 36);
    EXPECT_TRUE(log.has("INFO", engine_file, "tlsc_handle_cli_cmds", "Log level already same(2)"));
}

TEST_F(engine_commands, a_new_log_destination_is_set_without_a_range_check) {
    EXPECT_EQ(handle(message(3, LOG_DEST_CONSOLE)), 36);
    EXPECT_TRUE(log.contains("Log destination already same(1)"));
    EXPECT_EQ(handle(message(3, 77)), 36);
    EXPECT_EQ(tlsc_log_dest, 77);
    EXPECT_EQ(handle(message(3, LOG_DEST_CONSOLE)), 36);
    EXPECT_TRUE(log.has("INFO", engine_file, "tlsc_handle_cli_cmds", "Log destination changed to: 1"));
    EXPECT_FALSE(log.contains("Log destination changed to: 77"));  // it went where the new destination says: nowhere
}

TEST_F(engine_commands, an_unknown_id_is_reported) {
    for (int32_t id : {5, -1, INT32_MAX}) {
        EXPECT_EQ(handle(message(id)), 36);
        EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_handle_cli_cmds",
                            text_of("Invalid value received for CLI-CMD: %d", id)));
    }
    EXPECT_EQ(rekeys, 0);
}

TEST_F(engine_commands, a_resolved_ipv4_address_replaces_the_servers_and_reconnects) {
    strcpy(conf->svr_addr_ipv4, "old-and-longer.example");
    tlsc_rekey_in_progress = 0;
    tlsc_dp_state          = 1;
    EXPECT_EQ(handle(message(4, 1, ipv4_sockaddr("\x0a\x01\x02\xfe"))), 1);
    EXPECT_STREQ(conf->svr_addr_ipv4, "10.1.2.254");
    EXPECT_EQ(rekeys, 1);
    EXPECT_EQ(tlsc_rekey_in_progress, 0);
    EXPECT_EQ(tlsc_dp_state, 1);
    EXPECT_TRUE(
        log.has("INFO", engine_file, "tlsc_handle_cli_cmds", "Received FQDN resolved GW IP, trying to connect"));
    expect_counters({});
}

TEST_F(engine_commands, an_address_that_cannot_be_used_reconnects_too_to_the_one_already_held) {
    strcpy(conf->svr_addr_ipv4, "10.0.0.1");
    for (int32_t kind : {2, 0, 3, -1}) {
        log.clear();
        rekeys = 0;
        EXPECT_EQ(handle(message(4, kind, ipv4_sockaddr("\x0a\x01\x02\x03"))), 0);
        EXPECT_STREQ(conf->svr_addr_ipv4, "10.0.0.1");
        EXPECT_EQ(rekeys, 1);
        EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_handle_gw_ip_addr", "IPv6 ADDR not supported"));
    }
}

TEST_F(engine_commands, a_missing_address_is_refused_and_reconnects_too) {
    strcpy(conf->svr_addr_ipv4, "10.0.0.1");
    EXPECT_EQ(tlsc_handle_gw_ip_addr(1, nullptr), 0);
    EXPECT_STREQ(conf->svr_addr_ipv4, "10.0.0.1");
    EXPECT_EQ(rekeys, 1);
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_handle_gw_ip_addr", "Null ptr received for gw_sockaddr"));
}

TEST_F(engine_commands, an_address_that_cannot_be_converted_is_refused_and_reconnects_too) {
    strcpy(conf->svr_addr_ipv4, "10.0.0.1");
    conversion_fails = true;
    EXPECT_EQ(handle(message(4, 1, ipv4_sockaddr("\x0a\x01\x02\x03"))), 0);
    EXPECT_STREQ(conf->svr_addr_ipv4, "10.0.0.1");
    EXPECT_EQ(rekeys, 1);
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_handle_gw_ip_addr", "GW IP ADDR Conversion failed"));
}

TEST_F(engine_commands, only_one_command_is_executed_per_event) {
    put(message(2, 5) + message(1));
    EXPECT_EQ(tlsc_handle_cli_cmds(), 36);
    EXPECT_EQ(exit_client, 0);
    EXPECT_EQ(tlsc_handle_cli_cmds(), 36);
    EXPECT_EQ(exit_client, 1);
}

TEST_F(engine_commands, a_short_read_is_dispatched_on_what_it_holds) {
    EXPECT_EQ(handle(std::string("\x01", 1)), 1);
    EXPECT_EQ(exit_client, 1);
    exit_client = 0;
    EXPECT_EQ(handle(std::string("\x00", 1)), 1);
    EXPECT_TRUE(log.contains("Invalid command type received from CLI... Ignore!!"));
    EXPECT_EQ(handle(message(2, 4).substr(0, 8)), 8);
    EXPECT_EQ(tlsc_log_level, 4);
    EXPECT_EQ(handle(message(4, 1).substr(0, 12)), 1);
    EXPECT_STREQ(conf->svr_addr_ipv4, "0.0.0.0");  // what is missing is zero
}

TEST_F(engine_commands, no_bytes_in_the_pipe_harm_the_tunnel_thread) {
    uint32_t state = 2024;
    for (int round = 0; round < 4000; ++round) {
        std::string bytes;
        state = state * 1664525u + 1013904223u;
        for (size_t size = 1 + (state >> 16) % 36; bytes.size() < size;) {
            state = state * 1664525u + 1013904223u;
            bytes += static_cast<char>(state >> 24);
        }
        if (round % 2 == 0) {  // half of them have an id of the catalogue, or the one behind it, and a small value
            const std::string head =
                message(round / 2 % 6, round / 12 % 4).substr(0, std::min<size_t>(8, bytes.size()));
            bytes.replace(0, head.size(), head);
        }
        rekeys               = 0;
        const int32_t result = handle(bytes);
        tlsc_log_level       = LOG_ERRORS;
        tlsc_log_dest        = LOG_DEST_CONSOLE;
        if (rekeys) {
            EXPECT_TRUE(result == 0 || result == 1) << result;
        } else {
            EXPECT_EQ(result, static_cast<int32_t>(bytes.size()));
        }
        EXPECT_LT(strnlen(conf->svr_addr_ipv4, sizeof(conf->svr_addr_ipv4)), sizeof(conf->svr_addr_ipv4));
    }
    tlsc_log_level = LOG_DEBUG;
}

// ---- draining -------------------------------------------------------------------------------------------------------

TEST_F(engine_commands, stale_commands_are_discarded_unexecuted_and_counted) {
    put(message(1) + message(2, 0) + message(4, 1));
    tlsc_clear_cli_cmds();
    EXPECT_EQ(exit_client, 0);
    EXPECT_EQ(tlsc_log_level, LOG_DEBUG);
    EXPECT_EQ(rekeys, 0);
    EXPECT_EQ(log.messages(), (strings{text_of("Clearing the stale commands form CLI pipe, read fd:%d, write fd:%d",
                                               cli_pipe_rd_fd.load(), cli_pipe_wr_fd.load()),
                                       "Clear CLI commands: message id read:1", "Clear CLI commands: message id read:2",
                                       "Clear CLI commands: message id read:4",
                                       "Total number of stale commands cleared from CLI pipe:3"}));
    for (const log_line &line : log.entries()) EXPECT_EQ(line.severity, "INFO");
    EXPECT_EQ(read_pipe(), "");
}

TEST_F(engine_commands, a_full_pipe_that_nobody_reads_makes_a_sender_fail_after_a_while) {
    tlsc_log_level = LOG_ERRORS;
    nobody_reads   = true;
    int sent       = 0;
    while (tlsc_send_log_dest_chg_req(0) == 1) ASSERT_LT(++sent, 100000);
    EXPECT_GT(sent, 1000);
    EXPECT_EQ(poll_timeout, 5000);
    EXPECT_EQ(log.messages(), strings{text_of("Writing to pipe-fd(%d) failed", cli_pipe_wr_fd.load())});
}

TEST_F(engine_commands, the_lines_of_sending_and_draining_name_their_functions) {
    EXPECT_EQ(tlsc_send_exit_client_req(), 1);
    EXPECT_EQ(lines_from(main_file),
              (strings{text_of("DEBUG tlsc_send_exit_client_req: Wrote 36 bytes on pipe-fd: %d", cli_pipe_wr_fd.load()),
                       "DEBUG tlsc_send_exit_client_req: Sent CLI cmd: 1, to child thread"}));
    tlsc_clear_cli_cmds();
    EXPECT_EQ(
        lines_from(engine_file),
        (strings{text_of("INFO tlsc_clear_cli_cmds: Clearing the stale commands form CLI pipe, read fd:%d, write fd:%d",
                         cli_pipe_rd_fd.load(), cli_pipe_wr_fd.load()),
                 "INFO tlsc_clear_cli_cmds: Clear CLI commands: message id read:1",
                 "INFO tlsc_clear_cli_cmds: Total number of stale commands cleared from CLI pipe:1"}));
}

TEST_F(engine_commands, draining_an_empty_pipe_counts_0) {
    tlsc_clear_cli_cmds();
    EXPECT_TRUE(log.contains("Total number of stale commands cleared from CLI pipe:0"));
    EXPECT_EQ(log.messages().size(), 2u);
}

TEST_F(engine_commands, a_drain_of_a_blocking_read_end_waits_for_a_command_and_discards_it) {
    nonblock_fails = true;
    ASSERT_EQ(tlsc_create_pipe_for_cli_cmds(), 1);
    std::atomic<bool> ended{false};
    std::thread       drain([&ended] {
        tlsc_clear_cli_cmds();
        ended = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(ended);
    put(message(1));
    for (int i = 0; i < 5000 && !log.contains("Clear CLI commands: message id read:1"); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_TRUE(log.contains("Clear CLI commands: message id read:1"));
    EXPECT_FALSE(ended);
    close(cli_pipe_wr_fd.exchange(-1));  // no more writers: the only way out
    drain.join();
    EXPECT_EQ(exit_client, 0);
    EXPECT_TRUE(log.contains("Total number of stale commands cleared from CLI pipe:1"));
}

}  // namespace
