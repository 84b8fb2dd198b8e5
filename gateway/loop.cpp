#include "loop.h"

#include <cerrno>
#include <cstring>

#include "errors.h"

namespace gw {

event_loop::event_loop() : epoll_(epoll_create1(EPOLL_CLOEXEC)) {
    if (!epoll_) throw runtime_failure(std::string("cannot create an epoll instance: ") + strerror(errno));
}

uint64_t event_loop::watch(int fd, uint32_t events, event_handler handler) {
    uint64_t    id = next_id_++;
    epoll_event event{};
    event.events   = events;
    event.data.u64 = id;
    if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) != 0)
        throw runtime_failure(std::string("cannot watch a descriptor: ") + strerror(errno));
    watches_.emplace(id, watched{fd, std::make_shared<event_handler>(std::move(handler))});
    return id;
}

void event_loop::modify(uint64_t watch, uint32_t events) {
    auto found = watches_.find(watch);
    if (found == watches_.end()) return;
    epoll_event event{};
    event.events   = events;
    event.data.u64 = watch;
    (void)epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, found->second.fd, &event);  // cannot fail for a registered descriptor
}

void event_loop::forget(uint64_t watch) {
    auto found = watches_.find(watch);
    if (found == watches_.end()) return;
    (void)epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, found->second.fd, nullptr);  // closing the descriptor would do as well
    watches_.erase(found);
}

uint64_t event_loop::after(std::chrono::milliseconds delay, timer_task task) {
    uint64_t id   = next_id_++;
    auto     time = clock::now() + delay;
    timers_.emplace(timer_key{time, id}, std::move(task));
    timer_times_.emplace(id, time);
    return id;
}

void event_loop::cancel(uint64_t timer) {
    auto found = timer_times_.find(timer);
    if (found == timer_times_.end()) return;
    timers_.erase(timer_key{found->second, timer});
    timer_times_.erase(found);
}

int event_loop::wait_milliseconds() const {
    if (timers_.empty()) return -1;
    auto left = std::chrono::ceil<std::chrono::milliseconds>(timers_.begin()->first.first - clock::now()).count();
    if (left <= 0) return 0;
    return left > 60000 ? 60000 : static_cast<int>(left);
}

void event_loop::run_due_timers() {
    auto now = clock::now();
    while (!timers_.empty() && timers_.begin()->first.first <= now) {
        auto due = timers_.extract(timers_.begin());
        timer_times_.erase(due.key().second);
        due.mapped()();
    }
}

void event_loop::run(const timer_task &after_batch) {
    epoll_event events[64];
    while (running_) {
        int count = epoll_wait(epoll_.get(), events, std::size(events), wait_milliseconds());
        if (count < 0 && errno != EINTR) throw runtime_failure(std::string("epoll_wait failed: ") + strerror(errno));
        for (int i = 0; i < count; i++) {
            auto found = watches_.find(events[i].data.u64);
            if (found == watches_.end()) continue;
            auto handler = found->second.handler;  // the handler may forget its own watch
            (*handler)(events[i].events);
        }
        run_due_timers();
        after_batch();
    }
}

}  // namespace gw
