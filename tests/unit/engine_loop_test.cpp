// The tunnel thread as a whole: real epoll, timers, TUN interface and TLS, against a small gateway on the loopback.
// Time is in the test's hand; system calls of the set-up fail on demand.

#include <array>
#include <atomic>
#include <csignal>
#include <thread>

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <malloc.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/syscall.h>

#include "tlsc_main.h"
#include "tlsc_openssl.h"
#include "tlsc_session.h"
#include "tlsc_transport.h"
#include "tlsc_turn.h"

#include "hand_clock.h"
#include "sealed_peer.h"
#include "tls_peer.h"
#include "tunnel_fixture.h"

// ---- stand-ins ------------------------------------------------------------------------------------------------------

namespace {

std::atomic<int>         epoll_create_result{1};  // what is returned in place of a descriptor, unless above 0
std::atomic<bool>        calloc_fails;
std::atomic<bool>        tun_open_fails;
std::atomic<int>         create_tun_result{-2};  // what the interface creation returns; -2 for the real one
std::atomic<int>         add_failure;            // adding the n-th descriptor to epoll fails
std::atomic<int>         adds;
std::atomic<int>         forced_add_errno;
std::atomic<int>         mods;
std::atomic<bool>        mod_fails;
std::atomic<int>         undeletable{-1};  // removing this descriptor from epoll fails
std::atomic<int>         max_events_asked;
std::atomic<void *>      events_asked;  // where the events go
std::atomic<int>         timeout_asked;
std::atomic<int>         waits;          // asked for so far
std::atomic<int>         sends;          // to the gateway so far
std::atomic<int>         reports;        // of TLS messages so far
std::atomic<int>         wait_failures;  // so many waits return 0 or -1, in turn
std::atomic<int>         forged_fd{-1};  // the next wait returns one event, of this descriptor
std::atomic<uint32_t>    forged_mask;
std::atomic<bool>        hold_wait;          // no wait returns while this is set
std::atomic<int>         next_class{-1};     // what SSL_get_error says
std::atomic<int>         resolution_result;  // of the question to the controller
std::atomic<int>         resolutions;
std::atomic<uint32_t>    tun_events;  // the mask that the TUN descriptor was registered with
std::mutex               state_mutex;
std::vector<std::string> states;  // what the controller was told of the interface
std::atomic<bool>        retry_read_fails;
std::atomic<bool>        tun_read_gives_0;
std::atomic<int64_t>     seconds_ahead;      // of the monotonic clock as the daemon reads it
std::atomic<int>         first_in_pass{-1};  // its event is put in front of the others of a pass

}  // namespace

extern "C" int __real_epoll_create1(int flags);
extern "C" int __wrap_epoll_create1(int flags) {
    EXPECT_EQ(flags, 0);
    if (epoll_create_result > 0) return __real_epoll_create1(flags);
    errno = EMFILE;
    return epoll_create_result;
}

extern "C" void *__real_calloc(size_t count, size_t size);
extern "C" void *__wrap_calloc(size_t count, size_t size) {
    if (count != 80) return __real_calloc(count, size);
    static std::array<void *, 200> blocks;  // what an early end leaves allocated by contract stays in reach here
    static std::atomic<size_t>     used;
    return blocks.at(used++ % blocks.size()) = calloc_fails ? nullptr : __real_calloc(count, size);
}

extern "C" int __real_open(const char *path, int flags, unsigned mode);
extern "C" int __wrap_open(const char *path, int flags, unsigned mode) {
    if (tun_open_fails && strcmp(path, "/dev/net/tun") == 0) return -1;
    return __real_open(path, flags, mode);
}

extern "C" int32_t __real_tlsc_create_tun(tlsc_session *session);
extern "C" int32_t __wrap_tlsc_create_tun(tlsc_session *session) {
    const int32_t result = create_tun_result;
    if (result == 0) return 0;
    const int32_t real = __real_tlsc_create_tun(session);
    return result == -2 ? real : result;
}

extern "C" int __real_epoll_ctl(int epoll_fd, int operation, int fd, epoll_event *event);
extern "C" int __wrap_epoll_ctl(int epoll_fd, int operation, int fd, epoll_event *event) {
    if (operation == EPOLL_CTL_ADD) {
        if (tlsc_get_sock()->sess && fd == tlsc_get_sock()->sess->tun_fd) tun_events = event->events;
        if (++adds == add_failure) {
            if (forced_add_errno == EEXIST) (void)__real_epoll_ctl(epoll_fd, operation, fd, event);
            errno = forced_add_errno;
            return -1;
        }
    }
    if (operation == EPOLL_CTL_DEL && fd == undeletable) {
        errno = ENOENT;
        return -1;
    }
    mods += operation == EPOLL_CTL_MOD;
    if (operation == EPOLL_CTL_MOD && mod_fails) {
        errno = EPERM;
        return -1;
    }
    return __real_epoll_ctl(epoll_fd, operation, fd, event);
}

extern "C" int __real_epoll_wait(int epoll_fd, epoll_event *events, int max, int timeout);
extern "C" int __wrap_epoll_wait(int epoll_fd, epoll_event *events, int max, int timeout) {
    max_events_asked = max;
    events_asked     = events;
    timeout_asked    = timeout;
    ++waits;
    if (wait_failures > 0) {
        errno = EINTR;
        return wait_failures-- % 2 - 1;
    }
    if (timeout > 0) {  // it passes at once, unless something happens
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        seconds_ahead += timeout / 1000;
        timeout = 0;
    }
    const int count = __real_epoll_wait(epoll_fd, events, max, timeout);
    while (hold_wait) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (count < 1) return count;
    if (const int fd = forged_fd.exchange(-1); fd >= 0) {
        events[0].events  = forged_mask;
        events[0].data.fd = fd;
        return 1;
    }
    // Once more, so that what became ready in between comes in the same pass.
    const int again = __real_epoll_wait(epoll_fd, events, max, 0);
    for (int i = 1; i < again; ++i)
        if (events[i].data.fd == first_in_pass) std::swap(events[0], events[i]);
    return again;
}

extern "C" int __real_clock_gettime(clockid_t clock, timespec *time);
extern "C" int __wrap_clock_gettime(clockid_t clock, timespec *time) {
    const int result = __real_clock_gettime(clock, time);
    if (clock == CLOCK_MONOTONIC) time->tv_sec += seconds_ahead;
    return result;
}

extern "C" void __real_tlsc_ssl_msg_cb(int write_p, int version, int content_type, const void *buf, size_t len,
                                       SSL *ssl, void *arg);
extern "C" void __wrap_tlsc_ssl_msg_cb(int write_p, int version, int content_type, const void *buf, size_t len,
                                       SSL *ssl, void *arg) {
    ++reports;
    __real_tlsc_ssl_msg_cb(write_p, version, content_type, buf, len, ssl, arg);
}

extern "C" long __real_syscall(long number, long a, long b, long c, long d, long e, long f);
extern "C" long __wrap_syscall(long number, long a, long b, long c, long d, long e, long f) {
    sends += number == SYS_sendto;
    return __real_syscall(number, a, b, c, d, e, f);
}

extern "C" int __real_SSL_get_error(const SSL *ssl, int ret);
extern "C" int __wrap_SSL_get_error(const SSL *ssl, int ret) {
    const int forced = next_class.exchange(-1);
    return forced >= 0 ? forced : __real_SSL_get_error(ssl, ret);
}

extern "C" int32_t __wrap_tlsc_request_gw_name_resolution() {
    ++resolutions;
    return resolution_result;
}

extern "C" int32_t __wrap_tlsc_write_tun_intf_state(int32_t state, int32_t cause) {
    const std::lock_guard<std::mutex> guard(state_mutex);
    states.push_back(text_of("%d/%d", state, cause));
    return 1;
}

extern "C" ssize_t __real_read(int fd, void *buffer, size_t size);
extern "C" ssize_t __wrap_read(int fd, void *buffer, size_t size) {
    if (retry_read_fails && fd == tlsc_timers.retry) {
        errno = EIO;
        return -1;
    }
    if (tun_read_gives_0 && tlsc_get_sock()->sess && fd == tlsc_get_sock()->sess->tun_fd) {
        EXPECT_GT(__real_read(fd, buffer, size), 0);  // a packet that stayed queued would come again and again
        errno = EINVAL;
        return 0;
    }
    return __real_read(fd, buffer, size);
}

namespace {

using strings = std::vector<std::string>;

const std::string request = "X-CSTP-Device-ID:device\n";
const std::string good =
    "X-CSTP-Address:10.99.0.0\nX-CSTP-Prefix-Length:24\nX-CSTP-DPD:100\nX-CSTP-Address-Client:10.99.0.7\nX-CSTP-Retry-Time:20\n"
    "X-CSTP-Rekey-Time:600\nX-CSTP-Cookie:oatmeal\n";
const std::string data_mark = "tunnel payload mark";

std::string udp_packet(const char *from, const char *to) {
    std::string packet(28, '\0');
    packet += data_mark;
    packet[0] = 0x45;
    packet[3] = static_cast<char>(packet.size());
    packet[8] = 64;
    packet[9] = 17;
    inet_pton(AF_INET, from, packet.data() + 12);
    inet_pton(AF_INET, to, packet.data() + 16);
    packet[25] = static_cast<char>(packet.size() - 20);
    return packet;
}

std::string dotted(const std::string &packet, size_t offset) {
    char text[INET_ADDRSTRLEN] = "";
    if (packet.size() >= offset + 4) inet_ntop(AF_INET, packet.data() + offset, text, sizeof(text));
    return text;
}

// Its queue is full: the next connection attempt stays without an answer.
class full_listener {
public:
    full_listener() {
        address_.sin_family      = AF_INET;
        address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size           = sizeof(address_);
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr *>(&address_), size), 0);
        EXPECT_EQ(listen(listener_, 0), 0);
        EXPECT_EQ(getsockname(listener_, reinterpret_cast<sockaddr *>(&address_), &size), 0);
        for (int &fd : waiting_) {
            fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
            (void)connect(fd, reinterpret_cast<const sockaddr *>(&address_), size);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ~full_listener() {
        for (int fd : waiting_) close(fd);
        close(listener_);
    }
    uint16_t port() const { return ntohs(address_.sin_port); }

private:
    const int   listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address_{};
    int         waiting_[4];
};

class engine_loop : public tunnel_test {
protected:
    void SetUp() override {
        if (!getenv("PRIVATE_WORLD")) GTEST_SKIP() << "needs root: run through tools/private-world";
        static const bool once = [] {
            tlsc_log_lock_create();
            // The interface's own IPv6 chatter would come between the packets of the tests.
            if (FILE *file = fopen("/proc/sys/net/ipv6/conf/default/disable_ipv6", "w")) {
                fputs("1", file);
                fclose(file);
            }
            return true;
        }();
        (void)once;
        hand_clock::forget();
        calloc_fails = tun_open_fails = hold_wait = retry_read_fails = tun_read_gives_0 = mod_fails = false;
        epoll_create_result                                                                         = 1;
        create_tun_result                                                                           = -2;
        tun_events                                                                                  = 0;
        undeletable = forged_fd = -1;
        add_failure = adds = forced_add_errno = mods = wait_failures = resolution_result = resolutions = 0;
        next_class = first_in_pass = -1;
        states.clear();
        text(conf->svr_addr_ipv4, "127.0.0.1");
        text(conf->cipher_algo, peer_cipher);
        text(conf->tun_interface_name, "loop0");
        text(conf->management_ip, "192.168.1.5");
        text(conf->device_id, "device");
        text(psk_identity, "identity");
        text(psk_key, peer_key);
        conf->ssl_auth_mech = SSL_AUTH_PSK;
        epoll_thread_exited = 0;
        SSL_library_init();  // the 1.0 series: a clean-up has taken away what it needs
        ASSERT_EQ(tlsc_init_ssl_config(), 1);
        ASSERT_EQ(tlsc_create_pipe_for_cli_cmds(), 1);
        ASSERT_NE(tlsc_init_session(), nullptr);
        log.clear();
    }
    void TearDown() override {
        stop();
        if (tlsc_old_transport.fd > 0) tlsc_close_old_transport();
        tlsc_ssl_cleanup(sock->ssl);
        sock->ssl  = nullptr;
        sock->sess = nullptr;
        tlsc_free_session();
        tlsc_close_cli_pipe();
        SSL_CTX_free(tlsc_ssl_ctx);
        tlsc_ssl_ctx = nullptr;
    }

    static void text(char *field, const char *value) { strcpy(field, value); }

    void start() {
        has_ended_ = false;
        thread_    = std::thread([this] {
            EXPECT_EQ(tlsc_start_epoll(nullptr), nullptr);
            has_ended_ = true;
        });
    }
    void stop() {
        hold_wait = false;
        if (!thread_.joinable()) return;
        (void)tlsc_send_exit_client_req();
        thread_.join();
    }
    // Behind a run, for another one in the same test.
    void start_afresh() {
        tlsc_ssl_cleanup(sock->ssl);
        sock->ssl = nullptr;
        if (tlsc_old_transport.fd > 0) tlsc_close_old_transport();
        conf->inner_addr.kind = ADDR_NONE;
        conf->cookie[0]       = '\0';
        tlsc_dp_state         = 1;
        hand_clock::forget();
        log.clear();
    }
    // The thread must end by itself, with an early return.
    void expect_early_end() {
        start();
        const bool by_itself = eventually([this] { return has_ended_.load(); });
        EXPECT_TRUE(by_itself);
        if (by_itself) thread_.join();
        else stop();
        EXPECT_EQ(epoll_thread_exited, 0);
        EXPECT_FALSE(log.contains("exiting"));
    }

    // Starts the thread and brings the tunnel up against the gateway.
    void bring_up(tls_peer &peer, const std::string &response = good) {
        conf->server_port = peer.port();
        start();
        ASSERT_EQ(peer.connection(0).read_record(), wire_frame(CSTP_CONFIG_REQ, request));
        answer(peer, 0, response);
    }
    // Sends the response on this connection and waits until it is taken.
    void answer(tls_peer &peer, size_t number, const std::string &response = good) {
        const size_t before = hand_clock::count("dpd");
        ASSERT_TRUE(peer.connection(number).write(wire_frame(CSTP_CONFIG_RESPONSE, response)));
        ASSERT_TRUE(hand_clock::wait_for("dpd", before + 1));
        at_rest([] {});
    }
    // What the thread owns is touched while it waits for events, or is no more.
    static void at_rest(const std::function<void()> &look) {
        ASSERT_TRUE(tlsc_halt_tunnel_thread(peer_patience_ms / 1000, nullptr));
        look();
        tlsc_resume_tunnel_thread();
    }
    // Counts the thread's sleeps in which it can be halted.
    static void halt_in_every_sleep() {
        halts                    = 0;
        hand_clock::during_sleep = [] {
            if (!tlsc_halt_tunnel_thread(0, nullptr)) return;
            ++halts;
            tlsc_resume_tunnel_thread();
        };
    }
    static inline std::atomic<int> halts;
    // Neither at rest nor at work: it does not come to rest for a while.
    static bool is_inside_openssl() {
        for (int looks = 0; looks < 3; ++looks) {
            const bool halted = tlsc_halt_tunnel_thread(0, nullptr);
            if (!halted && !tlsc_hold_tunnel_thread(0)) return false;  // at work
            tlsc_resume_tunnel_thread();
            if (halted) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return true;
    }
    // Waits until the condition holds when the thread is at rest.
    static bool eventually_at_rest(const std::function<bool()> &condition) {
        return eventually([&] {
            bool holds = false;
            at_rest([&] { holds = condition(); });
            return holds;
        });
    }
    // The next pass has this one event; what the gateway sends to wake the thread up is handled in the pass behind
    // it.
    void forge_event(tls_peer &peer, int fd, uint32_t mask) {
        forged_mask = mask;
        forged_fd   = fd;
        ASSERT_TRUE(peer.connection(0).write(wire_frame(9, "")));
    }
    // What the clean-up and the next initialisation leave to be made.
    void initialise() {
        text(psk_identity, "identity");
        text(psk_key, peer_key);
        tlsc_init_openssl();
        ASSERT_EQ(tlsc_init_ssl_config(), 1);
        ASSERT_EQ(tlsc_create_pipe_for_cli_cmds(), 1);
        ASSERT_NE(tlsc_init_session(), nullptr);
        tlsc_stats_init();
    }
    bool monitor_has_ended() {
        return eventually([this] { return position("epoll monitor thread exiting!!") >= 0; });
    }
    bool connects_without_an_answer() {
        const bool connects = eventually(
            [this] { return logged_like("INFO", "tlsc_create_tcp_conn", "Server port = *"); });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        return connects && teardowns() == 0;
    }
    // The clean-up runs in all its steps, at once.
    void expect_clean_end() {
        states.clear();
        log.clear();
        const auto begin = std::chrono::steady_clock::now();
        tlsc_cleanup_context();
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
        EXPECT_EQ(states, (strings{"0/0"}));
        EXPECT_TRUE(log.text().find("Cleaning up Tls-session and SSL context") < log.text().find("Engine cleanup"));
        EXPECT_TRUE(log.text().find("Engine cleanup") < log.text().find("Freeing up SSL-ctx"));
        EXPECT_TRUE(log.text().find("Freeing up SSL-ctx") < log.text().find("Destroyed the crypto lock array"));
        EXPECT_EQ(tlsc_ssl_ctx, nullptr);
        EXPECT_EQ(sock->ssl, nullptr);
        EXPECT_EQ(sock->sess, nullptr);
        EXPECT_EQ(tlsc_epoll_fd, -1);
        EXPECT_EQ(tlsc_initialized, 0);
        EXPECT_EQ(psk_key[0], '\0');
    }
    bool logged(const std::string &message) {
        return eventually([&] { return position(message) >= 0; });
    }
    size_t teardowns() {
        return log.count("ERROR", engine_file, "tlsc_sock_error", "Closing connection and bringing down tun interface");
    }
    bool torn_down(size_t times = 1) {
        return hand_clock::wait_for("backoff", times) && eventually_at_rest([&] { return teardowns() >= times; });
    }
    // Holds the thread that waits for this peer inside OpenSSL, ends the wait, and sees that nothing happens before
    // the thread is resumed.
    void expect_held_back(tls_peer &peer) {
        ASSERT_TRUE(tlsc_hold_tunnel_thread(0));
        peer.connection(0).hang_up();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_EQ(teardowns(), 0u);
        tlsc_resume_tunnel_thread();
        EXPECT_TRUE(torn_down());
    }

    strings reported_states() {
        const std::lock_guard<std::mutex> guard(state_mutex);
        return states;
    }

    // The device's side of the interface.
    int open_packet_socket() {
        const int fd        = socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, htons(ETH_P_IP));
        place_              = {};
        place_.sll_family   = AF_PACKET;
        place_.sll_protocol = htons(ETH_P_IP);
        place_.sll_ifindex  = static_cast<int>(if_nametoindex("loop0"));
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&place_), sizeof(place_)), 0) << strerror(errno);
        const timeval patience{5, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
        return fd;
    }
    void emit(int packets, const std::string &packet) {
        ASSERT_EQ(
            sendto(packets, packet.data(), packet.size(), 0, reinterpret_cast<sockaddr *>(&place_), sizeof(place_)),
            static_cast<ssize_t>(packet.size()));
    }
    // The next packet from this address that the interface delivers to the device.
    static std::string receive_from(int packets, const char *from) {
        char bytes[2000];
        for (;;) {
            const ssize_t count = recv(packets, bytes, sizeof(bytes), 0);
            if (count < 0) return "";
            std::string packet(bytes, static_cast<size_t>(count));
            if (dotted(packet, 12) == from) return packet;
        }
    }
    // Fills the connection; the gateway reads nothing.
    void fill_the_way_out() {
        at_rest([this] {
            const std::string block(100000, 'x');
            for (size_t size : {block.size(), size_t{1}})
                while (send(sock->sockfd, block.data(), size, MSG_DONTWAIT | MSG_NOSIGNAL) > 0) continue;
        });
    }
    // How often OpenSSL reports a message while one more record from this peer is read.
    int reports_of_a_record(tls_peer &peer) {
        const int  before = reports;
        tlsc_stats stats;
        tlsc_stats_get(&stats);
        const uint64_t responses = stats.dpd_rsp_rx;
        EXPECT_TRUE(peer.connection(0).write(wire_frame(CSTP_DPD_RESPONSE, "")));
        EXPECT_TRUE(eventually_at_rest([&] {
            tlsc_stats_get(&stats);
            return stats.dpd_rsp_rx > responses;
        }));
        return reports - before;
    }
    // The position of the last message like this one, or -1.
    int last_position(const std::string &pattern) const {
        const std::vector<std::string> all = log.messages();
        for (size_t i = all.size(); i > 0; --i)
            if (begins_like(all[i - 1].c_str(), pattern.c_str())) return static_cast<int>(i - 1);
        return -1;
    }
    static bool interface_exists() { return if_nametoindex("loop0") != 0; }

    std::thread       thread_;
    std::atomic<bool> has_ended_{false};
    sockaddr_ll       place_{};
};

// ---- set-up ---------------------------------------------------------------------------------------------------------

TEST_F(engine_loop, a_run_goes_from_connection_to_orderly_end) {
    const int before = open_descriptors();
    int       tun_fd = -1, dpd_fd = -1;
    {
        tls_peer peer;
        bring_up(peer);
        ASSERT_TRUE(logged("TUN-INTF is UP!!"));
        EXPECT_EQ(max_events_asked, 80);
        EXPECT_EQ(timeout_asked, -1);
        EXPECT_EQ(tun_events, static_cast<uint32_t>(EPOLLIN));
        EXPECT_TRUE(interface_exists());
        tun_fd = sock->sess->tun_fd;
        dpd_fd = tlsc_timers.dpd;
        stop();
        EXPECT_TRUE(peer.connection(0).is_closed_by_client());
    }
    EXPECT_FALSE(interface_exists());
    EXPECT_EQ(epoll_thread_exited, 1);
    EXPECT_EQ(exit_client, 1);
    EXPECT_EQ(tlsc_epoll_fd, -1);
    EXPECT_EQ(sock->sockfd, -1);
    EXPECT_EQ(sock->ssl_fd, -1);
    EXPECT_NE(sock->ssl, nullptr);  // released by the clean-up
    EXPECT_EQ(SSL_get_fd(sock->ssl), -1);
    EXPECT_EQ(tlsc_rekey_in_progress, 0);
    EXPECT_EQ(tlsc_backoff_interval, 0u);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(reported_states(), (strings{"1/0", "0/0"}));
    EXPECT_EQ(hand_clock::sleeps(), (std::vector<unsigned>{2}));

    const strings order = {
        "In epoll thread",
        text_of("Clearing the stale commands form CLI pipe, read fd:%d, write fd:%d", cli_pipe_rd_fd.load(),
                cli_pipe_wr_fd.load()),
        "Added interface loop0 to epoll list",
        "Successfully enabled SSL/TLS session to: 127.0.0.1.",
        "Building CSTP-CONFIG-REQ",
        "Got data on SSL socket",
        "TUN-INTF is UP!!",
        "Exit cmd rcvd for child thread, set exit_client flag to true",
        text_of("Successfully deleted fd = %d, to epoll-event", tun_fd),  // the interface goes before the timers
        text_of("Successfully deleted fd = %d, to epoll-event", dpd_fd),
        "TLS Client: epoll thread exiting normally",
        "TLS Client: epoll thread exiting"};
    for (size_t i = 0; i < order.size(); ++i) {
        EXPECT_GE(position(order[i]), 0) << order[i];
        if (i > 0) {
            EXPECT_LT(position(order[i - 1]), position(order[i])) << order[i];
        }
    }
    EXPECT_TRUE(log.has("WARNING", engine_file, "tlsc_start_epoll", "Added interface loop0 to epoll list"));
    EXPECT_TRUE(log.has("WARNING", engine_file, "tlsc_start_epoll", "TLS Client: epoll thread exiting normally"));
    EXPECT_TRUE(log.has("WARNING", engine_file, "tlsc_start_epoll", "TLS Client: epoll thread exiting"));
    EXPECT_TRUE(logged_like("INFO", "tlsc_start_epoll", "Created epoll-fd(~) to handle maximum 80 events"));
    EXPECT_TRUE(
        logged_like("DEBUG", "tlsc_start_epoll", text_of("Pipe-fd(%d) added to epoll-fd(~)", cli_pipe_rd_fd.load())));
    EXPECT_TRUE(logged_like("INFO", "tlsc_start_epoll", "Successfully added Client-socket-fd(~) to epoll-fd"));
    expect_counters({{"ctrl_pkt_tx", 1}, {"ctrl_pkt_rx", 1}, {"tun_alloc", 1}, {"tun_freed", 1}});
}

TEST_F(engine_loop, the_process_wide_events_block_is_the_one_that_events_go_to_and_null_outside_a_run) {
    EXPECT_EQ(tlsc_epoll_events, nullptr);
    tls_peer peer;
    bring_up(peer);
    at_rest([] {
        ASSERT_NE(tlsc_epoll_events, nullptr);
        EXPECT_EQ(tlsc_epoll_events, events_asked);
        EXPECT_GE(malloc_usable_size(tlsc_epoll_events), 80 * sizeof(epoll_event));
    });
    stop();
    EXPECT_EQ(tlsc_epoll_events, nullptr);
}

TEST_F(engine_loop, an_epoll_instance_that_cannot_be_made_ends_the_thread) {
    for (int result : {0, -1}) {
        epoll_create_result = result;
        log.clear();
        expect_early_end();
        EXPECT_EQ(lines_from(engine_file),
                  (strings{"INFO tlsc_start_epoll: In epoll thread",
                           text_of("ERROR tlsc_start_epoll: Could not create epoll-fd, due to error %d", EMFILE)}));
        tlsc_epoll_fd = -1;
    }
}

TEST_F(engine_loop, an_events_block_that_cannot_be_allocated_closes_epoll_and_ends_the_thread) {
    calloc_fails     = true;
    const int before = open_descriptors();
    expect_early_end();
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(tlsc_epoll_fd, -1);
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_start_epoll", "Could not allocate memory for epoll-events block"));
}

TEST_F(engine_loop, what_a_failed_set_up_has_opened_stays_open_until_the_next_one) {
    tun_open_fails   = true;
    const int before = open_descriptors();
    expect_early_end();
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_start_epoll", "Error cloning tun interface"));
    EXPECT_EQ(open_descriptors(), before + 1);
    EXPECT_GT(tlsc_epoll_fd, 0);
    EXPECT_NE(tlsc_epoll_events, nullptr);
}

TEST_F(engine_loop, any_number_of_failed_set_ups_uses_up_no_descriptors_and_the_tunnel_comes_up_behind_them) {
    int after_first = 0;
    for (int failure = 0; failure < 20; ++failure) {
        tun_open_fails    = failure % 2 == 0;
        create_tun_result = 0;
        expect_early_end();
        if (failure == 1) after_first = open_descriptors();
        if (failure % 2 == 1) {
            EXPECT_EQ(open_descriptors(), after_first);
        }
    }
    tun_open_fails    = false;
    create_tun_result = -2;
    tls_peer peer;
    bring_up(peer);
    EXPECT_TRUE(logged("TUN-INTF is UP!!"));
}

TEST_F(engine_loop, a_transport_that_a_failed_set_up_has_left_is_closed_by_the_next_one) {
    tls_peer peer;
    conf->server_port = peer.port();
    add_failure       = 4;  // behind the command pipe, the interface and the guard timer
    forced_add_errno  = ENOMEM;
    expect_early_end();
    EXPECT_TRUE(log.contains("Could not add ipv4 to epoll"));
    EXPECT_TRUE(peer.connection(0).is_still_open());
    add_failure = 0;
    hand_clock::forget();
    start();
    ASSERT_NE(peer.connection(1).read_record(), "");
    answer(peer, 1);
    while (peer.connection(0).read_record() != "") {}
    EXPECT_TRUE(peer.connection(0).is_closed_by_client());
}

TEST_F(engine_loop, an_interface_that_cannot_be_created_ends_the_thread) {
    create_tun_result = 0;
    tlsc_attach_session(sock);
    sock->sess->tun_state = 1;  // of an earlier run
    expect_early_end();
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_start_epoll", "Creation of tun-intf failed"));
    EXPECT_EQ(teardowns(), 0u);
    EXPECT_EQ(sock->sess->tun_state, 0);
    EXPECT_EQ(sock->sess->conn, sock);
    EXPECT_TRUE(is_open(sock->sess->tun_fd));
    close(sock->sess->tun_fd);
}

TEST_F(engine_loop, a_missing_session_ends_the_thread_without_a_crash) {
    tlsc_free_session();
    const int free_number = dup(0);
    close(free_number);
    expect_early_end();
    EXPECT_TRUE(log.contains("Session is Null"));
    EXPECT_TRUE(log.contains("Creation of tun-intf failed"));
    for (int fd = free_number; is_open(fd); ++fd) close(fd);
    tlsc_epoll_fd = -1;
}

TEST_F(engine_loop, an_error_of_the_mtu_setter_does_not_end_the_thread) {
    create_tun_result = EINVAL;
    tls_peer peer;
    bring_up(peer);
    EXPECT_TRUE(logged("TUN-INTF is UP!!"));
}

TEST_F(engine_loop, an_interface_that_epoll_refuses_ends_the_thread) {
    add_failure      = 2;  // behind the command pipe
    forced_add_errno = ENOMEM;
    expect_early_end();
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_start_epoll",
                        text_of("Could not add intf(loop0) to epoll. ErrorNo = %d", ENOMEM)));
    EXPECT_EQ(mods, 0);
    close(sock->sess->tun_fd);
}

TEST_F(engine_loop, an_interface_that_epoll_can_neither_add_nor_update_ends_the_thread) {
    add_failure      = 2;
    forced_add_errno = EEXIST;
    mod_fails        = true;
    expect_early_end();
    EXPECT_TRUE(
        log.has("WARNING", engine_file, "tlsc_start_epoll", "Intf FD already exists in the epoll.. updating event.."));
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_start_epoll",
                        text_of("Could not add intf(loop0) to epoll. ErrorNo = %d", EPERM)));
    EXPECT_EQ(mods, 1);
    EXPECT_GT(tlsc_epoll_fd, 0);  // left open like the interface
    EXPECT_TRUE(interface_exists());
    close(sock->sess->tun_fd);
}

TEST_F(engine_loop, an_interface_that_epoll_knows_already_is_updated) {
    add_failure      = 2;
    forced_add_errno = EEXIST;
    tls_peer peer;
    bring_up(peer);
    EXPECT_EQ(mods, 1);
    EXPECT_TRUE(
        log.has("WARNING", engine_file, "tlsc_start_epoll", "Intf FD already exists in the epoll.. updating event.."));
    EXPECT_TRUE(log.contains("Added interface loop0 to epoll list"));
}

TEST_F(engine_loop, a_command_pipe_that_epoll_refuses_leaves_the_thread_without_commands) {
    add_failure      = 1;
    forced_add_errno = ENOMEM;
    tls_peer peer;
    bring_up(peer);
    EXPECT_TRUE(logged_like("ERROR", "tlsc_start_epoll", "Could not add pipe-fd(~) to epoll-fd(~)"));
    exit_client = 1;
    ASSERT_TRUE(peer.connection(0).write(wire_frame(CSTP_DPD_RESPONSE, "")));
    thread_.join();
    EXPECT_EQ(epoll_thread_exited, 1);
}

TEST_F(engine_loop, without_a_pipe_the_thread_runs_without_commands) {
    tlsc_close_cli_pipe();
    tls_peer peer;
    bring_up(peer);
    EXPECT_FALSE(log.contains("stale commands"));
    exit_client = 2;  // only 1 ends the loop
    ASSERT_TRUE(peer.connection(0).write(wire_frame(CSTP_DPD_RESPONSE, "")));
    ASSERT_TRUE(eventually_at_rest([] { return tlsc_stats_record.dpd_rsp_rx == 1; }));
    ASSERT_TRUE(peer.connection(0).write(wire_frame(CSTP_DPD_RESPONSE, "")));
    ASSERT_TRUE(eventually_at_rest([] { return tlsc_stats_record.dpd_rsp_rx == 2; }));
    exit_client = 1;
    ASSERT_TRUE(peer.connection(0).write(wire_frame(CSTP_DPD_RESPONSE, "")));
    thread_.join();
    EXPECT_EQ(epoll_thread_exited, 1);
}

TEST_F(engine_loop, a_transport_that_epoll_refuses_frees_epoll_and_ends_the_thread) {
    tls_peer peer;
    conf->server_port = peer.port();
    add_failure       = 4;  // pipe, interface, guard timer, transport
    forced_add_errno  = ENOMEM;
    expect_early_end();
    EXPECT_TRUE(log.has("ERROR", engine_file, "tlsc_start_epoll", "Could not add ipv4 to epoll"));
    EXPECT_EQ(tlsc_epoll_fd, -1);
    EXPECT_TRUE(interface_exists());  // left as it is
    close(sock->sess->tun_fd);
    close(sock->sockfd);
    SSL_set_fd(sock->ssl, -1);
    sock->sockfd = -1;
    close(tlsc_timers.guard);
    tlsc_timers.guard = -1;
}

TEST_F(engine_loop, a_command_written_while_no_thread_ran_is_dropped) {
    ASSERT_EQ(tlsc_send_exit_client_req(), 1);
    exit_client = 1;  // set too early as well
    tls_peer peer;
    bring_up(peer);
    EXPECT_TRUE(log.contains("Total number of stale commands cleared from CLI pipe:1"));
    EXPECT_EQ(exit_client, 0);
}

TEST_F(engine_loop, with_the_gateway_unreachable_the_loop_is_entered_and_waits_for_the_backoff) {
    uint16_t port;
    {
        tls_peer gone;
        port = gone.port();
    }
    conf->server_port = port;
    start();
    ASSERT_TRUE(torn_down(2));  // the connection's own and the start's
    EXPECT_TRUE(eventually([&] { return log.has("ERROR", engine_file, "tlsc_start_epoll", "TCP Connection failed"); }));
    EXPECT_TRUE(interface_exists());
    EXPECT_EQ(tun_events, static_cast<uint32_t>(EPOLLIN));
    EXPECT_GE(hand_clock::seconds("backoff"), 10);
    EXPECT_LE(hand_clock::seconds("backoff"), 11);
    EXPECT_EQ(reported_states(), strings{});

    for (size_t failure = 3; failure < 8; ++failure) {  // it never ends because of the network
        hand_clock::expire("backoff");
        ASSERT_TRUE(torn_down(failure));
    }
    EXPECT_EQ(log.count("ERROR", timer_file, "tlsc_start_rekey_proc", "TCP connection failed!!!"), 5u);
    stop();
    EXPECT_EQ(epoll_thread_exited, 1);
    expect_counters({{"tun_alloc", 1}, {"tun_freed", 1}});
}

TEST_F(engine_loop, a_failed_handshake_at_the_start_is_not_called_a_failed_tcp_connection) {
    tls_peer peer(nullptr, "another key");
    conf->server_port = peer.port();
    start();
    ASSERT_TRUE(torn_down());
    stop();
    EXPECT_EQ(teardowns(), 1u);
    EXPECT_FALSE(log.contains("TCP Connection failed"));
}

TEST_F(engine_loop, an_exit_command_during_a_connection_attempt_takes_effect_behind_it) {
    tls_peer peer;
    peer.meet_with(tls_peer::manner::nothing);
    conf->server_port = peer.port();
    start();
    (void)peer.connection(0);
    ASSERT_EQ(tlsc_send_exit_client_req(), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(epoll_thread_exited, 0);
    EXPECT_EQ(exit_client, 0);
    peer.connection(0).hang_up();
    thread_.join();
    EXPECT_EQ(epoll_thread_exited, 1);
    EXPECT_TRUE(log.contains("Could not build a SSL session to: 127.0.0.1, Initiate session and ssl cleanup"));
}

TEST_F(engine_loop, a_failed_wait_is_logged_and_the_next_pass_follows) {
    wait_failures = 3;
    tls_peer peer;
    bring_up(peer);
    EXPECT_EQ(log.count("ERROR", engine_file, "tlsc_start_epoll", "EPOLL Wait timed out"), 3u);
}

TEST_F(engine_loop, the_data_path_state_is_not_reset_when_a_thread_starts) {
    tls_peer peer;
    conf->server_port = peer.port();
    tlsc_dp_state     = 0;
    start();
    ASSERT_NE(peer.connection(0).read_record(), "");
    stop();
    EXPECT_EQ(tlsc_dp_state, 0);
}

TEST_F(engine_loop, a_peer_that_goes_away_does_not_kill_the_process) {
    signal(SIGPIPE, SIG_DFL);
    tls_peer peer;
    bring_up(peer);
    EXPECT_EQ(signal(SIGPIPE, SIG_IGN), SIG_IGN);
}

// ---- traffic --------------------------------------------------------------------------------------------------------

TEST_F(engine_loop, packets_go_both_ways_with_their_addresses_exchanged) {
    tls_peer peer;
    bring_up(peer);
    const int packets = open_packet_socket();
    emit(packets, udp_packet("192.168.1.5", "8.8.8.8"));
    const std::string frame = peer.connection(0).read_record();
    ASSERT_EQ(frame.size(), 8 + 28 + data_mark.size());
    EXPECT_EQ(frame.substr(0, 8), wire_frame(CSTP_DATA, frame.substr(8)).substr(0, 8));
    EXPECT_EQ(dotted(frame, 8 + 12), "10.99.0.7");
    EXPECT_EQ(frame.substr(8 + 28), data_mark);

    ASSERT_TRUE(peer.connection(0).write(wire_frame(CSTP_DATA, udp_packet("8.8.8.8", "10.99.0.7"))));
    char    bytes[2000];
    ssize_t count;
    do count = recv(packets, bytes, sizeof(bytes), 0);
    while (count > 0 && dotted(std::string(bytes, static_cast<size_t>(count)), 12) != "8.8.8.8");
    ASSERT_GT(count, 0);
    EXPECT_EQ(dotted(std::string(bytes, static_cast<size_t>(count)), 16), "192.168.1.5");
    close(packets);
    stop();
    EXPECT_TRUE(log.has("DEBUG", engine_file, "tlsc_start_epoll", "Got data on Tun interface"));
    EXPECT_TRUE(log.has("DEBUG", engine_file, "tlsc_start_epoll", "Got data on SSL socket"));
    expect_counters({{"ctrl_pkt_tx", 1},
                     {"ctrl_pkt_rx", 1},
                     {"tun_alloc", 1},
                     {"tun_freed", 1},
                     {"data_pkt_tx", 1},
                     {"data_pkt_rx", 1},
                     {"tun_pkt_rx", 1},
                     {"tun_pkt_tx", 1}});
}

TEST_F(engine_loop, until_the_first_teardown_packets_are_sent_even_before_the_response) {
    tls_peer peer;
    conf->server_port = peer.port();
    start();
    ASSERT_EQ(peer.connection(0).read_record(), wire_frame(CSTP_CONFIG_REQ, request));
    tlsc_log_level = LOG_INFO;  // packets that stay queued would log without end
    ASSERT_EQ(system("ip link set loop0 up"), 0);
    const int packets = open_packet_socket();
    emit(packets, udp_packet("192.168.1.5", "8.8.8.8"));
    const std::string frame = peer.connection(0).read_record();
    ASSERT_EQ(frame.size(), 8 + 28 + data_mark.size());
    EXPECT_EQ(frame[6], CSTP_DATA);
    EXPECT_EQ(dotted(frame, 8 + 12), "0.0.0.0");  // no address is assigned yet
    EXPECT_EQ(dotted(frame, 8 + 16), "8.8.8.8");
    close(packets);
}

TEST_F(engine_loop, packets_stay_queued_while_the_data_path_is_down) {
    tls_peer peer;
    resolution_result = 1;
    bring_up(peer);
    const int packets = open_packet_socket();
    hand_clock::expire("rekey");  // stops the data path while the controller is asked
    ASSERT_TRUE(hand_clock::wait_for("fqdn"));
    emit(packets, udp_packet("192.168.1.5", "8.8.8.8"));
    ASSERT_TRUE(eventually(
        [&] { return log.count("DEBUG", engine_file, "tlsc_start_epoll", "DP STATE DOWN") >= 3; }));  // at every wakeup
    EXPECT_EQ(tlsc_stats_record.tun_pkt_rx, 0u);
    tlsc_log_level = LOG_INFO;  // it logs at every turn
    hand_clock::expire("fqdn");
    const std::string second = peer.connection(1).read_record();
    EXPECT_EQ(second.substr(6, 1), "\x01");
    answer(peer, 1);
    const std::string frame = peer.connection(1).read_record();
    EXPECT_EQ(frame.substr(frame.size() - data_mark.size()), data_mark);
    close(packets);
}

TEST_F(engine_loop, two_frames_in_two_records_of_one_segment_are_both_handled) {
    tls_peer peer;
    bring_up(peer);
    hold_wait = true;
    ASSERT_TRUE(peer.connection(0).write(wire_frame(9, "")));
    ASSERT_TRUE(peer.connection(0).write(wire_frame(9, "")));
    hold_wait = false;
    EXPECT_TRUE(eventually_at_rest([] { return tlsc_stats_record.invalid_rx == 2; }));
    stop();
    EXPECT_EQ(teardowns(), 0u);
}

TEST_F(engine_loop, the_processor_is_given_nowhere_to_report_to_so_a_bad_frame_does_not_end_the_connection) {
    tls_peer peer;
    bring_up(peer);
    for (const std::string &bad :
         {wire_frame(1, "x"), wire_frame(77, ""), wire_frame(CSTP_CONFIG_RESPONSE, "no address"), std::string("S"),
          std::string("STF\x01\xff\xff\x00\x00", 8)})
        ASSERT_TRUE(peer.connection(0).write(bad));
    ASSERT_TRUE(peer.connection(0).write(wire_frame(CSTP_DPD_RESPONSE, "")));
    EXPECT_TRUE(eventually_at_rest([] { return tlsc_stats_record.dpd_rsp_rx == 1; }));
    EXPECT_EQ(teardowns(), 0u);
    EXPECT_TRUE(peer.connection(0).is_still_open());
    EXPECT_FALSE(log.contains("Processing CSTP frame returned error"));
}

TEST_F(engine_loop, nothing_of_an_earlier_frame_is_found_in_a_later_one) {
    tls_peer peer;
    bring_up(peer);
    const std::string earlier = std::string(good.size(), ' ') + "X-CSTP-DPD:77\n";
    std::string       later   = wire_frame(CSTP_CONFIG_RESPONSE, earlier);  // announces more than the record has
    later.resize(8);
    later += good;
    later.replace(later.find("X-CSTP-DPD:100\n"), 15, std::string(15, ' '));
    ASSERT_TRUE(peer.connection(0).write(wire_frame(9, earlier)));
    ASSERT_TRUE(peer.connection(0).write(later));
    ASSERT_TRUE(eventually_at_rest([] { return tlsc_stats_record.ctrl_pkt_rx == 2; }));
    stop();
    EXPECT_EQ(conf->dpd_interval, 100);
}

TEST_F(engine_loop, a_record_of_more_than_one_read_is_taken_in_pieces_without_a_crash) {
    tls_peer peer;
    bring_up(peer);
    ASSERT_TRUE(peer.connection(0).write(wire_frame(9, std::string(15000, '\x09'))));
    EXPECT_TRUE(eventually_at_rest([] { return tlsc_stats_record.invalid_rx >= 1; }));
    EXPECT_EQ(teardowns(), 0u);
}

TEST_F(engine_loop, a_read_result_of_2_or_3_keeps_the_connection) {
    for (int error : {SSL_ERROR_WANT_READ, SSL_ERROR_WANT_WRITE}) {
        tls_peer peer;
        bring_up(peer);
        next_class = error;
        peer.connection(0).send_raw(std::string("\x17\x03\x03\x00\x01x", 6));  // a record that cannot be read
        ASSERT_TRUE(eventually([&] {
            return log.has("ERROR", engine_file, "tlsc_start_epoll",
                           text_of("SSL returned error = %d, while trying to read data", error));
        }));
        hand_clock::expire("rekey");  // the loop goes on
        EXPECT_NE(peer.connection(1).read_record(), "");
        EXPECT_EQ(teardowns(), 0u);
        stop();
        start_afresh();
    }
}

TEST_F(engine_loop, a_broken_record_tears_down) {
    tls_peer peer;
    bring_up(peer);
    peer.connection(0).send_raw(std::string("\x17\x03\x03\x00\x01x", 6));
    ASSERT_TRUE(torn_down());
    EXPECT_TRUE(log.contains("SSL returned error = 0, while trying to read data"));
    EXPECT_TRUE(eventually([&] { return reported_states() == strings{"1/0", "0/0"}; }));
    EXPECT_TRUE(interface_exists());
}

TEST_F(engine_loop, a_hang_up_tears_down_before_any_read) {
    tls_peer peer;
    bring_up(peer);
    hold_wait = true;
    ASSERT_TRUE(peer.connection(0).write(wire_frame(9, "lost")));
    peer.connection(0).send_fin();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    hold_wait = false;
    ASSERT_TRUE(torn_down());
    EXPECT_TRUE(
        logged_like("ERROR", "tlsc_start_epoll", "Error [8193] occured on SSL-Socket-fd(~).. closing connection"));
    EXPECT_EQ(tlsc_stats_record.invalid_rx, 0u);
    EXPECT_FALSE(log.contains("SSL Read error"));
}

TEST_F(engine_loop, an_error_or_a_hang_up_in_any_form_tears_down_and_nothing_is_read) {
    for (bool on_tun : {false, true})
        for (uint32_t mask : {EPOLLERR, EPOLLHUP, EPOLLRDHUP}) {
            tls_peer peer;
            bring_up(peer);
            tlsc_stats_clear();
            log.clear();
            const int fd = on_tun ? sock->sess->tun_fd : sock->sockfd;
            forge_event(peer, fd, EPOLLIN | mask);
            ASSERT_TRUE(torn_down());
            EXPECT_TRUE(log.has("ERROR", engine_file, on_tun ? "tlsc_start_epoll" : "tlsc_start_epoll",
                                text_of("Error [%u] occured on %s-Socket-fd(%d).. closing connection", EPOLLIN | mask,
                                        on_tun ? "TUN" : "SSL", fd)));
            EXPECT_FALSE(log.contains("Got data on"));
            EXPECT_EQ(tlsc_stats_record.invalid_rx, 0u);
            stop();
            start_afresh();
        }
}

TEST_F(engine_loop, an_event_of_an_unknown_descriptor_is_only_logged) {
    tls_peer peer;
    bring_up(peer);
    forge_event(peer, 999, EPOLLIN | EPOLLERR);
    EXPECT_TRUE(eventually([&] {
        return log.has("ERROR", engine_file, "tlsc_start_epoll",
                       "Epoll indicated event on an unknown socket with ltype = 0");
    }));
    EXPECT_TRUE(eventually_at_rest([] { return tlsc_stats_record.invalid_rx == 1; }));  // the waking frame
    stop();
    EXPECT_EQ(teardowns(), 0u);
}

TEST_F(engine_loop, a_reset_tears_down) {
    tls_peer peer;
    bring_up(peer);
    peer.connection(0).reset();
    ASSERT_TRUE(torn_down());
    EXPECT_TRUE(logged_like("ERROR", "tlsc_start_epoll", "Error [~] occured on SSL-Socket-fd(~).. closing connection"));
}

TEST_F(engine_loop, an_interface_that_is_deleted_from_outside_is_torn_down_once_and_the_next_run_makes_another) {
    tls_peer peer;
    bring_up(peer);
    ASSERT_EQ(system("ip link delete loop0 type tun"), 0);
    ASSERT_TRUE(eventually([this] { return has_ended_.load(); }));
    thread_.join();
    EXPECT_EQ(epoll_thread_exited, 0);  // an early end: the monitor starts the client again
    EXPECT_FALSE(log.contains("exiting"));
    EXPECT_EQ(teardowns(), 1u);
    size_t errors = 0;
    for (const log_line &line : log.entries())
        errors += begins_like(line.message.c_str(), "Error [~] occured on TUN-Socket-fd(~).. closing connection");
    EXPECT_EQ(errors, 1u);
    EXPECT_EQ(states.back(), "0/0");
    EXPECT_TRUE(peer.connection(0).is_closed_by_client());

    start_afresh();
    start();
    ASSERT_NE(peer.connection(1).read_record(), "");
    answer(peer, 1);
    EXPECT_EQ(states.back(), "1/0");
}

TEST_F(engine_loop, an_interface_that_is_deleted_while_the_tunnel_is_down_ends_the_run_too) {
    tls_peer peer;
    bring_up(peer);
    peer.connection(0).hang_up();
    ASSERT_TRUE(torn_down());
    ASSERT_EQ(system("ip link delete loop0 type tun"), 0);
    ASSERT_TRUE(eventually([this] { return has_ended_.load(); }));
    thread_.join();
    EXPECT_EQ(epoll_thread_exited, 0);  // an early end: the monitor starts the client again
    EXPECT_EQ(teardowns(), 2u);
}

TEST_F(engine_loop, an_interface_that_cannot_be_brought_up_is_torn_down_and_the_next_run_makes_another) {
    tls_peer peer;
    conf->server_port = peer.port();
    start();
    ASSERT_EQ(peer.connection(0).read_record(), wire_frame(CSTP_CONFIG_REQ, request));
    ASSERT_EQ(system("ip link set dev loop0 name loop1"), 0);  // nothing has the name any more
    ASSERT_TRUE(peer.connection(0).write(wire_frame(CSTP_CONFIG_RESPONSE, good)));
    ASSERT_TRUE(eventually([this] { return has_ended_.load(); }));
    thread_.join();
    EXPECT_EQ(epoll_thread_exited, 0);  // an early end: the monitor starts the client again
    EXPECT_TRUE(log.contains("Could not change the tun-interface(loop0) state"));
    EXPECT_EQ(teardowns(), 1u);
    EXPECT_TRUE(peer.connection(0).is_closed_by_client());

    start_afresh();
    start();
    ASSERT_NE(peer.connection(1).read_record(), "");
    answer(peer, 1);
    EXPECT_EQ(states.back(), "1/0");
}

TEST_F(engine_loop, a_tun_read_of_0_bytes_is_counted_by_the_stale_errno_and_tears_down) {
    tls_peer peer;
    bring_up(peer);
    const int packets = open_packet_socket();
    tlsc_stats_clear();
    tun_read_gives_0 = true;
    emit(packets, udp_packet("192.168.1.5", "8.8.8.8"));
    ASSERT_TRUE(torn_down());
    stop();
    EXPECT_TRUE(peer.connection(0).is_closed_by_client());
    expect_counters({{"tun_read_errors_total", 1}, {"tun_read_errors_einval", 1}, {"tun_freed", 1}});
    close(packets);
}

TEST_F(engine_loop, a_packet_that_cannot_be_sent_tears_down) {
    tls_peer peer;
    bring_up(peer);
    const int packets = open_packet_socket();
    at_rest([&] { sock->ssl_up = 0; });  // the write of the frame fails
    emit(packets, udp_packet("192.168.1.5", "8.8.8.8"));
    ASSERT_TRUE(torn_down());
    EXPECT_TRUE(log.contains("Null ptr received for sock/buffer/sock->ssl_up"));
    close(packets);
}

TEST_F(engine_loop, a_later_event_of_a_closed_descriptor_is_only_logged_even_when_its_number_is_used_again) {
    tls_peer peer;
    bring_up(peer);
    // The command reconnects to a port where nobody listens; the teardown closes the transport and the backoff
    // timer takes its number. The transport's own event of the same pass comes after that.
    uint16_t dead;
    {
        tls_peer gone;
        dead = gone.port();
    }
    conf->server_port = dead;
    first_in_pass     = cli_pipe_rd_fd.load();
    hold_wait         = true;
    tlsc_gw_addr gw{};
    gw.kind = ADDR_IPV4;
    inet_pton(AF_INET, "127.0.0.1", gw.ipv4);
    ASSERT_EQ(tlsc_send_gw_ip(gw), 1);
    ASSERT_TRUE(peer.connection(0).write(wire_frame(9, "")));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    hold_wait = false;
    ASSERT_TRUE(torn_down());
    EXPECT_TRUE(logged("Epoll indicated event on an unknown socket with ltype = 0"));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(teardowns(), 1u);
    EXPECT_EQ(resolutions, 0);  // no backoff expiry was handled
    EXPECT_EQ(hand_clock::count("backoff"), 1u);
}

TEST_F(engine_loop, a_later_event_of_a_closed_timer_is_not_taken_for_one_of_the_new_connection) {
    tls_peer peer;
    bring_up(peer);
    // The command stops all timers and connects anew; the socket takes the number of a timer that has expired in
    // the same pass.
    const int expired = tlsc_timers.rekey;
    first_in_pass     = cli_pipe_rd_fd.load();
    log.clear();
    hold_wait = true;
    tlsc_gw_addr gw{};
    gw.kind = ADDR_IPV4;
    inet_pton(AF_INET, "127.0.0.1", gw.ipv4);
    ASSERT_EQ(tlsc_send_gw_ip(gw), 1);
    hand_clock::expire("rekey");
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    hold_wait = false;
    ASSERT_NE(peer.connection(1).read_record(), "");
    EXPECT_TRUE(logged("Epoll indicated event on an unknown socket with ltype = 0"));
    EXPECT_EQ(sock->sockfd, expired);
    EXPECT_FALSE(log.contains("Got data on SSL socket"));
    EXPECT_EQ(tlsc_stats_record.rekey_attempts, 0u);
    answer(peer, 1);
}

// ---- timers in the loop ---------------------------------------------------------------------------------------------

TEST_F(engine_loop, dead_peer_detection_asks_four_times_and_then_gives_up) {
    tls_peer peer;
    bring_up(peer);
    const std::string dpd = wire_frame(CSTP_DPD_REQ, "");
    hand_clock::expire("dpd");
    EXPECT_EQ(peer.connection(0).read_record(), dpd);
    ASSERT_TRUE(hand_clock::wait_for("retry"));
    EXPECT_EQ(hand_clock::seconds("retry"), 20);
    for (int retry = 1; retry <= 3; ++retry) {
        hand_clock::expire("retry");
        EXPECT_EQ(peer.connection(0).read_record(), dpd);
    }
    hand_clock::expire("retry");
    ASSERT_TRUE(torn_down());
    EXPECT_TRUE(peer.connection(0).is_closed_by_client());
    EXPECT_TRUE(log.contains("Retry count exceeded"));
    EXPECT_EQ(tlsc_stats_record.dpd_req_tx, 4u);
}

TEST_F(engine_loop, a_dpd_response_keeps_the_connection_and_arms_the_timer_again) {
    tls_peer peer;
    bring_up(peer);
    for (size_t round = 1; round <= 3; ++round) {
        hand_clock::expire("dpd");
        EXPECT_EQ(peer.connection(0).read_record(), wire_frame(CSTP_DPD_REQ, ""));
        ASSERT_TRUE(hand_clock::wait_for("retry", round));
        hand_clock::expire("retry");
        EXPECT_EQ(peer.connection(0).read_record(), wire_frame(CSTP_DPD_REQ, ""));
        ASSERT_TRUE(peer.connection(0).write(wire_frame(CSTP_DPD_RESPONSE, "")));
        ASSERT_TRUE(hand_clock::wait_for("dpd", round + 1));
        ASSERT_TRUE(eventually_at_rest([&] { return tlsc_stats_record.dpd_rsp_rx == round; }));
    }
    EXPECT_EQ(teardowns(), 0u);
    EXPECT_EQ(tlsc_retry_ref, 0);
}

TEST_F(engine_loop, a_retry_timer_that_cannot_be_read_is_handled_all_the_same) {
    tls_peer peer;
    bring_up(peer);
    hand_clock::expire("dpd");
    (void)peer.connection(0).read_record();
    ASSERT_TRUE(hand_clock::wait_for("retry"));
    retry_read_fails = true;
    hand_clock::expire("retry");
    EXPECT_EQ(peer.connection(0).read_record(), wire_frame(CSTP_DPD_REQ, ""));
    retry_read_fails = false;
    EXPECT_TRUE(log.has("ERROR", timer_file, "tlsc_start_epoll",
                        text_of("Retry timer fd read error, ret1=-1, errstr=%s", strerror(EIO))));
}

TEST_F(engine_loop, a_rekey_builds_a_new_connection_and_closes_the_old_one_with_the_response) {
    tls_peer peer;
    bring_up(peer);
    hand_clock::expire("rekey");
    EXPECT_EQ(
        peer.connection(1).read_record(),
        wire_frame(CSTP_CONFIG_REQ, "X-CSTP-Address:10.99.0.7\nX-CSTP-Device-ID:device\nX-CSTP-Cookie:oatmeal\n"));
    EXPECT_TRUE(log.contains("FQDN Resoln failed, try rekeying with previous GW IP"));
    EXPECT_TRUE(peer.connection(0).is_still_open());
    EXPECT_EQ(tlsc_stats_record.rekey_attempts, 1u);
    EXPECT_EQ(tlsc_stats_record.rekey_success, 0u);
    answer(peer, 1);
    EXPECT_TRUE(peer.connection(0).is_closed_by_client());
    EXPECT_EQ(tlsc_stats_record.rekey_success, 1u);
    EXPECT_EQ(reported_states(), (strings{"1/0"}));  // the interface stayed up
    EXPECT_EQ(teardowns(), 0u);
    hand_clock::expire("rekey");  // and once more on the new one
    EXPECT_NE(peer.connection(2).read_record(), "");
    answer(peer, 2);
    EXPECT_TRUE(peer.connection(1).is_closed_by_client());
    stop();
    EXPECT_EQ(tlsc_stats_record.rekey_success, 2u);
}

TEST_F(engine_loop, a_rekey_waits_for_the_controllers_answer_and_takes_its_address) {
    tls_peer peer;
    resolution_result = 1;
    bring_up(peer);
    hand_clock::expire("rekey");
    ASSERT_TRUE(hand_clock::wait_for("fqdn"));
    EXPECT_EQ(hand_clock::seconds("fqdn"), 30);
    EXPECT_EQ(peer.connections(), 1u);
    tlsc_gw_addr gw{};
    gw.kind = ADDR_IPV4;
    inet_pton(AF_INET, "127.0.0.1", gw.ipv4);
    strcpy(conf->svr_addr_ipv4, "192.0.2.1");
    ASSERT_EQ(tlsc_send_gw_ip(gw), 1);
    EXPECT_NE(peer.connection(1).read_record(), "");
    answer(peer, 1);
    EXPECT_STREQ(conf->svr_addr_ipv4, "127.0.0.1");
    EXPECT_EQ(tlsc_stats_record.rekey_success, 1u);
}

TEST_F(engine_loop, an_unanswered_question_goes_on_with_the_previous_address) {
    tls_peer peer;
    resolution_result = 1;
    bring_up(peer);
    hand_clock::expire("rekey");
    ASSERT_TRUE(hand_clock::wait_for("fqdn"));
    ASSERT_TRUE(peer.connection(0).write(wire_frame(9, "")));  // the old connection still serves
    EXPECT_TRUE(eventually_at_rest([] { return tlsc_stats_record.invalid_rx == 1; }));
    hand_clock::expire("fqdn");
    EXPECT_NE(peer.connection(1).read_record(), "");
    answer(peer, 1);
    EXPECT_EQ(tlsc_stats_record.rekey_success, 1u);
}

TEST_F(engine_loop, an_ipv6_answer_triggers_the_new_transport_to_the_previous_address) {
    tls_peer peer;
    resolution_result = 1;
    bring_up(peer);
    hand_clock::expire("rekey");
    ASSERT_TRUE(hand_clock::wait_for("fqdn"));
    tlsc_gw_addr gw{};
    gw.kind = ADDR_IPV6;
    ASSERT_EQ(tlsc_send_gw_ip(gw), 1);
    EXPECT_NE(peer.connection(1).read_record(), "");
    EXPECT_TRUE(log.contains("IPv6 ADDR not supported"));
}

TEST_F(engine_loop, the_guard_gives_up_a_connection_without_a_response) {
    tls_peer peer;
    conf->server_port = peer.port();
    start();
    (void)peer.connection(0).read_record();
    ASSERT_TRUE(hand_clock::wait_for("guard"));
    EXPECT_EQ(hand_clock::seconds("guard"), 10);
    hand_clock::expire("guard");
    ASSERT_TRUE(torn_down());
    EXPECT_TRUE(peer.connection(0).is_closed_by_client());
    EXPECT_EQ(tlsc_stats_record.rekey_attempts, 0u);

    hand_clock::expire("backoff");  // and it comes back
    EXPECT_NE(peer.connection(1).read_record(), "");
    answer(peer, 1);
    EXPECT_EQ(tlsc_stats_record.rekey_success, 0u);
    EXPECT_EQ(tlsc_backoff_interval, 0u);
}

TEST_F(engine_loop, the_guard_of_a_rekey_closes_both_connections) {
    tls_peer peer;
    bring_up(peer);
    hand_clock::expire("rekey");
    (void)peer.connection(1).read_record();
    ASSERT_TRUE(hand_clock::wait_for("guard", 2));
    hand_clock::expire("guard");
    ASSERT_TRUE(torn_down());
    EXPECT_TRUE(peer.connection(0).is_closed_by_client());
    EXPECT_TRUE(peer.connection(1).is_closed_by_client());
    EXPECT_TRUE(logged_like("DEBUG", "tlsc_start_epoll", "Closing the old transport-fd(~)"));
    EXPECT_EQ(tlsc_old_transport.fd, -1);
    EXPECT_EQ(tlsc_timers.guard, -1);
}

TEST_F(engine_loop, an_expired_timer_that_epoll_does_not_know_is_closed_and_handled_all_the_same) {
    tls_peer peer;
    resolution_result = 1;
    bring_up(peer);
    const auto expire_unknown = [&](const char *name, int fd) {
        undeletable = fd;
        hand_clock::expire(name);
    };
    int fd = tlsc_timers.rekey;
    expire_unknown("rekey", fd);
    ASSERT_TRUE(hand_clock::wait_for("fqdn"));
    EXPECT_TRUE(log.has("ERROR", timer_file, "tlsc_start_epoll",
                        text_of("Couldnt delete the rekey-timer-fd(%d) after rekeying", fd)));

    fd = tlsc_timers.fqdn;
    expire_unknown("fqdn", fd);
    EXPECT_NE(peer.connection(1).read_record(), "");
    EXPECT_TRUE(log.has("ERROR", timer_file, "tlsc_start_epoll",
                        text_of("Couldnt delete the fqdn-resolution-timer-fd(%d) after fqdn-resol timer expiry", fd)));

    ASSERT_TRUE(hand_clock::wait_for("guard", 2));
    fd = tlsc_timers.guard;
    expire_unknown("guard", fd);
    ASSERT_TRUE(torn_down());
    EXPECT_TRUE(log.has("ERROR", timer_file, "tlsc_start_epoll",
                        text_of("Couldnt delete the guard-timer-fd(%d) upon expiry", fd)));

    fd = tlsc_timers.backoff;
    expire_unknown("backoff", fd);
    ASSERT_TRUE(hand_clock::wait_for("fqdn", 2));
    EXPECT_TRUE(log.has("ERROR", timer_file, "tlsc_start_epoll",
                        text_of("Couldnt delete the backoff-timer-fd(%d) after rekeying", fd)));
    undeletable = -1;
    stop();
    for (int32_t slot : {tlsc_timers.dpd, tlsc_timers.retry, tlsc_timers.rekey, tlsc_timers.fqdn, tlsc_timers.guard,
                         tlsc_timers.backoff})
        EXPECT_EQ(slot, -1);
}

TEST_F(engine_loop, a_reconnection_after_a_backoff_asks_the_controller_but_is_no_rekey) {
    tls_peer peer;
    bring_up(peer);
    peer.connection(0).reset();
    ASSERT_TRUE(torn_down());
    hand_clock::expire("backoff");
    EXPECT_EQ(peer.connection(1).read_record(),
              wire_frame(CSTP_CONFIG_REQ, "X-CSTP-Address:10.99.0.7\nX-CSTP-Device-ID:device\n"));  // no cookie
    answer(peer, 1);
    EXPECT_EQ(resolutions, 1);
    EXPECT_EQ(tlsc_stats_record.rekey_attempts, 0u);
    EXPECT_EQ(tlsc_stats_record.rekey_success, 0u);
    EXPECT_EQ(reported_states(), (strings{"1/0", "0/0", "1/0"}));
    peer.connection(1).reset();
    ASSERT_TRUE(torn_down(2));
    EXPECT_EQ(hand_clock::seconds("backoff"), 10);  // a good response starts it anew
}

TEST_F(engine_loop, a_rekey_whose_connection_fails_ends_in_the_backoff_and_succeeds_later) {
    tls_peer peer;
    bring_up(peer);
    peer.meet_with(tls_peer::manner::hang_up);
    hand_clock::expire("rekey");
    ASSERT_TRUE(torn_down());
    EXPECT_TRUE(peer.connection(0).is_closed_by_client());
    (void)peer.connection(1);
    EXPECT_EQ(tlsc_rekey_in_progress, 1);
    peer.meet_with(tls_peer::manner::handshake);
    hand_clock::expire("backoff");
    EXPECT_NE(peer.connection(2).read_record(), "");
    answer(peer, 2);
    EXPECT_EQ(tlsc_stats_record.rekey_success, 1u);  // the flag outlived the failure
}

TEST_F(engine_loop, events_of_one_pass_are_handled_in_the_order_epoll_gives_them) {
    tls_peer peer;
    bring_up(peer);
    for (size_t round = 1; round <= 2; ++round) {
        const bool socket_first = round == 1;
        first_in_pass           = socket_first ? sock->sockfd : tlsc_timers.dpd;
        log.clear();
        hold_wait = true;
        ASSERT_TRUE(peer.connection(0).write(wire_frame(9, "")));
        hand_clock::expire("dpd");
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        hold_wait = false;
        EXPECT_EQ(peer.connection(0).read_record(), wire_frame(CSTP_DPD_REQ, ""));
        ASSERT_TRUE(eventually([&] { return log.contains("Receieved invalid cstp frame(9)"); }));
        EXPECT_EQ(log.text().find("Receieved invalid cstp frame(9)") < log.text().find("DPD timer expiry event"),
                  socket_first);
        ASSERT_TRUE(peer.connection(0).write(wire_frame(CSTP_DPD_RESPONSE, "")));
        ASSERT_TRUE(hand_clock::wait_for("dpd", round + 1));
    }
}

TEST_F(engine_loop, nothing_is_left_open_after_many_failures_and_rekeys) {
    tls_peer peer;
    bring_up(peer);
    size_t number = 0;
    int    before = -1;
    for (int round = 0; round < 10; ++round) {
        hand_clock::expire("rekey");
        ++number;
        ASSERT_NE(peer.connection(number).read_record(), "");
        answer(peer, number);
        ASSERT_TRUE(peer.connection(number - 1).is_closed_by_client());
        peer.connection(number - 1).hang_up();
        peer.connection(number).reset();
        ASSERT_TRUE(torn_down(static_cast<size_t>(round) + 1));
        hand_clock::expire("backoff");
        ++number;
        ASSERT_NE(peer.connection(number).read_record(), "");
        answer(peer, number);
        if (round == 0) before = open_descriptors();
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(engine_loop, a_run_that_ends_in_a_rekey_leaves_none_in_progress) {
    tls_peer peer;
    resolution_result = 1;
    bring_up(peer);
    hand_clock::expire("rekey");
    ASSERT_TRUE(hand_clock::wait_for("fqdn"));
    EXPECT_EQ(tlsc_rekey_in_progress, 1);
    stop();
    EXPECT_EQ(tlsc_rekey_in_progress, 0);
}

TEST_F(engine_loop, a_run_that_ends_in_a_rekey_leaves_its_old_transport_open_and_saved) {
    tls_peer peer;
    bring_up(peer);
    int old = -1;
    at_rest([&] { old = sock->sockfd; });
    hand_clock::expire("rekey");
    ASSERT_NE(peer.connection(1).read_record(), "");
    stop();
    EXPECT_TRUE(peer.connection(1).is_closed_by_client());
    EXPECT_EQ(tlsc_old_transport.fd, old);
    EXPECT_TRUE(peer.connection(0).is_still_open());
    EXPECT_EQ(sock->ssl_up, 1);
}

TEST_F(engine_loop, a_run_that_ends_in_the_backoff_starts_it_anew_for_the_next) {
    tls_peer peer;
    bring_up(peer);
    peer.connection(0).reset();
    ASSERT_TRUE(torn_down());
    EXPECT_EQ(tlsc_backoff_interval, 10u);
    stop();
    EXPECT_EQ(tlsc_backoff_interval, 0u);
}

// ---- standing still -------------------------------------------------------------------------------------------------

TEST_F(engine_loop, a_halted_thread_goes_on_when_it_is_resumed) {
    tls_peer peer;
    bring_up(peer);
    ASSERT_TRUE(tlsc_halt_tunnel_thread(5, nullptr));
    ASSERT_TRUE(peer.connection(0).write(wire_frame(9, "")));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(tlsc_stats_record.invalid_rx, 0u);
    tlsc_resume_tunnel_thread();
    EXPECT_TRUE(eventually_at_rest([] { return tlsc_stats_record.invalid_rx == 1; }));
}

TEST_F(engine_loop, who_halts_the_thread_waits_for_its_turn) {
    tls_peer peer;
    peer.meet_with(tls_peer::manner::nothing);
    conf->server_port = peer.port();
    start();
    (void)peer.connection(0);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // the thread goes on from connect to the handshake
    std::thread impatient([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        peer.connection(0).hang_up();
    });
    EXPECT_TRUE(tlsc_halt_tunnel_thread(5, nullptr));
    tlsc_resume_tunnel_thread();
    impatient.join();
    EXPECT_TRUE(torn_down());
}

TEST_F(engine_loop, a_thread_that_connects_can_be_halted) {
    full_listener listener;
    conf->server_port = listener.port();
    start();
    EXPECT_TRUE(eventually([&] { return logged_like("INFO", "tlsc_create_tcp_conn", "Server port = *"); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(teardowns(), 0u);
    const bool halted = tlsc_halt_tunnel_thread(0, nullptr);
    EXPECT_TRUE(halted);
    if (halted) tlsc_resume_tunnel_thread();

    struct sigaction interrupt {};
    interrupt.sa_handler = [](int) {};
    sigaction(SIGUSR1, &interrupt, nullptr);
    pthread_kill(thread_.native_handle(), SIGUSR1);  // ends the attempt
    EXPECT_TRUE(torn_down());
}

TEST_F(engine_loop, a_thread_in_the_pause_behind_a_handshake_can_be_halted) {
    halt_in_every_sleep();
    tls_peer peer;
    bring_up(peer);
    hand_clock::during_sleep = nullptr;
    EXPECT_EQ(halts, 1);
}

TEST_F(engine_loop, a_thread_in_the_pause_between_two_tries_for_the_interface_can_be_halted) {
    halt_in_every_sleep();
    text(conf->tun_interface_name, "lo");  // exists and is no TUN interface
    expect_early_end();
    hand_clock::during_sleep = nullptr;
    EXPECT_EQ(halts, 5);
}

TEST_F(engine_loop, a_thread_in_a_handshake_can_be_held_and_stands_still_when_it_comes_back) {
    tls_peer peer;
    peer.meet_with(tls_peer::manner::nothing);
    conf->server_port = peer.port();
    start();
    (void)peer.connection(0);
    ASSERT_TRUE(eventually(is_inside_openssl));
    expect_held_back(peer);
}

TEST_F(engine_loop, a_peer_that_is_silent_inside_a_record_holds_nothing_up) {
    tls_peer peer;
    bring_up(peer);
    for (const char *part : {"\x17\x03\x03", "\x01\x10 the beginning"}) {
        peer.connection(0).send_raw(part);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_FALSE(is_inside_openssl());
    }
    hand_clock::expire("dpd");
    EXPECT_EQ(peer.connection(0).read_record(), wire_frame(CSTP_DPD_REQ, ""));
    stop();
    EXPECT_EQ(teardowns(), 0u);
}

TEST_F(engine_loop, a_thread_whose_peer_does_not_read_can_be_held) {
    tls_peer peer;
    bring_up(peer);
    tlsc_log_level    = LOG_INFO;
    const int packets = open_packet_socket();
    ASSERT_TRUE(eventually([&] {  // until the buffers of both sockets are full
        for (int i = 0; i < 100; ++i) emit(packets, udp_packet("192.168.1.5", "8.8.8.8") + std::string(1300, 'x'));
        return HasFatalFailure() || is_inside_openssl();
    }));
    expect_held_back(peer);
    close(packets);
}

TEST_F(engine_loop, a_handshake_takes_identity_and_key_when_the_thread_is_resumed) {
    SSL_CTX *ctx = nullptr;
    tls_peer peer([&ctx](SSL_CTX *made) { ctx = made; });
    peer.meet_with(tls_peer::manner::nothing);
    conf->server_port = peer.port();
    start();
    const int fd = peer.connection(0).fd();
    ASSERT_TRUE(eventually(is_inside_openssl));
    ASSERT_TRUE(tlsc_hold_tunnel_thread(0));

    SSL *ssl = SSL_new(ctx);
    SSL_set_fd(ssl, fd);
    int         accepted = 0;
    std::thread server([&] { accepted = SSL_accept(ssl); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(logged_like("INFO", "tlsc_psk_client_cb", "*"));
    text(psk_identity, "renewed");
    tlsc_resume_tunnel_thread();
    server.join();
    EXPECT_EQ(accepted, 1);
    EXPECT_EQ(peer.identity(), "renewed");
    stop();
    SSL_free(ssl);
}

TEST_F(engine_loop, a_thread_that_waits_can_be_halted_and_one_in_a_handshake_cannot) {
    // In a process of its own: the halt is for good.
    EXPECT_EXIT(
        {
            tls_peer peer;
            peer.meet_with(tls_peer::manner::nothing);
            conf->server_port = peer.port();
            std::thread([] { tlsc_start_epoll(nullptr); }).detach();
            (void)peer.connection(0);
            const bool is_in_handshake = eventually([] {  // until then it connects, and can be halted
                if (!tlsc_halt_tunnel_thread(0, nullptr)) return true;
                tlsc_resume_tunnel_thread();
                return false;
            });
            if (!is_in_handshake) _exit(1);
            peer.meet_with(tls_peer::manner::handshake);
            peer.connection(0).hang_up();
            if (!hand_clock::wait_for("backoff")) _exit(2);
            if (!tlsc_halt_tunnel_thread(5, nullptr)) _exit(3);
            hand_clock::expire("backoff");
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            _exit(peer.connections() == 1 ? 0 : 4);
        },
        ::testing::ExitedWithCode(0), "");
}

// ---- many records at a time -----------------------------------------------------------------------------------------

TEST_F(engine_loop, a_packet_that_travels_alone_costs_one_wait_and_no_look) {
    tls_peer peer;
    bring_up(peer);
    const int packets = open_packet_socket();
    const int before  = waits;
    for (int i = 0; i < 3; ++i) {
        emit(packets, udp_packet("192.168.1.5", "8.8.8.8"));
        EXPECT_NE(peer.connection(0).read_record(), "");
    }
    at_rest([] {});
    EXPECT_EQ(waits - before, 3);
    EXPECT_EQ(timeout_asked, -1);
    close(packets);
}

TEST_F(engine_loop, packets_that_wait_for_each_other_go_out_together_and_in_order) {
    tls_peer peer;
    bring_up(peer);
    const int packets = open_packet_socket();
    // So many packets wait at once; the calls that send them.
    const auto burst = [&](int count) {
        hold_wait = true;
        for (int i = 0; i < count; ++i) {
            std::string packet = udp_packet("192.168.1.5", "8.8.8.8");
            packet.back()      = static_cast<char>(i);
            emit(packets, packet);
        }
        const int before = sends;
        hold_wait        = false;
        for (int i = 0; i < count; ++i) {
            EXPECT_EQ(peer.connection(0).read_record().back(), static_cast<char>(i)) << i;
        }
        at_rest([] {});
        return sends - before;
    };
    for (int i = 0; i < 3; ++i) burst(400);  // whatever was before: the loop has looked, and found more
    EXPECT_LE(burst(100), 100 / 32 + 2);     // not even the first is sent alone
    EXPECT_TRUE(eventually_at_rest([] { return timeout_asked == -1; }));
    close(packets);
    stop();
    tlsc_stats stats;
    tlsc_stats_get(&stats);
    EXPECT_EQ(stats.data_pkt_tx, 3 * 400u + 100u);
}

TEST_F(engine_loop, packets_do_not_wait_for_a_gateway_that_never_pauses) {
    tls_peer peer;
    bring_up(peer);
    peer_connection  &gateway = peer.connection(0);
    const int         packets = open_packet_socket();
    std::atomic<bool> is_over{false};
    std::thread       flood([&] {
        while (!is_over) (void)gateway.write(wire_frame(CSTP_DATA, "x"));
    });
    char              bytes[4000];
    for (int i = 0; i < 30; ++i) {
        emit(packets, udp_packet("192.168.1.5", "8.8.8.8"));
        emit(packets, udp_packet("192.168.1.5", "8.8.8.8"));
        pollfd ready{gateway.fd(), POLLIN, 0};
        EXPECT_EQ(poll(&ready, 1, peer_patience_ms / 5), 1) << i;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        (void)recv(gateway.fd(), bytes, sizeof(bytes), MSG_DONTWAIT);  // past TLS: only that something came counts
    }
    is_over = true;
    flood.join();
    close(packets);
}

TEST_F(engine_loop, frames_are_delivered_however_their_bytes_are_cut) {
    sealed_peer peer;
    peer.accept();
    conf->server_port = peer.port();
    start();
    peer.wait_until_up();
    ASSERT_EQ(peer.open(), wire_frame(CSTP_CONFIG_REQ, request));
    peer.send(peer.seal(wire_frame(CSTP_CONFIG_RESPONSE, good)));
    ASSERT_TRUE(hand_clock::wait_for("dpd"));
    const int         packets = open_packet_socket();
    const std::string frame   = wire_frame(CSTP_DATA, udp_packet("8.8.8.8", "10.99.0.7"));
    for (size_t cut = 0, size = 2; cut < size; ++cut) {
        const std::string bytes = peer.seal_all({frame, frame});
        size                    = bytes.size();
        peer.send(bytes.substr(0, cut));
        if (cut % 7 == 0) at_rest([] {});
        peer.send(bytes.substr(cut));
        for (int i = 0; i < 2; ++i) ASSERT_EQ(dotted(receive_from(packets, "8.8.8.8"), 16), "192.168.1.5") << cut;
    }
    for (char byte : peer.seal(frame)) peer.send(std::string(1, byte));
    EXPECT_EQ(dotted(receive_from(packets, "8.8.8.8"), 16), "192.168.1.5");
    close(packets);
    stop();
    EXPECT_EQ(teardowns(), 0u);
}

TEST_F(engine_loop, frames_that_came_with_the_handshake_are_handled_without_an_event) {
    sealed_peer peer;
    peer.accept({wire_frame(CSTP_CONFIG_RESPONSE, good), wire_frame(CSTP_DPD_RESPONSE, "")});
    conf->server_port = peer.port();
    start();
    peer.wait_until_up();
    EXPECT_TRUE(hand_clock::wait_for("dpd"));
    EXPECT_TRUE(
        eventually([this] { return logged_like("INFO", "tlsc_process_cstp_frame", "Got CSTP dpd resp frame *"); }));
    stop();
    EXPECT_EQ(teardowns(), 0u);
}

TEST_F(engine_loop, timers_get_their_turn_between_two_buffers_of_records) {
    tls_peer peer;
    bring_up(peer);
    const std::string frame = wire_frame(CSTP_DATA, udp_packet("8.8.8.8", "10.99.0.7"));
    hold_wait               = true;
    for (int i = 0; i < 1000; ++i) ASSERT_TRUE(peer.connection(0).write(frame));
    hand_clock::expire("dpd");
    hold_wait = false;
    EXPECT_EQ(peer.connection(0).read_record(), wire_frame(CSTP_DPD_REQ, ""));
    stop();
    EXPECT_LT(position("DPD timer expiry event"), last_position("Got CSTP Data frame of len ~ for conn *"));
    EXPECT_EQ(teardowns(), 0u);
}

TEST_F(engine_loop, an_order_to_end_is_not_held_up_by_records_that_wait) {
    tls_peer peer;
    bring_up(peer);
    hold_wait = true;
    for (int i = 0; i < 1000; ++i) ASSERT_TRUE(peer.connection(0).write(wire_frame(CSTP_DATA, "x")));
    EXPECT_EQ(tlsc_send_exit_client_req(), 1);
    hold_wait = false;
    stop();
    tlsc_stats stats;
    tlsc_stats_get(&stats);
    EXPECT_LT(stats.data_pkt_rx, 500u);  // what fits into one buffer, at most
}

TEST_F(engine_loop, frames_read_with_others_before_a_fin_are_delivered_and_those_behind_are_not) {
    tls_peer peer;
    bring_up(peer);
    hold_wait = true;
    for (int i = 0; i < 10; ++i) ASSERT_TRUE(peer.connection(0).write(wire_frame(CSTP_DATA, "x")));
    peer.connection(0).send_fin();
    hold_wait = false;
    EXPECT_TRUE(torn_down());
    stop();
    EXPECT_TRUE(logged_like("ERROR", "tlsc_start_epoll", "Error [~] occured on SSL-Socket-fd(~).. closing connection"));
    tlsc_stats stats;
    tlsc_stats_get(&stats);
    EXPECT_EQ(stats.data_pkt_rx, 0u);  // the end was seen before the first read
}

TEST_F(engine_loop, openssl_reports_its_messages_only_while_the_log_level_asks_for_them) {
    tls_peer peer;
    tlsc_log_level = LOG_INFO;
    bring_up(peer);
    EXPECT_EQ(reports_of_a_record(peer), 0);
    EXPECT_EQ(tlsc_send_log_lvl_chg_req(LOG_SSL_DBG), 1);
    EXPECT_TRUE(logged("Log level changed to: 4"));
    at_rest([] {});
    EXPECT_GT(reports_of_a_record(peer), 0);
    EXPECT_GE(last_position("<<< TLS Header [length 0005]"), 0);  // as in the handshake
    EXPECT_EQ(last_position("<<< TLS 1.2  [length 0005]"), -1);
    tlsc_log_level = LOG_INFO;  // as a new reading of the configuration changes it
    EXPECT_GT(reports_of_a_record(peer), 0);
    EXPECT_EQ(reports_of_a_record(peer), 0);
    tlsc_log_level = LOG_DEBUG;
}

// ---- the end of the process, and another beginning ------------------------------------------------------------------

TEST_F(engine_loop, a_client_that_was_cleaned_up_begins_again_and_again_and_nothing_is_left_open) {
    int open_at_first = 0;
    for (int round = 0; round < 4; ++round) {
        {
            tls_peer peer;
            conf->server_port = peer.port();
            ASSERT_EQ(tlsc_start_epoll_mon_thread(), 1);
            ASSERT_NE(peer.connection(0).read_record(), "");
            answer(peer, 0);
            if (round % 2 == 0) {  // once in the middle of a rekey
                hand_clock::expire("rekey");
                ASSERT_NE(peer.connection(1).read_record(), "");
            }
            expect_clean_end();
            tlsc_cleanup_context();
            EXPECT_TRUE(peer.connection(0).is_closed_by_client());
        }
        if (round == 0) open_at_first = open_descriptors();
        EXPECT_EQ(open_descriptors(), open_at_first);
        conf->cookie[0]       = '\0';
        conf->inner_addr.kind = ADDR_NONE;
        hand_clock::forget();
        initialise();
    }
}

TEST_F(engine_loop, an_end_directly_behind_a_start_meets_no_thread_at_work) {
    conf->server_port = 1;
    for (int round = 0; round < 60; ++round) {
        ASSERT_EQ(tlsc_start_epoll_mon_thread(), 1);
        std::this_thread::sleep_for(std::chrono::microseconds(20 * round));
        tlsc_cleanup_context();
        initialise();
    }
}

TEST_F(engine_loop, a_run_behind_a_clean_up_needs_no_monitor) {
    tlsc_cleanup_context();
    initialise();
    tls_peer peer;
    bring_up(peer);
    stop();
    EXPECT_EQ(epoll_thread_exited, 1);
}

TEST_F(engine_loop, the_end_does_not_wait_for_a_gateway_that_is_silent_in_the_handshake) {
    tls_peer peer;
    peer.meet_with(tls_peer::manner::nothing);
    conf->server_port = peer.port();
    ASSERT_EQ(tlsc_start_epoll_mon_thread(), 1);
    (void)peer.connection(0);
    ASSERT_TRUE(eventually(is_inside_openssl));
    expect_clean_end();
    EXPECT_TRUE(peer.connection(0).is_closed_by_client());
}

TEST_F(engine_loop, the_end_does_not_wait_for_a_gateway_that_takes_nothing) {
    tls_peer peer;
    conf->server_port = peer.port();
    ASSERT_EQ(tlsc_start_epoll_mon_thread(), 1);
    ASSERT_NE(peer.connection(0).read_record(), "");
    answer(peer, 0);
    fill_the_way_out();
    hand_clock::expire("dpd");
    ASSERT_TRUE(eventually(is_inside_openssl));
    expect_clean_end();
}

TEST_F(engine_loop, an_order_to_end_does_not_wait_for_a_gateway_that_takes_nothing) {
    tls_peer peer;
    conf->server_port = peer.port();
    ASSERT_EQ(tlsc_start_epoll_mon_thread(), 1);
    ASSERT_NE(peer.connection(0).read_record(), "");
    answer(peer, 0);
    fill_the_way_out();
    hand_clock::expire("dpd");
    ASSERT_TRUE(eventually(is_inside_openssl));
    EXPECT_EQ(tlsc_stop_client(), 1);
    EXPECT_TRUE(monitor_has_ended());
    EXPECT_TRUE(log.contains("SSL write error received = 5, translated-ssl-error = 0, write_len = -1, errno = 125"));
    EXPECT_EQ(teardowns(), 0u);
    tlsc_cleanup_context();
}

TEST_F(engine_loop, the_end_does_not_wait_for_a_gateway_that_does_not_answer_the_connection) {
    full_listener listener;
    conf->server_port = listener.port();
    const int before  = open_descriptors();
    ASSERT_EQ(tlsc_start_epoll_mon_thread(), 1);
    ASSERT_TRUE(connects_without_an_answer());
    expect_clean_end();
    EXPECT_EQ(open_descriptors(), before - 2);  // the command pipe
}

TEST_F(engine_loop, an_order_to_end_does_not_wait_for_a_gateway_that_is_silent_in_the_handshake) {
    tls_peer peer;
    peer.meet_with(tls_peer::manner::nothing);
    conf->server_port = peer.port();
    ASSERT_EQ(tlsc_start_epoll_mon_thread(), 1);
    (void)peer.connection(0);
    ASSERT_TRUE(eventually(is_inside_openssl));
    EXPECT_EQ(tlsc_stop_client(), 1);
    EXPECT_TRUE(monitor_has_ended());
    EXPECT_TRUE(logged_like("INFO", "tlsc_handle_cli_cmds", "Exit cmd rcvd *"));
    tlsc_cleanup_context();
}

TEST_F(engine_loop, an_order_to_end_does_not_wait_for_a_gateway_that_does_not_answer_the_connection) {
    full_listener listener;
    conf->server_port = listener.port();
    ASSERT_EQ(tlsc_start_epoll_mon_thread(), 1);
    ASSERT_TRUE(connects_without_an_answer());
    EXPECT_EQ(tlsc_stop_client(), 1);
    EXPECT_TRUE(monitor_has_ended());
    tlsc_cleanup_context();
}

TEST_F(engine_loop, an_order_to_end_leaves_a_tunnel_that_is_up_to_its_orderly_end) {
    tls_peer peer;
    conf->server_port = peer.port();
    ASSERT_EQ(tlsc_start_epoll_mon_thread(), 1);
    ASSERT_NE(peer.connection(0).read_record(), "");
    answer(peer, 0);
    EXPECT_EQ(tlsc_stop_client(), 1);
    EXPECT_TRUE(monitor_has_ended());
    EXPECT_EQ(teardowns(), 0u);
    tlsc_cleanup_context();
}

// ---- nothing given up -----------------------------------------------------------------------------------------------

TEST_F(engine_loop, a_back_off_timer_that_cannot_be_started_is_tried_again_while_there_is_nothing_else) {
    tls_peer peer;
    bring_up(peer);
    EXPECT_EQ(timeout_asked, -1);
    const int64_t before = seconds_ahead;
    forced_add_errno     = ENOMEM;
    add_failure          = adds + 1;
    peer.connection(0).reset();
    ASSERT_TRUE(torn_down());
    ASSERT_TRUE(hand_clock::wait_for("backoff", 2));  // the first of them was armed, and not registered
    EXPECT_GE(seconds_ahead - before, 10);
    EXPECT_LE(seconds_ahead - before, 20);
    EXPECT_EQ(teardowns(), 1u);
    EXPECT_FALSE(log.contains("EPOLL Wait timed out"));
    hand_clock::expire("backoff");
    ASSERT_NE(peer.connection(1).read_record(), "");
    answer(peer, 1);
    EXPECT_EQ(timeout_asked, -1);
}

TEST_F(engine_loop, a_connection_that_no_timer_watches_is_given_up_after_a_minute) {
    tls_peer peer;
    conf->server_port = peer.port();
    start();
    ASSERT_NE(peer.connection(0).read_record(), "");
    ASSERT_TRUE(eventually([this] { return log.contains("Successfully added Client-socket-fd("); }));
    const int64_t before = seconds_ahead;
    forced_add_errno     = ENOMEM;
    at_rest([&] { add_failure = adds + 1; });  // the rekey timer's
    ASSERT_TRUE(peer.connection(0).write(wire_frame(CSTP_CONFIG_RESPONSE, good)));
    ASSERT_TRUE(eventually([this] { return log.contains("Could not start Rekey timer"); }));
    ASSERT_TRUE(torn_down());
    EXPECT_GE(seconds_ahead - before, 60);
    hand_clock::expire("backoff");
    ASSERT_NE(peer.connection(1).read_record(), "");
    answer(peer, 1);
}

TEST_F(engine_loop, a_connection_whose_response_was_rejected_is_given_up_after_a_minute) {
    tls_peer peer;
    conf->server_port = peer.port();
    start();
    ASSERT_NE(peer.connection(0).read_record(), "");
    const int64_t before = seconds_ahead;
    ASSERT_TRUE(peer.connection(0).write(wire_frame(CSTP_CONFIG_RESPONSE, "X-CSTP-DPD:30\n")));
    ASSERT_TRUE(torn_down());
    EXPECT_GE(seconds_ahead - before, 60);
    EXPECT_TRUE(peer.connection(0).is_closed_by_client());
}

TEST_F(engine_loop, the_tls_session_that_the_last_run_kept_is_freed_by_the_next) {
    static std::atomic<int> freed;
    freed           = 0;
    const int index = SSL_get_ex_new_index(
        0, nullptr, nullptr, nullptr,
        [](void *, void *data, CRYPTO_EX_DATA *, int, long, void *) { freed += data == &freed; });
    tls_peer peer;
    bring_up(peer);
    stop();
    ASSERT_NE(sock->ssl, nullptr);  // by contract it outlives its run
    SSL_set_ex_data(sock->ssl, index, &freed);
    EXPECT_EQ(freed, 0);
    start();
    ASSERT_NE(peer.connection(1).read_record(), "");
    EXPECT_EQ(freed, 1);
}

TEST_F(engine_loop, no_closed_descriptor_is_left_behind_as_the_old_transport) {
    tls_peer peer;
    bring_up(peer);
    ssl_ctx_st *const ctx = tlsc_ssl_ctx;
    at_rest([this] { tlsc_ssl_ctx = sock->ssl_ctx = nullptr; });  // no session can be made
    hand_clock::expire("rekey");
    ASSERT_TRUE(logged("TCP connection failed!!!"));
    stop();
    tlsc_ssl_ctx = sock->ssl_ctx = ctx;
    EXPECT_EQ(tlsc_old_transport.fd, -1);
    EXPECT_EQ(tlsc_old_transport.ssl, nullptr);
    EXPECT_TRUE(peer.connection(0).is_closed_by_client());
}

TEST_F(engine_loop, data_for_a_connection_that_has_lost_its_session_tears_down) {
    tls_peer peer;
    bring_up(peer);
    ssl_ctx_st *const ctx = tlsc_ssl_ctx;
    at_rest([this] { tlsc_ssl_ctx = sock->ssl_ctx = nullptr; });  // no session can be made
    hand_clock::expire("rekey");
    ASSERT_TRUE(logged("TCP connection failed!!!"));
    ASSERT_TRUE(peer.connection(0).write(wire_frame(9, "unreadable")));
    EXPECT_TRUE(torn_down());
    EXPECT_TRUE(log.contains("SSL returned error = 0, while trying to read data"));
    stop();
    tlsc_ssl_ctx = sock->ssl_ctx = ctx;
    EXPECT_EQ(tlsc_old_transport.fd, -1);
    EXPECT_EQ(tlsc_old_transport.ssl, nullptr);
}

}  // namespace
