// The bytes under the TLS session against a model of two byte streams: in order, nothing twice, never past a record's
// end, no wait for ever. Input: settings, then one byte per operation with what it needs; the sizes that the socket
// moves come from it as well.
#include <cerrno>

#include "tlsc_openssl.h"

#include "kernel.h"
#include "tlsc_config.h"
#include "tlsc_debug.h"
#include "tlsc_engine.h"
#include "tlsc_transport.h"

using namespace kernel;

namespace {

// One session over its socket, and what must have passed.
struct session {
    SSL        *ssl = nullptr;
    int         fd  = -1;
    std::string sent_to_it;         // by the peer, all of it
    size_t      handed_out  = 0;    // of that, to the reader
    size_t      record_left = 0;    // of the record that the reader is in
    std::string written;            // by the daemon, all of it
    bool        is_broken = false;  // a call has failed, or bytes were dropped: only order still counts
};

session     sessions[2];
session    *owner;  // of the buffers
std::string pattern;

void open_session(session &s) {
    const bool faults = world.faults;
    world.faults      = false;
    s                 = {};
    s.fd              = open_one(kind::stream);
    s.ssl             = SSL_new(tlsc_ssl_ctx);
    world.faults      = faults;
    MUST(s.ssl != nullptr);
    find(s.fd)->connected = true;
    if (owner) owner->is_broken = true;  // what it still had in the buffers is dropped
    MUST(tlsc_transport_attach(s.ssl, s.fd) == 1);
    MUST(SSL_get_fd(s.ssl) == s.fd);
    owner = &s;
}

void close_session(session &s) {
    if (!s.ssl) return;
    tlsc_transport_forget(s.ssl);
    SSL_free(s.ssl);
    MUST(find(s.fd)->what == kind::stream);  // not closed underneath
    *find(s.fd) = {};
    if (owner == &s) owner = nullptr;
    s = {};
}

void peer_sends(session &s, fuzz_input &in) {
    std::string record;
    if (in.chance(230)) {
        const size_t size = in.chance(32) ? in.word() : in.below(1600);
        record            = {23, 3, static_cast<char>(in.chance(250) ? 3 : 1), static_cast<char>(size >> 8),
                             static_cast<char>(size)};
        record.append(pattern, s.sent_to_it.size() % 251, size);
    } else {
        record = std::string(in.bytes(in.below(40)));
    }
    if (in.chance(32)) record.resize(in.below(record.size() + 1));
    s.sent_to_it += record;
    find(s.fd)->incoming += record;
}

void check_read(session &s, const char *bytes, int count) {
    MUST(s.handed_out + static_cast<size_t>(count) <= s.sent_to_it.size());
    MUST(s.sent_to_it.compare(s.handed_out, static_cast<size_t>(count), bytes, static_cast<size_t>(count)) == 0);
    if (s.record_left == 0) {  // a header begins here
        MUST(s.handed_out + 5 <= s.sent_to_it.size());
        s.record_left = 5 + static_cast<size_t>(static_cast<uint8_t>(s.sent_to_it[s.handed_out + 3]) << 8 |
                                                static_cast<uint8_t>(s.sent_to_it[s.handed_out + 4]));
    }
    MUST(static_cast<size_t>(count) <= s.record_left);
    s.record_left -= static_cast<size_t>(count);
    s.handed_out += static_cast<size_t>(count);
}

void read_some(session &s, fuzz_input &in) {
    static char  buffer[20000];
    const size_t size  = in.chance(64) ? sizeof(buffer) : in.below(2000);
    const int    count = BIO_read(SSL_get_rbio(s.ssl), buffer, static_cast<int>(size));
    MUST(count <= static_cast<int>(size));
    if (count < 0 && !BIO_should_retry(SSL_get_rbio(s.ssl))) s.is_broken = true;  // the wait may have sent in vain
    if (count > 0) {
        MUST(&s == owner);
        check_read(s, buffer, count);
    }
}

void write_some(session &s, fuzz_input &in) {
    const size_t size  = in.chance(16) ? 20000 : in.below(1500) + 1;
    const size_t from  = s.written.size() % 251;
    const int    count = BIO_write(SSL_get_wbio(s.ssl), pattern.data() + from, static_cast<int>(size));
    MUST(count == -1 || (count > 0 && count <= static_cast<int>(size)));
    if (count > 0 && count < static_cast<int>(size)) MUST(BIO_should_retry(SSL_get_wbio(s.ssl)));
    s.written.append(pattern, from, count > 0 ? static_cast<size_t>(count) : size);
    if (count < 0) s.is_broken = true;
}

// What went out is the beginning of what was written; once something failed, at least no more than that.
void check_outgoing(const session &s) {
    if (!s.ssl) return;
    const std::string &out = find(s.fd)->outgoing;
    MUST(out.size() <= s.written.size());
    if (!s.is_broken) MUST(s.written.compare(0, out.size(), out) == 0);
    if (!s.is_broken && (&s != owner || !tlsc_transport_has_collected())) MUST(out.size() == s.written.size());
}

void one_operation(fuzz_input &in) {
    session &s = sessions[in.chance(224) ? 0 : 1];
    if (!s.ssl) return open_session(s);
    switch (in.below(16)) {
    case 0:
    case 1:
    case 2: return peer_sends(s, in);
    case 3:
    case 4:
    case 5: return read_some(s, in);
    case 6:
    case 7: return write_some(s, in);
    case 8: return tlsc_transport_collect(in.chance(160));
    case 9: return tlsc_transport_read_whole_records(in.chance(128));
    case 10:
        if (tlsc_transport_flush(in.chance(200)) != 1 && owner) owner->is_broken = true;
        MUST(!tlsc_transport_has_collected());
        return;
    case 11: {
        const bool readable = tlsc_transport_take_in(s.ssl);
        MUST(readable == tlsc_transport_is_readable(s.ssl));
        MUST(&s == owner || !readable);
        return;
    }
    case 12: find(s.fd)->ended = in.chance(64); return;
    case 13: return tlsc_transport_cut_waits(in.chance(128));
    case 14: world.in_handshake = in.chance(64); return;
    default:
        if (in.chance(64)) close_session(s);
        return;
    }
}

}  // namespace

extern "C" {

int LLVMFuzzerInitialize(int *, char ***) {
    start_process();
    for (int i = 0; i < 70000; ++i) pattern += static_cast<char>(i % 251);
    return 0;
}
}

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    fuzz_input in(bytes, size);
    begin(&in);
    const uint8_t settings = in.byte();
    world.slices           = settings & 2 ? &in : nullptr;
    world.faults           = (settings & 1) != 0;
    world.countdown        = world.faults ? in.byte() : 255;
    tlsc_transport_cut_waits(false);
    tlsc_transport_collect(false);
    tlsc_transport_read_whole_records(false);

    for (unsigned i = 0; i < 200 && !in.empty(); ++i) {
        const long began = world.now;
        one_operation(in);
        MUST(world.now - began <= 3 * 32);  // a call waits for the peer a limited time, and at most for three things
        for (const session &s : sessions) check_outgoing(s);
    }
    for (session &s : sessions) close_session(s);
    MUST(world.live_ssl == 0);
    return 0;
}
