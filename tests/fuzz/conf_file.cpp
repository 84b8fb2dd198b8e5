// The controller's file. The key may stand in the file's own entry for it and nowhere else: not in the log, not in any
// other line of what is written back.
// Input: settings, then pieces of the file: a choice, a length, bytes; or the key's line, whole, over-long or behind an
// over-long beginning.
#include <fstream>
#include <iterator>

#include "tlsc_openssl.h"

#include "kernel.h"
#include "tlsc_config.h"
#include "tlsc_debug.h"
#include "tlsc_wlc.h"

using namespace kernel;

namespace {

constexpr char     conf_path[] = "/storage/application/wlc/wlc-sec-tun.conf";
constexpr char     temp_path[] = "/storage/application/wlc/wlc-sec-tun-temp.conf";
const std::string  secret      = "Zq7#kPw2vXn9!Rt4mJc6@Ls8yHd3&Bg5";  // no piece of it can come from the input below
constexpr uint32_t piece_size  = 511;

constexpr const char *keys[] = {"server_ip_address",  "server_port",  "inner_ip",  "management_ip", "cipher_algo",
                                "tun_interface_name", "psk_identity", "log_level", "log_dest",      "device_id",
                                "serial_num",         "system_name",  "psk",       "psk_key_other", "server_ip"};

// Of the input only characters that the secret does not consist of, so that what is found is the key itself.
std::string harmless(std::string_view bytes) {
    std::string text(bytes);
    for (char &c : text)
        if (secret.find(c) != std::string::npos) c = '-';
    return text;
}

std::string key_text(fuzz_input &in) {
    std::string key = secret;
    for (size_t more = in.below(40); more > 0; --more) key += secret;
    return key;
}

std::string key_line(fuzz_input &in) {
    std::string line;
    if (in.chance(96))
        line.assign(piece_size - 6 + in.below(7), 'x');  // the word itself is cut apart, or begins a piece
    return line + "psk_key;" + key_text(in) + (in.chance(200) ? ";1\n" : "\n");
}

std::string file_text(fuzz_input &in) {
    std::string text;
    while (!in.empty() && text.size() < 6000) {
        switch (in.below(6)) {
        case 0:
        case 1:
            if (!text.empty() && text.back() != '\n') text += '\n';
            text += key_line(in);
            break;
        case 2:
            text += std::string(keys[in.below(std::size(keys))]) + ";" + harmless(in.bytes(in.below(100))) + ";1\n";
            break;
        case 3: text += harmless(in.bytes(in.below(600))); break;
        case 4: text.append(in.below(600), 'y'); break;
        default: text += "\n"; break;
        }
    }
    return text;
}

void write_file(const char *path, const std::string &text) {
    FILE *file = fopen(path, "w");
    MUST(file != nullptr);
    MUST(fwrite(text.data(), 1, text.size(), file) == text.size());
    (void)fclose(file);
}

std::string read_file(const char *path) {
    std::string text;
    FILE       *file = fopen(path, "r");
    if (!file) return text;
    char   buffer[8192];
    size_t got;
    while ((got = fread(buffer, 1, sizeof(buffer), file)) > 0) text.append(buffer, got);
    (void)fclose(file);
    return text;
}

// Only a line of the key's own entry may hold it.
void check_written(const std::string &text) {
    size_t at = 0;
    while (at < text.size()) {
        const size_t      end  = std::min(text.find('\n', at), text.size());
        const std::string line = text.substr(at, end - at);
        if (line.compare(0, 8, "psk_key;") != 0) MUST(!shows(line, secret));
        at = end + 1;
    }
}

}  // namespace

extern "C" {

// What goes to the console instead of the log.
__attribute__((format(printf, 1, 0))) int __wrap_vprintf(const char *format, va_list arguments) {
    char      text[8192];
    const int length = vsnprintf(text, sizeof(text), format, arguments);
    world.log += text;
    return length;
}
}

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    fuzz_input in(bytes, size);
    begin_process(in);
    const uint8_t settings = in.byte();
    tlsc_log_level         = settings & 4 ? LOG_BUF_PRINT : LOG_DEBUG;
    const bool to_console  = (settings & 0x30) == 0x30;
    tlscWlcMsgEventDbg = tlscWlcIpcEventDbg = tlscWlcIpcErrDbg = to_console;

    const std::string text = file_text(in);
    write_file(conf_path, text);
    (void)remove(temp_path);
    begin(nullptr);

    (void)tlscWlcClearCfgParams();
    std::string value(512, '\x7f');
    switch (settings & 3) {
    case 0:
    case 1: MUST(wlcSecTunReadAllConf() == 1); break;
    case 2: MUST(wlcSecTunUpdateConf("device_id", "4711") == 1); break;
    default: MUST(wlcSecTunReadConf("management_ip", value.data()) == 1); break;
    }

    MUST(!shows(world.log, secret));
    const std::string written = read_file(conf_path);
    check_written(written);
    if (settings & 8) {  // a second pass finds nothing to change but the flags
        MUST(wlcSecTunReadAllConf() == 1);
        const std::string once = read_file(conf_path);
        MUST(wlcSecTunReadAllConf() == 1);
        MUST(read_file(conf_path) == once);
        MUST(!shows(world.log, secret));
        check_written(once);
    }
    tlscWlcMsgEventDbg = tlscWlcIpcEventDbg = tlscWlcIpcErrDbg = 0;
    return 0;
}
