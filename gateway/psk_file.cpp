#include "psk_file.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "common/input_file.h"
#include "errors.h"

namespace gw {

namespace {

constexpr size_t identity_limit = 128;        // characters, what clients can send
constexpr size_t key_limit      = 256;        // characters, what clients can hold
constexpr size_t file_limit     = 64u << 20;  // bytes, some 150000 of the longest lines

void add_line(const std::string &line, const std::string &where, psk_table &table) {
    size_t colon = line.find(':');
    if (colon == std::string::npos) throw usage_error(where + ": no colon between identity and key");
    std::string identity = line.substr(0, colon);
    std::string key      = line.substr(colon + 1);
    if (identity.empty()) throw usage_error(where + ": empty identity");
    if (identity.size() > identity_limit) throw usage_error(where + ": identity of more than 128 characters");
    if (key.empty()) throw usage_error(where + ": empty key");
    if (key.size() > key_limit) throw usage_error(where + ": key of more than 256 characters");
    if (!table.emplace(identity, key).second) throw usage_error(where + ": identity '" + identity + "' appears twice");
}

}  // namespace

void require_private(const char *what, const std::string &path) {
    struct stat facts;
    if (stat(path.c_str(), &facts) != 0)
        throw usage_error(std::string("cannot read the ") + what + " " + path + ": " + strerror(errno));
    if (!S_ISREG(facts.st_mode) || (facts.st_mode & (S_IRWXO | S_IWGRP)) == 0) return;
    char mode[8];
    snprintf(mode, sizeof mode, "%04o", facts.st_mode & 07777u);
    throw usage_error(std::string("the ") + what + " " + path + " is open to others (mode " + mode + "): chmod 600 " +
                      path);
}

psk_table read_psk_file(const std::string &path) {
    std::string why;
    require_private("PSK file", path);
    auto content = common::read_input(path, file_limit, why);
    if (!content) throw usage_error("cannot read the PSK file " + path + ": " + why);

    psk_table          table;
    std::string        line;
    std::istringstream file(*content);
    for (unsigned number = 1; std::getline(file, line); number++) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty() || line[0] == '#') continue;
        add_line(line, path + ":" + std::to_string(number), table);
    }
    if (table.empty()) throw usage_error("the PSK file " + path + " holds no key");
    return table;
}

}  // namespace gw
