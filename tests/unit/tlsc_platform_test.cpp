// The configuration setters, the three upward notifications and the statistics record. The controller interface's
// reports are stood in for.

#include <algorithm>

#include <arpa/inet.h>
#include <pthread.h>

#include "tlsc_wlc.h"

#include "tunnel_fixture.h"

// ---- stand-ins ------------------------------------------------------------------------------------------------------

namespace {

std::vector<std::string> reports;     // what the controller interface was given
std::string              lock_calls;  // with "(0)" while the counter of invalid frames stands at zero
tlsc_dns_list            dns_list;
int                      report_result = 1;

}  // namespace

extern "C" int __wrap_tlscWlcSetTunState(int state, int cause) {
    reports.push_back(text_of("state %d %d", state, cause));
    return report_result;
}

extern "C" int __wrap_tlscWlcPostInnerIpUpdateMsg(const char *ip) {
    reports.push_back(std::string("inner ") + ip);
    return report_result;
}

extern "C" int __wrap_tlscWlcPostCloudDnsSvrInfoUpdateMsg(const tlsc_dns_list *list) {
    dns_list = *list;
    reports.push_back("dns");
    return report_result;
}

extern "C" int __wrap_tlscWlcMsgSendTlsGwFqdnResolveReq() {
    reports.push_back("resolve");
    return report_result;
}

// The only mutex in use here is the one of the statistics: the log's is not created.
extern "C" {

int __real_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes);
int __wrap_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes) {
    lock_calls += "create ";
    return __real_pthread_mutex_init(mutex, attributes);
}

int __real_pthread_mutex_lock(pthread_mutex_t *mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex) {
    lock_calls += tlsc_stats_record.invalid_rx == 0 ? "take(0) " : "take ";
    return __real_pthread_mutex_lock(mutex);
}

int __real_pthread_mutex_unlock(pthread_mutex_t *mutex);
int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex) {
    lock_calls += tlsc_stats_record.invalid_rx == 0 ? "give(0) " : "give ";
    return __real_pthread_mutex_unlock(mutex);
}

int __real_pthread_mutex_destroy(pthread_mutex_t *mutex);
int __wrap_pthread_mutex_destroy(pthread_mutex_t *mutex) {
    lock_calls += "destroy ";
    return __real_pthread_mutex_destroy(mutex);
}

}  // extern "C"

namespace {

using strings = std::vector<std::string>;

class tlsc_platform : public tunnel_test {
protected:
    tlsc_platform() {
        reports.clear();
        report_result = 1;
    }
};

// ---- setters --------------------------------------------------------------------------------------------------------

struct text_setter {
    const char *name;
    int32_t (*set)(const char *text);
    char       *field;
    size_t      width;  // most characters kept
    const char *label;  // in the line of success
    bool        null_line_begins_with_a_line_end;
};

TEST_F(tlsc_platform, every_text_setter_clears_its_field_keeps_its_width_and_logs_the_new_value) {
    const text_setter setters[] = {
        {"tlsc_set_config_management_ip", tlsc_set_config_management_ip, conf->management_ip, 49, "mgmt_ip", false},
        {"tlsc_set_config_tun_interface_name", tlsc_set_config_tun_interface_name, conf->tun_interface_name, 49,
         "tun_interface_name", false},
        {"tlsc_set_config_tun_cipher_algo", tlsc_set_config_tun_cipher_algo, conf->cipher_algo, 49, "cipher_algo",
         true},
        {"tlsc_set_config_psk_identify", tlsc_set_config_psk_identify, psk_identity, 128, "psk_identity", false},
        {"tlsc_set_config_device_id", tlsc_set_config_device_id, conf->device_id, 16, "device_id", true},
        {"tlsc_set_config_serial_num", tlsc_set_config_serial_num, conf->serial_no, 16, "serial_no", true},
        {"tlsc_set_config_device_name", tlsc_set_config_device_name, conf->device_name, 50, "device_name", true},
    };
    for (const text_setter &s : setters) {
        const std::string full(s.width, 'f');
        const std::string over = full + "X";
        for (const std::string &text : {std::string("a value"), full, over, std::string(300, 'y'), std::string()}) {
            log.clear();
            memset(s.field, 'z', s.width + 1);
            EXPECT_EQ(s.set(text.c_str()), 0) << s.name;
            const std::string kept = text.substr(0, s.width);
            EXPECT_EQ(std::string(s.field, s.width + 1), kept + std::string(s.width + 1 - kept.size(), '\0')) << s.name;
            EXPECT_EQ(log.messages(), (strings{text_of("%s() - %s:%s", s.name, s.label, kept.c_str())}));
            EXPECT_EQ(log.entries().front().severity, "INFO");
            EXPECT_EQ(log.entries().front().function, s.name);
        }
        log.clear();
        EXPECT_EQ(s.set("kept"), 0);
        log.clear();
        EXPECT_EQ(s.set(nullptr), -1) << s.name;
        EXPECT_STREQ(s.field, "kept");
        EXPECT_TRUE(
            log.has("ERROR", platform_file, s.name,
                    std::string(s.null_line_begins_with_a_line_end ? "\n" : "") + s.name + "() - Input parm NULL"))
            << s.name;
    }
}

TEST_F(tlsc_platform, the_server_setter_stores_address_and_port) {
    EXPECT_EQ(tlsc_set_config_server_ip_port("10.1.2.3", 443), 0);
    EXPECT_STREQ(conf->svr_addr_ipv4, "10.1.2.3");
    EXPECT_EQ(conf->server_port, 443);
    EXPECT_TRUE(log.has("INFO", platform_file, "tlsc_set_config_server_ip_port",
                        "tlsc_set_config_server_ip_port() - server_ip:10.1.2.3, server_port:443"));
    EXPECT_EQ(tlsc_set_config_server_ip_port(std::string(49, '9').c_str(), 65536 + 7), 0);
    EXPECT_EQ(std::string(conf->svr_addr_ipv4), std::string(49, '9'));
    EXPECT_EQ(conf->server_port, 7);
    EXPECT_EQ(tlsc_set_config_server_ip_port(std::string(50, '8').c_str(), 1), 0);
    EXPECT_EQ(std::string(conf->svr_addr_ipv4), std::string(49, '8'));
    EXPECT_EQ(tlsc_set_config_server_ip_port(nullptr, 99), -1);
    EXPECT_EQ(conf->server_port, 1);
    EXPECT_TRUE(log.has("ERROR", platform_file, "tlsc_set_config_server_ip_port",
                        "tlsc_set_config_server_ip_port() - Input parm NULL"));
}

TEST_F(tlsc_platform, a_new_server_address_leaves_nothing_of_the_old_one) {
    memset(conf->svr_addr_ipv4, 'z', sizeof(conf->svr_addr_ipv4));
    EXPECT_EQ(tlsc_set_config_server_ip_port("10.1.2.3", 70000 - 65536), 0);
    EXPECT_EQ(std::string(conf->svr_addr_ipv4, 50), "10.1.2.3" + std::string(42, '\0'));
    for (const auto &[port, kept] : std::vector<std::pair<int, uint16_t>>{
             {-1, 65535}, {0, 0}, {65535, 65535}, {65536, 0}, {INT32_MAX, 65535}, {INT32_MIN, 0}}) {
        EXPECT_EQ(tlsc_set_config_server_ip_port("10.1.2.3", port), 0);
        EXPECT_EQ(conf->server_port, kept) << port;
    }
}

TEST_F(tlsc_platform, the_inner_address_is_accepted_and_ignored) {
    const tlsc_config before = *conf;
    EXPECT_EQ(tlsc_set_config_inner_ip("10.0.0.1"), 0);
    EXPECT_EQ(memcmp(&before, conf, sizeof(before)), 0);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(tlsc_set_config_inner_ip(nullptr), -1);
    EXPECT_TRUE(
        log.has("ERROR", platform_file, "tlsc_set_config_inner_ip", "tlsc_set_config_inner_ip() - Input parm NULL"));
}

TEST_F(tlsc_platform, the_key_is_stored_whole_and_shown_masked) {
    EXPECT_EQ(tlsc_set_config_psk_key("very-secret"), 0);
    EXPECT_STREQ(psk_key, "very-secret");
    EXPECT_EQ(log.messages(), (strings{"tlsc_set_config_psk_key() - psk_key:***"}));
    EXPECT_FALSE(log.contains("very-secret"));
    EXPECT_EQ(tlsc_set_config_psk_key(std::string(257, 'k').c_str()), 0);
    EXPECT_EQ(std::string(psk_key), std::string(256, 'k'));
    log.clear();
    EXPECT_EQ(tlsc_set_config_psk_key(""), 0);
    EXPECT_EQ(log.messages(), (strings{"tlsc_set_config_psk_key() - psk_key:"}));
    EXPECT_EQ(std::string(psk_key, 257), std::string(257, '\0'));
    EXPECT_EQ(tlsc_set_config_psk_key(nullptr), -1);
    EXPECT_TRUE(
        log.has("ERROR", platform_file, "tlsc_set_config_psk_key", "tlsc_set_config_psk_key() - Input parm NULL"));
}

TEST_F(tlsc_platform, the_log_level_word_is_compared_by_its_beginning_and_case) {
    const struct {
        const char *word;
        int32_t     level;
        bool        invalid;
    } cases[] = {{"true", 1, false}, {"trueish", 1, false}, {"false", 0, false}, {"falsehood", 0, false},
                 {"TRUE", 0, true},  {"False", 0, true},    {"tru", 0, true},    {"fals", 0, true},
                 {"", 0, true},      {"1", 0, true}};
    for (const auto &c : cases) {
        tlsc_log_level = LOG_DEBUG;
        log.clear();
        EXPECT_EQ(tlsc_set_config_log_level(c.word), 0);
        EXPECT_EQ(tlsc_log_level, c.level) << c.word;
        EXPECT_EQ(log.contains("Invalid value for param log_level in cfg file"), c.invalid) << c.word;
        EXPECT_EQ(log.contains("Setting log_level as false"), c.invalid) << c.word;
        EXPECT_EQ(lines_from(platform_file).size(), c.invalid ? 2u : 0u);  // the new level hides the last line
        if (!c.invalid) continue;
        EXPECT_EQ(lines_from(platform_file),
                  (strings{"INFO tlsc_set_config_log_level: Invalid value for param log_level in cfg file",
                           "INFO tlsc_set_config_log_level: Setting log_level as false"}));
    }
    tlsc_log_level = LOG_DEBUG;
    EXPECT_EQ(tlsc_set_config_log_level(nullptr), -1);
    EXPECT_EQ(tlsc_log_level, LOG_DEBUG);
    EXPECT_TRUE(
        log.has("ERROR", platform_file, "tlsc_set_config_log_level", "tlsc_set_config_log_level() - Input parm NULL"));
}

TEST_F(tlsc_platform, the_mechanisms_line_names_psk_whatever_the_mechanism_is) {
    for (int32_t mechanism : {1, 2, 0, -5}) {
        log.clear();
        EXPECT_EQ(tlsc_set_config_ssl_auth_mech(mechanism), 0);
        EXPECT_EQ(conf->ssl_auth_mech, mechanism);
        EXPECT_EQ(log.messages(), (strings{"SSL auth-mech set to PSK"}));
        EXPECT_EQ(log.entries().front().severity, "DEBUG");
    }
}

TEST_F(tlsc_platform, set_all_takes_every_value_from_the_parameter_block_in_its_order) {
    const char *const values[][2] = {{"server_ip_address", "10.1.2.3"},
                                     {"server_port", "4433"},
                                     {"management_ip", "192.168.1.5"},
                                     {"inner_ip", "10.9.9.9"},
                                     {"tun_interface_name", "tun7"},
                                     {"cipher_algo", "PSK-AES256-CBC-SHA"},
                                     {"psk_identity", "me"},
                                     {"psk_key", "secret"},
                                     {"log_level", "debug"},
                                     {"log_dest", "both"},
                                     {"device_id", "01234567890123456789"},
                                     {"serial_num", "SN1"},
                                     {"system_name", "a device"}};
    tlscWlcClearCfgParams();
    for (const auto &value : values) ASSERT_EQ(wlcSecTunProcessConf(value[0], value[1]), 1) << value[0];
    log.clear();
    EXPECT_EQ(tlsc_set_config_all(), 1);
    EXPECT_EQ(messages_from(platform_file),
              (strings{"tlsc_set_config_all() - setting all config for TLS Client",
                       "tlsc_set_config_server_ip_port() - server_ip:10.1.2.3, server_port:4433",
                       "tlsc_set_config_management_ip() - mgmt_ip:192.168.1.5",
                       "tlsc_set_config_device_id() - device_id:0123456789012345",
                       "tlsc_set_config_tun_interface_name() - tun_interface_name:tun7",
                       "tlsc_set_config_tun_cipher_algo() - cipher_algo:PSK-AES256-CBC-SHA",
                       "tlsc_set_config_psk_identify() - psk_identity:me", "tlsc_set_config_psk_key() - psk_key:***",
                       "tlsc_set_config_serial_num() - serial_no:SN1",
                       "tlsc_set_config_device_name() - device_name:a device", "SSL auth-mech set to PSK"}));
    for (const log_line &line : log.entries()) {
        const bool is_mechanism = line.message == "SSL auth-mech set to PSK";
        EXPECT_EQ(line.severity, is_mechanism ? "DEBUG" : "INFO") << line.message;
        EXPECT_EQ(line.function,
                  is_mechanism ? "tlsc_set_config_ssl_auth_mech" : line.message.substr(0, line.message.find('(')))
            << line.message;
    }
    EXPECT_EQ(conf->ssl_auth_mech, 2);
    EXPECT_EQ(conf->inner_addr.kind, 0);
    EXPECT_EQ(tlsc_log_level, LOG_DEBUG);
    EXPECT_EQ(tlsc_log_dest, LOG_DEST_CONSOLE);
    EXPECT_FALSE(log.contains("secret"));
}

TEST_F(tlsc_platform, an_empty_parameter_block_gives_empty_texts_port_0_and_psk) {
    tlscWlcClearCfgParams();
    ASSERT_EQ(wlcSecTunProcessConf("serial_num", ""), 1);  // these two outlive the clearing
    ASSERT_EQ(wlcSecTunProcessConf("system_name", ""), 1);
    EXPECT_EQ(tlsc_set_config_all(), 1);
    tlsc_config expected;
    tlsc_set_config_defaults(&expected);
    expected.ssl_auth_mech = SSL_AUTH_PSK;
    EXPECT_EQ(memcmp(&expected, conf, sizeof(expected)), 0);
    EXPECT_EQ(psk_key[0], '\0');
    EXPECT_EQ(psk_identity[0], '\0');
}

TEST_F(tlsc_platform, a_63_character_value_of_the_file_is_cut_at_the_fields_width) {
    tlscWlcClearCfgParams();
    ASSERT_EQ(wlcSecTunProcessConf("management_ip", std::string(63, 'm').c_str()), 1);
    EXPECT_EQ(tlsc_set_config_all(), 1);
    EXPECT_EQ(std::string(conf->management_ip), std::string(49, 'm'));
    tlscWlcClearCfgParams();
}

// ---- notifications --------------------------------------------------------------------------------------------------

TEST_F(tlsc_platform, a_tunnel_state_is_logged_and_passed_on) {
    report_result = 77;
    EXPECT_EQ(tlsc_write_tun_intf_state(1, 0), 77);
    EXPECT_EQ(tlsc_write_tun_intf_state(0, 11), 77);
    EXPECT_EQ(reports, (strings{"state 1 0", "state 0 11"}));
    ASSERT_EQ(log.entries().size(), 2u);
    EXPECT_TRUE(log.has("INFO", platform_file, "tlsc_write_tun_intf_state", "TUN State changed to 1, error cause:0"));
    EXPECT_TRUE(log.has("INFO", platform_file, "tlsc_write_tun_intf_state", "TUN State changed to 0, error cause:11"));
}

TEST_F(tlsc_platform, an_inner_address_goes_up_as_dotted_text) {
    tlsc_addr addr{};
    addr.kind = ADDR_IPV4;
    inet_pton(AF_INET, "10.99.0.254", addr.ipv4);
    EXPECT_EQ(tlsc_write_inner_ip(addr), 1);
    EXPECT_EQ(reports, (strings{"inner 10.99.0.254"}));
    ASSERT_EQ(log.entries().size(), 1u);
    EXPECT_TRUE(log.has("INFO", platform_file, "tlsc_write_inner_ip", "Client inner IP received 10.99.0.254"));
}

TEST_F(tlsc_platform, dns_servers_are_logged_when_they_are_ipv4_and_passed_on_whole) {
    tlsc_dns_list list{};
    list.count = 3;
    for (int i = 0; i < 4; ++i) {
        list.servers[i].kind = i == 1 ? ADDR_IPV6 : ADDR_IPV4;
        memset(list.servers[i].ipv4, i + 1, 4);
    }
    report_result = 0;
    EXPECT_EQ(tlsc_write_dns_ip(list), 0);
    EXPECT_EQ(dns_list.count, 3);
    EXPECT_EQ(memcmp(&dns_list, &list, sizeof(list)), 0);
    EXPECT_EQ(log.messages(), (strings{"No. of DNS server 3\n", "0: 1.1.1.1\n", "2: 3.3.3.3\n"}));
    for (const std::string &message : log.messages())
        EXPECT_TRUE(log.has("DEBUG", platform_file, "tlsc_write_dns_ip", message));
}

TEST_F(tlsc_platform, a_count_beyond_the_entries_is_passed_on_and_only_the_entries_are_shown) {
    tlsc_dns_list list{};
    list.count = 6;
    for (tlsc_addr &server : list.servers) server.kind = ADDR_IPV4;
    EXPECT_EQ(tlsc_write_dns_ip(list), 1);
    EXPECT_EQ(dns_list.count, 6);
    EXPECT_EQ(log.messages().size(), 5u);
    EXPECT_EQ(log.messages().front(), "No. of DNS server 6\n");
}

TEST_F(tlsc_platform, the_question_for_the_gateways_name_gives_the_result_of_the_request) {
    EXPECT_EQ(tlsc_request_gw_name_resolution(), 1);
    report_result = 0;
    EXPECT_EQ(tlsc_request_gw_name_resolution(), 0);
    EXPECT_EQ(reports, (strings{"resolve", "resolve"}));
}

// ---- statistics -----------------------------------------------------------------------------------------------------

// The record as 31 numbers in wire order: counter i holds i + 1 when each was counted so often.
std::vector<uint64_t> numbers(const tlsc_stats &stats) {
    std::vector<uint64_t> all(stats_counters);
    memcpy(all.data(), &stats, sizeof(stats));
    return all;
}

TEST_F(tlsc_platform, every_counter_counts_by_one_and_the_snapshot_holds_all_31) {
    auto *words = reinterpret_cast<uint64_t *>(&tlsc_stats_record);
    for (size_t i = 0; i < stats_counters; ++i) words[i] = i + 1;
    tlsc_count(&tlsc_stats::data_pkt_rx);
    tlsc_count(&tlsc_stats::tun_write_errors_others);
    tlsc_stats snapshot{};
    tlsc_stats_get(&snapshot);
    std::vector<uint64_t> expected(stats_counters);
    for (size_t i = 0; i < stats_counters; ++i) expected[i] = i + 1;
    ++expected.front();
    ++expected.back();
    EXPECT_EQ(numbers(snapshot), expected);

    tlsc_stats_clear();
    tlsc_stats_get(&snapshot);
    EXPECT_EQ(numbers(snapshot), std::vector<uint64_t>(stats_counters, 0));
}

TEST_F(tlsc_platform, a_snapshot_without_a_place_to_go_is_refused) {
    tlsc_stats_get(nullptr);
    ASSERT_EQ(log.entries().size(), 1u);
    EXPECT_TRUE(log.has("ERROR", platform_file, "tlsc_stats_get", "Null ptr received for stats"));
}

TEST_F(tlsc_platform, initialising_and_destroying_zero_the_record_and_it_stays_usable) {
    tlsc_count(&tlsc_stats::invalid_rx);
    tlsc_stats_init();
    expect_counters({});
    tlsc_count(&tlsc_stats::invalid_rx);
    tlsc_stats_destroy();
    EXPECT_EQ(tlsc_stats_record.invalid_rx, 0u);
    tlsc_stats_init();
    tlsc_count(&tlsc_stats::invalid_rx);
    expect_counters({{"invalid_rx", 1}});
}

TEST_F(tlsc_platform, the_statistics_lock_guards_snapshot_clear_and_initialisation_and_no_count) {
    const auto locks_of = [](void (*operation)()) {
        tlsc_stats_record.invalid_rx = 5;
        lock_calls.clear();
        operation();
        return lock_calls;
    };
    EXPECT_EQ(locks_of([] { tlsc_count(&tlsc_stats::invalid_rx); }), "");
    EXPECT_EQ(locks_of([] {
                  tlsc_stats copy;
                  tlsc_stats_get(&copy);
              }),
              "take give ");
    EXPECT_EQ(locks_of(tlsc_stats_clear), "take give(0) ");
    EXPECT_EQ(locks_of(tlsc_stats_init), "create take give(0) ");
    EXPECT_EQ(locks_of(tlsc_stats_destroy), "take give(0) destroy ");
    tlsc_stats_init();
}

TEST_F(tlsc_platform, the_record_is_printed_under_nine_headings) {
    auto *words = reinterpret_cast<uint64_t *>(&tlsc_stats_record);
    for (size_t i = 0; i < stats_counters; ++i) words[i] = i + 1;
    words[30] = UINT64_MAX;
    tlsc_stats_print();
    EXPECT_EQ(
        log.text(),
        "CSTP STATS:\n===========\nInvalid Rx: 5\nData Pkt Tx: 2    Data Pkt Rx: 1\nCtrl Pkt Tx: 4    Ctrl Pkt Rx: 3\n"
        "TUN STATS:\n===========\nTun Pkt Tx: 7    Tun Pkt Rx: 6\n"
        "DPD STATS:\n===========\nDPD Req Tx: 8    DPD Rsp Rx: 9\n"
        "ReKey STATS:\n===========\nRekey Attempts: 10    Rekey Success: 11\n"
        "SSL READ STATS:\n===========\nssl_read_errors_total: 14\nssl_read_errors_READWOULDBLOCK: 15\nssl_read_errors_WRITEWOULDBLOCK: 16\nssl_read_errors_others: 17\n"
        "SSL WRITE STATS:\n===========\nssl_write_errors_total: 18\nssl_write_errors_READWOULDBLOCK: 19\nssl_write_errors_WRITEWOULDBLOCK: 20\nssl_write_errors_others: 21\n"
        "TUN STATS:\n===========\ntun_alloc: 12  tun_freed: 13\n"
        "TUN READ STATS:\n===========\ntun_read_errors_total: 22\ntun_read_errors_EINVAL: 23\ntun_read_errors_EBADF: 24\ntun_read_errors_EFAULT: 25\ntun_read_errors_others: 26\n"
        "TUN WRITE STATS:\n===========\ntun_write_errors_total: 27\ntun_write_errors_EINVAL: 28\ntun_write_errors_EBADF: 29\ntun_write_errors_EFAULT: 30\n"
        "tun_write_errors_others: 18446744073709551615\n");
}

}  // namespace
