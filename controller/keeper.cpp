#include "keeper.h"

#include "common/log.h"

#include "conf.h"
#include "lint.h"

#include <algorithm>
#include <arpa/inet.h>
#include <csignal>
#include <unistd.h>

#include <nlohmann/json.hpp>

// Contents: 1 wanted  2 making ready  3 names  4 starting  5 the watchdog

namespace wlcctl {

namespace {

constexpr double       retry_seconds  = 10;    // before a start that was refused, or not made ready, is tried again
constexpr double       accept_seconds = 15;    // in which a start must be accepted
constexpr double       resolve_wait   = 30;    // that the daemon waits for an address
constexpr double       longest_pause  = 3600;  // of its waits between attempts
constexpr milliseconds lint_patience{3000};    // for the child that asks OpenSSL
constexpr milliseconds kill_delay{15000};      // between the order to end and SIGKILL

bool is_ipv4(const std::string &text) {
    in_addr address;
    return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

// Whether somebody is there to start the daemon again: the agent itself, the service manager, or a supervisor that
// agent and daemon have in common, with a process between for each of the two or without. What may not be looked into
// belongs to the service manager that confines the agent.
bool is_supervised(int32_t pid) {
    int32_t parent = parent_of(pid), ours = getppid();
    if (parent <= 1 || parent == getpid() || parent == ours) return true;
    int32_t above = parent_of(parent);
    return above > 1 && above == parent_of(ours);
}

milliseconds seconds(double value) { return milliseconds(static_cast<int64_t>(value * 1000)); }

}  // namespace

keeper::keeper(loop &owner, const agent_options &options, knowledge &known, orders &to, daemon_pipe &pipe)
    : options_(options),
      known_(known),
      orders_(to),
      pipe_(pipe),
      lookup_(owner),
      start_lookup_(owner),
      linter_(owner),
      lint_limit_(owner),
      kill_(owner) {
    read_conf();
}

// ---- 1 wanted -------------------------------------------------------------------------------------------------------

void keeper::want(bool is_wanted) {
    bool was_kept = is_stop_kept_;
    is_wanted_    = is_wanted;
    is_stop_kept_ = !is_wanted;
    next_try_     = 0;
    if (was_kept != is_stop_kept_ && options_.keep_up)
        known_.log.add("keep_up", {{"action", is_wanted ? "resumed" : "stopped"}, {"detail", "by order"}});
    if (on_change) on_change();
}

json keeper::save() const { return {{"stopped", is_stop_kept_}, {"last_good", last_good_}}; }

void keeper::load(const json &kept) {
    auto wanted = kept.find("keeper");
    if (wanted == kept.end() || !wanted->is_object()) return;
    is_stop_kept_ = wanted->value("stopped", json(false)) == true;
    is_wanted_    = !is_stop_kept_;
    json good     = wanted->value("last_good", json(""));
    if (good.is_string() && is_ipv4(good.get<std::string>())) last_good_ = good.get<std::string>();
}

void keeper::read_conf() {
    conf_address_         = conf_value(options_.conf, "server_ip_address");
    conf_name_            = conf_value(options_.conf, "gateway_name");
    known_.interface_name = printable(conf_value(options_.conf, "tun_interface_name"), 64);
    known_.cipher         = printable(conf_value(options_.conf, "cipher_algo"), 64);
    known_.conf_gateway   = printable(conf_address_, 64);
    known_.conf_port      = printable(conf_value(options_.conf, "server_port"), 8);
    known_.gateway_name   = printable(name(), 64);
}

std::string keeper::name() const {
    if (!options_.resolve_name.empty()) return options_.resolve_name;
    if (!conf_name_.empty()) return conf_name_;
    uint8_t bytes[16];
    bool    is_name = !conf_address_.empty() && !is_ipv4(conf_address_) &&
                   inet_pton(AF_INET6, conf_address_.c_str(), bytes) != 1;
    return options_.keep_up && is_name ? conf_address_ : "";
}

// ---- 2 making ready -------------------------------------------------------------------------------------------------

void keeper::prepare(std::function<void(const std::string &)> ready) {
    ready_.push_back(std::move(ready));
    if (is_preparing_) return;
    is_preparing_ = true;
    read_conf();
    lint();
}

// OpenSSL is asked in a process of its own.
void keeper::lint() {
    auto judge_here = [this] {
        std::vector<finding> findings = lint_file(options_.conf, false);
        auto                 first    = std::find_if(findings.begin(), findings.end(),
                                                     [](const finding &f) { return f.level == severity::error; });
        std::string          text;
        if (first != findings.end())
            text = first->code == "file-missing"
                       ? ""
                       : (first->line ? "line " + std::to_string(first->line) + ": " : "") + first->text;
        take_lint(first != findings.end(), text);
    };
    if (options_.program.empty() || !options_.keep_up || access(options_.conf.c_str(), F_OK) != 0) return judge_here();

    auto          answer = std::make_shared<std::string>();
    child_options work;
    work.arguments = {options_.program, "lint", "--json", options_.conf};
    work.on_output = [answer](std::string_view text) {
        if (answer->size() < 65536) *answer += text;
    };
    std::string error = linter_.start(work, [this, answer, judge_here](const child_end &) {
        lint_limit_.stop();
        json told = parse_json(*answer);
        if (!told.is_object() || !told.contains("findings") || !told["findings"].is_array()) return judge_here();
        for (const json &each : told["findings"])
            if (each.value("severity", "") == "error")
                return take_lint(true, "line " + std::to_string(each.value("line", 0)) + ": " + each.value("text", ""));
        take_lint(false, "");
    });
    if (!error.empty()) return judge_here();
    lint_limit_.start(lint_patience, [this] { linter_.signal(SIGKILL); });  // its end judges here
}

void keeper::take_lint(bool has_failed, const std::string &first) {
    bool is_missing = access(options_.conf.c_str(), F_OK) != 0;
    if (has_failed)
        return finish_prepare(is_missing ? "conf-missing" : "conf-invalid", is_missing ? options_.conf : first);
    resolve_for_start();
}

// Only a configuration that holds a name needs its address before the start.
void keeper::resolve_for_start() {
    if (!options_.keep_up || name().empty() || !options_.resolve_address.empty()) return finish_prepare("", "");
    start_lookup_.start(name(), seconds(options_.resolve_timeout), [this](const lookup_result &result) {
        std::string address = result.addresses.empty() ? last_good_ : choose(result.addresses);
        if (address.empty() && is_ipv4(conf_address_)) address = conf_address_;
        if (!is_ipv4(address)) {
            std::string why = result.addresses.empty() ? result.error : "it has IPv6 addresses only, " + address;
            return finish_prepare("name-unresolved", name() + ": " + why);
        }
        if (address != conf_address_)
            if (std::string error = write_address(address); !error.empty())
                return finish_prepare("conf-invalid", error);
        known_.log.add(
            "name_answer",
            {{"address", address}, {"name", name()}, {"source", result.addresses.empty() ? "last_good" : "lookup"}});
        finish_prepare("", "");
    });
}

void keeper::finish_prepare(const std::string &code, const std::string &detail) {
    is_preparing_ = false;
    moment now    = present();
    known_.why.held.clear();
    if (code.empty()) {
        for (const char *each : {"conf-missing", "conf-invalid", "name-unresolved"}) known_.why.withdraw(each, now);
    } else {
        known_.why.state(code.c_str(), detail, "agent", now);
        known_.why.held = code;
    }
    for (const auto &each : std::exchange(ready_, {})) each(code);
}

// The name stays in the file, under a key of our own that the daemon keeps and does not use.
std::string keeper::write_address(const std::string &address) {
    std::string error;
    size_t      skipped = 0;
    auto        content = read_conf_file(options_.conf, error);
    if (!content) return error;
    std::string the_name = name();
    conf_values values;
    for (const conf_entry &entry : parse_conf(*content, skipped))
        if (entry.key != "gateway_name")
            values.emplace_back(entry.key, entry.key == "server_ip_address" ? address : entry.value);
    values.emplace_back("gateway_name", the_name);
    error = write_conf_file(options_.conf, values, true);
    read_conf();
    return error;
}

// ---- 3 names --------------------------------------------------------------------------------------------------------

// While the tunnel is up, the address in use; after a failure the next one, round and round.
std::string keeper::choose(const std::vector<std::string> &addresses) const {
    std::vector<std::string> usable;
    std::copy_if(addresses.begin(), addresses.end(), std::back_inserter(usable), is_ipv4);
    if (usable.empty()) return addresses.empty() ? "" : addresses.front();
    auto current = std::find(usable.begin(), usable.end(), known_.why.gateway);
    if (current == usable.end()) return usable.front();
    if (known_.state.tun.is(tunnel::up) || known_.why.attempts == 0) return *current;
    return std::next(current) == usable.end() ? usable.front() : *std::next(current);
}

void keeper::on_name_query(const moment &now) {
    on_progress(now);
    if (!options_.resolve_address.empty()) return answer(options_.resolve_address, "option");
    read_conf();
    if (name().empty()) {
        if (options_.keep_up && is_ipv4(conf_address_)) answer(conf_address_, "file");
        return;
    }
    if (lookup_.is_running()) return;  // one under way answers this query too
    lookup_.start(name(), seconds(options_.resolve_timeout), [this](const lookup_result &result) {
        std::string address = choose(result.addresses);
        if (!address.empty()) {
            known_.why.withdraw("name-unresolved", present());
            return answer(address, "lookup");
        }
        std::string error = name() + ": " + result.error;
        if (!known_.state.tun.is(tunnel::up)) known_.why.state("name-unresolved", error, "agent", present());
        if (last_good_.empty()) return answer_failed(error);
        known_.log.add("name_answer_failed", {{"error", error}});
        answer(last_good_, "last_good");
    });
}

void keeper::answer(const std::string &address, const char *source) {
    if (orders_.send(encode_text(msg_name_answer, address), {{"text", address}}) != sent::yes) {
        failed_++;
        return;
    }
    answered_++;
    last_answer_ = address;
    known_.log.add("name_answer", {{"address", address}, {"name", name()}, {"source", source}});
}

void keeper::answer_failed(const std::string &error) {
    failed_++;
    known_.log.add("name_answer_failed", {{"error", error}});
}

json keeper::describe(const moment &now) const {
    const char *mode  = !options_.resolve_address.empty() ? "fixed" : !name().empty() ? "name" : "none";
    std::string value = options_.resolve_address.empty() ? name() : options_.resolve_address;
    uint64_t    asked = known_.state.name_queries;
    return {{"mode", mode},
            {"value", value.empty() ? json(nullptr) : json(printable(value, 128))},
            {"asked", asked},
            {"answered", answered_},
            {"failed", failed_},
            {"last_asked_age", asked ? json(now.mono - known_.state.last_name_query.mono) : json(nullptr)},
            {"last_answer", last_answer_.empty() ? json(nullptr) : json(last_answer_)},
            {"last_good", last_good_.empty() ? json(nullptr) : json(last_good_)}};
}

// ---- 4 starting -----------------------------------------------------------------------------------------------------

void keeper::consider(const moment &now) {
    watch_daemon(now);
    if (known_.state.beginnings != beginnings_) next_try_ = 0;  // another life of the daemon has been asked nothing yet
    beginnings_ = known_.state.beginnings;
    bool is_due = options_.keep_up && is_wanted_ && !is_starting_ && known_.state.running.is(true) &&
                  known_.state.enabled.is(false) && now.mono >= next_try_;
    if (is_due) start(now);
}

void keeper::start(const moment &now) {
    is_starting_ = true;
    next_try_    = now.mono + retry_seconds;
    prepare([this](const std::string &code) {
        is_starting_ = false;
        moment then  = present();
        if (!code.empty()) {
            known_.log.add("keep_up", {{"action", "refused"}, {"detail", code}});
            return;
        }
        if (!is_wanted_) return;
        next_try_ = then.mono + accept_seconds;
        known_.log.add("keep_up", {{"action", "start"}, {"detail", ""}});
        if (orders_.send(encode(msg_tun_start)) == sent::yes) on_progress(then);
    });
}

void keeper::on_up(const moment &now) {
    progress_ = now.mono;
    if (is_ipv4(known_.why.gateway) && known_.why.gateway != last_good_) {
        last_good_ = known_.why.gateway;
        if (on_change) on_change();
    }
}

void keeper::on_progress(const moment &now) {
    progress_  = now.mono;
    is_ending_ = false;
    if (known_.why.held == "stuck") known_.why.held.clear();
    known_.why.withdraw("stuck", now);
}

// ---- 5 the watchdog -------------------------------------------------------------------------------------------------

void keeper::watch_daemon(const moment &now) {
    bool is_at_work = known_.state.running.is(true) && known_.state.enabled.is(true);
    if (!is_at_work) {
        progress_  = 0;
        is_ending_ = false;
        return;
    }
    if (progress_ == 0) progress_ = now.mono;
    if (is_ending_) return;
    // An agent that has begun anew beside a log without the way up knows the tunnel, but no step.
    bool has_step = known_.why.step != phase::up && known_.why.step != phase::idle;
    if (known_.state.tun.is(tunnel::up) && !has_step) {
        const diagnosis &why   = known_.why;
        auto             since = why.first_unanswered ? why.first_unanswered : why.last_answer;
        if (why.is_end_overdue(now)) end_stuck(since ? now.mono - since->mono : 0, now);
        return;
    }
    double allowed = options_.stuck_after;
    if (known_.why.step == phase::back_off) allowed += known_.why.back_off;
    if (known_.why.step == phase::resolving) allowed += resolve_wait;
    if (is_log_followed && !is_log_followed()) allowed += longest_pause;
    double since = std::max(progress_, known_.why.step == phase::back_off ? known_.why.step_since.mono : 0);
    if (now.mono - since > allowed) end_stuck(now.mono - since, now);
}

// The daemon is ordered to end, and killed when it cannot obey, if somebody is there to start it again.
void keeper::end_stuck(double waited, const moment &now) {
    is_ending_ = true;
    known_.why.state("stuck", "for " + std::to_string(static_cast<int>(waited)) + " s", "agent", now);
    known_.why.held = "stuck";
    known_.log.add(now, "stuck", {{"waited", waited}, {"action", options_.keep_up ? "end" : "none"}});
    if (!options_.keep_up) return;
    int32_t pid = pipe_.process();
    (void)orders_.send(encode(msg_exit));
    kill_.start(kill_delay, [this, pid] {
        if (pid <= 1 || pipe_.process() != pid || !is_supervised(pid)) return;
        known_.log.add("stuck", {{"waited", 15}, {"action", "kill"}});
        pipe_.signal_process(SIGKILL);
    });
}

}  // namespace wlcctl
