#include "local.h"

#include "common/log.h"
#include "common/unique_fd.h"

#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

namespace wlcctl {

namespace {

constexpr mode_t for_all = 0644;  // a collector is another user

// Replaces the file in one step. Returns an empty text or what failed.
std::string replace_file(const std::string &path, const std::string &text) {
    std::string fresh = path + "." + std::to_string(getpid());  // no collector reads that name
    unique_fd   fd(open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, for_all));
    bool        is_good = fd && fchmod(fd.get(), for_all) == 0 &&
                   write(fd.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
                   rename(fresh.c_str(), path.c_str()) == 0;
    if (is_good) return "";
    std::string why = failure_text("write", path);
    if (fd) (void)unlink(fresh.c_str());
    return why;
}

void remove_old(const std::string &path) {
    struct stat facts;
    if (lstat(path.c_str(), &facts) == 0 && S_ISREG(facts.st_mode)) (void)unlink(path.c_str());
}

}  // namespace

int run_metrics(const std::string &out, const std::string &socket, const print_options &print) {
    json        answer  = fetch_answer(socket, {{"request", "metrics"}}, agent_reserve);
    bool        is_good = answer.value("ok", false) && answer.contains("text") && answer["text"].is_string();
    std::string text    = is_good ? answer["text"].get<std::string>() : "";
    if (is_good && !out.empty()) {
        std::string error = replace_file(out, text);
        if (!error.empty()) answer = local_answer("metrics", exit_failed, error);
        is_good = error.empty();
    }
    if (!is_good && !out.empty()) remove_old(out);
    if (print.as_json || !is_good) return print_answer(answer, print);
    if (out.empty()) fwrite(text.data(), 1, text.size(), stdout);
    return exit_done;
}

}  // namespace wlcctl
