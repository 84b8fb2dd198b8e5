#include "agent.h"

#include "common/file_watch.h"
#include "common/log.h"
#include "common/loop.h"

#include "follower.h"
#include "hooks.h"
#include "interface.h"
#include "keeper.h"
#include "known.h"
#include "memory.h"
#include "orders.h"
#include "pipe.h"
#include "present.h"
#include "supervisor.h"
#include "telemetry.h"
#include "verbs.h"

#include <arpa/inet.h>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <grp.h>
#include <memory>
#include <poll.h>
#include <sys/socket.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

// Contents: 1 set-up  2 messages  3 the daemon comes and goes  4 the log  5 hooks  6 reasons  7 memory  8 the end
// From the daemon: pipe -> on_message -> controller_state::on_message -> settle (reasons, hooks, waiting verbs)
// From its log:    follower -> on_log_entry -> diagnosis::on_log -> settle

namespace wlcctl {

namespace {

constexpr milliseconds check_period{1000};       // between two looks at everything that tells nothing by itself
constexpr milliseconds probe_delay{500};         // for the HELLO of a daemon that has just appeared
constexpr milliseconds save_delay{200};          // so that a row of changes is kept once
constexpr milliseconds tcp_patience{2500};       // for a connection of our own
constexpr double       second_check     = 2;     // seconds between two looks for a second daemon, once there was one
constexpr double       quiet_statistics = 1.5;   // seconds between our questions while the log says too little
constexpr double       quiet_patience   = 30;    // before one that was not answered is asked again
constexpr int64_t      log_grain        = 1000;  // milliseconds: the log's times are whole seconds
constexpr double       first_lines      = 3;     // seconds in which the lines of a tunnel that has come up are there

int refuse(int status, const std::string &why) {
    fprintf(stderr, "wlcctl agent: %s\n", why.c_str());
    return status;
}

std::string directory_of(const std::string &path) {
    size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

bool is_full(const std::string &directory) {
    struct statvfs facts;
    return statvfs(directory.c_str(), &facts) == 0 && facts.f_blocks > 0 && facts.f_bavail == 0;
}

// When a process began, on the wall's clock; 0 if that is not known.
int64_t wall_start_of(int32_t pid, const moment &now) {
    uint64_t ticks = start_time_of(pid);
    timespec up{};
    clock_gettime(CLOCK_BOOTTIME, &up);
    if (ticks == 0) return 0;
    double age = static_cast<double>(up.tv_sec) + static_cast<double>(up.tv_nsec) / 1e9 -
                 static_cast<double>(ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
    return now.wall - static_cast<int64_t>(age * 1000);
}

}  // namespace

class agent {
public:
    explicit agent(const agent_options &options);
    int run();

private:
    int  open_all();
    void connect_rooms();
    void begin();
    void print_event(const event &e, const json &members);

    void    on_message(const message &m);
    void    probe();
    void    check();
    void    check_reader();
    int32_t kept_daemon() const;
    void    find_daemon();
    void    look_for_second();

    void on_log_entry(const log_entry &entry, bool is_old);
    void learn_from_log();
    void try_connection();

    void run_triggers();
    void run_hook(const trigger &due);

    void settle();
    void settle_reason(const moment &now);
    void check_disk(const moment &now);
    void check_interface();
    void ask_quietly(const moment &now);

    void save_soon();
    void save();
    void load();
    void finish();

    const agent_options                       &options_;
    loop                                       loop_;
    event_log                                  log_{event_kinds};
    daemon_pipe                                pipe_;
    knowledge                                  known_;
    orders                                     orders_;
    hooks                                      hooks_;
    keeper                                     keeper_;
    verbs                                      verbs_;
    telemetry                                  telemetry_;
    log_follower                               follower_;
    supervisor                                 supervisor_;
    interface_watch                            interfaces_;
    std::unique_ptr<file_watch>                conf_watch_;
    timer                                      check_, probe_, save_, tcp_timer_;
    std::vector<std::unique_ptr<signal_watch>> signals_;
    unique_fd                                  tcp_;
    std::unique_ptr<descriptor_watch>          tcp_watch_;

    json                 kept_;  // of an earlier agent
    bool                 is_settling_        = false;
    bool                 is_finishing_       = false;
    bool                 was_interface_seen_ = false;
    bool                 is_hidden_          = false;  // the daemon's pipe may not be opened
    double               next_second_check_  = 0;
    double               asked_at_           = -quiet_patience;  // when the counters were asked for
    std::vector<int32_t> readers_;                               // when there are too many
    std::vector<int32_t> answered_;                              // ids that came as answers from more than one process
    std::string          memory_error_;
};

// ---- 1 set-up -------------------------------------------------------------------------------------------------------

agent::agent(const agent_options &options)
    : options_(options),
      pipe_(loop_, options.from_daemon, options.to_daemon),
      known_(log_, [this] { return pipe_.is_process_alive(); }),
      orders_(log_, known_, pipe_),
      hooks_(loop_, log_, options.hook_timeout),
      keeper_(loop_, options, known_, orders_, pipe_),
      verbs_(loop_, options, known_, orders_, pipe_, keeper_),
      telemetry_(loop_, options, known_, keeper_, verbs_),
      follower_(options.daemon_log, [this](const log_entry &entry, bool is_old) { on_log_entry(entry, is_old); }),
      supervisor_(loop_, log_, options.run),
      interfaces_(loop_, [this] { check_interface(); }),
      check_(loop_),
      probe_(loop_),
      save_(loop_),
      tcp_timer_(loop_) {
    known_.conf_path = options.conf;
}

int agent::open_all() {
    std::string why;
    if (int status = pipe_.open(why); status != exit_done) return refuse(status, why);
    if (options_.socket.empty() || options_.socket.size() > 107)
        return refuse(exit_usage, "the socket's path must have 1 to 107 characters");
    try {
        int status = exit_done;
        if (std::string error = telemetry_.open(status); !error.empty()) return refuse(status, error);
        verbs_.server().listen(options_.socket);
        if (options_.socket_group.empty()) return exit_done;
        const group *entry = getgrnam(options_.socket_group.c_str());
        if (!entry) return refuse(exit_failed, "there is no group " + printable(options_.socket_group));
        verbs_.server().listen_read_only(
            options_.watch_socket.empty() ? options_.socket + ".ro" : options_.watch_socket, entry->gr_gid);
    } catch (const std::exception &error) {
        return refuse(exit_failed, error.what());
    }
    return exit_done;
}

void agent::connect_rooms() {
    log_.listen([this](const event &e, const json &members) { print_event(e, members); });
    pipe_.on_message     = [this](const message &m) { on_message(m); };
    pipe_.on_garbage     = [this](size_t bytes) { log_.add("garbage", {{"bytes", bytes}}); };
    pipe_.on_process_end = [this] {
        check_reader();
        if (known_.state.running.is(true)) probe();  // somebody else reads on
        settle();
    };
    verbs_.look             = [this] { check(); };
    keeper_.on_change       = [this] { save_soon(); };
    keeper_.is_log_followed = [this] { return follower_.is_open() && !known_.why.is_level_low; };
    hooks_.on_end           = [this](const std::string &name, const hook_result &result) {
        known_.hook_results[name] = result;
        save_soon();
        verbs_.run_waiters();
    };
    supervisor_.on_refusal = [this] {
        known_.why.state("not-permitted", "the daemon refused to run: it must be root", "agent", present());
    };
    known_.why.on_phase = [this](phase step) {
        json members = {{"phase", phase_name(step)}};
        if (!known_.why.gateway.empty()) members["address"] = known_.why.gateway;
        log_.add("phase", members);
    };
    known_.why.on_reason = [this](const reason &why) {
        const reason_entry *entry = find_reason(why.code);
        log_.add("reason", {{"code", why.code.empty() ? json(nullptr) : json(why.code)},
                            {"cause", entry ? entry->cause : ""},
                            {"remedy", entry ? entry->remedy : ""},
                            {"detail", why.detail},
                            {"source", why.source}});
        if (why.code == "gateway-unreachable" && why.source == "log") try_connection();
        save_soon();
    };
    known_.why.on_unanswered = [this](unsigned) {
        save_soon();
        settle();
    };
}

// What earlier lives left behind first, then the daemon's log, then the daemon itself.
void agent::begin() {
    load();
    if (!options_.daemon_log.empty()) follower_.read_past({});
    connect_rooms();
    log_.add("agent_started", {{"pid", getpid()}, {"keep_up", options_.keep_up}});
    check_reader();
    learn_from_log();
    if (!options_.daemon_log.empty()) follower_.watch(loop_);
    conf_watch_ = std::make_unique<file_watch>(loop_, options_.conf, [this] {
        if (options_.keep_up) keeper_.consider(present());
    });
    check_.repeat(check_period, [this] {
        check();
        settle();
    });
    if (!options_.run.empty()) {
        if (known_.state.running.is(true)) supervisor_.adopt();
        else supervisor_.start();
    }
    settle();
}

int agent::run() {
    signal(SIGPIPE, SIG_IGN);
    for (int number : {SIGTERM, SIGINT, SIGHUP})  // before the socket tells that the agent is ready
        signals_.push_back(std::make_unique<signal_watch>(loop_, number, [this] { finish(); }));
    if (int status = open_all(); status != exit_done) return status;
    begin();
    loop_.run();
    save();
    telemetry_.finish(present());
    return exit_done;
}

// A reader of standard output that does not read must not stop the agent: the line is lost then, the event is not.
void agent::print_event(const event &e, const json &members) {
    if (options_.quiet) return;
    pollfd out = {STDOUT_FILENO, POLLOUT, 0};
    if (poll(&out, 1, 0) != 1 || !(out.revents & POLLOUT)) return;
    std::string line = (options_.as_json ? log_.text(e) : event_text(members)) + "\n";
    (void)!write(STDOUT_FILENO, line.data(), line.size());  // nobody to tell
}

// ---- 2 messages -----------------------------------------------------------------------------------------------------

void agent::on_message(const message &m) {
    moment   now    = present();
    uint64_t begins = known_.state.beginnings, accepted = known_.state.starts_accepted;
    int32_t  known_process = pipe_.process();
    // A second daemon answers as well: its process id is none of a daemon that began afresh.
    bool has_answered = known_process != 0 && known_.state.pid.how == source::reported;
    bool is_of_second = m.kind == report::process && has_answered && m.pid != known_process && is_alive(m.pid);
    if (is_of_second) {
        answered_ = {known_process, m.pid};
        look_for_second();
    }
    known_.state.on_message(m, now, is_of_second);
    if (m.kind == report::process && !is_of_second) pipe_.watch_process(m.pid);
    if (m.kind == report::hello) {
        // A HELLO may be that of a new process: its id tells. The daemon answers HELLO with HELLO, so it gets none
        // back.
        probe_.stop();
        if (pipe_.is_process_alive()) look_for_second();
        probe();
    }
    if (m.kind == report::statistics) {
        known_.book.on_report(m.values, now);
        known_.why.on_counters(m.values[dpd_requests], m.values[dpd_responses], now);
    }
    if (known_.state.beginnings != begins) {
        known_.why.on_begun(now);
        known_.has_been_started = false;
    }
    if (known_.state.starts_accepted != accepted) known_.why.on_start_accepted(now);
    if (m.kind == report::up) {
        known_.why.on_up(now);
        keeper_.on_up(now);
        supervisor_.praise();
    }
    if (m.kind == report::down) {
        known_.why.on_down(now);
        int code = cause_code(m.text);
        if (code == 1 || code == 2) known_.why.state("start-failed", m.text, "message", now);
        keeper_.on_progress(now);
    }
    if (m.kind == report::name_query) {
        known_.why.on_name_query(now);
        keeper_.on_name_query(now);
    }
    save_soon();
    settle();
}

// Learns what can be learnt from a daemon that one knows nothing of.
void agent::probe() {
    if (!known_.state.enabled.known() && orders_.send(encode(msg_stats_request)) != sent::yes) return;
    (void)orders_.send_query();
}

// ---- 3 the daemon comes and goes ------------------------------------------------------------------------------------

void agent::check() {
    moment now = present();
    check_reader();
    if (!options_.daemon_log.empty()) follower_.look();
    known_.why.tick(now);
    check_disk(now);
    check_interface();
    ask_quietly(now);
    if (!readers_.empty() && now.mono >= next_second_check_) look_for_second();
}

void agent::check_reader() {
    moment now         = present();
    bool   was_running = known_.state.running.is(true);
    reader who         = pipe_.daemon_reader();
    is_hidden_         = who == reader::hidden;
    if (who != reader::hidden) known_.state.on_daemon_reader(who == reader::present, now);
    if (who == reader::absent && was_running) known_.why.on_begun(now);
    if (who == reader::absent) supervisor_.on_gone();
    if (who != reader::present || was_running) return;
    find_daemon();
    if (!probe_.is_running()) probe_.start(probe_delay, [this] { probe(); });
}

// The daemon that an earlier agent knew, if that very process still runs; else 0.
int32_t agent::kept_daemon() const {
    if (!kept_.is_object() || !kept_.contains("daemon") || !kept_["daemon"].is_object()) return 0;
    json number = kept_["daemon"].value("pid", json(0)), start = kept_["daemon"].value("start", json(0));
    if (!number.is_number_integer()) return 0;
    int32_t pid = number.get<int32_t>();
    return pid > 0 && start_time_of(pid) != 0 && start == start_time_of(pid) ? pid : 0;
}

// The process that reads the pipe, when it may be looked up: then what an earlier agent knew of it is known again.
void agent::find_daemon() {
    std::vector<int32_t> found = readers_of(options_.to_daemon);
    if (found.size() > 1) look_for_second();
    // A confined agent may not see who holds a pipe open. Then it is who was known to, while that process runs.
    if (int32_t kept = kept_daemon(); found.empty() && kept) found.push_back(kept);
    if (found.size() != 1) return;
    moment now = present();
    pipe_.watch_process(found[0]);
    known_.state.on_process_found(found[0], now);
}

void agent::look_for_second() {
    moment               now   = present();
    std::vector<int32_t> found = readers_of(options_.to_daemon);
    next_second_check_         = now.mono + second_check;
    // A confined agent does not see every holder of a pipe, but whoever answers reads it.
    std::erase_if(answered_, [](int32_t pid) { return !is_alive(pid); });
    if (answered_.size() > 1) found.insert(found.end(), answered_.begin(), answered_.end());
    std::sort(found.begin(), found.end());
    found.erase(std::unique(found.begin(), found.end()), found.end());
    if (found.size() < 2) {
        readers_.clear();
        known_.why.withdraw("daemon-second", now);
        return;
    }
    if (found == readers_) return;
    readers_ = found;
    std::string pids;
    for (int32_t pid : found) pids += (pids.empty() ? "processes " : ", ") + std::to_string(pid);
    log_.add(now, "daemon_second", {{"pids", found}});
    known_.why.state("daemon-second", pids, "agent", now);
}

// ---- 4 the log ------------------------------------------------------------------------------------------------------

void agent::on_log_entry(const log_entry &entry, bool is_old) {
    moment now = present();
    if (is_old && entry.wall != 0) now = {now.mono - static_cast<double>(now.wall - entry.wall) / 1000, entry.wall};
    known_.why.on_log(entry, now);
    if (!is_old && known_.why.step == phase::back_off) keeper_.consider(now);
    if (!is_old) settle();
}

// The log of the daemon that runs says whether its tunnel is up, also to an agent that has begun just now. Lines of the
// second in which that daemon began may be those of the one before it.
void agent::learn_from_log() {
    moment     now           = present();
    diagnosis &why           = known_.why;
    int32_t    pid           = pipe_.process();
    int64_t    began         = pid ? wall_start_of(pid, now) : 0;
    bool       is_same       = pid && kept_daemon() == pid;
    reason     kept_reason   = why.why;  // by the log's last lines
    int64_t    own_lines     = began == 0 ? 0 : began - began % log_grain + log_grain;
    bool       is_of_process = pid && why.last_line && why.last_line->wall >= own_lines;
    if (!is_of_process) why.on_begun(now);
    known_.load(kept_, is_same, now);
    if (!kept_reason.code.empty()) why.why = kept_reason;
    if (!is_of_process) {
        if (!is_same) why.why = {};
        return;
    }
    if (why.logged_up == true) {
        if (!known_.state.tun.is(tunnel::up))
            known_.state.restore_tunnel(tunnel::up, source::logged, why.step_since, now);
        if (!why.why.code.empty() && why.step == phase::up) why.why = {};
    } else if (why.has_stopped) {
        known_.state.restore_tunnel(tunnel::down, source::logged, why.step_since, now);
        known_.state.enabled.set(source::logged, false, now, "the log tells of an orderly end");
    } else if (why.logged_up == false) {
        known_.state.restore_tunnel(tunnel::down, source::logged, why.step_since, now);
        known_.state.enabled.set(source::logged, true, now, "the log tells of no orderly end");
    } else if (why.step != phase::idle && !known_.state.tun.known()) {
        known_.state.restore_tunnel(tunnel::in_progress, source::logged, why.step_since, now);
    }
    if (known_.state.tun.is(tunnel::up) && !why.last_answer) why.last_answer = now;  // from here on one must come
}

// The daemon's line does not say why a connection failed; one of our own does.
void agent::try_connection() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port   = htons(static_cast<uint16_t>(known_.why.port));
    if (inet_pton(AF_INET, known_.why.gateway.c_str(), &address.sin_addr) != 1 || known_.why.port == 0) return;
    tcp_watch_.reset();
    tcp_.reset(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!tcp_) return;
    auto tell = [this](int error) {
        tcp_timer_.stop();
        tcp_watch_.reset();
        tcp_.reset();
        known_.why.on_tcp_verdict(error == ECONNREFUSED ? tcp_verdict::refused
                                  : error == 0          ? tcp_verdict::accepted
                                                        : tcp_verdict::unreachable,
                                  present());
        settle();
    };
    if (connect(tcp_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) return tell(0);
    if (errno != EINPROGRESS) return tell(errno);
    tcp_watch_ = std::make_unique<descriptor_watch>(loop_, tcp_.get());
    tcp_watch_->start(writable, [this, tell](unsigned) {
        int       error = 0;
        socklen_t size  = sizeof error;
        getsockopt(tcp_.get(), SOL_SOCKET, SO_ERROR, &error, &size);
        tell(error);
    });
    tcp_timer_.start(tcp_patience, [tell] { tell(ETIMEDOUT); });
}

// ---- 5 hooks --------------------------------------------------------------------------------------------------------

void agent::run_triggers() {
    for (const trigger &due : known_.state.take_triggers()) run_hook(due);
}

void agent::run_hook(const trigger &due) {
    const char        *name    = due.kind == hook_kind::up ? "up" : due.kind == hook_kind::down ? "down" : "dns";
    const std::string &command = due.kind == hook_kind::up     ? options_.on_up
                                 : due.kind == hook_kind::down ? options_.on_down
                                                               : options_.on_dns;
    if (command.empty()) return;
    const controller_state &state = known_.state;
    std::string             servers;
    for (const std::string &server : state.dns.value) servers += (servers.empty() ? "" : " ") + server;
    bool is_down = state.tun.is(tunnel::down);
    auto conf    = [this](const char *key) { return conf_value(options_.conf, key); };
    hooks_.run(name, command,
               {std::string("TLSC_EVENT=") + name, std::string("TLSC_STATE=") + tunnel_name(state.tun),
                std::string("TLSC_SOURCE=") + source_name(state.tun.how),
                "TLSC_CAUSE=" + (is_down ? state.cause.value : ""),
                "TLSC_REASON=" + (is_down ? known_.why.why.code : ""),
                "TLSC_INNER_IP=" + (state.inner_ip.known() ? state.inner_ip.value : known_.why.inner_ip),
                "TLSC_DNS=" + servers, "TLSC_TUN=" + conf("tun_interface_name"),
                "TLSC_MANAGEMENT_IP=" + conf("management_ip"), "TLSC_GATEWAY=" + conf("server_ip_address"),
                "TLSC_PID=" + (state.pid.known() ? std::to_string(state.pid.value) : ""),
                "TLSC_EVENT_NUMBER=" + std::to_string(due.event)},
               due.event);
}

// ---- 6 reasons ------------------------------------------------------------------------------------------------------

// After everything that happened: reasons, what to do, hooks, and whoever waits.
void agent::settle() {
    if (is_settling_ || is_finishing_) return;
    struct settling {  // also when something throws
        bool &is_so;
        ~settling() { is_so = false; }
    } ends{is_settling_};
    is_settling_ = true;
    moment now   = present();
    settle_reason(now);
    keeper_.consider(now);
    known_.settle(now);
    telemetry_.look(now);
    run_triggers();
    verbs_.run_waiters();
}

// What stands above all that the log says.
void agent::settle_reason(const moment &now) {
    diagnosis              &why   = known_.why;
    const controller_state &state = known_.state;
    if (is_hidden_) return why.state("not-permitted", options_.to_daemon + " may not be opened", "agent", now);
    if (state.running.is(false)) {
        if (why.why.code != "not-permitted" || options_.run.empty()) why.state("daemon-gone", "", "agent", now);
        return;
    }
    for (const char *over : {"daemon-gone", "not-permitted"})
        if (state.running.is(true) && why.why.source == "agent") why.withdraw(over, now);
    if (!readers_.empty()) return;
    bool is_idle = state.enabled.is(false) && !state.tun.is(tunnel::up);
    bool is_held = why.why.code == "conf-missing" || why.why.code == "conf-invalid" ||
                   why.why.code == "name-unresolved";
    if (is_idle && !keeper_.is_wanted()) return why.state("stopped-by-order", "", "message", now);
    if (is_idle && (state.last_command.id == msg_tun_stop || why.has_stopped))
        return why.state("stopped-by-order", "", "message", now);
    if (is_idle && !is_held && !known_.has_been_started && why.why.code != "start-failed" &&
        why.why.code != "disk-full")
        return why.state("never-started", "", "agent", now);
    for (const char *over : {"stopped-by-order", "never-started"})
        if (!is_idle) why.withdraw(over, now);
    if (state.tun.is(tunnel::up) && was_interface_seen_ && !known_.interface.exists && why.step == phase::up)
        why.state("tun-missing", known_.interface_name + " was removed", "kernel", now);
    else if (known_.interface.exists && why.why.source == "kernel") why.withdraw("tun-missing", now);
}

void agent::check_disk(const moment &now) {
    std::string full;
    for (const std::string &directory : {directory_of(options_.daemon_log), directory_of(options_.conf)})
        if (is_full(directory)) full = directory;
    diagnosis &why = known_.why;
    if (full.empty()) {
        if (why.held == "disk-full") why.held.clear();
        return why.withdraw("disk-full", now);
    }
    if (known_.state.running.is(false)) return;
    why.state("disk-full", full, "kernel", now);
    why.held = "disk-full";
}

void agent::check_interface() {
    const std::string &logged = known_.why.interface, &written = known_.interface_name;
    const std::string &name  = logged.empty() ? written : logged;
    interface_facts    facts = read_interface(name);
    was_interface_seen_      = was_interface_seen_ || facts.exists;
    if (!known_.state.tun.is(tunnel::up) && !facts.exists) was_interface_seen_ = false;
    if (facts == known_.interface) return;
    known_.interface = facts;
    log_.add("interface", {{"name", printable(name, 64)},
                           {"exists", facts.exists},
                           {"up", facts.is_up},
                           {"mtu", facts.mtu},
                           {"addresses", facts.addresses}});
    if (!is_settling_) settle();
}

// A log that tells of no keep-alive leaves the counters, which the daemon tells once a minute only. One question is
// under way at a time: a daemon that does not read must not find its pipe full of them.
void agent::ask_quietly(const moment &now) {
    const controller_state &state = known_.state;
    bool is_needed = state.tun.is(tunnel::up) && state.running.is(true) && !known_.why.is_log_telling(now) &&
                     now.mono - state.tun.since.mono > first_lines;
    if (!is_needed) return known_.counters_asked.reset();
    if (!known_.counters_asked) known_.counters_asked = now;
    bool is_answered = state.stats.known() && state.stats.last.mono > asked_at_;
    if (now.mono < asked_at_ + (is_answered ? quiet_statistics : quiet_patience)) return;
    asked_at_ = now.mono;
    (void)orders_.send_quietly(encode(msg_stats_request));
}

// ---- 7 memory -------------------------------------------------------------------------------------------------------

void agent::save_soon() {
    if (options_.memory.empty() || save_.is_running() || is_finishing_) return;
    save_.start(save_delay, [this] { save(); });
}

void agent::save() {
    if (options_.memory.empty()) return;
    int32_t pid       = pipe_.process();
    json    kept      = known_.save(pid, start_time_of(pid), present());
    kept["keeper"]    = keeper_.save();
    kept["metrics"]   = telemetry_.save();
    std::string error = write_memory(options_.memory, json_line(kept));
    if (!error.empty() && error != memory_error_) log_failure("agent", error.c_str());
    memory_error_ = error;
}

void agent::load() {
    if (options_.memory.empty()) return;
    kept_ = read_memory(options_.memory);
    if (kept_.is_object()) keeper_.load(kept_);
    telemetry_.load(kept_);
}

// ---- 8 the end ------------------------------------------------------------------------------------------------------

void agent::finish() {
    if (is_finishing_) return loop_.stop();  // a second signal does not wait
    save();
    is_finishing_ = true;
    hooks_.stop([this] {
        if (options_.run.empty()) return loop_.stop();
        if (supervisor_.has_adopted()) pipe_.signal_process(SIGTERM);
        supervisor_.stop([this] { loop_.stop(); });
    });
}

int run_agent(const agent_options &options) {
    try {
        open_log("wlcctl", "-", options.log_level);
        auto the_agent = std::make_unique<agent>(options);
        int  status    = the_agent->run();
        the_agent.reset();
        return status;
    } catch (const std::exception &error) {
        return refuse(exit_failed, error.what());
    }
}

}  // namespace wlcctl
