// The connection to the gateway and the TLS reads and writes, against a real TLS server on the loopback. The pause
// before the configuration request is skipped; sockets fail on demand.

#include <csignal>

#include <arpa/inet.h>
#include <sys/ioctl.h>
#include <sys/timerfd.h>

#include "tlsc_cstp.h"
#include "tlsc_transport.h"

#include "tls_peer.h"
#include "tunnel_fixture.h"

// ---- stand-ins ------------------------------------------------------------------------------------------------------

namespace {

std::vector<unsigned> sleeps;
bool                  socket_fails;
int                   forced_class = -1;  // what SSL_get_error says, if not -1
int                   fcntl_failure;      // the fcntl command that fails
int                   fcntl_set_flags;    // the flags of the last F_SETFL
bool                  set_is_pretended;   // F_SETFL succeeds and does nothing
bool                  timers_fail;
bool                  client_restarted;
std::function<void()> at_sleep;

}  // namespace

extern "C" unsigned __wrap_sleep(unsigned seconds) {
    sleeps.push_back(seconds);
    if (at_sleep) at_sleep();
    return 0;
}

extern "C" int __real_socket(int domain, int type, int protocol);
extern "C" int __wrap_socket(int domain, int type, int protocol) {
    return socket_fails ? -1 : __real_socket(domain, type, protocol);
}

extern "C" int __real_SSL_get_error(const SSL *ssl, int ret);
extern "C" int __wrap_SSL_get_error(const SSL *ssl, int ret) {
    return forced_class >= 0 ? forced_class : __real_SSL_get_error(ssl, ret);
}

extern "C" int __real_timerfd_create(int clock, int flags);
extern "C" int __wrap_timerfd_create(int clock, int flags) {
    return timers_fail ? -1 : __real_timerfd_create(clock, flags);
}

extern "C" int __real_fcntl(int fd, int command, long argument);
extern "C" int __wrap_fcntl(int fd, int command, long argument) {
    if (command == fcntl_failure) return -1;
    if (command == F_SETFL) fcntl_set_flags = static_cast<int>(argument);
    if (command == F_SETFL && set_is_pretended) return 0;
    return __real_fcntl(fd, command, argument);
}

extern "C" void __wrap_tlsc_restart_client() { client_restarted = true; }

namespace {

class engine_io : public tunnel_test {
protected:
    engine_io() {
        signal(SIGPIPE, SIG_IGN);
        sleeps.clear();
        socket_fails     = false;
        forced_class     = -1;
        fcntl_failure    = -1;
        set_is_pretended = false;
        timers_fail      = false;
        client_restarted = false;
        at_sleep         = nullptr;
        set_text(conf->svr_addr_ipv4, "127.0.0.1");
        set_text(conf->cipher_algo, peer_cipher);
        set_text(conf->device_id, "device");
        set_text(psk_identity, "identity");
        set_text(psk_key, peer_key);
        conf->ssl_auth_mech = SSL_AUTH_PSK;
        EXPECT_EQ(tlsc_init_ssl_config(), 1);
        open_epoll();
        log.clear();
    }
    ~engine_io() override {
        if (sock->sockfd > 0) close(sock->sockfd);
        if (sock->ssl) SSL_set_fd(sock->ssl, -1);
        SSL_free(sock->ssl);
        SSL_CTX_free(tlsc_ssl_ctx);
        tlsc_ssl_ctx = nullptr;
    }

    static void set_text(char *field, const std::string &text) { memcpy(field, text.c_str(), text.size() + 1); }

    // A client that is connected to the peer, its request read.
    void connect_to(tls_peer &peer) {
        conf->server_port = peer.port();
        ASSERT_EQ(tlsc_create_tcp_conn(), 1);
        ASSERT_EQ(peer.connection(0).read_record(), wire_frame(CSTP_CONFIG_REQ, "X-CSTP-Device-ID:device\n"));
        tlsc_stats_clear();
        log.clear();
    }
    static long seconds_left(int32_t fd) {
        itimerspec setting{};
        return timerfd_gettime(fd, &setting) == 0 ? setting.it_value.tv_sec + (setting.it_value.tv_nsec > 0) : -1;
    }
    static uint16_t unused_port() {
        tls_peer gone;
        return gone.port();
    }
    size_t teardowns() {
        return log.count("ERROR", engine_file, "tlsc_sock_error", "Closing connection and bringing down tun interface");
    }

    void expect_nothing_open() {
        EXPECT_LE(sock->sockfd, 0);
        EXPECT_LE(sock->ssl_fd, 0);
        EXPECT_EQ(sock->ssl, nullptr);
        EXPECT_EQ(sock->ssl_up, 0);
        EXPECT_GT(tlsc_timers.backoff, 0);
    }
};

// ---- connecting -----------------------------------------------------------------------------------------------------

TEST_F(engine_io, a_good_connection_logs_its_steps_pauses_2_seconds_and_sends_the_request) {
    tls_peer peer;
    conf->server_port = peer.port();
    ASSERT_EQ(tlsc_start_timer(&tlsc_timers.rekey, 0), 1);
    log.clear();
    EXPECT_EQ(tlsc_create_tcp_conn(), 1);
    EXPECT_EQ(tlsc_timers.rekey, -1);
    EXPECT_EQ(sock->ssl_up, 1);
    EXPECT_GT(sock->sockfd, 0);
    EXPECT_EQ(sock->ssl_fd, sock->sockfd);
    EXPECT_EQ(sock->svr_port, peer.port());
    EXPECT_EQ(SSL_get_fd(sock->ssl), sock->sockfd);
    EXPECT_EQ(sleeps, (std::vector<unsigned>{2}));
    EXPECT_GT(tlsc_timers.guard, 0);
    EXPECT_EQ(peer.connection(0).read_record(), wire_frame(CSTP_CONFIG_REQ, "X-CSTP-Device-ID:device\n"));
    EXPECT_EQ(peer.identity(), "identity");
    const std::vector<std::string> steps = {
        text_of("Successfully created new sock-fd for client: %d", sock->sockfd),
        text_of("Server port = %d, Server IP(127.0.0.1) = %u", htons(peer.port()), htonl(INADDR_LOOPBACK)),
        text_of("TCP conn established successfully!! sockfd = %d", sock->sockfd),
        "Successfully enabled SSL/TLS session to: 127.0.0.1.",
        "Sleeping for 2 seconds, before sending config request to server",
        "Building CSTP-CONFIG-REQ",
    };
    for (size_t i = 0; i < steps.size(); ++i) {
        EXPECT_GE(position(steps[i]), 0) << steps[i];
        if (i > 0) {
            EXPECT_LT(position(steps[i - 1]), position(steps[i])) << steps[i];
        }
        if (i < 5) {
            EXPECT_TRUE(log.has(i < 4 ? "INFO" : "DEBUG", engine_file, "tlsc_create_tcp_conn", steps[i])) << steps[i];
        }
    }
    EXPECT_EQ(teardowns(), 0u);
    expect_counters({{"ctrl_pkt_tx", 1}});
}

TEST_F(engine_io, the_pause_comes_behind_the_handshake_and_before_the_request) {
    tls_peer peer;
    conf->server_port = peer.port();
    at_sleep          = [&] {
        EXPECT_EQ(sock->ssl_up, 1);
        EXPECT_GE(position("Sleeping for 2 seconds, before sending config request to server"), 0);
        EXPECT_EQ(position("Building CSTP-CONFIG-REQ"), -1);
        EXPECT_EQ(tlsc_timers.guard, -1);
    };
    EXPECT_EQ(tlsc_create_tcp_conn(), 1);
    EXPECT_EQ(sleeps, (std::vector<unsigned>{2}));
    EXPECT_GE(position("Building CSTP-CONFIG-REQ"), 0);
}

TEST_F(engine_io, a_session_already_there_is_replaced_without_being_released) {
    tls_peer peer;
    connect_to(peer);
    SSL *const    first    = sock->ssl;
    const int32_t first_fd = sock->sockfd;
    EXPECT_EQ(tlsc_create_tcp_conn(), 1);
    EXPECT_NE(sock->ssl, first);
    EXPECT_NE(sock->sockfd, first_fd);
    EXPECT_FALSE(log.contains("SSL-handle and Engine cleanup"));
    EXPECT_TRUE(peer.connection(0).is_still_open());
    EXPECT_EQ(SSL_write(first, "works", 5), 5);
    EXPECT_EQ(peer.connection(0).read_record(), "works");
    SSL_free(first);
    close(first_fd);
}

TEST_F(engine_io, the_socket_stays_blocking) {
    tls_peer peer;
    connect_to(peer);
    EXPECT_EQ(fcntl(sock->sockfd, F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(engine_io, a_failed_request_after_a_good_handshake_still_returns_1_after_its_own_teardown) {
    tls_peer peer;
    conf->server_port = peer.port();
    timers_fail       = true;
    EXPECT_EQ(tlsc_create_tcp_conn(), 1);
    EXPECT_EQ(teardowns(), 1u);
    EXPECT_LE(sock->sockfd, 0);
    EXPECT_EQ(sock->ssl, nullptr);
    EXPECT_TRUE(peer.connection(0).is_closed_by_client());
}

TEST_F(engine_io, the_session_is_made_of_the_connections_own_context_when_it_has_one) {
    tls_peer peer;
    ASSERT_EQ(sock->ssl_ctx, tlsc_ssl_ctx);
    ssl_ctx_st *const of_process = tlsc_ssl_ctx;
    ASSERT_EQ(tlsc_init_ssl_config(), 1);
    sock->ssl_ctx = of_process;
    connect_to(peer);
    EXPECT_EQ(SSL_get_SSL_CTX(sock->ssl), of_process);
    SSL_CTX_free(of_process);
}

TEST_F(engine_io, a_missing_tls_context_returns_0_and_arms_nothing) {
    ssl_ctx_st *const ctx = tlsc_ssl_ctx;
    tlsc_ssl_ctx          = nullptr;
    sock->ssl_ctx         = nullptr;
    EXPECT_EQ(tlsc_create_tcp_conn(), 0);
    tlsc_ssl_ctx = ctx;
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_create_tcp_conn", "Could not get new SSL handle"));
    EXPECT_EQ(teardowns(), 0u);
    EXPECT_EQ(tlsc_timers.backoff, -1);
}

TEST_F(engine_io, a_socket_that_cannot_be_made_tears_down_and_returns_0) {
    socket_fails = true;
    EXPECT_EQ(tlsc_create_tcp_conn(), 0);
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_create_tcp_conn", "Sock-fd creation failed"));
    EXPECT_EQ(teardowns(), 1u);
    expect_nothing_open();
}

TEST_F(engine_io, a_refused_connection_tears_down_first_and_then_closes_the_new_socket) {
    conf->server_port = unused_port();
    const int before  = open_descriptors();
    EXPECT_EQ(tlsc_create_tcp_conn(), 0);
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_create_tcp_conn", "TCP connection failed to server"));
    EXPECT_LT(position("TCP connection failed to server"),
              position("Closing connection and bringing down tun interface"));
    EXPECT_EQ(open_descriptors(), before + 1);  // the backoff timer's
    expect_nothing_open();
    EXPECT_EQ(seconds_left(tlsc_timers.backoff), 10);
}

TEST_F(engine_io, the_new_socket_is_still_open_during_the_teardown_of_a_refused_connection) {
    conf->server_port = unused_port();
    EXPECT_EQ(tlsc_create_tcp_conn(), 0);
    const std::string text  = log.text();
    const std::string line  = "Successfully created new sock-fd for client: ";
    const size_t      found = text.find(line);
    ASSERT_NE(found, std::string::npos);
    const int fd = atoi(text.c_str() + found + line.size());
    EXPECT_NE(fd, tlsc_timers.backoff);  // its number was not free for the timer
    EXPECT_FALSE(is_open(fd));
}

TEST_F(engine_io, an_address_text_that_is_no_address_leaves_0_0_0_0) {
    set_text(conf->svr_addr_ipv4, "gateway.example");
    conf->server_port = unused_port();
    EXPECT_EQ(tlsc_create_tcp_conn(), 0);
    EXPECT_TRUE(log.contains(text_of("Server port = %d, Server IP(gateway.example) = 0", htons(conf->server_port))));
    EXPECT_TRUE(log.contains("TCP connection failed to server"));
    EXPECT_EQ(teardowns(), 1u);
}

TEST_F(engine_io, short_forms_of_an_address_are_taken) {
    tls_peer peer;
    set_text(conf->svr_addr_ipv4, "127.1");
    conf->server_port = peer.port();
    EXPECT_EQ(tlsc_create_tcp_conn(), 1);
}

TEST_F(engine_io, a_wrong_key_returns_7_after_the_teardown) {
    tls_peer peer(nullptr, "another key");
    conf->server_port = peer.port();
    EXPECT_EQ(tlsc_create_tcp_conn(), 7);
    EXPECT_TRUE(logged_like("ERROR", "tlsc_create_tcp_conn", "ssl-connect error : 1, ssl-connect ret-value = *"));
    EXPECT_TRUE(logged_like("ERROR", "tlsc_create_tcp_conn", "SSL connect failed!! Error = error:*, SSL state = *"));
    EXPECT_TRUE(log.has("WARNING", engine_file, "tlsc_create_tcp_conn",
                        "Could not build a SSL session to: 127.0.0.1, Initiate session and ssl cleanup"));
    EXPECT_EQ(teardowns(), 1u);
    EXPECT_TRUE(sleeps.empty());
    expect_nothing_open();
}

TEST_F(engine_io, a_peer_that_hangs_up_in_the_handshake_is_class_5_without_the_connect_failed_line) {
    tls_peer peer;
    conf->server_port = peer.port();
    size_t number     = 0;
    for (auto how : {tls_peer::manner::hang_up, tls_peer::manner::reset}) {
        peer.meet_with(how);
        log.clear();
        EXPECT_EQ(tlsc_create_tcp_conn(), 7);
        EXPECT_TRUE(log.contains("ssl-connect error : 5, ssl-connect ret-value = "));
        EXPECT_FALSE(log.contains("SSL connect failed!!"));
        EXPECT_EQ(teardowns(), 1u);
        expect_nothing_open();
        (void)peer.connection(number++);
    }
}

TEST_F(engine_io, a_peer_that_does_not_speak_tls_is_class_1) {
    tls_peer peer;
    peer.meet_with(tls_peer::manner::garbage);
    conf->server_port = peer.port();
    EXPECT_EQ(tlsc_create_tcp_conn(), 7);
    EXPECT_TRUE(log.contains("ssl-connect error : 1, ssl-connect ret-value = -1"));
    EXPECT_TRUE(log.contains("SSL connect failed!! Error = error:"));
    EXPECT_EQ(teardowns(), 1u);
    expect_nothing_open();
}

TEST_F(engine_io, no_answer_to_the_handshake_harms_the_client_or_shows_the_key) {
    const auto record = [](char type, const char *version, const std::string &body, size_t length) {
        return std::string(1, type) + std::string(version, 2) + static_cast<char>(length >> 8) +
               static_cast<char>(length) + body;
    };
    const auto whole = [&](char type, const std::string &body) { return record(type, "\x03\x03", body, body.size()); };
    const std::string hello_body = std::string("\x03\x03", 2) + std::string(32, 'r') +
                                   std::string("\x00\x00\x8d\x00", 4);
    const auto hello = [&](const std::string &body, size_t length) {
        return whole('\x16',
                     std::string("\x02\x00", 2) + static_cast<char>(length >> 8) + static_cast<char>(length) + body);
    };
    const std::string done      = whole('\x16', std::string("\x0e\x00\x00\x00", 4));
    const std::string answers[] = {
        "",
        "HTTP/1.1 400 Bad Request\r\n\r\n",
        std::string(3, '\x16'),  // a part of a header
        std::string(20000, '\0'),
        std::string(20000, '\xff'),
        record('\x16', "\x03\x03", "", 0),                      // an empty record
        record('\x16', "\x03\x03", "", 65535),                  // a length beyond the largest
        record('\x16', "\x03\x03", std::string(10, 'x'), 200),  // a record cut short
        record('\x16', "\x09\x09", std::string(40, 'x'), 40),   // no version
        whole('\x17', "data before the handshake"),
        whole('\x14', "\x01"),      // a change of the cipher at once
        whole('\x15', "\x02\x28"),  // an alert
        whole('\x15', "\x02"),      // a part of one
        whole('\x63', "no such content"),
        hello("", 0),
        hello(hello_body, hello_body.size() - 5),
        hello(hello_body, hello_body.size() + 5) + whole('\x15', "\x01\x00"),
        hello(hello_body, 0xffff),
        hello(std::string("\x03\x03", 2) + std::string(32, 'r') + std::string("\xff\x00\x8d\x00", 4),
              38),  // a session id that goes on behind the end
        hello(std::string("\x03\x03", 2) + std::string(32, 'r') + std::string("\x00\x13\x37\x00", 4),
              38),  // a cipher nobody offered
        hello(hello_body, hello_body.size()) + whole('\x16', std::string("\x0c\x00\x00\x02\xff\xff", 6)) +
            done,  // a hint that goes on behind the end
        hello(hello_body, hello_body.size()) +
            whole('\x16', std::string("\x0c\x00\x01\x02\x01\x00", 6) + std::string(256, '%')) + done,  // one too long
        hello(hello_body, hello_body.size()) + done + whole('\x14', "\x01") + whole('\x16', std::string(64, 'f')),
    };
    tls_peer peer;
    peer.meet_with(tls_peer::manner::nothing);
    conf->server_port = peer.port();
    const int before  = open_descriptors() - 1;  // the first connection of the peer comes on top
    size_t    number  = 0;
    tlsc_log_level    = LOG_BUF_PRINT;
    for (const std::string &answer : answers) {
        std::thread server([&] {
            peer_connection &connection = peer.connection(number);
            connection.send_raw(answer);
            connection.send_fin();
        });
        EXPECT_EQ(tlsc_create_tcp_conn(), 7) << number;
        server.join();
        EXPECT_EQ(sock->ssl, nullptr) << number;
        EXPECT_LE(sock->sockfd, 0) << number;
        peer.connection(number++).hang_up();
    }
    EXPECT_EQ(teardowns(), std::size(answers));
    EXPECT_FALSE(log.contains(peer_key));
    EXPECT_LE(open_descriptors(), before + 2);  // the backoff timer's
    tlsc_log_level = LOG_DEBUG;
}

TEST_F(engine_io, a_failed_rekey_connection_closes_the_old_transport_once) {
    tls_peer peer;
    connect_to(peer);
    ASSERT_EQ(tlsc_add_fd_to_epoll(tlsc_epoll_fd, sock->sockfd), 1);
    const int32_t old      = sock->sockfd;
    tlsc_old_transport.fd  = old;
    tlsc_old_transport.ssl = sock->ssl;
    conf->server_port      = unused_port();
    EXPECT_EQ(tlsc_create_tcp_conn(), 0);
    EXPECT_TRUE(peer.connection(0).is_closed_by_client());
    EXPECT_EQ(tlsc_old_transport.fd, -1);
    EXPECT_EQ(tlsc_old_transport.ssl, nullptr);
    EXPECT_FALSE(log.contains("Closing the old transport-fd"));
    expect_nothing_open();
}

// ---- writing --------------------------------------------------------------------------------------------------------

TEST_F(engine_io, a_write_goes_out_as_one_record) {
    tls_peer peer;
    connect_to(peer);
    int32_t result = -1;
    EXPECT_EQ(tlsc_ssl_write(sock, "twelve bytes", 12, &result), 12);
    EXPECT_EQ(result, 1);
    EXPECT_EQ(tlsc_ssl_write(sock, "again", 5, nullptr), 5);
    EXPECT_EQ(peer.connection(0).read_record(), "twelve bytes");
    EXPECT_EQ(peer.connection(0).read_record(), "again");
    expect_counters({});
}

TEST_F(engine_io, a_write_without_context_buffer_or_tls_fails_without_touching_holder_or_counters) {
    tls_peer peer;
    connect_to(peer);
    int32_t result = -7;
    EXPECT_EQ(tlsc_ssl_write(nullptr, "x", 1, &result), 0);
    EXPECT_EQ(tlsc_ssl_write(sock, nullptr, 1, &result), 0);
    sock->ssl_up = 0;
    EXPECT_EQ(tlsc_ssl_write(sock, "x", 1, &result), 0);
    EXPECT_EQ(result, -7);
    EXPECT_EQ(log.count("ERROR", engine_file, "tlsc_ssl_write", "Null ptr received for sock/buffer/sock->ssl_up"), 3u);
    expect_counters({});
}

TEST_F(engine_io, a_full_socket_is_want_write_when_it_does_not_block) {
    tls_peer peer;
    connect_to(peer);
    ASSERT_EQ(fcntl(sock->sockfd, F_SETFL, O_NONBLOCK), 0);
    const std::string block(16000, 'b');
    int32_t           result = 1;
    int32_t           count  = 0;
    for (int i = 0; i < 2000 && result == 1; ++i) count = tlsc_ssl_write(sock, block.data(), 16000, &result);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(result, 3);
    EXPECT_TRUE(
        log.has("ERROR", engine_file, "tlsc_ssl_write",
                text_of("SSL write error received = 3, translated-ssl-error = 3, write_len = -1, errno = %d", EAGAIN)));
    expect_counters({{"ssl_write_errors_total", 1}, {"ssl_write_errors_writewouldblock", 1}});
}

TEST_F(engine_io, every_write_error_class_is_translated_and_counted) {
    tls_peer peer;
    connect_to(peer);
    close(sock->sockfd);
    sock->sockfd = -1;
    for (int error = 1; error <= 9; ++error) {
        forced_class   = error;
        int32_t result = -1;
        EXPECT_EQ(tlsc_ssl_write(sock, "x", 1, &result), 0);
        EXPECT_EQ(result, error == 2 || error == 3 ? error : 0) << error;
        EXPECT_TRUE(log.contains(
            text_of("SSL write error received = %d, translated-ssl-error = %d, write_len = -1", error, result)));
    }
    EXPECT_EQ(tlsc_ssl_write(sock, "x", 1, nullptr), 0);
    expect_counters({{"ssl_write_errors_total", 10},
                     {"ssl_write_errors_readwouldblock", 1},
                     {"ssl_write_errors_writewouldblock", 1},
                     {"ssl_write_errors_others", 8}});
}

TEST_F(engine_io, writing_to_a_peer_that_went_away_is_an_error_and_not_a_signal) {
    tls_peer peer;
    connect_to(peer);
    peer.connection(0).reset();
    int32_t result = 1;
    EXPECT_TRUE(eventually([&] { return tlsc_ssl_write(sock, "x", 1, &result) == 0; }));
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(log.contains("SSL write error received = 5, translated-ssl-error = 0, write_len = -1"));
}

TEST_F(engine_io, a_failed_call_leaves_no_error_that_would_colour_the_class_of_the_next) {
    tls_peer peer;
    connect_to(peer);
    peer.connection(0).send_raw(std::string("\x17\x03\x03\x00\x01x", 6));  // a record that cannot be read
    char    bytes[10];
    int32_t result = -1;
    EXPECT_EQ(tlsc_ssl_read(sock, bytes, sizeof(bytes), &result), 0);
    EXPECT_TRUE(log.contains("SSL Read error received = 1, translated-ssl-error = 0"));
    EXPECT_EQ(ERR_peek_error(), 0u);

    (void)tlsc_ssl_write(sock, "x", 1, &result);  // 3.0 refuses, the 1.0 series still writes
    EXPECT_EQ(ERR_peek_error(), 0u);

    tlsc_sock_error(TLSC_DOWN_NO_ERROR);
    conf->server_port = peer.port();
    peer.meet_with(tls_peer::manner::garbage);
    EXPECT_EQ(tlsc_create_tcp_conn(), 7);
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(engine_io, written_bytes_are_dumped_at_level_5_only) {
    tls_peer peer;
    connect_to(peer);
    const std::string bytes("\x01\x02\xff", 3);
    EXPECT_EQ(tlsc_ssl_write(sock, bytes.data(), 3, nullptr), 3);
    EXPECT_FALSE(log.contains(" 01 02 ff"));
    tlsc_log_level = LOG_BUF_PRINT;
    EXPECT_EQ(tlsc_ssl_write(sock, bytes.data(), 3, nullptr), 3);
    EXPECT_TRUE(log.contains(" 01 02 ff"));
}

TEST_F(engine_io, the_dump_comes_before_the_attempt_to_write) {
    tls_peer peer;
    connect_to(peer);
    forced_class   = 1;
    tlsc_log_level = LOG_BUF_PRINT;
    shutdown(sock->sockfd, SHUT_RDWR);
    EXPECT_EQ(tlsc_ssl_write(sock, "\xab\xcd\xef", 3, nullptr), 0);
    const std::string text = log.text();
    ASSERT_NE(text.find(" ab cd ef"), std::string::npos);
    EXPECT_LT(text.find(" ab cd ef"), text.find("SSL write error received = 1"));
    log.clear();
    sock->ssl_up = 0;
    EXPECT_EQ(tlsc_ssl_write(sock, "\xab\xcd\xef", 3, nullptr), 0);
    EXPECT_FALSE(log.contains(" ab cd ef"));
}

TEST_F(engine_io, what_was_collected_goes_out_before_another_connection_is_made) {
    tls_peer peer;
    connect_to(peer);
    tlsc_transport_collect(true);
    EXPECT_EQ(tlsc_ssl_write(sock, "collected", 9, nullptr), 9);
    tlsc_transport_collect(false);
    SSL *const    first    = sock->ssl;
    const int32_t first_fd = sock->sockfd;
    EXPECT_EQ(tlsc_create_tcp_conn(), 1);
    EXPECT_EQ(peer.connection(0).read_record(), "collected");
    SSL_free(first);
    close(first_fd);
}

TEST_F(engine_io, what_was_collected_goes_out_in_a_teardown) {
    tls_peer peer;
    connect_to(peer);
    tlsc_transport_collect(true);
    EXPECT_EQ(tlsc_ssl_write(sock, "collected", 9, nullptr), 9);
    tlsc_transport_collect(false);
    tlsc_sock_error(TLSC_DOWN_NO_ERROR);
    EXPECT_EQ(peer.connection(0).read_record(), "collected");
}

TEST_F(engine_io, collected_records_that_cannot_be_sent_are_one_write_error) {
    tls_peer peer;
    connect_to(peer);
    tlsc_transport_collect(true);
    EXPECT_EQ(tlsc_ssl_write(sock, "collected", 9, nullptr), 9);
    tlsc_transport_collect(false);
    SSL *const    first    = sock->ssl;
    const int32_t first_fd = sock->sockfd;
    shutdown(first_fd, SHUT_RDWR);
    EXPECT_EQ(tlsc_create_tcp_conn(), 1);
    EXPECT_TRUE(
        log.has("ERROR", engine_file, "tlsc_ssl_write",
                text_of("SSL write error received = 5, translated-ssl-error = 0, write_len = -1, errno = %d", EPIPE)));
    expect_counters({{"ssl_write_errors_total", 1}, {"ssl_write_errors_others", 1}, {"ctrl_pkt_tx", 1}});
    SSL_free(first);
    close(first_fd);
}

// ---- reading --------------------------------------------------------------------------------------------------------

TEST_F(engine_io, a_read_takes_what_one_record_holds) {
    tls_peer peer;
    connect_to(peer);
    char    bytes[100];
    int32_t result = -1;
    ASSERT_TRUE(peer.connection(0).write("one"));
    ASSERT_TRUE(peer.connection(0).write("two"));
    EXPECT_EQ(tlsc_ssl_read(sock, bytes, sizeof(bytes), &result), 3);
    EXPECT_EQ(result, 1);
    EXPECT_EQ(std::string(bytes, 3), "one");
    EXPECT_EQ(tlsc_ssl_read(sock, bytes, 2, nullptr), 2);
    EXPECT_EQ(tlsc_ssl_read(sock, bytes, 2, nullptr), 1);
    expect_counters({});
}

TEST_F(engine_io, a_read_is_not_held_back_by_ssl_up) {
    tls_peer peer;
    connect_to(peer);
    sock->ssl_up = 0;
    ASSERT_TRUE(peer.connection(0).write("one"));
    char bytes[100];
    EXPECT_EQ(tlsc_ssl_read(sock, bytes, sizeof(bytes), nullptr), 3);
}

TEST_F(engine_io, a_read_without_context_or_buffer_is_refused) {
    char    byte;
    int32_t result = -7;
    EXPECT_EQ(tlsc_ssl_read(nullptr, &byte, 1, &result), 0);
    EXPECT_EQ(tlsc_ssl_read(sock, nullptr, 1, &result), 0);
    EXPECT_EQ(result, -7);
    EXPECT_EQ(log.count("ERROR", engine_file, "tlsc_ssl_read", "Null ptr received for sock/buff"), 2u);
    expect_counters({});
}

TEST_F(engine_io, a_read_that_wants_more_counts_in_total_and_in_readwouldblock_and_gives_2) {
    tls_peer peer;
    connect_to(peer);
    ASSERT_EQ(fcntl(sock->sockfd, F_SETFL, O_NONBLOCK), 0);
    char    bytes[10];
    int32_t result = -1;
    EXPECT_EQ(tlsc_ssl_read(sock, bytes, sizeof(bytes), &result), 0);
    EXPECT_EQ(result, 2);
    EXPECT_TRUE(
        log.has("ERROR", engine_file, "tlsc_ssl_read", "SSL Read error received = 2, translated-ssl-error = 2"));
    expect_counters({{"ssl_read_errors_total", 1}, {"ssl_read_errors_readwouldblock", 1}});
}

TEST_F(engine_io, every_read_error_class_is_translated_and_counted) {
    tls_peer peer;
    connect_to(peer);
    ASSERT_EQ(fcntl(sock->sockfd, F_SETFL, O_NONBLOCK), 0);
    char bytes[10];
    for (int error = 1; error <= 9; ++error) {
        forced_class   = error;
        int32_t result = -1;
        EXPECT_EQ(tlsc_ssl_read(sock, bytes, sizeof(bytes), &result), 0);
        EXPECT_EQ(result, error == 2 || error == 3 ? error : 0) << error;
        EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_ssl_read",
                            text_of("SSL Read error received = %d, translated-ssl-error = %d", error, result)));
    }
    expect_counters({{"ssl_read_errors_total", 9},
                     {"ssl_read_errors_readwouldblock", 1},
                     {"ssl_read_errors_writewouldblock", 1},
                     {"ssl_read_errors_others", 7}});
}

TEST_F(engine_io, a_bare_fin_reads_as_class_5) {
    tls_peer peer;
    connect_to(peer);
    peer.connection(0).hang_up();
    char    bytes[10];
    int32_t result = -1;
    EXPECT_EQ(tlsc_ssl_read(sock, bytes, sizeof(bytes), &result), 0);
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(log.contains("SSL Read error received = 5, translated-ssl-error = 0"));
    expect_counters({{"ssl_read_errors_total", 1}, {"ssl_read_errors_others", 1}});
}

// ---- release --------------------------------------------------------------------------------------------------------

TEST_F(engine_io, releasing_a_null_session_is_only_logged) {
    tlsc_ssl_cleanup(nullptr);
    EXPECT_EQ(log.messages(), (std::vector<std::string>{"SSL-handle is NULL"}));
    EXPECT_EQ(log.entries().front().severity, "WARNING");
}

TEST_F(engine_io, releasing_a_session_closes_the_descriptor_that_it_holds) {
    tls_peer peer;
    connect_to(peer);
    const int32_t fd = sock->sockfd;
    tlsc_ssl_cleanup(sock->ssl);
    sock->ssl    = nullptr;
    sock->sockfd = -1;
    EXPECT_FALSE(is_open(fd));
    EXPECT_TRUE(peer.connection(0).is_closed_by_client());
    EXPECT_TRUE(log.has("INFO", engine_file, "tlsc_ssl_cleanup", "SSL-handle and Engine cleanup"));
}

TEST_F(engine_io, releasing_a_session_tells_the_peer_nothing) {
    tls_peer peer;
    connect_to(peer);
    tlsc_ssl_cleanup(sock->ssl);
    sock->ssl    = nullptr;
    sock->sockfd = -1;
    pollfd ready{peer.connection(0).fd(), POLLIN, 0};
    ASSERT_EQ(poll(&ready, 1, peer_patience_ms), 1);
    char byte;
    EXPECT_EQ(recv(peer.connection(0).fd(), &byte, 1, 0), 0);  // no close notification before the end
}

TEST_F(engine_io, releasing_a_session_closes_no_descriptor_below_1) {
    for (int fd : {0, -1}) {
        SSL *ssl = SSL_new(tlsc_ssl_ctx);
        if (fd == 0) SSL_set_fd(ssl, fd);
        const int before = open_descriptors();
        tlsc_ssl_cleanup(ssl);
        EXPECT_TRUE(is_open(0));
        EXPECT_EQ(open_descriptors(), before);
    }
    EXPECT_EQ(log.count("INFO", engine_file, "tlsc_ssl_cleanup", "SSL-handle and Engine cleanup"), 2u);
}

TEST_F(engine_io, closing_the_old_transport_releases_its_session_and_forgets_both) {
    tls_peer peer;
    connect_to(peer);
    tlsc_old_transport.fd  = sock->sockfd;
    tlsc_old_transport.ssl = sock->ssl;
    sock->ssl              = nullptr;
    sock->sockfd           = -1;
    const int old          = tlsc_old_transport.fd;
    tlsc_close_old_transport();
    EXPECT_EQ(tlsc_old_transport.fd, -1);
    EXPECT_EQ(tlsc_old_transport.ssl, nullptr);
    EXPECT_FALSE(is_open(old));
    EXPECT_TRUE(log.contains("SSL-handle and Engine cleanup"));
}

// ---- descriptor modes -----------------------------------------------------------------------------------------------

TEST_F(engine_io, non_blocking_adds_its_flag_and_keeps_the_others) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_DIRECT), 0);
    EXPECT_EQ(tlsc_set_sock_nonblocking(ends[1]), 1);
    EXPECT_TRUE(fcntl(ends[1], F_GETFL) & O_NONBLOCK);
    EXPECT_TRUE(fcntl(ends[1], F_GETFL) & O_DIRECT);
    EXPECT_TRUE(log.has("INFO", engine_file, "tlsc_set_sock_nonblocking",
                        text_of("Setting sock-fd(%d) as non-blocking", ends[1])));
    fcntl_failure = F_SETFL;
    EXPECT_EQ(tlsc_set_sock_nonblocking(ends[1]), 0);
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_set_sock_nonblocking", "fcntl error while set"));
    fcntl_failure = F_GETFL;
    EXPECT_EQ(tlsc_set_sock_nonblocking(ends[1]), 0);
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_set_sock_nonblocking",
                        text_of("Could not get flags for socket %d", ends[1])));
    fcntl_failure = -1;
    for (int fd : ends) close(fd);
}

TEST_F(engine_io, blocking_leaves_o_nonblock_as_it_is_and_turns_all_other_status_flags_on) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    (void)tlsc_set_sock_blocking(ends[0]);
    EXPECT_EQ(fcntl_set_flags, ~O_NONBLOCK);
    ASSERT_EQ(tlsc_set_sock_nonblocking(ends[1]), 1);
    (void)tlsc_set_sock_blocking(ends[1]);
    EXPECT_EQ(fcntl_set_flags, ~0);
    fcntl_failure = F_SETFL;
    EXPECT_EQ(tlsc_set_sock_blocking(ends[0]), 0);
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_set_sock_blocking", "fcntl error while set"));
    fcntl_failure = -1;
    for (int fd : ends) close(fd);
    EXPECT_EQ(tlsc_set_sock_blocking(ends[0]), 0);
    EXPECT_TRUE(
        log.has("ERROR", engine_file, "tlsc_set_sock_blocking", text_of("Could not get flags for socket %d", ends[0])));
}

TEST_F(engine_io, blocking_that_succeeds_says_so) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    set_is_pretended = true;
    EXPECT_EQ(tlsc_set_sock_blocking(ends[0]), 1);
    EXPECT_EQ(log.entries().size(), 1u);
    EXPECT_TRUE(
        log.has("INFO", engine_file, "tlsc_set_sock_blocking", text_of("Setting sock-fd(%d) as blocking", ends[0])));
    for (int fd : ends) close(fd);
}

// ---- errno classes --------------------------------------------------------------------------------------------------

TEST_F(engine_io, exhaustion_of_memory_or_descriptors_ends_the_client) {
    for (int32_t error : {ENOMEM, EMFILE, ENOBUFS}) {
        client_restarted = false;
        testing::internal::CaptureStderr();
        EXPECT_EQ(tlsc_error_handling(error), error);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), text_of("Socket error: %s\n", strerror(error)));
        EXPECT_TRUE(client_restarted);
        EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_error_handling", text_of("Socket error :%d\n", error)));
    }
}

TEST_F(engine_io, six_codes_are_passed_through_in_silence) {
    for (int32_t error : {EACCES, EINVAL, ENFILE, ENOTTY, EPROTONOSUPPORT, EAFNOSUPPORT})
        EXPECT_EQ(tlsc_error_handling(error), error);
    EXPECT_EQ(log.text(), "");
    EXPECT_FALSE(client_restarted);
}

TEST_F(engine_io, any_other_code_is_only_noted) {
    for (int32_t error : {0, 1, EPERM, EBADF, -1}) (void)tlsc_error_handling(error);
    EXPECT_EQ(log.count("INFO", engine_file, "tlsc_error_handling", "None of the errno specified have occured\n"), 5u);
    EXPECT_FALSE(client_restarted);
}

}  // namespace
