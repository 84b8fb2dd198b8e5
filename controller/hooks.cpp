#include "hooks.h"

#include "common/log.h"

#include <cmath>
#include <csignal>
#include <unistd.h>

#include <nlohmann/json.hpp>

namespace wlcctl {

namespace {

constexpr size_t       waiting_limit = 64;    // a hook that hangs must not make the queue grow for ever
constexpr size_t       error_limit   = 2048;  // bytes kept of what a hook says
constexpr milliseconds kill_delay{2000};      // between SIGTERM and SIGKILL
constexpr milliseconds stop_delay{1000};      // the same at the agent's end

std::string first_line(const std::string &text) {
    size_t begin = text.find_first_not_of("\r\n");
    if (begin == std::string::npos) return "";
    return printable(text.substr(begin, text.find_first_of("\r\n", begin) - begin), 300);
}

milliseconds seconds(double value) { return milliseconds(static_cast<int64_t>(value * 1000)); }

}  // namespace

hooks::hooks(loop &owner, event_log &log, double timeout)
    : log_(log), timeout_(timeout), child_(owner), deadline_(owner) {}

void hooks::run(const char *name, const std::string &command, std::vector<std::string> facts, uint64_t cause) {
    if (waiting_.size() >= waiting_limit) {
        log_.add("hook_failed", {{"hook", name}, {"error", "too many hooks are waiting"}});
        return;
    }
    waiting_.push_back({name, command, std::move(facts), cause});
    start_next();
}

void hooks::start_next() {
    while (!child_.is_running() && !waiting_.empty() && !stopped_) {
        job next = std::move(waiting_.front());
        waiting_.pop_front();
        error_.clear();
        timed_out_ = false;
        started_   = present().mono;

        child_options options;
        options.arguments       = {"/bin/sh", "-c", next.command};
        options.environment     = environment_with(next.facts, "TLSC_");
        options.on_error_output = [this](std::string_view text) { take_error_output(text); };
        std::string error       = child_.start(options, [this, next](const child_end &end) { finish(next, end); });
        if (!error.empty()) {
            log_.add("hook_failed", {{"hook", next.name}, {"error", error}});
            tell(next.name, {false, 127, 0, error, present(), 0, next.cause});
            continue;
        }
        log_.add("hook_started", {{"hook", next.name}, {"pid", child_.pid()}, {"for_event", next.cause}});
        deadline_.start(seconds(timeout_), [this] { end_running(); });
    }
}

// What a hook says is seen where the agent's own words are, and its beginning is kept.
void hooks::take_error_output(std::string_view text) {
    (void)!write(STDERR_FILENO, text.data(), text.size());
    if (error_.size() < error_limit) error_ += text.substr(0, error_limit - error_.size());
}

void hooks::end_running() {
    timed_out_ = true;
    child_.signal(SIGTERM);
    deadline_.start(kill_delay, [this] { child_.signal(SIGKILL); });
}

void hooks::finish(const job &done, const child_end &end) {
    deadline_.stop();
    hook_result result{
        end.status == 0 && end.signal == 0 && !timed_out_,     end.status, end.signal, first_line(error_), present(),
        std::round((present().mono - started_) * 1000) / 1000, done.cause};
    json members = {{"hook", done.name}};
    if (end.signal != 0) members["signal"] = end.signal;
    else members["status"] = end.status;
    members["seconds"]   = result.seconds;
    members["timed_out"] = timed_out_;
    if (!result.error.empty()) members["error"] = result.error;
    log_.add("hook_ended", members);
    tell(done.name, result);
    if (stopped_) return std::exchange(stopped_, nullptr)();
    start_next();
}

void hooks::tell(const std::string &name, const hook_result &result) {
    if (on_end) on_end(name, result);
}

void hooks::stop(task work) {
    waiting_.clear();
    if (!child_.is_running()) return work();
    stopped_ = std::move(work);
    child_.signal(SIGTERM);
    deadline_.start(stop_delay, [this] { child_.signal(SIGKILL); });
}

}  // namespace wlcctl
