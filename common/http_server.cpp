#include "http_server.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <list>
#include <malloc.h>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "http_talk.h"
#include "unique_fd.h"

// Contents: 1 sockets  2 connections  3 the accepting thread
// The accepting thread makes, evicts and collects connections; a connection's thread only talks and then says that it
// is done. The lock covers the list and what both write of an entry; nobody waits for a client while holding it.

namespace common {

namespace {

constexpr int    backlog      = 64;
constexpr size_t stack_bytes  = 512 * 1024;  // of a connection's thread
constexpr int    send_buffer  = 32 * 1024;   // bytes that the kernel keeps for a client that does not read
constexpr int    ending_pause = 10;          // milliseconds between two looks at threads that end
constexpr int    ending_looks = 100;
constexpr int    full_pause   = 100;  // milliseconds, when the process has no descriptors left

std::string with_errno(const std::string &what) { return what + ": " + strerror(errno); }

}  // namespace

http_headers guarded_headers(const std::string &policy) {
    return {{"Cache-Control", "no-store"},
            {"X-Content-Type-Options", "nosniff"},
            {"X-Frame-Options", "DENY"},
            {"Referrer-Policy", "no-referrer"},
            {"Cross-Origin-Resource-Policy", "same-origin"},
            {"Content-Security-Policy", policy}};
}

// ---- 1 sockets ------------------------------------------------------------------------------------------------------

namespace {

// A socket that nobody serves is a leftover; everything else stays.
std::string clear_place(const std::string &path, const sockaddr_un &address) {
    struct stat facts;
    if (lstat(path.c_str(), &facts) != 0) return "";
    if (!S_ISSOCK(facts.st_mode)) return path + " exists and is no socket";
    unique_fd probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    bool      is_served = connect(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ||
                     errno == EAGAIN;  // its queue is full
    if (is_served) return "another process serves " + path;
    (void)unlink(path.c_str());
    return "";
}

std::string listen_unix(const std::string &path, unique_fd &fd) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.data(), path.size());
    if (std::string why = clear_place(path, address); !why.empty()) return why;
    fd.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    mode_t before   = umask(0117);
    bool   is_bound = fd && bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    int    error    = errno;
    umask(before);
    errno = error;
    return is_bound && listen(fd.get(), backlog) == 0 ? "" : with_errno("cannot make the socket " + path);
}

std::string listen_tcp(const http_place &place, unique_fd &fd, uint16_t &port) {
    sockaddr_storage storage{};
    auto            *v4                    = reinterpret_cast<sockaddr_in *>(&storage);
    auto            *v6                    = reinterpret_cast<sockaddr_in6 *>(&storage);
    bool             is_v6                 = place.address.find(':') != std::string::npos;
    socklen_t        size                  = is_v6 ? sizeof *v6 : sizeof *v4;
    storage.ss_family                      = is_v6 ? AF_INET6 : AF_INET;
    (is_v6 ? v6->sin6_port : v4->sin_port) = htons(place.port);
    if (is_v6) inet_pton(AF_INET6, place.address.c_str(), &v6->sin6_addr);
    else inet_pton(AF_INET, place.address.c_str(), &v4->sin_addr);

    std::string name = (is_v6 ? "[" + place.address + "]" : place.address) + ":" + std::to_string(place.port);
    fd.reset(socket(storage.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    int on = 1;
    if (fd) (void)setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (fd && is_v6) (void)setsockopt(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    bool is_ready = fd && bind(fd.get(), reinterpret_cast<const sockaddr *>(&storage), size) == 0 &&
                    listen(fd.get(), backlog) == 0 &&
                    getsockname(fd.get(), reinterpret_cast<sockaddr *>(&storage), &size) == 0;
    if (!is_ready) return with_errno("cannot listen on " + name);
    port = ntohs(is_v6 ? v6->sin6_port : v4->sin_port);
    return "";
}

}  // namespace

// ---- 2 connections --------------------------------------------------------------------------------------------------

namespace {

struct connection {
    connection(unique_fd socket, const http_service &service, const http_limits &limits, bool checks_host)
        : fd(std::move(socket)), talk{fd.get(), service, limits, checks_host, {}, {}, {}} {}

    unique_fd         fd;
    http_talk         talk;
    pthread_t         thread{};
    std::atomic<bool> is_done = false;
    int               wake    = -1;  // to tell that it is done
};

void wake(int fd) {
    uint64_t one = 1;
    (void)!write(fd, &one, sizeof one);  // full: it is awake anyway
}

void *run_connection(void *given) {
    auto *c = static_cast<connection *>(given);
    try {
        talk_http(c->talk);
    } catch (...) {  // of memory there is none left: the connection ends
    }
    (void)shutdown(c->fd.get(), SHUT_RDWR);
    c->is_done = true;
    wake(c->wake);
    return nullptr;
}

// Starts a thread that no signal reaches.
bool start_thread(pthread_t &thread, void *(*work)(void *), void *argument) {
    sigset_t       all, before;
    pthread_attr_t facts;
    sigfillset(&all);
    pthread_attr_init(&facts);
    pthread_attr_setstacksize(&facts, stack_bytes);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    bool is_started = pthread_create(&thread, &facts, work, argument) == 0;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    pthread_attr_destroy(&facts);
    return is_started;
}

}  // namespace

struct http_server::room {
    http_service service;
    http_limits  limits;
    std::string  path;  // of the Unix socket, removed at the end
    bool         checks_host = false;
    uint16_t     port        = 0;
    unique_fd    listener, waker;
    pthread_t    acceptor{};
    bool         is_open = false;

    std::atomic<bool>                      is_ending = false;
    mutable std::mutex                     lock;
    std::list<std::unique_ptr<connection>> connections;  // oldest first

    static void *run_acceptor(void *given);
    void         accept_clients();
    void         take(unique_fd fd);
    bool         cut_one();
    bool         make_place();
    void         refuse(int fd, const char *why);
    void         collect();
    bool         may_follow(http_talk &talk);
    void         close();
};

// The oldest goes among those whose requests have not come yet, or that were answered and do not close.
bool http_server::room::cut_one() {
    std::lock_guard<std::mutex> held(lock);
    size_t                      staying = 0;
    for (const auto &each : connections) staying += !each->talk.is_cut && !each->is_done;
    if (staying < limits.clients) return true;
    for (const auto &each : connections) {
        int  step   = each->talk.step;
        bool is_due = step == http_talk::reading || step == http_talk::leaving;
        if (each->talk.is_cut || !is_due) continue;
        each->talk.is_cut = true;
        (void)shutdown(each->fd.get(), SHUT_RDWR);
        return true;
    }
    return false;
}

// Those that were cut off end by themselves, as soon as the processor lets them.
bool http_server::room::make_place() {
    if (!cut_one()) return false;
    auto threads = [this] {
        std::lock_guard<std::mutex> held(lock);
        return connections.size();
    };
    for (int i = 0; i < ending_looks && threads() >= 2 * limits.clients && !is_ending; i++) {
        pollfd rung = {waker.get(), POLLIN, 0};
        (void)poll(&rung, 1, ending_pause);
        collect();
    }
    return threads() < 2 * limits.clients;
}

void http_server::room::refuse(int fd, const char *why) {
    std::string text = refusal_text(service, 503, why);
    (void)!send(fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    (void)shutdown(fd, SHUT_WR);
}

// A follower that has gone, and was not noticed yet, takes no place.
bool http_server::room::may_follow(http_talk &talk) {
    std::lock_guard<std::mutex> held(lock);
    size_t                      streams = 0;
    for (const auto &each : connections) {
        bool   follows = each->talk.step == http_talk::following && !each->is_done && !each->talk.is_cut;
        pollfd hung_up = {each->fd.get(), POLLRDHUP, 0};
        if (follows && poll(&hung_up, 1, 0) > 0) each->talk.is_cut = true;
        else streams += follows;
    }
    if (streams >= limits.streams) return false;
    talk.step = http_talk::following;
    return true;
}

void http_server::room::take(unique_fd fd) {
    (void)setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUF, &send_buffer, sizeof send_buffer);
    if (!make_place()) return refuse(fd.get(), "too many clients");
    auto  made         = std::make_unique<connection>(std::move(fd), service, limits, checks_host);
    auto *c            = made.get();
    c->wake            = waker.get();
    c->talk.may_follow = [this, c] { return may_follow(c->talk); };
    std::lock_guard<std::mutex> held(lock);
    if (!start_thread(c->thread, run_connection, c)) return refuse(c->fd.get(), "no thread can be started");
    connections.push_back(std::move(made));
}

// Joins what has ended.
void http_server::room::collect() {
    uint64_t count;
    (void)!read(waker.get(), &count, sizeof count);
    std::list<std::unique_ptr<connection>> ended;
    {
        std::lock_guard<std::mutex> held(lock);
        for (auto at = connections.begin(); at != connections.end();) {
            auto next = std::next(at);
            if ((*at)->is_done) ended.splice(ended.end(), connections, at);
            at = next;
        }
    }
    for (const auto &each : ended) pthread_join(each->thread, nullptr);
}

// ---- 3 the accepting thread -----------------------------------------------------------------------------------------

void *http_server::room::run_acceptor(void *given) {
    static_cast<room *>(given)->accept_clients();
    return nullptr;
}

void http_server::room::accept_clients() {
    while (!is_ending) {
        pollfd ready[] = {{listener.get(), POLLIN, 0}, {waker.get(), POLLIN, 0}};
        (void)poll(ready, 2, -1);
        collect();
        if (is_ending || !(ready[0].revents & POLLIN)) continue;
        unique_fd fd(accept4(listener.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!fd) {
            bool is_full = errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
            if (is_full) (void)poll(ready + 1, 1, full_pause);
            continue;
        }
        try {
            take(std::move(fd));
        } catch (const std::exception &) {  // of memory there is none left: the connection is closed
        }
    }
}

void http_server::room::close() {
    if (!is_open) return;
    is_open   = false;
    is_ending = true;
    wake(waker.get());
    pthread_join(acceptor, nullptr);
    listener.reset();
    if (!path.empty()) (void)unlink(path.c_str());
    {
        std::lock_guard<std::mutex> held(lock);
        for (const auto &each : connections) {
            each->talk.is_cut = true;
            (void)shutdown(each->fd.get(), SHUT_RDWR);
        }
    }
    for (const auto &each : connections) pthread_join(each->thread, nullptr);
    connections.clear();
}

http_server::http_server(http_service service, http_limits limits) : room_(std::make_unique<room>()) {
    room_->service = std::move(service);
    room_->limits  = limits;
}

http_server::~http_server() { room_->close(); }

std::string http_server::open(const http_place &place) {
    room &r = *room_;
#ifdef M_ARENA_MAX
    mallopt(M_ARENA_MAX, 2);  // a pool of memory for each thread would be wasted on these
#endif
    r.waker.reset(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!r.waker) return with_errno("cannot make an event descriptor");
    std::string why = place.path.empty() ? listen_tcp(place, r.listener, r.port) : listen_unix(place.path, r.listener);
    if (!why.empty()) return why;
    r.path        = place.path;
    r.checks_host = place.path.empty();
    r.is_open     = start_thread(r.acceptor, room::run_acceptor, &r);
    if (r.is_open) return "";
    if (!r.path.empty()) (void)unlink(r.path.c_str());
    return "cannot start a thread";
}

uint16_t http_server::port() const { return room_->port; }

size_t http_server::clients() const {
    std::lock_guard<std::mutex> held(room_->lock);
    size_t                      count = 0;
    for (const auto &each : room_->connections) count += !each->is_done;
    return count;
}

}  // namespace common
