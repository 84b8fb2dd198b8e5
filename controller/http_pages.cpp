#include "http_pages.h"

#include "common/http_board.h"

#include "page.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

// Contents: 1 texts  2 events  3 the report  4 all together

namespace wlcctl {

using namespace common;
using std::chrono::milliseconds;

namespace {

constexpr uint64_t     shown_events = 50;         // of the past, to who asks for none
constexpr size_t       lost_bytes   = 64 * 1024;  // of events that wait for a client that takes nothing
constexpr size_t       chunk_bytes  = 16 * 1024;  // of events that go in one piece
constexpr int          still_here   = 15;         // seconds of silence before a comment
constexpr milliseconds glance{500};               // between two looks at a client that only listens
constexpr milliseconds report_time{30000};        // for the making of a report

// ---- 1 texts --------------------------------------------------------------------------------------------------------

std::string quoted(const std::string &text) {
    std::string all = "\"";
    for (char c : text) {
        auto byte = static_cast<unsigned char>(c);
        char code[8];
        if (c == '"' || c == '\\') all += '\\';
        if (byte >= 0x20 && byte < 0x7f) {
            all += c;
            continue;
        }
        snprintf(code, sizeof code, "\\u%04x", byte);
        all += code;
    }
    return all + "\"";
}

// The members of every answer of this program; a status below 500 is the asker's fault.
std::string error_json(int status, const std::string &what) {
    return "{\"schema\":1,\"program\":\"wlcctl\",\"version\":" + quoted(WLCCTL_VERSION) +
           ",\"ok\":false,\"exit\":" + (status < 500 ? "2" : "1") + ",\"status\":" + std::to_string(status) +
           ",\"error\":" + quoted(what) + "}\n";
}

http_answer failure(int status, const std::string &what) {
    return {status, "application/json", std::make_shared<const std::string>(error_json(status, what)), {}, nullptr};
}

// ---- 2 events -------------------------------------------------------------------------------------------------------

struct position {
    uint64_t after   = 0;
    bool     is_told = true;  // a gap behind it is to be told
};

// An id that names no place in this stream begins with everything still held.
position parse_position(const std::string &id, const std::string &stream, uint64_t last) {
    size_t      colon   = id.find(':');
    std::string number  = colon == std::string::npos ? "" : id.substr(colon + 1);
    bool        is_ours = colon != std::string::npos && id.substr(0, colon) == stream && !number.empty() &&
                   number.size() <= 18 && number.find_first_not_of("0123456789") == std::string::npos;
    return {is_ours ? std::min<uint64_t>(std::stoull(number), last) : 0, true};
}

class follower {
public:
    follower(http_board_view &board, http_stream &to, position from)
        : board_(board), to_(to), after_(from.after), tells_gap_(from.is_told) {}

    void run() {
        uint64_t seen = 0;
        to_.is_lost   = [&] {
            uint64_t added = board_.bytes_added();
            if (is_fresh_) seen = added;  // what was added while this write did not go on
            is_fresh_ = false;
            return added - seen > lost_bytes;
        };
        if (!put("retry: 1000\n: " + board_.stream() + "\n\n")) return;
        while (!to_.is_over() && step()) {}
        to_.is_lost = nullptr;
    }

private:
    bool put(const std::string &text) {
        is_fresh_ = true;
        return to_.send(text);
    }

    bool step() {
        event_part part = board_.events(after_, chunk_bytes, glance);
        if (part.texts.empty()) {
            silent_ += glance;
            if (silent_ < std::chrono::seconds(still_here)) return !part.is_over;
            silent_ = {};
            return !part.is_over && put(": still here\n\n");
        }
        std::string text;
        if (part.first > after_ + 1 && tells_gap_)
            text = "event: gap\ndata: {\"from\":" + std::to_string(after_ + 1) +
                   ",\"to\":" + std::to_string(part.first - 1) + "}\n\n";
        tells_gap_ = true;
        after_     = part.first - 1;
        for (const shared_text &each : part.texts)
            text += "id: " + board_.stream() + ":" + std::to_string(++after_) + "\ndata: " + *each + "\n\n";
        silent_ = {};
        return put(text);
    }

    http_board_view &board_;
    http_stream     &to_;
    uint64_t         after_;
    bool             tells_gap_;
    bool             is_fresh_ = false;
    milliseconds     silent_{};
};

http_answer follow_events(http_board_view &board, const http_request &request) {
    auto        asked = request.query.find("after");
    std::string id    = !request.last_event_id.empty() ? request.last_event_id
                        : asked != request.query.end() ? asked->second
                                                       : "";
    uint64_t    last  = board.last_event();
    position    from  = id.empty() ? position{last > shown_events ? last - shown_events : 0, false}
                                   : parse_position(id, board.stream(), last);
    return {
        200, "text/event-stream", nullptr, {}, [&board, from](http_stream &to) { follower(board, to, from).run(); }};
}

// ---- 3 the report ---------------------------------------------------------------------------------------------------

// A directory for one file; both go with it.
class scratch_file {
public:
    scratch_file() {
        if (mkdtemp(directory_)) path = std::string(directory_) + "/report.tar.gz";
    }
    ~scratch_file() {
        if (path.empty()) return;
        (void)unlink(path.c_str());
        (void)rmdir(directory_);
    }
    scratch_file(const scratch_file &)            = delete;
    scratch_file &operator=(const scratch_file &) = delete;

    std::string path;  // empty: there is none

private:
    char directory_[32] = "/tmp/wlcctl-http-XXXXXX";
};

// Starts a program with nothing to read and nobody to talk to, in a process group of its own. Returns its id or -1.
pid_t start_program(const std::vector<std::string> &words) {
    std::vector<char *> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string &word : words) arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t streams;
    posix_spawnattr_t          facts;
    sigset_t                   none, standard;
    sigemptyset(&none);
    sigfillset(&standard);
    posix_spawn_file_actions_init(&streams);
    for (int fd : {0, 1, 2}) posix_spawn_file_actions_addopen(&streams, fd, "/dev/null", O_RDWR, 0);
    posix_spawnattr_init(&facts);
    posix_spawnattr_setsigmask(&facts, &none);
    posix_spawnattr_setsigdefault(&facts, &standard);
    posix_spawnattr_setflags(&facts, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    pid_t pid    = -1;
    int   result = posix_spawn(&pid, arguments[0], &streams, &facts, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&streams);
    posix_spawnattr_destroy(&facts);
    return result == 0 ? pid : -1;
}

// Waits for a program's end; it is killed when that takes too long or nobody wants it any more. True: it did its work.
bool await_program(pid_t pid, const std::function<bool()> &is_over) {
    auto until = std::chrono::steady_clock::now() + report_time;
    int  state = 0;
    for (;;) {
        pid_t ended = waitpid(pid, &state, WNOHANG);
        if (ended == pid) return WIFEXITED(state) && WEXITSTATUS(state) == 0;
        if (ended < 0 && errno != EINTR) return false;
        if (std::chrono::steady_clock::now() >= until || is_over()) {
            (void)kill(-pid, SIGKILL);
            (void)waitpid(pid, &state, 0);
            return false;
        }
        usleep(20000);
    }
}

std::string read_whole(const std::string &path) {
    unique_fd   fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    struct stat facts;
    if (!fd || fstat(fd.get(), &facts) != 0 || !S_ISREG(facts.st_mode) || facts.st_size > (8 << 20)) return "";
    std::string content(static_cast<size_t>(facts.st_size), '\0');
    ssize_t     count = read(fd.get(), content.data(), content.size());
    return count == facts.st_size ? content : "";
}

class reporter {
public:
    explicit reporter(const http_options &options)
        : command_{options.program, "--socket", options.socket, "report", "--conf",
                   options.conf,    "--log",    options.log,    "--out"} {}

    // One at a time: it reads logs and runs programs.
    http_answer make(const http_request &request) {
        if (is_busy_.exchange(true)) return failure(503, "another report is being made");
        struct ending {
            std::atomic<bool> &is_busy;
            ~ending() { is_busy = false; }
        } ends{is_busy_};
        scratch_file file;
        if (file.path.empty()) return failure(500, std::string("cannot make a file in /tmp: ") + strerror(errno));
        std::vector<std::string> words = command_;
        words.push_back(file.path);
        pid_t       pid     = start_program(words);
        std::string content = pid > 0 && await_program(pid, request.is_over) ? read_whole(file.path) : "";
        if (content.empty()) return failure(500, "the report could not be made");
        return {200,
                "application/gzip",
                std::make_shared<const std::string>(std::move(content)),
                {{"Content-Disposition", "attachment; filename=\"tlsc-report.tar.gz\""}},
                nullptr};
    }

private:
    std::vector<std::string> command_;
    std::atomic<bool>        is_busy_ = false;
};

// ---- 4 all together -------------------------------------------------------------------------------------------------

constexpr struct {
    const char *path;
    const char *text;  // of the board
    const char *type;
} texts[] = {
    {"/status.json", "status", "application/json"},
    {"/conf.json", "conf", "application/json"},
    {"/history.json", "history", "application/json"},
    {"/metrics", "metrics", "text/plain; version=0.0.4; charset=utf-8"},
};

class pages final : public http_pages {
public:
    pages(const http_options &options, const std::string &stream)
        : place_(options.place), board_(stream), reporter_(options), server_(service(), options.limits) {}
    ~pages() override { board_.close(); }

    std::string open() override { return server_.open(place_); }
    void        offer(const char *name, milliseconds fresh, std::function<std::string()> make) override {
        board_.offer(name, fresh, std::move(make));
    }
    void add_event(uint64_t number, std::string text) override { board_.add_event(number, std::move(text)); }
    int  bell() const override { return board_.bell(); }
    void serve_bell() override { board_.serve_bell(); }

private:
    http_service service() {
        return {[this](const http_request &request) { return answer(request); }, error_json,
                guarded_headers(
                    "default-src 'none'; style-src 'unsafe-inline'; script-src 'unsafe-inline'; connect-src 'self'; "
                    "img-src data:; base-uri 'none'; form-action 'none'; frame-ancestors 'none'"),
                "application/json"};
    }

    http_answer answer(const http_request &request) {
        if (request.path == "/") return {200, "text/html; charset=utf-8", page_, {}, nullptr};
        if (request.path == "/events") return follow_events(board_, request);
        if (request.path == "/report") return reporter_.make(request);
        for (const auto &each : texts) {
            if (request.path != each.path) continue;
            shared_text text = board_.read(each.text);
            if (!text) return failure(503, "the agent did not answer in time");
            return {200, each.type, std::move(text), {}, nullptr};
        }
        return failure(404, "there is no " + request.path.substr(0, 100) +
                                "; there are: /, /status.json, /conf.json, /events, /history.json, /metrics, /report");
    }

    const http_place  place_;
    http_board        board_;
    const shared_text page_ = std::make_shared<const std::string>(reinterpret_cast<const char *>(page_html),
                                                                  page_html_size);
    reporter          reporter_;
    http_server       server_;
};

}  // namespace

}  // namespace wlcctl

const char *wlcctl_http_version = WLCCTL_VERSION;

wlcctl::http_pages *wlcctl_make_http_pages(const wlcctl::http_options &options, const std::string &stream) {
    try {
        return new wlcctl::pages(options, stream);
    } catch (const std::exception &) {
        return nullptr;
    }
}
