#include "telemetry.h"

#include "common/log.h"

#include "conf.h"

#include <cstring>
#include <dlfcn.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

namespace wlcctl {

namespace {

constexpr milliseconds fresh{200};       // for which a text that was made is served again
constexpr double       conf_period = 5;  // seconds between two looks for the secrets of the configuration

std::string history_path(const std::string &memory) { return memory.empty() ? "" : memory + ".history"; }

// The directory that this program lies in.
std::string own_directory() {
    char        path[4096];
    ssize_t     count = readlink("/proc/self/exe", path, sizeof path);
    std::string whole(path, count > 0 ? static_cast<size_t>(count) : 0);
    return whole.substr(0, whole.find_last_of('/'));
}

// The module beside the program, as it is built, or where packages put it.
void *open_module(std::string &why) {
    std::string here = own_directory(), tried;
    for (const std::string &path : {here + "/" + http_module_name, here + "/../lib/tlsc/" + http_module_name}) {
        if (access(path.c_str(), F_OK) != 0) {
            tried += (tried.empty() ? "" : " nor ") + path;
            continue;
        }
        void *module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!module) why = dlerror();
        return module;
    }
    why = "there is neither " + tried;
    return nullptr;
}

http_pages *open_pages(const http_options &options, http_board_view &board, std::string &why) {
    void *module = open_module(why);  // stays: its threads' last instructions lie in it
    if (!module) return nullptr;
    auto *version = static_cast<const char **>(dlsym(module, "wlcctl_http_version"));
    auto *open    = reinterpret_cast<open_http_pages_function *>(dlsym(module, "wlcctl_open_http_pages"));
    if (!version || !open || strcmp(*version, WLCCTL_VERSION) != 0) {
        why = std::string(http_module_name) + " is of another version";
        return nullptr;
    }
    return open(options, board, why);
}

}  // namespace

telemetry::telemetry(loop &owner, const agent_options &options, knowledge &known, keeper &keep, verbs &requests)
    : owner_(owner),
      options_(options),
      known_(known),
      verbs_(requests),
      metrics_(known, keep),
      history_(history_path(options.memory)) {
    verbs_.metrics_text = [this] {
        moment now = present();
        metrics_.look(now);
        return metrics_.text(now);
    };
    known_.log.listen([this, alive = std::weak_ptr<bool>(alive_)](const event &e, const json &members) {
        if (!alive.expired()) add_event(e, members);
    });
}

telemetry::~telemetry() {
    if (board_) board_->close();
}

void telemetry::load(const json &kept) {
    metrics_.load(kept);
    history_.load(present());
}

std::string telemetry::open(int &status) {
    if (options_.http.empty()) return "";
    http_options wanted;
    status = exit_usage;
    if (std::string why = parse_http_place(options_.http, wanted.place); !why.empty()) return "--http: " + why;
    if (!wanted.place.is_loopback && !options_.http_anywhere)
        return "--http: " + wanted.place.address +
               " can be reached by others, and answers need no password; --http-anywhere allows it";
    wanted.report = {options_.program.empty() ? "/proc/self/exe" : options_.program,
                     "--socket",
                     options_.socket,
                     "report",
                     "--conf",
                     options_.conf,
                     "--log",
                     options_.daemon_log,
                     "--out"};
    status = exit_failed;
    board_ = std::make_unique<http_board>(owner_, known_.log.stream());
    offer_texts();
    secrets_.hide_conf(options_.conf);
    known_.log.each_since(0, [this](const event &e) {
        show_event(e, parse_json(known_.log.text(e)));
        return true;
    });
    std::string why;
    pages_.reset(open_pages(wanted, *board_, why));
    return pages_ ? "" : "--http: " + why;
}

void telemetry::look(const moment &now) {
    metrics_.look(now);
    history_.look(known_, now);
    if (!board_ || now.mono < secrets_read_ + conf_period) return;
    secrets_read_ = now.mono;
    secrets_.hide_conf(options_.conf);  // the old ones stay hidden
}

void telemetry::offer_texts() {
    board_->offer("status", fresh, [this] {
        return verbs_.server().answer_text("status", redacted(verbs_.status_now(), secrets_)) + "\n";
    });
    board_->offer("conf", fresh, [this] { return conf_text(); });
    board_->offer("history", fresh, [this] { return history_text(); });
    board_->offer("metrics", fresh, verbs_.metrics_text);
}

std::string telemetry::conf_text() {
    std::string error;
    auto        content = read_conf_file(options_.conf, error);
    json        answer  = {{"path", options_.conf}};
    secrets_.hide_conf(options_.conf);
    if (content) answer.update(describe_conf(*content, true));
    else answer.update({{"exit", exit_failed}, {"error", error}});
    return verbs_.server().answer_text("conf show", redacted(answer, secrets_)) + "\n";
}

std::string telemetry::history_text() const {
    json all = {{"schema", schema_number}, {"version", WLCCTL_VERSION}, {"stream", known_.log.stream()}};
    all.update(history_.describe(present()));
    return json_line(all);
}

void telemetry::add_event(const event &e, const json &members) {
    metrics_.on_event(e, members);
    if (board_) show_event(e, members);
}

void telemetry::show_event(const event &e, const json &members) {
    json safe = redacted(members, secrets_);
    if (safe == members) return board_->add_event(e.number, known_.log.text(e));
    json whole = {{"schema", schema_number}, {"stream", known_.log.stream()}};
    whole.update(safe);
    std::string line = json_line(whole);
    line.pop_back();
    board_->add_event(e.number, std::move(line));
}

}  // namespace wlcctl
