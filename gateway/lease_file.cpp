#include "lease_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <fstream>
#include <iterator>

#include <nlohmann/json.hpp>

#include "common/input_file.h"
#include "common/json.h"
#include "common/log.h"
#include "common/unique_fd.h"
#include "errors.h"

namespace gw {

namespace {

using common::json;

constexpr int    file_schema = 1;
constexpr size_t file_limit  = 64u << 20;  // bytes

bool is_text(const json &object, const char *name) { return object.contains(name) && object[name].is_string(); }

bool is_lease(const json &entry) {
    return entry.is_object() && is_text(entry, "identity") && is_text(entry, "device_id") &&
           is_text(entry, "address") && is_text(entry, "own_cookie") && is_text(entry, "cookie") &&
           parse_ipv4(entry["address"].get<std::string>());
}

void restore(const json &entry, address_pool &pool) {
    address_lease lease;
    lease.identity   = entry["identity"].get<std::string>();
    lease.device_id  = entry["device_id"].get<std::string>();
    lease.address    = *parse_ipv4(entry["address"].get<std::string>());
    lease.own_cookie = entry["own_cookie"].get<std::string>();
    lease.cookie     = entry["cookie"].get<std::string>();
    (void)pool.restore(lease);  // not when its address is no longer one of the pool's
}

bool write_all(int fd, const std::string &text) {
    for (size_t at = 0; at < text.size();) {
        ssize_t count = write(fd, text.data() + at, text.size() - at);
        if (count < 0 && errno != EINTR) return false;
        if (count > 0) at += static_cast<size_t>(count);
    }
    return fsync(fd) == 0;
}

}  // namespace

void read_lease_file(const std::string &path, address_pool &pool) {
    if (access(path.c_str(), F_OK) != 0 && errno == ENOENT) return;
    std::string why;
    auto        text = common::read_input(path, file_limit, why);
    if (!text) throw usage_error("cannot read the lease file " + path + ": " + why);
    json whole = common::parse_json(*text);
    bool good  = whole.is_object() && whole.value("schema", json()) == file_schema && whole.contains("leases") &&
                whole["leases"].is_array();
    for (size_t i = 0; good && i < whole["leases"].size(); i++) good = is_lease(whole["leases"][i]);
    if (!good) throw usage_error(common::printable(path) + " is no lease file; move it away to begin without leases");
    for (const json &entry : whole["leases"]) restore(entry, pool);
}

std::string write_lease_file(const std::string &path, const address_pool &pool) {
    json list = json::array();
    for (const address_lease &lease : pool.leases())
        list.push_back({{"identity", lease.identity},
                        {"device_id", lease.device_id},
                        {"address", ipv4_text(lease.address)},
                        {"own_cookie", lease.own_cookie},
                        {"cookie", lease.cookie}});
    std::string       text  = common::json_line({{"schema", file_schema}, {"leases", list}});
    std::string       fresh = path + ".new";
    common::unique_fd file(open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file || !write_all(file.get(), text)) return common::failure_text("write the lease file", fresh);
    if (rename(fresh.c_str(), path.c_str()) != 0) return common::failure_text("replace the lease file", path);
    return "";
}

}  // namespace gw
