// A table of configuration files with their exact findings: "LINE:CODE", in the order in which they are told.
#include "lint.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <fstream>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

using namespace wlcctl;

namespace {

constexpr const char *the_key = "0f1e2d3c4b5a69788796a5b4c3d2e1f0";

// The lines of a file that nothing can be said against, by number from 1.
const std::vector<std::string> good_lines = {"server_ip_address;192.0.2.1;1",
                                             "server_port;443;1",
                                             "management_ip;10.1.0.2;1",
                                             "tun_interface_name;tun0;1",
                                             "cipher_algo;PSK-AES256-CBC-SHA;1",
                                             "psk_identity;device-1;1",
                                             std::string("psk_key;") + the_key + ";1",
                                             "device_id;dev-1;1"};

// The good file with some lines changed; an empty text takes the line away.
std::string with(const std::vector<std::pair<size_t, std::string>> &changes, const std::string &more = "") {
    std::vector<std::string> lines = good_lines;
    for (const auto &[number, text] : changes) lines[number - 1] = text;
    std::string content;
    for (const std::string &line : lines)
        if (!line.empty()) content += line + "\n";
    return content + more;
}

std::string codes_of(const std::vector<finding> &findings) {
    std::string all;
    for (const finding &f : findings) all += (all.empty() ? "" : " ") + std::to_string(f.line) + ":" + f.code;
    return all;
}

struct lint_case {
    const char *name;
    std::string content;
    const char *expected;
};

const std::string long_text(600, 'x');

const lint_case cases[] = {
    {"a good file", with({}), ""},
    {"a good file that was read",
     [] {
         std::string content = with({});
         for (size_t at = 0; (at = content.find(";1\n", at)) != std::string::npos; at++) content[at + 1] = '0';
         return content;
     }(),
     ""},
    {"the last line has no end", with({}).substr(0, with({}).size() - 1), ""},
    {"an empty file", "",
     "0:file-empty 0:key-missing 0:key-missing 0:key-missing 0:key-missing 0:key-missing 0:key-missing "
     "0:key-missing 0:key-missing"},
    {"line ends only", "\n\n\n",
     "0:file-empty 0:key-missing 0:key-missing 0:key-missing 0:key-missing 0:key-missing "
     "0:key-missing 0:key-missing 0:key-missing"},
    {"a NUL byte", with({}) + std::string("a\0b", 3), "0:file-binary 9:line-short"},
    {"a blank line between", with({}, "\nlog_level;info;1\n"), ""},
    {"a comment", with({}, "# mine\n"), "9:comment"},
    {"a comment with three fields", with({}, "#log_level;info;1\n"), "9:comment"},
    {"a line of blanks", with({}, "   \n"), "9:line-blank"},
    {"a line of separators", with({}, ";;;\n"), "9:line-blank"},
    {"carriage returns", with({{2, "server_port;443;1\r"}}), "2:line-crlf"},
    {"one field", with({}, "log_level\n"), "9:line-short"},
    {"two fields", with({}, "log_level;info\n"), "9:line-short"},
    {"a required key with two fields", with({{8, "device_id;dev-1"}}), "8:line-short 0:key-missing"},
    {"four fields", with({{8, "device_id;dev;1;1"}}), "8:field-extra"},
    {"a key that holds a separator", with({{7, "psk_key;0f1e2d3c4b5a6978;8796a5b4c3d2e1f0;1"}}),
     "7:field-extra 7:flag-invalid"},
    {"an empty value", with({}, "log_level;;1\n"), "9:line-short"},
    {"an empty field before", with({}, ";log_level;info;1\n"), "9:field-empty"},
    {"a flag of 2", with({{8, "device_id;dev-1;2"}}), "8:flag-invalid"},
    {"a flag that is no number", with({{8, "device_id;dev-1;x"}}), "8:flag-invalid"},
    {"a line of 511 characters", with({{8, "device_id;" + std::string(499, 'x') + ";1"}}), "8:value-too-long"},
    {"a line of 512 characters", with({{8, "device_id;" + std::string(500, 'x') + ";1"}}),
     "8:line-too-long 8:value-too-long"},
    {"no address", with({{1, ""}}), "0:key-missing"},
    {"no port", with({{2, ""}}), "0:key-missing"},
    {"no management address", with({{3, ""}}), "0:key-missing"},
    {"no interface", with({{4, ""}}), "0:key-missing"},
    {"no cipher", with({{5, ""}}), "0:key-missing"},
    {"no identity", with({{6, ""}}), "0:key-missing"},
    {"no key", with({{7, ""}}), "0:key-missing"},
    {"no device id", with({{8, ""}}), "0:key-missing"},
    {"a misspelt key", with({{2, "server_prot;443;1"}}), "2:key-misspelt"},
    {"a key in capitals", with({{2, "SERVER_PORT;443;1"}}), "2:key-misspelt"},
    {"a key with dashes", with({{2, "server-port;443;1"}}), "2:key-misspelt"},
    {"a key with a blank before", with({{2, " server_port;443;1"}}), "2:key-misspelt"},
    {"a misspelt psk_key", with({{7, std::string("pskkey;") + the_key + ";1"}}), "7:key-misspelt"},
    {"an unknown key", with({}, "colour;red;1\n"), "9:key-unknown"},
    {"the agent's own key", with({}, "gateway_name;gw.example.net;1\n"), ""},
    {"a doubled key", with({}, "server_port;444;1\n"), "9:key-doubled"},
    {"a tripled key", with({}, "server_port;444;1\nserver_port;445;1\n"), "9:key-doubled 10:key-doubled"},
    {"port 0", with({{2, "server_port;0;1"}}), "2:port-invalid"},
    {"port 1", with({{2, "server_port;1;1"}}), ""},
    {"port 65535", with({{2, "server_port;65535;1"}}), ""},
    {"port 65536", with({{2, "server_port;65536;1"}}), "2:port-invalid"},
    {"a port with a sign", with({{2, "server_port;+443;1"}}), "2:port-invalid"},
    {"a port with a zero before", with({{2, "server_port;0443;1"}}), "2:port-invalid"},
    {"a port by name", with({{2, "server_port;https;1"}}), "2:port-invalid"},
    {"a name for the gateway", with({{1, "server_ip_address;gw.example.net;1"}}), "1:address-name"},
    {"an IPv6 gateway", with({{1, "server_ip_address;2001:db8::1;1"}}), "1:address-ipv6"},
    {"a gateway of zeros", with({{1, "server_ip_address;0.0.0.0;1"}}), "1:address-invalid"},
    {"a gateway with a part too much", with({{1, "server_ip_address;192.0.2.1.1;1"}}), "1:address-invalid"},
    {"a gateway above 255", with({{1, "server_ip_address;192.0.2.256;1"}}), "1:address-invalid"},
    {"a gateway with a blank", with({{1, "server_ip_address; 192.0.2.1;1"}}), "1:value-blank 1:address-invalid"},
    {"a management name", with({{3, "management_ip;device;1"}}), "3:address-invalid"},
    {"an IPv6 management address", with({{3, "management_ip;2001:db8::2;1"}}), "3:address-invalid"},
    {"a management network", with({{3, "management_ip;10.1.0.2/32;1"}}), "3:address-invalid"},
    {"an interface of 15 characters", with({{4, "tun_interface_name;abcdefghijklmno;1"}}), ""},
    {"an interface of 16 characters", with({{4, "tun_interface_name;abcdefghijklmnop;1"}}), "4:value-too-long"},
    {"an interface with a slash", with({{4, "tun_interface_name;tun/0;1"}}), "4:interface-invalid"},
    {"an interface with a command", with({{4, "tun_interface_name;$(reboot);1"}}), "4:interface-invalid"},
    {"an interface with a dash before", with({{4, "tun_interface_name;-tun;1"}}), "4:interface-invalid"},
    {"a cipher that is none", with({{5, "cipher_algo;NO-SUCH-CIPHER;1"}}), "5:cipher-unusable"},
    {"a cipher without key", with({{5, "cipher_algo;AES256-SHA256;1"}}), "5:cipher-without-psk"},
    {"a list of ciphers", with({{5, "cipher_algo;PSK-AES256-CBC-SHA:PSK-AES128-CBC-SHA;1"}}), ""},
    {"a cipher list of 50 characters",
     with({{5, "cipher_algo;PSK-AES256-CBC-SHA:PSK-AES128-CBC-SHA:PSK-AES256-CB1;1"}}), "5:value-too-long"},
    {"an identity of 63 characters", with({{6, "psk_identity;" + std::string(63, 'i') + ";1"}}), ""},
    {"an identity of 64 characters", with({{6, "psk_identity;" + std::string(64, 'i') + ";1"}}), "6:value-too-long"},
    {"an identity with a blank behind", with({{6, "psk_identity;device-1 ;1"}}), "6:value-blank"},
    {"a key of 15 characters", with({{7, "psk_key;abcdefgh1234567;1"}}), "7:key-short"},
    {"a key of 16 characters", with({{7, "psk_key;abcdefgh12345678;1"}}), ""},
    {"a key of 64 characters", with({{7, "psk_key;" + std::string(32, 'a') + std::string(32, 'b') + ";1"}}),
     "7:value-too-long"},
    {"a key that everybody knows", with({{7, "psk_key;changeme;1"}}), "7:key-sample"},
    {"a key of one character again and again", with({{7, "psk_key;aaaaaaaaaaaaaaaaaaaaaaaa;1"}}), "7:key-sample"},
    {"a key with a control character", with({{7, "psk_key;0f1e2d3c4b5a6978\x01;1"}}), "7:value-control"},
    {"a device id of 16 characters", with({{8, "device_id;1234567890123456;1"}}), ""},
    {"a device id of 17 characters", with({{8, "device_id;12345678901234567;1"}}), "8:value-too-long"},
    {"a level that is none", with({}, "log_level;loud;1\n"), "9:log-word"},
    {"a level that begins with a level", with({}, "log_level;informational;1\n"), "9:log-word"},
    {"a destination that is none", with({}, "log_dest;printer;1\n"), "9:log-word"},
    {"an inner address", with({}, "inner_ip;10.9.0.2;1\n"), "9:inner-ip-unused"},
    {"an inner address that is none", with({}, "inner_ip;x;1\n"), "9:address-invalid 9:inner-ip-unused"},
    {"a system name of 51 characters", with({}, "system_name;" + std::string(51, 'n') + ";1\n"), "9:value-too-long"},
    {"a serial number of 17 characters", with({}, "serial_num;12345678901234567;1\n"), "9:value-too-long"},
    {"a colour for a terminal", with({{1, "server_ip_address;\x1b[31m1;1"}}), "1:value-control"},
};

}  // namespace

TEST(controller_lint, each_file_has_exactly_its_findings) {
    static_assert(std::size(cases) >= 60);
    for (const lint_case &each : cases) EXPECT_EQ(codes_of(lint_content(each.content)), each.expected) << each.name;
}

TEST(controller_lint, no_finding_shows_a_key_or_raw_control_characters) {
    for (const lint_case &each : cases)
        for (const finding &f : lint_content(each.content)) {
            std::string all = f.text + f.effect + f.fix;
            EXPECT_EQ(all.find(std::string(the_key).substr(0, 8)), std::string::npos) << each.name;
            EXPECT_EQ(all.find("changeme"), std::string::npos) << each.name;
            EXPECT_EQ(all.find('\x1b'), std::string::npos) << each.name;
            EXPECT_FALSE(f.fix.empty()) << each.name;
        }
    for (const char *line : {"the-secret-of-all;psk_key;1", "psk_kee;the-secret-of-all;1", "psk_key;the-secret-of-all",
                             "the-secret-of-all", "PSK_KEY;the-secret-of-all;1;2", "psk_key,the-secret-of-all,1"})
        for (const finding &f : lint_content(with({{7, line}})))
            EXPECT_EQ((f.text + f.effect + f.fix).find("the-secret"), std::string::npos) << line;
}

TEST(controller_lint, a_huge_and_a_binary_file_end_with_a_bounded_list) {
    std::string many, binary;
    for (int i = 0; i < 5000; i++) many += "nothing\n";
    for (int i = 0; i < 100000; i++) binary += static_cast<char>(i * 7919 >> 3);
    EXPECT_LE(lint_content(many).size(), 220u);
    EXPECT_LE(lint_content(binary).size(), 220u);
}

TEST(controller_lint, the_file_itself_is_judged) {
    char        made[]    = "/tmp/controller_lint_XXXXXX";
    std::string directory = mkdtemp(made), path = directory + "/wlc-sec-tun.conf";
    EXPECT_EQ(codes_of(lint_file(path)), "0:file-missing");
    EXPECT_EQ(codes_of(lint_file(directory)), "0:file-type");
    std::ofstream(path) << with({});
    chmod(path.c_str(), 0644);
    EXPECT_EQ(codes_of(lint_file(path)), "0:file-mode");
    chmod(path.c_str(), 0600);
    EXPECT_EQ(codes_of(lint_file(path)), "");
    std::string temp = directory + "/wlc-sec-tun-temp.conf";
    std::ofstream(temp) << "x;y;0\n";
    EXPECT_EQ(codes_of(lint_file(path)), "") << "the daemon may be at work";
    timeval old[2] = {{1000000000, 0}, {1000000000, 0}};
    utimes(temp.c_str(), old);
    EXPECT_EQ(codes_of(lint_file(path)), "0:leftover-temp");
    std::ofstream(path) << std::string((1 << 20) + 1, '\n');
    EXPECT_EQ(codes_of(lint_file(path)), "0:file-too-large");
}
