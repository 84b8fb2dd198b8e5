// What happens when a timer expires: dead-peer detection with its retries, and the rekey procedure. The TLS layer, the
// connection attempt, the teardown and the question to the controller are stood in for.

#include <sys/timerfd.h>

#include "tunnel_fixture.h"

// ---- stand-ins ------------------------------------------------------------------------------------------------------

namespace {

std::string          written;  // on the TLS session
int32_t              tls_result = 1;
std::vector<int32_t> teardowns;  // causes
bool                 resolution_asked;
int32_t              resolution_result;
int                  dp_state_at_query;  // the data-path state when the controller was asked
int                  connections;        // attempts
int32_t              connection_result;  // of the next attempts
int                  next_socket = -1;   // the socket that the next attempt leaves in the context
bool                 timers_fail;
bool                 epoll_add_fails;
int32_t              timers_at_connect;  // sum of the slots at the attempt: -6 when all are stopped

}  // namespace

extern "C" int32_t __wrap_tlsc_ssl_write(tlsc_sock *, const void *buff, int32_t length, int32_t *result) {
    if (result) *result = tls_result;
    if (tls_result != 1) return 0;
    written.append(static_cast<const char *>(buff), static_cast<size_t>(length));
    return length;
}

extern "C" int32_t __wrap_tlsc_sock_error(int32_t cause) {
    teardowns.push_back(cause);
    return 1;
}

extern "C" int32_t __wrap_tlsc_request_gw_name_resolution() {
    resolution_asked  = true;
    dp_state_at_query = tlsc_dp_state;
    return resolution_result;
}

extern "C" int32_t __wrap_tlsc_create_tcp_conn() {
    ++connections;
    timers_at_connect = tlsc_timers.dpd + tlsc_timers.retry + tlsc_timers.rekey + tlsc_timers.fqdn + tlsc_timers.guard +
                        tlsc_timers.backoff;
    if (connection_result == 1) tlsc_get_sock()->sockfd = tlsc_get_sock()->ssl_fd = next_socket;
    if (connection_result == 7) {  // its teardown has closed both transports
        tlsc_get_sock()->sockfd = tlsc_get_sock()->ssl_fd = -1;
        tlsc_old_transport.fd                             = -1;
    }
    return connection_result;
}

extern "C" int __real_timerfd_create(int clock, int flags);
extern "C" int __wrap_timerfd_create(int clock, int flags) {
    return timers_fail ? -1 : __real_timerfd_create(clock, flags);
}

extern "C" int __real_epoll_ctl(int epoll_fd, int operation, int fd, epoll_event *event);
extern "C" int __wrap_epoll_ctl(int epoll_fd, int operation, int fd, epoll_event *event) {
    if (operation == EPOLL_CTL_ADD && epoll_add_fails) return -1;
    return __real_epoll_ctl(epoll_fd, operation, fd, event);
}

namespace {

using strings = std::vector<std::string>;
using causes  = std::vector<int32_t>;

const std::string dpd_request("STF\x01\x00\x00\x03\x00", 8);

class timer_expiry : public tunnel_test {
protected:
    timer_expiry() {
        written.clear();
        tls_result = 1;
        teardowns.clear();
        resolution_asked  = false;
        resolution_result = 0;
        connections       = 0;
        connection_result = 0;
        timers_fail       = false;
        epoll_add_fails   = false;
        open_epoll();
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, old_pair), 0);
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, new_pair), 0);
        next_socket = new_pair[0];
    }
    ~timer_expiry() override {
        for (int fd : {old_pair[0], old_pair[1], new_pair[0], new_pair[1]}) close(fd);
    }

    // A connection that stands and is registered, with the DPD timer running.
    void connect_first() {
        sock->sockfd = sock->ssl_fd = old_pair[0];
        sock->ssl                   = reinterpret_cast<ssl_st *>(this);  // only carried around here
        ASSERT_EQ(tlsc_add_fd_to_epoll(tlsc_epoll_fd, old_pair[0]), 1);
        ASSERT_EQ(tlsc_start_timer(&tlsc_timers.dpd, 1), 1);
        log.clear();
    }
    static bool is_registered(int32_t fd) {
        epoll_event event{};
        event.data.fd = fd;
        event.events  = EPOLLIN | EPOLLRDHUP;
        return __real_epoll_ctl(tlsc_epoll_fd, EPOLL_CTL_MOD, fd, &event) == 0;
    }

    int old_pair[2];
    int new_pair[2];
};

// ---- DPD ------------------------------------------------------------------------------------------------------------

TEST_F(timer_expiry, dpd_expiry_sends_a_request_starts_the_retry_timer_and_closes_the_dpd_timer) {
    connect_first();
    const int32_t dpd = tlsc_timers.dpd;
    tlsc_handle_dpd_expiry(sock);
    EXPECT_EQ(written, dpd_request);
    EXPECT_EQ(tlsc_timers.dpd, -1);
    EXPECT_FALSE(is_open(dpd));
    ASSERT_GT(tlsc_timers.retry, 0);
    itimerspec setting{};
    ASSERT_EQ(timerfd_gettime(tlsc_timers.retry, &setting), 0);
    EXPECT_EQ(setting.it_interval.tv_sec, 20);
    EXPECT_TRUE(log.has("DEBUG", timer_file, "tlsc_handle_dpd_expiry", "DPD timer expiry event"));
    EXPECT_LT(position("DPD timer expiry event"), position("Sending DPD Request [Req Retry Ref #0]"));
    EXPECT_LT(position("Sending DPD Request [Req Retry Ref #0]"), position("Started Retry Timer for 20 sec"));
    EXPECT_LT(position("Started Retry Timer for 20 sec"),
              position(text_of("Successfully deleted fd = %d, to epoll-event", dpd)));
    EXPECT_NE(tlsc_timers.retry, dpd);
    expect_counters({{"dpd_req_tx", 1}, {"ctrl_pkt_tx", 1}});
}

TEST_F(timer_expiry, dpd_expiry_goes_on_when_the_request_cannot_be_sent) {
    connect_first();
    tls_result = 0;
    tlsc_handle_dpd_expiry(sock);
    EXPECT_GT(tlsc_timers.retry, 0);
    EXPECT_EQ(tlsc_timers.dpd, -1);
    EXPECT_TRUE(teardowns.empty());
}

TEST_F(timer_expiry, dpd_expiry_goes_on_when_the_retry_timer_cannot_start) {
    connect_first();
    timers_fail = true;
    tlsc_handle_dpd_expiry(sock);
    EXPECT_EQ(tlsc_timers.retry, -1);
    EXPECT_EQ(tlsc_timers.dpd, -1);
    EXPECT_TRUE(log.has("ERROR", timer_file, "tlsc_handle_dpd_expiry",
                        text_of("Could not start Retry timer for client-sock-fd = %d", old_pair[0])));
    EXPECT_TRUE(teardowns.empty());
}

TEST_F(timer_expiry, dpd_expiry_closes_a_timer_that_epoll_does_not_know) {
    connect_first();
    const int32_t dpd = tlsc_timers.dpd;
    ASSERT_EQ(epoll_ctl(tlsc_epoll_fd, EPOLL_CTL_DEL, dpd, nullptr), 0);
    tlsc_handle_dpd_expiry(sock);
    EXPECT_TRUE(log.has("ERROR", timer_file, "tlsc_handle_dpd_expiry",
                        text_of("Could not delete the dpd-timer-fd(%d) from epoll", dpd)));
    EXPECT_EQ(tlsc_timers.dpd, -1);
    EXPECT_FALSE(is_open(dpd));
}

// ---- retries --------------------------------------------------------------------------------------------------------

TEST_F(timer_expiry, four_requests_go_out_before_the_fourth_retry_expiry_gives_up_with_cause_11) {
    connect_first();
    tlsc_handle_dpd_expiry(sock);
    for (int retry = 1; retry <= 3; ++retry) {
        tlsc_handle_retry_expiry(sock);
        EXPECT_EQ(tlsc_retry_ref, retry);
        EXPECT_GT(tlsc_timers.retry, 0);
        EXPECT_TRUE(log.contains(text_of("Sending DPD Request [Req Retry Ref #%d]", retry)));
        EXPECT_TRUE(teardowns.empty());
    }
    EXPECT_EQ(written, dpd_request + dpd_request + dpd_request + dpd_request);
    const int32_t retry_timer = tlsc_timers.retry;
    tlsc_handle_retry_expiry(sock);
    EXPECT_EQ(written.size(), 4 * dpd_request.size());
    EXPECT_EQ(teardowns, (causes{11}));
    EXPECT_EQ(tlsc_retry_ref, 0);
    EXPECT_EQ(tlsc_timers.retry, -1);
    EXPECT_FALSE(is_open(retry_timer));
    EXPECT_EQ(log.count("DEBUG", timer_file, "tlsc_handle_retry_expiry", "Retry timer expiry event"), 4u);
    EXPECT_TRUE(
        log.has("ERROR", timer_file, "tlsc_handle_retry_expiry",
                "Retry count exceeded, no response received from Server. Close connection and start back-off timer"));
    expect_counters({{"dpd_req_tx", 4}, {"ctrl_pkt_tx", 4}});
}

TEST_F(timer_expiry, a_reset_counter_allows_four_requests_again) {
    connect_first();
    tlsc_handle_dpd_expiry(sock);
    tlsc_handle_retry_expiry(sock);
    tlsc_handle_retry_expiry(sock);
    tlsc_retry_ref = 0;  // what a DPD response does
    for (int retry = 1; retry <= 3; ++retry) tlsc_handle_retry_expiry(sock);
    EXPECT_TRUE(teardowns.empty());
    tlsc_handle_retry_expiry(sock);
    EXPECT_EQ(teardowns, (causes{11}));
}

TEST_F(timer_expiry, a_retry_that_cannot_be_sent_counts_as_one_that_was_lost) {
    connect_first();
    tls_result = 0;
    for (int retry = 1; retry <= 3; ++retry) tlsc_handle_retry_expiry(sock);
    EXPECT_TRUE(teardowns.empty());
    EXPECT_EQ(tlsc_retry_ref, 3);
    expect_counters({});
}

// ---- rekey expiry ---------------------------------------------------------------------------------------------------

TEST_F(timer_expiry, rekey_expiry_stops_the_data_path_and_waits_for_the_controllers_answer) {
    connect_first();
    resolution_result = 1;
    tlsc_handle_rekey_expiry(sock);
    EXPECT_EQ(tlsc_dp_state, 0);
    EXPECT_TRUE(resolution_asked);
    EXPECT_EQ(dp_state_at_query, 0);
    EXPECT_EQ(connections, 0);
    ASSERT_GT(tlsc_timers.fqdn, 0);
    itimerspec setting{};
    ASSERT_EQ(timerfd_gettime(tlsc_timers.fqdn, &setting), 0);
    EXPECT_GE(setting.it_value.tv_sec, 29);
    EXPECT_EQ(setting.it_interval.tv_sec, 0);
    EXPECT_GT(tlsc_timers.dpd, 0);  // the old connection still serves
    EXPECT_TRUE(is_registered(old_pair[0]));
    EXPECT_TRUE(log.has("DEBUG", timer_file, "tlsc_handle_rekey_expiry", "Rekey timer expiry event received"));
    EXPECT_TRUE(log.has("DEBUG", timer_file, "tlsc_handle_rekey_expiry",
                        "Disable data transfer till rekey completes, new state 0"));
}

TEST_F(timer_expiry, a_question_that_cannot_be_sent_falls_back_to_the_previous_address_at_once) {
    connect_first();
    connection_result = 1;
    tlsc_handle_rekey_expiry(sock);
    EXPECT_EQ(connections, 1);
    EXPECT_EQ(tlsc_timers.fqdn, -1);
    EXPECT_TRUE(log.has("ERROR", timer_file, "tlsc_handle_rekey_expiry",
                        "FQDN Resoln failed, try rekeying with previous GW IP"));
}

TEST_F(timer_expiry, a_resolution_timer_that_cannot_start_falls_back_at_once_too) {
    connect_first();
    resolution_result = 1;
    connection_result = 1;
    timers_fail       = true;
    tlsc_handle_rekey_expiry(sock);
    EXPECT_EQ(connections, 1);
    EXPECT_TRUE(log.contains("FQDN Resoln failed, try rekeying with previous GW IP"));
}

TEST_F(timer_expiry, the_expiry_itself_neither_counts_an_attempt_nor_sets_the_rekey_flag) {
    tlsc_handle_rekey_expiry(sock);  // as after a backoff
    EXPECT_EQ(tlsc_rekey_in_progress, 0);
    expect_counters({});
}

// ---- the new transport ----------------------------------------------------------------------------------------------

TEST_F(timer_expiry, a_rekey_stops_all_timers_and_keeps_the_old_transport_open_but_unwatched) {
    connect_first();
    ASSERT_EQ(tlsc_start_timer(&tlsc_timers.retry, 0), 1);
    ASSERT_EQ(tlsc_start_timer(&tlsc_timers.rekey, 0), 1);
    ASSERT_EQ(tlsc_start_timer(&tlsc_timers.fqdn, 1), 1);
    connection_result = 1;
    ssl_st *const old = sock->ssl;
    EXPECT_EQ(tlsc_start_rekey_proc(sock), 1);
    EXPECT_EQ(timers_at_connect, -6);
    EXPECT_EQ(tlsc_old_transport.fd, old_pair[0]);
    EXPECT_EQ(tlsc_old_transport.ssl, old);
    EXPECT_TRUE(is_open(old_pair[0]));
    EXPECT_FALSE(is_registered(old_pair[0]));
    EXPECT_EQ(sock->sockfd, new_pair[0]);
    EXPECT_TRUE(is_registered(new_pair[0]));
    EXPECT_TRUE(log.has("INFO", timer_file, "tlsc_start_rekey_proc", "Establish new TCP connection"));
    EXPECT_TRUE(log.has("INFO", timer_file, "tlsc_start_rekey_proc",
                        text_of("TCP connection established after rekey timeout, client-sock-fd = %d", new_pair[0])));
    tlsc_old_transport.fd  = -1;
    tlsc_old_transport.ssl = nullptr;
}

TEST_F(timer_expiry, a_reconnection_without_a_transport_saves_none) {
    connection_result = 1;
    for (int none : {0, -1}) {
        sock->sockfd = none;
        EXPECT_EQ(tlsc_start_rekey_proc(sock), 1);
        EXPECT_EQ(tlsc_old_transport.fd, -1);
        ASSERT_EQ(epoll_ctl(tlsc_epoll_fd, EPOLL_CTL_DEL, new_pair[0], nullptr), 0);
    }
    EXPECT_FALSE(log.contains("old-transport-fd"));
}

TEST_F(timer_expiry, a_failed_connection_returns_0_before_the_old_transport_is_touched) {
    connect_first();
    EXPECT_EQ(tlsc_start_rekey_proc(sock), 0);
    EXPECT_TRUE(log.has("ERROR", timer_file, "tlsc_start_rekey_proc", "TCP connection failed!!!"));
    EXPECT_TRUE(is_registered(old_pair[0]));
    tlsc_old_transport.fd  = -1;
    tlsc_old_transport.ssl = nullptr;
}

TEST_F(timer_expiry, a_second_attempt_behind_a_failed_one_keeps_the_same_old_transport) {
    connect_first();
    sock->ssl = nullptr;
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_EQ(tlsc_start_rekey_proc(sock), 0);
        EXPECT_EQ(tlsc_old_transport.fd, old_pair[0]);
        EXPECT_TRUE(is_open(old_pair[0]));
        EXPECT_TRUE(is_registered(old_pair[0]));
    }
    EXPECT_FALSE(log.contains("SSL-handle"));
    tlsc_old_transport.fd = -1;
}

TEST_F(timer_expiry, a_connection_whose_request_failed_leaves_no_socket_to_register) {
    connection_result = 1;
    for (int none : {0, -1}) {
        next_socket = none;
        EXPECT_EQ(tlsc_start_rekey_proc(sock), 1);
    }
    EXPECT_EQ(lines_from(timer_file), (strings{"INFO tlsc_start_rekey_proc: Establish new TCP connection",
                                               "INFO tlsc_start_rekey_proc: Establish new TCP connection"}));
    EXPECT_EQ(lines_from(engine_file), strings{});
}

TEST_F(timer_expiry, a_failed_handshake_is_passed_on_as_7) {
    connect_first();
    connection_result = 7;
    EXPECT_EQ(tlsc_start_rekey_proc(sock), 7);
    EXPECT_FALSE(log.contains("TCP connection established"));
    EXPECT_FALSE(log.contains("TCP connection failed!!!"));
    tlsc_old_transport.ssl = nullptr;
}

TEST_F(timer_expiry, a_new_socket_that_cannot_be_registered_is_reported_and_kept) {
    connect_first();
    connection_result = 1;
    epoll_add_fails   = true;
    EXPECT_EQ(tlsc_start_rekey_proc(sock), 1);
    EXPECT_TRUE(log.has("ERROR", timer_file, "tlsc_start_rekey_proc",
                        text_of("Could not add the new client-sock-fd(%d) to epoll(%d) after rekey timeout",
                                new_pair[0], tlsc_epoll_fd)));
    EXPECT_TRUE(log.contains("TCP connection established after rekey timeout"));
    tlsc_old_transport.fd  = -1;
    tlsc_old_transport.ssl = nullptr;
}

TEST_F(timer_expiry, an_old_transport_that_epoll_does_not_know_is_reported) {
    connect_first();
    ASSERT_EQ(epoll_ctl(tlsc_epoll_fd, EPOLL_CTL_DEL, old_pair[0], nullptr), 0);
    connection_result = 1;
    EXPECT_EQ(tlsc_start_rekey_proc(sock), 1);
    EXPECT_TRUE(log.has("ERROR", timer_file, "tlsc_start_rekey_proc",
                        text_of("Could not delete the old-transport-fd(%d) from epoll-list", old_pair[0])));
    tlsc_old_transport.fd  = -1;
    tlsc_old_transport.ssl = nullptr;
}

TEST_F(timer_expiry, an_old_transport_of_an_earlier_attempt_makes_way_and_is_not_leaked) {
    connect_first();
    sock->ssl         = nullptr;
    connection_result = 1;
    EXPECT_EQ(tlsc_start_rekey_proc(sock), 1);
    next_socket = dup(new_pair[1]);  // a second answer before the response
    EXPECT_EQ(tlsc_start_rekey_proc(sock), 1);
    EXPECT_FALSE(is_open(old_pair[0]));
    EXPECT_EQ(tlsc_old_transport.fd, new_pair[0]);
    EXPECT_TRUE(is_open(new_pair[0]));
    close(next_socket);
    old_pair[0] = -1;
}

TEST_F(timer_expiry, null_contexts_are_refused) {
    tlsc_handle_dpd_expiry(nullptr);
    tlsc_handle_retry_expiry(nullptr);
    tlsc_handle_rekey_expiry(nullptr);
    EXPECT_EQ(tlsc_start_rekey_proc(nullptr), 0);
    EXPECT_EQ(connections, 0);
    EXPECT_EQ(tlsc_retry_ref, 0);
    EXPECT_EQ(tlsc_dp_state, 1);
    EXPECT_EQ(lines_from(timer_file), (strings{"ERROR tlsc_handle_dpd_expiry: Null ptr received for sock",
                                               "ERROR tlsc_handle_retry_expiry: Null ptr received for sock",
                                               "ERROR tlsc_handle_rekey_expiry: Null ptr received for sock",
                                               "ERROR tlsc_start_rekey_proc: Null ptr received for sock"}));
}

}  // namespace
