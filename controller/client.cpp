#include "client.h"

#include "present.h"
#include "state.h"  // exit codes

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace wlcctl {

namespace {

volatile sig_atomic_t was_interrupted = 0;  // SIGINT or SIGTERM came while following

void on_interrupt(int) { was_interrupted = 1; }

// No SA_RESTART: the wait for the next line must end.
void catch_interrupts() {
    struct sigaction action {};
    action.sa_handler = on_interrupt;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

// The socket lies in a directory where anybody may put one: only our own user's, or root's, is an agent.
bool is_trusted(int fd) {
    ucred     peer{};
    socklen_t size = sizeof peer;
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && (peer.uid == geteuid() || peer.uid == 0);
}

// Connects; -1 and a sentence if that fails.
int connect_agent(const std::string &path, std::string &error) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    error              = "no agent is running at " + path + "; start one with: wlcctl agent";
    if (path.size() >= sizeof address.sun_path) return -1;
    memcpy(address.sun_path, path.data(), path.size());

    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) {
        if (is_trusted(fd)) return fd;
        error = "the socket " + path + " belongs to another user's process";
    } else if (errno == EACCES || errno == EPERM) {
        error = "no permission to use the agent at " + path;
    }
    close(fd);
    return -1;
}

bool send_line(int fd, const std::string &line) {
    for (size_t at = 0; at < line.size();) {
        ssize_t n = send(fd, line.data() + at, line.size() - at, MSG_NOSIGNAL);
        if (n <= 0) return false;
        at += static_cast<size_t>(n);
    }
    return true;
}

enum class reading {
    line,
    over,
    late,
    interrupted
};

// Takes the next line; `buffer` keeps what came behind it.
reading read_line(int fd, std::string &buffer, std::string &line, double patience) {
    for (;;) {
        if (size_t end = buffer.find('\n'); end != std::string::npos) {
            line = buffer.substr(0, end);
            buffer.erase(0, end + 1);
            return reading::line;
        }
        pollfd state = {fd, POLLIN, 0};
        int    ready = was_interrupted ? -1 : poll(&state, 1, patience > 0 ? static_cast<int>(patience * 1000) : -1);
        if (was_interrupted) return reading::interrupted;
        if (ready == 0) return reading::late;

        char    bytes[16384];
        ssize_t n = ready > 0 ? recv(fd, bytes, sizeof bytes, 0) : -1;
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return reading::over;
        buffer.append(bytes, static_cast<size_t>(n));
    }
}

int failed(const json &request, int exit, const std::string &why, const print_options &options) {
    return print_answer({{"ok", false}, {"exit", exit}, {"verb", request["verb"]}, {"error", why}}, options);
}

void print_event(const json &e, const print_options &options) {
    std::string line = options.as_json ? json_line(e) : event_text(e) + "\n";
    fwrite(line.data(), 1, line.size(), stdout);
    fflush(stdout);
}

int converse(int fd, const json &request, double patience, const print_options &options) {
    std::string buffer, line;
    if (!send_line(fd, json_line(request))) return failed(request, exit_failed, "the agent went away", options);

    for (;;) {
        reading result = read_line(fd, buffer, line, patience);
        if (result == reading::interrupted) return exit_done;
        if (result == reading::late) return failed(request, exit_no_answer, "the agent does not answer", options);
        if (result == reading::over) return failed(request, exit_failed, "the agent went away", options);

        json answer = json::parse(line, nullptr, false);
        if (!answer.is_object()) return failed(request, exit_failed, "the agent's answer makes no sense", options);
        if (!answer.contains("event")) {
            // The end of a counted stream says nothing to people.
            bool is_end = options.is_follower && !options.as_json && answer.value("ok", false);
            return is_end ? exit_done : print_answer(answer, options);
        }
        print_event(answer, options);
    }
}

}  // namespace

int print_answer(const json &answer, const print_options &options) {
    std::string out   = options.as_json ? json_line(answer) : answer_text(answer);
    std::string error = answer.value("error", "");
    fwrite(out.data(), 1, out.size(), stdout);
    fflush(stdout);
    if (!options.as_json && !error.empty()) fprintf(stderr, "wlcctl: %s\n", error.c_str());
    return answer.value("exit", static_cast<int>(exit_failed));
}

int ask_agent(const std::string &socket, const json &request, double patience, const print_options &options) {
    std::string error;
    int         fd = connect_agent(socket, error);
    if (fd < 0) return failed(request, request["verb"] == "status" ? exit_unknown : exit_failed, error, options);

    if (options.is_follower) catch_interrupts();
    int status = converse(fd, request, patience, options);
    close(fd);
    return status;
}

}  // namespace wlcctl
