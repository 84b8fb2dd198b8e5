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

// The module stays: its threads' last instructions lie in it.
http_pages *make_pages(const http_options &options, const std::string &stream, std::string &why) {
    void *module = open_module(why);
    if (!module) return nullptr;
    auto *version = static_cast<const char **>(dlsym(module, "wlcctl_http_version"));
    auto *make    = reinterpret_cast<make_http_pages_function *>(dlsym(module, "wlcctl_make_http_pages"));
    bool  is_ours = version && make && strcmp(*version, WLCCTL_VERSION) == 0;
    why           = is_ours ? "no descriptor is left" : std::string(http_module_name) + " is of another version";
    return is_ours ? make(options, stream) : nullptr;
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

json telemetry::save() const { return metrics_.save(); }

void telemetry::finish(const moment &now) { (void)history_.save(now); }

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
    wanted.program = options_.program.empty() ? "/proc/self/exe" : options_.program;
    wanted.socket  = options_.socket;
    wanted.conf    = options_.conf;
    wanted.log     = options_.daemon_log;
    status         = exit_failed;
    std::string why;
    pages_.reset(make_pages(wanted, known_.log.stream(), why));
    if (pages_) why = show_all();
    return why.empty() ? "" : "--http: " + why;
}

// Lays everything out, and opens the doors.
std::string telemetry::show_all() {
    offer_texts();
    secrets_.hide_conf(options_.conf);
    known_.log.each_since(0, [this](const event &e) {
        show_event(e);
        return true;
    });
    bell_ = std::make_unique<descriptor_watch>(owner_, pages_->bell());
    bell_->start(readable, [this](unsigned) { pages_->serve_bell(); });
    return pages_->open();
}

void telemetry::look(const moment &now) {
    metrics_.look(now);
    history_.look(known_, now);
    if (!pages_ || now.mono < secrets_read_ + conf_period) return;
    secrets_read_ = now.mono;
    secrets_.hide_conf(options_.conf);  // the old ones stay hidden
}

void telemetry::offer_texts() {
    pages_->offer("status", fresh, [this] {
        return verbs_.server().answer_text("status", redacted(verbs_.status_now(), secrets_)) + "\n";
    });
    pages_->offer("conf", fresh, [this] { return conf_text(); });
    pages_->offer("history", fresh, [this] { return history_text(); });
    pages_->offer("metrics", fresh, verbs_.metrics_text);
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
    return "{\"schema\":" + std::to_string(schema_number) + ",\"version\":\"" WLCCTL_VERSION "\",\"stream\":\"" +
           known_.log.stream() + "\"," + history_.describe(present()) + "}\n";
}

void telemetry::add_event(const event &e, const json &members) {
    metrics_.on_event(e, members);
    if (pages_) show_event(e);
}

void telemetry::show_event(const event &e) {
    std::string text = known_.log.text(e);
    if (secrets_.concerns(text)) {
        text = json_line(redacted(parse_json(text), secrets_));
        text.pop_back();
    }
    pages_->add_event(e.number, std::move(text));
}

}  // namespace wlcctl
