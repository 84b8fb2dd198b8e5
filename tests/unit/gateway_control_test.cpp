#include "gateway_harness.h"

// The control protocol itself: lines, ids, events, waits, garbage.

using namespace gw;
using namespace gwtest;

TEST(gateway_control, garbage_is_answered_and_changes_nothing) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    for (const char *line : {"{",
                             "[]",
                             "17",
                             "null",
                             "\"status\"",
                             "{}",
                             R"({"cmd":7})",
                             R"({"cmd":"nonsense"})",
                             R"({"cmd":"status","more":1})",
                             R"({"cmd":"close"})",
                             R"({"cmd":"close","client":99})",
                             R"({"cmd":"close","client":-1})",
                             R"({"cmd":"close","client":"x"})",
                             R"({"cmd":"dpd"})",
                             R"({"cmd":"dpd","on":"yes"})",
                             R"({"cmd":"set","header":"","value":"1"})",
                             R"({"cmd":"set","header":"X"})",
                             R"({"cmd":"set","header":"X","value":[1]})",
                             R"({"cmd":"config","mode":"odd"})",
                             R"({"cmd":"config","mode":"replace"})",
                             R"({"cmd":"config","mode":"malform","hex":"abc"})",
                             R"({"cmd":"accept","mode":""})",
                             R"({"cmd":"events","since":"x"})",
                             R"({"cmd":"wait","event":7})",
                             R"({"cmd":"wait","event":"x","match":[]})",
                             R"({"cmd":"subscribe","events":[1]})",
                             R"({"cmd":"send_packet","hex":"zz"})",
                             R"({"cmd":"config","mode":"delay","ms":99999999999})",
                             "\xff\xfe"}) {
        json answer = controller.ask(line);
        EXPECT_EQ(answer["ok"], false) << line;
        EXPECT_TRUE(answer["error"].is_string()) << line;
    }
    EXPECT_TRUE(controller.ok(R"({"cmd":"status"})"));
}

TEST(gateway_control, answers_repeat_the_id_and_keep_the_order) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    controller.send_line(R"({"cmd":"status","id":1})"
                         "\n"
                         R"({"cmd":"none","id":{"a":[2]}})"
                         "\n\n"
                         R"({"cmd":"counters"})");
    EXPECT_EQ(controller.next()["id"], 1);
    EXPECT_EQ(controller.next()["id"], (json{{"a", {2}}}));
    EXPECT_FALSE(controller.next().contains("id"));
}

TEST(gateway_control, several_controllers_are_served_and_only_subscribers_get_events) {
    test_gateway gateway;
    auto         listener = gateway.controller();
    auto         other    = gateway.controller();
    listener.ok(R"({"cmd":"subscribe","events":["tls_up","closed"]})");
    { test_client client(gateway.port()); }
    json up = listener.next(), closed = listener.next();
    EXPECT_EQ(up["event"], "tls_up");
    EXPECT_EQ(closed["event"], "closed");
    EXPECT_GT(closed["seq"], up["seq"]);
    EXPECT_GE(closed["mono_ms"].get<double>(), up["mono_ms"].get<double>());
    EXPECT_EQ(up["wall"].get<std::string>().size(), std::string("2026-01-01T00:00:00.000000Z").size());
    EXPECT_TRUE(other.next_is_answer_to_status());
}

TEST(gateway_control, a_subscription_can_start_in_the_past_and_end) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    { test_client client(gateway.port()); }
    controller.event("closed");
    controller.send_line(R"({"cmd":"subscribe","since":0})");
    EXPECT_EQ(controller.next()["seq"], 1);
    EXPECT_EQ(controller.next()["seq"], 2);
    EXPECT_EQ(controller.next()["seq"], 3);
    EXPECT_EQ(controller.next()["ok"], true);
    controller.ok(R"({"cmd":"unsubscribe"})");
    { test_client client(gateway.port()); }
    EXPECT_TRUE(controller.next_is_answer_to_status());
}

TEST(gateway_control, events_are_numbered_without_gaps_and_can_be_polled) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    { test_client client(gateway.port()); }
    controller.event("closed");
    json all = controller.ask(R"({"cmd":"events","since":0})");
    ASSERT_EQ(all["events"].size(), 3u);
    for (size_t i = 0; i < 3; i++) EXPECT_EQ(all["events"][i]["seq"], i + 1);
    EXPECT_EQ(all["seq"], 3);
    EXPECT_EQ(all["lost"], 0);
    EXPECT_EQ(controller.ask(R"({"cmd":"events","since":1,"limit":1})")["events"][0]["event"], "tls_up");
    EXPECT_EQ(controller.ask(R"({"cmd":"events","since":0,"events":["closed"]})")["events"].size(), 1u);
    EXPECT_EQ(controller.ask(R"({"cmd":"events","since":99})")["events"].size(), 0u);
}

TEST(gateway_control, a_wait_ends_with_the_event_or_its_time_and_lets_other_requests_pass) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    controller.send_line(R"({"cmd":"wait","event":"tls_up","id":"w"})");
    EXPECT_TRUE(controller.ok(R"({"cmd":"status"})"));
    test_client client(gateway.port());
    json        answer = controller.next();
    EXPECT_EQ(answer["id"], "w");
    EXPECT_EQ(answer["event_data"]["event"], "tls_up");
    json late = controller.ask(R"({"cmd":"wait","event":"closed","timeout_ms":50,"id":2})");
    EXPECT_EQ(late["error"], "timeout");
    EXPECT_EQ(late["id"], 2);
}

TEST(gateway_control, a_controller_that_leaves_with_a_wait_and_a_subscription_harms_nobody) {
    test_gateway gateway;
    {
        auto controller = gateway.controller();
        controller.ok(R"({"cmd":"subscribe"})");
        controller.send_line(R"({"cmd":"wait","event":"never","timeout_ms":100})");
    }
    { test_client client(gateway.port()); }
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    auto controller = gateway.controller();
    EXPECT_TRUE(controller.ok(R"({"cmd":"status"})"));
}

TEST(gateway_control, the_newest_ten_thousand_events_are_kept) {
    event_log log;
    for (int i = 0; i < 10003; i++) log.emit("sent", 0);
    EXPECT_EQ(log.lost(0), 3u);
    EXPECT_EQ(log.lost(3), 0u);
    uint64_t first = 0;
    log.visit(0, [&](const json &event) {
        first = event["seq"].get<uint64_t>();
        return false;
    });
    EXPECT_EQ(first, 4u);
}

TEST(gateway_control, a_socket_in_use_is_not_taken_and_a_leftover_is) {
    test_gateway   gateway;
    event_loop     loop;
    tunnel_gateway second(options_from({"--listen", "127.0.0.1:0", "--no-tun", "--psk-file", gateway.dir.file("psk")}),
                          loop);
    EXPECT_THROW(control_socket(gateway.dir.file("control"), second, loop), runtime_failure);
    EXPECT_TRUE(gateway.controller().ok(R"({"cmd":"status"})"));

    std::string left = gateway.dir.file("left");
    {
        unique_fd   fd(socket(AF_UNIX, SOCK_STREAM, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        left.copy(address.sun_path, sizeof address.sun_path - 1);
        ASSERT_EQ(bind(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    }
    EXPECT_NO_THROW(control_socket(left, second, loop));
    EXPECT_FALSE(std::filesystem::exists(left));
}
