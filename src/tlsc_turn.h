// The tunnel thread's turn. It touches the tunnel and the configuration at work only. Where it waits for something
// outside it stands at a safepoint, and can be quiesced there: for a new reading of the configuration, for its end.
#pragma once

#include <cstdint>

extern "C" {

// Where a thread is, in the order of how much it touches.
enum tlsc_place : int32_t {
    TLSC_NO_RUN       = 0,  // no tunnel thread
    TLSC_AT_SAFEPOINT = 1,  // waits for events, for a connection, for the end of a pause: touches nothing
    TLSC_IN_TLS       = 2,  // inside OpenSSL, where it may wait for the peer: touches its TLS session only
    TLSC_AT_WORK      = 3,  // touches anything
};

// The calling thread is at this place while the object lives, and then again where it was. TLSC_AT_WORK around a run,
// or around a callback that OpenSSL calls; one of the two others around what may wait. Going to work waits while the
// tunnel is quiesced, and does not return on a thread whose run was retired meanwhile. A thread that is not at work is
// not concerned by the two others.
class tlsc_turn {
public:
    explicit tlsc_turn(tlsc_place place);
    ~tlsc_turn();
    tlsc_turn(const tlsc_turn &)            = delete;
    tlsc_turn &operator=(const tlsc_turn &) = delete;

private:
    const int32_t before_;
};

// Inside a call into OpenSSL, before it waits for the peer: a thread at work is inside OpenSSL from now on.
void tlsc_wait_in_tls();

// Behind such a call, which may have waited: the thread goes back to work, if it was there. Leaves errno alone.
void tlsc_back_to_work();

// True when somebody waits for the thread at work to come to a safepoint.
bool tlsc_is_awaited();

// Sleeps at a safepoint.
void tlsc_sleep_out_of_turn(unsigned seconds);

// Keeps the tunnel thread from work: waits at most the given seconds until it is at a safepoint, inside OpenSSL, or no
// more. Returns true when it is; it then stays out of work until it is resumed. Any thread but the tunnel thread.
bool tlsc_hold_tunnel_thread(int32_t seconds);

// The same for its end: waits until it is at a safepoint or no more. interrupt, if given, is called once when the
// thread is found inside OpenSSL, which it cannot leave meanwhile but for the gate: it may end what the thread waits
// for there.
bool tlsc_halt_tunnel_thread(int32_t seconds, void (*interrupt)());

// Lets a held or halted tunnel thread go on. Only after a success of one of the two, by who had it.
void tlsc_resume_tunnel_thread();

// Ends the run of a halted tunnel thread, and those that wait to begin: a thread that comes to the gate, or back from
// its safepoint, ends there without another step. Those that come after the next resumption begin anew. Only after a
// success of tlsc_halt_tunnel_thread, by who had it; that one then joins the thread, which it has cancelled before, and
// resumes.
void tlsc_retire_tunnel_thread();

}  // extern "C"
