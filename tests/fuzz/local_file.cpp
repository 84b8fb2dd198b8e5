// The local configuration file. The key reaches its buffer and nothing else.
// Input: settings, then pieces of the file.
#include "tlsc_openssl.h"

#include "kernel.h"
#include "tlsc_config.h"
#include "tlsc_debug.h"

using namespace kernel;

namespace {

constexpr char    path[] = "tls_client_config.txt";
const std::string secret = "Zq7#kPw2vXn9!Rt4mJc6@Ls8yHd3&Bg5";

constexpr const char *lines[] = {
    "server_ip_address=192.0.2.1\n",
    "server_port=443\n",
    "management_ip=10.1.0.2\n",
    "tun_interface_name=tlstun0\n",
    "ssl_authentication_mechanism=psk\n",
    "psk_identity=device-1\n",
    "cipher_algo=PSK-AES256-CBC-SHA\n",
    "device_id=dev-0001\n",
    "device_name=router\n",
    "serial_no=SN-4711\n",
    "log_level=3\n",
    "ssl_authentication_mechanism=certificate\n",
    "ssl_certificate=/dev/null\n",
    "ssl_private_key=/dev/null\n",
    "ssl_rootca_bundle=/dev/null\n",
    "ssl_crl=/dev/null\n",
};
constexpr const char *names[] = {"server_ip_address",
                                 "server_port",
                                 "management_ip",
                                 "tun_interface_name",
                                 "ssl_authentication_mechanism",
                                 "ssl_certificate",
                                 "psk_identity",
                                 "cipher_algo",
                                 "device_id",
                                 "device_name",
                                 "serial_no",
                                 "log_level",
                                 "="};

std::string harmless(std::string_view bytes) {
    std::string text(bytes);
    for (char &c : text)
        if (secret.find(c) != std::string::npos) c = '-';
    return text;
}

void add_piece(std::string &text, fuzz_input &in) {
    switch (in.below(6)) {
    case 0: {
        if (!text.empty() && text.back() != '\n') text += '\n';
        text += "psk_key=" + secret;
        for (size_t more = in.below(24); more > 0; --more) text += secret;
        if (in.chance(240)) text += '\n';
        break;
    }
    case 1:
        text += std::string(names[in.below(std::size(names))]) + "=" + harmless(in.bytes(in.below(120))) + "\n";
        break;
    case 2: text += harmless(in.bytes(in.below(600))); break;
    case 3: text.append(in.below(600), 'y'); break;
    default: text += lines[in.below(std::size(lines))]; break;
    }
}

template <size_t n>
void check_text(const char (&text)[n], bool is_harmless = true) {
    const size_t length = strnlen(text, n);
    MUST(length < n);
    if (is_harmless) MUST(!shows(text, secret));
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    fuzz_input in(bytes, size);
    begin_process(in);
    tlsc_log_level         = LOG_DEBUG;
    const uint8_t settings = in.byte();

    std::string text;
    if (settings & 1) {  // all of what must be there, so that the rest changes something
        for (const char *line : lines) {
            if (strstr(line, "=certificate")) break;
            text += line;
        }
        text += "psk_key=" + secret + "\n";
    }
    while (!in.empty() && text.size() < 6000) add_piece(text, in);
    FILE *file = fopen(path, "w");
    MUST(file != nullptr && fwrite(text.data(), 1, text.size(), file) == text.size());
    (void)fclose(file);

    memset(psk_key, 0, sizeof(psk_key));
    tlsc_config   conf{};
    const int32_t result = tlsc_read_config_file(&conf);
    MUST(result == 0 || result == 1);
    MUST(!shows(world.log, secret));
    check_text(conf.svr_addr_ipv4);
    check_text(conf.management_ip);
    check_text(conf.tun_interface_name);
    check_text(conf.cipher_algo);
    check_text(conf.device_id);
    check_text(conf.device_name);
    check_text(conf.serial_no);
    check_text(conf.ssl_certificate);
    check_text(conf.ssl_private_key);
    check_text(conf.ssl_rootca_bundle);
    check_text(conf.ssl_crl);
    check_text(psk_identity);
    check_text(psk_key, false);
    return 0;
}
