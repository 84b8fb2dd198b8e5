// What the lines of the daemon's log mean: each reason from its lines, health from the requests, times from the timers.
#include "diagnosis.h"
#include "logtext.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

using namespace wlcctl;

namespace {

class controller_diagnosis : public testing::Test {
protected:
    void say(const std::string &text, double later = 0.1) {
        now.mono += later;
        now.wall += static_cast<int64_t>(later * 1000);
        log_entry entry;
        entry.text = text;
        why.on_log(entry, now);
    }
    void connect() {
        say("Server port = " + std::to_string(htons(443)) + ", Server IP(192.0.2.1) = 16908480");
        say("TCP conn established successfully!! sockfd = 9");
    }
    void reach_configuration() {
        connect();
        say("Successfully enabled SSL/TLS session to: 192.0.2.1.");
        say("Successfully wrote 92 bytes of config-resq for conn 0x1");
    }
    void bring_up() {
        reach_configuration();
        say("Process CSTP-CONFIG-RESPONSE");
        say("Started Rekey Timer for 3600 sec");
        say("Started DPD Timer for 8 sec");
    }
    void tear_down() {
        say("Closing connection and bringing down tun interface");
        say("Started Backoff Timer for 10 sec");
    }

    diagnosis why;
    moment    now{1000, 1700000000000};
};

}  // namespace

TEST_F(controller_diagnosis, a_way_up_goes_through_its_steps) {
    std::vector<phase> steps;
    why.on_phase = [&](phase step) { steps.push_back(step); };
    say("Initialize tls-client");
    bring_up();
    EXPECT_EQ(steps,
              (std::vector<phase>{phase::read, phase::connecting, phase::handshake, phase::configuration, phase::up}));
    EXPECT_EQ(why.gateway, "192.0.2.1");
    EXPECT_EQ(why.port, 443);
    EXPECT_EQ(why.why.code, "");
    EXPECT_DOUBLE_EQ(why.next_rekey->mono, now.mono - 0.1 + 3600);
    EXPECT_FALSE(why.last_rekey);
}

TEST_F(controller_diagnosis, each_end_of_a_handshake_has_its_reason) {
    const std::pair<const char *, const char *> ends[] = {
        {"error:0A0003FC:SSL routines::sslv3 alert bad record mac", "key-mismatch"},
        {"error:1409441B:SSL routines:SSL3_READ_BYTES:tlsv1 alert decrypt error", "key-mismatch"},
        {"error:0A00045B:SSL routines::reason(1115)", "tls-failed"},
        {"error:1409445B:SSL routines:ssl3_read_bytes:tlsv1 alert unknown psk identity", "identity-unknown"},
        {"error:0A000410:SSL routines::sslv3 alert handshake failure", "no-common-cipher"},
        {"error:0A000414:SSL routines::sslv3 alert certificate revoked", "certificate-rejected"},
        {"error:0A00010B:SSL routines::wrong version number", "tls-failed"}};
    for (const auto &[text, code] : ends) {
        connect();
        say("ssl-connect error : 1, ssl-connect ret-value = -1");
        say(std::string("SSL connect failed!! Error = ") + text + ", SSL state = SSLERR");
        EXPECT_EQ(why.why.code, code) << text;
        EXPECT_FALSE(why.why.lines.empty());
        tear_down();
        EXPECT_EQ(why.why.code, code) << text;
    }
    connect();
    say("ssl-connect error : 5, ssl-connect ret-value = 0");
    EXPECT_EQ(why.why.code, "gateway-closed");
    connect();
    say("ssl-connect error : 5, ssl-connect ret-value = -1");
    EXPECT_EQ(why.why.code, "connection-reset");
}

TEST_F(controller_diagnosis, a_certificate_has_its_verdict_and_a_clock_that_is_behind_is_named) {
    connect();
    say("Verification failed for cert, error str = certificate has expired");
    say("SSL connect failed!! Error = error:1416F086:SSL routines::certificate verify failed, SSL state = SSLERR");
    EXPECT_EQ(why.why.code, "certificate-rejected");
    EXPECT_EQ(why.why.detail, "certificate has expired");
    now.wall = 1000000000000;  // 2001
    connect();
    say("Verification failed for cert, error str = certificate is not yet valid");
    say("SSL connect failed!! Error = error:1416F086:SSL routines::certificate verify failed, SSL state = SSLERR");
    EXPECT_EQ(why.why.code, "clock");
}

TEST_F(controller_diagnosis, a_step_that_takes_too_long_is_a_reason_of_its_own) {
    say("Server port = 47873, Server IP(192.0.2.1) = 16908480");
    now.mono += 2.9;
    why.tick(now);
    EXPECT_EQ(why.why.code, "");
    now.mono += 0.2;
    why.tick(now);
    EXPECT_EQ(why.why.code, "gateway-unreachable");
    say("TCP conn established successfully!! sockfd = 9");
    now.mono += 3.1;
    why.tick(now);
    EXPECT_EQ(why.why.code, "handshake-stalled");
    say("Successfully enabled SSL/TLS session to: 192.0.2.1.");
    say("Process CSTP-CONFIG-RESPONSE");
    say("Started DPD Timer for 8 sec");
    EXPECT_EQ(why.why.code, "");
}

TEST_F(controller_diagnosis, a_connection_of_our_own_tells_refused_from_unreachable) {
    say("Server port = 47873, Server IP(192.0.2.1) = 16908480");
    say("TCP connection failed to server");
    EXPECT_EQ(why.why.code, "gateway-unreachable");
    why.on_tcp_verdict(tcp_verdict::refused, now);
    EXPECT_EQ(why.why.code, "gateway-refused");
    tear_down();
    say("TCP Connection failed");
    EXPECT_EQ(why.why.code, "gateway-refused");
}

TEST_F(controller_diagnosis, a_request_without_response_is_told_from_every_other_teardown) {
    reach_configuration();
    tear_down();
    EXPECT_EQ(why.why.code, "response-timeout");
    reach_configuration();
    say("Process CSTP-CONFIG-RESPONSE");
    say("Did not receive IP addr from GW");
    say("Could not process config resp for conn 0x1. Error = x");
    EXPECT_EQ(why.why.code, "response-rejected");
    EXPECT_EQ(why.why.detail, "Did not receive IP addr from GW");
    bring_up();
    say("Error [8193] occured on SSL-Socket-fd(9).. closing connection");
    tear_down();
    EXPECT_EQ(why.why.code, "gateway-closed");
    bring_up();
    say("Error [8217] occured on SSL-Socket-fd(9).. closing connection");
    EXPECT_EQ(why.why.code, "connection-reset");
}

TEST_F(controller_diagnosis, unanswered_requests_are_counted_and_the_end_is_foreseen) {
    bring_up();
    say("Sending DPD Request [Req Retry Ref #0]", 8);
    say("Started Retry Timer for 20 sec", 0);
    EXPECT_EQ(why.unanswered, 1u);
    double first = now.mono;
    EXPECT_DOUBLE_EQ(*why.gives_up_at(), first + 80);
    say("Sending DPD Request [Req Retry Ref #1]", 20);
    EXPECT_EQ(why.unanswered, 2u);
    EXPECT_DOUBLE_EQ(*why.gives_up_at(), first + 80);
    say("Started DPD Timer for 8 sec");
    EXPECT_EQ(why.unanswered, 0u);
    EXPECT_FALSE(why.gives_up_at());
    for (int i = 0; i < 4; i++) say("Sending DPD Request [Req Retry Ref #" + std::to_string(i) + "]", 20);
    say("Retry count exceeded, no response received from Server. Close connection and start back-off timer", 20);
    tear_down();
    EXPECT_EQ(why.why.code, "dpd-timeout");
    EXPECT_EQ(why.unanswered, 0u);
    EXPECT_DOUBLE_EQ(why.next_attempt->mono, now.mono + 10);
}

TEST_F(controller_diagnosis, the_log_tells_until_its_next_line_about_requests_is_overdue) {
    EXPECT_FALSE(why.is_log_telling(now));
    bring_up();
    now.mono += 8;
    EXPECT_TRUE(why.is_log_telling(now));
    now.mono += 3.1;
    EXPECT_FALSE(why.is_log_telling(now));
    say("Sending DPD Request [Req Retry Ref #0]");
    EXPECT_TRUE(why.is_log_telling(now));
    say("Log level changed to: 0");
    EXPECT_FALSE(why.is_log_telling(now));
}

TEST_F(controller_diagnosis, counters_count_unanswered_requests_once_the_log_does_not) {
    bring_up();
    why.on_counters(100, 97, now);  // three were lost in earlier connections
    say("Sending DPD Request [Req Retry Ref #0]", 8);
    why.on_counters(101, 97, now);
    EXPECT_EQ(why.unanswered, 1u);  // by the log, and not twice
    now.mono += 30;
    why.on_counters(102, 97, now);
    EXPECT_EQ(why.unanswered, 2u);
    why.on_counters(102, 97, now);
    EXPECT_EQ(why.unanswered, 2u);
    why.on_counters(103, 98, now);  // the answer to the third
    EXPECT_EQ(why.unanswered, 0u);
    EXPECT_DOUBLE_EQ(why.last_answer->mono, now.mono);
    why.on_counters(0, 0, now);  // set to zero
    EXPECT_EQ(why.unanswered, 0u);
    why.on_counters(2, 0, now);
    EXPECT_EQ(why.unanswered, 2u);
    why.on_down(now);
    EXPECT_EQ(why.unanswered, 0u);
}

TEST_F(controller_diagnosis, a_daemon_that_asks_no_more_has_its_answer_and_then_its_end_overdue) {
    bring_up();
    now.mono += 8 + 20 + 4.9;
    EXPECT_FALSE(why.is_answer_overdue(now));
    now.mono += 0.2;
    EXPECT_TRUE(why.is_answer_overdue(now));
    EXPECT_FALSE(why.is_end_overdue(now));
    now.mono += 60;
    EXPECT_TRUE(why.is_end_overdue(now));
}

TEST_F(controller_diagnosis, a_daemon_that_goes_on_asking_beside_a_shut_log_is_not_ended_in_a_guessed_time) {
    bring_up();
    why.on_counters(10, 10, now);
    say("Log level changed to: 0");
    now.mono += 200;
    why.on_counters(12, 10, now);
    EXPECT_EQ(why.unanswered, 2u);
    EXPECT_FALSE(why.gives_up_at());
    EXPECT_FALSE(why.is_end_overdue(now));
    now.mono += 3600;
    EXPECT_TRUE(why.is_end_overdue(now));
}

TEST_F(controller_diagnosis, a_rekey_leaves_its_date) {
    bring_up();
    bring_up();
    ASSERT_TRUE(why.last_rekey);
    EXPECT_NEAR(why.last_rekey->mono, now.mono, 0.2);
    say("Error [8193] occured on SSL-Socket-fd(9).. closing connection");
    tear_down();
    EXPECT_FALSE(why.last_rekey);
    why.on_up(now);  // the message comes before the lines
    bring_up();
    EXPECT_TRUE(why.next_rekey);
}

TEST_F(controller_diagnosis, the_interface_has_three_reasons) {
    say("Error cloning tun interface");
    EXPECT_EQ(why.why.code, "tun-missing");
    say("IOCTL error[16] in setting tun interface tun0, deleting the existing tun interface");
    say("Creation of tun-intf failed");
    EXPECT_EQ(why.why.code, "tun-busy");
    say("IOCTL error[1] in setting tun interface tun0");
    say("Creation of tun-intf failed");
    EXPECT_EQ(why.why.code, "not-permitted");
}

TEST_F(controller_diagnosis, a_reason_that_is_held_is_not_replaced_by_what_follows_from_it) {
    why.state("conf-missing", "", "agent", now);
    why.held = "conf-missing";
    say("Server port = 0, Server IP() = 0");
    say("TCP connection failed to server");
    EXPECT_EQ(why.why.code, "conf-missing");
}

TEST_F(controller_diagnosis, every_code_is_in_the_table_and_texts_are_fit_for_a_terminal) {
    connect();
    say("SSL connect failed!! Error = \x1b[31mred\n, SSL state = x");
    EXPECT_NE(find_reason(why.why.code), nullptr);
    for (const std::string &line : why.why.lines) EXPECT_EQ(line.find('\x1b'), std::string::npos);
    EXPECT_EQ(why.why.detail.find('\x1b'), std::string::npos);
    for (const reason_entry &entry : reason_table) {
        EXPECT_FALSE(std::string(entry.cause).empty());
        EXPECT_FALSE(std::string(entry.remedy).empty());
        EXPECT_FALSE(std::string(entry.lines).empty());
    }
}

// ---- the text -------------------------------------------------------------------------------------------------------

TEST(controller_logtext, entries_are_cut_at_their_headers_and_keep_their_lines) {
    std::vector<log_entry> entries;
    log_parser             parser([&](const log_entry &entry) { entries.push_back(entry); });
    parser.take("noise\nTLSC[1]: 2026-01-31_09_30_00 INFO  [a.c:12] [f] one\nmore of ");
    EXPECT_TRUE(entries.empty());
    parser.take("one\n\nTLSC[2]: 2026-01-31_09_30_01 SSL_DEBUG [b.c:1] [g] two");
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].text, "one\nmore of one\n");
    EXPECT_EQ(entries[0].number, 1u);
    EXPECT_EQ(entries[0].level, "INFO");
    EXPECT_EQ(entries[0].place, "a.c:12");
    EXPECT_EQ(entries[0].function, "f");
    EXPECT_NE(entries[0].wall, 0);
    parser.flush();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[1].level, "SSL_DEBUG");
}

TEST(controller_logtext, what_is_no_entry_is_nothing) {
    log_entry entry;
    for (const char *text :
         {"", "TLSC[", "TLSC[]: 2026-01-31_09_30_00 INFO  [a.c:1] [f] x",
          "TLSC[99999999999999999999]: 2026-01-31_09_30_00 INFO  [a.c:1] [f] x",
          "TLSC[1]: 2026-01-31_09_30_00 NOISE [a.c:1] [f] x", "TLSC[1]: 2026 INFO", "TLSC[x]: a b [c] [d] e"})
        EXPECT_FALSE(parse_log_entry(text, entry)) << text;
    EXPECT_TRUE(parse_log_entry("TLSC[1]: 9999-99-99_99_99_99 INFO  [a.c:1] [f] x", entry));
    EXPECT_EQ(entry.wall, 0) << "a time that is none";
}

TEST(controller_logtext, endless_and_binary_text_costs_no_memory) {
    size_t     count = 0;
    log_parser parser([&](const log_entry &) { count++; });
    for (int i = 0; i < 1000; i++) parser.take(std::string(10000, static_cast<char>(i)));
    parser.take("\nTLSC[7]: 2026-01-31_09_30_00 INFO  [a.c:1] [f] after");
    parser.flush();
    EXPECT_EQ(count, 1u);
}
