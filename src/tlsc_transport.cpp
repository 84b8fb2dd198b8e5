// Contents: 1 the socket  2 coming in  3 going out  4 the BIO  5 what the tunnel thread calls
//
// In:  socket -> incoming buffer (take_in, or a read inside OpenSSL) -> read_bio -> OpenSSL, record by record
// Out: OpenSSL -> write_bio -> outgoing buffer while the loop collects -> socket
//
// Invariants: the socket is blocking and stays so, but no call here blocks in the kernel other than in poll. Bytes are
// handed to OpenSSL up to a record's end at most. What is on the wire is in the order of the calls.

#include "tlsc_transport.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "tlsc_openssl.h"

#include "tlsc_turn.h"

// ==== 1 The socket ===============================================================================================
// A wait is cut into looks, so that an order to end does not wait for the peer.

namespace {

constexpr time_t patience_seconds = 30;    // without one byte of progress
constexpr int    look_interval_ms = 1000;  // between two looks whether waits are cut

constexpr time_t cut_patience_seconds = 2;  // for a peer that drips while waits are cut

std::atomic<bool> waits_are_cut{false};
time_t            first_cut_wait;  // second in which a wait found that they are; 0 when none did

// As recv(2) and send(2), but without libc's cancellation point: no thread that comes here is ever cancelled.
ssize_t receive_now(int fd, void *bytes, size_t size) {
    return syscall(SYS_recvfrom, fd, bytes, size, MSG_DONTWAIT, nullptr, nullptr);
}

ssize_t send_now(int fd, const void *bytes, size_t size) {
    return syscall(SYS_sendto, fd, bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL, nullptr, 0);
}

time_t seconds_now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

// True when waits have been cut for so long that even a peer which goes on sending, byte by byte, is not waited for.
bool is_patience_over(time_t now) {
    if (!waits_are_cut) first_cut_wait = 0;
    else if (first_cut_wait == 0) first_cut_wait = now;
    return first_cut_wait != 0 && now - first_cut_wait >= cut_patience_seconds;
}

// Waits until the socket is ready or has failed, which the next call on it tells. False with errno when the wait itself
// is over, or is not wanted: EAGAIN for a socket that somebody has made non-blocking.
bool wait_for(int fd, short events) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags >= 0 && (flags & O_NONBLOCK) != 0) {
        errno = EAGAIN;
        return false;
    }
    tlsc_wait_in_tls();
    const time_t begin = seconds_now();
    for (bool is_cut = is_patience_over(begin);;) {
        if (is_cut) {
            errno = ECANCELED;
            return false;
        }
        pollfd    ready{fd, events, 0};
        const int count = poll(&ready, 1, look_interval_ms);
        if (count > 0) return true;
        if (count < 0 && errno != EINTR) return false;
        is_cut = waits_are_cut;
        if (!is_cut && seconds_now() > begin + patience_seconds) {
            errno = ETIMEDOUT;
            return false;
        }
    }
}

bool would_block(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }

// Returns how much was sent; with errno when that is not everything.
size_t send_all(int fd, const uint8_t *bytes, size_t size, bool can_wait) {
    size_t sent = 0;
    while (sent < size) {
        const ssize_t count = send_now(fd, bytes + sent, size - sent);
        if (count >= 0) sent += static_cast<size_t>(count);
        else if (!would_block(errno) || !can_wait || !wait_for(fd, POLLOUT)) break;
    }
    return sent;
}

// ==== 2 Coming in ================================================================================================

constexpr size_t header_size  = 5;                           // type, version, length of the body
constexpr size_t max_record   = header_size + 16384 + 1024;  // the largest that is expected without compression
constexpr size_t read_at_once = 16384;                       // the turn of others comes at least so often

enum class stream_state : uint8_t {
    open,
    ended,   // by the peer
    failed,  // error tells why
};

struct {
    uint8_t      bytes[max_record];
    size_t       begin;      // of what has not been handed out
    size_t       end;        // behind it
    size_t       to_record;  // bytes to be handed out before the next record begins
    stream_state state;
    int          error;
} incoming;

size_t buffered() { return incoming.end - incoming.begin; }

// The size of the record at the buffer's begin, whose header is there.
size_t record_size() {
    const uint8_t *header = incoming.bytes + incoming.begin;
    return header_size + static_cast<size_t>(header[3] << 8 | header[4]);
}

// OpenSSL refuses any other by its header, or waits for it.
bool is_expected_record() {
    const uint8_t *version = incoming.bytes + incoming.begin + 1;
    return version[0] == 3 && version[1] == 3 && record_size() <= sizeof(incoming.bytes);
}

// True when OpenSSL has a record, or what is left of it, without waiting; or a header that it should see at once.
bool has_whole_record() {
    if (incoming.to_record > 0) return true;
    if (buffered() < header_size) return false;
    return record_size() <= buffered() || !is_expected_record();
}

void make_room() {
    if (incoming.begin == 0) return;
    memmove(incoming.bytes, incoming.bytes + incoming.begin, buffered());
    incoming.end -= incoming.begin;
    incoming.begin = 0;
}

void note_end_of_stream(ssize_t count) {
    if (count > 0 || (count < 0 && would_block(errno))) return;
    incoming.state = count == 0 ? stream_state::ended : stream_state::failed;
    incoming.error = errno;
}

// One read of the socket, behind what is there. Returns its result.
ssize_t fill(int fd) {
    make_room();
    const size_t  limit = incoming.end < read_at_once ? read_at_once : sizeof(incoming.bytes);
    const ssize_t count = receive_now(fd, incoming.bytes + incoming.end, limit - incoming.end);
    if (count > 0) incoming.end += static_cast<size_t>(count);
    note_end_of_stream(count);
    return count;
}

bool send_collected(int fd, bool can_wait);

// Who waits for the peer has told it everything.
bool wait_for_more(int fd) { return send_collected(fd, true) && wait_for(fd, POLLIN); }

// Waits until so many bytes are there. Returns 1, 0 at the stream's end, -1 with errno.
int fill_up_to(int fd, size_t count) {
    while (buffered() < count) {
        if (incoming.state == stream_state::ended) return 0;
        if (incoming.state == stream_state::failed) {
            errno = incoming.error;
            return -1;
        }
        if (fill(fd) < 0 && would_block(errno) && !wait_for_more(fd)) return -1;
    }
    return 1;
}

// Hands out bytes that are there, of the present record only. Returns how many.
int hand_out(char *out, size_t size) {
    const size_t count = std::min({size, buffered(), incoming.to_record});
    memcpy(out, incoming.bytes + incoming.begin, count);
    incoming.begin += count;
    incoming.to_record -= count;
    if (incoming.begin == incoming.end) incoming.begin = incoming.end = 0;
    return static_cast<int>(count);
}

// ==== 3 Going out ================================================================================================

constexpr size_t   write_at_once = 32768;
constexpr unsigned max_collected = 32;  // records: what waits for others waits for so many passes at most

struct {
    uint8_t  bytes[write_at_once];
    size_t   used;
    unsigned records;
} outgoing;

bool send_collected(int fd, bool can_wait) {
    const size_t size = outgoing.used;
    outgoing.used     = 0;  // whatever comes of it: nothing is written twice
    outgoing.records  = 0;
    return send_all(fd, outgoing.bytes, size, can_wait) == size;
}

// Larger than the buffer never comes here.
bool collect(int fd, const char *bytes, size_t size) {
    if (size > write_at_once - outgoing.used && !send_collected(fd, true)) return false;
    memcpy(outgoing.bytes + outgoing.used, bytes, size);
    outgoing.used += size;
    return ++outgoing.records < max_collected || send_collected(fd, true);
}

// ==== 4 The BIO ==================================================================================================
// Its data is the descriptor. Several may live at a time, during a rekey; the buffers belong to the newest.

const BIO *owner;  // of the buffers; null when none
const SSL *owner_session;
bool       whole_records_only;
bool       collecting;

void *data_of(int fd) { return reinterpret_cast<void *>(static_cast<intptr_t>(fd)); }

int fd_of(BIO *bio) { return static_cast<int>(reinterpret_cast<intptr_t>(tlsc_ossl_bio_data(bio))); }

void drop_buffers() {
    incoming.begin = incoming.end = incoming.to_record = 0;
    incoming.state                                     = stream_state::open;
    outgoing.used                                      = 0;
    outgoing.records                                   = 0;
}

// Comes to the next record's header. Returns 1, 0 at the stream's end, -1 with errno.
int reach_record(BIO *bio) {
    const int fd = fd_of(bio);
    if (whole_records_only && !SSL_in_init(owner_session)) {
        if (!has_whole_record() && incoming.state == stream_state::open) (void)fill(fd);
        if (!has_whole_record() && incoming.state == stream_state::open) {
            errno = EAGAIN;
            return -1;
        }
    }
    const int result = fill_up_to(fd, header_size);
    if (result > 0) incoming.to_record = record_size();
    return result;
}

int read_bio(BIO *bio, char *out, int size) {
    BIO_clear_retry_flags(bio);
    if (size <= 0) return 0;
    if (bio != owner) {  // what its session had in the buffer is gone
        errno = ENOTCONN;
        return -1;
    }
    const int result = incoming.to_record == 0 ? reach_record(bio) : fill_up_to(fd_of(bio), 1);
    if (result < 0 && errno == EAGAIN) BIO_set_retry_read(bio);
    return result > 0 ? hand_out(out, static_cast<size_t>(size)) : result;
}

int write_bio(BIO *bio, const char *bytes, int size) {
    BIO_clear_retry_flags(bio);
    if (size <= 0) return 0;
    const int    fd    = fd_of(bio);
    const size_t count = static_cast<size_t>(size);
    if (bio == owner && collecting && count <= write_at_once) return collect(fd, bytes, count) ? size : -1;
    if (bio == owner && !send_collected(fd, true)) return -1;
    const size_t sent = send_all(fd, reinterpret_cast<const uint8_t *>(bytes), count, true);
    if (sent == count) return size;
    if (errno != EAGAIN) return -1;
    BIO_set_retry_write(bio);
    return sent > 0 ? static_cast<int>(sent) : -1;
}

int create_bio(BIO *bio) {
    tlsc_ossl_bio_set_data(bio, data_of(-1));
    return 1;
}

// The descriptor is never closed here.
int destroy_bio(BIO *bio) {
    if (!bio) return 0;
    if (bio == owner) {
        drop_buffers();
        owner         = nullptr;
        owner_session = nullptr;
    }
    return 1;
}

long set_descriptor(BIO *bio, const void *fd, long close_flag) {
    if (bio == owner) drop_buffers();
    int number;
    memcpy(&number, fd, sizeof(number));
    tlsc_ossl_bio_set_data(bio, data_of(number));
    tlsc_ossl_bio_set_close(bio, static_cast<int>(close_flag));
    tlsc_ossl_bio_set_init(bio);
    return 1;
}

long get_descriptor(BIO *bio, void *fd) {
    const int number = fd_of(bio);
    if (fd) memcpy(fd, &number, sizeof(number));
    return number;
}

long control_bio(BIO *bio, int command, long number, void *pointer) {
    switch (command) {
    case BIO_C_SET_FD: return set_descriptor(bio, pointer, number);
    case BIO_C_GET_FD: return get_descriptor(bio, pointer);
    case BIO_CTRL_GET_CLOSE: return tlsc_ossl_bio_close(bio);
    case BIO_CTRL_SET_CLOSE: tlsc_ossl_bio_set_close(bio, static_cast<int>(number)); return 1;
    case BIO_CTRL_FLUSH: return bio != owner || send_collected(fd_of(bio), true);
    case BIO_CTRL_DUP: return 1;
    default: return 0;
    }
}

constexpr tlsc_ossl_bio_calls calls{"tlsc transport", write_bio, read_bio, control_bio, create_bio, destroy_bio};

}  // namespace

// ==== 5 What the tunnel thread calls =============================================================================

int32_t tlsc_transport_attach(SSL *ssl, int32_t fd) {
    BIO *bio = tlsc_ossl_new_descriptor_bio(calls);
    if (!bio) return 0;

    (void)tlsc_transport_flush(false);
    drop_buffers();
    (void)BIO_set_fd(bio, fd, BIO_NOCLOSE);
    owner         = bio;
    owner_session = ssl;
    SSL_set_bio(ssl, bio, bio);
    return 1;
}

void tlsc_transport_forget(SSL *ssl) {
    BIO *bio = SSL_get_rbio(ssl);
    if (bio) (void)BIO_set_fd(bio, -1, BIO_NOCLOSE);
}

bool tlsc_transport_is_readable(const SSL *ssl) {
    if (!ssl || ssl != owner_session) return false;
    return has_whole_record() || incoming.state != stream_state::open;
}

bool tlsc_transport_take_in(const SSL *ssl) {
    if (!ssl || ssl != owner_session) return false;
    if (!tlsc_transport_is_readable(ssl)) (void)fill(SSL_get_fd(ssl));
    return tlsc_transport_is_readable(ssl);
}

void tlsc_transport_read_whole_records(bool on) { whole_records_only = on; }

void tlsc_transport_collect(bool on) { collecting = on; }

bool tlsc_transport_has_collected() { return outgoing.used > 0; }

int32_t tlsc_transport_flush(bool can_wait) {
    if (!owner_session) return 1;
    return send_collected(SSL_get_fd(owner_session), can_wait) ? 1 : 0;
}

void tlsc_transport_cut_waits(bool on) { waits_are_cut = on; }
