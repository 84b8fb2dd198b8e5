// What the targets for sockets with lines of JSON share: a connection that is served by the target's own loop,
// requests made from the program's table (of which `help` tells), and what must hold of every line that comes back.
#pragma once

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "common/json.h"
#include "common/loop.h"
#include "common/unique_fd.h"

#include "input.h"

using common::json;

// A directory below /tmp that goes with its object.
struct fuzz_directory {
    std::string path = "/tmp/tlsc-fuzz-XXXXXX";

    fuzz_directory() { MUST(mkdtemp(path.data()) != nullptr); }
    ~fuzz_directory() {
        for (const std::string &name : files) (void)unlink(name.c_str());
        (void)rmdir(path.c_str());
    }
    fuzz_directory(const fuzz_directory &)            = delete;
    fuzz_directory &operator=(const fuzz_directory &) = delete;

    // Removed with the directory.
    std::string file(const std::string &name) {
        files.push_back(path + "/" + name);
        return files.back();
    }

    std::vector<std::string> files;
};

// Serves what is ready, and no more.
inline void serve_once(common::loop &owner, const common::task &after_pass = nullptr) {
    owner.later([&owner] { owner.stop(); });
    owner.run(after_pass);
}

// One connection to the socket; what came is kept.
struct conversation {
    common::unique_fd fd{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    std::string       received;
    bool              is_over = false;

    explicit conversation(const std::string &path) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        MUST(connect(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0);
    }
    void send(const std::string &text) {
        if (!is_over && !text.empty()) (void)!::send(fd.get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    void end_input() const { shutdown(fd.get(), SHUT_WR); }
    bool take() {
        char          bytes[65536];
        const ssize_t count = recv(fd.get(), bytes, sizeof(bytes), 0);
        if (count > 0) received.append(bytes, static_cast<size_t>(count));
        is_over = is_over || count == 0 || (count < 0 && errno != EAGAIN);
        return count > 0;
    }
    // Until the other side has nothing more to say, or for so many passes.
    void serve(unsigned passes, const std::function<void()> &serve_once) {
        for (; passes > 0 && !is_over; --passes) {
            serve_once();
            while (take()) {}
        }
    }
};

// The program's table, asked for as anybody asks. one: listens at its `path`, and serves in `one_pass`.
template <class service>
json ask_for_help(service &one) {
    conversation with(one.path);
    with.send("{\"request\":\"help\"}\n");
    with.end_input();
    with.serve(20, [&] { one.one_pass(); });
    return json::parse(with.received);
}

// Lines that ask for something.
inline size_t count_of_lines(const std::string &text) {
    size_t lines = 0, start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
        lines += text.substr(start, end - start).find_first_not_of(" \t\r") != std::string::npos;
    return lines;
}

// Every line is one whole answer, or an event, which only who follows gets. Returns the number of answers.
inline size_t check_answers(const std::string &text, const std::string &program) {
    size_t answers = 0, start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        const json line = json::parse(text.substr(start, end - start), nullptr, false);
        MUST(line.is_object() && line.contains("schema") && line["schema"].is_number_integer());
        if (!line.contains("request")) continue;
        MUST(line["program"] == program && line["version"].is_string() && line["stream"].is_string());
        MUST(line["ok"].is_boolean() && line["exit"].is_number_integer());
        MUST(line["ok"].get<bool>() == (line["exit"].get<int>() == 0));
        MUST(line["ok"].get<bool>() || !line.contains("error") || line["error"].is_string());
        ++answers;
    }
    MUST(start == text.size());
    return answers;
}

// Makes requests of the program's table: mostly of the right kind, with any value, now and then of a wrong one.
class request_maker {
public:
    // help: the answer to `help`; words: texts that mean something to this program.
    request_maker(const json &help, std::vector<std::string> words)
        : requests_(help["requests"]), words_(std::move(words)) {
        MUST(!requests_.empty());
        for (const json &event : help["events"]) words_.push_back(event["event"].get<std::string>());
    }

    // One line.
    std::string make(fuzz_input &in) const {
        const json &type = requests_[in.below(requests_.size())];
        std::string text = "{\"request\":" + type["request"].dump();
        for (const json &member : type["members"]) {
            if (!in.chance(member["needed"].get<bool>() ? 240 : 110)) continue;
            text += "," + member["name"].dump() + ":" + (in.chance(16) ? any_value(in, 3) : value_of(member, in));
        }
        if (in.chance(40)) text += ",\"id\":" + any_value(in, 3);
        if (in.chance(4)) text += "," + quoted(in) + ":" + any_value(in, 3);
        text += "}";
        if (in.chance(4)) text.resize(in.below(text.size() + 1));
        return text + "\n";
    }

private:
    static std::string hexadecimal(std::string_view bytes) {
        constexpr char digits[] = "0123456789abcdef";
        std::string    text;
        for (const char c : bytes) {
            text += digits[static_cast<uint8_t>(c) >> 4];
            text += digits[c & 15];
        }
        return text;
    }

    std::string quoted(fuzz_input &in) const {
        const uint8_t choice = in.byte();
        if (choice < 128) return json(words_[choice % words_.size()]).dump();
        if (choice < 176) return "\"" + hexadecimal(in.bytes(in.below(64))) + "\"";
        if (choice < 250) {  // any bytes, but for what ends a text
            std::string text(in.bytes(in.below(40)));
            for (char &c : text)
                if (c == '"' || c == '\n' || (c == '\\' && choice < 230)) c = '_';
            return "\"" + text + "\"";
        }
        return "\"" + std::string(in.below(5000), static_cast<char>('a' + in.below(26))) + "\"";
    }

    static std::string number(fuzz_input &in) {
        constexpr const char *odd[] = {"0",
                                       "1",
                                       "2",
                                       "255",
                                       "256",
                                       "65535",
                                       "65536",
                                       "4294967295",
                                       "1e9",
                                       "1.5",
                                       "0.001",
                                       "86400",
                                       "1.0e300",
                                       "-1",
                                       "-0.0",
                                       "9223372036854775807",
                                       "18446744073709551615",
                                       "18446744073709551616"};
        if (in.chance(128)) return odd[in.below(std::size(odd))];
        return std::to_string(in.chance(128) ? in.byte() : in.word());
    }

    std::string any_value(fuzz_input &in, unsigned depth) const {
        switch (in.below(8)) {
        case 0: return "null";
        case 1: return in.chance(128) ? "true" : "false";
        case 2: return number(in);
        case 3: return depth == 0 ? "{}" : "{" + quoted(in) + ":" + any_value(in, depth - 1) + "}";
        case 4: return depth == 0 ? "[]" : "[" + any_value(in, depth - 1) + "," + any_value(in, depth - 1) + "]";
        default: return quoted(in);
        }
    }

    std::string word_of(const json &member, fuzz_input &in) const {
        if (!member.contains("words") || in.chance(20)) return quoted(in);
        return member["words"][in.below(member["words"].size())].dump();
    }

    std::string value_of(const json &member, fuzz_input &in) const {
        const std::string type = member["type"];
        if (type == "flag") return in.chance(128) ? "true" : "false";
        if (type == "text") return word_of(member, in);
        if (type == "number" || type == "seconds") return number(in);
        if (type == "object") return in.chance(64) ? "{}" : "{" + quoted(in) + ":" + any_value(in, 2) + "}";
        if (type == "texts") {
            std::string list;
            for (size_t count = in.below(4); count > 0; --count)
                list += (list.empty() ? "" : ",") + word_of(member, in);
            return "[" + list + "]";
        }
        return in.chance(128) ? number(in) : any_value(in, 2);
    }

    json                     requests_;
    std::vector<std::string> words_;
};
