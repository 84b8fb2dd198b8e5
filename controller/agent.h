// The resident part: one process, one loop, and its rooms. The daemon's pipe is pipe.h, the verbs are verbs.h, what is
// known is known.h; here are the loop, the hooks and what happens when something happened.
#pragma once

#include "base.h"
#include "conf.h"

#include <string>
#include <vector>

namespace wlcctl {

struct agent_options {
    std::string socket      = default_socket;
    std::string from_daemon = default_from_daemon;   // pipe that the agent creates and reads
    std::string to_daemon   = default_to_daemon;     // pipe that the daemon creates and reads
    std::string conf        = default_conf_file;     // the tunnel's configuration file
    std::string daemon_log  = default_daemon_log;    // followed for reasons; empty: not
    std::string memory      = default_agent_memory;  // what outlives the agent; empty: nothing does
    std::string resolve_name;                        // looked up for each name query; empty: the configuration's
    std::string resolve_address;                     // fixed answer to name queries; empty: none
    double      resolve_timeout = 10;                // seconds
    std::string on_up;                               // commands, empty: none
    std::string on_down;
    std::string on_dns;
    double      hook_timeout = 30;      // seconds
    bool        keep_up      = false;   // starts the tunnel, and keeps it up
    double      stuck_after  = 150;     // seconds without a sign of life that a connecting daemon gets
    std::string run;                    // program of the daemon to supervise; empty: somebody else does
    std::string socket_group;           // may watch on a second socket; empty: nobody
    std::string watch_socket;           // that socket; empty: beside the first, with ".ro"
    std::string log_level = "info";     // of the agent's own log, on standard error
    bool        quiet     = false;      // no events on standard output
    bool        as_json   = false;      // events on standard output as JSON
    std::string http;                   // where to serve HTTP, as parse_http_place reads it; empty: nowhere
    bool        http_anywhere = false;  // also on an address that others reach
    std::string program;                // of this program, for work in a child; empty: done here
};

// Runs the agent until SIGTERM or SIGINT. Called on the initial thread, before any other exists.
// Returns the exit status: 0 after a signal, 1 when something could not be set up, 7 when another controller reads the
// daemon's messages. A failure is told on standard error in one line.
int run_agent(const agent_options &options);

}  // namespace wlcctl
