// What the tests of the tunnel thread's modules share: a fresh client for every test, frames as bytes, log lines,
// counters.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "capture.h"
#include "tlsc_config.h"
#include "tlsc_engine.h"
#include "tlsc_platform.h"
#include "tlsc_timer.h"

// The text that printf would make; for expected log lines with %p in them.
__attribute__((format(printf, 1, 2))) inline std::string text_of(const char *format, ...) {
    char    text[4096];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    return text;
}

// A frame as it goes over the wire: "STF", 1, big-endian length, type, 0, payload.
inline std::string wire_frame(int type, const std::string &payload) {
    std::string bytes("STF\x01", 4);
    bytes += static_cast<char>(payload.size() >> 8);
    bytes += static_cast<char>(payload.size());
    bytes += static_cast<char>(type);
    bytes += '\0';
    return bytes + payload;
}

// True when the text begins with the pattern: '~' stands for a number, '*' for anything on the same line.
inline bool begins_like(const char *text, const char *pattern) {
    if (*pattern == '\0') return true;
    if (*pattern == '*') {
        do
            if (begins_like(text, pattern + 1)) return true;
        while (*text != '\n' && *text++ != '\0');
        return false;
    }
    if (*pattern != '~') return *text == *pattern && begins_like(text + 1, pattern + 1);
    const size_t digits = strspn(text, "0123456789");
    return digits > 0 && begins_like(text + digits, pattern + 1);
}

inline bool is_open(int fd) { return fcntl(fd, F_GETFD) >= 0; }

inline int open_descriptors() {
    int count = 0;
    for (int fd = 0; fd < 1024; ++fd) count += is_open(fd);
    return count;
}

// A client as the process has it before the first start, except that the configuration holds its defaults.
class tunnel_test : public ::testing::Test {
protected:
    tunnel_test() {
        *sock                  = {};
        tlsc_dp_state          = 1;
        tlsc_timers            = {};
        tlsc_backoff_interval  = 0;
        tlsc_retry_ref         = 0;
        tlsc_rekey_in_progress = 0;
        tlsc_old_transport.fd  = -1;
        tlsc_old_transport.ssl = nullptr;
        tlsc_epoll_fd          = -1;
        exit_client            = 0;
        tlsc_set_config_defaults(conf);
        memset(psk_identity, 0, sizeof(psk_identity));
        memset(psk_key, 0, sizeof(psk_key));
        tlsc_stats_clear();
        log.clear();
    }
    ~tunnel_test() override {
        for (int32_t fd : {tlsc_timers.dpd, tlsc_timers.retry, tlsc_timers.rekey, tlsc_timers.fqdn, tlsc_timers.guard,
                           tlsc_timers.backoff, tlsc_epoll_fd})
            if (fd > 0) close(fd);
    }

    void open_epoll() {
        tlsc_epoll_fd = epoll_create1(EPOLL_CLOEXEC);
        ASSERT_GT(tlsc_epoll_fd, 0);
    }

    // Gives the connection context a session of the test's own.
    void attach_session() {
        session      = {};
        session.conn = sock;
        sock->sess   = &session;
    }

    // The counters that are not zero must be exactly these.
    void expect_counters(const std::map<std::string, uint64_t> &expected) {
        static constexpr struct {
            const char *name;
            uint64_t tlsc_stats::*counter;
        } names[] = {
            {"data_pkt_rx", &tlsc_stats::data_pkt_rx},
            {"data_pkt_tx", &tlsc_stats::data_pkt_tx},
            {"ctrl_pkt_rx", &tlsc_stats::ctrl_pkt_rx},
            {"ctrl_pkt_tx", &tlsc_stats::ctrl_pkt_tx},
            {"invalid_rx", &tlsc_stats::invalid_rx},
            {"tun_pkt_rx", &tlsc_stats::tun_pkt_rx},
            {"tun_pkt_tx", &tlsc_stats::tun_pkt_tx},
            {"dpd_req_tx", &tlsc_stats::dpd_req_tx},
            {"dpd_rsp_rx", &tlsc_stats::dpd_rsp_rx},
            {"rekey_attempts", &tlsc_stats::rekey_attempts},
            {"rekey_success", &tlsc_stats::rekey_success},
            {"tun_alloc", &tlsc_stats::tun_alloc},
            {"tun_freed", &tlsc_stats::tun_freed},
            {"ssl_read_errors_total", &tlsc_stats::ssl_read_errors_total},
            {"ssl_read_errors_readwouldblock", &tlsc_stats::ssl_read_errors_readwouldblock},
            {"ssl_read_errors_writewouldblock", &tlsc_stats::ssl_read_errors_writewouldblock},
            {"ssl_read_errors_others", &tlsc_stats::ssl_read_errors_others},
            {"ssl_write_errors_total", &tlsc_stats::ssl_write_errors_total},
            {"ssl_write_errors_readwouldblock", &tlsc_stats::ssl_write_errors_readwouldblock},
            {"ssl_write_errors_writewouldblock", &tlsc_stats::ssl_write_errors_writewouldblock},
            {"ssl_write_errors_others", &tlsc_stats::ssl_write_errors_others},
            {"tun_read_errors_total", &tlsc_stats::tun_read_errors_total},
            {"tun_read_errors_einval", &tlsc_stats::tun_read_errors_einval},
            {"tun_read_errors_ebadf", &tlsc_stats::tun_read_errors_ebadf},
            {"tun_read_errors_efault", &tlsc_stats::tun_read_errors_efault},
            {"tun_read_errors_others", &tlsc_stats::tun_read_errors_others},
            {"tun_write_errors_total", &tlsc_stats::tun_write_errors_total},
            {"tun_write_errors_einval", &tlsc_stats::tun_write_errors_einval},
            {"tun_write_errors_ebadf", &tlsc_stats::tun_write_errors_ebadf},
            {"tun_write_errors_efault", &tlsc_stats::tun_write_errors_efault},
            {"tun_write_errors_others", &tlsc_stats::tun_write_errors_others},
        };
        std::map<std::string, uint64_t> found;
        tlsc_stats                      stats;
        tlsc_stats_get(&stats);
        for (const auto &entry : names)
            if (stats.*entry.counter != 0) found[entry.name] = stats.*entry.counter;
        EXPECT_EQ(found, expected);
    }

    // The messages of the captured lines that come from this source file, in order.
    std::vector<std::string> messages_from(const char *file) const {
        std::vector<std::string> found;
        for (const log_line &line : log.entries())
            if (line.file == file) found.push_back(line.message);
        return found;
    }

    // The lines that come from this source file, in order: severity, function and message.
    std::vector<std::string> lines_from(const char *file) const {
        std::vector<std::string> found;
        for (const log_line &line : log.entries())
            if (line.file == file) found.push_back(line.severity + " " + line.function + ": " + line.message);
        return found;
    }

    // True when a captured message from this function, with this severity, is like the pattern, as a whole.
    bool logged_like(const char *severity, const char *function, const std::string &pattern) const {
        for (const log_line &line : log.entries())
            if (line.severity == severity && line.function == function &&
                begins_like((line.message + '\x01').c_str(), (pattern + '\x01').c_str()))
                return true;
        return false;
    }

    // The position of the first captured message with this text, or -1; for "this comes before that".
    int position(const std::string &message) const {
        const std::vector<std::string> all = log.messages();
        for (size_t i = 0; i < all.size(); ++i)
            if (all[i] == message) return static_cast<int>(i);
        return -1;
    }

    log_capture        log;  // from the start, so that the defaults' lines do not reach the terminal
    tlsc_sock *const   sock = tlsc_get_sock();
    tlsc_config *const conf = tlsc_get_config();
    tlsc_session       session{};
};
