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
                             R"({"request":7})",
                             R"({"request":"nonsense"})",
                             R"({"request":"status","more":1})",
                             R"({"request":"close"})",
                             R"({"request":"close","client":99})",
                             R"({"request":"close","client":-1})",
                             R"({"request":"close","client":"x"})",
                             R"({"request":"dpd"})",
                             R"({"cmd":"status"})",  // the member is called request
                             R"({"request":"dpd","on":"yes"})",
                             R"({"request":"set","header":"","value":"1"})",
                             R"({"request":"set","header":"X"})",
                             R"({"request":"set","header":"X","value":[1]})",
                             R"({"request":"config","mode":"odd"})",
                             R"({"request":"config","mode":"replace"})",
                             R"({"request":"config","mode":"malform","hex":"abc"})",
                             R"({"request":"accept","mode":""})",
                             R"({"request":"events","since":"x"})",
                             R"({"request":"wait","events":7})",
                             R"({"request":"wait","events":"closed","match":[]})",
                             R"({"request":"events","follow":true,"events":["nonsense"]})",
                             R"({"request":"send_packet","hex":"zz"})",
                             R"({"request":"config","mode":"delay","ms":99999999999})",
                             "\xff\xfe"}) {
        json answer = controller.ask(line);
        EXPECT_EQ(answer["ok"], false) << line;
        EXPECT_TRUE(answer["error"].is_string()) << line;
    }
    EXPECT_TRUE(controller.ok(R"({"request":"status"})"));
}

TEST(gateway_control, answers_repeat_the_id_and_keep_the_order) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    controller.send_line(R"({"request":"status","id":1})"
                         "\n"
                         R"({"request":"none","id":{"a":[2]}})"
                         "\n\n"
                         R"({"request":"counters"})");
    EXPECT_EQ(controller.next()["id"], 1);
    EXPECT_EQ(controller.next()["id"], (json{{"a", {2}}}));
    EXPECT_FALSE(controller.next().contains("id"));
}

TEST(gateway_control, several_controllers_are_served_and_only_subscribers_get_events) {
    test_gateway gateway;
    auto         listener = gateway.controller();
    auto         other    = gateway.controller();
    listener.ok(R"({"request":"events","follow":true,"since":0,"events":["tls_up","closed"]})");
    { test_client client(gateway.port()); }
    json up = listener.next(), closed = listener.next();
    EXPECT_EQ(up["event"], "tls_up");
    EXPECT_EQ(closed["event"], "closed");
    EXPECT_GT(closed["number"], up["number"]);
    EXPECT_GE(closed["mono"].get<double>(), up["mono"].get<double>());
    EXPECT_EQ(up["time"].get<std::string>().size(), std::string("2026-01-01T00:00:00.000Z").size());
    EXPECT_TRUE(other.next_is_answer_to_status());
}

TEST(gateway_control, a_subscription_can_start_in_the_past_and_end) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    { test_client client(gateway.port()); }
    controller.event("closed");
    controller.ok(R"({"request":"events","follow":true})");
    for (int number : {1, 2, 3}) EXPECT_EQ(controller.next()["number"], number);
    controller.ok(R"({"request":"events","follow":false})");
    { test_client client(gateway.port()); }
    EXPECT_TRUE(controller.next_is_answer_to_status());
}

TEST(gateway_control, events_are_numbered_without_gaps_and_can_be_polled) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    { test_client client(gateway.port()); }
    controller.event("closed");
    json all = controller.ask(R"({"request":"events","since":0})");
    ASSERT_EQ(all["events"].size(), 3u);
    for (size_t i = 0; i < 3; i++) EXPECT_EQ(all["events"][i]["number"], i + 1);
    EXPECT_EQ(all["last"], 3);
    EXPECT_EQ(all["lost"], 0);
    EXPECT_EQ(controller.ask(R"({"request":"events","since":1,"count":1})")["events"][0]["event"], "tls_up");
    EXPECT_EQ(controller.ask(R"({"request":"events","since":0,"events":["closed"]})")["events"].size(), 1u);
    EXPECT_EQ(controller.ask(R"({"request":"events","since":99})")["events"].size(), 0u);
}

TEST(gateway_control, a_wait_ends_with_the_event_or_its_time_and_lets_other_requests_pass) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    controller.send_line(R"({"request":"wait","events":"tls_up","id":"w"})");
    EXPECT_TRUE(controller.ok(R"({"request":"status"})"));
    test_client client(gateway.port());
    json        answer = controller.next();
    EXPECT_EQ(answer["id"], "w");
    EXPECT_EQ(answer["matched"]["event"], "tls_up");
    json late = controller.ask(R"({"request":"wait","events":"closed","timeout":0.05,"id":2})");
    EXPECT_EQ(late["exit"], common::exit_not_reached);
    EXPECT_EQ(late["id"], 2);
}

TEST(gateway_control, a_controller_that_leaves_with_a_wait_and_a_subscription_harms_nobody) {
    test_gateway gateway;
    {
        auto controller = gateway.controller();
        controller.ok(R"({"request":"events","follow":true})");
        controller.send_line(R"({"request":"wait","events":"data","timeout":0.1})");
    }
    { test_client client(gateway.port()); }
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    auto controller = gateway.controller();
    EXPECT_TRUE(controller.ok(R"({"request":"status"})"));
}

TEST(gateway_control, the_newest_ten_thousand_events_are_kept) {
    event_journal journal;
    for (int i = 0; i < 10003; i++) journal.emit("sent", 0);
    EXPECT_EQ(journal.log().lost(0), 3u);
    EXPECT_EQ(journal.log().lost(3), 0u);
    uint64_t first = 0;
    journal.log().each_since(0, [&](const common::event &event) {
        first = event.number;
        return false;
    });
    EXPECT_EQ(first, 4u);
}

TEST(gateway_control, every_answer_tells_schema_program_version_and_stream_and_help_lists_every_request) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    json         answer     = controller.ask(R"({"request":"help"})");
    EXPECT_EQ(answer["schema"], 1);
    EXPECT_EQ(answer["program"], "tlsc-gateway");
    EXPECT_EQ(answer["version"], TLSC_GATEWAY_VERSION);
    EXPECT_EQ(answer["stream"], controller.ask(R"({"request":"status"})")["stream"]);
    std::set<std::string> names;
    for (const json &request : answer["requests"]) {
        names.insert(request["request"].get<std::string>());
        EXPECT_FALSE(request["help"].get<std::string>().empty());
        for (const json &member : request["members"]) EXPECT_FALSE(member["help"].get<std::string>().empty());
    }
    EXPECT_EQ(names,
              (std::set<std::string>{"help",        "events",      "wait",       "status", "clients", "counters",
                                     "leases",      "data_events", "reload",     "fault",  "faults",  "dpd",
                                     "config",      "set",         "unset",      "accept", "silence", "send_frame",
                                     "send_record", "send_packet", "send_bytes", "close"}));
    EXPECT_EQ(answer["events"].size(), 17u);
}

TEST(gateway_control, what_does_not_exist_is_refused_with_what_does) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    auto         refusal    = [&](const char *line) { return controller.ask(line)["error"].get<std::string>(); };
    EXPECT_NE(refusal(R"({"request":"statsu"})").find("status, clients"), std::string::npos);
    EXPECT_NE(refusal(R"({"request":"close","hwo":"rst"})").find("client, how"), std::string::npos);
    EXPECT_NE(refusal(R"({"request":"close","how":"rts"})").find("fin, notify, rst"), std::string::npos);
    EXPECT_NE(refusal(R"({"request":"accept","mode":"stal"})").find("normal, refuse"), std::string::npos);
    EXPECT_NE(refusal(R"({"request":"config","mode":"dorp"})").find("malform, release"), std::string::npos);
    EXPECT_NE(refusal(R"({"request":"wait","events":"tlsup"})").find("tcp_accept"), std::string::npos);
}

TEST(gateway_control, a_socket_in_use_is_not_taken_and_a_leftover_is) {
    test_gateway   gateway;
    common::loop   loop;
    tunnel_gateway second(options_from({"--listen", "127.0.0.1:0", "--no-tun", "--psk-file", gateway.dir.file("psk")}),
                          loop);
    EXPECT_THROW(serve_control(gateway.dir.file("control"), second, loop), std::runtime_error);
    EXPECT_TRUE(gateway.controller().ok(R"({"request":"status"})"));

    std::string left = gateway.dir.file("left");
    {
        common::unique_fd fd(socket(AF_UNIX, SOCK_STREAM, 0));
        sockaddr_un       address{};
        address.sun_family = AF_UNIX;
        left.copy(address.sun_path, sizeof address.sun_path - 1);
        ASSERT_EQ(bind(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    }
    EXPECT_NO_THROW(serve_control(left, second, loop));
    EXPECT_FALSE(std::filesystem::exists(left));
}
