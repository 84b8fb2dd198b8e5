// Starts the daemon as a child, starts it again when it ends, with a growing pause. Called on the loop's thread.
#pragma once

#include "base.h"

#include "common/child.h"

#include <functional>
#include <string>

namespace wlcctl {

class supervisor {
public:
    supervisor(loop &owner, event_log &log, std::string program);

    // Called when the daemon ended so soon, and in such a way, that it may not run here (it says so with status 0).
    std::function<void()> on_refusal;

    void start();

    // A daemon runs already, of an agent that did not end in order: on_gone() starts the next one.
    void adopt() { has_adopted_ = true; }
    void on_gone();
    void praise() { pause_ = 0; }  // the daemon did its work: its next end is a first one
    bool has_adopted() const { return has_adopted_; }

    // Ends the daemon for good: SIGTERM, a moment later SIGKILL; then calls work.
    void stop(task work);

private:
    void on_end(const child_end &end, double ran);

    event_log  &log_;
    std::string program_;
    child       child_;
    timer       again_;
    double      pause_       = 0;  // seconds before the next start
    bool        has_adopted_ = false;
    task        stopped_;
};

}  // namespace wlcctl
