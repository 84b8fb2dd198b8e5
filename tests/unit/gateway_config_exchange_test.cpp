#include <gtest/gtest.h>

#include "config_exchange.h"

using namespace gw;

TEST(gateway_config_exchange, request_lines_are_found_and_missing_ones_told_from_empty_ones) {
    auto request = parse_config_request(
        "X-CSTP-Address:10.9.0.7\nX-CSTP-Device-ID:\nX-CSTP-Device-SerialNo:a:b\nX-Other:1\n");
    EXPECT_EQ(request.address, "10.9.0.7");
    EXPECT_EQ(request.device_id, "");
    EXPECT_EQ(request.serial, "a:b");
    EXPECT_FALSE(request.cookie);
    EXPECT_FALSE(request.name);
}

TEST(gateway_config_exchange, request_names_count_only_at_the_start_of_a_line) {
    auto request = parse_config_request("X-CSTP-Device-Name:X-CSTP-Cookie:no\nX-CSTP-Cookie:yes");
    EXPECT_EQ(request.name, "X-CSTP-Cookie:no");
    EXPECT_EQ(request.cookie, "yes");
}

TEST(gateway_config_exchange, garbage_is_no_request) {
    auto request = parse_config_request(std::string_view("\0\xff\n\n:::\n", 8));
    EXPECT_FALSE(request.device_id);
}

TEST(gateway_config_exchange, response_has_no_blank_behind_the_colon) {
    EXPECT_EQ(config_response_text({{"A", "1"}, {"B", "2"}}), "A:1\nB:2\n");
}

TEST(gateway_config_exchange, response_value_is_the_first_hit_anywhere_like_a_client_finds_it) {
    EXPECT_EQ(response_value("X-Cookie:X-CSTP-DPD:3\nX-CSTP-DPD:10\n", "X-CSTP-DPD"), "3");
    EXPECT_EQ(response_value("X-CSTP-Address-Client:1.2.3.4\n", "X-CSTP-Address"), std::nullopt);
    EXPECT_EQ(response_value(std::string_view("a\0X-CSTP-DPD:3", 14), "X-CSTP-DPD"), std::nullopt);
}

TEST(gateway_config_exchange, dpd_of_5_is_allowed_and_4_fatal) {
    EXPECT_FALSE(has_fatal_dpd("X-CSTP-DPD:5\n"));
    EXPECT_TRUE(has_fatal_dpd("X-CSTP-DPD:4\n"));
    EXPECT_TRUE(has_fatal_dpd("X-CSTP-DPD: 4\n"));
    EXPECT_TRUE(has_fatal_dpd("X-CSTP-DPD:\n"));
    EXPECT_TRUE(has_fatal_dpd("X-CSTP-DPD:abc"));
    EXPECT_TRUE(has_fatal_dpd("X-CSTP-DPD:-7"));
    EXPECT_TRUE(has_fatal_dpd("X-CSTP-DPD:4294967297"));
    EXPECT_FALSE(has_fatal_dpd("X-CSTP-Retry-Time:1\n"));
}

TEST(gateway_config_exchange, a_fatal_dpd_inside_another_value_is_seen) {
    EXPECT_TRUE(has_fatal_dpd("X-CSTP-Cookie:a\nX-CSTP-DPD:0\nX-CSTP-DPD:10\n"));
}

TEST(gateway_config_exchange, overrides_replace_in_place_omit_repeat_and_append) {
    header_list      headers = {{"A", "1"}, {"B", "2"}, {"C", "3"}};
    header_overrides overrides;
    overrides.set("B", {"x", "y"}, false);
    overrides.set("A", {}, false);
    overrides.set("D", {"4"}, false);
    overrides.apply(headers);
    EXPECT_EQ(config_response_text(headers), "B:x\nB:y\nC:3\nD:4\n");
}

TEST(gateway_config_exchange, an_override_for_once_wins_over_a_lasting_one_and_is_forgotten) {
    header_overrides overrides;
    overrides.set("A", {"once"}, true);
    overrides.set("A", {"always"}, false);
    header_list first = {{"A", "1"}}, second = first;
    overrides.apply(first);
    EXPECT_EQ(first[0].second, "once");
    overrides.forget_once();
    overrides.apply(second);
    EXPECT_EQ(second[0].second, "always");
    EXPECT_TRUE(overrides.unset("A"));
    EXPECT_FALSE(overrides.unset("A"));
}
