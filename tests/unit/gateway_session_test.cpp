#include "gateway_harness.h"

// Clients and controllers against a running gateway without an interface: every record as it comes off the wire.

using namespace gw;
using namespace gwtest;

namespace {

const std::string dpd_response("STF\1\0\0\4\0", 8);
const std::string site = "10.9.0.1";

// A configured client; `inner` is the address it was given.
struct up_client {
    explicit up_client(test_gateway &gateway, const std::string &request = "X-CSTP-Device-ID:d1\n")
        : client(gateway.port()),
          response(client.configure(request)),
          inner(line_of(response, "X-CSTP-Address-Client")) {}
    test_client client;
    std::string response;
    std::string inner;
};

std::string hex(const std::string &text) { return to_hex(bytes_of(text)); }

std::string record_request(const std::string &hex_or_list, const std::string &more = "") {
    return R"({"request":"send_record","hex":)" + hex_or_list + more + "}";
}

}  // namespace

TEST(gateway_session, response_has_the_documented_lines_in_order) {
    test_gateway gateway({"--dns", "10.9.0.1", "--dns", "10.9.0.2", "--cookie", "abc"});
    up_client    up(gateway);
    EXPECT_EQ(
        up.response,
        "X-CSTP-Address:10.9.0.0\nX-CSTP-Prefix-Length:24\nX-CSTP-DPD:10\nX-CSTP-Address-Client:10.9.0.2\n"
        "X-CSTP-Retry-Time:20\nX-CSTP-Rekey-Time:3600\nX-CSTP-Cookie:abc\nX-CSTP-DNS:10.9.0.1\nX-CSTP-DNS:10.9.0.2\n");
}

TEST(gateway_session, every_header_can_be_omitted) {
    test_gateway gateway({"--prefix", "omit", "--prefix-length", "omit", "--dpd", "omit", "--retry", "omit", "--rekey",
                          "omit", "--cookie", "none"});
    up_client    up(gateway);
    EXPECT_EQ(up.response, "X-CSTP-Address-Client:10.9.0.2\n");
}

TEST(gateway_session, request_is_reported_verbatim) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    std::string  request    = "X-CSTP-Device-ID:\nX-CSTP-Device-Name:n\nX-Unknown:\x01\n";
    up_client    up(gateway, request);
    json         event = controller.event("config_req");
    EXPECT_EQ(event["text"], request);
    EXPECT_EQ(event["hex"], hex(request));
    EXPECT_EQ(event["device_id"], "");
    EXPECT_EQ(event["name"], "n");
    EXPECT_TRUE(event["serial"].is_null());
}

TEST(gateway_session, dpd_requests_are_answered_unless_told_otherwise) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    up_client    up(gateway);
    up.client.send(frame_dpd_request);
    EXPECT_EQ(up.client.read().text(), dpd_response);
    controller.ok(R"({"request":"dpd","on":false})");
    up.client.send(frame_dpd_request);
    EXPECT_TRUE(up.client.read(100).bytes.empty());
    controller.ok(R"({"request":"dpd","on":true,"client":1})");
    up.client.send(frame_dpd_request);
    EXPECT_EQ(up.client.read().text(), dpd_response);
    EXPECT_EQ(controller.counter("dpd_req"), 3u);
    EXPECT_EQ(controller.counter("dpd_resp"), 2u);
}

TEST(gateway_session, frames_may_come_split_and_joined) {
    test_gateway gateway;
    up_client    up(gateway);
    byte_vector  frame = make_frame(frame_dpd_request, {});
    byte_vector  five;
    for (int i = 0; i < 5; i++) five.insert(five.end(), frame.begin(), frame.end());
    up.client.write_record(byte_vector(five.begin(), five.begin() + 19));
    up.client.write_record(byte_vector(five.begin() + 19, five.begin() + 20));
    up.client.write_record(byte_vector(five.begin() + 20, five.end()));
    for (int i = 0; i < 5; i++) EXPECT_EQ(up.client.read().text(), dpd_response);
}

TEST(gateway_session, unknown_frame_type_is_dropped_and_bad_magic_or_version_closes) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    up_client    up(gateway);
    up.client.send(7, "abc");
    EXPECT_EQ(controller.event("frame_invalid")["action"], "dropped");
    up.client.send(frame_dpd_request);
    EXPECT_EQ(up.client.read().text(), dpd_response);
    up.client.write_record(*from_hex("5354460200000300"));
    EXPECT_TRUE(up.client.read().ended);
    EXPECT_EQ(controller.event("frame_invalid", R"(,"match":{"action":"closed"})")["reason"], "bad_version");

    up_client other(gateway);
    other.client.write_record(*from_hex("00"));
    EXPECT_TRUE(other.client.read().ended);
    EXPECT_EQ(controller.event("closed", R"(,"match":{"client":2})")["detail"], "frame_invalid");
}

TEST(gateway_session, packets_with_another_source_or_before_the_response_are_dropped_and_counted) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    controller.ok(R"({"request":"data_events","on":true})");
    test_client client(gateway.port());
    auto        send_packet = [&](const byte_vector &packet) { client.send(frame_data, std::string(text_of(packet))); };
    send_packet(udp_packet("10.9.0.2", site, 9, "early"));
    client.configure();
    byte_vector good = udp_packet("10.9.0.2", site, 9, "good");
    send_packet(good);
    send_packet(udp_packet("10.9.0.3", site, 9, "other"));
    send_packet(*from_hex("45"));
    send_packet({});
    byte_vector solicitation(48, 0);
    solicitation[0]  = 0x60;
    solicitation[6]  = 58;
    solicitation[40] = 133;
    send_packet(solicitation);
    solicitation[40] = 128;
    send_packet(solicitation);
    ASSERT_TRUE(controller.counts("drop_v6", 1));
    EXPECT_EQ(controller.counter("drop_early"), 1u);
    EXPECT_EQ(controller.counter("data_rx"), 1u);
    EXPECT_EQ(controller.counter("data_bytes_rx"), good.size());
    EXPECT_EQ(controller.counter("drop_source"), 1u);
    EXPECT_EQ(controller.counter("drop_malformed"), 2u);
    EXPECT_EQ(controller.counter("drop_v6_rs"), 1u);
    json event = controller.event("data", R"(,"match":{"verdict":"ok"})");
    EXPECT_EQ(event["hex"], to_hex(good));
    EXPECT_EQ(event["dir"], "up");
}

TEST(gateway_session, packets_are_routed_by_destination_one_frame_per_record) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    up_client    first(gateway, "X-CSTP-Device-ID:a\n");
    up_client    second(gateway, "X-CSTP-Device-ID:b\n");
    ASSERT_NE(first.inner, second.inner);
    byte_vector packet = udp_packet(site, first.inner, 9, "down");
    controller.ok(R"({"request":"send_packet","count":3,"hex":")" + to_hex(packet) + "\"}");
    for (int i = 0; i < 3; i++) EXPECT_EQ(first.client.read().bytes, make_frame(frame_data, packet));
    EXPECT_TRUE(second.client.read(50).bytes.empty());
    EXPECT_EQ(controller.ask(R"({"request":"send_packet","hex":")" + to_hex(udp_packet(site, "10.9.0.77", 9, "")) +
                             "\"}")["ok"],
              false);
}

TEST(gateway_session, a_rekeying_client_keeps_address_and_cookie_and_is_served_on_the_newest_configured_connection) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    up_client    old(gateway);
    std::string  cookie = line_of(old.response, "X-CSTP-Cookie");
    EXPECT_EQ(cookie.size(), 10u);
    std::string packet = R"({"request":"send_packet","hex":")" + to_hex(udp_packet(site, old.inner, 9, "x")) + "\"}";

    auto fresh = std::make_unique<test_client>(gateway.port());
    controller.ok(packet);  // not configured yet: the old one gets it
    EXPECT_FALSE(old.client.read().bytes.empty());
    std::string response = fresh->configure("X-CSTP-Address:" + old.inner +
                                            "\nX-CSTP-Device-ID:d1\nX-CSTP-Cookie:" + cookie + "\n");
    EXPECT_EQ(line_of(response, "X-CSTP-Address-Client"), old.inner);
    EXPECT_EQ(line_of(response, "X-CSTP-Cookie"), cookie);
    EXPECT_EQ(controller.event("config_req", R"(,"match":{"client":2})")["cookie_known"], true);

    controller.ok(packet);
    EXPECT_FALSE(fresh->read().bytes.empty());
    EXPECT_TRUE(old.client.read(50).bytes.empty());
    old.client.send(frame_data, std::string(text_of(udp_packet(old.inner, site, 9, "old"))));
    fresh->send(frame_data, std::string(text_of(udp_packet(old.inner, site, 9, "new"))));
    EXPECT_TRUE(controller.counts("data_rx", 2));

    fresh.reset();
    controller.event("closed", R"(,"match":{"client":2})");
    controller.ok(packet);  // the new one is gone: the old one serves again
    EXPECT_FALSE(old.client.read().bytes.empty());
}

TEST(gateway_session, response_can_be_held_and_released) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    controller.ok(R"({"request":"config","mode":"hold"})");
    test_client client(gateway.port());
    client.send(frame_config_request, "X-CSTP-Device-ID:d\n");
    EXPECT_TRUE(client.read(100).bytes.empty());
    EXPECT_EQ(controller.ask(R"({"request":"clients"})")["clients"][0]["state"], "held");
    EXPECT_EQ(controller.ask(R"({"request":"config","mode":"release"})")["released"], 1);
    EXPECT_EQ(client.read().bytes.at(6), frame_config_response);
    EXPECT_EQ(controller.ask(R"({"request":"clients"})")["clients"][0]["state"], "up");
    EXPECT_EQ(controller.ask(R"({"request":"status"})")["config"], "normal");
}

TEST(gateway_session, response_can_be_delayed_dropped_replaced_and_malformed_for_once) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    test_client  client(gateway.port());
    std::string  request = "X-CSTP-Device-ID:d\n";

    controller.ok(R"({"request":"config","mode":"delay","ms":200,"once":true})");
    auto before = std::chrono::steady_clock::now();
    EXPECT_NE(client.configure(request), "");
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(190));

    controller.ok(R"({"request":"config","mode":"drop","once":true})");
    client.send(frame_config_request, request);
    EXPECT_TRUE(client.read(100).bytes.empty());

    controller.ok(R"({"request":"config","mode":"replace","once":true,"text":"X-CSTP-Address-Client:10.9.0.99\n"})");
    EXPECT_EQ(client.configure(request), "X-CSTP-Address-Client:10.9.0.99\n");
    EXPECT_EQ(controller.ask(R"({"request":"clients"})")["clients"][0]["inner"], "10.9.0.99");

    controller.ok(R"({"request":"config","mode":"malform","once":true,"hex":"5354 46"})");
    client.send(frame_config_request, request);
    EXPECT_EQ(client.read().text(), "STF");

    EXPECT_EQ(line_of(client.configure(request), "X-CSTP-DPD"), "10");
}

TEST(gateway_session, headers_can_be_set_for_one_response_or_all) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    test_client  client(gateway.port());
    controller.ok(R"({"request":"set","header":"X-CSTP-Rekey-Time:","value":"60","once":true})");
    controller.ok(R"({"request":"set","header":"X-CSTP-DNS","value":["1.1.1.1","nonsense","2.2.2.2"]})");
    controller.ok(R"({"request":"set","header":"X-CSTP-Cookie","value":null})");
    std::string first = client.configure();
    EXPECT_EQ(line_of(first, "X-CSTP-Rekey-Time"), "60");
    EXPECT_NE(first.find("X-CSTP-DNS:1.1.1.1\nX-CSTP-DNS:nonsense\nX-CSTP-DNS:2.2.2.2\n"), std::string::npos);
    EXPECT_EQ(line_of(first, "X-CSTP-Cookie"), "(none)");
    std::string second = client.configure();
    EXPECT_EQ(line_of(second, "X-CSTP-Rekey-Time"), "3600");
    controller.ok(R"({"request":"unset"})");
    EXPECT_NE(line_of(client.configure(), "X-CSTP-Cookie"), "(none)");
}

TEST(gateway_session, a_fatal_dpd_is_refused_on_every_way_unless_allowed) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    test_client  client(gateway.port());
    std::string  response = "STF\1" + std::string("\0\x0d\2\0", 4) + "X-CSTP-DPD:4\n";
    for (const std::string &line : {
             std::string(R"({"request":"set","header":"X-CSTP-DPD","value":"4"})"),
             std::string(R"({"request":"set","header":"X-CSTP-DPD","value":0})"),
             std::string(R"({"request":"set","header":"X-CSTP-Address","value":"1.1.1.1\nX-CSTP-DPD:4"})"),
             std::string(R"({"request":"config","mode":"replace","text":"X-CSTP-DPD:x"})"),
             std::string(R"({"request":"config","mode":"malform","hex":")") + hex(response) + "\"}",
             std::string(R"({"request":"send_frame","raw":")") + hex(response) + "\"}",
             record_request("[\"" + hex(response.substr(0, 14)) + "\",\"" + hex(response.substr(14)) + "\"]"),
         })
        EXPECT_EQ(controller.ask(line)["ok"], false) << line;
    EXPECT_EQ(line_of(client.configure(), "X-CSTP-DPD"), "10");

    test_gateway reckless({"--allow-fatal"});
    EXPECT_TRUE(reckless.controller().ok(R"({"request":"set","header":"X-CSTP-DPD","value":"4"})"));
}

class gateway_records : public testing::TestWithParam<std::pair<const char *, bool>> {};

TEST_P(gateway_records, records_of_any_content_leave_the_stream_intact) {
    test_gateway                 gateway;
    auto                         controller = gateway.controller();
    test_client::client_settings settings;
    settings.ciphers          = GetParam().first;
    settings.encrypt_then_mac = GetParam().second;
    test_client client(gateway.port(), settings);
    ASSERT_TRUE(client.up) << client.reason;

    controller.ok(record_request(R"(["aa","","bbcc",""])"));
    EXPECT_EQ(to_hex(client.read().bytes), "aa");
    EXPECT_EQ(to_hex(client.read().bytes), "bbcc");
    controller.ok(record_request("\"" + std::string(2 * 16384, '5') + "\""));
    EXPECT_EQ(client.read().bytes.size(), 16384u);
    controller.ok(record_request("\"010a\"", R"(,"type":21)"));  // a warning alert
    client.send(frame_dpd_request);
    EXPECT_EQ(client.read().text(), dpd_response);
    controller.ok(record_request("\"" + std::string(2 * 16385, '5') + "\""));
    auto got = client.read();
    EXPECT_TRUE(got.ended);
    EXPECT_EQ(controller.event("alert_rx")["code"], SSL3_AD_UNEXPECTED_MESSAGE + 12)
        << got.reason;  // record_overflow, 22
}

INSTANTIATE_TEST_SUITE_P(
    ciphers, gateway_records,
    testing::Values(std::pair("PSK-AES256-GCM-SHA384", true), std::pair("PSK-AES128-GCM-SHA256", true),
                    std::pair("PSK-AES256-CBC-SHA", true), std::pair("PSK-AES256-CBC-SHA", false),
                    std::pair("PSK-AES128-CBC-SHA256", true), std::pair("PSK-AES128-CBC-SHA256", false),
                    std::pair("DHE-PSK-AES256-CBC-SHA384", true), std::pair("DHE-PSK-AES256-CBC-SHA384", false),
                    std::pair("ECDHE-PSK-CHACHA20-POLY1305", true)));

TEST(gateway_session, a_cipher_that_cannot_be_crafted_keeps_its_connection) {
    test_gateway                 gateway;
    auto                         controller = gateway.controller();
    test_client::client_settings settings;
    settings.ciphers = "PSK-AES256-CCM";
    test_client client(gateway.port(), settings);
    EXPECT_EQ(controller.ask(record_request("\"\""))["ok"], false);
    client.send(frame_dpd_request);
    EXPECT_EQ(client.read().text(), dpd_response);
}

TEST(gateway_session, a_record_can_arrive_in_two_parts) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    up_client    up(gateway);
    auto         before = std::chrono::steady_clock::now();
    controller.ok(record_request("\"41424344\"", R"(,"cut":7,"gap_ms":150)"));
    EXPECT_EQ(up.client.read().text(), "ABCD");
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(140));
}

TEST(gateway_session, frames_can_be_sent_with_any_header) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    up_client    up(gateway);
    controller.ok(
        R"({"request":"send_frame","type":9,"payload":"6162","version":7,"length":65535,"reserved":1,"magic":"XYZ"})");
    EXPECT_EQ(to_hex(up.client.read().bytes), "58595a07ffff09016162");
    controller.ok(R"({"request":"send_frame","type":4})");
    EXPECT_EQ(up.client.read().text(), dpd_response);
}

TEST(gateway_session, bytes_past_tls_break_the_client) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    up_client    up(gateway);
    controller.ok(R"({"request":"send_bytes","hex":"00112233445566778899"})");
    auto got = up.client.read();
    EXPECT_TRUE(got.ended);
    EXPECT_EQ(got.error, SSL_ERROR_SSL);
}

TEST(gateway_session, connections_end_the_way_that_is_asked_for) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    auto         end        = [&](const std::string &how) {
        up_client up(gateway);
        controller.ok(R"({"request":"close","how":)" + how + "}");
        return up.client.read();
    };
    auto fin = end(R"("fin")");
    EXPECT_TRUE(fin.ended);
    EXPECT_EQ(fin.reason, "unexpected eof while reading");
    EXPECT_EQ(end(R"("notify")").error, SSL_ERROR_ZERO_RETURN);
    errno = 0;
    EXPECT_EQ(end(R"("rst")").error, SSL_ERROR_SYSCALL);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_EQ(end(R"("alert","code":40)").reason, "sslv3 alert handshake failure");
    EXPECT_EQ(controller.event("closed", R"(,"match":{"how":"rst"})")["by"], "gateway");
}

TEST(gateway_session, a_half_closed_connection_is_still_read) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    up_client    up(gateway);
    controller.ok(R"({"request":"close","how":"half"})");
    EXPECT_EQ(controller.ask(R"({"request":"clients"})")["clients"][0]["state"], "half");
    up.client.send(frame_dpd_request);
    EXPECT_TRUE(controller.counts("dpd_req", 1));
    EXPECT_EQ(controller.ask(R"({"request":"send_frame","type":4})")["ok"], false);
    EXPECT_TRUE(up.client.read().ended);
}

TEST(gateway_session, the_peers_end_is_told_apart) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    { up_client up(gateway); }  // quiet shutdown: a bare FIN
    EXPECT_EQ(controller.event("closed", R"(,"match":{"client":1})")["how"], "fin");
    {
        up_client     up(gateway);
        struct linger hard = {1, 0};
        setsockopt(up.client.fd(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    }
    EXPECT_EQ(controller.event("closed", R"(,"match":{"client":2})")["how"], "rst");
    {
        up_client   up(gateway);
        byte_vector part = *from_hex("5354");
        up.client.write_record(part);
    }
    EXPECT_EQ(controller.event("closed", R"(,"match":{"client":3})")["detail"], "inside a frame");
    EXPECT_EQ(controller.event("closed", R"(,"match":{"client":3})")["by"], "peer");
}

TEST(gateway_session, a_silent_connection_does_nothing_until_it_is_woken_and_its_end_is_noticed) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    auto         up         = std::make_unique<up_client>(gateway);
    controller.ok(R"({"request":"silence"})");
    up->client.send(frame_dpd_request);
    EXPECT_TRUE(up->client.read(100).bytes.empty());
    controller.ok(R"({"request":"silence","on":false})");
    EXPECT_EQ(up->client.read().text(), dpd_response);
    controller.ok(R"({"request":"silence"})");
    up.reset();
    EXPECT_EQ(controller.event("closed")["by"], "peer");
}

TEST(gateway_session, packets_for_a_slow_client_wait_up_to_the_limit_and_are_dropped_beyond) {
    test_gateway gateway({"--queue", "10"});
    auto         controller = gateway.controller();
    up_client    up(gateway);
    controller.ok(R"({"request":"silence"})");
    std::string packet = to_hex(udp_packet(site, up.inner, 9, "x"));
    EXPECT_EQ(controller.ask(R"({"request":"send_packet","count":15,"hex":")" + packet + "\"}")["packets"], 10);
    EXPECT_EQ(controller.counter("drop_queue"), 5u);
    EXPECT_EQ(controller.ask(R"({"request":"clients"})")["clients"][0]["queued"], 10);
    controller.ok(R"({"request":"silence","on":false})");
    for (int i = 0; i < 10; i++) EXPECT_EQ(up.client.read().bytes.size(), 8 + packet.size() / 2);
}

TEST(gateway_session, a_client_that_never_reads_costs_nobody_else_anything) {
    test_gateway gateway({"--queue", "100"});
    auto         controller = gateway.controller();
    up_client    deaf(gateway, "X-CSTP-Device-ID:deaf\n");
    up_client    other(gateway, "X-CSTP-Device-ID:other\n");
    std::string  packet = to_hex(udp_packet(site, deaf.inner, 9, std::string(1400, 'x')));
    controller.ok(R"({"request":"send_packet","count":20000,"hex":")" + packet + "\"}");
    EXPECT_GT(controller.counter("drop_queue"), 0u);
    other.client.send(frame_dpd_request);
    EXPECT_EQ(other.client.read().text(), dpd_response);
    size_t received = 0;
    while (!deaf.client.read(200).bytes.empty()) received++;
    EXPECT_EQ(received, controller.counter("data_tx"));
}

TEST(gateway_session, new_connections_can_be_refused_reset_and_stalled) {
    test_gateway gateway;
    auto         controller  = gateway.controller();
    auto         raw_connect = [&](char &seen, int milliseconds) {
        common::unique_fd fd(socket(AF_INET, SOCK_STREAM, 0));
        sockaddr_in       address{};
        address.sin_family      = AF_INET;
        address.sin_port        = htons(gateway.port());
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) return errno;
        pollfd one{fd.get(), POLLIN, 0};
        if (poll(&one, 1, milliseconds) == 0) return ETIMEDOUT;
        return read(fd.get(), &seen, 1) < 0 ? errno : 0;
    };
    char seen;
    controller.ok(R"({"request":"accept","mode":"refuse"})");
    EXPECT_EQ(raw_connect(seen, 1000), ECONNREFUSED);
    controller.ok(R"({"request":"accept","mode":"reset"})");
    EXPECT_EQ(raw_connect(seen, 1000), ECONNRESET);
    controller.ok(R"({"request":"accept","mode":"stall"})");
    EXPECT_EQ(raw_connect(seen, 100), ETIMEDOUT);
    EXPECT_EQ(controller.event("closed", R"(,"match":{"client":1})")["how"], "fin");
    controller.ok(R"({"request":"accept","mode":"stall_tls"})");
    EXPECT_EQ(raw_connect(seen, 100), ETIMEDOUT);
    EXPECT_EQ(controller.event("closed", R"(,"match":{"client":2})")["by"], "peer");
    controller.ok(R"({"request":"accept","mode":"normal"})");
    EXPECT_TRUE(test_client(gateway.port()).up);
}

TEST(gateway_session, handshakes_fail_for_a_stated_reason) {
    test_gateway                 gateway({"--psk-hint", "hello"});
    auto                         controller = gateway.controller();
    test_client::client_settings wrong_key;
    wrong_key.key = "fedcba9876543210";
    EXPECT_FALSE(test_client(gateway.port(), wrong_key).up);
    EXPECT_EQ(controller.event("tls_failed", R"(,"match":{"client":1})")["identity"], "dev");
    EXPECT_NE(controller.event("tls_failed", R"(,"match":{"client":1})")["reason"], "unknown");
    test_client::client_settings stranger;
    stranger.identity = "stranger";
    test_client unknown(gateway.port(), stranger);
    EXPECT_FALSE(unknown.up);
    EXPECT_EQ(unknown.hint, "hello");
    EXPECT_EQ(controller.event("tls_failed", R"(,"match":{"client":2})")["identity"], "stranger");
    EXPECT_EQ(controller.event("tls_failed", R"(,"match":{"client":2})")["reason"], "psk identity not found");
    test_client::client_settings second;
    second.identity = "second";
    second.key      = "key of two";
    EXPECT_TRUE(test_client(gateway.port(), second).up);
    EXPECT_EQ(controller.event("tls_up")["identity"], "second");
    EXPECT_EQ(controller.counter("closed"),
              2u + (controller.event("closed", R"(,"match":{"client":3})").is_object() ? 1 : 0));
}

TEST(gateway_session, a_handshake_that_does_not_come_times_out) {
    test_gateway      gateway({"--handshake-timeout", "1"});
    auto              controller = gateway.controller();
    common::unique_fd fd(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in       address{};
    address.sin_family      = AF_INET;
    address.sin_port        = htons(gateway.port());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(connect(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    EXPECT_EQ(controller.event("tls_failed")["reason"], "timeout");
    EXPECT_EQ(controller.event("closed")["how"], "timeout");
}

TEST(gateway_session, keys_are_read_again_and_live_connections_stay) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    up_client    before(gateway);
    gateway.dir.write("psk", "newcomer:another key\n");
    controller.ok(R"({"request":"reload"})");
    EXPECT_EQ(controller.event("keys_read")["identities"], 1);
    EXPECT_FALSE(test_client(gateway.port()).up) << "its key is gone";
    test_client::client_settings newcomer;
    newcomer.identity = "newcomer";
    newcomer.key      = "another key";
    EXPECT_TRUE(test_client(gateway.port(), newcomer).up);
    before.client.send(frame_dpd_request);
    EXPECT_EQ(before.client.read().text(), dpd_response);

    gateway.dir.write("psk", "no colon\n");
    EXPECT_NE(controller.ask(R"({"request":"reload"})")["error"].get<std::string>().find("psk:1"), std::string::npos);
    EXPECT_TRUE(test_client(gateway.port(), newcomer).up) << "the old keys stay";
}

TEST(gateway_session, faults_strike_where_they_were_ordered) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    auto         order      = [&](const char *fault) {
        return controller.ask(std::string(R"({"request":"fault","fault":")") + fault + "\"}");
    };
    EXPECT_EQ(order("reset")["ok"], false) << "nobody is there";
    EXPECT_EQ(order("drop-dpd#1")["ok"], true);
    EXPECT_EQ(order("no-address")["ok"], true);
    EXPECT_EQ(controller.ask(R"({"request":"faults"})")["faults"].size(), 2u);
    up_client client(gateway);
    EXPECT_EQ(client.inner, "(none)");
    EXPECT_EQ(line_of(client.response, "X-CSTP-Prefix-Length"), "24");
    client.client.configure();
    client.client.send(frame_dpd_request);
    client.client.send(frame_dpd_request);
    EXPECT_EQ(client.client.read().text(), dpd_response) << "of the second";
    EXPECT_EQ(controller.counter("dpd_resp"), 1u);
    order("fin@dpd");
    client.client.send(frame_dpd_request);
    EXPECT_TRUE(client.client.read().ended);
    EXPECT_EQ(controller.event("closed")["detail"], "fault");

    order("stall");
    order("no-response#*");
    std::thread stalled([&] { test_client late(gateway.port()); });  // until its own patience ends
    EXPECT_EQ(controller.event("fault", R"(,"match":{"fault":"stall"})")["client"], 2);
    controller.ok(R"({"request":"close","client":2})");
    stalled.join();
    test_client refused(gateway.port());
    refused.send(frame_config_request, "X-CSTP-Device-ID:d1\n");
    EXPECT_EQ(controller.event("config_resp_withheld")["why"], "drop");
    order("refuse");
    EXPECT_FALSE(test_client(gateway.port()).connected);
    EXPECT_EQ(order("none")["faults"].size(), 0u);
    EXPECT_EQ(up_client(gateway).inner, "10.9.0.2");
    order("reset@time=0");
    EXPECT_EQ(controller.event("closed", R"(,"match":{"how":"rst"})")["by"], "gateway");
}

TEST(gateway_session, clients_above_the_limit_are_reset) {
    test_gateway gateway({"--max-clients", "2"});
    auto         controller = gateway.controller();
    test_client  one(gateway.port()), two(gateway.port()), three(gateway.port());
    EXPECT_TRUE(two.up);
    EXPECT_FALSE(three.up);
    EXPECT_EQ(controller.event("accept_refused")["why"], "max_clients");
}

TEST(gateway_session, a_full_pool_withholds_the_response) {
    test_gateway gateway({"--pool", "10.9.0.2-10.9.0.2"});
    auto         controller = gateway.controller();
    up_client    up(gateway, "X-CSTP-Device-ID:a\n");
    test_client  late(gateway.port());
    late.send(frame_config_request, "X-CSTP-Device-ID:b\n");
    EXPECT_EQ(controller.event("config_resp_withheld")["why"], "pool_exhausted");
}

TEST(gateway_session, sessions_are_resumed_with_the_same_identity) {
    test_gateway gateway;
    auto         controller = gateway.controller();
    SSL_CTX     *context    = SSL_CTX_new(TLS_client_method());
    SSL_CTX_set_max_proto_version(context, TLS1_2_VERSION);
    SSL_CTX_set_cipher_list(context, "PSK-AES256-GCM-SHA384");
    SSL_CTX_set_psk_client_callback(
        context, [](SSL *, const char *, char *identity, unsigned, unsigned char *key, unsigned) -> unsigned {
            strcpy(identity, "dev");
            memcpy(key, "0123456789abcdef", 16);
            return 16;
        });
    SSL_SESSION *session = nullptr;
    for (bool resumed : {false, true}) {
        common::unique_fd fd(socket(AF_INET, SOCK_STREAM, 0));
        sockaddr_in       address{};
        address.sin_family      = AF_INET;
        address.sin_port        = htons(gateway.port());
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(connect(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        SSL *ssl = SSL_new(context);
        SSL_set_fd(ssl, fd.get());
        if (session) SSL_set_session(ssl, session);
        ASSERT_EQ(SSL_connect(ssl), 1);
        EXPECT_EQ(SSL_session_reused(ssl), resumed);
        if (!session) session = SSL_get1_session(ssl);
        SSL_set_shutdown(ssl, SSL_SENT_SHUTDOWN |
                                  SSL_RECEIVED_SHUTDOWN);  // a session that ends in any other way is not kept
        SSL_free(ssl);
        EXPECT_EQ(controller.event("tls_up",
                                   std::string(R"(,"match":{"resumed":)") + (resumed ? "true}" : "false}"))["identity"],
                  "dev");
    }
    SSL_SESSION_free(session);
    SSL_CTX_free(context);
}
