// The dispatcher and the handling of the controller's messages. The client itself is replaced: the tests see when it
// is initialised, started and stopped, and what would go into the command pipe.

#include "tlsc_wlc.h"

#include <array>
#include <functional>
#include <map>
#include <random>
#include <set>

#include <arpa/inet.h>

#include "tlsc_platform.h"  // the statistics record

#include "capture.h"
#include "wlc_controller.h"

namespace {

constexpr char source[]     = "tlsc_wlc.c";
constexpr char plain_path[] = "../wlc/tlsc_wlc.c";

std::vector<std::string> calls;  // of the client, of sleep and of the command-pipe wrappers, in order
int32_t                  init_result;
int32_t                  start_result;
int                      pton_result;  // of inet_pton, 1 for the real call
std::function<void()>    on_init;
tlsc_gw_addr             posted_gw;

}  // namespace

extern "C" {
int __real_inet_pton(int family, const char *text, void *address);

unsigned __wrap_sleep(unsigned seconds) {
    calls.push_back("sleep " + std::to_string(seconds));
    return 0;
}
int __wrap_inet_pton(int family, const char *text, void *address) {
    return pton_result == 1 ? __real_inet_pton(family, text, address) : pton_result;
}

// tlsc_init and its like, under their linker names.
int32_t __wrap_tlsc_init() {
    calls.push_back("init");
    if (on_init) on_init();
    return init_result;
}
int32_t __wrap_tlsc_start_epoll_mon_thread() {
    calls.push_back("start");
    return start_result;
}
int32_t __wrap_tlsc_stop_client() {
    calls.push_back("stop");
    return 1;
}
void    __wrap_tlsc_post_log_level(int32_t level) { calls.push_back("level " + std::to_string(level)); }
void    __wrap_tlsc_post_log_dest(int32_t dest) { calls.push_back("destination " + std::to_string(dest)); }
int32_t __wrap_tlsc_post_gw_ip(tlsc_gw_addr gw) {
    calls.push_back("gateway");
    posted_gw = gw;
    return 0;  // nobody looks at it
}
}

class wlc_messages : public controller_test {
protected:
    void SetUp() override {
        controller_test::SetUp();
        if (IsSkipped()) return;
        init_result  = 1;
        start_result = 1;
        pton_result  = 1;
        on_init      = nullptr;
        {
            log_capture quiet(LOG_ERRORS);
            ASSERT_EQ(tlscWlcInit(), 1);
        }
        tlsc_stats_init();
        listen();
        calls.clear();
    }
    void TearDown() override {
        tlscWlcSetBootupDbgFlags(0);
        (void)tlscWlcIpcCleanup();
        controller_test::TearDown();
    }

    // The identifiers of what the controller received since the last call.
    std::vector<uint32_t> received_ids() {
        std::vector<uint32_t> ids;
        for (const wire_message &bytes : received()) ids.push_back(id_of(bytes));
        return ids;
    }
};

using ids = std::vector<uint32_t>;

// ---- the dispatcher -------------------------------------------------------------------------------------------------

TEST_F(wlc_messages, nothing_waiting_returns_0_and_logs_nothing) {
    log_capture log;
    EXPECT_EQ(wlcTlscFifoHandler(), 0);
    EXPECT_EQ(log.text(), "");
}

TEST_F(wlc_messages, one_call_handles_all_waiting_messages_in_order) {
    send(make_message(1) + make_message(35) + make_message(20) + make_message(32) + make_message(21));
    EXPECT_EQ(wlcTlscFifoHandler(), 0);
    EXPECT_EQ(received_ids(), (ids{1, 36, 23, 30}));
    EXPECT_EQ(calls, (std::vector<std::string>{"init", "start", "stop"}));
}

TEST_F(wlc_messages, exit_in_a_batch_ends_the_handling_and_leaves_the_rest_unread) {
    send(make_message(1) + make_message(37) + make_message(35));
    log_capture log;
    EXPECT_EQ(wlcTlscFifoHandler(), -2);
    EXPECT_EQ(received_ids(), ids{1});
    EXPECT_TRUE(log.has("DEBUG", source, "wlcTlscFifoHandler",
                        "wlcTlscFifoHandler() - [37]Invalid Message received on TLS Client"));
    EXPECT_TRUE(log.has("DEBUG", source, "wlcTlscFifoHandler", "TLS Client process: Received EXIT message"));
    EXPECT_EQ(wlcTlscFifoHandler(), 0);
    EXPECT_EQ(received_ids(), ids{36});
}

TEST_F(wlc_messages, hello_is_answered_with_hello) {
    send(make_message(1));
    log_capture log;
    EXPECT_EQ(wlcTlscFifoHandler(), 0);
    EXPECT_EQ(received(), std::vector<wire_message>{make_message(1)});
    EXPECT_TRUE(log.has("DEBUG", source, "wlcTlscFifoHandler",
                        "wlcTlscFifoHandler() - [1]WLC_SEC_TUN_MSG_HELLO Message received on TLS Client"));
    EXPECT_TRUE(log.has("DEBUG", source, "wlcTlscFifoHandler", "Received Hello from WLC"));
}

TEST_F(wlc_messages, other_messages_are_named_and_dropped) {
    for (const uint32_t id : {0, 2, 3, 4, 5, 6, 7, 8, 19, 23, 24, 25, 26, 27, 30, 31, 33, 36, 38}) {
        send(make_message(id));
        log_capture log;
        EXPECT_EQ(wlcTlscFifoHandler(), 0);
        EXPECT_TRUE(log.has("ERROR", source, "wlcTlscFifoHandler",
                            std::string("wlcTlscFifoHandler - Msg:") + tlscWlcMsgName(id) +
                                ", id:" + std::to_string(id) + " received, but not processed"));
        EXPECT_EQ(log.entries().size(), 3u);
    }
    EXPECT_EQ(received_ids(), ids{});
    EXPECT_TRUE(calls.empty());
}

TEST_F(wlc_messages, messages_32_34_and_37_are_handled_and_have_no_name) {
    tlscWlcSetSecTunFeatureStatus(1);
    send(make_message(32) + make_message(34) + make_message(37));
    log_capture log;
    EXPECT_EQ(wlcTlscFifoHandler(), -2);
    EXPECT_EQ(received_ids(), (ids{30, 30}));
    for (const char *id : {"32", "34", "37"})
        EXPECT_TRUE(log.has("DEBUG", source, "wlcTlscFifoHandler",
                            std::string("wlcTlscFifoHandler() - [") + id + "]Invalid Message received on TLS Client"));
    EXPECT_FALSE(log.contains("not processed"));
}

TEST_F(wlc_messages, message_31_bears_the_name_of_an_exit_and_is_none) {
    send(make_message(31) + make_message(1));
    log_capture log;
    EXPECT_EQ(wlcTlscFifoHandler(), 0);
    EXPECT_EQ(received_ids(), ids{1});
    EXPECT_TRUE(log.has("DEBUG", source, "wlcTlscFifoHandler",
                        "wlcTlscFifoHandler() - [31]WLC_SEC_TUN_MSG_EXIT Message received on TLS Client"));
    EXPECT_TRUE(log.has("ERROR", source, "wlcTlscFifoHandler",
                        "wlcTlscFifoHandler - Msg:WLC_SEC_TUN_MSG_EXIT, id:31 received, but not processed"));
}

TEST_F(wlc_messages, rejected_message_does_not_stop_the_loop) {
    send(make_message(29, debug_set_payload("level", "loud")) + make_message(1));
    EXPECT_EQ(wlcTlscFifoHandler(), 0);
    EXPECT_EQ(received_ids(), ids{1});
}

TEST_F(wlc_messages, dispatcher_lines_follow_the_transport_flags_and_handler_lines_the_message_flags) {
    log_capture log(LOG_ERRORS);
    tlscWlcIpcEventDbg = 1;
    tlscWlcIpcErrDbg   = 1;
    send(make_message(35) + make_message(31));
    EXPECT_EQ(wlcTlscFifoHandler(), 0);
    std::vector<std::string> expected = {
        "wlcTlscFifoHandler() - [35]WLC_SEC_TUN_MSG_TLSC_DBG_INFO_REQ Message received on TLS Client",
        "wlcTlscFifoHandler() - [31]WLC_SEC_TUN_MSG_EXIT Message received on TLS Client",
        "wlcTlscFifoHandler - Msg:WLC_SEC_TUN_MSG_EXIT, id:31 received, but not processed",
    };
    EXPECT_EQ(log.messages(), expected);
    EXPECT_EQ(log.count_plain("ERROR", plain_path, expected[2]), 1u);

    tlscWlcSetBootupDbgFlags(0);
    tlscWlcMsgEventDbg = 1;
    tlscWlcMsgErrDbg   = 1;
    log.clear();
    send(make_message(29, debug_set_payload("level", "loud")));
    EXPECT_EQ(wlcTlscFifoHandler(), 0);
    expected = {
        "readFromTlscFifo() -on TLS client proc, read success,Rcvd message, msgId=29",
        "tlscWlcMsgRcvTlscDebugsSetHandler() - On TLS Client, Received  TLS client debugs set message, category:level, level:loud",
        "level() - TLS Client, debug set msg received, invalid params,category:loud, level:",
    };
    EXPECT_EQ(log.messages(), expected);
    EXPECT_EQ(log.count_plain("ERROR", plain_path, expected[2]), 1u);
}

TEST_F(wlc_messages,
       lines_of_dispatcher_and_file_follow_the_transport_flags_and_those_of_the_handlers_the_message_flags) {
    const auto handle_everything = [&] {
        write_file(conf_file, "device_id;D1;1\n");
        send(make_message(1) + make_message(20) + make_message(22) + make_message(28, "192.0.2.1") +
             make_message(29, debug_set_payload("level", "info")) +
             make_message(29, debug_set_payload("level", "loud")) + make_message(32) + make_message(34) +
             make_message(35) + make_message(31) + make_message(21));
        EXPECT_EQ(wlcTlscFifoHandler(), 0);
        init_result = 0;
        (void)tlscWlcStartTunnelSetup();
        init_result  = 1;
        start_result = 0;
        (void)tlscWlcStartTunnelSetup();
        start_result = 1;
        wlcSecTunProcessConf("log_level", "loud");
        wlcSecTunProcessConf("log_dest", "printer");
        tlscWlcSetDebugParams();
        (void)tlscWlcMsgSendTlsGwFqdnResolveReq();
        pton_result = -1;
        (void)tlscWlcMsgRcvTlsGwFqdnResolveResHandler();
        pton_result = 1;
        send(make_message(37));
        EXPECT_EQ(wlcTlscFifoHandler(), -2);
        (void)received();
    };
    // By the function that writes them, as the service shows it: dispatcher and file operations, and the rest.
    const std::set<std::string> transport{"wlcTlscFifoHandler", "wlcSecTunReadAllConf", "wlcSecTunProcessConf",
                                          "tlscWlcClearCfgParams"};
    std::map<std::string, int>  expected;
    {
        log_capture log;
        handle_everything();
        for (const log_line &line : log.entries())
            ++expected[(transport.count(line.function) ? "transport " : "message ") + line.severity];
    }
    ASSERT_EQ(expected.size(), 4u);
    const std::vector<std::pair<std::atomic<int32_t> *, std::string>> flags{{&tlscWlcIpcEventDbg, "transport DEBUG"},
                                                                            {&tlscWlcIpcErrDbg, "transport ERROR"},
                                                                            {&tlscWlcMsgEventDbg, "message DEBUG"},
                                                                            {&tlscWlcMsgErrDbg, "message ERROR"}};
    for (const auto &[flag, lines] : flags) {
        log_capture log;
        *flag = 1;
        handle_everything();
        *flag     = 0;
        int plain = 0;
        for (const log_line &line : log.entries()) plain += line.plain;
        EXPECT_EQ(plain, expected.at(lines)) << lines;
        for (const log_line &line : log.entries())
            if (!line.plain) {
                EXPECT_NE((transport.count(line.function) ? "transport " : "message ") + line.severity, lines)
                    << line.message;
            }
    }
}

TEST_F(wlc_messages, read_without_a_message_empties_the_receive_record) {
    send(make_message(28, "192.0.2.33"));
    ASSERT_EQ(readFromTlscFifo(), 1);
    ASSERT_EQ(readFromTlscFifo(), 0);
    log_capture log;
    EXPECT_EQ(tlscWlcMsgRcvTlsGwFqdnResolveResHandler(), 1);
    EXPECT_TRUE(
        log.has("DEBUG", source, "tlscWlcMsgRcvTlsGwFqdnResolveResHandler",
                "tlscWlcMsgRcvTlsGwFqdnResolveResHandler() - Received TLS GW FQDN response message from WLC, GW ip:"));
}

// ---- start, stop, restart -------------------------------------------------------------------------------------------

TEST_F(wlc_messages, start_enables_the_feature_and_reads_the_file_before_it_initialises) {
    write_file(conf_file, "server_ip_address;gw.example;1\nserver_port;8443;1\n");
    wlcSecTunProcessConf("device_id", "stale");
    std::string seen;
    on_init = [&] {
        seen = std::string(tlscWlcGetServerIpAddress()) + " " + std::to_string(tlscWlcGetServerPort()) + " " +
               std::to_string(tlscWlcGetSecTunFeatureStatus()) + " [" + tlscWlcGetDeviceId() + "]";
    };
    send(make_message(20));
    log_capture log;
    EXPECT_EQ(wlcTlscFifoHandler(), 0);
    EXPECT_EQ(seen, "gw.example 8443 1 []");
    EXPECT_EQ(calls, (std::vector<std::string>{"sleep 1", "init", "start"}));
    EXPECT_EQ(received(), std::vector<wire_message>{make_message(23)});
    EXPECT_EQ(read_file(conf_file), "server_ip_address;gw.example;0\nserver_port;8443;0\n");
    EXPECT_TRUE(log.has("DEBUG", source, "tlscWlcMsgRcvSecTunStart", "TLS Client  - start the tunnel setup"));
    EXPECT_TRUE(log.has("DEBUG", source, "tlscWlcStartTunnelSetup",
                        "tlscWlcStartTunnelSetup(): On TLS Client, starting the tunnel setup"));
    EXPECT_TRUE(log.has("DEBUG", source, "tlscWlcStartTunnelSetup", "TLS Client: Initialization successful"));
    EXPECT_TRUE(log.has("DEBUG", source, "tlscWlcStartTunnelSetup", "TLS Client: Starting tunnel setup successful"));
}

TEST_F(wlc_messages, start_without_a_file_still_sets_the_tunnel_up) {
    EXPECT_EQ(tlscWlcMsgRcvSecTunStart(), 1);
    EXPECT_EQ(calls, (std::vector<std::string>{"init", "start"}));
    EXPECT_EQ(received_ids(), ids{23});
}

TEST_F(wlc_messages, failed_initialisation_reports_down_with_cause_1_and_starts_nothing) {
    init_result = 0;
    log_capture log;
    EXPECT_EQ(tlscWlcStartTunnelSetup(), 0);
    EXPECT_EQ(calls, std::vector<std::string>{"init"});
    EXPECT_EQ(received(), std::vector<wire_message>{make_message(25, "TLS Client init failed")});
    EXPECT_TRUE(log.has("ERROR", source, "tlscWlcStartTunnelSetup", "TLS Client: Initialization failed, ret:0"));
    // The stored state is untouched: a DOWN of the tunnel itself is news.
    tlscWlcSetTunState(0, 3);
    EXPECT_EQ(received_ids(), ids{25});
}

TEST_F(wlc_messages, failed_start_reports_down_with_cause_2) {
    for (const int32_t result : {0, 2, -1}) {
        start_result = result;
        log_capture log;
        EXPECT_EQ(tlscWlcStartTunnelSetup(), 0);
        EXPECT_EQ(received(), std::vector<wire_message>{make_message(25, "Tunnel start failed")});
        EXPECT_TRUE(log.has("ERROR", source, "tlscWlcStartTunnelSetup",
                            "TLS Client: Starting tunnel setup failed, ret:" + std::to_string(result)));
    }
    tlscWlcSetTunState(0, 3);
    EXPECT_EQ(received_ids(), ids{25});
}

TEST_F(wlc_messages, start_that_failed_leaves_the_feature_enabled_and_counts_as_handled) {
    init_result = 0;
    EXPECT_EQ(tlscWlcMsgRcvSecTunStart(), 1);
    EXPECT_EQ(tlscWlcGetSecTunFeatureStatus(), 1);
}

TEST_F(wlc_messages, stop_tells_the_controller_nothing_and_forgets_the_state) {
    tlscWlcSetSecTunFeatureStatus(1);
    tlscWlcSetTunState(0, 3);
    (void)received();
    send(make_message(21));
    log_capture log;
    EXPECT_EQ(wlcTlscFifoHandler(), 0);
    EXPECT_EQ(calls, std::vector<std::string>{"stop"});
    EXPECT_EQ(received_ids(), ids{});
    EXPECT_EQ(tlscWlcGetSecTunFeatureStatus(), 0);
    EXPECT_TRUE(log.has("DEBUG", source, "tlscWlcMsgRcvSecTunStop", "TLS Client  - stop the tunnel setup"));
    log.clear();
    tlscWlcSetTunState(-1, 0);
    EXPECT_TRUE(log.has("DEBUG", source, "tlscWlcSetTunState", "Tunnel is already in the same state:NONE"));
    // A later DOWN is not suppressed as a repeat.
    tlscWlcSetTunState(0, 0);
    EXPECT_EQ(received(), std::vector<wire_message>{make_message(25, "No Error")});
}

TEST_F(wlc_messages, restart_stops_waits_reads_the_file_and_sets_up) {
    write_file(conf_file, "device_id;D1;1\n");
    send(make_message(20) + make_message(22));
    log_capture log;
    EXPECT_EQ(wlcTlscFifoHandler(), 0);
    // The second sleep of the restart is the one before the file is replaced.
    EXPECT_EQ(calls,
              (std::vector<std::string>{"sleep 1", "init", "start", "stop", "sleep 1", "sleep 1", "init", "start"}));
    EXPECT_EQ(received_ids(), (ids{23, 23}));
    EXPECT_STREQ(tlscWlcGetDeviceId(), "D1");
    EXPECT_TRUE(log.has("DEBUG", source, "tlscWlcMsgRcvSecTunReStart", "tlscWlcMsgRcvSecTunReStart() - "));
}

TEST_F(wlc_messages, restart_forgets_the_settings_that_the_file_no_longer_names) {
    write_file(conf_file, "device_id;D1;1\n");
    wlcSecTunProcessConf("cipher_algo", "stale");
    EXPECT_EQ(tlscWlcMsgRcvSecTunReStart(), 1);
    EXPECT_STREQ(tlscWlcGetDeviceId(), "D1");
    EXPECT_STREQ(tlscWlcGetCipherAlgo(), "");
}

TEST_F(wlc_messages, handlers_return_1_when_nothing_is_refused) {
    EXPECT_EQ(tlscWlcStartTunnelSetup(), 1);
    EXPECT_EQ(tlscWlcMsgRcvSecTunStart(), 1);
    EXPECT_EQ(tlscWlcMsgRcvSecTunReStart(), 1);
    EXPECT_EQ(tlscWlcMsgRcvSecTunStop(), 1);
    EXPECT_EQ(tlscWlcMsgRcvTlscStatsRequestHandler(), 1);
    EXPECT_EQ(tlscWlcMsgRcvTlscStatsClearHandler(), 1);
    EXPECT_EQ(tlscWlcMsgRcvTlscDbgInfoReqHandler(), 1);
    for (const wire_message &bytes : {make_message(29, debug_set_payload("level", "info")),
                                      make_message(29, debug_set_payload("destination", "both"))}) {
        send(bytes);
        ASSERT_EQ(readFromTlscFifo(), 1);
        EXPECT_EQ(tlscWlcMsgRcvTlscDebugsSetHandler(), 1);
    }
}

TEST_F(wlc_messages, restart_leaves_the_feature_status) {
    for (const uint8_t status : {0, 1}) {
        tlscWlcSetSecTunFeatureStatus(status);
        EXPECT_EQ(tlscWlcMsgRcvSecTunReStart(), 1);
        EXPECT_EQ(tlscWlcGetSecTunFeatureStatus(), status);
    }
}

// ---- debug settings -------------------------------------------------------------------------------------------------

TEST_F(wlc_messages, level_and_destination_words_are_matched_by_their_beginning) {
    const std::vector<std::array<std::string, 3>> settings = {
        {"level", "errors", "level 0"},
        {"level", "warnings", "level 1"},
        {"level", "info", "level 2"},
        {"level", "informational", "level 2"},
        {"level", "debug", "level 3"},
        {"level", "ssl-dbg", "level 4"},
        {"level", "buf-print", "level 5"},
        {"levels-of-all", "debugging", "level 3"},
        {"destination", "file", "destination 0"},
        {"destination", "console", "destination 1"},
        {"destination", "both", "destination 2"},
        {"destinations", "filesystem", "destination 0"},
    };
    for (const auto &[category, value, call] : settings) {
        calls.clear();
        send(make_message(29, debug_set_payload(category, value)));
        EXPECT_EQ(wlcTlscFifoHandler(), 0);
        EXPECT_EQ(calls, std::vector<std::string>{call}) << category << " " << value;
    }
    EXPECT_EQ(received_ids(), ids{});
}

TEST_F(wlc_messages, accepted_debug_setting_is_kept_for_the_next_client_start) {
    log_capture log;
    send(make_message(29, debug_set_payload("level", "informational")) +
         make_message(29, debug_set_payload("destination", "both")));
    EXPECT_EQ(wlcTlscFifoHandler(), 0);
    EXPECT_TRUE(log.has(
        "DEBUG", source, "tlscWlcMsgRcvTlscDebugsSetHandler",
        "tlscWlcMsgRcvTlscDebugsSetHandler() - On TLS Client, Received  TLS client debugs set message, category:level, level:informational"));
    tlscWlcSetDebugParams();
    EXPECT_TRUE(log.has(
        "DEBUG", source, "tlscWlcSetDebugParams",
        "tlscWlcSetDebugParams() - On TLS Client, setting TLSC debug parameters message, level:informational, destination:both"));
}

TEST_F(wlc_messages, refused_debug_value_changes_nothing) {
    wlcSecTunProcessConf("log_level", "info");
    wlcSecTunProcessConf("log_dest", "file");
    for (const char *category : {"level", "destination"}) {
        for (const char *value : {"error", "Debug", "", "fil"}) {
            send(make_message(29, debug_set_payload(category, value)));
            ASSERT_EQ(readFromTlscFifo(), 1);
            log_capture log;
            EXPECT_EQ(tlscWlcMsgRcvTlscDebugsSetHandler(), 0);
            EXPECT_TRUE(log.has("ERROR", source, "tlscWlcMsgRcvTlscDebugsSetHandler",
                                std::string(category) +
                                    "() - TLS Client, debug set msg received, invalid params,category:" + value +
                                    ", level:"));
        }
    }
    EXPECT_TRUE(calls.empty());
    log_capture log;
    tlscWlcSetDebugParams();
    EXPECT_TRUE(log.contains("level:info, destination:file"));
}

TEST_F(wlc_messages, refused_debug_setting_prints_its_arguments_one_place_early) {
    send(make_message(29, debug_set_payload("destination", "printer")));
    log_capture log;
    EXPECT_EQ(wlcTlscFifoHandler(), 0);
    EXPECT_TRUE(log.has("ERROR", source, "tlscWlcMsgRcvTlscDebugsSetHandler",
                        "destination() - TLS Client, debug set msg received, invalid params,category:printer, level:"));
}

TEST_F(wlc_messages, other_debug_category_is_logged_and_counts_as_handled) {
    for (const char *category : {"lev", "Level", "verbosity", ""}) {
        send(make_message(29, debug_set_payload(category, "debug")));
        ASSERT_EQ(readFromTlscFifo(), 1);
        log_capture log;
        EXPECT_EQ(tlscWlcMsgRcvTlscDebugsSetHandler(), 1);
        EXPECT_TRUE(log.has("ERROR", source, "tlscWlcMsgRcvTlscDebugsSetHandler",
                            std::string(category) +
                                "() - TLS Client, debug set msg received, invalid params,category:debug, level:"));
    }
    EXPECT_TRUE(calls.empty());
}

TEST_F(wlc_messages, debug_texts_without_an_end_are_bounded_at_64_bytes) {
    const std::string category = "level" + std::string(59, 'c');
    const std::string value    = "debug" + std::string(59, 'v');
    send(make_message(29, category + value + std::string(384, 'x')));
    log_capture log;
    EXPECT_EQ(wlcTlscFifoHandler(), 0);
    EXPECT_EQ(calls, std::vector<std::string>{"level 3"});
    EXPECT_TRUE(log.has(
        "DEBUG", source, "tlscWlcMsgRcvTlscDebugsSetHandler",
        "tlscWlcMsgRcvTlscDebugsSetHandler() - On TLS Client, Received  TLS client debugs set message, category:" +
            category + ", level:" + value));
    log.clear();
    tlscWlcSetDebugParams();
    EXPECT_TRUE(log.contains("level:" + value.substr(0, 63) + ", destination:"));
}

TEST_F(wlc_messages, debug_parameters_of_the_file_fall_back_instead_of_being_refused) {
    {
        log_capture log;
        tlscWlcSetDebugParams();
        EXPECT_TRUE(calls.empty());
        EXPECT_EQ(
            log.messages(),
            std::vector<std::string>{
                "tlscWlcSetDebugParams() - On TLS Client, setting TLSC debug parameters message, level:, destination:"});
    }
    wlcSecTunProcessConf("log_level", "buf-printing");
    wlcSecTunProcessConf("log_dest", "console");
    tlscWlcSetDebugParams();
    EXPECT_EQ(calls, (std::vector<std::string>{"level 5", "destination 1"}));
    calls.clear();

    wlcSecTunProcessConf("log_level", "5");  // any text but the empty one is a word
    wlcSecTunProcessConf("log_dest", "1");
    tlscWlcSetDebugParams();
    EXPECT_EQ(calls, (std::vector<std::string>{"level 0", "destination 0"}));
    calls.clear();

    wlcSecTunProcessConf("log_level", "error");
    wlcSecTunProcessConf("log_dest", "syslog");
    log_capture log;
    tlscWlcSetDebugParams();
    EXPECT_EQ(calls, (std::vector<std::string>{"level 0", "destination 0"}));
    EXPECT_TRUE(
        log.has("ERROR", source, "tlscWlcSetDebugParams",
                "tlscWlcSetDebugParams() - TLS Client, invalid debug level:error, setting default level: error"));
    EXPECT_TRUE(
        log.has("ERROR", source, "tlscWlcSetDebugParams",
                "tlscWlcSetDebugParams() - TLS Client, invalid debug destination:syslog, setting default :file"));
}

// ---- gateway address ------------------------------------------------------------------------------------------------

TEST_F(wlc_messages, resolved_ipv4_address_goes_to_the_tunnel_as_kind_1) {
    send(make_message(28, "192.0.2.33"));
    log_capture log;
    EXPECT_EQ(wlcTlscFifoHandler(), 0);
    EXPECT_EQ(calls, std::vector<std::string>{"gateway"});
    const std::string record(reinterpret_cast<const char *>(&posted_gw), 32);
    EXPECT_EQ(record, std::string("\x01\0\0\0"
                                  "\x02\0\0\0"
                                  "\xc0\x00\x02\x21",
                                  12) +
                          std::string(20, '\0'));
    EXPECT_TRUE(log.has(
        "DEBUG", source, "tlscWlcMsgRcvTlsGwFqdnResolveResHandler",
        "tlscWlcMsgRcvTlsGwFqdnResolveResHandler() - Received TLS GW FQDN response message from WLC, GW ip:192.0.2.33"));
    EXPECT_EQ(log.entries().size(), 3u) << "reading, dispatch, this";
}

TEST_F(wlc_messages, resolved_ipv6_address_goes_to_the_tunnel_as_kind_2) {
    send(make_message(28, "2001:db8::9"));
    EXPECT_EQ(wlcTlscFifoHandler(), 0);
    EXPECT_EQ(calls, std::vector<std::string>{"gateway"});
    const std::string record(reinterpret_cast<const char *>(&posted_gw), 32);
    EXPECT_EQ(record, std::string("\x02\0\0\0"
                                  "\x0a\0\0\0"
                                  "\0\0\0\0"
                                  "\x20\x01\x0d\xb8\0\0\0\0\0\0\0\0\0\0\0\x09"
                                  "\0\0\0\0",
                                  32));
}

TEST_F(wlc_messages, text_that_is_no_address_goes_to_the_tunnel_as_zeroes) {
    for (const std::string text : {"", "gw.example", "1.2.3.4.5", "::zz"}) {
        calls.clear();
        send(make_message(28, text));
        ASSERT_EQ(readFromTlscFifo(), 1);
        EXPECT_EQ(tlscWlcMsgRcvTlsGwFqdnResolveResHandler(), 1);
        EXPECT_EQ(calls, std::vector<std::string>{"gateway"});
        const bool        ipv6 = text == "::zz";
        const std::string record(reinterpret_cast<const char *>(&posted_gw), 32);
        EXPECT_EQ(record[0], ipv6 ? 2 : 1);
        EXPECT_EQ(record[4], ipv6 ? 10 : 2);
        EXPECT_EQ(record.substr(8), std::string(24, '\0')) << text;
    }
}

TEST_F(wlc_messages, address_that_cannot_be_converted_at_all_is_rejected) {
    send(make_message(28, "192.0.2.33"));
    ASSERT_EQ(readFromTlscFifo(), 1);
    pton_result = -1;
    log_capture log;
    EXPECT_EQ(tlscWlcMsgRcvTlsGwFqdnResolveResHandler(), 0);
    EXPECT_TRUE(calls.empty());
    EXPECT_TRUE(log.has("ERROR", source, "tlscWlcMsgRcvTlsGwFqdnResolveResHandler",
                        "tlscWlcMsgRcvTlsGwFqdnResolveResHandler() - invalid ip received:192.0.2.33"));
}

TEST_F(wlc_messages, address_text_without_an_end_stops_at_the_end_of_the_message) {
    send(make_message(28, std::string(512, '7')));
    log_capture log;
    EXPECT_EQ(wlcTlscFifoHandler(), 0);
    EXPECT_TRUE(
        log.has("DEBUG", source, "tlscWlcMsgRcvTlsGwFqdnResolveResHandler",
                "tlscWlcMsgRcvTlsGwFqdnResolveResHandler() - Received TLS GW FQDN response message from WLC, GW ip:" +
                    std::string(512, '7')));
}

TEST_F(wlc_messages, texts_of_messages_put_no_line_of_their_own_into_the_log) {
    const std::string forged = "info\nTLSC[7]: \r\x1b";
    const std::string shown  = "info\\x0aTLSC[7]: \\x0d\\x1b";
    log_capture       log;
    send(make_message(28, forged) + make_message(29, debug_set_payload("level", forged)) +
         make_message(29, debug_set_payload(forged, "x")));
    EXPECT_EQ(wlcTlscFifoHandler(), 0);
    tlscWlcSetDebugParams();
    for (const std::string &line :
         {"from WLC, GW ip:" + shown, "category:level, level:" + shown, "category:" + shown + ", level:x",
          shown + "() - TLS Client, debug set msg", "message, level:" + shown + ", destination:"})
        EXPECT_TRUE(log.contains(line)) << line;
    EXPECT_FALSE(log.contains("\nTLSC[7]: "));
    EXPECT_FALSE(log.contains("\x1b"));
}

TEST_F(wlc_messages, name_resolution_request_is_an_empty_message_27) {
    log_capture log;
    EXPECT_EQ(tlscWlcMsgSendTlsGwFqdnResolveReq(), 1);
    EXPECT_EQ(received(), std::vector<wire_message>{make_message(27)});
    EXPECT_TRUE(log.has("DEBUG", source, "tlscWlcMsgSendTlsGwFqdnResolveReq",
                        "tlscWlcMsgSendTlsGwFqdnResolveReq() - Sending TLS GW FQDN request message to WLC"));
    unlink(from_client_fifo);
    EXPECT_EQ(tlscWlcMsgSendTlsGwFqdnResolveReq(), 0);
}

// ---- statistics and process information -----------------------------------------------------------------------------

TEST_F(wlc_messages, statistics_are_sent_on_request_while_the_feature_is_enabled) {
    tlsc_count(&tlsc_stats::data_pkt_tx);
    send(make_message(32));
    log_capture log;
    EXPECT_EQ(wlcTlscFifoHandler(), 0);
    EXPECT_EQ(received_ids(), ids{});
    EXPECT_TRUE(
        log.has("DEBUG", source, "tlscWlcMsgRcvTlscStatsRequestHandler", "tlscWlcMsgRcvTlscStatsRequestHandler() - "));

    tlscWlcSetSecTunFeatureStatus(1);
    send(make_message(32));
    EXPECT_EQ(wlcTlscFifoHandler(), 0);
    const std::vector<wire_message> got = received();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(id_of(got[0]), 30u);
    EXPECT_EQ(number_at<uint32_t>(got[0], 8), 33u);
    EXPECT_EQ(number_at<uint64_t>(got[0], 24), 1u);
}

TEST_F(wlc_messages, statistics_are_cleared_and_then_reported) {
    tlsc_count(&tlsc_stats::data_pkt_tx);
    tlscWlcSetSecTunFeatureStatus(1);
    send(make_message(34));
    EXPECT_EQ(wlcTlscFifoHandler(), 0);
    const std::vector<wire_message> got = received();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(number_at<uint32_t>(got[0], 8), 33u);
    EXPECT_EQ(got[0].substr(16), std::string(504, '\0'));
    EXPECT_EQ(tlsc_stats_record.data_pkt_tx, 0u);
}

TEST_F(wlc_messages, statistics_are_cleared_while_the_feature_is_disabled_too) {
    tlsc_count(&tlsc_stats::data_pkt_tx);
    send(make_message(34));
    EXPECT_EQ(wlcTlscFifoHandler(), 0);
    EXPECT_EQ(received_ids(), ids{});
    EXPECT_EQ(tlsc_stats_record.data_pkt_tx, 0u);
}

TEST_F(wlc_messages, process_information_is_sent_on_request) {
    send(make_message(35));
    log_capture log;
    EXPECT_EQ(wlcTlscFifoHandler(), 0);
    const std::vector<wire_message> got = received();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(id_of(got[0]), 36u);
    EXPECT_EQ(number_at<int32_t>(got[0], 8), getpid());
    EXPECT_TRUE(
        log.has("DEBUG", source, "tlscWlcMsgRcvTlscDbgInfoReqHandler", "tlscWlcMsgRcvTlscDbgInfoReqHandler() - "));
}

// ---- malformed messages ---------------------------------------------------------------------------------------------

TEST_F(wlc_messages, no_message_whatever_it_holds_harms_the_client_or_shows_the_key) {
    const std::string key = "0f1e2d3c-the-key";
    write_file(conf_file, "psk_key;" + key + ";1\ndevice_id;D1;1\n");
    tlscWlcSetSecTunFeatureStatus(1);

    std::vector<std::string> payloads{"",
                                      std::string(512, '\0'),
                                      std::string(512, '\xff'),
                                      std::string(512, 'A'),
                                      std::string(512, ':'),
                                      std::string(512, '%'),
                                      std::string(512, '\n'),
                                      "%s%s%n%n%n%1000000d",
                                      "level",
                                      debug_set_payload("level", "%n%s"),
                                      debug_set_payload("psk_key", key.substr(0, 3)),
                                      std::string("level\0", 6) + std::string(506, 'x'),
                                      std::string(64, 'l') + std::string(448, 'v'),
                                      std::string(511, '1') + ":",
                                      std::string(512, '9')};
    std::mt19937             random(520);
    for (int i = 0; i < 20; ++i) {
        std::string bytes(512, '\0');
        for (char &byte : bytes) byte = static_cast<char>(random());
        payloads.push_back(bytes);
    }

    log_capture log;
    for (const std::string &payload : payloads)
        for (const uint32_t id : {0u,  1u,  2u,  20u, 21u, 22u, 23u, 25u,         28u,         29u,        30u,
                                  31u, 32u, 33u, 34u, 35u, 36u, 38u, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
            wire_message bytes = make_message(id, payload);
            bytes.replace(4, 4, "\xff\xff\xff\xff");  // the padding is not looked at
            send(bytes);
            ASSERT_EQ(wlcTlscFifoHandler(), 0) << id;
            for (const wire_message &answer : received()) {
                EXPECT_EQ(answer.size(), message_size);
                EXPECT_EQ(answer.find(key), std::string::npos);
            }
        }
    EXPECT_FALSE(log.contains(key));
    EXPECT_TRUE(log.contains("GW ip:%s%s%n%n%n%1000000d"));
    for (const std::string &call : calls) EXPECT_FALSE(call.starts_with("level ") && call > "level 5") << call;

    // It goes on as before.
    send(make_message(1));
    EXPECT_EQ(wlcTlscFifoHandler(), 0);
    EXPECT_EQ(received(), std::vector<wire_message>{make_message(1)});
}
