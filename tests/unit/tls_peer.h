// The other end of the tunnel for the tests: a TLS 1.2 server on the loopback, in a thread of its own up to the end of
// each handshake. What comes after it (frames, hang-ups) the test does itself, connection by connection.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "openssl_names.h"

constexpr int  peer_patience_ms = 5000;  // before a missing connection or frame fails the test
constexpr char peer_key[]       = "abcd1234";
constexpr char peer_cipher[]    = "PSK-AES256-CBC-SHA";

// Waits until the condition holds, at most the patience of the peer.
inline bool eventually(const std::function<bool()> &condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(peer_patience_ms);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// One accepted connection, after its handshake.
class peer_connection {
public:
    peer_connection(int fd, SSL *ssl) : fd_(fd), ssl_(ssl) {}
    peer_connection(const peer_connection &)            = delete;
    peer_connection &operator=(const peer_connection &) = delete;
    ~peer_connection() {
        SSL_free(ssl_);
        if (fd_ >= 0) close(fd_);
    }

    int  fd() const { return fd_; }
    bool is_up() const { return ssl_ != nullptr; }

    // The application data of one TLS record; empty when there is none in time, or the client has gone.
    std::string read_record() {
        char      bytes[20000];
        const int count = ssl_ ? SSL_read(ssl_, bytes, sizeof(bytes)) : 0;
        return count > 0 ? std::string(bytes, static_cast<size_t>(count)) : std::string();
    }

    // One TLS record.
    bool write(const std::string &bytes) {
        return SSL_write(ssl_, bytes.data(), static_cast<int>(bytes.size())) == static_cast<int>(bytes.size());
    }

    // True when the client closes its side within the patience; what it still sends is thrown away.
    bool is_closed_by_client() {
        pollfd ready{fd_, POLLIN, 0};
        char   bytes[2000];
        while (poll(&ready, 1, peer_patience_ms) == 1)
            if (recv(fd_, bytes, sizeof(bytes), 0) <= 0) return true;
        return false;
    }
    // True when the client has not closed its side by now.
    bool is_still_open() const {
        char          byte;
        const ssize_t count = recv(fd_, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
        return count > 0 || (count < 0 && errno == EAGAIN);
    }

    void send_raw(const std::string &bytes) {
        EXPECT_EQ(send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
    void send_fin() { shutdown(fd_, SHUT_WR); }
    void hang_up() {
        close(fd_);
        fd_ = -1;
    }
    void reset() {
        const linger at_once{1, 0};
        setsockopt(fd_, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
        hang_up();
    }

private:
    int  fd_;
    SSL *ssl_;  // null when there was no handshake
};

class tls_peer {
public:
    enum class manner {
        handshake,
        hang_up,
        reset,
        garbage,
        nothing
    };

    // prepare gets the server's context before the first connection; without it the server takes peer_key.
    explicit tls_peer(const std::function<void(SSL_CTX *)> &prepare = nullptr, std::string key = peer_key)
        : key_(std::move(key)) {
        ctx_ = SSL_CTX_new(TLS_server_method());
        SSL_CTX_set_max_proto_version(ctx_, TLS1_2_VERSION);
        EXPECT_EQ(SSL_CTX_set_ecdh_auto(ctx_, 1), 1);
        SSL_CTX_set_app_data(ctx_, this);
        SSL_CTX_set_psk_server_callback(ctx_, give_key);
        EXPECT_EQ(SSL_CTX_set_cipher_list(ctx_, "ALL"), 1);
        if (prepare) prepare(ctx_);

        listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        socklen_t   size        = sizeof(address);
        address.sin_family      = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr *>(&address), size), 0);
        EXPECT_EQ(listen(listener_, 8), 0);
        EXPECT_EQ(getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &size), 0);
        port_ = ntohs(address.sin_port);
        EXPECT_EQ(pipe(stop_), 0);
        thread_ = std::thread([this] { serve(); });
    }
    tls_peer(const tls_peer &)            = delete;
    tls_peer &operator=(const tls_peer &) = delete;
    ~tls_peer() {
        close(stop_[1]);
        thread_.join();
        connections_.clear();
        close(stop_[0]);
        if (listener_ >= 0) close(listener_);
        SSL_CTX_free(ctx_);
    }

    uint16_t    port() const { return port_; }
    std::string identity() {
        const std::lock_guard<std::mutex> guard(mutex_);
        return identity_;
    }

    // How the connections from now on are met.
    void meet_with(manner how) {
        const std::lock_guard<std::mutex> guard(mutex_);
        manner_ = how;
    }
    // From now on the connections are refused.
    void stop_listening() {
        shutdown(listener_, SHUT_RDWR);
        close(listener_);
        listener_ = -1;
    }

    // The connection with this number, counted from 0; waits for it. The reference stays valid.
    peer_connection &connection(size_t number) {
        std::unique_lock<std::mutex> guard(mutex_);
        const bool                   there = arrived_.wait_for(guard, std::chrono::milliseconds(peer_patience_ms),
                                                               [&] { return connections_.size() > number; });
        if (!there) {
            ADD_FAILURE() << "no connection number " << number;
            connections_.resize(number + 1);
        }
        if (!connections_[number]) connections_[number] = std::make_unique<peer_connection>(-1, nullptr);
        return *connections_[number];
    }
    size_t connections() {
        const std::lock_guard<std::mutex> guard(mutex_);
        return connections_.size();
    }

private:
    static unsigned give_key(SSL *ssl, const char *identity, unsigned char *psk, unsigned max) {
        auto                             *self = static_cast<tls_peer *>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(ssl)));
        const std::lock_guard<std::mutex> guard(self->mutex_);
        self->identity_     = identity;
        const size_t length = std::min<size_t>(self->key_.size(), max);
        memcpy(psk, self->key_.data(), length);
        return static_cast<unsigned>(length);
    }

    void serve() {
        for (;;) {
            pollfd ready[] = {{listener_, POLLIN, 0}, {stop_[0], POLLIN, 0}};
            if (poll(ready, 2, -1) < 1) continue;
            if (ready[1].revents) return;
            const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) {
                pollfd end{stop_[0], POLLIN, 0};
                (void)poll(&end, 1, -1);  // not listening any more
                return;
            }
            const timeval patience{peer_patience_ms / 1000, 0};
            setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
            const int at_once = 1;  // small records in a row arrive without waiting for each other
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &at_once, sizeof(at_once));
            auto                              met = meet(fd);
            const std::lock_guard<std::mutex> guard(mutex_);
            connections_.push_back(std::move(met));
            arrived_.notify_all();
        }
    }

    std::unique_ptr<peer_connection> meet(int fd) {
        manner how;
        {
            const std::lock_guard<std::mutex> guard(mutex_);
            how = manner_;
        }
        SSL *ssl = how == manner::handshake ? shake_hands(fd) : nullptr;
        auto met = std::make_unique<peer_connection>(fd, ssl);
        switch (how) {
        case manner::hang_up: {
            char hello[4000];
            (void)!recv(fd, hello, sizeof(hello), 0);  // unread bytes would turn the hang-up into a reset
            met->hang_up();
            break;
        }
        case manner::reset: met->reset(); break;
        case manner::garbage: met->send_raw("this is not TLS at all\n"); break;
        case manner::nothing:
        case manner::handshake: break;
        }
        return met;
    }

    // Null when the handshake failed.
    SSL *shake_hands(int fd) {
        SSL *ssl = SSL_new(ctx_);
        SSL_set_fd(ssl, fd);
        if (SSL_accept(ssl) == 1) return ssl;
        ERR_clear_error();
        SSL_free(ssl);
        return nullptr;
    }

    const std::string                             key_;
    SSL_CTX                                      *ctx_      = nullptr;
    int                                           listener_ = -1;
    int                                           stop_[2]  = {-1, -1};
    uint16_t                                      port_     = 0;
    std::thread                                   thread_;
    std::mutex                                    mutex_;
    std::condition_variable                       arrived_;
    manner                                        manner_ = manner::handshake;
    std::string                                   identity_;
    std::vector<std::unique_ptr<peer_connection>> connections_;
};
