// The kernel that the fuzzed daemon sees: descriptors with numbers of their own, a ledger of who owns them, and
// failures when the input says so. The linker puts these functions in the place of the system calls and of five calls
// into TLS; real descriptors, which only the fuzzer itself has, pass through.
//
// What the ledger holds against the daemon, whatever the input:
// - it never touches a descriptor that is not open, or that belongs to somebody else (another thread of the process);
// - of each kind it has no more than it can need at a time;
// - it never waits for ever for nothing.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "input.h"

namespace kernel {

enum class kind : uint8_t {
    none,
    epoll,
    timer,
    tun,
    stream,   // a TCP socket
    control,  // a socket for requests to interfaces
    pipe_in,
    pipe_out,
    fifo_in,   // the controller's messages
    fifo_out,  // messages to the controller
    log,
    other,    // opened by the daemon, of no interest
    foreign,  // another thread's: the daemon must not touch it
};

constexpr int first_number = 10000;  // numbers of the faked descriptors; whatever is below is real
constexpr int most         = 96;

struct descriptor {
    kind what       = kind::none;
    bool registered = false;  // with epoll
    bool armed      = false;  // timers
    bool periodic   = false;
    long seconds    = 0;  // of the armed timer
    bool connected  = false;
    bool shut       = false;  // shutdown(2) was called

    uint64_t data = 0;  // what epoll gives back

    // Of a TCP socket: what the peer has sent and the daemon has not received, and what it has sent itself.
    std::string incoming;
    std::string outgoing;
    bool        ended = false;  // the peer will send no more
};

struct machine {
    std::array<descriptor, most> table;
    fuzz_input                  *input = nullptr;  // null: nothing fails

    // Failures: after so many faultable calls one fails; 255 means none any more.
    bool     faults    = false;
    unsigned countdown = 255;

    // What the daemon wrote, per input.
    std::string              log;
    std::vector<std::string> to_tun;
    std::vector<std::string> to_peer;        // TLS records
    std::vector<uint32_t>    to_controller;  // message ids

    // What it will read.
    std::string              tun_packet;     // next packet; empty: the read fails with tun_errno
    int                      tun_errno = 5;  // of the next TUN read without a packet
    std::string              command;        // next bytes of the command pipe
    std::vector<std::string> messages;       // of the controller, last first
    std::string              record;         // next TLS record, for a session without the transport of the daemon's own

    bool process_begins = false;  // start_process runs

    // What the peer and TLS do next.
    int  ssl_error         = 0;  // SSL_get_error of the last call
    int  next_read_error   = 0;  // the next SSL_read fails with it
    bool in_handshake      = false;
    int  live_ssl          = 0;
    bool peer_knows_key    = true;
    bool controller_exists = true;

    // The socket under TLS: sizes of what one call moves, and whether a wait for the peer succeeds. Null: all at once.
    fuzz_input *slices = nullptr;
    long        now    = 1000;  // seconds of the monotonic clock; waits that end in vain move it

    // Called by epoll_wait: returns how many events it has filled in; -1 with errno.
    std::function<int(void *events, int max, int timeout)> on_wait;

    // How often the daemon waited since it last handled something, and what it did in all.
    unsigned steps = 0;
};

extern machine world;

// Everything that a run has left is forgotten; what belongs to the process (command pipe, log, FIFO) stays open.
void begin(fuzz_input *input);

// True when the input lets the present call fail, with errno set to one of the list.
bool fails(std::initializer_list<int> errors);

descriptor *find(int fd);  // null when the number is none of the faked ones
int         open_one(kind what);
size_t      count(kind what);
int         number_of(kind what);  // the lowest of this kind, -1 when there is none
int         number(const descriptor &entry);
bool        has_armed_timer();  // one that can wake the daemon
void        check_counts();

// Puts the daemon together for a process of its own, with the settings of a usual configuration file: FIFO, log,
// command pipe, TLS context, session. Once: a second call does nothing.
void start_process();

// What start_process has set: the fields of the configuration, the data path and the log level, as a process begins
// with.
void reset_process();

// How an input begins: in a process that has been put together, and that is as it began.
void begin_process(fuzz_input &input);

// Another thread opens a descriptor (the lowest number that is free) or closes all that it has.
void open_foreign();
void close_foreign();

// The peer sends these bytes as one TLS record.
void send_record(descriptor &stream, const std::string &content);

// True when the text, as a configuration response, sets a DPD interval that ends the process by contract.
bool is_deadly_response(const std::string &text);

}  // namespace kernel
