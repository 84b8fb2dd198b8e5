// The HTTP server against clients that mean no good, its places, and the board that stands between it and a loop.
#include "common/http_board.h"
#include "common/http_server.h"
#include "common/unique_fd.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace common;
using std::chrono::milliseconds;
using steady = std::chrono::steady_clock;

namespace {

constexpr size_t big_size = 4u << 20;  // more than any socket takes at once

// Limits that a test need not wait long for.
http_limits short_limits() { return {4, 2, 4096, milliseconds(300), milliseconds(300), milliseconds(2000)}; }

shared_text text(const std::string &content) { return std::make_shared<const std::string>(content); }

class client {
public:
    explicit client(uint16_t port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family      = AF_INET;
        address.sin_port        = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        is_connected            = connect(fd_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    }
    explicit client(const std::string &path) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, path.data(), path.size());
        is_connected = connect(fd_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    }

    void say(const std::string &bytes) { (void)!send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL); }
    void end_sending() { shutdown(fd_.get(), SHUT_WR); }
    void go() { fd_.reset(); }

    // What comes until the other side closes, or for so long.
    std::string hear(int limit_ms = 5000) {
        auto until = steady::now() + milliseconds(limit_ms);
        while (!is_closed && hear_some(until)) {}
        return heard;
    }
    bool hear_until(const std::string &part, int limit_ms = 5000) {
        auto until = steady::now() + milliseconds(limit_ms);
        while (heard.find(part) == std::string::npos && !is_closed && hear_some(until)) {}
        return heard.find(part) != std::string::npos;
    }

    bool        is_connected = false;
    bool        is_closed    = false;
    std::string heard;

private:
    bool hear_some(steady::time_point until) {
        auto   left  = std::chrono::duration_cast<milliseconds>(until - steady::now()).count();
        pollfd ready = {fd_.get(), POLLIN, 0};
        if (left <= 0 || poll(&ready, 1, static_cast<int>(left)) <= 0) return false;
        char    bytes[65536];
        ssize_t count = recv(fd_.get(), bytes, sizeof bytes, 0);
        is_closed     = count <= 0;
        if (count > 0) heard.append(bytes, static_cast<size_t>(count));
        return !is_closed;
    }

    unique_fd fd_;
};

class http_server_of : public ::testing::Test {
protected:
    http_service service() {
        return {[this](const http_request &request) { return answer(request); },
                [](int status, const std::string &what) {
                    return "{\"status\":" + std::to_string(status) + ",\"error\":\"" + what + "\"}";
                },
                {{"X-Content-Type-Options", "nosniff"}, {"Cache-Control", "no-store"}},
                "application/json"};
    }

    http_answer answer(const http_request &request) {
        asked++;
        if (request.path == "/big") return {200, "text/plain", text(std::string(big_size, 'b')), {}, nullptr};
        if (request.path == "/throw") throw std::runtime_error("nothing works");
        if (request.path == "/follow")
            return {200, "text/event-stream", nullptr, {}, [this](http_stream &to) { follow(to); }};
        if (request.path == "/wait") {
            while (!request.is_over() && !is_waiting_over) usleep(1000);
            return {200, "text/plain", text("waited"), {}, nullptr};
        }
        if (request.path == "/query") {
            auto at = request.query.find("after");
            return {200,
                    "text/plain",
                    text(at == request.query.end() ? "none" : at->second + "," + request.last_event_id),
                    {},
                    nullptr};
        }
        if (request.path == "/") return {200, "text/plain", text("hello"), {{"X-More", "yes"}}, nullptr};
        return {404, "text/plain", text("no " + request.path), {}, nullptr};
    }

    void follow(http_stream &to) {
        following++;
        if (is_lost) to.is_lost = is_lost;
        while (!to.is_over() && to.send(std::string(follow_bytes, 'f'))) usleep(1000);
        to.is_lost = nullptr;
        following--;
    }

    void open(http_limits limits = short_limits()) {
        server = std::make_unique<http_server>(service(), limits);
        ASSERT_EQ(server->open({"", "127.0.0.1", 0, true}), "");
        port = server->port();
    }

    std::string ask(const std::string &bytes, int limit_ms = 5000) {
        client c(port);
        c.say(bytes);
        return c.hear(limit_ms);
    }
    std::string get(const std::string &path, const std::string &headers = "Host: 127.0.0.1\r\n") {
        return ask("GET " + path + " HTTP/1.1\r\n" + headers + "\r\n");
    }
    bool is_served() { return get("/").find("\r\n\r\nhello") != std::string::npos; }
    bool becomes(const std::function<bool()> &is_so, int limit_ms = 5000) {
        auto until = steady::now() + milliseconds(limit_ms);
        while (steady::now() < until) {
            if (is_so()) return true;
            usleep(1000);
        }
        return false;
    }

    std::unique_ptr<http_server> server;
    uint16_t                     port  = 0;
    std::atomic<int>             asked = 0, following = 0;
    std::atomic<bool>            is_waiting_over = false;
    std::atomic<size_t>          follow_bytes    = 100;
    std::function<bool()>        is_lost;
};

std::string first_line(const std::string &answer) { return answer.substr(0, answer.find('\r')); }

size_t count_of(const std::string &answer, const std::string &part) {
    size_t count = 0;
    for (size_t at = 0; (at = answer.find(part, at)) != std::string::npos; at++) count++;
    return count;
}

size_t open_descriptors() {
    size_t count = 0;
    DIR   *list  = opendir("/proc/self/fd");
    while (readdir(list)) count++;
    closedir(list);
    return count;
}

std::string scratch_path(const char *name) {
    static std::string directory = [] {
        char made[] = "/tmp/common_http_test.XXXXXX";
        return std::string(mkdtemp(made));
    }();
    return directory + "/" + name;
}

}  // namespace

// ---- places ---------------------------------------------------------------------------------------------------------

TEST(http_place, is_a_socket_or_a_literal_address_with_a_port) {
    http_place place;
    EXPECT_EQ(parse_http_place("unix:/run/x.sock", place), "");
    EXPECT_EQ(place.path, "/run/x.sock");
    EXPECT_EQ(parse_http_place("127.0.0.1:8080", place), "");
    EXPECT_EQ(place.address, "127.0.0.1");
    EXPECT_EQ(place.port, 8080);
    EXPECT_EQ(parse_http_place("localhost:0", place), "");
    EXPECT_EQ(place.address, "127.0.0.1");
    EXPECT_EQ(parse_http_place("[::1]:65535", place), "");
    EXPECT_EQ(place.address, "::1");
    for (const char *bad :
         {"", "8080", ":8080", "host.example:80", "127.0.0.1", "127.0.0.1:", "127.0.0.1:65536", "127.0.0.1:-1",
          "127.0.0.1:8o", "127.1:80", "::1:80", "[::1]", "[127.0.0.1]:80", "unix:", "0x7f.1:80"})
        EXPECT_NE(parse_http_place(bad, place), "") << bad;
    EXPECT_EQ(parse_http_place("unix:" + std::string(107, 'a'), place), "");
    EXPECT_NE(parse_http_place("unix:" + std::string(108, 'a'), place), "");
}

TEST(http_place, says_whether_others_reach_it) {
    http_place place;
    for (const char *own : {"127.0.0.1:1", "127.255.0.9:1", "[::1]:1", "localhost:1", "unix:/x"}) {
        EXPECT_EQ(parse_http_place(own, place), "");
        EXPECT_TRUE(place.is_loopback) << own;
    }
    for (const char *other :
         {"0.0.0.0:1", "192.0.2.1:1", "128.0.0.1:1", "[::]:1", "[2001:db8::1]:1", "[::ffff:127.0.0.1]:1"}) {
        EXPECT_EQ(parse_http_place(other, place), "");
        EXPECT_FALSE(place.is_loopback) << other;
    }
}

// ---- what is served -------------------------------------------------------------------------------------------------

TEST_F(http_server_of, a_get_is_answered_once_and_the_connection_closed) {
    open();
    std::string answer = get("/");
    EXPECT_EQ(first_line(answer), "HTTP/1.1 200 OK");
    for (const char *header : {"Connection: close\r\n", "Content-Length: 5\r\n", "Content-Type: text/plain\r\n",
                               "X-More: yes\r\n", "X-Content-Type-Options: nosniff\r\n", "Cache-Control: no-store\r\n"})
        EXPECT_EQ(count_of(answer, header), 1u) << header;
    EXPECT_TRUE(answer.ends_with("\r\n\r\nhello"));
}

TEST_F(http_server_of, a_head_has_the_length_and_no_body) {
    open();
    std::string answer = ask("HEAD /big HTTP/1.1\r\nHost: [::1]:80\r\n\r\n");
    EXPECT_NE(answer.find("Content-Length: " + std::to_string(big_size)), std::string::npos);
    EXPECT_TRUE(answer.ends_with("\r\n\r\n"));
    EXPECT_TRUE(ask("HEAD /follow HTTP/1.1\r\nHost: localhost\r\n\r\n").ends_with("\r\n\r\n"));
    EXPECT_EQ(following, 0);
}

TEST_F(http_server_of, every_other_method_is_refused_with_405) {
    open();
    for (const char *method : {"POST", "PUT", "DELETE", "PATCH", "OPTIONS", "TRACE", "CONNECT", "PRI", "BREW", "get"}) {
        std::string answer = ask(std::string(method) + " / HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
        EXPECT_EQ(first_line(answer), "HTTP/1.1 405 Method Not Allowed") << method;
        EXPECT_NE(answer.find("Allow: GET, HEAD\r\n"), std::string::npos) << method;
    }
    EXPECT_EQ(asked, 0);
}

TEST_F(http_server_of, a_body_is_never_taken_for_a_second_request) {
    open();
    std::string inner = "GET /throw HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
    for (const std::string &header : {"Content-Length: " + std::to_string(inner.size()),
                                      std::string("Transfer-Encoding: chunked"), std::string("Content-Length: x")}) {
        std::string answer = ask("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n" + header + "\r\n\r\n" + inner);
        EXPECT_EQ(first_line(answer), "HTTP/1.1 400 Bad Request") << header;
        EXPECT_EQ(count_of(answer, "HTTP/1.1 "), 1u);
    }
    EXPECT_EQ(first_line(ask("POST / HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 400\r\n\r\n" + inner)),
              "HTTP/1.1 405 Method Not Allowed");
    EXPECT_EQ(asked, 0);
}

TEST_F(http_server_of, of_requests_sent_at_once_the_first_is_answered) {
    open();
    std::string one = "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: keep-alive\r\n\r\n", many;
    for (int i = 0; i < 50; i++) many += one;
    std::string answer = ask(many);
    EXPECT_EQ(count_of(answer, "HTTP/1.1 200 OK"), 1u);
    EXPECT_TRUE(answer.ends_with("hello"));
    EXPECT_EQ(asked, 1);
}

TEST_F(http_server_of, paths_are_compared_and_lead_nowhere) {
    open();
    for (const char *path : {"/../../etc/passwd", "/%2e%2e/%2e%2e/etc/passwd", "//", "/./", "/..", "/%00", "/%2f",
                             "http://127.0.0.1/", "/\xff\xfe", "*", "/%", "/%zz", "/hello%0d%0aX-Evil:%20yes"}) {
        std::string answer = get(path);
        EXPECT_EQ(first_line(answer), "HTTP/1.1 404 Not Found") << path;
        EXPECT_EQ(answer.find("\r\nX-Evil"), answer.find("no /hello\r\nX-Evil") == std::string::npos
                                                 ? std::string::npos
                                                 : answer.find("no /hello\r\nX-Evil") + 9)
            << "a header made of a path";
    }
    EXPECT_EQ(first_line(get("/?a=1?b=2")), "HTTP/1.1 400 Bad Request");
    EXPECT_TRUE(get("/?after=%").ends_with("hello"));
    EXPECT_TRUE(get("/query?after=a%3A1", "Host: 127.0.0.1\r\nLast-Event-ID: b:2\r\n").ends_with("\r\n\r\na:1,b:2"));
}

TEST_F(http_server_of, names_of_others_are_refused_as_hosts) {
    open();
    for (const char *host :
         {"127.0.0.1", "127.0.0.1:8080", "localhost", "LOCALHOST:80", "[::1]", "[::1]:80", "192.0.2.7:80"})
        EXPECT_EQ(first_line(get("/", "Host: " + std::string(host) + "\r\n")), "HTTP/1.1 200 OK") << host;
    for (const char *host : {"evil.example", "evil.example:8080", "localhost.evil.example", "127.0.0.1.evil.example",
                             "", "[evil]", "127.0.0.1:evil", "127.0.0.1:80:80", "[::1", "user@127.0.0.1", "2130706433"})
        EXPECT_EQ(first_line(get("/", "Host: " + std::string(host) + "\r\n")), "HTTP/1.1 403 Forbidden") << host;
    EXPECT_EQ(first_line(get("/", "")), "HTTP/1.1 403 Forbidden");
    EXPECT_EQ(first_line(ask("GET / HTTP/1.0\r\n\r\n")), "HTTP/1.1 403 Forbidden");
    EXPECT_EQ(first_line(get("/", "Host: 127.0.0.1\r\nHost: 127.0.0.1\r\n")), "HTTP/1.1 400 Bad Request");
}

TEST_F(http_server_of, a_page_of_another_site_may_only_lead_here) {
    open();
    EXPECT_TRUE(get("/", "Host: 127.0.0.1\r\nSec-Fetch-Site: cross-site\r\n").ends_with("hello"));
    EXPECT_EQ(first_line(get("/big", "Host: 127.0.0.1\r\nSec-Fetch-Site: cross-site\r\n")), "HTTP/1.1 403 Forbidden");
    EXPECT_EQ(first_line(get("/query", "Host: 127.0.0.1\r\nSec-Fetch-Site: same-origin\r\n")), "HTTP/1.1 200 OK");
}

TEST_F(http_server_of, ranges_and_encodings_are_not_served_and_harm_nothing) {
    open();
    for (const char *header : {"Range: bytes=0-1", "Accept-Encoding: gzip, br", "Expect: 100-continue"}) {
        std::string answer = get("/", "Host: 127.0.0.1\r\n" + std::string(header) + "\r\n");
        EXPECT_TRUE(answer.ends_with("\r\n\r\nhello") || first_line(answer) == "HTTP/1.1 417 Expectation Failed")
            << header << answer;
        EXPECT_EQ(answer.find("Content-Encoding"), std::string::npos);
    }
}

TEST_F(http_server_of, a_range_that_is_none_is_refused) {
    open();
    EXPECT_EQ(first_line(get("/", "Host: 127.0.0.1\r\nRange: bytes=9-2,1-1\r\n")),
              "HTTP/1.1 416 Range Not Satisfiable");
}

TEST_F(http_server_of, an_answer_that_fails_is_told_and_ends_nothing) {
    open();
    std::string answer = get("/throw");
    EXPECT_EQ(first_line(answer), "HTTP/1.1 500 Internal Server Error");
    EXPECT_NE(answer.find("nothing works"), std::string::npos);
    EXPECT_NE(answer.find("X-Content-Type-Options: nosniff"), std::string::npos);
    EXPECT_TRUE(is_served());
}

// ---- too much -------------------------------------------------------------------------------------------------------

TEST_F(http_server_of, a_request_at_the_limit_is_served_and_one_above_it_refused) {
    open();
    std::string head = "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Fill: ", end = "\r\n\r\n";
    EXPECT_TRUE(ask(head + std::string(4096 - head.size() - end.size(), 'x') + end).ends_with("hello"));
    std::string answer = ask(head + std::string(4097 - head.size() - end.size(), 'x') + end);
    EXPECT_EQ(first_line(answer), "HTTP/1.1 431 Request Header Fields Too Large");
    EXPECT_NE(answer.find("\"status\":431"), std::string::npos);
}

TEST_F(http_server_of, an_endless_request_is_cut_at_the_limit) {
    open();
    std::string many = "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n";
    for (int i = 0; i < 2000; i++) many += "X-" + std::to_string(i) + ": y\r\n";
    EXPECT_EQ(first_line(ask(many)), "HTTP/1.1 431 Request Header Fields Too Large");
    EXPECT_EQ(first_line(ask("GET /" + std::string(100000, 'a'))), "HTTP/1.1 431 Request Header Fields Too Large");
    EXPECT_EQ(first_line(ask(std::string(100000, '\n'))), "HTTP/1.1 400 Bad Request");
    EXPECT_TRUE(is_served());
}

TEST_F(http_server_of, a_long_address_is_refused) {
    http_limits wide = short_limits();
    wide.head        = 32768;
    open(wide);
    EXPECT_EQ(first_line(get("/" + std::string(9000, 'a'))), "HTTP/1.1 414 URI Too Long");
}

TEST_F(http_server_of, bytes_that_are_no_request_are_refused) {
    open();
    EXPECT_EQ(first_line(ask(std::string("\x16\x03\x01\x02\x00\x01\x00\r\n", 9))), "HTTP/1.1 400 Bad Request");
    EXPECT_EQ(first_line(ask("GET / HTTP/9.9\r\nHost: 127.0.0.1\r\n\r\n")), "HTTP/1.1 400 Bad Request");
    EXPECT_EQ(first_line(ask(std::string("GET /\0 HTTP/1.1\r\n\r\n", 19))), "HTTP/1.1 400 Bad Request");
    EXPECT_EQ(asked, 0);
    EXPECT_TRUE(is_served());
}

// ---- too slow -------------------------------------------------------------------------------------------------------

TEST_F(http_server_of, a_request_that_drips_is_ended_as_a_whole_and_keeps_nobody_waiting) {
    open();
    client dripping(port);
    auto   begun = steady::now();
    for (int i = 0; i < 100 && !dripping.is_closed; i++) {
        dripping.say("G");
        (void)dripping.hear_until("408", 20);
        if (dripping.heard.find("408") != std::string::npos) break;
        if (i % 5 == 0) {
            EXPECT_TRUE(is_served());
        }
    }
    EXPECT_EQ(first_line(dripping.heard), "HTTP/1.1 408 Request Timeout");
    EXPECT_LT(steady::now() - begun, milliseconds(2000));
}

TEST_F(http_server_of, who_says_nothing_gives_way_to_who_asks) {
    http_limits patient = short_limits();
    patient.head_time   = milliseconds(60000);
    open(patient);
    std::vector<std::unique_ptr<client>> silent;
    for (int i = 0; i < 12; i++) {
        silent.push_back(std::make_unique<client>(port));
        silent.back()->say("GET / HTTP/1.1\r\n");
        if (i >= 3) {
            EXPECT_TRUE(is_served()) << i;
        }
    }
    EXPECT_EQ(silent.front()->hear(1000), "");
    EXPECT_TRUE(silent.front()->is_closed);
    EXPECT_TRUE(becomes([&] { return server->clients() <= 4; }));
}

TEST_F(http_server_of, a_client_that_reads_nothing_is_cut_off_and_keeps_nobody_waiting) {
    open();
    std::vector<std::unique_ptr<client>> deaf;
    for (int i = 0; i < 3; i++) {
        deaf.push_back(std::make_unique<client>(port));
        deaf.back()->say("GET /big HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    }
    ASSERT_TRUE(becomes([&] { return asked == 3; }));
    EXPECT_TRUE(is_served());
    EXPECT_TRUE(becomes([&] { return server->clients() == 0; }, 4000));
    EXPECT_LT(deaf.front()->hear().size(), big_size);
}

TEST_F(http_server_of, when_every_place_is_at_work_a_new_client_is_told_so) {
    open();
    std::vector<std::unique_ptr<client>> busy;
    for (int i = 0; i < 4; i++) {
        busy.push_back(std::make_unique<client>(port));
        busy.back()->say("GET /wait HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    }
    ASSERT_TRUE(becomes([&] { return asked == 4; }));
    std::string answer = get("/");
    EXPECT_EQ(first_line(answer), "HTTP/1.1 503 Service Unavailable");
    EXPECT_NE(answer.find("too many clients"), std::string::npos);
    is_waiting_over = true;
    for (const auto &each : busy) EXPECT_TRUE(each->hear().ends_with("waited"));
    EXPECT_TRUE(becomes([&] { return is_served(); }));
}

TEST_F(http_server_of, an_answer_under_way_ends_when_its_client_has_gone) {
    open();
    client impatient(port);
    impatient.say("GET /wait HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    ASSERT_TRUE(becomes([&] { return asked == 1; }));
    impatient.go();
    EXPECT_TRUE(becomes([&] { return server->clients() == 0; }));
}

// ---- who follows ----------------------------------------------------------------------------------------------------

TEST_F(http_server_of, followers_have_their_own_number_of_places) {
    open();
    client first(port), second(port);
    for (client *each : {&first, &second}) {
        each->say("GET /follow HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
        EXPECT_TRUE(each->hear_until("fff"));
    }
    EXPECT_EQ(count_of(first.heard, "Content-Type: text/event-stream"), 1u);
    std::string answer = get("/follow");
    EXPECT_EQ(first_line(answer), "HTTP/1.1 503 Service Unavailable");
    EXPECT_NE(answer.find("too many follow already"), std::string::npos);
    EXPECT_TRUE(is_served());
    first.go();
    EXPECT_TRUE(becomes([&] { return following == 1; }));
    EXPECT_TRUE(becomes([&] { return server->clients() == 1; }));
    client third(port);
    third.say("GET /follow HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    EXPECT_TRUE(third.hear_until("fff"));
}

TEST_F(http_server_of, a_follower_that_reads_nothing_is_given_up) {
    http_limits patient        = short_limits();
    patient.stall_time         = milliseconds(60000);
    std::atomic<bool> gives_up = false;
    is_lost                    = [&] { return gives_up.load(); };
    follow_bytes               = 1 << 20;
    open(patient);
    client deaf(port);
    deaf.say("GET /follow HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    ASSERT_TRUE(becomes([&] { return following == 1; }));
    usleep(50000);
    EXPECT_EQ(following, 1);
    gives_up = true;
    EXPECT_TRUE(becomes([&] { return following == 0; }, 3000));
}

TEST_F(http_server_of, a_follower_that_reads_slowly_is_not) {
    http_limits patient = short_limits();
    patient.answer_time = milliseconds(100);
    follow_bytes        = 20000;
    open(patient);
    client slow(port);
    slow.say("GET /follow HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    ASSERT_TRUE(slow.hear_until("fff"));
    usleep(150000);
    EXPECT_EQ(following, 1);
    size_t before = slow.heard.size();
    (void)slow.hear(50);
    EXPECT_GT(slow.heard.size(), before);
    EXPECT_EQ(following, 1);
}

// ---- sockets and the end --------------------------------------------------------------------------------------------

TEST_F(http_server_of, a_unix_socket_is_for_owner_and_group_and_asks_for_no_host) {
    std::string path = scratch_path("a.sock");
    server           = std::make_unique<http_server>(service(), short_limits());
    ASSERT_EQ(server->open({path, "", 0, true}), "");
    struct stat facts;
    ASSERT_EQ(stat(path.c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 07777, 0660u);
    client c(path);
    c.say("GET / HTTP/1.1\r\nHost: whatever\r\n\r\n");
    EXPECT_TRUE(c.hear().ends_with("hello"));
    EXPECT_EQ(server->port(), 0);
    server.reset();
    EXPECT_NE(access(path.c_str(), F_OK), 0);
}

TEST_F(http_server_of, a_leftover_socket_is_replaced_and_nothing_else) {
    std::string path = scratch_path("b.sock"), file = scratch_path("file");
    {
        unique_fd   old(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, path.data(), path.size());
        ASSERT_EQ(bind(old.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    }
    http_server first(service()), second(service()), third(service());
    EXPECT_EQ(first.open({path, "", 0, true}), "");
    EXPECT_EQ(second.open({path, "", 0, true}), "another process serves " + path);
    unique_fd made(::open(file.c_str(), O_CREAT | O_WRONLY, 0600));
    EXPECT_EQ(third.open({file, "", 0, true}), file + " exists and is no socket");
    EXPECT_EQ(access(file.c_str(), F_OK), 0);
}

TEST_F(http_server_of, a_port_in_use_is_told) {
    open();
    http_server second(service());
    EXPECT_NE(second.open({"", "127.0.0.1", port, true}).find("Address already in use"), std::string::npos);
}

TEST_F(http_server_of, the_end_waits_for_no_client) {
    open();
    follow_bytes = 1 << 20;
    client silent(port), deaf(port), following_one(port);
    deaf.say("GET /big HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    following_one.say("GET /follow HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    ASSERT_TRUE(becomes([&] { return asked == 2 && following == 1; }));
    auto begun = steady::now();
    server.reset();
    EXPECT_LT(steady::now() - begun, milliseconds(1000));
    EXPECT_EQ(following, 0);
}

TEST_F(http_server_of, nothing_is_left_of_connections_that_are_over) {
    open();
    ASSERT_TRUE(is_served());
    ASSERT_TRUE(becomes([&] { return server->clients() == 0; }));
    size_t before = open_descriptors();
    for (int i = 0; i < 200; i++) {
        client hasty(port);
        if (i % 3 == 0) hasty.say("GET / HT");
        if (i % 3 == 1) hasty.say("GET /big HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    }
    EXPECT_TRUE(becomes([&] { return server->clients() == 0; }));
    EXPECT_TRUE(becomes([&] { return is_served() && open_descriptors() <= before + 1; }))
        << open_descriptors() - before;
}

// ---- the board ------------------------------------------------------------------------------------------------------

namespace {

// A loop of one thread that serves a board's bell.
class bell_ringer {
public:
    explicit bell_ringer(http_board &board) : board_(board), thread_([this] { run(); }) {}
    ~bell_ringer() {
        is_over_ = true;
        thread_.join();
    }

private:
    void run() {
        while (!is_over_) {
            pollfd ready = {board_.bell(), POLLIN, 0};
            if (poll(&ready, 1, 5) > 0) board_.serve_bell();
        }
    }
    http_board       &board_;
    std::atomic<bool> is_over_ = false;
    std::thread       thread_;
};

}  // namespace

TEST(http_board, a_text_is_made_when_it_is_wanted_and_served_again_while_it_is_fresh) {
    http_board       board("s");
    std::atomic<int> made = 0;
    board.offer("a", milliseconds(50), [&] { return std::to_string(++made); });
    bell_ringer ringer(board);
    usleep(20000);
    EXPECT_EQ(made, 0);
    EXPECT_EQ(*board.read("a"), "1");
    EXPECT_EQ(*board.read("a"), "1");
    usleep(60000);
    EXPECT_EQ(*board.read("a"), "2");
    EXPECT_EQ(board.read("b"), nullptr);
}

TEST(http_board, many_readers_share_one_making) {
    http_board       board("s");
    std::atomic<int> made = 0;
    board.offer("a", milliseconds(1000), [&] {
        usleep(20000);
        return std::to_string(++made);
    });
    bell_ringer              ringer(board);
    std::vector<std::thread> readers;
    std::atomic<int>         good = 0;
    for (int i = 0; i < 8; i++) readers.emplace_back([&] { good += board.read("a") != nullptr; });
    for (std::thread &each : readers) each.join();
    EXPECT_EQ(good, 8);
    EXPECT_LE(made, 2);
}

TEST(http_board, a_loop_that_hangs_or_fails_gives_no_text) {
    http_board board("s");
    board.offer("fails", milliseconds(0), []() -> std::string { throw std::runtime_error("no"); });
    auto begun = steady::now();
    EXPECT_EQ(board.read("fails"), nullptr);  // nobody serves the bell
    EXPECT_GE(steady::now() - begun, milliseconds(1900));
    bell_ringer ringer(board);
    begun = steady::now();
    EXPECT_EQ(board.read("fails"), nullptr);
    EXPECT_LT(steady::now() - begun, milliseconds(1000));
}

TEST(http_board, events_are_given_behind_a_number_and_the_first_tells_what_is_missing) {
    http_board board("s", 3);
    EXPECT_EQ(board.events(0, 1000, milliseconds(0)).first, 1u);
    for (uint64_t i = 1; i <= 5; i++) board.add_event(i, "e" + std::to_string(i));
    event_part all = board.events(0, 1000, milliseconds(0));
    EXPECT_EQ(all.first, 3u);
    EXPECT_EQ(all.last, 5u);
    ASSERT_EQ(all.texts.size(), 3u);
    EXPECT_EQ(*all.texts[0], "e3");
    event_part rest = board.events(4, 1000, milliseconds(0));
    EXPECT_EQ(rest.first, 5u);
    ASSERT_EQ(rest.texts.size(), 1u);
    EXPECT_TRUE(board.events(5, 1000, milliseconds(0)).texts.empty());
    EXPECT_EQ(board.events(0, 1, milliseconds(0)).texts.size(), 1u);
    EXPECT_EQ(board.bytes_added(), 10u);
    EXPECT_EQ(board.last_event(), 5u);
}

TEST(http_board, holds_no_more_bytes_of_events_than_it_may_but_always_one) {
    http_board board("s", 1000, 100);
    for (uint64_t i = 1; i <= 50; i++) board.add_event(i, std::string(30, 'x'));
    EXPECT_EQ(board.events(0, 10000, milliseconds(0)).texts.size(), 3u);
    board.add_event(51, std::string(500, 'x'));
    EXPECT_EQ(board.events(0, 10000, milliseconds(0)).texts.size(), 1u);
}

TEST(http_board, who_waits_for_events_is_woken_by_the_next_and_by_the_end) {
    http_board  board("s");
    std::thread writer([&] {
        usleep(20000);
        board.add_event(7, "seven");
        usleep(20000);
        board.close();
    });
    auto        begun = steady::now();
    EXPECT_EQ(board.events(6, 100, milliseconds(5000)).texts.size(), 1u);
    EXPECT_TRUE(board.events(7, 100, milliseconds(5000)).is_over);
    EXPECT_LT(steady::now() - begun, milliseconds(2000));
    writer.join();
    EXPECT_EQ(board.read("nothing"), nullptr);
}
