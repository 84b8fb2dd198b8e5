#pragma once

#include <memory>
#include <string>

#include "common/json_server.h"
#include "gateway.h"

namespace gw {

// Serves the control protocol: JSON lines on a Unix socket at `path` (common/json_server.h), the requests of
// commands.cpp. Throws std::runtime_error that says what is in the way. The socket goes away with the object, which
// goes before the gateway and the loop.
std::unique_ptr<common::json_server> serve_control(const std::string &path, tunnel_gateway &gateway,
                                                   common::loop &loop);

}  // namespace gw
