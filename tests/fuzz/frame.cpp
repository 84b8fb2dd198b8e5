// The frame reader and the dispatch: whatever one TLS read gives.
// Input: one byte of settings, then records: two bytes of length and the bytes.
#include <arpa/inet.h>

#include "kernel.h"
#include "tlsc_openssl.h"

#include "tlsc_config.h"
#include "tlsc_cstp.h"
#include "tlsc_debug.h"
#include "tlsc_engine.h"
#include "tlsc_platform.h"
#include "tlsc_session.h"
#include "tlsc_timer.h"
#include "tlsc_utils.h"

using namespace kernel;

namespace {

SSL *process_ssl;  // one for all inputs: a session is expensive

uint64_t counter(uint64_t tlsc_stats::*which) { return tlsc_stats_record.*which; }

// What a record says, worked out from its bytes alone: anything that is missing is zero.
struct expected_frame {
    uint8_t     type;
    size_t      length;
    std::string payload;

    explicit expected_frame(std::string record) {
        record.resize(std::max(record.size(), sizeof(tlsc_cstp_header)));
        record.resize(std::min(record.size(), max_read_size));
        type    = static_cast<uint8_t>(record[6]);
        length  = static_cast<size_t>(static_cast<uint8_t>(record[4]) << 8 | static_cast<uint8_t>(record[5]));
        payload = record.substr(sizeof(tlsc_cstp_header), length);
        payload.resize(std::min(length, max_payload_size));
    }
};

void check_data(const expected_frame &frame, int32_t result) {
    if (frame.length > max_packet_size) {
        MUST(result == 0 && world.to_tun.empty());
        return;
    }
    MUST(world.to_tun.size() <= 1);
    if (world.to_tun.empty()) return;  // the write failed, or there is no session
    const std::string &written = world.to_tun[0];
    MUST(written.size() == frame.length);
    const uint8_t first = frame.payload.empty() ? 0 : static_cast<uint8_t>(frame.payload[0]);
    if (first >> 4 != 4) MUST(written == frame.payload);
    // A header that ends in front of the address has the transport's checksum in its place.
    else if (frame.length >= 20 && (first & 15) >= 5) MUST(memcmp(written.data() + 16, "\x0a\x01\x00\x02", 4) == 0);
}

void one_record(fuzz_input &in, tlsc_sock *sock) {
    world.record          = std::string(in.bytes(in.word() % 1700));
    world.next_read_error = world.record.empty() ? static_cast<int>(in.below(7)) : 0;
    world.to_tun.clear();

    const expected_frame expected(world.record);
    if (expected.type == CSTP_CONFIG_RESPONSE && is_deadly_response(expected.payload)) return;
    const bool     is_empty   = world.record.empty();
    const uint64_t invalid_rx = counter(&tlsc_stats::invalid_rx);
    const uint64_t data_rx    = counter(&tlsc_stats::data_pkt_rx);

    tlsc_cstp_frame frame;
    memset(&frame, 0xa5, sizeof(frame));
    const int32_t read = tlsc_cstp_read_frame(sock, &frame);
    MUST((read == TLSC_SSL_OK) == !is_empty);
    if (read != TLSC_SSL_OK) return;
    MUST(frame.header.type == expected.type);
    MUST(memcmp(frame.payload, expected.payload.data(), expected.payload.size()) == 0);
    const size_t looked_at = std::min(std::max(expected.length + 1, tlsc_checksum_reach), sizeof(frame.payload));
    for (size_t i = expected.payload.size(); i < looked_at; ++i) MUST(frame.payload[i] == 0);

    const int32_t result = tlsc_process_cstp_frame(sock, &frame, tlsc_epoll_fd);
    MUST(result == 0 || result == 1);
    const bool is_known = expected.type == CSTP_DATA || expected.type == CSTP_CONFIG_RESPONSE ||
                          expected.type == CSTP_DPD_RESPONSE;
    MUST(counter(&tlsc_stats::invalid_rx) - invalid_rx == (is_known ? 0 : 1));
    MUST(counter(&tlsc_stats::data_pkt_rx) - data_rx == (expected.type == CSTP_DATA ? 1 : 0));
    if (expected.type == CSTP_DATA) check_data(expected, result);
    else MUST(world.to_tun.empty());
    check_counts();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    start_process();
    process_ssl = SSL_new(tlsc_ssl_ctx);
    MUST(process_ssl != nullptr);
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    fuzz_input in(bytes, size);
    begin_process(in);
    const uint8_t settings = in.byte();
    if ((settings & 0x38) == 0x38) tlsc_log_level = settings & 0x40 ? LOG_BUF_PRINT : LOG_DEBUG;

    tlsc_sock *sock = tlsc_get_sock();
    tlsc_attach_session(sock);
    const char name[]     = "tlstun0";
    tlsc_epoll_fd         = open_one(kind::epoll);
    sock->sess->tun_fd    = open_one(kind::tun);
    sock->sess->if_name   = name;
    sock->sess->tun_state = settings & 2 ? 1 : 0;
    sock->sockfd = sock->ssl_fd = open_one(kind::stream);
    sock->ssl_up                = 1;
    sock->ssl                   = process_ssl;
    if (SSL_get_fd(sock->ssl) != sock->sockfd) MUST(SSL_set_fd(sock->ssl, sock->sockfd) == 1);
    find(sock->sockfd)->connected = true;
    world.faults                  = (settings & 1) != 0;
    world.countdown               = world.faults ? in.byte() : 255;

    while (!in.empty()) one_record(in, sock);

    world.faults = false;
    tlsc_stop_all_timers();
    MUST(count(kind::timer) == 0);
    *sock->sess   = {};
    *sock         = {};
    tlsc_epoll_fd = -1;
    return 0;
}
