// What the agent counts, and the metrics that show it. Counters go on over a clearing, over another life of the daemon
// and over one of the agent. Called on the loop's thread.
#pragma once

#include "base.h"
#include "interface.h"
#include "keeper.h"
#include "known.h"

#include "common/metrics_text.h"

#include <map>
#include <optional>
#include <string>

namespace wlcctl {

class metrics {
public:
    metrics(const knowledge &known, const keeper &keep) : known_(known), keeper_(keep) {}

    // An event was added; members as a tree.
    void on_event(const event &e, const json &members);

    // Something changed, or a second passed.
    void look(const moment &now);

    // The page.
    std::string text(const moment &now) const;

    // Kept for the next agent, and taken from an earlier one.
    json save() const;
    void load(const json &kept);

private:
    using counts = std::map<std::string, uint64_t>;

    void     count_downs(const moment &now);
    void     count_rekeys(const moment &now);
    void     count_bytes();
    uint64_t names(const char *result) const;

    void put_tunnel(metrics_text &to, const moment &now) const;
    void put_traffic(metrics_text &to) const;
    void put_errors(metrics_text &to) const;
    void put_agent(metrics_text &to, const moment &now) const;

    const knowledge &known_;
    const keeper    &keeper_;

    counts                downs_;          // by reason
    counts                hook_failures_;  // by hook
    counts                earlier_names_;  // of earlier agents, by result
    uint64_t              rekey_failures_ = 0;
    uint64_t              bytes_in_ = 0, bytes_out_ = 0;
    bool                  was_up_ = false;
    std::optional<double> down_since_;       // monotonic; its reason is not known yet
    uint64_t              open_rekeys_ = 0;  // attempts without a success, at the last look
    double                open_since_  = 0;  // monotonic
    link_bytes            link_;             // at the last look
};

}  // namespace wlcctl
