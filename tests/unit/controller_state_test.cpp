// What the controller concludes from what it hears, with a clock of its own.
#include "known.h"

#include <cstring>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

using namespace wlcctl;

namespace {

class controller_state_of : public ::testing::Test {
protected:
    event_log         log{event_kinds};
    bool              is_alive = false;
    knowledge         known{log, [this] { return is_alive; }};
    controller_state &state = known.state;
    moment            now{1000, 1700000000000};

    void pass(double seconds) {
        now.mono += seconds;
        now.wall += static_cast<int64_t>(seconds * 1000);
    }
    void hear(report kind, const std::string &text = "") {
        pass(0.01);
        message m;
        m.kind = kind;
        m.text = text;
        state.on_message(m, now);
    }
    void hear_dns(std::vector<std::string> servers) {
        pass(0.01);
        message m;
        m.kind      = report::dns;
        m.dns_count = static_cast<uint32_t>(servers.size());
        m.servers   = std::move(servers);
        state.on_message(m, now);
    }
    void hear_pid(int32_t pid) {
        pass(0.01);
        message m;
        m.kind = report::process;
        m.pid  = pid;
        state.on_message(m, now);
    }
    void say(uint32_t id) {
        pass(0.01);
        state.on_sent(id, now);
    }
    void start() {
        say(msg_tun_start);
        hear(report::in_progress);
    }
    void bring_up() {
        state.on_daemon_reader(true, now);
        start();
        hear(report::up);
    }
    std::vector<hook_kind> hooks() {
        std::vector<hook_kind> kinds;
        for (const trigger &t : state.take_triggers()) kinds.push_back(t.kind);
        return kinds;
    }
    json   fact_of(const char *name) { return state.describe(now)[name]; }
    size_t events(const std::string &kind) {
        size_t n = 0;
        log.each_since(0, [&](const event &e) { return n += e.kind == kind, true; });
        return n;
    }
};

using hook_list = std::vector<hook_kind>;

}  // namespace

TEST_F(controller_state_of, a_new_agent_is_unknown_and_never_fine) {
    EXPECT_EQ(known.judge(now), exit_unknown);
    EXPECT_EQ(fact_of("tunnel")["source"], "unknown");
    EXPECT_TRUE(fact_of("tunnel")["value"].is_null());
    state.on_daemon_reader(true, now);
    EXPECT_EQ(known.judge(now), exit_unknown);
    EXPECT_EQ(fact_of("daemon")["source"], "inferred");
}

TEST_F(controller_state_of, an_accepted_start_is_in_progress_and_enables_the_feature) {
    state.on_daemon_reader(true, now);
    start();
    EXPECT_EQ(fact_of("tunnel")["value"], "in_progress");
    EXPECT_EQ(fact_of("tunnel")["source"], "reported");
    EXPECT_EQ(fact_of("feature")["value"], "enabled");
    EXPECT_EQ(fact_of("feature")["source"], "inferred");
    EXPECT_EQ(known.judge(now), exit_not_reached);
    EXPECT_TRUE(state.last_command.answered);
}

TEST_F(controller_state_of, a_restart_leaves_the_feature_as_it_is) {
    state.on_daemon_reader(true, now);
    say(msg_tun_restart);
    hear(report::in_progress);
    EXPECT_EQ(fact_of("feature")["source"], "unknown");
}

TEST_F(controller_state_of, up_and_down_run_their_hooks_once) {
    bring_up();
    EXPECT_EQ(hooks(), (hook_list{hook_kind::up}));
    EXPECT_EQ(known.judge(now), exit_done);
    hear(report::down, "No Error");
    EXPECT_EQ(hooks(), (hook_list{hook_kind::down}));
    hear(report::down, "No Error");
    EXPECT_EQ(hooks(), hook_list{});
    EXPECT_EQ(fact_of("cause")["code"], 0);
    EXPECT_EQ(known.judge(now), exit_not_reached);
}

TEST_F(controller_state_of, age_is_counted_from_the_report_and_duration_from_the_change) {
    bring_up();
    pass(60);
    say(msg_tun_start);
    hear(report::in_progress);
    json tunnel = fact_of("tunnel");
    EXPECT_EQ(tunnel["value"], "up");
    EXPECT_NEAR(tunnel["age"].get<double>(), 60, 0.1);
    pass(40);
    EXPECT_NEAR(fact_of("tunnel")["for"].get<double>(), 100, 0.1);
}

TEST_F(controller_state_of, a_start_while_up_leaves_it_up_but_a_restart_does_not) {
    bring_up();
    start();
    EXPECT_TRUE(state.tun.is(tunnel::up));
    say(msg_tun_restart);
    hear(report::in_progress);
    EXPECT_TRUE(state.tun.is(tunnel::in_progress));
}

TEST_F(controller_state_of, a_second_up_means_that_a_down_was_missed_and_runs_the_hook_again) {
    bring_up();
    hooks();
    hear(report::up);
    EXPECT_EQ(hooks(), (hook_list{hook_kind::up}));
}

TEST_F(controller_state_of, a_stop_counts_when_the_query_behind_it_is_answered_not_before) {
    bring_up();
    hooks();
    say(msg_tun_stop);
    say(msg_process_query);
    EXPECT_EQ(known.judge(now), exit_done);
    hear_pid(77);
    EXPECT_EQ(known.judge(now), exit_feature_disabled);
    EXPECT_EQ(fact_of("tunnel")["value"], "down");
    EXPECT_EQ(fact_of("tunnel")["source"], "inferred");
    EXPECT_EQ(hooks(), (hook_list{hook_kind::down}));
    hear(report::down, "No Error");
    EXPECT_EQ(fact_of("tunnel")["source"], "reported");
    EXPECT_EQ(hooks(), hook_list{});
}

TEST_F(controller_state_of, an_answer_to_an_earlier_query_confirms_no_stop) {
    bring_up();
    say(msg_process_query);
    say(msg_tun_stop);
    say(msg_process_query);
    hear_pid(77);
    EXPECT_EQ(known.judge(now), exit_done);
    hear_pid(77);
    EXPECT_EQ(known.judge(now), exit_feature_disabled);
}

TEST_F(controller_state_of, an_up_after_a_stop_is_believed) {
    bring_up();
    say(msg_tun_stop);
    say(msg_process_query);
    hear_pid(77);
    hear(report::up);
    EXPECT_EQ(fact_of("tunnel")["value"], "up");
    EXPECT_EQ(fact_of("tunnel")["source"], "reported");
}

TEST_F(controller_state_of, statistics_prove_the_feature_and_an_unanswered_request_disproves_it) {
    state.on_daemon_reader(true, now);
    say(msg_stats_request);
    say(msg_process_query);
    hear(report::statistics);
    hear_pid(77);
    EXPECT_EQ(fact_of("feature")["value"], "enabled");
    EXPECT_EQ(fact_of("feature")["source"], "reported");
    say(msg_stats_request);
    say(msg_process_query);
    hear_pid(77);
    EXPECT_EQ(fact_of("feature")["value"], "disabled");
    EXPECT_EQ(fact_of("feature")["source"], "inferred");
}

TEST_F(controller_state_of, a_silent_daemon_is_not_believed_after_150_seconds) {
    bring_up();
    pass(149);
    EXPECT_EQ(known.judge(now), exit_done);
    pass(2);
    EXPECT_EQ(known.judge(now), exit_unknown);
    hear(report::statistics);
    EXPECT_EQ(known.judge(now), exit_done);
}

TEST_F(controller_state_of, a_refused_start_is_down_and_says_so) {
    state.on_daemon_reader(true, now);
    say(msg_tun_start);
    hear(report::down, "TLS Client init failed");
    EXPECT_EQ(state.starts_refused, 1u);
    EXPECT_EQ(known.judge(now), exit_not_reached);
    EXPECT_EQ(fact_of("cause")["code"], 1);
    EXPECT_EQ(fact_of("tunnel")["note"], "the daemon could not start it");
}

TEST_F(controller_state_of, a_name_query_while_in_progress_tells_of_a_failed_attempt) {
    state.on_daemon_reader(true, now);
    start();
    EXPECT_EQ(state.explain_tunnel(now).find("asked"), std::string::npos);
    hear(report::name_query);
    EXPECT_NE(state.explain_tunnel(now).find("asked for the gateway's address once"), std::string::npos);
}

TEST_F(controller_state_of, a_hello_not_asked_for_makes_old_what_was_known) {
    bring_up();
    hear_pid(77);
    hear(report::inner_ip, "10.8.0.2");
    hooks();
    hear(report::hello);
    EXPECT_EQ(known.judge(now), exit_feature_disabled);
    EXPECT_EQ(fact_of("tunnel")["value"], "down");
    EXPECT_EQ(fact_of("tunnel")["source"], "inferred");
    EXPECT_EQ(fact_of("inner_ip")["source"], "unknown");
    EXPECT_EQ(fact_of("inner_ip")["last"]["value"], "10.8.0.2");
    EXPECT_EQ(fact_of("daemon_pid")["last"]["value"], 77);
    EXPECT_EQ(hooks(), (hook_list{hook_kind::down}));
}

TEST_F(controller_state_of, a_hello_that_was_asked_for_changes_nothing) {
    bring_up();
    say(msg_hello);
    hear(report::hello);
    EXPECT_EQ(known.judge(now), exit_done);
    hear(report::hello);
    EXPECT_EQ(known.judge(now), exit_feature_disabled);
}

TEST_F(controller_state_of, a_hello_comes_too_late_to_be_an_answer_after_10_seconds) {
    bring_up();
    say(msg_hello);
    pass(11);
    hear(report::hello);
    EXPECT_EQ(state.beginnings, 1u);
}

TEST_F(controller_state_of, a_hello_of_a_process_that_still_runs_changes_nothing) {
    bring_up();
    hear_pid(77);
    is_alive = true;
    hear(report::hello);
    EXPECT_EQ(known.judge(now), exit_done);
}

TEST_F(controller_state_of, a_restart_behind_an_expected_hello_is_seen_by_the_process_id) {
    bring_up();
    hear_pid(77);
    say(msg_hello);
    hear(report::hello);
    say(msg_process_query);
    hear_pid(78);
    EXPECT_EQ(state.beginnings, 1u);
    EXPECT_EQ(state.pid.value, 78);
    EXPECT_FALSE(state.tun.is(tunnel::up));
    EXPECT_TRUE(state.is_answered(state.queries_sent()));
}

TEST_F(controller_state_of, a_query_written_just_before_the_hello_is_still_awaited_and_an_older_one_is_not) {
    state.on_daemon_reader(true, now);
    say(msg_process_query);
    pass(3);
    say(msg_process_query);
    hear(report::hello);
    hear_pid(77);
    EXPECT_TRUE(state.is_answered(2));

    say(msg_process_query);
    pass(3);
    hear(report::hello);
    hear_pid(78);
    EXPECT_FALSE(state.is_answered(3));
}

TEST_F(controller_state_of, a_lost_answer_shifts_the_later_ones_for_30_seconds_only) {
    state.on_daemon_reader(true, now);
    say(msg_process_query);
    pass(31);
    say(msg_process_query);
    hear_pid(77);
    EXPECT_TRUE(state.is_answered(2));
}

TEST_F(controller_state_of, a_daemon_that_is_gone_takes_its_tunnel_along) {
    bring_up();
    hooks();
    state.on_daemon_reader(false, now);
    EXPECT_EQ(known.judge(now), exit_daemon_not_running);
    EXPECT_EQ(fact_of("tunnel")["value"], "down");
    EXPECT_EQ(fact_of("tunnel")["source"], "inferred");
    EXPECT_EQ(fact_of("feature")["source"], "unknown");
    EXPECT_EQ(hooks(), (hook_list{hook_kind::down}));
    state.on_daemon_reader(false, now);
    EXPECT_EQ(events("daemon_gone"), 1u);
    EXPECT_EQ(hooks(), hook_list{});
}

TEST_F(controller_state_of, no_daemon_at_the_agents_beginning_runs_no_hook) {
    state.on_daemon_reader(false, now);
    EXPECT_EQ(known.judge(now), exit_daemon_not_running);
    EXPECT_EQ(events("daemon_gone"), 0u);
    EXPECT_EQ(hooks(), hook_list{});
}

TEST_F(controller_state_of, dns_servers_run_the_hook_when_they_differ_or_the_tunnel_was_down) {
    state.on_daemon_reader(true, now);
    start();
    hear_dns({"8.8.8.8"});
    hear(report::up);
    EXPECT_EQ(hooks(), (hook_list{hook_kind::dns, hook_kind::up}));
    hear_dns({"8.8.8.8"});
    EXPECT_EQ(hooks(), hook_list{});
    hear_dns({"9.9.9.9"});
    EXPECT_EQ(hooks(), (hook_list{hook_kind::dns}));
    hear(report::down, "No Error");
    hooks();
    hear_dns({"9.9.9.9"});
    EXPECT_EQ(hooks(), (hook_list{hook_kind::dns}));
}

TEST_F(controller_state_of, events_are_numbered_without_gaps_and_the_oldest_go) {
    constexpr uint64_t kept = 5000;
    for (size_t i = 0; i < kept + 7; i++) log.add(now, "garbage");
    uint64_t next = 8;
    log.each_since(0, [&](const event &e) {
        EXPECT_EQ(e.number, next);
        EXPECT_EQ(json::parse(log.text(e))["number"], next++);
        return true;
    });
    EXPECT_EQ(next, kept + 8);
    size_t n = 0;
    log.each_since(log.last() - 2, [&](const event &) { return ++n, true; });
    EXPECT_EQ(n, 2u);
    log.each_since(log.last() + 5, [&](const event &) { return ++n, true; });
    EXPECT_EQ(n, 2u);
}

TEST(controller_events, time_is_utc_with_milliseconds) {
    EXPECT_EQ(wall_text(1700000000007), "2023-11-14T22:13:20.007Z");
}

TEST(controller_events, bytes_that_are_no_utf8_do_not_throw) { EXPECT_NE(json_line({{"id", "\xff\xfe"}}), ""); }
