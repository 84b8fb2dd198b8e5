// Commands run when the tunnel changes: one at a time, in the order of their causes, never waited for.
// Called on the agent's one thread.
#pragma once

#include "events.h"

#include <deque>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace wlcctl {

class hooks {
public:
    // log: takes the events. timeout: seconds after which a hook is ended.
    hooks(event_log &log, double timeout) : m_log(log), m_timeout(timeout) {}

    // Queues a command for /bin/sh -c and runs it when those before it have ended.
    // name: "up", "down" or "dns"; facts: "NAME=value" texts that are added to the environment; cause: number of the event that caused it.
    void run(const char *name, const std::string &command, std::vector<std::string> facts, uint64_t cause,
             const moment &now);

    // Collects a hook that has ended, ends one that runs too long, starts the next. Called after SIGCHLD and at deadlines.
    void tick(const moment &now);

    // When tick() must be called at the latest, monotonic seconds; nothing if no hook runs.
    std::optional<double> deadline() const;

    // Ends the running hook and forgets the waiting ones. Blocks for at most a second.
    void stop();

private:
    struct job {
        std::string              name;
        std::string              command;
        std::vector<std::string> facts;
        uint64_t                 cause;  // number of an event
    };
    void start_next(const moment &now);
    void collect(const moment &now);

    event_log      &m_log;
    double          m_timeout;
    std::deque<job> m_waiting;
    std::string     m_name;             // of the running hook
    pid_t           m_running = 0;      // 0: none; also its process group
    double          m_started = 0;      // monotonic seconds
    bool            m_ended   = false;  // SIGTERM was sent
    double          m_kill_at = 0;      // when SIGKILL follows
};

}  // namespace wlcctl
