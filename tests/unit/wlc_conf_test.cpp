// The secure-tunnel configuration file and the parameter block.

#include "tlsc_wlc.h"

#include <functional>
#include <map>

#include <sys/mount.h>
#include <sys/stat.h>

#include "capture.h"
#include "tlsc_config.h"
#include "wlc_controller.h"

namespace {

constexpr char source[]      = "tlsc_wlc.c";
constexpr char plain_path[]  = "../wlc/tlsc_wlc.c";
constexpr char read_all[]    = "wlcSecTunReadAllConf";
constexpr char process_one[] = "wlcSecTunProcessConf";
constexpr char update_one[]  = "wlcSecTunUpdateConf";
constexpr char read_one[]    = "wlcSecTunReadConf";

std::vector<unsigned> sleeps;    // seconds of each sleep
std::function<void()> on_sleep;  // runs instead of sleeping

}  // namespace

extern "C" unsigned __wrap_sleep(unsigned seconds) {
    sleeps.push_back(seconds);
    if (on_sleep) on_sleep();
    return 0;
}

class wlc_conf : public controller_test {
protected:
    void SetUp() override {
        controller_test::SetUp();
        sleeps.clear();
        on_sleep = nullptr;
        for (const char *key : {"serial_num", "system_name"}) wlcSecTunProcessConf(key, "");
        tlscWlcClearCfgParams();
    }
    void TearDown() override {
        tlscWlcSetBootupDbgFlags(0);
        controller_test::TearDown();
    }
};

// ---- reading all ----------------------------------------------------------------------------------------------------

TEST_F(wlc_conf, port_entry_sets_the_port_and_is_marked_as_consumed) {
    write_file(conf_file, "server_port;8443;1\n");
    EXPECT_EQ(wlcSecTunReadAllConf(), 1);
    EXPECT_EQ(tlscWlcGetServerPort(), 8443);
    EXPECT_EQ(read_file(conf_file), "server_port;8443;0\n");
    EXPECT_FALSE(exists(temp_conf_file));
}

TEST_F(wlc_conf, every_key_fills_its_own_field) {
    write_file(conf_file,
               "server_ip_address;gw.example;1\nserver_port;443;1\nmanagement_ip;10.0.0.2;1\ninner_ip;1.1.1.1;1\n"
               "tun_interface_name;tun7;1\ncipher_algo;PSK-AES;1\npsk_identity;me;1\npsk_key;hush;1\n"
               "log_level;debug;1\nlog_dest;both;1\ndevice_id;D1;1\nserial_num;S1;1\nsystem_name;N1;1\n");
    EXPECT_EQ(wlcSecTunReadAllConf(), 1);
    EXPECT_STREQ(tlscWlcGetServerIpAddress(), "gw.example");
    EXPECT_EQ(tlscWlcGetServerPort(), 443);
    EXPECT_STREQ(tlscWlcGetManagementIp(), "10.0.0.2");
    EXPECT_STREQ(tlscWlcGetTunInterfaceName(), "tun7");
    EXPECT_STREQ(tlscWlcGetCipherAlgo(), "PSK-AES");
    EXPECT_STREQ(tlscWlcGetPskIdentity(), "me");
    EXPECT_STREQ(tlscWlcGetPskKey(), "hush");
    EXPECT_STREQ(tlscWlcGetDeviceId(), "D1");
    EXPECT_STREQ(tlscWlcGetSerialNum(), "S1");
    EXPECT_STREQ(tlscWlcGetSystemName(), "N1");
    EXPECT_EQ(read_file(conf_file),
              "server_ip_address;gw.example;0\nserver_port;443;0\nmanagement_ip;10.0.0.2;0\ninner_ip;1.1.1.1;0\n"
              "tun_interface_name;tun7;0\ncipher_algo;PSK-AES;0\npsk_identity;me;0\npsk_key;hush;0\n"
              "log_level;debug;0\nlog_dest;both;0\ndevice_id;D1;0\nserial_num;S1;0\nsystem_name;N1;0\n");
}

TEST_F(wlc_conf, lines_that_are_no_entry_are_named_and_dropped) {
    write_file(conf_file,
               "\n# a comment\n#device_id;no;1\n;;;\nlonely\ndevice_id;two-fields\nsystem_name;;1\ndevice_id;yes;1\n");
    log_capture log;
    EXPECT_EQ(wlcSecTunReadAllConf(), 1);
    const std::vector<std::string> expected = {
        "wlcSecTunReadAllConf - TLS Client process, reading all the configuration",
        "continue 1",
        "continue 1",
        "continue 1",
        "continue 3",  // the newline is the only field of ";;;"
        "continue 3",
        "continue 4",
        "continue 4",  // a run of separators counts once
        "wlcSecTunProcessConf() - On TLS Client received key value pair Key:device_id,value:yes",
    };
    EXPECT_EQ(log.messages(), expected);
    for (const log_line &line : log.entries()) EXPECT_EQ(line.severity, "DEBUG") << line.message;
    EXPECT_TRUE(log.has("DEBUG", source, read_all, "continue 4"));
    EXPECT_EQ(read_file(conf_file), "device_id;yes;0\n");
    EXPECT_STREQ(tlscWlcGetDeviceId(), "yes");
    EXPECT_STREQ(tlscWlcGetSystemName(), "");
}

TEST_F(wlc_conf, last_line_of_separators_without_a_line_end_has_no_key) {
    write_file(conf_file, ";;;");
    log_capture log;
    EXPECT_EQ(wlcSecTunReadAllConf(), 1);
    EXPECT_EQ(log.count("DEBUG", source, read_all, "continue 2"), 1u);
    EXPECT_EQ(read_file(conf_file), "");
}

TEST_F(wlc_conf, last_line_without_a_line_end_is_an_entry) {
    write_file(conf_file, "device_id;D9;1");
    EXPECT_EQ(wlcSecTunReadAllConf(), 1);
    EXPECT_STREQ(tlscWlcGetDeviceId(), "D9");
    EXPECT_EQ(read_file(conf_file), "device_id;D9;0\n");
}

TEST_F(wlc_conf, value_of_63_characters_is_kept_and_the_64th_is_cut) {
    write_file(conf_file, "management_ip;" + std::string(63, 'm') + ";1\ncipher_algo;" + std::string(64, 'c') + ";1\n");
    EXPECT_EQ(wlcSecTunReadAllConf(), 1);
    EXPECT_EQ(tlscWlcGetManagementIp(), std::string(63, 'm'));
    EXPECT_EQ(tlscWlcGetCipherAlgo(), std::string(63, 'c'));
}

TEST_F(wlc_conf, value_of_100_characters_is_cut_in_the_block_and_whole_in_the_file) {
    const std::string value(100, 'v');
    write_file(conf_file, "management_ip;" + value + ";1\n");
    EXPECT_EQ(wlcSecTunReadAllConf(), 1);
    EXPECT_EQ(tlscWlcGetManagementIp(), std::string(63, 'v'));
    EXPECT_EQ(read_file(conf_file), "management_ip;" + value + ";0\n");
}

TEST_F(wlc_conf, unknown_key_is_named_not_stored_and_rewritten) {
    write_file(conf_file, "Server_Port;99;1\n");
    log_capture log;
    EXPECT_EQ(wlcSecTunReadAllConf(), 1);
    EXPECT_TRUE(log.has("DEBUG", source, process_one, "Got invalid keystr:Server_Port value:99"));
    EXPECT_EQ(tlscWlcGetServerPort(), 0);
    EXPECT_EQ(read_file(conf_file), "Server_Port;99;0\n");
}

TEST_F(wlc_conf, key_is_matched_whole_and_kept_up_to_63_characters) {
    const std::string key(80, 'k');
    write_file(conf_file, "device;a;1\ndevice_id2;b;1\n" + key + ";c;1\n");
    EXPECT_EQ(wlcSecTunReadAllConf(), 1);
    EXPECT_STREQ(tlscWlcGetDeviceId(), "");
    EXPECT_EQ(read_file(conf_file), "device;a;0\ndevice_id2;b;0\n" + std::string(63, 'k') + ";c;0\n");
}

TEST_F(wlc_conf, value_with_a_separator_is_cut_at_it) {
    write_file(conf_file, "cipher_algo;AES;SHA;1\n");
    EXPECT_EQ(wlcSecTunReadAllConf(), 1);
    EXPECT_STREQ(tlscWlcGetCipherAlgo(), "AES");
    EXPECT_EQ(read_file(conf_file), "cipher_algo;AES;0\n");
}

TEST_F(wlc_conf, port_that_is_no_number_is_zero) {
    write_file(conf_file, "server_port;https;1\n");
    EXPECT_EQ(wlcSecTunReadAllConf(), 1);
    EXPECT_EQ(tlscWlcGetServerPort(), 0);
}

TEST_F(wlc_conf, line_of_511_characters_is_read_whole_and_a_longer_one_in_pieces) {
    const std::string head = "device_id;";
    const std::string tail = ";1";
    const std::string fits(511 - head.size() - tail.size(), 'a');  // 511 characters, then the line end
    const std::string spills(512 - head.size() - tail.size(), 'b');
    write_file(conf_file, head + fits + tail + "\n" + head + spills + tail + "\n");
    log_capture log;
    EXPECT_EQ(wlcSecTunReadAllConf(), 1);
    // The first line's own end is a blank line. The second one loses its flag, which then stands alone.
    const std::vector<std::string> all = log.messages();
    ASSERT_EQ(all.size(), 5u);
    EXPECT_EQ(all[2], "continue 1");
    EXPECT_EQ(all[3], "continue 4");
    EXPECT_EQ(all[4], "continue 3");
    EXPECT_EQ(read_file(conf_file), head + fits + ";0\n");
}

TEST_F(wlc_conf, missing_file_ends_the_read_and_leaves_the_block) {
    wlcSecTunProcessConf("device_id", "kept");
    log_capture log;
    EXPECT_EQ(wlcSecTunReadAllConf(), 0);
    EXPECT_TRUE(
        log.has("ERROR", source, read_all,
                "wlcSecTunReadAllConf - File open failed, returning, file:/storage/application/wlc/wlc-sec-tun.conf"));
    EXPECT_STREQ(tlscWlcGetDeviceId(), "kept");
    EXPECT_FALSE(exists(temp_conf_file));
    EXPECT_TRUE(sleeps.empty());
}

TEST_F(wlc_conf, temporary_file_that_cannot_be_opened_ends_the_read) {
    write_file(conf_file, "device_id;D1;1\n");
    ASSERT_EQ(mkdir(temp_conf_file, 0700), 0);
    log_capture log;
    EXPECT_EQ(wlcSecTunReadAllConf(), 0);
    EXPECT_TRUE(log.has(
        "ERROR", source, read_all,
        "wlcSecTunReadAllConf - Temp File open failed to read, returning, filename:/storage/application/wlc/wlc-sec-tun-temp.conf"));
    EXPECT_EQ(read_file(conf_file), "device_id;D1;1\n");
    EXPECT_STREQ(tlscWlcGetDeviceId(), "");
}

TEST_F(wlc_conf, temporary_file_that_is_a_link_is_not_followed) {
    write_file(conf_file, "device_id;D1;1\n");
    write_file("/tmp/elsewhere", "untouched");
    ASSERT_EQ(symlink("/tmp/elsewhere", temp_conf_file), 0);
    EXPECT_EQ(wlcSecTunReadAllConf(), 0);
    EXPECT_EQ(read_file("/tmp/elsewhere"), "untouched");
    unlink("/tmp/elsewhere");
}

TEST_F(wlc_conf, numbers_of_the_file_are_read_up_to_what_is_no_digit) {
    const std::vector<std::pair<const char *, int32_t>> table{
        {" 8443x", 8443}, {"-1", -1}, {"+7", 7}, {"0x10", 0}, {"010", 10}, {"4294967297", 1}, {"\t9\t", 9}};
    for (const auto &[text, port] : table) {
        write_file(conf_file, std::string("server_port;") + text + ";1\n");
        EXPECT_EQ(wlcSecTunReadAllConf(), 1);
        EXPECT_EQ(tlscWlcGetServerPort(), port) << text;
    }
}

TEST_F(wlc_conf, malformed_files_harm_nothing_and_show_no_key) {
    const std::string good = "device_id;D1;1\n";
    // What is left of each in the file.
    const std::vector<std::pair<std::string, std::string>> table{
        {"", ""},
        {std::string(2000, '\n'), ""},
        {std::string(100000, ';'), ""},
        {std::string(100000, '\0'), ""},
        {std::string(100000, 'x'), ""},
        {std::string("\0device_id;D2;1\n", 16) + good, "device_id;D1;0\n"},
        {"\r\n" + good, "device_id;D1;0\n"},
        {" device_id;D2;1\n" + good, " device_id;D2;0\ndevice_id;D1;0\n"},  // a blank makes it another key
        {"device_id;D1;1\r\n", "device_id;D1;0\n"},
        {";;;device_id;;;D1;;;1;;;\n", "device_id;D1;0\n"},
        {"device_id;D1;\n", "device_id;D1;0\n"},  // the line's end is the flag
        {"device_id;D1;", ""},
        {"device_id;%s%n%x;1\n" + good, "device_id;%s%n%x;0\ndevice_id;D1;0\n"},
        {std::string("k\xff\x01;\xfe;\x80\n") + good, "k\xff\x01;\xfe;0\ndevice_id;D1;0\n"},
        {std::string(511, ' ') + good, "device_id;D1;0\n"},
        {std::string(510, '#') + "\n" + good, "device_id;D1;0\n"},
        {std::string(511, '#') + "#" + good + good, "device_id;D1;0\n"},
        {"psk_key;" + std::string(600, 'h') + ";1;more\n" + good,
         "device_id;D1;0\n"},  // the rest of such a line is no entry
        {"psk_key;" + std::string(1100, 'h') + ";hhhhhh;hhhhhh;1\n" + good, "device_id;D1;0\n"},
        {"psk_key;" + std::string(503, 'h') + "hhhhhh;2;1\n" + good, "device_id;D1;0\n"},
        {"unknown;" + std::string(503, 'u') + "tail;2;1\n" + good,
         "tail;2;0\ndevice_id;D1;0\n"},  // that of any other is
    };
    for (size_t i = 0; i < table.size(); ++i) {
        log_capture log(LOG_BUF_PRINT);
        char        value[512];
        (void)tlscWlcClearCfgParams();
        write_file(conf_file, table[i].first);
        EXPECT_EQ(wlcSecTunReadAllConf(), 1) << i;
        EXPECT_EQ(read_file(conf_file), table[i].second) << i;
        EXPECT_STREQ(tlscWlcGetDeviceId(), table[i].second.empty() ? "" : "D1") << i;
        write_file(conf_file, table[i].first);
        EXPECT_EQ(wlcSecTunReadConf("server_port", value), 1) << i;
        write_file(conf_file, table[i].first);
        EXPECT_EQ(wlcSecTunUpdateConf("server_port", "1"), 1) << i;
        EXPECT_EQ(wlcSecTunReadConf("server_port", value), 1) << i;
        EXPECT_STREQ(value, "1") << i;
        EXPECT_FALSE(log.contains("hhhhhh")) << i;
    }
}

TEST_F(wlc_conf, no_bytes_in_the_file_harm_the_client) {
    log_capture log(LOG_ERRORS);
    uint32_t    state = 4711;
    for (int round = 0; round < 300; ++round) {
        std::string text;
        for (int i = 0; i < 1500; ++i) {
            const char pool[] = {';', ';', '\n', '\0', '\xff', '#', '1', 'a'};
            state             = state * 1664525u + 1013904223u;
            text += pool[(state >> 16) % sizeof(pool)];
            if ((state >> 8) % 37 == 0) text += "psk_key;";
            if ((state >> 8) % 41 == 0) text += "server_ip_address;";
            if ((state >> 8) % 43 == 0) text += "\nserver_port;";
            if ((state >> 8) % 47 == 0)
                text += "\nserver_ip_address;" + std::string(60 + (state >> 20) % 10, 'v') + ";1\n";
        }
        char value[512] = "";
        write_file(conf_file, text);
        EXPECT_EQ(wlcSecTunReadAllConf(), 1);
        EXPECT_LT(strnlen(tlscWlcGetServerIpAddress(), 64), 64u);
        EXPECT_LT(strnlen(tlscWlcGetPskKey(), 64), 64u);
        EXPECT_EQ(wlcSecTunUpdateConf("psk", "v"), 1);
        EXPECT_EQ(wlcSecTunReadConf("psk", value), 1);
        EXPECT_STREQ(value, "v");
    }
}

// ---- the rewrite ----------------------------------------------------------------------------------------------------

TEST_F(wlc_conf, rewrite_waits_one_second_before_it_replaces_the_file) {
    write_file(conf_file, "device_id;D1;1\n");
    std::string conf_meanwhile, temp_meanwhile;
    on_sleep = [&] {
        conf_meanwhile = read_file(conf_file);
        temp_meanwhile = read_file(temp_conf_file);
    };
    EXPECT_EQ(wlcSecTunReadAllConf(), 1);
    EXPECT_EQ(sleeps, std::vector<unsigned>{1});
    EXPECT_EQ(conf_meanwhile, "device_id;D1;1\n");
    EXPECT_EQ(temp_meanwhile, "device_id;D1;0\n");
}

TEST_F(wlc_conf, failed_rename_is_logged_counts_as_success_and_leaves_the_temporary_file) {
    write_file(conf_file, "device_id;D1;1\n");
    on_sleep = [] {
        unlink(conf_file);
        mkdir(conf_file, 0700);
    };
    log_capture log;
    EXPECT_EQ(wlcSecTunReadAllConf(), 1);
    EXPECT_TRUE(log.has("ERROR", source, read_all,
                        "wlcSecTunReadAllConf() - Error [Is a directory] while Renaming file "
                        "/storage/application/wlc/wlc-sec-tun-temp.conf to /storage/application/wlc/wlc-sec-tun.conf"));
    EXPECT_EQ(read_file(temp_conf_file), "device_id;D1;0\n");
}

TEST_F(wlc_conf, leftover_temporary_file_is_appended_to) {
    write_file(temp_conf_file, "device_id;old;0\n");
    write_file(conf_file, "device_id;new;1\n");
    EXPECT_EQ(wlcSecTunReadAllConf(), 1);
    EXPECT_EQ(read_file(conf_file), "device_id;old;0\ndevice_id;new;0\n");
    EXPECT_STREQ(tlscWlcGetDeviceId(), "new");
}

TEST_F(wlc_conf, leftover_line_that_was_cut_short_swallows_no_entry) {
    write_file(temp_conf_file, "device_id;ol");
    write_file(conf_file, "device_id;new;1\n");
    EXPECT_EQ(wlcSecTunReadAllConf(), 1);
    EXPECT_EQ(read_file(conf_file), "device_id;ol\ndevice_id;new;0\n");
}

TEST_F(wlc_conf, rewritten_file_keeps_mode_and_owner) {
    for (const mode_t mode : {0600, 0640, 0666}) {
        for (const mode_t mask : {0000, 0077}) {
            write_file(conf_file, "psk_key;hush;1\n");
            ASSERT_EQ(chown(conf_file, 1234, 2345), 0);
            ASSERT_EQ(chmod(conf_file, mode), 0);
            const mode_t old_mask = umask(mask);
            EXPECT_EQ(wlcSecTunReadAllConf(), 1);
            umask(old_mask);

            struct stat st {};
            ASSERT_EQ(stat(conf_file, &st), 0);
            EXPECT_EQ(st.st_mode & 07777, mode);
            EXPECT_EQ(st.st_uid, 1234u);
            EXPECT_EQ(st.st_gid, 2345u);
        }
    }
}

TEST_F(wlc_conf, leftover_readable_by_all_does_not_expose_the_key) {
    write_file(temp_conf_file, "");
    ASSERT_EQ(chmod(temp_conf_file, 0666), 0);
    write_file(conf_file, "psk_key;hush;1\n");
    ASSERT_EQ(chmod(conf_file, 0600), 0);
    EXPECT_EQ(wlcSecTunReadAllConf(), 1);
    struct stat st {};
    ASSERT_EQ(stat(conf_file, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
}

TEST_F(wlc_conf, full_disk_loses_no_entry) {
    ASSERT_EQ(mount("small", "/storage/application/wlc", "tmpfs", 0, "size=12k"), 0) << strerror(errno);
    std::string content;
    for (int i = 0; i < 200; ++i)
        content += "entry_" + std::to_string(1000 + i) + ";value of some length;1\n";  // 6800 bytes
    write_file(conf_file, content);
    ASSERT_EQ(read_file(conf_file), content);
    {
        log_capture log;
        EXPECT_EQ(wlcSecTunReadAllConf(), 1);
        EXPECT_TRUE(
            log.has("ERROR", source, read_all,
                    "wlcSecTunReadAllConf() - Error [No space left on device] while Renaming file "
                    "/storage/application/wlc/wlc-sec-tun-temp.conf to /storage/application/wlc/wlc-sec-tun.conf"));
        EXPECT_EQ(read_file(conf_file), content);
        EXPECT_EQ(read_file(temp_conf_file), "");
        EXPECT_EQ(sleeps, std::vector<unsigned>{1});
    }
    EXPECT_EQ(umount("/storage/application/wlc"), 0);
}

TEST_F(wlc_conf, no_descriptor_is_left_open) {
    const auto open_descriptors = [] {
        int n = 0;
        for (int fd = 0; fd < 256; ++fd) n += fcntl(fd, F_GETFD) != -1;
        return n;
    };
    char      value[512];
    const int before = open_descriptors();
    (void)wlcSecTunReadAllConf();
    write_file(conf_file, "device_id;D1;1\n");
    (void)wlcSecTunReadAllConf();
    (void)wlcSecTunUpdateConf("device_id", "D2");
    (void)wlcSecTunReadConf("device_id", value);
    ASSERT_EQ(mkdir(temp_conf_file, 0700), 0);
    (void)wlcSecTunReadAllConf();
    (void)wlcSecTunUpdateConf("device_id", "D2");
    (void)wlcSecTunReadConf("device_id", value);
    EXPECT_EQ(open_descriptors(), before);
}

// ---- one key --------------------------------------------------------------------------------------------------------

TEST_F(wlc_conf, process_refuses_a_null_key_and_a_null_value) {
    log_capture log;
    EXPECT_EQ(wlcSecTunProcessConf(nullptr, "v"), 0);
    EXPECT_EQ(wlcSecTunProcessConf("device_id", nullptr), 0);
    EXPECT_EQ(log.count("ERROR", source, process_one, "wlcSecTunProcessConf() - Input parm NULL"), 2u);
}

TEST_F(wlc_conf, process_flushes_standard_output) {
    log_capture log(LOG_ERRORS);
    printf("waiting in the buffer");
    EXPECT_EQ(wlcSecTunProcessConf("no_such_key", "v"), 1);
    struct stat st {};
    ASSERT_EQ(fstat(STDOUT_FILENO, &st), 0);
    EXPECT_EQ(st.st_size, 21);
}

TEST_F(wlc_conf, update_sets_value_and_flag_of_its_entry_and_keeps_the_others) {
    write_file(conf_file, "device_id;D1;0\nserver_port;443;0\nother;x;7\n");
    log_capture log;
    EXPECT_EQ(wlcSecTunUpdateConf("server_port", "8443"), 1);
    EXPECT_EQ(read_file(conf_file), "device_id;D1;0\nserver_port;8443;1\nother;x;7\n");
    const std::vector<std::string> expected = {
        "wlcSecTunUpdateConf() - Updating the Secure tunnel conf file, for the key:server_port, data:8443",
        "Config line read:device_id;D1;0\n",
        "Config line read:server_port;443;0\n",
        "wlcSecTunUpdateConf() - entry updated for key:server_port, data:8443",
        "Config line read:other;x;7\n",
    };
    EXPECT_EQ(log.messages(), expected);
    for (const log_line &line : log.entries()) EXPECT_EQ(line.severity, "DEBUG") << line.message;
    EXPECT_TRUE(log.has("DEBUG", source, update_one, expected[3]));
    EXPECT_EQ(tlscWlcGetServerPort(), 0);
    EXPECT_EQ(sleeps, std::vector<unsigned>{1});
}

TEST_F(wlc_conf, the_passes_for_one_key_name_and_drop_the_lines_that_are_no_entry_too) {
    const std::string bad = "\n# a comment\n;;;\nlonely\ndevice_id;two-fields\nserver_port;7;1\n;;;";
    char              value[512];
    for (const char *function : {update_one, read_one}) {
        write_file(conf_file, bad);
        log_capture log;
        EXPECT_EQ(function == update_one ? wlcSecTunUpdateConf("server_port", "8")
                                         : wlcSecTunReadConf("server_port", value),
                  1);
        EXPECT_EQ(log.count("DEBUG", source, function, "continue 1"), 2u);
        EXPECT_EQ(log.count("DEBUG", source, function, "continue 2"), 1u);
        EXPECT_EQ(log.count("DEBUG", source, function, "continue 3"), 2u);
        EXPECT_EQ(log.count("DEBUG", source, function, "continue 4"), 1u);
        EXPECT_TRUE(log.has("DEBUG", source, function, "Config line read:\n"));  // skipped or not, it is shown
        EXPECT_EQ(read_file(conf_file), function == update_one ? "server_port;8;1\n" : "server_port;7;0\n");
    }
}

TEST_F(wlc_conf, flags_of_other_entries_are_written_back_as_numbers) {
    write_file(conf_file, "a;1;7\nb;2;-3\nc;3;yes\nd;4; 12 \ne;5;" + std::string(62, '0') + "1\nf;6;" +
                              std::string(63, '0') + "1\n");
    EXPECT_EQ(wlcSecTunUpdateConf("key", "v"), 1);
    EXPECT_EQ(read_file(conf_file),
              "a;1;7\nb;2;-3\nc;3;0\nd;4;12\ne;5;1\nf;6;0\nkey;v;1\n");  // 63 characters of a flag count
}

TEST_F(wlc_conf, the_passes_for_one_key_need_a_file_that_can_be_written) {
    char value[512] = "untouched";
    write_file(conf_file, "device_id;D1;1\n");
    ASSERT_EQ(mount(conf_file, conf_file, "none", MS_BIND, nullptr), 0) << strerror(errno);
    ASSERT_EQ(mount("none", conf_file, "none", MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0) << strerror(errno);
    {
        log_capture log;
        EXPECT_EQ(wlcSecTunUpdateConf("device_id", "D2"), 0);
        EXPECT_EQ(wlcSecTunReadConf("device_id", value), 0);
        EXPECT_TRUE(log.has(
            "ERROR", source, update_one,
            "wlcSecTunUpdateConf - File open failed, returning, file:/storage/application/wlc/wlc-sec-tun.conf"));
        EXPECT_TRUE(
            log.has("ERROR", source, read_one,
                    "wlcSecTunReadConf - File open failed, returning, file:/storage/application/wlc/wlc-sec-tun.conf"));
        EXPECT_EQ(wlcSecTunReadAllConf(), 1);  // opens it for reading; only the rename fails
        EXPECT_TRUE(
            log.has("ERROR", source, read_all,
                    "wlcSecTunReadAllConf() - Error [Device or resource busy] while Renaming file "
                    "/storage/application/wlc/wlc-sec-tun-temp.conf to /storage/application/wlc/wlc-sec-tun.conf"));
    }
    EXPECT_EQ(umount(conf_file), 0);
    EXPECT_STREQ(value, "untouched");
    EXPECT_STREQ(tlscWlcGetDeviceId(), "D1");
}

TEST_F(wlc_conf, update_of_a_missing_key_appends_it) {
    write_file(conf_file, "# dropped\ndevice_id;D1;0\n");
    log_capture log;
    EXPECT_EQ(wlcSecTunUpdateConf("server_port", "8443"), 1);
    EXPECT_EQ(read_file(conf_file), "device_id;D1;0\nserver_port;8443;1\n");
    EXPECT_TRUE(log.has("DEBUG", source, update_one, "continue 1"));
    EXPECT_TRUE(
        log.has("DEBUG", source, update_one, "wlcSecTunUpdateConf() - new entry added for key:server_port, data:8443"));
}

TEST_F(wlc_conf, update_takes_every_entry_whose_key_begins_with_the_given_one) {
    write_file(conf_file, "server_ip_address;1.1.1.1;0\nserver_port;443;0\nserver_ip;x;0\n");
    EXPECT_EQ(wlcSecTunUpdateConf("server_ip", "2.2.2.2"), 1);
    EXPECT_EQ(read_file(conf_file), "server_ip;2.2.2.2;1\nserver_port;443;0\nserver_ip;2.2.2.2;1\n");
}

TEST_F(wlc_conf, update_and_read_of_one_key_report_files_that_do_not_open) {
    char        value[512] = "untouched";
    log_capture log;
    EXPECT_EQ(wlcSecTunUpdateConf("device_id", "D1"), 0);
    EXPECT_EQ(wlcSecTunReadConf("device_id", value), 0);
    EXPECT_TRUE(
        log.has("ERROR", source, update_one,
                "wlcSecTunUpdateConf - File open failed, returning, file:/storage/application/wlc/wlc-sec-tun.conf"));
    EXPECT_TRUE(
        log.has("ERROR", source, read_one,
                "wlcSecTunReadConf - File open failed, returning, file:/storage/application/wlc/wlc-sec-tun.conf"));

    write_file(conf_file, "device_id;D0;0\n");
    ASSERT_EQ(mkdir(temp_conf_file, 0700), 0);
    EXPECT_EQ(wlcSecTunUpdateConf("device_id", "D1"), 0);
    EXPECT_EQ(wlcSecTunReadConf("device_id", value), 0);
    EXPECT_TRUE(log.has(
        "ERROR", source, update_one,
        "wlcSecTunUpdateConf - Temp File open failed to read, returning, filename:/storage/application/wlc/wlc-sec-tun-temp.conf"));
    EXPECT_TRUE(log.has(
        "ERROR", source, read_one,
        "wlcSecTunReadConf - Temp File open failed to read, returning, filename:/storage/application/wlc/wlc-sec-tun-temp.conf"));
    EXPECT_STREQ(value, "untouched");
    EXPECT_EQ(read_file(conf_file), "device_id;D0;0\n");
}

TEST_F(wlc_conf, update_and_read_of_one_key_log_a_failed_rename) {
    char value[512];
    write_file(conf_file, "device_id;D0;0\n");
    on_sleep = [] { unlink(temp_conf_file); };
    log_capture log;
    EXPECT_EQ(wlcSecTunUpdateConf("device_id", "D1"), 1);
    EXPECT_EQ(wlcSecTunReadConf("device_id", value), 1);
    const std::string rest =
        "() - Error [No such file or directory] while Renaming file "
        "/storage/application/wlc/wlc-sec-tun-temp.conf to /storage/application/wlc/wlc-sec-tun.conf";
    EXPECT_TRUE(log.has("ERROR", source, update_one, update_one + rest));
    EXPECT_TRUE(log.has("ERROR", source, read_one, read_one + rest));
    EXPECT_EQ(read_file(conf_file), "device_id;D0;0\n");
}

TEST_F(wlc_conf, read_of_one_key_returns_its_value_and_marks_it_as_consumed) {
    char value[512];
    write_file(conf_file, "device_id;D1;1\n# a comment\nserver_port;443;1\n");
    log_capture log;
    EXPECT_EQ(wlcSecTunReadConf("server_port", value), 1);
    EXPECT_STREQ(value, "443");
    EXPECT_EQ(read_file(conf_file), "device_id;D1;1\nserver_port;443;0\n");
    EXPECT_TRUE(log.has("DEBUG", source, read_one,
                        "wlcSecTunReadConf() - Updating the Secure tunnel conf file, for the key:server_port, data:"));
    EXPECT_TRUE(log.has("DEBUG", source, read_one, "Config line read:device_id;D1;1\n"));
    EXPECT_EQ(log.count("DEBUG", source, read_one, "continue 1"), 1u);
    EXPECT_EQ(sleeps, std::vector<unsigned>{1});
}

TEST_F(wlc_conf, read_of_one_key_returns_the_last_of_several_matches) {
    char value[512];
    write_file(conf_file, "server_ip_address;1.1.1.1;1\nserver_ip;2.2.2.2;1\n");
    EXPECT_EQ(wlcSecTunReadConf("server_ip", value), 1);
    EXPECT_STREQ(value, "2.2.2.2");
    EXPECT_EQ(read_file(conf_file), "server_ip_address;1.1.1.1;0\nserver_ip;2.2.2.2;0\n");
}

TEST_F(wlc_conf, read_of_one_key_without_a_match_leaves_the_buffer) {
    char value[512] = "untouched";
    write_file(conf_file, "device_id;D1;1\n");
    EXPECT_EQ(wlcSecTunReadConf("server_port", value), 1);
    EXPECT_STREQ(value, "untouched");
    EXPECT_EQ(read_file(conf_file), "device_id;D1;1\n");
}

TEST_F(wlc_conf, read_of_one_key_fits_a_value_of_a_whole_line_into_512_bytes) {
    char              value[512];
    const std::string longest(511 - strlen("k;") - strlen(";1"), 'v');
    write_file(conf_file, "k;" + longest + ";1\n");
    EXPECT_EQ(wlcSecTunReadConf("k", value), 1);
    EXPECT_EQ(value, longest);
}

TEST_F(wlc_conf, update_and_read_of_one_key_refuse_null_arguments) {
    char        value[512];
    log_capture log;
    EXPECT_EQ(wlcSecTunUpdateConf(nullptr, "v"), 0);
    EXPECT_EQ(wlcSecTunUpdateConf("k", nullptr), 0);
    EXPECT_EQ(wlcSecTunReadConf(nullptr, value), 0);
    EXPECT_EQ(wlcSecTunReadConf("k", nullptr), 0);
    EXPECT_EQ(log.count("ERROR", source, update_one, "wlcSecTunUpdateConf() - Input parm NULL"), 2u);
    EXPECT_EQ(log.count("ERROR", source, read_one, "wlcSecTunReadConf() - Input parm NULL"), 2u);
}

// ---- the parameter block --------------------------------------------------------------------------------------------

TEST_F(wlc_conf, clear_keeps_serial_number_and_system_name_only) {
    for (const char *key :
         {"server_ip_address", "management_ip", "inner_ip", "tun_interface_name", "cipher_algo", "psk_identity",
          "psk_key", "log_level", "log_dest", "device_id", "serial_num", "system_name"})
        wlcSecTunProcessConf(key, "set");
    wlcSecTunProcessConf("server_port", "1");
    log_capture log;
    EXPECT_EQ(tlscWlcClearCfgParams(), 1);
    EXPECT_TRUE(
        log.has("DEBUG", source, "tlscWlcClearCfgParams", "tlscWlcClearCfgParams - clearing all config params"));
    for (const char *value :
         {tlscWlcGetServerIpAddress(), tlscWlcGetManagementIp(), tlscWlcGetTunInterfaceName(), tlscWlcGetCipherAlgo(),
          tlscWlcGetPskIdentity(), tlscWlcGetPskKey(), tlscWlcGetDeviceId()})
        EXPECT_STREQ(value, "");
    EXPECT_EQ(tlscWlcGetServerPort(), 0);
    EXPECT_STREQ(tlscWlcGetSerialNum(), "set");
    EXPECT_STREQ(tlscWlcGetSystemName(), "set");
    // Level and destination have no getter; the text that announces them shows both.
    log.clear();
    tlscWlcSetDebugParams();
    EXPECT_EQ(
        log.messages(),
        std::vector<std::string>{
            "tlscWlcSetDebugParams() - On TLS Client, setting TLSC debug parameters message, level:, destination:"});
}

TEST_F(wlc_conf, defaults_of_the_configuration_record_leave_the_block_alone) {
    wlcSecTunProcessConf("device_id", "D1");
    wlcSecTunProcessConf("server_port", "8443");
    tlsc_config conf;
    log_capture log;
    tlsc_set_config_defaults(&conf);
    EXPECT_STREQ(tlscWlcGetDeviceId(), "D1");
    EXPECT_EQ(tlscWlcGetServerPort(), 8443);
}

// ---- the secret -----------------------------------------------------------------------------------------------------

TEST_F(wlc_conf, key_text_is_never_printed) {
    const std::string long_key(600, 'h');
    for (const int flags : {0, 1}) {
        tlscWlcSetBootupDbgFlags(flags);
        log_capture log(LOG_BUF_PRINT);
        char        value[512];
        const auto  fresh_file = [&] {
            write_file(conf_file,
                        "# psk_key;hush-comment;0\npsk_key;hush-file;1\npsk_key;hush-short\npsk_key;hush;hush;0\n"
                         ";psk_key;hush;1\npsk_key;" +
                            long_key + ";1\n");
        };
        fresh_file();
        EXPECT_EQ(wlcSecTunReadAllConf(), 1);
        EXPECT_STREQ(tlscWlcGetPskKey(), "hush");
        EXPECT_TRUE(
            log.contains("wlcSecTunProcessConf() - On TLS Client received key value pair Key:psk_key,value:***"));
        for (const char *key : {"psk_key", "psk", "p", "", "psk_key_x", "device_id"}) {
            fresh_file();
            EXPECT_EQ(wlcSecTunReadConf(key, value), 1);
            fresh_file();
            EXPECT_EQ(wlcSecTunUpdateConf(key, std::string("psk_key").starts_with(key) ? "hush-update" : "D1"), 1);
        }
        for (const char *line : {"# psk_key;***;0\n", "psk_key;***;1\n", "psk_key;***;0\n", ";psk_key;***;1\n"})
            EXPECT_TRUE(log.contains(std::string("Config line read:") + line)) << line;
        EXPECT_TRUE(log.contains("wlcSecTunUpdateConf() - entry updated for key:psk, data:***"));
        EXPECT_TRUE(log.contains("wlcSecTunUpdateConf() - entry updated for key:device_id, data:D1") ||
                    log.contains("wlcSecTunUpdateConf() - new entry added for key:device_id, data:D1"));
        EXPECT_FALSE(log.contains("hush"));
        EXPECT_FALSE(log.contains("hhhh"));
    }
}

TEST_F(wlc_conf, key_text_behind_a_name_split_by_the_piece_of_a_long_line_is_neither_printed_nor_kept) {
    char value[512] = "";
    for (size_t before = 1; before < strlen("psk_key"); ++before)
        for (const char *front : {"", "#", "k;v;1;"}) {
            std::string line(front);
            line += std::string(511 - before - line.size(), 'x') + "psk_key;hush;1;hush";
            log_capture log(LOG_BUF_PRINT);
            for (int pass = 0; pass < 6; ++pass) {
                write_file(conf_file, line + (pass < 3 ? "\n" : ";psk_key;2\n") + "device_id;D1;0\n");
                EXPECT_EQ(pass % 3 == 0   ? wlcSecTunReadAllConf()
                          : pass % 3 == 1 ? wlcSecTunReadConf("none", value)
                                          : wlcSecTunUpdateConf("device_id", "D1"),
                          1);
                const std::string kept = read_file(conf_file);
                EXPECT_EQ(kept.find("hush"), std::string::npos) << kept;
                EXPECT_NE(kept.find("device_id;D1;"), std::string::npos) << kept;
            }
            EXPECT_FALSE(log.contains("hush"));
            EXPECT_TRUE(log.contains("Config line read:***"));
        }
}

TEST_F(wlc_conf, key_text_behind_a_name_inside_the_rest_of_a_long_line_is_neither_printed_nor_kept) {
    char value[512] = "";
    for (const char *front : {"x", "x;", "k;", "k;v;1;", "psk_ke"})
        for (size_t length : {511, 1022}) {
            const std::string line = std::string(length, 'x') + front + "psk_key;hush;hush\n";
            log_capture       log(LOG_BUF_PRINT);
            for (int pass = 0; pass < 3; ++pass) {
                write_file(conf_file, line + "device_id;D1;0\n");
                EXPECT_EQ(pass == 0   ? wlcSecTunReadAllConf()
                          : pass == 1 ? wlcSecTunReadConf("none", value)
                                      : wlcSecTunUpdateConf("device_id", "D1"),
                          1);
                EXPECT_EQ(read_file(conf_file), pass == 2 ? "device_id;D1;1\n" : "device_id;D1;0\n");
            }
            EXPECT_FALSE(log.contains("hush")) << front << length;
            EXPECT_TRUE(log.contains("Config line read:***"));
        }
}

TEST_F(wlc_conf, of_a_long_line_that_names_the_key_behind_other_fields_nothing_behind_the_name_is_printed) {
    char        value[512] = "";
    log_capture log(LOG_BUF_PRINT);
    write_file(conf_file, "k;v;1;psk_key;" + std::string(600, 'h') + ";1\ndevice_id;D1;0\n");
    EXPECT_EQ(wlcSecTunReadConf("none", value), 1);
    EXPECT_TRUE(log.has("DEBUG", source, read_one, "Config line read:k;v;1;psk_key;***"));
    EXPECT_TRUE(log.has("DEBUG", source, read_one, "Config line read:***"));
    EXPECT_FALSE(log.contains("hhhh"));
    EXPECT_EQ(read_file(conf_file), "k;v;1\ndevice_id;D1;0\n");
}

TEST_F(wlc_conf, what_goes_on_from_a_long_line_without_the_key_is_a_line_as_any_other) {
    write_file(conf_file, std::string(511, 'x') + "device_id;D1;1\npsk_key_x;seen;1\n");
    EXPECT_EQ(wlcSecTunReadAllConf(), 1);
    EXPECT_EQ(read_file(conf_file), "device_id;D1;0\npsk_key_x;seen;0\n");
}

TEST_F(wlc_conf, only_the_one_key_hides_its_value_and_the_fields_beside_it_stay) {
    char              value[512] = "";
    const std::string others =
        "my_psk_key;seen1;1\npsk_key_x;seen2;1\n psk_key;seen3;1\nk;psk_key;1\n#about psk_key;x;1\n";
    write_file(conf_file, "psk_key;hush;1\n" + others);
    log_capture log(LOG_BUF_PRINT);
    EXPECT_EQ(wlcSecTunReadConf("none", value), 1);
    EXPECT_TRUE(log.has("DEBUG", source, read_one, "Config line read:psk_key;***;1\n"));
    for (const char *line :
         {"my_psk_key;seen1;1\n", "psk_key_x;seen2;1\n", " psk_key;seen3;1\n", "k;psk_key;1\n", "#about psk_key;x;1\n"})
        EXPECT_TRUE(log.has("DEBUG", source, read_one, std::string("Config line read:") + line)) << line;
    EXPECT_EQ(wlcSecTunReadAllConf(), 1);
    for (const char *shown : {"Key:psk_key,value:***", "Key:my_psk_key,value:seen1", "Key:psk_key_x,value:seen2",
                              "Key: psk_key,value:seen3"})
        EXPECT_TRUE(log.has("DEBUG", source, process_one,
                            std::string("wlcSecTunProcessConf() - On TLS Client received key value pair ") + shown))
            << shown;
    EXPECT_TRUE(log.has("DEBUG", source, process_one, "Got invalid keystr:my_psk_key value:seen1"));
    EXPECT_FALSE(log.contains("hush"));
}

TEST_F(wlc_conf, identity_and_other_values_are_printed) {
    write_file(conf_file, "psk_identity;me;1\n");
    log_capture log;
    EXPECT_EQ(wlcSecTunReadAllConf(), 1);
    EXPECT_TRUE(log.has("DEBUG", source, process_one,
                        "wlcSecTunProcessConf() - On TLS Client received key value pair Key:psk_identity,value:me"));
}

// ---- the plain path -------------------------------------------------------------------------------------------------

TEST_F(wlc_conf, lines_follow_the_two_transport_flags) {
    write_file(conf_file, "device_id;D1;1\n");
    tlscWlcIpcEventDbg = 1;
    log_capture log(LOG_ERRORS);
    EXPECT_EQ(wlcSecTunReadAllConf(), 1);
    EXPECT_EQ(log.count_plain("EVENT", plain_path,
                              "wlcSecTunReadAllConf - TLS Client process, reading all the configuration"),
              1u);
    unlink(conf_file);
    EXPECT_EQ(wlcSecTunReadAllConf(), 0);
    EXPECT_TRUE(
        log.has("ERROR", source, read_all,
                "wlcSecTunReadAllConf - File open failed, returning, file:/storage/application/wlc/wlc-sec-tun.conf"));
    log.clear();
    tlscWlcIpcEventDbg = 0;
    tlscWlcIpcErrDbg   = 1;
    EXPECT_EQ(wlcSecTunReadAllConf(), 0);
    ASSERT_EQ(log.entries().size(), 1u);
    EXPECT_EQ(log.count_plain(
                  "ERROR", plain_path,
                  "wlcSecTunReadAllConf - File open failed, returning, file:/storage/application/wlc/wlc-sec-tun.conf"),
              1u);
}
