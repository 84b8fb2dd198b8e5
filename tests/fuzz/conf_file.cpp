// The controller's file. The key may stand in the file's own entry for it and nowhere else: not in the log, not in any
// other line of what is written back.
// Input: settings, then pieces of the file: a choice, a length, bytes; or the key's line, whole, over-long or behind an
// over-long beginning.
#include "tlsc_openssl.h"

#include "conf_text.h"
#include "kernel.h"
#include "tlsc_config.h"
#include "tlsc_debug.h"
#include "tlsc_wlc.h"

using namespace kernel;

namespace {

constexpr char conf_path[] = "/storage/application/wlc/wlc-sec-tun.conf";
constexpr char temp_path[] = "/storage/application/wlc/wlc-sec-tun-temp.conf";

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

    const std::string text = conf_text(in);
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
