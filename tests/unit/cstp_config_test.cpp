// The configuration exchange: the request's bytes, and what every line of a response does. The TLS layer, the
// notifications to the controller and the session start are stood in for.

#include <csignal>
#include <random>

#include <arpa/inet.h>
#include <sys/timerfd.h>

#include "tlsc_cstp.h"

#include "tunnel_fixture.h"

// ---- stand-ins ------------------------------------------------------------------------------------------------------

namespace {

std::string              written;  // what the code under test gave to the TLS layer
int32_t                  tls_result = 1;
std::vector<std::string> events;  // notifications and session start, in order
tlsc_dns_list            dns_reported;
tlsc_addr                inner_reported;
tlsc_addr                session_prefix;
bool                     session_fails;
bool                     timers_fail;

}  // namespace

extern "C" int32_t __wrap_tlsc_ssl_write(tlsc_sock *, const void *buff, int32_t length, int32_t *result) {
    if (result) *result = tls_result;
    if (tls_result != 1) return 0;
    written.append(static_cast<const char *>(buff), static_cast<size_t>(length));
    return length;
}

extern "C" int32_t __wrap_tlsc_write_dns_ip(tlsc_dns_list list) {
    dns_reported = list;
    events.push_back("dns");
    return 0;  // a controller that does not listen
}

extern "C" int32_t __wrap_tlsc_write_inner_ip(tlsc_addr addr) {
    inner_reported = addr;
    events.push_back("inner");
    return 0;
}

extern "C" tlsc_session *__wrap_tlsc_start_session(tlsc_sock *sock, const tlsc_addr *prefix) {
    session_prefix = *prefix;
    events.push_back("session");
    return session_fails ? nullptr : sock->sess;
}

extern "C" int __real_timerfd_create(int clock, int flags);
extern "C" int __wrap_timerfd_create(int clock, int flags) {
    return timers_fail ? -1 : __real_timerfd_create(clock, flags);
}

namespace {

using strings = std::vector<std::string>;

class cstp_config : public tunnel_test {
protected:
    cstp_config() {
        written.clear();
        tls_result = 1;
        events.clear();
        dns_reported   = {};
        inner_reported = {};
        session_prefix = {};
        session_fails  = false;
        timers_fail    = false;
        attach_session();
        open_epoll();
    }

    static void set_text(char *field, const std::string &text) { memcpy(field, text.c_str(), text.size() + 1); }
    void        set_inner(const char *text) {
               conf->inner_addr.kind = ADDR_IPV4;
               inet_pton(AF_INET, text, conf->inner_addr.ipv4);
    }

    int32_t parse(const std::string &text) { return tlsc_parse_config_resp(sock, text.c_str()); }

    // One frame of type 2 through the dispatcher, as the event loop does it.
    int32_t receive(const std::string &payload) {
        tlsc_cstp_frame   frame{};
        const std::string bytes = wire_frame(CSTP_CONFIG_RESPONSE, payload);
        memcpy(static_cast<void *>(&frame), bytes.data(), std::min(bytes.size(), sizeof(frame) - 1));
        return tlsc_process_cstp_frame(sock, &frame);
    }

    static std::string address(const tlsc_addr &addr) {
        char text[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, addr.ipv4, text, sizeof(text));
        return std::to_string(addr.kind) + " " + text;
    }

    std::string conn() const { return text_of("%p", static_cast<void *>(sock)); }

    static long seconds_left(int32_t fd) {
        itimerspec setting{};
        return timerfd_gettime(fd, &setting) == 0 ? setting.it_value.tv_sec + (setting.it_value.tv_nsec > 0) : -1;
    }
    static long period(int32_t fd) {
        itimerspec setting{};
        return timerfd_gettime(fd, &setting) == 0 ? setting.it_interval.tv_sec : -1;
    }

    const std::string client = "X-CSTP-Address-Client:10.20.30.40\n";
};

// ---- request --------------------------------------------------------------------------------------------------------

TEST_F(cstp_config, the_first_request_carries_neither_address_nor_cookie) {
    set_text(conf->device_id, "dev1");
    int32_t err = -1;
    EXPECT_EQ(tlsc_send_config_req(sock, &err), 1);
    EXPECT_EQ(err, -1);
    EXPECT_EQ(written, std::string("STF\x01\x00\x16\x01\x00X-CSTP-Device-ID:dev1\n", 8 + 22));
}

TEST_F(cstp_config, the_device_id_line_is_sent_even_when_empty) {
    EXPECT_EQ(tlsc_send_config_req(sock, nullptr), 1);
    EXPECT_EQ(written, wire_frame(1, "X-CSTP-Device-ID:\n"));
}

TEST_F(cstp_config, a_rekey_request_carries_all_five_lines_in_their_order) {
    set_inner("10.20.30.40");
    set_text(conf->device_id, "0123456789abcdef");
    set_text(conf->cookie, "0123456789");
    set_text(conf->device_name, "name with blanks");
    set_text(conf->serial_no, "SER");
    EXPECT_EQ(tlsc_send_config_req(sock, nullptr), 1);
    const std::string text = "X-CSTP-Address:10.20.30.40\n"
                             "X-CSTP-Device-ID:0123456789abcdef\n"
                             "X-CSTP-Cookie:0123456789\n"
                             "X-CSTP-Device-Name:name with blanks\n"
                             "X-CSTP-Device-SerialNo:SER\n";
    EXPECT_EQ(written, wire_frame(1, text));
    const std::string info  = "INFO tlsc_send_config_req: ";
    const std::string debug = "DEBUG tlsc_send_config_req: ";
    EXPECT_EQ(lines_from(cstp_file),
              (strings{info + "Building CSTP-CONFIG-REQ", debug + "Internal IP: 10.20.30.40",
                       debug + "Device ID: 0123456789abcdef", debug + "Cookie: 0123456789",
                       debug + "Device Name: name with blanks", debug + "Serial No.: SER",
                       info + text_of("Config Request msg = [index = %zu] \n%s", text.size(), text.c_str()),
                       info + text_of("Successfully wrote %zu bytes of config-resq for conn %s", text.size() + 8,
                                      conn().c_str())}));
    expect_counters({{"ctrl_pkt_tx", 1}});
}

TEST_F(cstp_config, the_request_carries_no_address_without_a_session_or_with_another_kind) {
    set_inner("10.20.30.40");
    sock->sess = nullptr;
    EXPECT_EQ(tlsc_send_config_req(sock, nullptr), 1);
    sock->sess            = &session;
    conf->inner_addr.kind = ADDR_IPV6;
    EXPECT_EQ(tlsc_send_config_req(sock, nullptr), 1);
    EXPECT_EQ(written, wire_frame(1, "X-CSTP-Device-ID:\n") + wire_frame(1, "X-CSTP-Device-ID:\n"));
}

TEST_F(cstp_config, the_longest_configuration_fits_the_request) {
    set_inner("255.255.255.255");
    set_text(conf->device_id, std::string(16, 'i'));
    set_text(conf->cookie, std::string(10, 'c'));
    set_text(conf->device_name, std::string(50, 'n'));
    set_text(conf->serial_no, std::string(16, 's'));
    EXPECT_EQ(tlsc_send_config_req(sock, nullptr), 1);
    EXPECT_EQ(written, wire_frame(1, "X-CSTP-Address:255.255.255.255\nX-CSTP-Device-ID:" + std::string(16, 'i') +
                                         "\nX-CSTP-Cookie:" + std::string(10, 'c') +
                                         "\nX-CSTP-Device-Name:" + std::string(50, 'n') +
                                         "\nX-CSTP-Device-SerialNo:" + std::string(16, 's') + "\n"));
}

TEST_F(cstp_config, the_request_arms_the_guard_timer_for_10_seconds_once) {
    EXPECT_EQ(tlsc_send_config_req(sock, nullptr), 1);
    ASSERT_GT(tlsc_timers.guard, 0);
    EXPECT_EQ(seconds_left(tlsc_timers.guard), 10);
    EXPECT_EQ(period(tlsc_timers.guard), 0);
}

TEST_F(cstp_config, a_request_that_cannot_be_written_reports_12_and_arms_no_guard) {
    for (int32_t result : {0, 2, 3}) {
        tls_result  = result;
        int32_t err = -1;
        EXPECT_EQ(tlsc_send_config_req(sock, &err), 0);
        EXPECT_EQ(err, 12);
    }
    EXPECT_EQ(tlsc_send_config_req(sock, nullptr), 0);
    EXPECT_EQ(tlsc_timers.guard, -1);
    EXPECT_EQ(log.count("ERROR", cstp_file, "tlsc_send_config_req", "SSL write failed for connection = " + conn()), 4u);
    EXPECT_STREQ(tlsc_cstp_resp_name(12), "No error");
    expect_counters({});
}

TEST_F(cstp_config, a_request_without_a_connection_is_refused_as_one_that_cannot_be_written) {
    int32_t err = -1;
    EXPECT_EQ(tlsc_send_config_req(nullptr, &err), 0);
    EXPECT_EQ(err, 12);
    EXPECT_EQ(tlsc_send_config_req(nullptr, nullptr), 0);
    EXPECT_EQ(log.count("ERROR", cstp_file, "tlsc_send_config_req", "Null ptr received for sock"), 2u);
}

TEST_F(cstp_config, a_guard_timer_that_cannot_start_reports_13_without_a_line_of_its_own) {
    timers_fail = true;
    int32_t err = -1;
    EXPECT_EQ(tlsc_send_config_req(sock, &err), 0);
    EXPECT_EQ(err, 13);
    EXPECT_EQ(tlsc_send_config_req(sock, nullptr), 0);
    for (const log_line &line : log.entries())
        EXPECT_TRUE(line.file != cstp_file || line.severity != "ERROR") << line.message;
    EXPECT_FALSE(log.contains("config-resq"));
    EXPECT_STREQ(tlsc_cstp_resp_name(13), "No error");
    expect_counters({});
}

// ---- response: the whole --------------------------------------------------------------------------------------------

TEST_F(cstp_config, a_full_response_sets_everything_and_logs_each_value) {
    const std::string prefix_before = address(conf->prefix);
    EXPECT_EQ(
        parse(
            "X-CSTP-Address:10.20.30.0\nX-CSTP-Prefix-Length:24\nX-CSTP-DPD:30\nX-CSTP-Address-Client:10.20.30.40\n"
            "X-CSTP-Retry-Time:7\nX-CSTP-Rekey-Time:600\nX-CSTP-Cookie:cookie\nX-CSTP-DNS:9.9.9.9\nX-CSTP-DNS:1.1.1.1\n"),
        1);
    EXPECT_EQ(address(session_prefix), "1 10.20.30.0");
    EXPECT_EQ(address(conf->prefix), prefix_before);  // only the session gets it
    EXPECT_EQ(conf->prefix_length, 24);
    EXPECT_EQ(conf->dpd_interval, 30);
    EXPECT_EQ(conf->retry_interval, 7);
    EXPECT_EQ(conf->rekey_interval, 600);
    EXPECT_STREQ(conf->cookie, "cookie");
    EXPECT_EQ(conf->dns_count, 2);
    EXPECT_EQ(address(conf->dns_servers[0]), "1 9.9.9.9");
    EXPECT_EQ(address(conf->dns_servers[1]), "1 1.1.1.1");
    EXPECT_EQ(address(conf->inner_addr), "1 10.20.30.40");
    EXPECT_EQ(events, (strings{"dns", "inner", "session"}));
    EXPECT_EQ(dns_reported.count, 2);
    EXPECT_EQ(address(dns_reported.servers[1]), "1 1.1.1.1");
    EXPECT_EQ(address(inner_reported), "1 10.20.30.40");
    const std::string info  = "INFO tlsc_parse_config_resp: ";
    const std::string debug = "DEBUG tlsc_parse_config_resp: ";
    EXPECT_EQ(
        lines_from(cstp_file),
        (strings{info + "Parsing CSTP-CONFIG-RESPONSE msg",
                 debug + "Received CSTP prefix-addr in config-resp: 10.20.30.0 for conn: " + conn(),
                 debug + "Prefix len received in config-resp: 24 50",
                 debug + "DPD interval received in config-resp: 30",
                 debug + "Received CSTP IPv4 client addr in config-resp: 10.20.30.40 for conn: " + conn(),
                 debug + "Retry interval received in config-resp: 7",
                 debug + "Rekey interval received in cofig-resp: 600", debug + "Cookie received in cofig-resp: cookie",
                 debug + "Received CSTP DNS-addr in config-resp: 9.9.9.9 for conn: " + conn(),
                 debug + "Received CSTP DNS-addr in config-resp: 1.1.1.1 for conn: " + conn(),
                 info + "Rekey interval is set, start the timer"}));
    ASSERT_GT(tlsc_timers.rekey, 0);
    EXPECT_EQ(seconds_left(tlsc_timers.rekey), 600);
    EXPECT_EQ(period(tlsc_timers.rekey), 600);
}

TEST_F(cstp_config, absent_headers_leave_the_values_as_they_were) {
    conf->prefix_length  = 17;
    conf->dpd_interval   = 11;
    conf->retry_interval = 12;
    set_text(conf->cookie, "kept");
    EXPECT_EQ(parse(client), 1);
    EXPECT_EQ(conf->prefix_length, 17);
    EXPECT_EQ(conf->dpd_interval, 11);
    EXPECT_EQ(conf->retry_interval, 12);
    EXPECT_STREQ(conf->cookie, "kept");
    EXPECT_EQ(address(session_prefix), "0 0.0.0.0");
}

TEST_F(cstp_config, null_arguments_of_the_parser_are_refused_with_0) {
    EXPECT_EQ(tlsc_parse_config_resp(nullptr, client.c_str()), 0);
    EXPECT_EQ(tlsc_parse_config_resp(sock, nullptr), 0);
    EXPECT_EQ(log.count("ERROR", cstp_file, "tlsc_parse_config_resp", "Null pointer received for sock/buff"), 2u);
    EXPECT_FALSE(log.contains("Parsing"));
    EXPECT_EQ(conf->inner_addr.kind, ADDR_NONE);
}

// ---- response: rekey interval ---------------------------------------------------------------------------------------

TEST_F(cstp_config, a_response_without_rekey_time_sets_3600_even_after_another_value) {
    conf->rekey_interval = 99;
    EXPECT_EQ(parse(client), 1);
    EXPECT_EQ(conf->rekey_interval, 3600);
    EXPECT_EQ(seconds_left(tlsc_timers.rekey), 3600);
    EXPECT_TRUE(log.has("DEBUG", cstp_file, "tlsc_parse_config_resp",
                        "Rekey interval not received in cofig-resp, so choosing default value: 3600"));
}

TEST_F(cstp_config, a_received_rekey_time_of_0_becomes_3600) {
    EXPECT_EQ(parse(client + "X-CSTP-Rekey-Time:0\n"), 1);
    EXPECT_EQ(conf->rekey_interval, 3600);
    EXPECT_TRUE(log.contains("Rekey interval received in cofig-resp: 0"));
}

TEST_F(cstp_config, a_negative_rekey_time_fails_the_response_at_the_timer) {
    EXPECT_EQ(parse(client + "X-CSTP-Rekey-Time:-1\n"), 0);
    EXPECT_TRUE(log.has("ERROR", cstp_file, "tlsc_parse_config_resp", "Could not start Rekey timer"));
    EXPECT_EQ(tlsc_timers.rekey, -1);
}

// ---- response: client address ---------------------------------------------------------------------------------------

TEST_F(cstp_config, a_missing_client_address_fails_and_keeps_what_was_read_before_it) {
    set_inner("10.0.0.1");
    conf->retry_interval = 12;
    conf->dns_count      = 3;
    EXPECT_EQ(
        parse(
            "X-CSTP-DPD:44\nX-CSTP-Prefix-Length:8\nX-CSTP-Retry-Time:5\nX-CSTP-Rekey-Time:6\nX-CSTP-Cookie:c\nX-CSTP-DNS:1.1.1.1\n"),
        0);
    EXPECT_TRUE(log.has("ERROR", cstp_file, "tlsc_parse_config_resp", "Did not receive IP addr from GW"));
    EXPECT_EQ(conf->dpd_interval, 44);
    EXPECT_EQ(conf->prefix_length, 8);
    EXPECT_EQ(conf->retry_interval, 12);
    EXPECT_EQ(conf->rekey_interval, 3600);
    EXPECT_EQ(conf->cookie[0], '\0');
    EXPECT_EQ(conf->dns_count, 3);
    EXPECT_EQ(address(conf->inner_addr), "1 10.0.0.1");
    EXPECT_TRUE(events.empty());
}

TEST_F(cstp_config, the_address_header_alone_is_no_client_address) {
    EXPECT_EQ(parse("X-CSTP-Address:10.20.30.40\n"), 0);
    EXPECT_TRUE(log.contains("Did not receive IP addr from GW"));
}

TEST_F(cstp_config, texts_that_are_no_address_fail_the_client_address) {
    for (const char *value : {"", " 10.20.30.40", "10.20.30.40\r", "10.20.30.40 ", "10.20.30", "10.20.30.400", "::1",
                              "gw.example", "0x0a.1.2.3", "10.20.30.40.50",
                              "1111111111111111111111111111111111111111111111111111111111111111111111111"}) {
        log.clear();
        set_inner("10.0.0.1");
        events.clear();
        EXPECT_EQ(parse(std::string("X-CSTP-Address-Client:") + value + "\nX-CSTP-Retry-Time:5\n"), 0) << value;
        EXPECT_TRUE(log.has("ERROR", cstp_file, "tlsc_parse_config_resp",
                            "Invalid IPv4 Client addr received for conn " + conn()))
            << value;
        EXPECT_EQ(conf->inner_addr.kind, 0) << value;
        EXPECT_EQ(conf->retry_interval, default_retry_seconds) << value;
        EXPECT_TRUE(events.empty());
    }
}

TEST_F(cstp_config, a_value_may_end_with_the_text) {
    EXPECT_EQ(parse("X-CSTP-Address-Client:10.20.30.40"), 1);
    EXPECT_EQ(address(conf->inner_addr), "1 10.20.30.40");
}

TEST_F(cstp_config, an_unchanged_inner_address_is_not_reported_again) {
    EXPECT_EQ(parse(client), 1);
    EXPECT_EQ(events, (strings{"inner", "session"}));
    events.clear();
    EXPECT_EQ(parse(client), 1);
    EXPECT_EQ(events, (strings{"session"}));
    events.clear();
    EXPECT_EQ(parse("X-CSTP-Address-Client:10.20.30.41\n"), 1);
    EXPECT_EQ(events, (strings{"inner", "session"}));
    EXPECT_EQ(address(inner_reported), "1 10.20.30.41");
}

TEST_F(cstp_config, an_address_that_a_bad_response_has_taken_away_is_reported_when_it_comes_back) {
    EXPECT_EQ(parse(client), 1);
    EXPECT_EQ(parse("X-CSTP-Address-Client:bad\n"), 0);
    events.clear();
    EXPECT_EQ(parse(client), 1);
    EXPECT_EQ(events, (strings{"inner", "session"}));
}

// ---- response: prefix -----------------------------------------------------------------------------------------------

TEST_F(cstp_config, an_invalid_prefix_is_logged_and_processing_goes_on_with_kind_0) {
    EXPECT_EQ(parse("X-CSTP-Address:not-an-address\n" + client), 1);
    EXPECT_TRUE(
        log.has("ERROR", cstp_file, "tlsc_parse_config_resp", "Invalid IPv4 prefix received for conn " + conn()));
    EXPECT_EQ(session_prefix.kind, 0);
}

TEST_F(cstp_config, the_prefix_length_keeps_the_low_8_bits) {
    const struct {
        const char *text;
        int         kept;
        int         first_code;
    } cases[] = {{"0", 0, '0'},   {"24", 24, '2'},  {" 32", 32, ' '}, {"255", 255, '2'}, {"256", 0, '2'},
                 {"257", 1, '2'}, {"-1", 255, '-'}, {"x", 0, 'x'},    {"", 0, '\n'}};
    for (const auto &c : cases) {
        log.clear();
        EXPECT_EQ(parse(std::string("X-CSTP-Prefix-Length:") + c.text + "\n" + client), 1);
        EXPECT_EQ(conf->prefix_length, c.kept) << c.text;
        EXPECT_TRUE(log.contains(text_of("Prefix len received in config-resp: %d %d", c.kept, c.first_code))) << c.text;
    }
}

// ---- response: numbers ----------------------------------------------------------------------------------------------

TEST_F(cstp_config, a_number_without_digits_is_0_and_never_the_next_lines) {
    for (const char *blank : {"", " ", "\t \r"}) {
        conf->prefix_length     = 9;
        conf->dpd_interval      = 9;
        conf->retry_interval    = 9;
        const std::string empty = std::string(blank) + "\n77\n";
        EXPECT_EQ(tlsc_parse_config_resp(sock, ("X-CSTP-Prefix-Length:" + empty + "X-CSTP-DPD:" + empty +
                                                "X-CSTP-Retry-Time:" + empty + "X-CSTP-Rekey-Time:" + empty + client)
                                                   .c_str()),
                  1);
        EXPECT_EQ(conf->prefix_length, 0);
        EXPECT_EQ(conf->dpd_interval, 0);
        EXPECT_EQ(conf->retry_interval, 0);
        EXPECT_EQ(conf->rekey_interval, 3600) << "0 stands for the default";
        tlsc_stop_timer(&tlsc_timers.rekey);
    }
}

TEST_F(cstp_config, numbers_are_converted_as_decimal_text_is) {
    const struct {
        const char *text;
        int32_t     value;
    } cases[] = {{"15", 15},
                 {" 15", 15},
                 {"\t15", 15},
                 {"+15", 15},
                 {"-15", -15},
                 {"15s", 15},
                 {"15\r", 15},
                 {"abc", 0},
                 {"0x10", 0},
                 {"007", 7},
                 {"2147483647", INT32_MAX},
                 {"2147483648", INT32_MIN},
                 {"4294967297", 1},
                 {"99999999999999999999999999999999", -1},
                 {"-99999999999999999999999999999", 0}};
    for (const auto &c : cases) {
        EXPECT_EQ(parse(client + "X-CSTP-DPD:" + c.text + "\nX-CSTP-Retry-Time:" + c.text + "\n"), 1);
        EXPECT_EQ(conf->dpd_interval, c.value) << c.text;
        EXPECT_EQ(conf->retry_interval, c.value) << c.text;
    }
}

// ---- response: cookie -----------------------------------------------------------------------------------------------

TEST_F(cstp_config, a_cookie_is_cut_to_10_characters) {
    EXPECT_EQ(parse(client + "X-CSTP-Cookie:0123456789ABC\n"), 1);
    EXPECT_STREQ(conf->cookie, "0123456789");
}

TEST_F(cstp_config, a_shorter_cookie_keeps_the_tail_of_an_earlier_longer_one) {
    EXPECT_EQ(parse(client + "X-CSTP-Cookie:0123456789\n"), 1);
    EXPECT_EQ(parse(client + "X-CSTP-Cookie:abc\n"), 1);
    EXPECT_STREQ(conf->cookie, "abc3456789");
    EXPECT_TRUE(log.contains("Cookie received in cofig-resp: abc3456789"));
    EXPECT_EQ(parse(client + "X-CSTP-Cookie:xy"), 1);  // ended by the text's end
    EXPECT_STREQ(conf->cookie, "xyc3456789");
    EXPECT_EQ(parse(client + "X-CSTP-Cookie:\n"), 1);
    EXPECT_STREQ(conf->cookie, "xyc3456789");
}

TEST_F(cstp_config, the_tail_of_a_cookie_survives_the_teardown_too) {
    EXPECT_EQ(parse(client + "X-CSTP-Cookie:0123456789\n"), 1);
    tlsc_sock_error(TLSC_DOWN_SSL_READ);
    EXPECT_EQ(conf->cookie[0], '\0');
    EXPECT_EQ(parse(client + "X-CSTP-Cookie:abc\n"), 1);
    EXPECT_STREQ(conf->cookie, "abc3456789");
}

// ---- response: DNS servers ------------------------------------------------------------------------------------------

TEST_F(cstp_config, of_five_dns_servers_the_first_four_are_stored) {
    EXPECT_EQ(
        parse(client +
              "X-CSTP-DNS:1.1.1.1\nX-CSTP-DNS:2.2.2.2\nX-CSTP-DNS:3.3.3.3\nX-CSTP-DNS:4.4.4.4\nX-CSTP-DNS:5.5.5.5\n"),
        1);
    EXPECT_EQ(conf->dns_count, 4);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(address(conf->dns_servers[i]), text_of("1 %d.%d.%d.%d", i + 1, i + 1, i + 1, i + 1));
    EXPECT_EQ(dns_reported.count, 4);
    EXPECT_FALSE(log.contains("5.5.5.5"));
}

TEST_F(cstp_config, an_invalid_dns_line_leaves_no_gap) {
    EXPECT_EQ(parse(client + "X-CSTP-DNS:1.1.1.1\nX-CSTP-DNS:nonsense\nX-CSTP-DNS:2.2.2.2\n"), 1);
    EXPECT_EQ(conf->dns_count, 2);
    EXPECT_EQ(address(conf->dns_servers[0]), "1 1.1.1.1");
    EXPECT_EQ(address(conf->dns_servers[1]), "1 2.2.2.2");
    EXPECT_EQ(log.count("ERROR", cstp_file, "tlsc_parse_config_resp", "Invalid DNS Ip received for conn " + conn()),
              1u);
}

TEST_F(cstp_config, no_dns_line_sends_no_notification_and_sets_the_count_to_0) {
    conf->dns_count = 2;
    memset(conf->dns_servers[0].ipv4, 7, 4);
    EXPECT_EQ(parse(client), 1);
    EXPECT_EQ(conf->dns_count, 0);
    EXPECT_EQ(events, (strings{"inner", "session"}));
    EXPECT_EQ(address(conf->dns_servers[0]), "0 7.7.7.7");  // entries beyond the count keep their contents
}

TEST_F(cstp_config, dns_servers_are_reported_with_every_response) {
    EXPECT_EQ(parse(client + "X-CSTP-DNS:1.1.1.1\n"), 1);
    EXPECT_EQ(parse(client + "X-CSTP-DNS:1.1.1.1\n"), 1);
    EXPECT_EQ(events, (strings{"dns", "inner", "session", "dns", "session"}));
}

TEST_F(cstp_config, the_report_carries_the_count_and_the_whole_list) {
    EXPECT_EQ(parse(client + "X-CSTP-DNS:1.1.1.1\nX-CSTP-DNS:2.2.2.2\nX-CSTP-DNS:3.3.3.3\nX-CSTP-DNS:4.4.4.4\n"), 1);
    EXPECT_EQ(parse(client + "X-CSTP-DNS:9.9.9.9\n"), 1);
    EXPECT_EQ(dns_reported.count, 1);
    strings reported;
    for (const tlsc_addr &server : dns_reported.servers) reported.push_back(address(server));
    EXPECT_EQ(reported, (strings{"1 9.9.9.9", "1 2.2.2.2", "1 3.3.3.3", "1 4.4.4.4"}));
}

TEST_F(cstp_config, the_search_for_the_next_dns_line_starts_behind_the_value) {
    EXPECT_EQ(parse(client + "X-CSTP-DNS:X-CSTP-DNS:1.1.1.1\nX-CSTP-DNS:2.2.2.2\n"), 1);
    EXPECT_EQ(conf->dns_count, 1);
    EXPECT_EQ(address(conf->dns_servers[0]), "1 2.2.2.2");
    EXPECT_EQ(log.count("ERROR", cstp_file, "tlsc_parse_config_resp", "Invalid DNS Ip received for conn " + conn()),
              1u);
}

TEST_F(cstp_config, a_hundred_dns_lines_end_the_search_at_the_fourth_good_one) {
    std::string text = client;
    for (int i = 0; i < 97; ++i) text += "X-CSTP-DNS:bad\n";
    for (int i = 1; i <= 3; ++i) text += text_of("X-CSTP-DNS:8.8.8.%d\n", i);
    EXPECT_EQ(parse(text), 1);
    EXPECT_EQ(conf->dns_count, 3);
    EXPECT_EQ(address(conf->dns_servers[2]), "1 8.8.8.3");
    text = client;
    for (int i = 0; i < 100; ++i) text += text_of("X-CSTP-DNS:8.8.4.%d\n", i);
    EXPECT_EQ(parse(text), 1);
    EXPECT_EQ(conf->dns_count, 4);
    EXPECT_EQ(address(conf->dns_servers[3]), "1 8.8.4.3");
}

// ---- response: where names are found --------------------------------------------------------------------------------

TEST_F(cstp_config, names_are_matched_case_sensitively) {
    EXPECT_EQ(parse("x-cstp-address-client:10.20.30.40\n"), 0);
    EXPECT_EQ(parse("X-CSTP-ADDRESS-CLIENT:10.20.30.40\n"), 0);
    EXPECT_EQ(parse(client + "X-Cstp-DPD:99\n"), 1);
    EXPECT_EQ(conf->dpd_interval, default_dpd_seconds);
}

TEST_F(cstp_config, names_are_found_anywhere_also_inside_another_value) {
    EXPECT_EQ(parse("HTTP X-CSTP-Note:see X-CSTP-DPD:33 and X-CSTP-Address-Client:10.20.30.40\n"), 1);
    EXPECT_EQ(conf->dpd_interval, 33);
    EXPECT_EQ(address(conf->inner_addr), "1 10.20.30.40");
}

TEST_F(cstp_config, the_first_occurrence_of_a_name_counts) {
    EXPECT_EQ(parse("X-CSTP-DPD:33\nX-CSTP-DPD:44\n" + client + "X-CSTP-Address-Client:10.20.30.99\n"), 1);
    EXPECT_EQ(conf->dpd_interval, 33);
    EXPECT_EQ(address(conf->inner_addr), "1 10.20.30.40");
}

TEST_F(cstp_config, over_long_values_are_cut_safely) {
    const std::string huge(60000, '1');
    EXPECT_EQ(parse("X-CSTP-Address:" + huge + "\nX-CSTP-DNS:" + huge + "\nX-CSTP-Cookie:" + huge +
                    "\nX-CSTP-DPD:" + huge + "\n" + client),
              1);
    EXPECT_EQ(session_prefix.kind, 0);
    EXPECT_EQ(conf->dns_count, 0);
    EXPECT_STREQ(conf->cookie, "1111111111");
    EXPECT_EQ(parse("X-CSTP-Address-Client:" + huge), 0);
}

// ---- response: failures behind the text -----------------------------------------------------------------------------

TEST_F(cstp_config, a_session_that_cannot_start_fails_the_response_and_names_the_prefix) {
    session_fails = true;
    EXPECT_EQ(parse("X-CSTP-Address:10.20.30.0\n" + client), 0);
    EXPECT_TRUE(
        log.has("ERROR", cstp_file, "tlsc_parse_config_resp", "Could not allocate a session for prefix 10.20.30.0"));
    EXPECT_EQ(tlsc_timers.rekey, -1);
    log.clear();
    EXPECT_EQ(parse(client), 0);
    EXPECT_TRUE(log.has("ERROR", cstp_file, "tlsc_parse_config_resp", "Could not allocate a session for prefix "));
}

TEST_F(cstp_config, a_rekey_timer_that_cannot_start_fails_the_response) {
    timers_fail = true;
    EXPECT_EQ(parse(client), 0);
    EXPECT_TRUE(log.has("ERROR", cstp_file, "tlsc_parse_config_resp", "Could not start Rekey timer"));
}

// ---- processing -----------------------------------------------------------------------------------------------------

TEST_F(cstp_config, a_good_response_enables_the_data_path_and_resets_the_backoff) {
    tlsc_dp_state         = 0;
    tlsc_backoff_interval = 55;
    EXPECT_EQ(tlsc_process_config_resp(sock, client.c_str()), 1);
    EXPECT_EQ(tlsc_dp_state, 1);
    EXPECT_EQ(tlsc_backoff_interval, 0u);
    EXPECT_TRUE(log.has("INFO", cstp_file, "tlsc_process_config_resp", "Process CSTP-CONFIG-RESPONSE"));
    EXPECT_TRUE(log.has("DEBUG", cstp_file, "tlsc_process_config_resp",
                        "Enabling data reception by changing Dp-State of Client to 1"));
    expect_counters({});
}

TEST_F(cstp_config, a_bad_response_leaves_data_path_backoff_and_rekey_flag_alone) {
    tlsc_dp_state          = 0;
    tlsc_backoff_interval  = 55;
    tlsc_rekey_in_progress = 1;
    EXPECT_EQ(tlsc_process_config_resp(sock, "X-CSTP-DPD:9\n"), 0);
    EXPECT_EQ(tlsc_dp_state, 0);
    EXPECT_EQ(tlsc_backoff_interval, 55u);
    EXPECT_EQ(tlsc_rekey_in_progress, 1);
    expect_counters({});
}

TEST_F(cstp_config, rekey_success_is_counted_only_while_a_rekey_is_in_progress) {
    EXPECT_EQ(tlsc_process_config_resp(sock, client.c_str()), 1);
    expect_counters({});
    tlsc_rekey_in_progress = 1;
    EXPECT_EQ(tlsc_process_config_resp(sock, client.c_str()), 1);
    EXPECT_EQ(tlsc_rekey_in_progress, 0);
    EXPECT_EQ(tlsc_process_config_resp(sock, client.c_str()), 1);
    expect_counters({{"rekey_success", 1}});
}

TEST_F(cstp_config, the_old_transport_is_closed_before_the_null_check_and_whatever_the_response_says) {
    for (const char *text : {static_cast<const char *>(nullptr), "garbage"}) {
        const int old         = dup(STDERR_FILENO);
        tlsc_old_transport.fd = old;
        log.clear();
        EXPECT_EQ(tlsc_process_config_resp(sock, text), 0);
        EXPECT_EQ(tlsc_old_transport.fd, -1);
        EXPECT_FALSE(is_open(old));
        EXPECT_TRUE(
            log.has("DEBUG", cstp_file, "tlsc_process_config_resp", text_of("Closing the old transport-fd(%d)", old)));
    }
    EXPECT_EQ(tlsc_process_config_resp(nullptr, client.c_str()), 0);
    EXPECT_TRUE(log.has("ERROR", cstp_file, "tlsc_process_config_resp", "Null pointer received for sock/buff"));
}

TEST_F(cstp_config, descriptor_0_is_no_old_transport) {
    tlsc_old_transport.fd = 0;
    EXPECT_EQ(tlsc_process_config_resp(sock, client.c_str()), 1);
    EXPECT_EQ(tlsc_old_transport.fd, 0);
    EXPECT_TRUE(is_open(0));
    EXPECT_FALSE(log.contains("Closing the old transport-fd"));
}

// ---- the response frame ---------------------------------------------------------------------------------------------

TEST_F(cstp_config, a_response_frame_stops_the_guard_and_arms_the_dpd_timer) {
    EXPECT_EQ(tlsc_send_config_req(sock, nullptr), 1);
    const int32_t guard = tlsc_timers.guard;
    ASSERT_GT(guard, 0);
    log.clear();
    EXPECT_EQ(receive("X-CSTP-DPD:100\n" + client), 1);
    EXPECT_EQ(tlsc_timers.guard, -1);
    ASSERT_GT(tlsc_timers.dpd, 0);
    EXPECT_GE(seconds_left(tlsc_timers.dpd), 80);
    EXPECT_LE(seconds_left(tlsc_timers.dpd), 99);
    EXPECT_EQ(period(tlsc_timers.dpd), 0);
    const std::string got = "Got CSTP config resp frame of len 49 for conn " + conn();
    EXPECT_TRUE(log.has("DEBUG", cstp_file, "tlsc_process_cstp_frame", got));
    EXPECT_LT(position(text_of("Successfully deleted fd = %d, to epoll-event", guard)),
              position(got));  // the guard is stopped first
    EXPECT_LT(position(got), position("Process CSTP-CONFIG-RESPONSE"));
    expect_counters({{"ctrl_pkt_tx", 1}, {"ctrl_pkt_rx", 1}});
}

TEST_F(cstp_config, a_response_that_cannot_be_parsed_has_stopped_the_guard_and_is_counted) {
    EXPECT_EQ(tlsc_send_config_req(sock, nullptr), 1);
    EXPECT_EQ(receive("nothing of use"), 0);
    EXPECT_EQ(tlsc_timers.guard, -1);
    EXPECT_EQ(tlsc_timers.dpd, -1);
    EXPECT_TRUE(log.has("ERROR", cstp_file, "tlsc_process_cstp_frame",
                        "Could not process config resp for conn " + conn() + ". Error = TLSC_CSTP_RESP_ERR_NONE"));
    EXPECT_FALSE(log.contains("Closing connection and bringing down tun interface"));
    expect_counters({{"ctrl_pkt_tx", 1}, {"ctrl_pkt_rx", 1}});
}

TEST_F(cstp_config, a_response_without_a_guard_running_logs_it_and_is_taken) {
    EXPECT_EQ(receive(client), 1);
    EXPECT_TRUE(log.has("ERROR", timer_file, "tlsc_stop_timer", "Invalid timer-fd received in stop-timer"));
}

TEST_F(cstp_config, a_dpd_timer_that_cannot_start_fails_the_frame) {
    ASSERT_EQ(tlsc_start_timer(&tlsc_timers.rekey, 0), 1);  // runs already, so only the DPD timer fails
    timers_fail = true;
    EXPECT_EQ(receive(client), 0);
    EXPECT_TRUE(
        log.has("WARNING", cstp_file, "tlsc_process_cstp_frame", "Could not start DPD timer for conn " + conn()));
    EXPECT_TRUE(log.has("ERROR", cstp_file, "tlsc_process_cstp_frame",
                        "Processing CSTP frame failed due to error TLSC_CSTP_START_TIMER_FAILED\n"));
    EXPECT_EQ(tlsc_dp_state, 1);
}

TEST_F(cstp_config, a_received_dpd_interval_below_5_ends_the_process_with_the_arithmetic_signal) {
    for (const char *dpd : {"0", "4"})
        EXPECT_EXIT(
            {
                signal(SIGFPE, SIG_DFL);
                (void)receive(std::string("X-CSTP-DPD:") + dpd + "\n" + client);
            },
            ::testing::KilledBySignal(SIGFPE), "");
    EXPECT_EQ(receive("X-CSTP-DPD:5\n" + client), 1);
}

TEST_F(cstp_config, the_text_of_a_response_ends_at_its_announced_length) {
    tlsc_cstp_frame   frame{};
    const std::string bytes = wire_frame(CSTP_CONFIG_RESPONSE, client);
    memcpy(static_cast<void *>(&frame), bytes.data(), bytes.size());
    memcpy(frame.payload + client.size(), "X-CSTP-DPD:77\n", 14);  // behind the end
    EXPECT_EQ(tlsc_process_cstp_frame(sock, &frame), 1);
    EXPECT_EQ(conf->dpd_interval, default_dpd_seconds);
}

TEST_F(cstp_config, an_embedded_nul_ends_the_text) {
    EXPECT_EQ(receive(client + std::string(1, '\0') + "X-CSTP-DPD:77\n"), 1);
    EXPECT_EQ(conf->dpd_interval, default_dpd_seconds);
    EXPECT_EQ(receive(std::string(1, '\0') + client), 0);
}

TEST_F(cstp_config, a_response_of_every_length_ends_inside_the_frame) {
    tlsc_log_level = LOG_ERRORS;
    for (int announced = 0; announced <= 65535; announced += announced < 1600 ? 1 : 997) {
        tlsc_cstp_frame frame{};
        memset(frame.payload, 'z', sizeof(frame.payload));
        frame.header = {
            {'S', 'T', 'F'}, 1, {static_cast<uint8_t>(announced >> 8), static_cast<uint8_t>(announced)}, 2, 0};
        ASSERT_EQ(tlsc_process_cstp_frame(sock, &frame), 0);
        ASSERT_EQ(frame.payload[std::min(announced, 1492)], 0) << announced;
        if (announced > 0) {
            ASSERT_EQ(frame.payload[std::min(announced, 1492) - 1], 'z') << announced;
        }
    }
}

TEST_F(cstp_config, responses_put_together_at_random_never_leave_the_record) {
    const char *pieces[] = {"X-CSTP-Address:",
                            "X-CSTP-Address-Client:",
                            "X-CSTP-Prefix-Length:",
                            "X-CSTP-DPD:",
                            "X-CSTP-Retry-Time:",
                            "X-CSTP-Rekey-Time:",
                            "X-CSTP-Cookie:",
                            "X-CSTP-DNS:",
                            "10.20.30.40",
                            "\n",
                            "\n",
                            "\r\n",
                            "-",
                            "60",
                            "99999999999999999999",
                            "%s%n%d",
                            "\xff\xfe",
                            " ",
                            "::1",
                            "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"};
    tlsc_log_level       = LOG_ERRORS;
    std::mt19937 random(20);
    int          accepted = 0;
    for (int round = 0; round < 3000; ++round) {
        std::string text;
        for (unsigned i = random() % 40; i > 0; --i) text += pieces[random() % std::size(pieces)];
        const int32_t result = parse(text);
        ASSERT_TRUE(result == 0 || result == 1);
        accepted += result;
        ASSERT_LE(conf->dns_count, 4);
        ASSERT_LE(strnlen(conf->cookie, cookie_size), 10u);
        ASSERT_EQ(result == 1, tlsc_timers.rekey > 0) << text;
        tlsc_stop_all_timers();
        for (int i = 0; i < conf->dns_count; ++i) ASSERT_EQ(conf->dns_servers[i].kind, ADDR_IPV4);
    }
    EXPECT_GT(accepted, 0);
    EXPECT_LT(accepted, 3000);
}

}  // namespace
