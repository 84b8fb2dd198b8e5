#include "decode.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <optional>
#include <spawn.h>
#include <string_view>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <nlohmann/json.hpp>

#include "common/log.h"

#include "conf.h"

extern char **environ;

namespace wlcctl {
namespace {

constexpr const char *columns = "gui.column.format: \"No.\", \"%m\", \"Time\", \"%t\", \"Direction\", "
                                "\"%Cus:cstp.direction:0:R\", \"Protocol\", \"%p\", \"Info\", \"%i\", "
                                "\"Findings\", \"%Cus:_ws.expert.message:0:R\"\n";

// A directory that nobody else can enter, with the files that tshark is given; gone with the object.
class private_place {
public:
    private_place() {
        const char *above = getenv("TMPDIR");
        path_             = std::string(above && *above ? above : "/tmp") + "/wlcctl-decode.XXXXXX";
        if (!mkdtemp(path_.data())) path_.clear();
    }
    ~private_place() {
        if (path_.empty()) return;
        for (const char *name : {"/preferences", "/errors"}) unlink((path_ + name).c_str());
        rmdir(path_.c_str());
    }
    private_place(const private_place &)            = delete;
    private_place &operator=(const private_place &) = delete;

    const std::string &path() const { return path_; }

    bool write(const char *name, const std::string &text) const {
        int fd = open((path_ + name).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd == -1) return false;
        bool is_whole = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
        return close(fd) == 0 && is_whole;
    }

private:
    std::string path_;
};

// While it lives, an interrupt ends tshark and not this process, which has files to take away.
class interrupts_wait {
public:
    interrupts_wait() {
        struct sigaction ignored {};
        ignored.sa_handler = SIG_IGN;
        for (size_t i = 0; i < signals.size(); i++) sigaction(signals[i], &ignored, &before_[i]);
    }
    ~interrupts_wait() {
        for (size_t i = 0; i < signals.size(); i++) sigaction(signals[i], &before_[i], nullptr);
    }
    interrupts_wait(const interrupts_wait &)            = delete;
    interrupts_wait &operator=(const interrupts_wait &) = delete;

    // What a child must have by default again.
    static sigset_t for_children() {
        sigset_t set;
        sigemptyset(&set);
        for (int number : signals) sigaddset(&set, number);
        return set;
    }

private:
    static constexpr std::array                  signals{SIGINT, SIGQUIT, SIGTERM, SIGHUP};
    std::array<struct sigaction, signals.size()> before_{};
};

std::string hexadecimal(const std::string &bytes) {
    std::string text;
    char        digits[3];
    for (unsigned char byte : bytes) {
        snprintf(digits, sizeof digits, "%02x", byte);
        text += digits;
    }
    return text;
}

// The preferences that open the capture; nothing and error set when no key can be had.
std::optional<std::string> preferences(const decode_options &options, std::string &error) {
    std::string text = columns;
    if (options.port != 0) text += "cstp.tls_port: " + std::to_string(options.port) + "\n";
    if (!options.keylog.empty()) {
        if (access(options.keylog.c_str(), R_OK) != 0) {
            error = "cannot read " + options.keylog + ": " + strerror(errno);
            return std::nullopt;
        }
        return text + "tls.keylog_file: " + options.keylog + "\n";
    }
    if (!read_conf_file(options.conf, error)) return std::nullopt;
    std::string key = conf_value(options.conf, "psk_key");
    if (key.empty()) {
        error = options.conf + " holds no psk_key";
        return std::nullopt;
    }
    return text + "tls.psk: " + hexadecimal(key) + "\n";
}

std::vector<std::string> command(const decode_options &options) {
    std::vector<std::string> words = {"tshark", "-r", options.file, "-Y", "cstp"};
    if (!options.dissector.empty()) words.insert(words.end(), {"-X", "lua_script:" + options.dissector});
    if (options.as_json) words.insert(words.end(), {"-T", "json"});
    else if (options.is_verbose) words.insert(words.end(), {"-O", "cstp"});
    return words;
}

struct child {
    pid_t pid    = -1;
    int   output = -1;  // read end of its standard output
};

// Starts tshark with this directory of preferences; an errno otherwise.
int start(std::vector<std::string> words, const std::string &place, child &started) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return errno;

    std::vector<char *> arguments, environment;
    for (std::string &word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    std::string directory = "WIRESHARK_CONFIG_DIR=" + place;
    for (char **each = environ; *each; each++)
        if (strncmp(*each, "WIRESHARK_CONFIG_DIR=", 21) != 0) environment.push_back(*each);
    environment.push_back(directory.data());
    environment.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawnattr_t          attributes;
    sigset_t                   set    = interrupts_wait::for_children();
    std::string                errors = place + "/errors";
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, ends[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, errors.c_str(), O_WRONLY | O_CREAT, 0600);
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigdefault(&attributes, &set);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    int result = posix_spawnp(&started.pid, "tshark", &actions, &attributes, arguments.data(), environment.data());
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);

    close(ends[1]);
    started.output = ends[0];
    if (result != 0) close(ends[0]);
    return result;
}

// Passes on what the child prints. Returns whether anything in it says something.
bool pass_on(int fd, const std::function<void(std::string_view)> &put) {
    char    buffer[65536];
    bool    has_frame = false;
    ssize_t count;
    while ((count = read(fd, buffer, sizeof buffer)) > 0 || (count == -1 && errno == EINTR)) {
        for (ssize_t i = 0; i < count && !has_frame; i++) has_frame = strchr("[] \t\n", buffer[i]) == nullptr;
        if (count > 0) put({buffer, static_cast<size_t>(count)});
    }
    close(fd);
    fflush(stdout);
    return has_frame;
}

// tshark's array of frames as a member of an answer in one line, however long. A line end of JSON never stands in a
// text, so it goes, with the blanks behind it.
class frames_member {
public:
    void put(std::string_view text) {
        for (char c : text) {
            if (c == '\n') is_indent_ = true;
            if (c != ' ' && c != '\n') is_indent_ = false;
            if (is_indent_) continue;
            if (!has_begun_) begin();
            putchar(c);
        }
    }
    void end(int status, const std::string &error) {
        if (!has_begun_) begin(), fputs("[]", stdout);
        json answer = local_answer("decode", status, error);
        for (const char *told : {"schema", "program", "version", "stream", "request"}) answer.erase(told);
        printf(",%s", json_line(answer).c_str() + 1);
    }

private:
    void begin() {
        has_begun_       = true;
        json        told = local_answer("decode", exit_done);
        std::string head = json_line({{"schema", told["schema"]},
                                      {"program", told["program"]},
                                      {"version", told["version"]},
                                      {"stream", nullptr},
                                      {"request", "decode"}});
        head.resize(head.size() - 2);
        printf("%s,\"frames\":", head.c_str());
    }

    bool has_begun_ = false;
    bool is_indent_ = false;
};

// The last line that tshark complained with.
std::string complaint(const std::string &place) {
    FILE *file = fopen((place + "/errors").c_str(), "re");
    if (!file) return "";
    char        line[1024];
    std::string last;
    while (fgets(line, sizeof line, file)) last = line;
    fclose(file);
    while (!last.empty() && last.back() == '\n') last.pop_back();
    return last;
}

}  // namespace

namespace {

// Runs tshark and passes on what it shows. error: what failed.
int show_frames(const decode_options &options, const std::function<void(std::string_view)> &put, std::string &error) {
    if (access(options.file.c_str(), R_OK) != 0) {
        error = "cannot read " + options.file + ": " + strerror(errno);
        return 1;
    }
    auto text = preferences(options, error);
    if (!text) return 1;

    interrupts_wait wait_with_interrupts;
    private_place   place;
    if (place.path().empty() || !place.write("/preferences", *text)) {
        error = std::string("cannot make a private directory: ") + strerror(errno);
        return 1;
    }
    child tshark;
    int   result = start(command(options), place.path(), tshark);
    if (result != 0) {
        error = result == ENOENT ? "tshark is missing (Debian: apt install tshark)"
                                 : std::string("cannot run tshark: ") + strerror(result);
        return 1;
    }
    bool has_frame = pass_on(tshark.output, put);
    int  status    = 0;
    while (waitpid(tshark.pid, &status, 0) == -1 && errno == EINTR) {}
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        error = "tshark failed: " + complaint(place.path());
        return 1;
    }
    if (!has_frame) {
        error =
            "no frame could be opened: another key, a capture without the handshake, or a DHE suite without --keylog";
        return 1;
    }
    return 0;
}

}  // namespace

int run_decode(const decode_options &options, const print_options &print) {
    std::string   error;
    frames_member frames;
    auto          plain  = [](std::string_view text) { fwrite(text.data(), 1, text.size(), stdout); };
    auto          boxed  = [&](std::string_view text) { frames.put(text); };
    int           status = print.as_json ? show_frames(options, boxed, error) : show_frames(options, plain, error);
    if (print.as_json) frames.end(status, error);
    if (error.empty()) return status;
    fprintf(stderr, "wlcctl: %s\n", printable(error).c_str());
    return status;
}

}  // namespace wlcctl
