#include "events.h"

#include <spdlog/spdlog.h>

#include <string>
#include <string_view>
#include <vector>

namespace gw {

namespace {

constexpr size_t kept_events = 10000;
constexpr size_t kept_bytes  = 32u << 20;  // of their texts: ten thousand packets

// The kinds, with the level at which the log tells them.
constexpr struct {
    common::event_kind        kind;
    spdlog::level::level_enum level;
} kinds[] = {
    {{"tcp_accept", "a connection came: peer, mode"}, spdlog::level::info},
    {{"accept_refused", "a connection was reset: peer, why"}, spdlog::level::warn},
    {{"tls_up", "the handshake is over: version, cipher, identity, resumed"}, spdlog::level::info},
    {{"tls_failed", "the handshake failed: peer, identity, reason; a closed follows"}, spdlog::level::warn},
    {{"config_req", "a configuration request: its text, and what it holds"}, spdlog::level::info},
    {{"config_resp_sent", "the response: text, inner, device_id, how"}, spdlog::level::info},
    {{"config_resp_withheld", "no response: why"}, spdlog::level::warn},
    {{"dpd_req", "a client asks whether the gateway is alive: answered"}, spdlog::level::debug},
    {{"dpd_resp_sent", "the answer to that"}, spdlog::level::debug},
    {{"data", "a packet, only after data_events: dir, hex, length, verdict"}, spdlog::level::trace},
    {{"frame_invalid", "a frame that is none of a client's: reason, type, hex, action"}, spdlog::level::warn},
    {{"sent", "a request sent something: what, bytes"}, spdlog::level::debug},
    {{"alert_rx", "an alert of the client: level, code, alert"}, spdlog::level::info},
    {{"closed", "a connection ended: by, how, detail, age_ms"}, spdlog::level::info},
    {{"fault", "a fault struck: fault"}, spdlog::level::info},
    {{"keys_read", "the key file was read again: identities, error"}, spdlog::level::info},
    {{"shutdown", "the gateway ends: reason"}, spdlog::level::info},
};

// Members that stay out of the log: the time has its place, the texts hold cookies.
constexpr const char *not_logged[] = {"text", "hex", "cookie"};

std::vector<common::event_kind> kinds_alone() {
    std::vector<common::event_kind> list;
    for (const auto &entry : kinds) list.push_back(entry.kind);
    return list;
}

spdlog::level::level_enum level_of(std::string_view kind) {
    for (const auto &entry : kinds) {
        if (kind == entry.kind.name) return entry.level;
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

void tell_log(const char *kind, const json &members) {
    auto level = level_of(kind);
    if (!spdlog::should_log(level)) return;
    std::string line = std::string("event=") + kind;
    for (const auto &[name, value] : members.items()) {
        if (is_logged(name)) line += " " + name + "=" + log_value(value);
    }
    spdlog::log(level, "{}", line);
}

}  // namespace

event_journal::event_journal() : log_(kinds_alone(), kept_events, kept_bytes) {}

void event_journal::emit(const char *kind, uint64_t client, const json &fields) {
    json members = json::object();
    if (client) members["client"] = client;
    members.update(fields);
    tell_log(kind, members);
    log_.add(kind, members);
}

}  // namespace gw
