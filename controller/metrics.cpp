#include "metrics.h"

#include "common/metrics_text.h"

#include "history.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include <nlohmann/json.hpp>

// Contents: 1 counting  2 the page  3 what is kept

namespace wlcctl {

namespace {

constexpr double reason_patience = 3;   // seconds in which the reason of a down becomes known
constexpr double rekey_patience  = 30;  // seconds after which an attempt without a success has failed

// Places in the statistics.
enum place : size_t {
    data_rx,
    data_tx,
    invalid_rx     = 4,
    tun_rx         = 5,
    tun_tx         = 6,
    dpd_tx         = 7,
    dpd_rx         = 8,
    rekey_attempts = 9,
    rekey_success  = 10
};

void load_counts(const json &kept, const char *name, std::map<std::string, uint64_t> &to) {
    auto at = kept.find(name);
    if (at == kept.end() || !at->is_object()) return;
    for (const auto &[key, value] : at->items())
        if (value.is_number_unsigned() && to.size() < 64) to[key] = value.get<uint64_t>();
}

// Names are codes of ours, or hooks': nothing needs escaping.
std::string counts_text(const char *name, const std::map<std::string, uint64_t> &counts) {
    std::string all = std::string("\"") + name + "\":{";
    for (const auto &[key, value] : counts) all += "\"" + key + "\":" + std::to_string(value) + ",";
    if (all.back() == ',') all.pop_back();
    return all + "}";
}

}  // namespace

// ---- 1 counting -----------------------------------------------------------------------------------------------------

void metrics::on_event(const event &e, const json &members) {
    bool is_failed = strcmp(e.kind, "hook_failed") == 0;
    if (strcmp(e.kind, "hook_ended") == 0) is_failed = !members.contains("status") || members["status"] != 0;
    if (is_failed && members.contains("hook") && members["hook"].is_string())
        hook_failures_[members["hook"].get<std::string>()]++;
}

void metrics::look(const moment &now) {
    count_downs(now);
    count_rekeys(now);
    count_bytes();
}

// A tunnel that goes down is counted under its reason, which the log tells at about the same time.
void metrics::count_downs(const moment &now) {
    if (known_.state.tun.known() || known_.state.running.is(false)) {
        bool is_up = known_.state.tun.is(tunnel::up);
        if (was_up_ && !is_up) down_since_ = now.mono;
        was_up_ = is_up;
    }
    if (!down_since_) return;
    const std::string &code = known_.why.why.code;
    if (code.empty() && now.mono - *down_since_ < reason_patience && !was_up_) return;
    downs_[code.empty() ? "unknown" : code]++;
    down_since_.reset();
}

// A report may fall between an attempt and its success: what stays open for a while has failed.
void metrics::count_rekeys(const moment &now) {
    uint64_t attempts = known_.book.totals[rekey_attempts], good = known_.book.totals[rekey_success];
    uint64_t open = attempts > good ? attempts - good : 0;
    if (open < open_rekeys_ || open_since_ == 0) open_since_ = now.mono;
    if (open > open_rekeys_ + 1) rekey_failures_ = std::max(rekey_failures_, open - 1);  // those before the last one
    if (open != open_rekeys_) open_since_ = now.mono;
    open_rekeys_ = open;
    if (now.mono - open_since_ >= rekey_patience) rekey_failures_ = std::max(rekey_failures_, open);
}

// An interface that was made anew counts from nothing.
void metrics::count_bytes() {
    const std::string &name = known_.why.interface.empty() ? known_.interface_name : known_.why.interface;
    auto               is   = read_link_bytes(name);
    if (!is) return;
    bool is_same = is->index == link_.index && is->in >= link_.in && is->out >= link_.out;
    bytes_in_ += is_same ? is->in - link_.in : is->in;
    bytes_out_ += is_same ? is->out - link_.out : is->out;
    link_ = *is;
}

uint64_t metrics::names(const char *result) const {
    auto at = earlier_names_.find(result);
    return (at == earlier_names_.end() ? 0 : at->second) + (*result == 'a' ? keeper_.answered() : keeper_.failed());
}

// ---- 2 the page -----------------------------------------------------------------------------------------------------

void metrics::put_tunnel(metrics_text &to, const moment &now) const {
    shown is    = shown_state(known_, now);
    bool  is_up = known_.state.tun.is(tunnel::up);
    to.family("tlsc_tunnel_up", "gauge",
              "1 while the tunnel is up and its gateway answers, 0 while it does not; missing while that is unknown.");
    if (is != shown::unknown) to.sample(uint64_t{is == shown::up});
    to.family("tlsc_tunnel_state", "gauge", "1 for the state that the tunnel is in, 0 for the others.");
    for (shown each : {shown::up, shown::degraded, shown::connecting, shown::down, shown::stopped, shown::unknown})
        to.sample(uint64_t{each == is}, {{"state", shown_name(each)}});
    to.family("tlsc_down_total", "counter", "Times that the tunnel went down, by reason code.");
    for (const auto &[code, count] : downs_) to.sample(count, {{"reason", code.c_str()}});
    to.family("tlsc_up_seconds", "gauge", "Seconds since the tunnel came up, 0 while it is not up.");
    if (known_.state.tun.known() || known_.state.running.is(false))
        to.sample(is_up ? std::max(0.0, now.mono - known_.state.tun.since.mono) : 0.0);
}

void metrics::put_traffic(metrics_text &to) const {
    const auto &totals = known_.book.totals;
    to.family("tlsc_dpd_unanswered", "gauge", "Dead-peer-detection requests in a row without a response.");
    to.sample(uint64_t{known_.why.unanswered});
    to.family("tlsc_dpd_total", "counter", "Dead-peer-detection requests sent and responses received.");
    to.sample(totals[dpd_tx], {{"kind", "request"}});
    to.sample(totals[dpd_rx], {{"kind", "response"}});
    to.family("tlsc_packets_total", "counter",
              "Packets through the tunnel: out of the device, and in from the gateway.");
    to.sample(totals[data_rx], {{"direction", "in"}});
    to.sample(totals[data_tx], {{"direction", "out"}});
    to.family(
        "tlsc_interface_bytes_total", "counter",
        "Bytes of the tunnel's interface, as the kernel counts them: out of the device, and in from the gateway.");
    to.sample(bytes_in_, {{"direction", "in"}});
    to.sample(bytes_out_, {{"direction", "out"}});
    to.family("tlsc_rekey_total", "counter", "Renewals of the TLS session, by result.");
    to.sample(totals[rekey_success], {{"result", "success"}});
    to.sample(rekey_failures_, {{"result", "failure"}});
}

// "ssl_read_errors_READWOULDBLOCK" is side, operation and reason.
void metrics::put_errors(metrics_text &to) const {
    to.family("tlsc_frames_invalid_total", "counter", "Frames from the gateway that were none.");
    to.sample(known_.book.totals[invalid_rx]);
    to.family("tlsc_io_errors_total", "counter",
              "Failed reads and writes of the daemon, by side (ssl, tun), operation and reason.");
    for (size_t i = 0; i < counter_count; i++) {
        std::string label = counter_labels[i];
        size_t      mark  = label.find("_errors_");
        if (mark == std::string::npos || label.ends_with("_total")) continue;
        std::string op = label.substr(4, mark - 4), reason = label.substr(mark + 8);
        std::transform(reason.begin(), reason.end(), reason.begin(), [](unsigned char c) { return std::tolower(c); });
        to.sample(known_.book.totals[i],
                  {{"side", label.starts_with("ssl") ? "ssl" : "tun"}, {"op", op.c_str()}, {"reason", reason.c_str()}});
    }
}

void metrics::put_agent(metrics_text &to, const moment &now) const {
    to.family("tlsc_name_queries_total", "counter", "Questions of the daemon for the gateway's address, by result.");
    for (const char *result : {"answered", "failed"}) to.sample(names(result), {{"result", result}});
    to.family("tlsc_hook_failures_total", "counter", "Hooks that failed, were ended, or could not be run.");
    for (const char *hook : {"up", "down", "dns"}) {
        auto at = hook_failures_.find(hook);
        to.sample(at == hook_failures_.end() ? uint64_t{0} : at->second, {{"hook", hook}});
    }
    to.family("tlsc_stats_age_seconds", "gauge", "Age of the daemon's statistics, from which the counters come.");
    if (known_.state.stats.known()) to.sample(std::max(0.0, now.mono - known_.state.stats.last.mono));
    to.family("tlsc_build_info", "gauge", "Always 1; the version of the controller.");
    to.sample(uint64_t{1}, {{"version", WLCCTL_VERSION}});
}

std::string metrics::text(const moment &now) const {
    metrics_text page;
    put_tunnel(page, now);
    put_traffic(page);
    put_errors(page);
    put_agent(page, now);
    return page.text();
}

// ---- 3 what is kept -------------------------------------------------------------------------------------------------

json metrics::save() const {
    counts others    = {{"rekey_failures", rekey_failures_},
                        {"was_up", was_up_},
                        {"link", static_cast<uint64_t>(link_.index)},
                        {"link_in", link_.in},
                        {"link_out", link_.out},
                        {"bytes_in", bytes_in_},
                        {"bytes_out", bytes_out_}};
    counts all_names = {{"answered", names("answered")}, {"failed", names("failed")}};
    return parse_json("{" + counts_text("downs", downs_) + "," + counts_text("hook_failures", hook_failures_) + "," +
                      counts_text("names", all_names) + "," + counts_text("others", others) + "}");
}

void metrics::load(const json &kept) {
    if (!kept.is_object() || !kept.contains("metrics") || !kept["metrics"].is_object()) return;
    const json &mine = kept["metrics"];
    counts      others;
    load_counts(mine, "downs", downs_);
    load_counts(mine, "hook_failures", hook_failures_);
    load_counts(mine, "names", earlier_names_);
    load_counts(mine, "others", others);
    rekey_failures_ = others["rekey_failures"];
    was_up_         = others["was_up"] != 0;
    bytes_in_       = others["bytes_in"];
    bytes_out_      = others["bytes_out"];
    link_           = {static_cast<int>(others["link"] & 0x7fffffff), others["link_in"], others["link_out"]};
}

}  // namespace wlcctl
