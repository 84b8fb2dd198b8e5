// The requests of the controller's agent, beside a daemon that sends anything and a configuration file that holds
// anything: each line gets one answer at most, no key is in any, what goes to the daemon are whole messages that it
// knows, and the agent serves the next request. Input: settings, the configuration file, then actions: a request of the
// table, any bytes, a pass of the loop, something from the daemon, the daemon's coming and going.
#include <algorithm>
#include <csignal>

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

#include "common/log.h"

#include "keeper.h"
#include "known.h"
#include "orders.h"
#include "pipe.h"
#include "verbs.h"

#include "conf_text.h"
#include "requests.h"

using namespace wlcctl;

namespace {

const std::vector<std::string> words = {"up",      "down",    "level",    "destination", "errors",      "ssl-dbg",
                                        "both",    "file",    "console",  "192.0.2.1",   "2001:db8::1", "",
                                        "level\n", "errorsX", "\\u0000x", "status",      "No Error"};

struct service {
    fuzz_directory             directory;
    std::string                path = directory.file("socket");
    agent_options              options;
    common::loop               owner;
    event_log                  log{event_kinds};
    std::optional<daemon_pipe> pipe;
    std::optional<knowledge>   known;
    std::optional<orders>      to;
    std::optional<keeper>      keep;
    std::optional<verbs>       serving;

    // keeps_up: as with --keep-up.
    service(const std::string &conf, bool keeps_up) {
        options.socket          = path;
        options.from_daemon     = directory.file("from");
        options.to_daemon       = directory.file("to");
        options.conf            = directory.file("conf");
        options.daemon_log      = "";
        options.memory          = "";
        options.resolve_address = "192.0.2.9";  // no name is looked up
        options.keep_up         = keeps_up;
        write_file(options.conf, conf);
        std::string why;
        pipe.emplace(owner, options.from_daemon, options.to_daemon);
        MUST(pipe->open(why) == 0);
        known.emplace(log, [this] { return pipe->is_process_alive(); });
        known->conf_path = options.conf;
        to.emplace(log, *known, *pipe);
        keep.emplace(owner, options, *known, *to, *pipe);
        serving.emplace(owner, options, *known, *to, *pipe, *keep);
        serving->look    = [] {};
        pipe->on_garbage = [this](size_t bytes) { log.add("garbage", {{"bytes", bytes}}); };
        pipe->on_message = [this](const message &m) { take(m); };
        serving->server().listen(path);
    }

    static void write_file(const std::string &name, const std::string &text) {
        const common::unique_fd fd(open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        MUST(write(fd.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()));
    }
    // As the agent does, but that nothing is signalled: the process that the daemon names may be anybody's.
    void take(const message &m) {
        const moment now = present();
        known->state.on_message(m, now);
        if (m.kind == report::statistics) known->book.on_report(m.values, now);
        if (m.kind == report::up) keep->on_up(now);
        if (m.kind == report::name_query) keep->on_name_query(now);
        known->settle(now);
        serving->run_waiters();
    }
    void one_pass() { serve_once(owner); }
};

// The daemon's ends of the pipes.
struct daemon_ends {
    const agent_options &options;
    common::unique_fd    in{};

    void come() {
        (void)mkfifo(options.to_daemon.c_str(), 0600);
        in.reset(open(options.to_daemon.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        MUST(in);
    }
    void say(std::string_view bytes) const {
        const common::unique_fd out(open(options.from_daemon.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
        MUST(out && write(out.get(), bytes.data(), bytes.size()) <= static_cast<ssize_t>(bytes.size()));
    }
    // Whole messages, of those that go this way, with a text that ends.
    void hear() const {
        constexpr uint32_t known_ids[] = {1, 20, 21, 22, 28, 29, 32, 34, 35, 37};
        char               record[520];
        ssize_t            count;
        while (in && (count = read(in.get(), record, sizeof(record))) > 0) {
            uint32_t id;
            memcpy(&id, record, sizeof(id));
            MUST(count == sizeof(record) && record[sizeof(record) - 1] == '\0');
            MUST(std::find(std::begin(known_ids), std::end(known_ids), id) != std::end(known_ids));
        }
    }
};

std::string daemon_bytes(fuzz_input &in) {
    constexpr uint32_t ids[] = {1, 23, 24, 25, 27, 30, 30, 36};
    if (in.chance(16)) return std::string(in.bytes(in.below(600)));
    std::string    record(record_size, '\0');
    const uint32_t id = ids[in.below(std::size(ids))];
    memcpy(record.data(), &id, sizeof(id));
    const std::string_view payload = in.bytes(in.below(80));
    record.replace(8, payload.size(), payload);
    if (id == 36) {
        const int32_t nobody = 0x7fffff00;  // no process has this number
        memcpy(record.data() + 8, &nobody, sizeof(nobody));
    }
    return record;
}

json table() {
    service one("", false);
    return ask_for_help(one);
}

std::string conf_of(fuzz_input &in) {
    const std::string_view part = in.bytes(in.below(300));
    fuzz_input             of_file(reinterpret_cast<const uint8_t *>(part.data()), part.size());
    return "server_ip_address;192.0.2.7;1\nmanagement_ip;10.0.0.1;1\npsk_identity;me;1\npsk_key;" + secret + ";1\n" +
           conf_text(of_file);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    common::open_log("fuzz", "-", "off");
    (void)signal(SIGPIPE, SIG_IGN);
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    if (knows_secret(bytes, size, secret)) return 0;
    static const request_maker requests(table(), words);
    fuzz_input                 in(bytes, size);
    const uint8_t              settings = in.byte();
    service                    service(conf_of(in), (settings & 1) != 0);
    conversation               with(service.path);
    daemon_ends                daemon{service.options};
    std::string                sent;
    if ((settings & 6) != 0) daemon.come();
    while (!in.empty() && sent.size() < 20000) {
        std::string text;
        switch (in.below(16)) {
        case 0: text = std::string(in.bytes(in.below(60))); break;
        case 1: text = std::string(in.bytes(in.below(60))) + "\n"; break;
        case 2:
        case 3: daemon.say(daemon_bytes(in)); break;
        case 4:
        case 5:
            service.one_pass();
            (void)with.take();
            daemon.hear();
            break;
        case 6:
            if (daemon.in) daemon.in.reset();
            else daemon.come();
            break;
        default: text = requests.make(in);
        }
        with.send(text);
        sent += text;
    }
    with.send("\n");
    with.end_input();
    with.serve(20, [&] { service.one_pass(); });
    daemon.hear();
    MUST(check_answers(with.received, "wlcctl") <= count_of_lines(sent + "\n"));
    MUST(!shows(with.received, secret));

    conversation next(service.path);
    next.send("{\"request\":\"status\"}\n{\"request\":\"events\"}\n");
    next.end_input();
    next.serve(20, [&] { service.one_pass(); });
    MUST(next.is_over && check_answers(next.received, "wlcctl") == 2);
    MUST(!shows(next.received, secret));
    return 0;
}
