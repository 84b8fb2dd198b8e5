#include "line_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstring>

#include "clock.h"
#include "log.h"

namespace common {

namespace {

volatile sig_atomic_t was_interrupted = 0;

void on_interrupt(int) { was_interrupted = 1; }

bool is_trusted(int fd, bool any_user) {
    ucred     peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return false;
    return any_user || peer.uid == geteuid() || peer.uid == 0;
}

}  // namespace

std::string line_client::connect(const std::string &path, const std::string &nobody, bool any_user) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) return nobody;
    memcpy(address.sun_path, path.data(), path.size());

    fd_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd_ && ::connect(fd_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) {
        if (is_trusted(fd_.get(), any_user)) return "";
        fd_.reset();
        return "the socket " + printable(path) + " belongs to another user's process";
    }
    bool is_refused = errno == EACCES || errno == EPERM;
    fd_.reset();
    return is_refused ? "no permission to use the socket " + printable(path) : nobody;
}

bool line_client::send(const std::string &line) {
    for (size_t at = 0; at < line.size();) {
        ssize_t count = ::send(fd_.get(), line.data() + at, line.size() - at, MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR && !was_interrupted) continue;
        if (count <= 0) return false;
        at += static_cast<size_t>(count);
    }
    return true;
}

line_client::reading line_client::read(std::string &line, double patience) {
    double end = present().mono + patience;
    size_t at  = 0;  // what was searched already
    for (;;) {
        if (size_t found = buffer_.find('\n', at); found != std::string::npos) {
            line = buffer_.substr(0, found);
            buffer_.erase(0, found + 1);
            return reading::line;
        }
        at           = buffer_.size();
        double left  = end - present().mono;
        pollfd state = {fd_.get(), POLLIN, 0};
        int    wait  = patience <= 0 ? -1 : left > 0 ? static_cast<int>(std::ceil(left * 1000)) : 0;
        int    ready = was_interrupted ? -1 : poll(&state, 1, wait);
        if (was_interrupted) return reading::interrupted;
        if (ready == 0) return reading::late;

        char    bytes[16384];
        ssize_t count = ready > 0 ? recv(fd_.get(), bytes, sizeof bytes, 0) : -1;
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return reading::over;
        buffer_.append(bytes, static_cast<size_t>(count));
    }
}

// No SA_RESTART: the wait for the next line must end.
void line_client::catch_interrupts() {
    struct sigaction action {};
    action.sa_handler = on_interrupt;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

}  // namespace common
