#include "tlsc_turn.h"

#include <atomic>
#include <cerrno>
#include <ctime>
#include <pthread.h>
#include <unistd.h>

namespace {

// One word holds it all, so that every step of the thread and of who quiesces it is one operation on it:
// the place of the running thread, the gate that keeps it from work, and the number of the run.
constexpr int32_t place_bits  = 3;
constexpr int32_t gate_shut   = 4;
constexpr int32_t gate_ending = 8;  // it is shut for the thread's end: a callback must return, not wait
constexpr int32_t next_run    = 16;
constexpr int32_t run_bits    = ~(next_run - 1);

std::atomic<int32_t> turn{TLSC_NO_RUN};

thread_local int32_t here = TLSC_NO_RUN;  // the place of this thread
thread_local int32_t run;                 // its run, while it has a place

constexpr timespec look_interval = {0, 1000000};  // between two looks at the place of a thread that is to stand still

// What was done at the place before is seen by who sees the thread at this one.
void step_back_to(int32_t place) {
    turn.fetch_sub(here - place, std::memory_order_release);
    here = place;
}

// A run that was retired meanwhile has nothing to give back.
void end_run() {
    int32_t seen = turn.load(std::memory_order_relaxed);
    while ((seen & run_bits) == run)
        if (turn.compare_exchange_weak(seen, seen & ~place_bits, std::memory_order_release, std::memory_order_relaxed))
            break;
    turn.notify_all();
    here = TLSC_NO_RUN;
}

// Nothing is unwound but the stack: what the run had was released by who retired it.
[[noreturn]] void end_retired_thread() {
    here = TLSC_NO_RUN;
    pthread_exit(nullptr);
}

// Waits while the gate is shut, and for a new run while there is another. at_gate: the place where it waits. Who
// retires runs cancels their threads first: one that comes to the gate later finds that.
void go_to_work(int32_t at_gate) {
    int32_t seen = turn.load(std::memory_order_relaxed);
    if (here == TLSC_NO_RUN) run = seen & run_bits;
    for (;;) {
        if ((seen & run_bits) != run) end_retired_thread();
        if (seen == (run | here)) {
            if (!turn.compare_exchange_weak(seen, run | TLSC_AT_WORK, std::memory_order_acquire,
                                            std::memory_order_relaxed))
                continue;
            here = TLSC_AT_WORK;
            return;
        }
        if (here > at_gate) {
            step_back_to(at_gate);
        } else {
            pthread_testcancel();
            turn.wait(seen, std::memory_order_relaxed);
        }
        seen = turn.load(std::memory_order_relaxed);
    }
}

// Who ends the thread waits until it comes out of OpenSSL: a callback goes on without its turn then. Nothing that it
// reads is released before.
bool is_callback_at_the_end() {
    return here == TLSC_IN_TLS && (turn.load(std::memory_order_acquire) & gate_ending) != 0;
}

timespec seconds_from_now(int32_t seconds) {
    timespec moment{};
    clock_gettime(CLOCK_MONOTONIC, &moment);
    moment.tv_sec += seconds;
    return moment;
}

bool is_past(const timespec &moment) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec > moment.tv_sec || (now.tv_sec == moment.tv_sec && now.tv_nsec >= moment.tv_nsec);
}

// One at a time: false while another one has the gate.
bool shut_gate(int32_t bits) {
    int32_t seen = turn.load(std::memory_order_relaxed);
    while ((seen & gate_shut) == 0)
        if (turn.compare_exchange_weak(seen, seen | bits)) return true;
    return false;
}

// True when the gate is shut and the thread's place is not beyond the given one.
bool quiesce(int32_t seconds, int32_t bits, int32_t place, void (*interrupt)()) {
    const timespec deadline = seconds_from_now(seconds);
    for (bool is_shut = false;;) {
        is_shut = is_shut || shut_gate(bits);
        if (is_shut) {
            const int32_t seen = turn.load(std::memory_order_acquire) & place_bits;
            if (seen <= place) return true;
            if (seen == TLSC_IN_TLS && interrupt) {
                interrupt();
                interrupt = nullptr;
            }
        }
        if (is_past(deadline)) {
            if (is_shut) tlsc_resume_tunnel_thread();
            return false;
        }
        (void)nanosleep(&look_interval, nullptr);
    }
}

}  // namespace

tlsc_turn::tlsc_turn(tlsc_place place) : before_(here) {
    if (place == TLSC_AT_WORK && here < TLSC_AT_WORK && !is_callback_at_the_end()) go_to_work(here);
    else if (here == TLSC_AT_WORK && place < TLSC_AT_WORK) step_back_to(place);
}

tlsc_turn::~tlsc_turn() {
    if (here == before_) return;
    if (before_ == TLSC_AT_WORK) go_to_work(TLSC_AT_SAFEPOINT);
    else if (before_ == TLSC_NO_RUN) end_run();
    else step_back_to(before_);
}

void tlsc_wait_in_tls() {
    if (here == TLSC_AT_WORK) step_back_to(TLSC_IN_TLS);
}

void tlsc_back_to_work() {
    if (here != TLSC_IN_TLS) return;
    const int saved = errno;
    go_to_work(TLSC_AT_SAFEPOINT);
    errno = saved;
}

bool tlsc_is_awaited() { return (turn.load(std::memory_order_relaxed) & gate_shut) != 0; }

void tlsc_sleep_out_of_turn(unsigned seconds) {
    tlsc_turn pause(TLSC_AT_SAFEPOINT);
    sleep(seconds);
}

bool tlsc_hold_tunnel_thread(int32_t seconds) { return quiesce(seconds, gate_shut, TLSC_IN_TLS, nullptr); }

bool tlsc_halt_tunnel_thread(int32_t seconds, void (*interrupt)()) {
    return quiesce(seconds, gate_shut | gate_ending, TLSC_AT_SAFEPOINT, interrupt);
}

void tlsc_resume_tunnel_thread() {
    turn.fetch_and(~(gate_shut | gate_ending), std::memory_order_release);
    turn.notify_all();
}

void tlsc_retire_tunnel_thread() {
    const int32_t next = (turn.load(std::memory_order_relaxed) & run_bits) + next_run;
    turn.store(next | gate_shut | gate_ending, std::memory_order_release);
    turn.notify_all();
}
