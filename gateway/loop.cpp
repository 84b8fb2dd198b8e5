#include "loop.h"

#include <cerrno>
#include <cstring>

#include "errors.h"

namespace gw {

Loop::Loop() : epoll_(epoll_create1(EPOLL_CLOEXEC)) {
    if (!epoll_) throw RuntimeFailure(std::string("cannot create an epoll instance: ") + strerror(errno));
}

uint64_t Loop::watch(int fd, uint32_t events, Handler handler) {
    uint64_t    id = next_id_++;
    epoll_event event{};
    event.events   = events;
    event.data.u64 = id;
    if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) != 0)
        throw RuntimeFailure(std::string("cannot watch a descriptor: ") + strerror(errno));
    watches_.emplace(id, Watch{fd, std::make_shared<Handler>(std::move(handler))});
    return id;
}

void Loop::modify(uint64_t watch, uint32_t events) {
    auto found = watches_.find(watch);
    if (found == watches_.end()) return;
    epoll_event event{};
    event.events   = events;
    event.data.u64 = watch;
    (void)epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, found->second.fd, &event);  // cannot fail for a registered descriptor
}

void Loop::forget(uint64_t watch) {
    auto found = watches_.find(watch);
    if (found == watches_.end()) return;
    (void)epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, found->second.fd, nullptr);  // closing the descriptor would do as well
    watches_.erase(found);
}

uint64_t Loop::after(std::chrono::milliseconds delay, Task task) {
    uint64_t id   = next_id_++;
    auto     time = Clock::now() + delay;
    timers_.emplace(TimerKey{time, id}, std::move(task));
    timer_times_.emplace(id, time);
    return id;
}

void Loop::cancel(uint64_t timer) {
    auto found = timer_times_.find(timer);
    if (found == timer_times_.end()) return;
    timers_.erase(TimerKey{found->second, timer});
    timer_times_.erase(found);
}

int Loop::wait_milliseconds() const {
    if (timers_.empty()) return -1;
    auto left = std::chrono::ceil<std::chrono::milliseconds>(timers_.begin()->first.first - Clock::now()).count();
    if (left <= 0) return 0;
    return left > 60000 ? 60000 : static_cast<int>(left);
}

void Loop::run_due_timers() {
    auto now = Clock::now();
    while (!timers_.empty() && timers_.begin()->first.first <= now) {
        auto due = timers_.extract(timers_.begin());
        timer_times_.erase(due.key().second);
        due.mapped()();
    }
}

void Loop::run(const Task &after_batch) {
    epoll_event events[64];
    while (running_) {
        int count = epoll_wait(epoll_.get(), events, std::size(events), wait_milliseconds());
        if (count < 0 && errno != EINTR) throw RuntimeFailure(std::string("epoll_wait failed: ") + strerror(errno));
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
