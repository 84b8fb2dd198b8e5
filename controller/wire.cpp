#include "wire.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>

namespace wlcctl {

const std::array<const char *, counter_count> counter_labels = {"Data Pkt Rx",
                                                                "Data Pkt Tx",
                                                                "Ctrl Pkt Rx",
                                                                "Ctrl Pkt Tx",
                                                                "Invalid Rx",
                                                                "Tun Pkt Rx",
                                                                "Tun Pkt Tx",
                                                                "DPD Req Tx",
                                                                "DPD Rsp Rx",
                                                                "Rekey Attempts",
                                                                "Rekey Success",
                                                                "tun_alloc",
                                                                "tun_freed",
                                                                "ssl_read_errors_total",
                                                                "ssl_read_errors_READWOULDBLOCK",
                                                                "ssl_read_errors_WRITEWOULDBLOCK",
                                                                "ssl_read_errors_others",
                                                                "ssl_write_errors_total",
                                                                "ssl_write_errors_READWOULDBLOCK",
                                                                "ssl_write_errors_WRITEWOULDBLOCK",
                                                                "ssl_write_errors_others",
                                                                "tun_read_errors_total",
                                                                "tun_read_errors_EINVAL",
                                                                "tun_read_errors_EBADF",
                                                                "tun_read_errors_EFAULT",
                                                                "tun_read_errors_others",
                                                                "tun_write_errors_total",
                                                                "tun_write_errors_EINVAL",
                                                                "tun_write_errors_EBADF",
                                                                "tun_write_errors_EFAULT",
                                                                "tun_write_errors_others"};

namespace {

// Offsets in the record, in bytes.
constexpr size_t at_padding     = 4;
constexpr size_t at_payload     = 8;
constexpr size_t at_info_body   = 16;
constexpr size_t at_dns_entries = 20;
constexpr size_t at_debug_value = 72;

constexpr size_t   dns_entry_size   = 20;   // 4 bytes type, 16 bytes address
constexpr size_t   debug_field_size = 64;   // with the terminating NUL
constexpr uint32_t highest_id       = 255;  // a first word above this is no message id, of whatever version

constexpr uint32_t info_dns        = 0;
constexpr uint32_t info_inner_ip   = 1;
constexpr uint32_t info_statistics = 33;

constexpr struct {
    uint32_t    id;
    const char *name;
} names[] = {
    {msg_hello, "HELLO"},
    {msg_tun_start, "TUN_START"},
    {msg_tun_stop, "TUN_STOP"},
    {msg_tun_restart, "TUN_RESTART"},
    {msg_tun_in_prog, "TUN_IN_PROG"},
    {msg_tun_up, "TUN_UP"},
    {msg_tun_down, "TUN_DOWN"},
    {msg_name_query, "GW_FQDN_REQ"},
    {msg_name_answer, "GW_FQDN_RES"},
    {msg_debug_set, "DEBUG_SET"},
    {msg_info_update, "INFO_UPDATE"},
    {msg_stats_request, "statistics request"},
    {msg_stats_clear, "statistics clear"},
    {msg_process_query, "DBG_INFO_REQ"},
    {msg_process_info, "DBG_INFO_UPDATE"},
    {msg_exit, "exit"},
};

// Index = cause code.
constexpr const char *causes[] = {
    "No Error",
    "TLS Client init failed",
    "Tunnel start failed",
    "Tunnel down due to socket error",
    "Tunnel down due to unrecoverable error during SSL write",
    "Tunnel down due to unrecoverable error during SSL read",
    "Tunnel down due to TCP connection failure",
    "Tunnel down due to SSL connection failure",
    "Tunnel down due to pthread failure",
    "Tunnel down due to CSTP response timeout",
    "Tunnel down due to CSTP response processing error",
    "Tunnel down due to max DPD timeout",
};

constexpr const char *level_words[]       = {"errors", "warnings", "info", "debug", "ssl-dbg", "buf-print"};
constexpr const char *destination_words[] = {"file", "console", "both"};

uint32_t read_word(const uint8_t *at) {
    uint32_t word;
    memcpy(&word, at, sizeof word);
    return word;
}

void write_word(uint8_t *at, uint32_t word) { memcpy(at, &word, sizeof word); }

// Text up to its NUL or the record's end. Anything but printable ASCII becomes '?', so that it may go to a terminal,
// into JSON and into a hook's environment.
std::string read_text(const record &r, size_t at) {
    std::string text;
    for (; at < r.size() && r[at] != 0; at++) text += r[at] >= 0x20 && r[at] < 0x7f ? static_cast<char>(r[at]) : '?';
    return text;
}

void write_text(record &r, size_t at, const std::string &text, size_t field_size) {
    memcpy(r.data() + at, text.data(), std::min(text.size(), field_size - 1));
}

// One DNS entry as text, empty if the type is unknown or the address is all zero (the daemon leaves an entry of an
// unknown kind zero).
std::string read_dns_entry(const uint8_t *entry) {
    static constexpr uint8_t nothing[16]            = {};
    uint32_t                 type                   = read_word(entry);
    const uint8_t           *address                = entry + 4;
    char                     text[INET6_ADDRSTRLEN] = "";

    if (type > 1 || memcmp(address, nothing, sizeof nothing) == 0) return "";
    inet_ntop(type == 0 ? AF_INET : AF_INET6, address, text, sizeof text);
    return text;
}

bool is_address(const std::string &text) {
    uint8_t bytes[16];
    return inet_pton(AF_INET, text.c_str(), bytes) == 1 || inet_pton(AF_INET6, text.c_str(), bytes) == 1;
}

void decode_dns(const record &r, message &m) {
    uint16_t count;
    memcpy(&count, r.data() + at_info_body, sizeof count);

    m.kind      = report::dns;
    m.dns_count = count;
    for (size_t i = 0; i < std::min<size_t>(count, dns_slots); i++) {
        std::string server = read_dns_entry(r.data() + at_dns_entries + i * dns_entry_size);
        if (!server.empty()) m.servers.push_back(server);
    }
}

void decode_statistics(const record &r, message &m) {
    static_assert(at_info_body + sizeof(counters) <= record_size);
    m.kind = report::statistics;
    memcpy(m.values.data(), r.data() + at_info_body, sizeof(counters));
}

void decode_info_update(const record &r, message &m) {
    m.info_type = read_word(r.data() + at_payload);
    if (m.info_type == info_dns) return decode_dns(r, m);
    if (m.info_type == info_statistics) return decode_statistics(r, m);
    if (m.info_type == info_inner_ip) {
        m.text = read_text(r, at_info_body);
        // Hooks get this text in their environment, so nothing but an address may pass.
        if (is_address(m.text)) m.kind = report::inner_ip;
    }
}

bool is_plausible_start(const uint8_t *bytes) {
    uint32_t id = read_word(bytes);
    return id >= 1 && id <= highest_id && read_word(bytes + at_padding) == 0;
}

template <size_t N>
bool is_one_of(const std::string &word, const char *const (&words)[N]) {
    return std::any_of(words, words + N, [&](const char *w) { return word == w; });
}

}  // namespace

size_t split_records(const uint8_t *bytes, size_t n, std::vector<record> &out) {
    size_t at = 0;
    while (n - at >= record_size && is_plausible_start(bytes + at)) {
        memcpy(out.emplace_back().data(), bytes + at, record_size);
        at += record_size;
    }
    return n - at;
}

message decode(const record &r) {
    message m;
    m.id = read_word(r.data());
    switch (m.id) {
    case msg_hello: m.kind = report::hello; break;
    case msg_tun_in_prog: m.kind = report::in_progress; break;
    case msg_tun_up: m.kind = report::up; break;
    case msg_tun_down:
        m.kind = report::down;
        m.text = read_text(r, at_payload);
        break;
    case msg_name_query: m.kind = report::name_query; break;
    case msg_info_update: decode_info_update(r, m); break;
    case msg_process_info:
        m.kind = report::process;
        m.pid  = static_cast<int32_t>(read_word(r.data() + at_payload));
        break;
    default: break;
    }
    return m;
}

record encode(uint32_t id) {
    record r{};
    write_word(r.data(), id);
    return r;
}

record encode_text(uint32_t id, const std::string &text) {
    record r = encode(id);
    write_text(r, at_payload, text, record_size - at_payload);
    return r;
}

record encode_debug(const std::string &category, const std::string &value) {
    record r = encode(msg_debug_set);
    write_text(r, at_payload, category, debug_field_size);
    write_text(r, at_debug_value, value, debug_field_size);
    return r;
}

const char *message_name(uint32_t id) {
    for (const auto &entry : names)
        if (entry.id == id) return entry.name;
    return "message";
}

int cause_code(const std::string &text) {
    for (size_t code = 0; code < std::size(causes); code++)
        if (text == causes[code]) return static_cast<int>(code);
    return -1;
}

bool is_level_word(const std::string &word) { return is_one_of(word, level_words); }
bool is_destination_word(const std::string &word) { return is_one_of(word, destination_words); }

}  // namespace wlcctl
