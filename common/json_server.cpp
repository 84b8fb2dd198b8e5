#include "json_server.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <nlohmann/json.hpp>

#include "log.h"
#include "unique_fd.h"

// Contents: 1 sockets  2 clients  3 requests and answers  4 help, events, wait
// In:  read_client -> take_line -> serve -> handler -> answer, at once or later
// Out: put -> flush; what a full socket does not take goes when it is writable

namespace common {

namespace {

constexpr milliseconds accept_pause{250};  // when there was no descriptor for a client
constexpr int          listen_backlog = 16;
constexpr double       standard_wait  = 10;  // seconds

}  // namespace

struct json_server::listener {
    std::string                       path;
    bool                              is_read_only;
    unique_fd                         fd;
    std::unique_ptr<descriptor_watch> watch;  // goes before fd
    timer                             again;  // accepts again
    bool                              is_paused = false;
};

struct json_server::client {
    uint64_t                          number;
    bool                              is_read_only;
    unique_fd                         fd;
    std::unique_ptr<descriptor_watch> watch;               // goes before fd
    std::string                       in;                  // received, not yet a whole line
    std::string                       out;                 // to be sent
    size_t                            due        = 0;      // answers that come later
    bool                              is_blocked = false;  // the socket is full
    bool                              is_due     = false;  // will be flushed at the end of the pass
    bool                              is_over    = false;  // sends no more
    bool                              is_dead    = false;  // goes at the end of the pass
    bool                              follows    = false;
    event_filter                      followed;
    uint64_t                          wanted = 0;  // events still to be sent, 0: no limit
};

// A `wait` for an event.
struct json_server::waiter {
    ticket       asked;
    event_filter filter;
    timer        patience;
};

// ---- 1 sockets ------------------------------------------------------------------------------------------------------

namespace {

sockaddr_un socket_address(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path || path.find('\0') != std::string::npos)
        throw std::runtime_error("the path of a socket must have 1 to " + std::to_string(sizeof address.sun_path - 1) +
                                 " characters: " + printable(path));
    memcpy(address.sun_path, path.data(), path.size());
    return address;
}

// A socket that nobody serves is a leftover; everything else stays.
void clear_place(const std::string &path, const sockaddr_un &address) {
    struct stat facts;
    if (lstat(path.c_str(), &facts) != 0) return;
    if (!S_ISSOCK(facts.st_mode)) throw std::runtime_error(printable(path) + " exists and is no socket");
    unique_fd probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    bool      is_served = connect(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ||
                     errno == EAGAIN;  // its queue is full
    if (is_served) throw std::runtime_error("another process serves " + printable(path));
    (void)unlink(path.c_str());
}

}  // namespace

void json_server::open_listener(const std::string &path, mode_t mode, std::optional<gid_t> group) {
    sockaddr_un address = socket_address(path);
    clear_place(path, address);

    auto made = std::make_unique<listener>(listener{path, group.has_value(), unique_fd(), nullptr, timer(owner_)});
    made->fd.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    mode_t before = umask(0177);
    bool is_bound = made->fd && bind(made->fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    int  error    = errno;
    umask(before);
    errno = error;
    if (!is_bound) throw std::runtime_error(failure_text("make the socket", path));

    bool is_ready = (!group ||
                     (chown(path.c_str(), static_cast<uid_t>(-1), *group) == 0 && chmod(path.c_str(), mode) == 0)) &&
                    ::listen(made->fd.get(), listen_backlog) == 0;
    if (!is_ready) {
        std::string why = failure_text("make the socket", path);
        (void)unlink(path.c_str());
        throw std::runtime_error(why);
    }
    listener *at = listeners_.emplace_back(std::move(made)).get();
    at->watch    = std::make_unique<descriptor_watch>(owner_, at->fd.get());
    at->watch->start(readable, [this, at](unsigned) { accept_client(*at); });
}

void json_server::listen(const std::string &path) { open_listener(path, 0600, std::nullopt); }
void json_server::listen_read_only(const std::string &path, gid_t group) { open_listener(path, 0660, group); }

// ---- 2 clients ------------------------------------------------------------------------------------------------------

json_server::json_server(loop &owner, event_log &log, server_identity identity, server_limits limits)
    : owner_(owner), log_(log), identity_(std::move(identity)), limits_(limits) {
    std::vector<std::string> kinds;
    for (const event_kind &kind : log_.kinds()) kinds.emplace_back(kind.name);

    member events = {"events", member_type::texts, "only events of these kinds", false, kinds};
    member since  = {"since", member_type::number, "only events after this number"};
    member stream = {"stream", member_type::text, "the stream of that number: in another one every event is new"};
    member match  = {"match", member_type::object, "members that the event must hold, with these values"};

    add({"help", "lists requests and kinds of events", {}}, [this](const json &, const ticket &) { return do_help(); });
    add({"events",
         "lists the events that are kept, or follows them as they happen",
         {events,
          since,
          stream,
          match,
          {"count", member_type::number, "at most so many"},
          {"follow", member_type::flag, "answers at once, then sends each event as a line; false ends that"}}},
        [this](const json &request, const ticket &asked) { return do_events(request, asked); });
    add({"wait",
         "waits for an event; without \"since\" for one that is still to come",
         {events, since, stream, match, {"timeout", member_type::seconds, "to wait, 10 by itself"}}},
        [this](const json &request, const ticket &asked) { return do_wait(request, asked); });
    log_.listen([this, alive = std::weak_ptr<bool>(alive_)](const event &e, const json &) {
        if (!alive.expired()) on_event(e);
    });
}

json_server::~json_server() {
    for (const auto &c : clients_) flush(*c);
    for (const auto &at : listeners_) (void)unlink(at->path.c_str());
}

void json_server::accept_client(listener &at) {
    unique_fd fd(accept4(at.fd.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!fd && (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)) return pause_accepting(at);
    if (!fd) return;
    at.is_paused       = false;
    auto made          = std::make_unique<client>();
    made->number       = next_client_++;
    made->is_read_only = at.is_read_only;
    made->fd           = std::move(fd);
    made->watch        = std::make_unique<descriptor_watch>(owner_, made->fd.get());
    client *c          = clients_.emplace_back(std::move(made)).get();
    if (clients_.size() > limits_.clients) {
        put(*c, head({c->number, "", "", false}, exit_failed) + ",\"error\":\"too many connections\"}\n");
        flush(*c);
        return drop_later(*c);
    }
    c->watch->start(readable, [this, c](unsigned events) {
        if (events & writable) flush(*c);
        if (events & readable) read_client(*c);
    });
}

// Who waits stays ready to be taken, and without a descriptor nobody can be: the loop would go round and round.
void json_server::pause_accepting(listener &at) {
    if (!std::exchange(at.is_paused, true)) log_failure("socket", "no descriptor is left for another client");
    at.watch->change(0);
    at.again.start(accept_pause, [&at] { at.watch->change(readable); });
}

// Nothing of the client happens any more; it goes when nobody up the stack can hold it.
void json_server::drop_later(client &c) {
    if (c.is_dead) return;
    c.is_dead = true;
    c.watch->change(0);
    waiters_.remove_if([&](const waiter &w) { return w.asked.client == c.number; });
    later([this, number = c.number] { clients_.remove_if([&](const auto &each) { return each->number == number; }); });
}

json_server::client *json_server::find_client(uint64_t number) {
    auto found = std::find_if(clients_.begin(), clients_.end(), [&](const auto &c) { return c->number == number; });
    return found == clients_.end() || (*found)->is_dead ? nullptr : found->get();
}

void json_server::read_client(client &c) {
    if (c.is_dead || c.is_over) return;
    char    bytes[16384];
    ssize_t count = recv(c.fd.get(), bytes, sizeof bytes, 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (count < 0) return drop_later(c);
    c.is_over = count == 0;
    c.in.append(bytes, static_cast<size_t>(count));

    size_t start = 0;
    for (size_t end; !c.is_dead && (end = c.in.find('\n', start)) != std::string::npos; start = end + 1)
        take_line(c, c.in.substr(start, std::min(end - start, limits_.line + 1)));
    c.in.erase(0, start);
    if (!c.is_dead && c.in.size() > limits_.line) {
        put(c, head({c.number, "", "", false}, exit_usage) + ",\"error\":\"the line is too long\"}\n");
        flush(c);
        return drop_later(c);
    }
    if (!c.is_dead && c.is_over) flush(c);  // perhaps nothing is due
}

// What a pass puts goes in one piece at its end.
void json_server::put(client &c, const std::string &text) {
    if (c.is_dead) return;
    c.out += text;
    if (c.out.size() > limits_.output) {
        log_failure("socket", "a client that does not read was cut off");
        return drop_later(c);
    }
    if (c.is_due || c.is_blocked) return;
    c.is_due = true;
    later([this, number = c.number] {
        client *due = find_client(number);
        if (due) flush(*due);
    });
}

void json_server::later(task work) {
    owner_.later([alive = std::weak_ptr<bool>(alive_), work = std::move(work)] {
        if (!alive.expired()) work();
    });
}

void json_server::flush(client &c) {
    c.is_blocked = false;
    c.is_due     = false;
    size_t at    = 0;
    while (at < c.out.size() && !c.is_blocked) {
        ssize_t count = send(c.fd.get(), c.out.data() + at, c.out.size() - at, MSG_NOSIGNAL);
        if (count >= 0) at += static_cast<size_t>(count);
        else if (errno == EAGAIN) c.is_blocked = true;
        else if (errno != EINTR) return drop_later(c);
    }
    c.out.erase(0, at);
    if (c.is_dead) return;
    if (c.is_over && c.out.empty() && c.due == 0 && !c.follows) return drop_later(c);
    c.watch->change((c.is_over ? 0 : readable) | (c.is_blocked ? writable : 0));
}

// ---- 3 requests and answers -----------------------------------------------------------------------------------------

void json_server::add(request_type type, handler serve) { entries_.push_back({std::move(type), std::move(serve)}); }

void json_server::extend_wait(std::vector<member> members, handler serve) {
    auto wait       = std::find_if(entries_.begin(), entries_.end(),
                                   [](const entry &e) { return strcmp(e.type.name, "wait") == 0; });
    wait_member_    = members.front().name;
    wait_extension_ = std::move(serve);
    wait->type.members.insert(wait->type.members.end(), members.begin(), members.end());
}

void json_server::take_line(client &c, const std::string &line) {
    if (line.find_first_not_of(" \t\r") == std::string::npos) return;
    ticket asked{c.number, "", "", c.is_read_only};
    json   failed;
    try {
        if (line.size() > limits_.line) throw refusal("the line is too long");
        json request = parse_json(line);
        if (request.is_discarded()) throw refusal("the line is no JSON");
        if (!request.is_object()) throw refusal("a request must be an object");
        if (auto id = request.find("id"); id != request.end() && !id->is_null()) {
            asked.id = json_line(*id);
            asked.id.pop_back();
        }
        return serve(c, request, asked);
    } catch (const refusal &error) {
        failed = {{"exit", exit_usage}, {"error", error.what()}};
    } catch (const std::exception &error) {
        failed = {{"exit", exit_failed}, {"error", error.what()}};
    }
    c.due++;
    answer(asked, failed);
}

void json_server::serve(client &c, const json &request, ticket &asked) {
    auto name = request.find("request");
    if (name == request.end() || !name->is_string()) throw refusal("\"request\" must be a text");
    auto found = std::find_if(entries_.begin(), entries_.end(),
                              [&](const entry &e) { return name->get_ref<const std::string &>() == e.type.name; });
    if (found == entries_.end()) {
        std::vector<std::string> names;
        for (const entry &e : entries_) names.emplace_back(e.type.name);
        throw refusal("there is no request \"" + printable(name->get_ref<const std::string &>(), 64) +
                      "\"; there are: " + list_text(names));
    }
    asked.request = found->type.name;
    check_request(request, found->type);
    if (c.is_read_only && !found->type.is_reading)
        throw refusal("\"" + asked.request + "\" gives an order, and this socket is for reading only");

    if (c.due >= limits_.due) throw std::runtime_error("too many requests of this connection wait for their answers");
    c.due++;
    std::optional<json> members;
    try {
        members = found->serve(request, asked);
    } catch (...) {
        c.due--;
        throw;
    }
    if (members) answer(asked, std::move(*members));
}

// The common members of an answer, without the closing brace.
std::string json_server::head(const ticket &asked, int exit) const {
    json        common = {{"schema", schema_number},
                          {"program", identity_.program},
                          {"version", identity_.version},
                          {"stream", log_.stream()},
                          {"request", asked.request},
                          {"ok", exit == exit_done},
                          {"exit", exit}};
    std::string text   = json_line(common);
    text.resize(text.size() - 2);
    if (!asked.id.empty()) text += ",\"id\":" + asked.id;
    return text;
}

std::string json_server::whole_answer(const ticket &asked, json members) const {
    int exit = members.value("exit", static_cast<int>(exit_done));
    members.erase("exit");
    std::string text = json_line(members);
    text.pop_back();
    text.erase(0, 1);
    return head(asked, exit) + (text == "}" ? "" : ",") + text;
}

std::string json_server::answer_text(const std::string &request, json members) const {
    return whole_answer({0, request, "", true}, std::move(members));
}

void json_server::answer(const ticket &asked, json members) {
    client *c = find_client(asked.client);
    if (!c) return;
    if (c->due > 0) c->due--;
    put(*c, whole_answer(asked, std::move(members)) + "\n");
}

// ---- 4 help, events, wait -------------------------------------------------------------------------------------------

std::optional<json> json_server::do_help() const {
    json requests = json::array(), kinds = json::array();
    for (const entry &e : entries_) requests.push_back(describe_request(e.type));
    for (const event_kind &kind : log_.kinds()) kinds.push_back({{"event", kind.name}, {"help", kind.help}});
    return json{{"requests", requests}, {"events", kinds}};
}

event_filter json_server::filter_of(const json &request) const {
    event_filter filter{texts_of(request, "events"), ""};
    if (auto match = request.find("match"); match != request.end() && !match->empty()) filter.match = json_line(*match);
    return filter;
}

// The numbers of another life of the program say nothing about this one's.
uint64_t json_server::since_of(const json &request, uint64_t standard) const {
    std::string stream = text_of(request, "stream");
    return stream.empty() || stream == log_.stream() ? number_of(request, "since", standard) : 0;
}

std::optional<json> json_server::do_events(const json &request, const ticket &asked) {
    client *c = find_client(asked.client);
    if (!c) return std::nullopt;
    bool has_follow = request.contains("follow"), follows = flag_of(request, "follow");
    if (has_follow && !follows) {
        c->follows = false;
        return json{{"last", log_.last()}, {"follow", false}};
    }
    uint64_t since = since_of(request, 0);
    if (!follows) {
        list_events(request, asked, since);
        return std::nullopt;
    }
    c->followed = filter_of(request);
    c->wanted   = number_of(request, "count");
    answer(asked, {{"last", log_.last()}, {"lost", log_.lost(since)}, {"follow", true}});
    if (c->is_dead) return std::nullopt;
    c->follows = true;
    log_.each_since(since, [&](const event &e) {
        push_event(*c, e);
        return c->follows && !c->is_dead;
    });
    return std::nullopt;
}

// The kept texts go into the answer as they are: as a tree they would take ten times the memory.
void json_server::list_events(const json &request, const ticket &asked, uint64_t since) {
    client *c = find_client(asked.client);
    if (!c) return;
    event_filter filter = filter_of(request);
    uint64_t     count = number_of(request, "count"), listed = 0;
    std::string  text = head(asked, exit_done) + ",\"last\":" + std::to_string(log_.last()) +
                       ",\"lost\":" + std::to_string(log_.lost(since)) + ",\"events\":[";
    log_.each_since(since, [&](const event &e) {
        if (!filter.accepts(log_, e)) return true;
        text += (listed++ == 0 ? "" : ",") + log_.text(e);
        return listed != count;
    });
    c->due--;
    put(*c, text + "]}\n");
}

std::optional<json> json_server::do_wait(const json &request, const ticket &asked) {
    if (!wait_member_.empty() && request.contains(wait_member_)) return wait_extension_(request, asked);

    event_filter filter = filter_of(request);
    if (filter.kinds.empty() && filter.match.empty())
        throw refusal("\"wait\" needs one of the members: events, match" +
                      (wait_member_.empty() ? "" : ", " + wait_member_));
    std::optional<json> found;
    log_.each_since(since_of(request, log_.last()), [&](const event &e) {
        if (filter.accepts(log_, e)) found = json{{"matched", json::parse(log_.text(e), nullptr, false)}};
        return !found;
    });
    if (found) return found;

    auto &w      = waiters_.emplace_back(waiter{asked, std::move(filter), timer(owner_)});
    auto  placed = std::prev(waiters_.end());
    auto  length = milliseconds(static_cast<int64_t>(seconds_of(request, "timeout").value_or(standard_wait) * 1000));
    w.patience.start(length, [this, placed] {
        ticket late = placed->asked;
        waiters_.erase(placed);
        answer(late, {{"exit", exit_not_reached}, {"error", "no such event came in time"}});
    });
    return std::nullopt;
}

void json_server::on_event(const event &e) {
    for (const auto &c : clients_)
        if (c->follows && !c->is_dead) push_event(*c, e);
    std::vector<ticket> due;
    waiters_.remove_if([&](const waiter &w) {
        bool is_due = w.filter.accepts(log_, e);
        if (is_due) due.push_back(w.asked);
        return is_due;
    });
    for (const ticket &asked : due) answer(asked, {{"matched", json::parse(log_.text(e), nullptr, false)}});
}

void json_server::push_event(client &c, const event &e) {
    if (!c.followed.accepts(log_, e)) return;
    c.follows = c.wanted == 0 || --c.wanted > 0;
    put(c, log_.text(e) + "\n");
}

}  // namespace common
