#include "gateway.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <spdlog/spdlog.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "errors.h"
#include "lease_file.h"

namespace gw {

// Contents: 1 listening  2 life of connections  3 for the control protocol

namespace {

constexpr int                       accept_backlog    = SOMAXCONN;  // where a herd that comes back at once waits
constexpr int                       accepts_per_batch = 64;
constexpr std::chrono::milliseconds accept_pause{100};  // when the process is out of descriptors
constexpr size_t                    shown_bytes = 64;   // of a bad frame, in its event

std::set<uint32_t> excluded_addresses(const ipv4_cidr &tun) { return {tun.address, tun.network(), tun.broadcast()}; }

std::string peer_text(const sockaddr_in &address) {
    return ipv4_text(ntohl(address.sin_addr.s_addr)) + ":" + std::to_string(ntohs(address.sin_port));
}

const char *mode_text(accept_mode mode) {
    switch (mode) {
    case accept_mode::normal: return "normal";
    case accept_mode::refuse: return "refuse";
    case accept_mode::reset: return "reset";
    case accept_mode::stall: return "stall";
    case accept_mode::stall_tls: return "stall_tls";
    }
    return "";
}

void reset_socket(common::unique_fd socket) {
    struct linger hard = {.l_onoff = 1, .l_linger = 0};
    (void)setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
}

}  // namespace

tunnel_gateway::tunnel_gateway(const gateway_options &options, common::loop &loop)
    : options_(options),
      loop_(loop),
      leaving_(loop),
      tls_(options.tls),
      pool_(options.pool, excluded_addresses(options.tun_address)),
      accept_timer_(loop),
      lease_timer_(loop),
      port_(options.listen_port) {
    if (!options_.lease_file.empty()) read_lease_file(options_.lease_file, pool_);
    if (options_.use_tun) {
        tun_.emplace(options_.tun, options_.tun_address, options_.mtu, options_.pool);
        tun_watch_.emplace(loop_, tun_->fd());
        tun_watch_->start(common::readable, [this](unsigned) { on_tun_readable(); });
    }
    listen();
}

tunnel_gateway::~tunnel_gateway() = default;

// ---- 1 Listening ----------------------------------------------------------------------------------------------------

void tunnel_gateway::listen() {
    common::unique_fd socket(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    int               on = 1;
    sockaddr_in       address{};
    address.sin_family      = AF_INET;
    address.sin_addr.s_addr = htonl(options_.listen_address);
    address.sin_port        = htons(port_);
    socklen_t size          = sizeof address;
    bool      good          = socket && setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
                bind(socket.get(), reinterpret_cast<sockaddr *>(&address), size) == 0 &&
                ::listen(socket.get(), accept_backlog) == 0 &&
                getsockname(socket.get(), reinterpret_cast<sockaddr *>(&address), &size) == 0;
    if (!good) throw runtime_failure("cannot listen on " + listen_text() + ": " + strerror(errno));
    port_     = ntohs(address.sin_port);
    listener_ = std::move(socket);
    listen_watch_.emplace(loop_, listener_.get());
    listen_watch_->start(common::readable, [this](unsigned) { on_acceptable(); });
}

std::string tunnel_gateway::listen_text() const {
    return ipv4_text(options_.listen_address) + ":" + std::to_string(port_);
}

void tunnel_gateway::set_accept(accept_mode mode) {
    if (mode == accept_mode::refuse) {
        stop_listening();
    } else if (!listener_) {
        listen();
    }
    lab.accept = mode;
}

void tunnel_gateway::stop_listening() {
    accept_timer_.stop();
    listen_watch_.reset();
    listener_.reset();
}

void tunnel_gateway::on_acceptable() {
    for (int i = 0; i < accepts_per_batch && listener_; i++) {
        sockaddr_in       address{};
        socklen_t         size = sizeof address;
        common::unique_fd socket(
            accept4(listener_.get(), reinterpret_cast<sockaddr *>(&address), &size, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (socket) take_connection(std::move(socket), peer_text(address));
        else if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) return pause_accepting();
        else if (errno != ECONNABORTED && errno != EINTR) return;
    }
}

void tunnel_gateway::pause_accepting() {
    spdlog::warn("cannot accept error=\"{}\"", strerror(errno));
    listen_watch_->change(0);
    accept_timer_.start(accept_pause, [this] { listen_watch_->change(common::readable); });
}

void tunnel_gateway::take_connection(common::unique_fd socket, const std::string &peer) {
    totals_.add(counter::accepted);
    const char *refused = nullptr;
    if (lab.accept == accept_mode::reset) refused = "reset";
    else if (clients_.size() >= options_.max_clients) refused = "max_clients";
    if (refused) {
        totals_.add(counter::refused);
        events.emit("accept_refused", 0, {{"peer", peer}, {"why", refused}});
        return reset_socket(std::move(socket));
    }
    uint64_t                  id = next_client_++;
    surroundings              around{*this, loop_, leaving_, totals_};
    client_connection::bounds limits{.handshake = options_.handshake_timeout, .queue = options_.queue};
    auto &client = *clients_.emplace(id, std::make_unique<tunnel_client>(id, std::move(socket), peer, around, limits))
                        .first->second;
    events.emit("tcp_accept", id, {{"peer", peer}, {"mode", mode_text(lab.accept)}});
    if (strike_connect(client)) return;
    if (lab.accept == accept_mode::normal) client.start_tls(tls_.get());
    else client.stall(lab.accept == accept_mode::stall_tls);
}

// ---- 2 Life of connections ------------------------------------------------------------------------------------------

void tunnel_gateway::on_tls_up(client_connection &connection) {
    auto &client = static_cast<tunnel_client &>(connection);
    totals_.add(counter::tls_up);
    client.identity = peer_identity(client.ssl());
    client.cipher   = SSL_get_cipher_name(client.ssl());
    events.emit("tls_up", client.id(),
                {{"version", SSL_get_version(client.ssl())},
                 {"cipher", client.cipher},
                 {"identity", client.identity},
                 {"resumed", SSL_session_reused(client.ssl()) == 1}});
    strike(fault_trigger::tls, client);
}

void tunnel_gateway::on_tls_failed(client_connection &connection, const std::string &reason) {
    totals_.add(counter::tls_failed);
    events.emit("tls_failed", connection.id(),
                {{"peer", connection.peer()}, {"identity", peer_identity(connection.ssl())}, {"reason", reason}});
}

void tunnel_gateway::on_alert(client_connection &connection, int level, int code) {
    events.emit("alert_rx", connection.id(),
                {{"level", level}, {"code", code}, {"alert", SSL_alert_desc_string_long(code)}});
}

void tunnel_gateway::on_frame(client_connection &connection, const cstp_frame &frame) {
    auto &client = static_cast<tunnel_client &>(connection);
    switch (frame.type) {
    case frame_data: return take_packet(client, frame.payload);
    case frame_config_request: return take_config_request(client, frame.payload);
    case frame_dpd_request: return answer_dpd(client);
    default: break;
    }
    client.count(counter::invalid);
    byte_view shown = frame.payload.first(std::min(frame.payload.size(), shown_bytes));
    events.emit("frame_invalid", client.id(),
                {{"reason", "type"}, {"type", frame.type}, {"hex", to_hex(shown)}, {"action", "dropped"}});
}

void tunnel_gateway::on_bad_stream(client_connection &connection, frame_parser::result reason, byte_view bytes) {
    connection.count(counter::invalid);
    byte_view shown = bytes.first(std::min(bytes.size(), shown_bytes));
    events.emit("frame_invalid", connection.id(),
                {{"reason", to_text(reason)}, {"hex", to_hex(shown)}, {"action", "closed"}});
    connection.end_with_notify("frame_invalid");
}

void tunnel_gateway::on_output(client_connection &connection) {
    // One entry per batch is enough, and mostly it is the last one.
    if (with_output_.empty() || with_output_.back() != connection.id()) with_output_.push_back(connection.id());
}

void tunnel_gateway::on_ended(client_connection &connection, const connection_end &ending) {
    auto &client = static_cast<tunnel_client &>(connection);
    totals_.add(counter::closed);
    client.delay_timer.reset();
    auto node = clients_.extract(client.id());
    dead_.push_back(std::move(node.mapped()));
    drop_route(client);
    if (client.lease) pool_.release(*client.lease);
    client.lease = nullptr;
    events.emit("closed", client.id(),
                {{"by", ending.by}, {"how", ending.how}, {"detail", ending.detail}, {"age_ms", client.age().count()}});
}

// The newest of the remaining connections with this inner address takes over.
void tunnel_gateway::drop_route(tunnel_client &client) {
    auto found = holders_.find(client.inner);
    if (found == holders_.end()) return;
    std::erase(found->second, &client);
    if (found->second.empty()) holders_.erase(found);
}

void tunnel_gateway::finish_batch() {
    std::vector<uint64_t> ids;
    ids.swap(with_output_);
    for (uint64_t id : ids) {
        if (tunnel_client *client = find_client(id)) client->flush();
    }
    ids.clear();
    if (with_output_.empty()) with_output_.swap(ids);  // keeps the memory
    dead_.clear();
}

void tunnel_gateway::shut_down(const std::string &reason) {
    events.emit("shutdown", 0, {{"reason", reason}});
    stop_listening();
    for (tunnel_client *client : clients()) client->end_with_notify("shutdown");
    write_leases();
    dead_.clear();
}

std::string tunnel_gateway::read_keys_again() {
    try {
        size_t identities = tls_.read_keys_again(options_.tls);
        events.emit("keys_read", 0, {{"identities", identities}, {"error", ""}});
        return "";
    } catch (const usage_error &error) {
        events.emit("keys_read", 0, {{"identities", 0}, {"error", error.what()}});
        return error.what();
    }
}

// ---- 3 For the control protocol -------------------------------------------------------------------------------------

std::chrono::milliseconds tunnel_gateway::uptime() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - born_);
}

std::vector<tunnel_client *> tunnel_gateway::clients() {
    std::vector<tunnel_client *> list;
    for (const auto &[id, client] : clients_) list.push_back(client.get());
    return list;
}

tunnel_client *tunnel_gateway::find_client(uint64_t id) {
    auto found = clients_.find(id);
    return found == clients_.end() ? nullptr : found->second.get();
}

bool tunnel_gateway::is_active(const tunnel_client &client) const {
    auto found = holders_.find(client.inner);
    return found != holders_.end() && found->second.back() == &client;
}

void tunnel_gateway::forget_dpd_choices() {
    for (const auto &[id, client] : clients_) client->answers_dpd.reset();
}

}  // namespace gw
