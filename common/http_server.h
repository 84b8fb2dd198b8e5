// A small HTTP server for those who watch: it reads one request of each connection, answers it and closes. Reading
// only: GET and HEAD. It has threads of its own, so that nobody else ever waits for a client: one accepts, and each
// connection has one, as many as the limits allow. The parser is cpp-httplib's; what goes over the socket, and how long
// it may take, is decided here.
//
// When every place is taken, a new connection gets that of the one that has kept its request back for longest: who
// connects and says nothing cannot keep others out.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "http_place.h"

namespace common {

struct http_limits {
    size_t                    clients = 32;         // connections at once
    size_t                    streams = 16;         // of them those that follow something
    size_t                    head    = 16 * 1024;  // bytes of a request, of which none has a body
    std::chrono::milliseconds head_time{5000};      // for all of it
    std::chrono::milliseconds stall_time{10000};    // in which a client must take at least a byte of its answer
    std::chrono::milliseconds answer_time{60000};   // for an answer that is not followed
};

// A request, read to its end.
struct http_request {
    std::string                        path;           // decoded, without the query
    std::map<std::string, std::string> query;          // decoded
    std::string                        last_event_id;  // header of that name
    std::function<bool()>              is_over;        // the client has gone, or the server ends
};

// The way to a client that follows.
class http_stream {
public:
    virtual ~http_stream() = default;

    // Sends all of it. False: the client has gone, took nothing for too long, or `is_lost` gave it up meanwhile.
    virtual bool send(std::string_view text) = 0;

    virtual bool is_over() const = 0;

    std::function<bool()> is_lost;  // asked again and again while the client takes nothing; null: never
};

using http_headers = std::vector<std::pair<std::string, std::string>>;

// What every answer to a browser carries: nothing is stored, guessed, framed or shared with another site. policy: the
// content security policy. Any thread.
http_headers guarded_headers(const std::string &policy);

struct http_answer {
    int                                status = 200;
    std::string                        type;  // of the content
    std::shared_ptr<const std::string> body;  // null: none
    http_headers                       headers;
    std::function<void(http_stream &)> follow;  // in place of a body: sends until it returns
};

// What is served. Called on the threads of the connections, several at once.
struct http_service {
    std::function<http_answer(const http_request &)>                answer;
    std::function<std::string(int status, const std::string &what)> describe_error;  // body of a failure
    http_headers                                                    headers;         // of every answer
    std::string                                                     error_type = "application/json";
};

class http_server {
public:
    explicit http_server(http_service service, http_limits limits = {});
    ~http_server();  // cuts every connection off and waits for their threads
    http_server(const http_server &)            = delete;
    http_server &operator=(const http_server &) = delete;

    // Listens and starts to serve. A Unix socket gets the mode 0660 and takes the place of one that nobody serves, but
    // of nothing else. Returns an empty text or why it cannot. Called once, on the program's initial thread.
    std::string open(const http_place &place);

    uint16_t port() const;     // in use, 0 for a Unix socket
    size_t   clients() const;  // connections at present

private:
    struct room;
    std::unique_ptr<room> room_;
};

}  // namespace common
