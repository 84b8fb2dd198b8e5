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

constexpr size_t events_kept = 5000;  // some 6 MB when every one is a statistics report

// A point in time on both clocks.
struct moment {
    double  mono = 0;  // seconds, CLOCK_MONOTONIC
    int64_t wall = 0;  // milliseconds since 1970
};

// The present moment.
moment present();

// ISO 8601 in UTC with milliseconds.
std::string wall_text(int64_t wall_ms);

// Any JSON as one line of UTF-8; bytes that are no UTF-8 are replaced, never an exception.
std::string json_line(const json &value);

// A kept event. The text, not the tree, because it takes a tenth of the memory.
struct event {
    uint64_t    number;
    const char *kind;
    std::string line;  // the documented JSON, with its line end
};

class event_log {
public:
    // Called with each new event, in order; `members` is the same event before it became a line.
    std::function<void(const event &, const json &members)> on_event;

    // Adds an event. kind: a word of the manual's table, a literal; members: an object whose members follow "kind", or null.
    // Returns the event's number.
    uint64_t add(const moment &now, const char *kind, const json &members = nullptr);

    // Number of the newest event, 0 if there is none.
    uint64_t last() const { return m_last; }

    // Calls f with each kept event whose number is above `since`, oldest first, until it returns false.
    template <class F>
    void each_since(uint64_t since, F &&f) const {
        uint64_t first = m_last - m_kept.size() + 1;
        for (size_t i = since < first ? 0 : since - first + 1; i < m_kept.size(); i++)
            if (!f(m_kept[i])) return;
    }

private:
    std::deque<event> m_kept;
    uint64_t          m_last = 0;
};

}  // namespace wlcctl
