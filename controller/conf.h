// The secure-tunnel configuration file: text lines "key;value;flag", written here, read and rewritten by the daemon.
// The flag is 1 for an entry that the daemon has not read yet and 0 for one that it has. No agent is needed.
#pragma once

#include "common/json.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace wlcctl {

using common::json;

constexpr const char *default_conf_file = "/storage/application/wlc/wlc-sec-tun.conf";

struct conf_entry {
    std::string key;
    std::string value;
    int         flag = 0;
};

// What each key is and may be.
struct conf_key {
    const char *name;
    size_t      limit;  // characters that the daemon keeps
    bool        required;
    const char *preset;  // value if none is given, or null
    const char *help;
};
extern const std::vector<conf_key> conf_keys;  // all 13, in the order in which they are written

using conf_values = std::vector<std::pair<std::string, std::string>>;  // key and value

// The name under which the daemon rewrites the file: "NAME.conf" through "NAME-temp.conf".
std::string daemon_temp_name(const std::string &path);

// Checks one value as the manual's table says.
// warning: gets a sentence if the value is allowed but will surprise. Returns an empty text, or the sentence that
// refuses the value.
std::string check_conf_value(const conf_key &key, const std::string &value, std::string &warning);

// The entries of a file's content as the daemon reads them; blank lines, comments and lines with fewer than three
// fields are skipped. skipped: gets the number of those.
std::vector<conf_entry> parse_conf(const std::string &content, size_t &skipped);

// The whole file; nothing and `error` set if it cannot be read.
std::optional<std::string> read_conf_file(const std::string &path, std::string &error);

// The entries of a file's content and the number of lines skipped, as `conf show` tells them: the key masked.
// for_others: the identity and the values of unknown keys as well.
json describe_conf(const std::string &content, bool for_others);

// The value of a key, last line wins as it does in the daemon; empty if there is none or no file.
std::string conf_value(const std::string &path, const std::string &key);

// Replaces the file in one step: a temporary file of its own name beside it, mode 0600, synced, renamed. If the daemon
// is rewriting the file at the same time (it would put the old content back), writes again when the daemon has
// finished; blocks for a few seconds at most. replace: false refuses an existing file. Returns an empty text or the
// sentence that says what failed.
std::string write_conf_file(const std::string &path, const conf_values &values, bool replace);

}  // namespace wlcctl
