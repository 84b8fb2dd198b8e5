// What the daemon itself spends on a packet: the two ways between TUN and TLS with the four calls that leave the
// program (read, write, SSL_read, SSL_write) replaced by a copy of the packet. Everything else is the daemon's own code
// at the default log level, address exchange, checksum repair, framing and required copies included.

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <unistd.h>

#include "tlsc_openssl.h"

#include "tlsc_config.h"
#include "tlsc_cstp.h"
#include "tlsc_engine.h"
#include "tlsc_session.h"
#include "tlsc_utils.h"

namespace {

constexpr size_t header_size   = 8;
constexpr size_t source_offset = 12;  // of the source address in an IPv4 header

uint8_t packet[max_packet_size];               // what the stand-in for read delivers
uint8_t frame[header_size + max_packet_size];  // what the stand-in for SSL_read delivers
uint8_t sink[header_size + max_packet_size];   // where the stand-ins for write and SSL_write put it
size_t  packet_size;

}  // namespace

// The linker puts these in the place of the calls of the daemon's sources.
extern "C" {
ssize_t __wrap_read(int, void *buffer, size_t) {
    memcpy(buffer, packet, packet_size);
    return static_cast<ssize_t>(packet_size);
}
ssize_t __wrap_write(int, const void *buffer, size_t size) {
    memcpy(sink, buffer, size);
    return static_cast<ssize_t>(size);
}
int __wrap_SSL_read(SSL *, void *buffer, int) {
    memcpy(buffer, frame, header_size + packet_size);
    return static_cast<int>(header_size + packet_size);
}
int __wrap_SSL_write(SSL *, const void *buffer, int size) {
    memcpy(sink, buffer, static_cast<size_t>(size));
    return size;
}
}

namespace {

// An IPv4 packet with a TCP header. Its checksums are of no consequence: the repair costs the same for any.
void make_packet(size_t size) {
    packet_size = size;
    memset(packet, 0x5a, sizeof(packet));
    packet[0] = 0x45;
    packet[6] = packet[7] = 0;
    packet[9]             = IPPROTO_TCP;

    const uint8_t header[header_size] = {
        'S', 'T', 'F', 1, static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size), CSTP_DATA, 0};
    memcpy(frame, header, header_size);
    memcpy(frame + header_size, packet, size);
}

// A connection as it stands after a configuration response.
tlsc_sock *make_connection() {
    tlsc_config *conf = tlsc_get_config();
    inet_pton(AF_INET, "10.9.0.2", conf->inner_addr.ipv4);
    conf->inner_addr.kind = ADDR_IPV4;
    tlsc_copy_text(conf->management_ip, sizeof(conf->management_ip), "192.168.77.2");

    tlsc_sock *sock = tlsc_get_sock();
    if (!tlsc_init_session()) abort();
    tlsc_attach_session(sock);
    sock->ssl    = SSL_new(SSL_CTX_new(TLS_client_method()));
    sock->ssl_up = 1;
    return sock;
}

tlsc_sock *connection() {
    static tlsc_sock *sock = make_connection();
    return sock;
}

// The two copies that the stand-ins make, so that they can be subtracted.
void copies_alone(benchmark::State &state) {
    make_packet(static_cast<size_t>(state.range(0)));
    uint8_t buffer[max_packet_size];
    for (auto _ : state) {
        memcpy(buffer, packet, packet_size);
        benchmark::DoNotOptimize(buffer);
        memcpy(sink, buffer, packet_size);
        benchmark::DoNotOptimize(sink);
    }
}

void address_exchange_with_checksums(benchmark::State &state) {
    make_packet(static_cast<size_t>(state.range(0)));
    uint8_t inner[4] = {10, 9, 0, 2};
    for (auto _ : state) {
        const uint32_t old_sum = tlsc_addr_sum(packet + source_offset);
        memcpy(packet + source_offset, inner, sizeof(inner));
        tlsc_checksum(packet, old_sum, source_offset);
        ++inner[3];
        benchmark::DoNotOptimize(packet);
    }
}

// OpenSSL asks for it before every read and write; once per packet each way.
void clear_tls_error_queue(benchmark::State &state) {
    for (auto _ : state) ERR_clear_error();
}

void outbound(benchmark::State &state) {
    make_packet(static_cast<size_t>(state.range(0)));
    tlsc_sock *sock = connection();
    for (auto _ : state)
        if (tlsc_tun_read_and_process(sock) != 1) state.SkipWithError("the packet was not sent");
}

void inbound(benchmark::State &state) {
    make_packet(static_cast<size_t>(state.range(0)));
    tlsc_sock *sock = connection();
    for (auto _ : state) {
        tlsc_cstp_frame received;
        if (tlsc_cstp_read_frame(sock, &received) != 1 || tlsc_process_cstp_frame(sock, &received) != 1)
            state.SkipWithError("the frame was not delivered");
    }
}

BENCHMARK(copies_alone)->ArgName("bytes")->Arg(64)->Arg(1406);
BENCHMARK(address_exchange_with_checksums)->ArgName("bytes")->Arg(1406);
BENCHMARK(clear_tls_error_queue);
BENCHMARK(outbound)->ArgName("bytes")->Arg(64)->Arg(1406);
BENCHMARK(inbound)->ArgName("bytes")->Arg(64)->Arg(1406);

}  // namespace

BENCHMARK_MAIN();
