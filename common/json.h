// The one JSON type, without its definition: sources that look into it include <nlohmann/json.hpp>.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <string>

namespace common {

using json = nlohmann::ordered_json;  // members keep the order in which they are documented

// Any JSON as one line of UTF-8 with its line end; bytes that are no UTF-8 are replaced. Never throws for its content.
std::string json_line(const json &value);

// The value of a text of at most `depth` nested arrays and objects; a discarded value (is_discarded()) for anything
// else.
json parse_json(const std::string &text, unsigned depth = 32);

}  // namespace common
