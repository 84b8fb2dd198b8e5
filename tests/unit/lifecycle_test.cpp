// Start, supervision, stop and clean-up of the client. The tunnel thread is a stand-in that reads the real command
// pipe; sleeps last as long as the test says.

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include <poll.h>
#include <pthread.h>

#include "tlsc_main.h"
#include "tlsc_openssl.h"
#include "tlsc_session.h"
#include "tlsc_turn.h"

#include "in_child.h"
#include "tls_peer.h"
#include "tunnel_fixture.h"

// ---- stand-ins ------------------------------------------------------------------------------------------------------

// The clean-up cancels the monitor in its wait for the tunnel thread, which nobody joins then.
extern "C" const char *__tsan_default_options();
extern "C" const char *__tsan_default_options() { return "report_thread_leaks=0"; }

namespace {

std::mutex               sleep_mutex;
std::vector<unsigned>    slept;
std::atomic<bool>        hold_long_sleeps;   // sleeps of 10 seconds last while this is set
std::atomic<int>         tunnel_failures;    // so many runs of the tunnel thread end early
std::atomic<bool>        hold_before_drain;  // a run waits here, before it drains the pipe
std::atomic<bool>        hold_connecting;    // and here, behind the drain
std::atomic<int>         runs;               // of the tunnel thread so far
std::atomic<int>         alive;              // tunnel threads at this moment
std::atomic<bool>        has_drained;        // the last of them has drained the pipe
std::atomic<int>         most_alive;
std::atomic<int>         tunnel_creations_to_fail;
std::atomic<bool>        monitor_creation_fails;
std::atomic<bool>        halt_fails;
std::vector<std::string> steps;  // of the clean-up
int                      mutexes_destroyed;
std::mutex               turn;  // the tunnel thread has it while it touches the pipe, who halted it for good
std::atomic<bool>        monitor_gone;
bool                     monitor_gone_at_last_step;  // when the clean-up destroyed the locks

// Notes the end of the thread that has one.
struct farewell {
    ~farewell() { monitor_gone = true; }
};

// Of a tunnel thread, however it ends.
struct presence {
    presence() {
        if (++alive > most_alive) most_alive = alive.load();
    }
    ~presence() { --alive; }
    presence(const presence &)            = delete;
    presence &operator=(const presence &) = delete;
};

bool print_steps;  // among the log lines, to see what comes before what

void note_step(const std::string &step) {
    steps.push_back(step);
    if (!print_steps) return;
    printf("\n<%s>", step.c_str());
    fflush(stdout);  // the log does not wait for it
}

// No frame of a cancelled thread may be one that the address sanitizer watches and the unwinding leaves watched.
constexpr timespec shortly{0, 1000000};

// Can be cancelled while somebody else has it.
std::unique_lock<std::mutex> take_my_turn() {
    std::unique_lock<std::mutex> mine(turn, std::try_to_lock);
    while (!mine.owns_lock()) {
        (void)nanosleep(&shortly, nullptr);
        (void)mine.try_lock();
    }
    return mine;
}

void wait_while(const std::atomic<bool> &condition) {
    while (condition) (void)nanosleep(&shortly, nullptr);
}

}  // namespace

// Only the monitor sleeps.
extern "C" unsigned __wrap_sleep(unsigned seconds) {
    static thread_local const farewell end_of_monitor;
    (void)end_of_monitor;
    {
        const std::lock_guard<std::mutex> guard(sleep_mutex);
        slept.push_back(seconds);
    }
    while (seconds == 10 && hold_long_sleeps) nanosleep(&shortly, nullptr);  // can be cancelled, as the real one
    return 0;
}

// The tunnel thread: drains the pipe, connects, serves commands until it is told to end.
extern "C" void *__wrap_tlsc_start_epoll(void *) {
    has_drained = false;
    ++runs;
    const presence of_this_run;
    wait_while(hold_before_drain);
    if (tunnel_failures > 0) {
        --tunnel_failures;
        return nullptr;
    }
    {
        const std::unique_lock<std::mutex> my_turn = take_my_turn();
        tlsc_clear_cli_cmds();
    }
    has_drained = true;
    wait_while(hold_connecting);
    exit_client = 0;
    while (exit_client != 1) {
        {
            const std::unique_lock<std::mutex> my_turn = take_my_turn();
            (void)tlsc_handle_cli_cmds();
        }
        (void)nanosleep(&shortly, nullptr);
    }
    epoll_thread_exited = 1;
    return nullptr;
}

extern "C" int __real_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *),
                                     void *argument);
extern "C" int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *),
                                     void *argument) {
    EXPECT_EQ(attributes, nullptr);
    EXPECT_EQ(argument, nullptr);
    if (body == tlsc_epoll_mon_thread)
        return monitor_creation_fails ? EAGAIN : __real_pthread_create(thread, attributes, body, argument);
    if (tunnel_creations_to_fail > 0) {
        --tunnel_creations_to_fail;
        return ENOMEM;
    }
    return __real_pthread_create(thread, attributes, body, argument);
}

extern "C" bool __wrap_tlsc_halt_tunnel_thread(int32_t seconds, void (*)()) {
    EXPECT_EQ(seconds, 3);
    if (!halt_fails) turn.lock();
    return !halt_fails;
}

#define RECORD_STEP(name, symbol)       \
    extern "C" void __real_##symbol();  \
    extern "C" void __wrap_##symbol() { \
        note_step(name);                \
        __real_##symbol();              \
    }
RECORD_STEP("free session", tlsc_free_session)
RECORD_STEP("close pipe", tlsc_close_cli_pipe)

extern "C" void __real_tlsc_destroy_locks();
extern "C" void __wrap_tlsc_destroy_locks() {
    monitor_gone_at_last_step = monitor_gone;
    note_step("destroy locks");
    __real_tlsc_destroy_locks();
}

extern "C" void __wrap_tlsc_tun_delete(tlsc_session *, int32_t cause) {
    note_step(text_of("delete interface %d", cause));
}

extern "C" void __real_tlsc_ssl_cleanup(ssl_st *ssl);
extern "C" void __wrap_tlsc_ssl_cleanup(ssl_st *ssl) {
    note_step("release tls");
    __real_tlsc_ssl_cleanup(ssl);
}

extern "C" int __real_pthread_mutex_destroy(pthread_mutex_t *mutex);
extern "C" int __wrap_pthread_mutex_destroy(pthread_mutex_t *mutex) {
    ++mutexes_destroyed;
    return __real_pthread_mutex_destroy(mutex);
}

extern "C" void __real_SSL_CTX_free(SSL_CTX *ctx);
extern "C" void __wrap_SSL_CTX_free(SSL_CTX *ctx) {
    note_step("free context");
    __real_SSL_CTX_free(ctx);
}

namespace {

using strings = std::vector<std::string>;

class lifecycle : public tunnel_test {
protected:
    lifecycle() {
        static const bool once = [] {
            tlsc_log_lock_create();
            return true;
        }();
        (void)once;
        slept.clear();
        steps.clear();
        print_steps      = false;
        hold_long_sleeps = hold_before_drain = hold_connecting = monitor_creation_fails = halt_fails = false;
        tunnel_failures = runs = alive = most_alive = tunnel_creations_to_fail = 0;
        epoll_thread_exited                                                    = 0;
        EXPECT_EQ(tlsc_create_pipe_for_cli_cmds(), 1);
        steps.clear();
        log.clear();
    }
    ~lifecycle() override {
        hold_long_sleeps = hold_before_drain = hold_connecting = false;
        // A start joins the monitor that has ended; this one begins no other.
        monitor_creation_fails = true;
        (void)tlsc_start_epoll_mon_thread();
        tlsc_close_cli_pipe();
    }

    static std::vector<unsigned> sleeps() {
        const std::lock_guard<std::mutex> guard(sleep_mutex);
        return slept;
    }
    size_t ends_of_monitors() {
        return log.count("WARNING", platform_file, "tlsc_epoll_mon_thread", "epoll monitor thread exiting!!");
    }
    size_t starts_told() {
        return log.count("INFO", platform_file, "tlsc_start_epoll_mon_thread",
                         "Started the epoll monitor thread successfully");
    }
    bool running(int number) {
        return eventually([number] { return runs == number && alive == 1 && has_drained; });
    }
    // Orders the end of the client and waits for the monitor's.
    void end(size_t monitor_ends = 1) {
        ASSERT_TRUE(eventually([&] {
            (void)tlsc_stop_client();  // an order that was drained is given again
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            return ends_of_monitors() >= monitor_ends;
        }));
        ASSERT_TRUE(eventually([] { return alive == 0; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
};

// ---- clean-up -------------------------------------------------------------------------------------------------------
// First, while this process has no second thread that the processes of these tests would lack.

TEST_F(lifecycle, a_clean_up_without_any_start_skips_what_is_not_there) {
    EXPECT_EQ(in_child([&] {
                  tlsc_cleanup_context();
                  EXPECT_EQ(steps, (strings{"close pipe", "free session", "release tls", "destroy locks"}));
                  return 0;
              }),
              0);
    EXPECT_TRUE(log.has("WARNING", engine_file, "tlsc_ssl_cleanup", "SSL-handle is NULL"));
    EXPECT_FALSE(log.contains("Freeing up SSL-ctx"));
    EXPECT_TRUE(log.contains("Destroyed the crypto lock array"));
}

TEST_F(lifecycle, a_clean_up_releases_everything_in_its_order) {
    EXPECT_EQ(in_child([&] {
                  tlsc_init_openssl();
                  strcpy(conf->cipher_algo, peer_cipher);
                  strcpy(psk_key, "secret");
                  conf->ssl_auth_mech = SSL_AUTH_PSK;
                  EXPECT_EQ(tlsc_init_ssl_config(), 1);
                  EXPECT_NE(tlsc_init_session(), nullptr);
                  tlsc_attach_session(sock);
                  sock->ssl = SSL_new(tlsc_ssl_ctx);
                  tlsc_count(&tlsc_stats::invalid_rx);
                  const int32_t ends[] = {cli_pipe_rd_fd, cli_pipe_wr_fd};
                  tlsc_cleanup_context();
                  EXPECT_EQ(steps, (strings{"close pipe", "delete interface 0", "free session", "release tls",
                                            "free context", "destroy locks"}));
                  EXPECT_EQ(mutexes_destroyed,
                            CRYPTO_num_locks() + 1);  // the TLS library's, and that of the statistics
                  for (int32_t fd : ends) EXPECT_FALSE(is_open(fd));
                  EXPECT_EQ(cli_pipe_rd_fd, -1);
                  EXPECT_EQ(cli_pipe_wr_fd, -1);
                  EXPECT_EQ(sock->ssl, nullptr);
                  EXPECT_EQ(tlsc_ssl_ctx, nullptr);
                  EXPECT_EQ(tlsc_stats_record.invalid_rx, 0u);
                  // The 1.0 series overwrites a secret with anything, 3.0 with zeroes.
                  EXPECT_EQ(std::string(psk_key, psk_key_size).find("secret"), std::string::npos);
                  return 0;
              }),
              0);
    EXPECT_TRUE(log.has("WARNING", platform_file, "tlsc_cleanup_context", "Cleaning up Tls-session and SSL context"));
    EXPECT_TRUE(log.has("DEBUG", platform_file, "tlsc_cleanup_context", "Freeing up SSL-ctx"));
    EXPECT_LT(position("Cleaning up Tls-session and SSL context"), position("SSL-handle and Engine cleanup"));
    EXPECT_LT(position("SSL-handle and Engine cleanup"), position("Freeing up SSL-ctx"));
}

TEST_F(lifecycle, a_clean_up_says_so_between_the_pipe_and_the_rest) {
    EXPECT_EQ(
        in_child([&] {
            strcpy(conf->cipher_algo, peer_cipher);
            conf->ssl_auth_mech = SSL_AUTH_PSK;
            EXPECT_EQ(tlsc_init_ssl_config(), 1);
            EXPECT_NE(tlsc_init_session(), nullptr);
            tlsc_attach_session(sock);
            log.clear();
            print_steps = true;
            tlsc_cleanup_context();
            EXPECT_EQ(log.text().find("\n<close pipe>\nTLSC["), 0u);
            EXPECT_EQ(
                log.messages(),
                (strings{"Cleaning up Tls-session and SSL context\n<delete interface 0>\n<free session>\n<release tls>",
                         "SSL-handle is NULL", "Freeing up SSL-ctx\n<free context>\n<destroy locks>",
                         text_of("Destroyed the crypto lock array with no. of locks = %d", CRYPTO_num_locks())}));
            return 0;
        }),
        0);
}

TEST_F(lifecycle, a_clean_up_cancels_a_monitor_that_sleeps_and_one_that_waits_for_the_tunnel) {
    EXPECT_EQ(in_child([&] {
                  tunnel_failures  = 1;
                  hold_long_sleeps = true;
                  EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
                  EXPECT_TRUE(eventually([] { return sleeps().size() == 2; }));
                  tlsc_cleanup_context();
                  hold_long_sleeps = false;
                  std::this_thread::sleep_for(std::chrono::milliseconds(30));
                  EXPECT_EQ(runs, 1);
                  return 0;
              }),
              0);
    EXPECT_EQ(in_child([&] {
                  EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
                  EXPECT_TRUE(running(1));
                  std::this_thread::sleep_for(std::chrono::milliseconds(10));
                  tlsc_cleanup_context();
                  EXPECT_EQ(alive, 0);
                  return 0;
              }),
              0);
    EXPECT_EQ(ends_of_monitors(), 0u);
}

TEST_F(lifecycle, a_clean_up_cancels_the_monitor_last) {
    EXPECT_EQ(in_child([&] {
                  tunnel_failures  = 1;
                  hold_long_sleeps = true;
                  EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
                  EXPECT_TRUE(eventually([] { return sleeps().size() == 2; }));
                  tlsc_cleanup_context();
                  EXPECT_FALSE(monitor_gone_at_last_step);
                  EXPECT_TRUE(monitor_gone);
                  return 0;
              }),
              0);
}

TEST_F(lifecycle, the_log_still_works_behind_a_cancelled_monitor) {
    // The monitor logs all the time while it is cancelled: it must never take the log's lock with it.
    for (int round = 0; round < 20; ++round)
        ASSERT_EQ(in_child([&] {
                      tunnel_failures = 1 << 30;
                      EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
                      std::this_thread::sleep_for(std::chrono::microseconds(500 * round));
                      tlsc_cleanup_context();
                      TLSC_WARNING("still alive %d", round);
                      return 0;
                  }),
                  0);
    EXPECT_TRUE(log.contains("still alive 19"));
}

TEST_F(lifecycle, a_tunnel_thread_that_cannot_be_halted_keeps_what_it_uses) {
    EXPECT_EQ(in_child([&] {
                  halt_fails = true;
                  tlsc_count(&tlsc_stats::invalid_rx);
                  EXPECT_NE(tlsc_init_session(), nullptr);
                  tlsc_attach_session(sock);
                  tlsc_cleanup_context();
                  EXPECT_EQ(steps, (strings{"close pipe"}));
                  EXPECT_NE(sock->sess, nullptr);
                  EXPECT_EQ(tlsc_stats_record.invalid_rx, 0u);
                  EXPECT_EQ(mutexes_destroyed, 0);
                  return 0;
              }),
              0);
    EXPECT_TRUE(log.contains("Cleaning up Tls-session and SSL context"));
}

// ---- starting and stopping ------------------------------------------------------------------------------------------

TEST_F(lifecycle, a_client_starts_runs_and_ends_with_its_monitor_on_the_exit_command) {
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
    ASSERT_TRUE(running(1));
    EXPECT_TRUE(eventually([&] { return position("Started the epoll thread, wait for thread to be up..") >= 0; }));
    EXPECT_EQ(epoll_thread_exited, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_NE(tlsc_stop_client(), 0);
    ASSERT_TRUE(eventually([&] { return ends_of_monitors() == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(runs, 1);  // no restart follows
    EXPECT_EQ(sleeps(), (std::vector<unsigned>{1}));
    EXPECT_FALSE(log.contains("exited abnormally"));
    EXPECT_TRUE(
        log.has("INFO", platform_file, "tlsc_start_epoll_mon_thread", "Started the epoll monitor thread successfully"));
    EXPECT_TRUE(log.has("INFO", platform_file, "tlsc_epoll_mon_thread", "In TLS Client epoll monitor thread"));
    EXPECT_TRUE(log.has("INFO", platform_file, "tlsc_start_client", "Starting epoll thread"));
    EXPECT_TRUE(log.has("INFO", platform_file, "tlsc_stop_client", "Posting message to stop TLS Client..."));
}

TEST_F(lifecycle, a_tunnel_thread_that_fails_is_started_again_after_exactly_10_seconds_for_ever) {
    tunnel_failures = 6;
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
    ASSERT_TRUE(running(7));
    EXPECT_EQ(sleeps(), (std::vector<unsigned>{1, 10, 10, 10, 10, 10, 10}));
    EXPECT_EQ(log.count("WARNING", platform_file, "tlsc_epoll_mon_thread", "TLSC Client exited abnormally"), 6u);
    EXPECT_EQ(log.count("INFO", platform_file, "tlsc_epoll_mon_thread", "Retrying tlsc-start-client after sleep 10"),
              6u);
    end();
    EXPECT_EQ(runs, 7);
    EXPECT_EQ(most_alive, 1);
}

TEST_F(lifecycle, the_monitors_lines_tell_start_failure_pause_and_next_start_in_order) {
    tunnel_failures  = 1;
    hold_long_sleeps = true;
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
    const auto lines = [&] {
        strings found;
        for (const std::string &line : lines_from(platform_file))
            if (line.find("tlsc_start_epoll_mon_thread") == std::string::npos &&
                line.find("tlsc_stop_client") == std::string::npos)
                found.push_back(line);  // not one of the main thread's
        return found;
    };
    ASSERT_TRUE(eventually([] { return sleeps().size() == 2; }));
    const strings before_the_pause = {"INFO tlsc_epoll_mon_thread: In TLS Client epoll monitor thread",
                                      "INFO tlsc_start_client: Starting epoll thread",
                                      "INFO tlsc_start_client: Started the epoll thread, wait for thread to be up..",
                                      "WARNING tlsc_epoll_mon_thread: TLSC Client exited abnormally",
                                      "INFO tlsc_epoll_mon_thread: Retrying tlsc-start-client after sleep 10"};
    EXPECT_EQ(lines(), before_the_pause);
    hold_long_sleeps = false;
    ASSERT_TRUE(running(2));
    end();
    strings all = before_the_pause;
    all.insert(all.end(), {"INFO tlsc_start_client: Starting epoll thread",
                           "INFO tlsc_start_client: Started the epoll thread, wait for thread to be up.."});
    const strings found = lines();
    ASSERT_GT(found.size(), all.size());
    EXPECT_EQ(strings(found.begin(), found.begin() + static_cast<long>(all.size())), all);
    EXPECT_EQ(found.back(), "WARNING tlsc_epoll_mon_thread: epoll monitor thread exiting!!");
}

TEST_F(lifecycle, the_first_start_is_followed_by_a_pause_of_1_second_whether_the_tunnel_runs_or_not) {
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
    ASSERT_TRUE(running(1));
    EXPECT_TRUE(eventually([] { return sleeps() == std::vector<unsigned>{1}; }));
    EXPECT_EQ(alive, 1);
    end();
}

TEST_F(lifecycle, a_thread_that_cannot_be_created_counts_as_an_abnormal_end) {
    tunnel_creations_to_fail = 2;
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
    ASSERT_TRUE(running(1));
    EXPECT_EQ(sleeps(), (std::vector<unsigned>{1, 10, 10}));
    EXPECT_EQ(
        log.count("ERROR", platform_file, "tlsc_start_client", text_of("epollthread creation failed, ret:%d", ENOMEM)),
        2u);
    end();
}

TEST_F(lifecycle, a_monitor_that_cannot_be_created_is_reported_and_can_be_started_later) {
    monitor_creation_fails = true;
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 0);
    EXPECT_TRUE(log.has("ERROR", platform_file, "tlsc_start_epoll_mon_thread",
                        text_of("epoll monitor thread creation failed,ret:%d ", EAGAIN)));
    monitor_creation_fails = false;
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
    ASSERT_TRUE(running(1));
    end();
}

TEST_F(lifecycle, starting_clears_the_mark_of_the_last_orderly_end) {
    epoll_thread_exited = 1;
    tunnel_failures     = 1;
    hold_long_sleeps    = true;
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
    EXPECT_TRUE(eventually([&] { return log.contains("TLSC Client exited abnormally"); }));
    hold_long_sleeps = false;
    ASSERT_TRUE(running(2));
    end();
}

TEST_F(lifecycle, without_a_pipe_a_stop_is_printed_as_failed) {
    tlsc_close_cli_pipe();
    tlsc_log_level = -1;
    log.clear();
    EXPECT_EQ(tlsc_stop_client(), 0);
    EXPECT_EQ(log.text(), "Failed to post a msg to stop the TLS Client");
}

TEST_F(lifecycle, restart_client_only_sets_the_exit_flag) {
    tlsc_restart_client();
    EXPECT_EQ(exit_client, 1);
    EXPECT_EQ(lines_from(platform_file),
              (strings{"DEBUG tlsc_restart_client: Main function should kill the child thread\n"}));
    EXPECT_EQ(log.entries().front().severity, "DEBUG");
    EXPECT_EQ(runs, 0);
}

TEST_F(lifecycle, after_restart_client_tunnel_and_monitor_end_and_a_start_begins_anew) {
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
    ASSERT_TRUE(running(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    tlsc_restart_client();
    ASSERT_TRUE(eventually([&] { return ends_of_monitors() == 1; }));
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
    ASSERT_TRUE(running(2));
    end(2);
}

// ---- one of each thread ---------------------------------------------------------------------------------------------

TEST_F(lifecycle, a_second_start_creates_nothing) {
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
    ASSERT_TRUE(running(1));
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(log.count("INFO", platform_file, "tlsc_epoll_mon_thread", "In TLS Client epoll monitor thread"), 1u);
    EXPECT_EQ(starts_told(), 2u);
    end();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(runs, 1);
}

TEST_F(lifecycle, a_start_behind_a_stop_runs_the_client_once_more_and_never_two_at_a_time) {
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
    ASSERT_TRUE(running(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    for (int round = 2; round <= 10; ++round) {
        EXPECT_EQ(tlsc_stop_client(), 1);
        EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
        ASSERT_TRUE(running(round)) << round;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(most_alive, 1);
    end();
    EXPECT_EQ(runs, 10);
}

TEST_F(lifecycle, a_start_while_the_old_client_ends_gives_no_second_order_and_the_monitor_goes_on_in_its_loop) {
    hold_connecting = true;
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
    ASSERT_TRUE(running(1));
    ASSERT_TRUE(eventually([&] { return log.contains("Total number of stale commands"); }));
    log.clear();
    EXPECT_EQ(tlsc_stop_client(), 1);
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
    hold_connecting = false;
    ASSERT_TRUE(running(2));
    ASSERT_TRUE(eventually([&] { return log.contains("Total number of stale commands"); }));
    EXPECT_TRUE(log.contains("Total number of stale commands cleared from CLI pipe:0"));
    EXPECT_EQ(log.count("INFO", engine_file, "tlsc_handle_cli_cmds",
                        "Exit cmd rcvd for child thread, set exit_client flag to true"),
              1u);
    EXPECT_EQ(starts_told(), 2u);
    EXPECT_EQ(ends_of_monitors(), 0u);
    EXPECT_FALSE(log.contains("In TLS Client epoll monitor thread"));
    EXPECT_FALSE(log.contains("exited abnormally"));
    end();
}

TEST_F(lifecycle, a_full_command_pipe_keeps_up_neither_a_start_nor_the_monitor) {
    hold_connecting = true;
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
    ASSERT_TRUE(running(1));
    ASSERT_TRUE(eventually([&] { return log.contains("Total number of stale commands"); }));
    tlsc_log_level = LOG_INFO;
    for (pollfd ready{cli_pipe_wr_fd, POLLOUT, 0}; poll(&ready, 1, 0) == 1;)
        ASSERT_EQ(tlsc_send_log_lvl_chg_req(LOG_INFO), 1);
    std::thread stop([] { EXPECT_EQ(tlsc_stop_client(), 1); });
    ASSERT_TRUE(eventually([&] { return log.contains("Posting message to stop TLS Client..."); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
    hold_connecting = false;
    stop.join();
    ASSERT_TRUE(running(2));
    end();
}

TEST_F(lifecycle, a_start_during_the_monitors_pause_leaves_the_monitor_in_its_loop) {
    tunnel_failures  = 1;
    hold_long_sleeps = true;
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
    ASSERT_TRUE(eventually([] { return sleeps().size() == 2; }));
    log.clear();
    EXPECT_EQ(tlsc_stop_client(), 1);
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
    hold_long_sleeps = false;
    ASSERT_TRUE(running(2));
    EXPECT_EQ(ends_of_monitors(), 0u);
    EXPECT_FALSE(log.contains("In TLS Client epoll monitor thread"));
    EXPECT_EQ(sleeps(), (std::vector<unsigned>{1, 10}));
    end();
}

TEST_F(lifecycle, behind_a_clean_up_a_client_starts_and_stops_and_is_cleaned_up_again_and_again) {
    EXPECT_EQ(in_child([&] {
                  for (int round = 1; round <= 3; ++round) {
                      EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
                      EXPECT_TRUE(running(round));
                      tlsc_cleanup_context();
                      turn.unlock();
                      tlsc_cleanup_context();
                      turn.unlock();
                      EXPECT_EQ(alive, 0);
                      EXPECT_EQ(tlsc_create_pipe_for_cli_cmds(), 1);
                  }
                  return 0;
              }),
              0);
}

TEST_F(lifecycle, a_restart_while_the_tunnel_connects_ends_that_run_and_begins_another) {
    hold_connecting = true;
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
    ASSERT_TRUE(running(1));
    ASSERT_TRUE(eventually([&] { return log.contains("Total number of stale commands"); }));
    EXPECT_EQ(tlsc_stop_client(), 1);
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(runs, 1);  // the connection attempt is not cut short
    hold_connecting = false;
    ASSERT_TRUE(running(2));
    EXPECT_EQ(most_alive, 1);
    end();
}

TEST_F(lifecycle, a_restart_before_the_tunnel_drains_its_pipe_is_not_lost) {
    hold_before_drain = true;
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
    ASSERT_TRUE(eventually([] { return runs == 1; }));
    EXPECT_EQ(tlsc_stop_client(), 1);
    hold_before_drain = false;
    ASSERT_TRUE(
        eventually([&] { return log.contains("Clear CLI commands: message id read:1"); }));  // the order is dropped
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
    ASSERT_TRUE(running(2));
    end();
}

TEST_F(lifecycle, a_restart_that_meets_a_run_before_it_has_begun_needs_no_other) {
    hold_before_drain = true;
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
    ASSERT_TRUE(eventually([] { return runs == 1; }));
    EXPECT_EQ(tlsc_stop_client(), 1);
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
    hold_before_drain = false;
    ASSERT_TRUE(running(1));
    EXPECT_TRUE(log.contains("Total number of stale commands cleared from CLI pipe:1"));
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);  // it runs: there is nothing to do
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(runs, 1);
    tlsc_restart_client();
    ASSERT_TRUE(eventually([&] { return ends_of_monitors() == 1; }));  // and no run is wanted behind it
    EXPECT_EQ(runs, 1);
}

TEST_F(lifecycle, a_stop_behind_a_restart_leaves_no_client) {
    hold_connecting = true;
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
    ASSERT_TRUE(running(1));
    ASSERT_TRUE(eventually([&] { return log.contains("Total number of stale commands"); }));
    EXPECT_EQ(tlsc_stop_client(), 1);
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
    EXPECT_EQ(tlsc_stop_client(), 1);
    hold_connecting = false;
    ASSERT_TRUE(eventually([&] { return ends_of_monitors() == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(alive, 0);
}

TEST_F(lifecycle, a_stop_during_the_monitors_pause_does_not_stop_the_restart) {
    tunnel_failures  = 1;
    hold_long_sleeps = true;
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
    ASSERT_TRUE(eventually([] { return sleeps().size() == 2; }));
    EXPECT_EQ(tlsc_stop_client(), 1);
    hold_long_sleeps = false;
    ASSERT_TRUE(running(2));
    ASSERT_TRUE(eventually([&] { return log.contains("Clear CLI commands: message id read:1"); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(alive, 1);
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);  // changes nothing: it runs
    tlsc_restart_client();
    ASSERT_TRUE(eventually([&] { return ends_of_monitors() == 1; }));
    EXPECT_EQ(runs, 2);
}

TEST_F(lifecycle, a_restart_during_the_monitors_pause_runs_the_client_once) {
    tunnel_failures  = 1;
    hold_long_sleeps = true;
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
    ASSERT_TRUE(eventually([] { return sleeps().size() == 2; }));
    EXPECT_EQ(tlsc_stop_client(), 1);
    EXPECT_EQ(tlsc_start_epoll_mon_thread(), 1);
    hold_long_sleeps = false;
    ASSERT_TRUE(running(2));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(runs, 2);
    EXPECT_EQ(most_alive, 1);
    end();
}

}  // namespace
