#include "local.h"

#include "common/child.h"
#include "common/log.h"
#include "common/loop.h"
#include "common/unique_fd.h"

#include "conf.h"
#include "lint.h"
#include "openssl.h"
#include "redact.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

namespace wlcctl {

namespace {

constexpr size_t log_tail = 256 * 1024;  // bytes

std::string read_tail(const std::string &path, size_t limit) {
    unique_fd   fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat facts;
    if (!fd || fstat(fd.get(), &facts) != 0 || !S_ISREG(facts.st_mode)) return failure_text("read", path) + "\n";
    auto        size = static_cast<size_t>(facts.st_size);
    std::string text(std::min(size, limit), '\0');
    ssize_t     count = pread(fd.get(), text.data(), text.size(), static_cast<off_t>(size - text.size()));
    text.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return text;
}

// The configuration without what is secret: of a line that is not understood nothing is left.
std::string conf_text(const std::string &path) {
    std::string error, all;
    size_t      skipped = 0;
    auto        content = read_conf_file(path, error);
    if (!content) return error + "\n";
    for (const conf_entry &entry : parse_conf(*content, skipped)) {
        bool is_known  = std::any_of(conf_keys.begin(), conf_keys.end(),
                                     [&](const conf_key &key) { return entry.key == key.name; });
        bool is_secret = !is_known || entry.key == "psk_key" || entry.key == "psk_identity";
        all += (is_known ? entry.key : "(unknown key)") + ";" + (is_secret ? "***" : entry.value) + ";" +
               std::to_string(entry.flag) + "\n";
    }
    return all + "(" + std::to_string(skipped) + " lines skipped)\n";
}

std::string lint_text(const std::string &path) {
    std::string all;
    for (const finding &f : lint_file(path))
        all += std::to_string(f.line) + ": " + severity_name(f.level) + ": " + f.code + ": " + f.text + "\n";
    return all;
}

std::string versions_text() {
    utsname names{};
    uname(&names);
    return std::string("wlcctl ") + WLCCTL_VERSION + "\n" + names.sysname + " " + names.release + " " + names.machine +
           "\n" + openssl_version() + "\n";
}

// Runs a program; its output, or why there is none. It gets some seconds.
std::string output_of(const std::vector<std::string> &words, int *status = nullptr) {
    loop          owner;
    child         worker(owner);
    timer         limit(owner);
    std::string   text;
    child_options options;
    options.arguments       = words;
    options.on_output       = [&](std::string_view part) { text += part; };
    options.on_error_output = options.on_output;
    std::string error       = worker.start(options, [&](const child_end &end) {
        if (status) *status = end.signal ? 128 + end.signal : end.status;
        owner.stop();
    });
    if (!error.empty()) return words[0] + ": " + error + "\n";
    limit.start(milliseconds(15000), [&] { owner.stop(); });
    owner.run();
    return text;
}

bool write_file(const std::string &path, const std::string &text) {
    unique_fd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    return fd && write(fd.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

}  // namespace

int run_report(const std::string &out, const std::string &socket, const std::string &conf, const std::string &log,
               const print_options &print) {
    char   stamp[32];
    time_t now = time(nullptr);
    strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", localtime(&now));
    std::string name   = std::string("tlsc-report-") + stamp;
    std::string target = out.empty() ? name + ".tar.gz" : out;

    std::string log_text = read_tail(log, log_tail);
    redactor    secrets;
    secrets.hide_conf(conf);
    secrets.hide_logged(log_text);

    std::vector<std::pair<std::string, std::string>> files = {
        {"status.json", json_line(fetch_answer(socket, {{"request", "status"}}, agent_reserve))},
        {"events.json", json_line(fetch_answer(socket, {{"request", "events"}}, agent_reserve))},
        {"stats.json", json_line(fetch_answer(socket, {{"request", "stats"}}, agent_reserve))},
        {"conf.txt", conf_text(conf)},
        {"lint.txt", lint_text(conf)},
        {"versions.txt", versions_text()},
        {"log.txt", log_text},
        {"interfaces.txt", output_of({"ip", "-d", "addr"})},
        {"routes.txt", output_of({"ip", "route", "show", "table", "all"})}};

    char        scratch[] = "/tmp/wlcctl-report-XXXXXX";
    std::string why;
    if (!mkdtemp(scratch))
        return print_answer(local_answer("report", exit_failed, failure_text("make", scratch)), print);
    std::string directory = std::string(scratch) + "/" + name;
    if (mkdir(directory.c_str(), 0700) != 0) why = failure_text("make", directory);
    json list = json::array();
    for (const auto &[file, text] : files) {
        if (why.empty() && !write_file(directory + "/" + file, secrets.apply(text))) why = failure_text("write", file);
        list.push_back({{"file", file}, {"bytes", text.size()}});
    }
    mode_t before = umask(0077);
    int    status = 1;
    if (why.empty()) {
        std::string said = output_of({"tar", "-czf", target, "-C", scratch, name}, &status);
        if (status != 0) why = "tar failed: " + said;
    }
    umask(before);
    for (const auto &entry : files) (void)unlink((directory + "/" + entry.first).c_str());
    (void)rmdir(directory.c_str());
    (void)rmdir(scratch);

    json answer = local_answer("report", why.empty() ? exit_done : exit_failed, why);
    if (why.empty()) {
        answer["path"]  = target;
        answer["files"] = list;
        if (!print.as_json) {
            printf("%s\n", printable(target).c_str());
            for (const auto &[file, text] : files) printf("  %-16s %zu bytes\n", file.c_str(), text.size());
            printf("keys, cookies and identities are replaced by ***\n");
        }
    }
    return print_answer(answer, print);
}

}  // namespace wlcctl
