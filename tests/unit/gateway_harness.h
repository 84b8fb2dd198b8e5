#pragma once

// A gateway in a thread of its own, a client and a controller to talk to it, all over loopback.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <spdlog/spdlog.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "common/log.h"
#include "control.h"
#include "errors.h"
#include "gateway.h"

namespace gwtest {

using gw::byte_vector;
using gw::json;

// A directory that goes away with the object.
class temp_dir {
public:
    temp_dir() {
        char name[] = "/tmp/gateway_test_XXXXXX";
        path_       = mkdtemp(name);
    }
    ~temp_dir() { std::filesystem::remove_all(path_); }
    temp_dir(const temp_dir &)            = delete;
    temp_dir &operator=(const temp_dir &) = delete;

    std::string file(const std::string &name) const { return path_ + "/" + name; }
    std::string write(const std::string &name, const std::string &text) const {
        std::ofstream(file(name)) << text;
        std::filesystem::permissions(file(name), std::filesystem::perms(0600));
        return file(name);
    }

private:
    std::string path_;
};

inline gw::gateway_options options_from(std::vector<std::string> words) {
    std::vector<const char *> argv = {"tlsc-gateway"};
    for (const std::string &word : words) argv.push_back(word.c_str());
    return *gw::parse_options(static_cast<int>(argv.size()), argv.data());
}

// The controller's end of the control socket.
class test_controller {
public:
    explicit test_controller(const std::string &path) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        if (connect(fd_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
            throw std::runtime_error("no control socket");
    }

    void send_line(const std::string &line) { (void)!write(fd_.get(), (line + "\n").data(), line.size() + 1); }

    // The next line, answer or event; null when none comes within five seconds.
    json next() {
        size_t end;
        while ((end = text_.find('\n')) == std::string::npos) {
            pollfd  one{fd_.get(), POLLIN, 0};
            char    buffer[65536];
            ssize_t count = poll(&one, 1, 5000) == 1 ? read(fd_.get(), buffer, sizeof buffer) : 0;
            if (count <= 0) return nullptr;
            text_.append(buffer, static_cast<size_t>(count));
        }
        json line = json::parse(text_.substr(0, end));
        text_.erase(0, end + 1);
        return line;
    }

    json ask(const std::string &line) {
        send_line(line);
        json answer;
        do answer = next();
        while (answer.is_object() && !answer.contains("ok"));
        return answer;
    }

    bool ok(const std::string &line) {
        json answer = ask(line);
        EXPECT_EQ(answer["ok"], true) << answer;
        return answer["ok"] == true;
    }

    // True when nothing is in between: the next line is the answer.
    bool next_is_answer_to_status() {
        send_line(R"({"request":"status"})");
        return next().contains("ok");
    }

    // The event of that kind after `since`, waiting for it.
    json event(const std::string &kind, const std::string &more = "", uint64_t since = 0) {
        return ask(R"({"request":"wait","timeout":4,"events":")" + kind + R"(","since":)" + std::to_string(since) +
                   more + "}")["matched"];
    }

    uint64_t counter(const std::string &name) {
        return ask(R"({"request":"counters"})")["counters"][name].get<uint64_t>();
    }

    // Waits until the counter has at least that value.
    bool counts(const std::string &name, uint64_t value) {
        for (int i = 0; i < 200; i++) {
            if (counter(name) >= value) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

private:
    common::unique_fd fd_;
    std::string       text_;
};

// The gateway in its thread. Listens on a free loopback port.
class test_gateway {
public:
    explicit test_gateway(std::vector<std::string> words = {}, bool with_psk = true) : stop_(eventfd(0, EFD_CLOEXEC)) {
        spdlog::set_level(spdlog::level::off);
        std::vector<std::string> all = {"--listen", "127.0.0.1:0"};
        if (with_psk)
            all.insert(all.end(), {"--psk-file", dir.write("psk", "dev:0123456789abcdef\nsecond:key of two\n")});
        if (std::find(words.begin(), words.end(), "--tun") == words.end()) all.push_back("--no-tun");
        all.insert(all.end(), words.begin(), words.end());
        gateway_ = std::make_unique<gw::tunnel_gateway>(options_from(all), loop_);
        control_ = gw::serve_control(dir.file("control"), *gateway_, loop_);
        port_    = static_cast<uint16_t>(
            std::stoi(gateway_->listen_text().substr(gateway_->listen_text().rfind(':') + 1)));
        stop_watch_.emplace(loop_, stop_.get());
        stop_watch_->start(common::readable, [this](unsigned) {
            stop_watch_->change(0);
            gateway_->shut_down("test");
            loop_.stop();
        });
        thread_ = std::thread([this] { loop_.run([this] { gateway_->finish_batch(); }); });
    }
    ~test_gateway() {
        uint64_t one = 1;
        (void)!write(stop_.get(), &one, sizeof one);
        thread_.join();
    }
    test_gateway(const test_gateway &)            = delete;
    test_gateway &operator=(const test_gateway &) = delete;

    uint16_t        port() const { return port_; }
    test_controller controller() const { return test_controller(dir.file("control")); }

    temp_dir dir;

private:
    common::unique_fd                       stop_;
    common::loop                            loop_;
    std::optional<common::descriptor_watch> stop_watch_;
    std::unique_ptr<gw::tunnel_gateway>     gateway_;
    std::unique_ptr<common::json_server>    control_;
    std::thread                             thread_;
    uint16_t                                port_ = 0;
};

// A client that speaks TLS 1.2 with a pre-shared key or a certificate, and shows each record as it comes.
class test_client {
public:
    struct client_settings {
        std::string identity = "dev";
        std::string key      = "0123456789abcdef";
        std::string ciphers  = "PSK-AES256-GCM-SHA384";
        std::string certificate;  // PEM files; used instead of the key when given
        std::string private_key;
        bool        encrypt_then_mac = true;
    };

    // What a read brought: bytes of a record, nothing in time, or the end of the connection.
    struct received {
        byte_vector bytes;
        bool        ended = false;
        int         error = SSL_ERROR_NONE;  // class, when ended
        std::string reason;                  // OpenSSL's, when ended

        std::string text() const { return std::string(gw::text_of(bytes)); }
    };

    explicit test_client(uint16_t port) : test_client(port, client_settings()) {}
    test_client(uint16_t port, const client_settings &settings)
        : settings_(settings), fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family      = AF_INET;
        address.sin_port        = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected               = connect(fd_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
        timeval limit{5, 0};
        setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        if (connected) handshake();
    }
    ~test_client() {
        SSL_free(ssl_);
        SSL_CTX_free(context_);
    }
    test_client(const test_client &)            = delete;
    test_client &operator=(const test_client &) = delete;

    bool        connected = false;
    bool        up        = false;  // handshake done
    std::string reason;             // why not
    std::string hint;               // PSK identity hint

    int fd() const { return fd_.get(); }

    void write_record(const byte_vector &bytes) {
        EXPECT_GT(SSL_write(ssl_, bytes.data(), static_cast<int>(bytes.size())), 0);
    }
    void send(uint8_t type, const std::string &payload = "") {
        write_record(gw::make_frame(type, gw::bytes_of(payload)));
    }

    received read(int milliseconds = 3000) {
        received got;
        uint8_t  buffer[20000];
        auto     end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
        for (;;) {
            ERR_clear_error();
            int flags = fcntl(fd_.get(), F_GETFL);
            fcntl(fd_.get(), F_SETFL, flags | O_NONBLOCK);
            int count = SSL_read(ssl_, buffer, sizeof buffer);
            int error = count > 0 ? SSL_ERROR_NONE : SSL_get_error(ssl_, count);
            if (count > 0) {
                got.bytes.assign(buffer, buffer + count);
                return got;
            }
            if (error != SSL_ERROR_WANT_READ) {
                got.ended  = true;
                got.error  = error;
                got.reason = gw::take_openssl_error();
                return got;
            }
            auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
            pollfd one{fd_.get(), POLLIN, 0};
            if (left <= 0 || poll(&one, 1, static_cast<int>(left)) == 0) return got;
        }
    }

    // The configuration exchange; the response's text.
    std::string configure(const std::string &request = "X-CSTP-Device-ID:d1\n") {
        send(gw::frame_config_request, request);
        received got = read();
        if (got.bytes.size() < gw::frame_header_size) return "";
        EXPECT_EQ(got.bytes[6], gw::frame_config_response);
        return got.text().substr(gw::frame_header_size);
    }

private:
    void handshake() {
        context_ = SSL_CTX_new(TLS_client_method());
        SSL_CTX_set_max_proto_version(context_, TLS1_2_VERSION);
        SSL_CTX_set_cipher_list(context_, settings_.ciphers.c_str());
        SSL_CTX_set_app_data(context_, this);
        SSL_CTX_set_quiet_shutdown(context_, 1);
        if (!settings_.encrypt_then_mac) SSL_CTX_set_options(context_, SSL_OP_NO_ENCRYPT_THEN_MAC);
        if (settings_.ciphers.find("PSK") != std::string::npos) SSL_CTX_set_psk_client_callback(context_, give_key);
        if (!settings_.certificate.empty()) {
            SSL_CTX_use_certificate_file(context_, settings_.certificate.c_str(), SSL_FILETYPE_PEM);
            SSL_CTX_use_PrivateKey_file(context_, settings_.private_key.c_str(), SSL_FILETYPE_PEM);
        }
        ssl_ = SSL_new(context_);
        SSL_set_fd(ssl_, fd_.get());
        up = SSL_connect(ssl_) == 1;
        if (!up) reason = gw::take_openssl_error();
    }

    static unsigned give_key(SSL *ssl, const char *hint, char *identity, unsigned, unsigned char *key, unsigned) {
        auto *self = static_cast<test_client *>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(ssl)));
        if (hint) self->hint = hint;
        strcpy(identity, self->settings_.identity.c_str());
        memcpy(key, self->settings_.key.data(), self->settings_.key.size());
        return static_cast<unsigned>(self->settings_.key.size());
    }

    client_settings   settings_;
    common::unique_fd fd_;
    SSL_CTX          *context_ = nullptr;
    SSL              *ssl_     = nullptr;
};

inline std::string line_of(const std::string &text, const std::string &name) {
    return gw::response_value(text, name).value_or("(none)");
}

// A UDP packet with correct checksums, as its bytes.
inline byte_vector udp_packet(const std::string &source, const std::string &destination, uint16_t port,
                              const std::string &data) {
    auto sum = [](const byte_vector &bytes) {
        uint32_t total = 0;
        for (size_t i = 0; i < bytes.size(); i += 2)
            total += static_cast<uint32_t>(bytes[i] << 8 | (i + 1 < bytes.size() ? bytes[i + 1] : 0));
        while (total >> 16) total = (total & 0xffff) + (total >> 16);
        return static_cast<uint16_t>(~total);
    };
    auto u16 = [](byte_vector &to, size_t value) {
        to.insert(to.end(), {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)});
    };
    auto u32 = [&](byte_vector &to, uint32_t value) {
        u16(to, value >> 16);
        u16(to, value & 0xffff);
    };
    size_t      length = 28 + data.size();
    byte_vector packet = {0x45, 0};
    u16(packet, length);
    u32(packet, 0x12340000);
    u32(packet, 0x40110000);
    u32(packet, *gw::parse_ipv4(source));
    u32(packet, *gw::parse_ipv4(destination));
    uint16_t checksum = sum(packet);
    packet[10]        = static_cast<uint8_t>(checksum >> 8);
    packet[11]        = static_cast<uint8_t>(checksum);
    u16(packet, 40000);
    u16(packet, port);
    u16(packet, 8 + data.size());
    u16(packet, 0);  // UDP without checksum
    packet.insert(packet.end(), data.begin(), data.end());
    return packet;
}

}  // namespace gwtest
