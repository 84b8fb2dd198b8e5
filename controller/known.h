// Everything that is known of daemon and tunnel, from all sources, and what follows from it: the health, the status,
// and what is kept for the next agent. Called on the agent's one thread.
#pragma once

#include "base.h"
#include "diagnosis.h"
#include "hooks.h"
#include "interface.h"
#include "state.h"

#include <array>
#include <functional>
#include <map>
#include <optional>
#include <string>

namespace wlcctl {

// What to expect of the tunnel.
enum class health {
    unknown,
    down,
    connecting,
    up,
    degraded  // up by the daemon's word, but the gateway does not answer, or packets have nowhere to go
};
const char *health_name(health is);

// The counters, in totals that survive a clearing and a new daemon, and their rates.
class counter_book {
public:
    void on_report(const counters &values, const moment &now);

    // Per second between the last two reports; nothing before the second one.
    std::optional<double> rate(size_t index) const;

    std::array<uint64_t, counter_count> totals{};
    std::optional<counters>             last;

private:
    std::array<double, counter_count> rates_{};
    moment                            last_at_;
    bool                              has_rates_ = false;
};

class knowledge {
public:
    knowledge(event_log &log, std::function<bool()> is_daemon_alive);

    health is(const moment &now) const;

    // Exit status of `status`.
    exit_code judge(const moment &now) const;

    // Looks at health and reason, and tells changes as events. Called after everything that may change them.
    void settle(const moment &now);

    // The members of `status`.
    json status(const moment &now) const;

    // Reason, remedy and what else answers to start, wait and hooks say of a failure.
    json describe_reason(const moment &now) const;

    // Kept for the next agent, and taken from an earlier one. process, start: of the daemon now running; what belongs
    // to another process is left.
    json save(int32_t process, uint64_t start, const moment &now) const;
    void load(const json &kept, bool is_same_process, const moment &now);

    event_log            &log;
    controller_state      state;
    diagnosis             why;
    counter_book          book;
    interface_facts       interface;
    std::string           conf_path;
    std::string           interface_name, gateway_name, cipher, conf_gateway, conf_port;  // of the configuration file
    std::optional<moment> counters_asked;            // since when the counters are asked for in place of the log
    bool                  has_been_started = false;  // somebody ordered the present daemon to start
    std::map<std::string, hook_result>          hook_results;
    double                                      watch_patience = 0;  // 0: nobody watches
    std::function<void(health from, health to)> on_health;

private:
    bool        is_unheard(const moment &now) const;
    std::string explain_health(health now_is, const moment &now) const;
    json        describe_health(const moment &now) const;
    json        describe_gateway() const;
    json        describe_interface() const;
    json        describe_hooks(const moment &now) const;
    void        describe_counters(json &all) const;
    void        load_keep_alive(const json &kept, const moment &now);

    health last_health_ = health::unknown;
};

}  // namespace wlcctl
