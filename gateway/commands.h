#pragma once

#include "common/json_server.h"
#include "gateway.h"

namespace gw {

// Adds the gateway's requests to the server of the control socket: looking, changing behaviour, sending and closing.
void add_requests(common::json_server &server, tunnel_gateway &gateway);

}  // namespace gw
