#include "ctl.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "common/input_file.h"
#include "common/exit_code.h"
#include "common/json.h"
#include "common/line_client.h"
#include "common/log.h"
#include "scenario.h"

namespace gw {

// Contents: 1 talking  2 tables  3 verbs  4 the command line

namespace {

using common::json;

constexpr const char *standard_socket = "/run/tlsc-gateway/control.sock";
constexpr double      patience        = 15;  // seconds for an answer, beyond what a request itself waits

// ---- 1 Talking ------------------------------------------------------------------------------------------------------

struct ctl_options {
    std::string              socket  = standard_socket;
    bool                     as_json = false;
    bool                     follow  = false;
    uint64_t                 since   = 0;
    std::vector<std::string> kinds;
    std::string              client;
    std::string              how = "notify";
    std::string              fault;
    std::string              file;
    std::optional<uint32_t>  seed;
};

// What ends the command, with its exit status.
struct ctl_failure : std::runtime_error {
    ctl_failure(int exit_status, const std::string &text) : std::runtime_error(text), status(exit_status) {}
    int status;
};

class gateway_link {
public:
    explicit gateway_link(const std::string &path) {
        std::string nobody = "no gateway serves " + path + "; start it with --control " + path +
                             ", or say --socket PATH";
        std::string failed = client_.connect(path, nobody);
        if (!failed.empty()) throw ctl_failure(common::exit_unknown, failed);
    }

    json ask(const json &request) {
        double wait = request.value("timeout", 0.0) + patience;
        if (!client_.send(common::json_line(request))) gone();
        return read(wait);
    }

    // The next line; waits for ever when the time is 0.
    json read(double seconds) {
        std::string line;
        auto        how = client_.read(line, seconds);
        if (how == common::line_client::reading::interrupted) throw ctl_failure(common::exit_done, "");
        if (how == common::line_client::reading::late)
            throw ctl_failure(common::exit_no_answer, "the gateway does not answer");
        if (how == common::line_client::reading::over) gone();
        json value = common::parse_json(line);
        if (!value.is_object()) throw ctl_failure(common::exit_failed, "the answer is no JSON object");
        return value;
    }

private:
    [[noreturn]] static void gone() { throw ctl_failure(common::exit_failed, "the gateway went away"); }

    common::line_client client_;
};

// The answer; a refusal or a failure ends the command.
json checked(const json &answer) {
    if (answer.value("ok", false)) return answer;
    throw ctl_failure(answer.value("exit", static_cast<int>(common::exit_failed)), answer.value("error", "failed"));
}

// ---- 2 Tables -------------------------------------------------------------------------------------------------------

// A value for a person: texts are the clients' own words and are only shown.
std::string shown(const json &value) {
    if (value.is_null()) return "-";
    if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
    if (!value.is_string()) return value.dump();
    std::string text = common::printable(value.get<std::string>(), 64);
    return text.empty() ? "-" : text;
}

std::string duration_text(uint64_t ms) {
    uint64_t seconds = ms / 1000;
    char     text[48];
    if (seconds >= 86400) snprintf(text, sizeof text, "%llud %02lluh", seconds / 86400ull, seconds / 3600ull % 24);
    else if (seconds >= 3600) snprintf(text, sizeof text, "%lluh %02llum", seconds / 3600ull, seconds / 60ull % 60);
    else if (seconds >= 60) snprintf(text, sizeof text, "%llum %02llus", seconds / 60ull, seconds % 60ull);
    else snprintf(text, sizeof text, "%llus", seconds + 0ull);
    return text;
}

void print_table(const std::vector<std::string> &head, const std::vector<std::vector<std::string>> &rows) {
    std::vector<size_t> widths;
    for (size_t i = 0; i < head.size(); i++) {
        size_t width = head[i].size();
        for (const auto &row : rows) width = std::max(width, row[i].size());
        widths.push_back(width);
    }
    auto print = [&](const std::vector<std::string> &row) {
        std::string line;
        for (size_t i = 0; i < row.size(); i++) line += row[i] + std::string(widths[i] - row[i].size() + 2, ' ');
        printf("%s\n", line.substr(0, line.find_last_not_of(' ') + 1).c_str());
    };
    print(head);
    for (const auto &row : rows) print(row);
}

void print_pairs(const std::vector<std::pair<std::string, std::string>> &pairs) {
    for (const auto &[name, value] : pairs) printf("%-12s %s\n", name.c_str(), value.c_str());
}

void print_status(const json &a) {
    std::string answers = a["config"].get<std::string>() + (a["dpd"].get<bool>() ? "" : ", DPD unanswered");
    print_pairs({{"listening", shown(a["listen"]) + (a["accept"] == "normal" ? "" : " (" + shown(a["accept"]) + ")")},
                 {"interface", shown(a["tun"]) + " " + shown(a["tun_addr"])},
                 {"pool", shown(a["pool"])},
                 {"clients", shown(a["clients"])},
                 {"answers", answers},
                 {"overrides", std::to_string(a["overrides"].size())},
                 {"up for", duration_text(a["uptime_ms"].get<uint64_t>())},
                 {"version", shown(a["version"]) + ", process " + shown(a["pid"])}});
}

void print_clients(const json &a) {
    std::vector<std::vector<std::string>> rows;
    for (const json &c : a["clients"])
        rows.push_back({shown(c["client"]), shown(c["state"]) + (c["active"].get<bool>() ? "" : "*"), shown(c["inner"]),
                        shown(c["identity"]), shown(c["device_id"]), shown(c["peer"]), shown(c["cipher"]),
                        duration_text(c["age_ms"].get<uint64_t>()), shown(c["counters"]["data_rx"]),
                        shown(c["counters"]["data_tx"])});
    print_table({"CLIENT", "STATE", "INNER", "IDENTITY", "DEVICE", "PEER", "CIPHER", "AGE", "PACKETS IN", "OUT"}, rows);
    if (std::any_of(rows.begin(), rows.end(), [](const auto &row) { return row[1].back() == '*'; }))
        printf("* packets for the inner address do not go here\n");
}

void print_leases(const json &a) {
    std::vector<std::vector<std::string>> rows;
    for (const json &l : a["leases"])
        rows.push_back({shown(l["address"]), shown(l["identity"]), shown(l["device_id"]), shown(l["connections"])});
    print_table({"ADDRESS", "IDENTITY", "DEVICE", "CONNECTIONS"}, rows);
}

void print_counters(const json &a) {
    for (const auto &[name, value] : a["counters"].items()) printf("%-16s %12s\n", name.c_str(), value.dump().c_str());
}

void print_event(const json &e) {
    std::string line = shown(e["time"]) + " " + shown(e["number"]) + " " + shown(e["event"]);
    for (const auto &[name, value] : e.items()) {
        static const std::vector<std::string> said = {"schema", "stream", "event", "number", "time", "mono", "hex"};
        if (std::find(said.begin(), said.end(), name) == said.end()) line += " " + name + "=" + shown(value);
    }
    printf("%s\n", line.c_str());
}

void print_faults(const json &a) {
    for (const json &fault : a["faults"])
        printf("%s  (%s left)\n", shown(fault["fault"]).c_str(),
               fault["left"].is_null() ? "without end" : shown(fault["left"]).c_str());
    if (a["faults"].empty()) printf("no fault waits\n");
}

// ---- 3 Verbs --------------------------------------------------------------------------------------------------------

using printer = void (*)(const json &);

void print_answer(const ctl_options &options, const json &answer, printer print) {
    if (options.as_json) fputs(common::json_line(answer).c_str(), stdout);
    else if (print) print(answer);
}

int look(const ctl_options &options, const char *request, printer print) {
    gateway_link gateway(options.socket);
    print_answer(options, checked(gateway.ask({{"request", request}})), print);
    return common::exit_done;
}

int show_events(const ctl_options &options) {
    gateway_link gateway(options.socket);
    json         request = {{"request", "events"}, {"since", options.since}};
    if (!options.kinds.empty()) request["events"] = options.kinds;
    if (options.follow) request["follow"] = true;
    json answer = checked(gateway.ask(request));
    if (!options.follow) {
        if (options.as_json) fputs(common::json_line(answer).c_str(), stdout);
        else
            for (const json &event : answer["events"]) print_event(event);
        return common::exit_done;
    }
    common::line_client::catch_interrupts();
    for (;;) {
        json event = gateway.read(0);
        print_answer(options, event, print_event);
        fflush(stdout);
    }
}

int kick(const ctl_options &options) {
    gateway_link gateway(options.socket);
    json         request = {{"request", "close"}, {"how", options.how}};
    request["client"]    = options.client == "all" ? json("all") : common::parse_json(options.client);
    if (request["client"].is_discarded())
        throw ctl_failure(common::exit_usage, "a client is a number, or all; see ctl clients");
    print_answer(options, checked(gateway.ask(request)),
                 [](const json &a) { printf("%s closed\n", shown(a["closed"]).c_str()); });
    return common::exit_done;
}

int order_fault(const ctl_options &options) {
    if (options.fault.empty()) return look(options, "faults", print_faults);
    gateway_link gateway(options.socket);
    print_answer(options, checked(gateway.ask({{"request", "fault"}, {"fault", options.fault}})), print_faults);
    return common::exit_done;
}

std::string file_text(const std::string &path) {
    std::string why;
    auto        text = common::read_input(path, 1u << 20, why);
    if (!text) throw ctl_failure(common::exit_usage, "cannot read " + common::printable(path) + ": " + why);
    return *text;
}

int run_file(const ctl_options &options) {
    scenario story;
    try {
        story = parse_scenario(file_text(options.file));
    } catch (const ctl_failure &) {
        throw;
    } catch (const std::runtime_error &error) {
        throw ctl_failure(common::exit_usage, common::printable(options.file) + ": " + error.what());
    }
    gateway_link   gateway(options.socket);
    auto           begun = std::chrono::steady_clock::now();
    scenario_world world{
        [&](const json &request) { return gateway.ask(request); },
        [](double seconds) { std::this_thread::sleep_for(std::chrono::duration<double>(seconds)); },
        [&](const scenario_step &step, const std::string &what) {
            double at = std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count();
            if (options.as_json)
                fputs(common::json_line({{"line", step.line}, {"at", at}, {"step", what}}).c_str(), stdout);
            else printf("%8.2f  %3zu  %s\n", at, step.line, common::printable(what).c_str());
            fflush(stdout);
        },
    };
    std::string failure = run_scenario(story, options.seed.value_or(story.seed), world);
    if (!failure.empty()) throw ctl_failure(common::exit_not_reached, common::printable(options.file) + ": " + failure);
    if (!options.as_json) printf("every step held\n");
    return common::exit_done;
}

int reload(const ctl_options &options) {
    gateway_link gateway(options.socket);
    print_answer(options, checked(gateway.ask({{"request", "reload"}})),
                 [](const json &) { printf("the key file was read\n"); });
    return common::exit_done;
}

// ---- 4 The command line ---------------------------------------------------------------------------------------------

void declare(CLI::App &app, ctl_options &o) {
    app.require_subcommand(1);
    app.fallthrough();
    app.add_option("--socket", o.socket, "The gateway's control socket")
        ->option_text(std::string("PATH [") + standard_socket + "]");
    app.add_flag("--json", o.as_json, "Answers and events as JSON lines");
    app.add_subcommand("status", "The gateway as a whole");
    app.add_subcommand("clients", "The connections");
    app.add_subcommand("leases", "The devices and their inner addresses");
    app.add_subcommand("counters", "Totals since the start");
    auto *events = app.add_subcommand("events", "What happened");
    events->add_flag("-f,--follow", o.follow, "And what happens from now on, until interrupted");
    events->add_option("--since", o.since, "Only those after this number")->option_text("N");
    events->add_option("--kind", o.kinds, "Only those of this kind; may be repeated")->option_text("EVENT");
    auto *kicked = app.add_subcommand("kick", "Ends connections: kick 7, kick all");
    kicked->add_option("client", o.client, "Number of the connection, or all")->required();
    kicked->add_option("--how", o.how, "notify, fin, rst, alert")->option_text("HOW [notify]");
    app.add_subcommand("reload", "Reads the key file again; live connections stay");
    auto *fault = app.add_subcommand(
        "fault", "Orders a fault: fault silence@up, fault drop-dpd#*, fault none; lists them without one");
    fault->add_option("fault", o.fault, "NAME[@TRIGGER[=N]][#COUNT]");
    auto *run = app.add_subcommand("run", "Runs a scenario file, see docs/scenarios");
    run->add_option("file", o.file, "The file")->required();
    run->add_option("--seed", o.seed, "Of the random choices, instead of the file's")->option_text("N");
}

int dispatch(const CLI::App &app, const ctl_options &options) {
    std::string verb = app.get_subcommands().front()->get_name();
    if (verb == "status") return look(options, "status", print_status);
    if (verb == "clients") return look(options, "clients", print_clients);
    if (verb == "leases") return look(options, "leases", print_leases);
    if (verb == "counters") return look(options, "counters", print_counters);
    if (verb == "events") return show_events(options);
    if (verb == "kick") return kick(options);
    if (verb == "reload") return reload(options);
    if (verb == "fault") return order_fault(options);
    return run_file(options);
}

}  // namespace

int run_ctl(int argc, const char *const *argv) {
    ctl_options options;
    CLI::App    app("Looks into a running gateway, and gives it orders.", "tlsc-gateway ctl");
    declare(app, options);
    try {
        app.parse(argc, argv);
        return dispatch(app, options);
    } catch (const CLI::CallForHelp &) {
        fputs(app.help().c_str(), stdout);
        return common::exit_done;
    } catch (const CLI::ParseError &error) {
        std::string text = error.what();
        fprintf(stderr, "tlsc-gateway: %s\n", text.substr(0, text.find('\n')).c_str());
        return common::exit_usage;
    } catch (const ctl_failure &failure) {
        if (*failure.what()) fprintf(stderr, "tlsc-gateway: %s\n", failure.what());
        return failure.status;
    } catch (const std::exception &error) {
        fprintf(stderr, "tlsc-gateway: %s\n", error.what());
        return common::exit_failed;
    }
}

}  // namespace gw
