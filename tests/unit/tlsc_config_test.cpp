// The configuration record, its defaults, and the loader of the local configuration file, run on real files in a
// directory of their own.

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "capture.h"
#include "tlsc_config.h"

namespace {

constexpr char file_name[] = "tls_client_config.txt";

using settings = std::vector<std::pair<std::string, std::string>>;

// A complete file for each mechanism.
const settings psk_settings{{"server_ip_address", "203.0.113.5"},
                            {"server_port", "4433"},
                            {"management_ip", "192.0.2.10"},
                            {"tun_interface_name", "tun7"},
                            {"ssl_authentication_mechanism", "psk"},
                            {"psk_identity", "device-7"},
                            {"psk_key", "very-secret-key"},
                            {"cipher_algo", "PSK-AES256-CBC-SHA"},
                            {"device_id", "dev-0001"},
                            {"device_name", "north gate"},
                            {"serial_no", "SN123456"},
                            {"log_level", "3"}};
const settings certificate_settings{{"server_ip_address", "203.0.113.5"},
                                    {"server_port", "4433"},
                                    {"management_ip", "192.0.2.10"},
                                    {"tun_interface_name", "tun7"},
                                    {"ssl_authentication_mechanism", "certificate"},
                                    {"ssl_certificate", "cert.pem"},
                                    {"ssl_private_key", "key.pem"},
                                    {"ssl_rootca_bundle", "ca.pem"},
                                    {"ssl_crl", "crl.pem"},
                                    {"cipher_algo", "AES256-SHA"},
                                    {"device_id", "dev-0001"},
                                    {"device_name", "north gate"},
                                    {"serial_no", "SN123456"},
                                    {"log_level", "3"}};

settings without(settings all, const std::string &key) {
    std::erase_if(all, [&](const auto &entry) { return entry.first == key; });
    return all;
}

settings with(settings all, const std::string &key, const std::string &value) {
    for (auto &entry : all)
        if (entry.first == key) entry.second = value;
    return all;
}

std::string as_text(const settings &all) {
    std::string text;
    for (const auto &[key, value] : all) text += key + "=" + value + "\n";
    return text;
}

// Every test runs in an empty directory, with the four PEM files named above, and with zeroed settings.
class tlsc_config_file : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(mkdtemp(directory_), nullptr);
        ASSERT_EQ(chdir(directory_), 0);
        for (const char *pem : {"cert.pem", "key.pem", "ca.pem", "crl.pem"}) write_text(pem, "");
        memset(&conf, 0, sizeof(conf));
        memset(psk_identity, 0, sizeof(psk_identity));
        memset(psk_key, 0, sizeof(psk_key));
    }
    void TearDown() override {
        for (const char *name : {"cert.pem", "key.pem", "ca.pem", "crl.pem", file_name}) unlink(name);
        ASSERT_EQ(chdir("/"), 0);
        ASSERT_EQ(rmdir(directory_), 0);
    }

    static void write_text(const char *name, const std::string &text) {
        FILE *file = fopen(name, "w");
        ASSERT_NE(file, nullptr);
        ASSERT_EQ(fwrite(text.data(), 1, text.size(), file), text.size());
        ASSERT_EQ(fclose(file), 0);
    }

    int32_t load(const settings &all) {
        write_text(file_name, as_text(all));
        return tlsc_read_config_file(&conf);
    }

    static std::string value_of(const char *key, const std::string &file_text) {
        write_text(file_name, file_text);
        char value[500];
        memset(value, '?', sizeof(value));
        return tlsc_read_param_val(key, value) == 1 ? std::string(value) : std::string("not found");
    }

    tlsc_config conf;

private:
    char directory_[32] = "/tmp/tlsc_config_test.XXXXXX";
};

bool is_all_zero(const tlsc_config &conf) {
    const tlsc_config zero{};
    return memcmp(&conf, &zero, sizeof(conf)) == 0;
}

}  // namespace

// ---- the record and its defaults ------------------------------------------------------------------------------------

TEST(tlsc_config, there_is_one_record) {
    ASSERT_NE(tlsc_get_config(), nullptr);
    EXPECT_EQ(tlsc_get_config(), tlsc_get_config());
    EXPECT_TRUE(is_all_zero(*tlsc_get_config())) << "nothing is set before the first initialisation";
}

TEST(tlsc_config, defaults_set_four_intervals_and_the_prefix_kind_and_zero_the_rest) {
    tlsc_config conf;
    memset(&conf, 0xAA, sizeof(conf));
    log_capture log;
    tlsc_set_config_defaults(&conf);

    EXPECT_EQ(conf.dpd_interval, 10);
    EXPECT_EQ(conf.retry_interval, 20);
    EXPECT_EQ(conf.rekey_interval, 3600);
    EXPECT_EQ(conf.fqdn_resolution_interval, 30);
    EXPECT_EQ(conf.prefix.kind, 1);

    conf.dpd_interval = conf.retry_interval = conf.rekey_interval = conf.fqdn_resolution_interval = 0;
    conf.prefix.kind                                                                              = 0;
    EXPECT_TRUE(is_all_zero(conf));
}

TEST(tlsc_config, default_port_is_0_and_not_443) {
    tlsc_config conf{};
    conf.server_port = 4433;
    log_capture log;
    tlsc_set_config_defaults(&conf);
    EXPECT_EQ(conf.server_port, 0);
    EXPECT_EQ(conf.ssl_auth_mech, 0);
}

TEST(tlsc_config, defaults_are_logged_with_one_info_and_five_debug_lines) {
    tlsc_config conf;
    log_capture log;
    tlsc_set_config_defaults(&conf);
    const std::vector<std::pair<const char *, const char *>> expected{
        {"INFO", "Setting default configurations"},     {"DEBUG", "DPD Interval default = 10"},
        {"DEBUG", "Retry Interval default = 20"},       {"DEBUG", "Rekey Interval default = 3600"},
        {"DEBUG", "FQDN Resoln Interval default = 30"}, {"DEBUG", "Default prefix type = ADDR_IPV4"}};
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), expected.size());
    for (size_t i = 0; i < lines.size(); ++i)
        EXPECT_TRUE(
            is_log_line(lines[i], expected[i].first, "tlsc_config.c", "tlsc_set_config_defaults", expected[i].second))
            << lines[i];
}

TEST(tlsc_config, defaults_for_a_null_record_are_refused) {
    log_capture log;
    tlsc_set_config_defaults(nullptr);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_TRUE(log.has("ERROR", "tlsc_config.c", "tlsc_set_config_defaults", "Conf pointer is NULL"));
}

TEST(tlsc_config, defaults_keep_the_secret_buffers) {
    tlsc_config conf;
    strcpy(psk_identity, "somebody");
    strcpy(psk_key, "something");
    log_capture log;
    tlsc_set_config_defaults(&conf);
    EXPECT_STREQ(psk_identity, "somebody");
    EXPECT_STREQ(psk_key, "something");
}

TEST(tlsc_config, key_prints_as_stars_when_set_and_as_nothing_when_empty) {
    psk_key[0] = '\0';
    EXPECT_STREQ(tlsc_masked_psk_key(), "");
    strcpy(psk_key, "x");
    EXPECT_STREQ(tlsc_masked_psk_key(), "***");
    strcpy(psk_key, "very-secret-key");
    EXPECT_STREQ(tlsc_masked_psk_key(), "***");
}

// ---- one value of the file ------------------------------------------------------------------------------------------

TEST_F(tlsc_config_file, value_is_everything_behind_the_last_equals_sign) {
    EXPECT_EQ(value_of("device_id", "device_id=abc\n"), "abc");
    EXPECT_EQ(value_of("device_id", "device_id = abc \n"), " abc ");
    EXPECT_EQ(value_of("device_id", "device_id=a=b=c\n"), "c");
    EXPECT_EQ(value_of("device_id", "device_id=abc=\n"), "");
}

TEST_F(tlsc_config_file, last_character_of_a_line_is_always_cut) {
    EXPECT_EQ(value_of("device_id", "device_id=abc"), "ab") << "no line end";
    EXPECT_EQ(value_of("device_id", "device_id=abc\r\n"), "abc\r");
    EXPECT_EQ(value_of("device_id", "device_id=a"), "");
    EXPECT_EQ(value_of("device_id", "device_id="), "") << "nothing to cut";
}

TEST_F(tlsc_config_file, key_counts_anywhere_in_the_line) {
    EXPECT_EQ(value_of("server_port", "#server_port=1\n"), "1");
    EXPECT_EQ(value_of("server_port", "old_server_port_2=17\n"), "17");
    EXPECT_EQ(value_of("server_port", "comment=server_port\n"), "server_port") << "behind the equals sign as well";
}

TEST_F(tlsc_config_file, last_line_with_the_key_wins) {
    EXPECT_EQ(value_of("server_port", "server_port=1\nother=9\nserver_port=2\nother=8\n"), "2");
}

TEST_F(tlsc_config_file, line_with_the_key_but_without_an_equals_sign_is_passed_over) {
    EXPECT_EQ(value_of("server_port", "server_port 1\n"), "not found");
    EXPECT_EQ(value_of("server_port", "server_port=5\nserver_port\n"), "5");
}

TEST_F(tlsc_config_file, missing_key_and_empty_file_find_nothing) {
    EXPECT_EQ(value_of("server_port", "device_id=3\n"), "not found");
    EXPECT_EQ(value_of("server_port", ""), "not found");
    EXPECT_EQ(value_of("server_port", "\n\n=\n"), "not found");
    char untouched[500] = "as before";
    EXPECT_EQ(tlsc_read_param_val("server_port", untouched), 0);
    EXPECT_STREQ(untouched, "as before");
}

TEST_F(tlsc_config_file, line_of_499_characters_is_read_whole_and_a_longer_one_in_pieces) {
    const std::string key = "device_id=";
    const std::string fits(499 - key.size() - 1, 'v');
    EXPECT_EQ(value_of("device_id", key + fits + "\n"), fits);

    // The first piece ends without its line end and loses a character to the cut.
    const std::string longer(499 - key.size(), 'v');
    EXPECT_EQ(value_of("device_id", key + longer + "\n"), longer.substr(1));

    // What hangs over is a line of its own.
    EXPECT_EQ(value_of("device_id", std::string(499, 'x') + "device_id=tail\n"), "tail");
}

TEST_F(tlsc_config_file, missing_file_is_reported_with_its_errno) {
    log_capture log;
    char        value[500];
    EXPECT_EQ(tlsc_read_param_val("server_port", value), 0);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_TRUE(log.has("ERROR", "tlsc_config.c", "tlsc_read_param_val",
                        "Can't open config file, errno=" + std::to_string(ENOENT)));
}

TEST_F(tlsc_config_file, null_arguments_are_refused) {
    log_capture log;
    char        value[500];
    EXPECT_EQ(tlsc_read_param_val(nullptr, value), 0);
    EXPECT_EQ(tlsc_read_param_val("server_port", nullptr), 0);
    EXPECT_EQ(tlsc_read_config_file(nullptr), 0);
    EXPECT_EQ(log.count("ERROR", "tlsc_config.c", "tlsc_read_param_val", "Null ptr received for key/value"), 2u);
    EXPECT_EQ(log.count("ERROR", "tlsc_config.c", "tlsc_read_config_file", "Null ptr received for conf"), 1u);
    EXPECT_EQ(log.entries().size(), 3u);
}

TEST_F(tlsc_config_file, reading_leaves_no_descriptor_open) {
    write_text(file_name, "server_port=1\n");
    char      value[500];
    const int before = dup(0);
    close(before);
    EXPECT_EQ(tlsc_read_param_val("server_port", value), 1);
    EXPECT_EQ(tlsc_read_param_val("nothing", value), 0);
    const int after = dup(0);
    close(after);
    EXPECT_EQ(after, before);
}

// ---- the whole file -------------------------------------------------------------------------------------------------

TEST_F(tlsc_config_file, complete_psk_file_fills_the_record_and_the_secret_buffers) {
    log_capture log;
    ASSERT_EQ(load(psk_settings), 1);
    EXPECT_STREQ(conf.svr_addr_ipv4, "203.0.113.5");
    EXPECT_EQ(conf.server_port, 4433);
    EXPECT_STREQ(conf.management_ip, "192.0.2.10");
    EXPECT_STREQ(conf.tun_interface_name, "tun7");
    EXPECT_EQ(conf.ssl_auth_mech, SSL_AUTH_PSK);
    EXPECT_STREQ(psk_identity, "device-7");
    EXPECT_STREQ(psk_key, "very-secret-key");
    EXPECT_STREQ(conf.cipher_algo, "PSK-AES256-CBC-SHA");
    EXPECT_STREQ(conf.device_id, "dev-0001");
    EXPECT_STREQ(conf.device_name, "north gate");
    EXPECT_STREQ(conf.serial_no, "SN123456");
    EXPECT_EQ(tlsc_log_level, 3);
    EXPECT_STREQ(conf.ssl_certificate, "");
}

TEST_F(tlsc_config_file, complete_psk_file_logs_its_settings_in_order) {
    log_capture log;
    ASSERT_EQ(load(psk_settings), 1);
    const std::vector<std::pair<const char *, const char *>> expected{
        {"tlsc_read_config_file", "Server IP address set from config file:203.0.113.5"},
        {"tlsc_read_config_file", "Server port set from config file"},
        {"tlsc_read_config_file", "Tun Interface name set from config file"},
        {"tlsc_read_config_file", "SSL auth-mech set to PSK"},
        {"tlsc_read_config_file", "PSK-identity set from config file"},
        {"tlsc_read_config_file", "PSK-key set from config file"},
        {"tlsc_read_config_file", "Cipher-algo set from config file"},
        {"tlsc_read_config_file", "Device id set from config file"},
        {"tlsc_read_config_file", "Device name set from config file"},
        {"tlsc_read_config_file", "Device serial no. set from config file"},
        {"tlsc_read_config_file", "Log level set from config file, Log-Level = 3"}};
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), expected.size());
    for (size_t i = 0; i < lines.size(); ++i)
        EXPECT_TRUE(is_log_line(lines[i], "DEBUG", "tlsc_config.c", expected[i].first, expected[i].second)) << lines[i];
}

TEST_F(tlsc_config_file, complete_certificate_file_fills_the_four_paths) {
    log_capture log;
    ASSERT_EQ(load(certificate_settings), 1);
    EXPECT_EQ(conf.ssl_auth_mech, SSL_AUTH_CERTIFICATE);
    EXPECT_STREQ(conf.ssl_certificate, "cert.pem");
    EXPECT_STREQ(conf.ssl_private_key, "key.pem");
    EXPECT_STREQ(conf.ssl_rootca_bundle, "ca.pem");
    EXPECT_STREQ(conf.ssl_crl, "crl.pem");

    const auto all = log.messages();
    ASSERT_GE(all.size(), 8u);
    EXPECT_EQ(
        std::vector<std::string>(all.begin() + 3, all.begin() + 8),
        (std::vector<std::string>{"SSL auth-mech set to Certificate", "SSL certificate file path set successfully",
                                  "SSL private_key file path set successfully",
                                  "SSL root_ca file path set successfully", "SSL crl file path set successfully"}));
    for (const log_line &line : log.entries()) EXPECT_EQ(line.severity, "DEBUG") << line.message;
    EXPECT_TRUE(log.has("DEBUG", "tlsc_config.c", "tlsc_read_config_file", "SSL auth-mech set to Certificate"));
    EXPECT_TRUE(
        log.has("DEBUG", "tlsc_config.c", "tlsc_read_config_file", "SSL certificate file path set successfully"));
    EXPECT_TRUE(
        log.has("DEBUG", "tlsc_config.c", "tlsc_read_config_file", "SSL private_key file path set successfully"));
    EXPECT_TRUE(log.has("DEBUG", "tlsc_config.c", "tlsc_read_config_file", "SSL root_ca file path set successfully"));
    EXPECT_TRUE(log.has("DEBUG", "tlsc_config.c", "tlsc_read_config_file", "SSL crl file path set successfully"));
}

TEST_F(tlsc_config_file, other_mechanisms_settings_are_ignored) {
    log_capture log;
    settings    both = psk_settings;
    both.insert(both.end(), {{"ssl_certificate", "no-such-file"}, {"ssl_crl", std::string(300, 'c')}});
    EXPECT_EQ(load(both), 1);
    EXPECT_STREQ(conf.ssl_certificate, "");
    EXPECT_STREQ(conf.ssl_crl, "");

    memset(psk_identity, 0, sizeof(psk_identity));
    memset(psk_key, 0, sizeof(psk_key));
    both = certificate_settings;
    both.insert(both.end(), {{"psk_identity", "x"}, {"psk_key", "y"}});
    EXPECT_EQ(load(both), 1);
    EXPECT_STREQ(psk_identity, "");
    EXPECT_STREQ(psk_key, "");
}

TEST_F(tlsc_config_file, key_is_printed_at_no_level) {
    for (int32_t level = LOG_ERRORS; level <= LOG_BUF_PRINT; ++level) {
        log_capture log(level);
        ASSERT_EQ(load(with(psk_settings, "log_level", std::to_string(level))), 1);
        EXPECT_FALSE(log.contains("very-secret-key")) << level;
    }
    log_capture log(LOG_BUF_PRINT);
    load(with(psk_settings, "psk_key", "tiny"));
    EXPECT_FALSE(log.contains("tiny"));
}

TEST_F(tlsc_config_file, missing_file_ends_the_load_at_the_server_address) {
    log_capture log;
    EXPECT_EQ(tlsc_read_config_file(&conf), 0);
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(
        is_log_line(lines[0], "ERROR", "tlsc_config.c", "tlsc_read_param_val", "Can't open config file, errno=2"));
    EXPECT_TRUE(is_log_line(lines[1], "ERROR", "tlsc_config.c", "tlsc_read_config_file", "Server Addr not found!!"));
    EXPECT_TRUE(is_all_zero(conf));
}

namespace {

// One way to spoil a complete file, and what comes of it: the last line logged.
struct spoilt {
    const char *key;
    std::string value;  // "-" takes the line out
    int32_t     result;
    const char *severity;
    const char *function;
    std::string message;
};

std::string text_of(size_t length) { return std::string(length, 'x'); }

}  // namespace

TEST_F(tlsc_config_file, every_fatal_error_of_a_psk_file_ends_the_load_with_its_line) {
    const std::vector<spoilt> table{
        {"server_ip_address", "-", 0, "ERROR", "tlsc_read_config_file", "Server Addr not found!!"},
        {"server_ip_address", text_of(50), 0, "ERROR", "tlsc_read_config_file", "Invalid Server Addr!!"},
        {"management_ip", "-", 0, "ERROR", "tlsc_read_config_file", "Mgmt IP not found!!"},
        {"management_ip", text_of(50), 0, "ERROR", "tlsc_read_config_file", "Invalid Mgmt IP!!"},
        {"tun_interface_name", "-", 0, "ERROR", "tlsc_read_config_file", "TUN name not found!!"},
        {"tun_interface_name", text_of(50), 0, "ERROR", "tlsc_read_config_file", "Invalid TUN name!!"},
        {"ssl_authentication_mechanism", "-", 0, "ERROR", "tlsc_read_config_file",
         "SSL Authentication mechanism not found in config file"},
        {"ssl_authentication_mechanism", "PSK", 0, "ERROR", "tlsc_read_config_file",
         "Invalid SSL authentication-mechanism!!"},
        {"ssl_authentication_mechanism", "pskx", 0, "ERROR", "tlsc_read_config_file",
         "Invalid SSL authentication-mechanism!!"},
        {"ssl_authentication_mechanism", "", 0, "ERROR", "tlsc_read_config_file",
         "Invalid SSL authentication-mechanism!!"},
        {"psk_identity", "-", 0, "ERROR", "tlsc_read_config_file", "PSK ID not found!!"},
        {"psk_identity", "ab", 0, "ERROR", "tlsc_read_config_file", "Invalid PSK ID length(2). Range(3-128)!!"},
        {"psk_identity", text_of(129), 0, "ERROR", "tlsc_read_config_file",
         "Invalid PSK ID length(129). Range(3-128)!!"},
        {"psk_key", "-", 0, "ERROR", "tlsc_read_config_file", "PSK Key not found in config file!!"},
        {"psk_key", "abcd", 0, "ERROR", "tlsc_read_config_file", "Invalid PSK Key length(4). Range(5-4)!!"},
        {"psk_key", text_of(257), 0, "ERROR", "tlsc_read_config_file", "Invalid PSK Key length(257). Range(5-4)!!"},
        {"cipher_algo", text_of(50), 0, "ERROR", "tlsc_read_config_file", "Invalid Cipher Algo!!"},
        {"device_id", "-", 0, "ERROR", "tlsc_read_config_file", "Device ID not found!!"},
        {"device_id", text_of(17), 0, "ERROR", "tlsc_read_config_file", "Invalid Device ID!!"},
        {"device_name", text_of(51), 0, "ERROR", "tlsc_read_config_file", "Device Name longer than max allowed(50)!!"},
        {"serial_no", text_of(17), 0, "ERROR", "tlsc_read_config_file",
         "Device serial no. longer than max allowed(16)!!"}};
    for (const spoilt &entry : table) {
        log_capture log;
        EXPECT_EQ(
            load(entry.value == "-" ? without(psk_settings, entry.key) : with(psk_settings, entry.key, entry.value)),
            entry.result)
            << entry.message;
        const auto lines = log.lines();
        ASSERT_FALSE(lines.empty());
        EXPECT_TRUE(is_log_line(lines.back(), entry.severity, "tlsc_config.c", entry.function, entry.message))
            << lines.back();
    }
}

TEST_F(tlsc_config_file, every_fatal_error_of_a_certificate_file_ends_the_load_with_its_line) {
    const std::vector<spoilt> table{
        {"ssl_certificate", "-", 0, "ERROR", "tlsc_read_config_file", "SSL certificate not provided!!"},
        {"ssl_certificate", text_of(100), 0, "ERROR", "tlsc_read_config_file",
         "The ssl-certificate file-path is more than max-size(100)"},
        {"ssl_certificate", "absent", 0, "ERROR", "tlsc_read_config_file",
         "Invalid SSL certificate file. No file found with name(absent)!!"},
        {"ssl_private_key", "-", 0, "ERROR", "tlsc_read_config_file", "SSL private_key not provided!!"},
        {"ssl_private_key", text_of(100), 0, "ERROR", "tlsc_read_config_file",
         "The ssl-private_key file-path is more than max-size(100)"},
        {"ssl_private_key", "absent", 0, "ERROR", "tlsc_read_config_file",
         "Invalid SSL private-key file!! No file found with name(absent)!!"},
        {"ssl_rootca_bundle", "-", 0, "ERROR", "tlsc_read_config_file", "SSL root-ca not provided!!"},
        {"ssl_rootca_bundle", text_of(100), 0, "ERROR", "tlsc_read_config_file",
         "The ssl-root_ca file-path is more than max-size(100)"},
        {"ssl_rootca_bundle", "absent", 0, "ERROR", "tlsc_read_config_file",
         "Invalid SSL root-ca file!! No file found with name(absent)!!"},
        {"ssl_crl", "-", 0, "ERROR", "tlsc_read_config_file", "SSL crl not provided!!"},
        {"ssl_crl", text_of(100), 0, "ERROR", "tlsc_read_config_file",
         "The ssl-root_ca file-path is more than max-size(100)"},
        {"ssl_crl", "absent", 0, "ERROR", "tlsc_read_config_file",
         "Invalid SSL crl file!! No file found with name(absent)!!"}};
    for (const spoilt &entry : table) {
        log_capture log;
        EXPECT_EQ(load(entry.value == "-" ? without(certificate_settings, entry.key)
                                          : with(certificate_settings, entry.key, entry.value)),
                  entry.result)
            << entry.message;
        const auto lines = log.lines();
        ASSERT_FALSE(lines.empty());
        EXPECT_TRUE(is_log_line(lines.back(), entry.severity, "tlsc_config.c", entry.function, entry.message))
            << lines.back();
    }
}

TEST_F(tlsc_config_file, values_of_the_largest_and_smallest_accepted_length_are_kept_whole) {
    log_capture log;
    settings    longest = with(psk_settings, "server_ip_address", text_of(49));
    for (const char *key : {"management_ip", "tun_interface_name", "cipher_algo"})
        longest = with(longest, key, text_of(49));
    longest = with(with(longest, "psk_identity", text_of(128)), "psk_key", text_of(256));
    longest = with(with(with(longest, "device_id", text_of(16)), "device_name", text_of(50)), "serial_no", text_of(16));
    ASSERT_EQ(load(longest), 1);
    EXPECT_EQ(conf.svr_addr_ipv4, text_of(49));
    EXPECT_EQ(conf.management_ip, text_of(49));
    EXPECT_EQ(conf.tun_interface_name, text_of(49));
    EXPECT_EQ(conf.cipher_algo, text_of(49));
    EXPECT_EQ(psk_identity, text_of(128));
    EXPECT_EQ(psk_key, text_of(256));
    EXPECT_EQ(conf.device_id, text_of(16));
    EXPECT_EQ(conf.device_name, text_of(50));
    EXPECT_EQ(conf.serial_no, text_of(16));

    ASSERT_EQ(load(with(with(psk_settings, "psk_identity", "abc"), "psk_key", "abcde")), 1);
    EXPECT_STREQ(psk_identity, "abc");
    EXPECT_STREQ(psk_key, "abcde");
}

TEST_F(tlsc_config_file, path_of_99_characters_is_accepted_when_the_file_exists) {
    log_capture       log;
    const std::string path = "./" + text_of(97);
    write_text(path.c_str(), "");
    EXPECT_EQ(load(with(certificate_settings, "ssl_crl", path)), 1);
    EXPECT_EQ(conf.ssl_crl, path);
    unlink(path.c_str());
}

TEST_F(tlsc_config_file, missing_port_falls_back_to_443) {
    log_capture log;
    EXPECT_EQ(load(without(psk_settings, "server_port")), 1);
    EXPECT_EQ(conf.server_port, 443);
    EXPECT_TRUE(
        log.has("WARNING", "tlsc_config.c", "tlsc_read_config_file", "Server Port not found, setting to default!!"));
    EXPECT_FALSE(log.contains("Server port set from config file"));
}

TEST_F(tlsc_config_file, port_is_not_range_checked) {
    log_capture                                          log;
    const std::vector<std::pair<const char *, uint16_t>> table{
        {"1", 1},     {"65535", 65535},  {"65536", 0}, {"-1", 65535}, {"70000", 4464}, {"abc", 0},
        {" 22x", 22}, {"4294967297", 1}, {"", 0},      {"010", 10},   {"0x10", 0}};
    for (const auto &[text, port] : table) {
        ASSERT_EQ(load(with(psk_settings, "server_port", text)), 1);
        EXPECT_EQ(conf.server_port, port) << text;
    }
}

TEST_F(tlsc_config_file, commented_port_line_still_sets_the_port) {
    log_capture log;
    write_text(file_name, as_text(psk_settings) + "#server_port=1\n");
    ASSERT_EQ(tlsc_read_config_file(&conf), 1);
    EXPECT_EQ(conf.server_port, 1);
}

TEST_F(tlsc_config_file, missing_cipher_list_falls_back_to_the_default_list) {
    log_capture log;
    EXPECT_EQ(load(without(psk_settings, "cipher_algo")), 1);
    EXPECT_STREQ(conf.cipher_algo, "DHE-PSK-AES256-CBC-SHA");
    EXPECT_TRUE(
        log.has("WARNING", "tlsc_config.c", "tlsc_read_config_file", "Cipher algo not found, setting to default!!"));
}

TEST_F(tlsc_config_file, missing_name_and_serial_number_are_warnings) {
    log_capture log;
    EXPECT_EQ(load(without(without(psk_settings, "device_name"), "serial_no")), 1);
    EXPECT_STREQ(conf.device_name, "");
    EXPECT_STREQ(conf.serial_no, "");
    EXPECT_TRUE(log.has("WARNING", "tlsc_config.c", "tlsc_read_config_file", "Device Name not found!!"));
    EXPECT_TRUE(log.has("WARNING", "tlsc_config.c", "tlsc_read_config_file", "Device serial no. not found!!"));
}

TEST_F(tlsc_config_file, log_levels_0_to_5_are_stored_as_given) {
    for (int32_t level = 0; level <= 5; ++level) {
        log_capture log;
        ASSERT_EQ(load(with(psk_settings, "log_level", std::to_string(level))), 1);
        EXPECT_EQ(tlsc_log_level, level);
        EXPECT_EQ(log.has("DEBUG", "tlsc_config.c", "tlsc_read_config_file",
                          "Log level set from config file, Log-Level = " + std::to_string(level)),
                  level >= 3)
            << "the new level decides over its own line";
    }
}

TEST_F(tlsc_config_file, log_level_outside_0_to_5_becomes_2_with_a_warning) {
    for (const char *level : {"-1", "6", "4000000000", "99999999999999999999"}) {
        log_capture log;
        ASSERT_EQ(load(with(psk_settings, "log_level", level)), 1) << level;
        EXPECT_EQ(tlsc_log_level, 2);
        EXPECT_TRUE(log.has("WARNING", "tlsc_config.c", "tlsc_read_config_file",
                            "Invalid log level received in config file... Setting to default level INFO(2)"));
    }
}

TEST_F(tlsc_config_file, log_level_is_read_as_a_number_whatever_it_says) {
    for (const auto &[text, level] : std::vector<std::pair<const char *, int32_t>>{
             {"", 0}, {"debug", 0}, {" 4 and more", 4}, {"+1", 1}, {"03", 3}}) {
        log_capture log;
        ASSERT_EQ(load(with(psk_settings, "log_level", text)), 1) << text;
        EXPECT_EQ(tlsc_log_level, level) << text;
        EXPECT_FALSE(log.contains("Invalid log level")) << text;
    }
}

TEST_F(tlsc_config_file, missing_log_level_becomes_2_with_a_warning) {
    log_capture log;
    ASSERT_EQ(load(without(psk_settings, "log_level")), 1);
    EXPECT_EQ(tlsc_log_level, 2);
    EXPECT_TRUE(
        log.has("WARNING", "tlsc_config.c", "tlsc_read_config_file", "Log level not found, setting to default!!"));
}

TEST_F(tlsc_config_file, fatal_error_keeps_what_was_set_before_it_and_leaves_the_rest) {
    log_capture log;
    strcpy(conf.device_name, "old name");
    EXPECT_EQ(load(with(psk_settings, "device_id", text_of(17))), 0);
    EXPECT_STREQ(conf.svr_addr_ipv4, "203.0.113.5");
    EXPECT_EQ(conf.server_port, 4433);
    EXPECT_STREQ(psk_key, "very-secret-key");
    EXPECT_STREQ(conf.cipher_algo, "PSK-AES256-CBC-SHA");
    EXPECT_STREQ(conf.device_id, "");
    EXPECT_STREQ(conf.device_name, "old name");
    EXPECT_STREQ(conf.serial_no, "");
}

TEST_F(tlsc_config_file, value_of_the_last_line_without_a_line_end_loses_its_last_character) {
    log_capture log;
    std::string text = as_text(without(psk_settings, "serial_no")) + "serial_no=SN123456";
    write_text(file_name, text);
    ASSERT_EQ(tlsc_read_config_file(&conf), 1);
    EXPECT_STREQ(conf.serial_no, "SN12345");
}

TEST_F(tlsc_config_file, malformed_files_end_the_load_at_what_they_lack_and_never_show_the_key) {
    const std::string                                       good = as_text(psk_settings);
    const std::vector<std::pair<std::string, const char *>> table{
        {"", "Server Addr not found!!"},
        {"=", "Server Addr not found!!"},
        {std::string(100000, '='), "Server Addr not found!!"},
        {std::string(100000, '\n'), "Server Addr not found!!"},
        {std::string(100000, '\0'), "Server Addr not found!!"},
        {std::string(3, '\0') + "\n" + good, "Log level set from config file, Log-Level = 3"},  // a line of its own
        {std::string(1, '\0') + good, "Server Addr not found!!"},  // the first line ends before it begins
        {std::string(499, 'x') + good,
         "Log level set from config file, Log-Level = 3"},          // the first piece of the line holds no key
        {std::string(495, 'x') + good, "Server Addr not found!!"},  // the key lies in two pieces
        {"server_ip_address" + std::string(482, ' ') + good, "Log level set from config file, Log-Level = 3"},
        {"server_ip_address=\n" + as_text(without(psk_settings, "server_ip_address")),
         "Log level set from config file, Log-Level = 3"},
        {good + "server_ip_address=" + std::string(1000, '9') + "\n", "Invalid Server Addr!!"},
        {good + "psk_key=" + std::string(5000, 'k') + "very-secret-key\n", "Invalid PSK Key length(490). Range(5-4)!!"},
        {good + "psk_key==very-secret-key=\n", "Invalid PSK Key length(0). Range(5-4)!!"},
        {good + "psk_identity", "Log level set from config file, Log-Level = 3"},
        {good + "psk_identity=", "Invalid PSK ID length(0). Range(3-128)!!"},
        {good + "ssl_authentication_mechanism=very-secret-key\n", "Invalid SSL authentication-mechanism!!"},
        {good + "log_level=very-secret-key", "Log level set from config file, Log-Level = 0"}};
    for (size_t i = 0; i < table.size(); ++i) {
        log_capture log(LOG_BUF_PRINT);
        write_text(file_name, table[i].first);
        const bool loads = std::string(table[i].second).find("Log level set") == 0;
        EXPECT_EQ(tlsc_read_config_file(&conf), loads ? 1 : 0) << i;
        ASSERT_FALSE(log.entries().empty()) << i;
        if (tlsc_log_level >= LOG_DEBUG) {
            EXPECT_EQ(log.entries().back().message, table[i].second) << i;
        }
        EXPECT_FALSE(log.contains("very-secret-key")) << i;
    }
    unlink(file_name);
    ASSERT_EQ(mkdir(file_name, 0700), 0);
    log_capture log;
    EXPECT_EQ(tlsc_read_config_file(&conf), 0) << "a directory";
    EXPECT_TRUE(log.has("ERROR", "tlsc_config.c", "tlsc_read_config_file", "Server Addr not found!!"));
    ASSERT_EQ(rmdir(file_name), 0);
}

TEST_F(tlsc_config_file, any_bytes_are_survived) {
    log_capture log(LOG_ERRORS);
    uint32_t    state = 12345;
    for (int round = 0; round < 300; ++round) {
        std::string text;
        for (int i = 0; i < 2000; ++i) {
            state             = state * 1664525u + 1013904223u;
            const char pool[] = {'=', '\n', '\0', '\xFF', 'a', '#'};
            text += pool[(state >> 16) % sizeof(pool)];
            if ((state >> 8) % 37 == 0) text += "psk_key=";
            if ((state >> 8) % 41 == 0) text += "server_ip_address=";
        }
        write_text(file_name, text);
        tlsc_read_config_file(&conf);
        EXPECT_LT(strnlen(conf.svr_addr_ipv4, sizeof(conf.svr_addr_ipv4)), sizeof(conf.svr_addr_ipv4));
    }
}
