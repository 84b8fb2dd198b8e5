#pragma once

#include <map>
#include <string>

namespace gw {

// Identity to key text.
using psk_table = std::map<std::string, std::string>;

// Reads lines "identity:key text"; the identity ends at the first colon, the key bytes are the characters of the
// text. Empty lines and those that begin with '#' are skipped. Throws usage_error with file and line, never with the
// key.
psk_table read_psk_file(const std::string &path);

}  // namespace gw
