#include "lint.h"

#include "common/log.h"
#include "common/request.h"
#include "common/unique_fd.h"

#include "conf.h"
#include "openssl.h"
#include "wire.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <sys/stat.h>

// Contents: 1 small judgements  2 one line  3 one value  4 the whole content  5 the file

namespace wlcctl {

namespace {

constexpr size_t piece_width   = 511;  // characters that the daemon reads as one line
constexpr size_t most_findings = 200;
constexpr size_t short_key     = 16;  // characters of a key that is easily guessed
constexpr size_t file_limit    = 1 << 20;

// ---- 1 small judgements ---------------------------------------------------------------------------------------------

// How many characters must be put in, taken out, changed or swapped.
size_t distance(const std::string &a, const std::string &b) {
    std::vector<std::vector<size_t>> cost(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); i++) cost[i][0] = i;
    for (size_t j = 0; j <= b.size(); j++) cost[0][j] = j;
    for (size_t i = 1; i <= a.size(); i++)
        for (size_t j = 1; j <= b.size(); j++) {
            cost[i][j] = std::min(
                {cost[i - 1][j] + 1, cost[i][j - 1] + 1, cost[i - 1][j - 1] + (a[i - 1] != b[j - 1])});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                cost[i][j] = std::min(cost[i][j], cost[i - 2][j - 2] + 1);
        }
    return cost[a.size()][b.size()];
}

std::string plain_form(std::string text) {
    text.erase(0, text.find_first_not_of(" \t"));
    text.erase(text.find_last_not_of(" \t") + 1);
    for (char &c : text)
        c = c == '-' || c == ' ' ? '_' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// The known key that this one was meant to be; null if it is like none.
const conf_key *meant_key(const std::string &word) {
    if (word.size() > 40) return nullptr;
    const conf_key *best  = nullptr;
    size_t          least = 3;
    for (const conf_key &key : conf_keys) {
        size_t d = distance(plain_form(word), key.name);
        if (d < least) best = &key, least = d;
    }
    return best;
}

const conf_key *find_key(const std::string &word) {
    auto found = std::find_if(conf_keys.begin(), conf_keys.end(),
                              [&](const conf_key &key) { return word == key.name; });
    return found == conf_keys.end() ? nullptr : &*found;
}

// Values that may be shown: what nobody could take for a secret.
bool may_be_shown(const std::string &key) {
    return key != "psk_key" && key != "psk_identity" && find_key(key) != nullptr;
}

std::string shown(const std::string &key, const std::string &value) {
    return may_be_shown(key) ? "\"" + printable(value, 64) + "\"" : "***";
}

bool is_ipv4(const std::string &text) {
    in_addr address;
    return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

bool is_ipv6(const std::string &text) {
    in6_addr address;
    return inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

bool is_sample(const std::string &key) {
    std::string lower = plain_form(key);
    for (const char *word : {"secret", "password", "changeme", "change_me", "example", "sample", "test", "psk", "key",
                             "0123456789abcdef", "1234567890", "00112233445566778899aabbccddeeff", "replace_me",
                             "your_key", "0123456789abcdef0123456789abcdef"})
        if (lower == word) return true;
    return !key.empty() && key.find_first_not_of(key[0]) == std::string::npos;
}

// ---- 2 one line -----------------------------------------------------------------------------------------------------

struct line_fields {
    std::vector<std::string> fields;
    bool                     has_empty = false;  // ";;", or a ';' at the beginning: the daemon takes them for one
};

line_fields split_fields(const std::string &line) {
    line_fields split;
    for (size_t at = 0; at <= line.size();) {
        size_t      end  = std::min(line.find(';', at), line.size());
        std::string part = line.substr(at, end - at);
        if (!part.empty()) split.fields.push_back(part);
        else if (end < line.size()) split.has_empty = true;
        at = end + 1;
    }
    return split;
}

// The work on one content.
class linter {
public:
    explicit linter(bool asks_openssl) : asks_openssl_(asks_openssl) {}

    std::vector<finding> run(const std::string &content) {
        judge_bytes(content);
        size_t at = 0;
        for (line_ = 1; at < content.size() && findings_.size() < most_findings; line_++) {
            size_t end = std::min(content.find('\n', at), content.size());
            judge_line(content.substr(at, end - at));
            at = end + 1;
        }
        line_ = 0;
        judge_whole();
        if (findings_.size() >= most_findings)
            add(severity::note, "too-many", "there are more findings than are shown", "", "repair these first");
        return findings_;
    }

private:
    void add(severity level, const char *code, const std::string &text, const std::string &effect,
             const std::string &fix) {
        findings_.push_back({level, line_, code, text, effect, fix});
    }

    void judge_bytes(const std::string &content) {
        line_ = 0;
        if (content.find_first_not_of(" \t\r\n") == std::string::npos)
            add(severity::error, "file-empty", "the file has no entry",
                "every setting is empty, the tunnel cannot come up", "write it anew: wlcctl conf init --force");
        if (content.find('\0') != std::string::npos)
            add(severity::error, "file-binary", "the file holds NUL bytes", "a line ends at its first NUL",
                "write it anew: wlcctl conf init --force");
    }

    void judge_line(const std::string &line) {
        if (line.empty()) return;
        if (line[0] == '#') {
            add(severity::note, "comment", "a comment", "it is dropped when the daemon reads the file",
                "keep it elsewhere");
            return;
        }
        std::string plain = line;
        if (plain.back() == '\r') {
            add(severity::warning, "line-crlf", "the line ends with a carriage return",
                "it becomes part of the last field", "convert the file: sed -i 's/\\r$//' FILE");
            plain.pop_back();
        }
        if (line.size() > piece_width)
            add(severity::error, "line-too-long", "the line has " + std::to_string(line.size()) + " characters",
                "it is read in pieces of 511, each a line of its own", "shorten it");
        line_fields split = split_fields(plain);
        if (plain.find_first_not_of(" \t;") == std::string::npos) {
            add(severity::warning, "line-blank", "the line holds nothing but blanks", "it is skipped and dropped",
                "remove it");
            return;
        }
        if (split.fields.size() < 3) return judge_short_line(split);
        if (split.has_empty)
            add(severity::error, "field-empty", "a field is empty", "it is not there: the field behind takes its place",
                "write key;value;1");
        if (split.fields.size() > 3)
            add(severity::error, "field-extra", "the line has " + std::to_string(split.fields.size()) + " fields",
                "a value ends at its first ';', what stands behind is taken for the flag", "write key;value;1");
        judge_flag(split.fields[2]);
        judge_key(split.fields[0], split.fields[1]);
    }

    void judge_short_line(const line_fields &split) {
        std::string     what = split.fields.size() == 1 ? "one field" : "two fields";
        const conf_key *key  = find_key(split.fields[0]);
        add(severity::error, "line-short",
            "the line has " + what + " instead of three" + (key ? " (" + std::string(key->name) + ")" : ""),
            "it is skipped and dropped: the setting is lost", "write key;value;1");
    }

    void judge_flag(const std::string &flag) {
        if (flag == "0" || flag == "1") return;
        add(severity::warning, "flag-invalid", "the third field is neither 0 nor 1", "it is rewritten as 0",
            "write key;value;1");
    }

    void judge_key(const std::string &word, const std::string &value) {
        if (word == "gateway_name") {  // the agent's own
            gateway_name_ = line_;
            return;
        }
        const conf_key *key = find_key(word);
        if (key) {
            if (lines_.contains(word))
                add(severity::warning, "key-doubled",
                    word + " stands in line " + std::to_string(lines_[word]) + " already", "the last one counts",
                    "remove one of them");
            lines_[word]  = line_;
            values_[word] = value;
            return judge_value(*key, value);
        }
        if (const conf_key *meant = meant_key(word); meant) {
            misspelt_.emplace_back(meant->name);
            add(severity::error, "key-misspelt", "\"" + printable(word, 40) + "\" is no key", "the value is ignored",
                std::string("write ") + meant->name);
            return;
        }
        // Such a word may be anything, a secret in the wrong place included.
        add(severity::error, "key-unknown", "the first field is no key", "the line is ignored",
            "the keys are: wlcctl conf init --help");
    }

    // --- 3 one value

    void judge_value(const conf_key &key, const std::string &value) {
        std::string name = key.name;
        for (unsigned char c : value)
            if (c < 0x20 || c == 0x7f) {
                add(severity::error, "value-control", name + " holds a control character", "it is used as it stands",
                    "write it anew");
                return;
            }
        bool is_secret = name == "psk_key" || name == "psk_identity";
        if (value.front() == ' ' || value.back() == ' ')
            add(is_secret ? severity::warning : severity::error, "value-blank", name + " begins or ends with a blank",
                "the blank is part of the value", "remove it");
        if (value.size() > key.limit && name != "server_port")
            add(severity::error, "value-too-long",
                name + " has " + std::to_string(value.size()) + " characters, at most " + std::to_string(key.limit) +
                    " are kept",
                "it is cut", "shorten it");
        if (name == "server_port") judge_port(value);
        if (name == "server_ip_address") judge_gateway(value);
        if (name == "management_ip" || name == "inner_ip") judge_address(name, value);
        if (name == "tun_interface_name") judge_interface(value);
        if (name == "cipher_algo") judge_cipher(value);
        if (name == "psk_key") judge_psk(value);
        if (name == "log_level" && !is_level_word(value))
            add(severity::warning, "log-word", "log_level " + shown(name, value) + " is no level",
                "the level errors is set", "one of errors, warnings, info, debug, ssl-dbg, buf-print");
        if (name == "log_dest" && !is_destination_word(value))
            add(severity::warning, "log-word", "log_dest " + shown(name, value) + " is no destination",
                "the destination file is set", "one of file, console, both");
        if (name == "inner_ip")
            add(severity::note, "inner-ip-unused", "inner_ip is set", "it is not used: the gateway assigns the address",
                "remove it");
    }

    void judge_port(const std::string &value) {
        bool is_number = value.find_first_not_of("0123456789") == std::string::npos && value.size() <= 5;
        long port      = is_number ? strtol(value.c_str(), nullptr, 10) : 0;
        if (port >= 1 && port <= 65535 && value[0] != '0') return;
        add(severity::error, "port-invalid", "server_port " + shown("server_port", value) + " is no port",
            "what its digits say is used, cut to 16 bits", "a number from 1 to 65535");
    }

    void judge_gateway(const std::string &value) {
        if (is_ipv4(value)) {
            if (value == "0.0.0.0" || value == "255.255.255.255")
                add(severity::error, "address-invalid",
                    "server_ip_address " + shown("server_ip_address", value) + " is no gateway's",
                    "the connection fails", "the gateway's IPv4 address");
            return;
        }
        if (is_ipv6(value)) {
            add(severity::error, "address-ipv6", "server_ip_address is an IPv6 address",
                "the daemon connects by IPv4 only", "the gateway's IPv4 address");
            return;
        }
        std::string warning, error = check_conf_value(*find_key("server_ip_address"), value, warning);
        if (!error.empty())
            add(severity::error, "address-invalid",
                "server_ip_address " + shown("server_ip_address", value) + " is neither an address nor a name",
                "it connects to 0.0.0.0 and fails", "the gateway's IPv4 address");
        else
            add(severity::warning, "address-name",
                "server_ip_address " + shown("server_ip_address", value) + " is a name",
                "the daemon looks up no names: its first connection fails",
                "write its address, or run wlcctl agent --keep-up, which looks it up");
    }

    void judge_address(const std::string &name, const std::string &value) {
        if (is_ipv4(value) && value != "0.0.0.0") return;
        add(name == "inner_ip" ? severity::warning : severity::error, "address-invalid",
            name + " " + shown(name, value) + " is no IPv4 address",
            name == "inner_ip" ? "it is not used" : "no packet of this device matches it",
            "an IPv4 address of this device");
    }

    void judge_interface(const std::string &value) {
        std::string warning, error = check_conf_value(*find_key("tun_interface_name"), value, warning);
        if (error.empty() || value.size() > 15) return;
        add(severity::error, "interface-invalid",
            "tun_interface_name " + shown("tun_interface_name", value) + " cannot be used",
            "the interface cannot be made", "letters, digits, '.', '_' and '-', at most 15");
    }

    void judge_cipher(const std::string &value) {
        if (!asks_openssl_) return;
        cipher_verdict verdict = judge_ciphers(value);
        if (verdict == cipher_verdict::unusable)
            add(severity::error, "cipher-unusable",
                "cipher_algo " + shown("cipher_algo", value) + " is refused by OpenSSL",
                "this process of the daemon can never connect", "for example PSK-AES256-CBC-SHA");
        if (verdict == cipher_verdict::without_psk)
            add(severity::error, "cipher-without-psk",
                "cipher_algo " + shown("cipher_algo", value) + " has no cipher for a pre-shared key",
                "no handshake succeeds", "for example PSK-AES256-CBC-SHA");
    }

    void judge_psk(const std::string &value) {
        if (is_sample(value))
            add(severity::warning, "key-sample", "psk_key is one that everybody knows", "it is used as it stands",
                "a key of your own: openssl rand -hex 24");
        else if (value.size() < short_key)
            add(severity::warning, "key-short", "psk_key has " + std::to_string(value.size()) + " characters",
                "it is used as it stands, and is easily guessed", "a longer one: openssl rand -hex 24");
    }

    // --- 4 the whole content

    void judge_whole() {
        for (const conf_key &key : conf_keys) {
            bool is_meant = std::find(misspelt_.begin(), misspelt_.end(), key.name) != misspelt_.end();
            if (lines_.contains(key.name) || is_meant) continue;
            std::string name = key.name;
            if (key.required) {
                add(severity::error, "key-missing", name + " is missing", "it is empty",
                    "add it: wlcctl conf init --help");
            } else if (name == "server_port") {
                add(severity::error, "key-missing", name + " is missing", "the port is 0", "add server_port;443;1");
            } else if (name == "tun_interface_name" || name == "cipher_algo") {
                add(severity::error, "key-missing", name + " is missing", "it is empty, the tunnel cannot come up",
                    "add " + name + ";" + key.preset + ";1");
            }
        }
    }

    bool                               asks_openssl_;
    int                                line_         = 0;
    int                                gateway_name_ = 0;
    std::vector<finding>               findings_;
    std::map<std::string, int>         lines_;
    std::map<std::string, std::string> values_;
    std::vector<std::string>           misspelt_;
};

}  // namespace

std::vector<finding> lint_content(const std::string &content, bool asks_openssl) {
    return linter(asks_openssl).run(content);
}

// ---- 5 the file -----------------------------------------------------------------------------------------------------

std::vector<finding> lint_file(const std::string &path, bool asks_openssl) {
    unique_fd   fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat facts;
    if (!fd) {
        bool is_missing = errno == ENOENT || errno == ENOTDIR;
        return {{severity::error, 0, is_missing ? "file-missing" : "file-unreadable", failure_text("read", path),
                 "every setting is empty, the tunnel cannot come up", "write one: wlcctl conf init --help"}};
    }
    if (fstat(fd.get(), &facts) != 0 || !S_ISREG(facts.st_mode))
        return {{severity::error, 0, "file-type", printable(path) + " is no plain file", "it cannot be read",
                 "remove it and write one: wlcctl conf init --help"}};
    if (static_cast<size_t>(facts.st_size) > file_limit)
        return {{severity::error, 0, "file-too-large", printable(path) + " has more than 1 MB",
                 "it is read line by line", "write it anew: wlcctl conf init --force"}};

    std::string content;
    char        bytes[8192];
    ssize_t     count;
    while ((count = read(fd.get(), bytes, sizeof bytes)) > 0 && content.size() <= file_limit)
        content.append(bytes, static_cast<size_t>(count));
    std::vector<finding> findings = lint_content(content, asks_openssl);
    if (facts.st_mode & 0077)
        findings.push_back({severity::warning, 0, "file-mode", "other users may read the file, and the key in it",
                            "the mode stays", "chmod 600 " + printable(path)});
    struct stat temp;
    if (lstat(daemon_temp_name(path).c_str(), &temp) == 0 && present().wall / 1000 - temp.st_mtime > 5)
        findings.push_back({severity::warning, 0, "leftover-temp",
                            "a temporary file of an earlier rewriting is left: " + printable(daemon_temp_name(path)),
                            "its lines come back with the next start", "rm " + printable(daemon_temp_name(path))});
    return findings;
}

bool has_errors(const std::vector<finding> &findings) {
    return std::any_of(findings.begin(), findings.end(), [](const finding &f) { return f.level == severity::error; });
}

const char *severity_name(severity level) {
    return level == severity::error ? "error" : level == severity::warning ? "warning" : "note";
}

}  // namespace wlcctl
