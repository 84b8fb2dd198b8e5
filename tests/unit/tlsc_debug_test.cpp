// The log service. Each test runs in a child process of its own, so that counters, descriptor and byte count are those
// of a process that has just started. write, open and system are recorded on their way to the kernel.

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "capture.h"
#include "tlsc_debug.h"

namespace {

constexpr char log_file[] = "/tmp/tlsc_log";
constexpr char archive[]  = "/tmp/tlsc_log_prev.tar";
constexpr char victim[]   = "/tmp/victim";
constexpr char flag[]     = "/storage/application/wlc/sectun-bootup-dbg.flag";

struct written {
    int         fd;
    std::string text;
};

bool                     recording;
std::atomic<bool>        yielding;           // every write lets other threads go first
std::vector<written>     writes;             // of the log service
std::vector<std::string> calls;              // "write N", "system ...", "open ...", in order
std::deque<ssize_t>      write_results;      // each answers one write instead of the kernel; -2 lets one pass
int                      open_error;         // of the log file; 0 for none
int                      shell_status = -1;  // answers system instead of the shell; -1 lets it run
int                      open_flags;
mode_t                   open_mode;
bool                     clock_is_broken;
bool                     locks_count;  // "take", "give" and the like go into calls as well
std::function<void()>    behind_rm;    // runs after the rotation's last command

}  // namespace

extern "C" {

ssize_t __real_write(int fd, const void *bytes, size_t length);
ssize_t __wrap_write(int fd, const void *bytes, size_t length) {
    if (yielding) std::this_thread::yield();
    if (!recording) return __real_write(fd, bytes, length);

    writes.push_back({fd, std::string(static_cast<const char *>(bytes), length)});
    calls.push_back("write " + std::to_string(fd));
    if (!write_results.empty()) {
        const ssize_t result = write_results.front();
        write_results.pop_front();
        if (result != -2) return result;
    }
    return __real_write(fd, bytes, length);
}

int __real_system(const char *command);
int __wrap_system(const char *command) {
    calls.push_back(std::string("system ") + command);
    const int status = shell_status == -1 ? __real_system(command) : shell_status;
    if (behind_rm && strncmp(command, "rm ", 3) == 0) behind_rm();
    return status;
}

int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = flags & O_CREAT ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);

    if (strcmp(path, log_file) == 0) {
        calls.push_back("open " + std::string(path));
        open_flags = flags;
        open_mode  = mode;
        if (open_error != 0) {
            errno = open_error;
            return -1;
        }
    }
    return __real_open(path, flags, mode);
}

void note_lock(const char *call) {
    if (locks_count) calls.push_back(call);
}

int __real_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes);
int __wrap_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes) {
    note_lock(attributes ? "create with attributes" : "create");
    return __real_pthread_mutex_init(mutex, attributes);
}

int __real_pthread_mutex_lock(pthread_mutex_t *mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex) {
    note_lock("take");
    return __real_pthread_mutex_lock(mutex);
}

int __real_pthread_mutex_unlock(pthread_mutex_t *mutex);
int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex) {
    note_lock("give");
    return __real_pthread_mutex_unlock(mutex);
}

int __real_pthread_mutex_destroy(pthread_mutex_t *mutex);
int __wrap_pthread_mutex_destroy(pthread_mutex_t *mutex) {
    note_lock("destroy");
    return __real_pthread_mutex_destroy(mutex);
}

tm *__real_localtime_r(const time_t *time, tm *result);
tm *__wrap_localtime_r(const time_t *time, tm *result) {
    return clock_is_broken ? nullptr : __real_localtime_r(time, result);
}

}  // extern "C"

namespace {

// Runs the facts in a child process: true when none of them failed there. The facts may lead descriptor 1 elsewhere;
// failure texts that went there are shown all the same.
bool in_fresh_process(const std::function<void()> &facts) {
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        const int shown = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 100);
        facts();
        recording = false;
        fflush(stdout);
        char    piece[4096];
        ssize_t got;
        for (off_t at = 0; ::testing::Test::HasFailure() && (got = pread(STDOUT_FILENO, piece, sizeof(piece), at)) > 0;
             at += got)
            if (write(shown, piece, static_cast<size_t>(got)) != got) break;
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void remove_files() {
    for (const char *path : {log_file, archive, flag, victim}) {
        (void)unlink(path);
        (void)rmdir(path);
    }
}

class tlsc_debug : public ::testing::Test {
protected:
    void SetUp() override { remove_files(); }
    void TearDown() override { remove_files(); }
};

// Gives the child a descriptor of its own under number fd, which ends in memory.
int replace_by_memory(int fd) {
    const int memory = memfd_create("tlsc_debug_test", MFD_CLOEXEC);
    dup2(memory, fd);
    return memory;
}

std::string content_of(const char *path) {
    std::string text;
    FILE       *file = fopen(path, "re");
    if (!file) return "no file";
    char   piece[4096];
    size_t got;
    while ((got = fread(piece, 1, sizeof(piece), file)) > 0) text.append(piece, got);
    fclose(file);
    return text;
}

void put(const char *path, const char *text) {
    FILE *file = fopen(path, "we");
    fputs(text, file);
    fclose(file);
}

std::string content_of_memory(int memory) {
    std::string text(static_cast<size_t>(lseek(memory, 0, SEEK_END)), '\0');
    if (pread(memory, text.data(), text.size(), 0) < 0) return "unreadable";
    return text;
}

bool exists(const char *path) { return access(path, F_OK) == 0; }

std::string output_of(const char *command) {
    FILE       *pipe = popen(command, "r");
    std::string text;
    char        piece[512];
    while (pipe && fgets(piece, sizeof(piece), pipe)) text += piece;
    if (pipe) pclose(pipe);
    return text;
}

// Sends the log to the given place at the given level and starts recording.
void start_log(int32_t level, int32_t dest) {
    tlsc_log_level = level;
    tlsc_log_dest  = dest;
    recording      = true;
    writes.clear();
    calls.clear();
}

// The recorded texts without their leading line end, taken apart.
std::vector<log_line> recorded_lines() {
    std::vector<log_line> lines;
    for (const written &one : writes) {
        log_line line;
        EXPECT_EQ(one.text.front(), '\n') << one.text;
        EXPECT_TRUE(parse_log_line(one.text.substr(1), &line)) << one.text;
        lines.push_back(line);
    }
    return lines;
}

void log_one_of_each() {
    TLSC_ERROR("an error");
    TLSC_WARNING("a warning");
    TLSC_INFO("an information");
    TLSC_DEBUG("a detail");
    TLSC_SSL_DEBUG("a message");
    tlsc_log_piece("a piece");
}

// A line of exactly this many characters, its line end at the front included.
void log_line_of_length(size_t length) {
    tlsc_log(LOG_ERRORS, "f.c", 1, "f", "%s", "");
    const size_t header = writes.back().text.size();
    writes.clear();
    calls.clear();
    tlsc_log(LOG_ERRORS, "f.c", 1, "f", "%s", std::string(length - header, 'x').c_str());
}

}  // namespace

// ---- the form of a line ---------------------------------------------------------------------------------------------

TEST_F(tlsc_debug, line_begins_with_a_line_end_and_carries_counter_time_word_place_and_function) {
    EXPECT_TRUE(in_fresh_process([] {
        replace_by_memory(STDOUT_FILENO);
        start_log(LOG_SSL_DBG, LOG_DEST_CONSOLE);
        const time_t before = time(nullptr);
        log_one_of_each();
        const time_t after = time(nullptr);

        char first[20], last[20];
        tm   local{};
        strftime(first, sizeof(first), "%Y-%m-%d_%H_%M_%S", __real_localtime_r(&before, &local));
        strftime(last, sizeof(last), "%Y-%m-%d_%H_%M_%S", __real_localtime_r(&after, &local));

        const std::vector<std::pair<std::string, std::string>> expected{{"ERROR", "an error"},
                                                                        {"WARNING", "a warning"},
                                                                        {"INFO", "an information"},
                                                                        {"DEBUG", "a detail"},
                                                                        {"SSL_DEBUG", "a message"}};
        const auto                                             lines = recorded_lines();
        ASSERT_EQ(lines.size(), expected.size());
        for (size_t i = 0; i < lines.size(); ++i) {
            EXPECT_EQ(lines[i].counter, i + 1);
            EXPECT_GE(lines[i].time, first);
            EXPECT_LE(lines[i].time, last);
            EXPECT_EQ(lines[i].severity, expected[i].first);
            EXPECT_EQ(lines[i].file, "tlsc_debug_test.c");
            EXPECT_EQ(lines[i].function, "log_one_of_each");
            EXPECT_EQ(lines[i].message, expected[i].second);
            if (i > 0) {
                EXPECT_EQ(lines[i].number, lines[i - 1].number + 1) << "one source line after the other";
            }
        }
    }));
}

TEST_F(tlsc_debug, severity_column_is_five_wide_and_longer_words_are_not_cut) {
    EXPECT_TRUE(in_fresh_process([] {
        replace_by_memory(STDOUT_FILENO);
        start_log(LOG_SSL_DBG, LOG_DEST_CONSOLE);
        for (int32_t level = LOG_ERRORS; level <= LOG_SSL_DBG; ++level)
            tlsc_log(level, "module.c", 17, "function", "text %d", level);
        const char *words[] = {"ERROR", "WARNING", "INFO ", "DEBUG", "SSL_DEBUG"};
        ASSERT_EQ(writes.size(), 5u);
        for (size_t i = 0; i < 5; ++i) {
            const std::string front = "\nTLSC[" + std::to_string(i + 1) + "]: ";
            EXPECT_EQ(writes[i].text.substr(0, front.size()), front);
            EXPECT_EQ(writes[i].text.substr(front.size() + 19),
                      std::string(" ") + words[i] + " [module.c:17] [function] text " + std::to_string(i));
        }
    }));
}

TEST_F(tlsc_debug, line_end_in_the_callers_format_stays) {
    EXPECT_TRUE(in_fresh_process([] {
        replace_by_memory(STDOUT_FILENO);
        start_log(LOG_INFO, LOG_DEST_CONSOLE);
        TLSC_INFO("with an end\n");
        EXPECT_TRUE(writes.at(0).text.ends_with("] with an end\n"));
    }));
}

TEST_F(tlsc_debug, source_names_are_told_from_any_build_path) {
    EXPECT_STREQ(tlsc_base_name("/any/where/src/tlsc_engine.cpp").text, "tlsc_engine.c");
    EXPECT_STREQ(tlsc_base_name("tlsc_wlc.cpp").text, "tlsc_wlc.c");
    EXPECT_STREQ(tlsc_base_name("../src/tlsc_main.cpp").text, "tlsc_main.c");
    EXPECT_STREQ(tlsc_tree_name("/any/where/src/tlsc_main.cpp").text, "../src/tlsc_main.c");
    EXPECT_STREQ(tlsc_tree_name("wlc/tlsc_wlc.cpp").text, "../wlc/tlsc_wlc.c");
    EXPECT_STREQ(tlsc_tree_name("/a.b/c.d/wlc/tlsc_wlc.cpp").text, "../wlc/tlsc_wlc.c");
}

// ---- levels and the counter -----------------------------------------------------------------------------------------

TEST_F(tlsc_debug, each_level_prints_its_own_lines_and_those_below) {
    for (int32_t level = -1; level <= LOG_BUF_PRINT; ++level)
        EXPECT_TRUE(in_fresh_process([level] {
            replace_by_memory(STDOUT_FILENO);
            start_log(level, LOG_DEST_CONSOLE);
            log_one_of_each();
            ASSERT_EQ(writes.size(), static_cast<size_t>(level + 1));
            const char *texts[] = {"an error", "a warning", "an information", "a detail", "a message", "a piece"};
            for (size_t i = 0; i < writes.size(); ++i)
                EXPECT_TRUE(writes[i].text.ends_with(texts[i])) << writes[i].text;
        })) << "level "
            << level;
}

TEST_F(tlsc_debug, default_level_is_info_and_default_destination_the_file) {
    EXPECT_EQ(tlsc_log_level, 2);
    EXPECT_EQ(tlsc_log_dest, 0);
    EXPECT_EQ(tlsc_ssl_debug, 1);
    for (const auto *one : {&tlscWlcMsgEventDbg, &tlscWlcMsgErrDbg, &tlscWlcIpcEventDbg, &tlscWlcIpcErrDbg})
        EXPECT_EQ(*one, 0);
}

TEST_F(tlsc_debug, counter_advances_for_printed_lines_only) {
    EXPECT_TRUE(in_fresh_process([] {
        replace_by_memory(STDOUT_FILENO);
        start_log(LOG_ERRORS, LOG_DEST_CONSOLE);
        TLSC_ERROR("first");
        TLSC_WARNING("suppressed");
        TLSC_DEBUG("suppressed");
        tlsc_log(LOG_INFO, "f.c", 1, "f", "suppressed");
        tlsc_log_piece("suppressed");
        TLSC_ERROR("second");
        const auto lines = recorded_lines();
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_EQ(lines[0].counter, 1u);
        EXPECT_EQ(lines[1].counter, 2u);
    }));
}

TEST_F(tlsc_debug, counter_counts_dump_pieces_too) {
    EXPECT_TRUE(in_fresh_process([] {
        replace_by_memory(STDOUT_FILENO);
        start_log(LOG_BUF_PRINT, LOG_DEST_CONSOLE);
        const uint8_t bytes[17] = {};
        tlsc_log_hex(bytes, sizeof(bytes));  // 17 bytes and one line break
        writes.clear();
        TLSC_ERROR("after the dump");
        EXPECT_EQ(recorded_lines().at(0).counter, 19u);
    }));
}

TEST_F(tlsc_debug, counter_counts_lines_of_a_silenced_log) {
    EXPECT_TRUE(in_fresh_process([] {
        replace_by_memory(STDOUT_FILENO);
        start_log(LOG_INFO, 3);
        TLSC_ERROR("unheard");
        TLSC_ERROR("unheard");
        tlsc_log_dest = LOG_DEST_CONSOLE;
        TLSC_ERROR("heard");
        EXPECT_EQ(recorded_lines().at(0).counter, 3u);
    }));
}

TEST_F(tlsc_debug, arguments_of_a_suppressed_line_are_not_evaluated) {
    EXPECT_TRUE(in_fresh_process([] {
        replace_by_memory(STDOUT_FILENO);
        start_log(LOG_WARNINGS, LOG_DEST_CONSOLE);
        int evaluated = 0;
        TLSC_INFO("%d", ++evaluated);
        EXPECT_EQ(evaluated, 0);
        TLSC_WARNING("%d", ++evaluated);
        EXPECT_EQ(evaluated, 1);
    }));
}

namespace {

const char *text_that_logs() {
    TLSC_ERROR("inner");
    return "outer";
}

}  // namespace

TEST_F(tlsc_debug, argument_that_logs_itself_does_not_block) {
    EXPECT_TRUE(in_fresh_process([] {
        replace_by_memory(STDOUT_FILENO);
        alarm(10);
        tlsc_log_lock_create();
        start_log(LOG_INFO, LOG_DEST_CONSOLE);
        TLSC_ERROR("%s", text_that_logs());
        const auto lines = recorded_lines();
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_EQ(lines[0].message, "inner");
        EXPECT_EQ(lines[1].message, "outer");
    }));
}

// ---- length ---------------------------------------------------------------------------------------------------------

TEST_F(tlsc_debug, line_of_1023_characters_is_whole_and_a_longer_one_cut_to_1023) {
    EXPECT_TRUE(in_fresh_process([] {
        replace_by_memory(STDOUT_FILENO);
        start_log(LOG_INFO, LOG_DEST_CONSOLE);
        for (size_t length : {1022u, 1023u, 1024u, 1025u, 5000u}) {
            log_line_of_length(length);
            ASSERT_EQ(writes.size(), 1u);
            EXPECT_EQ(writes[0].text.size(), std::min<size_t>(length, 1023)) << length;
            EXPECT_EQ(writes[0].text.back(), 'x');
        }
    }));
}

TEST_F(tlsc_debug, header_that_fills_the_line_by_itself_is_cut_as_well) {
    EXPECT_TRUE(in_fresh_process([] {
        replace_by_memory(STDOUT_FILENO);
        start_log(LOG_INFO, LOG_DEST_CONSOLE);
        const std::string endless(2000, 'f');
        tlsc_log(LOG_ERRORS, "f.c", 1, endless.c_str(), "%s", "unseen");
        EXPECT_EQ(writes.at(0).text.size(), 1023u);
        EXPECT_EQ(writes.at(0).text.back(), 'f');
        tlsc_log(LOG_ERRORS, "f.c", 1, "f", "seen");
        EXPECT_TRUE(writes.at(1).text.ends_with("[f] seen")) << "nothing is left over";
    }));
}

// ---- destinations ---------------------------------------------------------------------------------------------------

TEST_F(tlsc_debug, lines_for_the_file_go_to_descriptor_0_before_the_file_is_opened) {
    EXPECT_TRUE(in_fresh_process([] {
        const int memory = replace_by_memory(STDIN_FILENO);
        start_log(LOG_INFO, LOG_DEST_FILE);
        TLSC_ERROR("early");
        EXPECT_EQ(calls, (std::vector<std::string>{"write 0"}));
        EXPECT_TRUE(content_of_memory(memory).ends_with("] early"));
        EXPECT_FALSE(exists(log_file));
    }));
}

TEST_F(tlsc_debug, console_lines_go_to_descriptor_1_only) {
    EXPECT_TRUE(in_fresh_process([] {
        replace_by_memory(STDOUT_FILENO);
        tlsc_log_rotate();
        start_log(LOG_INFO, LOG_DEST_CONSOLE);
        TLSC_ERROR("shown");
        EXPECT_EQ(calls, (std::vector<std::string>{"write 1"}));
        EXPECT_EQ(content_of(log_file), "");
    }));
}

TEST_F(tlsc_debug, both_destinations_get_the_same_line_and_the_console_first) {
    EXPECT_TRUE(in_fresh_process([] {
        replace_by_memory(STDOUT_FILENO);
        tlsc_log_rotate();
        start_log(LOG_INFO, LOG_DEST_BOTH);
        TLSC_ERROR("shared");
        ASSERT_EQ(writes.size(), 2u);
        EXPECT_EQ(writes[0].fd, 1);
        EXPECT_GT(writes[1].fd, 1);
        EXPECT_EQ(writes[0].text, writes[1].text);
        EXPECT_EQ(content_of(log_file), writes[0].text);
    }));
}

TEST_F(tlsc_debug, destination_above_2_or_below_0_silences_the_log) {
    EXPECT_TRUE(in_fresh_process([] {
        replace_by_memory(STDOUT_FILENO);
        tlsc_log_rotate();
        for (int32_t dest : {3, 4, 100, -1}) {
            start_log(LOG_BUF_PRINT, dest);
            log_one_of_each();
            EXPECT_TRUE(writes.empty()) << dest;
        }
        EXPECT_EQ(content_of(log_file), "");
    }));
}

TEST_F(tlsc_debug, change_of_level_or_destination_takes_effect_with_the_next_line) {
    EXPECT_TRUE(in_fresh_process([] {
        replace_by_memory(STDOUT_FILENO);
        tlsc_log_rotate();
        start_log(LOG_ERRORS, LOG_DEST_FILE);
        TLSC_WARNING("suppressed");
        tlsc_log_level = LOG_WARNINGS;
        TLSC_WARNING("to the file");
        tlsc_log_dest = LOG_DEST_CONSOLE;
        TLSC_WARNING("to the console");
        ASSERT_EQ(writes.size(), 2u);
        EXPECT_TRUE(content_of(log_file).ends_with("to the file"));
        EXPECT_EQ(writes[1].fd, 1);
    }));
}

// ---- hex dumps ------------------------------------------------------------------------------------------------------

TEST_F(tlsc_debug, dump_breaks_the_line_before_every_16th_byte_after_the_first) {
    EXPECT_TRUE(in_fresh_process([] {
        const int memory = replace_by_memory(STDOUT_FILENO);
        start_log(LOG_BUF_PRINT, LOG_DEST_CONSOLE);
        uint8_t bytes[33];
        for (size_t i = 0; i < sizeof(bytes); ++i) bytes[i] = static_cast<uint8_t>(i * 8);
        tlsc_log_hex(bytes, sizeof(bytes));
        EXPECT_EQ(content_of_memory(memory), " 00 08 10 18 20 28 30 38 40 48 50 58 60 68 70 78"
                                             "\n    80 88 90 98 a0 a8 b0 b8 c0 c8 d0 d8 e0 e8 f0 f8"
                                             "\n    00");
        EXPECT_EQ(writes.size(), 35u) << "every piece on its own";
        EXPECT_EQ(writes[16].text, "\n   ");
    }));
}

TEST_F(tlsc_debug, dump_of_16_bytes_is_one_line_and_of_17_two) {
    EXPECT_TRUE(in_fresh_process([] {
        replace_by_memory(STDOUT_FILENO);
        start_log(LOG_BUF_PRINT, LOG_DEST_CONSOLE);
        const uint8_t bytes[17] = {};
        tlsc_log_hex(bytes, 16);
        EXPECT_EQ(writes.size(), 16u);
        writes.clear();
        tlsc_log_hex(bytes, 17);
        EXPECT_EQ(writes.size(), 18u);
        writes.clear();
        tlsc_log_hex(nullptr, 0);
        EXPECT_TRUE(writes.empty());
    }));
}

TEST_F(tlsc_debug, dump_prints_at_level_5_and_not_at_4) {
    EXPECT_TRUE(in_fresh_process([] {
        replace_by_memory(STDOUT_FILENO);
        start_log(LOG_SSL_DBG, LOG_DEST_CONSOLE);
        tlsc_log_hex("abc", 3);
        tlsc_log_piece("x");
        EXPECT_TRUE(writes.empty());
    }));
}

TEST_F(tlsc_debug, piece_is_printed_as_it_is) {
    EXPECT_TRUE(in_fresh_process([] {
        replace_by_memory(STDOUT_FILENO);
        start_log(LOG_BUF_PRINT, LOG_DEST_CONSOLE);
        tlsc_log_piece("%s%n 100%");
        EXPECT_EQ(writes.at(0).text, "%s%n 100%");
    }));
}

// ---- texts from outside ---------------------------------------------------------------------------------------------

TEST_F(tlsc_debug, control_characters_of_an_argument_are_shown_and_the_formats_line_ends_stay) {
    EXPECT_TRUE(in_fresh_process([] {
        replace_by_memory(STDOUT_FILENO);
        start_log(LOG_INFO, LOG_DEST_CONSOLE);
        TLSC_ERROR("cookie: %s\n", "a\r\x1b[2J\t\x7f\x01 \xc3\xa4");
        EXPECT_TRUE(writes.at(0).text.ends_with("] cookie: a\\x0d\\x1b[2J\\x09\\x7f\\x01 \xc3\xa4\n"))
            << writes.at(0).text;
        TLSC_ERROR("%s", std::string(2000, '\x1b').c_str());
        EXPECT_LE(writes.at(1).text.size(), 1023u);
        EXPECT_EQ(writes.at(1).text.find('\x1b'), std::string::npos);
    }));
}

TEST_F(tlsc_debug, text_to_be_shown_keeps_no_line_end_and_is_cut_at_whole_characters) {
    char shown[16];
    tlsc_log_show("a\nb\rc", shown, sizeof(shown));
    EXPECT_STREQ(shown, "a\\x0ab\\x0dc");
    tlsc_log_show("0123456789abcdef", shown, sizeof(shown));
    EXPECT_STREQ(shown, "0123456789abcde");
    tlsc_log_show("0123456789ab\n", shown, sizeof(shown));
    EXPECT_STREQ(shown, "0123456789ab");
    tlsc_log_show("0123456789a\n", shown, sizeof(shown));
    EXPECT_STREQ(shown, "0123456789a\\x0a");
    char one[1] = {'x'};
    tlsc_log_show("text", one, sizeof(one));
    EXPECT_STREQ(one, "");
}

// ---- a console that nobody reads ------------------------------------------------------------------------------------

namespace {

// Descriptor 1 of this process becomes the writing end of something that nobody reads; returns the other end.
int unread_pipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0 || dup2(ends[1], STDOUT_FILENO) < 0) return -1;
    close(ends[1]);
    return ends[0];
}

int unread_terminal() {
    const int   terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    const char *name = terminal >= 0 && grantpt(terminal) == 0 && unlockpt(terminal) == 0 ? ptsname(terminal) : nullptr;
    const int   end  = name ? __real_open(name, O_RDWR | O_NOCTTY | O_CLOEXEC) : -1;
    if (end < 0 || dup2(end, STDOUT_FILENO) < 0) return -1;
    close(end);
    return terminal;
}

int64_t elapsed_ms(const std::function<void()> &work) {
    timespec began{}, ended{};
    clock_gettime(CLOCK_MONOTONIC, &began);
    work();
    clock_gettime(CLOCK_MONOTONIC, &ended);
    return (ended.tv_sec - began.tv_sec) * 1000 + (ended.tv_nsec - began.tv_nsec) / 1000000;
}

// Everything that waits in the descriptor.
std::string drain(int fd) {
    std::string text;
    char        piece[4096];
    fcntl(fd, F_SETFL, O_NONBLOCK);
    for (ssize_t got; (got = read(fd, piece, sizeof(piece))) > 0;) text.append(piece, static_cast<size_t>(got));
    return text;
}

}  // namespace

TEST_F(tlsc_debug, console_that_nobody_reads_holds_the_log_up_for_a_second_in_all) {
    for (int (*unread)() : {unread_pipe, unread_terminal})
        EXPECT_TRUE(in_fresh_process([unread] {
            const int reader = unread();
            ASSERT_GE(reader, 0);
            tlsc_log_own_console();
            tlsc_log_level = LOG_INFO;
            tlsc_log_dest  = LOG_DEST_CONSOLE;

            const std::string text(900, 'x');
            const int64_t     unread_ms = elapsed_ms([&] {
                for (int i = 0; i < 300; ++i) TLSC_ERROR("%s", text.c_str());
            });
            EXPECT_GE(unread_ms, 900) << "a slow one is waited for";
            EXPECT_LE(unread_ms, 2000);

            const int64_t impatient_ms = elapsed_ms([&] {
                for (int i = 0; i < 300; ++i) TLSC_ERROR("%s", text.c_str());
            });
            EXPECT_LE(impatient_ms, 500) << "not again";

            EXPECT_GT(drain(reader).size(), 2000u);
            for (int i = 0; i < 30; ++i) {
                TLSC_ERROR("read again");
                EXPECT_TRUE(drain(reader).find("read again") != std::string::npos);
            }
            const int64_t unread_again_ms = elapsed_ms([&] {
                for (int i = 0; i < 300; ++i) TLSC_ERROR("%s", text.c_str());
            });
            EXPECT_GE(unread_again_ms, 900) << "the patience has come back";
        }));
}

TEST_F(tlsc_debug, console_that_nobody_reads_does_not_stop_the_file_the_plain_path_nor_the_end) {
    int           status = 0;
    const int64_t took   = elapsed_ms([&status] {
        fflush(stdout);
        const pid_t child = fork();
        if (child == 0) {
            if (unread_pipe() < 0) _exit(1);
            tlsc_log_own_console();
            tlsc_log_rotate();
            tlsc_log_dest = LOG_DEST_BOTH;
            const std::string text(900, 'x');
            for (int i = 0; i < 200; ++i) TLSC_ERROR("%d %s", i, text.c_str());
            tlscWlcSetBootupDbgFlags(1);
            for (int i = 0; i < 200; ++i) WLC_MSG_EVENT("%s", text.c_str());
            printf("Shutting down TLS Client...\n");
            exit(content_of(log_file).find("199 xxx") == std::string::npos ? 2 : 0);
        }
        EXPECT_EQ(waitpid(child, &status, 0), child);
    });
    EXPECT_EQ(status, 0);
    EXPECT_LE(took, 3000);
}

TEST_F(tlsc_debug, description_of_a_console_that_others_share_is_left_alone) {
    EXPECT_TRUE(in_fresh_process([] {
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        ASSERT_GE(dup2(ends[1], STDOUT_FILENO), 0);
        tlsc_log_own_console();
        EXPECT_EQ(fcntl(ends[1], F_GETFL) & O_NONBLOCK, 0);
        EXPECT_NE(fcntl(STDOUT_FILENO, F_GETFL) & O_NONBLOCK, 0);
    }));
}

// ---- rotation -------------------------------------------------------------------------------------------------------

TEST_F(tlsc_debug, rotation_without_a_file_only_opens_one) {
    EXPECT_TRUE(in_fresh_process([] {
        recording = true;
        tlsc_log_rotate();
        EXPECT_EQ(calls, (std::vector<std::string>{"open /tmp/tlsc_log"}));
        struct stat status {};
        ASSERT_EQ(stat(log_file, &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0600u);
        EXPECT_EQ(status.st_size, 0);
        EXPECT_FALSE(exists(archive));
        EXPECT_EQ(open_flags & (O_ACCMODE | O_CREAT | O_APPEND | O_TRUNC | O_EXCL), O_WRONLY | O_CREAT);
        EXPECT_EQ(open_mode, 0600u);
    }));
}

TEST_F(tlsc_debug, rotation_moves_packs_and_removes_the_old_file) {
    EXPECT_TRUE(in_fresh_process([] {
        FILE *old = fopen(log_file, "we");
        ASSERT_NE(old, nullptr);
        fputs("of an earlier run", old);
        fclose(old);

        const std::string before = tlsc_log_timestamp();
        tlsc_log_rotate();
        ASSERT_EQ(calls.size(), 4u);
        const std::string front = "system mv /tmp/tlsc_log /tmp/";
        ASSERT_TRUE(calls[0].starts_with(front)) << calls[0];
        const std::string name = calls[0].substr(front.size());
        EXPECT_EQ(name.size(), strlen("tlsc_log_2024-01-31_23_59_07"));
        EXPECT_GE(name, "tlsc_log_" + before);
        EXPECT_LE(name, std::string("tlsc_log_") + tlsc_log_timestamp());
        EXPECT_EQ(calls[1], "system tar -cf /tmp/tlsc_log_prev.tar  /tmp/" + name + " 2> /dev/null");
        EXPECT_EQ(calls[2], "system rm /tmp/" + name);
        EXPECT_EQ(calls[3], "open /tmp/tlsc_log");

        EXPECT_EQ(content_of(log_file), "");
        EXPECT_FALSE(exists(("/tmp/" + name).c_str()));
        EXPECT_EQ(output_of("tar -tf /tmp/tlsc_log_prev.tar"), "tmp/" + name + "\n");
        EXPECT_EQ(output_of("tar -xOf /tmp/tlsc_log_prev.tar"), "of an earlier run");
    }));
}

TEST_F(tlsc_debug, second_rotation_replaces_the_archive) {
    EXPECT_TRUE(in_fresh_process([] {
        tlsc_log_rotate();
        start_log(LOG_INFO, LOG_DEST_FILE);
        TLSC_ERROR("first generation");
        tlsc_log_rotate();
        EXPECT_TRUE(output_of("tar -xOf /tmp/tlsc_log_prev.tar").ends_with("first generation"));
        TLSC_ERROR("second generation");
        tlsc_log_rotate();
        EXPECT_TRUE(output_of("tar -xOf /tmp/tlsc_log_prev.tar").ends_with("second generation"));
        const std::string members = output_of("tar -tf /tmp/tlsc_log_prev.tar");
        EXPECT_EQ(std::count(members.begin(), members.end(), '\n'), 1) << members;
    }));
}

TEST_F(tlsc_debug, rotation_closes_the_old_descriptor) {
    EXPECT_TRUE(in_fresh_process([] {
        shell_status = 0;
        tlsc_log_rotate();
        const int next = dup(0);
        close(next);
        for (int i = 0; i < 20; ++i) tlsc_log_rotate();
        const int after = dup(0);
        EXPECT_EQ(after, next);
        close(after);
    }));
}

TEST_F(tlsc_debug, log_file_is_not_inherited_by_children) {
    EXPECT_TRUE(in_fresh_process([] {
        const int fd = dup(0);
        close(fd);
        tlsc_log_rotate();
        EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    }));
}

TEST_F(tlsc_debug, rotation_whose_commands_fail_goes_on_with_the_old_file_from_its_start) {
    EXPECT_TRUE(in_fresh_process([] {
        FILE *old = fopen(log_file, "we");
        ASSERT_NE(old, nullptr);
        fputs(std::string(300, 'o').c_str(), old);
        fclose(old);
        shell_status = 256;
        tlsc_log_rotate();
        EXPECT_EQ(calls.size(), 4u) << "all three are run";
        start_log(LOG_INFO, LOG_DEST_FILE);
        TLSC_ERROR("new");
        const std::string text = content_of(log_file);
        EXPECT_EQ(text.size(), 300u) << "neither cut nor appended to";
        EXPECT_TRUE(text.starts_with("\nTLSC[1]"));
        EXPECT_EQ(text.back(), 'o');
    }));
}

TEST_F(tlsc_debug, file_of_exactly_4999999_bytes_is_not_rotated) {
    EXPECT_TRUE(in_fresh_process([] {
        tlsc_log_rotate();
        start_log(LOG_INFO, LOG_DEST_FILE);
        shell_status  = 0;
        write_results = {4999999};
        TLSC_ERROR("fills the file");
        TLSC_ERROR("the one over it");
        EXPECT_EQ(std::count_if(calls.begin(), calls.end(),
                                [](const std::string &call) { return call.starts_with("system"); }),
                  0);
        TLSC_ERROR("rotates, since the line before went over it");
        EXPECT_EQ(std::count_if(calls.begin(), calls.end(),
                                [](const std::string &call) { return call.starts_with("system"); }),
                  3);
    }));
}

TEST_F(tlsc_debug, file_of_5000000_bytes_is_rotated_before_the_next_line) {
    EXPECT_TRUE(in_fresh_process([] {
        tlsc_log_rotate();
        start_log(LOG_INFO, LOG_DEST_FILE);
        write_results = {5000000};
        TLSC_ERROR("fills the file");
        calls.clear();
        TLSC_ERROR("first of the new file");
        ASSERT_EQ(calls.size(), 5u);
        EXPECT_TRUE(calls[0].starts_with("system mv "));
        EXPECT_TRUE(calls[4].starts_with("write "));
        const std::string text = content_of(log_file);
        EXPECT_TRUE(text.starts_with("\nTLSC[2]: "));
        EXPECT_TRUE(text.ends_with("first of the new file"));
        TLSC_ERROR("second of the new file");
        EXPECT_EQ(calls.size(), 6u) << "the count began again";
    }));
}

TEST_F(tlsc_debug, failed_write_takes_one_off_the_count) {
    EXPECT_TRUE(in_fresh_process([] {
        tlsc_log_rotate();
        start_log(LOG_INFO, LOG_DEST_FILE);
        shell_status  = 0;
        write_results = {5000000 - 100, 100, -1};
        TLSC_ERROR("below");
        TLSC_ERROR("5000000");
        calls.clear();
        TLSC_ERROR("rotates; its write fails");
        EXPECT_EQ(calls.size(), 5u);

        write_results = {5000001, -1, -2};
        TLSC_ERROR("5000000 again, since the failure left -1");
        calls.clear();
        TLSC_ERROR("rotates; its write fails as well");
        EXPECT_EQ(calls.size(), 5u);
        calls.clear();
        write_results = {5000000, -2};
        TLSC_ERROR("4999999");
        TLSC_ERROR("does not rotate");
        EXPECT_EQ(calls.size(), 2u);
    }));
}

TEST_F(tlsc_debug, console_lines_do_not_count_for_the_rotation) {
    EXPECT_TRUE(in_fresh_process([] {
        replace_by_memory(STDOUT_FILENO);
        tlsc_log_rotate();
        start_log(LOG_INFO, LOG_DEST_CONSOLE);
        write_results = {5000000};
        TLSC_ERROR("much");
        tlsc_log_dest = LOG_DEST_FILE;
        calls.clear();
        TLSC_ERROR("little");
        EXPECT_EQ(calls.size(), 1u);
    }));
}

TEST_F(tlsc_debug, bytes_that_went_to_descriptor_0_count_for_the_rotation) {
    EXPECT_TRUE(in_fresh_process([] {
        replace_by_memory(STDIN_FILENO);
        start_log(LOG_INFO, LOG_DEST_FILE);
        write_results = {5000000};
        TLSC_ERROR("much, before any file");
        calls.clear();
        TLSC_ERROR("opens the file");
        EXPECT_EQ(calls.size(), 2u);
        EXPECT_EQ(calls[0], "open /tmp/tlsc_log");
        EXPECT_TRUE(content_of(log_file).ends_with("opens the file"));
    }));
}

TEST_F(tlsc_debug, rotation_by_call_leaves_the_count_alone) {
    EXPECT_TRUE(in_fresh_process([] {
        replace_by_memory(STDIN_FILENO);
        start_log(LOG_INFO, LOG_DEST_FILE);
        shell_status  = 0;
        write_results = {5000000};
        TLSC_ERROR("much");
        tlsc_log_rotate();
        calls.clear();
        TLSC_ERROR("rotates once more");
        EXPECT_EQ(std::count_if(calls.begin(), calls.end(),
                                [](const std::string &call) { return call.starts_with("system"); }),
                  3);
    }));
}

TEST_F(tlsc_debug, with_both_destinations_the_rotation_happens_between_the_writes) {
    EXPECT_TRUE(in_fresh_process([] {
        replace_by_memory(STDOUT_FILENO);
        tlsc_log_rotate();
        start_log(LOG_INFO, LOG_DEST_BOTH);
        shell_status  = 0;
        write_results = {-2, 5000000};
        TLSC_ERROR("much");
        calls.clear();
        TLSC_ERROR("next");
        ASSERT_EQ(calls.size(), 6u);
        EXPECT_EQ(calls[0], "write 1");
        EXPECT_TRUE(calls[1].starts_with("system mv"));
        EXPECT_TRUE(calls[2].starts_with("system tar"));
        EXPECT_TRUE(calls[3].starts_with("system rm"));
        EXPECT_TRUE(calls[4].starts_with("open"));
        EXPECT_TRUE(calls[5].starts_with("write "));
    }));
}

TEST_F(tlsc_debug, file_that_cannot_be_opened_is_told_on_standard_output_and_lines_go_to_descriptor_0) {
    EXPECT_TRUE(in_fresh_process([] {
        const int output = replace_by_memory(STDOUT_FILENO);
        const int input  = replace_by_memory(STDIN_FILENO);
        open_error       = EACCES;
        tlsc_log_rotate();
        fflush(stdout);
        EXPECT_EQ(content_of_memory(output), "\nFailed to open log file for TLS-Client");
        start_log(LOG_INFO, LOG_DEST_FILE);
        TLSC_ERROR("still written");
        EXPECT_EQ(calls, (std::vector<std::string>{"write 0"}));
        EXPECT_TRUE(content_of_memory(input).ends_with("still written"));
    }));
}

TEST_F(tlsc_debug, what_another_user_plants_behind_the_archiving_is_not_written_to) {
    const std::pair<const char *, std::function<void()>> plants[] = {
        {"a pipe without a reader", [] { ASSERT_EQ(mkfifo(log_file, 0666), 0); }},
        {"a pipe with one",
         [] {
             ASSERT_EQ(mkfifo(log_file, 0666), 0);
             ASSERT_GE(open(log_file, O_RDONLY | O_NONBLOCK | O_CLOEXEC), 0);
         }},
        {"a file of their own",
         [] {
             close(__real_open(log_file, O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
             ASSERT_EQ(chown(log_file, 1000, 1000), 0);
         }},
        {"another name of a file of ours",
         [] {
             close(__real_open(victim, O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
             ASSERT_EQ(link(victim, log_file), 0);
         }},
        {"a link", [] { ASSERT_EQ(symlink(victim, log_file), 0); }},
        {"a directory", [] { ASSERT_EQ(mkdir(log_file, 0777), 0); }},
        {"a device", [] { ASSERT_EQ(mknod(log_file, S_IFCHR | 0666, makedev(1, 3)), 0); }},
    };
    for (const auto &[what, plant] : plants) {
        remove_files();
        EXPECT_TRUE(in_fresh_process([&] {
            const int input  = replace_by_memory(STDIN_FILENO);
            const int output = replace_by_memory(STDOUT_FILENO);
            const int next   = dup(0);
            close(next);
            fclose(fopen(log_file, "we"));
            behind_rm = plant;
            tlsc_log_rotate();
            fflush(stdout);
            EXPECT_EQ(content_of_memory(output), "\nFailed to open log file for TLS-Client");
            start_log(LOG_INFO, LOG_DEST_FILE);
            TLSC_ERROR("to nobody");
            EXPECT_TRUE(content_of_memory(input).ends_with("to nobody"));
            EXPECT_EQ(writes.at(0).fd, 0);
            EXPECT_EQ(content_of(victim), exists(victim) ? "" : "no file");
        })) << what;
    }
}

TEST_F(tlsc_debug, what_another_user_left_at_the_logs_name_is_moved_away_and_never_packed) {
    EXPECT_TRUE(in_fresh_process([] {
        close(__real_open(log_file, O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
        ASSERT_EQ(chown(log_file, 1000, 1000), 0);
        ASSERT_EQ(truncate(log_file, 1 << 20), 0);
        tlsc_log_rotate();
        ASSERT_EQ(calls.size(), 3u);
        EXPECT_TRUE(calls[0].starts_with("system mv ")) << calls[0];
        EXPECT_TRUE(calls[1].starts_with("system rm ")) << calls[1];
        EXPECT_FALSE(exists(archive));
        struct stat status {};
        ASSERT_EQ(stat(log_file, &status), 0);
        EXPECT_EQ(status.st_uid, 0u);
        EXPECT_EQ(status.st_size, 0);
    }));
}

TEST_F(tlsc_debug, archive_that_is_not_ours_is_replaced_and_not_written_through) {
    const std::pair<const char *, std::function<void()>> plants[] = {
        {"a link", [] { ASSERT_EQ(symlink(victim, archive), 0); }},
        {"another name", [] { ASSERT_EQ(link(victim, archive), 0); }},
        {"a pipe", [] { ASSERT_EQ(mkfifo(archive, 0666), 0); }},
        {"an empty directory", [] { ASSERT_EQ(mkdir(archive, 0777), 0); }},
        {"a file of their own",
         [] {
             close(__real_open(archive, O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
             ASSERT_EQ(chown(archive, 1000, 1000), 0);
         }},
    };
    for (const auto &[what, plant] : plants) {
        remove_files();
        EXPECT_TRUE(in_fresh_process([&] {
            put(victim, "precious");
            put(log_file, "old log");
            plant();
            tlsc_log_rotate();
            EXPECT_EQ(content_of(victim), "precious");
            EXPECT_EQ(output_of("tar -xOf /tmp/tlsc_log_prev.tar"), "old log");
            struct stat status {};
            ASSERT_EQ(lstat(archive, &status), 0);
            EXPECT_TRUE(S_ISREG(status.st_mode));
            EXPECT_EQ(status.st_uid, 0u);
            EXPECT_EQ(status.st_mode & 0077, 0u);
        })) << what;
    }
}

TEST_F(tlsc_debug, link_planted_where_the_log_is_moved_to_leads_it_nowhere) {
    EXPECT_TRUE(in_fresh_process([] {
        clock_is_broken = true;  // the time is part of the name
        ASSERT_EQ(mkdir("/tmp/planted", 0755), 0);
        ASSERT_EQ(symlink("/tmp/planted", "/tmp/tlsc_log_"), 0);
        put(log_file, "old log");
        tlsc_log_rotate();
        EXPECT_EQ(rmdir("/tmp/planted"), 0) << "nothing was moved into it";
        EXPECT_EQ(output_of("tar -xOf /tmp/tlsc_log_prev.tar"), "old log");
        EXPECT_FALSE(exists("/tmp/tlsc_log_"));
    }));
}

TEST_F(tlsc_debug, planted_link_is_not_followed) {
    EXPECT_TRUE(in_fresh_process([] {
        const int output = replace_by_memory(STDOUT_FILENO);
        ASSERT_EQ(symlink("/tmp/planted_target", log_file), 0);
        tlsc_log_rotate();
        fflush(stdout);
        EXPECT_FALSE(exists("/tmp/planted_target"));
        EXPECT_EQ(content_of_memory(output), "\nFailed to open log file for TLS-Client");
    }));
}

// ---- time -----------------------------------------------------------------------------------------------------------

TEST_F(tlsc_debug, timestamp_is_the_local_time) {
    EXPECT_TRUE(in_fresh_process([] {
        for (const char *zone : {"UTC0", "AAA-5:30", "BBB+11"}) {
            setenv("TZ", zone, 1);
            tzset();
            char   expected[2][20];
            time_t now = time(nullptr);
            tm     local{};
            strftime(expected[0], sizeof(expected[0]), "%Y-%m-%d_%H_%M_%S", __real_localtime_r(&now, &local));
            const std::string got = tlsc_log_timestamp();
            now                   = time(nullptr);
            strftime(expected[1], sizeof(expected[1]), "%Y-%m-%d_%H_%M_%S", __real_localtime_r(&now, &local));
            EXPECT_TRUE(got == expected[0] || got == expected[1]) << got << " in " << zone;
        }
    }));
}

TEST_F(tlsc_debug, timestamp_stays_when_the_conversion_fails) {
    EXPECT_TRUE(in_fresh_process([] {
        clock_is_broken = true;
        EXPECT_STREQ(tlsc_log_timestamp(), "") << "nothing was converted yet";
        clock_is_broken          = false;
        const std::string before = tlsc_log_timestamp();
        clock_is_broken          = true;
        EXPECT_EQ(tlsc_log_timestamp(), before);
    }));
}

// ---- lock -----------------------------------------------------------------------------------------------------------

TEST_F(tlsc_debug, lines_of_many_threads_never_interleave_and_each_has_its_own_number) {
    EXPECT_TRUE(in_fresh_process([] {
        tlsc_log_lock_create();
        tlsc_log_rotate();
        tlsc_log_level                   = LOG_INFO;
        tlsc_log_dest                    = LOG_DEST_FILE;
        yielding                         = true;
        constexpr int            threads = 8, lines = 300;
        std::vector<std::thread> crowd;
        for (int t = 0; t < threads; ++t)
            crowd.emplace_back([t] {
                const std::string text(100 + static_cast<size_t>(t) * 50, static_cast<char>('a' + t));
                for (int i = 0; i < lines; ++i) tlsc_log(LOG_ERRORS, "f.c", i, "f", "%s", text.c_str());
            });
        for (std::thread &one : crowd) one.join();

        std::set<unsigned> counters;
        size_t             from = 1;
        const std::string  text = content_of(log_file) + "\n";
        while (from < text.size()) {
            const size_t to = text.find('\n', from);
            log_line     line;
            ASSERT_TRUE(parse_log_line(text.substr(from, to - from), &line)) << text.substr(from, to - from);
            counters.insert(line.counter);
            const char letter = line.message.empty() ? '?' : line.message[0];
            EXPECT_EQ(line.message, std::string(100 + static_cast<size_t>(letter - 'a') * 50, letter));
            from = to + 1;
        }
        EXPECT_EQ(counters.size(), static_cast<size_t>(threads * lines));
        EXPECT_EQ(*counters.rbegin(), static_cast<unsigned>(threads * lines));
    }));
}

TEST_F(tlsc_debug, lock_is_taken_for_each_line_and_for_each_piece_of_a_dump_on_its_own) {
    EXPECT_TRUE(in_fresh_process([] {
        using strings = std::vector<std::string>;
        replace_by_memory(STDOUT_FILENO);
        locks_count = true;
        tlsc_log_lock_create();
        EXPECT_EQ(calls, strings{"create"});
        start_log(LOG_BUF_PRINT, LOG_DEST_CONSOLE);
        TLSC_ERROR("a line");
        EXPECT_EQ(calls, (strings{"take", "write 1", "give"}));
        calls.clear();
        tlsc_log_hex("ab", 2);
        EXPECT_EQ(calls, (strings{"take", "write 1", "give", "take", "write 1", "give"}));
        calls.clear();
        tlsc_log_piece("a piece");
        EXPECT_EQ(calls, (strings{"take", "write 1", "give"}));
        calls.clear();
        tlsc_ssl_msg_cb(1, 0x0303, 22, "", 1, nullptr, nullptr);  // the line, a line start, one byte, a line end
        EXPECT_EQ(std::count(calls.begin(), calls.end(), "take"), 4);
        EXPECT_EQ(std::count(calls.begin(), calls.end(), "give"), 4);
        calls.clear();
        tlscWlcSetBootupDbgFlags(1);
        WLC_MSG_EVENT("past the service");
        EXPECT_EQ(calls, strings{});
        tlsc_log_lock_destroy();
        TLSC_ERROR("without a lock");
        EXPECT_EQ(calls, (strings{"take", "give", "destroy", "write 1"}));
    }));
}

TEST_F(tlsc_debug, lines_are_written_before_the_lock_exists_and_after_it_is_gone) {
    EXPECT_TRUE(in_fresh_process([] {
        replace_by_memory(STDOUT_FILENO);
        alarm(10);
        start_log(LOG_INFO, LOG_DEST_CONSOLE);
        TLSC_ERROR("before");
        tlsc_log_lock_create();
        TLSC_ERROR("between");
        tlsc_log_lock_destroy();
        TLSC_ERROR("after");
        EXPECT_EQ(writes.size(), 3u);
    }));
}

TEST_F(tlsc_debug, behind_the_lock_only_the_thread_that_destroyed_it_writes) {
    EXPECT_TRUE(in_fresh_process([] {
        replace_by_memory(STDOUT_FILENO);
        alarm(10);
        start_log(LOG_BUF_PRINT, LOG_DEST_CONSOLE);
        tlsc_log_lock_create();
        tlsc_log_lock_destroy();
        std::thread([] {
            TLSC_ERROR("of a thread that was not halted");
            tlsc_log_piece("and a piece");
        }).join();
        TLSC_ERROR("last");
        const auto lines = recorded_lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].message, "last");
        EXPECT_EQ(lines[0].counter, 1u);
    }));
}

// ---- controller line path -------------------------------------------------------------------------------------------

namespace {

void log_controller_lines() {
    WLC_MSG_EVENT("%s() - event %d", __func__, 1);
    WLC_MSG_ERROR("%s() - error %d", __func__, 2);
    WLC_IPC_EVENT("%s() - event %d", __func__, 3);
    WLC_IPC_ERROR("%s() - error %d", __func__, 4);
}

}  // namespace

TEST_F(tlsc_debug, controller_lines_go_through_the_service_while_their_flag_is_0) {
    EXPECT_TRUE(in_fresh_process([] {
        replace_by_memory(STDOUT_FILENO);
        start_log(LOG_DEBUG, LOG_DEST_CONSOLE);
        log_controller_lines();
        const auto lines = recorded_lines();
        ASSERT_EQ(lines.size(), 4u);
        const char *words[] = {"DEBUG", "ERROR", "DEBUG", "ERROR"};
        for (size_t i = 0; i < 4; ++i) {
            EXPECT_EQ(lines[i].severity, words[i]);
            EXPECT_EQ(lines[i].file, "tlsc_debug_test.c");
            EXPECT_EQ(lines[i].function, "log_controller_lines");
        }
        EXPECT_EQ(lines[3].message, "log_controller_lines() - error 4");
    }));
}

TEST_F(tlsc_debug, controller_lines_go_to_standard_output_while_their_flag_is_set) {
    EXPECT_TRUE(in_fresh_process([] {
        log_capture log(LOG_ERRORS);  // the level does not matter
        tlsc_log_dest = 3;            // neither does the destination
        recording     = true;
        tlscWlcSetBootupDbgFlags(1);
        log_controller_lines();
        EXPECT_TRUE(writes.empty()) << "not through the service";
        const auto lines = log.lines();
        ASSERT_EQ(lines.size(), 4u);
        const char *kinds[] = {"EVENT", "ERROR", "EVENT", "ERROR"};
        for (size_t i = 0; i < 4; ++i) {
            log_line line;
            ASSERT_TRUE(parse_log_line(lines[i], &line)) << lines[i];
            EXPECT_TRUE(line.plain);
            EXPECT_EQ(line.severity, kinds[i]);
            EXPECT_EQ(line.file, "../unit/tlsc_debug_test.c");
            EXPECT_EQ(line.message,
                      std::string("log_controller_lines() - ") + (i % 2 ? "error " : "event ") + std::to_string(i + 1));
        }
        EXPECT_TRUE(log.text().starts_with("\nTLSC-WLC: "));
    }));
}

TEST_F(tlsc_debug, each_controller_flag_redirects_its_own_class) {
    std::atomic<int32_t> *const flags[] = {&tlscWlcMsgEventDbg, &tlscWlcMsgErrDbg, &tlscWlcIpcEventDbg,
                                           &tlscWlcIpcErrDbg};
    for (size_t chosen = 0; chosen < 4; ++chosen)
        EXPECT_TRUE(in_fresh_process([&] {
            log_capture log(LOG_DEBUG);
            *flags[chosen] = 1;
            log_controller_lines();
            const auto lines = log.entries();
            ASSERT_EQ(lines.size(), 4u);
            for (const log_line &line : lines)
                EXPECT_EQ(line.plain, line.message.ends_with(std::to_string(chosen + 1))) << line.message;
        })) << chosen;
}

TEST_F(tlsc_debug, controller_path_takes_no_lock_and_counts_no_line) {
    EXPECT_TRUE(in_fresh_process([] {
        log_capture log(LOG_DEBUG);
        TLSC_ERROR("first");
        tlscWlcSetBootupDbgFlags(1);
        log_controller_lines();
        TLSC_ERROR("second");
        std::vector<unsigned> counters;
        for (const log_line &line : log.entries())
            if (!line.plain) counters.push_back(line.counter);
        EXPECT_EQ(counters, (std::vector<unsigned>{1, 2}));
    }));
}

TEST_F(tlsc_debug, controller_path_is_not_flushed) {
    EXPECT_TRUE(in_fresh_process([] {
        const int memory = replace_by_memory(STDOUT_FILENO);
        setvbuf(stdout, nullptr, _IOFBF, 4096);
        tlscWlcSetBootupDbgFlags(1);
        log_controller_lines();
        EXPECT_EQ(content_of_memory(memory), "");
    }));
}

TEST_F(tlsc_debug, boot_up_flags_take_the_low_8_bits) {
    EXPECT_TRUE(in_fresh_process([] {
        const std::vector<std::pair<int, int32_t>> table{{1, 1}, {0, 0}, {255, 255}, {256, 0}, {257, 1}, {-1, 255}};
        for (const auto &[value, expected] : table) {
            tlscWlcSetBootupDbgFlags(value);
            for (const auto *one : {&tlscWlcMsgEventDbg, &tlscWlcMsgErrDbg, &tlscWlcIpcEventDbg, &tlscWlcIpcErrDbg})
                EXPECT_EQ(*one, expected) << value;
        }
    }));
}

TEST_F(tlsc_debug, boot_up_flag_file_counts_by_its_existence) {
    EXPECT_FALSE(tlscWlcBootupDbgFlagPresent());
    FILE *file = fopen(flag, "we");
    ASSERT_NE(file, nullptr) << "needs /storage/application/wlc";
    EXPECT_TRUE(tlscWlcBootupDbgFlagPresent()) << "empty";
    fputs("0", file);
    fclose(file);
    EXPECT_TRUE(tlscWlcBootupDbgFlagPresent()) << "whatever it holds";
    unlink(flag);
    EXPECT_FALSE(tlscWlcBootupDbgFlagPresent());
}

TEST(tlsc_log_arguments, null_pointers_are_refused_with_a_line_each) {
    log_capture log(LOG_ERRORS);
    const char *volatile nothing = nullptr;
    tlsc_log_hex(nothing, 3);
    tlsc_log_hex(nothing, 0);
    tlsc_log_piece(nothing);
    tlsc_log(LOG_ERRORS, nothing, 1, "f", "%s", "");
    tlsc_log(LOG_ERRORS, "f.c", 1, nothing, "%s", "");
    tlsc_wlc_header(true, nothing, 1);
    tlsc_wlc_line(true, LOG_ERRORS, nothing, 1, "f", "%s", "");
    tlsc_wlc_line(false, LOG_ERRORS, "../wlc/f.c", 1, nothing, "%s", "");
    const std::vector<std::string> expected{"Null ptr received for bytes",
                                            "Null ptr received for text",
                                            "Null ptr received for file/function/format",
                                            "Null ptr received for file/function/format",
                                            "Null ptr received for path",
                                            "Null ptr received for path/function/format",
                                            "Null ptr received for path/function/format"};
    EXPECT_EQ(log.messages(), expected);
    EXPECT_TRUE(log.has("ERROR", "tlsc_debug.c", "tlsc_log_hex", "Null ptr received for bytes"));
}
