#include "local.h"

#include "common/loop.h"
#include "common/log.h"

#include "diagnosis.h"
#include "follower.h"
#include "lint.h"
#include "logtext.h"
#include "reasons.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <deque>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

namespace wlcctl {

namespace {

json describe_finding(const std::string &file, const finding &f) {
    return {{"file", file},   {"line", f.line}, {"severity", severity_name(f.level)},
            {"code", f.code}, {"text", f.text}, {"effect", f.effect},
            {"fix", f.fix}};
}

json describe_entry(const reason_entry &entry) {
    return {{"code", entry.code}, {"cause", entry.cause}, {"remedy", entry.remedy}, {"lines", entry.lines}};
}

void print_entry(const reason_entry &entry) {
    printf("%s\n  cause   %s\n  to do   %s\n  shown by  %s\n", entry.code, entry.cause, entry.remedy, entry.lines);
}

}  // namespace

int run_lint(const std::string &file, const print_options &print) {
    std::vector<finding> findings = lint_file(file);
    int                  exit     = has_errors(findings) ? exit_failed : exit_done;
    if (print.as_json) {
        json answer        = local_answer("lint", exit);
        answer["file"]     = printable(file);
        answer["findings"] = json::array();
        for (const finding &f : findings) answer["findings"].push_back(describe_finding(printable(file), f));
        return print_answer(answer, print);
    }
    for (const finding &f : findings) {
        printf("%s:%d: %s: %s: %s\n", printable(file).c_str(), f.line, severity_name(f.level), f.code.c_str(),
               f.text.c_str());
        if (!f.effect.empty()) printf("    the daemon: %s\n", f.effect.c_str());
        printf("    the fix: %s\n", f.fix.c_str());
    }
    if (findings.empty()) printf("%s: nothing to complain of\n", printable(file).c_str());
    return exit;
}

int run_why(const std::string &code, const std::string &socket, const print_options &print) {
    const reason_entry *wanted = code.empty() ? nullptr : find_reason(code);
    if (!code.empty() && !wanted) {
        std::string list;
        for (const reason_entry &entry : reason_table) list += std::string(list.empty() ? "" : ", ") + entry.code;
        json answer = local_answer("why", exit_usage,
                                   "there is no reason " + printable(code, 64) + "; there are: " + list);
        return print_answer(answer, print);
    }
    json now_is = nullptr;
    if (!wanted) {
        json status = fetch_answer(socket, {{"request", "status"}}, agent_reserve);
        if (status.contains("reason")) now_is = status["reason"];
    }
    if (print.as_json) {
        json answer       = local_answer("why", exit_done);
        answer["now"]     = now_is;
        answer["reasons"] = json::array();
        for (const reason_entry &entry : reason_table)
            if (!wanted || &entry == wanted) answer["reasons"].push_back(describe_entry(entry));
        return print_answer(answer, print);
    }
    if (now_is.is_object())
        printf("now: %s (since %s)%s%s\n\n", now_is["code"].get<std::string>().c_str(),
               now_is["since"].get<std::string>().c_str(), now_is["detail"].is_string() ? ": " : "",
               now_is["detail"].is_string() ? printable(now_is["detail"].get<std::string>()).c_str() : "");
    for (const reason_entry &entry : reason_table)
        if (!wanted || &entry == wanted) print_entry(entry);
    return exit_done;
}

// ---- logs -----------------------------------------------------------------------------------------------------------

namespace {

class log_printer {
public:
    log_printer(const logs_options &options, const print_options &print) : options_(options), print_(print) {
        why_.on_reason = [this](const reason &now_is) { reason_ = now_is.code; };
    }

    void take(const log_entry &entry, bool is_old) {
        reason_.clear();
        why_.on_log(entry, {static_cast<double>(entry.wall) / 1000, entry.wall});
        int wanted = options_.level.empty() ? 4 : level_rank(options_.level);
        if (level_rank(entry.level) > wanted) return;
        std::string text = print_.as_json ? as_json(entry) : as_text(entry);
        if (!is_old) return put(text);
        kept_.push_back(text);
        if (options_.count > 0 && kept_.size() > options_.count) kept_.pop_front();
        if (options_.count == 0) flush();
    }
    void flush() {
        for (const std::string &text : kept_) put(text);
        kept_.clear();
    }

private:
    void put(const std::string &text) {
        fwrite(text.data(), 1, text.size(), stdout);
        fflush(stdout);
    }
    std::string as_json(const log_entry &entry) const {
        json line = {{"schema", schema_number},
                     {"program", "wlcctl"},
                     {"version", WLCCTL_VERSION},
                     {"stream", nullptr},
                     {"number", entry.number},
                     {"time", wall_text(entry.wall)},
                     {"local", local_time_text(entry.wall)},
                     {"level", entry.level},
                     {"place", entry.place},
                     {"function", entry.function},
                     {"text", entry.text}};
        if (options_.has_why) line["reason"] = reason_.empty() ? json(nullptr) : json(reason_);
        return json_line(line);
    }
    // Further lines of an entry are indented; every line is fit for a terminal.
    std::string as_text(const log_entry &entry) const {
        std::string all      = local_time_text(entry.wall) + "  " + entry.level + "  ";
        bool        is_first = true;
        for (size_t at = 0; at < entry.text.size();) {
            size_t end = std::min(entry.text.find('\n', at), entry.text.size());
            if (end > at) {
                all += (is_first ? "" : "\n    ") + printable(std::string_view(entry.text).substr(at, end - at));
                is_first = false;
            }
            at = end + 1;
        }
        if (options_.has_why && !reason_.empty()) all += "   <== " + reason_;
        return all + "\n";
    }

    const logs_options     &options_;
    const print_options    &print_;
    diagnosis               why_;
    std::string             reason_;
    std::deque<std::string> kept_;
};

}  // namespace

int run_logs(const logs_options &options, const print_options &print) {
    struct stat facts;
    bool        is_there = stat(options.path.c_str(), &facts) == 0;
    if (!options.follow && access(options.path.c_str(), R_OK) != 0)
        return print_answer(local_answer("logs", exit_failed, failure_text("read", options.path)), print);
    if (is_there && !S_ISREG(facts.st_mode))
        return print_answer(local_answer("logs", exit_failed, printable(options.path) + " is no plain file"), print);
    log_printer  printer(options, print);
    log_follower follower(options.path, [&](const log_entry &entry, bool is_old) { printer.take(entry, is_old); });
    follower.read_past({});
    printer.flush();
    if (!options.follow) return exit_done;

    loop         owner;
    signal_watch ends(owner, SIGINT, [&] { owner.stop(); }), terms(owner, SIGTERM, [&] { owner.stop(); });
    timer        again(owner);
    follower.watch(owner);
    again.repeat(milliseconds(1000), [&] { follower.look(); });
    owner.run();
    return exit_done;
}

}  // namespace wlcctl
