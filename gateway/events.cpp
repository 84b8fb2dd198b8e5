#include "events.h"

#include <fmt/chrono.h>
#include <spdlog/spdlog.h>

#include <chrono>

namespace gw {

namespace {

constexpr size_t kept_events = 10000;

// The log level of each event.
constexpr struct {
    const char               *kind;
    spdlog::level::level_enum level;
} levels[] = {
    {"tls_failed", spdlog::level::warn},     {"frame_invalid", spdlog::level::warn},
    {"accept_refused", spdlog::level::warn}, {"config_resp_withheld", spdlog::level::warn},
    {"tcp_accept", spdlog::level::info},     {"tls_up", spdlog::level::info},
    {"config_req", spdlog::level::info},     {"config_resp_sent", spdlog::level::info},
    {"closed", spdlog::level::info},         {"alert_rx", spdlog::level::info},
    {"shutdown", spdlog::level::info},       {"dpd_req", spdlog::level::debug},
    {"dpd_resp_sent", spdlog::level::debug}, {"sent", spdlog::level::debug},
    {"data", spdlog::level::trace},
};

// Members that stay out of the log: the time has its place, the texts hold cookies.
constexpr const char *not_logged[] = {"event", "seq", "mono_ms", "wall", "client", "text", "hex", "cookie"};

spdlog::level::level_enum level_of(std::string_view kind) {
    for (const auto &entry : levels) {
        if (kind == entry.kind) return entry.level;
    }
    return spdlog::level::info;
}

bool is_logged(std::string_view name) {
    for (const char *other : not_logged) {
        if (name == other) return false;
    }
    return true;
}

// One log line has one line: texts are quoted by JSON's rules when they need it.
std::string log_value(const json &value) {
    std::string quoted = value.dump(-1, ' ', true, json::error_handler_t::replace);
    if (!value.is_string()) return quoted;
    bool plain = quoted.size() > 2 && quoted.find_first_of(" =\\", 0) == std::string::npos &&
                 quoted.find('"', 1) == quoted.size() - 1;
    return plain ? quoted.substr(1, quoted.size() - 2) : quoted;
}

void log_event(const char *kind, uint64_t client, const json &event) {
    auto level = level_of(kind);
    if (!spdlog::should_log(level)) return;
    std::string line = fmt::format("event={}", kind);
    if (client) line += fmt::format(" client={}", client);
    for (const auto &[name, value] : event.items()) {
        if (is_logged(name)) line += fmt::format(" {}={}", name, log_value(value));
    }
    spdlog::log(level, "{}", line);
}

std::string wall_text(std::chrono::system_clock::time_point time) {
    auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    auto micros  = std::chrono::duration_cast<std::chrono::microseconds>(time - seconds).count();
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:06}Z", fmt::gmtime(std::chrono::system_clock::to_time_t(seconds)),
                       micros);
}

double mono_milliseconds() {
    auto time = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<double>(std::chrono::duration_cast<std::chrono::microseconds>(time).count()) / 1000.0;
}

}  // namespace

void event_log::emit(const char *kind, uint64_t client, const json &fields) {
    json event = {
        {"event", kind},
        {"seq", ++last_},
        {"mono_ms", mono_milliseconds()},
        {"wall", wall_text(std::chrono::system_clock::now())},
    };
    if (client) event["client"] = client;
    event.update(fields);
    log_event(kind, client, event);

    ring_.push_back(std::make_shared<const json>(std::move(event)));
    if (ring_.size() > kept_events) ring_.pop_front();
    kept_event current = ring_.back();  // a listener may cause further events
    if (listener_) listener_(*current);
}

uint64_t event_log::lost(uint64_t since) const {
    uint64_t oldest = last_ - ring_.size() + 1;
    return since + 1 < oldest ? oldest - since - 1 : 0;
}

void event_log::visit(uint64_t since, const std::function<bool(const json &)> &visit) const {
    uint64_t gone  = last_ - ring_.size();
    size_t   start = since > gone ? static_cast<size_t>(since - gone) : 0;
    for (size_t i = start; i < ring_.size(); i++) {
        if (!visit(*ring_[i])) return;
    }
}

}  // namespace gw
