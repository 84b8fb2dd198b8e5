#include "text.h"

#include <arpa/inet.h>

#include <charconv>

namespace gw {

std::optional<uint32_t> parse_ipv4(std::string_view text) {
    in_addr address{};
    if (inet_pton(AF_INET, std::string(text).c_str(), &address) != 1) return std::nullopt;
    return ntohl(address.s_addr);
}

std::string ipv4_text(uint32_t address) {
    in_addr network{.s_addr = htonl(address)};
    char    text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &network, text, sizeof text);
    return text;
}

std::optional<unsigned long> parse_number(std::string_view text, unsigned long limit) {
    unsigned long value = 0;
    auto [end, error]   = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size() || value > limit) return std::nullopt;
    return value;
}

std::optional<ipv4_cidr> parse_cidr(std::string_view text) {
    size_t slash = text.find('/');
    if (slash == std::string_view::npos) return std::nullopt;
    auto address = parse_ipv4(text.substr(0, slash));
    auto length  = parse_number(text.substr(slash + 1), 32);
    if (!address || !length) return std::nullopt;
    return ipv4_cidr{*address, static_cast<unsigned>(*length)};
}

std::string cidr_text(const ipv4_cidr &cidr) { return ipv4_text(cidr.address) + "/" + std::to_string(cidr.length); }

std::string to_hex(byte_view bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string           text;
    text.reserve(bytes.size() * 2);
    for (uint8_t byte : bytes) {
        text.push_back(digits[byte >> 4]);
        text.push_back(digits[byte & 15]);
    }
    return text;
}

namespace {

int digit_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

std::optional<byte_vector> from_hex(std::string_view text) {
    byte_vector bytes;
    bytes.reserve(text.size() / 2);
    int high = -1;
    for (char c : text) {
        if (c == ' ' || c == '\n' || c == '\t') continue;
        int value = digit_value(c);
        if (value < 0) return std::nullopt;
        if (high < 0) {
            high = value;
            continue;
        }
        bytes.push_back(static_cast<uint8_t>(high << 4 | value));
        high = -1;
    }
    if (high >= 0) return std::nullopt;
    return bytes;
}

}  // namespace gw
