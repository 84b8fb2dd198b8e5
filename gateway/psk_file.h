#pragma once

#include <map>
#include <string>

namespace gw {

// Identity to key text.
using psk_table = std::map<std::string, std::string>;

// Refuses a file with a secret that other users may read or write, or the group may write: throws usage_error that says
// how to close it.
void require_private(const char *what, const std::string &path);

// Reads lines "identity:key text"; the identity ends at the first colon, the key bytes are the characters of the
// text. Empty lines and those that begin with '#' are skipped. Throws usage_error with file and line, or the reason,
// never with the key.
psk_table read_psk_file(const std::string &path);

}  // namespace gw
