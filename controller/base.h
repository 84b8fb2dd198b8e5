// What every source of the controller shares: the foundation's names, the default places, the kinds of events.
#pragma once

#include "common/clock.h"
#include "common/event_log.h"
#include "common/exit_code.h"
#include "common/json.h"

#include <string>
#include <vector>

namespace wlcctl {

using namespace common;

constexpr const char *default_socket       = "/tmp/wlcctl.sock";
constexpr const char *default_from_daemon  = "/tmp/tlsc-to-wlc-fifo";
constexpr const char *default_to_daemon    = "/tmp/wlc-to-tlsc-fifo";
constexpr const char *default_daemon_log   = "/tmp/tlsc_log";
constexpr const char *default_agent_conf   = "/etc/tlsc/agent.conf";
constexpr const char *default_agent_memory = "/run/tlsc/agent.json";

// Every kind of event that the agent adds.
extern const std::vector<event_kind> event_kinds;

}  // namespace wlcctl
