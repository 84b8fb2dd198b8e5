// Why the tunnel is not what it should be: the stable codes, each with its cause, what to do, and the log lines behind.
// One table for the agent, `wlcctl why`, `doctor` and the manual.
#pragma once

#include "base.h"

#include <string>
#include <vector>

namespace wlcctl {

struct reason_entry {
    const char *code;
    const char *cause;
    const char *remedy;
    const char *lines;  // of the daemon's log, or what else shows it
};

extern const std::vector<reason_entry> reason_table;

// The entry of a code; null if there is none.
const reason_entry *find_reason(const std::string &code);

}  // namespace wlcctl
