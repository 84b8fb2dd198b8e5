// A TLS server whose records the test gets as bytes before they are sent, to cut and to delay them as it likes. The
// handshake runs in a thread of its own.
#pragma once

#include <algorithm>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "openssl_names.h"

class sealed_peer {
public:
    static constexpr char key[]         = "abcd1234";
    static constexpr int  patience_msec = 5000;

    explicit sealed_peer(const char *ciphers = "PSK-AES256-CBC-SHA") {
        ctx_ = SSL_CTX_new(TLS_server_method());
        SSL_CTX_set_max_proto_version(ctx_, TLS1_2_VERSION);
        SSL_CTX_set_psk_server_callback(ctx_, give_key);
        EXPECT_EQ(SSL_CTX_set_cipher_list(ctx_, ciphers), 1);
        listener_           = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address = loopback(0);
        socklen_t   size    = sizeof(address);
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr *>(&address), size), 0);
        EXPECT_EQ(listen(listener_, 1), 0);
        EXPECT_EQ(getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &size), 0);
        port_ = ntohs(address.sin_port);
    }
    sealed_peer(const sealed_peer &)            = delete;
    sealed_peer &operator=(const sealed_peer &) = delete;
    ~sealed_peer() {
        wait_until_up();
        SSL_free(ssl_);
        SSL_CTX_free(ctx_);
        close(listener_);
        hang_up();
    }

    uint16_t port() const { return port_; }
    int      fd() const { return fd_; }

    // Accepts one connection and shakes hands on it, meanwhile. behind: plain texts of records that follow the last
    // handshake message in the same segment.
    void accept(std::vector<std::string> behind = {}) {
        thread_ = std::thread([this, behind = std::move(behind)] { serve(behind); });
    }
    void wait_until_up() {
        if (thread_.joinable()) thread_.join();
    }

    // One record with this content, not sent.
    std::string seal(const std::string &text) {
        EXPECT_EQ(SSL_write(ssl_, text.data(), static_cast<int>(text.size())), static_cast<int>(text.size()));
        return take_out();
    }
    // One record each.
    std::string seal_all(const std::vector<std::string> &texts) {
        std::string all;
        for (const std::string &text : texts) all += seal(text);
        return all;
    }
    // The request to shake hands again, not sent.
    std::string seal_hello_request() {
        EXPECT_EQ(SSL_renegotiate(ssl_), 1);
        EXPECT_EQ(SSL_do_handshake(ssl_), 1);
        return take_out();
    }
    void send(const std::string &bytes) const {
        EXPECT_EQ(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
    // Sent, and arrived at the other end's socket.
    void deliver(const std::string &bytes, int other_end) const {
        pollfd ready{other_end, POLLIN, 0};
        send(bytes);
        EXPECT_EQ(poll(&ready, 1, patience_msec), 1);
    }

    // What arrives in one read; empty at the end or when nothing does in time.
    std::string receive_raw(int msec = patience_msec) const {
        char   bytes[70000];
        pollfd ready{fd_, POLLIN, 0};
        if (poll(&ready, 1, msec) != 1) return "";
        const ssize_t count = recv(fd_, bytes, sizeof(bytes), 0);
        return count > 0 ? std::string(bytes, static_cast<size_t>(count)) : std::string();
    }
    // The plain text of the next record; empty when none arrives in time.
    std::string open(int msec = patience_msec) {
        char bytes[20000];
        for (;;) {
            const int count = SSL_read(ssl_, bytes, sizeof(bytes));
            if (count > 0) return std::string(bytes, static_cast<size_t>(count));
            const std::string raw = receive_raw(msec);
            if (raw.empty()) return "";
            BIO_write(in_, raw.data(), static_cast<int>(raw.size()));
        }
    }

    void send_fin() const { shutdown(fd_, SHUT_WR); }
    void hang_up() {
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
    }
    void reset() {
        const linger at_once{1, 0};
        setsockopt(fd_, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
        hang_up();
    }

    static sockaddr_in loopback(uint16_t port) {
        sockaddr_in address{};
        address.sin_family      = AF_INET;
        address.sin_port        = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return address;
    }

private:
    static unsigned give_key(SSL *, const char *, unsigned char *psk, unsigned) {
        memcpy(psk, key, sizeof(key) - 1);
        return sizeof(key) - 1;
    }

    std::string take_out() {
        char        bytes[20000];
        std::string all;
        for (int count = BIO_read(out_, bytes, sizeof(bytes)); count > 0; count = BIO_read(out_, bytes, sizeof(bytes)))
            all.append(bytes, static_cast<size_t>(count));
        return all;
    }

    void serve(const std::vector<std::string> &behind) {
        fd_               = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        const int at_once = 1;
        setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &at_once, sizeof(at_once));
        ssl_ = SSL_new(ctx_);
        in_  = BIO_new(BIO_s_mem());
        out_ = BIO_new(BIO_s_mem());
        BIO_set_mem_eof_return(in_, -1);
        SSL_set_bio(ssl_, in_, out_);
        SSL_set_accept_state(ssl_);
        while (SSL_accept(ssl_) != 1) {
            const std::string flight = take_out();
            if (!flight.empty()) send(flight);
            const std::string raw = receive_raw();
            if (raw.empty()) return;
            BIO_write(in_, raw.data(), static_cast<int>(raw.size()));
        }
        const std::string last = take_out();
        send(last + seal_all(behind));
    }

    SSL_CTX    *ctx_      = nullptr;
    SSL        *ssl_      = nullptr;
    BIO        *in_       = nullptr;
    BIO        *out_      = nullptr;
    int         listener_ = -1;
    int         fd_       = -1;
    uint16_t    port_     = 0;
    std::thread thread_;
};
