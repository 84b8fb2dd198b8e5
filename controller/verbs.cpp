#include "verbs.h"

#include "common/log.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cmath>
#include <unistd.h>

#include <nlohmann/json.hpp>

#ifndef WLCCTL_VERSION
#define WLCCTL_VERSION "0"
#endif

// Contents: 1 the table  2 waiting  3 status  4 start, stop, wait  5 statistics  6 what is passed on to the daemon

namespace wlcctl {

namespace {

constexpr double accept_seconds = 10;  // in which the daemon must accept a start: 2 poll, 3 restart, and reserve
constexpr double answer_seconds = 6;   // in which the daemon must answer: 2 poll, 2 a start before it, and reserve
constexpr double state_seconds  = 30;  // of a wait for a state

bool is_address(const std::string &text) {
    uint8_t bytes[16];
    return inet_pton(AF_INET, text.c_str(), bytes) == 1 || inet_pton(AF_INET6, text.c_str(), bytes) == 1;
}

double rounded(double value) { return std::round(value * 1000) / 1000; }

}  // namespace

// ---- 1 the table ----------------------------------------------------------------------------------------------------

verbs::verbs(loop &owner, const agent_options &options, knowledge &known, orders &to, daemon_pipe &pipe, keeper &keep)
    : options_(options),
      known_(known),
      orders_(to),
      pipe_(pipe),
      keeper_(keep),
      server_(owner, known.log, {"wlcctl", WLCCTL_VERSION}),
      alarm_(owner) {
    add_requests();
}

void verbs::add_requests() {
    const member wait    = {"wait", member_type::seconds, "to wait for the end; without it the answer comes at once"};
    const member timeout = {"timeout", member_type::seconds, "to wait for the daemon, 6 by itself"};

    server_.add({"status", "tells all that is known", {{"fresh", member_type::flag, "asks the daemon first"}}},
                [this](const json &r, const ticket &t) { return do_status(r, t); });
    server_.add({"start", "starts the tunnel", {wait}, false},
                [this](const json &r, const ticket &t) { return do_start(r, t, msg_tun_start); });
    server_.add({"restart", "stops and starts the tunnel, the configuration read anew", {wait}, false},
                [this](const json &r, const ticket &t) { return do_start(r, t, msg_tun_restart); });
    server_.add({"stop", "stops the tunnel", {wait}, false},
                [this](const json &r, const ticket &t) { return do_stop(r, t); });
    server_.extend_wait(
        {{"state", member_type::text, "waits for this state of the tunnel instead of an event", false, {"up", "down"}}},
        [this](const json &r, const ticket &t) { return do_wait(r, t); });
    server_.add({"stats",
                 "tells the statistics",
                 {{"fresh", member_type::flag, "asks the daemon for new ones"},
                  {"clear", member_type::flag, "has them set to zero and reported"},
                  timeout}},
                [this](const json &r, const ticket &t) { return do_stats(r, t); });
    server_.add({"debug",
                 "sets the daemon's log level or destination",
                 {{"category", member_type::text, "what is set", true, {"level", "destination"}},
                  {"value", member_type::text, "the word", true}},
                 false},
                [this](const json &r, const ticket &) { return do_debug(r); });
    server_.add({"resolve",
                 "tells the daemon the gateway's address",
                 {{"address", member_type::text, "IPv4 or IPv6", true}},
                 false},
                [this](const json &r, const ticket &) { return do_resolve(r); });
    server_.add({"hello", "says HELLO and waits for the daemon's", {timeout}, false},
                [this](const json &r, const ticket &t) { return do_hello(r, t); });
    server_.add({"info", "asks for the daemon's process id", {timeout}, false},
                [this](const json &r, const ticket &t) { return do_info(r, t); });
    server_.add({"metrics", "tells the metrics, as text in Prometheus' format", {}},
                [this](const json &, const ticket &) {
                    return json{{"text", metrics_text()}};
                });
    server_.add({"shutdown", "ends the daemon", {wait}, false},
                [this](const json &r, const ticket &t) { return do_shutdown(r, t); });
}

// ---- 2 waiting ------------------------------------------------------------------------------------------------------

void verbs::wait_for(const ticket &asked, double wake, step next) {
    waiters_.push_back({asked, wake, std::move(next)});
    set_alarm();
}

// Steps only look at what is known, so no step can make or end another waiter.
void verbs::run_waiters() {
    moment                               now = present();
    std::vector<std::pair<ticket, json>> due;
    waiters_.remove_if([&](waiter &w) {
        std::optional<json> answer = w.look(now, w.wake);
        if (answer) due.emplace_back(w.asked, std::move(*answer));
        return answer.has_value();
    });
    for (auto &[asked, answer] : due) server_.answer(asked, std::move(answer));
    set_alarm();
}

void verbs::set_alarm() {
    if (waiters_.empty()) return alarm_.stop();
    auto   first = std::min_element(waiters_.begin(), waiters_.end(),
                                    [](const waiter &a, const waiter &b) { return a.wake < b.wake; });
    double left  = std::max(0.0, first->wake - present().mono);
    alarm_.start(milliseconds(static_cast<int64_t>(left * 1000) + 1), [this] { run_waiters(); });
}

// ---- 3 status -------------------------------------------------------------------------------------------------------

json verbs::status_now() {
    look();
    return status();
}

json verbs::status() const {
    moment now    = present();
    json   answer = {{"exit", known_.judge(now)}};
    answer.update(known_.status(now));
    answer["name_queries"] = keeper_.describe(now);
    answer["agent"]        = {{"pid", getpid()},
                              {"uptime", rounded(now.mono - begun_.mono)},
                              {"last_event", known_.log.last()},
                              {"keep_up", options_.keep_up},
                              {"wanted", keeper_.is_wanted()},
                              {"from_daemon", options_.from_daemon},
                              {"to_daemon", options_.to_daemon},
                              {"conf", options_.conf}};
    return answer;
}

// The answer when a record could not be written.
json verbs::refuse_send(sent result) const {
    json answer      = {{"exit", result == sent::no_reader ? exit_daemon_not_running : exit_failed},
                        {"sent", false},
                        {"error", orders_.error()}};
    answer["reason"] = known_.describe_reason(present());
    return answer;
}

std::optional<json> verbs::do_status(const json &request, const ticket &asked) {
    look();
    if (!flag_of(request, "fresh")) return status();
    if (orders_.send(encode(msg_stats_request)) != sent::yes || orders_.send_query() != sent::yes) return status();
    uint64_t query    = known_.state.queries_sent();
    double   deadline = present().mono + answer_seconds;
    wait_for(asked, deadline, [=, this](const moment &now, double &) -> std::optional<json> {
        if (known_.state.is_answered(query) || known_.state.running.is(false)) return status();
        if (now.mono < deadline) return std::nullopt;
        json answer     = status();
        answer["exit"]  = exit_no_answer;
        answer["error"] = "the daemon did not answer in time";
        return answer;
    });
    return std::nullopt;
}

// ---- 4 start, stop, wait --------------------------------------------------------------------------------------------

// An answer about the tunnel; member: "note" or "error".
json verbs::tunnel_answer(int exit, const char *member, const std::string &text) const {
    moment now    = present();
    json   known  = known_.status(now);
    json   answer = {{"exit", exit}, {"sent", true}};
    if (!text.empty()) answer[member] = text;
    for (const char *name : {"tunnel", "health", "cause", "reason", "phase", "next_attempt"})
        answer[name] = known[name];
    answer["conf"] = options_.conf;
    return answer;
}

// A failure with reason, remedy and the next attempt.
json verbs::failure_answer(int exit, const std::string &text) const {
    std::string whole  = text;
    moment      now    = present();
    json        reason = known_.describe_reason(now);
    if (reason.is_object()) {
        whole += ": " + reason["code"].get<std::string>() + ", " + reason["cause"].get<std::string>();
        if (reason["detail"].is_string()) whole += " (" + reason["detail"].get<std::string>() + ")";
        whole += "; " + reason["remedy"].get<std::string>();
    }
    if (known_.why.next_attempt && known_.why.next_attempt->mono > now.mono)
        whole += "; next attempt in " + std::to_string(static_cast<int>(known_.why.next_attempt->mono - now.mono) + 1) +
                 " s";
    return tunnel_answer(exit, "error", whole);
}

std::optional<json> verbs::do_start(const json &request, const ticket &asked, uint32_t message) {
    std::optional<double> wait = seconds_of(request, "wait");
    keeper_.want(true);
    if (!options_.keep_up) {
        keeper_.prepare([](const std::string &) {});  // for the reason only: an order is an order
        send_start(asked, message, wait, "");
        return std::nullopt;
    }
    keeper_.prepare([=, this](const std::string &code) { send_start(asked, message, wait, code); });
    return std::nullopt;
}

void verbs::send_start(const ticket &asked, uint32_t message, std::optional<double> wait, const std::string &code) {
    if (!code.empty()) {
        json answer    = failure_answer(exit_failed, "not started");
        answer["sent"] = false;
        return server_.answer(asked, answer);
    }
    if (wait) return wait_for_up(asked, message, *wait);
    sent result = orders_.send(encode(message));
    keeper_.on_progress(present());
    server_.answer(asked, result == sent::yes ? tunnel_answer(exit_done, "note", "sent; the daemon reads it within 2 s")
                                              : refuse_send(result));
}

// Accepted: TUN_IN_PROG came. Up: an UP came after that, or the tunnel was up and a start changed nothing.
void verbs::wait_for_up(const ticket &asked, uint32_t message, double wait) {
    const controller_state &state = known_.state;
    uint64_t accepted = state.starts_accepted, refused = state.starts_refused, hooks_before = known_.log.last();
    bool     was_up = message == msg_tun_start && state.tun.is(tunnel::up);

    if (sent result = orders_.send(encode(message)); result != sent::yes)
        return server_.answer(asked, refuse_send(result));
    moment now = present();
    keeper_.on_progress(now);
    double                  deadline = now.mono + wait, accept_deadline = now.mono + std::min(wait, accept_seconds);
    std::optional<uint64_t> ups;  // reported before the start was accepted
    wait_for(asked, accept_deadline,
             [=, this, &state](const moment &then, double &wake) mutable -> std::optional<json> {
                 if (state.running.is(false)) return failure_answer(exit_daemon_not_running, "the daemon is gone");
                 if (state.starts_refused > refused)
                     return failure_answer(exit_failed, "the daemon refused: " + state.cause.value);
                 if (state.starts_accepted == accepted) {
                     if (then.mono < accept_deadline) return std::nullopt;
                     return failure_answer(exit_no_answer, "the daemon did not accept the start in time");
                 }
                 if (!ups) ups = state.ups;
                 wake = deadline;
                 if (state.ups > *ups) return hook_answer(hooks_before, then, deadline, "");
                 if (was_up && state.tun.is(tunnel::up))
                     return tunnel_answer(exit_done, "note", "the tunnel was up already");
                 if (then.mono < deadline) return std::nullopt;
                 return failure_answer(exit_not_reached, "the tunnel did not come up in time");
             });
}

// The tunnel is up: what remains is the hook that gives it addresses and routes.
std::optional<json> verbs::hook_answer(uint64_t hooks_before, const moment &now, double deadline,
                                       const std::string &note) {
    if (options_.on_up.empty()) return tunnel_answer(exit_done, "note", note);
    auto at = known_.hook_results.find("up");
    if (at != known_.hook_results.end() && at->second.for_event > hooks_before) {
        const hook_result &result = at->second;
        if (result.is_good) return tunnel_answer(exit_done, "note", note);
        return tunnel_answer(exit_hook_failed, "error",
                             "the tunnel is up, but --on-up failed" +
                                 (result.error.empty() ? "" : ": " + result.error));
    }
    if (now.mono < std::max(deadline, known_.state.tun.last.mono + options_.hook_timeout + 3)) return std::nullopt;
    return tunnel_answer(exit_hook_failed, "error", "the tunnel is up, but --on-up has not ended");
}

// The process query behind the stop proves, by its answer, that the stop was read; the daemon does not report it.
std::optional<json> verbs::do_stop(const json &request, const ticket &asked) {
    std::optional<double> wait = seconds_of(request, "wait");
    keeper_.want(false);
    if (sent result = orders_.send(encode(msg_tun_stop)); result != sent::yes) return refuse_send(result);
    sent confirmation = orders_.send_query();
    if (!wait) return tunnel_answer(exit_done, "note", "sent; the daemon reads it within 2 s");
    if (confirmation != sent::yes) return refuse_send(confirmation);

    uint64_t query    = known_.state.queries_sent();
    double   deadline = present().mono + *wait;
    wait_for(asked, deadline, [=, this](const moment &now, double &) -> std::optional<json> {
        if (known_.state.is_answered(query)) return tunnel_answer(exit_done, "note", "");
        if (known_.state.running.is(false)) return failure_answer(exit_daemon_not_running, "the daemon is gone");
        if (now.mono < deadline) return std::nullopt;
        return failure_answer(exit_no_answer, "the daemon did not read the stop in time");
    });
    return std::nullopt;
}

std::optional<json> verbs::do_wait(const json &request, const ticket &asked) {
    std::string word     = text_of(request, "state");
    tunnel      state    = word == "up" ? tunnel::up : tunnel::down;
    double      deadline = present().mono + seconds_of(request, "timeout").value_or(state_seconds);

    auto look_at = [=, this](const moment &now, double &) -> std::optional<json> {
        std::optional<json> answer;
        bool is_so = known_.state.tun.is(state) && (state != tunnel::up || known_.is(now) != health::degraded);
        if (is_so) answer = tunnel_answer(exit_done, "note", "");
        else if (now.mono >= deadline && known_.state.running.is(false))
            answer = failure_answer(exit_daemon_not_running, "the daemon is not running");
        else if (now.mono >= deadline) answer = failure_answer(exit_not_reached, "the tunnel is not " + word);
        if (answer) answer->erase("sent");
        return answer;
    };
    double ignored = 0;
    if (auto answer = look_at(present(), ignored); answer) return answer;
    wait_for(asked, deadline, look_at);
    return std::nullopt;
}

// ---- 5 statistics ---------------------------------------------------------------------------------------------------

json verbs::statistics_answer(int exit, const std::string &error) {
    moment now    = present();
    json   answer = {{"exit", exit}};
    if (!error.empty()) answer["error"] = error;
    answer["statistics"] = known_.state.describe(now)["statistics"];

    json totals = json::object(), rates = json::object();
    for (size_t i = 0; i < counter_count; i++) totals[counter_labels[i]] = known_.book.totals[i];
    answer["totals"] = totals;
    // Since the last look, when there was one and the counters went on.
    if (known_.state.stats.known()) {
        double passed = known_.state.stats.last.mono - looked_at_.mono;
        if (looked_ && passed > 0.1)
            for (size_t i = 0; i < counter_count; i++) {
                uint64_t value = known_.state.stats.value[i], before = (*looked_)[i];
                rates[counter_labels[i]] =
                    std::round(static_cast<double>(value >= before ? value - before : value) / passed * 100) / 100;
            }
        if (!looked_ || passed > 0.1) {
            looked_    = known_.state.stats.value;
            looked_at_ = known_.state.stats.last;
        }
    }
    answer["rates"] = rates.empty() ? json(nullptr) : rates;
    return answer;
}

std::optional<json> verbs::do_stats(const json &request, const ticket &asked) {
    const controller_state &state    = known_.state;
    bool                    is_fresh = flag_of(request, "fresh"), is_clear = flag_of(request, "clear");
    double                  patience = seconds_of(request, "timeout").value_or(answer_seconds);
    if (is_fresh && is_clear) throw refusal("\"fresh\" and \"clear\" exclude each other");
    if (is_clear && asked.is_read_only) throw refusal("\"clear\" gives an order, and this socket is for reading only");

    if (!is_fresh && !is_clear) {
        if (state.stats.known()) return statistics_answer(exit_done);
        if (state.running.is(false)) return statistics_answer(exit_daemon_not_running, "the daemon is not running");
        if (state.enabled.is(false))
            return statistics_answer(exit_feature_disabled, "the feature is disabled: the daemon sends no statistics");
        return statistics_answer(exit_unknown, "no statistics were reported");
    }

    double asked_at = present().mono, deadline = asked_at + patience;
    if (sent result = orders_.send(encode(is_clear ? msg_stats_clear : msg_stats_request)); result != sent::yes)
        return refuse_send(result);
    if (sent result = orders_.send_query(); result != sent::yes) return refuse_send(result);
    uint64_t query = state.queries_sent();
    wait_for(asked, deadline, [=, this, &state](const moment &now, double &) -> std::optional<json> {
        if (state.running.is(false)) return statistics_answer(exit_daemon_not_running, "the daemon is gone");
        if (state.is_answered(query)) {
            if (state.stats.known() && state.stats.last.mono > asked_at) return statistics_answer(exit_done);
            return statistics_answer(exit_feature_disabled, "the feature is disabled: the daemon sends no statistics");
        }
        if (now.mono < deadline) return std::nullopt;
        return statistics_answer(exit_no_answer, "the daemon did not answer in time");
    });
    return std::nullopt;
}

// ---- 6 what is passed on to the daemon ------------------------------------------------------------------------------

std::optional<json> verbs::do_debug(const json &request) {
    std::string category = text_of(request, "category"), value = text_of(request, "value");
    if (category == "level" && !is_level_word(value))
        throw refusal("a level is errors, warnings, info, debug, ssl-dbg or buf-print");
    if (category == "destination" && !is_destination_word(value))
        throw refusal("a destination is file, console or both");

    sent result = orders_.send(encode_debug(category, value), {{"category", category}, {"value", value}});
    if (result != sent::yes) return refuse_send(result);
    const controller_state &state = known_.state;
    bool has_thread = state.tun.is(tunnel::up) || state.tun.is(tunnel::in_progress) || state.enabled.is(true);
    return json{{"sent", true},
                {"note", has_thread ? "sent; the daemon reads it within 2 s and confirms nothing"
                                    : "sent; only a running tunnel obeys, and none is known to run"}};
}

std::optional<json> verbs::do_resolve(const json &request) {
    std::string address = text_of(request, "address");
    if (!is_address(address)) throw refusal("\"address\" must be an IPv4 or IPv6 address");
    if (sent result = orders_.send(encode_text(msg_name_answer, address), {{"text", address}}); result != sent::yes)
        return refuse_send(result);
    return json{{"sent", true}, {"note", "sent; a running tunnel connects anew"}};
}

std::optional<json> verbs::do_hello(const json &request, const ticket &asked) {
    double   deadline = present().mono + seconds_of(request, "timeout").value_or(answer_seconds);
    uint64_t hellos   = known_.state.hellos;
    if (sent result = orders_.send(encode(msg_hello)); result != sent::yes) return refuse_send(result);
    wait_for(asked, deadline, [=, this](const moment &now, double &) -> std::optional<json> {
        if (known_.state.hellos > hellos) return json{{"sent", true}, {"note", "the daemon said HELLO"}};
        if (known_.state.running.is(false))
            return json{{"exit", exit_daemon_not_running}, {"sent", true}, {"error", "the daemon is gone"}};
        if (now.mono < deadline) return std::nullopt;
        return json{{"exit", exit_no_answer}, {"sent", true}, {"error", "the daemon did not answer in time"}};
    });
    return std::nullopt;
}

std::optional<json> verbs::do_info(const json &request, const ticket &asked) {
    double deadline = present().mono + seconds_of(request, "timeout").value_or(answer_seconds);
    if (sent result = orders_.send_query(); result != sent::yes) return refuse_send(result);
    uint64_t query = known_.state.queries_sent();
    wait_for(asked, deadline, [=, this](const moment &now, double &) -> std::optional<json> {
        json answer = {{"exit", exit_done}, {"sent", true}, {"daemon_pid", known_.state.describe(now)["daemon_pid"]}};
        if (known_.state.is_answered(query)) return answer;
        bool is_running = known_.state.running.is(true);
        if (is_running && now.mono < deadline) return std::nullopt;
        answer["exit"]  = is_running ? exit_no_answer : exit_daemon_not_running;
        answer["error"] = is_running ? "the daemon did not answer in time" : "the daemon is gone";
        return answer;
    });
    return std::nullopt;
}

// The query before the exit message makes sure that the process to wait for is known: the daemon handles them in order.
std::optional<json> verbs::do_shutdown(const json &request, const ticket &asked) {
    std::optional<double> wait = seconds_of(request, "wait");
    json                  pid  = known_.state.describe(present())["daemon_pid"];
    int32_t               old  = pipe_.process();
    if (sent result = old ? sent::yes : orders_.send_query(); result != sent::yes) return refuse_send(result);
    if (sent result = orders_.send(encode(msg_exit)); result != sent::yes) return refuse_send(result);
    if (!wait) return json{{"sent", true}, {"note", "sent; the daemon reads it within 2 s"}, {"daemon_pid", pid}};

    double deadline = present().mono + *wait;
    wait_for(asked, deadline, [=, this](const moment &now, double &) mutable -> std::optional<json> {
        if (known_.state.pid.known() && !old) pid = known_.state.describe(now)["daemon_pid"];
        json answer  = {{"exit", exit_done}, {"sent", true}, {"daemon_pid", pid}};
        bool is_gone = !pipe_.is_process_alive() && pipe_.daemon_reader() == reader::absent;
        if (is_gone || (old && pipe_.process() != old)) {
            answer["note"] = "the daemon has ended";
            return answer;
        }
        if (now.mono < deadline) return std::nullopt;
        answer["exit"]  = exit_no_answer;
        answer["error"] = "the daemon's process did not end in time";
        return answer;
    });
    return std::nullopt;
}

}  // namespace wlcctl
