// The event log, the check of requests, and the JSON-lines server with its two sockets.
#include "common/event_log.h"
#include "common/json_server.h"
#include "common/line_client.h"
#include "common/request.h"
#include "common/unique_fd.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "loop_pump.h"

using namespace common;

namespace {

const std::vector<event_kind> kinds = {{"rain", "it rains; \"drops\""}, {"sun", "it shines"}};

const request_type weather = {"weather",
                              "tells the weather",
                              {{"place", member_type::text, "where", true, {"here", "there"}},
                               {"hours", member_type::number, "how many", false, {}, 48},
                               {"patience", member_type::seconds, "to wait"},
                               {"fresh", member_type::flag, "look first"},
                               {"kinds", member_type::texts, "which", false, {"rain", "sun"}},
                               {"extra", member_type::object, "more"}}};

// Why a request is refused; empty if it is not.
std::string refusal_of(const std::string &text) {
    try {
        check_request(parse_json(text), weather);
        return "";
    } catch (const refusal &error) {
        return error.what();
    }
}

std::string scratch_path(const char *name) {
    static std::string directory = [] {
        char made[] = "/tmp/common_socket_test.XXXXXX";
        return std::string(mkdtemp(made));
    }();
    return directory + "/" + name;
}

// A client on the test's own thread: what it sends and gets is pumped through the loop.
class client {
public:
    client(loop &l, const std::string &path)
        : loop_(l), fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(connect(fd_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    }
    void send(const std::string &text) {
        for (size_t at = 0; at < text.size();) {
            ssize_t count = ::send(fd_.get(), text.data() + at, text.size() - at, MSG_NOSIGNAL);
            if (count > 0) at += static_cast<size_t>(count);
            else if (errno == EAGAIN) run_for(loop_, 2);
            else return;
        }
    }
    void shut() { shutdown(fd_.get(), SHUT_WR); }
    // The next line as JSON; discarded when none comes.
    json next(int limit_ms = 2000) {
        run_until(
            loop_, [this] { return take() || is_over_; }, limit_ms);
        size_t      end  = in_.find('\n');
        std::string line = in_.substr(0, end);
        in_.erase(0, end == std::string::npos ? end : end + 1);
        return parse_json(line);
    }
    json ask(const std::string &text) {
        send(text + "\n");
        return next();
    }
    bool is_silent(int milliseconds) {
        run_for(loop_, milliseconds);
        return !take();
    }
    bool is_over(int limit_ms = 2000) {
        return run_until(
            loop_, [this] { return !take() && is_over_; }, limit_ms);
    }
    void leave() { fd_.reset(); }

private:
    bool take() {
        char    bytes[65536];
        ssize_t count = recv(fd_.get(), bytes, sizeof bytes, 0);
        if (count > 0) in_.append(bytes, static_cast<size_t>(count));
        is_over_ = is_over_ || count == 0 || (count < 0 && errno != EAGAIN);
        return in_.find('\n') != std::string::npos;
    }
    loop       &loop_;
    unique_fd   fd_;
    std::string in_;
    bool        is_over_ = false;
};

// A server with three requests of its own: `weather` answers at once, `later` when the test says so, `order` changes
// something.
class common_server : public testing::Test {
protected:
    void SetUp() override {
        server_.add(weather, [](const json &request, const ticket &) {
            return json{{"place", text_of(request, "place")}};
        });
        server_.add({"later", "answers later"}, [this](const json &, const ticket &asked) -> std::optional<json> {
            asked_.push_back(asked);
            return std::nullopt;
        });
        server_.add({"order", "orders", {}, false}, [this](const json &, const ticket &) {
            orders_++;
            return json::object();
        });
        server_.add({"broken", "fails"}, [](const json &, const ticket &) -> std::optional<json> {
            throw std::runtime_error("out of paper");
        });
        server_.listen(path_);
    }

    std::string         path_ = scratch_path("socket");
    loop                loop_;
    event_log           log_{kinds};
    json_server         server_{loop_, log_, {"tester", "1.2"}, {.line = 1000, .output = 300000, .clients = 3}};
    std::vector<ticket> asked_;
    int                 orders_ = 0;
};

}  // namespace

// ---- the event log --------------------------------------------------------------------------------------------------

TEST(common_events, are_numbered_without_gaps_and_carry_their_stream) {
    event_log                log(kinds);
    std::vector<std::string> seen;
    log.listen([&](const event &e, const json &members) {
        seen.push_back(log.text(e));
        EXPECT_EQ(members["number"], e.number);
    });
    EXPECT_EQ(log.last(), 0u);
    EXPECT_EQ(log.add({12.3456, 1700000000123}, "rain", {{"drops", 3}}), 1u);
    EXPECT_EQ(log.add("sun"), 2u);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(
        seen[0],
        "{\"schema\":1,\"stream\":\"" + log.stream() +
            "\",\"event\":\"rain\",\"number\":1,\"time\":\"2023-11-14T22:13:20.123Z\",\"mono\":12.345,\"drops\":3}");
    EXPECT_EQ(log.stream().size(), 16u);
    EXPECT_NE(log.stream(), event_log(kinds).stream()) << "each life of the program has another";
}

TEST(common_events, of_an_unknown_kind_are_a_mistake_of_the_program) {
    event_log log(kinds);
    EXPECT_THROW(log.add("snow"), std::logic_error);
    EXPECT_EQ(log.last(), 0u);
}

TEST(common_events, the_oldest_go_first_by_number_and_by_size) {
    event_log log(kinds, 3, 100000);
    for (int i = 0; i < 5; i++) log.add("sun");
    std::vector<uint64_t> kept;
    log.each_since(0, [&](const event &e) {
        kept.push_back(e.number);
        return true;
    });
    EXPECT_EQ(kept, (std::vector<uint64_t>{3, 4, 5}));
    EXPECT_EQ(log.lost(0), 2u);
    EXPECT_EQ(log.lost(1), 1u);
    EXPECT_EQ(log.lost(2), 0u);

    event_log small(kinds, 1000, 3000);
    for (int i = 0; i < 5; i++) small.add("rain", {{"drops", std::string(1000, '.')}});
    EXPECT_EQ(small.lost(0), 3u) << "two of a little over 1000 bytes fit";
    small.add("rain", {{"drops", std::string(9000, '.')}});
    EXPECT_EQ(small.lost(0), 5u) << "the newest is always kept";
}

TEST(common_events, a_filter_asks_for_kinds_and_members) {
    event_log log(kinds);
    log.add("rain", {{"drops", 3}, {"where", "here"}});
    log.add("sun", {{"where", "here"}});
    auto count = [&](const event_filter &filter) {
        int n = 0;
        log.each_since(0, [&](const event &e) {
            n += filter.accepts(log, e);
            return true;
        });
        return n;
    };
    EXPECT_EQ(count({}), 2);
    EXPECT_EQ(count({{"rain"}, ""}), 1);
    EXPECT_EQ(count({{}, "{\"where\":\"here\"}"}), 2);
    EXPECT_EQ(count({{}, "{\"where\":\"here\",\"drops\":3}"}), 1);
    EXPECT_EQ(count({{}, "{\"drops\":\"3\"}"}), 0);
}

// ---- requests -------------------------------------------------------------------------------------------------------

TEST(common_request, what_is_right_passes) {
    EXPECT_EQ(refusal_of(R"({"request":"weather","id":[1],"place":"here"})"), "");
    EXPECT_EQ(
        refusal_of(R"({"place":"there","hours":48,"patience":0.5,"fresh":true,"kinds":["sun","rain"],"extra":{}})"),
        "");
    EXPECT_EQ(refusal_of(R"({"place":"there","patience":null,"kinds":"sun"})"), "");
}

TEST(common_request, what_is_unknown_is_refused_with_the_list_of_what_exists) {
    EXPECT_EQ(refusal_of(R"({"place":"here","hour":1})"),
              "\"weather\" has no member \"hour\"; there are: place, hours, patience, fresh, kinds, extra");
    EXPECT_EQ(refusal_of(R"({"place":"nowhere"})"), "\"place\" cannot be \"nowhere\"; there are: here, there");
    EXPECT_EQ(refusal_of(R"({"place":"here","kinds":["sun","snow"]})"),
              "\"kinds\" cannot be \"snow\"; there are: rain, sun");
    EXPECT_EQ(refusal_of(R"({"place":"here","\u001b[31m":1})"),
              "\"weather\" has no member \"\\x1b[31m\"; there are: place, hours, patience, fresh, kinds, extra");
}

TEST(common_request, wrong_types_and_limits_are_refused) {
    EXPECT_EQ(refusal_of("{}"), "\"weather\" needs the member \"place\"");
    EXPECT_EQ(refusal_of(R"({"place":1})"), "\"place\" must be a text");
    EXPECT_EQ(refusal_of(R"({"place":"here","hours":49})"),
              "\"hours\" must be a whole number, not below 0 and not above 48");
    EXPECT_EQ(refusal_of(R"({"place":"here","hours":-1})"),
              "\"hours\" must be a whole number, not below 0 and not above 48");
    EXPECT_EQ(refusal_of(R"({"place":"here","hours":1.5})"),
              "\"hours\" must be a whole number, not below 0 and not above 48");
    EXPECT_EQ(refusal_of(R"({"place":"here","patience":86401})"),
              "\"patience\" must be a number of seconds from 0 to 86400");
    EXPECT_EQ(refusal_of(R"({"place":"here","patience":"1"})"),
              "\"patience\" must be a number of seconds from 0 to 86400");
    EXPECT_EQ(refusal_of(R"({"place":"here","fresh":1})"), "\"fresh\" must be true or false");
    EXPECT_EQ(refusal_of(R"({"place":"here","kinds":[1]})"), "\"kinds\" must be a text");
    EXPECT_EQ(refusal_of(R"({"place":"here","kinds":{}})"), "\"kinds\" must be a list of texts");
    EXPECT_EQ(refusal_of(R"({"place":"here","extra":[]})"), "\"extra\" must be an object");
}

TEST(common_request, a_line_of_json_holds_nothing_that_a_terminal_obeys) {
    std::string text = "\x1b[2J \x7f \xc2\x9b"
                       "31m \xe2\x80\xae \xff",
                line = json_line(json(text));
    line.pop_back();
    for (unsigned char c : line) EXPECT_TRUE(c >= 0x20 && c < 0x7f) << static_cast<int>(c);
    EXPECT_EQ(parse_json(line), json("\x1b[2J \x7f \xc2\x9b"
                                     "31m \xe2\x80\xae \xef\xbf\xbd"));
}

TEST(common_request, a_text_that_is_nested_too_deep_is_no_json) {
    EXPECT_TRUE(parse_json(std::string(33, '[') + std::string(33, ']')).is_discarded());
    EXPECT_FALSE(parse_json(std::string(32, '[') + std::string(32, ']')).is_discarded());
    EXPECT_TRUE(parse_json(std::string(100000, '[')).is_discarded());
    EXPECT_TRUE(parse_json("1e999").is_discarded());
}

// ---- the server -----------------------------------------------------------------------------------------------------

TEST_F(common_server, every_answer_says_schema_program_version_and_stream) {
    client c(loop_, path_);
    json   answer = c.ask(R"({"request":"weather","place":"here","id":{"a":[1,2]}})");
    EXPECT_EQ(answer, parse_json(R"({"schema":1,"program":"tester","version":"1.2","stream":")" + log_.stream() +
                                 R"(","request":"weather","ok":true,"exit":0,"id":{"a":[1,2]},"place":"here"})"));
}

TEST_F(common_server, what_is_no_request_is_answered_and_the_connection_stays) {
    client c(loop_, path_);
    for (const char *line : {"no json", "[]", "{}", R"({"request":7})", R"({"request":"nothing"})",
                             R"({"request":"weather","place":"here","x":1})", "\xff\xfe\x01",
                             "{\"request\":\"weather\"", R"({"request":"weather","place":"here","id":1e999})"}) {
        json answer = c.ask(line);
        EXPECT_EQ(answer["ok"], false) << line;
        EXPECT_EQ(answer["exit"], exit_usage) << line;
        EXPECT_TRUE(answer["error"].is_string()) << line;
    }
    EXPECT_EQ(c.ask(R"({"request":"nothing"})")["error"],
              "there is no request \"nothing\"; there are: help, events, wait, weather, later, order, broken");
    EXPECT_EQ(c.ask("\n \r\n{\"request\":\"weather\",\"place\":\"here\"}")["ok"], true) << "empty lines are nothing";
}

TEST_F(common_server, a_failure_inside_is_an_answer) {
    client c(loop_, path_);
    json   answer = c.ask(R"({"request":"broken","id":1})");
    EXPECT_EQ(answer["exit"], exit_failed);
    EXPECT_EQ(answer["error"], "out of paper");
    EXPECT_EQ(answer["id"], 1);
}

TEST_F(common_server, answers_come_when_they_are_ready_each_with_its_id) {
    client c(loop_, path_);
    c.send("{\"request\":\"later\",\"id\":1}\n{\"request\":\"later\",\"id\":2}\n");
    EXPECT_EQ(c.ask(R"({"request":"weather","place":"here","id":3})")["id"], 3);
    ASSERT_EQ(asked_.size(), 2u);
    server_.answer(asked_[1], {{"exit", exit_no_answer}, {"error", "late"}});
    json answer = c.next();
    EXPECT_EQ(answer["id"], 2);
    EXPECT_EQ(answer["ok"], false);
    EXPECT_EQ(answer["exit"], exit_no_answer);
    server_.answer(asked_[0], json::object());
    EXPECT_EQ(c.next()["id"], 1);
}

TEST_F(common_server, who_closes_the_sending_side_still_gets_what_was_asked_for) {
    client c(loop_, path_);
    c.send("{\"request\":\"later\",\"id\":1}\n");
    c.shut();
    EXPECT_TRUE(c.is_silent(10));
    ASSERT_EQ(asked_.size(), 1u);
    server_.answer(asked_[0], json::object());
    EXPECT_EQ(c.next()["id"], 1);
    EXPECT_TRUE(c.is_over());
}

TEST_F(common_server, an_answer_for_somebody_who_has_gone_is_nothing) {
    client c(loop_, path_);
    c.send("{\"request\":\"later\"}\n{\"request\":\"wait\",\"events\":[\"sun\"]}\n");
    EXPECT_TRUE(c.is_silent(10));
    ASSERT_EQ(asked_.size(), 1u);
    c.leave();
    EXPECT_TRUE(run_until(loop_, [&] {
        server_.answer(asked_[0], json::object());
        return server_.clients() == 0;
    }));
    log_.add("sun");
}

TEST_F(common_server, a_line_above_the_limit_ends_the_connection_and_no_other) {
    client c(loop_, path_), other(loop_, path_);
    c.send(std::string(1001, 'x'));
    json answer = c.next();
    EXPECT_EQ(answer["error"], "the line is too long");
    EXPECT_TRUE(c.is_over());
    EXPECT_EQ(other.ask(R"({"request":"weather","place":"here"})")["ok"], true);
}

TEST_F(common_server, a_whole_line_above_the_limit_is_refused) {
    client c(loop_, path_);
    json   answer = c.ask("{\"request\":\"weather\",\"place\":\"" + std::string(1000, 'x') + "\"}");
    EXPECT_EQ(answer["error"], "the line is too long");
}

TEST_F(common_server, who_does_not_read_is_cut_off) {
    client c(loop_, path_), other(loop_, path_);
    ASSERT_EQ(c.ask(R"({"request":"events","follow":true})")["follow"], true);
    for (int i = 0; i < 1000 && server_.clients() == 2; i++) {
        for (int j = 0; j < 10; j++) log_.add("rain", {{"drops", std::string(1000, '.')}});
        run_for(loop_, 2);
    }
    EXPECT_EQ(server_.clients(), 1u);
    EXPECT_EQ(other.ask(R"({"request":"weather","place":"here"})")["ok"], true);
}

TEST_F(common_server, more_clients_than_it_serves_are_told_so) {
    client a(loop_, path_), b(loop_, path_), c(loop_, path_);
    EXPECT_EQ(c.ask(R"({"request":"weather","place":"here"})")["ok"], true);
    client d(loop_, path_);
    EXPECT_EQ(d.next()["error"], "too many connections");
    EXPECT_TRUE(d.is_over());
    EXPECT_EQ(a.ask(R"({"request":"weather","place":"here"})")["ok"], true);
}

TEST_F(common_server, a_connection_has_only_so_many_requests_that_wait) {
    client c(loop_, path_);
    for (int i = 0; i < 256; i++) c.send("{\"request\":\"later\"}\n");
    json refused = c.ask("{\"request\":\"later\",\"id\":1}");
    EXPECT_EQ(refused["exit"], exit_failed);
    EXPECT_EQ(refused["id"], 1);
    EXPECT_EQ(asked_.size(), 256u);
    server_.answer(asked_.front(), json::object());
    EXPECT_EQ(c.next()["exit"], exit_done);
    c.send("{\"request\":\"later\"}\n");
    EXPECT_TRUE(c.is_silent(50));
    EXPECT_EQ(asked_.size(), 257u);
}

TEST_F(common_server, help_describes_every_request_and_every_event) {
    client                   c(loop_, path_);
    json                     answer = c.ask(R"({"request":"help"})");
    std::vector<std::string> names;
    for (const json &each : answer["requests"]) {
        names.push_back(each["request"]);
        EXPECT_FALSE(each["help"].get<std::string>().empty());
        for (const json &m : each["members"]) EXPECT_FALSE(m["help"].get<std::string>().empty());
    }
    EXPECT_EQ(names, (std::vector<std::string>{"help", "events", "wait", "weather", "later", "order", "broken"}));
    EXPECT_EQ(answer["events"].size(), 2u);
    EXPECT_EQ(answer["requests"][3]["members"][0],
              parse_json(R"({"name":"place","type":"text","needed":true,"help":"where","words":["here","there"]})"));
    EXPECT_EQ(answer["requests"][5]["reading"], false);
}

// ---- events, follow, wait -------------------------------------------------------------------------------------------

TEST_F(common_server, events_are_listed_by_number_kind_and_count) {
    client c(loop_, path_);
    for (int i = 0; i < 3; i++) {
        log_.add("rain", {{"drops", i}});
        log_.add("sun");
    }
    json all = c.ask(R"({"request":"events","id":5})");
    EXPECT_EQ(all["last"], 6);
    EXPECT_EQ(all["lost"], 0);
    EXPECT_EQ(all["id"], 5);
    ASSERT_EQ(all["events"].size(), 6u);
    EXPECT_EQ(all["events"][1]["event"], "sun");
    EXPECT_EQ(all["events"][1]["number"], 2);
    json some = c.ask(R"({"request":"events","since":1,"events":["rain"],"count":1})");
    ASSERT_EQ(some["events"].size(), 1u);
    EXPECT_EQ(some["events"][0]["number"], 3);
    EXPECT_EQ(c.ask(R"({"request":"events","match":{"drops":2}})")["events"].size(), 1u);
    EXPECT_EQ(c.ask(R"({"request":"events","events":["snow"]})")["error"],
              "\"events\" cannot be \"snow\"; there are: rain, sun");
}

TEST_F(common_server, a_number_of_another_stream_is_not_taken_for_one_of_this) {
    client c(loop_, path_);
    log_.add("sun");
    log_.add("rain");
    EXPECT_EQ(c.ask(R"({"request":"events","since":2,"stream":")" + log_.stream() + "\"}")["events"].size(), 0u);
    EXPECT_EQ(c.ask(R"({"request":"events","since":2,"stream":"0000000000000000"})")["events"].size(), 2u);
}

TEST_F(common_server, who_follows_gets_the_answer_first_then_what_is_kept_then_what_comes) {
    client c(loop_, path_);
    log_.add("sun");
    log_.add("rain");
    json answer = c.ask(R"({"request":"events","follow":true,"since":1})");
    EXPECT_EQ(answer["follow"], true);
    EXPECT_EQ(answer["last"], 2);
    EXPECT_EQ(c.next()["number"], 2);
    log_.add("sun");
    EXPECT_EQ(c.next()["number"], 3);
    EXPECT_EQ(c.ask(R"({"request":"events","follow":false})")["follow"], false);
    log_.add("sun");
    EXPECT_TRUE(c.is_silent(10));
}

TEST_F(common_server, a_count_ends_the_following) {
    client c(loop_, path_);
    log_.add("sun");
    c.ask(R"({"request":"events","follow":true,"count":2,"events":["sun"]})");
    EXPECT_EQ(c.next()["number"], 1);
    log_.add("rain");
    log_.add("sun");
    EXPECT_EQ(c.next()["number"], 3);
    log_.add("sun");
    EXPECT_TRUE(c.is_silent(10));
}

TEST_F(common_server, a_wait_is_answered_by_the_event_or_by_the_time) {
    client c(loop_, path_);
    log_.add("rain", {{"drops", 1}});
    c.send("{\"request\":\"wait\",\"events\":[\"rain\"],\"match\":{\"drops\":2},\"timeout\":60,\"id\":1}\n");
    EXPECT_TRUE(c.is_silent(10));
    log_.add("rain", {{"drops", 1}});
    log_.add("rain", {{"drops", 2}});
    json answer = c.next();
    EXPECT_EQ(answer["id"], 1);
    EXPECT_EQ(answer["matched"]["number"], 3);
    EXPECT_EQ(c.ask(R"({"request":"wait","since":0,"events":["rain"]})")["matched"]["number"], 1) << "is there already";
    EXPECT_EQ(c.ask(R"({"request":"wait"})")["error"], "\"wait\" needs one of the members: events, match");
    answer = c.ask(R"({"request":"wait","events":["sun"],"timeout":0.01,"id":2})");
    EXPECT_EQ(answer["exit"], exit_not_reached);
    EXPECT_EQ(answer["id"], 2);
}

TEST_F(common_server, a_program_gives_wait_members_of_its_own) {
    server_.extend_wait({{"state", member_type::text, "to wait for", false, {"up", "down"}}},
                        [](const json &request, const ticket &) {
                            return json{{"state", text_of(request, "state")}};
                        });
    client c(loop_, path_);
    EXPECT_EQ(c.ask(R"({"request":"wait","state":"up","timeout":1})")["state"], "up");
    EXPECT_EQ(c.ask(R"({"request":"wait","state":"left"})")["error"],
              "\"state\" cannot be \"left\"; there are: up, down");
}

// ---- sockets --------------------------------------------------------------------------------------------------------

TEST_F(common_server, the_second_socket_is_for_reading_only) {
    std::string second = scratch_path("second");
    server_.listen_read_only(second, getgid());
    struct stat facts;
    ASSERT_EQ(stat(path_.c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 07777, 0600u);
    ASSERT_EQ(stat(second.c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 07777, 0660u);
    client c(loop_, second), full(loop_, path_);
    EXPECT_EQ(c.ask(R"({"request":"weather","place":"here"})")["ok"], true);
    json answer = c.ask(R"({"request":"order"})");
    EXPECT_EQ(answer["exit"], exit_usage);
    EXPECT_EQ(answer["error"], "\"order\" gives an order, and this socket is for reading only");
    EXPECT_EQ(orders_, 0);
    EXPECT_EQ(full.ask(R"({"request":"order"})")["ok"], true);
    EXPECT_EQ(orders_, 1);
}

TEST(common_socket, takes_the_place_of_a_leftover_and_of_nothing_else) {
    loop        l;
    event_log   log(kinds);
    std::string path = scratch_path("place");
    {
        unique_fd   left(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        ASSERT_EQ(bind(left.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    }
    {
        json_server server(l, log, {"a", "1"});
        server.listen(path);
        json_server second(l, log, {"b", "1"});
        EXPECT_THROW(second.listen(path), std::runtime_error) << "somebody serves it";
    }
    EXPECT_NE(access(path.c_str(), F_OK), 0) << "goes with its server";
    unique_fd   file(open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    json_server third(l, log, {"c", "1"});
    EXPECT_THROW(third.listen(path), std::runtime_error) << "a file stays";
    EXPECT_THROW(third.listen(scratch_path("no/such/directory")), std::runtime_error);
    EXPECT_THROW(third.listen(""), std::runtime_error);
    EXPECT_THROW(third.listen("/tmp/" + std::string(200, 'x')), std::runtime_error);
    EXPECT_EQ(access(path.c_str(), F_OK), 0);
}

TEST(common_socket, an_event_after_its_server_has_gone_reaches_nobody) {
    loop      l;
    event_log log(kinds);
    { json_server server(l, log, {"a", "1"}); }
    log.add("sun");
    run_for(l, 5);
}

TEST(common_client, says_why_it_cannot_connect) {
    line_client c;
    EXPECT_EQ(c.connect(scratch_path("nobody"), "nobody is there"), "nobody is there");
    EXPECT_EQ(c.connect("", "nobody is there"), "nobody is there");
    EXPECT_EQ(c.connect(std::string(200, 'x'), "nobody is there"), "nobody is there");
}

TEST(common_client, reads_lines_and_notices_the_end_and_the_time) {
    std::string path = scratch_path("plain");
    unique_fd   listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(listener.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener.get(), 1), 0);
    line_client c;
    ASSERT_EQ(c.connect(path, ""), "");
    unique_fd server(accept(listener.get(), nullptr, nullptr));
    ASSERT_EQ(write(server.get(), "one\ntwo\nthr", 11), 11);
    std::string line;
    EXPECT_EQ(c.read(line, 1), line_client::reading::line);
    EXPECT_EQ(line, "one");
    EXPECT_EQ(c.read(line, 1), line_client::reading::line);
    EXPECT_EQ(line, "two");
    EXPECT_EQ(c.read(line, 0.02), line_client::reading::late);
    server.reset();
    EXPECT_EQ(c.read(line, 1), line_client::reading::over);
    EXPECT_FALSE(c.send("x\n"));
}

TEST(common_json_server, without_a_descriptor_it_waits_and_does_not_go_round) {
    loop        l;
    event_log   log(kinds);
    json_server server(l, log, {"wlcctl", "1"});
    std::string path = scratch_path("full");
    server.listen(path);
    auto                   waiting = std::make_unique<client>(l, path);
    std::vector<unique_fd> all;
    rlimit                 before{};
    getrlimit(RLIMIT_NOFILE, &before);
    rlimit few{64, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    for (int fd; (fd = dup(STDERR_FILENO)) >= 0;) all.emplace_back(fd);

    clock_t spent = clock();
    run_for(l, 400);
    EXPECT_LT(static_cast<double>(clock() - spent) / CLOCKS_PER_SEC, 0.2);
    EXPECT_EQ(server.clients(), 0u);

    all.clear();
    waiting->send("{\"request\":\"help\"}\n");
    EXPECT_EQ(waiting->next()["ok"], true);
    setrlimit(RLIMIT_NOFILE, &before);
}
