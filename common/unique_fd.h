// Owner of one descriptor; -1 means none.
#pragma once

#include <unistd.h>

#include <utility>

namespace common {

class unique_fd {
public:
    explicit unique_fd(int fd = -1) : fd_(fd) {}
    ~unique_fd() { reset(); }
    unique_fd(unique_fd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    unique_fd &operator=(unique_fd &&other) noexcept {
        if (this != &other) reset(std::exchange(other.fd_, -1));
        return *this;
    }
    unique_fd(const unique_fd &)            = delete;
    unique_fd &operator=(const unique_fd &) = delete;

    int      get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int      release() { return std::exchange(fd_, -1); }
    void     reset(int fd = -1) {
            if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_;
};

}  // namespace common
