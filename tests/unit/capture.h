// Captures what the daemon's code prints: the log lines (destination console) and what goes through printf.
//
//   log_capture log;                                  // level "debug"; descriptor 1 leads into memory from here on
//   tlsc_set_config_defaults(nullptr);
//   EXPECT_TRUE(log.has("ERROR", "tlsc_config.c", "tlsc_set_config_defaults", "Conf pointer is NULL"));
//
// The destructor compares every captured line with the table of log_lines.h, and gives descriptor 1, the level and the
// destination back. When the test has failed by then, it shows what was captured, and with it the failure texts that
// the test framework wrote meanwhile.
#pragma once

#include <set>
#include <string>
#include <vector>

#include <cstdio>
#include <cstdlib>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "log_lines.h"
#include "tlsc_debug.h"

// One line of the log, taken apart. A line of the controller interface's plain path ("TLSC-WLC: ...") has the
// severity "EVENT" or "ERROR", the path instead of the file name, and neither counter nor function.
struct log_line {
    bool        plain   = false;
    unsigned    counter = 0;
    std::string time;
    std::string severity;
    std::string file;
    unsigned    number = 0;
    std::string function;
    std::string message;  // with the line ends that it brings along
};

// Walks over a text; after the first thing that does not fit, nothing fits any more.
struct text_reader {
    const std::string &text;
    size_t             at = 0;
    bool               ok = true;

    void expect(const std::string &literal) {
        ok = ok && text.compare(at, literal.size(), literal) == 0;
        if (ok) at += literal.size();
    }
    // The characters up to the next end character, at least one of them; the end itself stays.
    std::string up_to(char end) {
        const size_t to = ok ? text.find(end, at) : std::string::npos;
        ok              = to != std::string::npos && to > at;
        if (!ok) return "";
        const std::string found = text.substr(at, to - at);
        at                      = to;
        return found;
    }
    unsigned number_up_to(char end) {
        const std::string digits = up_to(end);
        ok = ok && digits.size() < 10 && digits.find_first_not_of("0123456789") == std::string::npos;
        return ok ? static_cast<unsigned>(std::stoul(digits)) : 0;
    }
    // "2024-01-31_23_59_07", whichever time it is.
    std::string time() {
        const std::string found = text.substr(ok ? at : text.size(), 19);
        std::string       shape = found;
        for (char &c : shape)
            if (c >= '0' && c <= '9') c = '0';
        ok = ok && shape == "0000-00-00_00_00_00";
        if (ok) at += found.size();
        return found;
    }
    std::string rest() const { return ok ? text.substr(at) : ""; }
};

// Takes "TLSC[n]: time SEVER [file:line] [function] message", or "TLSC-WLC: time KIND [path:line]message", apart.
// False when the text is neither, the padding of the severity column included.
inline bool parse_log_line(const std::string &text, log_line *out) {
    *out = log_line{};
    text_reader in{text};

    out->plain = text.compare(0, 10, "TLSC-WLC: ") == 0;
    if (out->plain) {
        in.expect("TLSC-WLC: ");
    } else {
        in.expect("TLSC[");
        out->counter = in.number_up_to(']');
        in.expect("]: ");
    }
    out->time = in.time();
    in.expect(" ");
    out->severity = in.up_to(' ');
    in.expect(!out->plain && out->severity == "INFO" ? "  [" : " [");
    out->file = in.up_to(':');
    in.expect(":");
    out->number = in.number_up_to(']');
    in.expect("]");
    if (!out->plain) {
        in.expect(" [");
        out->function = in.up_to(']');
        in.expect("] ");
    }
    out->message = in.rest();

    static const std::set<std::string> words{"ERROR", "WARNING", "INFO", "DEBUG", "SSL_DEBUG"};
    static const std::set<std::string> plain_words{"EVENT", "ERROR"};
    return in.ok && (out->plain ? plain_words : words).contains(out->severity);
}

// True when text is the whole line "TLSC[n]: time SEVER [file:line] [function] message", with any counter, any time
// and any source line. severity is the word without padding.
inline bool is_log_line(const std::string &text, const std::string &severity, const std::string &file,
                        const std::string &function, const std::string &message) {
    log_line line;
    return parse_log_line(text, &line) && !line.plain && line.severity == severity && line.file == file &&
           line.function == function && line.message == message;
}

struct log_capture {
    explicit log_capture(int32_t level = LOG_DEBUG)
        : old_level_(tlsc_log_level.load()), old_dest_(tlsc_log_dest.load()) {
        fflush(stdout);
        memory_ = memfd_create("log_capture", MFD_CLOEXEC);
        stdout_ = dup(STDOUT_FILENO);
        if (memory_ < 0 || stdout_ < 0 || dup2(memory_, STDOUT_FILENO) < 0) abort();
        tlsc_log_level = level;
        tlsc_log_dest  = LOG_DEST_CONSOLE;
    }
    log_capture(const log_capture &)            = delete;
    log_capture &operator=(const log_capture &) = delete;

    ~log_capture() {
        fflush(stdout);
        if (!::testing::Test::HasFailure()) expect_known_lines();  // otherwise failure texts stand between the lines
        tlsc_log_level = old_level_;
        tlsc_log_dest  = old_dest_;
        if (dup2(stdout_, STDOUT_FILENO) < 0) abort();
        if (::testing::Test::HasFailure()) {
            const std::string shown = read_memory(0);
            printf("--- captured output:%s\n--- end of captured output\n", shown.c_str());
            fflush(stdout);
        }
        close(stdout_);
        close(memory_);
    }

    // Everything printed since the start, or since the last clear().
    std::string text() const {
        fflush(stdout);
        return read_memory(start_);
    }

    // Forgets what was printed so far.
    void clear() {
        fflush(stdout);
        start_ = size();
    }

    // The text cut at every line end, without the empty pieces.
    std::vector<std::string> lines() const {
        std::vector<std::string> pieces;
        const std::string        all  = text();
        size_t                   from = 0;
        while (from <= all.size()) {
            size_t to = all.find('\n', from);
            if (to == std::string::npos) to = all.size();
            if (to > from) pieces.push_back(all.substr(from, to - from));
            from = to + 1;
        }
        return pieces;
    }

    // The log lines, each with the whole of its message, line ends included; text without a header (a hex dump, a
    // plain printf) counts to the line before it.
    std::vector<log_line> entries() const { return entries_of(text()); }
    // The same from the start on, whatever was cleared.
    std::vector<log_line> all_entries() const {
        fflush(stdout);
        return entries_of(read_memory(0));
    }

    // The messages of the log lines, in order.
    std::vector<std::string> messages() const {
        std::vector<std::string> found;
        for (const log_line &line : entries()) found.push_back(line.message);
        return found;
    }

    // How often exactly this line was logged by the service; severity is the word without padding.
    size_t count(const std::string &severity, const std::string &file, const std::string &function,
                 const std::string &message) const {
        size_t n = 0;
        for (const log_line &line : entries())
            n += !line.plain && line.severity == severity && line.file == file && line.function == function &&
                 line.message == message;
        return n;
    }
    bool has(const std::string &severity, const std::string &file, const std::string &function,
             const std::string &message) const {
        return count(severity, file, function, message) > 0;
    }

    // How often exactly this message went over the controller interface's plain path; kind is "EVENT" or "ERROR".
    size_t count_plain(const std::string &kind, const std::string &path, const std::string &message) const {
        size_t n = 0;
        for (const log_line &line : entries())
            n += line.plain && line.severity == kind && line.file == path && line.message == message;
        return n;
    }

    // True when the text stands anywhere in what was printed.
    bool contains(const std::string &part) const { return text().find(part) != std::string::npos; }

private:
    void expect_known_lines() const {
        for (const log_line &line : all_entries()) {
            if (line.plain) continue;
            const char *fault = fault_of_log_line(line.file, line.severity, line.function, line.message);
            if (fault)
                ADD_FAILURE() << fault << ": " << line.severity << " [" << line.file << "] [" << line.function << "] "
                              << line.message;
        }
    }

    off_t size() const {
        struct stat st {};
        if (fstat(memory_, &st) != 0) abort();
        return st.st_size;
    }
    std::string read_memory(off_t from) const {
        std::string all(static_cast<size_t>(size() - from), '\0');
        const auto  got = pread(memory_, all.data(), all.size(), from);
        if (got != static_cast<ssize_t>(all.size())) abort();
        return all;
    }
    static std::vector<log_line> entries_of(const std::string &all) {
        std::vector<log_line> found;
        size_t                from = next_header(all, 0);
        while (from != std::string::npos) {
            const size_t to = next_header(all, from + 1);
            log_line     line;
            if (parse_log_line(all.substr(from + 1, to == std::string::npos ? to : to - from - 1), &line))
                found.push_back(line);
            from = to;
        }
        return found;
    }
    // The position of the line end before the next header.
    static size_t next_header(const std::string &all, size_t from) {
        for (from = all.find("\nTLSC", from); from != std::string::npos; from = all.find("\nTLSC", from + 1))
            if (all.compare(from + 5, 1, "[") == 0 || all.compare(from + 5, 6, "-WLC: ") == 0) return from;
        return std::string::npos;
    }

    int     memory_ = -1;
    int     stdout_ = -1;
    off_t   start_  = 0;
    int32_t old_level_;
    int32_t old_dest_;
};
