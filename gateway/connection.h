#pragma once

#include <openssl/ssl.h>

#include <chrono>
#include <list>
#include <optional>
#include <string>

#include "byte_queue.h"
#include "common/loop.h"
#include "common/unique_fd.h"
#include "counters.h"
#include "frame.h"

namespace gw {

class client_connection;

// How a connection ended.
struct connection_end {
    const char *by;   // "peer" or "gateway"
    const char *how;  // "fin", "rst", "close_notify", "alert", "error", "timeout"
    std::string detail;
};

// What a connection reports. All calls come from the loop's thread; a connection that has ended makes no further call.
class connection_owner {
public:
    virtual ~connection_owner()                                                                             = default;
    virtual void on_tls_up(client_connection &connection)                                                   = 0;
    virtual void on_tls_failed(client_connection &connection, const std::string &reason)                    = 0;
    virtual void on_alert(client_connection &connection, int level, int code)                               = 0;
    virtual void on_frame(client_connection &connection, const cstp_frame &frame)                           = 0;
    virtual void on_bad_stream(client_connection &connection, frame_parser::result reason, byte_view bytes) = 0;
    // Something waits: call flush() when the batch is over.
    virtual void on_output(client_connection &connection) = 0;
    // Destroy it later, not in this call.
    virtual void on_ended(client_connection &connection, const connection_end &ending) = 0;
};

// Sockets that the gateway has let go of: FIN, and what still arrives is thrown away for a while, because closing a
// socket with unread input sends an RST, which may overtake what the client has not read yet.
class farewells {
public:
    explicit farewells(common::loop &loop) : loop_(loop) {}

    // Sends the FIN after `before_fin`.
    void add(common::unique_fd socket, std::chrono::milliseconds before_fin);

private:
    struct farewell {
        farewell(common::loop &loop, common::unique_fd left);
        common::unique_fd        socket;
        common::descriptor_watch watch;  // goes before the socket
        common::timer            fin;
        common::timer            end;
    };

    common::loop       &loop_;
    std::list<farewell> open_;
};

// What all connections share.
struct surroundings {
    connection_owner &owner;
    common::loop     &loop;
    farewells        &leaving;
    counter_set      &totals;  // counted along with the connection's own counters
};

// One client connection: TCP, TLS, frames, and the bounded queue of packets for a client that reads slowly. Never
// blocks.
//
// In:  on_event -> receive -> continue_handshake | read_frames -> owner.on_frame
// Out: send_frame, send_data -> write_record -> OpenSSL -> out_ -> flush -> socket
//
// OpenSSL reads from input_ and writes to out_ through a BIO of ours, so it never meets the socket: SSL_write takes
// every record, one send() carries many of them, and how the peer ended the connection is seen here and not behind an
// error queue.
class client_connection {
public:
    enum class phase {
        stalled,
        handshake,
        open,
        ended
    };

    struct bounds {
        std::chrono::seconds handshake{10};
        size_t               queue = 1024;  // packets
    };

    // Takes the accepted, non-blocking socket.
    client_connection(uint64_t id, common::unique_fd socket, std::string peer, const surroundings &around,
                      const bounds &limits);
    virtual ~client_connection();
    client_connection(const client_connection &)            = delete;
    client_connection &operator=(const client_connection &) = delete;

    void start_tls(SSL_CTX *context);  // the server's side of the handshake
    void stall(bool read);  // no handshake: leave the client waiting, its bytes read and thrown away, or not read

    // One frame in one record, ahead of queued packets. False when the connection cannot send or too much waits
    // already.
    bool send_frame(uint8_t type, byte_view payload);

    // One data frame, header included, in one record; waits in the queue when the client is slow. False when the
    // queue is full.
    bool send_data(byte_view frame);

    // One record of this content type with exactly these bytes, at most crafted_record_limit. Throws
    // std::runtime_error.
    void send_record(uint8_t type, byte_view plain);

    // Bytes for the TCP stream, past TLS.
    void send_raw(byte_view bytes);

    // Sends `first` bytes of what waits now, and the rest after `gap`.
    void interrupt_output(size_t first, std::chrono::milliseconds gap);

    void flush();                  // writes to the socket what it takes
    void set_silent(bool silent);  // neither read nor write; the peer's end is still noticed
    void shut_sending();           // FIN, but go on reading

    // Ends by the gateway. Output that the socket does not take at once is lost.
    void end_with_fin(const std::string &detail);
    void end_with_notify(const std::string &detail);
    void end_with_reset(const std::string &detail);
    void end_with_alert(int level, int code);
    void end_for_error(const std::string &detail);

    uint64_t                  id() const { return id_; }
    const std::string        &peer() const { return peer_; }
    phase                     state() const { return state_; }
    bool                      is_open() const { return state_ == phase::open; }
    bool                      is_silent() const { return silent_; }
    bool                      is_half_shut() const { return half_shut_; }
    size_t                    queued() const { return queue_.size(); }
    size_t                    unsent() const { return out_.size(); }
    SSL                      *ssl() const { return ssl_; }
    std::chrono::milliseconds age() const;

    void count(counter which, uint64_t amount = 1) {
        counters_.add(which, amount);
        totals_.add(which, amount);
    }
    const counter_set &counters() const { return counters_; }

private:
    using clock = std::chrono::steady_clock;

    void on_event(unsigned events);
    void receive();
    void notice_end();
    void continue_handshake();
    void fail_handshake(const std::string &reason);
    void read_frames();
    bool take_plain(byte_view plain);
    void stop_reading(int result);
    bool write_record(byte_view bytes);
    void craft_record(uint8_t type, byte_view plain);
    void fill_from_queue();
    void update_interest();
    bool can_send() const { return state_ == phase::open && !half_shut_; }
    void let_go(std::chrono::milliseconds before_fin);
    void end(const connection_end &ending);

    static int               bio_read(BIO *bio, char *to, int size);
    static int               bio_write(BIO *bio, const char *from, int size);
    static long              bio_ctrl(BIO *bio, int command, long number, void *pointer);
    static const BIO_METHOD *bio_method();
    static void see_message(int write, int version, int type, const void *bytes, size_t size, SSL *ssl, void *self);
    static void see_state(const SSL *ssl, int where, int value);

    const uint64_t                          id_;
    common::unique_fd                       socket_;
    const std::string                       peer_;
    connection_owner                       &owner_;
    common::loop                           &loop_;
    farewells                              &leaving_;
    const bounds                            limits_;
    const clock::time_point                 born_  = clock::now();
    phase                                   state_ = phase::stalled;
    SSL                                    *ssl_   = nullptr;
    std::optional<common::descriptor_watch> watch_;
    unsigned                                interest_ = 0;  // events asked for
    std::optional<common::timer>            handshake_timer_;
    std::optional<common::timer>            gap_timer_;
    bool                                    reading_   = true;  // false: stalled without reading
    bool                                    silent_    = false;
    bool                                    half_shut_ = false;
    bool         blocked_ = false;  // the socket took less than offered: wait until it takes more
    byte_view    input_;            // received bytes that OpenSSL has not taken yet; only during receive()
    frame_parser parser_;
    byte_queue   out_;                  // encrypted bytes for the socket
    size_t       sendable_ = SIZE_MAX;  // how many of them may go out now, see interrupt_output
    frame_ring   queue_;                // data frames that wait until out_ has drained
    uint64_t     records_written_ = 0;  // since the ChangeCipherSpec, the Finished included
    int          alert_level_     = 0;  // last alert received
    int          alert_code_      = -1;
    counter_set  counters_;
    counter_set &totals_;
};

}  // namespace gw
