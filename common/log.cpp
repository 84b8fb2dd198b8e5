#include "log.h"

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace common {

namespace {

constexpr const char *line_pattern = "%Y-%m-%dT%H:%M:%S.%e%z %l %v";

// What is needed to open the log once more.
struct log_settings {
    std::string name;
    std::string path;  // empty: standard error
};
log_settings settings;

std::shared_ptr<spdlog::logger> make_logger(const std::string &name, const std::string &path) {
    if (path.empty()) return std::make_shared<spdlog::logger>(name, std::make_shared<spdlog::sinks::stderr_sink_mt>());
    FILE *probe = fopen(path.c_str(), "ae");  // spdlog would make directories, and would hide the reason
    if (!probe) throw std::runtime_error(failure_text("write the log", path));
    fclose(probe);
    return std::make_shared<spdlog::logger>(name, std::make_shared<spdlog::sinks::basic_file_sink_mt>(path));
}

void install(std::shared_ptr<spdlog::logger> logger, spdlog::level::level_enum level) {
    logger->set_pattern(line_pattern);
    logger->set_level(level);
    logger->flush_on(spdlog::level::trace);  // lines are rare, and somebody may be waiting for one
    spdlog::set_default_logger(std::move(logger));
}

// Length of the UTF-8 character at the front: 0 if there is none.
size_t character_length(std::string_view text) {
    auto   first  = static_cast<unsigned char>(text[0]);
    size_t length = first < 0x80 ? 1 : first >= 0xc2 && first < 0xe0 ? 2 : first >= 0xe0 && first < 0xf0 ? 3 : 4;
    if ((first >= 0x80 && first < 0xc2) || first > 0xf4 || text.size() < length) return 0;
    for (size_t i = 1; i < length; i++)
        if ((static_cast<unsigned char>(text[i]) & 0xc0) != 0x80) return 0;
    auto second = length > 1 ? static_cast<unsigned char>(text[1]) : 0;
    if ((first == 0xe0 && second < 0xa0) || (first == 0xf0 && second < 0x90)) return 0;    // longer than needed
    if ((first == 0xed && second >= 0xa0) || (first == 0xf4 && second >= 0x90)) return 0;  // no characters
    return length;
}

// The C0 and C1 controls and the marks that turn the direction of a line.
bool is_harmless(std::string_view character) {
    auto first  = static_cast<unsigned char>(character[0]);
    auto second = character.size() > 1 ? static_cast<unsigned char>(character[1]) : 0;
    if (character.size() == 1) return first >= 0x20 && first != 0x7f;
    if (character.size() == 2) return first != 0xc2 || second >= 0xa0;
    return character.size() != 3 || first != 0xe2 || (second != 0x80 && second != 0x81);
}

void append_escaped(std::string &out, unsigned char byte) {
    static constexpr char digits[] = "0123456789abcdef";
    out += "\\x";
    out += digits[byte >> 4];
    out += digits[byte & 15];
}

}  // namespace

void open_log(const std::string &name, const std::string &destination, const std::string &level) {
    settings = {name, destination == "-" ? "" : destination};
    install(make_logger(settings.name, settings.path), spdlog::level::from_str(level));
}

bool reopen_log() {
    if (settings.path.empty()) return true;
    try {
        install(make_logger(settings.name, settings.path), spdlog::default_logger_raw()->level());
        return true;
    } catch (const std::exception &error) {
        log_failure("log", error.what());
        return false;
    }
}

void log_failure(const char *where, const char *what) noexcept {
    try {
        spdlog::error("{}: {}", where, what);
    } catch (...) {
        // nobody is left to tell
    }
}

std::string printable(std::string_view text, size_t limit) {
    std::string out;
    bool        is_cut = text.size() > limit;
    if (is_cut) text = text.substr(0, limit);
    while (!text.empty()) {
        size_t length = character_length(text);
        if (length > 0 && is_harmless(text.substr(0, length))) {
            out += text.substr(0, length);
        } else {
            if (length == 0) length = 1;
            for (char byte : text.substr(0, length)) append_escaped(out, static_cast<unsigned char>(byte));
        }
        text.remove_prefix(length);
    }
    return is_cut ? out + "..." : out;
}

std::string failure_text(const char *what, const std::string &path) {
    return std::string("cannot ") + what + " " + printable(path) + ": " + strerror(errno);
}

}  // namespace common
