#include "gateway_harness.h"

using namespace gw;
using namespace gwtest;

namespace {

// What is wrong with these words, "" for nothing.
std::string complaint(std::vector<std::string> words) {
    words.insert(words.begin(), {"--psk-file", "unread"});
    try {
        (void)options_from(words);
        return "";
    } catch (const usage_error &error) {
        EXPECT_EQ(std::string(error.what()).find('\n'), std::string::npos);
        return error.what();
    }
}

std::string psk_complaint(const std::string &text) {
    temp_dir dir;
    try {
        (void)read_psk_file(dir.write("psk", text));
        return "";
    } catch (const usage_error &error) {
        EXPECT_EQ(std::string(error.what()).find("secret"), std::string::npos) << "a key is shown";
        return std::string(error.what()).substr(dir.file("psk").size());
    }
}

}  // namespace

TEST(gateway_options, defaults_are_those_of_the_document) {
    gateway_options options = options_from({"--psk-file", "x"});
    EXPECT_EQ(options.listen_address, 0u);
    EXPECT_EQ(options.listen_port, 443);
    EXPECT_EQ(options.tun, "tlsgw0");
    EXPECT_EQ(cidr_text(options.tun_address), "10.9.0.1/24");
    EXPECT_EQ(options.prefix, "10.9.0.0");
    EXPECT_EQ(options.prefix_length, "24");
    EXPECT_EQ(options.dpd, "10");
    EXPECT_EQ(options.retry, "20");
    EXPECT_EQ(options.rekey, "3600");
    EXPECT_TRUE(options.cookie_auto);
    EXPECT_EQ(options.queue, 1024u);
    EXPECT_EQ(options.max_clients, 256u);
    EXPECT_EQ(options.mtu, 1406u);
}

TEST(gateway_options, a_key_file_that_others_can_read_is_refused_with_the_reason) {
    temp_dir    dir;
    std::string path = dir.write("psk", "dev:secret\n");
    EXPECT_EQ(read_psk_file(path).size(), 1u);
    for (unsigned mode : {0644u, 0604u, 0602u, 0620u}) {
        std::filesystem::permissions(path, std::filesystem::perms(mode));
        try {
            (void)read_psk_file(path);
            FAIL() << "took it";
        } catch (const usage_error &error) {
            char expected[200];
            snprintf(expected, sizeof expected, "the PSK file %s is open to others (mode %04o): chmod 600 %s",
                     path.c_str(), mode, path.c_str());
            EXPECT_STREQ(error.what(), expected);
        }
    }
    std::filesystem::permissions(path, std::filesystem::perms(0640));
    EXPECT_EQ(read_psk_file(path).size(), 1u);
}

TEST(gateway_options, version_is_that_of_the_project) {
    const char *const words[] = {"tlsc-gateway", "--version"};
    testing::internal::CaptureStdout();
    EXPECT_FALSE(parse_options(2, words).has_value());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "tlsc-gateway " TLSC_GATEWAY_VERSION "\n");
}

TEST(gateway_options, a_dpd_below_5_needs_allow_fatal) {
    EXPECT_EQ(complaint({"--dpd", "5"}), "");
    EXPECT_NE(complaint({"--dpd", "4"}), "");
    EXPECT_EQ(complaint({"--dpd", "4", "--allow-fatal"}), "");
    EXPECT_EQ(complaint({"--dpd", "omit"}), "");
    EXPECT_NE(complaint({"--dpd", "ten"}), "");
    EXPECT_NE(complaint({"--dpd", "-1"}), "");
}

TEST(gateway_options, headers_can_be_omitted_and_dns_repeated) {
    gateway_options options = options_from(
        {"--psk-file", "x", "--rekey", "omit", "--prefix", "omit", "--dns", "1.1.1.1", "--dns", "2.2.2.2"});
    EXPECT_FALSE(options.rekey);
    EXPECT_FALSE(options.prefix);
    EXPECT_EQ(options.dns, (std::vector<std::string>{"1.1.1.1", "2.2.2.2"}));
}

TEST(gateway_options, pool_is_a_network_or_a_range) {
    gateway_options network = options_from({"--psk-file", "x", "--pool", "10.8.0.0/16"});
    EXPECT_EQ(ipv4_text(network.pool.first), "10.8.0.1");
    EXPECT_EQ(ipv4_text(network.pool.last), "10.8.255.254");
    EXPECT_EQ(network.prefix, "10.8.0.0");
    gateway_options range = options_from({"--psk-file", "x", "--pool", "10.9.0.10-10.9.0.20"});
    EXPECT_EQ(ipv4_text(range.pool.last), "10.9.0.20");
    EXPECT_NE(complaint({"--pool", "10.9.0.20-10.9.0.10"}), "");
    EXPECT_NE(complaint({"--pool", "10.9.0.1-10.9.0.1"}), "");
    EXPECT_NE(complaint({"--pool", "ten"}), "");
}

TEST(gateway_options, wrong_words_are_complained_of) {
    EXPECT_NE(complaint({"--bogus"}), "");
    EXPECT_NE(complaint({"stray"}), "");
    EXPECT_NE(complaint({"--listen", "443"}), "");
    EXPECT_NE(complaint({"--listen", "1.2.3.4:65536"}), "");
    EXPECT_NE(complaint({"--dns", "dns.example"}), "");
    EXPECT_NE(complaint({"--cookie", "12345678901"}), "");
    EXPECT_EQ(complaint({"--cookie", "1234567890"}), "");
    EXPECT_NE(complaint({"--tun-addr", "10.9.0.1"}), "");
    EXPECT_NE(complaint({"--tun", "a/b"}), "");
    EXPECT_NE(complaint({"--tun", "sixteen_letters_"}), "");
    EXPECT_NE(complaint({"--mtu", "1437"}), "");
    EXPECT_EQ(complaint({"--mtu", "1436"}), "");
    EXPECT_NE(complaint({"--log-level", "loud"}), "");
    EXPECT_NE(complaint({"--cert", "c"}), "");
    EXPECT_NE(complaint({"--crl", "c"}), "");
    EXPECT_NE(complaint({"--prefix-length", "33"}), "");
}

TEST(gateway_options, psk_file_gives_identities_and_key_characters) {
    temp_dir dir;
    auto     table = read_psk_file(dir.write("psk", "# comment\n\none:abcd1234\ntwo:with: colon and blank \r\n"));
    EXPECT_EQ(table.size(), 2u);
    EXPECT_EQ(table["one"], "abcd1234");
    EXPECT_EQ(table["two"], "with: colon and blank ");
}

TEST(gateway_options, errors_of_a_psk_file_name_the_line_and_not_the_key) {
    EXPECT_EQ(psk_complaint("a:secret\nsecret2\n"), ":2: no colon between identity and key");
    EXPECT_EQ(psk_complaint(":secret\n"), ":1: empty identity");
    EXPECT_EQ(psk_complaint("\na:\n"), ":2: empty key");
    EXPECT_EQ(psk_complaint("a:secret\na:secret\n"), ":2: identity 'a' appears twice");
    EXPECT_EQ(psk_complaint("a:" + std::string(256, 'k')), "");
    EXPECT_EQ(psk_complaint("a:" + std::string(257, 'k')), ":1: key of more than 256 characters");
    EXPECT_EQ(psk_complaint(std::string(129, 'i') + ":secret"), ":1: identity of more than 128 characters");
    EXPECT_THROW((void)read_psk_file("/nonexistent/psk"), usage_error);
}

TEST(gateway_options, an_empty_psk_file_is_refused) {
    temp_dir dir;
    EXPECT_THROW((void)read_psk_file(dir.write("psk", "# nothing\n")), usage_error);
}

TEST(gateway_options, unusable_tls_files_and_lists_are_complained_of) {
    temp_dir    dir;
    std::string psk  = dir.write("psk", "a:b\n");
    std::string junk = dir.write("junk", "junk\n");
    EXPECT_NO_THROW(tls_context({.psk_file = psk}));
    EXPECT_THROW(tls_context({.psk_file = psk, .ciphers = "nonsense"}), usage_error);
    EXPECT_THROW(tls_context({.psk_file = dir.file("none")}), usage_error);
    EXPECT_THROW(tls_context({.cert = junk, .key = junk}), usage_error);
    EXPECT_THROW(tls_context({.psk_file = psk, .keylog = "/nonexistent/keys"}), usage_error);
}
