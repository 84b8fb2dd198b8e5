// Keeps the tunnel up: starts it when it should run, finds the gateway's address, and notices a daemon that does not
// come back. Without --keep-up it answers name queries only. Called on the loop's thread.
#pragma once

#include "agent.h"
#include "base.h"
#include "known.h"
#include "orders.h"

#include "common/child.h"
#include "common/lookup.h"
#include "common/loop.h"

#include <functional>
#include <string>
#include <vector>

namespace wlcctl {

class keeper {
public:
    keeper(loop &owner, const agent_options &options, knowledge &known, orders &to, daemon_pipe &pipe);

    task                  on_change;  // of what save() gives
    std::function<bool()> is_log_followed;

    // A start or a stop was ordered by somebody: remembered until the other one is.
    void want(bool is_wanted);
    bool is_wanted() const { return is_wanted_; }

    // Makes ready for a start: the configuration passes lint, and holds an address. ready: called with an empty text,
    // or with the code of the reason that stands against it. Calls of a time are answered together.
    void prepare(std::function<void(const std::string &code)> ready);

    // Something changed, or a second passed.
    void consider(const moment &now);

    void on_name_query(const moment &now);
    void on_up(const moment &now);
    void on_progress(const moment &now);  // a start, a name query, a new wait

    json     describe(const moment &now) const;  // "name_queries" of `status`
    uint64_t answered() const { return answered_; }
    uint64_t failed() const { return failed_; }
    json     save() const;
    void     load(const json &kept);

private:
    void        read_conf();
    void        lint();
    void        take_lint(bool has_failed, const std::string &first);
    void        resolve_for_start();
    void        finish_prepare(const std::string &code, const std::string &detail);
    void        answer(const std::string &address, const char *source);
    void        answer_failed(const std::string &error);
    std::string choose(const std::vector<std::string> &addresses) const;
    std::string write_address(const std::string &address);
    void        start(const moment &now);
    void        watch_daemon(const moment &now);
    void        end_stuck(double waited, const moment &now);
    std::string name() const;

    const agent_options &options_;
    knowledge           &known_;
    orders              &orders_;
    daemon_pipe         &pipe_;
    lookup               lookup_;
    lookup               start_lookup_;
    child                linter_;
    timer                lint_limit_;
    timer                kill_;

    bool     is_wanted_    = true;
    bool     is_stop_kept_ = false;  // somebody ordered it
    bool     is_preparing_ = false;
    bool     is_starting_  = false;
    uint64_t beginnings_   = 0;
    double   next_try_     = 0;      // monotonic; a start that was refused is not repeated at once
    double   progress_     = 0;      // monotonic; 0: nothing is waited for
    bool     is_ending_    = false;  // a stuck daemon was ordered to end
    std::vector<std::function<void(const std::string &)>> ready_;

    std::string conf_address_, conf_name_;  // of the configuration file
    std::string last_good_;                 // address on which the tunnel was up
    std::string last_answer_;
    uint64_t    answered_ = 0, failed_ = 0;
};

}  // namespace wlcctl
