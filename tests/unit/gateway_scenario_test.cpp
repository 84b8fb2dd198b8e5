#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "faults.h"
#include "scenario.h"

using namespace gw;
using common::json;

namespace {

std::string fault_complaint(const std::string &text) {
    try {
        (void)parse_fault(text);
        return "";
    } catch (const std::runtime_error &error) {
        return error.what();
    }
}

std::string scenario_complaint(const std::string &text) {
    try {
        (void)parse_scenario(text);
        return "";
    } catch (const std::runtime_error &error) {
        return error.what();
    }
}

// A gateway that only writes down what it is asked, and the answers it is told to give.
struct written_world {
    std::vector<std::string> asked, told;
    std::vector<double>      slept;
    json                     wait_answer = {{"ok", true}, {"matched", {{"number", 7}}}};

    scenario_world world() {
        return {[this](const json &request) {
                    asked.push_back(request.dump());
                    if (request["request"] == "wait") return wait_answer;
                    return json{{"ok", true}, {"last", 3}};
                },
                [this](double seconds) { slept.push_back(seconds); },
                [this](const scenario_step &, const std::string &what) { told.push_back(what); }};
    }
};

}  // namespace

TEST(gateway_faults, name_trigger_and_count_are_read) {
    armed_fault fault = parse_fault("silence@up#3");
    EXPECT_EQ(fault.kind, fault_kind::silence);
    EXPECT_EQ(fault.trigger, fault_trigger::up);
    EXPECT_EQ(fault.left, 3u);
    fault = parse_fault("reset@frame=20");
    EXPECT_EQ(fault.trigger, fault_trigger::frame);
    EXPECT_EQ(fault.amount, 20u);
    fault = parse_fault("fin@time=2");
    EXPECT_EQ(fault.amount, 2000u);
    fault = parse_fault("drop-dpd#*");
    EXPECT_EQ(fault.trigger, fault_trigger::dpd);
    EXPECT_EQ(fault.left, UINT64_MAX);
    EXPECT_EQ(parse_fault("slow").trigger, fault_trigger::config);
    EXPECT_EQ(parse_fault("stall").trigger, fault_trigger::connect);
}

TEST(gateway_faults, what_does_not_exist_is_refused_with_what_does) {
    EXPECT_NE(fault_complaint("silense").find("silence, stall, refuse"), std::string::npos);
    EXPECT_NE(fault_complaint("slow@up").find("there are: config, rekey"), std::string::npos);
    EXPECT_NE(fault_complaint("reset@frame").find("@frame=N"), std::string::npos);
    EXPECT_NE(fault_complaint("reset@up=3"), "");
    EXPECT_NE(fault_complaint("reset@time=x"), "");
    EXPECT_EQ(fault_complaint("reset@time=0"), "");
    EXPECT_NE(fault_complaint("reset@time=0#*"), "");
    EXPECT_NE(fault_complaint("reset@time=0#2"), "");
    EXPECT_NE(fault_complaint("reset@frame=0"), "");
    EXPECT_NE(fault_complaint("reset@up#0"), "");
    EXPECT_NE(fault_complaint("reset@up#-1"), "");
    EXPECT_NE(fault_complaint(""), "");
    EXPECT_EQ(fault_complaint("\x1b[2J").find('\x1b'), std::string::npos);
}

TEST(gateway_faults, a_fault_strikes_as_often_as_ordered_and_at_its_trigger_only) {
    fault_table table;
    table.arm(parse_fault("reset@up#2"));
    table.arm(parse_fault("fin@frame=3"));
    EXPECT_FALSE(table.strike(fault_trigger::dpd));
    EXPECT_TRUE(table.strike(fault_trigger::up));
    EXPECT_TRUE(table.strike(fault_trigger::up));
    EXPECT_FALSE(table.strike(fault_trigger::up));
    EXPECT_FALSE(table.strike(fault_trigger::frame));
    EXPECT_FALSE(table.strike(fault_trigger::frame));
    EXPECT_EQ(table.strike(fault_trigger::frame)->kind, fault_kind::fin);
    EXPECT_TRUE(table.armed().empty());
}

TEST(gateway_scenario, steps_run_in_order_and_repeats_nest) {
    written_world w;
    EXPECT_EQ(run_scenario(
                  parse_scenario("# comment\nrepeat 2\n note outer\n repeat 2\n  note inner\n end\nend\nnote last\n"),
                  1, w.world()),
              "");
    EXPECT_EQ(w.told, (std::vector<std::string>{"note outer", "note inner", "note inner", "note outer", "note inner",
                                                "note inner", "note last"}));
}

TEST(gateway_scenario, a_wait_asks_for_what_came_after_the_last_one) {
    written_world w;
    EXPECT_EQ(run_scenario(parse_scenario("wait closed by=peer client=4 within 2.5\nwait tls_up\n"), 1, w.world()), "");
    ASSERT_EQ(w.asked.size(), 3u);
    EXPECT_EQ(w.asked[1],
              R"({"request":"wait","events":"closed","since":3,"timeout":2.5,"match":{"by":"peer","client":4}})");
    EXPECT_EQ(w.asked[2], R"({"request":"wait","events":"tls_up","since":7,"timeout":10.0})");
}

TEST(gateway_scenario, a_step_that_does_not_hold_is_named_by_its_line) {
    written_world w;
    w.wait_answer = {{"ok", false}, {"exit", 3}, {"error", "no such event came in time"}};
    EXPECT_EQ(run_scenario(parse_scenario("note x\n\nwait closed\n"), 1, w.world()),
              "line 3: no such event came in time");
    EXPECT_EQ(run_scenario(parse_scenario("never closed within 1\n"), 1, w.world()), "");
    w.wait_answer = {{"ok", false}, {"exit", 1}, {"error", "out of memory"}};
    EXPECT_EQ(run_scenario(parse_scenario("never closed within 1\n"), 1, w.world()), "line 1: out of memory");
    w.wait_answer = {{"ok", true}, {"matched", {{"number", 7}}}};
    EXPECT_EQ(run_scenario(parse_scenario("never closed within 1\n"), 1, w.world()), "line 1: the event closed came");
}

TEST(gateway_scenario, the_same_seed_gives_the_same_run_and_another_one_another) {
    scenario story = parse_scenario("seed 5\nrepeat 20\npick note a | note b | note c\nsleep 0..1\nend\n");
    EXPECT_EQ(story.seed, 5u);
    written_world one, same, other;
    (void)run_scenario(story, 5, one.world());
    (void)run_scenario(story, 5, same.world());
    (void)run_scenario(story, 6, other.world());
    EXPECT_EQ(one.told, same.told);
    EXPECT_EQ(one.slept, same.slept);
    EXPECT_NE(one.told, other.told);
    for (double seconds : one.slept) EXPECT_TRUE(seconds >= 0 && seconds <= 1) << seconds;
}

TEST(gateway_scenario, what_is_no_step_is_refused_with_its_line) {
    EXPECT_EQ(
        scenario_complaint("note a\nwiat closed\n"),
        "line 2: there is no step \"wiat\"; there are: seed, note, fault, request, sleep, wait, never, pick, repeat, end");
    for (const char *text : {"wait\n", "wait closed soon\n", "wait closed within\n", "wait closed within -1\n",
                             "sleep\n", "sleep 2..1\n", "sleep nan\n", "repeat x\nend\n", "repeat 1\n", "end\n",
                             "fault silense\n", "request status\n", "request [1]\n", "pick\n",
                             "pick note a | nothing\n", "pick note a | repeat 3\n", "pick seed 3 | end\n", "seed -1\n"})
        EXPECT_NE(scenario_complaint(text), "") << text;
}
