// Commands run when the tunnel changes: one at a time, in the order of their causes, never waited for.
// Called on the agent's one thread.
#pragma once

#include "base.h"

#include "common/child.h"
#include "common/loop.h"

#include <deque>
#include <functional>
#include <string>
#include <vector>

namespace wlcctl {

// How a hook ended the last time.
struct hook_result {
    bool        is_good = false;
    int         status  = 0;
    int         signal  = 0;
    std::string error;  // first line of its standard error, or why it could not be run
    moment      when;
    double      seconds   = 0;
    uint64_t    for_event = 0;
};

class hooks {
public:
    // log: takes the events. timeout: seconds after which a hook is ended.
    hooks(loop &owner, event_log &log, double timeout);

    // Called when a hook has ended or could not be run.
    std::function<void(const std::string &name, const hook_result &result)> on_end;

    // Queues a command for /bin/sh -c and runs it when those before it have ended.
    // name: "up", "down" or "dns"; facts: "NAME=value" texts that are added to the environment; cause: number of the
    // event that caused it.
    void run(const char *name, const std::string &command, std::vector<std::string> facts, uint64_t cause);

    // Ends the running hook and forgets the waiting ones; calls work when that is done, at the latest after a second.
    void stop(task work);

private:
    struct job {
        std::string              name;
        std::string              command;
        std::vector<std::string> facts;
        uint64_t                 cause;  // number of an event
    };
    void start_next();
    void end_running();
    void take_error_output(std::string_view text);
    void finish(const job &done, const child_end &end);
    void tell(const std::string &name, const hook_result &result);

    event_log      &log_;
    double          timeout_;
    std::deque<job> waiting_;
    child           child_;
    timer           deadline_;
    double          started_   = 0;  // monotonic seconds
    bool            timed_out_ = false;
    std::string     error_;    // what the running hook said
    task            stopped_;  // set while everything ends
};

}  // namespace wlcctl
