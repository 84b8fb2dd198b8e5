// The requests of the agent's socket: their table, their answers, and those that wait. Called on the loop's thread.
#pragma once

#include "agent.h"
#include "base.h"
#include "keeper.h"
#include "known.h"
#include "orders.h"

#include "common/json_server.h"

#include <functional>
#include <list>
#include <optional>
#include <string>

namespace wlcctl {

class verbs {
public:
    verbs(loop &owner, const agent_options &options, knowledge &known, orders &to, daemon_pipe &pipe, keeper &keep);

    // Called when something is to be looked at before an answer.
    task look;

    json_server &server() { return server_; }

    // The members of `status`, after a look.
    json status_now();

    // Serves `metrics` with this text.
    std::function<std::string()> metrics_text;

    // Lets every request that waits look at what is known. Called after everything that may have changed it, and every
    // second.
    void run_waiters();

private:
    // Gives the answer when there is one, and when it wants to look again at the latest.
    using step = std::function<std::optional<json>(const moment &now, double &wake)>;
    struct waiter {
        ticket asked;
        double wake;  // monotonic seconds
        step   look;
    };

    void add_requests();
    void wait_for(const ticket &asked, double wake, step next);
    void set_alarm();

    std::optional<json> do_status(const json &request, const ticket &asked);
    std::optional<json> do_start(const json &request, const ticket &asked, uint32_t message);
    void send_start(const ticket &asked, uint32_t message, std::optional<double> wait, const std::string &code);
    void wait_for_up(const ticket &asked, uint32_t message, double wait);
    std::optional<json> hook_answer(uint64_t hooks_before, const moment &now, double deadline, const std::string &note);
    std::optional<json> do_stop(const json &request, const ticket &asked);
    std::optional<json> do_wait(const json &request, const ticket &asked);
    std::optional<json> do_stats(const json &request, const ticket &asked);
    std::optional<json> do_debug(const json &request);
    std::optional<json> do_resolve(const json &request);
    std::optional<json> do_hello(const json &request, const ticket &asked);
    std::optional<json> do_info(const json &request, const ticket &asked);
    std::optional<json> do_shutdown(const json &request, const ticket &asked);

    json status() const;
    json refuse_send(sent result) const;
    json tunnel_answer(int exit, const char *member, const std::string &text) const;
    json failure_answer(int exit, const std::string &text) const;
    json statistics_answer(int exit, const std::string &error = "");

    const agent_options    &options_;
    knowledge              &known_;
    orders                 &orders_;
    daemon_pipe            &pipe_;
    keeper                 &keeper_;
    json_server             server_;
    std::list<waiter>       waiters_;
    timer                   alarm_;
    moment                  begun_ = present();
    std::optional<counters> looked_;  // at the last look at the statistics
    moment                  looked_at_;
};

}  // namespace wlcctl
