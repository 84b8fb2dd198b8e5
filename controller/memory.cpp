#include "memory.h"

#include "common/log.h"
#include "common/unique_fd.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

namespace wlcctl {

namespace {

constexpr size_t memory_limit = 256 * 1024;  // bytes of a file that makes sense

}  // namespace

json read_memory(const std::string &path) {
    unique_fd   fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat facts;
    json        nothing = json(json::value_t::discarded);
    if (!fd || fstat(fd.get(), &facts) != 0 || !S_ISREG(facts.st_mode) || facts.st_uid != geteuid()) return nothing;
    if (facts.st_mode & 0022 || static_cast<size_t>(facts.st_size) > memory_limit) return nothing;
    std::string text(static_cast<size_t>(facts.st_size), '\0');
    ssize_t     count = read(fd.get(), text.data(), text.size());
    if (count < 0) return nothing;
    text.resize(static_cast<size_t>(count));
    json content = parse_json(text);
    return content.is_object() ? content : nothing;
}

std::string write_memory(const std::string &path, const std::string &text) {
    size_t slash = path.find_last_of('/');
    if (slash != std::string::npos && slash > 0) (void)mkdir(path.substr(0, slash).c_str(), 0755);
    std::string fresh = path + ".new";
    (void)unlink(fresh.c_str());
    unique_fd fd(open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    bool      is_good = fd && write(fd.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
                   rename(fresh.c_str(), path.c_str()) == 0;
    if (is_good) return "";
    std::string why = failure_text("keep the state in", path);
    (void)unlink(fresh.c_str());
    return why;
}

}  // namespace wlcctl
