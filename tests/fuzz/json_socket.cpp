// The socket of gateway and controller: lines of JSON, in pieces of any size. Every line that is not blank gets one
// answer. Input: settings, then pieces: a choice of word or bytes; 255 lets the server read what is there.
#include "common/event_log.h"
#include "common/json_server.h"
#include "common/request.h"

#include "requests.h"

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
    fuzz_directory             directory;
    std::string                path = directory.file("socket");
    loop                       owner;
    event_log                  log{{{"rain", "it rains"}, {"sun", "it shines"}}, 20};
    std::optional<json_server> server;

    service() {
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
    void one_pass() { serve_once(owner); }
};

service &the_service() {
    static service made;
    return made;
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
    with.end_input();
    with.serve(40, [&] { service.one_pass(); });

    // One that was cut off, or that waits or follows, may get less.
    const size_t answers = check_answers(with.received, "tester");
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
