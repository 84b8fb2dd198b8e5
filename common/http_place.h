// Where to serve HTTP, as a person writes it. Called on any thread.
#pragma once

#include <cstdint>
#include <string>

namespace common {

// Where to listen, and who may ask.
struct http_place {
    std::string path;             // of a Unix socket; empty: TCP
    std::string address;          // IPv4 or IPv6 literal
    uint16_t    port        = 0;  // 0: any free one
    bool        is_loopback = true;
};

// Reads "unix:PATH", "ADDRESS:PORT", "[ADDRESS]:PORT" or "localhost:PORT". Returns an empty text, or what is wrong with
// it in one line.
std::string parse_http_place(const std::string &text, http_place &place);

}  // namespace common
