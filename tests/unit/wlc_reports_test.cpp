// What the controller is told: tunnel state, statistics, process id, inner address, DNS servers, feature status.

#include "tlsc_wlc.h"

#include <map>

#include <arpa/inet.h>

#include "tlsc_platform.h"  // the statistics record

#include "capture.h"
#include "wlc_controller.h"

namespace {

constexpr char source[]     = "tlsc_wlc.c";
constexpr char plain_path[] = "../wlc/tlsc_wlc.c";

tlsc_addr make_addr(int kind, const char *text) {
    tlsc_addr addr{};
    addr.kind = kind;
    if (kind == 1) inet_pton(AF_INET, text, addr.ipv4);
    if (kind == 2) inet_pton(AF_INET6, text, addr.ipv6);
    return addr;
}

// A DOWN message with this cause text.
wire_message down_message(const std::string &cause) { return make_message(25, cause); }

// True when every byte of the message in [from, to) is zero.
bool is_zero(const wire_message &bytes, size_t from, size_t to) {
    return bytes.substr(from, to - from) == std::string(to - from, '\0');
}

}  // namespace

// There is no client to stop; the order only serves to forget the reported state.
extern "C" int32_t __wrap_tlsc_stop_client() { return 1; }

class wlc_reports : public controller_test {
protected:
    void SetUp() override {
        controller_test::SetUp();
        if (IsSkipped()) return;
        log_capture quiet(LOG_ERRORS);
        tlscWlcMsgRcvSecTunStop();  // state not known, feature disabled
        tlsc_stats_init();
        listen();
    }
    void TearDown() override {
        tlscWlcSetBootupDbgFlags(0);
        controller_test::TearDown();
    }
};

// ---- tunnel state ---------------------------------------------------------------------------------------------------

TEST_F(wlc_reports, up_is_sent_empty_and_statistics_follow) {
    tlscWlcSetSecTunFeatureStatus(1);
    log_capture log;
    EXPECT_EQ(tlscWlcSetTunState(1, 0), 1);
    const std::vector<wire_message> got = received();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0], make_message(24));
    EXPECT_EQ(id_of(got[1]), 30u);
    EXPECT_EQ(number_at<uint32_t>(got[1], 8), 33u);
    const std::vector<std::string> expected = {
        "tlscWlcSetTunState() - tunnel state change update, current state:NONE, new state:UP, cause:0",
        "tlscWlcSetTunState() - tunnel current state:UP, new state:UP, posting an event:WLC_SEC_TUN_MSG_TLSC_TUN_UP to WLC Fifo",
        "tlscWlcPostTlscStateChangeMsg() - error:No Error ",
        "tlscWriteToWLC() ",
        "tlscWlcPostTlscStatsUpdateMsg() - ",
        "tlscWriteToWLC() ",
    };
    EXPECT_EQ(log.messages(), expected);
    EXPECT_TRUE(log.has("DEBUG", source, "tlscWlcSetTunState", expected[1]));
}

TEST_F(wlc_reports, down_carries_the_text_of_its_cause) {
    EXPECT_EQ(tlscWlcSetTunState(1, 0), 1);
    (void)received();
    log_capture log;
    EXPECT_EQ(tlscWlcSetTunState(0, 11), 1);
    EXPECT_EQ(received(), std::vector<wire_message>{down_message("Tunnel down due to max DPD timeout")});
    EXPECT_TRUE(
        log.has("DEBUG", source, "tlscWlcSetTunState",
                "tlscWlcSetTunState() - tunnel state change update, current state:UP, new state:DOWN, cause:11"));
    EXPECT_TRUE(log.has(
        "ERROR", source, "tlscWlcSetTunState",
        "tlscWlcSetTunState() - tunnel current state:DOWN, new state:DOWN, errCause:11, posting an event:WLC_SEC_TUN_MSG_TLSC_TUN_DOWN to WLC Fifo"));
    EXPECT_TRUE(log.has("DEBUG", source, "tlscWlcPostTlscStateChangeMsg",
                        "tlscWlcPostTlscStateChangeMsg() - error:Tunnel down due to max DPD timeout "));
}

TEST_F(wlc_reports, lines_of_a_change_name_the_new_state_as_the_current_one) {
    const std::string up =
        "tlscWlcSetTunState() - tunnel current state:UP, new state:UP, posting an event:WLC_SEC_TUN_MSG_TLSC_TUN_UP to WLC Fifo";
    const std::string down =
        "tlscWlcSetTunState() - tunnel current state:DOWN, new state:DOWN, errCause:3, posting an event:WLC_SEC_TUN_MSG_TLSC_TUN_DOWN to WLC Fifo";
    for (const int from : {1, 0}) {  // and the other way round
        tlscWlcSetTunState(from, 0);
        log_capture log;
        tlscWlcSetTunState(1 - from, 3);
        EXPECT_TRUE(log.has(from == 1 ? "ERROR" : "DEBUG", source, "tlscWlcSetTunState", from == 1 ? down : up));
    }
}

TEST_F(wlc_reports, repeated_state_sends_nothing_not_even_statistics) {
    tlscWlcSetSecTunFeatureStatus(1);
    for (const int state : {0, 1}) {
        EXPECT_EQ(tlscWlcSetTunState(state, 3), 1);
        EXPECT_EQ(received().size(), 2u);
        log_capture log;
        EXPECT_EQ(tlscWlcSetTunState(state, 4), 1);
        EXPECT_EQ(received().size(), 0u);
        EXPECT_EQ(log.entries().size(), 2u);
        EXPECT_TRUE(log.has("DEBUG", source, "tlscWlcSetTunState",
                            state == 1 ? "Tunnel is already in the same state:UP"
                                       : "Tunnel is already in the same state:DOWN"));
    }
}

TEST_F(wlc_reports, down_while_the_feature_is_disabled_goes_without_statistics) {
    log_capture log;
    EXPECT_EQ(tlscWlcSetTunState(0, 0), 1);
    EXPECT_EQ(received(), std::vector<wire_message>{down_message("No Error")});
    EXPECT_TRUE(
        log.has("DEBUG", source, "tlscWlcPostTlscStatsUpdateMsg",
                "tlscWlcPostTlscStatsUpdateMsg() - Secure tunnel feature is disabled, not sending stats update"));
}

TEST_F(wlc_reports, invalid_state_is_refused_but_statistics_are_sent) {
    tlscWlcSetSecTunFeatureStatus(1);
    tlscWlcSetTunState(1, 0);
    (void)received();
    log_capture log;
    EXPECT_EQ(tlscWlcSetTunState(5, 0), 1);
    const std::vector<wire_message> got = received();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(id_of(got[0]), 30u);
    EXPECT_TRUE(
        log.has("ERROR", source, "tlscWlcSetTunState", "tlscWlcSetTunState() - invalid tunnel state update, state:5"));
    // The state before it is kept.
    EXPECT_EQ(tlscWlcSetTunState(1, 0), 1);
    EXPECT_EQ(received().size(), 0u);
}

TEST_F(wlc_reports, state_counts_as_reported_even_when_the_controller_missed_it) {
    unlink(from_client_fifo);
    EXPECT_EQ(tlscWlcSetTunState(0, 3), 1);
    log_capture log;
    EXPECT_EQ(tlscWlcSetTunState(0, 3), 1);
    EXPECT_TRUE(log.has("DEBUG", source, "tlscWlcSetTunState", "Tunnel is already in the same state:DOWN"));
}

TEST_F(wlc_reports, state_change_message_refuses_an_invalid_state) {
    log_capture log;
    EXPECT_EQ(tlscWlcPostTlscStateChangeMsg(-1, 2), 0);
    EXPECT_EQ(tlscWlcPostTlscStateChangeMsg(2, 12), 0);
    EXPECT_EQ(received().size(), 0u);
    EXPECT_TRUE(log.has("ERROR", source, "tlscWlcPostTlscStateChangeMsg",
                        "tlscWlcPostTlscStateChangeMsg() - invalid state update, state:-1, cause:2"));
    EXPECT_TRUE(
        log.has("DEBUG", source, "tlscWlcPostTlscStateChangeMsg", "tlscWlcPostTlscStateChangeMsg() - error:Invalid "));
}

TEST_F(wlc_reports, state_change_message_returns_the_result_of_the_sending) {
    EXPECT_EQ(tlscWlcPostTlscStateChangeMsg(1, 0), 1);
    unlink(from_client_fifo);
    EXPECT_EQ(tlscWlcPostTlscStateChangeMsg(1, 0), 0);
}

TEST_F(wlc_reports, every_cause_has_its_text_and_others_are_invalid) {
    const std::vector<std::string> texts = {
        "No Error",
        "TLS Client init failed",
        "Tunnel start failed",
        "Tunnel down due to socket error",
        "Tunnel down due to unrecoverable error during SSL write",
        "Tunnel down due to unrecoverable error during SSL read",
        "Tunnel down due to TCP connection failure",
        "Tunnel down due to SSL connection failure",
        "Tunnel down due to pthread failure",
        "Tunnel down due to CSTP response timeout",
        "Tunnel down due to CSTP response processing error",
        "Tunnel down due to max DPD timeout",
        "Invalid",
    };
    for (size_t cause = 0; cause < texts.size(); ++cause) {
        EXPECT_EQ(tlscWlcTunDownCauseName(static_cast<int>(cause)), texts[cause]);
        EXPECT_EQ(tlscWlcPostTlscStateChangeMsg(0, static_cast<int>(cause)), 1);
        EXPECT_EQ(received(), std::vector<wire_message>{down_message(texts[cause])});
    }
    EXPECT_STREQ(tlscWlcTunDownCauseName(-1), "Invalid");
    EXPECT_STREQ(tlscWlcTunDownCauseName(INT32_MIN), "Invalid");
}

// ---- feature status -------------------------------------------------------------------------------------------------

TEST_F(wlc_reports, feature_status_is_logged_when_it_changes) {
    log_capture log;
    EXPECT_EQ(tlscWlcSetSecTunFeatureStatus(1), 1);
    EXPECT_EQ(tlscWlcGetSecTunFeatureStatus(), 1);
    EXPECT_EQ(tlscWlcSetSecTunFeatureStatus(1), 1);
    EXPECT_EQ(tlscWlcSetSecTunFeatureStatus(0), 1);
    EXPECT_EQ(tlscWlcGetSecTunFeatureStatus(), 0);
    EXPECT_EQ(tlscWlcSetSecTunFeatureStatus(0), 1);
    const std::vector<std::string> expected = {
        "tlscWlcSetSecTunFeatureStatus() - secure tunnel feature status set to:Enabled",
        "tlscWlcSetSecTunFeatureStatus() - secure tunnel feature status set to:Disabled",
    };
    EXPECT_EQ(log.messages(), expected);
    for (const std::string &message : expected)
        EXPECT_TRUE(log.has("DEBUG", source, "tlscWlcSetSecTunFeatureStatus", message));
    for (const log_line &line : log.entries()) EXPECT_EQ(line.severity, "DEBUG") << line.message;
}

// ---- statistics -----------------------------------------------------------------------------------------------------

TEST_F(wlc_reports, statistics_message_holds_the_31_counters_in_order) {
    uint64_t *counters = reinterpret_cast<uint64_t *>(&tlsc_stats_record);
    for (uint64_t i = 0; i < 31; ++i) counters[i] = (0xa0 + i) << 56 | (i + 1);
    tlscWlcSetSecTunFeatureStatus(1);
    log_capture log;
    EXPECT_EQ(tlscWlcPostTlscStatsUpdateMsg(), 1);
    EXPECT_TRUE(log.has("DEBUG", source, "tlscWlcPostTlscStatsUpdateMsg", "tlscWlcPostTlscStatsUpdateMsg() - "));
    const std::vector<wire_message> got = received();
    ASSERT_EQ(got.size(), 1u);
    ASSERT_EQ(got[0].size(), 520u);
    EXPECT_EQ(got[0].substr(0, 16), std::string("\x1e\0\0\0"
                                                "\0\0\0\0"
                                                "\x21\0\0\0"
                                                "\0\0\0\0",
                                                16));
    for (size_t i = 0; i < 31; ++i) {
        std::string eight(8, '\0');  // little-endian
        eight[0] = static_cast<char>(i + 1);
        eight[7] = static_cast<char>(0xa0 + i);
        EXPECT_EQ(got[0].substr(16 + 8 * i, 8), eight) << "counter " << i + 1;
    }
    EXPECT_TRUE(is_zero(got[0], 16 + 248, 520));
}

TEST_F(wlc_reports, statistics_name_their_counters) {
    tlsc_count(&tlsc_stats::data_pkt_rx);
    tlsc_count(&tlsc_stats::tun_alloc);
    tlsc_count(&tlsc_stats::tun_alloc);
    tlscWlcSetSecTunFeatureStatus(1);
    EXPECT_EQ(tlscWlcPostTlscStatsUpdateMsg(), 1);
    const std::vector<wire_message> got = received();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(number_at<uint64_t>(got[0], 16), 1u);
    EXPECT_EQ(number_at<uint64_t>(got[0], 16 + 8 * 11), 2u);
}

TEST_F(wlc_reports, statistics_that_cannot_be_sent_fail_and_disabled_ones_do_not) {
    unlink(from_client_fifo);
    EXPECT_EQ(tlscWlcPostTlscStatsUpdateMsg(), 1);
    tlscWlcSetSecTunFeatureStatus(1);
    EXPECT_EQ(tlscWlcPostTlscStatsUpdateMsg(), 0);
}

// ---- process id -----------------------------------------------------------------------------------------------------

TEST_F(wlc_reports, process_information_is_the_process_id) {
    log_capture log;
    EXPECT_EQ(tlscWlcPostTlscProcDbgInfoUpdateMsg(), 1);
    const std::vector<wire_message> got = received();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(id_of(got[0]), 36u);
    EXPECT_EQ(number_at<int32_t>(got[0], 8), getpid());
    EXPECT_TRUE(is_zero(got[0], 4, 8));
    EXPECT_TRUE(is_zero(got[0], 12, 520));
    EXPECT_TRUE(
        log.has("DEBUG", source, "tlscWlcPostTlscProcDbgInfoUpdateMsg", "tlscWlcPostTlscProcDbgInfoUpdateMsg() - "));
    unlink(from_client_fifo);
    EXPECT_EQ(tlscWlcPostTlscProcDbgInfoUpdateMsg(), 0);
}

// ---- inner address --------------------------------------------------------------------------------------------------

TEST_F(wlc_reports, inner_address_is_sent_as_text_whatever_the_feature_status) {
    log_capture log;
    EXPECT_EQ(tlscWlcPostInnerIpUpdateMsg("10.11.12.13"), 1);
    const std::vector<wire_message> got = received();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].substr(0, 16), std::string("\x1e\0\0\0"
                                                "\0\0\0\0"
                                                "\x01\0\0\0"
                                                "\0\0\0\0",
                                                16));
    EXPECT_EQ(got[0].substr(16, 11), "10.11.12.13");
    EXPECT_TRUE(is_zero(got[0], 27, 520));
    const std::vector<std::string> expected = {
        "tlscWlcPostInnerIpUpdateMsg() - inner ip update, ip:10.11.12.13",
        "tlscWlcPostInnerIpUpdateMsg() - posting message:WLC_SEC_TUN_MSG_TLSC_INFO_UPDATE to WLC, for innerIp update:10.11.12.13",
        "tlscWriteToWLC() ",
    };
    EXPECT_EQ(log.messages(), expected);
    for (const log_line &line : log.entries()) EXPECT_EQ(line.severity, "DEBUG") << line.message;
    unlink(from_client_fifo);
    EXPECT_EQ(tlscWlcPostInnerIpUpdateMsg("10.11.12.13"), 0);
}

TEST_F(wlc_reports, inner_address_text_of_46_characters_is_whole_and_the_47th_is_cut) {
    EXPECT_EQ(tlscWlcPostInnerIpUpdateMsg(std::string(46, 'a').c_str()), 1);
    EXPECT_EQ(tlscWlcPostInnerIpUpdateMsg(std::string(47, 'b').c_str()), 1);
    const std::vector<wire_message> got = received();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(text_at(got[0], 16), std::string(46, 'a'));
    EXPECT_EQ(text_at(got[1], 16), std::string(46, 'b'));
}

TEST_F(wlc_reports, null_inner_address_is_refused) {
    log_capture log;
    EXPECT_EQ(tlscWlcPostInnerIpUpdateMsg(nullptr), 0);
    EXPECT_TRUE(
        log.has("ERROR", source, "tlscWlcPostInnerIpUpdateMsg", "tlscWlcPostInnerIpUpdateMsg() - Input param NULL"));
    EXPECT_EQ(received().size(), 0u);
}

// ---- DNS servers ----------------------------------------------------------------------------------------------------

TEST_F(wlc_reports, dns_servers_are_sent_as_20_byte_entries_whatever_the_feature_status) {
    tlsc_dns_list list{};
    list.count      = 3;
    list.servers[0] = make_addr(1, "8.8.4.4");
    list.servers[1] = make_addr(2, "2001:db8::7");
    list.servers[2] = make_addr(1, "1.2.3.4");
    list.servers[3] = make_addr(1, "9.9.9.9");  // beyond the count
    log_capture log;
    EXPECT_EQ(tlscWlcPostCloudDnsSvrInfoUpdateMsg(&list), 1);
    const std::vector<wire_message> got = received();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].substr(0, 16), std::string("\x1e\0\0\0"
                                                "\0\0\0\0"
                                                "\0\0\0\0"
                                                "\0\0\0\0",
                                                16));
    EXPECT_EQ(got[0].substr(16, 4), std::string("\x03\0\0\0", 4));
    EXPECT_EQ(got[0].substr(20, 20), std::string("\0\0\0\0"
                                                 "\x08\x08\x04\x04"
                                                 "\0\0\0\0\0\0\0\0\0\0\0\0",
                                                 20));
    EXPECT_EQ(got[0].substr(40, 20), std::string("\x01\0\0\0"
                                                 "\x20\x01\x0d\xb8"
                                                 "\0\0\0\0\0\0\0\0\0\0\0\x07",
                                                 20));
    EXPECT_EQ(got[0].substr(60, 20), std::string("\0\0\0\0"
                                                 "\x01\x02\x03\x04"
                                                 "\0\0\0\0\0\0\0\0\0\0\0\0",
                                                 20));
    EXPECT_TRUE(is_zero(got[0], 80, 520));
    const std::vector<std::string> expected = {
        "tlscWlcPostCloudDnsSvrInfoUpdateMsg() - No. of DNS server 3\n",
        "0: 8.8.4.4\n",
        "2: 1.2.3.4\n",
        "tlscWlcPostCloudDnsSvrInfoUpdateMsg() - posting message:WLC_SEC_TUN_MSG_TLSC_INFO_UPDATE to WLC",
        "tlscWriteToWLC() ",
    };
    EXPECT_EQ(log.messages(), expected);
    for (const log_line &line : log.entries()) EXPECT_EQ(line.severity, "DEBUG") << line.message;
}

TEST_F(wlc_reports, dns_count_of_6_is_sent_as_6_with_4_entries) {
    tlsc_dns_list list{};
    list.count = 6;
    for (tlsc_addr &server : list.servers) server = make_addr(1, "5.6.7.8");
    log_capture log;
    EXPECT_EQ(tlscWlcPostCloudDnsSvrInfoUpdateMsg(&list), 1);
    const std::vector<wire_message> got = received();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(number_at<uint16_t>(got[0], 16), 6u);
    EXPECT_TRUE(is_zero(got[0], 18, 20));
    for (const size_t entry : {20, 40, 60, 80})
        EXPECT_EQ(got[0].substr(entry, 8), std::string("\0\0\0\0\x05\x06\x07\x08", 8));
    EXPECT_TRUE(is_zero(got[0], 100, 520));
    EXPECT_TRUE(log.contains("tlscWlcPostCloudDnsSvrInfoUpdateMsg() - No. of DNS server 6\n"));
    EXPECT_EQ(log.entries().size(), 7u);  // four addresses
}

TEST_F(wlc_reports, dns_server_of_an_unknown_kind_stays_zero) {
    tlsc_dns_list list{};
    list.count           = 2;
    list.servers[0]      = make_addr(1, "5.6.7.8");
    list.servers[0].kind = 7;
    list.servers[1]      = make_addr(1, "5.6.7.8");
    log_capture log;
    EXPECT_EQ(tlscWlcPostCloudDnsSvrInfoUpdateMsg(&list), 1);
    const std::vector<wire_message> got = received();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(number_at<uint16_t>(got[0], 16), 2u);
    EXPECT_TRUE(is_zero(got[0], 20, 40));
    EXPECT_EQ(got[0].substr(44, 4), "\x05\x06\x07\x08");
    EXPECT_TRUE(log.has("ERROR", source, "tlscWlcPostCloudDnsSvrInfoUpdateMsg",
                        "tlscWlcPostCloudDnsSvrInfoUpdateMsg() - Invalid IP type:7"));
}

TEST_F(wlc_reports, empty_dns_list_is_sent_and_a_null_one_is_refused) {
    const tlsc_dns_list list{};
    EXPECT_EQ(tlscWlcPostCloudDnsSvrInfoUpdateMsg(&list), 1);
    EXPECT_EQ(received(), std::vector<wire_message>{make_message(30)});
    log_capture log;
    EXPECT_EQ(tlscWlcPostCloudDnsSvrInfoUpdateMsg(nullptr), 0);
    EXPECT_TRUE(log.has("ERROR", source, "tlscWlcPostCloudDnsSvrInfoUpdateMsg",
                        "tlscWlcPostCloudDnsSvrInfoUpdateMsg() - Input param NULL"));
    EXPECT_EQ(received().size(), 0u);
}

// ---- the plain path -------------------------------------------------------------------------------------------------

TEST_F(wlc_reports, lines_follow_the_two_message_flags) {
    log_capture log(LOG_ERRORS);
    tlscWlcMsgEventDbg = 1;
    EXPECT_EQ(tlscWlcPostInnerIpUpdateMsg("1.1.1.1"), 1);
    EXPECT_EQ(log.count_plain("EVENT", plain_path, "tlscWlcPostInnerIpUpdateMsg() - inner ip update, ip:1.1.1.1"), 1u);
    EXPECT_EQ(tlscWlcPostCloudDnsSvrInfoUpdateMsg(nullptr), 0);
    EXPECT_TRUE(log.has("ERROR", source, "tlscWlcPostCloudDnsSvrInfoUpdateMsg",
                        "tlscWlcPostCloudDnsSvrInfoUpdateMsg() - Input param NULL"));
    log.clear();
    tlscWlcMsgEventDbg = 0;
    tlscWlcMsgErrDbg   = 1;
    EXPECT_EQ(tlscWlcPostCloudDnsSvrInfoUpdateMsg(nullptr), 0);
    ASSERT_EQ(log.entries().size(), 1u);
    EXPECT_EQ(log.count_plain("ERROR", plain_path, "tlscWlcPostCloudDnsSvrInfoUpdateMsg() - Input param NULL"), 1u);
}

TEST_F(wlc_reports, every_report_line_follows_the_message_flags_and_none_the_transport_flags) {
    const auto report_everything = [] {
        tlscWlcSetSecTunFeatureStatus(1);
        tlscWlcMsgRcvSecTunStop();
        tlscWlcSetTunState(1, 0);  // without statistics
        tlscWlcSetTunState(1, 0);
        tlscWlcSetSecTunFeatureStatus(1);
        tlscWlcSetTunState(0, 3);
        tlscWlcSetTunState(5, 0);
        tlscWlcPostTlscStateChangeMsg(9, 2);
        tlscWlcPostTlscProcDbgInfoUpdateMsg();
        tlscWlcPostInnerIpUpdateMsg("1.1.1.1");
        tlscWlcPostInnerIpUpdateMsg(nullptr);
        tlsc_dns_list list{};
        list.count      = 2;
        list.servers[0] = make_addr(1, "5.6.7.8");
        tlscWlcPostCloudDnsSvrInfoUpdateMsg(&list);
        tlscWlcPostCloudDnsSvrInfoUpdateMsg(nullptr);
        tlscWlcSetSecTunFeatureStatus(0);
    };
    // How many of the lines are plain and not, DEBUG (or EVENT) and ERROR.
    const auto lines_with = [&](int32_t msg_event, int32_t msg_error, int32_t transport) {
        tlscWlcMsgEventDbg = msg_event;
        tlscWlcMsgErrDbg   = msg_error;
        tlscWlcIpcEventDbg = tlscWlcIpcErrDbg = transport;
        log_capture log;
        report_everything();
        (void)received();
        std::map<std::string, int> counts;
        for (const log_line &line : log.entries()) ++counts[(line.plain ? "plain " : "service ") + line.severity];
        return counts;
    };
    using counts        = std::map<std::string, int>;
    const counts silent = lines_with(0, 0, 0);
    ASSERT_EQ(silent.size(), 2u);
    const int events = silent.at("service DEBUG");
    const int errors = silent.at("service ERROR");
    EXPECT_EQ(errors, 6);
    EXPECT_EQ(lines_with(0, 0, 1), silent);
    EXPECT_EQ(lines_with(1, 0, 0), (counts{{"plain EVENT", events}, {"service ERROR", errors}}));
    EXPECT_EQ(lines_with(0, 1, 0), (counts{{"service DEBUG", events}, {"plain ERROR", errors}}));
}
