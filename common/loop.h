// The one event loop of a program, on libuv: timers, descriptors, signals. Everything runs on the thread that calls
// run().
//
// Each watch is an object: when it goes, nothing is called any more, and it may go, or start anew, inside its own call.
// A call that throws is logged and ends there; the loop goes on. Watches must go before their loop.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

struct uv_loop_s;

namespace common {

using task         = std::function<void()>;
using milliseconds = std::chrono::milliseconds;

class loop {
public:
    loop();   // throws std::runtime_error when the system has no descriptors left
    ~loop();  // waits for nothing: a lookup that has not ended is left behind
    loop(const loop &)            = delete;
    loop &operator=(const loop &) = delete;

    // Serves events until stop(). after_pass: called when all that was ready has been served, each time round.
    void run(const task &after_pass = nullptr);

    // Ends run() after the present pass. A stop before run() counts.
    void stop();

    // Runs work on the loop's thread in a later pass, in the order of the calls. Called on the loop's thread.
    void later(task work);

    // True while the system works on a lookup that nobody can end; a program then leaves by _exit, or it waits for the
    // name server.
    bool is_held() const;

    uv_loop_s *raw() const;

private:
    struct room;
    friend class lookup;
    std::unique_ptr<room> room_;
};

// A timer; never early, late by what the pass needs.
class timer {
public:
    explicit timer(loop &owner);
    ~timer();
    timer(timer &&) noexcept;
    timer &operator=(timer &&) noexcept;

    // Calls work once after delay, or again and again with this period. A running timer is set anew.
    void start(milliseconds delay, task work);
    void repeat(milliseconds period, task work);
    void stop();
    bool is_running() const;

private:
    struct room;
    room *room_;
};

// What a descriptor is ready for; or-ed.
constexpr unsigned readable = 1;
constexpr unsigned writable = 2;
constexpr unsigned hung_up  = 4;  // the other side has ended its sending; seen without reading

// Watches a descriptor, which must stay open as long (level-triggered). One watch for each descriptor.
class descriptor_watch {
public:
    using handler = std::function<void(unsigned events)>;

    descriptor_watch(loop &owner, int fd);  // throws std::runtime_error for a descriptor that cannot be watched
    ~descriptor_watch();
    descriptor_watch(descriptor_watch &&) noexcept;
    descriptor_watch &operator=(descriptor_watch &&) noexcept;

    // Calls work with what of `events` the descriptor is ready for. A hang-up or an error counts as all of `events`;
    // after an error the watch pauses until the next start() or change().
    void start(unsigned events, handler work);

    // The same work for other events; 0 pauses: then a hang-up is not seen either.
    void change(unsigned events);

private:
    struct room;
    room *room_;
};

// Calls work for each signal of that number; several that come at once may be one call.
class signal_watch {
public:
    signal_watch(loop &owner, int number, task work);  // throws std::runtime_error
    ~signal_watch();
    signal_watch(const signal_watch &)            = delete;
    signal_watch &operator=(const signal_watch &) = delete;

private:
    struct room;
    room *room_;
};

}  // namespace common
