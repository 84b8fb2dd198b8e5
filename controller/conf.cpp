#include "conf.h"

#include "wire.h"  // the words of levels and destinations

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

namespace wlcctl {

const std::vector<conf_key> conf_keys = {
    {"server_ip_address", 49, true, nullptr, "address of the gateway"},
    {"server_port", 5, false, "443", "TCP port of the gateway"},
    {"management_ip", 49, true, nullptr, "management address of this device; packets carry it on the TUN interface"},
    {"inner_ip", 63, false, nullptr, "inner address (the daemon does not use it)"},
    {"tun_interface_name", 15, false, "tun0", "name of the TUN interface"},
    {"cipher_algo", 49, false, "PSK-AES256-CBC-SHA", "OpenSSL cipher list"},
    {"psk_identity", 63, true, nullptr, "identity that belongs to the key"},
    {"psk_key", 63, true, nullptr, "pre-shared key, its characters are the key's bytes"},
    {"log_level", 63, false, "info", "errors, warnings, info, debug, ssl-dbg or buf-print"},
    {"log_dest", 63, false, "file", "file, console or both"},
    {"device_id", 16, true, nullptr, "identifier of this device"},
    {"serial_num", 16, false, nullptr, "serial number of this device"},
    {"system_name", 50, false, nullptr, "name of this device"},
};

namespace {

constexpr size_t     key_width      = 63;   // characters of a key and a flag that the daemon keeps
constexpr size_t     value_width    = 511;  // of a value
constexpr size_t     line_width     = 511;  // of a line; the rest of a longer one is a line of its own
constexpr size_t     file_limit     = 1 << 20;
constexpr int        rewrite_waits  = 30;      // times
constexpr useconds_t rewrite_wait   = 100000;  // microseconds; the daemon's rewriting takes a little over a second
constexpr int        write_attempts = 3;

bool is_ipv4(const std::string &text) {
    in_addr address;
    return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

bool is_plain(unsigned char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

bool is_host_name(const std::string &text) {
    if (!is_plain(static_cast<unsigned char>(text.front())) || text.find("..") != std::string::npos) return false;
    // A name whose last label is a number is a mistyped address.
    size_t      last  = text.find_last_of('.');
    std::string label = last == std::string::npos ? text : text.substr(last + 1);
    if (label.find_first_not_of("0123456789") == std::string::npos) return false;
    return std::all_of(text.begin(), text.end(), [](unsigned char c) { return is_plain(c) || c == '-' || c == '.'; });
}

std::string check_port(const std::string &value) {
    bool is_number = value.find_first_not_of("0123456789") == std::string::npos;
    long port      = is_number ? strtol(value.c_str(), nullptr, 10) : 0;
    return port >= 1 && port <= 65535 && value[0] != '0' ? "" : "server_port must be a number from 1 to 65535";
}

// The daemon puts this name into a command line and refuses to do so with other characters.
std::string check_interface(const std::string &value) {
    bool is_good = value.front() != '-' && value != "." && value != ".." &&
                   std::all_of(value.begin(), value.end(),
                               [](unsigned char c) { return is_plain(c) || strchr("._-", c); });
    return is_good ? "" : "tun_interface_name may hold letters, digits, '.', '_' and '-' only, and not begin with '-'";
}

std::string check_gateway(const std::string &value, std::string &warning) {
    if (is_ipv4(value)) return "";
    if (!is_host_name(value)) return "server_ip_address must be an IPv4 address or a host name";
    warning =
        "server_ip_address is a name: the daemon looks up no names, so its first connection fails, and later ones "
        "need an agent with --resolve " +
        value;
    return "";
}

// Splits off the field before the next ';', as strtok does: leading ';' are skipped.
bool next_field(const std::string &line, size_t &at, std::string &field) {
    at = line.find_first_not_of(';', at);
    if (at == std::string::npos) return false;
    size_t end = std::min(line.find(';', at), line.size());
    field      = line.substr(at, end - at);
    at         = end < line.size() ? end + 1 : end;
    return true;
}

bool parse_line(const std::string &line, conf_entry &entry) {
    if (line[0] == '\n' || line[0] == '#') return false;

    std::string flag;
    size_t      at = 0;
    if (!next_field(line, at, entry.key) || !next_field(line, at, entry.value) || !next_field(line, at, flag))
        return false;
    entry.key   = entry.key.substr(0, key_width);
    entry.value = entry.value.substr(0, value_width);
    entry.flag  = static_cast<int>(strtol(flag.substr(0, key_width).c_str(), nullptr, 10));
    return true;
}

std::string directory_of(const std::string &path) {
    size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// A leftover of a rewriting that failed stays for ever: then there is nothing to wait for, and the caller goes on.
void wait_for_daemon(const std::string &path) {
    std::string temp = daemon_temp_name(path);
    for (int i = 0; i < rewrite_waits && access(temp.c_str(), F_OK) == 0; i++) usleep(rewrite_wait);
}

std::string failure(const std::string &what, const std::string &path) {
    return "cannot " + what + " " + path + ": " + strerror(errno);
}

bool write_all(int fd, const std::string &content) {
    for (size_t at = 0; at < content.size();) {
        ssize_t n = write(fd, content.data() + at, content.size() - at);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        at += static_cast<size_t>(n);
    }
    return true;
}

// Puts the synced temporary file in the file's place.
bool put_in_place(const std::string &temp, const std::string &path, bool replace) {
    if (replace) return rename(temp.c_str(), path.c_str()) == 0;
    // A link refuses an existing name in one step, which a rename does not. Not every file system has links.
    if (link(temp.c_str(), path.c_str()) == 0) return unlink(temp.c_str()) == 0;
    if (errno == EEXIST) return false;
    if (access(path.c_str(), F_OK) == 0) {
        errno = EEXIST;
        return false;
    }
    return rename(temp.c_str(), path.c_str()) == 0;
}

std::string write_once(const std::string &path, const std::string &content, bool replace) {
    std::string directory = directory_of(path);
    std::string temp      = directory + "/.wlcctl-conf-XXXXXX";
    int         fd        = mkostemp(temp.data(), O_CLOEXEC);  // mode 0600
    if (fd < 0) return failure("create a file in", directory);

    bool is_written = write_all(fd, content) && fsync(fd) == 0;
    is_written      = close(fd) == 0 && is_written;
    std::string error;
    if (!is_written) error = failure("write", temp);
    else if (!put_in_place(temp, path, replace))
        error = errno == EEXIST ? path + " exists; --force replaces it" : failure("put the new file in place of", path);
    if (!error.empty()) {
        unlink(temp.c_str());
        return error;
    }

    int place = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (place >= 0) {
        (void)fsync(place);  // not every file system can; the file itself is safe
        close(place);
    }
    return "";
}

bool holds(const std::string &path, const conf_values &values) {
    std::string ignored;
    size_t      skipped = 0;
    auto        content = read_conf_file(path, ignored);
    if (!content) return false;
    auto entries = parse_conf(*content, skipped);
    return std::equal(entries.begin(), entries.end(), values.begin(), values.end(),
                      [](const conf_entry &e, const auto &v) { return e.key == v.first && e.value == v.second; });
}

}  // namespace

std::string daemon_temp_name(const std::string &path) {
    size_t dot   = path.find_last_of('.');
    size_t slash = path.find_last_of('/');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return path + "-temp";
    return path.substr(0, dot) + "-temp" + path.substr(dot);
}

std::string check_conf_value(const conf_key &key, const std::string &value, std::string &warning) {
    std::string name = key.name;
    if (value.empty()) return name + " is empty";
    for (unsigned char c : value)
        if (c < 0x20 || c == 0x7f || c == ';')
            return name + " must not hold ';', a line end or another control character";
    if (name == "server_port") return check_port(value);
    if (value.size() > key.limit)
        return name + " has " + std::to_string(value.size()) + " characters, at most " + std::to_string(key.limit) +
               " are kept";

    if (name == "server_ip_address") return check_gateway(value, warning);
    if (name == "tun_interface_name") return check_interface(value);
    if (name == "management_ip" && !is_ipv4(value)) return "management_ip must be an IPv4 address";
    if (name == "inner_ip" && !is_ipv4(value)) return "inner_ip must be an IPv4 address";
    if (name == "inner_ip") warning = "inner_ip is not used by the daemon: the gateway assigns the inner address";
    if (name == "log_level" && !is_level_word(value))
        return "log_level must be errors, warnings, info, debug, ssl-dbg or buf-print";
    if (name == "log_dest" && !is_destination_word(value)) return "log_dest must be file, console or both";
    return "";
}

std::vector<conf_entry> parse_conf(const std::string &content, size_t &skipped) {
    std::vector<conf_entry> entries;
    skipped = 0;
    for (size_t at = 0; at < content.size();) {
        size_t     end    = content.find('\n', at);
        size_t     length = std::min(end == std::string::npos ? content.size() - at : end - at + 1, line_width);
        conf_entry entry;
        if (parse_line(content.substr(at, length), entry)) entries.push_back(entry);
        else skipped++;
        at += length;
    }
    return entries;
}

std::optional<std::string> read_conf_file(const std::string &path, std::string &error) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        error = failure("read", path);
        return std::nullopt;
    }
    struct stat facts;
    if (fstat(fd, &facts) != 0 || !S_ISREG(facts.st_mode) || static_cast<size_t>(facts.st_size) > file_limit) {
        close(fd);
        error = path + " is no configuration file";
        return std::nullopt;
    }

    std::string content;
    char        piece[4096];
    ssize_t     n;
    while (content.size() <= file_limit && (n = read(fd, piece, sizeof piece)) > 0)
        content.append(piece, static_cast<size_t>(n));
    close(fd);
    return content;
}

json describe_conf(const std::string &content, bool for_others) {
    auto is_shown = [&](const std::string &key) {
        if (key == "psk_key") return false;
        if (!for_others) return true;
        bool is_known = key == "gateway_name" || std::any_of(conf_keys.begin(), conf_keys.end(),
                                                             [&](const conf_key &each) { return key == each.name; });
        return is_known && key != "psk_identity";
    };
    size_t skipped = 0;
    json   entries = json::array();
    for (const conf_entry &entry : parse_conf(content, skipped))
        entries.push_back({{"key", entry.key},
                           {"value", is_shown(entry.key) ? entry.value : "***"},
                           {"flag", entry.flag != 0 ? 1 : 0}});
    return {{"entries", entries}, {"skipped", skipped}};
}

std::string conf_value(const std::string &path, const std::string &key) {
    std::string ignored, value;
    size_t      skipped = 0;
    auto        content = read_conf_file(path, ignored);
    if (!content) return "";
    for (const conf_entry &entry : parse_conf(*content, skipped))
        if (entry.key == key) value = entry.value;
    return value;
}

std::string write_conf_file(const std::string &path, const conf_values &values, bool replace) {
    std::string content;
    for (const auto &[key, value] : values) content += key + ";" + value + ";1\n";

    for (int attempt = 0; attempt < write_attempts; attempt++) {
        wait_for_daemon(path);
        std::string error = write_once(path, content, replace);
        if (!error.empty()) return error;

        // A rewriting that had read the old file before the new one was in place shows by its temporary file.
        if (access(daemon_temp_name(path).c_str(), F_OK) != 0 && holds(path, values)) return "";
        wait_for_daemon(path);
        if (holds(path, values)) return "";
        replace = true;
    }
    return "the daemon keeps putting an older content back into " + path;
}

}  // namespace wlcctl
