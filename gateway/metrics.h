#pragma once

#include <memory>
#include <string>

#include "common/http_place.h"
#include "gateway.h"

namespace gw {

// The gateway in Prometheus' text format. Called on the loop's thread.
std::string metrics_page(tunnel_gateway &gateway);

// Serves that page over HTTP until it goes, with threads of its own: the loop waits for no client.
class metrics_server {
public:
    virtual ~metrics_server() = default;
};

// Throws runtime_failure when it cannot listen there.
std::unique_ptr<metrics_server> serve_metrics(const common::http_place &place, tunnel_gateway &gateway,
                                              common::loop &loop);

}  // namespace gw
