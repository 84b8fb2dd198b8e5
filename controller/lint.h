// Every finding in a configuration file at once: where, what, what the daemon does with it, and the fix. No value of a
// key that may be secret is ever part of a text.
#pragma once

#include "base.h"

#include <string>
#include <vector>

namespace wlcctl {

enum class severity {
    error,    // the tunnel cannot come up, or not as it is meant
    warning,  // it may come up, and something will surprise
    note
};

struct finding {
    severity    level;
    int         line;    // from 1; 0: the file as a whole
    std::string code;    // stable
    std::string text;    // what stands there
    std::string effect;  // what the daemon will do with it
    std::string fix;
};

// Reads and judges the file. asks_openssl: false leaves the cipher list unjudged.
std::vector<finding> lint_file(const std::string &path, bool asks_openssl = true);

// Judges a content; nothing about the file itself.
std::vector<finding> lint_content(const std::string &content, bool asks_openssl = true);

bool has_errors(const std::vector<finding> &findings);

// "error", "warning", "note".
const char *severity_name(severity level);

}  // namespace wlcctl
