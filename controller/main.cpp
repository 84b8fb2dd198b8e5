// wlcctl: the reference controller and its command line. Verbs and options; what they do lies in agent, client, local
// and conf.
#include "agent.h"
#include "agent_conf.h"
#include "client.h"
#include "conf.h"
#include "decode.h"
#include "lint.h"
#include "local.h"
#include "ping.h"
#include "wire.h"

#include "common/input_file.h"
#include "common/log.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

#include <nlohmann/json.hpp>

namespace wlcctl {
namespace {

constexpr double start_wait    = 30;  // seconds of --wait without a number
constexpr double stop_wait     = 10;
constexpr double shutdown_wait = 15;
constexpr double hook_reserve  = 600;  // for a hook that a waiting start waits for as well
constexpr double answer_wait   = 6;    // of --timeout, for verbs that the daemon answers

// What the command line said. The verb's own work is `run`, set by the verb that was named.
struct command_line {
    std::string          socket = default_socket;
    print_options        print;
    std::function<int()> run;
};

// A value that makes no sense, told like the parser's own complaints.
struct usage_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

bool is_address(const std::string &text) {
    uint8_t bytes[16];
    return inet_pton(AF_INET, text.c_str(), bytes) == 1 || inet_pton(AF_INET6, text.c_str(), bytes) == 1;
}

CLI::App *add_verb(CLI::App &app, const char *name, const char *help, const char *examples) {
    CLI::App *verb = app.add_subcommand(name, help);
    verb->fallthrough();
    verb->footer(std::string("Examples:\n") + examples);
    return verb;
}

// Seconds written with digits and a point: the parser alone would also take "nan" and "inf".
CLI::Validator seconds_from(double lowest) {
    return CLI::Validator(
        [lowest](const std::string &text) {
            bool is_plain = text.find_first_not_of("0123456789.") == std::string::npos;
            return is_plain && CLI::Range(lowest, 86400.0)(text).empty()
                       ? std::string()
                       : text + " is no number of seconds up to 86400";
        },
        "");
}

// A whole number, not below `lowest`; the parser alone would let "-1" wrap around.
CLI::Validator whole_number_from(uint64_t lowest) {
    return CLI::Validator(
        [lowest](const std::string &text) {
            bool is_plain = !text.empty() && text.size() <= 18 &&
                            text.find_first_not_of("0123456789") == std::string::npos;
            return is_plain && strtoull(text.c_str(), nullptr, 10) >= lowest
                       ? std::string()
                       : text + " is no whole number from " + std::to_string(lowest);
        },
        "");
}

// "--wait" with or without a number of seconds; the parser gives an empty text when there is no number.
struct optional_seconds {
    std::string  given;
    CLI::Option *option = nullptr;

    void add(CLI::App *verb, const char *name, const char *help) {
        option = verb->add_option(name, given, help)->expected(0, 1)->type_name("[SECONDS]");
        option->check([](const std::string &text) { return text.empty() ? std::string() : seconds_from(0)(text); });
    }
    bool   is_set() const { return option->count() > 0; }
    double value(double preset) const { return given.empty() ? preset : strtod(given.c_str(), nullptr); }
};

int ask(const command_line &line, const json &request, double patience) {
    return ask_agent(line.socket, request, patience + agent_reserve, line.print);
}

// ---- the verbs, in the order of the help ----------------------------------------------------------------------------

void add_path(CLI::App &verb, const char *name, std::string &value, const char *help) {
    verb.add_option(name, value, help)->type_name("PATH")->capture_default_str();
}

void add_agent_names(CLI::App &verb, agent_options &options) {
    CLI::Option *name = verb.add_option("--resolve", options.resolve_name,
                                        "Answer name queries with a fresh lookup of NAME")
                            ->type_name("NAME");
    verb.add_option("--resolve-to", options.resolve_address, "Answer name queries with ADDRESS")
        ->type_name("ADDRESS")
        ->excludes(name);
    verb.add_option("--resolve-timeout", options.resolve_timeout, "Give a lookup up after so many seconds")
        ->check(seconds_from(0.1))
        ->type_name("SECONDS")
        ->capture_default_str();
}

void add_agent_hooks(CLI::App &verb, agent_options &options) {
    verb.add_option("--on-up", options.on_up, "Command to run when the tunnel is up")->type_name("CMD");
    verb.add_option("--on-down", options.on_down, "Command to run when the tunnel is down")->type_name("CMD");
    verb.add_option("--on-dns", options.on_dns, "Command to run when the DNS servers changed")->type_name("CMD");
    verb.add_option("--hook-timeout", options.hook_timeout, "End a hook after so many seconds")
        ->check(seconds_from(0.1))
        ->type_name("SECONDS")
        ->capture_default_str();
}

void add_agent_keeping(CLI::App &verb, agent_options &options) {
    verb.add_flag("--keep-up", options.keep_up, "Start the tunnel, and keep it up");
    verb.add_option("--stuck-after", options.stuck_after, "Give a connecting daemon so long to show a sign of life")
        ->check(seconds_from(1))
        ->type_name("SECONDS")
        ->capture_default_str();
    verb.add_option("--run", options.run, "Supervise the daemon: start this program, and start it again when it ends")
        ->type_name("PROGRAM");
    add_path(verb, "--daemon-log", options.daemon_log, "The daemon's log, for reasons; empty: none");
    add_path(verb, "--state", options.memory, "What outlives the agent is kept there; empty: nowhere");
}

void add_agent_telling(CLI::App &verb, agent_options &options) {
    verb.add_option("--socket-group", options.socket_group, "This group may watch on a second socket")
        ->type_name("GROUP");
    verb.add_option("--watch-socket", options.watch_socket, "That socket (by itself the first one's name with .ro)")
        ->type_name("PATH");
    verb.add_option("--http", options.http, "Serve page, status, events and metrics over HTTP, for reading only")
        ->type_name("PLACE");
    verb.add_flag("--http-anywhere", options.http_anywhere, "Allow an address there that others reach");
    verb.add_option("--log-level", options.log_level, "Of the agent's own log, on standard error")
        ->check(CLI::IsMember({"trace", "debug", "info", "warning", "error", "critical", "off"}))
        ->type_name("LEVEL")
        ->capture_default_str();
    verb.add_flag("--quiet", options.quiet, "Print no events");
    verb.add_option("--agent-conf", "File with these options, \"name = value\"; the command line wins")
        ->type_name("PATH")
        ->default_str(default_agent_conf);
}

void add_agent(CLI::App &app, command_line &line) {
    auto      options = std::make_shared<agent_options>();
    CLI::App *verb    = add_verb(
           app, "agent", "The resident part: reads, remembers and answers what the daemon says",
           "  wlcctl agent --keep-up --run /usr/sbin/tlsc\n"
              "  wlcctl agent --resolve gw.example.net\n"
              "  wlcctl agent --resolve-to 192.0.2.1 --on-up 'ip route replace 10.9.0.0/16 dev \"$TLSC_TUN\"'");
    add_path(*verb, "--from-daemon", options->from_daemon, "Pipe that the agent creates and reads");
    add_path(*verb, "--to-daemon", options->to_daemon, "Pipe that the daemon creates and reads");
    add_path(*verb, "--conf", options->conf, "The tunnel's configuration file");
    add_agent_names(*verb, *options);
    add_agent_hooks(*verb, *options);
    add_agent_keeping(*verb, *options);
    add_agent_telling(*verb, *options);
    verb->callback([&line, options] {
        const std::string &address = options->resolve_address;
        if (!address.empty() && !is_address(address))
            throw usage_error("--resolve-to: " + address + " is no IPv4 or IPv6 address");
        line.run = [&line, options] {
            options->socket  = line.socket;
            options->as_json = line.print.as_json;
            options->program = "/proc/self/exe";
            return run_agent(*options);
        };
    });
}

void add_status(CLI::App &app, command_line &line) {
    auto      is_fresh = std::make_shared<bool>(false);
    CLI::App *verb = add_verb(app, "status", "Shows what is known of daemon and tunnel (the verb when none is given)",
                              "  wlcctl\n  wlcctl status --json\n  wlcctl status --fresh && echo the tunnel is up");
    verb->add_flag("--fresh", *is_fresh, "Ask the daemon first (up to 6 s)");
    auto run = [&line, is_fresh] { return ask(line, {{"request", "status"}, {"fresh", *is_fresh}}, answer_wait); };
    verb->callback([&line, run] { line.run = run; });
    line.run = run;
}

// One packet through the tunnel that has just come up; an answer that does not come is the verb's failure.
void probe_tunnel(const std::string &address, json &answer) {
    std::string conf        = default_conf_file;
    json        status_conf = answer.contains("conf") ? answer["conf"] : json(nullptr);
    if (status_conf.is_string()) conf = status_conf.get<std::string>();
    ping_result done = ping(address, conf_value(conf, "management_ip"), conf_value(conf, "tun_interface_name"), 84,
                            false, 5);
    char        text[64];
    snprintf(text, sizeof text, "answered after %.1f ms", done.seconds * 1000);
    answer["probe"] = {{"address", address},
                       {"ok", done.is_answered},
                       {"seconds", done.seconds},
                       {"text", address + ": " + (done.is_answered ? text : done.error)}};
    if (done.is_answered) return;
    answer["ok"]    = false;
    answer["exit"]  = exit_degraded;
    answer["error"] = "the tunnel is up, but " + address + " does not answer: " + done.error;
}

void add_command(CLI::App &app, command_line &line, const char *name, double preset, const char *help,
                 const char *wait_help, const char *examples) {
    auto      wait     = std::make_shared<optional_seconds>();
    auto      probe    = std::make_shared<std::string>();
    CLI::App *verb     = add_verb(app, name, help, examples);
    bool      is_start = std::string(name).ends_with("start");
    wait->add(verb, "--wait", wait_help);
    if (is_start)
        verb->add_option("--probe", *probe, "Wait, then send one ping through the tunnel")->type_name("ADDRESS");
    verb->callback([&line, wait, probe, name, preset, is_start] {
        line.run = [&line, wait, probe, name, preset, is_start] {
            json   request = {{"request", name}};
            bool   waits   = wait->is_set() || !probe->empty();
            double seconds = wait->is_set() ? wait->value(preset) : preset;
            if (waits) request["wait"] = seconds;
            if (!is_start || !waits) return ask(line, request, waits ? seconds : 0);
            return ask_with_progress(line.socket, request, seconds + hook_reserve, line.print, [&](json &answer) {
                if (!probe->empty()) probe_tunnel(*probe, answer);
            });
        };
    });
}

void add_wait(CLI::App &app, command_line &line) {
    auto      state   = std::make_shared<std::string>();
    auto      timeout = std::make_shared<double>(start_wait);
    CLI::App *verb    = add_verb(app, "wait", "Waits until the tunnel is up, or down; sends nothing",
                                 "  wlcctl wait up --timeout 60");
    verb->add_option("state", *state, "up or down")
        ->required()
        ->check(CLI::IsMember({"up", "down"}))
        ->type_name("STATE");
    verb->add_option("--timeout", *timeout, "Seconds to wait")
        ->check(seconds_from(0))
        ->type_name("SECONDS")
        ->capture_default_str();
    verb->callback([&line, state, timeout] {
        line.run = [&line, state, timeout] {
            return ask(line, {{"request", "wait"}, {"state", *state}, {"timeout", *timeout}}, *timeout);
        };
    });
}

struct events_options {
    uint64_t                 since = 0;
    uint64_t                 count = 0;
    std::vector<std::string> kinds;
    bool                     follow = false;
};

void add_events(CLI::App &app, command_line &line) {
    auto      options = std::make_shared<events_options>();
    CLI::App *verb    = add_verb(app, "events", "Shows what happened, numbered",
                                 "  wlcctl events --since 120\n"
                                    "  wlcctl events --follow --event tun_up --event tun_down");
    verb->add_option("--since", options->since, "Only events after number N")
        ->check(whole_number_from(0))
        ->type_name("N");
    verb->add_option("--event,--kind", options->kinds, "Only events of this kind (may be repeated)")
        ->type_name("KIND")
        ->expected(1)
        ->take_all();
    verb->add_option("--count", options->count, "End after N events")->check(whole_number_from(1))->type_name("N");
    verb->add_flag("--follow", options->follow, "Go on with new events until interrupted");
    verb->callback([&line, options] {
        line.run = [&line, options] {
            json request = {{"request", "events"}, {"since", options->since}, {"count", options->count}};
            if (options->follow) request["follow"] = true;
            if (!options->kinds.empty()) request["events"] = options->kinds;
            line.print.is_follower = options->follow;
            return ask_agent(line.socket, request, options->follow ? 0 : agent_reserve, line.print);
        };
    });
}

void add_stats(CLI::App &app, command_line &line) {
    auto         is_fresh = std::make_shared<bool>(false), is_clear = std::make_shared<bool>(false);
    auto         timeout = std::make_shared<double>(answer_wait);
    CLI::App    *verb    = add_verb(app, "stats", "Shows the statistics last reported",
                                    "  wlcctl stats\n  wlcctl stats --fresh --json");
    CLI::Option *fresh   = verb->add_flag("--fresh", *is_fresh, "Ask the daemon for new ones");
    verb->add_flag("--clear", *is_clear, "Have them set to zero and reported")->excludes(fresh);
    verb->add_option("--timeout", *timeout, "Seconds to wait for the daemon")
        ->check(seconds_from(0))
        ->type_name("SECONDS")
        ->capture_default_str();
    verb->callback([&line, is_fresh, is_clear, timeout] {
        line.run = [&line, is_fresh, is_clear, timeout] {
            return ask(line, {{"request", "stats"}, {"fresh", *is_fresh}, {"clear", *is_clear}, {"timeout", *timeout}},
                       *timeout);
        };
    });
}

void add_debug(CLI::App &app, command_line &line) {
    auto      category = std::make_shared<std::string>(), word = std::make_shared<std::string>();
    CLI::App *verb = add_verb(
        app, "debug", "Sets the daemon's log level or destination; only a running tunnel obeys",
        "  wlcctl debug level debug\n  wlcctl debug destination both\n"
        "Levels: errors, warnings, info, debug, ssl-dbg, buf-print. Destinations: file, console, both.");
    verb->add_option("category", *category, "level or destination (dest)")
        ->required()
        ->check(CLI::IsMember({"level", "destination", "dest"}))
        ->type_name("CATEGORY");
    verb->add_option("word", *word, "The new level or destination")->required()->type_name("WORD");
    verb->callback([&line, category, word] {
        if (*category == "dest") *category = "destination";
        bool is_known = *category == "level" ? is_level_word(*word) : is_destination_word(*word);
        if (!is_known) throw usage_error("debug: " + *word + " is no " + *category);
        line.run = [&line, category, word] {
            return ask(line, {{"request", "debug"}, {"category", *category}, {"value", *word}}, 0);
        };
    });
}

void add_resolve(CLI::App &app, command_line &line) {
    auto      address = std::make_shared<std::string>();
    CLI::App *verb    = add_verb(app, "resolve",
                                 "Tells the daemon the gateway's address by hand; a running tunnel connects anew",
                                 "  wlcctl resolve 192.0.2.1");
    verb->add_option("address", *address, "IPv4 or IPv6 address")->required()->type_name("ADDRESS");
    verb->callback([&line, address] {
        line.run = [&line, address] { return ask(line, {{"request", "resolve"}, {"address", *address}}, 0); };
    });
}

void add_query(CLI::App &app, command_line &line, const char *name, const char *help, const char *examples) {
    auto      timeout = std::make_shared<double>(answer_wait);
    CLI::App *verb    = add_verb(app, name, help, examples);
    verb->add_option("--timeout", *timeout, "Seconds to wait for the daemon")
        ->check(seconds_from(0))
        ->type_name("SECONDS")
        ->capture_default_str();
    verb->callback([&line, timeout, name] {
        line.run = [&line, timeout, name] { return ask(line, {{"request", name}, {"timeout", *timeout}}, *timeout); };
    });
}

// ---- the configuration file -----------------------------------------------------------------------------------------

struct conf_options {
    std::string                        file  = default_conf_file;
    bool                               force = false;
    std::map<std::string, std::string> values;  // by key
    std::string                        key_file;
};

// The key's first line; "-" is standard input.
std::string read_key_file(const std::string &path) {
    std::string key;
    if (path == "-") {
        char text[4096];
        key.assign(text, fread(text, 1, sizeof text, stdin));
    } else {
        std::string why;
        auto        content = read_input(path, 4096, why);
        if (!content) throw usage_error("cannot read the key file " + path + ": " + why);
        key = *content;
    }
    while (!key.empty() && (key.back() == '\n' || key.back() == '\r')) key.pop_back();
    return key;
}

// Checks what was given, in the order of the keys; warnings collects what will surprise.
conf_values collect_values(const conf_options &options, const CLI::App &verb, std::vector<std::string> &warnings) {
    conf_values values;
    for (const conf_key &key : conf_keys) {
        std::string option   = "--" + std::string(key.name);
        std::string value    = options.values.at(key.name);
        bool        is_given = verb.count(option) > 0;
        if (option == "--psk_key" && !options.key_file.empty()) {
            value    = read_key_file(options.key_file);
            is_given = true;
        }
        if (!is_given && key.preset) value = key.preset;
        else if (!is_given && key.required) throw usage_error("conf init: " + std::string(key.name) + " is missing");
        else if (!is_given) continue;

        std::string warning, error = check_conf_value(key, value, warning);
        if (!error.empty()) throw usage_error("conf init: " + error);
        if (!warning.empty()) warnings.push_back(warning);
        values.emplace_back(key.name, value);
    }
    return values;
}

// What lint calls an error is not written.
void refuse_errors(const conf_values &values) {
    std::string content;
    for (const auto &[key, value] : values) content += key + ";" + value + ";1\n";
    for (const finding &f : lint_content(content))
        if (f.level == severity::error) throw usage_error("conf init: " + f.text + "; " + f.fix);
}

int init_conf(const command_line &line, const conf_options &options, const CLI::App &verb) {
    std::vector<std::string> warnings;
    conf_values              values = collect_values(options, verb, warnings);
    refuse_errors(values);
    std::string error = write_conf_file(options.file, values, options.force);

    json keys = json::array();
    for (const auto &entry : values) keys.push_back(entry.first);
    json answer    = local_answer("conf init", error.empty() ? exit_done : exit_failed, error);
    answer["path"] = options.file;
    if (error.empty()) answer.update({{"keys", keys}, {"warnings", warnings}, {"note", "wrote " + options.file}});
    if (!line.print.as_json)
        for (const std::string &warning : warnings) fprintf(stderr, "wlcctl: warning: %s\n", warning.c_str());
    return print_answer(answer, line.print);
}

int show_conf(const command_line &line, const conf_options &options) {
    std::string error;
    auto        content = read_conf_file(options.file, error);
    if (!content) {
        json answer    = local_answer("conf show", exit_failed, error);
        answer["path"] = options.file;
        return print_answer(answer, line.print);
    }

    json answer    = local_answer("conf show", exit_done);
    answer["path"] = options.file;
    answer.update(describe_conf(*content, false));
    return print_answer(answer, line.print);
}

void add_conf(CLI::App &app, command_line &line) {
    auto      options = std::make_shared<conf_options>();
    CLI::App *conf    = add_verb(app, "conf", "Writes or shows the tunnel's configuration file; needs no agent",
                                 "  wlcctl conf show\n  wlcctl conf init --help");
    conf->require_subcommand(1);

    CLI::App *init = add_verb(
        *conf, "init", "Writes the file anew",
        "  wlcctl conf init --server-ip-address 192.0.2.1 --management-ip 10.1.1.1 --device-id dev01 \\\n"
        "                   --psk-identity client1 --psk-key-file /root/key");
    for (const conf_key &key : conf_keys) {
        std::string dashed = key.name;
        for (char &c : dashed)
            if (c == '_') c = '-';
        std::string help = key.help + std::string(key.required ? " (required)"
                                                  : key.preset ? std::string(" (default ") + key.preset + ")"
                                                               : "");
        init->add_option("--" + dashed + ",--" + key.name, options->values[key.name], help)->type_name("TEXT");
    }
    init->add_option("--psk-key-file,--psk_key_file", options->key_file, "File that holds the key, - is standard input")
        ->type_name("PATH")
        ->excludes(init->get_option("--psk_key"));
    init->add_option("--file", options->file, "The file to write")->type_name("PATH")->capture_default_str();
    init->add_flag("--force", options->force, "Replace an existing file");
    init->callback(
        [&line, options, init] { line.run = [&line, options, init] { return init_conf(line, *options, *init); }; });

    CLI::App *show = add_verb(*conf, "show", "Shows the file, the key masked", "  wlcctl conf show --json");
    show->add_option("--file", options->file, "The file to show")->type_name("PATH")->capture_default_str();
    show->callback([&line, options] { line.run = [&line, options] { return show_conf(line, *options); }; });
}

// ---- verbs that look for themselves ---------------------------------------------------------------------------------

void add_lint(CLI::App &app, command_line &line) {
    auto      file = std::make_shared<std::string>(default_conf_file);
    CLI::App *verb = add_verb(app, "lint",
                              "Judges the tunnel's configuration file: every finding at once; needs no agent",
                              "  wlcctl lint\n  wlcctl lint new.conf --json");
    verb->add_option("file", *file, "The file")->type_name("FILE")->capture_default_str();
    verb->callback([&line, file] { line.run = [&line, file] { return run_lint(*file, line.print); }; });
}

void add_why(CLI::App &app, command_line &line) {
    auto      code = std::make_shared<std::string>();
    CLI::App *verb = add_verb(app, "why", "Explains the reason codes: cause, what to do, the log lines behind",
                              "  wlcctl why\n  wlcctl why key-mismatch");
    verb->add_option("code", *code, "Only this one")->type_name("CODE");
    verb->callback([&line, code] { line.run = [&line, code] { return run_why(*code, line.socket, line.print); }; });
}

void add_logs(CLI::App &app, command_line &line) {
    auto      options = std::make_shared<logs_options>();
    CLI::App *verb    = add_verb(app, "logs", "Shows the daemon's log, parsed; needs no agent",
                                 "  wlcctl logs --level warnings\n  wlcctl logs -f --why");
    verb->add_flag("-f,--follow", options->follow, "Go on with new lines until interrupted, through rotations");
    verb->add_flag("--why", options->has_why, "Put the reason beside the line that gives it away");
    verb->add_option("--level", options->level, "Only lines of this level and above")
        ->check(CLI::IsMember({"errors", "warnings", "info", "debug", "ssl-dbg"}))
        ->type_name("LEVEL");
    verb->add_option("-n,--lines", options->count, "Only the last N of what stands there")
        ->check(whole_number_from(0))
        ->type_name("N");
    verb->add_option("--file", options->path, "The log")->type_name("PATH")->capture_default_str();
    verb->callback([&line, options] { line.run = [&line, options] { return run_logs(*options, line.print); }; });
}

void add_watch(CLI::App &app, command_line &line) {
    auto      count = std::make_shared<uint64_t>(0);
    CLI::App *verb  = add_verb(app, "watch", "The status, live: repainted on a terminal, else one line for each change",
                               "  wlcctl watch\n  wlcctl watch --json | jq .event");
    verb->add_option("--count", *count, "End after N changes")->check(whole_number_from(1))->type_name("N");
    verb->callback(
        [&line, count] { line.run = [&line, count] { return watch_agent(line.socket, line.print, *count); }; });
}

void add_doctor(CLI::App &app, command_line &line) {
    auto options         = std::make_shared<doctor_options>();
    options->conf        = default_conf_file;
    options->to_daemon   = default_to_daemon;
    options->from_daemon = default_from_daemon;
    CLI::App *verb       = add_verb(app, "doctor",
                                    "Checks the device from top to bottom, names the first cause and its remedy",
                                    "  wlcctl doctor\n  wlcctl doctor --mtu --ping 10.9.0.1");
    verb->add_flag("--mtu", options->checks_mtu, "Send large packets that must not be cut: 1406 and 1436 bytes");
    verb->add_option("--ping", options->ping, "Address behind the tunnel (by itself the first DNS server)")
        ->type_name("ADDRESS");
    verb->add_option("--conf", options->conf, "The configuration file")->type_name("PATH")->capture_default_str();
    verb->add_option("--to-daemon", options->to_daemon, "The daemon's pipe")->type_name("PATH")->capture_default_str();
    verb->add_option("--from-daemon", options->from_daemon, "The agent's pipe")
        ->type_name("PATH")
        ->capture_default_str();
    verb->callback([&line, options] {
        line.run = [&line, options] {
            options->socket = line.socket;
            return run_doctor(*options, line.print);
        };
    });
}

void add_report(CLI::App &app, command_line &line) {
    auto      out = std::make_shared<std::string>(), conf = std::make_shared<std::string>(default_conf_file);
    auto      log  = std::make_shared<std::string>(default_daemon_log);
    CLI::App *verb = add_verb(app, "report", "Packs what a bug report needs, without keys, cookies and identities",
                              "  wlcctl report\n  wlcctl report -o /tmp/report.tar.gz");
    verb->add_option("-o,--out", *out, "The file to write (by itself tlsc-report-DATE.tar.gz here)")->type_name("FILE");
    verb->add_option("--conf", *conf, "The configuration file")->type_name("PATH")->capture_default_str();
    verb->add_option("--log", *log, "The daemon's log")->type_name("PATH")->capture_default_str();
    verb->callback([&line, out, conf, log] {
        line.run = [&line, out, conf, log] { return run_report(*out, line.socket, *conf, *log, line.print); };
    });
}

void add_metrics(CLI::App &app, command_line &line) {
    auto      out  = std::make_shared<std::string>();
    CLI::App *verb = add_verb(app, "metrics", "Prints the agent's metrics in Prometheus' text format",
                              "  wlcctl metrics\n  wlcctl metrics -o /var/lib/prometheus/node-exporter/tlsc.prom");
    verb->add_option("-o,--out", *out, "Replace this file in one step; without an agent it is removed")
        ->type_name("FILE");
    verb->callback([&line, out] { line.run = [&line, out] { return run_metrics(*out, line.socket, line.print); }; });
}

void add_decode(CLI::App &app, command_line &line) {
    auto options   = std::make_shared<decode_options>();
    options->conf  = default_conf_file;
    CLI::App *verb = add_verb(
        app, "decode", "Shows the tunnel's frames in a capture (with tshark); needs no agent",
        "  wlcctl decode wan.pcapng\n  wlcctl decode wan.pcapng --verbose --keylog gateway-keys.txt");
    verb->add_option("file", options->file, "The capture, pcap or pcapng, from the handshake on")
        ->required()
        ->type_name("FILE");
    verb->add_option("--conf", options->conf, "Configuration file that holds the key")
        ->type_name("PATH")
        ->capture_default_str();
    verb->add_option("--keylog", options->keylog, "TLS secrets that the gateway wrote, for DHE and ECDHE suites")
        ->type_name("PATH");
    verb->add_option("--port", options->port, "The gateway's port: all TLS data on it is CSTP, malformed or not")
        ->check(CLI::Range(1, 65535))
        ->type_name("PORT");
    verb->add_option("--dissector", options->dissector, "cstp.lua, where it is not installed")->type_name("PATH");
    verb->add_flag("--verbose", options->is_verbose, "Everything about each frame");
    verb->callback([&line, options] {
        line.run = [&line, options] {
            options->as_json = line.print.as_json;
            return run_decode(*options, line.print);
        };
    });
}

// The verb that these words name, below the verbs of `above`.
CLI::App *find_verb(CLI::App &above, const std::vector<std::string> &words) {
    CLI::App *at = &above;
    for (const std::string &word : words) {
        auto all   = at->get_subcommands([](const CLI::App *) { return true; });
        auto found = std::find_if(all.begin(), all.end(),
                                  [&](const CLI::App *each) { return each->get_name() == word; });
        if (found == all.end()) {
            std::string list;
            for (const CLI::App *each : all) list += (list.empty() ? "" : ", ") + each->get_name();
            throw usage_error("help: there is no verb " + printable(word, 64) +
                              "; there are: " + (list.empty() ? "none below " + at->get_name() : list));
        }
        at = *found;
    }
    return at;
}

void add_help(CLI::App &app, command_line &line) {
    auto      words = std::make_shared<std::vector<std::string>>();
    CLI::App *verb  = add_verb(app, "help", "Explains a verb, or lists them all",
                               "  wlcctl help start\n  wlcctl help conf init");
    verb->add_option("verb", *words, "The verb")->type_name("VERB")->expected(0, 2);
    verb->callback([&app, &line, words] {
        CLI::App   *wanted = find_verb(app, *words);
        std::string name   = "wlcctl";
        for (const std::string &word : *words) name += " " + word;
        line.run = [&line, &app, wanted, name] {
            std::string text = app.get_formatter()->make_help(wanted, name, CLI::AppFormatMode::Normal);
            if (!line.print.as_json) return fputs(text.c_str(), stdout), static_cast<int>(exit_done);
            json answer    = local_answer("help", exit_done);
            answer["text"] = text;
            return print_answer(answer, line.print);
        };
    });
}

// ---- the agent's configuration file ---------------------------------------------------------------------------------

bool is_given(const std::vector<std::string> &words, const std::string &option) {
    return std::any_of(words.begin(), words.end(), [&](const std::string &word) {
        return word == option || word.compare(0, option.size() + 1, option + "=") == 0;
    });
}

// Adds what the file says to the words of the command line, as far as they say nothing of it.
void add_agent_conf(CLI::App &app, std::vector<std::string> &words) {
    auto verb = words.begin();  // the first word that is neither an option nor an option's value
    while (verb != words.end() && verb->starts_with('-')) verb += *verb == "--socket" && words.end() - verb > 1 ? 2 : 1;
    if (verb == words.end() || *verb != "agent" || is_given(words, "--help") || is_given(words, "-h")) return;
    std::string path = default_agent_conf;
    for (size_t i = 0; i < words.size(); i++) {
        if (words[i] == "--agent-conf" && i + 1 < words.size()) path = words[i + 1];
        if (words[i].starts_with("--agent-conf=")) path = words[i].substr(13);
    }
    std::string error;
    auto        content = read_agent_conf(path, error);
    if (!error.empty()) throw usage_error(error);
    if (!content && is_given(words, "--agent-conf")) throw usage_error("cannot read " + printable(path));
    if (!content) return;

    CLI::App                *agent = app.get_subcommand("agent");
    std::vector<std::string> added;
    auto                     settings = parse_agent_conf(*content, error);
    if (!error.empty()) throw usage_error(printable(path) + ": " + error);
    for (const agent_setting &setting : settings) {
        std::string name   = "--" + setting.key,
                    place  = printable(path) + ": line " + std::to_string(setting.line) + ": ";
        CLI::Option *known = agent->get_option_no_throw(name);
        if (!known && (setting.key == "socket" || setting.key == "json")) known = app.get_option_no_throw(name);
        if (!known || setting.key == "agent-conf" || setting.key == "help") {
            std::string list = "socket, json";
            for (const CLI::Option *each : agent->get_options())
                if (!each->get_lnames().empty() && each->get_lnames()[0] != "help" &&
                    each->get_lnames()[0] != "agent-conf")
                    list += ", " + each->get_lnames()[0];
            throw usage_error(place + "there is no option " + setting.key + "; there are: " + list);
        }
        bool is_over = is_given(words, name) || (setting.key == "resolve" && is_given(words, "--resolve-to")) ||
                       (setting.key == "resolve-to" && is_given(words, "--resolve"));
        if (is_over) continue;
        if (known->get_items_expected_max() > 0) {
            added.push_back(name + "=" + setting.value);
            continue;
        }
        auto is_on = truth_of(setting.value);
        if (!is_on) throw usage_error(place + setting.key + " must be true or false");
        if (*is_on) added.push_back(name);
    }
    words.insert(std::next(verb), added.begin(), added.end());
}

// ---- all together ---------------------------------------------------------------------------------------------------

void add_verbs(CLI::App &app, command_line &line) {
    add_status(app, line);
    add_command(app, line, "start", start_wait, "Starts the tunnel",
                "Wait until the tunnel is up (30 s if no number is given)", "  wlcctl start\n  wlcctl start --wait 60");
    add_command(app, line, "stop", stop_wait, "Stops the tunnel",
                "Wait until the daemon has read it (10 s if no number is given)", "  wlcctl stop --wait");
    add_command(app, line, "restart", start_wait, "Stops and starts the tunnel, with the configuration read anew",
                "Wait until the tunnel is up again (30 s if no number is given)", "  wlcctl restart --wait");
    add_wait(app, line);
    add_events(app, line);
    add_stats(app, line);
    add_debug(app, line);
    add_resolve(app, line);
    add_query(app, line, "hello", "Says HELLO and waits for the daemon's", "  wlcctl hello");
    add_query(app, line, "info", "Asks for the daemon's process id", "  wlcctl info --json");
    add_command(app, line, "shutdown", shutdown_wait, "Ends the daemon",
                "Wait until its process has ended (15 s if no number is given)", "  wlcctl shutdown --wait");
    add_conf(app, line);
    add_lint(app, line);
    add_why(app, line);
    add_logs(app, line);
    add_watch(app, line);
    add_doctor(app, line);
    add_report(app, line);
    add_metrics(app, line);
    add_decode(app, line);
    add_agent(app, line);
    add_help(app, line);
}

int usage(const std::string &what) {
    std::string first = printable(what.substr(0, what.find('\n')));
    fprintf(stderr, "wlcctl: %s (see wlcctl --help)\n", first.c_str());
    return exit_usage;
}

int run(int argc, char **argv) {
    CLI::App     app("The reference controller of the TLS tunnel client.", "wlcctl");
    command_line line;
    app.require_subcommand(0, 1);
    app.set_version_flag("-V,--version", std::string("wlcctl ") + WLCCTL_VERSION);
    app.add_option("--socket", line.socket, "Socket of the agent")->type_name("PATH")->capture_default_str();
    app.add_flag("--json", line.print.as_json, "Print JSON instead of text");
    app.footer(
        "Exit status, of every verb: 0 done (status: tunnel up), 1 failed, 2 usage, 3 not up, or not reached in time,\n"
        "4 daemon not running, 5 no answer in time, 6 degraded, 7 another controller, 8 stopped by order,\n"
        "9 unknown, or no agent, 10 a hook failed.");
    add_verbs(app, line);

    try {
        std::vector<std::string> words(argv + 1, argv + argc);
        add_agent_conf(app, words);
        std::reverse(words.begin(), words.end());  // as the parser wants them
        app.parse(words);
        return line.run();
    } catch (const CLI::Success &success) {
        return app.exit(success);
    } catch (const CLI::ParseError &error) {
        return usage(error.what());
    } catch (const usage_error &error) {
        return usage(error.what());
    }
}

}  // namespace
}  // namespace wlcctl

int main(int argc, char **argv) {
    try {
        return wlcctl::run(argc, argv);
    } catch (const std::exception &error) {
        fprintf(stderr, "wlcctl: %s\n", wlcctl::printable(error.what()).c_str());
        return wlcctl::exit_failed;
    }
}
