#include "state.h"

#include <nlohmann/json.hpp>

#include <cmath>

namespace wlcctl {

namespace {

constexpr double report_silence = 150;  // seconds; an enabled daemon reports every 60 and some
constexpr double hello_patience = 10;   // seconds in which a HELLO may be the answer to ours
constexpr double hello_delay    = 0.5;  // seconds between the daemon's opening of its pipe and our reading of its HELLO
constexpr double query_patience = 30;   // seconds after which a process query will not be answered any more
constexpr double fresh_word     = 5;    // seconds in which the daemon's last word still says that it runs

// The two causes that answer a start: client init failed, tunnel start failed.
bool is_refusal(int code) { return code == 1 || code == 2; }

double rounded(double seconds) { return std::round(seconds * 1000) / 1000; }

template <class T>
json describe_fact(const fact<T> &f, const json &value, const moment &now) {
    json j = {{"value", f.known() ? value : json(nullptr)}, {"source", source_name(f.how)}};
    if (f.known()) {
        j["age"]   = rounded(now.mono - f.last.mono);
        j["since"] = wall_text(f.since.wall);
        j["for"]   = rounded(now.mono - f.since.mono);
    }
    if (!f.note.empty()) j["note"] = f.note;
    return j;
}

// Adds what an unknown fact was before.
void describe_old(json &j, const json &value, const moment &at, const moment &now) {
    j["last"] = {{"value", value}, {"age", rounded(now.mono - at.mono)}};
}

json describe_counters(const counters &values) {
    json j = json::object();
    for (size_t i = 0; i < values.size(); i++) j[counter_labels[i]] = values[i];
    return j;
}

json code_or_null(const std::string &cause) {
    int code = cause_code(cause);
    return code < 0 ? json(nullptr) : json(code);
}

const char *command_name(uint32_t id) {
    return id == msg_tun_start ? "start" : id == msg_tun_stop ? "stop" : "restart";
}

}  // namespace

const char *source_name(source how) {
    constexpr const char *names[] = {"unknown", "reported", "inferred", "logged", "remembered"};
    return names[static_cast<size_t>(how)];
}

const char *tunnel_name(const fact<tunnel> &state) {
    if (!state.known()) return "unknown";
    return state.value == tunnel::up ? "up" : state.value == tunnel::down ? "down" : "in_progress";
}

// ---- what comes -----------------------------------------------------------------------------------------------------

void controller_state::on_message(const message &m, const moment &now, bool is_of_second) {
    running.set(source::reported, true, now);
    last_word = now;

    switch (m.kind) {
    case report::hello: return on_hello(now);
    case report::in_progress: return on_in_progress(now);
    case report::up: return on_up(now);
    case report::down: return on_down(m, now);
    case report::dns: return on_dns(m, now);
    case report::statistics: return on_statistics(m, now);
    case report::process: return on_process(m, now, is_of_second);
    case report::name_query:
        name_queries++;
        last_name_query = now;
        log_.add(now, "name_query");
        return;
    case report::inner_ip:
        inner_ip.set(source::reported, m.text, now);
        log_.add(now, "inner_ip", {{"address", m.text}});
        return;
    case report::unknown:
        json members = {{"id", m.id}};
        if (m.id == msg_info_update) members["info_type"] = m.info_type;
        log_.add(now, "unknown_message", members);
        return;
    }
}

// The daemon says HELLO when it begins and as the answer to HELLO. When a restart hides behind an expected one, the
// changed process id shows it.
void controller_state::on_hello(const moment &now) {
    bool expected    = hellos_expected_ > 0 && now.mono - hello_sent_.mono < hello_patience;
    hellos_expected_ = expected ? hellos_expected_ - 1 : 0;
    hellos++;
    log_.add(now, "hello", {{"expected", expected}});
    if (!expected && !(pid.known() && is_daemon_alive_())) begin_afresh("HELLO", hello_delay, now);
}

void controller_state::on_in_progress(const moment &now) {
    log_.add(now, "tun_in_prog");
    starts_accepted++;
    queries_at_start_ = name_queries;
    if (start_sent_) enabled.set(source::inferred, true, now, "a start was accepted");
    start_sent_ = false;

    bool was_start = last_command.id == msg_tun_start;
    if (last_command.id != msg_tun_stop) last_command.answered = true;
    if (tun.is(tunnel::up) && was_start)
        tun.note = "a start was accepted while the tunnel was up; the daemon does not report UP again";
    else set_tunnel(tunnel::in_progress, source::reported, now, "");
}

void controller_state::on_up(const moment &now) {
    log_.add(now, "tun_up");
    ups++;
    // The daemon reports changes only: an UP while up means that a down in between was not seen, so the hook runs
    // again.
    if (tun.is(tunnel::up)) tun.forget("");
    set_tunnel(tunnel::up, source::reported, now, "");
}

void controller_state::on_down(const message &m, const moment &now) {
    int code = cause_code(m.text);
    log_.add(now, "tun_down", {{"cause", m.text}, {"code", code_or_null(m.text)}});
    cause.set(source::reported, m.text, now);
    cause.since = now;
    if (is_refusal(code)) {
        starts_refused++;
        if (start_sent_) enabled.set(source::inferred, true, now, "a start was answered");
        start_sent_ = false;
        if (last_command.id != msg_tun_stop) last_command.answered = true;
    }
    set_tunnel(tunnel::down, source::reported, now, "");
}

void controller_state::on_dns(const message &m, const moment &now) {
    uint64_t number = log_.add(now, "dns", {{"count", m.dns_count}, {"servers", m.servers}});
    dns.set(source::reported, m.servers, now);
    dns_count = m.dns_count;
    if (dns_of_last_hook_ == m.servers) return;
    dns_of_last_hook_ = m.servers;
    triggers_.push_back({hook_kind::dns, number});
}

void controller_state::on_statistics(const message &m, const moment &now) {
    if (!std::exchange(is_next_quiet_, false)) log_.add(now, "stats", {{"statistics", describe_counters(m.values)}});
    stats.set(source::reported, m.values, now);
    stats.since = now;
    enabled.set(source::reported, true, now, "only an enabled daemon sends statistics");
}

void controller_state::on_process(const message &m, const moment &now, bool is_of_second) {
    log_.add(now, "process", {{"pid", m.pid}});
    if (!is_of_second) {
        if (pid.known() && pid.value != m.pid) begin_afresh("another process id", query_patience, now);
        pid.set(source::reported, m.pid, now);
    }

    // An answer that was lost must not shift all later ones by one for ever.
    while (!outstanding_.empty() && now.mono - outstanding_.front().sent > query_patience) outstanding_.pop_front();
    if (outstanding_.empty()) return;
    queries_answered_ = outstanding_.front().number;
    outstanding_.pop_front();
    conclude_answered_query(now);
}

// The daemon handles messages in order, so an answered query proves that what was written before it has been handled.
void controller_state::conclude_answered_query(const moment &now) {
    if (probe_query_ != 0 && is_answered(probe_query_)) {
        probe_query_ = 0;
        if (!stats.known() || stats.last.mono <= probe_at_.mono)
            enabled.set(source::inferred, false, now, "a request for statistics was read but not answered");
    }
    if (stop_query_ != 0 && is_answered(stop_query_)) {
        stop_query_ = 0;
        if (last_command.id == msg_tun_stop) last_command.answered = true;
        enabled.set(source::inferred, false, now, "the daemon has read a stop");
        inner_ip.forget("the tunnel was stopped");
        dns.forget("the tunnel was stopped");
        if (tun.is(tunnel::down)) return;
        cause.set(source::inferred, "stopped by the controller", now, "the daemon has read a stop");
        set_tunnel(tunnel::down, source::inferred, now,
                   "the daemon has read a stop; it does not always report the end");
    }
}

// ---- what goes ------------------------------------------------------------------------------------------------------

void controller_state::on_sent(uint32_t id, const moment &now) {
    switch (id) {
    case msg_hello:
        hellos_expected_++;
        hello_sent_ = now;
        return;
    case msg_tun_start:
    case msg_tun_stop:
    case msg_tun_restart:
        last_command = {id, now, false};
        if (id != msg_tun_restart) start_sent_ = id == msg_tun_start;
        if (id == msg_tun_stop) stop_sent_ = true;
        return;
    case msg_stats_request:
    case msg_stats_clear:
        stats_asked_ = true;
        probe_at_    = now;
        return;
    case msg_process_query:
        outstanding_.push_back({++queries_sent_, now.mono});
        if (std::exchange(stop_sent_, false)) stop_query_ = queries_sent_;
        if (std::exchange(stats_asked_, false)) probe_query_ = queries_sent_;
        return;
    default: return;
    }
}

// ---- the daemon comes and goes --------------------------------------------------------------------------------------

void controller_state::on_daemon_reader(bool has_reader, const moment &now) {
    if (has_reader) {
        if (!running.is(true)) log_.add(now, "daemon_appeared");
        bool is_reported = running.is(true) && running.how == source::reported &&
                           now.mono - running.last.mono < fresh_word;
        if (!is_reported) running.set(source::inferred, true, now, "its pipe has a reader");
        return;
    }
    if (running.is(false)) return running.set(source::inferred, false, now, "nobody reads its pipe");

    if (running.known()) log_.add(now, "daemon_gone");
    running.set(source::inferred, false, now, "nobody reads its pipe");
    forget_reports("no daemon is running", 0, now);
    enabled.forget("no daemon is running");
    if (!tun.known()) return set_tunnel(tunnel::down, source::inferred, now, "no daemon is running");
    if (!tun.is(tunnel::down)) cause.set(source::inferred, "the daemon is gone", now, "nobody reads its pipe");
    set_tunnel(tunnel::down, source::inferred, now, "the daemon is gone, and its interface with it");
}

// patience: seconds; what was sent within them may have been read by the process that began.
void controller_state::begin_afresh(const char *reason, double patience, const moment &now) {
    log_.add(now, "daemon_began", {{"reason", reason}});
    beginnings++;
    forget_reports("not reported since the daemon began afresh", patience, now);
    enabled.set(source::inferred, false, now, "the daemon began afresh");
    if (tun.is(tunnel::up) || tun.is(tunnel::in_progress))
        cause.set(source::inferred, "the daemon began afresh", now, reason);
    set_tunnel(tunnel::down, source::inferred, now, "the daemon began afresh");
}

// What belonged to the process that ended is old, and what was asked of it will not be answered.
void controller_state::forget_reports(const std::string &why, double patience, const moment &now) {
    pid.forget(why);
    inner_ip.forget(why);
    dns.forget(why);
    stats.forget(why);
    hellos_expected_ = 0;
    while (!outstanding_.empty() && now.mono - outstanding_.front().sent >= patience) outstanding_.pop_front();
    if (!outstanding_.empty()) return;
    stop_query_ = probe_query_ = 0;
    if (now.mono - last_command.at.mono >= patience) start_sent_ = false;
}

void controller_state::set_tunnel(tunnel to, source how, const moment &now, const std::string &why) {
    std::string from      = tunnel_name(tun);
    bool        was_known = tun.known();
    bool        is_same   = tun.is(to);
    tun.set(how, to, now, why);
    if (is_same) return;

    json members = {{"from", from}, {"to", tunnel_name(tun)}, {"source", source_name(how)}};
    if (to == tunnel::down && cause.known()) members["cause"] = cause.value;
    uint64_t number = log_.add(now, "tunnel", members);

    if (to == tunnel::up) triggers_.push_back({hook_kind::up, number});
    if (to != tunnel::down) return;
    dns_of_last_hook_.reset();
    // That there is no tunnel when the agent begins and finds no daemon is no event for a hook.
    if (was_known || how == source::reported) triggers_.push_back({hook_kind::down, number});
}

// ---- what is known --------------------------------------------------------------------------------------------------

bool controller_state::is_silent(const moment &now) const {
    return enabled.is(true) && last_word && now.mono - last_word->mono > report_silence;
}

void controller_state::restore_tunnel(tunnel is, source how, const moment &since, const moment &now) {
    tun.set(how, is, now, "");
    tun.since = since;
    if (is != tunnel::down) enabled.set(how, true, now, "the tunnel is known not to be stopped");
}

void controller_state::on_process_found(int32_t id, const moment &now) {
    pid.set(source::inferred, id, now, "it reads the daemon's pipe");
}

std::string controller_state::explain_tunnel(const moment &now) const {
    uint64_t    attempts = name_queries - queries_at_start_;
    std::string repeated = attempts == 1 ? "once" : std::to_string(attempts) + " times";

    if (!tun.known()) return "nothing was reported since the agent began";
    if (tun.is(tunnel::up) && is_silent(now)) return "the daemon has not been heard of for too long to believe this";
    if (tun.is(tunnel::in_progress) && attempts > 0)
        return "the daemon asked for the gateway's address " + repeated +
               " since the start, which it does after a failed attempt";
    if (tun.is(tunnel::in_progress))
        return "a first connection that fails is not reported; the daemon tries again by itself";
    if (tun.is(tunnel::down) && cause.how == source::reported && is_refusal(cause_code(cause.value)))
        return "the daemon could not start it";
    if (tun.is(tunnel::down) && running.is(true) && enabled.is(true)) return "the daemon tries again by itself";
    return tun.note;
}

json controller_state::describe(const moment &now) const {
    json j;
    j["tunnel"] = describe_fact(tun, tunnel_name(tun), now);
    if (std::string why = explain_tunnel(now); !why.empty()) j["tunnel"]["note"] = why;

    j["cause"] = describe_fact(cause, cause.value, now);
    if (cause.how == source::reported) j["cause"]["code"] = code_or_null(cause.value);

    j["daemon"]     = describe_fact(running, running.value ? "running" : "not_running", now);
    j["daemon_pid"] = describe_fact(pid, pid.value, now);
    if (!pid.known() && pid.old) describe_old(j["daemon_pid"], *pid.old, pid.old_last, now);
    j["last_word_age"] = last_word ? json(rounded(now.mono - last_word->mono)) : json(nullptr);
    j["feature"]       = describe_fact(enabled, enabled.value ? "enabled" : "disabled", now);

    j["inner_ip"] = describe_fact(inner_ip, inner_ip.value, now);
    if (!inner_ip.known() && inner_ip.old) describe_old(j["inner_ip"], *inner_ip.old, inner_ip.old_last, now);

    j["dns"] = describe_fact(dns, dns.value, now);
    if (dns.known()) j["dns"]["count"] = dns_count;
    if (!dns.known() && dns.old) describe_old(j["dns"], *dns.old, dns.old_last, now);

    j["statistics"] = describe_fact(stats, describe_counters(stats.value), now);
    if (!stats.known() && stats.old) describe_old(j["statistics"], describe_counters(*stats.old), stats.old_last, now);

    j["last_command"] = nullptr;
    if (last_command.id != 0)
        j["last_command"] = {{"command", command_name(last_command.id)},
                             {"age", rounded(now.mono - last_command.at.mono)},
                             {"answered", last_command.answered}};
    return j;
}

}  // namespace wlcctl
