// Contents: 1 state  2 writing, and a console that nobody reads  3 one line, one dump  4 rotation
//           5 controller line path  6 TLS protocol trace
// A line: TLSC_... macro (level test) -> tlsc_log -> write_text -> console, file (rotated when it has grown)

#include "tlsc_debug.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tlsc_openssl.h"

// ==== 1 State ====================================================================================================

std::atomic<int32_t> tlsc_log_level{LOG_INFO};
std::atomic<int32_t> tlsc_log_dest{LOG_DEST_FILE};
std::atomic<int32_t> tlsc_ssl_debug{1};

std::atomic<int32_t> tlscWlcMsgEventDbg{0};
std::atomic<int32_t> tlscWlcMsgErrDbg{0};
std::atomic<int32_t> tlscWlcIpcEventDbg{0};
std::atomic<int32_t> tlscWlcIpcErrDbg{0};

namespace {

constexpr size_t  line_size          = 1024;     // 1023 characters and the terminator
constexpr int32_t max_file_bytes     = 4999999;  // above this the next line rotates the file
constexpr size_t  timestamp_size     = 20;
constexpr size_t  rotated_name_size  = 50;
constexpr size_t  shell_command_size = 100;
constexpr int32_t console_patience   = 1000;  // milliseconds that lines wait for a console in all
constexpr int32_t patience_per_line  = 50;    // milliseconds that come back with each line taken at once
constexpr char    log_directory[]    = "/tmp";
constexpr char    flag_file[]        = "/storage/application/wlc/sectun-bootup-dbg.flag";

// Everything below is touched under the log lock only. By contract: a descriptor of 0 means that no file is open, and
// lines for the file then go to descriptor 0.
int32_t  log_fd;
int32_t  last_write_result;
int32_t  file_bytes;    // sum of the file writes' results since the last rotation by size
uint32_t line_counter;  // every line and every dump piece that passed the level test
char     line_buffer[line_size];
char     log_path[14];  // "/tmp/tlsc_log", filled just before the file is opened

// What is left of the patience with a console that is not read; it comes back with the lines that are taken at once.
// Without patience lines are dropped instead. The controller's line path uses it without the lock: a line more or less
// waits.
std::atomic<int32_t> patience_left{console_patience};

// Before the lock lives, nothing but the calling thread runs: no locking then. Behind its life only the thread that
// destroyed it still writes: a tunnel thread that could not be halted may run on.
pthread_mutex_t   log_lock;
std::atomic<bool> log_lock_alive{false};
std::atomic<bool> log_lock_gone{false};
thread_local bool destroyed_log_lock;

class log_guard {
public:
    log_guard() : locked_(log_lock_alive.load(std::memory_order_acquire)) {
        if (locked_) pthread_mutex_lock(&log_lock);
    }
    ~log_guard() {
        if (locked_) pthread_mutex_unlock(&log_lock);
    }
    log_guard(const log_guard &)            = delete;
    log_guard &operator=(const log_guard &) = delete;

    bool may_write() const { return !log_lock_gone.load(std::memory_order_relaxed) || destroyed_log_lock; }

private:
    const bool locked_;
};

}  // namespace

void tlsc_log_lock_create() {
    pthread_mutex_init(&log_lock, nullptr);
    log_lock_gone.store(false, std::memory_order_relaxed);
    log_lock_alive.store(true, std::memory_order_release);
}

void tlsc_log_lock_destroy() {
    {
        log_guard guard;  // a line in progress comes to its end
        log_lock_gone.store(true, std::memory_order_relaxed);
    }
    destroyed_log_lock = true;
    log_lock_alive.store(false, std::memory_order_release);
    (void)pthread_mutex_destroy(&log_lock);  // EBUSY when another thread is about to give it back: it writes no more
}

const char *tlsc_log_timestamp() {
    thread_local char buffer[timestamp_size];

    time_t now = time(nullptr);
    tm     local{};
    if (localtime_r(&now, &local)) (void)strftime(buffer, sizeof(buffer), "%Y-%m-%d_%H_%M_%S", &local);
    return buffer;
}

// ==== 2 Writing ==================================================================================================

namespace {

int64_t now_ms() {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

bool takes_something(int fd, int32_t timeout_ms) {
    pollfd console{.fd = fd, .events = POLLOUT, .revents = 0};
    return poll(&console, 1, timeout_ms) == 1;
}

// Waits until the descriptor takes something, as long as patience is left. False when it does not.
bool wait_for_room(int fd) {
    const int32_t patience = patience_left.load(std::memory_order_relaxed);
    if (patience <= 0) return false;

    const int64_t began  = now_ms();
    const bool    room   = takes_something(fd, patience);
    const int64_t waited = now_ms() - began;
    patience_left.store(waited < patience ? patience - 1 - static_cast<int32_t>(waited) : 0, std::memory_order_relaxed);
    return room;
}

void regain_patience() {
    const int32_t patience = patience_left.load(std::memory_order_relaxed) + patience_per_line;
    patience_left.store(patience < console_patience ? patience : console_patience, std::memory_order_relaxed);
}

// Writes the text as far as the descriptor takes it in time. The result is write's of the whole.
int32_t write_patiently(int fd, const char *text, size_t length) {
    size_t done   = 0;
    bool   waited = false;
    while (done < length) {
        const ssize_t written = write(fd, text + done, length - done);
        if (written > 0) {
            done += static_cast<size_t>(written);
        } else if (written == 0 || errno != EAGAIN || (waited = true, !wait_for_room(fd))) {
            return done != 0 ? static_cast<int32_t>(done) : static_cast<int32_t>(written);
        }
    }
    if (!waited) regain_patience();
    return static_cast<int32_t>(done);
}

void write_to_file(const char *text, size_t length) {
    if (file_bytes > max_file_bytes) {
        last_write_result = 0;
        file_bytes        = 0;
        tlsc_log_rotate();
    }
    last_write_result = log_fd == STDIN_FILENO ? write_patiently(log_fd, text, length)
                                               : static_cast<int32_t>(write(log_fd, text, length));
    file_bytes += last_write_result;
}

// A failure has nowhere to be reported.
void write_to_console(const char *text, size_t length) { (void)write_patiently(STDOUT_FILENO, text, length); }

// By contract: a destination above 2 silences the log.
void write_text(const char *text, size_t length) {
    switch (tlsc_log_dest.load(std::memory_order_relaxed)) {
    case LOG_DEST_FILE: write_to_file(text, length); break;
    case LOG_DEST_CONSOLE: write_to_console(text, length); break;
    case LOG_DEST_BOTH:
        write_to_console(text, length);
        write_to_file(text, length);
        break;
    default: break;
    }
}

bool is_control(char c) { return (static_cast<unsigned char>(c) < 0x20) || c == 0x7f; }

// Copies text with its control characters shown as "\x1b"; what does not fit is cut. keeps_line_ends: those stay.
void show_controls(const char *text, bool keeps_line_ends, char *out, size_t size) {
    size_t n = 0;
    for (; *text != '\0' && n + 4 < size; ++text) {
        if (!is_control(*text) || (keeps_line_ends && *text == '\n')) out[n++] = *text;
        else n += static_cast<size_t>(snprintf(out + n, size - n, "\\x%02x", static_cast<unsigned char>(*text)));
    }
    for (; *text != '\0' && n + 1 < size && (!is_control(*text) || (keeps_line_ends && *text == '\n')); ++text)
        out[n++] = *text;
    out[n] = '\0';
}

// The same within the line buffer, behind the header. A line end there is one of our own: texts from outside that may
// hold one are shown by the caller.
void show_controls_of_line(size_t header) {
    const char *c = line_buffer + header;
    while (*c != '\0' && (!is_control(*c) || *c == '\n')) ++c;
    if (*c == '\0') return;

    char shown[line_size];
    show_controls(line_buffer + header, true, shown, sizeof(line_buffer) - header);
    memcpy(line_buffer + header, shown, strlen(shown) + 1);
}

const char *line_word(int32_t level) {
    constexpr const char *words[] = {"ERROR", "WARNING", "INFO", "DEBUG", "SSL_DEBUG"};
    return words[level];
}

}  // namespace

void tlsc_log_show(const char *text, char *out, size_t size) {
    if (!text || !out || size == 0) {
        TLSC_ERROR("Null ptr received for text/out");
        return;
    }

    show_controls(text, false, out, size);
}

namespace {

// Standard descriptors are shared with whoever started the process: they are opened anew before they are changed.
void own_descriptor(int fd) {
    struct stat status {};
    const int   flags = fcntl(fd, F_GETFL);
    if (flags == -1 || fstat(fd, &status) != 0) return;
    if (S_ISSOCK(status.st_mode)) (void)fcntl(fd, F_SETFL, flags | O_NONBLOCK);  // cannot be opened anew
    if (!S_ISFIFO(status.st_mode) && !S_ISCHR(status.st_mode)) return;

    char path[32];
    (void)snprintf(path, sizeof(path), "/proc/self/fd/%d", fd);
    const int own = open(path, (flags & O_ACCMODE) | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (own < 0) return;
    (void)dup2(own, fd);
    close(own);
}

}  // namespace

void tlsc_log_own_console() {
    for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) own_descriptor(fd);
}

// ==== 3 One line, one dump =======================================================================================

namespace {

__attribute__((format(printf, 5, 0))) void log_line(int32_t level, const char *file, int line, const char *function,
                                                    const char *format, va_list arguments) {
    log_guard guard;
    if (!guard.may_write() || !tlsc_log_wanted(level)) return;

    ++line_counter;
    const int header = snprintf(line_buffer, sizeof(line_buffer), "\nTLSC[%u]: %s %-5s [%s:%d] [%s] ", line_counter,
                                tlsc_log_timestamp(), line_word(level), file, line, function);
    if (header < 0) return;
    if (const auto length = static_cast<size_t>(header); length < sizeof(line_buffer)) {
        (void)vsnprintf(line_buffer + length, sizeof(line_buffer) - length, format, arguments);
        show_controls_of_line(length);
    }
    write_text(line_buffer, strlen(line_buffer));
}

}  // namespace

void tlsc_log(int32_t level, const char *file, int line, const char *function, const char *format, ...) {
    if (!file || !function || !format) {
        TLSC_ERROR("Null ptr received for file/function/format");
        return;
    }

    va_list arguments;
    va_start(arguments, format);
    log_line(level, file, line, function, format, arguments);
    va_end(arguments);
}

void tlsc_log_piece(const char *text) {
    if (!text) {
        TLSC_ERROR("Null ptr received for text");
        return;
    }
    if (!tlsc_log_wanted(LOG_BUF_PRINT)) return;

    log_guard guard;
    if (!guard.may_write() || !tlsc_log_wanted(LOG_BUF_PRINT)) return;
    ++line_counter;
    (void)snprintf(line_buffer, sizeof(line_buffer), "%s", text);
    write_text(line_buffer, strlen(line_buffer));
}

void tlsc_log_hex(const void *bytes, size_t length) {
    if (!bytes && length != 0) {
        TLSC_ERROR("Null ptr received for bytes");
        return;
    }
    if (!tlsc_log_wanted(LOG_BUF_PRINT)) return;

    const auto *byte = static_cast<const uint8_t *>(bytes);
    for (size_t i = 0; i < length; ++i) {
        char piece[8];
        if (i != 0 && i % 16 == 0) tlsc_log_piece("\n   ");
        (void)snprintf(piece, sizeof(piece), " %02x", byte[i]);
        tlsc_log_piece(piece);
    }
}

// ==== 4 Rotation =================================================================================================

namespace {

// mv, tar and rm have nobody to report to: the log goes on whatever they say.
void run_shell(const char *command) {
    if (system(command) != 0) return;
}

// The directory is everybody's. A file there is ours when no other user can have made it or given it another name.
bool is_own_file(const struct stat &status) {
    return S_ISREG(status.st_mode) && status.st_uid == geteuid() && status.st_nlink == 1;
}

bool is_own_file_at(const char *path) {
    struct stat status {};
    return lstat(path, &status) == 0 && is_own_file(status);
}

// Takes the name, so that a command that writes there cannot be led elsewhere: what stands there and is not ours goes,
// and an empty file of our own holds the place. Nobody else can remove that one while the directory is sticky.
void take_name(const char *path) {
    if (is_own_file_at(path)) return;
    if (unlink(path) != 0) (void)rmdir(path);
    const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd >= 0) close(fd);
}

// Gives a name back that no command has written to.
void release_name(const char *path) {
    struct stat status {};
    if (lstat(path, &status) == 0 && is_own_file(status) && status.st_size == 0) (void)unlink(path);
}

void archive_log_file() {
    if (log_fd != 0) {
        close(log_fd);
        log_fd = 0;
    }

    char name[rotated_name_size];
    char moved[rotated_name_size + sizeof(log_directory)];
    char archive[sizeof(log_path) + sizeof("_prev.tar")];
    char command[shell_command_size];
    (void)snprintf(name, sizeof(name), "tlsc_log_%s", tlsc_log_timestamp());
    (void)snprintf(moved, sizeof(moved), "%s/%s", log_directory, name);
    (void)snprintf(archive, sizeof(archive), "%s_prev.tar", log_path);

    take_name(moved);
    (void)snprintf(command, sizeof(command), "mv %s %s/%s", log_path, log_directory, name);
    run_shell(command);
    take_name(archive);
    (void)snprintf(command, sizeof(command), "tar -cf %s_prev.tar  %s/%s 2> /dev/null", log_path, log_directory, name);
    if (is_own_file_at(moved)) run_shell(command);  // what another user left may be endless
    (void)snprintf(command, sizeof(command), "rm %s/%s", log_directory, name);
    run_shell(command);
    release_name(archive);
    release_name(moved);
}

// No link is followed and no reader waited for. What stands at the name since the archiving may be another user's: then
// it is not written to. Negative on failure.
int open_log_file() {
    const int fd = open(log_path, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    if (fd < 0) return fd;

    struct stat status {};
    if (fstat(fd, &status) == 0 && is_own_file(status)) return fd;
    close(fd);
    return -1;
}

}  // namespace

void tlsc_log_rotate() {
    (void)snprintf(log_path, sizeof(log_path), "%s", "/tmp/tlsc_log");
    if (access(log_path, F_OK) == 0) archive_log_file();

    log_fd = open_log_file();
    if (log_fd == -1) {
        log_fd = 0;
        printf("\nFailed to open log file for TLS-Client");
    }
}

// ==== 5 Controller line path =====================================================================================

namespace {

// What the console does not take now is lost when the library's buffer is full.
void wait_for_console() {
    if (takes_something(STDOUT_FILENO, 0)) regain_patience();
    else (void)wait_for_room(STDOUT_FILENO);
}

}  // namespace

void tlsc_wlc_header(bool is_error, const char *path, int line) {
    if (!path) {
        TLSC_ERROR("Null ptr received for path");
        return;
    }
    wait_for_console();
    if (is_error) printf("\nTLSC-WLC: %s ERROR [%s:%d]", tlsc_log_timestamp(), path, line);
    else printf("\nTLSC-WLC: %s EVENT [%s:%d]", tlsc_log_timestamp(), path, line);
}

void tlsc_wlc_message(const char *format, ...) {
    if (!format) {
        TLSC_ERROR("Null ptr received for format");
        return;
    }

    va_list arguments;
    va_start(arguments, format);
    (void)vprintf(format, arguments);
    va_end(arguments);
}

void tlsc_wlc_line(bool plain, int32_t level, const char *path, int line, const char *function, const char *format,
                   ...) {
    if (!path || !function || !format) {
        TLSC_ERROR("Null ptr received for path/function/format");
        return;
    }

    va_list arguments;
    va_start(arguments, format);
    if (plain) {
        tlsc_wlc_header(level == LOG_ERRORS, path, line);
        (void)vprintf(format, arguments);
    } else {
        const char *slash = strrchr(path, '/');
        log_line(level, slash ? slash + 1 : path, line, function, format, arguments);
    }
    va_end(arguments);
}

bool tlscWlcBootupDbgFlagPresent() { return access(flag_file, F_OK) != -1; }

void tlscWlcSetBootupDbgFlags(int value) {
    const int32_t flag = value & 0xff;

    tlscWlcMsgEventDbg = flag;
    tlscWlcMsgErrDbg   = flag;
    tlscWlcIpcEventDbg = flag;
    tlscWlcIpcErrDbg   = flag;
}

// ==== 6 TLS protocol trace =======================================================================================

namespace {

struct named_code {
    int         code;
    const char *text;
};

constexpr named_code alert_descriptions[] = {
    {0, " close_notify"},
    {10, " unexpected_message"},
    {20, " bad_record_mac"},
    {21, " decryption_failed"},
    {22, " record_overflow"},
    {30, " decompression_failure"},
    {40, " handshake_failure"},
    {42, " bad_certificate"},
    {43, " unsupported_certificate"},
    {44, " certificate_revoked"},
    {45, " certificate_expired"},
    {46, " certificate_unknown"},
    {47, " illegal_parameter"},
    {48, " unknown_ca"},
    {49, " access_denied"},
    {50, " decode_error"},
    {51, " decrypt_error"},
    {60, " export_restriction"},
    {70, " protocol_version"},
    {71, " insufficient_security"},
    {80, " internal_error"},
    {90, " user_canceled"},
    {100, " no_renegotiation"},
    {110, " unsupported_extension"},
    {111, " certificate_unobtainable"},
    {112, " unrecognized_name"},
    {113, " bad_certificate_status_response"},
    {114, " bad_certificate_hash_value"},
    {115, " unknown_psk_identity"},
};

constexpr named_code handshake_messages[] = {
    {0, ", HelloRequest"},       {1, ", ClientHello"},        {2, ", ServerHello"},         {3, ", HelloVerifyRequest"},
    {11, ", Certificate"},       {12, ", ServerKeyExchange"}, {13, ", CertificateRequest"}, {14, ", ServerHelloDone"},
    {15, ", CertificateVerify"}, {16, ", ClientKeyExchange"}, {20, ", Finished"},
};

template <size_t N>
const char *find_text(const named_code (&table)[N], int code, const char *otherwise) {
    for (const named_code &entry : table)
        if (entry.code == code) return entry.text;
    return otherwise;
}

const char *version_text(int version, size_t length) {
    switch (version) {
    case 0x0002: return "SSL 2.0";
    case 0x0300: return "SSL 3.0 ";
    case 0x0301: return "TLS 1.0 ";
    case 0x0302: return "TLS 1.1 ";
    case 0x0303: return "TLS 1.2 ";
    case 0xFEFF: return "DTLS 1.0";
    case 0x0100: return "DTLS 1.0 (quill-link)";
    default: return length == 5 || length == 13 ? "TLS Header" : "???";
    }
}

bool is_detailed_version(int version) { return (version >= 0x0300 && version <= 0x0303) || version == 0xFEFF; }

struct message_texts {
    const char *type     = "";
    const char *details1 = "";
    const char *details2 = "";
};

message_texts describe_message(int content_type, const uint8_t *bytes, size_t length) {
    message_texts texts;
    switch (content_type) {
    case 20: texts.type = "ChangeCipherSpec"; break;
    case 21:
        texts.type     = "Alert";
        texts.details1 = ", ???";
        if (length != 2) break;
        if (bytes[0] == 1) texts.details1 = ", warning";
        if (bytes[0] == 2) texts.details1 = ", fatal";
        texts.details2 = find_text(alert_descriptions, bytes[1], " ???");
        break;
    case 22:
        texts.type     = "Handshake";
        texts.details1 = length == 0 ? "???" : find_text(handshake_messages, bytes[0], "???");
        break;
    case 24:
        texts.details1 = ", Heartbeat";
        if (length == 0) break;
        if (bytes[0] == 1) texts.details1 = ", HeartbeatRequest";
        if (bytes[0] == 2) texts.details1 = ", HeartbeatResponse";
        break;
    default: break;
    }
    return texts;
}

}  // namespace

void tlsc_ssl_msg_cb(int write_p, int version, int content_type, const void *buf, size_t len, ssl_st *, void *) {
    if (!buf && len != 0) {
        TLSC_ERROR("Null ptr received for buf");
        return;
    }
    if (tlsc_ssl_debug.load(std::memory_order_relaxed) == 0) {
        TLSC_DEBUG("SSL Debug is turned off... Return without debugging SSL-PROTOCOL-MSG !!!");
        return;
    }
    if (!tlsc_log_wanted(LOG_SSL_DBG)) return;

    message_texts texts;
    if (is_detailed_version(version)) texts = describe_message(content_type, static_cast<const uint8_t *>(buf), len);
    TLSC_SSL_DEBUG("%s %s%s [length %04lx]%s%s", write_p == 0 ? "<<<" : ">>>", version_text(version, len), texts.type,
                   static_cast<unsigned long>(len), texts.details1, texts.details2);

    if (len == 0 || !tlsc_log_wanted(LOG_BUF_PRINT)) return;
    tlsc_log_piece("\n   ");
    tlsc_log_hex(buf, len);
    tlsc_log_piece("\n");
}

namespace {

// What ended a step of the handshake; a result above 0 is no news.
void trace_exit(const ssl_st *ssl, const char *role, int ret) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_ssl_info_cb"};

    if (ret == 0) TLSC_SSL_DEBUG("%s:failed in %s", role, SSL_state_string_long(ssl));
    if (ret >= 0) return;
    const int error = SSL_get_error(ssl, ret);
    if (error == SSL_ERROR_WANT_READ) TLSC_SSL_DEBUG("%s:would block on read in %s", role, SSL_state_string_long(ssl));
    else if (error == SSL_ERROR_WANT_WRITE)
        TLSC_SSL_DEBUG("%s:would block on write in %s", role, SSL_state_string_long(ssl));
}

// The first case that fits.
void trace_state(const ssl_st *ssl, int where, int ret) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_ssl_info_cb"};

    const char *role = where & SSL_ST_CONNECT ? "SSL_connect" : where & SSL_ST_ACCEPT ? "SSL_accept" : "undefined";
    if (where & SSL_CB_LOOP) TLSC_SSL_DEBUG("%s:%s", role, SSL_state_string_long(ssl));
    else if (where & SSL_CB_ALERT)
        TLSC_SSL_DEBUG("SSL3 alert %s:%s:%s", where & SSL_CB_READ ? "read" : "write", SSL_alert_type_string_long(ret),
                       SSL_alert_desc_string_long(ret));
    else if (where & SSL_CB_EXIT) trace_exit(ssl, role, ret);
    else if (where & SSL_CB_HANDSHAKE_START) TLSC_SSL_DEBUG("Handshake start: %s", SSL_state_string_long(ssl));
    else if (where & SSL_CB_HANDSHAKE_DONE) TLSC_SSL_DEBUG("Handshake done: %s", SSL_state_string_long(ssl));
}

}  // namespace

void tlsc_ssl_info_cb(const ssl_st *ssl, int where, int ret) {
    if (!ssl) {
        TLSC_ERROR("Null ptr received for ssl");
        return;
    }
    if (where & SSL_CB_HANDSHAKE_DONE) tlsc_ossl_forbid_renegotiation(ssl);
    if (tlsc_ssl_debug.load(std::memory_order_relaxed) == 0) {
        TLSC_DEBUG("SSL Debug is turned off... Return without debugging SSL-INFO-CB !!!");
        return;
    }
    if (tlsc_log_wanted(LOG_SSL_DBG)) trace_state(ssl, where, ret);
}
