// The configuration response against a second reading of its description.
// Input: one byte of settings, then the text; in every other input the text is made of the known names.
#include <arpa/inet.h>
#include <cerrno>
#include <optional>
#include <vector>

#include "tlsc_openssl.h"

#include "kernel.h"
#include "tlsc_config.h"
#include "tlsc_cstp.h"
#include "tlsc_debug.h"
#include "tlsc_engine.h"
#include "tlsc_session.h"
#include "tlsc_timer.h"

using namespace kernel;

namespace {

constexpr const char *names[] = {
    "X-CSTP-Address:",
    "X-CSTP-Prefix-Length:",
    "X-CSTP-DPD:",
    "X-CSTP-Address-Client:",
    "X-CSTP-Retry-Time:",
    "X-CSTP-Rekey-Time:",
    "X-CSTP-Cookie:",
    "X-CSTP-DNS:",
    "10.9.0.7",
    "192.0.2.255",
    "\n",
    "4294967296",
    "-2147483649",
    "30",
};

std::string assembled(fuzz_input &in) {
    std::string text;
    while (!in.empty() && text.size() < 1480) {
        const uint8_t choice = in.byte();
        if (choice < std::size(names)) text += names[choice];
        else if (choice < 128) text += static_cast<char>(choice);
        else text += in.bytes(choice & 31);
    }
    return text.substr(0, max_payload_size);
}

// ---- the second reading ---------------------------------------------------------------------------------------------

// From behind the first occurrence of the name to the end of the text.
std::optional<std::string> behind(const std::string &text, const std::string &name) {
    const size_t at = text.find(name);
    if (at == std::string::npos) return std::nullopt;
    return text.substr(at + name.size());
}

std::string first_line(const std::string &text) { return text.substr(0, text.find('\n')); }

std::optional<uint32_t> ipv4(const std::string &line) {
    in_addr address;
    if (inet_pton(AF_INET, line.substr(0, 47).c_str(), &address) != 1) return std::nullopt;
    return address.s_addr;
}

// Blanks, sign, digits; the low 32 bits, like a long of 64 bits that stops at its limits.
int32_t number(const std::string &value) {
    size_t at = 0;
    while (at < value.size() && strchr(" \t\n\v\f\r", value[at])) ++at;
    const bool negative = at < value.size() && value[at] == '-';
    if (at < value.size() && (value[at] == '-' || value[at] == '+')) ++at;
    __int128 result = 0;
    for (; at < value.size() && value[at] >= '0' && value[at] <= '9'; ++at)
        if (result < (static_cast<__int128>(1) << 100)) result = result * 10 + (value[at] - '0');
    if (negative) result = -result;
    result = std::clamp<__int128>(result, INT64_MIN, INT64_MAX);
    return static_cast<int32_t>(static_cast<uint64_t>(result));
}

// A numeric header whose line is empty is 0, never the next line's number.
int32_t header_number(const std::string &value) { return number(first_line(value)); }

uint32_t stored(const uint8_t (&bytes)[4]) {
    uint32_t value;
    memcpy(&value, bytes, sizeof(value));
    return value;
}

void check(const std::string &text, const tlsc_config &before, const tlsc_config &after, int32_t result) {
    if (const auto value = behind(text, "X-CSTP-Prefix-Length:"))
        MUST(after.prefix_length == static_cast<uint8_t>(header_number(*value)));
    else MUST(after.prefix_length == before.prefix_length);
    if (const auto value = behind(text, "X-CSTP-DPD:")) MUST(after.dpd_interval == header_number(*value));
    else MUST(after.dpd_interval == before.dpd_interval);

    const auto client  = behind(text, "X-CSTP-Address-Client:");
    const auto address = client ? ipv4(first_line(*client)) : std::nullopt;
    if (!address) {
        MUST(result == 0);
        MUST(after.retry_interval == before.retry_interval && after.rekey_interval == before.rekey_interval);
        MUST(after.inner_addr.kind == (client ? ADDR_NONE : before.inner_addr.kind));
        MUST(memcmp(after.cookie, before.cookie, sizeof(after.cookie)) == 0);
        return;
    }
    MUST(after.inner_addr.kind == ADDR_IPV4 && stored(after.inner_addr.ipv4) == *address);

    if (const auto value = behind(text, "X-CSTP-Retry-Time:")) MUST(after.retry_interval == header_number(*value));
    else MUST(after.retry_interval == before.retry_interval);
    const auto    rekey         = behind(text, "X-CSTP-Rekey-Time:");
    const int32_t rekey_seconds = rekey ? header_number(*rekey) : 0;
    MUST(after.rekey_interval == (rekey_seconds != 0 ? rekey_seconds : 3600));

    if (const auto value = behind(text, "X-CSTP-Cookie:")) {
        const std::string cookie = first_line(*value).substr(0, 10);
        MUST(memcmp(after.cookie, cookie.data(), cookie.size()) == 0);
        MUST(memcmp(after.cookie + cookie.size(), before.cookie + cookie.size(), 10 - cookie.size()) == 0);
        MUST(after.cookie[10] == '\0');
    } else {
        MUST(memcmp(after.cookie, before.cookie, sizeof(after.cookie)) == 0);
    }

    std::vector<uint32_t> servers;
    std::string           rest = text;
    while (servers.size() < 4) {
        const auto value = behind(rest, "X-CSTP-DNS:");
        if (!value) break;
        const std::string line = first_line(*value);
        if (const auto server = ipv4(line)) servers.push_back(*server);
        rest = value->substr(line.size());
    }
    MUST(after.dns_count == servers.size());
    for (size_t i = 0; i < servers.size(); ++i)
        MUST(after.dns_servers[i].kind == ADDR_IPV4 && stored(after.dns_servers[i].ipv4) == servers[i]);
    if (!world.faults && after.rekey_interval > 0) MUST(result == 1);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    fuzz_input in(bytes, size);
    begin_process(in);
    const uint8_t settings = in.byte();
    if ((settings & 0x38) == 0x38) tlsc_log_level = LOG_DEBUG;

    tlsc_config *conf = tlsc_get_config();
    if (settings & 4) memcpy(conf->cookie, "earlier-co", 11);
    std::string text = settings & 0x80 ? std::string(in.rest().substr(0, max_payload_size)) : assembled(in);
    text             = text.c_str();  // the reader's text ends at the first NUL

    tlsc_sock *sock = tlsc_get_sock();
    tlsc_attach_session(sock);
    const char name[]   = "tlstun0";
    tlsc_epoll_fd       = open_one(kind::epoll);
    sock->sess->if_name = name;
    world.faults        = (settings & 1) != 0;
    world.countdown     = world.faults ? settings >> 3 & 7 : 255;

    const tlsc_config before = *conf;
    const int32_t     result = tlsc_parse_config_resp(sock, text.c_str());
    check(text, before, *conf, result);

    world.faults = false;
    tlsc_stop_all_timers();
    MUST(count(kind::timer) == 0 && count(kind::control) == 0 && count(kind::fifo_out) == 0);
    *sock->sess   = {};
    *sock         = {};
    tlsc_epoll_fd = -1;
    return 0;
}
