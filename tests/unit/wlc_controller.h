// The controller's side of the two FIFOs, for the tests of the controller interface: it makes and reads
// "/tmp/tlsc-to-wlc-fifo", and writes into "/tmp/wlc-to-tlsc-fifo". Messages are handled as bytes; the offsets are
// those of the documented message, not those of the daemon's records.
#pragma once

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

constexpr char to_client_fifo[]   = "/tmp/wlc-to-tlsc-fifo";
constexpr char from_client_fifo[] = "/tmp/tlsc-to-wlc-fifo";
constexpr char conf_file[]        = "/storage/application/wlc/wlc-sec-tun.conf";
constexpr char temp_conf_file[]   = "/storage/application/wlc/wlc-sec-tun-temp.conf";
constexpr char bootup_flag_file[] = "/storage/application/wlc/sectun-bootup-dbg.flag";

constexpr size_t message_size = 520;
constexpr size_t payload_at   = 8;   // offset of the payload, of an info message's type
constexpr size_t info_body_at = 16;  // offset of an info message's body

using wire_message = std::string;  // 520 bytes

template <class number>
number number_at(const wire_message &bytes, size_t offset) {
    number value{};
    if (offset + sizeof(value) <= bytes.size()) memcpy(&value, bytes.data() + offset, sizeof(value));
    return value;
}

inline uint32_t id_of(const wire_message &bytes) { return number_at<uint32_t>(bytes, 0); }

// The text at offset, up to its NUL.
inline std::string text_at(const wire_message &bytes, size_t offset) {
    return bytes.substr(offset, bytes.find('\0', offset) - offset);
}

// A message with this identifier and the payload's first bytes; the rest is zero.
inline wire_message make_message(uint32_t id, const std::string &payload = "") {
    wire_message bytes(message_size, '\0');
    memcpy(bytes.data(), &id, sizeof(id));
    bytes.replace(payload_at, payload.size(), payload);
    return bytes;
}

// A debug-settings payload: 64 bytes category, 64 bytes value.
inline std::string debug_set_payload(const std::string &category, const std::string &value) {
    std::string payload(128, '\0');
    payload.replace(0, category.size(), category);
    payload.replace(64, value.size(), value);
    return payload;
}

inline void write_file(const std::string &path, const std::string &content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

inline std::string read_file(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline bool exists(const std::string &path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0;
}

// A fresh /tmp and /storage for every test. The paths are the real ones, so the tests run in a private world only.
class controller_test : public ::testing::Test {
protected:
    void SetUp() override {
        if (!getenv("PRIVATE_WORLD")) GTEST_SKIP() << "needs root: run through tools/private-world";
        signal(SIGPIPE, SIG_IGN);
        remove_files();
    }
    void TearDown() override {
        if (reader_ >= 0) close(reader_);
        if (getenv("PRIVATE_WORLD")) remove_files();
    }

    // Creates the controller's FIFO and reads it from now on.
    void listen() {
        ASSERT_EQ(mkfifo(from_client_fifo, 0600), 0) << strerror(errno);
        reader_ = open(from_client_fifo, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        ASSERT_GE(reader_, 0) << strerror(errno);
    }

    // The messages that arrived since the last call; a piece of another size shows as such.
    std::vector<wire_message> received() {
        std::vector<wire_message> messages;
        for (;;) {
            wire_message  bytes(message_size, '\xff');
            const ssize_t got = read(reader_, bytes.data(), bytes.size());
            if (got <= 0) return messages;
            bytes.resize(static_cast<size_t>(got));
            messages.push_back(bytes);
        }
    }

    // Writes bytes into the client's FIFO, whose reading end must be open.
    static void send(const std::string &bytes) {
        const int fd = open(to_client_fifo, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        ASSERT_GE(fd, 0) << strerror(errno);
        ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        close(fd);
    }

private:
    static void remove_files() {
        for (const char *path : {to_client_fifo, from_client_fifo, conf_file, temp_conf_file, bootup_flag_file}) {
            (void)rmdir(path);
            (void)unlink(path);
        }
    }

    int reader_ = -1;
};
