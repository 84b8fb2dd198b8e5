// The bytes under the TLS session: a BIO of our own between OpenSSL and the socket. It reads ahead and knows where the
// TLS records end, collects the records of the data path into one write, and waits for the peer for a limited time.
// One session at a time has the buffers: the one that was attached last. Tunnel thread unless a comment says otherwise.
#pragma once

#include <cstdint>

struct ssl_st;

extern "C" {

// Puts the descriptor of a connected socket under the session, which gets the buffers; those of the session before are
// emptied, unsent bytes without waiting. The descriptor stays the caller's; see SSL_get_fd(3). Returns 1, or 0 when out
// of memory.
int32_t tlsc_transport_attach(ssl_st *ssl, int32_t fd);

// Makes the session forget its descriptor, which the caller closes; buffered bytes are dropped.
void tlsc_transport_forget(ssl_st *ssl);

// True when SSL_read need not wait: a whole record is there, or the stream has ended. What an earlier SSL_read left of
// a record comes before it, but does not count. False for any session without the buffers.
bool tlsc_transport_is_readable(const ssl_st *ssl);

// Reads the socket once, without waiting, unless the session is readable already. Returns the above.
bool tlsc_transport_take_in(const ssl_st *ssl);

// While on, SSL_read fails with SSL_ERROR_WANT_READ where it would wait between two records; off at process start.
// Inside a handshake it waits in any case.
void tlsc_transport_read_whole_records(bool on);

// While on, what SSL_write produces is collected; off at process start. A full buffer goes out by itself, and whatever
// is written while this is off goes out at once, behind what was collected.
void tlsc_transport_collect(bool on);

// True when something is collected.
bool tlsc_transport_has_collected();

// Writes what is collected; can_wait: for the peer, else what cannot be written at once is dropped. Returns 1, or 0
// with the reason in errno; what was collected is gone in either case.
int32_t tlsc_transport_flush(bool can_wait);

// While on, a wait for the peer ends as an error of the call: after a second in which the peer does nothing, after two
// whatever it does. Any thread.
void tlsc_transport_cut_waits(bool on);

}  // extern "C"
