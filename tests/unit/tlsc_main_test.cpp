// The process entry with its polling loop, and the client's initialisation. Each runs in a process of its own; the
// controller interface and the pauses are stood in for.

#include <algorithm>
#include <csignal>
#include <fstream>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>

#include "tlsc_main.h"
#include "tlsc_openssl.h"
#include "tlsc_session.h"
#include "tlsc_wlc.h"

#include "in_child.h"
#include "tunnel_fixture.h"

extern int tlsc_process_main();

// ---- stand-ins ------------------------------------------------------------------------------------------------------

namespace {

std::vector<std::string> steps;
int                      polls_until_exit = 1;
int                      init_result      = 1;
uid_t                    user             = 0;
bool                     set_all_fails;
unsigned                 seed;
int                      poll_result;    // of the polls before the exit
int                      halts_to_fail;  // so many times the tunnel thread still works
std::function<void()>    at_lock_destruction;
bool                     print_steps;  // among the log lines, to see what comes before what

void note_step(const char *step) {
    steps.push_back(step);
    if (!print_steps) return;
    printf("\n<%s>", step);
    fflush(stdout);  // the log does not wait for it
}

}  // namespace

extern "C" int __wrap_nanosleep(const timespec *duration, timespec *rest) {
    EXPECT_EQ(duration->tv_sec, 2);
    EXPECT_EQ(duration->tv_nsec, 0);
    EXPECT_EQ(rest, nullptr);
    note_step("sleep");
    errno = EINTR;
    return -1;  // interrupted, and not resumed
}

extern "C" int __wrap_wlcTlscFifoHandler() {
    note_step("poll");
    return --polls_until_exit <= 0 ? -2 : poll_result;
}

extern "C" int __wrap_tlscWlcPostTlscStatsUpdateMsg() {
    note_step("statistics");
    return 1;
}

extern "C" int __wrap_tlscWlcInit() {
    note_step("controller up");
    return init_result;
}

extern "C" int __wrap_tlscWlcCleanUp() {
    note_step("controller down");
    return 1;
}

extern "C" void __wrap_tlsc_cleanup_context() { note_step("clean up"); }

extern "C" bool __wrap_tlsc_hold_tunnel_thread(int32_t seconds) {
    EXPECT_EQ(seconds, 3);
    note_step("halt");
    return halts_to_fail-- <= 0;
}

extern "C" void __wrap_tlsc_resume_tunnel_thread() { note_step("resume"); }

extern "C" uid_t __wrap_getuid() { return user; }

extern "C" void __real_tlsc_log_lock_create();
extern "C" void __wrap_tlsc_log_lock_create() {
    note_step(fcntl(STDIN_FILENO, F_GETFD) < 0 ? "create lock first" : "create lock");
    __real_tlsc_log_lock_create();
}

extern "C" void __real_tlsc_log_lock_destroy();
extern "C" void __wrap_tlsc_log_lock_destroy() {
    note_step("destroy lock");
    if (at_lock_destruction) at_lock_destruction();
    __real_tlsc_log_lock_destroy();
}

extern "C" int32_t __real_tlsc_set_config_all();
extern "C" int32_t __wrap_tlsc_set_config_all() {
    note_step("settings");
    return set_all_fails ? 0 : __real_tlsc_set_config_all();
}

extern "C" void __wrap_srand(unsigned value) { seed = value; }

namespace {

using strings = std::vector<std::string>;

constexpr char entry[]     = "tlsc_process_main";  // what the tests' library calls main
constexpr char flag_file[] = "/storage/application/wlc/sectun-bootup-dbg.flag";

class tlsc_main : public tunnel_test {
protected:
    void SetUp() override {
        if (!getenv("PRIVATE_WORLD")) GTEST_SKIP() << "needs root: run through tools/private-world";
        steps.clear();
        polls_until_exit = 1;
        init_result      = 1;
        user             = 0;
        set_all_fails    = false;
        poll_result      = 0;
        halts_to_fail    = 0;
        print_steps      = false;
        unlink(flag_file);
        unlink("/tmp/tlsc_log");
        tlscWlcClearCfgParams();
        log.clear();
    }
    void TearDown() override { unlink(flag_file); }

    // Runs the process entry; what it did is compared in its own process.
    static int run(const strings &expected) {
        return in_child([&] {
            const int status = tlsc_process_main();
            EXPECT_EQ(steps, expected);
            return status;
        });
    }
    static void make_flag_file(mode_t mode) { close(open(flag_file, O_CREAT | O_WRONLY | O_CLOEXEC, mode)); }
};

// ---- process entry --------------------------------------------------------------------------------------------------

TEST_F(tlsc_main, the_exit_statuses_are_the_reverse_of_the_usual_ones) {
    EXPECT_EQ(run({"create lock", "controller up", "sleep", "poll", "controller down", "clean up", "destroy lock"}), 1);
    user = 1000;
    EXPECT_EQ(run({"create lock"}), 0);
}

TEST_F(tlsc_main, an_exit_order_on_the_first_poll_leads_straight_to_the_end_in_its_order) {
    EXPECT_EQ(run({"create lock", "controller up", "sleep", "poll", "controller down", "clean up", "destroy lock"}), 1);
    EXPECT_EQ(messages_from(main_file), (strings{"In TLS Client process", "Waiting on FIFO to receive messages",
                                                 "Received TWLC_EXIT command, Exiting TLS Client!!!",
                                                 "Client Shutdown!!Shutting down TLS Client...\n"}));
    const std::vector<log_line> lines = log.entries();
    EXPECT_EQ(lines[0].severity, "DEBUG");
    EXPECT_EQ(lines[0].function, entry);
    EXPECT_EQ(lines[1].severity, "DEBUG");
    EXPECT_EQ(lines[2].severity, "WARNING");
    EXPECT_EQ(lines[3].severity, "WARNING");
}

TEST_F(tlsc_main, every_line_has_its_place_between_the_steps) {
    print_steps = true;
    EXPECT_EQ(run({"create lock", "controller up", "sleep", "poll", "controller down", "clean up", "destroy lock"}), 1);
    EXPECT_EQ(log.text().find("\n<create lock>\nTLSC["), 0u);
    strings lines = {
        "DEBUG tlsc_process_main: In TLS Client process\n<controller up>",
        "DEBUG tlsc_process_main: Waiting on FIFO to receive messages\n<sleep>\n<poll>",
        "WARNING tlsc_process_main: Received TWLC_EXIT command, Exiting TLS Client!!!\n<controller down>\n<clean up>\n<destroy lock>",
        "WARNING tlsc_process_main: Client Shutdown!!Shutting down TLS Client...\n"};
    EXPECT_EQ(lines_from(main_file), lines);
    log.clear();
    init_result = 0;
    EXPECT_EQ(run({"create lock", "controller up", "sleep", "poll", "controller down", "clean up", "destroy lock"}), 1);
    lines.insert(lines.begin() + 1, "ERROR tlsc_process_main: TLS Client Initialization failed");
    EXPECT_EQ(lines_from(main_file), lines);
    log.clear();
    user = 65534;
    EXPECT_EQ(run({"create lock"}), 0);
    EXPECT_EQ(lines_from(main_file),
              (strings{"DEBUG tlsc_process_main: In TLS Client process",
                       "ERROR tlsc_process_main: Error: The program must be run as ROOT!!"
                       "\n  TLS Client process - Error: The program must be run as ROOT!!...existing"}));
}

TEST_F(tlsc_main, the_last_line_is_written_after_the_lock_is_gone) {
    EXPECT_EQ(in_child([&] {
                  at_lock_destruction = [&] { EXPECT_FALSE(log.contains("Client Shutdown!!")); };
                  const int status    = tlsc_process_main();
                  EXPECT_EQ(steps.back(), "destroy lock");
                  EXPECT_TRUE(log.contains("Client Shutdown!!"));
                  return status;
              }),
              1);
}

TEST_F(tlsc_main, the_poll_comes_after_the_pause_and_statistics_with_every_30th) {
    polls_until_exit = 61;
    strings expected = {"create lock", "controller up"};
    for (int poll = 1; poll <= 61; ++poll) {
        expected.push_back("sleep");
        expected.push_back("poll");
        if (poll == 30 || poll == 60) expected.push_back("statistics");
    }
    for (const char *step : {"controller down", "clean up", "destroy lock"}) expected.push_back(step);
    EXPECT_EQ(run(expected), 1);
}

TEST_F(tlsc_main, an_exit_order_on_the_30th_poll_sends_no_statistics) {
    polls_until_exit = 30;
    EXPECT_EQ(in_child([] {
                  (void)tlsc_process_main();
                  return static_cast<int>(std::count(steps.begin(), steps.end(), "statistics"));
              }),
              0);
}

TEST_F(tlsc_main, only_minus_2_ends_the_loop) {
    for (int result : {-1, 1, 2, -3}) {
        polls_until_exit = 3;
        poll_result      = result;
        EXPECT_EQ(run({"create lock", "controller up", "sleep", "poll", "sleep", "poll", "sleep", "poll",
                       "controller down", "clean up", "destroy lock"}),
                  1);
    }
}

TEST_F(tlsc_main, a_failed_controller_start_is_logged_and_the_loop_runs_all_the_same) {
    for (int result : {0, 2, -1}) {
        log.clear();
        init_result      = result;
        polls_until_exit = 2;
        EXPECT_EQ(run({"create lock", "controller up", "sleep", "poll", "sleep", "poll", "controller down", "clean up",
                       "destroy lock"}),
                  1);
        EXPECT_TRUE(log.has("ERROR", main_file, entry, "TLS Client Initialization failed"));
    }
}

TEST_F(tlsc_main, without_root_rights_nothing_is_touched) {
    user = 1;
    EXPECT_EQ(run({"create lock"}), 0);
    EXPECT_EQ(
        log.messages(),
        (strings{
            "In TLS Client process",
            "Error: The program must be run as ROOT!!\n  TLS Client process - Error: The program must be run as ROOT!!...existing"}));
    EXPECT_EQ(log.entries()[1].severity, "ERROR");
}

TEST_F(tlsc_main, the_flag_file_switches_the_four_debug_flags_on_whatever_it_holds) {
    for (mode_t mode : {0644, 0000}) {
        make_flag_file(mode);
        EXPECT_EQ(in_child([] {
                      (void)tlsc_process_main();
                      return tlscWlcMsgEventDbg + tlscWlcMsgErrDbg * 2 + tlscWlcIpcEventDbg * 4 + tlscWlcIpcErrDbg * 8;
                  }),
                  15);
        unlink(flag_file);
    }
    EXPECT_EQ(in_child([] {
                  (void)tlsc_process_main();
                  return tlscWlcMsgEventDbg + tlscWlcMsgErrDbg + tlscWlcIpcEventDbg + tlscWlcIpcErrDbg;
              }),
              0);
}

TEST_F(tlsc_main, whatever_bears_the_name_of_the_flag_file_counts_and_a_link_to_nothing_does_not) {
    const auto flags = [] {
        return in_child([] {
            (void)tlsc_process_main();
            return tlscWlcMsgEventDbg + tlscWlcMsgErrDbg * 2 + tlscWlcIpcEventDbg * 4 + tlscWlcIpcErrDbg * 8;
        });
    };
    ASSERT_EQ(mkdir(flag_file, 0), 0);
    EXPECT_EQ(flags(), 15);
    ASSERT_EQ(rmdir(flag_file), 0);
    ASSERT_EQ(symlink("/dev/null", flag_file), 0);
    EXPECT_EQ(flags(), 15);
    unlink(flag_file);
    ASSERT_EQ(symlink("/nonexistent", flag_file), 0);
    EXPECT_EQ(flags(), 0);
    unlink(flag_file);
    std::ofstream(flag_file) << "0\nfalse\n";  // nobody reads it
    EXPECT_EQ(flags(), 15);
}

TEST_F(tlsc_main, with_the_flag_the_announcements_go_to_standard_output_behind_a_blank) {
    make_flag_file(0644);
    EXPECT_EQ(run({"create lock", "controller up", "sleep", "poll", "controller down", "clean up", "destroy lock"}), 1);
    EXPECT_EQ(log.count_plain("EVENT", "../src/tlsc_main.c", " In TLS Client process"), 1u);
    // What was printed last stands right behind it: neither begins a new line.
    EXPECT_EQ(log.count_plain("EVENT", "../src/tlsc_main.c",
                              " Waiting on FIFO to receive messagesShutting down TLS Client...\n"),
              1u);
    EXPECT_TRUE(log.has("WARNING", main_file, entry, "Received TWLC_EXIT command, Exiting TLS Client!!!"));
}

TEST_F(tlsc_main, the_log_lock_is_made_before_anything_else_runs) {
    EXPECT_EQ(in_child([] {
                  close(STDIN_FILENO);
                  (void)tlsc_process_main();
                  return steps.front() == "create lock first" ? 0 : 1;
              }),
              0);
}

TEST_F(tlsc_main, standard_descriptors_are_occupied_so_that_nothing_else_gets_number_0) {
    EXPECT_EQ(in_child([] {
                  close(STDIN_FILENO);
                  (void)tlsc_process_main();
                  return is_open(STDIN_FILENO) ? 0 : 1;
              }),
              0);
    EXPECT_EQ(in_child([] {
                  const int before = open_descriptors();
                  (void)tlsc_process_main();
                  return open_descriptors() - before;
              }),
              0);
}

TEST_F(tlsc_main, a_reader_that_went_away_does_not_kill_the_process) {
    EXPECT_EQ(in_child([] {
                  signal(SIGPIPE, SIG_DFL);
                  (void)tlsc_process_main();
                  return signal(SIGPIPE, SIG_DFL) == SIG_IGN ? 0 : 1;
              }),
              0);
}

// ---- initialisation -------------------------------------------------------------------------------------------------

class tlsc_first_init : public tlsc_main {
protected:
    void SetUp() override {
        tlsc_main::SetUp();
        const char *const values[][2] = {{"server_ip_address", "10.1.2.3"},
                                         {"server_port", "4433"},
                                         {"management_ip", "192.168.1.5"},
                                         {"tun_interface_name", "tun7"},
                                         {"cipher_algo", "PSK-AES256-CBC-SHA"},
                                         {"psk_identity", "me"},
                                         {"psk_key", "very-secret"},
                                         {"log_level", "debug"},
                                         {"log_dest", "console"},
                                         {"device_id", "dev"},
                                         {"serial_num", "SN1"},
                                         {"system_name", "a device"}};
        for (const auto &value : values) ASSERT_EQ(wlcSecTunProcessConf(value[0], value[1]), 1) << value[0];
        log.clear();
    }
    const std::string summary =
        "\ntlsc_init() - svr_addr_ipv4:10.1.2.3, svr_port:4433, management_ip:192.168.1.5, tun_interface_name:tun7, "
        "cipher_algo:PSK-AES256-CBC-SHA, tlsc_debug_level:3, psk_identity:me, psk_key:***";
};

TEST_F(tlsc_first_init, takes_its_steps_in_their_order) {
    EXPECT_EQ(in_child([&] {
                  strcpy(conf->device_name, "left over");
                  tlsc_stats_record.invalid_rx = 7;
                  EXPECT_EQ(tlsc_init(), 1);
                  EXPECT_GT(cli_pipe_rd_fd, 0);
                  EXPECT_NE(tlsc_ssl_ctx, nullptr);
                  EXPECT_STREQ(conf->svr_addr_ipv4, "10.1.2.3");
                  EXPECT_EQ(conf->ssl_auth_mech, SSL_AUTH_PSK);
                  EXPECT_EQ(conf->dpd_interval, 10);
                  EXPECT_NEAR(seed, time(nullptr), 2);
                  EXPECT_EQ(tlsc_stats_record.invalid_rx, 0u);
                  tlsc_attach_session(sock);
                  EXPECT_NE(sock->sess, nullptr);
                  EXPECT_EQ(access("/tmp/tlsc_log", F_OK), 0);
                  return 0;
              }),
              0);
    const strings order = {"Initialize tls-client",
                           "Setting default configurations",
                           "tlsc_init() - Invoking config set APIs",
                           "tlsc_set_config_all() - setting all config for TLS Client",
                           summary,
                           "Cipher set successfully for SSL-Ctx : PSK-AES256-CBC-SHA"};
    for (size_t i = 0; i < order.size(); ++i) {
        EXPECT_GE(position(order[i]), 0) << order[i];
        if (i > 0) {
            EXPECT_LT(position(order[i - 1]), position(order[i])) << order[i];
        }
    }
    EXPECT_LT(position("Initialize tls-client"), position("OpenSSL initialized..."));
    EXPECT_LT(position("OpenSSL initialized..."), position("Setting default configurations"));
    EXPECT_LT(position("Sent CLI cmd: 2, to child thread"),
              position("OpenSSL initialized..."));  // the file's debug settings
    EXPECT_LT(position("Sent CLI cmd: 3, to child thread"), position("OpenSSL initialized..."));
    EXPECT_GT(position("Sent CLI cmd: 2, to child thread"), position("Initialize tls-client"));
    EXPECT_TRUE(log.has("INFO", main_file, "tlsc_init", summary));
    EXPECT_FALSE(log.contains("very-secret"));
}

TEST_F(tlsc_first_init, one_process_wide_mark_says_whether_the_client_is_initialised) {
    EXPECT_EQ(in_child([] {
                  EXPECT_EQ(tlsc_initialized, 0);
                  EXPECT_EQ(tlsc_init(), 1);
                  EXPECT_EQ(tlsc_initialized, 1);
                  EXPECT_EQ(tlsc_init(), 1);
                  EXPECT_EQ(tlsc_initialized, 1);
                  return 0;
              }),
              0);
    EXPECT_EQ(log.count("INFO", main_file, "tlsc_init", "Initialize tls-client"), 1u);
    log.clear();
    EXPECT_EQ(in_child([] {
                  tlsc_initialized = 1;  // is all that makes a call a further one
                  return tlsc_init() - 1;
              }),
              0);
    EXPECT_TRUE(log.has("INFO", main_file, "tlsc_init", "tlsc_init called again... Reading configuration again."));
    EXPECT_FALSE(log.has("INFO", main_file, "tlsc_init", "Initialize tls-client"));
}

TEST_F(tlsc_first_init, an_unset_key_is_shown_as_an_empty_text) {
    ASSERT_EQ(wlcSecTunProcessConf("psk_key", ""), 1);
    EXPECT_EQ(in_child([] { return tlsc_init() - 1; }), 0);
    EXPECT_TRUE(log.has("INFO", main_file, "tlsc_init", summary.substr(0, summary.size() - 3)));
}

TEST_F(tlsc_first_init, a_context_that_cannot_be_made_does_not_fail_the_initialisation) {
    ASSERT_EQ(wlcSecTunProcessConf("cipher_algo", "NO-SUCH-CIPHER"), 1);
    EXPECT_EQ(in_child([&] {
                  EXPECT_EQ(tlsc_init(), 1);
                  EXPECT_EQ(tlsc_ssl_ctx, nullptr);
                  tlsc_attach_session(sock);
                  EXPECT_NE(sock->sess, nullptr);
                  return 0;
              }),
              0);
}

TEST_F(tlsc_first_init, settings_that_cannot_be_set_are_printed_the_first_time_and_logged_too_the_second) {
    set_all_fails = true;
    EXPECT_EQ(in_child([&] {
                  EXPECT_EQ(tlsc_init(), 1);
                  EXPECT_TRUE(log.contains("-------- tlsc_init() ERROR: Setting the configuration"));
                  EXPECT_FALSE(log.has("ERROR", main_file, "tlsc_init",
                                       "-------- tlsc_init() ERROR: Setting the configuration"));
                  log.clear();
                  EXPECT_EQ(tlsc_init(), 1);
                  const std::string text  = log.text();
                  const std::string line  = "-------- tlsc_init() ERROR: Setting the configuration";
                  const size_t      first = text.find(line);
                  EXPECT_NE(first, std::string::npos);
                  EXPECT_NE(text.find(line, first + 1), std::string::npos);
                  EXPECT_NE(text.find("[tlsc_init] " + line), std::string::npos);
                  return 0;
              }),
              0);
}

TEST_F(tlsc_first_init, a_second_initialisation_keeps_pipe_context_session_and_statistics) {
    EXPECT_EQ(in_child([&] {
                  EXPECT_EQ(tlsc_init(), 1);
                  tlsc_attach_session(sock);
                  const int32_t       pipe_end = cli_pipe_rd_fd;
                  ssl_ctx_st *const   ctx      = tlsc_ssl_ctx;
                  tlsc_session *const first    = sock->sess;
                  tlsc_count(&tlsc_stats::invalid_rx);
                  conf->dns_count       = 2;
                  conf->inner_addr.kind = ADDR_IPV4;
                  conf->dpd_interval    = 99;
                  strcpy(conf->cookie, "cookie");
                  seed = 0;
                  EXPECT_EQ(wlcSecTunProcessConf("server_ip_address", "10.9.9.9"), 1);
                  log.clear();

                  EXPECT_EQ(tlsc_init(), 1);
                  tlsc_attach_session(sock);
                  EXPECT_EQ(cli_pipe_rd_fd, pipe_end);
                  EXPECT_EQ(tlsc_ssl_ctx, ctx);
                  EXPECT_EQ(sock->sess, first);
                  EXPECT_EQ(tlsc_stats_record.invalid_rx, 1u);
                  EXPECT_EQ(seed, 0u);
                  EXPECT_EQ(conf->dns_count, 0);
                  EXPECT_EQ(conf->inner_addr.kind, 0);
                  EXPECT_EQ(conf->cookie[0], '\0');
                  EXPECT_EQ(conf->dpd_interval, 10);
                  EXPECT_STREQ(conf->svr_addr_ipv4, "10.9.9.9");
                  return 0;
              }),
              0);
    EXPECT_TRUE(log.has("INFO", main_file, "tlsc_init", "tlsc_init called again... Reading configuration again."));
    EXPECT_EQ(log.count("INFO", main_file, "tlsc_init", "Initialize tls-client"), 1u);
    EXPECT_EQ(log.count("INFO", main_file, "tlsc_init", "tlsc_init() - Invoking config set APIs"), 2u);
    EXPECT_EQ(log.count("INFO", engine_file, "tlsc_init_openssl", "OpenSSL initialized..."), 1u);
}

TEST_F(tlsc_first_init, a_second_initialisation_takes_its_steps_in_their_order) {
    EXPECT_EQ(
        in_child([&] {
            EXPECT_EQ(tlsc_init(), 1);
            log.clear();
            EXPECT_EQ(tlsc_init(), 1);
            const std::string wrote = text_of("Wrote 36 bytes on pipe-fd: %d", cli_pipe_wr_fd.load());
            EXPECT_EQ(
                log.messages(),
                (strings{
                    "tlsc_init called again... Reading configuration again.",
                    "tlscWlcSetDebugParams() - On TLS Client, setting TLSC debug parameters message, level:debug, destination:console",
                    wrote,
                    "Sent CLI cmd: 2, to child thread",
                    wrote,
                    "Sent CLI cmd: 3, to child thread",
                    "Setting default configurations",
                    "DPD Interval default = 10",
                    "Retry Interval default = 20",
                    "Rekey Interval default = 3600",
                    "FQDN Resoln Interval default = 30",
                    "Default prefix type = ADDR_IPV4",
                    "tlsc_init() - Invoking config set APIs",
                    "tlsc_set_config_all() - setting all config for TLS Client",
                    "tlsc_set_config_server_ip_port() - server_ip:10.1.2.3, server_port:4433",
                    "tlsc_set_config_management_ip() - mgmt_ip:192.168.1.5",
                    "tlsc_set_config_device_id() - device_id:dev",
                    "tlsc_set_config_tun_interface_name() - tun_interface_name:tun7",
                    "tlsc_set_config_tun_cipher_algo() - cipher_algo:PSK-AES256-CBC-SHA",
                    "tlsc_set_config_psk_identify() - psk_identity:me",
                    "tlsc_set_config_psk_key() - psk_key:***",
                    "tlsc_set_config_serial_num() - serial_no:SN1",
                    "tlsc_set_config_device_name() - device_name:a device",
                    "SSL auth-mech set to PSK",
                    summary}));
            return 0;
        }),
        0);
}

TEST_F(tlsc_first_init, a_changed_key_serves_the_next_handshake_and_a_changed_cipher_list_waits_for_a_new_process) {
    EXPECT_EQ(in_child([&] {
                  EXPECT_EQ(tlsc_init(), 1);
                  const auto has_cipher = [](const std::string &name) {
                      SSL *ssl   = SSL_new(tlsc_ssl_ctx);
                      bool found = false;
                      for (int i = 0; const char *cipher = SSL_get_cipher_list(ssl, i); ++i)
                          found = found || cipher == name;
                      SSL_free(ssl);
                      return found;
                  };
                  EXPECT_EQ(wlcSecTunProcessConf("psk_identity", "somebody else"), 1);
                  EXPECT_EQ(wlcSecTunProcessConf("psk_key", "another"), 1);
                  EXPECT_EQ(wlcSecTunProcessConf("cipher_algo", "PSK-AES128-CBC-SHA"), 1);
                  EXPECT_EQ(tlsc_init(), 1);
                  EXPECT_STREQ(conf->cipher_algo, "PSK-AES128-CBC-SHA");
                  EXPECT_TRUE(has_cipher("PSK-AES256-CBC-SHA"));
                  EXPECT_FALSE(has_cipher("PSK-AES128-CBC-SHA"));
                  char          identity[129];
                  unsigned char key[257];
                  EXPECT_EQ(tlsc_psk_client_cb(nullptr, "", identity, sizeof(identity), key, sizeof(key)), 7u);
                  EXPECT_STREQ(identity, "somebody else");
                  EXPECT_EQ(std::string(reinterpret_cast<char *>(key), 7), "another");
                  return 0;
              }),
              0);
}

TEST_F(tlsc_first_init, the_tunnel_thread_stands_still_while_the_configuration_is_read_anew_however_long_it_works) {
    EXPECT_EQ(in_child([&] {
                  EXPECT_EQ(tlsc_init(), 1);
                  EXPECT_EQ(steps, (strings{"settings"}));  // at first there is no such thread
                  steps.clear();
                  EXPECT_EQ(tlsc_init(), 1);
                  EXPECT_EQ(steps, (strings{"halt", "settings", "resume"}));
                  steps.clear();
                  halts_to_fail = 2;
                  EXPECT_EQ(tlsc_init(), 1);
                  EXPECT_EQ(steps, (strings{"halt", "halt", "halt", "settings", "resume"}));
                  return 0;
              }),
              0);
}

TEST_F(tlsc_first_init, the_record_follows_the_file_and_a_tunnel_that_goes_on_keeps_its_interface) {
    EXPECT_EQ(in_child([&] {
                  EXPECT_EQ(tlsc_init(), 1);
                  tlsc_attach_session(sock);
                  sock->sess->if_name   = conf->tun_interface_name;
                  conf->inner_addr.kind = ADDR_IPV4;
                  memcpy(conf->inner_addr.ipv4, "\x0a\x63\x00\x07", 4);
                  for (const char *name : {"other", "third"}) {
                      EXPECT_EQ(wlcSecTunProcessConf("tun_interface_name", name), 1);
                      EXPECT_EQ(tlsc_init(), 1);
                      EXPECT_EQ(conf->inner_addr.kind, 0);
                      EXPECT_EQ(std::string(reinterpret_cast<char *>(conf->inner_addr.ipv4), 4), std::string(4, '\0'));
                      EXPECT_STREQ(conf->tun_interface_name, name);
                      EXPECT_STREQ(sock->sess->if_name, "tun7");
                  }
                  return 0;
              }),
              0);
}

TEST_F(tlsc_main, memory_of_the_process_is_never_dumped) {
    EXPECT_EQ(in_child([] {
                  if (prctl(PR_GET_DUMPABLE) != 1) return 2;
                  (void)tlsc_process_main();
                  return prctl(PR_GET_DUMPABLE);
              }),
              0);
}

TEST_F(tlsc_main, a_console_that_nobody_reads_is_made_the_process_own_so_that_it_cannot_block) {
    EXPECT_EQ(in_child([] {
                  int ends[2];
                  if (pipe(ends) != 0 || dup2(ends[1], STDERR_FILENO) < 0) return 2;
                  (void)tlsc_process_main();
                  if ((fcntl(ends[1], F_GETFL) & O_NONBLOCK) != 0) return 3;
                  return (fcntl(STDERR_FILENO, F_GETFL) & O_NONBLOCK) != 0 ? 0 : 4;
              }),
              0);
}

TEST_F(tlsc_main, files_that_the_process_makes_are_for_root_alone) {
    EXPECT_EQ(in_child([] {
                  umask(0);
                  (void)tlsc_process_main();
                  return static_cast<int>(umask(0));
              }),
              077);
}

}  // namespace
