#include "gateway.h"

#include <cstring>

namespace gw {

// Packets: from the clients into the interface and back.

namespace {

constexpr int     packets_per_batch   = 64;  // read from the interface before clients get their turn
constexpr size_t  ipv4_header_size    = 20;
constexpr size_t  ipv6_header_size    = 40;
constexpr uint8_t protocol_icmpv6     = 58;
constexpr uint8_t router_solicitation = 133;

uint32_t read_u32(ByteView bytes, size_t at) {
    return uint32_t{bytes[at]} << 24 | uint32_t{bytes[at + 1]} << 16 | uint32_t{bytes[at + 2]} << 8 | bytes[at + 3];
}

unsigned ip_version(ByteView packet) { return packet.empty() ? 0 : packet[0] >> 4; }
uint32_t source_of(ByteView packet) { return read_u32(packet, 12); }
uint32_t destination_of(ByteView packet) { return read_u32(packet, 16); }

bool is_whole_ipv4(ByteView packet) {
    if (packet.size() < ipv4_header_size || ip_version(packet) != 4) return false;
    size_t header = (packet[0] & 15) * 4u;
    size_t total  = static_cast<size_t>(packet[2] << 8 | packet[3]);
    return header >= ipv4_header_size && header <= total && total <= packet.size();
}

bool is_router_solicitation(ByteView packet) {
    return packet.size() > ipv6_header_size && packet[6] == protocol_icmpv6 &&
           packet[ipv6_header_size] == router_solicitation;
}

// A frame under construction: the packet is read to where it belongs in the frame.
struct FrameBuffer {
    uint8_t bytes[FrameRing::slot_size];

    std::span<uint8_t> packet() { return std::span(bytes).subspan(frame_header_size); }
    ByteView           packet(size_t size) const { return ByteView(bytes).subspan(frame_header_size, size); }
    ByteView           frame(size_t size) {
                  write_frame_header(bytes, frame_data, static_cast<uint16_t>(size));
                  return ByteView(bytes).first(frame_header_size + size);
    }
};

}  // namespace

// Up.

void Gateway::take_packet(Client &client, ByteView packet) {
    auto refused = refuse_reason(client, packet);
    if (!refused) {
        client.count(Counter::data_rx);
        client.count(Counter::data_bytes_rx, packet.size());
        if (tun_ && !tun_->write(packet)) refused = Counter::drop_tun;
    }
    if (refused) client.count(*refused);
    if (lab.data_events)
        report_packet(client, "up", packet, refused ? counter_names[static_cast<size_t>(*refused)] : "ok");
}

std::optional<Counter> Gateway::refuse_reason(const Client &client, ByteView packet) const {
    if (!client.configured) return Counter::drop_early;
    if (ip_version(packet) == 6) return is_router_solicitation(packet) ? Counter::drop_v6_rs : Counter::drop_v6;
    if (!is_whole_ipv4(packet)) return Counter::drop_malformed;
    if (source_of(packet) != client.inner) return Counter::drop_source;
    return std::nullopt;
}

// Down.

void Gateway::on_tun_readable() {
    FrameBuffer buffer;
    for (int i = 0; i < packets_per_batch; i++) {
        size_t size = tun_->read(buffer.packet());
        if (size == 0) return;
        totals_.add(Counter::tun_rx);
        ByteView packet = buffer.packet(size);
        if (!is_whole_ipv4(packet)) {
            totals_.add(Counter::tun_not_ipv4);
            continue;
        }
        Client *client = route(packet);
        if (!client) {
            totals_.add(Counter::tun_no_route);
            continue;
        }
        (void)deliver(*client, buffer.frame(size));
    }
}

Client *Gateway::route(ByteView packet) {
    auto found = active_.find(destination_of(packet));
    return found == active_.end() ? nullptr : found->second;
}

Client *Gateway::send_packet(ByteView packet, Client *to, bool &sent) {
    sent = false;
    if (!to && is_whole_ipv4(packet)) to = route(packet);
    if (!to) return nullptr;
    FrameBuffer buffer;
    memcpy(buffer.packet().data(), packet.data(), packet.size());
    sent = deliver(*to, buffer.frame(packet.size()));
    return to;
}

bool Gateway::deliver(Client &client, ByteView frame) {
    ByteView packet = frame.subspan(frame_header_size);
    bool     sent   = client.send_data(frame);
    client.count(sent ? Counter::data_tx : Counter::drop_queue);
    if (sent) client.count(Counter::data_bytes_tx, packet.size());
    if (lab.data_events) report_packet(client, "down", packet, sent ? "ok" : "drop_queue");
    return sent;
}

void Gateway::report_packet(const Client &client, const char *direction, ByteView packet, const char *verdict) {
    events.emit("data", client.id(),
                {{"dir", direction}, {"hex", to_hex(packet)}, {"length", packet.size()}, {"verdict", verdict}});
}

}  // namespace gw
