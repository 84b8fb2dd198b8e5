// What a program's socket understands: the table of its requests, the check of a request against it, and readers of
// members that have been checked. Called on the loop's thread.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "json.h"

namespace common {

// A request that makes no sense; the text is the answer's "error".
struct refusal : std::runtime_error {
    using std::runtime_error::runtime_error;
};

enum class member_type {
    flag,     // true or false
    text,     // of the words, if there are any
    number,   // whole, from 0 to highest
    seconds,  // a number from 0 to highest, or null
    texts,    // a list of texts, or one text; of the words, if there are any
    object,
    any
};

struct member {
    const char              *name;
    member_type              type;
    const char              *help;
    bool                     is_needed = false;
    std::vector<std::string> words     = {};  // the only texts allowed; none: every text
    double                   highest   = 0;   // 0: a day for seconds, no limit for a number
};

struct request_type {
    const char         *name;
    const char         *help;
    std::vector<member> members    = {};
    bool                is_reading = true;  // changes nothing: allowed on the read-only socket
};

// Checks names, types, words and limits of the request's members, "request" and "id" apart. Throws refusal; its text
// lists what exists.
void check_request(const json &request, const request_type &type);

// The table as the answer to `help`: an object for each member.
json describe_request(const request_type &type);

// Members of a request that was checked; a member that is not there, or null, is the standard.
bool                  flag_of(const json &request, const char *member, bool standard = false);
std::string           text_of(const json &request, const char *member, const std::string &standard = "");
uint64_t              number_of(const json &request, const char *member, uint64_t standard = 0);
std::optional<double> seconds_of(const json &request, const char *member);
std::set<std::string> texts_of(const json &request, const char *member);

// "a, b, c" for a sentence that lists what exists.
std::string list_text(const std::vector<std::string> &words);

}  // namespace common
