// What the agent serves over HTTP. It lies in a module of its own, wlcctl-http.so, because the HTTP library and what
// that one needs (TLS, compression) would take more memory than the whole agent; the agent loads it when --http is
// given. Between the two stands this header alone.
#pragma once

#include "common/http_server.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace wlcctl {

struct http_options {
    common::http_place  place;
    std::string         program, socket, conf, log;  // what `report` is run with
    common::http_limits limits;
};

// The agent's side of it. Called on the loop's thread.
class http_pages {
public:
    virtual ~http_pages() = default;  // ends all connections

    // Serves from now on. Returns an empty text or why that cannot be.
    virtual std::string open() = 0;

    // The board that the pages show, see http_board.h.
    virtual void offer(const char *name, std::chrono::milliseconds fresh, std::function<std::string()> make) = 0;
    virtual void add_event(uint64_t number, std::string text)                                                = 0;
    virtual int  bell() const                                                                                = 0;
    virtual void serve_bell()                                                                                = 0;
};

// stream: of the events. Returns null when there is no memory or no descriptor left.
using make_http_pages_function = http_pages *(const http_options &options, const std::string &stream);

constexpr const char *http_module_name = "wlcctl-http.so";

}  // namespace wlcctl

extern "C" {
wlcctl::make_http_pages_function wlcctl_make_http_pages;
extern const char               *wlcctl_http_version;  // must be the agent's own
}
