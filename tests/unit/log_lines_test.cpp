// Holds the table of the log lines and the sources together: every call prints a line of the table, in the name of one
// of its operations, and every line of the table has a call. Operations are what the headers declare.

#include "log_lines.h"

#include <cctype>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;

// One call of a log macro.
struct log_call {
    std::string file;  // as the lines print it
    std::string severity;
    std::string operation;  // empty when the helper is told it by its caller
    std::string format;     // as it stands in the source, escapes included
    int         number = 0;
};

constexpr struct {
    const char *macro;
    const char *severity;
} log_macros[] = {
    {"TLSC_ERROR(", "ERROR"},    {"TLSC_WARNING(", "WARNING"},     {"TLSC_INFO(", "INFO"},
    {"TLSC_DEBUG(", "DEBUG"},    {"TLSC_SSL_DEBUG(", "SSL_DEBUG"}, {"WLC_MSG_EVENT(", "DEBUG"},
    {"WLC_MSG_ERROR(", "ERROR"}, {"WLC_IPC_EVENT(", "DEBUG"},      {"WLC_IPC_ERROR(", "ERROR"},
};

std::vector<fs::path> files_with(const std::string &extension) {
    std::vector<fs::path> found;
    for (const char *folder : {"src", "wlc"})
        for (const fs::directory_entry &entry : fs::directory_iterator(fs::path(TLSC_SOURCE_TREE) / folder))
            if (entry.path().extension() == extension) found.push_back(entry.path());
    return found;
}

std::string text_of(const fs::path &path) {
    std::ifstream     in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

bool is_name_char(char c) { return isalnum(static_cast<unsigned char>(c)) || c == '_'; }

// The name before the first "(" of a line that opens a function at the left margin, or nothing.
std::string opened_function(const std::string &line) {
    if (line.empty() || !isalpha(static_cast<unsigned char>(line[0])) || line.back() == ';') return "";
    for (const char *other : {"namespace", "struct", "enum", "constexpr struct", "extern", "class", "static_assert"})
        if (line.starts_with(other)) return "";
    const size_t end   = line.find('(');
    size_t       start = end;
    if (end == std::string::npos) return "";
    while (start > 0 && is_name_char(line[start - 1])) --start;
    return line.substr(start, end - start);
}

// The operation that the first line of a helper names: "" when it is not a literal, "-" when there is none.
std::string named_operation(const std::string &line) {
    const std::string local = "tlsc_work_of tlsc_log_function{";
    const size_t      at    = line.find(local);
    if (at == std::string::npos) return "-";
    const size_t start = at + local.size();
    return line[start] == '"' ? line.substr(start + 1, line.find('"', start + 1) - start - 1) : "";
}

// The literal that follows, or nothing.
std::string literal_at(const std::string &text, size_t at) {
    while (at < text.size() && isspace(static_cast<unsigned char>(text[at]))) ++at;
    if (at >= text.size() || text[at] != '"') return "";
    size_t end = at + 1;
    while (end < text.size() && text[end] != '"') end += text[end] == '\\' ? 2 : 1;
    return text.substr(at + 1, end - at - 1);
}

void find_calls(const fs::path &path, std::vector<log_call> *calls) {
    const std::string text = text_of(path);
    std::string       operation;
    std::string       section_operation = "-";  // of a namespace whose helpers all do the work of one operation
    int               number            = 0;
    for (size_t from = 0; from < text.size();) {
        const size_t      end  = std::min(text.find('\n', from), text.size());
        const std::string line = text.substr(from, end - from);
        ++number;
        if (const std::string opened = opened_function(line); !opened.empty())
            operation = section_operation == "-" ? opened : section_operation;
        if (const std::string named = named_operation(line); named != "-") {
            operation = named;
            if (line[0] != ' ') section_operation = named;
        }
        if (line.starts_with("}  // namespace")) section_operation = "-";
        for (const auto &known : log_macros)
            for (size_t at = line.find(known.macro); at != std::string::npos; at = line.find(known.macro, at + 1)) {
                if (at > 0 && is_name_char(line[at - 1])) continue;
                const std::string format = literal_at(text, from + at + strlen(known.macro));
                if (!format.empty())
                    calls->push_back({path.stem().string() + ".c", known.severity, operation, format, number});
            }
        from = end + 1;
    }
}

std::vector<log_call> all_calls() {
    std::vector<log_call> calls;
    for (const fs::path &path : files_with(".cpp")) find_calls(path, &calls);
    return calls;
}

// The text as a source has it.
std::string escaped(const std::string &text) {
    std::string out;
    for (char c : text) out += c == '\n' ? "\\n" : c == '"' ? "\\\"" : std::string(1, c);
    return out;
}

bool prints(const log_call &call, const known_log_line &line) {
    return call.file == line.file && call.severity == line.severity && call.format == escaped(line.format) &&
           (call.operation.empty() || is_among(call.operation, line.operations));
}

std::vector<std::string> operations_of(const known_log_line &line) {
    std::vector<std::string> found;
    std::stringstream        all(line.operations);
    for (std::string one; std::getline(all, one, '|');) found.push_back(one);
    return found;
}

// The names of the functions that the headers declare.
std::set<std::string> declared_functions() {
    std::set<std::string> names{"main"};
    for (const fs::path &path : files_with(".h")) {
        const std::string text = text_of(path);
        for (size_t at = text.find('('); at != std::string::npos; at = text.find('(', at + 1)) {
            size_t start = at;
            while (start > 0 && is_name_char(text[start - 1])) --start;
            names.insert(text.substr(start, at - start));
        }
    }
    return names;
}

}  // namespace

TEST(log_lines, every_call_prints_a_line_of_the_table_in_the_name_of_its_operation) {
    const std::vector<log_call> calls = all_calls();
    EXPECT_GT(calls.size(), 400U);
    for (const log_call &call : calls) {
        if (call.format == "%s") continue;  // the text is chosen elsewhere; the capture looks at what is printed
        bool found = false;
        for (const known_log_line &line : known_log_lines) found = found || prints(call, line);
        EXPECT_TRUE(found) << call.file << ":" << call.number << " " << call.severity << " [" << call.operation << "] "
                           << call.format;
    }
}

TEST(log_lines, every_operation_of_the_table_has_a_call_that_prints_the_line) {
    const std::vector<log_call> calls = all_calls();
    std::string                 sources;
    for (const fs::path &path : files_with(".cpp")) sources += text_of(path);
    for (const known_log_line &line : known_log_lines)
        for (const std::string &operation : operations_of(line)) {
            bool has_call = false;
            bool found    = false;
            for (const log_call &call : calls) {
                if (call.file != line.file || call.format != escaped(line.format)) continue;
                has_call = true;
                found    = found || call.operation.empty() || call.operation == operation;
            }
            // A text that a table holds is printed with "%s".
            if (!has_call) found = sources.find(escaped(line.format) + "\"") != std::string::npos;
            EXPECT_TRUE(found) << line.file << " " << line.severity << " [" << operation << "] " << line.format;
        }
}

TEST(log_lines, every_operation_of_the_table_is_declared_in_a_header) {
    const std::set<std::string> declared = declared_functions();
    for (const known_log_line &line : known_log_lines)
        for (const std::string &operation : operations_of(line))
            EXPECT_TRUE(declared.contains(operation)) << operation << ": " << line.format;
}

TEST(log_lines, a_line_under_another_name_or_with_other_words_is_told_apart) {
    EXPECT_EQ(fault_of_log_line("tlsc_config.c", "ERROR", "tlsc_set_config_defaults", "Conf pointer is NULL"), nullptr);
    EXPECT_STREQ(fault_of_log_line("tlsc_config.c", "ERROR", "helper", "Conf pointer is NULL"),
                 "no operation that prints this line");
    EXPECT_STREQ(fault_of_log_line("tlsc_config.c", "ERROR", "tlsc_set_config_defaults", "Conf pointer is null"),
                 "no line of the table");
    EXPECT_STREQ(fault_of_log_line("tlsc_config.c", "INFO", "tlsc_set_config_defaults", "Conf pointer is NULL"),
                 "no line of the table");
    EXPECT_EQ(fault_of_log_line("some_test.c", "INFO", "f", "anything"), nullptr);
}
