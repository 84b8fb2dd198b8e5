#include "control.h"

#include "commands.h"

namespace gw {

namespace {

// A request may hold many records, and somebody may follow every packet.
constexpr common::server_limits limits = {.line = 4u << 20, .output = 64u << 20, .clients = 64};

}  // namespace

std::unique_ptr<common::json_server> serve_control(const std::string &path, tunnel_gateway &gateway,
                                                   common::loop &loop) {
    common::server_identity identity{"tlsc-gateway", TLSC_GATEWAY_VERSION};
    auto server = std::make_unique<common::json_server>(loop, gateway.events.log(), identity, limits);
    add_requests(*server, gateway);
    server->listen(path);
    return server;
}

}  // namespace gw
