// Packets both ways. The oracle computes every checksum anew over the whole packet.
// Input: direction and shape, then addresses, header bytes and payload.
#include <arpa/inet.h>

#include "tlsc_openssl.h"

#include "kernel.h"
#include "tlsc_config.h"
#include "tlsc_cstp.h"
#include "tlsc_debug.h"
#include "tlsc_engine.h"
#include "tlsc_session.h"

using namespace kernel;

namespace {

SSL *process_ssl;  // one for all inputs: a session is expensive

constexpr uint8_t tcp = 6, udp = 17, icmp = 1;

uint32_t sum_words(const std::string &bytes, size_t from, size_t size) {
    uint32_t sum = 0;
    for (size_t i = 0; i < size; ++i) {
        const uint32_t byte = static_cast<uint8_t>(bytes[from + i]);
        sum += i % 2 == 0 ? byte << 8 : byte;
    }
    return sum;
}

uint16_t folded(uint32_t sum) {
    while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint16_t>(sum);
}

void put_word(std::string &bytes, size_t at, uint32_t value) {
    bytes[at]     = static_cast<char>(value >> 8);
    bytes[at + 1] = static_cast<char>(value);
}

size_t   header_size(const std::string &packet) { return (static_cast<size_t>(packet[0]) & 15) * 4; }
size_t   checksum_offset(const std::string &packet) { return header_size(packet) + (packet[9] == tcp ? 16 : 6); }
uint16_t header_residue(const std::string &packet) { return folded(sum_words(packet, 0, header_size(packet))); }

// The sum over pseudo-header and transport: all ones when the checksum in it is right.
uint16_t transport_residue(const std::string &packet) {
    const size_t from = header_size(packet), size = packet.size() - from;
    return folded(sum_words(packet, 12, 8) + static_cast<uint8_t>(packet[9]) + static_cast<uint32_t>(size) +
                  sum_words(packet, from, size));
}

// A packet with right checksums.
std::string well_formed(fuzz_input &in, uint8_t shape) {
    const uint8_t protocols[] = {tcp, udp, icmp, 47};
    const uint8_t protocol    = protocols[shape & 3];
    const size_t  options     = (shape >> 2 & 3) * 4;
    const size_t  least       = protocol == tcp ? 20 : 8;
    std::string   packet(20 + options, '\0');
    packet[0] = static_cast<char>(0x45 + options / 4);
    packet[1] = static_cast<char>(in.byte());
    packet[8] = 64;
    packet[9] = static_cast<char>(protocol);
    if (shape & 0x10) packet[6] = 0x20;                                   // the first of several fragments
    if (shape & 0x20) put_word(packet, 6, 0x2000u | in.word() % 0x1fff);  // a later one, unless its place is 0
    const std::string_view addresses = in.bytes(8);
    packet.replace(12, addresses.size(), addresses);
    if (options) {
        const std::string_view option = in.bytes(options);
        packet.replace(20, option.size(), option);
    }
    std::string transport(in.rest().substr(0, max_packet_size - packet.size()));
    transport.resize(std::max(transport.size(), least));
    packet += transport;
    put_word(packet, 2, static_cast<uint32_t>(packet.size()));
    put_word(packet, 10, 0);
    put_word(packet, 10, static_cast<uint16_t>(~header_residue(packet)));
    if (protocol == tcp || protocol == udp) {
        const size_t at = checksum_offset(packet);
        put_word(packet, at, 0);
        if (protocol == tcp || !(shape & 0x40)) {
            const uint16_t sum = static_cast<uint16_t>(~transport_residue(packet));
            put_word(packet, at, protocol == udp && sum == 0 ? 0xffff : sum);
        }
    }
    return packet;
}

bool is_later_fragment(const std::string &packet) { return (packet[6] & 0x1f) != 0 || packet[7] != 0; }

bool has_checked_transport(const std::string &packet) {
    return !is_later_fragment(packet) && (packet[9] == tcp || packet[9] == udp);
}

// Apart from the address and the two checksums nothing may change.
void check_untouched(const std::string &before, const std::string &after, size_t address) {
    MUST(before.size() == after.size());
    std::string padded = before;  // behind a short packet lie zeroes
    padded.resize(std::max<size_t>(before.size(), 80));
    const bool   touches   = has_checked_transport(padded);
    const size_t transport = touches ? checksum_offset(padded) : 0;
    for (size_t i = 0; i < before.size(); ++i) {
        if ((i >= address && i < address + 4) || i == 10 || i == 11) continue;
        if (touches && (i == transport || i == transport + 1)) continue;
        MUST(before[i] == after[i]);
    }
}

void check_sums(const std::string &before, const std::string &after) {
    MUST(header_residue(after) == 0xffff);
    if (!has_checked_transport(before)) return;
    const size_t   at  = checksum_offset(before);
    const uint32_t was = static_cast<uint32_t>(static_cast<uint8_t>(before[at]) << 8 |
                                               static_cast<uint8_t>(before[at + 1]));
    if (before[9] == udp && was == 0) MUST(after[at] == 0 && after[at + 1] == 0);
    else MUST(transport_residue(after) == 0xffff);
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
    const uint8_t shape    = in.byte();
    const bool    outwards = (settings & 1) != 0;
    const bool    is_made  = (settings & 2) != 0;
    const bool    is_whole = is_made && !(shape & 0x10);  // a first fragment's sum covers what is not here
    if ((settings & 0xf8) == 0xf8) tlsc_log_level = LOG_BUF_PRINT;

    uint8_t new_address[4];
    for (uint8_t &byte : new_address) byte = in.byte();
    tlsc_config *conf = tlsc_get_config();
    memcpy(conf->inner_addr.ipv4, new_address, 4);
    (void)inet_ntop(AF_INET, new_address, conf->management_ip, sizeof(conf->management_ip));
    const std::string packet = is_made ? well_formed(in, shape) : std::string(in.rest().substr(0, 1500));

    tlsc_sock *sock = tlsc_get_sock();
    tlsc_attach_session(sock);
    sock->sess->tun_fd = open_one(kind::tun);
    sock->sockfd       = open_one(kind::stream);
    sock->ssl_up       = 1;
    sock->ssl          = process_ssl;
    if (SSL_get_fd(sock->ssl) != sock->sockfd) MUST(SSL_set_fd(sock->ssl, sock->sockfd) == 1);

    std::string after;
    if (outwards) {
        world.tun_packet = packet;
        (void)tlsc_tun_read_and_process(sock);
        MUST(world.to_peer.size() == (packet.empty() ? 0 : 1));
        if (!packet.empty()) after = world.to_peer[0].substr(sizeof(tlsc_cstp_header));
        MUST(after == packet.substr(0, max_packet_size) || after.size() == std::min(packet.size(), max_packet_size));
    } else {
        tlsc_cstp_frame frame{};
        memcpy(frame.payload, packet.data(), std::min(packet.size(), max_payload_size));
        const int32_t written = tlsc_tun_write(sock, frame.payload, static_cast<int32_t>(packet.size()));
        MUST(world.to_tun.size() == (packet.size() <= max_packet_size ? 1 : 0));
        MUST(written == (packet.size() <= max_packet_size ? static_cast<int32_t>(packet.size()) : 0));
        if (!world.to_tun.empty()) after = world.to_tun[0];
    }

    const std::string before  = packet.substr(0, after.size());
    const size_t      address = outwards ? 12 : 16;
    const bool        is_ipv4 = !before.empty() && static_cast<uint8_t>(before[0]) >> 4 == 4;
    if (!is_ipv4) MUST(after == before);
    else check_untouched(before, after, address);
    if (is_ipv4 && before.size() >= 20) {
        const bool overlaps = !is_made && has_checked_transport(before) && checksum_offset(before) < 20;
        if (!overlaps) MUST(memcmp(after.data() + address, new_address, 4) == 0);
    }
    if (is_whole) check_sums(before, after);

    *sock->sess = {};
    *sock       = {};
    return 0;
}
