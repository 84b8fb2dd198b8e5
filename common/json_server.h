// JSON lines on a Unix socket: requests in, answers and events out, and the three requests that every program has:
// `events` (list or follow), `wait` (for an event) and `help`. Called on the loop's thread.
//
// Request: {"request":NAME, "id":ANY, members...}          "id" may be missing; the answer repeats it
// Answer:  {"schema":1,"program":P,"version":V,"stream":S,"request":NAME,"ok":BOOL,"exit":N, "id":ANY, members...}
// Event:   see event_log.h; sent only to who follows
//
// Requests of one connection may overlap, and are answered when they are ready. A line that is no request is answered
// with "exit":2 and the connection stays; a line above the limit, or too much output left unread, ends it. Who closes
// the sending side still gets what was asked for.
#pragma once

#include <sys/types.h>

#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "event_log.h"
#include "exit_code.h"
#include "json.h"
#include "loop.h"
#include "request.h"

namespace common {

struct server_identity {
    std::string program;
    std::string version;
};

struct server_limits {
    size_t line    = 65536;     // bytes of a request
    size_t output  = 8u << 20;  // bytes that a client may leave unread
    size_t clients = 64;        // connections at once, on all sockets
    size_t due     = 256;       // requests of one connection that wait for their answers
};

// A request on its way: what is needed to answer it later.
struct ticket {
    uint64_t    client;
    std::string request;
    std::string id;  // as JSON text, empty: none
    bool        is_read_only = false;
};

class json_server {
public:
    // Serves a request that was checked against its type: returns the members of its answer, or nothing when answer()
    // will be called once, later. "exit" is 0 unless it is among them. Throws refusal for what makes no sense.
    using handler = std::function<std::optional<json>(const json &request, const ticket &asked)>;

    json_server(loop &owner, event_log &log, server_identity identity, server_limits limits = {});
    ~json_server();  // sends what can be sent at once, removes the sockets
    json_server(const json_server &)            = delete;
    json_server &operator=(const json_server &) = delete;

    void add(request_type type, handler serve);

    // Gives `wait` further members: a request that holds the first of them is served by this handler.
    void extend_wait(std::vector<member> members, handler serve);

    // Serves a socket at path, mode 0600. Takes the place of a socket that nobody serves, but of nothing else. Throws
    // std::runtime_error that says what is in the way.
    void listen(const std::string &path);

    // Serves a second socket, mode 0660 and of that group, on which only reading requests are answered.
    void listen_read_only(const std::string &path, gid_t group);

    // An answer to this request as `answer` would send it, without an id and without its line end.
    std::string answer_text(const std::string &request, json members) const;

    // Answers a request. Nothing happens when the client has gone.
    void answer(const ticket &asked, json members);

    size_t clients() const { return clients_.size(); }

private:
    struct client;
    struct listener;
    struct waiter;
    struct entry {
        request_type type;
        handler      serve;
    };

    void                open_listener(const std::string &path, mode_t mode, std::optional<gid_t> group);
    void                accept_client(listener &at);
    void                pause_accepting(listener &at);
    void                read_client(client &c);
    void                take_line(client &c, const std::string &line);
    void                serve(client &c, const json &request, ticket &asked);
    std::string         head(const ticket &asked, int exit) const;
    std::string         whole_answer(const ticket &asked, json members) const;
    void                put(client &c, const std::string &text);
    void                later(task work);
    void                flush(client &c);
    void                drop_later(client &c);
    client             *find_client(uint64_t number);
    std::optional<json> do_help() const;
    std::optional<json> do_events(const json &request, const ticket &asked);
    std::optional<json> do_wait(const json &request, const ticket &asked);
    void                list_events(const json &request, const ticket &asked, uint64_t since);
    event_filter        filter_of(const json &request) const;
    uint64_t            since_of(const json &request, uint64_t standard) const;
    void                on_event(const event &e);
    void                push_event(client &c, const event &e);

    loop                                &owner_;
    event_log                           &log_;
    server_identity                      identity_;
    server_limits                        limits_;
    std::vector<entry>                   entries_;
    std::string                          wait_member_;  // that asks for the program's own `wait`
    handler                              wait_extension_;
    std::list<std::unique_ptr<listener>> listeners_;
    std::list<std::unique_ptr<client>>   clients_;
    std::list<waiter>                    waiters_;
    uint64_t                             next_client_ = 1;
    std::shared_ptr<bool>                alive_       = std::make_shared<bool>(true);  // for what is called later
};

}  // namespace common
