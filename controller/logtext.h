// The daemon's log as entries. An entry begins with a line end and a header, and may have several lines; whatever
// stands between is no entry. All of it is foreign: nothing here trusts a length, a number or a byte.
#pragma once

#include "base.h"

#include <functional>
#include <string>
#include <string_view>

namespace wlcctl {

struct log_entry {
    uint64_t    number = 0;  // of the line, counted by the daemon's process
    int64_t     wall   = 0;  // milliseconds since 1970, whole seconds: the header's local time; 0: it makes no sense
    std::string level;       // ERROR, WARNING, INFO, DEBUG, SSL_DEBUG
    std::string place;       // file:line
    std::string function;
    std::string text;  // what follows the header, with its line ends
};

// Cuts the log's text into entries as it comes.
class log_parser {
public:
    // each: called with every entry.
    explicit log_parser(std::function<void(const log_entry &)> each) : each_(std::move(each)) {}

    // Takes more text. The last entry waits for what follows.
    void take(std::string_view bytes);

    // There is no more for now: the last entry is complete. The daemon writes an entry in one piece.
    void flush();

    // Forgets what is incomplete: the text goes on elsewhere.
    void reset() { pending_.clear(); }

private:
    std::function<void(const log_entry &)> each_;
    std::string                            pending_;
};

// Reads one entry with its header, without the line end before it. False if it is none.
bool parse_log_entry(std::string_view text, log_entry &entry);

// The time of an entry for people: local, with its zone.
std::string local_time_text(int64_t wall_ms);

// Rank of a level word, either case, in the order errors (0) to ssl-dbg (4): both the log's and the controller's words;
// -1 for others.
int level_rank(const std::string &word);

}  // namespace wlcctl
