#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "common/http_place.h"
#include "text.h"
#include "tls.h"

namespace gw {

struct gateway_options {
    uint32_t    listen_address = 0;    // host order
    uint16_t    listen_port    = 443;  // 0: any free one
    tls_options tls;

    bool          use_tun = true;
    std::string   tun     = "tlsgw0";
    ipv4_cidr     tun_address{0x0a090001, 24};
    unsigned      mtu = 1406;  // bytes
    address_range pool;
    std::string   pool_text;  // as given

    // The configuration response; nothing omits the header.
    std::optional<std::string> prefix;
    std::optional<std::string> prefix_length;
    std::vector<std::string>   dns;
    std::optional<std::string> dpd         = "10";    // seconds
    std::optional<std::string> retry       = "20";    // seconds
    std::optional<std::string> rekey       = "3600";  // seconds
    bool                       cookie_auto = true;
    std::string                cookie;  // used when not auto; empty: none
    bool                       allow_fatal = false;

    size_t               max_clients = 256;
    std::chrono::seconds handshake_timeout{10};
    size_t               queue = 1024;  // packets per client

    std::string log       = "-";
    std::string log_level = "info";
    std::string ready_file;
    std::string lease_file;
    std::string control;

    std::optional<common::http_place> http;  // where to serve the metrics
};

// Reads the command line. Prints help or version itself and returns nothing then; throws usage_error for whatever is
// wrong.
std::optional<gateway_options> parse_options(int argc, const char *const *argv);

}  // namespace gw
