#pragma once

#include <set>
#include <stdexcept>
#include <string>

#include "gateway.h"

namespace gw {

// What is wrong with a request; the text is the answer's `error`.
struct command_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Which events somebody asks for.
struct event_filter {
    std::set<std::string> kinds;                    // empty: all
    uint64_t              client = 0;               // 0: all
    json                  match  = json::object();  // members that must be equal

    bool accepts(const json &event) const;
};

// Executes one request that needs nothing but the gateway: looks `cmd` up in the table of commands and returns the
// members of the answer besides `ok` and `id`. Throws CommandError.
json run_command(tunnel_gateway &gateway, const json &request);

// Reads members of a request, for the requests that the control socket serves itself. They throw CommandError for a
// wrong type.
void     check_members(const json &request, const std::set<std::string> &allowed);
uint64_t number_member(const json &request, const char *name, uint64_t standard, uint64_t limit = UINT64_MAX);
std::set<std::string> event_kinds(const json &request, const char *name);
event_filter          read_event_filter(const json &request, const char *kinds_member);

}  // namespace gw
