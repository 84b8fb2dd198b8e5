// The one teardown: its steps, their order, and what a second teardown, a rekey's old transport and a missing epoll
// instance change. Sockets, TLS handles and timers are real; the interface is stood in for.

#include <algorithm>

#include <sys/timerfd.h>

#include "openssl_names.h"

#include "tunnel_fixture.h"

// ---- stand-ins ------------------------------------------------------------------------------------------------------

namespace {

std::vector<std::string> steps;     // what the code under test did, in order
int                      reuse_fd;  // a number that somebody else takes while the interface goes down; 0 for none
int                      taken_fd;  // the number as it was taken

}  // namespace

extern "C" int32_t __wrap_tlsc_chg_tun_state(tlsc_session *session, int32_t state) {
    steps.push_back(text_of("interface %d", state));
    session->tun_state = state;
    if (reuse_fd > 0) taken_fd = dup2(STDERR_FILENO, reuse_fd);
    return 1;
}

extern "C" int __real_close(int fd);
extern "C" int __wrap_close(int fd) {
    steps.push_back(text_of("close %d", fd));
    return __real_close(fd);
}

extern "C" int __real_epoll_ctl(int epoll_fd, int operation, int fd, epoll_event *event);
extern "C" int __wrap_epoll_ctl(int epoll_fd, int operation, int fd, epoll_event *event) {
    steps.push_back(text_of("%s %d", operation == EPOLL_CTL_ADD ? "watch" : "forget", fd));
    return __real_epoll_ctl(epoll_fd, operation, fd, event);
}

namespace {

using strings = std::vector<std::string>;

class engine_teardown : public tunnel_test {
protected:
    engine_teardown() {
        ctx_     = SSL_CTX_new(TLS_client_method());
        reuse_fd = 0;
        taken_fd = -1;
        attach_session();
        open_epoll();
    }
    ~engine_teardown() override {
        SSL_free(sock->ssl);
        SSL_CTX_free(ctx_);
        for (int fd : open_) __real_close(fd);
        if (taken_fd > 0) __real_close(taken_fd);
    }

    int make_socket() {
        int pair[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
        open_.push_back(pair[1]);
        return pair[0];
    }
    // A watched transport with its TLS handle.
    void connect() {
        sock->sockfd = sock->ssl_fd = make_socket();
        sock->ssl                   = SSL_new(ctx_);
        sock->ssl_up                = 1;
        SSL_set_fd(sock->ssl, sock->sockfd);
        ASSERT_EQ(tlsc_add_fd_to_epoll(tlsc_epoll_fd, sock->sockfd), 1);
    }
    void save_as_old() {
        tlsc_old_transport.fd  = sock->sockfd;
        tlsc_old_transport.ssl = sock->ssl;
    }
    void tear_down(int32_t cause = TLSC_DOWN_SOCKET_ERROR) {
        steps.clear();
        log.clear();
        EXPECT_EQ(tlsc_sock_error(cause), 1);
    }
    static long seconds_left(int32_t fd) {
        itimerspec setting{};
        return timerfd_gettime(fd, &setting) == 0 ? setting.it_value.tv_sec + (setting.it_value.tv_nsec > 0) : -1;
    }

    SSL_CTX         *ctx_;
    std::vector<int> open_;
};

TEST_F(engine_teardown, closes_the_transport_lowers_the_interface_stops_the_timers_and_starts_the_backoff) {
    connect();
    const int fd          = sock->sockfd;
    session.tun_state     = 1;
    sock->svr_port        = 443;
    tlsc_retry_ref        = 2;
    conf->inner_addr.kind = ADDR_IPV4;
    memcpy(conf->cookie, "cookie", 7);
    ASSERT_EQ(tlsc_start_timer(&tlsc_timers.retry, 0), 1);
    ASSERT_EQ(tlsc_start_timer(&tlsc_timers.dpd, 1), 1);
    const int retry = tlsc_timers.retry;
    const int dpd   = tlsc_timers.dpd;
    tear_down();
    EXPECT_EQ(steps, (strings{text_of("forget %d", fd), text_of("close %d", fd), "interface 0",
                              text_of("forget %d", retry), text_of("close %d", retry), text_of("forget %d", dpd),
                              text_of("close %d", dpd), text_of("watch %d", tlsc_timers.backoff)}));
    EXPECT_EQ(log.messages(),
              (strings{"Closing connection and bringing down tun interface", "Disable data transfer, new state 0",
                       text_of("Successfully deleted fd = %d, to epoll-event", fd), "SSL-handle and Engine cleanup",
                       text_of("Successfully deleted fd = %d, to epoll-event", retry),
                       text_of("Successfully deleted fd = %d, to epoll-event", dpd),
                       text_of("Created timer with fd = %d", tlsc_timers.backoff), "Started Backoff Timer for 10 sec",
                       text_of("Successfully added fd = %d, to epoll-event", tlsc_timers.backoff)}));
    EXPECT_EQ(log.entries()[0].severity, "ERROR");
    EXPECT_EQ(log.entries()[1].severity, "DEBUG");
    EXPECT_EQ(sock->sockfd, -1);
    EXPECT_EQ(sock->ssl_fd, -1);
    EXPECT_EQ(sock->ssl_up, 0);
    EXPECT_EQ(sock->ssl, nullptr);
    EXPECT_EQ(tlsc_dp_state, 0);
    EXPECT_EQ(seconds_left(tlsc_timers.backoff), 10);
    // What stays: the session, the inner address, the retry counter, all of the cookie but its first byte.
    EXPECT_EQ(sock->sess, &session);
    EXPECT_EQ(sock->svr_port, 443);
    EXPECT_EQ(tlsc_retry_ref, 2);
    EXPECT_EQ(conf->inner_addr.kind, ADDR_IPV4);
    EXPECT_EQ(std::string(conf->cookie, 7), std::string("\0ookie\0", 7));
    expect_counters({});
}

TEST_F(engine_teardown, every_cause_takes_the_same_path_and_leaves_no_trace) {
    std::vector<strings> seen;
    for (int32_t cause : {0, 3, 4, 5, 6, 7, 9, 10, 11, 12, 13, -1}) {
        connect();
        session.tun_state     = 1;
        tlsc_backoff_interval = 0;
        tear_down(cause);
        strings messages;
        for (const log_line &line : log.entries()) messages.push_back(line.severity + " " + line.function);
        seen.push_back(messages);
        tlsc_stop_all_timers();
    }
    for (const strings &messages : seen) EXPECT_EQ(messages, seen.front());
}

TEST_F(engine_teardown, an_interface_that_is_down_is_left_alone) {
    connect();
    tear_down();
    EXPECT_EQ(std::count(steps.begin(), steps.end(), "interface 0"), 0);
}

TEST_F(engine_teardown, a_teardown_without_a_session_is_harmless) {
    connect();
    sock->sess = nullptr;
    tear_down();
    EXPECT_EQ(sock->sockfd, -1);
    EXPECT_GT(tlsc_timers.backoff, 0);
}

TEST_F(engine_teardown, a_second_teardown_closes_nothing_and_restarts_the_backoff_timer) {
    connect();
    tear_down();
    const int backoff = tlsc_timers.backoff;
    tear_down();
    EXPECT_TRUE(log.has("WARNING", engine_file, "tlsc_ssl_cleanup", "SSL-handle is NULL"));
    EXPECT_EQ(steps, (strings{text_of("forget %d", backoff), text_of("close %d", backoff),
                              text_of("watch %d", tlsc_timers.backoff)}));
    EXPECT_TRUE(tlsc_backoff_interval == 10 || tlsc_backoff_interval == 11);
    EXPECT_TRUE(log.contains(text_of("Started Backoff Timer for %u sec", tlsc_backoff_interval)));
}

TEST_F(engine_teardown, the_backoff_grows_over_teardowns) {
    tlsc_backoff_interval = 3000;
    for (int i = 0; i < 30; ++i) tear_down();
    EXPECT_EQ(tlsc_backoff_interval, 3600u);
}

TEST_F(engine_teardown, the_backoff_timer_fires_once) {
    tear_down();
    itimerspec setting{};
    ASSERT_EQ(timerfd_gettime(tlsc_timers.backoff, &setting), 0);
    EXPECT_GT(setting.it_value.tv_sec, 0);
    EXPECT_EQ(setting.it_interval.tv_sec, 0);
    EXPECT_EQ(setting.it_interval.tv_nsec, 0);
}

TEST_F(engine_teardown, descriptor_0_counts_as_no_transport) {
    sock->sockfd = 0;
    tear_down();
    EXPECT_EQ(sock->sockfd, 0);
    EXPECT_EQ(steps, (strings{text_of("watch %d", tlsc_timers.backoff)}));
}

TEST_F(engine_teardown, without_an_epoll_instance_neither_epoll_nor_the_backoff_timer_is_touched) {
    const int epoll_fd = tlsc_epoll_fd;
    for (int none : {0, -1}) {
        connect();
        save_as_old();
        const int old = sock->sockfd;
        connect();
        const int current = sock->sockfd;
        tlsc_epoll_fd     = none;
        tear_down();
        tlsc_epoll_fd = epoll_fd;
        EXPECT_EQ(steps, (strings{text_of("close %d", old), text_of("close %d", current)}));
        EXPECT_EQ(tlsc_timers.backoff, -1);
        EXPECT_EQ(tlsc_backoff_interval, 0u);
        EXPECT_EQ(sock->sockfd, -1);
        EXPECT_EQ(tlsc_dp_state, 0);
    }
}

TEST_F(engine_teardown, a_failed_removal_is_logged_and_the_descriptor_closed_all_the_same) {
    connect();
    const int fd = sock->sockfd;
    ASSERT_EQ(__real_epoll_ctl(tlsc_epoll_fd, EPOLL_CTL_DEL, fd, nullptr), 0);
    tear_down();
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_sock_error",
                        text_of("Could not delete the transport-fd(%d) from epoll-list", fd)));
    EXPECT_EQ(std::count(steps.begin(), steps.end(), text_of("close %d", fd)), 1);
}

TEST_F(engine_teardown, the_old_transport_of_a_rekey_is_closed_first) {
    connect();
    save_as_old();
    const int old = sock->sockfd;
    connect();
    const int current = sock->sockfd;
    tear_down();
    EXPECT_EQ(steps, (strings{text_of("forget %d", old), text_of("close %d", old), text_of("forget %d", current),
                              text_of("close %d", current), text_of("watch %d", tlsc_timers.backoff)}));
    EXPECT_TRUE(log.has("INFO", engine_file, "tlsc_sock_error", text_of("Closing the old transport-fd(%d)", old)));
    EXPECT_EQ(log.count("INFO", engine_file, "tlsc_ssl_cleanup", "SSL-handle and Engine cleanup"), 2u);
    EXPECT_EQ(tlsc_old_transport.fd, -1);
    EXPECT_EQ(tlsc_old_transport.ssl, nullptr);
}

TEST_F(engine_teardown, an_old_transport_that_epoll_has_forgotten_is_logged_and_closed) {
    connect();
    save_as_old();
    const int old = sock->sockfd;
    ASSERT_EQ(__real_epoll_ctl(tlsc_epoll_fd, EPOLL_CTL_DEL, old, nullptr), 0);
    connect();
    tear_down();
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_sock_error",
                        text_of("Could not delete the old-transport-fd(%d) from epoll-list", old)));
    EXPECT_EQ(std::count(steps.begin(), steps.end(), text_of("close %d", old)), 1);
}

TEST_F(engine_teardown, an_old_transport_equal_to_the_current_one_is_not_closed_twice_and_leaves_no_stale_number) {
    connect();
    save_as_old();
    const int fd = sock->sockfd;
    sock->ssl    = SSL_new(ctx_);  // the new handle, whose connect failed
    tear_down();
    EXPECT_EQ(std::count(steps.begin(), steps.end(), text_of("close %d", fd)), 1);
    EXPECT_FALSE(log.contains("Closing the old transport-fd"));
    EXPECT_EQ(tlsc_old_transport.fd, -1);
    EXPECT_EQ(tlsc_old_transport.ssl, nullptr);
    EXPECT_EQ(sock->ssl, nullptr);
    EXPECT_EQ(log.count("INFO", engine_file, "tlsc_ssl_cleanup", "SSL-handle and Engine cleanup"), 2u);
}

TEST_F(engine_teardown, a_number_that_another_thread_has_taken_meanwhile_is_not_closed_a_second_time) {
    connect();
    session.tun_state = 1;
    reuse_fd          = sock->sockfd;
    tear_down();
    EXPECT_EQ(taken_fd, reuse_fd);
    EXPECT_TRUE(is_open(taken_fd));
    EXPECT_EQ(std::count(steps.begin(), steps.end(), text_of("close %d", reuse_fd)), 1);
}

}  // namespace
