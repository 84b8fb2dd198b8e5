#include "agent_conf.h"

#include "common/log.h"
#include "common/unique_fd.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace wlcctl {

using namespace common;

namespace {

constexpr size_t conf_limit = 64 * 1024;  // bytes

std::string trimmed(const std::string &text) {
    size_t begin = text.find_first_not_of(" \t\r"), end = text.find_last_not_of(" \t\r");
    return begin == std::string::npos ? "" : text.substr(begin, end - begin + 1);
}

bool is_key(const std::string &text) {
    return !text.empty() && text.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-_") == std::string::npos;
}

}  // namespace

std::vector<agent_setting> parse_agent_conf(const std::string &content, std::string &error) {
    std::vector<agent_setting> settings;
    int                        number = 0;
    for (size_t at = 0; at < content.size() && error.empty();) {
        size_t      end  = std::min(content.find('\n', at), content.size());
        std::string line = trimmed(content.substr(at, end - at));
        at               = end + 1;
        number++;
        if (line.empty() || line[0] == '#') continue;
        size_t      equals = line.find('=');
        std::string key    = trimmed(line.substr(0, equals));
        if (equals == std::string::npos || !is_key(key) || content.find('\0') != std::string::npos) {
            error = "line " + std::to_string(number) + " is no \"key = value\": " + printable(line, 60);
            break;
        }
        for (char &c : key)
            if (c == '_') c = '-';
        std::string value     = trimmed(line.substr(equals + 1));
        bool        is_quoted = value.size() >= 2 && value.front() == '"' && value.find('"', 1) == value.size() - 1;
        if (is_quoted) value = value.substr(1, value.size() - 2);
        settings.push_back({number, key, value});
    }
    return settings;
}

std::optional<std::string> read_agent_conf(const std::string &path, std::string &error) {
    unique_fd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!fd && (errno == ENOENT || errno == ENOTDIR)) return std::nullopt;
    struct stat facts;
    if (!fd) {
        error = failure_text("read", path);
        return std::nullopt;
    }
    if (fstat(fd.get(), &facts) != 0 || !S_ISREG(facts.st_mode) || static_cast<size_t>(facts.st_size) > conf_limit) {
        error = printable(path) + " is no configuration file";
        return std::nullopt;
    }
    std::string content(static_cast<size_t>(facts.st_size), '\0');
    ssize_t     count = read(fd.get(), content.data(), content.size());
    content.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return content;
}

std::optional<bool> truth_of(const std::string &word) {
    for (const char *yes : {"true", "yes", "on", "1"})
        if (word == yes) return true;
    for (const char *no : {"false", "no", "off", "0"})
        if (word == no) return false;
    return std::nullopt;
}

}  // namespace wlcctl
