#pragma once

#include <nlohmann/json.hpp>

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace gw {

using json = nlohmann::ordered_json;

// What happened, numbered, with time stamps: the newest are kept for controllers that ask later, each goes to the log.
class event_log {
public:
    using kept_event = std::shared_ptr<const json>;

    // Adds one event. `client` is the connection's number, 0 for none; `fields` is an object.
    void emit(const char *kind, uint64_t client, const json &fields = json::object());

    // Called for every event as it happens.
    void on_event(std::function<void(const json &)> listener) { listener_ = std::move(listener); }

    uint64_t last() const { return last_; }

    // How many events with a number above `since` are no longer kept.
    uint64_t lost(uint64_t since) const;

    // Calls visit(event) for the kept events numbered above `since`, oldest first, until it returns false.
    void visit(uint64_t since, const std::function<bool(const json &)> &visit) const;

private:
    std::deque<kept_event>            ring_;
    uint64_t                          last_ = 0;
    std::function<void(const json &)> listener_;
};

}  // namespace gw
