#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace gw {

using byte_vector = std::vector<uint8_t>;
using byte_view   = std::span<const uint8_t>;

// A range of IPv4 addresses, host byte order, both ends included.
struct address_range {
    uint32_t first = 0;
    uint32_t last  = 0;

    bool contains(uint32_t address) const { return address >= first && address <= last; }
};

// An IPv4 address with its prefix length, host byte order.
struct ipv4_cidr {
    uint32_t address = 0;
    unsigned length  = 0;  // 0 to 32

    uint32_t      mask() const { return length == 0 ? 0 : ~uint32_t{0} << (32 - length); }
    uint32_t      network() const { return address & mask(); }
    uint32_t      broadcast() const { return network() | ~mask(); }
    address_range range() const { return {network(), broadcast()}; }
};

// Strict dotted-quad text to a host order address; nothing when the text is anything else.
std::optional<uint32_t> parse_ipv4(std::string_view text);

// Host order address to dotted-quad text.
std::string ipv4_text(uint32_t address);

// "ADDR/LEN"; nothing when the text is anything else.
std::optional<ipv4_cidr> parse_cidr(std::string_view text);
std::string              cidr_text(const ipv4_cidr &cidr);

// Decimal number without sign, at most `limit`; nothing when the text is anything else.
std::optional<unsigned long> parse_number(std::string_view text, unsigned long limit);

// Lower case hexadecimal text of the bytes.
std::string to_hex(byte_view bytes);

// Hexadecimal text (either case, blanks anywhere) to bytes; nothing for another character or an odd number of digits.
std::optional<byte_vector> from_hex(std::string_view text);

// The bytes of a text, and back.
inline byte_view bytes_of(std::string_view text) {
    return {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
}
inline std::string_view text_of(byte_view bytes) {
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

}  // namespace gw
