// The six timers of the tunnel: start, stop, and what happens when each expires, the rekey included. Everything here
// belongs to the tunnel thread, and is written by this module only.
#pragma once

#include <cstdint>

#include "tlsc.h"

extern "C" {

// The timer slots. Invariant: a slot is -1 or an open timerfd that is registered with epoll (timerfd_create(2)).
struct tlsc_timer_slots {
    int32_t dpd     = -1;  // dead-peer detection, one-shot
    int32_t retry   = -1;  // unanswered DPD request, periodic
    int32_t rekey   = -1;  // renewal of the connection
    int32_t fqdn    = -1;  // wait for the controller's name resolution, one-shot
    int32_t guard   = -1;  // wait for the configuration response, one-shot
    int32_t backoff = -1;  // pause before the next connection attempt, one-shot
};
extern tlsc_timer_slots tlsc_timers;

extern uint32_t tlsc_backoff_interval;   // seconds; 0 after start, after a good response and after the loop's end
extern int32_t  tlsc_retry_ref;          // DPD retries sent since the last response
extern int32_t  tlsc_rekey_in_progress;  // 1 from the rekey expiry to the next good response

// The connection that a rekey replaces, kept until the new one has its configuration response.
struct tlsc_transport {
    int32_t fd  = -1;       // -1 when none is kept
    ssl_st *ssl = nullptr;  // its TLS session; null when none is kept
};
extern tlsc_transport tlsc_old_transport;

// Starts the timer of the slot (one of tlsc_timers): once for one_shot 1, else periodically. Returns 1 when the timer
// runs afterwards, also when it was running already (it is then left as it is), 0 on failure.
// A DPD interval from 0 to 4 ends the process with SIGFPE.
int32_t tlsc_start_timer(int32_t *slot, int32_t one_shot);

// Disarms, unregisters and closes the timer of the slot. Returns 1, or 0 for a slot that holds no descriptor (logged).
int32_t tlsc_stop_timer(int32_t *slot);

// Stops every running timer, in the order retry, DPD, rekey, FQDN, backoff, guard.
void tlsc_stop_all_timers();

// The end of a run: stops every timer, and leaves neither a rekey in progress nor a grown backoff behind.
void tlsc_end_timers();

// Closes the timers that a run has left behind, without a line. Tunnel thread before a run, main thread behind the
// last.
void tlsc_abandon_timers();

// False when nothing would bring a silent tunnel back.
bool tlsc_is_any_timer_running();

// If fd is a timer's, handles its expiry and returns true. An expired timer is closed, but for the retry timer.
bool tlsc_handle_timer(tlsc_sock *sock, int32_t fd);

// DPD timer: sends a DPD request and starts the retry timer.
void tlsc_handle_dpd_expiry(tlsc_sock *sock);

// Retry timer: repeats the request three times, then gives the connection up.
void tlsc_handle_retry_expiry(tlsc_sock *sock);

// The peer has answered, or is given up: stops the retry timer and counts retries from 0.
void tlsc_stop_retries();

// Rekey and backoff timer: stops the data path and asks the controller for the gateway's address; connects at once
// when the controller cannot be asked.
void tlsc_handle_rekey_expiry(tlsc_sock *sock);

// Replaces the transport by a new connection to the configured gateway; the old one is kept until the response.
// Returns 1 or 7 as tlsc_create_tcp_conn does, or 0 on failure.
int32_t tlsc_start_rekey_proc(tlsc_sock *sock);

// A configuration response was processed: a rekey in progress has succeeded, the next backoff is short again.
void tlsc_note_good_response();

// Closes the old transport and its TLS session; the caller has logged why and taken it out of epoll if needed.
void tlsc_close_old_transport();

// The same without a line. Main thread, behind the last run.
void tlsc_abandon_old_transport();

// The old transport is still the current one, since the attempt to replace it got no further than to keep it: it is not
// the old one any more.
void tlsc_take_back_old_transport(tlsc_sock *sock);

// Releases the old transport's TLS session if it is the one of this descriptor, which was closed as another one's.
void tlsc_forget_old_transport(int32_t closed_fd);

}  // extern "C"
