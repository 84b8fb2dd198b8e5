#include "known.h"

#include "conf.h"

#include <arpa/inet.h>
#include <cmath>

#include <nlohmann/json.hpp>

namespace wlcctl {

namespace {

double rounded(double seconds) { return std::round(seconds * 1000) / 1000; }

// A value with its age and its source, as every fact of `status`.
json fact_of(const json &value, const char *source, const moment &at, const moment &now) {
    if (value.is_null()) return {{"value", nullptr}, {"source", "unknown"}};
    return {{"value", value}, {"source", source}, {"age", rounded(now.mono - at.mono)}, {"since", wall_text(at.wall)}};
}

json old_fact(const json &was) {
    return {{"value", nullptr},
            {"source", "unknown"},
            {"note", "the tunnel is not up"},
            {"last", {{"value", was["value"]}, {"age", was["age"]}}}};
}

json time_of(const std::optional<moment> &at, const char *source, const moment &now) {
    if (!at) return {{"value", nullptr}, {"source", "unknown"}};
    return {{"value", wall_text(at->wall)}, {"source", source}, {"in", rounded(at->mono - now.mono)}};
}

json text_or_null(const std::string &text) { return text.empty() ? json(nullptr) : json(text); }

// The moment of a time on the wall, as far as the present clock tells.
moment moment_of(int64_t wall, const moment &now) {
    return {now.mono - static_cast<double>(now.wall - wall) / 1000, wall};
}

constexpr double counters_patience = 15;  // seconds; a daemon that reads its messages answers within 2

constexpr const char *unreliable[] = {"gateway-unreachable", "gateway-refused", "handshake-stalled", "tun-missing"};

bool is_unreliable(const std::string &code) {
    for (const char *each : unreliable)
        if (code == each) return true;
    return false;
}

}  // namespace

const char *health_name(health is) {
    constexpr const char *names[] = {"unknown", "down", "connecting", "up", "degraded"};
    return names[static_cast<size_t>(is)];
}

void counter_book::on_report(const counters &values, const moment &now) {
    double passed = now.mono - last_at_.mono;
    for (size_t i = 0; i < values.size(); i++) {
        bool     is_further = last && values[i] >= (*last)[i];
        uint64_t more       = is_further ? values[i] - (*last)[i] : values[i];  // cleared, or another process
        totals[i] += more;
        if (last && passed > 0.1) rates_[i] = static_cast<double>(more) / passed;
    }
    has_rates_ = last.has_value();
    last       = values;
    last_at_   = now;
}

std::optional<double> counter_book::rate(size_t index) const {
    return has_rates_ ? std::optional<double>(std::round(rates_[index] * 100) / 100) : std::nullopt;
}

knowledge::knowledge(event_log &to, std::function<bool()> is_daemon_alive)
    : log(to), state(to, std::move(is_daemon_alive)) {}

health knowledge::is(const moment &now) const {
    if (!state.running.known()) return health::unknown;
    if (state.running.is(false)) return health::down;
    if (state.tun.is(tunnel::up)) {
        bool is_bad = why.unanswered >= 2 || is_unreliable(why.why.code) || why.why.code == "stuck";
        if (is_bad || why.is_answer_overdue(now)) return health::degraded;
        return state.is_silent(now) || is_unheard(now) ? health::unknown : health::up;
    }
    if (state.tun.is(tunnel::in_progress)) return health::connecting;
    if (state.enabled.is(false)) return health::down;
    if (!state.tun.known()) return health::unknown;
    return state.enabled.is(true) ? health::connecting : health::down;
}

// Neither the log nor the counters say whether the gateway answers.
bool knowledge::is_unheard(const moment &now) const {
    if (!counters_asked) return false;
    double heard = state.stats.known() ? std::max(counters_asked->mono, state.stats.last.mono) : counters_asked->mono;
    return now.mono - heard > counters_patience;
}

exit_code knowledge::judge(const moment &now) const {
    if (!state.running.known()) return exit_unknown;
    if (!state.running.value) return exit_daemon_not_running;
    health now_is = is(now);
    if (now_is == health::up) return exit_done;
    if (now_is == health::degraded) return exit_degraded;
    if (now_is == health::unknown) return exit_unknown;
    return state.enabled.is(false) ? exit_feature_disabled : exit_not_reached;
}

void knowledge::settle(const moment &now) {
    health now_is = is(now);
    if (now_is == last_health_) return;
    json members = {{"from", health_name(last_health_)}, {"to", health_name(now_is)}, {"unanswered", why.unanswered}};
    if (auto end = why.gives_up_at(); end) members["gives_up_in"] = rounded(*end - now.mono);
    log.add(now, "health", members);
    health from = std::exchange(last_health_, now_is);
    if (on_health) on_health(from, now_is);
}

json knowledge::describe_reason(const moment &now) const {
    if (why.why.code.empty()) return nullptr;
    const reason_entry *entry = find_reason(why.why.code);
    return {{"code", why.why.code},
            {"cause", entry ? entry->cause : ""},
            {"detail", text_or_null(why.why.detail)},
            {"remedy", entry ? entry->remedy : ""},
            {"source", why.why.source},
            {"since", wall_text(why.why.since.wall)},
            {"age", rounded(now.mono - why.why.last.mono)},
            {"lines", why.why.lines}};
}

// Why a tunnel that the daemon calls up is not called so here, or how that is known when the log does not tell.
std::string knowledge::explain_health(health now_is, const moment &now) const {
    if (!state.tun.is(tunnel::up)) return "";
    if (now_is == health::unknown && is_unheard(now))
        return "the daemon's log tells of no keep-alive, and the daemon does not answer a question for its counters";
    if (now_is == health::degraded && why.unanswered < 2 && why.is_answer_overdue(now))
        return "the gateway's answer is overdue";
    return counters_asked ? "from the daemon's counters: its log tells of no keep-alive" : "";
}

json knowledge::describe_health(const moment &now) const {
    health now_is = is(now);
    json   told   = {{"value", health_name(now_is)},
                     {"source", counters_asked  ? "reported"
                                : why.last_line ? "logged"
                                                : "inferred"},
                     {"unanswered", why.unanswered}};
    if (std::string note = explain_health(now_is, now); !note.empty()) told["note"] = note;
    if (auto end = why.gives_up_at(); end) told["gives_up_in"] = rounded(*end - now.mono);
    if (why.last_answer) told["last_answer_age"] = rounded(now.mono - why.last_answer->mono);
    return told;
}

json knowledge::describe_gateway() const {
    return {{"name", text_or_null(gateway_name)},
            {"address", text_or_null(why.gateway.empty() ? conf_gateway : why.gateway)},
            {"port", why.port            ? json(why.port)
                     : conf_port.empty() ? json(nullptr)
                                         : json(atoi(conf_port.c_str()))},
            {"cipher", text_or_null(why.cipher.empty() ? cipher : why.cipher)},
            {"source", why.gateway.empty() ? "file" : "logged"}};
}

json knowledge::describe_interface() const {
    return {{"value", text_or_null(interface_name)},
            {"source", interface_name.empty() ? "unknown" : "kernel"},
            {"exists", interface.exists},
            {"up", interface.is_up},
            {"mtu", interface.exists ? json(interface.mtu) : json(nullptr)},
            {"addresses", interface.addresses},
            {"note", "name from " + conf_path}};
}

json knowledge::describe_hooks(const moment &now) const {
    json results = json::object();
    for (const auto &[name, result] : hook_results)
        results[name] = {{"ok", result.is_good},
                         {"status", result.status},
                         {"signal", result.signal},
                         {"error", text_or_null(result.error)},
                         {"time", wall_text(result.when.wall)},
                         {"age", rounded(now.mono - result.when.mono)},
                         {"seconds", result.seconds}};
    return results;
}

// Packets a second, and the counters of errors.
void knowledge::describe_counters(json &all) const {
    json rates = json::object(), errors = json::object();
    for (size_t i = 0; i < counter_count; i++) {
        std::string label = counter_labels[i];
        if (label.ends_with("Pkt Rx") || label.ends_with("Pkt Tx"))
            rates[label] = book.rate(i) ? json(*book.rate(i)) : json(nullptr);
        bool is_error = label == "Invalid Rx" || label.ends_with("_total");
        if (is_error) errors[label] = book.last ? json((*book.last)[i]) : json(nullptr);
    }
    all["rates"]  = rates;
    all["errors"] = errors;
}

json knowledge::status(const moment &now) const {
    json all   = state.describe(now);
    bool is_up = state.tun.is(tunnel::up);
    if (is(now) == health::degraded) all["tunnel"]["value"] = "degraded";

    all["health"]    = describe_health(now);
    all["reason"]    = describe_reason(now);
    all["phase"]     = {{"value", phase_name(why.step)},
                        {"source", why.last_line ? "logged" : "inferred"},
                        {"age", rounded(now.mono - why.step_since.mono)},
                        {"attempts", why.attempts}};
    all["gateway"]   = describe_gateway();
    all["interface"] = describe_interface();
    if (!state.inner_ip.known() && is_up && !why.inner_ip.empty())
        all["inner_ip"] = fact_of(why.inner_ip, "logged", why.inner_ip_at, now);
    // What belongs to a connection that is gone is not current.
    if (!is_up && state.inner_ip.known()) all["inner_ip"] = old_fact(all["inner_ip"]);
    if (!is_up && state.dns.known()) all["dns"] = old_fact(all["dns"]);
    all["rekey"]        = {{"last", time_of(why.last_rekey, "logged", now)},
                           {"next", time_of(is_up ? why.next_rekey : std::nullopt, "logged", now)}};
    all["next_attempt"] = time_of(is_up ? std::nullopt : why.next_attempt, "logged", now);
    all["hooks"]        = describe_hooks(now);
    describe_counters(all);
    return all;
}

// ---- what is kept ---------------------------------------------------------------------------------------------------

json knowledge::save(int32_t process, uint64_t start, const moment &now) const {
    json hooks_kept = json::object();
    for (const auto &[name, result] : hook_results)
        hooks_kept[name] = {{"ok", result.is_good},         {"status", result.status},  {"signal", result.signal},
                            {"error", result.error},        {"wall", result.when.wall}, {"seconds", result.seconds},
                            {"for_event", result.for_event}};
    json kept = {{"schema", schema_number},
                 {"time", wall_text(now.wall)},
                 {"daemon", {{"pid", process}, {"start", start}}},
                 {"tunnel", tunnel_name(state.tun)},
                 {"since", state.tun.since.wall},
                 {"feature", state.enabled.known() ? json(state.enabled.value) : json(nullptr)},
                 {"cause", state.cause.known() ? json(state.cause.value) : json(nullptr)},
                 {"inner_ip", nullptr},
                 {"dns", nullptr},
                 {"reason", {{"code", why.why.code}, {"detail", why.why.detail}, {"wall", why.why.since.wall}}},
                 {"hooks", hooks_kept},
                 {"totals", book.totals},
                 {"counters", book.last ? json(*book.last) : json(nullptr)},
                 {"unanswered", why.unanswered},
                 {"dpd", why.dpd_seconds}};
    if (state.inner_ip.known())
        kept["inner_ip"] = {{"value", state.inner_ip.value}, {"wall", state.inner_ip.since.wall}};
    if (state.dns.known()) kept["dns"] = {{"value", state.dns.value}, {"wall", state.dns.since.wall}};
    return kept;
}

namespace {

// Hooks get these texts in their environment, so nothing but an address may pass.
bool is_address(const std::string &text) {
    uint8_t bytes[16];
    return inet_pton(AF_INET, text.c_str(), bytes) == 1 || inet_pton(AF_INET6, text.c_str(), bytes) == 1;
}

std::string text_at(const json &object, const char *name) {
    auto at = object.find(name);
    return at != object.end() && at->is_string() ? at->get<std::string>() : "";
}

int64_t number_at(const json &object, const char *name) {
    auto at = object.find(name);
    return at != object.end() && at->is_number_integer() ? at->get<int64_t>() : 0;
}

void load_hooks(const json &kept, const moment &now, std::map<std::string, hook_result> &results) {
    auto hooks_kept = kept.find("hooks");
    if (hooks_kept == kept.end() || !hooks_kept->is_object()) return;
    for (const auto &[name, each] : hooks_kept->items()) {
        if (!each.is_object() || (name != "up" && name != "down" && name != "dns")) continue;
        hook_result result;
        result.is_good = each.value("ok", json(false)) == true;
        result.status  = static_cast<int>(number_at(each, "status"));
        result.signal  = static_cast<int>(number_at(each, "signal"));
        result.error   = text_at(each, "error");
        result.when    = moment_of(number_at(each, "wall"), now);
        auto seconds   = each.find("seconds");
        result.seconds = seconds != each.end() && seconds->is_number() ? seconds->get<double>() : 0;
        results[name]  = result;
    }
}

bool load_counters(const json &kept, const char *name, std::array<uint64_t, counter_count> &to) {
    auto at = kept.find(name);
    if (at == kept.end() || !at->is_array() || at->size() != counter_count) return false;
    for (size_t i = 0; i < counter_count; i++) {
        if (!(*at)[i].is_number_unsigned()) return false;
        to[i] = (*at)[i].get<uint64_t>();
    }
    return true;
}

}  // namespace

// Whether the gateway answers, as the earlier agent knew it: a log that tells it knows better.
void knowledge::load_keep_alive(const json &kept, const moment &now) {
    auto dpd = kept.find("dpd");
    if (why.dpd_seconds == 0 && dpd != kept.end() && dpd->is_number() && *dpd > 0 && *dpd < 86400)
        why.dpd_seconds = dpd->get<double>();
    if (int64_t count = number_at(kept, "unanswered"); count > 0 && count < 1000)
        why.restore_unanswered(static_cast<unsigned>(count), now);
    if (!why.last_answer) why.last_answer = now;  // from here on one must come
}

void knowledge::load(const json &kept, bool is_same_process, const moment &now) {
    if (!kept.is_object()) return;
    load_hooks(kept, now, hook_results);
    (void)load_counters(kept, "totals", book.totals);
    if (!is_same_process) return;

    counters values;
    if (load_counters(kept, "counters", values)) {
        auto totals = book.totals;
        book.on_report(values, now);
        book.totals = totals;
        why.on_counters(values[dpd_requests], values[dpd_responses], now);
    }
    load_keep_alive(kept, now);
    std::string word  = text_at(kept, "tunnel");
    moment      since = moment_of(number_at(kept, "since"), now);
    if (word == "up" || word == "in_progress" || word == "down")
        state.restore_tunnel(word == "up"     ? tunnel::up
                             : word == "down" ? tunnel::down
                                              : tunnel::in_progress,
                             source::remembered, since, now);
    if (auto feature = kept.find("feature"); feature != kept.end() && feature->is_boolean())
        state.enabled.set(source::remembered, feature->get<bool>(), now, "");
    if (std::string cause = text_at(kept, "cause"); !cause.empty()) state.cause.set(source::remembered, cause, now, "");

    if (auto inner = kept.find("inner_ip"); inner != kept.end() && inner->is_object()) {
        std::string address = text_at(*inner, "value");
        if (is_address(address)) state.inner_ip.set(source::remembered, address, now, "");
        state.inner_ip.since = moment_of(number_at(*inner, "wall"), now);
    }
    if (auto dns = kept.find("dns"); dns != kept.end() && dns->is_object()) {
        std::vector<std::string> servers;
        auto                     list = dns->find("value");
        if (list != dns->end() && list->is_array())
            for (const json &each : *list)
                if (each.is_string() && is_address(each.get<std::string>())) servers.push_back(each.get<std::string>());
        state.dns.set(source::remembered, servers, now, "");
        state.dns.since = moment_of(number_at(*dns, "wall"), now);
        state.dns_count = static_cast<uint32_t>(servers.size());
    }
    if (auto reason = kept.find("reason"); reason != kept.end() && reason->is_object()) {
        std::string code = text_at(*reason, "code");
        if (find_reason(code)) {
            why.why.code   = code;
            why.why.detail = text_at(*reason, "detail");
            why.why.source = "remembered";
            why.why.since = why.why.last = moment_of(number_at(*reason, "wall"), now);
        }
    }
}

}  // namespace wlcctl
