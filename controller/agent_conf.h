// The agent's own configuration file: "key = value" lines with the names of its options, '#' begins a comment.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace wlcctl {

struct agent_setting {
    int         line;
    std::string key;
    std::string value;
};

// The settings of a content, in order. error: set, with the line, for a line that is none.
std::vector<agent_setting> parse_agent_conf(const std::string &content, std::string &error);

// The file's content; nothing if there is no such file. error: set when it is there and cannot be read.
std::optional<std::string> read_agent_conf(const std::string &path, std::string &error);

// "true", "yes", "on", "1" and their opposites; nothing for others.
std::optional<bool> truth_of(const std::string &word);

}  // namespace wlcctl
