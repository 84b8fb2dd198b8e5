// The TLS trace: whatever OpenSSL may hand to its two callbacks.
// Input: settings, then calls.
#include <vector>

#include "tlsc_openssl.h"

#include "kernel.h"
#include "tlsc_config.h"
#include "tlsc_debug.h"
#include "tlsc_engine.h"

using namespace kernel;

namespace {

constexpr int versions[] = {0x0002, 0x0300, 0x0301, 0x0302, 0x0303, 0x0304, 0xfeff, 0x0100, 0};
constexpr int types[]    = {0, 20, 21, 22, 23, 24, 256, 257};
constexpr int places[]   = {SSL_CB_LOOP,           SSL_CB_EXIT,    SSL_CB_READ,
                            SSL_CB_WRITE,          SSL_CB_ALERT,   SSL_CB_HANDSHAKE_START,
                            SSL_CB_HANDSHAKE_DONE, SSL_ST_CONNECT, SSL_ST_ACCEPT};

SSL *ssl;

void one_message(fuzz_input &in) {
    const uint8_t              odd     = in.byte();
    const int                  version = odd & 1 ? in.fill<int>() : versions[in.below(std::size(versions))];
    const int                  type    = odd & 2 ? in.fill<int>() : types[in.below(std::size(types))];
    const std::string_view     content = in.bytes(in.below(odd & 4 ? 600 : 8));
    const std::vector<uint8_t> copy(content.begin(), content.end());  // a look behind it is noticed
    tlsc_ssl_msg_cb(odd >> 7, version, type, copy.data(), copy.size(), odd & 8 ? ssl : nullptr, nullptr);
}

void one_info(fuzz_input &in) {
    int       where = 0;
    const int count = in.byte() & 3;
    for (int i = 0; i <= count; ++i) where |= places[in.below(std::size(places))];
    if (in.chance(32)) where = in.fill<int>();
    world.ssl_error = static_cast<int>(in.below(9));
    tlsc_ssl_info_cb(ssl, where, in.chance(128) ? static_cast<int>(in.byte()) - 1 : in.fill<int>());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    start_process();
    ssl = SSL_new(tlsc_ssl_ctx);
    MUST(ssl != nullptr);
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    fuzz_input in(bytes, size);
    begin(&in);
    reset_process();
    tlsc_log_level = LOG_ERRORS + static_cast<int32_t>(in.below(6));
    tlsc_log_dest  = LOG_DEST_FILE;
    for (unsigned i = 0; i < 64 && !in.empty(); ++i) {
        if (in.chance(160)) one_message(in);
        else one_info(in);
    }
    return 0;
}
