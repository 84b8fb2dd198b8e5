// What people read.
#include "present.h"
#include "state.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

using namespace wlcctl;

namespace {

bool contains(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

}  // namespace

TEST(controller_present, a_duration_has_two_units_at_most) {
    EXPECT_EQ(duration_text(0), "0.0 s");
    EXPECT_EQ(duration_text(9.94), "9.9 s");
    EXPECT_EQ(duration_text(9.96), "10 s");
    EXPECT_EQ(duration_text(59.4), "59 s");
    EXPECT_EQ(duration_text(59.6), "1 min 0 s");
    EXPECT_EQ(duration_text(3599), "59 min 59 s");
    EXPECT_EQ(duration_text(3600), "1 h 0 min");
    EXPECT_EQ(duration_text(86399), "23 h 59 min");
    EXPECT_EQ(duration_text(90000), "1 d 1 h");
}

TEST(controller_present, an_unknown_tunnel_is_shown_as_unknown) {
    event_log        log(event_kinds);
    controller_state state(log, [] { return false; });
    json             answer = {{"request", "status"}};
    answer.update(state.describe(moment{1, 0}));
    std::string text = answer_text(answer);
    EXPECT_TRUE(contains(text, "Tunnel        unknown"));
    EXPECT_TRUE(contains(text, "Daemon        unknown"));
    EXPECT_TRUE(contains(text, "Statistics    unknown"));
    EXPECT_FALSE(contains(text.substr(0, text.find('\n')), "up"));
}

TEST(controller_present, a_value_shows_its_source_and_age) {
    event_log        log(event_kinds);
    controller_state state(log, [] { return false; });
    message          up;
    up.kind = report::up;
    state.on_message(up, moment{100, 0});
    json answer = {{"request", "status"}};
    answer.update(state.describe(moment{112, 12000}));
    EXPECT_TRUE(contains(answer_text(answer), "Tunnel        up                reported 12 s ago"));
}

TEST(controller_present, an_answer_without_the_expected_members_is_no_accident) {
    for (const char *answer :
         {"{}", "{\"request\":\"status\"}", "{\"request\":\"status\",\"tunnel\":null}",
          "{\"request\":\"stats\",\"statistics\":7}",
          "{\"request\":\"status\",\"tunnel\":{\"last\":7,\"since\":1,\"age\":\"x\"},\"statistics\":{\"value\":7}}",
          "{\"request\":\"events\",\"events\":null}", "{\"request\":\"conf show\"}",
          "{\"request\":\"info\",\"exit\":0}"})
        EXPECT_NO_THROW(answer_text(json::parse(answer))) << answer;
    EXPECT_NO_THROW(event_text(json::parse("{\"event\":1}")));
}
