// The file in which an agent leaves what it knows for the next one.
#pragma once

#include "base.h"

#include <string>

namespace wlcctl {

// What the file holds; a discarded value if there is none, if it is another user's, or makes no sense.
json read_memory(const std::string &path);

// Replaces the file in one step, mode 0600; makes its directory, not the one above. Returns an empty text or what
// failed.
std::string write_memory(const std::string &path, const std::string &text);

}  // namespace wlcctl
