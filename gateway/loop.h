#pragma once

#include <sys/epoll.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <unordered_map>

#include "unique_fd.h"

namespace gw {

// The one event loop: descriptors (level-triggered epoll, epoll(7)) and one-shot timers. Everything runs on the
// thread that calls run().
class event_loop {
public:
    using event_handler = std::function<void(uint32_t events)>;
    using timer_task    = std::function<void()>;
    using clock         = std::chrono::steady_clock;

    event_loop();  // throws RuntimeFailure

    // Calls `handler` with the epoll events of `fd` until forget(). Returns a number that is never used twice, so
    // that an event which was fetched before a descriptor was closed reaches nobody.
    uint64_t watch(int fd, uint32_t events, event_handler handler);
    void     modify(uint64_t watch, uint32_t events);
    void     forget(uint64_t watch);  // before the descriptor is closed; 0 is ignored

    // Runs `task` once after that time. Returns a number for cancel(), which ignores timers that are over, and 0.
    uint64_t after(std::chrono::milliseconds delay, timer_task task);
    void     cancel(uint64_t timer);

    // Serves events until stop(); `after_batch` runs when the events of one epoll_wait and the timers due have been
    // served.
    void run(const timer_task &after_batch);
    void stop() { running_ = false; }

private:
    struct watched {
        int                            fd;
        std::shared_ptr<event_handler> handler;
    };
    using timer_key = std::pair<clock::time_point, uint64_t>;

    int  wait_milliseconds() const;
    void run_due_timers();

    unique_fd                                       epoll_;
    std::unordered_map<uint64_t, watched>           watches_;
    std::map<timer_key, timer_task>                 timers_;
    std::unordered_map<uint64_t, clock::time_point> timer_times_;  // the other half of each key in timers_
    uint64_t                                        next_id_ = 1;
    bool                                            running_ = true;
};

}  // namespace gw
