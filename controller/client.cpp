#include "client.h"

#include "common/line_client.h"
#include "common/log.h"

#include "present.h"

#include <cstdio>
#include <unistd.h>

#include <nlohmann/json.hpp>

namespace wlcctl {

namespace {

using reading = line_client::reading;

// A socket that a group may watch belongs to root's agent; anybody's own one to anybody.
std::string connect_agent(line_client &agent, const std::string &socket) {
    return agent.connect(socket, "no agent is running at " + printable(socket) + "; start one with: wlcctl agent");
}

void print_line(const std::string &line) {
    fwrite(line.data(), 1, line.size(), stdout);
    fflush(stdout);
}

void print_event(const json &e, const print_options &options) {
    print_line(options.as_json ? json_line(e) : event_text(e) + "\n");
}

json failed(const json &request, int exit, const std::string &why) {
    return local_answer(request["request"].get<std::string>(), exit, why);
}

bool is_event(const json &line) { return line.contains("event"); }

// The next answer; events on the way go to each.
json read_answer(line_client &agent, const json &request, double patience,
                 const std::function<void(const json &)> &each) {
    std::string line;
    for (;;) {
        reading result = agent.read(line, patience);
        if (result == reading::interrupted) return failed(request, exit_done, "");
        if (result == reading::late) return failed(request, exit_no_answer, "the agent does not answer");
        if (result == reading::over) return failed(request, exit_unknown, "the agent went away");
        json answer = parse_json(line);
        if (!answer.is_object()) return failed(request, exit_failed, "the agent's answer makes no sense");
        if (!is_event(answer)) return answer;
        each(answer);
    }
}

// Follows events: the agent answers first, then each event is a line, as many as were asked for.
int follow(line_client &agent, const json &request, const print_options &options) {
    json answer = read_answer(agent, request, agent_reserve, [](const json &) {});
    if (!answer.value("ok", false)) return print_answer(answer, options);
    line_client::catch_interrupts();
    uint64_t    left = request.value("count", uint64_t{0});
    std::string line;
    for (;;) {
        reading result = agent.read(line, 0);
        if (result == reading::interrupted) return exit_done;
        if (result == reading::over) return print_answer(failed(request, exit_unknown, "the agent went away"), options);
        json e = parse_json(line);
        if (!e.is_object() || !is_event(e)) continue;
        print_event(e, options);
        if (left > 0 && --left == 0) return exit_done;
    }
}

// The steps of a start, one line repainted on a terminal.
class progress_line {
public:
    void show(const json &e) {
        std::string text = progress_text(e);
        if (text.empty() || text == last_) return;
        last_ = text;
        if (is_terminal_) fprintf(stderr, "\r\033[K%s", text.c_str());
        else fprintf(stderr, "%s\n", text.c_str());
        fflush(stderr);
    }
    void end() {
        if (is_terminal_ && !last_.empty()) fputs("\r\033[K", stderr);
        last_.clear();
    }

private:
    bool        is_terminal_ = isatty(STDERR_FILENO) != 0;
    std::string last_;
};

}  // namespace

json local_answer(const std::string &request, int exit, const std::string &error) {
    json answer = {{"schema", schema_number},
                   {"program", "wlcctl"},
                   {"version", WLCCTL_VERSION},
                   {"stream", nullptr},
                   {"request", request},
                   {"ok", exit == exit_done},
                   {"exit", exit}};
    if (!error.empty()) answer["error"] = error;
    return answer;
}

int print_answer(const json &answer, const print_options &options) {
    print_line(options.as_json ? json_line(answer) : answer_text(answer));
    std::string error = answer.value("error", "");
    if (!options.as_json && !error.empty()) fprintf(stderr, "wlcctl: %s\n", printable(error).c_str());
    return answer.value("exit", static_cast<int>(exit_failed));
}

json fetch_answer(const std::string &socket, const json &request, double patience) {
    line_client agent;
    std::string error = connect_agent(agent, socket);
    if (!error.empty()) return failed(request, exit_unknown, error);
    if (!agent.send(json_line(request))) return failed(request, exit_unknown, "the agent went away");
    return read_answer(agent, request, patience, [](const json &) {});
}

int ask_agent(const std::string &socket, const json &request, double patience, const print_options &options) {
    line_client agent;
    std::string error = connect_agent(agent, socket);
    if (!error.empty()) return print_answer(failed(request, exit_unknown, error), options);
    if (!agent.send(json_line(request)))
        return print_answer(failed(request, exit_unknown, "the agent went away"), options);
    if (options.is_follower) return follow(agent, request, options);
    return print_answer(read_answer(agent, request, patience, [](const json &) {}), options);
}

int ask_with_progress(const std::string &socket, const json &request, double patience, const print_options &options,
                      const std::function<void(json &answer)> &after) {
    line_client   agent;
    progress_line progress;
    std::string   error = connect_agent(agent, socket);
    if (!error.empty()) return print_answer(failed(request, exit_unknown, error), options);
    json status = fetch_answer(socket, {{"request", "status"}}, agent_reserve);
    json events = {{"request", "events"},
                   {"follow", true},
                   {"events", {"phase", "reason", "hook_started", "name_answer"}},
                   {"since", status.contains("agent") ? status["agent"].value("last_event", uint64_t{0}) : 0}};
    if (!agent.send(json_line(events)) || !agent.send(json_line(request)))
        return print_answer(failed(request, exit_unknown, "the agent went away"), options);
    auto each   = [&](const json &e) { progress.show(e); };
    json answer = read_answer(agent, request, agent_reserve, each);
    if (answer.value("request", "") == "events" && answer.value("ok", false))
        answer = read_answer(agent, request, patience, each);
    progress.end();
    if (answer.value("exit", 1) == exit_done) after(answer);
    return print_answer(answer, options);
}

int watch_agent(const std::string &socket, const print_options &options, uint64_t count) {
    line_client agent;
    json        request = {{"request", "watch"}};
    std::string error   = connect_agent(agent, socket);
    if (!error.empty()) return print_answer(failed(request, exit_unknown, error), options);
    bool is_painting = !options.as_json && isatty(STDOUT_FILENO);
    auto kinds = {"tunnel",          "health",   "reason", "phase",       "interface", "hook_ended",   "daemon_gone",
                  "daemon_appeared", "inner_ip", "dns",    "name_answer", "stuck",     "daemon_second"};
    if (!agent.send(
            json_line({{"request", "events"}, {"follow", true}, {"events", kinds}, {"since", uint64_t{1} << 62}})))
        return print_answer(failed(request, exit_unknown, "the agent went away"), options);
    line_client::catch_interrupts();

    auto paint = [&] {
        json        status = fetch_answer(socket, {{"request", "status"}}, agent_reserve);
        std::string text   = options.as_json ? json_line(status)
                             : is_painting   ? answer_text(status)
                                             : status_line(status) + "\n";
        print_line((is_painting ? "\033[H\033[2J" : "") + text);
    };
    paint();
    std::string line;
    for (uint64_t changes = 0; count == 0 || changes < count;) {
        reading result = agent.read(line, is_painting ? 1 : 0);
        if (result == reading::interrupted) return exit_done;
        if (result == reading::over) return print_answer(failed(request, exit_unknown, "the agent went away"), options);
        json e = result == reading::line ? parse_json(line) : json(nullptr);
        if (result == reading::line && (!e.is_object() || !is_event(e))) continue;
        if (is_painting) paint();
        else print_event(e, options);
        changes += result == reading::line;
    }
    return exit_done;
}

}  // namespace wlcctl
