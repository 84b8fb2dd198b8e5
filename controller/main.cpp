// wlcctl: the reference controller and its command line. Verbs and options; what they do lies in agent, client and conf.
#include "agent.h"
#include "client.h"
#include "conf.h"
#include "state.h"
#include "wire.h"

#include <CLI/CLI.hpp>

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

#ifndef WLCCTL_VERSION
#define WLCCTL_VERSION "0"
#endif

namespace wlcctl {
namespace {

constexpr double start_wait    = 30;  // seconds of --wait without a number
constexpr double stop_wait     = 10;
constexpr double shutdown_wait = 15;
constexpr double answer_wait   = 6;   // of --timeout, for verbs that the daemon answers
constexpr double agent_reserve = 10;  // seconds that the agent may be late

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

// --- the verbs, in the order of the help --------------------------------------------------------------------------------

void add_agent(CLI::App &app, command_line &line) {
    auto      options = std::make_shared<agent_options>();
    CLI::App *verb    = add_verb(
           app, "agent", "The resident part: reads, remembers and answers what the daemon says",
           "  wlcctl agent --resolve gw.example.net\n"
              "  wlcctl agent --resolve-to 192.0.2.1 --on-up 'ip route replace 10.9.0.0/16 dev \"$TLSC_TUN\"'");
    verb->add_option("--from-daemon", options->from_daemon, "Pipe that the agent creates and reads")
        ->type_name("PATH")
        ->capture_default_str();
    verb->add_option("--to-daemon", options->to_daemon, "Pipe that the daemon creates and reads")
        ->type_name("PATH")
        ->capture_default_str();
    verb->add_option("--conf", options->conf, "Configuration file, for the hooks' environment")
        ->type_name("PATH")
        ->capture_default_str();
    CLI::Option *name = verb->add_option("--resolve", options->resolve_name,
                                         "Answer name queries with a fresh lookup of NAME")
                            ->type_name("NAME");
    verb->add_option("--resolve-to", options->resolve_address, "Answer name queries with ADDRESS")
        ->type_name("ADDRESS")
        ->excludes(name);
    verb->add_option("--resolve-timeout", options->resolve_timeout, "Give a lookup up after so many seconds")
        ->check(seconds_from(0.1))
        ->type_name("SECONDS")
        ->capture_default_str();
    verb->add_option("--on-up", options->on_up, "Command to run when the tunnel is up")->type_name("CMD");
    verb->add_option("--on-down", options->on_down, "Command to run when the tunnel is down")->type_name("CMD");
    verb->add_option("--on-dns", options->on_dns, "Command to run when the DNS servers changed")->type_name("CMD");
    verb->add_option("--hook-timeout", options->hook_timeout, "End a hook after so many seconds")
        ->check(seconds_from(0.1))
        ->type_name("SECONDS")
        ->capture_default_str();
    verb->add_flag("--quiet", options->quiet, "Print no events");
    verb->callback([&line, options] {
        uint8_t            bytes[16];
        const std::string &address = options->resolve_address;
        if (!address.empty() && inet_pton(AF_INET, address.c_str(), bytes) != 1 &&
            inet_pton(AF_INET6, address.c_str(), bytes) != 1)
            throw usage_error("--resolve-to: " + address + " is no IPv4 or IPv6 address");
        line.run = [&line, options] {
            options->socket  = line.socket;
            options->as_json = line.print.as_json;
            return run_agent(*options);
        };
    });
}

void add_status(CLI::App &app, command_line &line) {
    auto      is_fresh = std::make_shared<bool>(false);
    CLI::App *verb = add_verb(app, "status", "Shows what is known of daemon and tunnel (the verb when none is given)",
                              "  wlcctl\n  wlcctl status --json\n  wlcctl status --fresh && echo the tunnel is up");
    verb->add_flag("--fresh", *is_fresh, "Ask the daemon first (up to 6 s)");
    auto run = [&line, is_fresh] { return ask(line, {{"verb", "status"}, {"fresh", *is_fresh}}, answer_wait); };
    verb->callback([&line, run] { line.run = run; });
    line.run = run;
}

void add_command(CLI::App &app, command_line &line, const char *name, double preset, const char *help,
                 const char *wait_help, const char *examples) {
    auto      wait = std::make_shared<optional_seconds>();
    CLI::App *verb = add_verb(app, name, help, examples);
    wait->add(verb, "--wait", wait_help);
    verb->callback([&line, wait, name, preset] {
        line.run = [&line, wait, name, preset] {
            json request = {{"verb", name}};
            if (wait->is_set()) request["wait"] = wait->value(preset);
            return ask(line, request, wait->is_set() ? wait->value(preset) : 0);
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
            return ask(line, {{"verb", "wait"}, {"state", *state}, {"timeout", *timeout}}, *timeout);
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
                                 "  wlcctl events --since 120\n  wlcctl events --follow --kind tun_up --kind tun_down");
    verb->add_option("--since", options->since, "Only events after number N")
        ->check(whole_number_from(0))
        ->type_name("N");
    verb->add_option("--kind", options->kinds, "Only events of this kind (may be repeated)")
        ->type_name("KIND")
        ->expected(1)
        ->take_all();
    verb->add_option("--count", options->count, "End after N events")->check(whole_number_from(1))->type_name("N");
    verb->add_flag("--follow", options->follow, "Go on with new events until interrupted");
    verb->callback([&line, options] {
        line.run = [&line, options] {
            json request = {
                {"verb", "events"}, {"since", options->since}, {"count", options->count}, {"follow", options->follow}};
            if (!options->kinds.empty()) request["kinds"] = options->kinds;
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
            return ask(line, {{"verb", "stats"}, {"fresh", *is_fresh}, {"clear", *is_clear}, {"timeout", *timeout}},
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
            return ask(line, {{"verb", "debug"}, {"category", *category}, {"value", *word}}, 0);
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
        line.run = [&line, address] { return ask(line, {{"verb", "resolve"}, {"address", *address}}, 0); };
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
        line.run = [&line, timeout, name] { return ask(line, {{"verb", name}, {"timeout", *timeout}}, *timeout); };
    });
}

// --- the configuration file ---------------------------------------------------------------------------------------------

struct conf_options {
    std::string                        file  = default_conf_file;
    bool                               force = false;
    std::map<std::string, std::string> values;  // by key
    std::string                        key_file;
};

// The key's first line; "-" is standard input.
std::string read_key_file(const std::string &path) {
    FILE *file = path == "-" ? stdin : fopen(path.c_str(), "re");
    if (!file) throw usage_error("cannot read the key file " + path);
    char   text[4096];
    size_t n = fread(text, 1, sizeof text, file);
    if (file != stdin) fclose(file);
    std::string key(text, n);
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

int init_conf(const command_line &line, const conf_options &options, const CLI::App &verb) {
    std::vector<std::string> warnings;
    conf_values              values = collect_values(options, verb, warnings);
    std::string              error  = write_conf_file(options.file, values, options.force);

    json keys = json::array();
    for (const auto &entry : values) keys.push_back(entry.first);
    json answer = {{"ok", error.empty()},
                   {"exit", error.empty() ? exit_done : exit_failed},
                   {"verb", "conf init"},
                   {"path", options.file}};
    if (!error.empty()) answer["error"] = error;
    else answer.update({{"keys", keys}, {"warnings", warnings}, {"note", "wrote " + options.file}});
    if (!line.print.as_json)
        for (const std::string &warning : warnings) fprintf(stderr, "wlcctl: warning: %s\n", warning.c_str());
    return print_answer(answer, line.print);
}

int show_conf(const command_line &line, const conf_options &options) {
    std::string error;
    auto        content = read_conf_file(options.file, error);
    if (!content)
        return print_answer(
            {{"ok", false}, {"exit", exit_failed}, {"verb", "conf show"}, {"path", options.file}, {"error", error}},
            line.print);

    size_t skipped = 0;
    json   entries = json::array();
    for (const conf_entry &entry : parse_conf(*content, skipped))
        entries.push_back({{"key", entry.key},
                           {"value", entry.key == "psk_key" ? "***" : entry.value},
                           {"flag", entry.flag != 0 ? 1 : 0}});
    return print_answer({{"ok", true},
                         {"exit", exit_done},
                         {"verb", "conf show"},
                         {"path", options.file},
                         {"entries", entries},
                         {"skipped", skipped}},
                        line.print);
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

// --- all together -------------------------------------------------------------------------------------------------------

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
    add_agent(app, line);
}

int usage(const std::string &what) {
    std::string first = what.substr(0, what.find('\n'));
    fprintf(stderr, "wlcctl: %s (see wlcctl --help)\n", first.c_str());
    return exit_usage;
}

int run(int argc, char **argv) {
    CLI::App     app("The reference controller of the TLS tunnel client.", "wlcctl");
    command_line line;
    app.require_subcommand(0, 1);
    app.set_version_flag("--version", std::string("wlcctl ") + WLCCTL_VERSION);
    app.add_option("--socket", line.socket, "Socket of the agent")->type_name("PATH")->capture_default_str();
    app.add_flag("--json", line.print.as_json, "Print JSON instead of text");
    app.footer("Exit status: 0 done (status: tunnel up), 1 failed, 2 usage, 3 tunnel not up, 4 daemon not running,\n"
               "5 no answer in time, 7 another controller, 8 feature disabled, 9 unknown.");
    add_verbs(app, line);

    try {
        app.parse(argc, argv);
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
        fprintf(stderr, "wlcctl: %s\n", error.what());
        return wlcctl::exit_failed;
    }
}
