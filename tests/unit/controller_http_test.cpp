// What the agent shows to machines: metrics and what they count, the history of a day, and the pages that serve them
// without a secret.
#include "conf.h"
#include "history.h"
#include "http_pages.h"
#include "interface.h"
#include "keeper.h"
#include "memory.h"
#include "metrics.h"
#include "orders.h"
#include "redact.h"

#include "common/unique_fd.h"

#include <arpa/inet.h>
#include <atomic>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include <nlohmann/json.hpp>

using namespace wlcctl;

namespace {

std::string scratch_path(const std::string &name) {
    static std::string directory = [] {
        char made[] = "/tmp/controller_http_test.XXXXXX";
        return std::string(mkdtemp(made));
    }();
    return directory + "/" + name;
}

agent_options test_options() {
    agent_options options;
    options.from_daemon = scratch_path("from");
    options.to_daemon   = scratch_path("to");
    options.conf        = scratch_path("no.conf");
    return options;
}

class shown_of : public ::testing::Test {
protected:
    loop          owner;
    agent_options options = test_options();
    event_log     log{event_kinds};
    daemon_pipe   pipe{owner, options.from_daemon, options.to_daemon};
    knowledge     known{log, [] { return true; }};
    orders        to{log, known, pipe};
    keeper        keep{owner, options, known, to, pipe};
    metrics       counted{known, keep};
    moment        now{100000, 1700000000000};

    void pass(double seconds) {
        now.mono += seconds;
        now.wall += static_cast<int64_t>(seconds * 1000);
    }
    void hear(report kind, const std::string &text = "") {
        message m;
        m.kind = kind;
        m.text = text;
        known.state.on_message(m, now);
        if (kind == report::up) known.why.on_up(now);
        if (kind == report::down) known.why.on_down(now);
    }
    void hear_statistics(const counters &values) {
        message m;
        m.kind   = report::statistics;
        m.values = values;
        known.state.on_message(m, now);
        known.book.on_report(values, now);
    }
    void bring_up() {
        known.state.on_daemon_reader(true, now);
        hear(report::in_progress);
        hear(report::up);
        counted.look(now);
    }
    // The value of a sample; nothing when there is none.
    std::optional<double> value(const std::string &sample) {
        std::istringstream lines(counted.text(now));
        for (std::string line; std::getline(lines, line);)
            if (line.starts_with(sample + " ")) return std::stod(line.substr(sample.size() + 1));
        return std::nullopt;
    }
    json history_json(const history &past) { return json::parse("{" + past.describe(now) + "}"); }
};

using metrics_of = shown_of;
using history_of = shown_of;

std::vector<std::string> states_in(const json &history) {
    std::vector<std::string> all;
    for (const json &each : history["states"]) all.push_back(each["state"]);
    return all;
}

}  // namespace

// ---- metrics --------------------------------------------------------------------------------------------------------

TEST_F(metrics_of, an_unknown_tunnel_has_no_value_for_up) {
    EXPECT_EQ(value("tlsc_tunnel_up"), std::nullopt);
    EXPECT_EQ(value("tlsc_up_seconds"), std::nullopt);
    EXPECT_EQ(value("tlsc_tunnel_state{state=\"unknown\"}"), 1);
    EXPECT_EQ(value("tlsc_stats_age_seconds"), std::nullopt);
    EXPECT_EQ(value("tlsc_build_info{version=\"" WLCCTL_VERSION "\"}"), 1);
}

TEST_F(metrics_of, an_up_tunnel_is_1_and_a_lost_one_0) {
    bring_up();
    pass(12);
    known.why.last_answer = now;
    ASSERT_EQ(known.is(now), health::up);
    EXPECT_EQ(value("tlsc_tunnel_up"), 1);
    EXPECT_EQ(value("tlsc_up_seconds"), 12);
    EXPECT_EQ(value("tlsc_tunnel_state{state=\"up\"}"), 1);
    EXPECT_EQ(value("tlsc_tunnel_state{state=\"down\"}"), 0);
    hear(report::down, "Tunnel down due to socket error");
    EXPECT_EQ(value("tlsc_tunnel_up"), 0);
    EXPECT_EQ(value("tlsc_up_seconds"), 0);
}

TEST_F(metrics_of, a_tunnel_whose_gateway_does_not_answer_is_degraded_and_not_up) {
    bring_up();
    known.why.last_answer = now;
    known.why.unanswered  = 2;
    ASSERT_EQ(known.is(now), health::degraded);
    EXPECT_EQ(value("tlsc_tunnel_up"), 0);
    EXPECT_EQ(value("tlsc_tunnel_state{state=\"degraded\"}"), 1);
    EXPECT_EQ(value("tlsc_dpd_unanswered"), 2);
}

TEST_F(metrics_of, a_down_is_counted_once_under_the_reason_that_becomes_known) {
    bring_up();
    hear(report::down, "Tunnel down due to socket error");
    counted.look(now);
    EXPECT_EQ(value("tlsc_down_total{reason=\"gateway-closed\"}"), std::nullopt);
    pass(0.5);
    known.why.state("gateway-closed", "", "log", now);
    for (int i = 0; i < 5; i++) counted.look(now);
    EXPECT_EQ(value("tlsc_down_total{reason=\"gateway-closed\"}"), 1);
    pass(60);
    known.why.state("gateway-refused", "", "log", now);
    counted.look(now);
    EXPECT_EQ(value("tlsc_down_total{reason=\"gateway-refused\"}"), std::nullopt);
}

TEST_F(metrics_of, a_down_without_a_reason_is_counted_as_unknown_after_a_while) {
    bring_up();
    hear(report::down, "Tunnel down due to socket error");
    counted.look(now);
    pass(2.9);
    counted.look(now);
    EXPECT_EQ(value("tlsc_down_total{reason=\"unknown\"}"), std::nullopt);
    pass(0.2);
    counted.look(now);
    EXPECT_EQ(value("tlsc_down_total{reason=\"unknown\"}"), 1);
}

TEST_F(metrics_of, counters_do_not_go_back_when_the_daemons_do) {
    known.state.on_daemon_reader(true, now);
    counters values{};
    values[0]  = 100;  // Data Pkt Rx
    values[1]  = 200;  // Data Pkt Tx
    values[16] = 3;    // ssl_read_errors_others
    hear_statistics(values);
    EXPECT_EQ(value("tlsc_packets_total{direction=\"in\"}"), 100);
    EXPECT_EQ(value("tlsc_packets_total{direction=\"out\"}"), 200);
    EXPECT_EQ(value("tlsc_io_errors_total{side=\"ssl\",op=\"read\",reason=\"others\"}"), 3);
    values    = {};
    values[0] = 5;
    pass(60);
    hear_statistics(values);
    EXPECT_EQ(value("tlsc_packets_total{direction=\"in\"}"), 105);
    EXPECT_EQ(value("tlsc_packets_total{direction=\"out\"}"), 200);
    pass(7);
    EXPECT_EQ(value("tlsc_stats_age_seconds"), 7);
}

TEST_F(metrics_of, an_attempt_to_rekey_fails_only_when_no_success_follows) {
    counters values{};
    auto     report = [&](uint64_t attempts, uint64_t good) {
        values[9]  = attempts;
        values[10] = good;
        hear_statistics(values);
        counted.look(now);
    };
    report(1, 0);  // between the attempt and its success
    pass(1);
    report(1, 1);
    EXPECT_EQ(value("tlsc_rekey_total{result=\"failure\"}"), 0);
    pass(3600);
    report(2, 1);
    pass(60);
    report(2, 1);
    EXPECT_EQ(value("tlsc_rekey_total{result=\"failure\"}"), 1);
    pass(3600);
    report(3, 2);
    EXPECT_EQ(value("tlsc_rekey_total{result=\"success\"}"), 2);
    EXPECT_EQ(value("tlsc_rekey_total{result=\"failure\"}"), 1);
    pass(3600);
    report(5, 2);  // the first of the two is over for certain
    EXPECT_EQ(value("tlsc_rekey_total{result=\"failure\"}"), 2);
}

TEST_F(metrics_of, failed_hooks_are_counted_by_name) {
    log.listen([this](const event &e, const json &members) { counted.on_event(e, members); });
    log.add("hook_ended", {{"hook", "up"}, {"status", 0}});
    log.add("hook_ended", {{"hook", "up"}, {"status", 3}});
    log.add("hook_ended", {{"hook", "down"}, {"signal", 9}});
    log.add("hook_failed", {{"hook", "up"}, {"error", "x"}});
    EXPECT_EQ(value("tlsc_hook_failures_total{hook=\"up\"}"), 2);
    EXPECT_EQ(value("tlsc_hook_failures_total{hook=\"down\"}"), 1);
    EXPECT_EQ(value("tlsc_hook_failures_total{hook=\"dns\"}"), 0);
}

TEST_F(metrics_of, what_was_counted_outlives_the_agent) {
    bring_up();
    hear(report::down, "Tunnel down due to socket error");
    known.why.state("gateway-closed", "", "log", now);
    counted.look(now);
    log.listen([this](const event &e, const json &members) { counted.on_event(e, members); });
    log.add("hook_failed", {{"hook", "dns"}});
    json    kept = {{"metrics", counted.save()}};
    metrics next(known, keep);
    next.load(json::parse(kept.dump()));
    EXPECT_EQ(next.text(now), counted.text(now));
    EXPECT_NE(next.text(now).find("tlsc_down_total{reason=\"gateway-closed\"} 1\n"), std::string::npos);
    for (const char *bad : {"null", "{}", "[]", "{\"metrics\":7}",
                            "{\"metrics\":{\"downs\":[1],\"others\":\"x\",\"names\":{\"answered\":-1}}}"}) {
        metrics other(known, keep);
        other.load(json::parse(bad));
        EXPECT_NE(other.text(now).find("tlsc_build_info"), std::string::npos) << bad;
    }
}

TEST_F(metrics_of, a_down_while_no_agent_ran_is_counted_by_the_next) {
    bring_up();
    json      kept = {{"metrics", counted.save()}};
    knowledge later{log, [] { return true; }};
    metrics   next(later, keep);
    next.load(kept);
    later.state.on_daemon_reader(false, now);
    later.why.state("daemon-gone", "", "agent", now);
    next.look(now);
    EXPECT_NE(next.text(now).find("tlsc_down_total{reason=\"daemon-gone\"} 1\n"), std::string::npos);
}

TEST_F(metrics_of, every_family_has_help_type_and_a_sample) {
    bring_up();
    hear_statistics({});
    std::istringstream lines(counted.text(now));
    std::string        family, last;
    size_t             families = 0;
    for (std::string line; std::getline(lines, line); last = line) {
        if (line.starts_with("# HELP ")) {
            EXPECT_FALSE(last.starts_with("#")) << last;
            family = line.substr(7, line.find(' ', 7) - 7);
            families++;
            EXPECT_TRUE(line.ends_with(".")) << line;
        } else if (line.starts_with("# TYPE ")) {
            EXPECT_EQ(line, "# TYPE " + family + (family.ends_with("_total") ? " counter" : " gauge"));
        } else {
            EXPECT_TRUE(line.starts_with(family + "{") || line.starts_with(family + " ")) << line;
        }
    }
    EXPECT_GE(families, 14u);
}

TEST(link_bytes_of, the_loopback_grow_with_what_is_sent) {
    if (system("ip link set lo up") != 0) GTEST_SKIP() << "needs a namespace of its own";
    auto before = read_link_bytes("lo");
    ASSERT_TRUE(before);
    unique_fd   fd(socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_in to{};
    to.sin_family      = AF_INET;
    to.sin_port        = htons(9);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string packet(1000, 'x');
    (void)sendto(fd.get(), packet.data(), packet.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    auto after = read_link_bytes("lo");
    ASSERT_TRUE(after);
    EXPECT_EQ(after->index, before->index);
    EXPECT_GE(after->in - before->in, 1000u);
    EXPECT_GE(after->out - before->out, 1000u);
    EXPECT_FALSE(read_link_bytes("nosuch0"));
    EXPECT_FALSE(read_link_bytes(""));
    EXPECT_FALSE(read_link_bytes(std::string(40, 'x')));
}

// ---- history --------------------------------------------------------------------------------------------------------

TEST_F(history_of, begins_with_unknown_and_tells_each_change_with_its_reason) {
    history past("");
    past.look(known, now);
    pass(100);
    bring_up();
    known.why.last_answer = now;
    past.look(known, now);
    pass(100);
    hear(report::down, "Tunnel down due to socket error");
    known.why.state("gateway-closed", "", "log", now);
    past.look(known, now);
    json all = history_json(past);
    EXPECT_EQ(states_in(all), (std::vector<std::string>{"unknown", "unknown", "up", "down"}));
    EXPECT_EQ(all["states"][0]["at"], all["now"].get<int64_t>() - 86400);
    EXPECT_EQ(all["states"][1]["at"], all["now"].get<int64_t>() - 200);
    EXPECT_EQ(all["states"][2]["at"], all["now"].get<int64_t>() - 100);
    EXPECT_EQ(all["states"][3]["reason"], "gateway-closed");
}

TEST_F(history_of, a_reason_found_a_moment_later_belongs_to_the_same_state) {
    history past("");
    known.state.on_daemon_reader(true, now);
    hear(report::in_progress);
    past.look(known, now);
    pass(1);
    known.why.state("gateway-refused", "", "log", now);
    past.look(known, now);
    EXPECT_EQ(history_json(past)["states"].size(), 2u);
    EXPECT_EQ(history_json(past)["states"][1]["reason"], "gateway-refused");
}

TEST_F(history_of, nobody_wants_a_stopped_tunnel) {
    history past("");
    known.state.on_daemon_reader(true, now);
    known.state.enabled.set(source::inferred, false, now);
    known.why.state("stopped-by-order", "", "message", now);
    past.look(known, now);
    EXPECT_EQ(states_in(history_json(past)).back(), "stopped");
}

TEST_F(history_of, samples_are_differences_of_steps_and_a_step_without_reports_is_left_out) {
    history  past("");
    counters values{};
    now.mono  = 99900 + 1;  // a step begins at 99900
    values[0] = 1000;
    hear_statistics(values);
    past.look(known, now);
    pass(60);
    values[0]  = 1010;
    values[1]  = 7;
    values[4]  = 2;
    values[13] = 5;  // ssl_read_errors_total
    hear_statistics(values);
    past.look(known, now);
    EXPECT_TRUE(history_json(past)["samples"].empty());
    pass(300);
    past.look(known, now);
    pass(300);
    past.look(known, now);
    json samples = history_json(past)["samples"];
    ASSERT_EQ(samples.size(), 1u);
    EXPECT_EQ(samples[0]["packets_in"], 10);
    EXPECT_EQ(samples[0]["packets_out"], 7);
    EXPECT_EQ(samples[0]["invalid"], 2);
    EXPECT_EQ(samples[0]["errors"], 5);
}

TEST_F(history_of, a_clock_that_is_set_moves_everything_and_breaks_nothing) {
    history past(scratch_path("jump.history"));
    past.look(known, now);
    pass(500);
    bring_up();
    known.why.last_answer = now;
    past.look(known, now);
    now.wall += 400ll * 86400 * 1000;
    past.look(known, now);
    json all = history_json(past);
    EXPECT_EQ(all["states"][2]["at"], all["now"]);
    EXPECT_EQ(all["states"][1]["at"], all["now"].get<int64_t>() - 500);
    ASSERT_EQ(past.save(now), "");
    now.wall -= 800ll * 86400 * 1000;
    history next(scratch_path("jump.history"));
    pass(20);
    next.load(now);
    all = history_json(next);
    EXPECT_EQ(all["states"][1]["at"], all["now"].get<int64_t>() - 520);
    EXPECT_EQ(states_in(all), (std::vector<std::string>{"unknown", "unknown", "up", "unknown"}));
}

TEST_F(history_of, outlives_the_agent_and_the_time_between_is_unknown) {
    std::string path = scratch_path("kept.history");
    history     past(path);
    bring_up();
    known.why.last_answer = now;
    past.look(known, now);
    pass(600);
    known.why.last_answer = now;
    hear_statistics({});
    past.look(known, now);
    ASSERT_EQ(past.save(now), "");
    struct stat facts;
    ASSERT_EQ(stat(path.c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 07777, 0600u);
    pass(50);
    history next(path);
    next.load(now);
    next.look(known, now);
    json all = history_json(next);
    EXPECT_EQ(states_in(all), (std::vector<std::string>{"unknown", "up", "unknown", "up"}));
    EXPECT_EQ(all["states"][2]["at"], all["now"].get<int64_t>() - 50);
    EXPECT_EQ(all["samples"], history_json(past)["samples"]);
}

TEST_F(history_of, of_another_boot_is_placed_by_the_wall_and_never_in_the_future) {
    std::string path  = scratch_path("boot.history");
    auto        write = [&](int64_t at) {
        std::ofstream(path) << "{\"schema\":1,\"boot\":\"another\",\"mono\":5,\"now\":" << at + 100
                            << ",\"states\":[{\"at\":" << at
                            << ",\"state\":\"up\",\"reason\":\"\"}],\"samples\":[{\"at\":" << at
                            << ",\"packets_out\":1,\"packets_in\":2,\"errors\":3,\"invalid\":4}]}\n";
        chmod(path.c_str(), 0600);
    };
    write(now.wall / 1000 - 1000);
    history past(path);
    past.load(now);
    json all = history_json(past);
    EXPECT_EQ(states_in(all), (std::vector<std::string>{"unknown", "up", "unknown"}));
    EXPECT_EQ(all["states"][1]["at"], now.wall / 1000 - 1000);
    EXPECT_EQ(all["samples"][0]["errors"], 3);
    write(now.wall / 1000 + 1000);
    history future(path);
    future.load(now);
    EXPECT_EQ(states_in(history_json(future)), (std::vector<std::string>{"unknown"}));
    EXPECT_TRUE(history_json(future)["samples"].empty());
}

TEST_F(history_of, a_file_that_makes_no_sense_is_as_good_as_none) {
    std::string path = scratch_path("bad.history");
    for (const char *bad :
         {"", "[]", "{\"states\":7,\"samples\":[]}", "{\"states\":[],\"samples\":{}}",
          "{\"states\":[7,[],{}],\"samples\":[null]}",
          "{\"now\":1e300,\"mono\":-1e300,\"states\":[{\"at\":1e300,\"state\":\"up\"}],\"samples\":[{\"at\":-1e300}]}",
          "{\"now\":1,\"mono\":1,\"states\":[{\"at\":1,\"state\":\"flying\"}],\"samples\":[]}"}) {
        std::ofstream(path) << bad;
        chmod(path.c_str(), 0600);
        history past(path);
        past.load(now);
        past.look(known, now);
        EXPECT_EQ(states_in(history_json(past)).back(), "unknown") << bad;
    }
    std::ofstream(path)
        << "{\"now\":1700000000,\"mono\":100000,\"states\":[{\"at\":1,\"state\":\"up\"}],\"samples\":[]}";
    chmod(path.c_str(), 0666);  // anybody could have written it
    history past(path);
    past.load(now);
    EXPECT_EQ(states_in(history_json(past)), (std::vector<std::string>{"unknown"}));
}

TEST_F(history_of, a_flapping_day_keeps_its_length_its_outages_and_its_size) {
    history past(scratch_path("flap.history"));
    known.state.on_daemon_reader(true, now);
    past.look(known, now);
    double begun = now.mono;
    for (int i = 0; i < 4000; i++) {
        pass(i == 2001 ? 600 : 10);  // one long time up among short ones
        if (i % 2 == 0) hear(report::in_progress), hear(report::up);
        else hear(report::down, "Tunnel down due to socket error"), known.why.state("gateway-closed", "", "log", now);
        known.why.last_answer = now;
        past.look(known, now);
    }
    json all = history_json(past);
    EXPECT_LE(all["states"].size(), history::most_states + 1);
    EXPECT_LE(past.describe(now).size(), 200u * 1024);
    EXPECT_EQ(all["states"][1]["at"].get<int64_t>(),
              all["now"].get<int64_t>() - static_cast<int64_t>(now.mono - begun));
    size_t  lost    = 0;
    bool    is_long = false;
    int64_t last    = 0;
    for (size_t i = 1; i + 1 < all["states"].size(); i++) {
        const json &each = all["states"][i];
        int64_t     at = each["at"], until = all["states"][i + 1]["at"];
        EXPECT_GE(at, last);
        last = at;
        if (each["state"] == "up" && until - at >= 600) is_long = true;
        lost += each["state"] != "up" ? static_cast<size_t>(until - at) : 0;
    }
    EXPECT_TRUE(is_long);
    EXPECT_GE(lost, 19000u);  // of 40600 seconds it was lost for nearly half
    struct stat facts;
    ASSERT_EQ(past.save(now), "");
    ASSERT_EQ(stat(scratch_path("flap.history").c_str(), &facts), 0);
    EXPECT_LE(facts.st_size, 200 * 1024);
    history next(scratch_path("flap.history"));
    next.load(now);
    EXPECT_GE(history_json(next)["states"].size(), history::most_states - 1);
}

TEST_F(history_of, what_is_older_than_a_day_goes_but_not_the_state_that_reaches_into_it) {
    history past("");
    past.look(known, now);
    bring_up();
    known.why.last_answer = now;
    pass(1);
    known.why.last_answer = now;
    past.look(known, now);
    for (int i = 0; i < 300; i++) {
        pass(300);
        known.why.last_answer = now;
        hear_statistics({});
        past.look(known, now);
    }
    json all = history_json(past);
    EXPECT_EQ(states_in(all), (std::vector<std::string>{"up"}));
    EXPECT_LE(all["states"][0]["at"].get<int64_t>(), all["now"].get<int64_t>() - 86400);
    EXPECT_LE(all["samples"].size(), 288u);
    EXPECT_GE(all["samples"].size(), 286u);
}

TEST_F(history_of, the_file_is_written_at_most_every_ten_seconds) {
    std::string path = scratch_path("often.history");
    history     past(path);
    auto        is_written = [&] {
        bool is = access(path.c_str(), F_OK) == 0;
        (void)unlink(path.c_str());
        return is;
    };
    past.look(known, now);
    EXPECT_TRUE(is_written());
    known.state.on_daemon_reader(true, now);
    hear(report::in_progress);
    pass(5);
    past.look(known, now);
    EXPECT_FALSE(is_written());
    pass(5);
    past.look(known, now);
    EXPECT_TRUE(is_written());
    pass(60);
    past.look(known, now);
    EXPECT_FALSE(is_written());  // nothing new
}

// ---- secrets --------------------------------------------------------------------------------------------------------

TEST(redacted_of, every_text_of_a_value_loses_its_secrets) {
    std::string path = scratch_path("secret.conf");
    std::ofstream(path) << "psk_identity;who\"am-i;1\npsk_key;k\\ey;1\n";
    redactor secrets;
    secrets.hide_conf(path);
    json value = {{"a", "the key k\\ey of who\"am-i"},
                  {"list", {"X-CSTP-Cookie:abcdef\nX-CSTP-DPD:10", "psk_identity:other, x", 7, nullptr}},
                  {"plain", "nothing"}};
    json safe  = redacted(value, secrets);
    EXPECT_EQ(safe["a"], "the key *** of ***");
    EXPECT_EQ(safe["list"][0], "X-CSTP-Cookie:***\nX-CSTP-DPD:10");
    EXPECT_EQ(safe["list"][1], "psk_identity:***, x");
    EXPECT_EQ(safe["list"][2], 7);
    EXPECT_EQ(safe["plain"], "nothing");
    EXPECT_FALSE(secrets.concerns("{\"plain\":\"nothing\"}"));
    EXPECT_TRUE(secrets.concerns(json_line(value["a"])));
}

TEST(describe_conf_of, others_see_neither_key_nor_identity_nor_what_is_under_an_unknown_name) {
    std::string content =
        "server_ip_address;192.0.2.1;1\npsk_identity;me;1\npsk_key;k;1\npsk_kee;oops;1\ngateway_name;gw;0\n";
    json own = describe_conf(content, false), others = describe_conf(content, true);
    EXPECT_EQ(own["entries"][1]["value"], "me");
    EXPECT_EQ(own["entries"][2]["value"], "***");
    EXPECT_EQ(own["entries"][3]["value"], "oops");
    std::vector<std::string> values;
    for (const json &each : others["entries"]) values.push_back(each["value"]);
    EXPECT_EQ(values, (std::vector<std::string>{"192.0.2.1", "***", "***", "***", "gw"}));
}

// ---- the pages ------------------------------------------------------------------------------------------------------

namespace {

class pages_of : public ::testing::Test {
protected:
    void open(const std::string &program = "/bin/false") {
        http_options options;
        options.place.path = scratch_path("http.sock");
        options.program    = program;
        options.limits     = {8, 4, 4096, milliseconds(500), milliseconds(500), milliseconds(5000)};
        pages.reset(wlcctl_make_http_pages(options, "0123456789abcdef"));
        ASSERT_TRUE(pages);
        pages->offer("status", milliseconds(0), [this] { return status; });
        ASSERT_EQ(pages->open(), "");
        ringer = std::thread([this] {
            while (!is_over) {
                pollfd ready = {pages->bell(), POLLIN, 0};
                if (poll(&ready, 1, 5) > 0) pages->serve_bell();
            }
        });
    }
    void TearDown() override {
        is_over = true;
        if (ringer.joinable()) ringer.join();
        pages.reset();
    }
    int ask(const std::string &head) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::string path = scratch_path("http.sock"), text = head + "\r\n\r\n";
        memcpy(address.sun_path, path.data(), path.size());
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        EXPECT_EQ(send(fd, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
        return fd;
    }
    // What comes until the end, or until it holds `part`.
    static std::string hear(int fd, const std::string &part = "", int limit_ms = 4000) {
        std::string all;
        for (pollfd ready = {fd, POLLIN, 0}; part.empty() || all.find(part) == std::string::npos;) {
            char bytes[65536];
            if (poll(&ready, 1, limit_ms) <= 0) break;
            ssize_t count = recv(fd, bytes, sizeof bytes, 0);
            if (count <= 0) break;
            all.append(bytes, static_cast<size_t>(count));
        }
        return all;
    }
    std::string get(const std::string &path, const std::string &until = "", const std::string &header = "") {
        int         fd  = ask("GET " + path + " HTTP/1.1" + header);
        std::string all = hear(fd, until);
        close(fd);
        return all;
    }
    void add_events(uint64_t first, uint64_t last) {
        for (uint64_t i = first; i <= last; i++) pages->add_event(i, "{\"number\":" + std::to_string(i) + "}");
    }

    std::unique_ptr<http_pages> pages;
    std::string                 status = "{\"request\":\"status\"}\n";
    std::thread                 ringer;
    std::atomic<bool>           is_over = false;
};

// The numbers of the events in a stream, in order.
std::vector<uint64_t> numbers_in(const std::string &stream) {
    std::vector<uint64_t> all;
    std::string           mark = "id: 0123456789abcdef:";
    for (size_t at = 0; (at = stream.find(mark, at)) != std::string::npos; at++)
        all.push_back(std::stoull(stream.substr(at + mark.size())));
    return all;
}

}  // namespace

TEST_F(pages_of, the_page_and_the_texts_of_the_board_are_served) {
    open();
    EXPECT_NE(get("/").find("Content-Type: text/html; charset=utf-8\r\n"), std::string::npos);
    EXPECT_NE(get("/").find("</html>"), std::string::npos);
    EXPECT_TRUE(get("/status.json").ends_with("\r\n\r\n{\"request\":\"status\"}\n"));
    std::string missing = get("/metrics");  // nobody offers it here
    EXPECT_NE(missing.find("HTTP/1.1 503 "), std::string::npos);
    json error = json::parse(missing.substr(missing.find("\r\n\r\n")));
    EXPECT_EQ(error["status"], 503);
    EXPECT_EQ(error["ok"], false);
}

TEST_F(pages_of, what_is_not_there_is_told_with_what_is) {
    open();
    std::string answer = get("/%22%00\xff/../status.json");
    EXPECT_NE(answer.find("HTTP/1.1 404 "), std::string::npos);
    json error = json::parse(answer.substr(answer.find("\r\n\r\n")));
    EXPECT_NE(error["error"].get<std::string>().find("/status.json, /conf.json"), std::string::npos);
}

TEST_F(pages_of, events_begin_with_the_last_fifty_and_go_on) {
    open();
    add_events(1, 80);
    int         fd    = ask("GET /events HTTP/1.1");
    std::string first = hear(fd, "{\"number\":80}\n\n");
    EXPECT_EQ(numbers_in(first).front(), 31u);
    EXPECT_EQ(numbers_in(first).size(), 50u);
    add_events(81, 82);
    EXPECT_EQ(numbers_in(hear(fd, "{\"number\":82}\n\n")), (std::vector<uint64_t>{81, 82}));
    close(fd);
}

TEST_F(pages_of, events_go_on_behind_an_id_by_header_or_query) {
    open();
    add_events(1, 80);
    EXPECT_EQ(numbers_in(get("/events?after=0123456789abcdef:77", "80}\n\n")), (std::vector<uint64_t>{78, 79, 80}));
    EXPECT_EQ(numbers_in(get("/events?after=0123456789abcdef:1", "80}\n\n", "\r\nLast-Event-ID: 0123456789abcdef:79")),
              (std::vector<uint64_t>{80}));
    int fd = ask("GET /events?after=0123456789abcdef:9999999 HTTP/1.1");  // beyond the newest: what is to come
    EXPECT_TRUE(numbers_in(hear(fd, "\n\n", 200)).empty());
    add_events(81, 81);
    EXPECT_EQ(numbers_in(hear(fd, "81}\n\n")), (std::vector<uint64_t>{81}));
    close(fd);
}

TEST_F(pages_of, an_id_of_another_stream_or_none_at_all_begins_with_everything) {
    open();
    add_events(1, 60);
    for (const char *id : {"fedcba9876543210:59", "nonsense", "0123456789abcdef:", "0123456789abcdef:-1",
                           "0123456789abcdef:99999999999999999999", ":"})
        EXPECT_EQ(numbers_in(get("/events?after=" + std::string(id), "60}\n\n")).size(), 60u) << id;
}

TEST_F(pages_of, events_that_are_no_longer_held_are_a_gap) {
    open();
    add_events(1, 1100);
    std::string all = get("/events?after=0123456789abcdef:40", "{\"number\":1100}\n\n");
    EXPECT_NE(all.find("event: gap\ndata: {\"from\":41,\"to\":100}\n\nid: 0123456789abcdef:101\n"), std::string::npos);
    EXPECT_EQ(numbers_in(all).size(), 1000u);
    EXPECT_EQ(get("/events", "{\"number\":1100}\n\n").find("event: gap"), std::string::npos);
}

TEST_F(pages_of, a_follower_that_reads_nothing_is_dropped_when_64_kb_wait) {
    open();
    add_events(1, 1);
    int deaf = ask("GET /events HTTP/1.1");
    ASSERT_NE(hear(deaf, "1}\n\n"), "");
    std::string event = "{\"x\":\"" + std::string(4000, 'x') + "\"}";
    for (uint64_t i = 2; i < 600; i++) {  // more than the socket's buffers and 64 KB
        pages->add_event(i, event);
        if (i % 50 == 0) usleep(20000);
    }
    usleep(300000);
    std::string rest = hear(deaf, "", 1000);
    EXPECT_LT(rest.size(), 600u * 1000);  // it was closed before the end
    close(deaf);
}

TEST_F(pages_of, a_report_is_made_one_at_a_time) {
    std::string maker = scratch_path("maker");
    std::ofstream(maker) << "#!/bin/sh\nwhile [ \"$1\" != --out ]; do shift; done\nuntil [ -e " << scratch_path("go")
                         << " ]; do sleep 0.02; done\nprintf archive > \"$2\"\n";
    chmod(maker.c_str(), 0755);
    open(maker);
    int first = ask("GET /report HTTP/1.1");
    usleep(100000);
    EXPECT_NE(get("/report").find("HTTP/1.1 503 "), std::string::npos);
    std::ofstream(scratch_path("go")) << "x";
    std::string answer = hear(first);
    EXPECT_NE(answer.find("Content-Disposition: attachment; filename=\"tlsc-report.tar.gz\"\r\n"), std::string::npos);
    EXPECT_TRUE(answer.ends_with("\r\n\r\narchive"));
    close(first);
    EXPECT_TRUE(get("/report").ends_with("archive"));
}

TEST_F(pages_of, a_report_that_fails_or_is_not_wanted_any_more_leaves_nothing) {
    std::string maker = scratch_path("sleeper");
    std::ofstream(maker) << "#!/bin/sh\necho $$ > " << scratch_path("pid") << "\nexec sleep 60\n";
    chmod(maker.c_str(), 0755);
    open(maker);
    int fd  = ask("GET /report HTTP/1.1");
    int pid = 0;
    for (int i = 0; i < 500 && pid == 0; i++) {
        usleep(5000);
        std::ifstream(scratch_path("pid")) >> pid;
    }
    ASSERT_GT(pid, 0);
    close(fd);
    bool is_gone = false;
    for (int i = 0; i < 500 && !is_gone; i++) {
        usleep(5000);
        is_gone = kill(pid, 0) != 0;
    }
    EXPECT_TRUE(is_gone);
    TearDown();
    is_over = false;
    open("/bin/false");
    EXPECT_NE(get("/report").find("HTTP/1.1 500 "), std::string::npos);
    EXPECT_NE(system("ls -d /tmp/wlcctl-http-* > /dev/null 2>&1"), 0);
}
