// Text copy, checksum repair, list, address records. The repair is held against a recomputation from the standards.

#include <array>
#include <bit>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

#include <gtest/gtest.h>

#include "capture.h"
#include "tlsc_utils.h"

// ---- a heap that can be empty, a resolver that can know other families ----------------------------------------------

static bool heap_is_empty;
static int  strange_family;  // 0 for none

extern "C" {

void *__real_malloc(size_t size);
void *__wrap_malloc(size_t size) { return heap_is_empty ? nullptr : __real_malloc(size); }

int __real_getaddrinfo(const char *node, const char *service, const addrinfo *hints, addrinfo **found);
int __wrap_getaddrinfo(const char *node, const char *service, const addrinfo *hints, addrinfo **found) {
    const int result = __real_getaddrinfo(node, service, hints, found);
    if (result == 0 && strange_family != 0) (*found)->ai_family = strange_family;
    return result;
}

}  // extern "C"

namespace {

using packet = std::vector<uint8_t>;

constexpr size_t source      = 12;
constexpr size_t destination = 16;
constexpr size_t buffer_size = 80;  // what the repair may read, however short the packet is

constexpr char unhandled[] = "Got a packet(Non TCP/UDP/ICMP) whose checksum is not handled from tun";

// ---- the oracle: RFC 1071 over big-endian words ---------------------------------------------------------------------

uint16_t internet_checksum(const packet &bytes) {
    uint64_t sum = 0;
    for (size_t i = 0; i < bytes.size(); i += 2) sum += (bytes[i] << 8) + (i + 1 < bytes.size() ? bytes[i + 1] : 0);
    while (sum > 0xFFFF) sum = (sum >> 16) + (sum & 0xFFFF);
    return static_cast<uint16_t>(~sum);
}

void put16(packet &bytes, size_t at, uint16_t value) {
    bytes[at]     = static_cast<uint8_t>(value >> 8);
    bytes[at + 1] = static_cast<uint8_t>(value);
}

uint16_t get16(const packet &bytes, size_t at) { return static_cast<uint16_t>(bytes[at] << 8 | bytes[at + 1]); }

size_t header_length(const packet &bytes) { return (bytes[0] & 15u) * 4u; }

size_t checksum_position(const packet &bytes) { return header_length(bytes) + (bytes[9] == IPPROTO_TCP ? 16 : 6); }

uint16_t transport_checksum(packet bytes) {
    const size_t header = header_length(bytes);
    put16(bytes, checksum_position(bytes), 0);
    packet     summed(bytes.begin() + 12, bytes.begin() + 20);
    const auto length = static_cast<uint16_t>(bytes.size() - header);
    summed.insert(summed.end(), {0, bytes[9], static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length)});
    summed.insert(summed.end(), bytes.begin() + static_cast<long>(header), bytes.end());
    return internet_checksum(summed);
}

// Sets the header checksum and, for a first or only TCP or UDP fragment, the transport checksum.
void seal(packet &bytes) {
    put16(bytes, 10, 0);
    put16(bytes, 10, internet_checksum({bytes.begin(), bytes.begin() + static_cast<long>(header_length(bytes))}));
    const bool first = (get16(bytes, 6) & 0x1FFF) == 0;
    if (first && (bytes[9] == IPPROTO_TCP || bytes[9] == IPPROTO_UDP))
        put16(bytes, checksum_position(bytes), transport_checksum(bytes));
}

packet make_packet(uint8_t protocol, size_t payload, size_t option_words, std::mt19937 &random) {
    packet bytes(20 + option_words * 4 + payload);
    for (uint8_t &byte : bytes) byte = static_cast<uint8_t>(random());
    bytes[0] = static_cast<uint8_t>(0x40 + 5 + option_words);
    put16(bytes, 2, static_cast<uint16_t>(bytes.size()));
    put16(bytes, 6, 0x4000);
    bytes[9] = protocol;
    seal(bytes);
    return bytes;
}

// Overwrites the address at offset and has the checksums repaired, in a buffer as large as the contract asks for.
packet rewritten(const packet &before, size_t offset, const std::array<uint8_t, 4> &address) {
    packet buffer = before;
    buffer.resize(std::max(before.size(), buffer_size));
    const uint32_t old_sum = tlsc_addr_sum(buffer.data() + offset);
    std::copy(address.begin(), address.end(), buffer.begin() + static_cast<long>(offset));
    tlsc_checksum(buffer.data(), old_sum, offset);
    buffer.resize(before.size());
    return buffer;
}

// What a recomputation from scratch gives for the same rewrite.
packet recomputed(packet bytes, size_t offset, const std::array<uint8_t, 4> &address) {
    std::copy(address.begin(), address.end(), bytes.begin() + static_cast<long>(offset));
    seal(bytes);
    return bytes;
}

std::array<uint8_t, 4> random_address(std::mt19937 &random) {
    std::array<uint8_t, 4> address{};
    for (uint8_t &byte : address) byte = static_cast<uint8_t>(random());
    return address;
}

constexpr std::array<uint8_t, 4> inner{10, 99, 0, 7};

uint32_t native_word(uint8_t first, uint8_t second) {
    return std::endian::native == std::endian::little ? first + second * 256u : first * 256u + second;
}

}  // namespace

// ---- text copy ------------------------------------------------------------------------------------------------------

TEST(tlsc_utils, text_of_width_minus_one_is_kept_whole_and_one_more_is_cut) {
    char field[8];
    tlsc_copy_text(field, sizeof(field), "1234567");
    EXPECT_STREQ(field, "1234567");
    tlsc_copy_text(field, sizeof(field), "12345678");
    EXPECT_STREQ(field, "1234567");
}

TEST(tlsc_utils, decimal_keeps_the_low_32_bits_of_a_number_of_any_size) {
    EXPECT_EQ(tlsc_decimal("8443"), 8443);
    EXPECT_EQ(tlsc_decimal("  -7 seconds"), -7);
    EXPECT_EQ(tlsc_decimal("text"), 0);
    EXPECT_EQ(tlsc_decimal(""), 0);
    EXPECT_EQ(tlsc_decimal("2147483647"), 2147483647);
    EXPECT_EQ(tlsc_decimal("4294967297"), 1);
}

TEST(tlsc_utils, text_copy_clears_the_rest_of_the_field) {
    char field[8];
    memset(field, 'x', sizeof(field));
    tlsc_copy_text(field, sizeof(field), "ab");
    EXPECT_EQ(std::string(field, sizeof(field)), std::string("ab\0\0\0\0\0\0", 8));
}

TEST(tlsc_utils, text_copy_of_a_null_text_empties_the_field) {
    char field[4] = {'a', 'b', 'c', 'd'};
    tlsc_copy_text(field, sizeof(field), nullptr);
    EXPECT_EQ(std::string(field, sizeof(field)), std::string(4, '\0'));
}

TEST(tlsc_utils, text_copy_writes_nothing_behind_the_field) {
    char room[6] = {'?', '?', '?', '?', '?', '?'};
    tlsc_copy_text(room, 4, "abcdefgh");
    EXPECT_EQ(std::string(room, sizeof(room)), std::string("abc\0??", 6));
}

TEST(tlsc_utils, text_copy_into_a_field_of_one_or_no_byte_keeps_to_it) {
    char one[2] = {'?', '?'};
    tlsc_copy_text(one, 1, "abc");
    EXPECT_EQ(std::string(one, 2), std::string("\0?", 2));
    log_capture log;
    char        none = '?';
    tlsc_copy_text(&none, 0, "abc");
    EXPECT_EQ(none, '?');
    tlsc_copy_text(nullptr, 4, "abc");
    EXPECT_EQ(log.count("ERROR", "tlsc_utils.c", "tlsc_copy_text", "Null ptr received for field"), 2u);
}

TEST(tlsc_utils, number_and_address_sum_of_nothing_are_0_with_a_line) {
    log_capture log;
    EXPECT_EQ(tlsc_decimal(nullptr), 0);
    EXPECT_EQ(tlsc_addr_sum(nullptr), 0u);
    EXPECT_TRUE(log.has("ERROR", "tlsc_utils.c", "tlsc_decimal", "Null ptr received for text"));
    EXPECT_TRUE(log.has("ERROR", "tlsc_utils.c", "tlsc_addr_sum", "Null ptr received for bytes"));
}

TEST(tlsc_utils, null_text_prints_as_null_in_parentheses) {
    EXPECT_STREQ(tlsc_text_or_null(nullptr), "(null)");
    EXPECT_STREQ(tlsc_text_or_null("tun0"), "tun0");
}

// ---- checksum repair ------------------------------------------------------------------------------------------------

TEST(tlsc_utils, address_sum_is_the_unfolded_sum_of_both_halves_as_stored) {
    const uint8_t plain[] = {1, 2, 3, 4};
    EXPECT_EQ(tlsc_addr_sum(plain), native_word(1, 2) + native_word(3, 4));
    const uint8_t ones[] = {255, 255, 255, 255};
    EXPECT_EQ(tlsc_addr_sum(ones), 0x1FFFEu);
}

TEST(tlsc_utils, repair_equals_recomputation_for_random_tcp_and_udp_packets) {
    std::mt19937 random(20240131);
    for (int round = 0; round < 20000; ++round) {
        const uint8_t protocol = random() % 2 ? IPPROTO_TCP : IPPROTO_UDP;
        const size_t  payload  = 20 + random() % 200;
        packet        before   = make_packet(protocol, payload, random() % 11, random);
        if (get16(before, checksum_position(before)) == 0) continue;  // no UDP checksum: a test of its own

        const size_t offset  = random() % 2 ? source : destination;
        const auto   address = random_address(random);
        ASSERT_EQ(rewritten(before, offset, address), recomputed(before, offset, address)) << "round " << round;
    }
}

TEST(tlsc_utils, repair_equals_recomputation_for_addresses_at_the_edges_of_the_arithmetic) {
    std::mt19937                              random(7);
    const std::vector<std::array<uint8_t, 4>> edges{{0, 0, 0, 0},     {255, 255, 255, 255}, {0, 0, 255, 255},
                                                    {255, 255, 0, 0}, {0, 1, 255, 254},     {128, 0, 127, 255},
                                                    {0, 0, 0, 1}};
    for (uint8_t protocol : {IPPROTO_TCP, IPPROTO_UDP})
        for (size_t offset : {source, destination})
            for (const auto &from : edges)
                for (const auto &to : edges) {
                    packet before = recomputed(make_packet(protocol, 33, 0, random), offset, from);
                    ASSERT_EQ(rewritten(before, offset, to), recomputed(before, offset, to));
                }
}

TEST(tlsc_utils, repair_equals_recomputation_for_every_value_of_one_half_of_the_address) {
    std::mt19937 random(13);
    const packet before = make_packet(IPPROTO_UDP, 12, 0, random);
    for (size_t half : {0u, 2u})
        for (uint32_t value = 0; value <= 0xFFFF; ++value) {
            std::array<uint8_t, 4> to{203, 0, 113, 7};
            to[half]     = static_cast<uint8_t>(value >> 8);
            to[half + 1] = static_cast<uint8_t>(value);
            ASSERT_EQ(rewritten(before, source, to), recomputed(before, source, to)) << half << " " << value;
        }
}

TEST(tlsc_utils, repair_with_options_finds_the_transport_header_behind_them) {
    std::mt19937 random(11);
    for (size_t options = 0; options <= 10; ++options)
        for (uint8_t protocol : {IPPROTO_TCP, IPPROTO_UDP}) {
            const packet before = make_packet(protocol, 24, options, random);
            EXPECT_EQ(rewritten(before, source, inner), recomputed(before, source, inner)) << options;
        }
}

TEST(tlsc_utils, repair_works_at_an_odd_address) {
    std::mt19937 random(12);
    const packet before = make_packet(IPPROTO_TCP, 64, 0, random);
    packet       room(before.size() + 1);
    std::copy(before.begin(), before.end(), room.begin() + 1);
    const uint32_t old_sum = tlsc_addr_sum(room.data() + 1 + source);
    std::copy(inner.begin(), inner.end(), room.begin() + 1 + source);
    tlsc_checksum(room.data() + 1, old_sum, source);
    EXPECT_EQ(packet(room.begin() + 1, room.end()), recomputed(before, source, inner));
}

TEST(tlsc_utils, udp_checksum_of_zero_stays_zero) {
    std::mt19937 random(1);
    packet       before = make_packet(IPPROTO_UDP, 40, 0, random);
    put16(before, 26, 0);

    packet expected = recomputed(before, source, inner);
    put16(expected, 26, 0);
    EXPECT_EQ(rewritten(before, source, inner), expected);
}

TEST(tlsc_utils, udp_checksum_that_comes_out_as_zero_is_written_as_zero) {
    std::mt19937 random(2);
    packet       after = recomputed(make_packet(IPPROTO_UDP, 40, 0, random), source, inner);
    // The payload's last word takes up what the sum lacks to all ones.
    put16(after, 58, 0);
    put16(after, 58, transport_checksum(after));
    ASSERT_EQ(transport_checksum(after), 0);

    const packet before = recomputed(after, source, {192, 0, 2, 44});
    ASSERT_NE(get16(before, 26), 0);
    EXPECT_EQ(get16(rewritten(before, source, inner), 26), 0);
}

TEST(tlsc_utils, tcp_checksum_of_zero_is_repaired_like_any_other) {
    std::mt19937 random(3);
    packet       before = make_packet(IPPROTO_TCP, 40, 0, random);
    put16(before, 58, 0);
    put16(before, 58, transport_checksum(before));
    seal(before);
    ASSERT_EQ(get16(before, 36), 0);
    EXPECT_EQ(rewritten(before, destination, inner), recomputed(before, destination, inner));
    EXPECT_NE(get16(rewritten(before, destination, inner), 36), 0);
}

TEST(tlsc_utils, icmp_packet_gets_its_header_checksum_only_and_no_line) {
    std::mt19937 random(4);
    const packet before = make_packet(IPPROTO_ICMP, 64, 0, random);
    log_capture  log;
    EXPECT_EQ(rewritten(before, source, inner), recomputed(before, source, inner));
    EXPECT_EQ(log.text(), "");
}

TEST(tlsc_utils, later_fragment_gets_its_header_checksum_only) {
    std::mt19937 random(5);
    for (uint16_t fragment : {0x0001, 0x0100, 0x1000, 0x1FFF, 0x2001, 0x3F00, 0x00B9})
        for (uint8_t protocol : {IPPROTO_TCP, IPPROTO_UDP, IPPROTO_GRE}) {
            packet before = make_packet(protocol, 64, 0, random);
            put16(before, 6, fragment);
            seal(before);

            log_capture  log;
            const packet after = rewritten(before, source, inner);
            EXPECT_EQ(after, recomputed(before, source, inner)) << fragment;
            EXPECT_EQ(packet(after.begin() + 20, after.end()), packet(before.begin() + 20, before.end()));
            EXPECT_EQ(log.text(), "") << "a later fragment ends before its protocol is looked at";
        }
}

TEST(tlsc_utils, first_fragment_gets_both_checksums) {
    std::mt19937 random(6);
    for (uint16_t fragment : {0x2000, 0x4000, 0x8000, 0xE000}) {  // more to come, do not fragment, reserved, all
        packet before = make_packet(IPPROTO_TCP, 64, 0, random);
        put16(before, 6, fragment);
        seal(before);
        const packet after = rewritten(before, source, inner);
        EXPECT_EQ(after, recomputed(before, source, inner)) << fragment;
        EXPECT_NE(get16(after, 36), get16(before, 36));
    }
}

TEST(tlsc_utils, packet_of_another_protocol_gets_its_header_checksum_and_a_line) {
    std::mt19937 random(8);
    for (uint8_t protocol : std::initializer_list<uint8_t>{IPPROTO_GRE, IPPROTO_ESP, IPPROTO_SCTP, 0, 255}) {
        const packet before = make_packet(protocol, 64, 0, random);
        log_capture  log;
        EXPECT_EQ(rewritten(before, destination, inner), recomputed(before, destination, inner));
        EXPECT_EQ(log.lines().size(), 1u);
        EXPECT_TRUE(log.has("ERROR", "tlsc_utils.c", "tlsc_checksum", unhandled));
    }
}

TEST(tlsc_utils, repair_of_a_one_byte_packet_stays_within_80_bytes) {
    for (uint8_t first : {0x4F, 0x45, 0x40, 0xFF})
        for (uint8_t protocol : {IPPROTO_TCP, IPPROTO_UDP}) {
            const auto buffer = std::make_unique<uint8_t[]>(buffer_size);
            buffer[0]         = first;
            buffer[9]         = protocol;
            memset(buffer.get() + 20, 1, buffer_size - 20);
            tlsc_checksum(buffer.get(), tlsc_addr_sum(buffer.get() + source), source);  // the sanitizer watches
        }
}

TEST(tlsc_utils, repair_of_a_null_packet_is_refused) {
    log_capture log;
    tlsc_checksum(nullptr, 0, source);
    EXPECT_TRUE(log.has("ERROR", "tlsc_utils.c", "tlsc_checksum", "Null ptr received for packet"));
}

// ---- list -----------------------------------------------------------------------------------------------------------

TEST(tlsc_utils, list_elements_come_out_in_reverse_order) {
    tlsc_list list{};
    for (int32_t value : {1, 2, 3}) EXPECT_EQ(tlsc_insert_element_to_list(&list, value), 1);
    EXPECT_EQ(list.count, 3);
    EXPECT_EQ(tlsc_list_pop(&list), 3);
    EXPECT_EQ(tlsc_list_pop(&list), 2);
    EXPECT_EQ(tlsc_list_pop(&list), 1);
    EXPECT_EQ(list.count, 0);
    EXPECT_EQ(list.head, nullptr);
    EXPECT_EQ(tlsc_list_pop(&list), 0);
    EXPECT_EQ(list.count, 0);
}

TEST(tlsc_utils, pop_from_a_list_that_has_lost_its_head_resets_the_count) {
    tlsc_list list{.count = 1, .head = nullptr};
    EXPECT_EQ(tlsc_list_pop(&list), 0);
    EXPECT_EQ(list.count, 0);
}

TEST(tlsc_utils, remove_takes_the_first_node_that_holds_the_value) {
    tlsc_list list{};
    for (int32_t value : {5, 7, 5, 9}) tlsc_insert_element_to_list(&list, value);  // 9 5 7 5
    EXPECT_EQ(tlsc_list_remove(&list, 5), 5);
    EXPECT_EQ(list.count, 3);
    EXPECT_EQ(tlsc_list_pop(&list), 9);
    EXPECT_EQ(tlsc_list_pop(&list), 7);
    EXPECT_EQ(tlsc_list_pop(&list), 5);
}

TEST(tlsc_utils, remove_reaches_the_head_and_the_last_node) {
    tlsc_list list{};
    for (int32_t value : {1, 2, 3}) tlsc_insert_element_to_list(&list, value);
    EXPECT_EQ(tlsc_list_remove(&list, 3), 3);
    EXPECT_EQ(tlsc_list_remove(&list, 1), 1);
    EXPECT_EQ(list.count, 1);
    EXPECT_EQ(tlsc_list_pop(&list), 2);
}

TEST(tlsc_utils, remove_of_a_value_that_is_not_there_changes_nothing) {
    tlsc_list list{};
    EXPECT_EQ(tlsc_list_remove(&list, 4), 0);
    tlsc_insert_element_to_list(&list, 1);
    EXPECT_EQ(tlsc_list_remove(&list, 4), 0);
    EXPECT_EQ(list.count, 1);
    EXPECT_EQ(tlsc_list_pop(&list), 1);
}

TEST(tlsc_utils, remove_of_value_zero_does_nothing_even_when_it_is_there) {
    tlsc_list list{};
    tlsc_insert_element_to_list(&list, 0);
    EXPECT_EQ(tlsc_list_remove(&list, 0), 0);
    EXPECT_EQ(list.count, 1);
    EXPECT_EQ(tlsc_list_pop(&list), 0);
    EXPECT_EQ(list.count, 0);
}

TEST(tlsc_utils, list_operations_refuse_a_null_list) {
    log_capture log;
    EXPECT_EQ(tlsc_insert_element_to_list(nullptr, 1), 0);
    EXPECT_EQ(tlsc_list_pop(nullptr), 0);
    EXPECT_EQ(tlsc_list_remove(nullptr, 1), 0);
    EXPECT_EQ(log.entries().size(), 3u);
    for (const char *function : {"tlsc_insert_element_to_list", "tlsc_list_pop", "tlsc_list_remove"})
        EXPECT_TRUE(log.has("ERROR", "tlsc_utils.c", function, "Null ptr received for list")) << function;
}

TEST(tlsc_utils, list_whose_count_says_0_is_empty_whatever_hangs_on_it) {
    tlsc_list_node node{.next = nullptr, .value = 5};
    tlsc_list      list{.count = 0, .head = &node};
    EXPECT_EQ(tlsc_list_pop(&list), 0);
    EXPECT_EQ(tlsc_list_remove(&list, 5), 0);
    EXPECT_EQ(list.count, 0);
    EXPECT_EQ(list.head, &node);
}

TEST(tlsc_utils, remove_takes_the_only_node) {
    tlsc_list list{};
    tlsc_insert_element_to_list(&list, 5);
    EXPECT_EQ(tlsc_list_remove(&list, 5), 5);
    EXPECT_EQ(list.count, 0);
    EXPECT_EQ(list.head, nullptr);
}

TEST(tlsc_utils, insertion_without_memory_is_logged_and_leaves_the_list_alone) {
    log_capture log;
    tlsc_list   list{};
    heap_is_empty        = true;
    const int32_t result = tlsc_insert_element_to_list(&list, 1);
    heap_is_empty        = false;
    EXPECT_EQ(result, 0);
    EXPECT_EQ(list.count, 0);
    EXPECT_EQ(list.head, nullptr);
    EXPECT_TRUE(
        log.has("ERROR", "tlsc_utils.c", "tlsc_insert_element_to_list", "Memory allocation failed for list element"));
}

// ---- address records ------------------------------------------------------------------------------------------------

TEST(tlsc_utils, family_of_an_ipv4_text_is_1_and_of_an_ipv6_text_2) {
    EXPECT_EQ(tlsc_addr_family("192.0.2.1"), 1);
    EXPECT_EQ(tlsc_addr_family("255.255.255.255"), 1);
    EXPECT_EQ(tlsc_addr_family("2001:db8::1"), 2);
    EXPECT_EQ(tlsc_addr_family("::"), 2);
    EXPECT_EQ(tlsc_addr_family("::ffff:192.0.2.1"), 2);
}

TEST(tlsc_utils, family_of_a_name_or_nonsense_is_0_and_no_name_is_looked_up) {
    for (const char *text :
         {"localhost", "gateway.example", "", "256.1.1.1", "1.2.3.4.5", "2001:db8::g", "10.0.0.1/24"})
        EXPECT_EQ(tlsc_addr_family(text), 0) << text;
    log_capture log;
    EXPECT_EQ(tlsc_addr_family(nullptr), 0);
    EXPECT_TRUE(log.has("ERROR", "tlsc_utils.c", "tlsc_addr_family", "Null ptr received for addr text"));
}

TEST(tlsc_utils, parsed_ipv4_address_fills_kind_family_and_four_bytes) {
    tlsc_addr addr;
    memset(&addr, 0xAA, sizeof(addr));
    ASSERT_EQ(tlsc_parse_addr("198.51.100.9", &addr), 1);

    tlsc_addr expected{};
    expected.kind          = 1;
    expected.family        = AF_INET;
    const uint8_t octets[] = {198, 51, 100, 9};
    memcpy(expected.ipv4, octets, sizeof(octets));
    EXPECT_EQ(memcmp(&addr, &expected, sizeof(addr)), 0);
}

TEST(tlsc_utils, parsed_ipv6_address_fills_kind_family_and_sixteen_bytes) {
    tlsc_addr addr;
    memset(&addr, 0xAA, sizeof(addr));
    ASSERT_EQ(tlsc_parse_addr("2001:db8:1:2:3:4:5:6", &addr), 1);

    tlsc_addr expected{};
    expected.kind          = 2;
    expected.family        = AF_INET6;
    const uint8_t octets[] = {0x20, 0x01, 0x0D, 0xB8, 0, 1, 0, 2, 0, 3, 0, 4, 0, 5, 0, 6};
    memcpy(expected.ipv6, octets, sizeof(octets));
    EXPECT_EQ(memcmp(&addr, &expected, sizeof(addr)), 0);
}

TEST(tlsc_utils, text_that_is_no_address_leaves_the_record_alone) {
    for (const char *text : {"localhost", "", "300.1.1.1", ":::"}) {
        tlsc_addr addr;
        memset(&addr, 0x5A, sizeof(addr));
        const tlsc_addr before = addr;
        EXPECT_EQ(tlsc_parse_addr(text, &addr), 0) << text;
        EXPECT_EQ(memcmp(&addr, &before, sizeof(addr)), 0) << text;
    }
}

TEST(tlsc_utils, address_of_a_family_that_is_neither_has_no_kind) {
    tlsc_addr addr{};
    strange_family       = AF_UNIX;
    const int32_t kind   = tlsc_addr_family("192.0.2.1");
    const int32_t result = tlsc_parse_addr("192.0.2.1", &addr);
    strange_family       = 0;
    EXPECT_EQ(kind, 0);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(addr.kind, 0);
}

TEST(tlsc_utils, parsing_refuses_null_arguments) {
    log_capture log;
    tlsc_addr   addr{};
    EXPECT_EQ(tlsc_parse_addr(nullptr, &addr), 0);
    EXPECT_EQ(tlsc_parse_addr("192.0.2.1", nullptr), 0);
    EXPECT_EQ(log.entries().size(), 2u);
    EXPECT_EQ(log.count("ERROR", "tlsc_utils.c", "tlsc_parse_addr", "Null ptr received for addr text/record"), 2u);
}

TEST(tlsc_utils, equal_addresses_compare_as_0) {
    tlsc_addr a{}, b{};
    ASSERT_EQ(tlsc_parse_addr("192.0.2.1", &a), 1);
    ASSERT_EQ(tlsc_parse_addr("192.0.2.1", &b), 1);
    EXPECT_EQ(tlsc_cmp_addr(&a, &b), 0);
    b.family  = 0;  // only kind and address count
    b.ipv6[3] = 9;
    EXPECT_EQ(tlsc_cmp_addr(&a, &b), 0);

    ASSERT_EQ(tlsc_parse_addr("2001:db8::1", &a), 1);
    ASSERT_EQ(tlsc_parse_addr("2001:db8::1", &b), 1);
    b.ipv4[0] = 9;
    EXPECT_EQ(tlsc_cmp_addr(&a, &b), 0);
}

TEST(tlsc_utils, addresses_that_differ_in_the_last_byte_differ) {
    tlsc_addr a{}, b{};
    ASSERT_EQ(tlsc_parse_addr("192.0.2.1", &a), 1);
    ASSERT_EQ(tlsc_parse_addr("192.0.2.2", &b), 1);
    EXPECT_NE(tlsc_cmp_addr(&a, &b), 0);
    ASSERT_EQ(tlsc_parse_addr("2001:db8::1", &a), 1);
    ASSERT_EQ(tlsc_parse_addr("2001:db8::2", &b), 1);
    EXPECT_NE(tlsc_cmp_addr(&a, &b), 0);
}

TEST(tlsc_utils, null_records_other_kinds_and_unknown_kinds_compare_as_minus_1) {
    log_capture log;
    tlsc_addr   a{}, b{};
    EXPECT_EQ(tlsc_cmp_addr(&a, &b), -1) << "kind 0 is no address";
    a.kind = 1;
    b.kind = 2;
    EXPECT_EQ(tlsc_cmp_addr(&a, &b), -1);
    a.kind = b.kind = 3;
    EXPECT_EQ(tlsc_cmp_addr(&a, &b), -1);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(tlsc_cmp_addr(nullptr, &b), -1);
    EXPECT_EQ(tlsc_cmp_addr(&a, nullptr), -1);
    EXPECT_EQ(log.count("ERROR", "tlsc_utils.c", "tlsc_cmp_addr", "Null ptr received for addr"), 2u);
}
