// The records on the two pipes between controller and daemon, written from their documented bytes (docs: controller
// pipes). Everything here is a pure function: no descriptor, no clock. All functions are called on the agent's one
// thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace wlcctl {

constexpr size_t record_size   = 520;  // bytes: 4 id, 4 zero, 512 payload; below PIPE_BUF, so a pipe keeps it whole
constexpr size_t counter_count = 31;   // 64-bit counters in a statistics report
constexpr size_t dns_slots     = 4;    // DNS entries that a report has room for

using record   = std::array<uint8_t, record_size>;
using counters = std::array<uint64_t, counter_count>;

// Message ids, host order at offset 0. Direction as seen from the controller.
enum message_id : uint32_t {
    msg_hello         = 1,   // both ways
    msg_tun_start     = 20,  // out
    msg_tun_stop      = 21,  // out
    msg_tun_restart   = 22,  // out
    msg_tun_in_prog   = 23,  // in: a start was accepted
    msg_tun_up        = 24,  // in
    msg_tun_down      = 25,  // in: cause text
    msg_name_query    = 27,  // in: what is the gateway's address?
    msg_name_answer   = 28,  // out: address text
    msg_debug_set     = 29,  // out: category and value
    msg_info_update   = 30,  // in: DNS servers, inner address or statistics
    msg_stats_request = 32,  // out
    msg_stats_clear   = 34,  // out
    msg_process_query = 35,  // out
    msg_process_info  = 36,  // in: process id
    msg_exit          = 37,  // out: the daemon ends
};

// What a received record says.
enum class report {
    hello,
    in_progress,
    up,
    down,
    name_query,
    dns,
    inner_ip,
    statistics,
    process,
    unknown
};

// A received record, decoded. Only the members that belong to the kind are set.
struct message {
    report                   kind      = report::unknown;
    uint32_t                 id        = 0;
    uint32_t                 info_type = 0;  // of message 30
    std::string              text;           // cause of a down, or inner address; printable ASCII only
    uint32_t                 dns_count = 0;  // as the daemon gave it, may exceed the slots
    std::vector<std::string> servers;        // usable DNS addresses, at most dns_slots
    counters                 values{};       // of a statistics report, in wire order
    int32_t                  pid = 0;        // of a process report
};

// The labels of the counters, in wire order.
extern const std::array<const char *, counter_count> counter_labels;
constexpr size_t                                     dpd_requests = 7, dpd_responses = 8;  // among them

// Cuts one read from the pipe into records.
// bytes, n: what one read() returned, starting at a record's boundary, since pipes keep writes of this size whole.
// out: receives the records. Returns the number of bytes dropped: the part from the first place that cannot be a
// record's start, and a rest shorter than a record.
size_t split_records(const uint8_t *bytes, size_t n, std::vector<record> &out);

// Decodes a record. Never fails: what is not understood comes back as report::unknown.
message decode(const record &r);

// A record with this id and an empty payload.
record encode(uint32_t id);

// A record with this id and a NUL-terminated text at offset 8, cut at 511 characters (message 28).
record encode_text(uint32_t id, const std::string &text);

// Message 29: category and value, each cut at 63 characters.
record encode_debug(const std::string &category, const std::string &value);

// Name of a message id for events and texts, "message" if it has none.
const char *message_name(uint32_t id);

// Number of a down cause's text, -1 if the text is none of the daemon's.
int cause_code(const std::string &text);

// True for the words that the daemon knows. Exact match: the daemon itself would accept any text that begins with a
// word.
bool is_level_word(const std::string &word);
bool is_destination_word(const std::string &word);

}  // namespace wlcctl
