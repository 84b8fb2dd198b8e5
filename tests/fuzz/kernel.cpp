// Contents: 1 the ledger  2 descriptors  3 files  4 epoll and timers  5 network  6 TLS  7 time and commands  8 the
// process
#include "kernel.h"

#include <cerrno>
#include <cstdarg>
#include <fcntl.h>
#include <initializer_list>
#include <utility>
#include <linux/if_tun.h>
#include <sys/epoll.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <sys/types.h>
#include <unistd.h>

#include "tlsc_openssl.h"

#include "tlsc_config.h"
#include "tlsc_debug.h"
#include "tlsc_engine.h"
#include "tlsc_main.h"
#include "tlsc_platform.h"
#include "tlsc_wlc.h"

// ==== 1 The ledger ===============================================================================================

namespace kernel {

machine world;

namespace {

constexpr struct {
    kind   what;
    size_t limit;
} limits[] = {
    {kind::epoll, 1},   {kind::timer, 6},    {kind::tun, 1},     {kind::stream, 3},   {kind::control, 1},
    {kind::pipe_in, 1}, {kind::pipe_out, 1}, {kind::fifo_in, 1}, {kind::fifo_out, 1}, {kind::log, 1},
};
constexpr int live_ssl_limit = 3;  // the present one, the old one, and one that a rekey is about to make

bool lives_on(kind what) {
    return what == kind::pipe_in || what == kind::pipe_out || what == kind::fifo_in || what == kind::log;
}

bool is_faked(int fd) { return fd >= first_number && fd < first_number + most; }

// To understand a finding: with FUZZ_LOG in the environment the daemon's log goes to standard error.
bool is_log_shown() {
    static const bool shown = getenv("FUZZ_LOG") != nullptr;
    return shown;
}

// The daemon uses a number: it must be open, and its own.
descriptor &owned(int fd) {
    descriptor *found = find(fd);
    MUST(found != nullptr);
    MUST(found->what != kind::none);
    MUST(found->what != kind::foreign);
    return *found;
}

}  // namespace

void begin(fuzz_input *input) {
    for (descriptor &entry : world.table) {
        if (!lives_on(entry.what)) entry = {};
        entry.registered = false;
    }
    world.input     = input;
    world.faults    = false;
    world.countdown = 255;
    world.log.clear();
    world.to_tun.clear();
    world.to_peer.clear();
    world.to_controller.clear();
    world.tun_packet.clear();
    world.command.clear();
    world.messages.clear();
    world.record.clear();
    world.ssl_error = world.next_read_error = SSL_ERROR_NONE;
    world.in_handshake                      = false;
    world.peer_knows_key                    = true;
    world.controller_exists                 = true;
    world.slices                            = nullptr;
    world.steps                             = 0;
}

bool fails(std::initializer_list<int> errors) {
    if (!world.faults || !world.input || world.countdown == 255) return false;
    if (world.countdown != 0) {
        --world.countdown;
        return false;
    }
    errno           = *(errors.begin() + world.input->byte() % errors.size());
    world.countdown = world.input->empty() ? 255 : world.input->byte();
    return true;
}

descriptor *find(int fd) { return is_faked(fd) ? &world.table[static_cast<size_t>(fd - first_number)] : nullptr; }

int open_one(kind what) {
    for (size_t i = 0; i < world.table.size(); ++i) {
        if (world.table[i].what != kind::none) continue;
        world.table[i]      = {};
        world.table[i].what = what;
        return first_number + static_cast<int>(i);
    }
    MUST(!"the table of descriptors is full");
    return -1;
}

size_t count(kind what) {
    size_t found = 0;
    for (const descriptor &entry : world.table) found += entry.what == what;
    return found;
}

int number_of(kind what) {
    for (size_t i = 0; i < world.table.size(); ++i)
        if (world.table[i].what == what) return first_number + static_cast<int>(i);
    return -1;
}

int number(const descriptor &entry) { return first_number + static_cast<int>(&entry - world.table.data()); }

bool has_armed_timer() {
    for (const descriptor &entry : world.table)
        if (entry.what == kind::timer && entry.armed && entry.registered) return true;
    return false;
}

void check_counts() {
    for (const auto &limit : limits) {
        if (count(limit.what) <= limit.limit) continue;
        fprintf(stderr, "%zu descriptors of kind %d\n", count(limit.what), static_cast<int>(limit.what));
        MUST(!"more descriptors of a kind than it can need");
    }
    MUST(world.live_ssl <= live_ssl_limit);
}

void open_foreign() {
    if (count(kind::foreign) < 8) (void)open_one(kind::foreign);
}

void close_foreign() {
    for (descriptor &entry : world.table)
        if (entry.what == kind::foreign) entry = {};
}

void send_record(descriptor &stream, const std::string &content) {
    stream.incoming += {SSL3_RT_APPLICATION_DATA, 3, 3};
    stream.incoming += {static_cast<char>(content.size() >> 8), static_cast<char>(content.size())};
    stream.incoming += content;
}

bool is_deadly_response(const std::string &text) {
    constexpr char name[] = "X-CSTP-DPD:";
    const char    *found  = strstr(text.c_str(), name);
    if (!found) return false;
    return static_cast<uint32_t>(strtoll(found + sizeof(name) - 1, nullptr, 10)) < 5;
}

}  // namespace kernel

using namespace kernel;

extern "C" {

// ==== 2 Descriptors ==============================================================================================

int     __real_close(int fd);
ssize_t __real_read(int fd, void *buffer, size_t size);
ssize_t __real_write(int fd, const void *buffer, size_t size);
int     __real_fcntl(int fd, int command, ...);
int     __real_ioctl(int fd, unsigned long request, ...);
int     __real_pipe2(int ends[2], int flags);
int     __real_fstat(int fd, struct stat *result);

int __wrap_close(int fd) {
    if (!is_faked(fd)) return __real_close(fd);
    descriptor &entry = owned(fd);
    if (entry.what == kind::epoll)
        for (descriptor &other : world.table) other.registered = false;
    entry = {};
    return 0;
}

ssize_t __wrap_read(int fd, void *buffer, size_t size) {
    if (!is_faked(fd)) return __real_read(fd, buffer, size);
    descriptor &entry = owned(fd);
    switch (entry.what) {
    case kind::timer:
        if (size < 8) {
            errno = EINVAL;
            return -1;
        }
        if (fails({EAGAIN, EINTR})) return -1;
        memset(buffer, 0, 8);
        *static_cast<uint8_t *>(buffer) = 1;
        return 8;
    case kind::tun: {
        if (fails({EIO, EINVAL, EFAULT, EBADF, EAGAIN})) return -1;
        if (world.tun_packet.empty()) {
            errno = world.tun_errno;
            return world.tun_errno == 0 ? 0 : -1;
        }
        const size_t got = std::min(size, world.tun_packet.size());
        memcpy(buffer, world.tun_packet.data(), got);
        world.tun_packet.clear();
        return static_cast<ssize_t>(got);
    }
    case kind::pipe_in: {
        const size_t got = std::min(size, world.command.size());
        if (got == 0 || fails({EINTR, EIO})) {
            if (got == 0) errno = EAGAIN;
            return -1;
        }
        memcpy(buffer, world.command.data(), got);
        world.command.erase(0, got);
        return static_cast<ssize_t>(got);
    }
    case kind::fifo_in: {
        if (world.messages.empty()) return 0;
        const std::string message = world.messages.back();
        world.messages.pop_back();
        const size_t got = std::min(size, message.size());
        memcpy(buffer, message.data(), got);
        return static_cast<ssize_t>(got);
    }
    default: errno = EAGAIN; return -1;
    }
}

ssize_t __wrap_write(int fd, const void *buffer, size_t size) {
    const std::string text(static_cast<const char *>(buffer), size);
    if (fd == STDIN_FILENO || fd == STDOUT_FILENO) {  // the log before its file, and the console
        world.log += text;
        return static_cast<ssize_t>(size);
    }
    if (!is_faked(fd)) return __real_write(fd, buffer, size);
    descriptor &entry = owned(fd);
    switch (entry.what) {
    case kind::tun:
        if (fails({EIO, EINVAL, EFAULT, EBADF, ENOBUFS, EAGAIN})) return -1;
        world.to_tun.push_back(text);
        break;
    case kind::pipe_out:
        if (fails({EPIPE, EAGAIN, EINTR})) return -1;
        world.command += text;
        break;
    case kind::fifo_out:
        if (fails({EPIPE, EAGAIN, EINTR})) return -1;
        if (size >= 4) {
            uint32_t id;
            memcpy(&id, buffer, sizeof(id));
            world.to_controller.push_back(id);
        }
        break;
    case kind::log:
        world.log += text;  // never fails, so that the level of the log changes nothing
        if (is_log_shown()) fputs(text.c_str(), stderr);
        break;
    default: break;
    }
    return static_cast<ssize_t>(size);
}

int __wrap_fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    if (!is_faked(fd)) return __real_fcntl(fd, command, argument);
    (void)owned(fd);
    return 0;
}

int __wrap_fstat(int fd, struct stat *result) {
    if (!is_faked(fd)) return __real_fstat(fd, result);
    const descriptor &entry = owned(fd);
    *result                 = {};
    result->st_mode         = (entry.what == kind::fifo_in || entry.what == kind::fifo_out ? S_IFIFO : S_IFREG) | 0600;
    result->st_nlink        = 1;
    result->st_uid          = geteuid();
    return 0;
}

int __wrap_ioctl(int fd, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    if (!is_faked(fd)) return __real_ioctl(fd, request, argument);
    const descriptor &entry = owned(fd);
    if (entry.what == kind::tun) return fails({EBUSY, EPERM, EINVAL, ENOMEM}) ? -1 : 0;
    return fails({ENODEV, EPERM, EBADF, EFAULT, ENOMEM, EMFILE, EINVAL}) ? -1 : 0;
}

// The sanitizers need pipes too when they report; the daemon makes its own when it begins.
int __wrap_pipe2(int ends[2], int flags) {
    if (!world.process_begins) return __real_pipe2(ends, flags);
    if (fails({EMFILE, ENFILE})) return -1;
    ends[0] = open_one(kind::pipe_in);
    ends[1] = open_one(kind::pipe_out);
    return 0;
}

int __wrap_pipe(int ends[2]) { return __wrap_pipe2(ends, 0); }

// ==== 3 Files ====================================================================================================
// The controller's directory and the local file stand in a directory of the fuzzer's own.

int   __real_open(const char *path, int flags, ...);
FILE *__real_fopen(const char *path, const char *mode);
int   __real_access(const char *path, int mode);
int   __real_rename(const char *from, const char *to);
int   __real_unlink(const char *path);
int   __real_truncate(const char *path, off_t size);
int   __real_mkfifo(const char *path, mode_t mode);
}

namespace {

bool begins_with(std::string_view text, std::string_view word) { return text.substr(0, word.size()) == word; }

const std::string &directory() {
    static const std::string &made = *new std::string([] {  // outlives what runs at the end
        const char *base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        std::string name = std::string(base) + "/tlsc-fuzz-XXXXXX";
        MUST(mkdtemp(name.data()) != nullptr);
        (void)atexit([] {
            for (const char *file : {"wlc-sec-tun.conf", "wlc-sec-tun-temp.conf", "tls_client_config.txt"})
                (void)__real_unlink((directory() + "/" + file).c_str());
            (void)rmdir(directory().c_str());
        });
        return name;
    }());
    return made;
}

bool is_redirected(std::string_view path) {
    return begins_with(path, "/storage/application/wlc/") || path == "tls_client_config.txt";
}

std::string real_path(const char *path) {
    if (!is_redirected(path)) return path;
    const char *name = strrchr(path, '/');
    return directory() + "/" + (name ? name + 1 : path);
}

bool is_in_tmp(std::string_view path) { return begins_with(path, "/tmp/") && !begins_with(path, "/tmp/tlsc-fuzz-"); }

int open_faked(const char *path) {
    const std::string_view name = path;
    if (name == "/dev/net/tun") return fails({ENOENT, EMFILE, ENFILE, ENODEV}) ? -1 : open_one(kind::tun);
    if (name == "/tmp/tlsc_log") return fails({EACCES, ENOSPC, EMFILE}) ? -1 : open_one(kind::log);
    if (name == "/tmp/wlc-to-tlsc-fifo") return fails({EACCES, EMFILE}) ? -1 : open_one(kind::fifo_in);
    if (name == "/tmp/tlsc-to-wlc-fifo") {
        if (fails({ENOENT, ENXIO, EMFILE})) return -1;
        if (world.controller_exists) return open_one(kind::fifo_out);
    }
    errno = ENOENT;
    return -1;
}

}  // namespace

extern "C" {

int __wrap_open(const char *path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const unsigned mode = flags & O_CREAT ? va_arg(arguments, unsigned) : 0;
    va_end(arguments);
    if (begins_with(path, "/dev/net/") || is_in_tmp(path)) return open_faked(path);
    if (is_redirected(path) && fails({EACCES, EMFILE, ENOSPC})) return -1;
    return __real_open(real_path(path).c_str(), flags, mode);
}

FILE *__wrap_fopen(const char *path, const char *mode) {
    if (is_redirected(path) && fails({ENOENT, EMFILE, EACCES})) return nullptr;
    return __real_fopen(real_path(path).c_str(), mode);
}

int __wrap_access(const char *path, int mode) {
    if (std::string_view(path) == "/tmp/tlsc_log" && count(kind::log) != 0) return 0;
    if (is_in_tmp(path)) {
        errno = ENOENT;
        return -1;
    }
    return __real_access(real_path(path).c_str(), mode);
}

int __wrap_rename(const char *from, const char *to) {
    if (is_redirected(from) && fails({EACCES, EIO})) return -1;
    return __real_rename(real_path(from).c_str(), real_path(to).c_str());
}

int __wrap_unlink(const char *path) { return is_in_tmp(path) ? 0 : __real_unlink(real_path(path).c_str()); }

int __wrap_truncate(const char *path, off_t size) { return __real_truncate(real_path(path).c_str(), size); }

int __wrap_mkfifo(const char *path, mode_t mode) {
    if (is_in_tmp(path)) return fails({EEXIST, ENOSPC}) ? -1 : 0;
    return __real_mkfifo(path, mode);
}

// ==== 4 Epoll and timers =========================================================================================

int __wrap_epoll_create1(int) { return fails({EMFILE, ENFILE, ENOMEM}) ? -1 : open_one(kind::epoll); }

int __wrap_epoll_ctl(int epoll_fd, int operation, int fd, epoll_event *event) {
    if (!is_faked(epoll_fd) || owned(epoll_fd).what != kind::epoll) {
        errno = EBADF;
        return -1;
    }
    descriptor &entry = owned(fd);
    if (operation == EPOLL_CTL_ADD) {
        if (fails({ENOMEM, ENOSPC})) return -1;
        if (entry.registered) {
            errno = EEXIST;
            return -1;
        }
        entry.registered = true;
        entry.data       = event->data.u64;
        return 0;
    }
    if (!entry.registered) {
        errno = ENOENT;
        return -1;
    }
    if (operation == EPOLL_CTL_DEL) entry.registered = false;
    return 0;
}

int __wrap_epoll_wait(int epoll_fd, epoll_event *events, int max, int timeout) {
    MUST(is_faked(epoll_fd) && owned(epoll_fd).what == kind::epoll);
    MUST(events != nullptr && max > 0);
    ++world.steps;
    check_counts();
    if (!world.on_wait) {
        errno = EINTR;
        return -1;
    }
    return world.on_wait(events, max, timeout);
}

int __wrap_timerfd_create(int, int) { return fails({EMFILE, ENFILE, ENOMEM}) ? -1 : open_one(kind::timer); }

int __wrap_timerfd_settime(int fd, int, const itimerspec *wanted, itimerspec *) {
    descriptor &entry = owned(fd);
    MUST(entry.what == kind::timer);
    if (fails({ENOMEM})) return -1;
    if (wanted->it_value.tv_sec < 0 || wanted->it_value.tv_nsec < 0 || wanted->it_value.tv_nsec > 999999999) {
        errno = EINVAL;
        return -1;
    }
    entry.armed    = wanted->it_value.tv_sec != 0 || wanted->it_value.tv_nsec != 0;
    entry.seconds  = wanted->it_value.tv_sec;
    entry.periodic = wanted->it_interval.tv_sec != 0 || wanted->it_interval.tv_nsec != 0;
    return 0;
}

// ==== 5 Network ==================================================================================================

int __wrap_socket(int, int type, int) {
    if (fails({EMFILE, ENFILE, ENOBUFS, ENOMEM})) return -1;
    return open_one((type & 0xf) == SOCK_STREAM ? kind::stream : kind::control);
}

int __wrap_connect(int fd, const sockaddr *, socklen_t) {
    descriptor &entry = owned(fd);
    if (entry.shut) {
        errno = ECONNREFUSED;
        return -1;
    }
    if (fails({ECONNREFUSED, ETIMEDOUT, ENETUNREACH, EINTR, EHOSTUNREACH})) return -1;
    entry.connected = true;
    return 0;
}

int  __real_poll(pollfd *list, nfds_t count, int timeout);
long __real_syscall(long number, ...);

}  // extern "C"

namespace {

size_t slice(size_t most_bytes) {
    if (!world.slices || most_bytes < 2) return most_bytes;
    const size_t choice = world.slices->byte();
    return choice > 200 ? most_bytes : std::min(most_bytes, choice * choice + 1);
}

long receive(descriptor &entry, void *buffer, size_t size) {
    if (entry.shut) return 0;
    if (fails({ECONNRESET, ETIMEDOUT, EINTR})) return -1;
    if (entry.incoming.empty()) {
        if (entry.ended) return 0;
        errno = EAGAIN;
        return -1;
    }
    const size_t got = slice(std::min(size, entry.incoming.size()));
    memcpy(buffer, entry.incoming.data(), got);
    entry.incoming.erase(0, got);
    return static_cast<long>(got);
}

long send_bytes(descriptor &entry, const void *buffer, size_t size) {
    if (entry.shut || fails({EPIPE, ECONNRESET, EINTR})) return -1;
    if (world.slices && world.slices->chance(32)) {
        errno = EAGAIN;
        return -1;
    }
    const size_t sent = slice(size);
    entry.outgoing.append(static_cast<const char *>(buffer), sent);
    return static_cast<long>(sent);
}

}  // namespace

extern "C" {

// Only the two calls of the transport come this way.
long __wrap_syscall(long number, long fd, void *buffer, size_t size, long flags, void *address, long length) {
    if (!is_faked(static_cast<int>(fd))) return __real_syscall(number, fd, buffer, size, flags, address, length);
    descriptor &entry = owned(static_cast<int>(fd));
    MUST(entry.what == kind::stream && (flags & MSG_DONTWAIT));
    if (number == SYS_recvfrom) return receive(entry, buffer, size);
    MUST(number == SYS_sendto && (flags & MSG_NOSIGNAL));
    return send_bytes(entry, buffer, size);
}

int __wrap_poll(pollfd *list, nfds_t count, int timeout) {
    if (count != 1 || !is_faked(list->fd)) return __real_poll(list, count, timeout);
    descriptor &entry = owned(list->fd);
    MUST(timeout >= 0);  // no wait for the peer is for ever
    if (fails({EINTR, ENOMEM})) return -1;
    const bool can_read  = !entry.incoming.empty() || entry.ended || entry.shut;
    const bool can_write = !world.slices || !world.slices->empty();
    list->revents        = static_cast<short>(list->events & ((can_read ? POLLIN : 0) | (can_write ? POLLOUT : 0)));
    if (list->revents != 0) return 1;
    world.now += timeout / 1000;
    return 0;
}

int __real_clock_gettime(clockid_t clock, timespec *result);

int __wrap_clock_gettime(clockid_t clock, timespec *result) {
    if (!world.input) return __real_clock_gettime(clock, result);
    *result = {world.now, 0};
    return 0;
}

int __wrap_shutdown(int fd, int) {
    owned(fd).shut = true;
    return 0;
}

// ==== 6 TLS ======================================================================================================
// Sessions are real; what would go over the wire is not: records without protection, over the daemon's own transport
// where it has put one under the session. The handshake asks the daemon for its key, as a peer would.

static const SSL  *pending_session;  // whose last record was longer than what was asked for
static std::string pending;

SSL *__real_SSL_new(SSL_CTX *ctx);
void __real_SSL_free(SSL *ssl);

SSL *__wrap_SSL_new(SSL_CTX *ctx) {
    if (fails({ENOMEM})) return nullptr;
    SSL *ssl = __real_SSL_new(ctx);
    if (ssl) ++world.live_ssl;
    return ssl;
}

void __wrap_SSL_free(SSL *ssl) {
    if (ssl) --world.live_ssl;
    if (ssl == pending_session) pending_session = nullptr;
    __real_SSL_free(ssl);
}

// The descriptor under the session, which must be an open socket of ours.
static descriptor &transport(const SSL *ssl) {
    MUST(ssl != nullptr);
    descriptor &entry = owned(SSL_get_fd(ssl));
    MUST(entry.what == kind::stream);
    return entry;
}

static int tls_failure(int error) {
    world.ssl_error = error;
    return -1;
}

// True for the transport of the daemon's own.
static bool has_transport(const SSL *ssl) {
    const BIO *bio = SSL_get_rbio(ssl);
    return bio && strcmp(BIO_method_name(bio), "tlsc transport") == 0;
}

int __wrap_SSL_connect(SSL *ssl) {
    const descriptor &entry = transport(ssl);
    if (entry.shut || !entry.connected) return tls_failure(SSL_ERROR_SYSCALL);
    if (fails({ECONNRESET})) return tls_failure(SSL_ERROR_SYSCALL);
    if (fails({EPROTO})) return tls_failure(SSL_ERROR_SSL);
    if (world.peer_knows_key) {
        char          identity[129] = "";
        unsigned char key[256];
        if (tlsc_psk_client_cb(ssl, nullptr, identity, 128, key, sizeof(key)) == 0) return tls_failure(SSL_ERROR_SSL);
    }
    world.ssl_error = SSL_ERROR_NONE;
    return 1;
}

int __wrap_SSL_write(SSL *ssl, const void *buffer, int length) {
    const descriptor &entry = transport(ssl);
    MUST(length >= 0);
    if (entry.shut) return tls_failure(SSL_ERROR_SYSCALL);
    if (fails({EPIPE, ECONNRESET})) return tls_failure(SSL_ERROR_SYSCALL);
    if (fails({EAGAIN})) return tls_failure(SSL_ERROR_WANT_WRITE);
    const std::string content(static_cast<const char *>(buffer), static_cast<size_t>(length));
    if (has_transport(ssl)) {
        descriptor record{};
        send_record(record, content);
        const int size = static_cast<int>(record.incoming.size());
        if (BIO_write(SSL_get_wbio(ssl), record.incoming.data(), size) != size) return tls_failure(SSL_ERROR_SYSCALL);
    }
    world.to_peer.push_back(content);
    world.ssl_error = SSL_ERROR_NONE;
    return length;
}

// One record of the transport, without its header. Returns SSL_ERROR_NONE, or why there is none.
static int read_record(SSL *ssl, std::string *content) {
    BIO    *bio = SSL_get_rbio(ssl);
    uint8_t header[5];
    for (size_t got = 0, wanted = sizeof(header); got < wanted;) {
        const int count = BIO_read(bio, header + got, static_cast<int>(wanted - got));
        if (count <= 0) return count < 0 && BIO_should_retry(bio) ? SSL_ERROR_WANT_READ : SSL_ERROR_SYSCALL;
        got += static_cast<size_t>(count);
    }
    if (header[0] != SSL3_RT_APPLICATION_DATA || header[1] != 3 || header[2] != 3) return SSL_ERROR_SSL;
    content->resize(static_cast<size_t>(header[3] << 8 | header[4]));
    for (size_t got = 0; got < content->size();) {
        const int count = BIO_read(bio, content->data() + got, static_cast<int>(content->size() - got));
        if (count <= 0) return SSL_ERROR_SYSCALL;
        got += static_cast<size_t>(count);
    }
    return SSL_ERROR_NONE;
}

int __wrap_SSL_pending(const SSL *ssl) { return ssl == pending_session ? static_cast<int>(pending.size()) : 0; }

int __wrap_SSL_in_init(const SSL *) { return world.in_handshake; }

int __wrap_SSL_read(SSL *ssl, void *buffer, int size) {
    (void)transport(ssl);
    if (const int error = std::exchange(world.next_read_error, SSL_ERROR_NONE)) {
        (void)tls_failure(error);
        return error == SSL_ERROR_ZERO_RETURN ? 0 : -1;
    }
    if (has_transport(ssl) && ssl != pending_session) pending.clear();
    std::string &from = has_transport(ssl) ? pending : world.record;
    if (has_transport(ssl) && from.empty()) {
        pending_session = ssl;
        if (const int error = read_record(ssl, &from); error != SSL_ERROR_NONE) {
            from.clear();
            return tls_failure(error);
        }
    }
    if (from.empty()) return tls_failure(SSL_ERROR_WANT_READ);
    const size_t got = std::min(static_cast<size_t>(size), from.size());
    memcpy(buffer, from.data(), got);
    from.erase(0, got);
    world.ssl_error = SSL_ERROR_NONE;
    return static_cast<int>(got);
}

int __wrap_SSL_get_error(const SSL *, int) { return world.ssl_error; }

int __wrap_SSL_shutdown(SSL *) { return 0; }

// ==== 7 Time and commands ========================================================================================

unsigned __wrap_sleep(unsigned) { return 0; }

int __wrap_nanosleep(const timespec *, timespec *) { return 0; }

int __real_system(const char *command);

// The fuzzer itself starts programs this way, by their path.
int __wrap_system(const char *command) { return command[0] == '/' ? __real_system(command) : 0; }

void __wrap_perror(const char *) {}

}  // extern "C"

// ==== 8 The process ==============================================================================================

namespace kernel {

namespace {

constexpr const char *settings[][2] = {
    {"server_ip_address", "192.0.2.1"},
    {"server_port", "443"},
    {"management_ip", "10.1.0.2"},
    {"tun_interface_name", "tlstun0"},
    {"cipher_algo", "PSK-AES256-CBC-SHA"},
    {"psk_identity", "device-1"},
    {"psk_key", "0f1e2d3c4b5a69788796a5b4c3d2e1f0"},
    {"device_id", "dev-0001"},
    {"serial_num", "SN-4711"},
    {"system_name", "branch-router"},
};

}  // namespace

void start_process() {
    static bool is_started;
    if (is_started) return;
    is_started = true;
    MUST(freopen("/dev/null", "w", stdout) != nullptr);
    begin(nullptr);
    world.process_begins = true;
    tlsc_log_lock_create();
    (void)tlscWlcInit();
    for (const auto &setting : settings) (void)wlcSecTunProcessConf(setting[0], setting[1]);
    (void)tlsc_init();
    world.process_begins = false;
    MUST(count(kind::log) == 1 && count(kind::pipe_in) == 1 && count(kind::pipe_out) == 1);
    MUST(tlsc_ssl_ctx != nullptr);
}

void reset_process() {
    // Nothing at all: most lines cost more than what they tell of.
    tlsc_log_level = is_log_shown() ? LOG_DEBUG : LOG_ERRORS - 1;
    tlsc_log_dest  = LOG_DEST_FILE;
    tlsc_dp_state  = 1;
    tlsc_set_config_defaults(tlsc_get_config());
    (void)tlsc_set_config_all();
    tlsc_stats_clear();
}

void begin_process(fuzz_input &input) {
    start_process();
    begin(&input);
    reset_process();
}

}  // namespace kernel
