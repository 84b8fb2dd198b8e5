#include "hooks.h"

#include <cmath>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;  // POSIX declares it in no header

namespace wlcctl {

namespace {

constexpr size_t waiting_limit = 64;  // a hook that hangs must not make the queue grow for ever
constexpr double kill_delay    = 2;   // seconds between SIGTERM and SIGKILL

// The agent's environment plus the facts. Facts come first, so that they win.
std::vector<char *> make_environment(std::vector<std::string> &facts) {
    std::vector<char *> list;
    list.reserve(facts.size());
    for (std::string &fact : facts) list.push_back(fact.data());
    for (char **entry = environ; *entry; entry++)
        if (strncmp(*entry, "TLSC_", 5) != 0) list.push_back(*entry);
    list.push_back(nullptr);
    return list;
}

// Runs the command in a process group of its own, with default signals, nothing to read, and its output on standard error.
// Returns the error number of posix_spawn.
int spawn(pid_t &pid, std::string command, std::vector<std::string> facts) {
    posix_spawnattr_t          attributes;
    posix_spawn_file_actions_t actions;
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_init(&actions);

    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    for (int number : {SIGPIPE, SIGTERM, SIGINT, SIGCHLD, SIGHUP}) sigaddset(&defaults, number);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDOUT_FILENO);

    char                shell[] = "sh", option[] = "-c";
    char               *arguments[] = {shell, option, command.data(), nullptr};
    std::vector<char *> environment = make_environment(facts);
    int                 error = posix_spawn(&pid, "/bin/sh", &actions, &attributes, arguments, environment.data());

    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    return error;
}

}  // namespace

void hooks::run(const char *name, const std::string &command, std::vector<std::string> facts, uint64_t cause,
                const moment &now) {
    if (m_waiting.size() >= waiting_limit) {
        m_log.add(now, "hook_failed", {{"hook", name}, {"error", "too many hooks are waiting"}});
        return;
    }
    m_waiting.push_back({name, command, std::move(facts), cause});
    tick(now);
}

void hooks::tick(const moment &now) {
    if (m_running != 0) collect(now);
    if (m_running != 0 && !m_ended && now.mono >= m_started + m_timeout) {
        m_ended   = true;
        m_kill_at = now.mono + kill_delay;
        kill(-m_running, SIGTERM);
    } else if (m_running != 0 && m_ended && now.mono >= m_kill_at) {
        m_kill_at = now.mono + kill_delay;
        kill(-m_running, SIGKILL);
    }
    while (m_running == 0 && !m_waiting.empty()) start_next(now);
}

std::optional<double> hooks::deadline() const {
    if (m_running == 0) return std::nullopt;
    return m_ended ? m_kill_at : m_started + m_timeout;
}

void hooks::stop() {
    m_waiting.clear();
    if (m_running == 0) return;

    kill(-m_running, SIGTERM);
    for (int i = 0; i < 50; i++) {
        if (waitpid(m_running, nullptr, WNOHANG) != 0) {
            m_running = 0;
            return;
        }
        usleep(20000);
    }
    kill(-m_running, SIGKILL);
    waitpid(m_running, nullptr, 0);
    m_running = 0;
}

void hooks::start_next(const moment &now) {
    job next = std::move(m_waiting.front());
    m_waiting.pop_front();

    int error = spawn(m_running, next.command, std::move(next.facts));
    if (error != 0) {
        m_running = 0;
        m_log.add(now, "hook_failed", {{"hook", next.name}, {"error", strerror(error)}});
        return;
    }
    m_name    = next.name;
    m_started = now.mono;
    m_ended   = false;
    m_log.add(now, "hook_started", {{"hook", m_name}, {"pid", m_running}, {"for_event", next.cause}});
}

void hooks::collect(const moment &now) {
    int status = 0;
    if (waitpid(m_running, &status, WNOHANG) <= 0) return;

    json members = {{"hook", m_name}, {"pid", m_running}};
    if (WIFSIGNALED(status)) members["signal"] = WTERMSIG(status);
    else members["status"] = WEXITSTATUS(status);
    members["seconds"]   = std::round((now.mono - m_started) * 1000) / 1000;
    members["timed_out"] = m_ended;
    // What the shell left behind in its group belongs to a hook that is over.
    if (m_ended) kill(-m_running, SIGKILL);
    m_running = 0;
    m_log.add(now, "hook_ended", members);
}

}  // namespace wlcctl
