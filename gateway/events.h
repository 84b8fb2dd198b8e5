#pragma once

#include <cstdint>

#include <nlohmann/json.hpp>

#include "common/event_log.h"

namespace gw {

using common::json;

// What happened: kept for controllers that ask later, and told in the log.
class event_journal {
public:
    event_journal();
    event_journal(const event_journal &)            = delete;
    event_journal &operator=(const event_journal &) = delete;

    // Adds one event of a known kind. `client` is the connection's number, 0 for none; `fields` is an object.
    void emit(const char *kind, uint64_t client, const json &fields = json::object());

    common::event_log       &log() { return log_; }
    const common::event_log &log() const { return log_; }

private:
    common::event_log log_;
};

}  // namespace gw
