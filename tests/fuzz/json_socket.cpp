// The socket of gateway and controller: lines of JSON, in pieces of any size. Every line that is not blank gets one
// answer. Input: settings, then pieces: a choice of word or bytes; 255 lets the server read what is there.
#include <cerrno>
#include <unistd.h>
#include <vector>

#include <sys/socket.h>
#include <sys/un.h>

#include <nlohmann/json.hpp>

#include "common/event_log.h"
#include "common/json_server.h"
#include "common/loop.h"
#include "common/request.h"
#include "common/unique_fd.h"

#include "input.h"

using namespace common;

namespace {

constexpr size_t line_limit = 2000;

constexpr const char *words[] = {
    "{\"request\":\"weather\"",
    ",\"place\":\"here\"",
    ",\"place\":\"nowhere\"",
    ",\"hours\":",
    ",\"patience\":",
    ",\"fresh\":true",
    ",\"kinds\":[\"rain\"]",
    ",\"extra\":{}",
    "}",
    "\n",
    "{\"request\":\"help\"}\n",
    "{\"request\":\"events\"}\n",
    "{\"request\":\"wait\",\"timeout\":0}\n",
    "{\"request\":\"broken\"}\n",
    "{\"request\":\"order\"}\n",
    ",\"id\":",
    "7",
    "-1",
    "1e99",
    "null",
    "\"\\u0000\"",
    "[[[[[[[[",
    "\"",
};

// The whole process's server and loop, on a socket that goes with the process.
struct service {
    std::string                directory = "/tmp/tlsc-fuzz-XXXXXX";
    std::string                path;
    loop                       owner;
    event_log                  log{{{"rain", "it rains"}, {"sun", "it shines"}}, 20};
    std::optional<json_server> server;

    service() {
        MUST(mkdtemp(directory.data()) != nullptr);
        path = directory + "/socket";
        server.emplace(owner, log, server_identity{"tester", "1"}, server_limits{line_limit, 1u << 20, 4});
        server->add({"weather",
                     "tells the weather",
                     {{"place", member_type::text, "where", true, {"here", "there"}},
                      {"hours", member_type::number, "how many", false, {}, 48},
                      {"patience", member_type::seconds, "to wait"},
                      {"fresh", member_type::flag, "look first"},
                      {"kinds", member_type::texts, "which", false, {"rain", "sun"}},
                      {"extra", member_type::object, "more"}}},
                    [](const json &request, const ticket &) {
                        return json{{"place", text_of(request, "place")}};
                    });
        server->add({"order", "orders", {}, false}, [this](const json &, const ticket &) {
            log.add("rain");
            return json::object();
        });
        server->add({"broken", "fails"}, [](const json &, const ticket &) -> std::optional<json> {
            throw std::runtime_error("out of paper");
        });
        server->listen(path);
    }
    void one_pass() {
        owner.later([this] { owner.stop(); });
        owner.run();
    }
};

service &the_service() {
    static service  &made   = *new service;
    static const int at_end = atexit([] {
        (void)unlink(made.path.c_str());
        (void)rmdir(made.directory.c_str());
    });
    (void)at_end;
    return made;
}

struct conversation {
    unique_fd   fd{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    std::string received;
    bool        is_over = false;

    explicit conversation(const std::string &path) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        MUST(connect(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0);
    }
    void send(const std::string &text) {
        if (!is_over && !text.empty()) (void)!::send(fd.get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    bool take() {
        char          bytes[65536];
        const ssize_t count = recv(fd.get(), bytes, sizeof(bytes), 0);
        if (count > 0) received.append(bytes, static_cast<size_t>(count));
        is_over = is_over || count == 0 || (count < 0 && errno != EAGAIN);
        return count > 0;
    }
};

size_t count_of_lines(const std::string &text) {
    size_t lines = 0, start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
        lines += text.substr(start, end - start).find_first_not_of(" \t\r") != std::string::npos;
    return lines;
}

// Every line is an answer (or an event, which only who follows gets). Returns their number.
size_t check_answers(const std::string &text) {
    size_t answers = 0, start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        const json line = json::parse(text.substr(start, end - start), nullptr, false);
        MUST(line.is_object() && line.contains("schema"));
        if (!line.contains("request")) continue;
        MUST(line["ok"].is_boolean() && line["exit"].is_number_integer());
        MUST(line["ok"].get<bool>() == (line["exit"].get<int>() == 0));
        ++answers;
    }
    MUST(start == text.size());
    return answers;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    service     &service = the_service();
    fuzz_input   in(bytes, size);
    conversation with(service.path);
    std::string  sent, piece;
    while (!in.empty() && sent.size() < 8000) {
        const uint8_t choice = in.byte();
        if (choice == 255) {
            with.send(piece);
            piece.clear();
            service.one_pass();
            (void)with.take();
            continue;
        }
        const std::string text = choice < std::size(words) ? words[choice]
                                 : choice < 128            ? std::string(1, static_cast<char>(choice))
                                                           : std::string(in.bytes(choice & 31));
        piece += text;
        sent += text;
    }
    with.send(piece + "\n");
    sent += "\n";
    shutdown(with.fd.get(), SHUT_WR);
    for (unsigned passes = 0; passes < 40 && !with.is_over; ++passes) {
        service.one_pass();
        while (with.take()) {}
    }

    // One that was cut off, or that waits or follows, may get less.
    const size_t answers = check_answers(with.received);
    const size_t lines   = count_of_lines(sent);
    MUST(answers <= lines);
    const bool may_be_late = sent.find("wait") != std::string::npos || sent.find("events") != std::string::npos ||
                             sent.find('\\') != std::string::npos;
    bool is_long = false;
    for (size_t start = 0, end; (end = sent.find('\n', start)) != std::string::npos; start = end + 1)
        is_long = is_long || end - start > line_limit;
    if (!may_be_late && !is_long) MUST(answers == lines && with.is_over);
    with.fd.reset();
    service.one_pass();
    return 0;
}
