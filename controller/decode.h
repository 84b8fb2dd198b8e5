// wlcctl decode: the frames of a capture, opened with the device's key.
#pragma once

#include "client.h"

#include <string>

namespace wlcctl {

struct decode_options {
    std::string file;
    std::string conf;            // the configuration file whose key opens the capture
    std::string keylog;          // TLS secrets that the gateway wrote; needed for DHE and ECDHE suites
    std::string dissector;       // cstp.lua; empty: the installed one
    int         port       = 0;  // the gateway's port; 0: frames are recognised by their first bytes
    bool        is_verbose = false;
    bool        as_json    = false;
};

// Has tshark print the frames on standard output, a line each, or everything about them; as JSON one answer that holds
// them all. The key goes through a private file, never through an argument. Returns 0; 1, told in one line, when tshark
// fails or is missing, or the capture holds no frame that opens. Blocks until tshark has ended.
int run_decode(const decode_options &options, const print_options &print);

}  // namespace wlcctl
