// The configuration file: values, lines, and the writing beside a daemon that rewrites the same file.
#include "agent_conf.h"
#include "conf.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace wlcctl;
namespace fs = std::filesystem;

namespace {

const conf_key &key_named(const std::string &name) {
    for (const conf_key &key : conf_keys)
        if (name == key.name) return key;
    throw std::runtime_error(name);
}

bool is_accepted(const std::string &key, const std::string &value) {
    std::string warning;
    return check_conf_value(key_named(key), value, warning).empty();
}

std::string warning_of(const std::string &key, const std::string &value) {
    std::string warning;
    EXPECT_EQ(check_conf_value(key_named(key), value, warning), "");
    return warning;
}

std::string content_of(const fs::path &path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
}

class controller_conf_file : public ::testing::Test {
protected:
    controller_conf_file() {
        char name[] = "/tmp/controller_conf_XXXXXX";
        directory   = mkdtemp(name);
        path        = directory / "tun.conf";
        temp        = directory / "tun-temp.conf";
    }
    ~controller_conf_file() override { fs::remove_all(directory); }

    size_t files() const { return static_cast<size_t>(std::distance(fs::directory_iterator(directory), {})); }

    fs::path directory, path, temp;
};

const conf_values two = {{"server_ip_address", "192.0.2.1"}, {"psk_key", "secret"}};

}  // namespace

TEST(controller_conf, there_are_13_keys) { EXPECT_EQ(conf_keys.size(), 13u); }

TEST(controller_conf, a_value_has_no_semicolon_no_line_end_and_is_not_empty) {
    EXPECT_TRUE(is_accepted("psk_key", "a b#c"));
    for (const char *bad : {"", "a;b", "a\nb", "a\rb", "a\tb", "a\x7f"})
        EXPECT_FALSE(is_accepted("psk_key", bad)) << bad;
}

TEST(controller_conf, values_have_the_lengths_that_the_daemon_keeps) {
    const std::pair<const char *, size_t> limits[] = {
        {"psk_key", 63},    {"psk_identity", 63}, {"cipher_algo", 49},        {"device_id", 16},
        {"serial_num", 16}, {"system_name", 50},  {"tun_interface_name", 15}, {"server_ip_address", 49}};
    for (const auto &[key, limit] : limits) {
        EXPECT_TRUE(is_accepted(key, std::string(limit, 'x'))) << key;
        EXPECT_FALSE(is_accepted(key, std::string(limit + 1, 'x'))) << key;
    }
}

TEST(controller_conf, a_port_is_a_number_from_1_to_65535) {
    for (const char *good : {"1", "443", "65535"}) EXPECT_TRUE(is_accepted("server_port", good)) << good;
    for (const char *bad : {"0", "65536", "-1", "+1", "443 ", "0443", "http", "99999999999999999999"})
        EXPECT_FALSE(is_accepted("server_port", bad)) << bad;
}

TEST(controller_conf, addresses_are_ipv4_and_only_the_gateway_may_be_a_name) {
    EXPECT_EQ(warning_of("server_ip_address", "192.0.2.1"), "");
    EXPECT_NE(warning_of("server_ip_address", "gw-1.example.net"), "");
    for (const char *bad : {"192.0.2", "192.0.2.256", "2001:db8::1", "-gw", "gw..net", "gw_1", "gw net"})
        EXPECT_FALSE(is_accepted("server_ip_address", bad)) << bad;
    EXPECT_TRUE(is_accepted("management_ip", "10.0.0.1"));
    EXPECT_FALSE(is_accepted("management_ip", "device.example"));
    EXPECT_FALSE(is_accepted("management_ip", "10.0.0.1 "));
    EXPECT_NE(warning_of("inner_ip", "10.0.0.1"), "");
}

TEST(controller_conf, an_interface_name_is_safe_in_a_command_line) {
    for (const char *good : {"tun0", "tls-1.a_b", "A"}) EXPECT_TRUE(is_accepted("tun_interface_name", good)) << good;
    for (const char *bad : {"-tun", "tun%d", "a b", "a;b", "$(id)", "a/b", ".", ".."})
        EXPECT_FALSE(is_accepted("tun_interface_name", bad)) << bad;
}

TEST(controller_conf, words_of_level_and_destination_match_whole) {
    EXPECT_TRUE(is_accepted("log_level", "ssl-dbg"));
    EXPECT_FALSE(is_accepted("log_level", "error"));
    EXPECT_TRUE(is_accepted("log_dest", "both"));
    EXPECT_FALSE(is_accepted("log_dest", "syslog"));
}

TEST(controller_conf, lines_are_read_as_the_daemon_reads_them) {
    size_t skipped = 0;
    auto   entries = parse_conf("\n# a;b;1\nserver_port;8443;1\npsk_key;x\n;;device_id;;d1;0;rest\nkey;;1\nlast;one;1",
                                skipped);
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[0].key, "server_port");
    EXPECT_EQ(entries[0].value, "8443");
    EXPECT_EQ(entries[0].flag, 1);
    EXPECT_EQ(entries[1].key, "device_id");
    EXPECT_EQ(entries[1].value, "d1");
    EXPECT_EQ(entries[1].flag, 0);
    EXPECT_EQ(entries[2].key, "last");
    EXPECT_EQ(skipped, 4u);
}

TEST(controller_conf, a_line_above_511_characters_is_several_lines) {
    size_t skipped = 0;
    auto   entries = parse_conf("k;" + std::string(600, 'v') + ";1\n", skipped);
    EXPECT_TRUE(entries.empty());
    EXPECT_EQ(skipped, 2u);
}

TEST_F(controller_conf_file, is_written_with_mode_0600_whatever_the_umask_and_nothing_stays_beside_it) {
    mode_t old = umask(0);
    EXPECT_EQ(write_conf_file(path, two, false), "");
    umask(old);
    struct stat facts;
    ASSERT_EQ(stat(path.c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 07777, 0600u);
    EXPECT_EQ(content_of(path), "server_ip_address;192.0.2.1;1\npsk_key;secret;1\n");
    EXPECT_EQ(files(), 1u);
}

TEST_F(controller_conf_file, that_exists_is_replaced_on_demand_only) {
    EXPECT_EQ(write_conf_file(path, {{"a", "1"}}, false), "");
    EXPECT_NE(write_conf_file(path, two, false), "");
    EXPECT_EQ(content_of(path), "a;1;1\n");
    EXPECT_EQ(write_conf_file(path, two, true), "");
    EXPECT_EQ(conf_value(path, "psk_key"), "secret");
    EXPECT_EQ(files(), 1u);
}

TEST_F(controller_conf_file, in_a_directory_that_does_not_exist_is_an_error) {
    EXPECT_NE(write_conf_file(directory / "no" / "tun.conf", two, false), "");
}

// The daemon opens the old file and its temporary file, sleeps a second and renames the old content over the new one.
TEST_F(controller_conf_file, survives_a_daemon_that_puts_the_old_content_back) {
    ASSERT_EQ(write_conf_file(path, {{"a", "1"}}, false), "");
    std::ofstream(temp) << "a;1;0\n";
    std::thread daemon([&] {
        usleep(500000);
        fs::rename(temp, path);
    });
    EXPECT_EQ(write_conf_file(path, two, true), "");
    daemon.join();
    EXPECT_EQ(conf_value(path, "server_ip_address"), "192.0.2.1");
    EXPECT_EQ(files(), 1u);
}

// A rewriting that takes longer than the writer waits for it: the new file is put in place, replaced by the old, and
// written again.
TEST_F(controller_conf_file, is_written_again_when_a_slow_daemon_replaces_the_new_file) {
    ASSERT_EQ(write_conf_file(path, {{"a", "1"}}, false), "");
    std::ofstream(temp) << "a;1;0\n";
    std::thread daemon([&] {
        while (conf_value(path, "psk_key").empty()) usleep(200);
        fs::rename(temp, path);
    });
    EXPECT_EQ(write_conf_file(path, two, true), "");
    daemon.join();
    EXPECT_EQ(conf_value(path, "psk_key"), "secret");
    EXPECT_EQ(files(), 1u);
}

TEST_F(controller_conf_file, is_no_pipe_and_no_directory) {
    std::string error;
    ASSERT_EQ(mkfifo((directory / "pipe").c_str(), 0600), 0);
    EXPECT_FALSE(read_conf_file(directory / "pipe", error));
    EXPECT_FALSE(read_conf_file(directory, error));
    EXPECT_FALSE(read_conf_file(directory / "none", error));
    EXPECT_EQ(conf_value(directory / "none", "psk_key"), "");
}

TEST(controller_agent_conf, a_value_in_quotes_loses_them_and_a_command_of_quoted_words_keeps_them) {
    std::string error;
    auto        settings = parse_agent_conf("on-up = \"a b\"\non_down = \"/etc/down\" \"$TLSC_TUN\"\n", error);
    ASSERT_EQ(settings.size(), 2u) << error;
    EXPECT_EQ(settings[0].value, "a b");
    EXPECT_EQ(settings[1].key, "on-down");
    EXPECT_EQ(settings[1].value, "\"/etc/down\" \"$TLSC_TUN\"");
}
