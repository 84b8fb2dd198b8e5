// Files that people name: read whole, never waited for without end.
#pragma once

#include <optional>
#include <string>

namespace common {

// The content of a file, or of a pipe that somebody fills: nothing comes from it for `patience_ms` milliseconds, and it
// is given up. Returns nothing, and why, when it cannot be read, is a directory or holds more than `most` bytes.
std::optional<std::string> read_input(const std::string &path, size_t most, std::string &why, int patience_ms = 2000);

}  // namespace common
