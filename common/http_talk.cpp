#include "http_talk.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>

#include <httplib.h>

// Contents: 1 the socket  2 requests  3 answers  4 the conversation
// process_request of httplib calls back in this order: wire::read, check_request, wire::write.

namespace common {

namespace {

using std::chrono::milliseconds;
using clock = std::chrono::steady_clock;

constexpr int          slice = 200;                 // milliseconds between two looks at what else may end a wait
constexpr milliseconds farewell{1000};              // in which a client takes the end of its answer
constexpr size_t       farewell_bytes = 64 * 1024;  // that a client may have sent beside its request

// ---- 1 the socket ---------------------------------------------------------------------------------------------------

// Waits until the socket is ready; false when it is not in that time.
bool await(const http_talk &talk, short events, clock::time_point until) {
    auto left = std::chrono::duration_cast<milliseconds>(until - clock::now()).count();
    if (talk.is_cut || left <= 0) return false;
    pollfd ready = {talk.fd, events, 0};
    return poll(&ready, 1, static_cast<int>(std::min<long long>(left, slice))) > 0;
}

// The bytes of a connection, within the limits.
class wire final : public httplib::Stream, public http_stream {
public:
    explicit wire(http_talk &talk)
        : talk_(talk),
          begun_(clock::now()),
          head_end_(begun_ + talk.limits.head_time),
          answer_end_(begun_ + talk.limits.answer_time) {}

    enum class trouble {
        none,
        too_large,
        too_late
    };
    trouble what     = trouble::none;
    bool    has_sent = false;

    bool    is_readable() const override { return !talk_.is_cut; }
    bool    is_writable() const override { return !talk_.is_cut && !is_broken_; }
    ssize_t read(char *to, size_t size) override;
    ssize_t write(const char *from, size_t size) override {
        return put({from, size}) ? static_cast<ssize_t>(size) : -1;
    }
    void     get_remote_ip_and_port(std::string &, int &) const override {}
    void     get_local_ip_and_port(std::string &, int &) const override {}
    socket_t socket() const override { return 0; }  // compared with FD_SETSIZE only

    bool send(std::string_view text) override { return put(text); }
    bool is_over() const override;

private:
    bool fill();
    bool put(std::string_view text);

    http_talk        &talk_;
    clock::time_point begun_, head_end_, answer_end_;
    char              buffer_[2048];
    size_t            at_ = 0, end_ = 0, total_ = 0;
    bool              is_broken_ = false;
};

bool wire::fill() {
    if (total_ >= talk_.limits.head) return what = trouble::too_large, false;
    while (!talk_.is_cut) {
        ssize_t count = recv(talk_.fd, buffer_, std::min(sizeof buffer_, talk_.limits.head - total_), 0);
        if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) return false;
        if (count > 0) {
            at_  = 0;
            end_ = static_cast<size_t>(count);
            total_ += end_;
            return true;
        }
        if (clock::now() >= head_end_) return what = trouble::too_late, false;
        (void)await(talk_, POLLIN, head_end_);
    }
    return false;
}

ssize_t wire::read(char *to, size_t size) {
    if (at_ == end_ && !fill()) return -1;
    size_t count = std::min(size, end_ - at_);
    memcpy(to, buffer_ + at_, count);
    at_ += count;
    return static_cast<ssize_t>(count);
}

bool wire::put(std::string_view text) {
    clock::time_point stalled = clock::now() + talk_.limits.stall_time;
    bool              follows = talk_.step == http_talk::following;
    while (!text.empty() && !is_broken_) {
        ssize_t count = ::send(talk_.fd, text.data(), text.size(), MSG_NOSIGNAL);
        auto    now   = clock::now();
        if (count > 0) {
            text.remove_prefix(static_cast<size_t>(count));
            stalled  = now + talk_.limits.stall_time;
            has_sent = true;
            continue;
        }
        bool is_full = count < 0 && (errno == EAGAIN || errno == EINTR);
        bool is_late = now >= stalled || (!follows && now >= answer_end_);
        if (!is_full || is_late || talk_.is_cut || (is_lost && is_lost())) is_broken_ = true;
        else (void)await(talk_, POLLOUT, stalled);
    }
    return !is_broken_;
}

// A client that closes even one direction follows no more.
bool wire::is_over() const {
    if (talk_.is_cut || is_broken_) return true;
    pollfd hung_up = {talk_.fd, POLLRDHUP, 0};
    return poll(&hung_up, 1, 0) > 0 && hung_up.revents & (POLLRDHUP | POLLHUP | POLLERR);
}

// ---- 2 requests -----------------------------------------------------------------------------------------------------

// A page of another name that resolves to this machine must not read the answers: no name but localhost is served.
bool is_own_host(std::string host) {
    size_t colon = host.rfind(':'), bracket = host.rfind(']');
    if (colon != std::string::npos && (bracket == std::string::npos || colon > bracket)) {
        if (host.find_first_not_of("0123456789", colon + 1) != std::string::npos) return false;
        host.resize(colon);
    }
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        in6_addr bytes6;
        return inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &bytes6) == 1;
    }
    in_addr bytes;
    return strcasecmp(host.c_str(), "localhost") == 0 || inet_pton(AF_INET, host.c_str(), &bytes) == 1;
}

struct fault {
    int         status = 0;  // 0: none
    std::string what;
};

fault check_request(const httplib::Request &request, bool checks_host) {
    if (request.method != "GET" && request.method != "HEAD") return {405, "only GET and HEAD are served"};
    std::string length = request.get_header_value("Content-Length");
    if (request.has_header("Transfer-Encoding") || (!length.empty() && length != "0"))
        return {400, "a request here has no body"};
    size_t hosts = request.get_header_value_count("Host");
    if (hosts > 1) return {400, "there is more than one Host header"};
    if (checks_host && (hosts == 0 || !is_own_host(request.get_header_value("Host"))))
        return {403, "the Host header must be an address or localhost"};
    if (request.get_header_value("Sec-Fetch-Site") == "cross-site" && request.path != "/")
        return {403, "a page of another site may not ask"};
    return {};
}

http_request convert(const httplib::Request &request, const wire &line) {
    http_request asked{request.path, {}, request.get_header_value("Last-Event-ID"), [&line] { return line.is_over(); }};
    for (const auto &[name, value] : request.params) asked.query[name] = value;
    return asked;
}

// ---- 3 answers ------------------------------------------------------------------------------------------------------

const char *words_of(int status) {
    switch (status) {
    case 400: return "the request is malformed";
    case 408: return "the request did not come in time";
    case 414: return "the address is too long";
    case 416: return "no ranges are served";
    case 431: return "the request is too large";
    case 500: return "the answer failed";
    default: return "the request was refused";
    }
}

// Decides what httplib has parsed. One for each connection.
class answerer final : public httplib::Server {
public:
    answerer(http_talk &talk, wire &line) : talk_(talk), line_(line) {
        svr_sock_ = 0;  // never used; "none" would end what is followed
        set_expect_100_continue_handler([](const httplib::Request &, httplib::Response &) { return 417; });
        set_pre_routing_handler([this](const httplib::Request &request, httplib::Response &answer) {
            serve(request, answer);
            return HandlerResponse::Handled;
        });
        set_error_handler(HandlerWithResponse([this](const httplib::Request &request, httplib::Response &answer) {
            if (answer.body.empty()) explain(request, answer);
            return HandlerResponse::Handled;
        }));
        set_post_routing_handler([this](const httplib::Request &, httplib::Response &answer) {
            answer.headers.erase("Keep-Alive");
            answer.headers.erase("Accept-Ranges");
            answer.headers.erase("EXCEPTION_WHAT");
            for (const auto &[name, value] : talk_.service.headers) set_once(answer, name, value);
        });
    }

    void run() {
        bool is_closed = false;
        (void)process_request(line_, true, is_closed, [](httplib::Request &request) {
            request.headers.erase("Accept-Encoding");  // answers go as they are
            request.ranges.clear();
        });
    }

private:
    static void set_once(httplib::Response &answer, const std::string &name, const std::string &value) {
        if (!answer.has_header(name)) answer.set_header(name, value);
    }

    void fail(httplib::Response &answer, int status, const std::string &what) {
        answer.status = status;
        answer.body   = talk_.service.describe_error(status, what);
        answer.set_header("Content-Type", talk_.service.error_type);
        if (status == 405) answer.set_header("Allow", "GET, HEAD");
    }

    // Before routing httplib knows 400 only, and a method that it does not know is malformed to it.
    void explain(const httplib::Request &request, httplib::Response &answer) {
        int  status    = answer.status;
        bool is_method = status == 400 && !request.version.empty() && request.headers.empty() &&
                         request.method != "GET" && request.method != "HEAD";
        if (line_.what == wire::trouble::too_large) status = 431;
        else if (line_.what == wire::trouble::too_late) status = 408;
        else if (is_method) status = 405;
        fail(answer, status, status == 405 ? "only GET and HEAD are served" : words_of(status));
    }

    void serve(const httplib::Request &request, httplib::Response &answer) {
        talk_.step = http_talk::answering;
        if (fault found = check_request(request, talk_.checks_host); found.status)
            return fail(answer, found.status, found.what);
        http_answer made;
        try {
            made = talk_.service.answer(convert(request, line_));
        } catch (const std::exception &error) {
            return fail(answer, 500, error.what());
        }
        answer.status = made.status;
        for (const auto &[name, value] : made.headers) answer.set_header(name, value);
        if (made.follow) return begin_to_follow(request, answer, made);
        if (!made.type.empty()) answer.set_header("Content-Type", made.type);
        if (made.body) answer.body = *made.body;
    }

    void begin_to_follow(const httplib::Request &request, httplib::Response &answer, const http_answer &made) {
        if (request.method == "HEAD") return answer.set_header("Content-Type", made.type);
        if (!talk_.may_follow()) return fail(answer, 503, "too many follow already");
        answer.set_content_provider(made.type, [this, made](size_t, httplib::DataSink &sink) {
            made.follow(line_);
            sink.done();
            return true;
        });
    }

    http_talk &talk_;
    wire      &line_;
};

// ---- 4 the conversation ---------------------------------------------------------------------------------------------

// A socket closed over unread bytes would be reset, and the answer lost with it.
void take_leave(http_talk &talk) {
    talk.step = http_talk::leaving;
    (void)shutdown(talk.fd, SHUT_WR);
    clock::time_point until = clock::now() + farewell;
    char              bytes[4096];
    for (size_t total = 0; total < farewell_bytes && !talk.is_cut && clock::now() < until;) {
        ssize_t count = recv(talk.fd, bytes, sizeof bytes, 0);
        if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) return;
        if (count > 0) total += static_cast<size_t>(count);
        else (void)await(talk, POLLIN, until);
    }
}

}  // namespace

std::string refusal_text(const http_service &service, int status, const std::string &what) {
    const char *name = status == 408   ? "Request Timeout"
                       : status == 431 ? "Request Header Fields Too Large"
                                       : "Service Unavailable";
    std::string body = service.describe_error(status, what);
    std::string text = "HTTP/1.1 " + std::to_string(status) + " " + name + "\r\nContent-Type: " + service.error_type +
                       "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n";
    for (const auto &[header, value] : service.headers) text += header + ": " + value + "\r\n";
    return text + "\r\n" + body;
}

void talk_http(http_talk &talk) {
    wire line(talk);
    answerer(talk, line).run();
    if (!line.has_sent && line.what != wire::trouble::none) {  // httplib gives an unfinished first line no answer
        int status = line.what == wire::trouble::too_large ? 431 : 408;
        (void)line.send(refusal_text(talk.service, status, words_of(status)));
    }
    if (line.is_writable()) take_leave(talk);
}

}  // namespace common
