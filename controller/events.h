// The numbered list of everything that happened, newest kept. Numbers begin at 1 and have no gaps.
// Called on the agent's one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>

#include <nlohmann/json.hpp>

namespace wlcctl {

using json = nlohmann::ordered_json;  // members keep the order in which they are documented

constexpr size_t events_kept = 5000;  // some 2 MB when every one is a statistics report

// A point in time on both clocks.
struct moment {
    double mono = 0;   // seconds, CLOCK_MONOTONIC
    int64_t wall = 0;  // milliseconds since 1970
};

// The present moment.
moment present();

// ISO 8601 in UTC with milliseconds.
std::string wall_text(int64_t wall_ms);

// Any JSON as one line of UTF-8; bytes that are no UTF-8 are replaced, never an exception.
std::string json_line(const json &value);

class event_log {
public:
    // Called with each new event, in order.
    std::function<void(const json &)> on_event;

    // Adds an event. kind: a word of the manual's table; members: an object whose members follow "kind", or null.
    // Returns the event's number.
    uint64_t add(const moment &now, const char *kind, const json &members = nullptr);

    // Number of the newest event, 0 if there is none.
    uint64_t last() const { return m_last; }

    // The kept events with numbers above `since`, oldest first.
    template <class F>
    void each_since(uint64_t since, F &&f) const {
        uint64_t first = m_last - m_kept.size() + 1;
        for (size_t i = since < first ? 0 : since - first + 1; i < m_kept.size(); i++)
            if (!f(m_kept[i])) return;
    }

private:
    std::deque<json> m_kept;
    uint64_t m_last = 0;
};

}  // namespace wlcctl
