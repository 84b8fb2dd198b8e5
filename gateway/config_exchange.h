#pragma once

#include <string>
#include <utility>
#include <vector>

#include "text.h"

namespace gw {

// What a client says of itself in a configuration request; nothing where the line is missing.
struct config_request {
    std::optional<std::string> address;
    std::optional<std::string> device_id;
    std::optional<std::string> cookie;
    std::optional<std::string> name;
    std::optional<std::string> serial;
};

// Reads the header lines ("Name:value\n") of a request; lines of another name are skipped, the first of a name counts.
config_request parse_config_request(std::string_view text);

// The response: header names without colon and their values, in the order in which they are sent.
using header_list = std::vector<std::pair<std::string, std::string>>;

// "Name:value\n" for each: no blank behind the colon, because clients do not skip it in front of an address.
std::string config_response_text(const header_list &headers);

// What the client will take for the value of a header: the text behind the first occurrence of the name with its
// colon, wherever it stands, up to the line feed.
std::optional<std::string> response_value(std::string_view text, std::string_view name);

// True when the text sets a DPD interval below 5 seconds, read like a client reads it (a text that is no number is 0):
// the client divides by a fifth of it.
bool has_fatal_dpd(std::string_view text);

// Headers that a controller has set to other values for the next response or for all that follow.
class header_overrides {
public:
    using value_list = std::vector<std::string>;  // no value omits the header, several give several lines

    void set(const std::string &name, value_list values, bool once);
    bool unset(const std::string &name);
    void clear() { entries_.clear(); }

    // Changes the headers in place: replaced values keep the place of the first line of that name, others go to the
    // end.
    void apply(header_list &headers) const;

    // A response was sent: what was set for one response only is over.
    void forget_once();

    struct override_entry {
        std::string name;
        value_list  values;
        bool        once;
    };
    const std::vector<override_entry> &entries() const { return entries_; }

private:
    std::vector<override_entry>
        entries_;  // in order of arrival; a later one of the same name and duration replaces the earlier
};

}  // namespace gw
