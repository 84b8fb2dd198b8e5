// What happened, numbered: the newest events are kept for those who ask later. Numbers begin at 1 and have no gaps;
// they mean something only together with the stream, an id that each life of the program draws anew. Called on the
// loop's thread.
//
// An event is a JSON object: {"schema":1,"stream":S,"event":KIND,"number":N,"time":ISO,"mono":SECONDS, members of the
// kind...}
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "clock.h"
#include "json.h"

namespace common {

constexpr int schema_number = 1;  // of all answers and events

// A kind of event that the program may add.
struct event_kind {
    const char *name;
    const char *help;  // what happened, and the members that tell more
};

// A kept event. The text, not the tree, because it takes a tenth of the memory.
struct event {
    uint64_t    number;
    const char *kind;
    std::string body;  // the object's text from its third member on, without the opening brace
};

class event_log {
public:
    // Called with each new event, in order; members is the same event as a tree.
    using listener = std::function<void(const event &e, const json &members)>;

    // kinds: all that will be added. The oldest events go when there are more than `most`, or more than `most_bytes` of
    // text.
    explicit event_log(std::vector<event_kind> kinds, size_t most = 5000, size_t most_bytes = 1u << 20);

    // Adds an event at that moment. kind: one of the table; members: an object, or null. Returns the event's number.
    uint64_t add(const moment &when, const char *kind, const json &members);
    uint64_t add(const moment &when, const char *kind);
    uint64_t add(const char *kind, const json &members);
    uint64_t add(const char *kind);

    void listen(listener each) { listeners_.push_back(std::move(each)); }

    const std::string             &stream() const { return stream_; }
    const std::vector<event_kind> &kinds() const { return kinds_; }
    bool has_kind(const std::string &name) const { return find_kind(name.c_str()) != nullptr; }

    // Number of the newest event, 0 if there is none.
    uint64_t last() const { return last_; }

    // How many events with a number above `since` are no longer kept.
    uint64_t lost(uint64_t since) const;

    // The event's object as text, without a line end.
    std::string text(const event &e) const { return head_ + e.body; }

    // Calls f with each kept event whose number is above `since`, oldest first, until it returns false.
    template <class F>
    void each_since(uint64_t since, F &&f) const {
        uint64_t first = last_ - kept_.size() + 1;
        for (size_t i = since < first ? 0 : since - first + 1; i < kept_.size(); i++)
            if (!f(kept_[i])) return;
    }

private:
    const event_kind *find_kind(const char *name) const;

    std::vector<event_kind> kinds_;
    size_t                  most_;
    size_t                  most_bytes_;
    std::string             stream_;
    std::string             head_;  // of every event's text
    std::deque<event>       kept_;
    size_t                  kept_bytes_ = 0;
    uint64_t                last_       = 0;
    std::vector<listener>   listeners_;
};

// Which events somebody asks for. match: members that must be there and be equal, as the text of a JSON object; empty:
// any.
struct event_filter {
    std::set<std::string> kinds;  // empty: all
    std::string           match;

    bool accepts(const event_log &log, const event &e) const;
};

}  // namespace common
