#include <gtest/gtest.h>

#include "frame.h"

using namespace gw;

namespace {

struct seen_frames {
    std::vector<std::pair<int, std::string>> frames;
    frame_parser::result                     result = frame_parser::result::ok;
};

void feed(frame_parser &parser, std::string_view bytes, seen_frames &seen) {
    seen.result = parser.feed(bytes_of(bytes), [&](const cstp_frame &frame) {
        seen.frames.emplace_back(frame.type, std::string(text_of(frame.payload)));
        return true;
    });
}

const std::string two_frames = std::string("STF\1\0\3\0\0abc", 11) + std::string("STF\1\0\0\3\0", 8);

}  // namespace

TEST(gateway_frame, header_has_magic_version_big_endian_length_type_and_zero) {
    uint8_t header[8];
    write_frame_header(header, 4, 0x1234);
    EXPECT_EQ(to_hex(header), "5354460112340400");
}

TEST(gateway_frame, two_frames_in_one_piece_are_both_taken) {
    frame_parser parser;
    seen_frames  seen;
    feed(parser, two_frames, seen);
    ASSERT_EQ(seen.frames.size(), 2u);
    EXPECT_EQ(seen.frames[0], (std::pair<int, std::string>{0, "abc"}));
    EXPECT_EQ(seen.frames[1], (std::pair<int, std::string>{3, ""}));
    EXPECT_EQ(parser.pending(), 0u);
}

TEST(gateway_frame, every_cut_gives_the_same_frames) {
    for (size_t cut = 0; cut <= two_frames.size(); cut++) {
        frame_parser parser;
        seen_frames  seen;
        feed(parser, two_frames.substr(0, cut), seen);
        feed(parser, two_frames.substr(cut), seen);
        EXPECT_EQ(seen.frames.size(), 2u) << cut;
        EXPECT_EQ(parser.pending(), 0u) << cut;
    }
}

TEST(gateway_frame, single_bytes_give_the_same_frames) {
    frame_parser parser;
    seen_frames  seen;
    for (char c : two_frames) feed(parser, std::string_view(&c, 1), seen);
    EXPECT_EQ(seen.frames.size(), 2u);
}

TEST(gateway_frame, longest_payload_is_taken_whole) {
    frame_parser parser;
    seen_frames  seen;
    std::string  big(65535, 'x');
    std::string  frame("STF\1\xff\xff\0\0", 8);
    frame += big;
    feed(parser, frame, seen);
    ASSERT_EQ(seen.frames.size(), 1u);
    EXPECT_EQ(seen.frames[0].second, big);
}

TEST(gateway_frame, other_magic_is_seen_at_its_first_byte) {
    frame_parser parser;
    seen_frames  seen;
    feed(parser, "ST", seen);
    EXPECT_EQ(seen.result, frame_parser::result::ok);
    feed(parser, "X", seen);
    EXPECT_EQ(seen.result, frame_parser::result::bad_magic);
}

TEST(gateway_frame, version_1_is_taken_and_2_refused) {
    frame_parser good, bad;
    seen_frames  seen;
    feed(good, std::string("STF\1", 4), seen);
    EXPECT_EQ(seen.result, frame_parser::result::ok);
    feed(bad, std::string("STF\2", 4), seen);
    EXPECT_EQ(seen.result, frame_parser::result::bad_version);
}

TEST(gateway_frame, frames_before_a_bad_header_are_taken) {
    frame_parser parser;
    seen_frames  seen;
    feed(parser, two_frames + "garbage", seen);
    EXPECT_EQ(seen.frames.size(), 2u);
    EXPECT_EQ(seen.result, frame_parser::result::bad_magic);
}

TEST(gateway_frame, a_taker_that_stops_gets_no_further_frame) {
    frame_parser parser;
    int          taken  = 0;
    auto         result = parser.feed(bytes_of(two_frames), [&](const cstp_frame &) { return ++taken == 0; });
    EXPECT_EQ(result, frame_parser::result::stopped);
    EXPECT_EQ(taken, 1);
}

TEST(gateway_text, hexadecimal_text_is_read_strictly) {
    EXPECT_EQ(to_hex(*from_hex("00 fF\n1a")), "00ff1a");
    EXPECT_TRUE(from_hex("")->empty());
    EXPECT_FALSE(from_hex("abc"));
    EXPECT_FALSE(from_hex("0g"));
}

TEST(gateway_text, addresses_are_read_strictly) {
    EXPECT_EQ(parse_ipv4("10.9.0.1"), 0x0a090001u);
    EXPECT_FALSE(parse_ipv4(" 10.9.0.1"));
    EXPECT_FALSE(parse_ipv4("10.9.0.1\r"));
    EXPECT_FALSE(parse_ipv4("10.9.0"));
    EXPECT_EQ(parse_cidr("10.9.0.1/24")->network(), 0x0a090000u);
    EXPECT_EQ(parse_cidr("10.9.0.1/24")->broadcast(), 0x0a0900ffu);
    EXPECT_EQ(parse_cidr("10.9.0.1/0")->mask(), 0u);
    EXPECT_FALSE(parse_cidr("10.9.0.1/33"));
    EXPECT_FALSE(parse_cidr("10.9.0.1/"));
}
