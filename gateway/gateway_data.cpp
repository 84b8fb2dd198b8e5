#include "gateway.h"

#include <cstring>

namespace gw {

// Packets. Contents: 1 up, from the clients into the interface  2 down, from the interface to the clients

namespace {

constexpr int     packets_per_batch   = 64;  // read from the interface before clients get their turn
constexpr size_t  ipv4_header_size    = 20;
constexpr size_t  ipv6_header_size    = 40;
constexpr uint8_t protocol_icmpv6     = 58;
constexpr uint8_t router_solicitation = 133;

uint32_t read_u32(byte_view bytes, size_t at) {
    return uint32_t{bytes[at]} << 24 | uint32_t{bytes[at + 1]} << 16 | uint32_t{bytes[at + 2]} << 8 | bytes[at + 3];
}

unsigned ip_version(byte_view packet) { return packet.empty() ? 0 : packet[0] >> 4; }
uint32_t source_of(byte_view packet) { return read_u32(packet, 12); }
uint32_t destination_of(byte_view packet) { return read_u32(packet, 16); }

bool is_whole_ipv4(byte_view packet) {
    if (packet.size() < ipv4_header_size || ip_version(packet) != 4) return false;
    size_t header = (packet[0] & 15) * 4u;
    size_t total  = static_cast<size_t>(packet[2] << 8 | packet[3]);
    return header >= ipv4_header_size && header <= total && total <= packet.size();
}

bool is_router_solicitation(byte_view packet) {
    return packet.size() > ipv6_header_size && packet[6] == protocol_icmpv6 &&
           packet[ipv6_header_size] == router_solicitation;
}

// A frame under construction: the packet is read to where it belongs in the frame.
struct frame_buffer {
    uint8_t bytes[frame_ring::slot_size];

    std::span<uint8_t> packet() { return std::span(bytes).subspan(frame_header_size); }
    byte_view          packet(size_t size) const { return byte_view(bytes).subspan(frame_header_size, size); }
    byte_view          frame(size_t size) {
                 write_frame_header(bytes, frame_data, static_cast<uint16_t>(size));
                 return byte_view(bytes).first(frame_header_size + size);
    }
};

}  // namespace

// ---- 1 Up -----------------------------------------------------------------------------------------------------------

void tunnel_gateway::take_packet(tunnel_client &client, byte_view packet) {
    auto refused = refuse_reason(client, packet);
    if (!refused) {
        client.count(counter::data_rx);
        client.count(counter::data_bytes_rx, packet.size());
        if (tun_ && !tun_->write(packet)) refused = counter::drop_tun;
    }
    if (refused) client.count(*refused);
    if (lab.data_events)
        report_packet(client, "up", packet, refused ? counter_names[static_cast<size_t>(*refused)] : "ok");
    strike(fault_trigger::frame, client);
}

std::optional<counter> tunnel_gateway::refuse_reason(const tunnel_client &client, byte_view packet) const {
    if (!client.configured) return counter::drop_early;
    if (ip_version(packet) == 6) return is_router_solicitation(packet) ? counter::drop_v6_rs : counter::drop_v6;
    if (!is_whole_ipv4(packet)) return counter::drop_malformed;
    if (source_of(packet) != client.inner) return counter::drop_source;
    return std::nullopt;
}

// ---- 2 Down ---------------------------------------------------------------------------------------------------------

void tunnel_gateway::on_tun_readable() {
    frame_buffer buffer;
    for (int i = 0; i < packets_per_batch; i++) {
        size_t size = tun_->read(buffer.packet());
        if (size == 0) return;
        totals_.add(counter::tun_rx);
        byte_view packet = buffer.packet(size);
        if (!is_whole_ipv4(packet)) {
            totals_.add(counter::tun_not_ipv4);
            continue;
        }
        tunnel_client *client = route(packet);
        if (!client) {
            totals_.add(counter::tun_no_route);
            continue;
        }
        (void)deliver(*client, buffer.frame(size));
    }
}

tunnel_client *tunnel_gateway::route(byte_view packet) {
    auto found = holders_.find(destination_of(packet));
    return found == holders_.end() ? nullptr : found->second.back();
}

tunnel_client *tunnel_gateway::send_packet(byte_view packet, tunnel_client *to, bool &sent) {
    sent = false;
    if (!to && is_whole_ipv4(packet)) to = route(packet);
    if (!to) return nullptr;
    frame_buffer buffer;
    memcpy(buffer.packet().data(), packet.data(), packet.size());
    sent = deliver(*to, buffer.frame(packet.size()));
    return to;
}

bool tunnel_gateway::deliver(tunnel_client &client, byte_view frame) {
    byte_view packet = frame.subspan(frame_header_size);
    bool      sent   = client.send_data(frame);
    client.count(sent ? counter::data_tx : counter::drop_queue);
    if (sent) client.count(counter::data_bytes_tx, packet.size());
    if (lab.data_events) report_packet(client, "down", packet, sent ? "ok" : "drop_queue");
    return sent;
}

void tunnel_gateway::report_packet(const tunnel_client &client, const char *direction, byte_view packet,
                                   const char *verdict) {
    events.emit("data", client.id(),
                {{"dir", direction}, {"hex", to_hex(packet)}, {"length", packet.size()}, {"verdict", verdict}});
}

}  // namespace gw
