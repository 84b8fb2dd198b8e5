// The last 24 hours: which state the tunnel was in, and what it carried, in steps of five minutes. Kept in a file of
// its own for the next agent. Times are counted on the monotonic clock, so that a wall clock that is set moves the
// whole history and breaks none of it. Called on the loop's thread.
#pragma once

#include "base.h"
#include "known.h"

#include <array>
#include <string>
#include <vector>

namespace wlcctl {

// What a person would say of the tunnel: up, degraded, connecting, down, stopped (nobody wants it) or unknown.
enum class shown {
    up,
    stopped,
    unknown,
    degraded,
    connecting,
    down
};
const char *shown_name(shown is);
shown       shown_state(const knowledge &known, const moment &now);

class history {
public:
    static constexpr double span        = 86400;  // seconds
    static constexpr double step        = 300;    // seconds
    static constexpr size_t most_states = 1500;

    // path: of the file; empty: nothing outlives the agent.
    explicit history(std::string path) : path_(std::move(path)) {}

    // Takes what an earlier agent left; what happened since then is unknown.
    void load(const moment &now);

    // Something changed, or a second passed: notes a new state, ends a step, writes the file when it is due.
    void look(const knowledge &known, const moment &now);

    // Writes the file. Returns an empty text or what failed.
    std::string save(const moment &now);

    // The members of /history.json from "now" on, as text.
    std::string describe(const moment &now) const;

private:
    struct state_change {
        double  at;  // monotonic seconds
        shown   is;
        uint8_t reason;  // its place in the table of reasons, from 1 on; 0: none
    };
    struct sample {
        double   at;  // monotonic seconds, of its beginning
        uint64_t packets_out, packets_in, errors, invalid;
    };
    using sums = std::array<uint64_t, 4>;  // in the order of a sample

    std::string states_text(const moment &now) const;
    std::string samples_text(const moment &now) const;
    void        add(const state_change &next);
    void        forget_old(double now);
    void        join_shortest();
    void        end_step(const counter_book &book, double now);
    void        take(const json &kept, double shift, const moment &now);

    std::string               path_;
    std::vector<state_change> states_;               // oldest first
    std::vector<sample>       samples_;              // oldest first
    sums                      base_{};               // of the present step
    double                    step_began_  = -1;     // monotonic; below 0: none has
    bool                      has_reports_ = false;  // in the present step
    double                    next_save_   = 0;
    bool                      is_unsaved_  = false;
    double                    last_report_ = 0;
    std::string               error_;
};

}  // namespace wlcctl
