// The verbs that work without an agent, or with a look at it only.
#pragma once

#include "base.h"
#include "client.h"

#include <string>

namespace wlcctl {

// Prints every finding of the file; exit 1 when one of them is an error.
int run_lint(const std::string &file, const print_options &print);

// Prints the table of reasons, or one of it; without a code the present one first, when an agent knows it.
int run_why(const std::string &code, const std::string &socket, const print_options &print);

struct logs_options {
    std::string path    = default_daemon_log;
    bool        follow  = false;
    bool        has_why = false;
    std::string level;      // only lines of this rank and above; empty: all
    uint64_t    count = 0;  // the last so many of what stands there, 0: all
};

// Prints the daemon's log, parsed.
int run_logs(const logs_options &options, const print_options &print);

struct doctor_options {
    std::string socket, conf, to_daemon, from_daemon;
    bool        checks_mtu = false;
    std::string ping;  // address behind the tunnel; empty: the first DNS server that the gateway gave
};

// Checks a device from top to bottom, prints what it finds, and the first cause with its remedy. Exit 0 when all is
// well.
int run_doctor(const doctor_options &options, const print_options &print);

// Writes a tar.gz for a bug report, without keys, cookies and identities, and lists what it holds.
int run_report(const std::string &out, const std::string &socket, const std::string &conf, const std::string &log,
               const print_options &print);

// Prints the agent's metrics, or replaces the file `out` by them. A file that could not be made anew is removed: old
// metrics would tell of a tunnel that nobody looks at.
int run_metrics(const std::string &out, const std::string &socket, const print_options &print);

}  // namespace wlcctl
