// The log service: levels, destinations, rotation, hex dumps; the controller interface's plain line path; and the
// TLS protocol trace. Every module logs through the macros below. The level test comes before anything else, so a
// suppressed line costs one load and one comparison.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "tlsc.h"

// A source file's name as the lines print it, worked out at compile time from any build path.
struct tlsc_source_name {
    char text[64];
};

// "src/tlsc_main.cpp" becomes "tlsc_main.c".
// By contract: field tools know the modules by these ".c" names.
consteval tlsc_source_name tlsc_base_name(const char *path) {
    tlsc_source_name name{};
    const char      *base = path;
    for (const char *p = path; *p != '\0'; ++p)
        if (*p == '/') base = p + 1;
    size_t n = 0;
    for (const char *p = base; *p != '\0' && *p != '.'; ++p) name.text[n++] = *p;
    name.text[n++] = '.';
    name.text[n]   = 'c';
    return name;
}

// "/any/where/src/tlsc_main.cpp" becomes "../src/tlsc_main.c".
consteval tlsc_source_name tlsc_tree_name(const char *path) {
    const char *folder = path;
    const char *base   = path;
    for (const char *p = path; *p != '\0'; ++p)
        if (*p == '/') {
            folder = base;
            base   = p + 1;
        }
    tlsc_source_name name{{'.', '.', '/'}};
    size_t           n = 3;
    for (const char *p = folder; *p != '\0' && !(p >= base && *p == '.'); ++p) name.text[n++] = *p;
    name.text[n++] = '.';
    name.text[n]   = 'c';
    return name;
}

// One copy of each name in the program, however many lines print it.
template <tlsc_source_name name>
inline constexpr const char *tlsc_source_text = name.text;

// The function that a line names. In an operation that is the operation itself. A helper names the operation whose work
// it does, once, in its first line:
//     constexpr tlsc_work_of tlsc_log_function{"tlsc_start_epoll"};
constexpr const char *tlsc_log_function(const char *function) { return function; }

struct tlsc_work_of {
    const char *operation;

    constexpr const char *operator()(const char *) const { return operation; }
};

extern "C" {

enum tlsc_log_level_value : int32_t {
    LOG_ERRORS    = 0,
    LOG_WARNINGS  = 1,
    LOG_INFO      = 2,  // the default
    LOG_DEBUG     = 3,
    LOG_SSL_DBG   = 4,
    LOG_BUF_PRINT = 5,
};

enum tlsc_log_dest_value : int32_t {
    LOG_DEST_FILE    = 0,
    LOG_DEST_CONSOLE = 1,
    LOG_DEST_BOTH    = 2,  // anything above silences the log
};

// Written by the command handler on the tunnel thread and by the configuration loaders; read by every thread.
extern std::atomic<int32_t> tlsc_log_level;  // tlsc_log_level_value
extern std::atomic<int32_t> tlsc_log_dest;   // tlsc_log_dest_value

// Non-zero lets the TLS trace callbacks run; no operation changes it.
extern std::atomic<int32_t> tlsc_ssl_debug;

// The four controller debug flags: while one is 1, the controller-interface lines of its class go to standard output.
extern std::atomic<int32_t> tlscWlcMsgEventDbg;  // DEBUG lines of message handling
extern std::atomic<int32_t> tlscWlcMsgErrDbg;    // ERROR lines of message handling
extern std::atomic<int32_t> tlscWlcIpcEventDbg;  // DEBUG lines of FIFO set-up, dispatch, start-up, configuration file
extern std::atomic<int32_t> tlscWlcIpcErrDbg;    // ERROR lines of the same

// Writes one line: header, message, to the current destination. Any thread; never fails visibly.
// level: of the line, LOG_ERRORS to LOG_SSL_DBG; file, line, function: of the call site.
void tlsc_log(int32_t level, const char *file, int line, const char *function, const char *format, ...)
    __attribute__((format(printf, 5, 6)));

// Writes " %02x" for each byte, with a line end and three blanks before every 16th after the first. Level 5 only.
// bytes may be null when length is 0. Any thread.
void tlsc_log_hex(const void *bytes, size_t length);

// Writes one piece of text without a header, at level 5 only. Any thread.
void tlsc_log_piece(const char *text);

// True when a line of this level would be printed.
inline bool tlsc_log_wanted(int32_t level) { return tlsc_log_level.load(std::memory_order_relaxed) > level - 1; }

#define TLSC_LOG_AT(level, ...)                                                                                \
    do {                                                                                                       \
        if (tlsc_log_wanted(level)) {                                                                          \
            tlsc_log(level, tlsc_source_text<tlsc_base_name(__FILE__)>, __LINE__, tlsc_log_function(__func__), \
                     __VA_ARGS__);                                                                             \
        }                                                                                                      \
    } while (0)

#define TLSC_ERROR(...)     TLSC_LOG_AT(LOG_ERRORS, __VA_ARGS__)
#define TLSC_WARNING(...)   TLSC_LOG_AT(LOG_WARNINGS, __VA_ARGS__)
#define TLSC_INFO(...)      TLSC_LOG_AT(LOG_INFO, __VA_ARGS__)
#define TLSC_DEBUG(...)     TLSC_LOG_AT(LOG_DEBUG, __VA_ARGS__)
#define TLSC_SSL_DEBUG(...) TLSC_LOG_AT(LOG_SSL_DBG, __VA_ARGS__)

// The plain path of the controller interface: header and message with printf, no lock, level test or line counter.
// kind: "EVENT" or "ERROR" lines are chosen by is_error; path: as tlsc_tree_name gives it.
void tlsc_wlc_header(bool is_error, const char *path, int line);

// The message behind tlsc_wlc_header, to standard output.
void tlsc_wlc_message(const char *format, ...) __attribute__((format(printf, 1, 2)));

// One line of the controller interface: with plain over the plain path, otherwise over the service.
// level: LOG_ERRORS or LOG_DEBUG; path: as tlsc_tree_name gives it; the rest as for tlsc_log.
void tlsc_wlc_line(bool plain, int32_t level, const char *path, int line, const char *function, const char *format, ...)
    __attribute__((format(printf, 6, 7)));

#define TLSC_WLC_LINE(flag, level, ...)                                                               \
    do {                                                                                              \
        const bool tlsc_is_plain = (flag).load(std::memory_order_relaxed) != 0;                       \
        if (tlsc_is_plain || tlsc_log_wanted(level))                                                  \
            tlsc_wlc_line(tlsc_is_plain, level, tlsc_source_text<tlsc_tree_name(__FILE__)>, __LINE__, \
                          tlsc_log_function(__func__), __VA_ARGS__);                                  \
    } while (0)

#define WLC_MSG_EVENT(...) TLSC_WLC_LINE(tlscWlcMsgEventDbg, LOG_DEBUG, __VA_ARGS__)
#define WLC_MSG_ERROR(...) TLSC_WLC_LINE(tlscWlcMsgErrDbg, LOG_ERRORS, __VA_ARGS__)
#define WLC_IPC_EVENT(...) TLSC_WLC_LINE(tlscWlcIpcEventDbg, LOG_DEBUG, __VA_ARGS__)
#define WLC_IPC_ERROR(...) TLSC_WLC_LINE(tlscWlcIpcErrDbg, LOG_ERRORS, __VA_ARGS__)

// Copies text into out, at most size - 1 characters, with every control character shown as "\x0a": for texts from
// outside that may hold a line end. Other control characters the service shows by itself. Any thread.
void tlsc_log_show(const char *text, char *out, size_t size);

// Sees to it that no write to the standard descriptors waits: terminals and pipes are opened anew for this process,
// without blocking. Lines then wait for a console a second in all, and are dropped as long as it takes none at once.
// Main thread, before any other runs.
void tlsc_log_own_console();

// Creates and destroys the log lock. Main thread, first and last. Before the creation lines are written unlocked, since
// nothing else runs then; behind the destruction too, but only this thread's: those of other threads are dropped.
void tlsc_log_lock_create();
void tlsc_log_lock_destroy();

// The current local time as "%Y-%m-%d_%H_%M_%S" in a buffer of the calling thread; the buffer is left as it was when
// the conversion fails.
const char *tlsc_log_timestamp();

// Archives the log file, if there is one, and opens a fresh one. Called by the service under the log lock, and once
// by tlsc_init on the main thread without it.
void tlsc_log_rotate();

// True when the boot-up debug flag file exists, whatever it holds. Main thread.
bool tlscWlcBootupDbgFlagPresent();

// Stores the low 8 bits of value in all four controller debug flags. Main thread.
void tlscWlcSetBootupDbgFlags(int value);

// OpenSSL message callback: one line per TLS message, and its bytes at level 5. Runs inside OpenSSL calls, on the
// thread that drives the session; see SSL_CTX_set_msg_callback(3).
void tlsc_ssl_msg_cb(int write_p, int version, int content_type, const void *buf, size_t len, ssl_st *ssl, void *arg);

// OpenSSL info callback: handshake states, alerts and failures; see SSL_CTX_set_info_callback(3).
void tlsc_ssl_info_cb(const ssl_st *ssl, int where, int ret);

}  // extern "C"
