#include "agent.h"

#include "events.h"
#include "hooks.h"
#include "present.h"
#include "resolver.h"
#include "state.h"
#include "wire.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <list>
#include <poll.h>
#include <set>
#include <stdexcept>
#include <sys/file.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

// Contents: 1 set-up of pipe and socket  2 the agent  3 sending  4 receiving  5 clients  6 verbs  7 waiting verbs  8 loop
// From the daemon: loop -> read_pipe -> controller_state::on_message -> run_triggers (hooks), run_waiters (answers)
// From a verb:     loop -> read_client -> handle_line -> do_VERB -> send -> answer, at once or from a waiter

namespace wlcctl {

namespace {

constexpr double check_seconds  = 1;       // between two looks whether the daemon's pipe has a reader
constexpr double probe_delay    = 0.5;     // seconds for the HELLO of a daemon that has just appeared
constexpr double accept_seconds = 10;      // in which the daemon must accept a start: 2 poll, 3 restart, and reserve
constexpr double answer_seconds = 6;       // in which the daemon must answer: 2 poll, 2 a start before it, and reserve
constexpr double longest_wait   = 86400;   // seconds
constexpr size_t client_limit   = 64;      // connections at once
constexpr size_t output_limit = 8u << 20;  // bytes that a client may leave unread before it is cut off; all events fit
constexpr size_t pipe_batch   = 126 * record_size;  // bytes of one read: whole records, as much as a pipe holds

// --- 1 set-up of pipe and socket: every failure is told in one line, and the result is then an exit status above 0 ---------

int refuse(int status, const std::string &why) {
    fprintf(stderr, "wlcctl agent: %s\n", why.c_str());
    return status;
}

std::string failure(const std::string &what, const std::string &path) {
    return "cannot " + what + " " + path + ": " + strerror(errno);
}

bool is_same_file(int fd, const std::string &path) {
    struct stat by_fd, by_path;
    return fstat(fd, &by_fd) == 0 && lstat(path.c_str(), &by_path) == 0 && by_fd.st_ino == by_path.st_ino &&
           by_fd.st_dev == by_path.st_dev;
}

// Who reads a pipe: somebody, nobody (or there is no such pipe), or we are not allowed to know.
enum class reader {
    present,
    absent,
    hidden
};

reader reader_of(const std::string &path) {
    int fd = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return errno == EACCES || errno == EPERM ? reader::hidden : reader::absent;
    struct stat facts;
    bool        is_pipe = fstat(fd, &facts) == 0 && S_ISFIFO(facts.st_mode);
    close(fd);
    return is_pipe ? reader::present : reader::absent;
}

// Creates the pipe, makes sure that nobody else reads it, opens it read-write and locks it.
int open_own_pipe(const std::string &path, int &fd) {
    mode_t old    = umask(0);
    int    result = mkfifo(path.c_str(), 0620);
    umask(old);
    if (result != 0 && errno != EEXIST) return refuse(exit_failed, failure("create the pipe", path));

    struct stat facts;
    if (lstat(path.c_str(), &facts) != 0 || !S_ISFIFO(facts.st_mode))
        return refuse(exit_failed, path + " exists and is no pipe");
    if (facts.st_uid != geteuid()) return refuse(exit_failed, "the pipe " + path + " belongs to another user");
    if (reader_of(path) == reader::present) return refuse(exit_other_controller, "another controller reads " + path);

    fd = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return refuse(exit_failed, failure("open the pipe", path));
    // An agent that ended between the two steps may have removed the pipe: then the lock is worth nothing.
    if (flock(fd, LOCK_EX | LOCK_NB) != 0 || !is_same_file(fd, path))
        return refuse(exit_other_controller, "another controller uses " + path);
    return exit_done;
}

// Connects to see whether somebody serves the socket.
bool is_served(const sockaddr_un &address) {
    int  fd    = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bool is_up = fd >= 0 && connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    if (fd >= 0) close(fd);
    return is_up;
}

// Takes the place of a socket that a killed agent left behind, but of nothing else.
int open_socket(const std::string &path, int &fd) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path)
        return refuse(exit_usage, "the socket's path must have 1 to 107 characters");
    memcpy(address.sun_path, path.data(), path.size());

    struct stat facts;
    if (lstat(path.c_str(), &facts) == 0) {
        if (!S_ISSOCK(facts.st_mode)) return refuse(exit_failed, path + " exists and is no socket");
        if (is_served(address)) return refuse(exit_failed, "another agent serves " + path);
        unlink(path.c_str());
    }

    fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return refuse(exit_failed, failure("make the socket", path));
    mode_t old    = umask(0177);
    int    result = bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    umask(old);
    if (result == 0 && listen(fd, 16) == 0) return exit_done;
    int status = refuse(exit_failed, failure("make the socket", path));
    close(fd);
    fd = -1;
    return status;
}

// Signals are read as data, so that nothing interrupts the loop's work.
int open_signals() {
    sigset_t set;
    sigemptyset(&set);
    for (int number : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) sigaddset(&set, number);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN);
    return signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
}

// --- 2 the agent ------------------------------------------------------------------------------------------------------

// A request that makes no sense; the text is the answer.
struct bad_request : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct client {
    uint64_t              number;
    int                   fd;
    std::string           in;                  // received, not yet a whole line
    std::string           out;                 // to be sent
    bool                  input_over = false;  // the client sends no more
    bool                  is_dead    = false;  // to be closed at the end of the pass
    bool                  follows    = false;  // gets each new event
    std::set<std::string> kinds;               // of events, empty: all
    uint64_t              wanted = 0;          // events still to be sent, 0: no limit
    json                  follow_id;
};

// A verb that waits. step() is called after every message, every second and at `wake`; it gives the answer when there is one.
struct waiter {
    uint64_t                                                            client;
    json                                                                id;
    double                                                              wake;  // monotonic seconds
    std::function<std::optional<json>(const moment &now, double &wake)> step;
};

enum class sent {
    yes,
    no_reader,
    failed
};

class agent {
public:
    agent(const agent_options &options, int signals, int from_daemon, int listener)
        : m_options(options),
          m_signals(signals),
          m_pipe(from_daemon),
          m_listener(listener),
          m_state(m_log, [this] { return is_process_alive(); }),
          m_hooks(m_log, options.hook_timeout) {}
    int run();

private:
    // 3 sending
    sent send(const record &r, const json &members = nullptr);
    sent send_query();
    void probe();

    // 4 receiving
    void                     read_pipe();
    void                     take(const message &m);
    void                     on_name_query();
    void                     answer_name_query(const std::string &address);
    void                     name_answer_failed(const std::string &error);
    void                     on_lookup_done();
    void                     run_triggers();
    std::vector<std::string> hook_facts(const char *hook, uint64_t number) const;
    void                     watch_process(int32_t pid);
    bool                     is_process_alive() const;
    void                     check_reader();

    // 5 clients
    void accept_client();
    void read_client(client &c);
    void handle_line(client &c, const std::string &line);
    void handle_request(client &c, const json &request, const json &id);
    void write_client(client &c);
    void drop_dead_clients();
    void on_event(const event &e, const json &members);
    void push_event(client &c, const event &e);
    void print_event(const event &e, const json &members);
    void reply(client &c, const json &id, const std::string &verb, json answer);

    // 6 verbs
    std::optional<json> do_status(const json &request, client &c, const json &id);
    std::optional<json> do_start(const json &request, client &c, const json &id, uint32_t message);
    std::optional<json> do_stop(const json &request, client &c, const json &id);
    std::optional<json> do_wait(const json &request, client &c, const json &id);
    std::optional<json> do_events(const json &request, client &c, const json &id);
    std::optional<json> do_stats(const json &request, client &c, const json &id);
    std::optional<json> do_debug(const json &request);
    std::optional<json> do_resolve(const json &request);
    std::optional<json> do_hello(const json &request, client &c, const json &id);
    std::optional<json> do_info(const json &request, client &c, const json &id);
    std::optional<json> do_shutdown(const json &request, client &c, const json &id);
    json                status() const;
    json                refuse_send(sent result) const;
    json                tunnel_answer(int exit, const char *member, const std::string &text) const;
    json                statistics_answer(int exit, const std::string &error = "") const;

    // 7 waiting verbs
    void wait_for(client &c, const json &id, const std::string &verb, double wake,
                  std::function<std::optional<json>(const moment &, double &)> step);
    void run_waiters();

    // 8 loop
    int  timeout() const;
    void run_timers();

    const agent_options &m_options;
    int                  m_signals;
    int                  m_pipe;
    int                  m_listener;
    event_log            m_log;
    controller_state     m_state;
    hooks                m_hooks;
    resolver             m_resolver;
    std::list<client>    m_clients;
    std::list<waiter>    m_waiters;

    moment      m_now         = present();  // the time of the pass
    moment      m_begun       = m_now;
    bool        m_stop        = false;
    uint64_t    m_next_client = 1;
    double      m_next_check  = 0;       // when the pipe's reader is looked for next
    double      m_probe_at    = 0;       // when the daemon is asked what it is; 0: not
    std::string m_send_error;            // of the last send that failed
    int         m_process         = -1;  // pidfd of the daemon; -1: not known, ended, or not ours to see
    int32_t     m_process_pid     = 0;   // that it belongs to
    double      m_lookup_deadline = 0;   // of the lookup under way
    uint64_t    m_names_answered  = 0;
    uint64_t    m_names_failed    = 0;
    std::string m_last_name_answer;
};

// --- 3 sending --------------------------------------------------------------------------------------------------------

uint32_t id_of(const record &r) {
    uint32_t id;
    memcpy(&id, r.data(), sizeof id);
    return id;
}

// Opens the daemon's pipe, writes one record, closes it; never blocks. members: what the event tells beside id and name.
sent agent::send(const record &r, const json &members) {
    json told = {{"id", id_of(r)}, {"name", message_name(id_of(r))}};
    if (members.is_object()) told.update(members);

    reader who = reader_of(m_options.to_daemon);
    int fd = who != reader::absent ? open(m_options.to_daemon.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW)
                                   : -1;
    ssize_t n     = fd >= 0 ? write(fd, r.data(), r.size()) : -1;
    int     error = errno;
    if (fd >= 0) close(fd);

    if (n == static_cast<ssize_t>(r.size())) {
        m_state.on_daemon_reader(true, m_now);
        m_state.on_sent(id_of(r), m_now);
        m_log.add(m_now, "sent", told);
        return sent::yes;
    }
    if (who == reader::absent || error == ENXIO || error == EPIPE) {
        m_send_error  = "the daemon is not running: nobody reads " + m_options.to_daemon;
        told["error"] = m_send_error;
        m_log.add(m_now, "send_failed", told);
        m_state.on_daemon_reader(false, m_now);
        return sent::no_reader;
    }
    m_send_error  = error == EAGAIN ? "the daemon does not read its messages: " + m_options.to_daemon + " is full"
                                    : "cannot write to " + m_options.to_daemon + ": " + strerror(error);
    told["error"] = m_send_error;
    m_log.add(m_now, "send_failed", told);
    return sent::failed;
}

sent agent::send_query() { return send(encode(msg_process_query)); }

// Learns what can be learnt from a daemon that one knows nothing of.
void agent::probe() {
    m_probe_at = 0;
    if (!m_state.enabled.known() && send(encode(msg_stats_request)) != sent::yes) return;
    send_query();
}

// --- 4 receiving ------------------------------------------------------------------------------------------------------

// One read takes all that is there, and every write of the daemon is whole, so each read begins at a record's boundary.
void agent::read_pipe() {
    static uint8_t bytes[pipe_batch];
    ssize_t        n = read(m_pipe, bytes, sizeof bytes);
    if (n <= 0) return;

    std::vector<record> records;
    size_t              dropped = split_records(bytes, static_cast<size_t>(n), records);
    for (const record &r : records) take(decode(r));
    if (dropped > 0) m_log.add(m_now, "garbage", {{"bytes", dropped}});
}

void agent::take(const message &m) {
    m_state.on_message(m, m_now);
    if (m.kind == report::process) watch_process(m.pid);
    if (m.kind == report::name_query) on_name_query();
    // A HELLO may be that of a new process: its id tells. The daemon answers HELLO with HELLO, so it gets none back.
    if (m.kind == report::hello) m_probe_at = m_now.mono;
    run_triggers();
    run_waiters();
}

void agent::on_name_query() {
    if (!m_options.resolve_address.empty()) return answer_name_query(m_options.resolve_address);
    if (m_options.resolve_name.empty() || m_resolver.descriptor() >= 0)
        return;  // a lookup under way answers this query too
    if (!m_resolver.start(m_options.resolve_name)) return name_answer_failed("no lookup could be started");
    m_lookup_deadline = m_now.mono + m_options.resolve_timeout;
}

void agent::answer_name_query(const std::string &address) {
    if (send(encode_text(msg_name_answer, address), {{"text", address}}) != sent::yes) {
        m_names_failed++;
        return;
    }
    m_names_answered++;
    m_last_name_answer = address;
}

void agent::name_answer_failed(const std::string &error) {
    m_names_failed++;
    m_log.add(m_now, "name_answer_failed", {{"error", error}});
}

void agent::on_lookup_done() {
    resolver::result result = m_resolver.take();
    if (result.address.empty()) return name_answer_failed(m_options.resolve_name + ": " + result.error);
    answer_name_query(result.address);
}

void agent::run_triggers() {
    for (const trigger &due : m_state.take_triggers()) {
        const char        *name    = due.kind == hook_kind::up ? "up" : due.kind == hook_kind::down ? "down" : "dns";
        const std::string &command = due.kind == hook_kind::up     ? m_options.on_up
                                     : due.kind == hook_kind::down ? m_options.on_down
                                                                   : m_options.on_dns;
        if (!command.empty()) m_hooks.run(name, command, hook_facts(name, due.event), due.event, m_now);
    }
}

std::vector<std::string> agent::hook_facts(const char *hook, uint64_t number) const {
    std::string servers;
    for (const std::string &server : m_state.dns.value) servers += (servers.empty() ? "" : " ") + server;
    bool is_down = m_state.tun.is(tunnel::down);

    return {std::string("TLSC_EVENT=") + hook,
            std::string("TLSC_STATE=") + tunnel_name(m_state.tun),
            std::string("TLSC_SOURCE=") + source_name(m_state.tun.how),
            "TLSC_CAUSE=" + (is_down ? m_state.cause.value : ""),
            "TLSC_INNER_IP=" + m_state.inner_ip.value,
            "TLSC_DNS=" + servers,
            "TLSC_TUN=" + conf_value(m_options.conf, "tun_interface_name"),
            "TLSC_MANAGEMENT_IP=" + conf_value(m_options.conf, "management_ip"),
            "TLSC_GATEWAY=" + conf_value(m_options.conf, "server_ip_address"),
            "TLSC_PID=" + (m_state.pid.known() ? std::to_string(m_state.pid.value) : ""),
            "TLSC_EVENT_NUMBER=" + std::to_string(number)};
}

// Watches the daemon's process, so that its end is seen at once. A process that cannot be seen from here is not watched.
void agent::watch_process(int32_t pid) {
    if (pid == m_process_pid && is_process_alive()) return;
    if (m_process >= 0) close(m_process);
    m_process     = pid > 0 ? static_cast<int>(syscall(SYS_pidfd_open, pid, 0)) : -1;
    m_process_pid = pid;
}

bool agent::is_process_alive() const {
    pollfd state = {m_process, POLLIN, 0};
    return m_process >= 0 && poll(&state, 1, 0) == 0;
}

void agent::check_reader() {
    m_next_check       = m_now.mono + check_seconds;
    bool   was_running = m_state.running.is(true);
    reader who         = reader_of(m_options.to_daemon);
    if (who != reader::hidden) m_state.on_daemon_reader(who == reader::present, m_now);
    if (who == reader::present && !was_running && m_probe_at == 0) m_probe_at = m_now.mono + probe_delay;
    run_triggers();
}

// --- 5 clients --------------------------------------------------------------------------------------------------------

void agent::accept_client() {
    int fd = accept4(m_listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) return;
    m_clients.push_back({.number = m_next_client++, .fd = fd, .in = {}, .out = {}, .kinds = {}, .follow_id = {}});
    if (m_clients.size() <= client_limit) return;
    client &c = m_clients.back();
    reply(c, nullptr, "", {{"exit", exit_failed}, {"error", "too many connections"}});
    write_client(c);
    c.is_dead = true;
}

void agent::read_client(client &c) {
    char    bytes[16384];
    ssize_t n = recv(c.fd, bytes, sizeof bytes, 0);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (n < 0) {
        c.is_dead = true;
        return;
    }
    if (n == 0) c.input_over = true;
    c.in.append(bytes, static_cast<size_t>(n));

    size_t end;
    while (!c.is_dead && (end = c.in.find('\n')) != std::string::npos) {
        std::string line = c.in.substr(0, end);
        c.in.erase(0, end + 1);
        if (!line.empty()) handle_line(c, line);
    }
    if (c.in.size() <= request_limit) return;
    reply(c, nullptr, "", {{"exit", exit_usage}, {"error", "the line is too long"}});
    write_client(c);
    c.is_dead = true;
}

void agent::handle_line(client &c, const std::string &line) {
    json request = json::parse(line, nullptr, false);
    json id      = request.is_object() ? request.value("id", json(nullptr)) : json(nullptr);
    try {
        if (request.is_discarded()) throw bad_request("the line is no JSON");
        if (!request.is_object()) throw bad_request("a request must be an object");
        handle_request(c, request, id);
    } catch (const bad_request &error) {
        reply(c, id, "", {{"exit", exit_usage}, {"error", error.what()}});
    }
}

// Sends the answer of a verb; "ok" and "verb" are added here.
void agent::reply(client &c, const json &id, const std::string &verb, json answer) {
    json line = {{"ok", answer["exit"] == 0}, {"exit", answer["exit"]}, {"verb", verb}};
    if (!id.is_null()) line["id"] = id;
    line.update(answer);
    c.out += json_line(line);
}

void agent::write_client(client &c) {
    while (!c.out.empty()) {
        ssize_t n = ::send(c.fd, c.out.data(), c.out.size(), MSG_NOSIGNAL);
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) break;
        if (n < 0) {
            c.is_dead = true;
            return;
        }
        c.out.erase(0, static_cast<size_t>(n));
    }
    if (c.out.size() > output_limit) c.is_dead = true;
}

// Closes clients that are gone, and those that have sent all and got all.
void agent::drop_dead_clients() {
    for (auto c = m_clients.begin(); c != m_clients.end();) {
        bool is_awaiting = std::any_of(m_waiters.begin(), m_waiters.end(),
                                       [&](const waiter &w) { return w.client == c->number; });
        bool is_served   = c->input_over && c->out.empty() && !c->follows && !is_awaiting;
        if (!c->is_dead && !is_served) {
            ++c;
            continue;
        }
        close(c->fd);
        m_waiters.remove_if([&](const waiter &w) { return w.client == c->number; });
        c = m_clients.erase(c);
    }
}

void agent::on_event(const event &e, const json &members) {
    print_event(e, members);
    for (client &c : m_clients)
        if (c.follows) push_event(c, e);
}

void agent::push_event(client &c, const event &e) {
    if (!c.kinds.empty() && !c.kinds.contains(e.kind)) return;
    c.out += e.line;
    if (c.wanted == 0 || --c.wanted > 0) return;
    c.follows = false;
    reply(c, c.follow_id, "events", {{"exit", exit_done}, {"last", e.number}});
}

// A reader of standard output that does not read must not stop the agent: the line is lost then, the event is not.
void agent::print_event(const event &e, const json &members) {
    if (m_options.quiet) return;
    pollfd out = {STDOUT_FILENO, POLLOUT, 0};
    if (poll(&out, 1, 0) != 1 || !(out.revents & POLLOUT)) return;
    std::string line = m_options.as_json ? e.line : event_text(members) + "\n";
    (void)write(STDOUT_FILENO, line.data(), line.size());  // nobody to tell
}

// --- 6 verbs: each gives its answer, or nothing when a waiter will -----------------------------------------------------

bool flag_of(const json &request, const char *member) {
    auto at = request.find(member);
    if (at == request.end()) return false;
    if (!at->is_boolean()) throw bad_request(std::string("\"") + member + "\" must be true or false");
    return at->get<bool>();
}

std::string text_of(const json &request, const char *member) {
    auto at = request.find(member);
    if (at == request.end() || !at->is_string()) throw bad_request(std::string("\"") + member + "\" must be a text");
    return at->get<std::string>();
}

// Seconds; nothing when the member is missing or null.
std::optional<double> seconds_of(const json &request, const char *member) {
    auto at = request.find(member);
    if (at == request.end() || at->is_null()) return std::nullopt;
    double seconds = at->is_number() ? at->get<double>() : -1;
    if (!(seconds >= 0 && seconds <= longest_wait))
        throw bad_request(std::string("\"") + member + "\" must be a number of seconds from 0 to 86400");
    return seconds;
}

uint64_t number_of(const json &request, const char *member) {
    auto at = request.find(member);
    if (at == request.end()) return 0;
    if (!at->is_number_unsigned())
        throw bad_request(std::string("\"") + member + "\" must be a whole number, not below 0");
    return at->get<uint64_t>();
}

std::set<std::string> kinds_of(const json &request) {
    std::set<std::string> kinds;
    auto                  at = request.find("kinds");
    if (at == request.end()) return kinds;
    if (!at->is_array()) throw bad_request("\"kinds\" must be a list of texts");
    for (const json &kind : *at) {
        if (!kind.is_string()) throw bad_request("\"kinds\" must be a list of texts");
        kinds.insert(kind.get<std::string>());
    }
    return kinds;
}

void agent::handle_request(client &c, const json &request, const json &id) {
    std::string         verb = text_of(request, "verb");
    std::optional<json> answer;

    if (verb == "status") answer = do_status(request, c, id);
    else if (verb == "start") answer = do_start(request, c, id, msg_tun_start);
    else if (verb == "restart") answer = do_start(request, c, id, msg_tun_restart);
    else if (verb == "stop") answer = do_stop(request, c, id);
    else if (verb == "wait") answer = do_wait(request, c, id);
    else if (verb == "events") answer = do_events(request, c, id);
    else if (verb == "stats") answer = do_stats(request, c, id);
    else if (verb == "debug") answer = do_debug(request);
    else if (verb == "resolve") answer = do_resolve(request);
    else if (verb == "hello") answer = do_hello(request, c, id);
    else if (verb == "info") answer = do_info(request, c, id);
    else if (verb == "shutdown") answer = do_shutdown(request, c, id);
    else throw bad_request("there is no such verb");

    if (answer) reply(c, id, verb, *answer);
    run_triggers();
}

json agent::status() const {
    json answer = {{"exit", m_state.judge(m_now)}};
    answer.update(m_state.describe(m_now));

    std::string interface = conf_value(m_options.conf, "tun_interface_name");
    answer["interface"]   = {{"value", interface.empty() ? json(nullptr) : json(interface)},
                             {"source", interface.empty() ? "unknown" : "inferred"},
                             {"note", "from " + m_options.conf}};

    const char *mode = !m_options.resolve_address.empty() ? "fixed" : !m_options.resolve_name.empty() ? "name" : "none";
    std::string value      = m_options.resolve_address.empty() ? m_options.resolve_name : m_options.resolve_address;
    answer["name_queries"] = {
        {"mode", mode},
        {"value", value.empty() ? json(nullptr) : json(value)},
        {"asked", m_state.name_queries},
        {"answered", m_names_answered},
        {"failed", m_names_failed},
        {"last_asked_age", m_state.name_queries ? json(m_now.mono - m_state.last_name_query.mono) : json(nullptr)},
        {"last_answer", m_last_name_answer.empty() ? json(nullptr) : json(m_last_name_answer)}};
    answer["agent"] = {{"pid", getpid()},
                       {"uptime", std::round((m_now.mono - m_begun.mono) * 1000) / 1000},
                       {"last_event", m_log.last()},
                       {"from_daemon", m_options.from_daemon},
                       {"to_daemon", m_options.to_daemon}};
    return answer;
}

// The answer when a record could not be written.
json agent::refuse_send(sent result) const {
    return {{"exit", result == sent::no_reader ? exit_daemon_not_running : exit_failed},
            {"sent", false},
            {"error", m_send_error}};
}

std::optional<json> agent::do_status(const json &request, client &c, const json &id) {
    bool is_fresh = flag_of(request, "fresh");
    check_reader();
    if (!is_fresh) return status();

    if (send(encode(msg_stats_request)) != sent::yes || send_query() != sent::yes) return status();
    uint64_t query    = m_state.queries_sent();
    double   deadline = m_now.mono + answer_seconds;
    wait_for(c, id, "status", deadline, [=, this](const moment &now, double &) -> std::optional<json> {
        if (m_state.is_answered(query) || m_state.running.is(false)) return status();
        if (now.mono < deadline) return std::nullopt;
        json answer     = status();
        answer["exit"]  = exit_no_answer;
        answer["error"] = "the daemon did not answer in time";
        return answer;
    });
    return std::nullopt;
}

// An answer about the tunnel; member: "note" or "error".
json agent::tunnel_answer(int exit, const char *member, const std::string &text) const {
    json known  = m_state.describe(m_now);
    json answer = {{"exit", exit}, {"sent", true}};
    if (!text.empty()) answer[member] = text;
    answer["tunnel"] = known["tunnel"];
    answer["cause"]  = known["cause"];
    return answer;
}

// start and restart. Accepted: TUN_IN_PROG came. Up: an UP came after that, or the tunnel was up and a start changed nothing.
std::optional<json> agent::do_start(const json &request, client &c, const json &id, uint32_t message) {
    std::optional<double> wait = seconds_of(request, "wait");
    uint64_t accepted = m_state.starts_accepted, refused = m_state.starts_refused, queries = m_state.name_queries;
    bool     was_up = message == msg_tun_start && m_state.tun.is(tunnel::up);

    if (sent result = send(encode(message)); result != sent::yes) return refuse_send(result);
    if (!wait) return tunnel_answer(exit_done, "note", "sent; the daemon reads it within 2 s");

    double deadline = m_now.mono + *wait, accept_deadline = m_now.mono + std::min(*wait, accept_seconds);
    std::optional<uint64_t> ups;  // reported before the start was accepted
    wait_for(c, id, message == msg_tun_start ? "start" : "restart", accept_deadline,
             [=, this](const moment &now, double &wake) mutable -> std::optional<json> {
                 if (m_state.running.is(false))
                     return tunnel_answer(exit_daemon_not_running, "error", "the daemon is gone");
                 if (m_state.starts_refused > refused)
                     return tunnel_answer(exit_failed, "error", "the daemon refused: " + m_state.cause.value);
                 if (m_state.starts_accepted == accepted) {
                     if (now.mono < accept_deadline) return std::nullopt;
                     return tunnel_answer(exit_no_answer, "error", "the daemon did not accept the start in time");
                 }
                 if (!ups) ups = m_state.ups;
                 wake = deadline;
                 if (m_state.ups > *ups) return tunnel_answer(exit_done, "note", "");
                 if (was_up && m_state.tun.is(tunnel::up))
                     return tunnel_answer(exit_done, "note", "the tunnel was up already");
                 if (now.mono < deadline) return std::nullopt;
                 uint64_t asked = m_state.name_queries - queries;
                 return tunnel_answer(exit_tunnel_not_up, "error",
                                      "the start was accepted, but the tunnel did not come up in time; " +
                                          (asked > 0
                                               ? "the daemon asked for the gateway's address " + std::to_string(asked) +
                                                     " time(s) meanwhile, so an attempt failed"
                                               : std::string("a first connection that fails is not reported")) +
                                          "; it goes on trying, its log tells why");
             });
    return std::nullopt;
}

// The process query behind the stop proves, by its answer, that the stop was read; the daemon does not report it.
std::optional<json> agent::do_stop(const json &request, client &c, const json &id) {
    std::optional<double> wait = seconds_of(request, "wait");
    if (sent result = send(encode(msg_tun_stop)); result != sent::yes) return refuse_send(result);
    sent confirmation = send_query();
    if (!wait) return tunnel_answer(exit_done, "note", "sent; the daemon reads it within 2 s");
    if (confirmation != sent::yes) return refuse_send(confirmation);

    uint64_t query    = m_state.queries_sent();
    double   deadline = m_now.mono + *wait;
    wait_for(c, id, "stop", deadline, [=, this](const moment &now, double &) -> std::optional<json> {
        if (m_state.is_answered(query)) return tunnel_answer(exit_done, "note", "");
        if (m_state.running.is(false)) return tunnel_answer(exit_daemon_not_running, "error", "the daemon is gone");
        if (now.mono < deadline) return std::nullopt;
        return tunnel_answer(exit_no_answer, "error", "the daemon did not read the stop in time");
    });
    return std::nullopt;
}

std::optional<json> agent::do_wait(const json &request, client &c, const json &id) {
    std::string word = text_of(request, "state");
    if (word != "up" && word != "down") throw bad_request("\"state\" must be \"up\" or \"down\"");
    tunnel state    = word == "up" ? tunnel::up : tunnel::down;
    double deadline = m_now.mono + seconds_of(request, "timeout").value_or(30);

    wait_for(c, id, "wait", deadline, [=, this](const moment &now, double &) -> std::optional<json> {
        std::optional<json> answer;
        if (m_state.tun.is(state)) answer = tunnel_answer(exit_done, "note", "");
        else if (now.mono >= deadline && m_state.running.is(false))
            answer = tunnel_answer(exit_daemon_not_running, "error", "the daemon is not running");
        else if (now.mono >= deadline)
            answer = tunnel_answer(state == tunnel::up ? exit_tunnel_not_up : exit_no_answer, "error",
                                   "the tunnel is not " + word);
        if (answer) answer->erase("sent");
        return answer;
    });
    return std::nullopt;
}

std::optional<json> agent::do_events(const json &request, client &c, const json &id) {
    uint64_t              since = number_of(request, "since"), count = number_of(request, "count");
    std::set<std::string> kinds = kinds_of(request);

    if (flag_of(request, "follow")) {
        c.follows   = true;
        c.kinds     = kinds;
        c.wanted    = count;
        c.follow_id = id;
        m_log.each_since(since, [&](const event &e) {
            push_event(c, e);
            return c.follows;
        });
        return std::nullopt;
    }

    // The kept lines go into the answer as they are: as a tree they would take ten times the memory.
    std::string list;
    uint64_t    listed = 0;
    m_log.each_since(since, [&](const event &e) {
        if (!kinds.empty() && !kinds.contains(e.kind)) return true;
        list += (listed == 0 ? "" : ",") + e.line.substr(0, e.line.size() - 1);
        return ++listed != count;
    });
    reply(c, id, "events", {{"exit", exit_done}, {"last", m_log.last()}});
    c.out.erase(c.out.size() - 2);  // the closing brace and the line end
    c.out += ",\"events\":[" + list + "]}\n";
    return std::nullopt;
}

json agent::statistics_answer(int exit, const std::string &error) const {
    json answer = {{"exit", exit}};
    if (!error.empty()) answer["error"] = error;
    answer["statistics"] = m_state.describe(m_now)["statistics"];
    return answer;
}

std::optional<json> agent::do_stats(const json &request, client &c, const json &id) {
    bool   is_fresh = flag_of(request, "fresh"), is_clear = flag_of(request, "clear");
    double patience = seconds_of(request, "timeout").value_or(answer_seconds);
    if (is_fresh && is_clear) throw bad_request("\"fresh\" and \"clear\" exclude each other");

    if (!is_fresh && !is_clear) {
        if (m_state.stats.known()) return statistics_answer(exit_done);
        if (m_state.running.is(false)) return statistics_answer(exit_daemon_not_running, "the daemon is not running");
        if (m_state.enabled.is(false))
            return statistics_answer(exit_feature_disabled, "the feature is disabled: the daemon sends no statistics");
        return statistics_answer(exit_unknown, "no statistics were reported");
    }

    if (sent result = send(encode(is_clear ? msg_stats_clear : msg_stats_request)); result != sent::yes)
        return refuse_send(result);
    if (sent result = send_query(); result != sent::yes) return refuse_send(result);
    uint64_t query = m_state.queries_sent();
    double   asked = m_now.mono, deadline = asked + patience;
    wait_for(c, id, "stats", deadline, [=, this](const moment &now, double &) -> std::optional<json> {
        if (m_state.running.is(false)) return statistics_answer(exit_daemon_not_running, "the daemon is gone");
        if (m_state.is_answered(query)) {
            if (m_state.stats.known() && m_state.stats.last.mono > asked) return statistics_answer(exit_done);
            return statistics_answer(exit_feature_disabled, "the feature is disabled: the daemon sends no statistics");
        }
        if (now.mono < deadline) return std::nullopt;
        return statistics_answer(exit_no_answer, "the daemon did not answer in time");
    });
    return std::nullopt;
}

std::optional<json> agent::do_debug(const json &request) {
    std::string category = text_of(request, "category"), value = text_of(request, "value");
    if (category != "level" && category != "destination")
        throw bad_request("\"category\" must be \"level\" or \"destination\"");
    if (category == "level" && !is_level_word(value))
        throw bad_request("a level is errors, warnings, info, debug, ssl-dbg or buf-print");
    if (category == "destination" && !is_destination_word(value))
        throw bad_request("a destination is file, console or both");

    sent result = send(encode_debug(category, value), {{"category", category}, {"value", value}});
    if (result != sent::yes) return refuse_send(result);
    bool has_thread = m_state.tun.is(tunnel::up) || m_state.tun.is(tunnel::in_progress) || m_state.enabled.is(true);
    return json{{"exit", exit_done},
                {"sent", true},
                {"note", has_thread ? "sent; the daemon reads it within 2 s and confirms nothing"
                                    : "sent; only a running tunnel obeys, and none is known to run"}};
}

std::optional<json> agent::do_resolve(const json &request) {
    std::string address = text_of(request, "address");
    uint8_t     bytes[16];
    if (inet_pton(AF_INET, address.c_str(), bytes) != 1 && inet_pton(AF_INET6, address.c_str(), bytes) != 1)
        throw bad_request("\"address\" must be an IPv4 or IPv6 address");
    if (sent result = send(encode_text(msg_name_answer, address), {{"text", address}}); result != sent::yes)
        return refuse_send(result);
    return json{{"exit", exit_done}, {"sent", true}, {"note", "sent; a running tunnel connects anew"}};
}

std::optional<json> agent::do_hello(const json &request, client &c, const json &id) {
    double   patience = seconds_of(request, "timeout").value_or(answer_seconds);
    uint64_t hellos   = m_state.hellos;
    if (sent result = send(encode(msg_hello)); result != sent::yes) return refuse_send(result);

    double deadline = m_now.mono + patience;
    wait_for(c, id, "hello", deadline, [=, this](const moment &now, double &) -> std::optional<json> {
        if (m_state.hellos > hellos)
            return json{{"exit", exit_done}, {"sent", true}, {"note", "the daemon said HELLO"}};
        if (m_state.running.is(false))
            return json{{"exit", exit_daemon_not_running}, {"sent", true}, {"error", "the daemon is gone"}};
        if (now.mono < deadline) return std::nullopt;
        return json{{"exit", exit_no_answer}, {"sent", true}, {"error", "the daemon did not answer in time"}};
    });
    return std::nullopt;
}

std::optional<json> agent::do_info(const json &request, client &c, const json &id) {
    double patience = seconds_of(request, "timeout").value_or(answer_seconds);
    if (sent result = send_query(); result != sent::yes) return refuse_send(result);

    uint64_t query    = m_state.queries_sent();
    double   deadline = m_now.mono + patience;
    wait_for(c, id, "info", deadline, [=, this](const moment &now, double &) -> std::optional<json> {
        json answer = {{"exit", exit_done}, {"sent", true}, {"daemon_pid", m_state.describe(now)["daemon_pid"]}};
        if (m_state.is_answered(query)) return answer;
        if (m_state.running.is(true) && now.mono < deadline) return std::nullopt;
        answer["exit"]  = m_state.running.is(true) ? exit_no_answer : exit_daemon_not_running;
        answer["error"] = m_state.running.is(true) ? "the daemon did not answer in time" : "the daemon is gone";
        return answer;
    });
    return std::nullopt;
}

// The query before the exit message makes sure that the process to wait for is known: the daemon handles them in order.
std::optional<json> agent::do_shutdown(const json &request, client &c, const json &id) {
    std::optional<double> wait = seconds_of(request, "wait");
    json                  pid  = m_state.describe(m_now)["daemon_pid"];
    if (sent result = is_process_alive() ? sent::yes : send_query(); result != sent::yes) return refuse_send(result);
    if (sent result = send(encode(msg_exit)); result != sent::yes) return refuse_send(result);
    if (!wait)
        return json{
            {"exit", exit_done}, {"sent", true}, {"note", "sent; the daemon reads it within 2 s"}, {"daemon_pid", pid}};

    double deadline = m_now.mono + *wait;
    wait_for(c, id, "shutdown", deadline, [=, this](const moment &now, double &) mutable -> std::optional<json> {
        if (m_state.pid.known()) pid = m_state.describe(now)["daemon_pid"];
        json answer = {{"exit", exit_done}, {"sent", true}, {"daemon_pid", pid}};
        if (!is_process_alive() && reader_of(m_options.to_daemon) == reader::absent) {
            answer["note"] = "the daemon has ended";
            return answer;
        }
        if (now.mono < deadline) return std::nullopt;
        answer["exit"]  = exit_no_answer;
        answer["error"] = "the daemon's process did not end in time";
        return answer;
    });
    return std::nullopt;
}

// --- 7 waiting verbs ----------------------------------------------------------------------------------------------------

void agent::wait_for(client &c, const json &id, const std::string &verb, double wake,
                     std::function<std::optional<json>(const moment &, double &)> step) {
    auto named = [verb, step = std::move(step)](const moment &now, double &next) mutable {
        std::optional<json> answer = step(now, next);
        if (answer) (*answer)["verb"] = verb;
        return answer;
    };
    m_waiters.push_back({c.number, id, wake, std::move(named)});
}

// Steps only look at what is known, so no step can make or end another waiter.
void agent::run_waiters() {
    for (auto w = m_waiters.begin(); w != m_waiters.end();) {
        std::optional<json> answer = w->step(m_now, w->wake);
        if (!answer) {
            ++w;
            continue;
        }
        auto c = std::find_if(m_clients.begin(), m_clients.end(),
                              [&](const client &each) { return each.number == w->client; });
        if (c != m_clients.end()) reply(*c, w->id, (*answer)["verb"].get<std::string>(), *answer);
        w = m_waiters.erase(w);
    }
}

// --- 8 loop -------------------------------------------------------------------------------------------------------------

// Milliseconds until something is due.
int agent::timeout() const {
    double next = m_next_check;
    if (m_probe_at > 0) next = std::min(next, m_probe_at);
    if (m_resolver.descriptor() >= 0) next = std::min(next, m_lookup_deadline);
    if (auto deadline = m_hooks.deadline()) next = std::min(next, *deadline);
    for (const waiter &w : m_waiters) next = std::min(next, w.wake);
    double left = next - present().mono;
    return left <= 0 ? 0 : static_cast<int>(left * 1000) + 1;
}

void agent::run_timers() {
    if (m_now.mono >= m_next_check) check_reader();
    if (m_probe_at > 0 && m_now.mono >= m_probe_at) probe();
    if (m_resolver.descriptor() >= 0 && m_now.mono >= m_lookup_deadline) {
        m_resolver.abandon();
        name_answer_failed(m_options.resolve_name + ": the lookup takes too long");
    }
    m_hooks.tick(m_now);
    run_triggers();
    run_waiters();
}

int agent::run() {
    m_log.on_event = [this](const event &e, const json &members) { on_event(e, members); };
    m_log.add(m_now, "agent_started", {{"pid", getpid()}});
    check_reader();

    while (!m_stop) {
        std::vector<pollfd> watched = {{m_signals, POLLIN, 0},
                                       {m_pipe, POLLIN, 0},
                                       {m_listener, POLLIN, 0},
                                       {m_resolver.descriptor(), POLLIN, 0},
                                       {m_process, POLLIN, 0}};
        size_t              fixed   = watched.size();
        for (const client &c : m_clients)
            watched.push_back(
                {c.fd, static_cast<short>((c.input_over ? 0 : POLLIN) | (c.out.empty() ? 0 : POLLOUT)), 0});
        if (poll(watched.data(), watched.size(), timeout()) < 0 && errno != EINTR) break;
        m_now = present();

        signalfd_siginfo signal_info;
        while (read(m_signals, &signal_info, sizeof signal_info) == sizeof signal_info)
            if (signal_info.ssi_signo != SIGCHLD) m_stop = true;  // a child's end is found by the hooks' tick
        if (watched[1].revents) read_pipe();
        if (watched[3].revents) on_lookup_done();
        if (watched[4].revents) {
            close(m_process);
            m_process = -1;
            check_reader();
        }

        size_t at = fixed;
        for (client &c : m_clients) {
            short seen = watched[at++].revents;
            if (seen & POLLIN) read_client(c);  // also what a client sent before it went
            else if (seen & (POLLERR | POLLHUP | POLLNVAL)) c.is_dead = true;
        }
        if (watched[2].revents) accept_client();
        run_timers();
        for (client &c : m_clients)
            if (!c.is_dead && !c.out.empty()) write_client(c);
        drop_dead_clients();
    }

    m_hooks.stop();
    for (client &c : m_clients) close(c.fd);
    if (m_process >= 0) close(m_process);
    return exit_done;
}

}  // namespace

int run_agent(const agent_options &options) {
    int from_daemon = -1, listener = -1;
    int signals = open_signals();
    if (signals < 0) return refuse(exit_failed, failure("set up", "signals"));

    int status = open_own_pipe(options.from_daemon, from_daemon);
    if (status == exit_done) {
        status = open_socket(options.socket, listener);
        if (status == exit_done) status = agent(options, signals, from_daemon, listener).run();
        if (listener >= 0) unlink(options.socket.c_str());
        unlink(options.from_daemon.c_str());
    }
    for (int fd : {listener, from_daemon, signals})
        if (fd >= 0) close(fd);
    return status;
}

}  // namespace wlcctl
