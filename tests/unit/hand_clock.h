// Time in the test's hand: timers are armed as the code asks for it and noted; the test lets one expire when it wants.
// sleep() returns at once and is noted as well. For executables that wrap timerfd_settime and sleep.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include <sys/timerfd.h>

#include <gtest/gtest.h>

#include "tlsc_timer.h"

#include "tls_peer.h"

extern "C" int __real_timerfd_settime(int fd, int flags, const itimerspec *setting, itimerspec *old);

class hand_clock {
public:
    struct armed_timer {
        std::string name;
        int         fd;
        long        seconds;
    };

    // How often the timer was armed so far.
    static size_t count(const std::string &name) {
        const std::lock_guard<std::mutex> guard(mutex());
        size_t                            n = 0;
        for (const armed_timer &timer : timers()) n += timer.name == name;
        return n;
    }
    // Waits until the timer was armed so many times; false when that does not happen.
    static bool wait_for(const std::string &name, size_t times = 1) {
        return eventually([&] { return count(name) >= times; });
    }
    // The seconds of the last arming.
    static long seconds(const std::string &name) { return last(name).seconds; }

    // Lets the timer expire now.
    static void expire(const std::string &name) {
        const itimerspec at_once{{0, 0}, {0, 1}};
        EXPECT_EQ(__real_timerfd_settime(last(name).fd, 0, &at_once, nullptr), 0) << name;
    }

    static std::vector<unsigned> sleeps() {
        const std::lock_guard<std::mutex> guard(mutex());
        return slept();
    }
    static void forget() {
        const std::lock_guard<std::mutex> guard(mutex());
        timers().clear();
        slept().clear();
    }

    // Called inside every sleep while it is set.
    static inline std::atomic<void (*)()> during_sleep{nullptr};

    static void note_timer(int fd, long seconds) {
        const std::lock_guard<std::mutex> guard(mutex());
        timers().push_back({name_of(fd), fd, seconds});
    }
    static void note_sleep(unsigned seconds) {
        const std::lock_guard<std::mutex> guard(mutex());
        slept().push_back(seconds);
    }

private:
    static armed_timer last(const std::string &name) {
        const std::lock_guard<std::mutex> guard(mutex());
        for (auto timer = timers().rbegin(); timer != timers().rend(); ++timer)
            if (timer->name == name) return *timer;
        ADD_FAILURE() << "never armed: " << name;
        return {name, -1, -1};
    }
    // On the thread that arms it.
    static std::string name_of(int fd) {
        if (fd == tlsc_timers.dpd) return "dpd";
        if (fd == tlsc_timers.retry) return "retry";
        if (fd == tlsc_timers.rekey) return "rekey";
        if (fd == tlsc_timers.fqdn) return "fqdn";
        if (fd == tlsc_timers.guard) return "guard";
        if (fd == tlsc_timers.backoff) return "backoff";
        return "none";
    }
    static std::mutex &mutex() {
        static std::mutex instance;
        return instance;
    }
    static std::vector<armed_timer> &timers() {
        static std::vector<armed_timer> instance;
        return instance;
    }
    static std::vector<unsigned> &slept() {
        static std::vector<unsigned> instance;
        return instance;
    }
};

extern "C" int __wrap_timerfd_settime(int fd, int flags, const itimerspec *setting, itimerspec *old) {
    const bool arms   = setting->it_value.tv_sec != 0 || setting->it_value.tv_nsec != 0;
    const int  result = __real_timerfd_settime(fd, flags, setting, old);
    if (arms && result == 0) hand_clock::note_timer(fd, setting->it_value.tv_sec);
    return result;
}

extern "C" unsigned __wrap_sleep(unsigned seconds) {
    hand_clock::note_sleep(seconds);
    if (void (*call)() = hand_clock::during_sleep) call();
    return 0;
}
