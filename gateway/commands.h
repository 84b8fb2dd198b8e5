#pragma once

#include <set>
#include <stdexcept>
#include <string>

#include "gateway.h"

namespace gw {

// What is wrong with a request; the text is the answer's `error`.
struct CommandError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Which events somebody asks for.
struct EventFilter {
    std::set<std::string> kinds;                    // empty: all
    uint64_t              client = 0;               // 0: all
    Json                  match  = Json::object();  // members that must be equal

    bool accepts(const Json &event) const;
};

// Executes one request that needs nothing but the gateway: looks `cmd` up in the table of commands and returns the members of the answer
// besides `ok` and `id`. Throws CommandError.
Json run_command(Gateway &gateway, const Json &request);

// Reads members of a request, for the requests that the control socket serves itself. They throw CommandError for a wrong type.
void     check_members(const Json &request, const std::set<std::string> &allowed);
uint64_t number_member(const Json &request, const char *name, uint64_t standard, uint64_t limit = UINT64_MAX);
std::set<std::string> event_kinds(const Json &request, const char *name);
EventFilter           event_filter(const Json &request, const char *kinds_member);

}  // namespace gw
