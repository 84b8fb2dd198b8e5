// The agent as a process of its own; this test plays the daemon at its pipes and the verbs at its socket.
#include "agent.h"
#include "base.h"
#include "common/json_server.h"
#include "pipe.h"
#include "state.h"
#include "wire.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace wlcctl;
namespace fs = std::filesystem;

namespace {

constexpr int patience = 5000;  // milliseconds until something that must come is missed

// One connection to the agent.
class connection {
public:
    explicit connection(const std::string &path) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, path.data(), path.size());
        fd_      = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        is_open_ = connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    }
    ~connection() { close(fd_); }

    bool is_open() const { return is_open_; }
    void say(const std::string &line) { (void)!send(fd_, line.data(), line.size(), MSG_NOSIGNAL); }
    void say(const json &request) { say(json_line(request)); }
    void end_input() { shutdown(fd_, SHUT_WR); }

    // The next line; null when the agent closed the connection or says nothing.
    json hear() {
        for (;;) {
            if (size_t end = in_.find('\n'); end != std::string::npos) {
                std::string line = in_.substr(0, end);
                in_.erase(0, end + 1);
                return json::parse(line);
            }
            pollfd  state = {fd_, POLLIN, 0};
            char    bytes[65536];
            ssize_t n = poll(&state, 1, patience) == 1 ? recv(fd_, bytes, sizeof bytes, 0) : 0;
            if (n <= 0) return nullptr;
            in_.append(bytes, static_cast<size_t>(n));
        }
    }
    json ask(const json &request) {
        say(request);
        return hear();
    }

private:
    int         fd_;
    bool        is_open_;
    std::string in_;
};

class controller_agent : public ::testing::Test {
protected:
    controller_agent() {
        char name[]         = "/tmp/controller_agent_XXXXXX";
        directory           = mkdtemp(name);
        options.socket      = directory / "socket";
        options.from_daemon = directory / "from";
        options.to_daemon   = directory / "to";
        options.conf        = directory / "conf";
        options.as_json     = true;
        options.memory      = directory / "state" / "agent.json";
        options.daemon_log  = directory / "daemon.log";
    }
    ~controller_agent() override {
        if (agent > 0) {
            EXPECT_EQ(end_agent(SIGTERM), 0);  // sanitizers speak through the exit status
        }
        if (daemon_fd >= 0) close(daemon_fd);
        fs::remove_all(directory);
    }

    pid_t launch(const agent_options &with) {
        pid_t pid = fork();
        if (pid != 0) return pid;
        if (daemon_fd >= 0) close(daemon_fd);  // the daemon's, not the agent's
        int out = open((directory / "out").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        dup2(out, STDOUT_FILENO);
        dup2(out, STDERR_FILENO);
        int status = run_agent(with);
        exit(status);
    }
    void start_agent() {
        agent = launch(options);
        for (int i = 0; i < patience / 10 && !connection(options.socket).is_open(); i++) usleep(10000);
    }
    int end_agent(int signal_number) {
        kill(agent, signal_number);
        return ended(std::exchange(agent, 0));
    }
    static int ended(pid_t pid) {
        int status = 0;
        waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
    }

    void start_daemon() {
        mkfifo(options.to_daemon.c_str(), 0620);
        daemon_fd = open(options.to_daemon.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    }
    // The same in a process of its own: an emulator tells a process another start of itself than it tells others.
    pid_t start_daemon_elsewhere() {
        start_daemon();
        pid_t pid = fork();
        if (pid == 0) {
            for (;;) pause();
        }
        close(std::exchange(daemon_fd, -1));
        return pid;
    }
    void report_bytes(const void *bytes, size_t n) {
        int fd = open(options.from_daemon.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        EXPECT_EQ(write(fd, bytes, n), static_cast<ssize_t>(n));
        close(fd);
    }
    void report(const record &r) { report_bytes(r.data(), r.size()); }
    void report_pid(int32_t pid) {
        record r = encode(msg_process_info);
        memcpy(r.data() + 8, &pid, sizeof pid);
        report(r);
    }
    // Ids that the agent writes from now on, up to and with `last`; ends with 0 when that does not come.
    std::vector<uint32_t> ids_until(uint32_t last, record *found = nullptr) {
        std::vector<uint32_t> ids;
        for (int i = 0; i < patience / 10; i++) {
            record  r;
            ssize_t n;
            while ((n = read(daemon_fd, r.data(), r.size())) > 0) {
                EXPECT_EQ(n, 520);
                uint32_t id;
                memcpy(&id, r.data(), sizeof id);
                ids.push_back(id);
                if (id != last) continue;
                if (found) *found = r;
                return ids;
            }
            usleep(10000);
        }
        ids.push_back(0);
        return ids;
    }
    bool comes(uint32_t id, record *found = nullptr) { return ids_until(id, found).back() == id; }

    // The first event of the kind after number `since`, waited for.
    json event_of(const std::string &kind, uint64_t since = 0) {
        connection c(options.socket);
        c.ask({{"request", "events"}, {"follow", true}, {"events", {kind}}, {"since", since}, {"count", 1}});
        return c.hear();
    }
    json        ask(const json &request) { return connection(options.socket).ask(request); }
    std::string content(const char *name) {
        std::ifstream in(directory / name);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    mode_t mode_of(const std::string &path) {
        struct stat facts {};
        lstat(path.c_str(), &facts);
        return facts.st_mode;
    }

    agent_options options;
    fs::path      directory;
    pid_t         agent     = 0;
    int           daemon_fd = -1;
};

}  // namespace

TEST_F(controller_agent, makes_its_pipe_and_socket_and_removes_them_at_its_end) {
    start_agent();
    EXPECT_EQ(mode_of(options.from_daemon), S_IFIFO | 0620u);
    EXPECT_EQ(mode_of(options.socket), S_IFSOCK | 0600u);
    EXPECT_EQ(end_agent(SIGTERM), 0);
    EXPECT_EQ(mode_of(options.from_daemon), 0u);
    EXPECT_EQ(mode_of(options.socket), 0u);
}

TEST_F(controller_agent, ends_with_7_beside_another_agent_or_any_other_reader) {
    start_agent();
    EXPECT_EQ(ended(launch(options)), 7);
    EXPECT_EQ(ask({{"request", "status"}})["exit"], 4);
    end_agent(SIGTERM);

    mkfifo(options.from_daemon.c_str(), 0620);
    int reader = open(options.from_daemon.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(ended(launch(options)), 7);
    close(reader);
}

TEST_F(controller_agent, takes_over_what_a_killed_agent_left) {
    start_agent();
    end_agent(SIGKILL);
    EXPECT_NE(mode_of(options.socket), 0u);
    start_agent();
    EXPECT_EQ(ask({{"request", "status"}})["exit"], 4);
}

TEST_F(controller_agent, refuses_a_pipe_or_socket_that_is_something_else_and_leaves_it_alone) {
    std::ofstream(options.from_daemon) << "mine";
    EXPECT_EQ(ended(launch(options)), 1);
    EXPECT_EQ(content("from"), "mine");
    fs::remove(options.from_daemon);
    std::ofstream(options.socket) << "mine";
    EXPECT_EQ(ended(launch(options)), 1);
    EXPECT_EQ(content("socket"), "mine");
}

TEST_F(controller_agent, writes_nothing_into_a_file_that_lies_in_the_pipes_place) {
    std::ofstream(options.to_daemon) << "mine";
    start_agent();
    EXPECT_EQ(ask({{"request", "start"}})["exit"], 4);
    EXPECT_EQ(content("to"), "mine");
}

TEST_F(controller_agent, answers_every_malformed_line_and_lives) {
    start_agent();
    connection c(options.socket);
    for (const char *line : {"x",
                             "[]",
                             "17",
                             "null",
                             "\"status\"",
                             "{",
                             "{}",
                             "{\"request\":1}",
                             "{\"request\":\"none\"}",
                             "{\"request\":\"start\",\"wait\":\"x\"}",
                             "{\"request\":\"start\",\"wait\":-1}",
                             "{\"request\":\"start\",\"wait\":1e300}",
                             "{\"request\":\"wait\"}",
                             "{\"request\":\"wait\",\"state\":\"sideways\"}",
                             "{\"request\":\"events\",\"since\":-1}",
                             "{\"request\":\"events\",\"events\":[1]}",
                             "{\"request\":\"events\",\"follow\":1}",
                             "{\"request\":\"stats\",\"fresh\":true,\"clear\":true}",
                             "{\"request\":\"debug\"}",
                             "{\"request\":\"debug\",\"category\":\"level\",\"value\":\"error\"}",
                             "{\"request\":\"resolve\",\"address\":\"gw\"}",
                             "\xff\xfe\x01",
                             "{\"request\":\"\xff\"}"}) {
        c.say(std::string(line) + "\n");
        json answer = c.hear();
        ASSERT_TRUE(answer.is_object()) << line;
        EXPECT_EQ(answer["exit"], 2) << line;
        EXPECT_EQ(answer["ok"], false) << line;
        EXPECT_TRUE(answer["error"].is_string()) << line;
    }
    EXPECT_EQ(c.ask({{"request", "status"}, {"id", {1, 2}}})["id"], json({1, 2}));
}

TEST_F(controller_agent, ends_a_connection_whose_line_has_no_end) {
    start_agent();
    connection c(options.socket);
    c.say(std::string(server_limits{}.line + 20000, 'x'));
    EXPECT_EQ(c.hear()["exit"], 2);
    EXPECT_TRUE(c.hear().is_null());
    EXPECT_EQ(ask({{"request", "status"}})["exit"], 4);
}

TEST_F(controller_agent, drops_garbage_in_its_pipe_and_understands_what_comes_after) {
    start_daemon();
    start_agent();
    report_bytes("garbage", 7);
    EXPECT_EQ(event_of("garbage")["bytes"], 7);
    report(encode(99));
    EXPECT_EQ(event_of("unknown_message")["id"], 99);
    report(encode(msg_tun_up));
    EXPECT_EQ(event_of("tunnel")["to"], "up");
}

TEST_F(controller_agent, asks_a_daemon_that_it_finds_for_what_can_be_known) {
    start_daemon();
    start_agent();
    EXPECT_EQ(ids_until(msg_process_query), (std::vector<uint32_t>{msg_stats_request, msg_process_query}));
    report_pid(getpid());
    EXPECT_EQ(event_of("process")["pid"], getpid());
    json status = ask({{"request", "status"}});
    EXPECT_EQ(status["feature"]["value"], "disabled");
    EXPECT_EQ(status["tunnel"]["source"], "unknown");
    EXPECT_EQ(status["exit"], 8);
}

TEST_F(controller_agent, answers_a_hello_with_a_process_query_and_never_with_hello) {
    start_daemon();
    start_agent();
    report(encode(msg_hello));
    event_of("hello");
    EXPECT_TRUE(comes(msg_process_query));
    report(encode(msg_hello));
    event_of("hello", event_of("hello")["number"].get<uint64_t>());
    for (uint32_t id : ids_until(msg_process_query)) EXPECT_NE(id, static_cast<uint32_t>(msg_hello));
}

TEST_F(controller_agent, answers_each_name_query_with_the_given_address) {
    options.resolve_address = "192.0.2.9";
    start_daemon();
    start_agent();
    for (int i = 0; i < 2; i++) {
        record answer{};
        report(encode(msg_name_query));
        ASSERT_TRUE(comes(msg_name_answer, &answer));
        EXPECT_EQ(answer, encode_text(msg_name_answer, "192.0.2.9"));
    }
    EXPECT_EQ(ask({{"request", "status"}})["name_queries"]["answered"], 2);
}

TEST_F(controller_agent, looks_a_name_up_for_each_query) {
    options.resolve_name = "localhost";
    start_daemon();
    start_agent();
    for (int i = 0; i < 2; i++) {
        record answer{};
        report(encode(msg_name_query));
        ASSERT_TRUE(comes(msg_name_answer, &answer));
        EXPECT_EQ(answer, encode_text(msg_name_answer, "127.0.0.1"));
    }
}

TEST_F(controller_agent, leaves_a_query_unanswered_when_the_lookup_fails) {
    options.resolve_name = "no-such-name.invalid";
    start_daemon();
    start_agent();
    report(encode(msg_name_query));
    EXPECT_TRUE(event_of("name_answer_failed")["error"].is_string());
    json queries = ask({{"request", "status"}})["name_queries"];
    EXPECT_EQ(queries["asked"], 1);
    EXPECT_EQ(queries["answered"], 0);
    EXPECT_EQ(queries["failed"], 1);
}

TEST_F(controller_agent, runs_hooks_in_order_one_at_a_time_with_the_facts) {
    std::ofstream(options.conf) << "tun_interface_name;tls0;1\nmanagement_ip;10.1.1.1;1\n";
    std::string log = directory / "log";
    options.on_up   = "echo begin $TLSC_EVENT >>" + log +
                    "; sleep 0.3; echo $TLSC_STATE $TLSC_SOURCE $TLSC_INNER_IP $TLSC_TUN $TLSC_MANAGEMENT_IP >>" + log;
    options.on_down = "echo $TLSC_EVENT $TLSC_CAUSE >>" + log;
    start_daemon();
    start_agent();
    record inner = encode(msg_info_update);
    inner[8]     = 1;
    memcpy(inner.data() + 16, "10.8.0.2", 8);
    report(inner);
    report(encode(msg_tun_up));
    report(encode_text(msg_tun_down, "No Error"));
    // Each hook sees what was known when its cause came, however late it runs.
    uint64_t first = event_of("hook_ended")["number"].get<uint64_t>();
    EXPECT_EQ(event_of("hook_ended", first)["hook"], "down");
    EXPECT_EQ(content("log"), "begin up\nup reported 10.8.0.2 tls0 10.1.1.1\ndown No Error\n");
}

TEST_F(controller_agent, ends_a_hook_that_takes_too_long_with_all_its_children) {
    options.hook_timeout = 0.2;
    options.on_up        = "sleep 1000 & echo $! >" + (directory / "pid").string() + "; wait";
    start_daemon();
    start_agent();
    report(encode(msg_tun_up));
    json ended_event = event_of("hook_ended");
    EXPECT_EQ(ended_event["timed_out"], true);
    EXPECT_EQ(ended_event["signal"], SIGTERM);
    usleep(50000);
    // The child may be a zombie when nobody collects orphans here; running it must not be.
    std::ifstream stat_file("/proc/" + std::to_string(std::stoi(content("pid"))) + "/stat");
    std::string   pid, name, state = "gone";
    stat_file >> pid >> name >> state;
    EXPECT_TRUE(state == "gone" || state == "Z") << state;
}

TEST_F(controller_agent, ends_the_running_hook_at_its_own_end) {
    options.on_up = "sleep 1000";
    start_daemon();
    start_agent();
    report(encode(msg_tun_up));
    pid_t hook = event_of("hook_started")["pid"].get<pid_t>();
    EXPECT_EQ(end_agent(SIGTERM), 0);
    EXPECT_NE(kill(hook, 0), 0);
}

TEST_F(controller_agent, serves_others_while_a_verb_waits) {
    start_daemon();
    start_agent();
    connection c(options.socket);
    c.say({{"request", "start"}, {"wait", 5}, {"id", "slow"}});
    EXPECT_EQ(c.ask({{"request", "status"}, {"id", "quick"}})["id"], "quick");
    ASSERT_TRUE(comes(msg_tun_start));
    report(encode(msg_tun_in_prog));
    report(encode(msg_tun_up));
    json answer = c.hear();
    EXPECT_EQ(answer["id"], "slow");
    EXPECT_EQ(answer["exit"], 0);
    EXPECT_EQ(answer["tunnel"]["value"], "up");
}

TEST_F(controller_agent, tells_a_start_not_accepted_from_one_that_does_not_come_up) {
    start_daemon();
    start_agent();
    EXPECT_EQ(ask({{"request", "start"}, {"wait", 0.2}})["exit"], 5);
    ids_until(msg_tun_start);
    connection c(options.socket);
    c.say({{"request", "start"}, {"wait", 0.5}});
    ids_until(msg_tun_start);
    report(encode(msg_tun_in_prog));
    EXPECT_EQ(c.hear()["exit"], 3);
    c.say({{"request", "start"}, {"wait", 5}});
    ids_until(msg_tun_start);
    report(encode_text(msg_tun_down, "Tunnel start failed"));
    EXPECT_EQ(c.hear()["exit"], 1);
}

TEST_F(controller_agent, an_up_before_the_start_was_accepted_does_not_count) {
    start_daemon();
    start_agent();
    connection c(options.socket);
    c.say({{"request", "restart"}, {"wait", 0.5}});
    ASSERT_TRUE(comes(msg_tun_restart));
    report(encode(msg_tun_up));
    report(encode(msg_tun_in_prog));
    EXPECT_EQ(c.hear()["exit"], 3);
}

TEST_F(controller_agent, statistics_are_fresh_disabled_or_unanswered) {
    start_daemon();
    start_agent();
    ids_until(msg_process_query);
    report_pid(getpid());
    event_of("process");

    connection c(options.socket);
    EXPECT_EQ(c.ask({{"request", "stats"}, {"fresh", true}, {"timeout", 0.2}})["exit"], 5);
    EXPECT_EQ(ids_until(msg_process_query), (std::vector<uint32_t>{msg_stats_request, msg_process_query}));
    report_pid(getpid());

    c.say({{"request", "stats"}, {"clear", true}});
    EXPECT_EQ(ids_until(msg_process_query), (std::vector<uint32_t>{msg_stats_clear, msg_process_query}));
    report_pid(getpid());
    EXPECT_EQ(c.hear()["exit"], 8);

    c.say({{"request", "stats"}, {"fresh", true}});
    ids_until(msg_process_query);
    record statistics = encode(msg_info_update);
    statistics[8]     = 33;
    statistics[24]    = 7;
    report(statistics);
    report_pid(getpid());
    json answer = c.hear();
    EXPECT_EQ(answer["exit"], 0);
    EXPECT_EQ(answer["statistics"]["value"]["Data Pkt Tx"], 7);
}

TEST_F(controller_agent, shutdown_waits_for_the_end_of_the_process_not_of_its_pipe) {
    start_daemon();
    start_agent();
    pid_t process = fork();
    if (process == 0) {
        close(daemon_fd);
        pause();
        _exit(0);
    }
    ids_until(msg_process_query);
    report_pid(process);
    event_of("process");
    connection c(options.socket);
    c.say({{"request", "shutdown"}, {"wait", 5}});
    EXPECT_TRUE(comes(msg_exit));
    close(std::exchange(daemon_fd, -1));
    event_of("daemon_gone");
    EXPECT_EQ(ask({{"request", "status"}})["exit"], 4);
    kill(process, SIGKILL);
    EXPECT_EQ(c.hear()["exit"], 0);
    ended(process);
}

TEST_F(controller_agent, a_full_pipe_is_a_failure_and_blocks_nothing) {
    start_daemon();
    start_agent();
    connection c(options.socket);
    json       answer;
    for (int i = 0; i < 200; i++)
        if (answer = c.ask({{"request", "debug"}, {"category", "level"}, {"value", "info"}}); answer["exit"] != 0)
            break;
    EXPECT_EQ(answer["exit"], 1);
    EXPECT_EQ(answer["sent"], false);
}

TEST_F(controller_agent, a_client_that_sends_no_more_still_gets_its_answer) {
    start_daemon();
    start_agent();
    connection c(options.socket);
    c.say({{"request", "info"}, {"timeout", 5}});
    c.end_input();
    ids_until(msg_process_query);
    ids_until(msg_process_query);
    report_pid(getpid());
    report_pid(getpid());
    EXPECT_EQ(c.hear()["daemon_pid"]["value"], getpid());
    EXPECT_TRUE(c.hear().is_null());
}

TEST_F(controller_agent, followed_events_begin_with_the_kept_ones_and_end_at_the_count) {
    start_daemon();
    start_agent();
    connection c(options.socket);
    c.say({{"request", "events"}, {"follow", true}, {"count", 2}, {"events", {"agent_started", "tun_up"}}, {"id", 5}});
    json answer = c.hear();
    EXPECT_EQ(answer["ok"], true);
    EXPECT_EQ(answer["id"], 5);
    EXPECT_EQ(answer["follow"], true);
    EXPECT_EQ(c.hear()["number"], 1);
    report(encode(msg_tun_up));
    EXPECT_EQ(c.hear()["event"], "tun_up");
}

TEST_F(controller_agent, a_tunnel_known_from_an_earlier_agent_is_not_stuck_although_the_log_says_nothing_of_it) {
    options.keep_up     = true;
    options.stuck_after = 1;
    pid_t lasting       = start_daemon_elsewhere();
    fs::create_directory(directory / "state");
    json daemon = {{"pid", lasting}, {"start", start_time_of(lasting)}};
    std::ofstream(options.memory) << json{
        {"daemon", daemon}, {"tunnel", "up"}, {"since", present().wall}, {"feature", true}};
    fs::permissions(options.memory, fs::perms::owner_read | fs::perms::owner_write);
    std::ofstream(options.daemon_log) << "";
    start_agent();
    EXPECT_EQ(ask({{"request", "status"}})["health"]["value"], "up");

    usleep(2500000);  // the watchdog looks once a second
    EXPECT_EQ(ask({{"request", "wait"}, {"events", {"stuck"}}, {"since", 0}, {"timeout", 0.1}})["exit"],
              exit_not_reached);
    EXPECT_EQ(ask({{"request", "status"}})["health"]["value"], "up");
    kill(lasting, SIGKILL);
    ended(lasting);
}

TEST_F(controller_agent, requests_lost_before_the_first_report_do_not_degrade_a_tunnel_whose_log_says_too_little) {
    std::ofstream(options.daemon_log) << "";
    start_daemon();
    start_agent();
    ids_until(msg_process_query);
    report_pid(getpid());
    event_of("process");
    std::ofstream(options.daemon_log, std::ios::app)
        << "\nTLSC[1]: 2026-01-31_09_30_00 ERROR [tlsc.cpp:1] [set_level] Log level changed to: 0\n";
    ask({{"request", "status"}});
    report(encode(msg_tun_up));

    record statistics = encode(msg_info_update);
    statistics[8]     = 33;
    statistics[72]    = 100;  // requests
    statistics[80]    = 97;   // responses
    report(statistics);
    uint64_t first = event_of("stats")["number"];
    EXPECT_EQ(ask({{"request", "status"}})["health"]["value"], "up");

    statistics[72] = 102;
    report(statistics);
    event_of("stats", first);
    EXPECT_EQ(ask({{"request", "status"}})["health"]["value"], "degraded");
}

// Without a log (none, deleted, moved, its level too high) the counters tell, and what no counter tells is not called
// up.
TEST_F(controller_agent, a_tunnel_without_a_log_is_up_by_the_counters_alone_and_asks_once_at_a_time) {
    start_daemon();
    start_agent();
    ids_until(msg_process_query);
    report_pid(getpid());
    event_of("process");
    report(encode(msg_tun_up));
    uint64_t up = event_of("tun_up")["number"];

    record statistics = encode(msg_info_update);
    statistics[8]     = 33;
    EXPECT_EQ(ids_until(msg_stats_request), std::vector<uint32_t>{msg_stats_request});
    report(statistics);
    json shown = ask({{"request", "status"}});
    EXPECT_EQ(shown["health"]["value"], "up");
    EXPECT_EQ(shown["health"]["source"], "reported");
    EXPECT_EQ(ids_until(msg_stats_request), std::vector<uint32_t>{msg_stats_request});
    statistics[72] = 2;
    report(statistics);
    EXPECT_EQ(event_of("health", event_of("health", up)["number"])["to"], "degraded");
    shown = ask({{"request", "status"}});
    EXPECT_EQ(shown["health"]["unanswered"], 2);
    EXPECT_EQ(shown["exit"], exit_degraded);

    json events = ask({{"request", "events"}, {"since", up}});
    for (const json &each : events["events"]) EXPECT_TRUE(each["event"] != "sent" && each["event"] != "stats") << each;
}

// As a confined agent must: it sees who answers, and not who else holds the pipe.
TEST_F(controller_agent, two_processes_that_answer_are_two_daemons_and_the_first_stays_the_known_one) {
    pid_t others[2];
    for (pid_t &other : others) {
        other = fork();
        if (other == 0) {
            pause();
            _exit(0);
        }
    }
    start_daemon();
    start_agent();
    ids_until(msg_process_query);
    report_pid(others[0]);
    event_of("process");
    report(encode(msg_tun_up));
    report_pid(others[1]);
    json second = event_of("daemon_second");
    for (pid_t other : others)
        EXPECT_NE(std::find(second["pids"].begin(), second["pids"].end(), other), second["pids"].end());
    json status = ask({{"request", "status"}});
    EXPECT_EQ(status["reason"]["code"], "daemon-second");
    EXPECT_EQ(status["tunnel"]["value"], "up");
    EXPECT_EQ(status["daemon_pid"]["value"], others[0]);
    kill(others[1], SIGKILL);
    ended(others[1]);
    json over = ask({{"request", "wait"}, {"events", {"reason"}}, {"match", {{"code", nullptr}}}, {"timeout", 8}});
    EXPECT_EQ(over["exit"], 0);
    kill(others[0], SIGKILL);
    ended(others[0]);
}

TEST_F(controller_agent, a_judge_of_the_configuration_that_hangs_holds_up_no_start) {
    options.keep_up = true;
    options.program = directory / "hangs";
    std::ofstream(options.program) << "#!/bin/sh\nexec sleep 1000\n";
    fs::permissions(options.program, fs::perms::owner_all);
    std::ofstream(options.conf) << "server_ip_address;192.0.2.1;1\nserver_port;443;1\nmanagement_ip;10.1.0.2;1\n"
                                   "tun_interface_name;tun0;1\ncipher_algo;PSK-AES256-CBC-SHA;1\n"
                                   "psk_identity;device;1\npsk_key;0123456789abcdef0123456789abcdef;1\n"
                                   "device_id;dev-1;1\nserial_num;1;1\nsystem_name;x;1\n";
    start_daemon();
    start_agent();
    ids_until(msg_process_query);
    report_pid(getpid());  // and no statistics: the feature is disabled
    EXPECT_TRUE(comes(msg_tun_start)) << content("out");
}

TEST_F(controller_agent, totals_go_on_through_a_clearing_and_another_agent) {
    uint64_t seen  = 0;
    auto     count = [&](uint8_t packets) {
        record statistics = encode(msg_info_update);
        statistics[8]     = 33;
        statistics[24]    = packets;
        report(statistics);
        seen = event_of("stats", seen)["number"];
        return ask({{"request", "stats"}})["totals"]["Data Pkt Tx"];
    };
    auto meet = [&] {
        start_agent();
        ids_until(msg_process_query);
        report_pid(getpid());
        seen = event_of("process")["number"];
    };
    start_daemon();
    meet();
    EXPECT_EQ(count(5), 5);
    EXPECT_EQ(count(8), 8);
    EXPECT_EQ(count(2), 10) << "cleared between the two";
    EXPECT_EQ(end_agent(SIGTERM), 0);
    meet();
    EXPECT_EQ(count(3), 11);
    EXPECT_EQ(count(1), 12) << "a new daemon counts from zero";
}
