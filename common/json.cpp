#include "json.h"

#include <nlohmann/json.hpp>

namespace common {

// Escaped as far as JSON allows: control characters of foreign texts reach no terminal.
std::string json_line(const json &value) { return value.dump(-1, ' ', true, json::error_handler_t::replace) + "\n"; }

json parse_json(const std::string &text, unsigned depth) {
    bool is_deep = false;
    auto result  = json::parse(
         text,
         [&](int at, json::parse_event_t what, json &) {
            bool is_opening = what == json::parse_event_t::object_start || what == json::parse_event_t::array_start;
            is_deep         = is_deep || (is_opening && at >= static_cast<int>(depth));
            return !is_deep;  // what lies deeper is not kept
        },
         false);
    return is_deep ? json(json::value_t::discarded) : result;
}

}  // namespace common
