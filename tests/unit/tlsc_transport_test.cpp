// The bytes under the TLS session, against a TLS server whose records are cut and delayed by hand. Half a minute of
// patience passes at once where a test says so.

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <thread>

#include "tlsc_transport.h"

#include "sealed_peer.h"

// ---- stand-ins ------------------------------------------------------------------------------------------------------

namespace {

std::atomic<bool> time_flies;  // a wait in poll that ends without result takes no time, and the clock has moved on
std::atomic<long> seconds_flown;
std::atomic<int>  polls;
std::atomic<int>  longest_poll;
void (*before_poll)();
bool flags_are_hidden;  // those of descriptors cannot be read

}  // namespace

extern "C" int __real_poll(pollfd *fds, nfds_t count, int timeout);
extern "C" int __wrap_poll(pollfd *fds, nfds_t count, int timeout) {
    if (timeout == sealed_peer::patience_msec) return __real_poll(fds, count, timeout);  // the test's own
    ++polls;
    if (before_poll) before_poll();
    longest_poll = std::max(longest_poll.load(), timeout);
    if (!time_flies) return __real_poll(fds, count, timeout);
    const int result = __real_poll(fds, count, 0);
    if (result == 0) seconds_flown += timeout / 1000;
    return result;
}

extern "C" int __real_fcntl(int fd, int command, long argument);
extern "C" int __wrap_fcntl(int fd, int command, long argument) {
    return flags_are_hidden && command == F_GETFL ? -1 : __real_fcntl(fd, command, argument);
}

extern "C" int __real_clock_gettime(clockid_t clock, timespec *time);
extern "C" int __wrap_clock_gettime(clockid_t clock, timespec *time) {
    const int result = __real_clock_gettime(clock, time);
    time->tv_sec += seconds_flown;
    return result;
}

namespace {

using strings = std::vector<std::string>;

constexpr int buffer_size = 1500;  // what the reader of frames asks for

unsigned give_key(SSL *, const char *, char *identity, unsigned, unsigned char *psk, unsigned) {
    strcpy(identity, "identity");
    memcpy(psk, sealed_peer::key, sizeof(sealed_peer::key) - 1);
    return sizeof(sealed_peer::key) - 1;
}

class tlsc_transport : public ::testing::Test {
protected:
    explicit tlsc_transport(const char *cipher = "PSK-AES256-CBC-SHA") : peer(cipher) {
        (void)signal(SIGPIPE, SIG_IGN);
        time_flies       = false;
        seconds_flown    = 0;
        polls            = 0;
        longest_poll     = 0;
        before_poll      = nullptr;
        flags_are_hidden = false;
        tlsc_transport_cut_waits(false);
        ctx = SSL_CTX_new(TLSv1_2_client_method());
        SSL_CTX_set_psk_client_callback(ctx, give_key);
        EXPECT_EQ(SSL_CTX_set_cipher_list(ctx, "PSK"), 1);
        tlsc_ossl_set_ctx_options(ctx);
    }
    ~tlsc_transport() override {
        tlsc_transport_read_whole_records(false);
        tlsc_transport_collect(false);
        SSL_free(ssl);
        SSL_CTX_free(ctx);
        if (fd >= 0) close(fd);
    }

    int open_socket() const {
        const int         number  = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_in address = sealed_peer::loopback(peer.port());
        EXPECT_EQ(::connect(number, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
        return number;
    }
    void attach() {
        fd  = open_socket();
        ssl = SSL_new(ctx);
        ASSERT_EQ(tlsc_transport_attach(ssl, fd), 1);
        SSL_set_connect_state(ssl);
    }
    void connect(const strings &behind = {}) {
        peer.accept(behind);
        attach();
        ASSERT_EQ(SSL_connect(ssl), 1);
        peer.wait_until_up();
        polls = 0;
        tlsc_transport_read_whole_records(true);
    }
    std::string read() {
        char      bytes[20000];
        const int count = SSL_read(ssl, bytes, buffer_size);
        result          = count;
        error           = errno;
        if (count > 0) return std::string(bytes, static_cast<size_t>(count));
        error_class = tlsc_ossl_get_error(ssl, count);
        ERR_clear_error();
        return "";
    }
    // As the loop does: takes in once and reads what is there.
    strings read_all() {
        strings all;
        for (bool readable = tlsc_transport_take_in(ssl); readable; readable = tlsc_transport_is_readable(ssl)) {
            all.push_back(read());
            if (all.back().empty()) break;
        }
        return all;
    }
    bool write(const std::string &text) {
        const int count = SSL_write(ssl, text.data(), static_cast<int>(text.size()));
        error           = errno;
        if (count == static_cast<int>(text.size())) return true;
        error_class = SSL_get_error(ssl, count);
        ERR_clear_error();
        return false;
    }
    void expect_half_a_minute() const {
        EXPECT_GE(seconds_flown, 30);
        EXPECT_LE(seconds_flown, 32);
        EXPECT_EQ(error_class, SSL_ERROR_SYSCALL);
        EXPECT_EQ(error, ETIMEDOUT);
    }
    // Fills the socket and the peer's, which reads nothing.
    void fill_the_way_out() const {
        const std::string block(100000, 'x');
        while (send(fd, block.data(), block.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) continue;
        while (send(fd, block.data(), 1, MSG_DONTWAIT | MSG_NOSIGNAL) > 0) continue;
    }

    sealed_peer peer;
    SSL_CTX    *ctx         = nullptr;
    SSL        *ssl         = nullptr;
    int         fd          = -1;
    int         result      = 0;
    int         error       = 0;
    int         error_class = SSL_ERROR_NONE;
};

// What depends on the layout of a record.
class tlsc_transport_ciphers : public tlsc_transport, public ::testing::WithParamInterface<const char *> {
protected:
    tlsc_transport_ciphers() : tlsc_transport(GetParam()) {}
};
INSTANTIATE_TEST_SUITE_P(, tlsc_transport_ciphers,
                         ::testing::Values("PSK-AES256-CBC-SHA", "PSK-AES128-CBC-SHA"
#if !TLSC_OPENSSL_1_0
                                           ,
                                           "PSK-AES256-GCM-SHA384", "PSK-CHACHA20-POLY1305"
#endif
                                           ));

// ---- the descriptor -------------------------------------------------------------------------------------------------

TEST_F(tlsc_transport, the_session_knows_its_descriptor_and_does_not_close_it) {
    attach();
    EXPECT_EQ(SSL_get_fd(ssl), fd);
    EXPECT_EQ(SSL_get_rfd(ssl), fd);
    EXPECT_EQ(SSL_get_wfd(ssl), fd);
    BIO *bio   = SSL_get_rbio(ssl);
    int  found = -7;
    EXPECT_EQ(BIO_get_fd(bio, &found), fd);
    EXPECT_EQ(found, fd);
    EXPECT_EQ(BIO_get_close(bio), BIO_NOCLOSE);
    (void)BIO_set_close(bio, BIO_CLOSE);
    EXPECT_EQ(BIO_get_close(bio), BIO_CLOSE);
    EXPECT_EQ(BIO_flush(bio), 1);
    EXPECT_NE(BIO_method_type(bio) & BIO_TYPE_DESCRIPTOR, 0);
    EXPECT_NE(BIO_method_type(bio) & BIO_TYPE_SOURCE_SINK, 0);
    SSL_free(ssl);
    ssl = nullptr;
    EXPECT_GE(fcntl(fd, F_GETFD), 0);
}

TEST_F(tlsc_transport, the_session_forgets_its_descriptor_in_both_ways) {
    connect();
    peer.deliver(peer.seal("waits"), fd);
    EXPECT_TRUE(tlsc_transport_take_in(ssl));
    tlsc_transport_forget(ssl);
    EXPECT_EQ(SSL_get_fd(ssl), -1);
    EXPECT_FALSE(tlsc_transport_is_readable(ssl));
    ASSERT_EQ(tlsc_transport_attach(ssl, fd), 1);
    EXPECT_EQ(SSL_get_fd(ssl), fd);
    SSL_set_fd(ssl, -1);
    EXPECT_EQ(SSL_get_fd(ssl), -1);
}

TEST_F(tlsc_transport, the_socket_stays_blocking_and_without_options) {
    const int reference = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    connect();
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    for (int option : {SO_KEEPALIVE, SO_RCVTIMEO, SO_SNDTIMEO, SO_RCVLOWAT}) {
        timeval   before{}, now{};
        socklen_t size = sizeof(before);
        EXPECT_EQ(getsockopt(reference, SOL_SOCKET, option, &before, &size), 0);
        EXPECT_EQ(getsockopt(fd, SOL_SOCKET, option, &now, &size), 0);
        EXPECT_EQ(memcmp(&before, &now, sizeof(now)), 0) << option;
    }
    int       no_delay = -1;
    socklen_t size     = sizeof(no_delay);
    EXPECT_EQ(getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &no_delay, &size), 0);
    EXPECT_EQ(no_delay, 0);
    close(reference);
}

TEST_F(tlsc_transport, a_second_session_takes_the_buffers_and_the_first_can_still_write) {
    connect();
    peer.deliver(peer.seal("dropped"), fd);
    EXPECT_TRUE(tlsc_transport_take_in(ssl));
    SSL *second = SSL_new(ctx);
    ASSERT_EQ(tlsc_transport_attach(second, fd), 1);
    EXPECT_FALSE(tlsc_transport_is_readable(ssl));
    EXPECT_FALSE(tlsc_transport_is_readable(second));
    EXPECT_EQ(read(), "");
    EXPECT_EQ(error, ENOTCONN);
    tlsc_transport_collect(true);
    EXPECT_TRUE(write("at once"));
    EXPECT_EQ(peer.open(), "at once");
    SSL_free(second);
}

// ---- reading --------------------------------------------------------------------------------------------------------

TEST_F(tlsc_transport, records_of_one_segment_are_taken_in_at_once_and_read_one_by_one) {
    connect();
    std::string bytes;
    strings     texts;
    for (int i = 0; i < 9; ++i) {
        texts.push_back("record " + std::to_string(i));
        bytes += peer.seal(texts.back());
    }
    EXPECT_FALSE(tlsc_transport_take_in(ssl));
    peer.deliver(bytes, fd);
    EXPECT_TRUE(tlsc_transport_take_in(ssl));
    char byte;
    EXPECT_EQ(recv(fd, &byte, 1, MSG_DONTWAIT), -1);
    for (const std::string &text : texts) {
        EXPECT_TRUE(tlsc_transport_is_readable(ssl));
        EXPECT_EQ(read(), text);
    }
    EXPECT_FALSE(tlsc_transport_is_readable(ssl));
    EXPECT_EQ(polls, 0);
}

TEST_P(tlsc_transport_ciphers, records_cut_anywhere_between_two_segments_are_read_as_one_would_expect) {
    connect();
    const strings texts{"the first", "a second record that is somewhat longer", "3"};
    size_t        total = 1;
    for (size_t cut = 0; cut < total; ++cut) {
        std::string         bytes;
        std::vector<size_t> ends;
        for (const std::string &text : texts) {
            bytes += peer.seal(text);
            ends.push_back(bytes.size());
        }
        total             = bytes.size();
        const auto before = static_cast<size_t>(
            std::count_if(ends.begin(), ends.end(), [&](size_t e) { return e <= cut; }));
        strings seen;
        if (cut > 0) peer.deliver(bytes.substr(0, cut), fd);
        seen = read_all();
        ASSERT_EQ(seen, strings(texts.begin(), texts.begin() + static_cast<long>(before))) << cut;
        peer.deliver(bytes.substr(cut), fd);
        for (const std::string &text : read_all()) seen.push_back(text);
        ASSERT_EQ(seen, texts) << cut;
    }
    EXPECT_GT(total, 60u);
    EXPECT_EQ(polls, 0);
}

TEST_P(tlsc_transport_ciphers, a_peer_that_sends_one_byte_at_a_time_keeps_nobody_waiting) {
    connect();
    const std::string bytes = peer.seal_all({"slowly", "but surely"});
    strings           seen;
    for (char byte : bytes) {
        peer.deliver(std::string(1, byte), fd);
        for (const std::string &text : read_all()) seen.push_back(text);
    }
    EXPECT_EQ(seen, (strings{"slowly", "but surely"}));
    EXPECT_EQ(polls, 0);
}

TEST_P(tlsc_transport_ciphers, records_of_every_size_that_a_frame_can_have_arrive) {
    connect();
    std::string bytes;
    strings     expected;
    for (size_t size = 1; size <= 1444; ++size) {
        expected.emplace_back(size, static_cast<char>('a' + size % 26));
        bytes += peer.seal(expected.back());
    }
    strings     seen;
    std::thread sender([&] { peer.send(bytes); });
    while (seen.size() < expected.size()) {
        pollfd ready{fd, POLLIN, 0};
        ASSERT_EQ(poll(&ready, 1, sealed_peer::patience_msec), 1);
        for (const std::string &text : read_all()) seen.push_back(text);
        ASSERT_TRUE(seen.empty() || !seen.back().empty());
    }
    sender.join();
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(polls, 0);
}

TEST_P(tlsc_transport_ciphers, the_largest_record_is_awaited_as_a_whole_and_read_in_parts) {
    connect();
    const std::string text(16384, 'L');
    const std::string bytes = peer.seal(text);
    EXPECT_GT(bytes.size(), 16384u);
    peer.deliver(bytes.substr(0, bytes.size() - 1), fd);
    EXPECT_FALSE(tlsc_transport_take_in(ssl));
    EXPECT_FALSE(tlsc_transport_take_in(ssl));
    peer.deliver(bytes.substr(bytes.size() - 1) + peer.seal("next"), fd);
    std::string all;
    for (const std::string &part : read_all()) all += part;
    if (all == text) all += read_all().front();
    EXPECT_EQ(all, text + "next");
    EXPECT_EQ(polls, 0);
}

TEST_F(tlsc_transport, whoever_asks_for_more_gets_the_bytes_up_to_a_records_end) {
    connect();
    const strings records{peer.seal("one"), peer.seal("and another")};
    peer.deliver(records[0] + records[1], fd);
    EXPECT_TRUE(tlsc_transport_take_in(ssl));
    for (const std::string &record : records) {
        char bytes[20000];
        ASSERT_EQ(BIO_read(SSL_get_rbio(ssl), bytes, sizeof(bytes)), static_cast<int>(record.size()));
        EXPECT_EQ(std::string(bytes, record.size()), record);
    }
}

TEST_F(tlsc_transport, what_a_read_left_of_a_record_comes_with_the_next_record) {
    connect();
    const std::string text(buffer_size, '1');
    peer.deliver(peer.seal(text + "rest"), fd);
    EXPECT_EQ(read_all(), (strings{text}));
    peer.deliver(peer.seal("next"), fd);
    EXPECT_EQ(read_all(), (strings{"rest", "next"}));
}

TEST_F(tlsc_transport, records_behind_the_last_handshake_message_are_there_without_an_event) {
    connect({"early", "birds"});
    char byte;
    EXPECT_EQ(recv(fd, &byte, 1, MSG_DONTWAIT | MSG_PEEK), -1);
    EXPECT_TRUE(tlsc_transport_is_readable(ssl));
    EXPECT_EQ(read_all(), (strings{"early", "birds"}));
}

class tlsc_transport_headers : public tlsc_transport, public ::testing::WithParamInterface<std::string> {};

TEST_P(tlsc_transport_headers, a_header_that_openssl_refuses_is_shown_to_it_at_once) {
    connect();
    peer.deliver(GetParam(), fd);
    EXPECT_TRUE(tlsc_transport_take_in(ssl));
    EXPECT_EQ(read(), "");
    EXPECT_EQ(error_class, SSL_ERROR_SSL);
    EXPECT_EQ(polls, 0);
}
INSTANTIATE_TEST_SUITE_P(, tlsc_transport_headers,
                         ::testing::Values(std::string("HTTP/"), std::string("\x17\x03\x01\x00\x10", 5),
                                           std::string(5, '\0'), std::string("\x17\x03\x03\xff\xff", 5)));

TEST_F(tlsc_transport, outside_the_loop_a_read_waits_for_the_rest) {
    connect();
    tlsc_transport_read_whole_records(false);
    const std::string bytes = peer.seal("in the end");
    std::thread       sender([&] {
        for (size_t i = 0; i < bytes.size(); i += 7) {
            peer.send(bytes.substr(i, 7));
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    });
    EXPECT_EQ(read(), "in the end");
    sender.join();
    EXPECT_GT(polls, 0);
}

// ---- the end of the stream ------------------------------------------------------------------------------------------

TEST_F(tlsc_transport, what_came_before_the_end_is_read_and_then_the_end_is_class_5) {
    connect();
    peer.send(peer.seal_all({"one", "two"}));
    peer.send_fin();
    pollfd ended{fd, POLLRDHUP, 0};
    ASSERT_EQ(poll(&ended, 1, sealed_peer::patience_msec), 1);
    EXPECT_EQ(read_all(), (strings{"one", "two"}));
    EXPECT_TRUE(tlsc_transport_take_in(ssl));
    EXPECT_EQ(read(), "");
    EXPECT_EQ(result, 0);
    EXPECT_EQ(error_class, SSL_ERROR_SYSCALL);
    EXPECT_TRUE(tlsc_transport_is_readable(ssl));  // and so it stays
}

TEST_F(tlsc_transport, an_end_inside_a_record_is_class_5) {
    connect();
    peer.deliver(peer.seal("never complete").substr(0, 20), fd);
    EXPECT_FALSE(tlsc_transport_take_in(ssl));
    peer.send_fin();
    pollfd ended{fd, POLLRDHUP, 0};
    ASSERT_EQ(poll(&ended, 1, sealed_peer::patience_msec), 1);
    EXPECT_TRUE(tlsc_transport_take_in(ssl));
    EXPECT_EQ(read(), "");
    EXPECT_EQ(error_class, SSL_ERROR_SYSCALL);
}

TEST_F(tlsc_transport, a_reset_is_class_5_with_its_errno) {
    connect();
    peer.reset();
    pollfd ended{fd, POLLIN, 0};
    ASSERT_EQ(poll(&ended, 1, sealed_peer::patience_msec), 1);
    EXPECT_TRUE(tlsc_transport_take_in(ssl));
    EXPECT_EQ(read(), "");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error_class, SSL_ERROR_SYSCALL);
    EXPECT_EQ(error, ECONNRESET);
    EXPECT_EQ(read(), "");
    EXPECT_EQ(error, ECONNRESET);
}

// ---- waits that end -------------------------------------------------------------------------------------------------

TEST_F(tlsc_transport, a_peer_silent_inside_a_record_is_an_error_after_half_a_minute) {
    connect();
    tlsc_transport_read_whole_records(false);
    time_flies = true;
    peer.deliver(peer.seal("never complete").substr(0, 3), fd);
    EXPECT_EQ(read(), "");
    expect_half_a_minute();
    EXPECT_LE(longest_poll, 1000);
}

TEST_F(tlsc_transport, every_byte_of_progress_starts_the_half_minute_anew) {
    connect();
    tlsc_transport_read_whole_records(false);
    const std::string bytes = peer.seal("drip");
    time_flies              = true;
    static const sealed_peer *dripping;
    static std::string        rest;
    dripping    = &peer;
    rest        = bytes;
    before_poll = [] {
        if (rest.empty()) return;
        dripping->send(rest.substr(0, 1));
        rest.erase(0, 1);
        seconds_flown += 20;
    };
    EXPECT_EQ(read(), "drip");
    EXPECT_GT(seconds_flown, 20 * 20);
}

TEST_F(tlsc_transport, a_peer_silent_in_the_handshake_is_an_error_after_half_a_minute) {
    time_flies = true;
    attach();
    const int ret = SSL_connect(ssl);
    error         = errno;
    error_class   = SSL_get_error(ssl, ret);
    EXPECT_LT(ret, 1);
    expect_half_a_minute();
}

TEST_F(tlsc_transport, a_handshake_asked_for_and_not_continued_is_an_error_after_half_a_minute) {
    connect();
    peer.deliver(peer.seal_hello_request(), fd);
    time_flies = true;
    EXPECT_TRUE(tlsc_transport_take_in(ssl));
    EXPECT_EQ(read(), "");
    expect_half_a_minute();
    EXPECT_FALSE(peer.receive_raw(0).empty());  // the client's part was sent
}

#if !TLSC_OPENSSL_1_0
TEST_F(tlsc_transport, a_record_without_data_is_want_read_and_the_next_is_read) {
    connect();
    SSL_set_options(ssl, SSL_OP_NO_RENEGOTIATION);  // answers the request and reads on
    const std::string request = peer.seal_hello_request();
    peer.deliver(request, fd);
    EXPECT_TRUE(tlsc_transport_take_in(ssl));
    EXPECT_EQ(read(), "");
    EXPECT_EQ(error_class, SSL_ERROR_WANT_READ);
    EXPECT_EQ(polls, 0);
    EXPECT_FALSE(tlsc_transport_is_readable(ssl));
    peer.deliver(peer.seal("data").substr(0, 9), fd);
    EXPECT_FALSE(tlsc_transport_take_in(ssl));
}
#endif

TEST_F(tlsc_transport, a_peer_that_takes_nothing_more_is_an_error_after_half_a_minute) {
    connect();
    fill_the_way_out();
    time_flies = true;
    EXPECT_FALSE(write("stuck"));
    expect_half_a_minute();
}

TEST_F(tlsc_transport, a_wait_that_is_cut_ends_within_a_second) {
    connect();
    tlsc_transport_read_whole_records(false);
    const auto  begin = std::chrono::steady_clock::now();
    std::thread other([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        tlsc_transport_cut_waits(true);
    });
    EXPECT_EQ(read(), "");
    other.join();
    EXPECT_EQ(error, ECANCELED);
    EXPECT_EQ(error_class, SSL_ERROR_SYSCALL);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(2000));
    EXPECT_EQ(polls, 1);
}

TEST_F(tlsc_transport, a_wait_that_is_cut_does_not_go_on_for_a_peer_that_drips) {
    connect();
    tlsc_transport_read_whole_records(false);
    static const sealed_peer *dripping;
    static std::string        rest;
    dripping    = &peer;
    rest        = peer.seal("drip");
    before_poll = [] {
        if (rest.size() == 40) tlsc_transport_cut_waits(true);
        dripping->send(rest.substr(0, 1));
        rest.erase(0, 1);
        seconds_flown += 1;
    };
    EXPECT_EQ(read(), "");
    EXPECT_EQ(error, ECANCELED);
    EXPECT_EQ(error_class, SSL_ERROR_SYSCALL);
    EXPECT_GE(rest.size(), 36u);
}

TEST_F(tlsc_transport, a_socket_that_was_made_non_blocking_is_not_waited_for) {
    connect();
    tlsc_transport_read_whole_records(false);
    ASSERT_EQ(fcntl(fd, F_SETFL, O_NONBLOCK), 0);
    const std::string bytes = peer.seal("in two parts");
    EXPECT_EQ(read(), "");
    EXPECT_EQ(error_class, SSL_ERROR_WANT_READ);
    peer.deliver(bytes.substr(0, 9), fd);
    EXPECT_EQ(read(), "");
    EXPECT_EQ(error_class, SSL_ERROR_WANT_READ);
    peer.deliver(bytes.substr(9), fd);
    EXPECT_EQ(read(), "in two parts");
    const std::string block(16384, 'w');
    int               written = 0;
    while (write(block)) ++written;
    EXPECT_EQ(error_class, SSL_ERROR_WANT_WRITE);
    std::thread reader([&] {
        for (int i = 0; i <= written; ++i) EXPECT_EQ(peer.open(), block) << i;
    });
    pollfd      room{fd, POLLOUT, 0};
    while (!write(block)) EXPECT_EQ(poll(&room, 1, sealed_peer::patience_msec), 1);  // the same record once more
    reader.join();
    EXPECT_EQ(polls, 0);
}

TEST_F(tlsc_transport, a_socket_whose_flags_cannot_be_read_is_waited_for) {
    connect();
    fill_the_way_out();
    flags_are_hidden = true;
    time_flies       = true;
    EXPECT_FALSE(write("stuck"));
    expect_half_a_minute();
}

// ---- writing --------------------------------------------------------------------------------------------------------

TEST_F(tlsc_transport, what_is_not_collected_goes_out_at_once) {
    connect();
    EXPECT_TRUE(write("now"));
    EXPECT_EQ(peer.open(), "now");
    EXPECT_FALSE(tlsc_transport_has_collected());
    EXPECT_EQ(polls, 0);
}

TEST_F(tlsc_transport, collected_records_go_out_together_in_the_order_of_the_calls) {
    connect();
    tlsc_transport_collect(true);
    for (const char *text : {"1", "2", "3"}) EXPECT_TRUE(write(text));
    EXPECT_TRUE(tlsc_transport_has_collected());
    EXPECT_EQ(peer.receive_raw(20), "");
    EXPECT_EQ(tlsc_transport_flush(true), 1);
    EXPECT_FALSE(tlsc_transport_has_collected());
    for (const char *text : {"1", "2", "3"}) EXPECT_EQ(peer.open(), text);
    EXPECT_EQ(tlsc_transport_flush(true), 1);
    EXPECT_EQ(peer.receive_raw(20), "");
}

TEST_F(tlsc_transport, a_write_outside_the_data_path_goes_out_behind_what_was_collected) {
    connect();
    tlsc_transport_collect(true);
    EXPECT_TRUE(write("data"));
    tlsc_transport_collect(false);
    EXPECT_TRUE(write("at once"));
    EXPECT_FALSE(tlsc_transport_has_collected());
    EXPECT_EQ(peer.open(), "data");
    EXPECT_EQ(peer.open(), "at once");
}

TEST_F(tlsc_transport, a_full_buffer_goes_out_by_itself) {
    connect();
    tlsc_transport_collect(true);
    const std::string packet(1444, 'p');
    int               written = 0;
    while (tlsc_transport_has_collected() || written == 0) {
        ASSERT_TRUE(write(packet));
        ++written;
        if (peer.receive_raw(0).size() > 1444) break;
        ASSERT_LT(written, 30);
    }
    EXPECT_GE(written, 22);
    EXPECT_LE(written, 23);
}

TEST_F(tlsc_transport, no_more_than_thirty_two_records_wait_for_each_other) {
    connect();
    tlsc_transport_collect(true);
    for (int i = 0; i < 31; ++i) EXPECT_TRUE(write("x"));
    EXPECT_TRUE(tlsc_transport_has_collected());
    EXPECT_TRUE(write("x"));
    EXPECT_FALSE(tlsc_transport_has_collected());
    for (int i = 0; i < 32; ++i) EXPECT_EQ(peer.open(), "x");
}

TEST_F(tlsc_transport, a_record_that_does_not_fit_sends_what_was_collected_before_it) {
    connect();
    tlsc_transport_collect(true);
    EXPECT_TRUE(write("first"));
    EXPECT_TRUE(write(std::string(16384, 'L')));
    EXPECT_EQ(peer.receive_raw(0), "");
    EXPECT_TRUE(write(std::string(16384, 'M')));
    EXPECT_EQ(peer.open(), "first");
    EXPECT_EQ(peer.open(), std::string(16384, 'L'));
    EXPECT_TRUE(tlsc_transport_has_collected());
    EXPECT_EQ(tlsc_transport_flush(true), 1);
    EXPECT_EQ(peer.open(), std::string(16384, 'M'));
}

TEST_F(tlsc_transport, whoever_waits_for_the_peer_has_sent_what_was_collected) {
    connect();
    tlsc_transport_collect(true);
    EXPECT_TRUE(write("question"));
    tlsc_transport_collect(false);
    tlsc_transport_read_whole_records(false);
    std::thread answering([&] {
        EXPECT_EQ(peer.open(), "question");
        peer.send(peer.seal("answer"));
    });
    EXPECT_EQ(read(), "answer");
    answering.join();
}

TEST_F(tlsc_transport, what_a_session_has_collected_goes_out_before_the_next_one_has_the_buffers) {
    connect();
    tlsc_transport_collect(true);
    EXPECT_TRUE(write("last words"));
    SSL      *next    = SSL_new(ctx);
    const int next_fd = open_socket();
    ASSERT_EQ(tlsc_transport_attach(next, next_fd), 1);
    EXPECT_FALSE(tlsc_transport_has_collected());
    EXPECT_EQ(peer.open(), "last words");
    SSL_free(next);
    close(next_fd);
}

TEST_F(tlsc_transport, a_failed_flush_says_why_and_nothing_is_written_twice) {
    connect();
    tlsc_transport_collect(true);
    EXPECT_TRUE(write("lost"));
    fill_the_way_out();
    time_flies = true;
    errno      = 0;
    EXPECT_EQ(tlsc_transport_flush(true), 0);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_FALSE(tlsc_transport_has_collected());
    EXPECT_EQ(tlsc_transport_flush(true), 1);
    EXPECT_TRUE(write("lost as well"));
    const long flown = seconds_flown;
    EXPECT_EQ(tlsc_transport_flush(false), 0);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(seconds_flown, flown);
}

TEST_F(tlsc_transport, a_flush_to_a_peer_that_went_away_is_an_error_and_not_a_signal) {
    (void)signal(SIGPIPE, SIG_DFL);
    connect();
    tlsc_transport_collect(true);
    EXPECT_TRUE(write("nobody there"));
    peer.reset();
    pollfd ended{fd, POLLIN, 0};
    ASSERT_EQ(poll(&ended, 1, sealed_peer::patience_msec), 1);
    EXPECT_EQ(tlsc_transport_flush(true), 0);
    EXPECT_TRUE(errno == EPIPE || errno == ECONNRESET) << errno;
}

TEST_F(tlsc_transport, a_write_in_parts_goes_on_where_it_stopped) {
    connect();
    const int narrow = 16384;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &narrow, sizeof(narrow));
    setsockopt(peer.fd(), SOL_SOCKET, SO_RCVBUF, &narrow, sizeof(narrow));
    constexpr size_t  records = 300;
    const std::string text(16384, 'w');
    std::string       seen;
    size_t            sent = 0;
    std::thread       reader([&] {
        for (int i = 0; polls == 0 && i < sealed_peer::patience_msec; ++i)  // until the way is full
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        while (seen.size() < records * text.size()) {
            const std::string part = peer.open();
            if (part.empty()) break;
            seen += part;
        }
    });
    while (sent < records && write(text)) ++sent;
    reader.join();
    EXPECT_EQ(sent, records);
    EXPECT_TRUE(seen == std::string(records * text.size(), 'w')) << seen.size();
    EXPECT_GT(polls, 0);
}

}  // namespace
