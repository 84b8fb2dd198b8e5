// The resident part: one process, one loop, everything else of the directory in its hands.
#pragma once

#include "conf.h"

#include <string>

namespace wlcctl {

constexpr const char *default_socket      = "/tmp/wlcctl.sock";
constexpr const char *default_from_daemon = "/tmp/tlsc-to-wlc-fifo";
constexpr const char *default_to_daemon   = "/tmp/wlc-to-tlsc-fifo";

constexpr size_t request_limit = 65536;  // bytes of one request line

struct agent_options {
    std::string socket      = default_socket;
    std::string from_daemon = default_from_daemon;  // pipe that the agent creates and reads
    std::string to_daemon   = default_to_daemon;    // pipe that the daemon creates and reads
    std::string conf        = default_conf_file;    // read for the hooks' environment
    std::string resolve_name;                       // looked up for each name query; empty: not
    std::string resolve_address;                    // fixed answer to name queries; empty: none
    double      resolve_timeout = 10;               // seconds
    std::string on_up;                              // commands, empty: none
    std::string on_down;
    std::string on_dns;
    double      hook_timeout = 30;     // seconds
    bool        quiet        = false;  // no events on standard output
    bool        as_json      = false;  // events on standard output as JSON
};

// Runs the agent until SIGTERM or SIGINT. Called on the initial thread, before any other exists.
// Returns the exit status: 0 after a signal, 1 when something could not be set up, 7 when another controller reads the
// daemon's messages. A failure is told on standard error in one line.
int run_agent(const agent_options &options);

}  // namespace wlcctl
