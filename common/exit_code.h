// Exit statuses: one table for every verb of the programs, and the member "exit" of every answer.
#pragma once

namespace common {

enum exit_code : int {
    exit_done               = 0,   // done; for `status`: the tunnel is up
    exit_failed             = 1,   // failed, and none of the others says why
    exit_usage              = 2,   // a wrong option, word, member or value
    exit_not_reached        = 3,   // the tunnel, or what was waited for, did not come in time
    exit_daemon_not_running = 4,   // nobody reads the daemon's pipe
    exit_no_answer          = 5,   // whom we asked runs, and did not answer in time
    exit_degraded           = 6,   // up, but what the gateway should answer stays unanswered
    exit_other_controller   = 7,   // another controller reads the daemon's messages
    exit_feature_disabled   = 8,   // the tunnel was stopped by order
    exit_unknown            = 9,   // not known: nothing was reported yet, or nobody serves the socket
    exit_hook_failed        = 10,  // done, but a hook failed
};

}  // namespace common
