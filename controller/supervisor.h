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
    void praise() { pause_ = 0; }  // the daemon did its work: its next end is a first one
    int  pid() const { return child_.pid(); }
    void kill() { child_.signal(9); }

    // Ends the daemon for good: SIGTERM, a moment later SIGKILL; then calls work.
    void stop(task work);

private:
    void on_end(const child_end &end, double ran);

    event_log  &log_;
    std::string program_;
    child       child_;
    timer       again_;
    double      pause_ = 0;  // seconds before the next start
    task        stopped_;
};

}  // namespace wlcctl
