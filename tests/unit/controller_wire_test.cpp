// Records between controller and daemon, as bytes.
#include "wire.h"

#include <cstring>
#include <gtest/gtest.h>

using namespace wlcctl;

namespace {

// A record put together byte by byte, independent of the code under test.
record bytes_of(uint8_t id, std::initializer_list<std::pair<size_t, std::string>> pieces = {}) {
    record r{};
    r[0] = id;  // the machines of this system are little-endian
    for (const auto &[at, piece] : pieces) memcpy(r.data() + at, piece.data(), piece.size());
    return r;
}

std::string raw(std::initializer_list<int> bytes) {
    std::string s;
    for (int b : bytes) s += static_cast<char>(b);
    return s;
}

std::vector<uint8_t> join(std::initializer_list<record> records) {
    std::vector<uint8_t> all;
    for (const record &r : records) all.insert(all.end(), r.begin(), r.end());
    return all;
}

}  // namespace

TEST(controller_wire, a_command_has_its_id_and_zeros) {
    EXPECT_EQ(encode(20), bytes_of(20));
    EXPECT_EQ(encode(37), bytes_of(37));
}

TEST(controller_wire, an_answer_to_a_name_query_has_the_text_at_offset_8) {
    EXPECT_EQ(encode_text(28, "192.0.2.1"), bytes_of(28, {{8, "192.0.2.1"}}));
}

TEST(controller_wire, a_text_of_511_characters_fits_and_512_is_cut_to_keep_the_nul) {
    EXPECT_EQ(encode_text(28, std::string(511, 'x')), bytes_of(28, {{8, std::string(511, 'x')}}));
    EXPECT_EQ(encode_text(28, std::string(512, 'x')), bytes_of(28, {{8, std::string(511, 'x')}}));
}

TEST(controller_wire, debug_settings_lie_at_8_and_72) {
    EXPECT_EQ(encode_debug("level", "ssl-dbg"), bytes_of(29, {{8, "level"}, {72, "ssl-dbg"}}));
    EXPECT_EQ(encode_debug(std::string(64, 'c'), std::string(64, 'v')),
              bytes_of(29, {{8, std::string(63, 'c')}, {72, std::string(63, 'v')}}));
}

TEST(controller_wire, simple_reports_are_told_apart_by_their_id) {
    EXPECT_EQ(decode(bytes_of(1)).kind, report::hello);
    EXPECT_EQ(decode(bytes_of(23)).kind, report::in_progress);
    EXPECT_EQ(decode(bytes_of(24)).kind, report::up);
    EXPECT_EQ(decode(bytes_of(27)).kind, report::name_query);
    for (uint8_t id : {2, 7, 20, 26, 28, 31, 37}) EXPECT_EQ(decode(bytes_of(id)).kind, report::unknown) << int(id);
}

TEST(controller_wire, a_down_carries_its_cause_and_the_cause_its_code) {
    message m = decode(bytes_of(25, {{8, "Tunnel down due to max DPD timeout"}}));
    EXPECT_EQ(m.kind, report::down);
    EXPECT_EQ(m.text, "Tunnel down due to max DPD timeout");
    EXPECT_EQ(cause_code(m.text), 11);
    EXPECT_EQ(cause_code("No Error"), 0);
    EXPECT_EQ(cause_code("Invalid"), -1);
}

TEST(controller_wire, a_text_without_a_terminator_ends_with_the_record) {
    message m = decode(bytes_of(25, {{8, std::string(512, 'x')}}));
    EXPECT_EQ(m.text, std::string(512, 'x'));
}

TEST(controller_wire, bytes_that_do_not_print_become_question_marks) {
    EXPECT_EQ(decode(bytes_of(25, {{8, "a\x1b[2J\xff\x7f"
                                       "b\n"}}))
                  .text,
              "a?[2J??b?");
}

TEST(controller_wire, an_inner_address_lies_at_16_and_must_be_an_address) {
    message m = decode(bytes_of(30, {{8, raw({1})}, {16, "10.8.0.2"}}));
    EXPECT_EQ(m.kind, report::inner_ip);
    EXPECT_EQ(m.text, "10.8.0.2");
    EXPECT_EQ(decode(bytes_of(30, {{8, raw({1})}, {16, "$(reboot)"}})).kind, report::unknown);
    EXPECT_EQ(decode(bytes_of(30, {{8, raw({1})}})).kind, report::unknown);
}

TEST(controller_wire, dns_servers_are_entries_of_20_bytes_from_offset_20) {
    message m = decode(
        bytes_of(30, {{16, raw({3, 0})},
                      {20, raw({0, 0, 0, 0, 8, 8, 4, 4})},
                      {40, raw({1, 0, 0, 0, 0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1})},
                      {60, raw({0, 0, 0, 0, 9, 9, 9, 9})},
                      {80, raw({0, 0, 0, 0, 7, 7, 7, 7})}}));
    EXPECT_EQ(m.kind, report::dns);
    EXPECT_EQ(m.dns_count, 3u);
    EXPECT_EQ(m.servers, (std::vector<std::string>{"8.8.4.4", "2001:db8::1", "9.9.9.9"}));
}

TEST(controller_wire, a_dns_count_above_four_is_kept_but_four_entries_are_read) {
    message m = decode(bytes_of(30, {{16, raw({0xff, 0xff})},
                                     {20, raw({0, 0, 0, 0, 1, 1, 1, 1})},
                                     {40, raw({9, 0, 0, 0, 2, 2, 2, 2})},
                                     {80, raw({0, 0, 0, 0, 4, 4, 4, 4})},
                                     {100, raw({0, 0, 0, 0, 5, 5, 5, 5})}}));
    EXPECT_EQ(m.dns_count, 65535u);
    EXPECT_EQ(m.servers, (std::vector<std::string>{"1.1.1.1", "4.4.4.4"}));  // unknown type and empty entry left out
}

TEST(controller_wire, statistics_are_31_numbers_of_8_bytes_from_offset_16) {
    message m = decode(bytes_of(30, {{8, raw({33})},
                                     {16, raw({1, 2})},
                                     {16 + 30 * 8, raw({0, 0, 0, 0, 0, 0, 0, 0x80})},
                                     {16 + 31 * 8, raw({0xff})}}));
    EXPECT_EQ(m.kind, report::statistics);
    EXPECT_EQ(m.values[0], 0x201u);
    EXPECT_EQ(m.values[1], 0u);
    EXPECT_EQ(m.values[30], 0x8000000000000000u);
    EXPECT_STREQ(counter_labels[0], "Data Pkt Rx");
    EXPECT_STREQ(counter_labels[12], "tun_freed");
    EXPECT_STREQ(counter_labels[30], "tun_write_errors_others");
}

TEST(controller_wire, another_info_type_is_unknown_and_keeps_its_number) {
    message m = decode(bytes_of(30, {{8, raw({34})}}));
    EXPECT_EQ(m.kind, report::unknown);
    EXPECT_EQ(m.info_type, 34u);
}

TEST(controller_wire, a_process_id_is_signed_and_lies_at_8) {
    message m = decode(bytes_of(36, {{8, raw({0xd2, 0x04})}}));
    EXPECT_EQ(m.kind, report::process);
    EXPECT_EQ(m.pid, 1234);
    EXPECT_EQ(decode(bytes_of(36, {{8, raw({0xff, 0xff, 0xff, 0xff})}})).pid, -1);
}

TEST(controller_wire, several_records_of_one_read_are_cut_in_order) {
    std::vector<record> out;
    auto                all = join({bytes_of(1), bytes_of(24), bytes_of(27)});
    EXPECT_EQ(split_records(all.data(), all.size(), out), 0u);
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[1], bytes_of(24));
}

TEST(controller_wire, a_rest_shorter_than_a_record_is_dropped) {
    std::vector<record> out;
    auto                all = join({bytes_of(1), bytes_of(24)});
    EXPECT_EQ(split_records(all.data(), 520 + 519, out), 519u);
    EXPECT_EQ(out.size(), 1u);
    EXPECT_EQ(split_records(all.data(), 0, out), 0u);
    EXPECT_EQ(out.size(), 1u);
}

TEST(controller_wire, what_cannot_be_a_record_is_dropped_with_all_behind_it) {
    std::vector<record> out;
    auto                all = join({bytes_of(24), bytes_of(24, {{4, raw({1})}}), bytes_of(1)});
    EXPECT_EQ(split_records(all.data(), all.size(), out), 1040u);
    EXPECT_EQ(out.size(), 1u);

    out.clear();
    auto zero = join({bytes_of(0), bytes_of(1)});
    EXPECT_EQ(split_records(zero.data(), zero.size(), out), 1040u);
    EXPECT_TRUE(out.empty());
}

TEST(controller_wire, words_match_whole_unlike_in_the_daemon) {
    EXPECT_TRUE(is_level_word("errors"));
    EXPECT_TRUE(is_level_word("buf-print"));
    EXPECT_FALSE(is_level_word("error"));
    EXPECT_FALSE(is_level_word("informational"));
    EXPECT_FALSE(is_level_word(""));
    EXPECT_TRUE(is_destination_word("both"));
    EXPECT_FALSE(is_destination_word("bothways"));
}
