// What the agent serves over HTTP. It lies in a module of its own, wlcctl-http.so, because the HTTP library and what
// that one needs (TLS, compression) would take more memory than the whole agent; the agent loads it when --http is
// given. Between the two stand this header and http_board_view alone.
#pragma once

#include "common/http_board.h"
#include "common/http_server.h"

#include <memory>
#include <string>
#include <vector>

namespace wlcctl {

struct http_options {
    common::http_place       place;
    std::vector<std::string> report;  // command whose last word is to be the file that it writes
    common::http_limits      limits;
};

class http_pages {
public:
    virtual ~http_pages()         = default;  // ends all connections
    virtual uint16_t port() const = 0;
};

// Serves from now on. board: must outlive what is returned. Returns null and says why when that cannot be.
using open_http_pages_function = http_pages *(const http_options &options, common::http_board_view &board,
                                              std::string &why);

constexpr const char *http_module_name = "wlcctl-http.so";

}  // namespace wlcctl

extern "C" {
wlcctl::open_http_pages_function wlcctl_open_http_pages;
extern const char               *wlcctl_http_version;  // must be the agent's own
}
