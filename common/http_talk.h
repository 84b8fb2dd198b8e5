// One conversation of the HTTP server: a request is read within its limits, checked, answered. Only this module knows
// cpp-httplib. Called on the connection's thread.
#pragma once

#include "http_server.h"

#include <atomic>

namespace common {

// What a conversation may look at and change from outside. The socket does not block.
struct http_talk {
    enum phase {
        reading,
        answering,
        following,
        leaving  // answered; the client has not closed yet
    };

    int                   fd;
    const http_service   &service;
    const http_limits    &limits;
    bool                  checks_host;       // a name in the Host header is refused
    std::atomic<int>      step   = reading;  // a phase
    std::atomic<bool>     is_cut = false;    // set from outside: end at once
    std::function<bool()> may_follow;        // takes a place among the streams, or not
};

void talk_http(http_talk &talk);

// A complete answer as text, for those who cannot be served at all.
std::string refusal_text(const http_service &service, int status, const std::string &what);

}  // namespace common
